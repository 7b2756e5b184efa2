// Graph access in the shape of the inner loops of message passing and
// gradients: a 1000 x 1000 grid walked by incidence, and a spatio-temporal
// graph of ten slices over it walked edge by edge.
#include <benchmark/benchmark.h>

#include <QZ/graph/core>
#include <QZ/graph/generators>
#include <QZ/graph/stgraph>

#include <memory>

using namespace QZ;

namespace {

typedef unsigned int idx_t;
const idx_t SIDE = 1000;

const Grid<idx_t>& grid() {
    static std::unique_ptr<Grid<idx_t>> G(new Grid<idx_t>(SIDE));
    return *G;
}

}  // namespace

static void BM_GridBuild(benchmark::State& state) {
    for (auto _ : state) {
        Grid<idx_t> G(SIDE);
        benchmark::DoNotOptimize(G.getNv());
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)(2 * SIDE * (SIDE - 1)));
}
BENCHMARK(BM_GridBuild)->Unit(benchmark::kMillisecond);

// Every incidence of every vertex through the virtual interface, resolving
// the neighbour from the edge's endpoints.
static void BM_GridIncidenceWalk(benchmark::State& state) {
    const AbstractGraph<idx_t>& G = grid();
    const idx_t n = G.vertices();
    for (auto _ : state) {
        size_t sum = 0;
        for (idx_t v = 0; v < n; ++v) {
            const idx_t d = G.num_neighbors(v);
            for (idx_t i = 0; i < d; ++i) {
                const idx_t e = G.in_edge(v, i);
                idx_t a, b;
                G.edge(e, a, b);
                sum += (a == v) ? b : a;
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)(2 * (size_t)G.edges()));
}
BENCHMARK(BM_GridIncidenceWalk)->Unit(benchmark::kMillisecond);

// The same walk on the flat arrays, the floor the interface is measured against.
static void BM_GridIncidenceWalkRaw(benchmark::State& state) {
    const Grid<idx_t>& G = grid();
    const idx_t n = G.vertices(), m2 = 2 * G.edges();
    const idx_t *A = G.getA(), *Nv = G.getNv(), *voff = G.getvoff();
    for (auto _ : state) {
        size_t sum = 0;
        for (idx_t v = 0; v < n; ++v) {
            const idx_t end = (v == n - 1) ? m2 : voff[v + 1];
            for (idx_t k = voff[v]; k < end; ++k) {
                const idx_t e = Nv[k];
                const idx_t a = A[2 * (size_t)e], b = A[2 * (size_t)e + 1];
                sum += (a == v) ? b : a;
            }
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)(2 * (size_t)G.edges()));
}
BENCHMARK(BM_GridIncidenceWalkRaw)->Unit(benchmark::kMillisecond);

static void BM_STGraphEdgeWalk(benchmark::State& state) {
    STGraph<idx_t> G(const_cast<Grid<idx_t>*>(&grid()), 10);
    const idx_t m = G.edges();
    for (auto _ : state) {
        size_t sum = 0;
        for (idx_t e = 0; e < m; ++e) {
            idx_t a, b;
            G.edge(e, a, b);
            sum += a ^ b;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)m);
}
BENCHMARK(BM_STGraphEdgeWalk)->Unit(benchmark::kMillisecond);

static void BM_STGraphIncidenceWalk(benchmark::State& state) {
    STGraph<idx_t> G(const_cast<Grid<idx_t>*>(&grid()), 10);
    const idx_t n = G.vertices();
    for (auto _ : state) {
        size_t sum = 0;
        for (idx_t v = 0; v < n; ++v) {
            const idx_t d = G.num_neighbors(v);
            for (idx_t i = 0; i < d; ++i) sum += G.in_edge(v, i);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)(2 * (size_t)G.edges()));
}
BENCHMARK(BM_STGraphIncidenceWalk)->Unit(benchmark::kMillisecond);
