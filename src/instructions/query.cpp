// INFER, PREDICT and SCORE: queries of a fitted model. Each builds its own
// engine and model function, runs them on the container's weights and leaves
// the container's encoded weights exactly as it found them.
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZINF>
#include <QZ/QZIO>
#include <QZ/QZMRF>
#include <vm_wrapper>

#include "checks.h"
#include "engine.h"

#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>

namespace QZ {

namespace {

template <typename val_t> constexpr bool isReal() { return std::is_floating_point<val_t>::value; }

// The container holds the encoded vector while the engine reads the same
// array decoded. A query therefore keeps a copy of the encoded weights,
// hands them to the model function and decodes them; restore() puts the
// copy back. An exception in between leaves the decoded weights in place.
template <typename idx_t, typename val_t> struct Query {
    vm_t& vm;
    IO<idx_t, val_t>* io;
    InferenceAlgorithm<idx_t, val_t>* IA;
    AbstractMRF<idx_t, val_t>* P;
    val_t* backup0;

    explicit Query(vm_t& _vm)
        : vm(_vm),
          io(static_cast<IO<idx_t, val_t>*>(_vm.getP(vm_t::MPT))),
          IA(_vm.getIA<idx_t, val_t>()),
          P(_vm.getMOD<idx_t, val_t>(IA)),
          backup0(nullptr) {}

    void preamble() {
        const idx_t d = io->dim;
        backup0 = new val_t[d];
        std::memcpy(backup0, io->w, sizeof(val_t) * (size_t)d);
        // For the plain model the point is the container's array itself:
        // memmove tolerates that.
        std::memmove(P->current_point(), io->w, sizeof(val_t) * (size_t)P->dim());
        P->decode_weights();
    }

    void release() {
        delete P;
        delete IA;
        P = nullptr;
        IA = nullptr;
    }

    void restore() {
        std::memcpy(io->w, backup0, sizeof(val_t) * (size_t)io->dim);
        delete[] backup0;
        backup0 = nullptr;
    }

    // In size_t: the states of all vertices need not fit idx_t.
    size_t ysum() const {
        const idx_t n = io->G->vertices();
        size_t s = 0;
        for (idx_t v = 0; v < n; ++v) s += (size_t)io->Y[v];
        return s;
    }
};

// The marker of a missing value: -1, all ones in an integer value type.
template <typename val_t> inline val_t unobserved() { return (val_t)-1; }

// A probability as a double: formed in val_t for floating models, from both
// operands converted for integer ones.
template <typename val_t> inline double quotient(const val_t& a, const val_t& b) {
    if constexpr (isReal<val_t>()) return (double)(a / b);
    else return (double)a / (double)b;
}

// Conversion into a 16-bit category code, saturating at both ends.
template <typename val_t> inline unsigned short toCode(const val_t& x) {
    if constexpr (isReal<val_t>()) {
        if (!(x > 0)) return 0;
        if (x >= (val_t)65535) return 65535;
        return (unsigned short)x;
    } else {
        return x >= (val_t)65535 ? (unsigned short)65535 : (unsigned short)x;
    }
}

template <typename val_t> inline void putNumber(std::ostream& os, const val_t& x) {
    if constexpr (isReal<val_t>()) os << x;
    else os << (unsigned long long)x;  // never as a character
}

// "[name:p;name:p]": the names of the container where it has them, else the
// state numbers.
template <typename idx_t, typename val_t>
std::string probabilityText(const IO<idx_t, val_t>* io, const idx_t& v, const val_t* p) {
    const std::vector<std::string>* names = nullptr;
    if (io->Ynames != nullptr && (size_t)v < io->Ynames->size()) names = io->Ynames->at(v);
    std::ostringstream os;
    os << "[";
    for (idx_t j = 0; j < io->Y[v]; ++j) {
        if (j > 0) os << ";";
        if (names != nullptr && (size_t)j < names->size())
            os << names->at(j);
        else
            os << (unsigned long long)j;
        os << ":";
        putNumber(os, p[j]);
    }
    os << "]";
    return os.str();
}

inline bool isTable(const void* p) { return p != nullptr && p != (void*)1; }

template <typename idx_t, typename val_t> void inferFunc0(vm_t& vm) {
    Query<idx_t, val_t> q(vm);
    const AbstractGraph<idx_t>* G = static_cast<const AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
    const idx_t n = G->vertices();
    const idx_t m = G->edges();
    const idx_t* Y = q.io->Y;
    size_t ysum = 0;
    for (idx_t v = 0; v < n; ++v) ysum += (size_t)Y[v];

    if (vm.getP(vm_t::PPT) != nullptr) vm.freeMarginals();
    double* PP = new double[(size_t)q.io->dim + (size_t)ysum];
    vm.set(vm_t::PPT, (void*)PP);

    q.preamble();
    InferenceAlgorithm<idx_t, val_t>* IA = q.IA;

    // Only the first row observes; the other rows play no part.
    const CategoricalData* D = static_cast<const CategoricalData*>(vm.getP(vm_t::DPT));
    if (isTable(D) && D->size() != 0) {
        for (idx_t v = 0; v < n; ++v) {
            const size_t x = D->get(0, v);
            IA->observe(v, x == CategoricalData::MIS_VAL ? unobserved<val_t>() : (val_t)x);
        }
    } else {
        for (idx_t v = 0; v < n; ++v) IA->observe(v, unobserved<val_t>());
    }

    IA->infer(vm.getB(vm_t::SLW) ? (idx_t)10 : (idx_t)0);
    vm.set(vm_t::LNZ, (double)IA->A());

    size_t k = 0;
    for (idx_t v = 0; v < n; ++v)
        for (idx_t x = 0; x < Y[v]; ++x) {
            val_t a = 0, Z = 0;
            IA->vertex_marginal(v, x, a, Z);
            PP[k++] = quotient(a, Z);
        }
    double* const PE = PP + ysum;
    idx_t s = 0, t = 0;
    for (idx_t e = 0; e < m; ++e) {
        G->edge(e, s, t);
        const idx_t off = IA->edgeWeightOffset(e), Yt = Y[t];
        for (idx_t x = 0; x < Y[s]; ++x)
            for (idx_t y = 0; y < Yt; ++y) {
                val_t a = 0, b = 0;
                IA->edge_marginal(e, x, y, a, b);
                PE[(size_t)off + (size_t)Yt * x + y] = quotient(a, b);
            }
    }

    q.release();
    q.restore();
}

template <typename idx_t, typename val_t> void predictFunc0(vm_t& vm) {
    CategoricalData* D = static_cast<CategoricalData*>(vm.getP(vm_t::DPT));
    Query<idx_t, val_t> q(vm);
    q.preamble();
    const IO<idx_t, val_t>* io = q.io;
    const idx_t n = io->G->vertices();
    const idx_t* Y = io->Y;
    const bool ppx = vm.getB(vm_t::PPX);
    val_t* X = new val_t[n];
    bool* O = new bool[n];
    val_t* PZ = ppx ? new val_t[q.ysum()] : nullptr;
    // Vertices without a column of their own stay unobserved.
    for (idx_t v = 0; v < n; ++v) {
        X[v] = unobserved<val_t>();
        O[v] = false;
    }

    const size_t N = D->rows();
    // A table with more columns than the model has vertices: the surplus
    // columns are not read.
    const size_t cols = D->columns() < (size_t)n ? D->columns() : (size_t)n;
    const char* nm = "PREDICT";
    const progress_t cbp = reinterpret_cast<progress_t>(vm.getP(vm_t::CBP));
    if (cbp != nullptr) cbp(0, N, nm);

    InferenceAlgorithm<idx_t, val_t>* E = q.P->engine();
    // A floating model reports a missing cell as state 0 (the marker's
    // conversion); where weights of minus infinity forbid states, that
    // state may be impossible, and the cell gets its state of largest
    // max-marginal instead, which never is.
    const bool forbids = E->hasForbiddenStates();
    for (size_t i = 0; i < N; ++i) {
        for (size_t j = 0; j < cols; ++j) {
            const size_t c = D->get(i, j);
            X[j] = c == CategoricalData::MIS_VAL ? unobserved<val_t>() : (val_t)c;
            O[j] = X[j] != unobserved<val_t>();
            E->observe((idx_t)j, X[j]);
        }
        E->infer((idx_t)1);
        E->MM(X);
        if (forbids)
            for (idx_t v = 0; v < n; ++v)
                if (!O[v]) X[v] = (val_t)E->maxMarginalState(v);
        if (ppx) E->MMP(PZ);

        size_t xpos = 0;
        for (idx_t v = 0; v < n; ++v) {
            D->set(toCode(X[v]), i, v, true);
            if (ppx && !O[v]) D->setCustomString(probabilityText(io, v, PZ + xpos), i, v);
            xpos += Y[v];
        }
        if (cbp != nullptr) cbp(i + 1, N, nm);
        if (!__run) break;  // the rows done stay done
    }

    delete[] O;
    delete[] PZ;
    q.release();
    delete[] X;
    q.restore();
}

template <typename idx_t, typename val_t> void scoreFunc0(vm_t& vm) {
    const CategoricalData* D = static_cast<const CategoricalData*>(vm.getP(vm_t::DPT));
    {
        // A cell is a state index into the model's weights: one beyond the
        // state space is refused before anything is touched.
        const IO<idx_t, val_t>* io = static_cast<const IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
        checkCells<idx_t>(D, (size_t)io->G->vertices(), io->Y);
    }
    Query<idx_t, val_t> q(vm);
    q.preamble();
    InferenceAlgorithm<idx_t, val_t>* IA = q.IA;

    IA->infer(vm.getB(vm_t::SLW) ? (idx_t)10 : (idx_t)0);
    const val_t A = IA->A();
    if constexpr (isReal<val_t>()) vm.set(vm_t::LNZ, (double)A);
    else vm.set(vm_t::LNZ, (size_t)A);

    const idx_t n = q.io->G->vertices();
    const idx_t* Y = q.io->Y;
    idx_t* X = new idx_t[n];
    for (idx_t v = 0; v < n; ++v) X[v] = 0;
    val_t t = 0, tt = 0;
    const char* nm = "SCORE";
    const progress_t cbp = reinterpret_cast<progress_t>(vm.getP(vm_t::CBP));
    const size_t N = D->rows();
    // Surplus columns beyond the model's vertices are not read.
    const size_t cols = D->columns() < (size_t)n ? D->columns() : (size_t)n;
    std::mt19937& rng = *vm.random_engine;

    for (size_t i = 0; i < N; ++i) {
        if (cbp != nullptr) cbp(i + 1, N, nm);
        for (size_t j = 0; j < cols; ++j) {
            const size_t c = D->get(i, j);
            if (c == CategoricalData::MIS_VAL) {
                // Completed in X only; the table keeps its missing cell.
                std::uniform_int_distribution<size_t> U(0, (size_t)Y[j] - 1);
                X[j] = (idx_t)U(rng);
            } else {
                X[j] = (idx_t)c;
            }
        }
        // A row in a forbidden joint state has probability 0: its log is
        // minus infinity, and so is the mean, which the machine reports as
        // not finite. An error would hide the score of the other rows, and
        // a mean without the row would overstate the model.
        const val_t logP = IA->log_potential(X) - A;
        t += logP;
        tt += logP * logP;
        if (!__run) break;
    }

    // An early stop still divides by all rows.
    if constexpr (isReal<val_t>()) {
        t = t / (val_t)N;  // no rows: not a number
        tt = std::sqrt(tt / (val_t)N);
    } else {
        t = N == 0 ? (val_t)0 : (val_t)(t / (val_t)N);
        tt = N == 0 ? (val_t)0 : (val_t)std::sqrt((double)(tt / (val_t)N));
    }
    (void)tt;  // the spread is computed but not published
    vm.set(vm_t::RES, (double)t);

    q.release();
    delete[] X;
    q.restore();
}

struct InferF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { inferFunc0<idx_t, val_t>(vm); }
};

struct PredictF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { predictFunc0<idx_t, val_t>(vm); }
};

struct ScoreF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { scoreFunc0<idx_t, val_t>(vm); }
};

}  // namespace

void vm_t::inferFunc() {
    InferF f{*this};
    dispatch(f);
}

void vm_t::predictFunc() {
    PredictF f{*this};
    dispatch(f);
}

void vm_t::scoreFunc() {
    ScoreF f{*this};
    dispatch(f);
}

}  // namespace QZ
