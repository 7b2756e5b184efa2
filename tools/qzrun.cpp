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
#include <unistd.h>

#include <csignal>
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

// Draws one progress line on stderr, only for a terminal.
void progress(size_t done, size_t total, const char* text) {
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

size_t lineOfContext() { return g_ctx ? ctx_read_reg(g_ctx, const_cast<char*>("LNN")) + 1 : 0; }

// Says where the program stood and leaves with a failure instead of a core
// dump. Runs inside a signal handler: the line is formatted on the stack,
// written with one write() and the process ends with _exit, without unwinding.
void fatal(const char* what) {
    endProgress();
    char buf[160];
    const int n = std::snprintf(buf, sizeof(buf), "error at line %zu: %s\n", lineOfContext(), what);
    if (n > 0) {
        ssize_t w = write(2, buf, (size_t)n);
        (void)w;
    }
    _exit(1);
}

// An internal check of the library failed, or a second interrupt came.
extern "C" void onAbort(int) { fatal(__run ? "the library stopped on a failed internal check" : "interrupted"); }

// A program can hand the library any number as a pointer (GPT 8, EDP 16, a
// string popped into a pointer register); following it is reported like any
// other failure of the program.
extern "C" void onFault(int sig) {
    fatal(sig == SIGFPE ? "arithmetic fault" : "invalid memory access (a pointer register holds no valid object)");
}

// The handlers run on their own stack, so that a fault from a stack overflow
// is reported as well.
void installFaultHandlers() {
    static char altstack[1 << 16];
    stack_t ss;
    ss.ss_sp = altstack;
    ss.ss_size = sizeof(altstack);
    ss.ss_flags = 0;
    sigaltstack(&ss, nullptr);
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = onFault;
    sa.sa_flags = SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL}) sigaction(sig, &sa, nullptr);
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
        run_ctx(ctx);
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
