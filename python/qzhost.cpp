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
//
// A host with tables of named values (a pandas DataFrame) codes them itself
// and needs a table that carries the names of its columns and states into
// the model, as the CSV reader's tables do, over cells that stay in host
// memory, as the numeric host table behind EDP does. It also needs the
// names back, the texts PREDICT writes into cells, and the sufficient
// statistics of a model: read, so that partial counts made elsewhere can be
// added up, and written, so that their sum stands in a container as if
// MODEL had counted the whole table, followed by the library's own structure
// learners on it.
#include <vm_wrapper>
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>

#include <cxxabi.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <map>
#include <new>
#include <string>
#include <typeinfo>
#include <vector>

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

typedef void (*progress_fn)(size_t, size_t, const char*);

// The run in progress on this thread, the callback that ordinary progress
// reports are forwarded to, and the warnings kept since the last take.
thread_local void* tl_runCtx = nullptr;
thread_local progress_fn tl_forward = nullptr;
thread_local std::string tl_warnings;

struct RunScope {
    void* before;
    explicit RunScope(void* ctx) : before(tl_runCtx) { tl_runCtx = ctx; }
    ~RunScope() { tl_runCtx = before; }
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

// A table whose cells are the host's: the library reads and writes them in
// place and never frees them. Its states are not locked, so that columns
// added later (INITLATENT) get names as in a table read from text.
class HostNamedTable : public QZ::CategoricalData {
public:
    HostNamedTable(char missing, bool shared) : CategoricalData(true, missing, shared, nullptr) { myData = false; }
    void read(std::istream&) override {}
};

void appendStates(QZ::CategoricalData& D, const char* const* names, size_t count) {
    auto* map = new std::map<std::string, size_t>();
    D.states.push_back(map);
    auto* list = new std::vector<std::string>();
    D.statesInv.push_back(list);
    for (size_t x = 0; x < count; ++x) {
        std::string name = names != nullptr ? std::string(names[x]) : std::to_string(x);
        (*map)[name] = x;
        list->push_back(std::move(name));
    }
}

// The statistics of the model in MPT as whole numbers, or written from them.
// Only the layout of MODEL over a graph (vertex blocks, then edge blocks) is
// taken: the subset layout of the clique search has other offsets.
struct Statistics {
    vm_t& vm;
    size_t* sdim;
    size_t* rows;
    uint64_t* out;
    const uint64_t* in;
    int status = 0;

    template <typename idx_t, typename val_t> void operator()() {
        auto* io = static_cast<QZ::IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
        if (!isObject(io) || io->G == nullptr || io->E == nullptr || io->woff == nullptr) return;
        const size_t V = (size_t)io->G->vertices(), M = (size_t)io->G->edges();
        if ((size_t)io->odim != V + M + 1 || (size_t)io->woff[V + M] != (size_t)io->sdim) {
            status = -1;
            return;
        }
        if (in != nullptr) {
            if (*sdim != (size_t)io->sdim) {
                status = -1;
                return;
            }
            // Counts enter val_t as MODEL's increments leave them: modulo
            // the width of an unsigned type, rounded in a floating one.
            for (size_t i = 0; i < *sdim; ++i) io->E[i] = (val_t)in[i];
            io->num_instances = *rows == 0 ? (idx_t)1 : (idx_t)*rows;
        } else {
            *sdim = (size_t)io->sdim;
            *rows = (size_t)io->num_instances;
            if (out != nullptr)
                for (size_t i = 0; i < *sdim; ++i) out[i] = toCount(io->E[i]);
        }
        status = 1;
    }

    template <typename val_t> static uint64_t toCount(val_t x) {
        if (std::numeric_limits<val_t>::is_integer) return (uint64_t)x;
        if (!(x > 0)) return 0;
        return x >= 18446744073709551615.0 ? ~(uint64_t)0 : (uint64_t)x;
    }
};

// The structure learners that MODEL runs for CHOWLIU and ELEMGM, on the
// counts of the container in MPT over the complete graph.
struct Learner {
    vm_t& vm;
    int kind;
    bool found = false;

