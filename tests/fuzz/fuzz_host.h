// The frame shared by the fuzz hosts: each input is run in a child process
// through the C interface, and what became of it is sorted into one of four
// outcomes:
//
//   ok        the program ran to its end
//   error     it stopped with an exception (the clean report of bad input)
//   assertion it stopped on one of the library's documented assertions
//   defect    anything else: a signal, a sanitizer report, an assertion that
//             is not among the documented ones, a hang
//
// Inputs come from a seeded generator, so that `HOST --seed S --index I -v`
// replays one of them and prints what it ran.
#ifndef QZ_FUZZ_HOST_H
#define QZ_FUZZ_HOST_H

#include <vm_wrapper>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace qzfuzz {

typedef std::mt19937_64 Rng;

inline size_t pick(Rng& r, size_t n) { return n == 0 ? 0 : (size_t)(r() % n); }
inline bool chance(Rng& r, double p) { return std::uniform_real_distribution<double>(0, 1)(r) < p; }
template <typename T> const T& oneOf(Rng& r, const std::vector<T>& v) { return v[pick(r, v.size())]; }

// Numbers a hostile program likes: mostly small, sometimes at the edges of
// the index types.
inline std::string number(Rng& r) {
    static const std::vector<std::string> edges = {"255", "256", "65535", "65536", "4294967295", "4294967296",
                                                   "18446744073709551615", "100000", "1000"};
    if (chance(r, 0.1)) return oneOf(r, edges);
    return std::to_string(pick(r, 7));
}

inline std::string real(Rng& r) {
    static const std::vector<std::string> v = {"0.0", "0.1", "1.0", "-1.0", "2.5", "1e-9", "1e300", "-0.5", "nan", "inf"};
    return oneOf(r, v);
}

// The library's assertions that the design documents; stopping on one of
// them is required behaviour, not a defect.
inline const std::set<std::string>& documentedAssertions() {
    static const std::set<std::string> s = {"false", "c<n+H", "col<n+H", "col<n+H && row<N", "ignore || col<n+H",
                                            "ignore || v<categories(col) || v==MIS_VAL", "x<categories(c)",
                                            "x<categories(0)", "col>=n && col<n+H && added[col]", "i==n*N",
                                            "magic == 0x2300246e69627a71", "_c>=0 && _c<_n", "found", "x==a",
                                            "Imax < upper", "sum>=0", "R!=0", "a<=b && a*scale>=a",
                                            "emp[i]*scale>=emp[i]", "!H->isSeparator(C)", "H->isSeparator(S)",
                                            "xs!=(idx_t)-1&&xt!=(idx_t)-1", "!std::isnan(PSUM)", "pid<N",
                                            "largest_active>0"};
    return s;
}

// A scratch folder of the input, removed when the input is done.
struct Scratch {
    std::string dir;
    explicit Scratch(const std::string& base) {
        char t[4096];
        std::snprintf(t, sizeof(t), "%s/qzfuzz.XXXXXX", base.c_str());
        dir = mkdtemp(t) ? t : base;
    }
    ~Scratch() {
        // QZFUZZ_KEEP keeps the input's files for a closer look.
        if (std::getenv("QZFUZZ_KEEP") != nullptr) {
            std::fprintf(stderr, "kept %s\n", dir.c_str());
            return;
        }
        if (!dir.empty()) {
            const std::string cmd = "rm -rf '" + dir + "'";
            if (std::system(cmd.c_str()) != 0) {
            }
        }
    }
    std::string path(const std::string& name) const { return dir + "/" + name; }
};

inline void writeFile(const std::string& p, const std::string& bytes) {
    std::ofstream f(p, std::ios::binary | std::ios::trunc);
    f << bytes;
}

