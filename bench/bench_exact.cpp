// The exact engine (ALG JT) on generated models of the families that exact
// inference meets: square grids with and without wrap-around, a sparse graph
// of 225 binary vertices joined to their nearest neighbours in the plane
// (degree about 7), a square grid with a diagonal in every cell (225 vertices,
// like the superpixel graphs of image segmentation models), and dense graphs of 40
// binary vertices. For each, with the tree of the maximum cardinality search
// alone ("mcs") and with the tree the engine chooses ("chosen"): building the
// engine (plan, tree, tables), the first run of a new engine, and a repeated
// run. Counters: the entries of the largest table and of all tables, and the
// figures of each order tried (min-weight too, for comparison). A model
// whose tables pass the memory budget reports the engine's error instead.
//
//   build/bench/bench_exact --benchmark_filter=Plan   the orders only
#include <benchmark/benchmark.h>
#include <qz_graph_util.h>

#include <QZ/graph/core>
#include <QZ/graph/elimination>
#include <QZ/graph/junction_tree>
#include <QZ/bp/hugin>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

typedef unsigned I;
typedef QZ::HuginAlgorithm<I, double> Engine;

struct Model {
    std::string name;
    std::unique_ptr<QZ::Graph<I>> G;
    std::vector<I> Y;
    std::vector<double> w;
};

qztest::EdgeList grid(size_t N, bool torus) {
    qztest::EdgeList E;
    for (size_t r = 0; r < N; ++r)
        for (size_t c = 0; c < N; ++c) {
            const size_t v = r * N + c;
            if (c + 1 < N) E.push_back({v, v + 1});
            else if (torus) E.push_back({r * N, v});
            if (r + 1 < N) E.push_back({v, v + N});
            else if (torus) E.push_back({c, v});
        }
    return E;
}

// A square grid with one diagonal in every cell: 225 vertices of degree
// about 5.5, like the superpixel graphs of image segmentation.
qztest::EdgeList diagonalGrid(size_t N) {
    qztest::EdgeList E = grid(N, false);
    for (size_t r = 0; r + 1 < N; ++r)
        for (size_t c = 0; c + 1 < N; ++c) E.push_back({r * N + c, (r + 1) * N + c + 1});
    return E;
}

// Points in the unit square, each joined to its k nearest others.
qztest::EdgeList nearest(size_t n, size_t k, unsigned seed) {
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(0, 1);
    std::vector<std::pair<double, double>> P(n);
    for (auto& p : P) p = {U(g), U(g)};
    std::set<std::pair<size_t, size_t>> S;
    for (size_t i = 0; i < n; ++i) {
        std::vector<std::pair<double, size_t>> d;
        for (size_t j = 0; j < n; ++j)
            if (j != i) d.push_back({std::hypot(P[i].first - P[j].first, P[i].second - P[j].second), j});
        std::sort(d.begin(), d.end());
        for (size_t t = 0; t < k; ++t) S.insert({std::min(i, d[t].second), std::max(i, d[t].second)});
    }
    return qztest::EdgeList(S.begin(), S.end());
}

qztest::EdgeList dense(size_t n, size_t m, unsigned seed) {
    std::mt19937 g(seed);
    std::set<std::pair<size_t, size_t>> S;
    while (S.size() < m) {
        size_t a = g() % n, b = g() % n;
        if (a == b) continue;
        S.insert({std::min(a, b), std::max(a, b)});
    }
    return qztest::EdgeList(S.begin(), S.end());
}

const Model& model(const int k) {
    static std::map<int, Model> made;
    auto it = made.find(k);
    if (it != made.end()) return it->second;
    Model M;
    size_t n = 0;
    qztest::EdgeList E;
    switch (k) {
    case 0: M.name = "grid 10x10"; n = 100; E = grid(10, false); break;
    case 1: M.name = "torus 10x10"; n = 100; E = grid(10, true); break;
    case 2: M.name = "grid 14x14"; n = 196; E = grid(14, false); break;
    case 3: M.name = "torus 14x14"; n = 196; E = grid(14, true); break;
    case 4: M.name = "grid 20x20"; n = 400; E = grid(20, false); break;
    case 5: M.name = "torus 20x20"; n = 400; E = grid(20, true); break;
    case 6: M.name = "diagonal grid 15x15"; n = 225; E = diagonalGrid(15); break;
    case 7: M.name = "nearest 225 (deg 7)"; n = 225; E = nearest(225, 5, 1); break;
    case 8: M.name = "dense 40 (200 edges)"; n = 40; E = dense(40, 200, 1); break;
    default: M.name = "dense 40 (400 edges)"; n = 40; E = dense(40, 400, 1); break;
    }
    M.G = qztest::makeGraph<I>(n, E);
    M.Y.assign(n, 2);
    std::mt19937_64 rng(12345);
    std::normal_distribution<double> nd(0.0, 0.5);
    M.w.resize(4 * E.size());
    for (double& x : M.w) x = nd(rng);
    return made.emplace(k, std::move(M)).first->second;
}

