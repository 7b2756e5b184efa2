// Exact inference on the reference grids (N x N, 2 states, weights of the
// independent engine's benchmark folded into the edges): the junction tree
// alone, the engine as a user first meets it (tree, tables and one run), and
// one run on a prepared engine, each for 1 and 2 threads. Counters: the
// entries of the largest clique table and of all tables.
#include <benchmark/benchmark.h>
#include <qz_refgrid.h>

#include <QZ/graph/core>
#include <QZ/graph/generators>
#include <QZ/graph/junction_tree>
#include <QZ/bp/hugin>

#include <omp.h>

#include <memory>
#include <random>
#include <vector>

namespace {

struct RefModel {
    std::unique_ptr<QZ::Graph<unsigned>> G;
    std::vector<unsigned> Y;
    std::vector<double> w;

    explicit RefModel(size_t N) {
        const qztest::RefGrid R = qztest::refGrid(N, 2);
        unsigned* A = (unsigned*)std::calloc(2 * R.edges.size() + 1, sizeof(unsigned));
        for (size_t e = 0; e < R.edges.size(); ++e) {
            A[2 * e] = (unsigned)R.edges[e].first;
            A[2 * e + 1] = (unsigned)R.edges[e].second;
        }
        G.reset(new QZ::Graph<unsigned>(true, A, (unsigned)(N * N), (unsigned)R.edges.size()));
        Y.assign(N * N, 2);
        w = R.w;
    }
};

// A complete graph of n binary vertices with weights from the reference
// generator's distribution: one clique of 2^n entries, where both cores pay.
struct CompleteModel {
    QZ::Kn<unsigned> G;
    std::vector<unsigned> Y;
    std::vector<double> w;
    explicit CompleteModel(unsigned n) : G(n, nullptr), Y(n, 2), w(4 * (size_t)G.edges()) {
        std::mt19937_64 rng(12345);
        std::normal_distribution<double> nd(0.0, 0.5);
        for (double& x : w) x = nd(rng);
    }
};

void tableCounters(benchmark::State& state, const QZ::HuginAlgorithm<unsigned, double>& H) {
    size_t largest = 0;
    for (unsigned C = 0; C < H.jt()->vertices(); ++C) largest = std::max(largest, (size_t)H.YC[C]);
    state.counters["largest_table"] = (double)largest;
    state.counters["all_tables"] = (double)H.numMessages();
}

void BM_JunctionTree(benchmark::State& state) {
    RefModel m((size_t)state.range(0));
    for (auto _ : state) {
        QZ::JunctionTree<unsigned> J(*m.G);
        benchmark::DoNotOptimize(J.cliques());
    }
}

// Tree, tables and the first run, which also lays out the messages.
void BM_HuginFirstRun(benchmark::State& state) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads((int)state.range(1));
    RefModel m((size_t)state.range(0));
    std::mt19937 rng(1);
    for (auto _ : state) {
        QZ::HuginAlgorithm<unsigned, double> H(m.G.get(), m.Y.data(), &rng, m.w.data());
        H.infer(0);
        benchmark::DoNotOptimize(H.A());
        state.PauseTiming();
        tableCounters(state, H);
        state.ResumeTiming();
    }
    omp_set_num_threads(saved);
}

// Steady-state runs of one engine on a model, on range(1) threads.
void steadyInfer(benchmark::State& state, const QZ::AbstractGraph<unsigned>* G, const unsigned* Y, double* w) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads((int)state.range(1));
    std::mt19937 rng(1);
    QZ::HuginAlgorithm<unsigned, double> H(G, Y, &rng, w);
    H.infer(0);
    for (auto _ : state) {
        H.infer(0);
        benchmark::DoNotOptimize(H.A());
    }
    tableCounters(state, H);
    omp_set_num_threads(saved);
}

void BM_HuginInfer(benchmark::State& state) {
    RefModel m((size_t)state.range(0));
    steadyInfer(state, m.G.get(), m.Y.data(), m.w.data());
}

void BM_HuginCompleteInfer(benchmark::State& state) {
    CompleteModel m((unsigned)state.range(0));
    steadyInfer(state, &m.G, m.Y.data(), m.w.data());
}

}  // namespace

BENCHMARK(BM_JunctionTree)->Arg(10)->Arg(12)->Arg(14)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HuginFirstRun)->ArgsProduct({{10, 12, 14}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_HuginInfer)->ArgsProduct({{10, 12, 14}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_HuginCompleteInfer)->ArgsProduct({{17, 20}, {1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();
