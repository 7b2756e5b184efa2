// Included once by a test program that checks a stretch of code for
// allocating nothing: every allocation of the program goes through the
// operator new below, which counts while gCountNew is set.
#ifndef QZ_COUNT_NEW_H
#define QZ_COUNT_NEW_H

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<bool> gCountNew{false};
std::atomic<long> gNewCalls{0};
}  // namespace

void* operator new(size_t n) {
    if (gCountNew.load(std::memory_order_relaxed)) gNewCalls.fetch_add(1);
    void* p = std::malloc(n ? n : 1);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

#endif
