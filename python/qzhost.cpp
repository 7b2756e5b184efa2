// libqzhost: the C interface of libqz made safe for hosts that cannot catch a
// C++ exception, such as Python's ctypes.
//
// The library reports a failed program, a refused separator and an unknown
// storage type by throwing straight through run_ctx, ctx_write_reg and
// reset_ctx. Unwinding through the C frames of a foreign-function layer ends
// the process, so a ctypes host must never call those three directly. The
// wrappers here catch at the boundary and hand back the message and the
// exception's type instead. They live in a separate small library, not in
// libqz, because the library's own entry points let exceptions through by
// design and C++ hosts (qzrun) rely on that.
//
// The same library gives such hosts what they cannot build themselves: heap
// std::string objects for the STRING registers, the register table with the
// kind of each register, and the layout of the loaded model (states per
// vertex, edges, weights) that is needed to cut the marginals array of INFER
// into vertex and edge tables.
#include <vm_wrapper>
#include <QZ/QZMISC>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>

#include <cxxabi.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <typeinfo>

namespace {

using QZ::vm_t;

// Statuses of the wrappers.
constexpr int QZH_OK = 1;
constexpr int QZH_REFUSED = 0;  // the context runs, or a failed run has wedged it
constexpr int QZH_FAILED = -1;  // an exception: its message is in the buffer

// Copies at most cap-1 bytes and always terminates, also for cap 0 (then nothing).
void copyOut(const std::string& s, char* buf, size_t cap) {
    if (buf == nullptr || cap == 0) return;
    const size_t n = s.size() < cap - 1 ? s.size() : cap - 1;
    std::memcpy(buf, s.data(), n);
    buf[n] = '\0';
}

std::string typeName(const std::type_info& t) {
    int status = 0;
    char* d = abi::__cxa_demangle(t.name(), nullptr, nullptr, &status);
    std::string s = (status == 0 && d != nullptr) ? d : t.name();
    std::free(d);
    return s;
}

// Runs f, turning an exception into QZH_FAILED with its text in msg and the
// name of its type in type.
template <typename F> int guarded(F f, char* msg, size_t msgcap, char* type, size_t typecap) {
    try {
        return f() ? QZH_OK : QZH_REFUSED;
    } catch (const std::exception& e) {
        copyOut(e.what(), msg, msgcap);
        copyOut(typeName(typeid(e)), type, typecap);
    } catch (...) {
        copyOut("unknown failure", msg, msgcap);
        copyOut("", type, typecap);
    }
    return QZH_FAILED;
}

// Ctrl-C during a run. The library installs no handler; its ctrlchandler
// asks long loops to stop through __run and ends the process on a second
// interrupt. A Python host cannot install a C function as its handler, and
// its own handler only sets a flag that Python looks at after the foreign
// call returns, long after the user wanted the run to stop. So the run
// itself installs ctrlchandler and puts the host's handler back afterwards.
void onInterrupt(int sig) {
    if (!__run) {
        static const char msg[] = "qz: second interrupt, ending the process\n";
        ssize_t w = write(2, msg, sizeof(msg) - 1);
        (void)w;
    }
    ctrlchandler(sig);
}

struct InterruptScope {
    bool active;
    struct sigaction old;
    explicit InterruptScope(bool on) : active(on) {
        if (!active) return;
        struct sigaction sa;
        std::memset(&sa, 0, sizeof(sa));
        sa.sa_handler = onInterrupt;
        sigemptyset(&sa.sa_mask);
        active = sigaction(SIGINT, &sa, &old) == 0;
    }
    ~InterruptScope() {
        if (active) sigaction(SIGINT, &old, nullptr);
    }
};

inline bool isObject(const void* p) { return p != nullptr && p != (void*)1; }

// Fills the model's layout: vertices and edges of the loaded graph (the one
// INFER walks), the states of each vertex from the container, and its
// weights as doubles. Arrays may be null to ask for the sizes only.
struct Layout {
    vm_t& vm;
    size_t* n;
    size_t* m;
    size_t* dim;
    size_t* Y;
    size_t* edges;
    double* w;
    bool found = false;

