// The reference grid models that other engines were measured on (weights as
// gridgen.cpp draws them, vertex tables folded into edges): milliseconds per
// sweep of loopy belief propagation on one thread and on two, and their ratio,
// taken in the same iteration so that both meet the same load; and Gibbs
// sweeps. A sweep's time is the difference of runs of 25 and 5 sweeps over
// 20, so the work of a run outside its sweeps is left out. The thread CPU
// time of the one-thread runs is reported too: on a shared machine it is the
// cost of a sweep on a core of its own.
#include <benchmark/benchmark.h>
#include <qz_refgrid.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>

#include <omp.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <vector>

namespace {

double threadCpu() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + 1e-9 * ts.tv_nsec;
}

double wall() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

struct RefModel {
    qztest::RefGrid R;
    std::unique_ptr<QZ::Graph<unsigned>> G;
    std::vector<unsigned> Y;
    std::vector<double> w;
    std::unique_ptr<QZ::LBP<unsigned, double>> bp;
    std::mt19937 rng;

    RefModel(size_t N, size_t K) : R(qztest::refGrid(N, K)), Y(N * N, (unsigned)K), w(R.w), rng(1) {
        unsigned* A = (unsigned*)std::calloc(2 * R.edges.size() + 1, sizeof(unsigned));
        for (size_t e = 0; e < R.edges.size(); ++e) {
            A[2 * e] = (unsigned)R.edges[e].first;
            A[2 * e + 1] = (unsigned)R.edges[e].second;
        }
        G.reset(new QZ::Graph<unsigned>(true, A, (unsigned)(N * N), (unsigned)R.edges.size()));
        bp.reset(new QZ::LBP<unsigned, double>(G.get(), Y.data(), &rng, w.data(), false));
        bp->setEpsilon(-1);
    }

    void run(unsigned sweeps, bool max) {
        bp->setMaxIter(sweeps);
        bp->infer(max ? 1 : 0);
        benchmark::DoNotOptimize(bp->A());
    }
};

// Per sweep: wall time of one and of two threads, CPU time of one.
void BM_RefGridSweep(benchmark::State& state) {
    const bool max = state.range(2) != 0;
    RefModel m((size_t)state.range(0), (size_t)state.range(1));
    const int saved = omp_get_max_threads();
    double w1 = 0, w2 = 0, c1 = 0;
    for (auto _ : state) {
        for (int threads : {1, 2}) {
            omp_set_num_threads(threads);
            const double a = wall(), ca = threadCpu();
            m.run(5, max);
            const double b = wall(), cb = threadCpu();
            m.run(25, max);
            const double c = wall(), cc = threadCpu();
            const double perSweep = ((c - b) - (b - a)) / 20;
            if (threads == 1) {
                w1 += perSweep;
                c1 += ((cc - cb) - (cb - ca)) / 20;
            } else {
                w2 += perSweep;
            }
        }
    }
    omp_set_num_threads(saved);
    const double n = (double)state.iterations();
    state.counters["ms_1thr"] = 1e3 * w1 / n;
    state.counters["ms_2thr"] = 1e3 * w2 / n;
    state.counters["ratio_1v2"] = w2 > 0 ? w1 / w2 : 0.0;
    state.counters["cpu_ms_1thr"] = 1e3 * c1 / n;
}

// One Gibbs sweep over all vertices (sampling runs on one thread).
void BM_RefGridGibbs(benchmark::State& state) {
    RefModel m((size_t)state.range(0), (size_t)state.range(1));
    std::vector<double> x(m.Y.size(), 1e9);
    m.bp->GIBBS(x.data(), 1, false);
    double w1 = 0, c1 = 0;
    for (auto _ : state) {
        const double a = wall(), ca = threadCpu();
        m.bp->GIBBS(x.data(), 10, false);
        w1 += wall() - a;
        c1 += threadCpu() - ca;
    }
    const double n = (double)state.iterations() * 10;
    state.counters["ms_sweep"] = 1e3 * w1 / n;
    state.counters["cpu_ms_sweep"] = 1e3 * c1 / n;
}

// A run of a fixed number of sweeps on one thread, once: for counting
// instructions, e.g. valgrind --tool=callgrind on the cases of 5 and of 10
// sweeps, whose difference over 5 is the count of one sweep.
void BM_RefGridFixedSweeps(benchmark::State& state) {
    RefModel m((size_t)state.range(0), (size_t)state.range(1));
    const int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    for (auto _ : state) m.run((unsigned)state.range(2), false);
    omp_set_num_threads(saved);
}

}  // namespace

BENCHMARK(BM_RefGridFixedSweeps)
    ->ArgNames({"N", "K", "sweeps"})
    ->Args({100, 2, 5})
    ->Args({100, 2, 10})
    ->Args({300, 4, 5})
    ->Args({300, 4, 10})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

BENCHMARK(BM_RefGridSweep)
    ->ArgNames({"N", "K", "max"})
    ->Args({100, 2, 0})
    ->Args({100, 4, 0})
    ->Args({300, 2, 0})
    ->Args({300, 4, 0})
    ->Args({100, 2, 1})
    ->Args({300, 4, 1})
    ->MinTime(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK(BM_RefGridGibbs)->ArgNames({"N", "K"})->Args({100, 2})->Args({100, 4})->Unit(benchmark::kMillisecond)->UseRealTime();
