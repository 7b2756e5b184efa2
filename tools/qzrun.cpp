// qzrun: runs a program file on a fresh context.
//
//   qzrun PROGRAM.qz [-r REG=VALUE]... [-p REG]...
//
// -r writes a register before the run, by the register's kind; -p prints a
// register after the run. A failed program prints "error at line N: MESSAGE"
// (N counted from 1) and exits with 1; a bad command line exits with 2.
#include <vm_wrapper>
#include <QZ/QZMISC>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using QZ::vm_t;

void* g_ctx = nullptr;
bool g_progressShown = false;
bool g_stderrTty = false;

void usage() {
    std::cerr << "usage: qzrun PROGRAM.qz [-r REG=VALUE]... [-p REG]...\n"
                 "  -r REG=VALUE  write a register before the run (reals as numbers, strings as text,\n"
                 "                characters as one character, booleans as true/false/1/0)\n"
                 "  -p REG        print a register after the run\n";
}

size_t lineOfContext();
void endProgress();

// Draws one progress line on stderr, only for a terminal. A warning of the
// library (a text that starts with "warning: ") is printed on a line of its
// own whatever stderr is, with the program line it comes from.
void progress(size_t done, size_t total, const char* text) {
    static const char kWarning[] = "warning: ";
    if (text != nullptr && std::strncmp(text, kWarning, sizeof(kWarning) - 1) == 0) {
        endProgress();
        std::fprintf(stderr, "warning at line %zu: %s\n", lineOfContext(), text + sizeof(kWarning) - 1);
        std::fflush(stderr);
        return;
    }
    if (!g_stderrTty) return;
    const double pct = total ? 100.0 * (double)done / (double)total : 100.0;
    std::fprintf(stderr, "\r%-12s %zu/%zu %5.1f%%", text ? text : "", done, total, pct);
    std::fflush(stderr);
    g_progressShown = true;
}

void endProgress() {
    if (g_progressShown) {
        std::fputc('\n', stderr);
        g_progressShown = false;
    }
}

// The program counter, read without allocating: this also runs inside the
// signal handlers.
size_t lineOfContext() { return g_ctx ? static_cast<const vm_t*>(g_ctx)->bits(vm_t::LNN) + 1 : 0; }

// Says where the program stood and leaves with a failure instead of a core
// dump. Runs inside a signal handler: the line is formatted on the stack,
// written with one write() and the process ends with _exit, without unwinding.
void fatal(const char* what) {
    endProgress();
    char buf[400];
    const int n = std::snprintf(buf, sizeof(buf), "error at line %zu: %s\n", lineOfContext(), what);
    if (n > 0) {
        ssize_t w = write(2, buf, (size_t)n < sizeof(buf) ? (size_t)n : sizeof(buf) - 1);
        (void)w;
    }
    _exit(1);
}

// Faults and failed checks may come from several threads at once (the
// library's parallel loops): the first one reports and ends the process, any
// other waits for that.
std::atomic<int> g_failing{0};
pid_t g_mainThread = 0;

void firstFailureOnly() {
    if (g_failing.exchange(1) != 0)
        for (;;) pause();
}

const char* threadNote() { return (pid_t)syscall(SYS_gettid) == g_mainThread ? "" : " on a worker thread"; }

// The pointer or string register whose object the address lies in, or null.
const char* registerAt(uintptr_t addr) {
    if (g_ctx == nullptr) return nullptr;
    const vm_t* vm = static_cast<const vm_t*>(g_ctx);
    for (const vm_t::VarRow& r : vm_t::registerTable()) {
        if (r.kind != vm_t::POINTER && r.kind != vm_t::STRING) continue;
        const uintptr_t p = (uintptr_t)vm->bits(r.var);
        if (p > 1 && addr >= p && addr - p < 65536) return r.text;
    }
    return nullptr;
}

// An internal check of the library failed, or a second interrupt came.
extern "C" void onAbort(int) {
    firstFailureOnly();
    char what[160];
    std::snprintf(what, sizeof(what), "%s%s", __run ? "the library stopped on a failed internal check" : "interrupted",
                  threadNote());
    fatal(what);
}