    template <typename idx_t, typename val_t> void operator()() {
        auto* io = static_cast<QZ::IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
        if (!isObject(io) || io->G == nullptr || io->E == nullptr) return;
        const size_t V = (size_t)io->G->vertices();
        if ((size_t)io->G->edges() != V * (V - 1) / 2)
            throw std::logic_error("the structure learners start from the counts of the complete graph");
        found = true;
        auto cbp = reinterpret_cast<void (*)(size_t, size_t, const char*)>(vm.getP(vm_t::CBP));
        if (kind == vm_t::CHOWLIU)
            io->buildChowLiu(cbp);
        else
            io->buildElemGM(vm.getR(vm_t::PEL), cbp);
        vm.set(vm_t::GPT, (void*)io->G);
        vm.set(vm_t::RES, -1.0);
    }
};

// The names of the model in MPT, each followed by a zero byte: per vertex
// its name, then its state names.
struct Names {
    vm_t& vm;
    std::string blob;
    bool found = false;

    template <typename idx_t, typename val_t> void operator()() {
        auto* io = static_cast<const QZ::IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
        if (!isObject(io) || io->G == nullptr || io->Xnames == nullptr || io->Ynames == nullptr || io->Y == nullptr)
            return;
        const size_t V = (size_t)io->G->vertices();
        if (io->Xnames->size() < V || io->Ynames->size() < V) return;
        for (size_t v = 0; v < V; ++v) {
            const std::vector<std::string>* states = io->Ynames->at(v);
            if (states == nullptr || states->size() < (size_t)io->Y[v]) return;
        }
        for (size_t v = 0; v < V; ++v) {
            blob.append(io->Xnames->at(v)).push_back('\0');
            for (size_t x = 0; x < (size_t)io->Y[v]; ++x) blob.append(io->Ynames->at(v)->at(x)).push_back('\0');
        }
        found = true;
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
    RunScope run(ctx);
    return guarded([&] { return run_ctx(ctx); }, msg, msgcap, type, typecap);
}

// The progress callback that the package puts into CBP. The library's
// warnings (texts that start with "warning: ") are kept with their program
// line for the host to take after the run; every other report goes on to
// the callback set with qzhost_set_forward, if any. Both are per thread: a
// run reports on the thread that runs it.
void qzhost_progress(size_t done, size_t total, const char* text) {
    static const char kWarning[] = "warning: ";
    if (text != nullptr && std::strncmp(text, kWarning, sizeof(kWarning) - 1) == 0) {
        const size_t line = tl_runCtx != nullptr ? static_cast<vm_t*>(tl_runCtx)->bits(vm_t::LNN) + 1 : 0;
        tl_warnings += std::to_string(line) + '\t' + (text + sizeof(kWarning) - 1) + '\n';
        return;
    }
    if (tl_forward != nullptr) tl_forward(done, total, text);
}

// The callback that qzhost_progress forwards ordinary reports to on this
// thread; null for none.
void qzhost_set_forward(progress_fn forward) { tl_forward = forward; }

// The warnings of this thread's last run, one a line as "LINE<tab>TEXT", and
// forgets them once they fit: the result is their length, and buf (of cap
// bytes) gets them when the length is below cap.
size_t qzhost_take_warnings(char* buf, size_t cap) {
    const size_t n = tl_warnings.size();
    if (n < cap) {
        copyOut(tl_warnings, buf, cap);
        tl_warnings.clear();
    }
    return n;
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

// A table over the host's row-major cells (n columns, N rows, 65535 for a
// missing cell) with the given column names and, per column, counts[c] state
// names taken in turn from names (codes are positions in these lists). Null
// names give the decimal names 0, 1, ... With shared, all columns use the
// states of column 0, as YYC makes the readers do. The result goes into DPT,
// which then owns it; null if it could not be made.
void* qzhost_table_new(unsigned short* data, size_t N, size_t n, const char* const* columns, const size_t* counts,
                       const char* const* names, int shared, char missing) {
    HostNamedTable* D = nullptr;
    try {
        D = new HostNamedTable(missing, shared != 0);
        D->data = data;
        D->N = N;
        D->n = n;
        size_t pos = 0;
        for (size_t c = 0; c < n; ++c) {
            D->header.push_back(columns != nullptr ? std::string(columns[c]) : "X" + std::to_string(c));
            D->added.push_back(false);
            const size_t k = shared != 0 && c > 0 ? 0 : counts[c];
            appendStates(*D, names != nullptr ? names + pos : nullptr, k);
            pos += k;
        }
        return D;
    } catch (...) {
        delete D;
        return nullptr;
    }
}

// Frees a table of qzhost_table_new that no context took.
void qzhost_table_free(void* table) { delete static_cast<QZ::CategoricalData*>(table); }

// The text that PREDICT (with PPX) wrote into cell (row, col) of the table in
// DPT, copied into buf; its length, or -1 if the cell has none. 0 for a text
// that is empty, and for a context that runs.
long qzhost_table_text(void* ctx, size_t row, size_t col, char* buf, size_t cap) {
    vm_t* vm = static_cast<vm_t*>(ctx);
    if (vm->running()) return -1;
    const auto* D = static_cast<const QZ::CategoricalData*>(vm->getP(vm_t::DPT));
    if (!isObject(D)) return -1;
    auto it = D->customStrings.find(std::make_pair(row, col));
    if (it == D->customStrings.end()) return -1;
    copyOut(it->second, buf, cap);
    return (long)it->second.size();
}

// The statistics of the model in MPT: sdim entries as whole numbers into
// counts (null to ask for the sizes only) and the rows they were counted
// from. 1 on success; 0 with no model under IDX and VAL, or while the context
// runs; -1 for a model whose statistics are not laid out by vertices and
// edges (a clique search's).
int qzhost_model_statistics(void* ctx, size_t* sdim, size_t* rows, uint64_t* counts) {
    vm_t* vm = static_cast<vm_t*>(ctx);
    if (vm->running()) return 0;
    Statistics S{*vm, sdim, rows, counts, nullptr};
    vm->dispatch(S);
    return S.status;
}

// Replaces the statistics of the model in MPT by sdim whole numbers, counted
// from rows rows (the container keeps at least 1). 1 on success; 0 as above;
// -1 if sdim is not the model's.
int qzhost_set_statistics(void* ctx, const uint64_t* counts, size_t sdim, size_t rows) {
    vm_t* vm = static_cast<vm_t*>(ctx);
    if (vm->running()) return 0;
    Statistics S{*vm, &sdim, &rows, nullptr, counts};
    vm->dispatch(S);
    return S.status;
}

// Runs the structure learner of kind (GRA's value CHOWLIU or ELEMGM, with
// PEL) on the model in MPT, which must hold the counts of the complete
// graph, as MODEL does after counting: the model gets the learned graph,
// GPT points to it, RES is -1. 1 on success, 0 if refused or without a
// model, -1 with the message of a failure.
int qzhost_learn_structure(void* ctx, int kind, char* msg, size_t msgcap, char* type, size_t typecap) {
    vm_t* vm = static_cast<vm_t*>(ctx);
    if (kind != vm_t::CHOWLIU && kind != vm_t::ELEMGM) {
        copyOut("no structure learner for this graph kind", msg, msgcap);
        copyOut("std::logic_error", type, typecap);
        return QZH_FAILED;
    }
    return guarded(
        [&] {
            if (vm->running()) return false;
            Learner L{*vm, kind};
            vm->dispatch(L);
            return L.found;
        },
        msg, msgcap, type, typecap);
}

// The names of the model in MPT (see Names) copied into buf, up to cap
// bytes; the size of the whole, 0 if the model has no names or there is none.
size_t qzhost_model_names(void* ctx, char* buf, size_t cap) {
    vm_t* vm = static_cast<vm_t*>(ctx);
    if (vm->running()) return 0;
    Names L{*vm, std::string(), false};
    vm->dispatch(L);
    if (!L.found) return 0;
    if (buf != nullptr) std::memcpy(buf, L.blob.data(), L.blob.size() < cap ? L.blob.size() : cap);
    return L.blob.size();
}

}  // extern "C"