void counters(benchmark::State& state, const Engine& H) {
    state.counters["largest_table"] = H.elimination().chosen.largest;
    state.counters["all_tables"] = H.elimination().chosen.entries;
}

// A new engine each iteration, with its first run when asked.
// args: model, mcs only (1) or chosen (0)
void fresh(benchmark::State& state, const bool run) {
    const Model& M = model((int)state.range(0));
    state.SetLabel(M.name + (state.range(1) ? " mcs" : " chosen"));
    try {
        for (auto _ : state) {
            Engine H(M.G.get(), M.Y.data(), nullptr, const_cast<double*>(M.w.data()), state.range(1) != 0);
            if (run) H.infer(0);
            benchmark::DoNotOptimize(H.A());
            state.PauseTiming();
            counters(state, H);
            state.ResumeTiming();
        }
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
    }
}

void BM_ExactBuild(benchmark::State& state) { fresh(state, false); }
void BM_ExactFirstRun(benchmark::State& state) { fresh(state, true); }

void BM_ExactRepeat(benchmark::State& state) {
    const Model& M = model((int)state.range(0));
    state.SetLabel(M.name + (state.range(1) ? " mcs" : " chosen"));
    try {
        Engine H(M.G.get(), M.Y.data(), nullptr, const_cast<double*>(M.w.data()), state.range(1) != 0);
        H.infer(0);
        for (auto _ : state) {
            H.infer(0);
            benchmark::DoNotOptimize(H.A());
        }
        counters(state, H);
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
    }
}

// The orders alone, simulated without a budget worth speaking of: entries of
// all tables and of the largest for the maximum cardinality search, min-fill
// and min-weight, and the time of each.
void BM_ExactPlan(benchmark::State& state) {
    const Model& M = model((int)state.range(0));
    state.SetLabel(M.name);
    const size_t n = (size_t)M.G->vertices();
    const double budget = 1e15;
    for (auto _ : state) {
        std::vector<I> mcs(n + 1);
        const QZ::AbstractGraph<I>* Gp = M.G.get();
        QZ::MCS<I>(mcs.data(), Gp);
        const QZ::EliminationRule fill = QZ::EliminationRule::MinFill, weight = QZ::EliminationRule::MinWeight;
        auto t0 = std::chrono::steady_clock::now();
        const QZ::EliminationPlan a = QZ::planElimination<I>(*M.G, M.Y.data(), std::vector<size_t>(mcs.begin(), mcs.begin() + n), nullptr, budget);
        auto t1 = std::chrono::steady_clock::now();
        const QZ::EliminationPlan b = QZ::planElimination<I>(*M.G, M.Y.data(), std::vector<size_t>(), &fill, budget);
        auto t2 = std::chrono::steady_clock::now();
        const QZ::EliminationPlan c = QZ::planElimination<I>(*M.G, M.Y.data(), std::vector<size_t>(), &weight, budget);
        auto t3 = std::chrono::steady_clock::now();
        auto ms = [](auto x, auto y) { return std::chrono::duration<double, std::milli>(y - x).count(); };
        state.counters["mcs_all"] = a.complete ? a.entries : INFINITY;
        state.counters["mcs_largest_log2"] = std::log2(a.largest);
        state.counters["fill_all"] = b.complete ? b.entries : INFINITY;
        state.counters["fill_largest_log2"] = std::log2(b.largest);
        state.counters["weight_all"] = c.complete ? c.entries : INFINITY;
        state.counters["weight_largest_log2"] = std::log2(c.largest);
        state.counters["mcs_ms"] = ms(t0, t1);
        state.counters["fill_ms"] = ms(t1, t2);
        state.counters["weight_ms"] = ms(t2, t3);
    }
}

void models(benchmark::internal::Benchmark* b) {
    for (int k = 0; k < 10; ++k)
        for (int mcs : {1, 0}) b->Args({k, mcs});
}

}  // namespace

BENCHMARK(BM_ExactPlan)->DenseRange(0, 9)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExactBuild)->Apply(models)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExactFirstRun)->Apply(models)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExactRepeat)->Apply(models)->MinTime(0.5)->Unit(benchmark::kMillisecond);