// A program can hand the library any number as a pointer (GPT 8, EDP 16, a
// string popped into a pointer register). When the faulting address lies in
// what a pointer register names, that register is blamed; otherwise the
// report says only what is known.
extern "C" void onFault(int sig, siginfo_t* si, void*) {
    firstFailureOnly();
    char what[320];
    const uintptr_t addr = (uintptr_t)si->si_addr;
    const char* reg = sig == SIGFPE ? nullptr : registerAt(addr);
    if (sig == SIGFPE)
        std::snprintf(what, sizeof(what), "arithmetic fault%s", threadNote());
    else if (reg != nullptr)
        std::snprintf(what, sizeof(what), "invalid memory access at address %#lx%s: register %s holds no valid object",
                      (unsigned long)addr, threadNote(), reg);
    else
        std::snprintf(what, sizeof(what),
                      "invalid memory access at address %#lx%s (no pointer register names it: a defect of the "
                      "library, or memory behind a pointer that is no longer valid)",
                      (unsigned long)addr, threadNote());
    fatal(what);
}

// The handlers run on their own stack on the main thread, so that a fault
// from a stack overflow is reported as well. They stay installed: a fault on
// a second thread while the first is reported must not end the process by
// the default action.
void installFaultHandlers() {
    static char altstack[1 << 16];
    stack_t ss;
    ss.ss_sp = altstack;
    ss.ss_size = sizeof(altstack);
    ss.ss_flags = 0;
    sigaltstack(&ss, nullptr);
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_sigaction = onFault;
    sa.sa_flags = SA_ONSTACK | SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigaction(sig, &sa, nullptr);
}

// ---------------------------------------------------------------- table shape

// Where a line loads a table (LDX DPT), or npos. Text behind the first ';'
// is a comment.
size_t tableLoadAt(const std::string& l) {
    if (l.empty() || l[0] == '#') return std::string::npos;
    const size_t semi = l.find(';');
    for (size_t p = l.find("LDX"); p != std::string::npos && p < semi; p = l.find("LDX", p + 3)) {
        size_t q = p + 3;
        while (q < l.size() && (l[q] == ' ' || l[q] == '\t')) ++q;
        if (l.compare(q, 4, "DPT;") == 0) return p;
    }
    return std::string::npos;
}

// The table reader takes every row to be as long as the first and stops on an
// internal check otherwise. A text file that LDX DPT is about to read is
// looked at first, as the reader will see it (a header, then one line that
// is skipped, empty lines ignored), and a row of another length is reported
// as the program's error. Empty means the shape is fine or not ours to judge
// (host memory, a binary table, a missing file).
std::string tableShapeError(void* ctx) {
    if (ctx_read_reg(ctx, const_cast<char*>("EDP")) != 0) return "";
    const std::string* dfn = reinterpret_cast<const std::string*>(ctx_read_reg(ctx, const_cast<char*>("DFN")));
    if (dfn == nullptr) return "";
    std::ifstream f(*dfn, std::ios::binary);
    if (!f) return "";
    char magic[8] = {0};
    f.read(magic, 8);
    if (f.gcount() == 8 && std::memcmp(magic, "qzbin$\0#", 8) == 0) return "";
    f.clear();
    f.seekg(0);
    const bool header = (ctx_read_reg(ctx, const_cast<char*>("HED")) & 0xff) != 0;
    std::string line;
    size_t no = 0, expected = 0, first = 0;
    if (header && std::getline(f, line)) ++no;
    if (std::getline(f, line)) ++no;
    while (std::getline(f, line)) {
        ++no;
        if (line.empty()) continue;
        const size_t cells = (size_t)std::count(line.begin(), line.end(), ',') + 1;
        if (first == 0) {
            first = no;
            expected = cells;
        } else if (cells != expected) {
            return "table " + *dfn + ": line " + std::to_string(no) + " has " + std::to_string(cells) +
                   " cells, expected " + std::to_string(expected) + " (as line " + std::to_string(first) + ")";
        }
    }
    return "";
}

// Whether text in front of LDX on a line holds more than assignments.
bool holdsInstruction(const std::string& text) {
    static const char* const mnemonics[] = {"ESTIMATE", "STATS", "MODEL", "INFER", "PREDICT", "SCORE", "SAMPLE",
                                            "SET", "STGRAPH", "BOLTZMANNTREE", "JUNCTIONTREE", "BASEGRAPH",
                                            "CLEARSTACK", "INITLATENT", "CLOSEDFORM", "INITGAUSS", "INITZERO", "INC",
                                            "DEC", "STORE", "DEL", "BRA", "PUSH", "POP", "MOV", "ADD", "MUL", "BNZ",
                                            "BLT", "BNE"};
    for (const char* m : mnemonics)
        if (text.find(m) != std::string::npos) return true;
    return false;
}

void setProgram(void* ctx, const std::vector<std::string>& code) {
    std::vector<char*> ptrs;
    for (const std::string& l : code) ptrs.push_back(const_cast<char*>(l.c_str()));
    ctx_set_code(ctx, ptrs.data(), ptrs.size());
}

