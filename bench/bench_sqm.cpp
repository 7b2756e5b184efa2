// SQMplus estimates of the log partition function on random binary models:
// time per estimate (one infer), and the error of A() against the exact value
// where one is at hand: by enumeration of all joint states for 20 vertices,
// by summing out the leaves of a tree for the larger random trees, and by the
// junction tree for the graph with cycles on 100 vertices. The one on 1000
// vertices is timed only: its cliques would be far too large.
//
// Two weight regimes: "small", weights drawn from [0, 2/m] so that every log
// potential lies in [0, 2], where the polynomial is accurate; and "mixed",
// weights from [-0.5, 0.5], the scale of fitted models. With 1000 vertices
// only degree 2 is possible: 2^1000 states times m^3 exceeds the range of a
// double, and a run of degree 3 or more ends in the NaN assertion.
//
// Times are CPU times of the calling thread's process (the machine is shared);
// A_est, abs_err and rel_err are means over the timed runs.
#include <benchmark/benchmark.h>

#include <QZ/graph/core>
#include <QZ/bp/hugin>
#include <QZ/inf/base>
#include <QZ/inf/sqmplus>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace {

typedef unsigned long idx_t;

enum Regime { SMALL = 0, MIXED = 1 };
enum Shape { TREE = 0, CYCLES = 1 };

// A random graph on n binary vertices: each vertex after the first joins a
// uniformly chosen earlier one (a random tree, parent[v] < v); with cycles,
// n/4 more edges between random distinct pairs are added, few enough that
// the junction tree of 100 vertices fits in memory.
struct RandomModel {
    std::vector<std::pair<size_t, size_t>> edges;
    std::vector<size_t> parent;
    std::unique_ptr<QZ::Graph<idx_t>> G;
    std::vector<idx_t> Y;
    std::vector<double> w;
    std::mt19937 engine;
    double exactA = NAN;

    RandomModel(size_t n, Shape shape, Regime regime, unsigned seed) : parent(n, 0), Y(n, 2), engine(seed) {
        std::mt19937 gen(seed);
        for (size_t v = 1; v < n; ++v) {
            std::uniform_int_distribution<size_t> P(0, v - 1);
            parent[v] = P(gen);
            edges.push_back({parent[v], v});
        }
        if (shape == CYCLES) {
            std::set<std::pair<size_t, size_t>> have;
            for (const auto& e : edges) have.insert({std::min(e.first, e.second), std::max(e.first, e.second)});
            std::uniform_int_distribution<size_t> V(0, n - 1);
            while (edges.size() < n - 1 + n / 4) {
                size_t a = V(gen), b = V(gen);
                if (a == b || !have.insert({std::min(a, b), std::max(a, b)}).second) continue;
                edges.push_back({a, b});
            }
        }
        idx_t* A = (idx_t*)std::calloc(2 * edges.size() + 1, sizeof(idx_t));
        for (size_t e = 0; e < edges.size(); ++e) {
            A[2 * e] = edges[e].first;
            A[2 * e + 1] = edges[e].second;
        }
        G.reset(new QZ::Graph<idx_t>(true, A, (idx_t)n, (idx_t)edges.size()));
        const double m = (double)edges.size();
        std::uniform_real_distribution<double> U(regime == SMALL ? 0.0 : -0.5, regime == SMALL ? 2.0 / m : 0.5);
        w.resize(4 * edges.size());
        for (double& x : w) x = U(gen);
        if (n <= 20) {
            QZ::SQMplus<idx_t, double> e(G.get(), Y.data(), &engine, w.data(), 1);
            e.QZ::InferenceAlgorithm<idx_t, double>::infer_slow(0);
            exactA = e.A();
        } else if (shape == TREE) {
            exactA = treeLogZ();
        } else if (n <= 100) {
            QZ::HuginAlgorithm<idx_t, double> jt(G.get(), Y.data(), &engine, w.data());
            jt.infer(0);
            exactA = jt.A();
        }
    }

    // Sums out the vertices from the last to the first: each leaf's message
    // to its parent, in log space.
    double treeLogZ() const {
        const size_t n = Y.size();
        std::vector<double> msg(2 * n, 0.0);  // log of the incoming product per state
        for (size_t v = n - 1; v >= 1; --v) {
            const size_t e = v - 1, p = parent[v];
            for (size_t xp = 0; xp < 2; ++xp) {
                const double a = w[4 * e + 2 * xp + 0] + msg[2 * v + 0];
                const double b = w[4 * e + 2 * xp + 1] + msg[2 * v + 1];
                const double mx = std::max(a, b);
                msg[2 * p + xp] += mx + std::log(std::exp(a - mx) + std::exp(b - mx));
            }
        }
        const double mx = std::max(msg[0], msg[1]);
        return mx + std::log(std::exp(msg[0] - mx) + std::exp(msg[1] - mx));
    }
};

void BM_SQMplusEstimate(benchmark::State& state) {
    const size_t n = (size_t)state.range(0);
    const Shape shape = (Shape)state.range(1);
    const Regime regime = (Regime)state.range(2);
    const idx_t k = (idx_t)state.range(3);
    const idx_t mil = (idx_t)state.range(4);
    RandomModel M(n, shape, regime, 4242 + (unsigned)n);
    QZ::SQMplus<idx_t, double> e(M.G.get(), M.Y.data(), &M.engine, M.w.data(), k);
    e.setMaxIter(mil);
    double sumErr = 0, sumA = 0;
    size_t runs = 0;
    for (auto _ : state) {
        e.infer(0);
        benchmark::DoNotOptimize(e.A());
        state.PauseTiming();
        sumA += e.A();
        if (!std::isnan(M.exactA)) sumErr += std::fabs(e.A() - M.exactA);
        ++runs;
        state.ResumeTiming();
    }
    state.counters["edges"] = (double)M.edges.size();
    state.counters["A_est"] = sumA / (double)runs;
    if (!std::isnan(M.exactA)) {
        state.counters["A_exact"] = M.exactA;
        state.counters["abs_err"] = sumErr / (double)runs;
        state.counters["rel_err"] = sumErr / (double)runs / std::fabs(M.exactA);
    }
}

}  // namespace

// MIL 1000 is the machine's default count bound; the larger ones show what
// visiting more tuples buys. Mixed weights on 1000 vertices are left out: the
// interval is scaled to width 64 there, its coefficients reach e^32, and tau
// overflows into the NaN assertion even at degree 2.
BENCHMARK(BM_SQMplusEstimate)
    ->ArgNames({"n", "cycles", "mixed", "k", "mil"})
    ->Args({20, CYCLES, SMALL, 4, 1000})
    ->Args({20, CYCLES, SMALL, 4, 10000})
    ->Args({20, CYCLES, SMALL, 2, 1000})
    ->Args({20, CYCLES, MIXED, 4, 1000})
    ->Args({20, TREE, SMALL, 4, 1000})
    ->Args({100, TREE, SMALL, 4, 1000})
    ->Args({100, TREE, SMALL, 2, 1000})
    ->Args({100, TREE, MIXED, 4, 1000})
    ->Args({100, CYCLES, SMALL, 4, 1000})
    ->Args({1000, TREE, SMALL, 2, 1000})
    ->Args({1000, TREE, SMALL, 2, 10000})
    ->Args({1000, CYCLES, SMALL, 2, 1000})
    ->Unit(benchmark::kMillisecond);
