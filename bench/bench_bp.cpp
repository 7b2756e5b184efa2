// Sum-product sweeps of loopy belief propagation on square grids: throughput
// in messages per second, and the gain of two threads over one measured
// side by side in the same process.
#include <benchmark/benchmark.h>

#include <QZ/graph/generators>
#include <QZ/bp/loopy>

#include <omp.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr unsigned kSweeps = 10;

// CPU seconds of the calling thread. With one thread it does all the work,
// so messages per CPU second is the throughput of a core of its own even when
// the machine is shared (the wall clock then says little).
double threadCpu() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + 1e-9 * ts.tv_nsec;
}

struct GridModel {
    QZ::Grid<unsigned int> G;
    std::vector<unsigned int> Y;
    std::vector<double> w;
    std::unique_ptr<QZ::LBP<unsigned int, double>> bp;

    GridModel(unsigned int N, unsigned int states) : G(N), Y(N * N, states) {
        w.resize((size_t)G.edges() * states * states);
        std::mt19937 gen(12345);
        std::uniform_real_distribution<double> U(-1.0, 1.0);
        for (double& x : w) x = U(gen);
        bp.reset(new QZ::LBP<unsigned int, double>(&G, Y.data(), nullptr, w.data(), false));
        bp->setEpsilon(-1);  // a fixed number of sweeps
        bp->setMaxIter(kSweeps);
    }
    double directedMessages() const { return 2.0 * G.edges() * kSweeps; }
    double messageEntries() const { return 2.0 * G.edges() * Y[0] * kSweeps; }
};

// One infer: kSweeps sweeps, the edge normalization and the Bethe value.
void BM_SumProductSweeps(benchmark::State& state) {
    const unsigned int N = (unsigned int)state.range(0), S = (unsigned int)state.range(1);
    const int threads = (int)state.range(2);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(threads);
    GridModel m(N, S);
    for (auto _ : state) {
        m.bp->infer(0);
        benchmark::DoNotOptimize(m.bp->A());
    }
    omp_set_num_threads(saved);
    state.counters["msgs/s"] = benchmark::Counter(m.directedMessages() * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["entries/s"] =
        benchmark::Counter(m.messageEntries() * state.iterations(), benchmark::Counter::kIsRate);
    state.counters["edges"] = (double)m.G.edges();
}

// Both thread counts in every iteration, on the same object, so that the
// ratio is taken under the same machine load.
void BM_TwoThreadsOverOne(benchmark::State& state) {
    const unsigned int N = (unsigned int)state.range(0), S = (unsigned int)state.range(1);
    const int saved = omp_get_max_threads();
    GridModel m(N, S);
    double t1 = 0, t2 = 0, c1 = 0;
    for (auto _ : state) {
        omp_set_num_threads(1);
        const double ca = threadCpu();
        auto a = std::chrono::steady_clock::now();
        m.bp->infer(0);
        auto b = std::chrono::steady_clock::now();
        c1 += threadCpu() - ca;
        omp_set_num_threads(2);
        m.bp->infer(0);
        auto c = std::chrono::steady_clock::now();
        t1 += std::chrono::duration<double>(b - a).count();
        t2 += std::chrono::duration<double>(c - b).count();
        benchmark::DoNotOptimize(m.bp->A());
    }
    omp_set_num_threads(saved);
    state.counters["speedup_2v1"] = t2 > 0 ? t1 / t2 : 0.0;
    state.counters["msgs/s_1thr"] = m.directedMessages() * state.iterations() / t1;
    state.counters["msgs/s_2thr"] = m.directedMessages() * state.iterations() / t2;
    state.counters["msgs/cpu_s_1thr"] = m.directedMessages() * state.iterations() / c1;
}

}  // namespace

BENCHMARK(BM_SumProductSweeps)
    ->ArgNames({"N", "states", "threads"})
    ->Args({100, 2, 1})
    ->Args({100, 2, 2})
    ->Args({100, 4, 1})
    ->Args({100, 4, 2})
    ->Args({300, 2, 1})
    ->Args({300, 2, 2})
    ->Args({300, 4, 1})
    ->Args({300, 4, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK(BM_TwoThreadsOverOne)
    ->ArgNames({"N", "states"})
    ->Args({100, 2})
    ->Args({100, 4})
    ->Args({300, 2})
    ->Args({300, 4})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