// Runs the program from LNN as one run_ctx would, but stops before every line
// that loads a table, so that its file is checked first (tableShapeError).
// A stop is a line of the program replaced by an assignment of LNN far past
// its end: the run ends there, and LNN tells which line comes next. All other
// lines stay as they are, so line numbers, jumps and registers behave as in
// one run. Exceptions of the program pass through. The result is "" or the
// message of a table of the wrong shape, with *line its program line.
std::string runProgram(void* ctx, const std::vector<std::string>& lines, size_t* line) {
    std::vector<size_t> loadAt(lines.size());
    bool loads = false;
    for (size_t i = 0; i < lines.size(); ++i) {
        loadAt[i] = tableLoadAt(lines[i]);
        loads = loads || loadAt[i] != std::string::npos;
    }
    if (!loads) {
        run_ctx(ctx);
        return "";
    }
    const size_t STOP = (size_t)1 << 40;
    const auto stop = [STOP](size_t j) { return "LNN " + std::to_string(STOP + j); };
    // Runs code from line `from`; the line to go on with, or npos at the end.
    const auto runFrom = [&](const std::vector<std::string>& code, size_t from) {
        setProgram(ctx, code);
        ctx_write_reg(ctx, const_cast<char*>("LNN"), from);
        run_ctx(ctx);
        const size_t l = ctx_read_reg(ctx, const_cast<char*>("LNN"));
        return l > STOP && l - STOP - 1 < code.size() ? l - STOP - 1 : std::string::npos;
    };
    std::vector<std::string> withStops = lines;
    for (size_t i = 0; i < lines.size(); ++i)
        if (loadAt[i] != std::string::npos) withStops[i] = stop(i);
    size_t next = ctx_read_reg(ctx, const_cast<char*>("LNN"));
    while (next < lines.size()) {
        if (loadAt[next] == std::string::npos) {
            next = runFrom(withStops, next);
            continue;
        }
        // The loading line alone, every other line a stop: first the
        // assignments in front of LDX, which may name the file, then the
        // check, then the whole line.
        std::vector<std::string> alone(lines.size());
        for (size_t j = 0; j < lines.size(); ++j) alone[j] = stop(j);
        const std::string before = lines[next].substr(0, loadAt[next]);
        if (before.find_first_not_of(" \t") != std::string::npos && !holdsInstruction(before)) {
            alone[next] = before + " " + stop(next);
            runFrom(alone, next);
        }
        const std::string bad = tableShapeError(ctx);
        if (!bad.empty()) {
            *line = next + 1;
            return bad;
        }
        alone[next] = lines[next];
        next = runFrom(alone, next);
    }
    return "";
}

bool parseBool(const std::string& v, bool& out) {
    if (v == "true" || v == "TRUE" || v == "1") {
        out = true;
        return true;
    }
    if (v == "false" || v == "FALSE" || v == "0") {
        out = false;
        return true;
    }
    return false;
}

