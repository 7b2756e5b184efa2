// Helpers shared by the test programs: running a program text on a context
// and reading registers by name.
#ifndef QZ_TEST_UTIL_H
#define QZ_TEST_UTIL_H

#include <vm_wrapper>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace qztest {

inline bool setCode(void* ctx, const std::vector<std::string>& lines) {
    std::vector<char*> ptrs;
    for (const std::string& l : lines) ptrs.push_back(const_cast<char*>(l.c_str()));
    return ctx_set_code(ctx, ptrs.data(), ptrs.size());
}

inline size_t reg(void* ctx, const char* name) { return ctx_read_reg(ctx, const_cast<char*>(name)); }

inline bool wreg(void* ctx, const char* name, size_t v) { return ctx_write_reg(ctx, const_cast<char*>(name), v); }

inline double regR(void* ctx, const char* name) {
    size_t b = reg(ctx, name);
    double d;
    std::memcpy(&d, &b, sizeof(d));
    return d;
}

inline size_t bitsOf(double d) {
    size_t b;
    std::memcpy(&b, &d, sizeof(b));
    return b;
}

inline bool wregR(void* ctx, const char* name, double d) { return wreg(ctx, name, bitsOf(d)); }

inline std::string regS(void* ctx, const char* name) {
    const std::string* s = reinterpret_cast<const std::string*>(reg(ctx, name));
    return s ? *s : std::string();
}

// Sets the program and runs it; exceptions pass through.
inline bool runLines(void* ctx, const std::vector<std::string>& lines) {
    setCode(ctx, lines);
    return run_ctx(ctx);
}

// A context that is destroyed at the end of the scope.
struct Ctx {
    void* p;
    Ctx() : p(create_ctx()) {}
    ~Ctx() { destroy_ctx(p); }
    operator void*() const { return p; }
    Ctx(const Ctx&) = delete;
    Ctx& operator=(const Ctx&) = delete;
};

// A scratch directory per test program, under the build tree.
inline std::string tmpPath(const std::string& name) {
    return std::string(QZ_BINARY_DIR) + "/tests/tmp_" + name;
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

inline std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// Runs the lines and returns the message of the exception that ended the run,
// or "" when the run succeeded.
inline std::string failureOf(void* ctx, const std::vector<std::string>& lines) {
    try {
        runLines(ctx, lines);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// Writes a text table under the build tree and returns its path.
inline std::string csvFile(const std::string& name, const std::string& text) {
    const std::string p = tmpPath(name + ".csv");
    writeFile(p, text);
    return p;
}

// A binary table file with no rows and n columns of sX categories each; the
// path is under the build tree.
inline std::string emptyBinaryTable(const std::string& name, uint64_t n, uint64_t sX) {
    std::string b;
    auto put = [&b](uint64_t v) { b.append(reinterpret_cast<const char*>(&v), 8); };
    put(0x2300246e69627a71ull);
    put(0);
    put(n);
    put(sX);
    const std::string p = tmpPath(name + ".bin");
    writeFile(p, b);
    return p;
}

}  // namespace qztest

#endif