inline std::string readFile(const std::string& p) {
    std::ifstream f(p, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

inline std::string q(const std::string& s) { return "'" + s + "'"; }

// One program run on a fresh context. true: it ran to its end; an exception
// passes to the caller. Reports what it runs in verbose mode.
inline bool runProgram(const std::vector<std::string>& lines, bool verbose) {
    if (verbose) {
        std::fprintf(stderr, "--- program\n");
        for (const std::string& l : lines) std::fprintf(stderr, "%s\n", l.c_str());
    }
    void* ctx = create_ctx();
    std::vector<char*> ptrs;
    for (const std::string& l : lines) ptrs.push_back(const_cast<char*>(l.c_str()));
    ctx_set_code(ctx, ptrs.data(), ptrs.size());
    run_ctx(ctx);
    destroy_ctx(ctx);
    return true;
}

struct Outcome {
    std::string kind;    // ok, error, assertion, defect
    std::string detail;  // the message, the assertion, or what went wrong
    std::string log;     // what the child wrote to its standard error
};

inline Outcome sortOut(int status, const std::string& out, int seconds);

// Some loops end only when the host interrupts them (a sampling engine that
// never reaches its mass on a small model): a child that runs for a second
// gets the interrupt a user would send; one that still runs after the time
// limit has hung.
inline int& hangLimit() {
    static int s = 60;
    return s;
}

extern "C" inline void onChildAlarm(int) {
    static volatile sig_atomic_t interrupted = 0;
    if (!interrupted) {
        interrupted = 1;
        ctrlchandler(0);
        alarm((unsigned)hangLimit());
        return;
    }
    _exit(99);
}

// Runs body in a child process with a time limit (and, without the address
// sanitizer, a limit on its memory) and sorts out what became of it.
inline Outcome runChild(const std::function<void()>& body, int seconds) {
    int err[2];
    if (pipe(err) != 0) return {"defect", "no pipe"};
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(err[0]);
        dup2(err[1], 2);
        close(err[1]);
        hangLimit() = seconds;
        signal(SIGALRM, onChildAlarm);
        alarm(1);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        struct rlimit rl = {(rlim_t)4 << 30, (rlim_t)4 << 30};
        setrlimit(RLIMIT_AS, &rl);
#endif
        try {
            body();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "\nQZFUZZ-ERROR %s\n", e.what());
            std::fflush(stderr);
            _exit(3);
        } catch (...) {
            std::fprintf(stderr, "\nQZFUZZ-ERROR (not a std::exception)\n");
            std::fflush(stderr);
            _exit(3);
        }
        std::fflush(stderr);
        _exit(0);
    }
    close(err[1]);
    std::string out;
    char buf[4096];
    ssize_t k;
    while ((k = read(err[0], buf, sizeof(buf))) > 0)
        if (out.size() < (1u << 20)) out.append(buf, (size_t)k);
    close(err[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    Outcome o = sortOut(status, out, seconds);
    o.log = out;
    return o;
}

inline Outcome sortOut(int status, const std::string& out, int seconds) {
    // The address sanitizer's operator new reports an allocation it cannot
    // serve and stops, where the library's own allocator throws
    // std::bad_alloc: a clean error either way.
    if (out.find("AddressSanitizer: allocator is out of memory") != std::string::npos ||
        out.find("AddressSanitizer: requested allocation size") != std::string::npos ||
        out.find("AddressSanitizer: out of memory") != std::string::npos)
        return {"error", "std::bad_alloc (the sanitizer's allocator gave up)", ""};
    const bool sanitizer = out.find("ERROR: AddressSanitizer") != std::string::npos ||
                           out.find("runtime error:") != std::string::npos ||
                           out.find("ERROR: LeakSanitizer") != std::string::npos ||
                           out.find("WARNING: ThreadSanitizer") != std::string::npos;
    if (sanitizer) {
        const size_t at = out.find("ERROR: AddressSanitizer") != std::string::npos ? out.find("ERROR: AddressSanitizer")
                                                                                    : out.find("runtime error:");
        return {"defect", "sanitizer: " + out.substr(at, out.find('\n', at) - at)};
    }
    if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        if (code == 0) return {"ok", ""};
        if (code == 99) return {"defect", "no end within " + std::to_string(seconds) + " s after an interrupt", ""};
        if (code == 3) {
            const size_t at = out.rfind("QZFUZZ-ERROR ");
            std::string m = at == std::string::npos ? "" : out.substr(at + 13);
            while (!m.empty() && m.back() == '\n') m.pop_back();
            return {"error", m};
        }
        return {"defect", "exit code " + std::to_string(code) + (out.empty() ? "" : ": " + out.substr(0, 300))};
    }
    if (WIFSIGNALED(status)) {
        const int sig = WTERMSIG(status);
        if (sig == SIGALRM) return {"defect", "no end within " + std::to_string(seconds) + " s"};
        if (sig == SIGABRT) {
            const size_t a = out.find("Assertion `");
            if (a != std::string::npos) {
                const size_t b = out.find("' failed", a);
                const std::string expr = out.substr(a + 11, b == std::string::npos ? 0 : b - a - 11);
                if (documentedAssertions().count(expr)) return {"assertion", expr};
                return {"defect", "undocumented assertion " + expr};
            }
            return {"defect", "abort: " + out.substr(0, 300)};
        }
        return {"defect", std::string("signal ") + strsignal(sig) + (out.empty() ? "" : ": " + out.substr(0, 300))};
    }
    return {"defect", "unknown end"};
}

// Command line: --seed S --count N [--index I] [-v] [--seconds T] [--out DIR]
struct Options {
    uint64_t seed = 1;
    size_t count = 500;
    long index = -1;
    bool verbose = false;
    int seconds = 60;
    double budget = 0;  // stop after this many seconds, 0: no limit
    std::string out = "/tmp";
};

inline Options parseOptions(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const auto next = [&]() { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (a == "--seed") o.seed = std::stoull(next());
        else if (a == "--count") o.count = std::stoull(next());
        else if (a == "--index") o.index = std::stol(next());
        else if (a == "-v") o.verbose = true;
        else if (a == "--seconds") o.seconds = std::stoi(next());
        else if (a == "--budget") o.budget = std::stod(next());
        else if (a == "--out") o.out = next();
        else {
            std::fprintf(stderr, "usage: %s [--seed S] [--count N] [--index I] [-v] [--seconds T] [--budget S] [--out DIR]\n",
                         argv[0]);
            std::exit(2);
        }
    }
    return o;
}

// The input generator of a target: writes its files into the scratch folder
// and returns what the child runs.
typedef std::function<std::function<void()>(Rng&, const Scratch&, bool verbose)> Target;

// Runs count inputs (or the one of --index), prints the outcomes by class,
// and returns 1 if any input was a defect.
inline int fuzzMain(const char* name, int argc, char** argv, const Target& target) {
    const Options o = parseOptions(argc, argv);
    std::map<std::string, size_t> kinds;
    std::map<std::string, size_t> details;
    std::vector<std::string> defects;
    const auto start = std::chrono::steady_clock::now();
    size_t done = 0;
    for (size_t i = 0; i < o.count; ++i) {
        if (o.index >= 0 && (long)i != o.index) continue;
        if (o.budget > 0 &&
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > o.budget)
            break;
        Rng r(o.seed * 0x9E3779B97F4A7C15ull + i);
        Scratch s(o.out);
        const std::function<void()> body = target(r, s, o.verbose);
        const Outcome out = runChild(body, o.seconds);
        ++done;
        ++kinds[out.kind];
        if (out.kind == "defect") {
            defects.push_back("  input " + std::to_string(i) + ": " + out.detail);
        } else if (out.kind != "ok") {
            // Messages differ in file names and numbers; the first words group them.
            std::string key = out.detail.substr(0, 40);
            ++details[out.kind + ": " + key];
        }
        if (o.verbose)
            std::fprintf(stderr, "%s=== input %zu: %s %s\n", out.log.c_str(), i, out.kind.c_str(), out.detail.c_str());
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%s: seed %" PRIu64 ", %zu inputs in %.1f s: %zu ok, %zu error, %zu assertion, %zu defect\n", name, o.seed,
                done, secs, kinds["ok"], kinds["error"], kinds["assertion"], kinds["defect"]);
    if (o.verbose || !defects.empty())
        for (const auto& kv : details) std::printf("  %6zu  %s\n", kv.second, kv.first.c_str());
    for (const std::string& d : defects) std::printf("%s\n", d.c_str());
    if (!defects.empty())
        std::printf("replay one with: %s --seed %" PRIu64 " --count %zu --index I -v\n", name, o.seed, o.count);
    return defects.empty() ? 0 : 1;
}

// ---------------------------------------------------------------- shared pieces of inputs

// A text table of rows x cols with a few tokens per column, a header and the
// line the reader skips.
inline std::string textTable(Rng& r, size_t rows, size_t cols, double missing) {
    std::string t;
    for (size_t c = 0; c < cols; ++c) t += (c ? "," : "") + std::string("c") + std::to_string(c);
    t += "\n";
    for (size_t c = 0; c < cols; ++c) t += c ? ",s" : "s";
    t += "\n";
    std::vector<size_t> k(cols);
    for (size_t c = 0; c < cols; ++c) k[c] = 1 + pick(r, 4);
    for (size_t i = 0; i < rows; ++i) {
        for (size_t c = 0; c < cols; ++c) {
            if (c) t += ",";
            t += chance(r, missing) ? "?" : std::string(1, (char)('a' + pick(r, k[c])));
        }
        t += "\n";
    }
    return t;
}

// What a model instruction sequence looks like after a table and a graph.
// The enumeration of all joint states (SLW) is work the program asks for and
// does not stop at an interrupt: on a table whose joint states are too many
// to count (enumerable false) it becomes a plain INFER, with the same draws.
inline std::vector<std::string> queries(Rng& r, const Scratch& s, const bool enumerable = true) {
    std::vector<std::string> all = {"INFER;",
                                    "SCORE;",
                                    "PPX true PREDICT;",
                                    "PREDICT;",
                                    "PAM 0.0 SAMPLE;",
                                    "PAM 0.1 SAMPLE;",
                                    "OPT 4 STP 0.1 MIO 3 ESTIMATE;",
                                    "OPT 6 STP 0.1 MIO 3 LAM 0.01 ESTIMATE;",
                                    "STATS;",
                                    "INITZERO;",
                                    "INITGAUSS;",
                                    "CLOSEDFORM;",
                                    "MFN " + q(s.path("out.mod")) + " OVW true STORE MPT;",
                                    "GFN " + q(s.path("out.adj")) + " OVW true FMT ADJ STORE GPT;",
                                    "GFN " + q(s.path("out.tgf")) + " OVW true FMT TGF STORE GPT;",
                                    "GFN " + q(s.path("out.fg")) + " OVW true FMT FG STORE GPT;",
                                    "DFN " + q(s.path("out.csv")) + " OVW true STORE DPT;",
                                    "DEL DPT;",
                                    "DEL GPT;",
                                    "LDX GPT;",
                                    "MFN " + q(s.path("out.mod")) + " LDX MPT;",
                                    "SLW true INFER;",
                                    "ALG JT INFER;",
                                    "ALG JT SCORE;",
                                    "REP ISING INFER;",
                                    "REP ISING OPT 4 STP 0.1 MIO 3 ESTIMATE;",
                                    "ALG EA11 MIO 3 ESTIMATE;",
                                    "ALG IGD MIO 3 ESTIMATE;",
                                    "INITLATENT;",
                                    "STGRAPH;",
                                    "JUNCTIONTREE;",
                                    "BASEGRAPH;"};
    std::vector<std::string> out;
    const size_t n = 1 + pick(r, 6);
    for (size_t i = 0; i < n; ++i) out.push_back(oneOf(r, all));
    if (!enumerable)
        for (std::string& l : out)
            if (l == "SLW true INFER;") l = "INFER;";
    // The sampling engine may draw until the interrupt on a small model,
    // which costs a second: it comes into few inputs.
    if (chance(r, 0.02)) out.insert(out.begin() + (long)pick(r, out.size()), "ALG SQM KXX 2 MIL 40 INFER;");
    return out;
}

inline std::string typePair(Rng& r) {
    static const std::vector<std::string> pairs = {
        "idx_t UINT64 val_t FLT64", "idx_t UINT32 val_t FLT32", "idx_t UINT16 val_t FLT64", "idx_t UINT8 val_t FLT32",
        "idx_t UINT8 val_t FLT64",  "idx_t UINT64 val_t FLT32", "idx_t UINT32 val_t UINT32", "idx_t UINT16 val_t UINT8"};
    return chance(r, 0.6) ? pairs[0] : oneOf(r, pairs);
}

inline std::string graphKind(Rng& r) {
    static const std::vector<std::string> kinds = {"GRA CHAIN", "GRA FULL", "GRA GRID", "GRA STAR", "GRA RBM",
                                                   "GRA OTHER", "GRA CHOWLIU", "GRA CLIQUES", "GRA JT", "GRA 13"};
    return chance(r, 0.5) ? kinds[0] : oneOf(r, kinds);
}

}  // namespace qzfuzz

#endif
