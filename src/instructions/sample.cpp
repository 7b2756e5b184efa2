// SAMPLE: replaces every row of the table by a draw from the model, given
// the row's present cells. Each thread owns a whole engine, model, weight
// copy and generator, so the container's weights are only ever read and the
// threads never share mutable model state.
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZINF>
#include <QZ/QZIO>
#include <QZ/QZMRF>

#include "engine.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <omp.h>

namespace QZ {

namespace {

// Into the 16-bit category code, saturating at both ends: a floating -1.0
// becomes state 0.
template <typename val_t> inline unsigned short sampleCode(const val_t& x) {
    if constexpr (std::is_floating_point<val_t>::value) {
        if (!(x > 0)) return 0;
        if (x >= (val_t)65535) return 65535;
        return (unsigned short)x;
    } else {
        return x >= (val_t)65535 ? (unsigned short)65535 : (unsigned short)x;
    }
}

// x + g stored in val_t: truncation toward zero. Integer values go through a
// signed integer so that a negative sum wraps instead of being undefined.
template <typename val_t> inline val_t addNoise(const val_t& x, const double& g) {
    if constexpr (std::is_floating_point<val_t>::value) return (val_t)((double)x + g);
    else return (val_t)(long long)((double)x + g);
}

template <typename val_t> inline val_t truncNoise(const double& g) {
    if constexpr (std::is_floating_point<val_t>::value) return (val_t)g;
    else return (val_t)(long long)g;
}

// The identity, then every entry swapped with one drawn from all k entries
// (not from the ones that remain), as the sampler has always shuffled.
template <typename idx_t> inline void shuffleAll(idx_t* a, const idx_t& k, std::mt19937& rng) {
    for (idx_t i = 0; i < k; ++i) a[i] = i;
    if (k == 0) return;
    std::uniform_int_distribution<size_t> U(0, (size_t)k - 1);
    for (idx_t i = 0; i < k; ++i) std::swap(a[i], a[(idx_t)U(rng)]);
}

// Whether row i holds a value for vertex v (a column the table has, not missing).
inline bool observedCell(const CategoricalData* D, const size_t& i, const size_t& v, const size_t& cols) {
    return v < cols && D->get(i, v) < 65535;
}

template <typename idx_t, typename val_t> void sampleFunc0(vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    CategoricalData* D = static_cast<CategoricalData*>(vm.getP(vm_t::DPT));
    if (D == nullptr) assert(false);

    vm.set(vm_t::GNU, D->size());
    std::uniform_int_distribution<size_t> seeder(0, std::numeric_limits<size_t>::max());
    size_t total = 1;
    const char* nm = "SAMPLE";
    const size_t num_samples = vm.get(vm_t::GNU);
    const double pam = vm.getR(vm_t::PAM);
    const idx_t gre = (idx_t)vm.get(vm_t::GRE);
    const progress_t cbp = reinterpret_cast<progress_t>(vm.getP(vm_t::CBP));
    const AbstractGraph<idx_t>* G = io->G;
    const idx_t n = G->vertices();
    const idx_t* Y = io->Y;
    const idx_t* woff = io->woff;
    const size_t cols = D->columns();
    // Columns beyond the model's vertices have no entry in X: they are left
    // as they were.
    const size_t stored = cols < (size_t)n ? cols : (size_t)n;
    idx_t maxDeg = 0;
    for (idx_t v = 0; v < n; ++v)
        if (G->num_neighbors(v) > maxDeg) maxDeg = G->num_neighbors(v);

    // An engine or model that cannot be built is reported to the caller:
    // the thread's error is kept, every thread skips the rows, and the first
    // error is thrown once the region is closed.
    std::exception_ptr failure;
    bool failed = false;

    // Every thread builds a model of its own: a table of few rows, or a model
    // too small for its rows to pay for that, stays on the calling thread.
    const int team = num_samples < 2 ? 1 : detail::threadsForShares(num_samples * ((size_t)io->dim + (size_t)n));
#pragma omp parallel num_threads(team)
    {
        size_t local_seed = 0;
#pragma omp critical
        local_seed = seeder(*vm.random_engine);

        std::mt19937* local_random_engine = new std::mt19937((std::mt19937::result_type)local_seed);
        InferenceAlgorithm<idx_t, val_t>* IA = nullptr;
        AbstractMRF<idx_t, val_t>* P = nullptr;
        val_t* localw = nullptr;
        val_t* X = nullptr;
        // The shuffles and the edge marks are made once per thread and reused
        // for every row, with the same draws as fresh ones would take.
        idx_t* V = nullptr;
        idx_t* E = nullptr;
        std::vector<char> perturbed;
        std::vector<idx_t> drawn;
        std::vector<val_t> start;
        bool forbids = false;
        try {
            IA = vm.getIA<idx_t, val_t>();
            localw = new val_t[io->dim];
            IA->setParameters(localw);
            IA->setRandomEngine(local_random_engine);
            P = vm.getMOD<idx_t, val_t>(IA);
            std::memcpy(P->current_point(), io->w, sizeof(val_t) * (size_t)P->dim());
            P->decode_weights();
            X = new val_t[n];
            V = new idx_t[n];
            E = new idx_t[maxDeg > 0 ? maxDeg : 1];
            perturbed.assign((size_t)G->edges(), 0);
            drawn.assign((size_t)n, 0);
            forbids = IA->hasForbiddenStates();
            if (forbids) start.assign((size_t)n, (val_t)0);
        } catch (...) {
#pragma omp critical(sample_failure)
            {
                if (!failed) failure = std::current_exception();
                failed = true;
            }
        }
#pragma omp barrier

        // A thread without a model has failed, and then all skip the rows.
        if (!failed && P != nullptr) {
            const idx_t c = woff[n];
#pragma omp for schedule(static)
            for (size_t i = 0; i < num_samples; ++i) {
#pragma omp critical
                {
                    total += 1;
                    if (cbp != nullptr) cbp(total, num_samples, nm);
                }
                bool stopped;
#pragma omp atomic read
                stopped = failed;
                if (stopped) continue;
                try {
                    for (idx_t v = 0; v < n; ++v)
                        X[v] = observedCell(D, i, v, cols) ? (val_t)D->get(i, v) : (val_t)-1;
                    // A floating model keeps a missing cell at the marker, which
                    // becomes state 0; with forbidden states that state may be
                    // impossible, so there the cell is drawn as a free one.
                    if (forbids)
                        for (idx_t v = 0; v < n; ++v)
                            if (!observedCell(D, i, v, cols)) X[v] = (val_t)Y[v];

                    if (pam == 0.0 && forbids) {
                        // The chain starts, as on a finite model, from a
                        // uniform draw of the free vertices (the same draws).
                        // A draw of probability zero may keep the chain in such
                        // states for many sweeps (narrow constraints mix
                        // slowly) and end it in one: it then starts from the
                        // max-product state given the row's cells instead, and
                        // a row of probability zero stops with the engine's
                        // error.
                        for (idx_t v = 0; v < n; ++v) {
                            if (plain_idx<idx_t, val_t>(X[v]) < Y[v]) {
                                start[v] = X[v];
                            } else {
                                std::uniform_int_distribution<unsigned long long> U(0, (unsigned long long)Y[v] - 1);
                                start[v] = (val_t)U(*local_random_engine);
                            }
                            drawn[v] = plain_idx<idx_t, val_t>(start[v]);
                        }
                        if (!(IA->log_potential(drawn.data()) > -std::numeric_limits<val_t>::infinity())) {
                            for (idx_t v = 0; v < n; ++v) IA->observe(v, X[v]);
                            IA->infer((idx_t)1);
                            for (idx_t v = 0; v < n; ++v)
                                if (!(plain_idx<idx_t, val_t>(X[v]) < Y[v])) start[v] = (val_t)IA->maxMarginalState(v);
                        }
                        IA->GIBBS(X, gre, true, start.data());
                    } else if (pam == 0.0) {
                        IA->GIBBS(X, gre, true);
                    } else {
                        InferenceAlgorithm<idx_t, val_t>* en = P->engine();
                        for (idx_t v = 0; v < n; ++v) en->observe(v, X[v]);
                        std::extreme_value_distribution<double> gumDist(0.0, pam);
                        std::fill(perturbed.begin(), perturbed.end(), (char)0);
                        val_t* cp = P->current_point();
                        shuffleAll(V, n, *local_random_engine);
                        for (idx_t k = 0; k < n; ++k) {
                            const idx_t u = V[k];
                            const idx_t nn = G->num_neighbors(u);
                            shuffleAll(E, nn, *local_random_engine);
                            bool found = false;
                            for (idx_t j = 0; j < nn; ++j) {
                                const idx_t e = G->in_edge(u, E[j]);
                                if (perturbed[e]) continue;
                                perturbed[e] = 1;
                                const idx_t hi = woff[n + e + 1] - c;
                                for (idx_t q = woff[n + e] - c; q < hi; ++q)
                                    cp[q] = addNoise(cp[q], gumDist(*local_random_engine));
                                found = true;
                                break;
                            }
                            // A vertex without edges has no block to perturb: it
                            // gets no noise, and MM decides it as any other.
                            if (!found && nn > 0) {
                                // Noise shared by a whole block: the block of the
                                // first incident edge.
                                const idx_t e = G->in_edge(u, 0);
                                const idx_t lo = woff[n + e] - c, hi = woff[n + e + 1] - c;
                                for (idx_t r = 0; r < Y[u]; ++r) {
                                    const val_t z = truncNoise<val_t>(gumDist(*local_random_engine));
                                    for (idx_t q = lo; q < hi; ++q) cp[q] += z;
                                }
                            }
                        }
                        P->decode_weights();
                        en->infer((idx_t)1);
                        en->MM(X);
                        if (forbids)
                            for (idx_t v = 0; v < n; ++v)
                                if (!observedCell(D, i, v, cols)) X[v] = (val_t)en->maxMarginalState(v);
                        std::memcpy(P->current_point(), io->w, sizeof(val_t) * (size_t)P->dim());
                    }
                    if (forbids) {
                        // Never a forbidden sample: Gibbs sampling from a state
                        // of probability zero may not have left it in its sweeps,
                        // and loopy max-marginals may combine into one.
                        for (idx_t v = 0; v < n; ++v) drawn[v] = plain_idx<idx_t, val_t>(X[v]);
                        if (!(IA->log_potential(drawn.data()) > -std::numeric_limits<val_t>::infinity()))
                            throw std::logic_error("SAMPLE found no possible joint state for row " + std::to_string(i) +
                                                   ": the model with the row's cells may have probability zero");
                    }

                    for (size_t v = 0; v < stored; ++v) D->set(sampleCode(X[v]), i, v, false);
                } catch (...) {
#pragma omp critical(sample_failure)
                    {
                        if (!failed) failure = std::current_exception();
#pragma omp atomic write
                        failed = true;
                    }
                }
            }
        }

        delete P;
        delete IA;
        delete[] X;
        delete[] V;
        delete[] E;
        delete[] localw;
        delete local_random_engine;
    }

    if (failure) std::rethrow_exception(failure);
}

struct SampleF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { sampleFunc0<idx_t, val_t>(vm); }
};

}  // namespace

void vm_t::sampleFunc() {
    SampleF f{*this};
    dispatch(f);
}

}  // namespace QZ
