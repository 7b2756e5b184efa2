// Included once by a test program that checks code for giving back what it
// allocates: every allocation and release of the program goes through the
// operators below, which keep the number of live blocks.
#ifndef QZ_LIVE_COUNT_H
#define QZ_LIVE_COUNT_H

#include <cstdlib>
#include <new>

namespace qztest {
inline long long& liveCounter() {
    static long long live = 0;
    return live;
}
// Blocks allocated through new and not yet released.
inline long long liveBlocks() { return __atomic_load_n(&liveCounter(), __ATOMIC_RELAXED); }
}  // namespace qztest

void* operator new(size_t n) {
    void* p = std::malloc(n ? n : 1);
    if (!p) throw std::bad_alloc();
    __atomic_add_fetch(&qztest::liveCounter(), 1, __ATOMIC_RELAXED);
    return p;
}
void* operator new[](size_t n) { return operator new(n); }
void operator delete(void* p) noexcept {
    if (!p) return;
    __atomic_sub_fetch(&qztest::liveCounter(), 1, __ATOMIC_RELAXED);
    std::free(p);
}
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, size_t) noexcept { operator delete(p); }
void operator delete[](void* p, size_t) noexcept { operator delete(p); }

#endif