    template <typename idx_t, typename val_t> void operator()() {
        const auto* io = static_cast<const QZ::IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
        const auto* G = static_cast<const QZ::AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
        if (!isObject(io) || !isObject(G) || io->Y == nullptr) return;
        found = true;
        const idx_t nv = G->vertices(), ne = G->edges();
        *n = (size_t)nv;
        *m = (size_t)ne;
        *dim = (size_t)io->dim;
        if (Y != nullptr)
            for (idx_t v = 0; v < nv; ++v) Y[v] = (size_t)io->Y[v];
        if (edges != nullptr) {
            idx_t s = 0, t = 0;
            for (idx_t e = 0; e < ne; ++e) {
                G->edge(e, s, t);
                edges[2 * (size_t)e] = (size_t)s;
                edges[2 * (size_t)e + 1] = (size_t)t;
            }
        }
        if (w != nullptr)
            for (idx_t i = 0; i < io->dim; ++i) w[i] = io->w == nullptr ? 0.0 : (double)io->w[i];
    }
};

}  // namespace

extern "C" {

// Runs the context's program. 1: the run reached the end; 0: refused (the
// context runs on another thread, or a failed run has wedged it); -1: the
// program failed, msg holds the library's message and type the exception's
// type (the context is wedged from then on). With catch_interrupt, Ctrl-C
// asks the run to stop for as long as it lasts; pass it only from the thread
// that the host's own interrupt handling belongs to.
int qzhost_run(void* ctx, int catch_interrupt, char* msg, size_t msgcap, char* type, size_t typecap) {
    InterruptScope scope(catch_interrupt != 0);
    return guarded([&] { return run_ctx(ctx); }, msg, msgcap, type, typecap);
}

// ctx_write_reg without the exception: SEP refuses '|' by throwing.
int qzhost_write_reg(void* ctx, const char* name, size_t val, char* msg, size_t msgcap, char* type, size_t typecap) {
    return guarded([&] { return ctx_write_reg(ctx, const_cast<char*>(name), val); }, msg, msgcap, type, typecap);
}

// reset_ctx without the exception: releasing a graph under an IDX that names
// no index type throws.
int qzhost_reset(void* ctx, char* msg, size_t msgcap, char* type, size_t typecap) {
    return guarded([&] { return reset_ctx(ctx); }, msg, msgcap, type, typecap);
}

// 1 while the context runs, and for ever after a failed run.
int qzhost_running(void* ctx) { return static_cast<vm_t*>(ctx)->running() ? 1 : 0; }

size_t qzhost_register_count() { return vm_t::registerTable().size(); }

// Name and kind (vm_t::TypeType) of row i of the register table, null past the end.
const char* qzhost_register_name(size_t i, int* kind) {
    const auto& T = vm_t::registerTable();
    if (i >= T.size()) return nullptr;
    if (kind != nullptr) *kind = (int)T[i].kind;
    return T[i].text;
}

// The kind of the register with exactly this name, -1 for no register.
int qzhost_register_kind(const char* name) {
    vm_t::VarType v;
    vm_t::TypeType t;
    return vm_t::lookupRegister(name, v, t) ? (int)t : -1;
}

// A heap std::string for a STRING register; the context that receives it
// owns it, and it is freed with qzhost_string_free only if no context took it.
void* qzhost_string_new(const char* s, size_t n) { return new std::string(s, n); }

void qzhost_string_free(void* s) { delete static_cast<std::string*>(s); }

// The bytes of a STRING register's value; valid until the string changes.
const char* qzhost_string_data(const void* s, size_t* n) {
    const std::string* p = static_cast<const std::string*>(s);
    *n = p->size();
    return p->data();
}

// The layout of the loaded model, see Layout. 1 with the sizes (and the arrays
// that are not null) filled; 0 with no model and graph under IDX and VAL, or
// while the context runs (the resources may change under the reader).
int qzhost_model_layout(void* ctx, size_t* n, size_t* m, size_t* dim, size_t* Y, size_t* edges, double* w) {
    vm_t* vm = static_cast<vm_t*>(ctx);
    if (vm->running()) return 0;
    Layout L{*vm, n, m, dim, Y, edges, w};
    vm->dispatch(L);
    return L.found ? 1 : 0;
}

}  // extern "C"