bool parseUnsigned(const std::string& v, size_t& out) {
    if (v.empty() || v.find_first_not_of("0123456789") != std::string::npos) return false;
    try {
        out = std::stoull(v);
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

// Converts a command-line value by the register's kind; false for a value
// that the kind cannot take.
bool encodeValue(vm_t::TypeType kind, const std::string& v, size_t& out) {
    switch (kind) {
    case vm_t::INTEGER:
    case vm_t::POINTER:
        return parseUnsigned(v, out);
    case vm_t::REAL: {
        try {
            size_t used = 0;
            const double d = std::stod(v, &used);
            if (used != v.size()) return false;
            std::memcpy(&out, &d, sizeof(out));
        } catch (const std::exception&) {
            return false;
        }
        return true;
    }
    case vm_t::STRING:
        out = (size_t) new std::string(v);
        return true;
    case vm_t::BOOL: {
        bool b;
        if (!parseBool(v, b)) return false;
        out = b ? 1 : 0;
        return true;
    }
    case vm_t::CHAR:
        if (v.size() != 1) return false;
        out = (size_t)(unsigned char)v[0];
        return true;
    }
    return false;
}

std::string formatReal(double d) {
    char buf[64];
    for (int prec = 15; prec <= 17; ++prec) {
        std::snprintf(buf, sizeof(buf), "%.*g", prec, d);
        if (std::strtod(buf, nullptr) == d) break;
    }
    return buf;
}

std::string formatValue(vm_t::TypeType kind, size_t bits) {
    switch (kind) {
    case vm_t::REAL: {
        double d;
        std::memcpy(&d, &bits, sizeof(d));
        return formatReal(d);
    }
    case vm_t::STRING: {
        const std::string* s = reinterpret_cast<const std::string*>(bits);
        return s ? *s : std::string();
    }
    case vm_t::BOOL:
        return (bits & 0xff) ? "true" : "false";
    case vm_t::CHAR:
        return std::string(1, (char)(bits & 0xff));
    default:
        return std::to_string(bits);
    }
}

struct Write {
    std::string name;
    std::string value;
};

}  // namespace

int main(int argc, char** argv) {
    std::string program;
    std::vector<Write> writes;
    std::vector<std::string> prints;

    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            usage();
            return 0;
        }
        if (a == "-r" || a == "-p") {
            if (i + 1 >= argc) {
                std::cerr << "qzrun: " << a << " needs an argument\n";
                usage();
                return 2;
            }
            const std::string arg = argv[++i];
            if (a == "-p") {
                prints.push_back(arg);
                continue;
            }
            const size_t eq = arg.find('=');
            if (eq == std::string::npos || eq == 0) {
                std::cerr << "qzrun: -r expects REG=VALUE, got '" << arg << "'\n";
                usage();
                return 2;
            }
            writes.push_back({arg.substr(0, eq), arg.substr(eq + 1)});
            continue;
        }
        if (!a.empty() && a[0] == '-') {
            std::cerr << "qzrun: unknown option '" << a << "'\n";
            usage();
            return 2;
        }
        if (!program.empty()) {
            std::cerr << "qzrun: more than one program given\n";
            usage();
            return 2;
        }
        program = a;
    }
    if (program.empty()) {
        usage();
        return 2;
    }

    // Check every register name before anything runs.
    std::vector<vm_t::TypeType> printKinds;
    for (const std::string& p : prints) {
        vm_t::VarType v;
        vm_t::TypeType t;
        if (!vm_t::lookupRegister(p, v, t)) {
            std::cerr << "qzrun: unknown register '" << p << "'\n";
            usage();
            return 2;
        }
        printKinds.push_back(t);
    }

    // A directory opens like a file and reads as nothing: it is refused like
    // a missing file instead of running as an empty program.
    struct stat st;
    std::ifstream in(program);
    if (stat(program.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !in) {
        std::cerr << "qzrun: cannot read program '" << program << "'\n";
        return 2;
    }
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();  // programs written on Windows
        lines.push_back(line);
    }

    g_stderrTty = isatty(2) != 0;
    g_mainThread = (pid_t)syscall(SYS_gettid);
    signal(SIGINT, ctrlchandler);
    signal(SIGABRT, onAbort);
    installFaultHandlers();

    void* ctx = create_ctx();
    g_ctx = ctx;
    // The program goes in first: setting it rewinds LNN, and a -r LNN=N
    // written afterwards starts the run at line N.
    std::vector<char*> ptrs;
    for (std::string& l : lines) ptrs.push_back(const_cast<char*>(l.c_str()));
    ctx_set_code(ctx, ptrs.data(), ptrs.size());

    for (const Write& w : writes) {
        vm_t::VarType v;
        vm_t::TypeType t;
        if (!vm_t::lookupRegister(w.name, v, t)) {
            std::cerr << "qzrun: unknown register '" << w.name << "'\n";
            usage();
            return 2;
        }
        size_t bits = 0;
        if (!encodeValue(t, w.value, bits)) {
            std::cerr << "qzrun: '" << w.value << "' is no value for register " << w.name << "\n";
            usage();
            return 2;
        }
        try {
            ctx_write_reg(ctx, const_cast<char*>(w.name.c_str()), bits);
        } catch (const std::exception& e) {
            std::cerr << "error: " << w.name << ": " << e.what() << "\n";
            return 1;
        }
    }
    ctx_write_reg(ctx, const_cast<char*>("CBP"), (size_t)&progress);

    try {
        size_t line = 0;
        const std::string bad = runProgram(ctx, lines, &line);
        if (!bad.empty()) {
            endProgress();
            std::cerr << "error at line " << line << ": " << bad << "\n";
            return 1;
        }
    } catch (const std::exception& e) {
        endProgress();
        std::cerr << "error at line " << lineOfContext() << ": " << e.what() << "\n";
        return 1;
    } catch (...) {
        endProgress();
        std::cerr << "error at line " << lineOfContext() << ": unknown failure\n";
        return 1;
    }
    endProgress();

    for (size_t i = 0; i < prints.size(); ++i) {
        const size_t bits = ctx_read_reg(ctx, const_cast<char*>(prints[i].c_str()));
        std::cout << prints[i] << "=" << formatValue(printKinds[i], bits) << "\n";
    }
    destroy_ctx(ctx);
    return 0;
}
