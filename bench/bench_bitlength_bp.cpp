// Sum-product sweeps of bit-length belief propagation on square grids of
// binary vertices, for the four index widths, next to loopy belief
// propagation in double on the same grids: throughput in messages per second.
//
// A width bounds the grid: the message store holds 8 entries an edge, and
// its size must fit the index type. 32 and 64 bits take the 100 x 100 grid;
// 16 bits at most 64 x 64 (64512 entries), 8 bits at most 4 x 4 (192).
#include <benchmark/benchmark.h>

#include <QZ/graph/generators>
#include <QZ/bp/loopy>
#include <QZ/bp/bitlength>

#include <omp.h>

#include <ctime>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr unsigned kSweeps = 10;

template <typename idx_t> struct IntGrid {
    QZ::Grid<idx_t> G;
    std::vector<idx_t> Y;
    std::vector<idx_t> w;
    std::unique_ptr<QZ::BitLengthBP<idx_t>> bp;

    explicit IntGrid(idx_t N) : G(N), Y((size_t)N * N, 2) {
        w.resize((size_t)G.edges() * 4);
        std::mt19937 gen(12345);
        std::uniform_int_distribution<unsigned> U(0, 3);  // the default range of the weights
        for (idx_t& x : w) x = (idx_t)U(gen);
        bp.reset(new QZ::BitLengthBP<idx_t>(&G, Y.data(), nullptr, w.data(), false));
        bp->setEpsilon((idx_t)-1);  // a fixed number of sweeps
        bp->setMaxIter(kSweeps);
    }
    double directedMessages() const { return 2.0 * G.edges() * kSweeps; }
};

struct DoubleGrid {
    QZ::Grid<unsigned int> G;
    std::vector<unsigned int> Y;
    std::vector<double> w;
    std::unique_ptr<QZ::LBP<unsigned int, double>> bp;

    explicit DoubleGrid(unsigned int N) : G(N), Y((size_t)N * N, 2) {
        w.resize((size_t)G.edges() * 4);
        std::mt19937 gen(12345);
        std::uniform_real_distribution<double> U(-1.0, 1.0);
        for (double& x : w) x = U(gen);
        bp.reset(new QZ::LBP<unsigned int, double>(&G, Y.data(), nullptr, w.data(), false));
        bp->setEpsilon(-1);
        bp->setMaxIter(kSweeps);
    }
    double directedMessages() const { return 2.0 * G.edges() * kSweeps; }
};

// CPU seconds of the calling thread. With one thread it does all the work,
// so messages per CPU second is the throughput of a core of its own even when
// the machine is shared (the wall clock then says little).
double threadCpu() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + 1e-9 * ts.tv_nsec;
}

// One infer: kSweeps sweeps and the log partition value.
template <typename Model> void sweeps(benchmark::State& state, Model& m) {
    const double c0 = threadCpu();
    for (auto _ : state) {
        m.bp->infer(0);
        benchmark::DoNotOptimize(m.bp->A());
    }
    const double cpu = threadCpu() - c0;
    const double msgs = m.directedMessages() * state.iterations();
    state.counters["msgs/s"] = benchmark::Counter(msgs, benchmark::Counter::kIsRate);
    if (state.range(1) == 1) state.counters["msgs/cpu_s"] = msgs / cpu;
    state.counters["edges"] = (double)m.G.edges();
}

template <typename idx_t> void BM_BitLengthSweeps(benchmark::State& state) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads((int)state.range(1));
    IntGrid<idx_t> m((idx_t)state.range(0));
    sweeps(state, m);
    omp_set_num_threads(saved);
}

void BM_DoubleSweeps(benchmark::State& state) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads((int)state.range(1));
    DoubleGrid m((unsigned int)state.range(0));
    sweeps(state, m);
    omp_set_num_threads(saved);
}

}  // namespace

BENCHMARK_TEMPLATE(BM_BitLengthSweeps, unsigned char)
    ->ArgNames({"N", "threads"})
    ->Args({4, 1})
    ->Args({4, 2})
    ->UseRealTime();
BENCHMARK_TEMPLATE(BM_BitLengthSweeps, unsigned short)
    ->ArgNames({"N", "threads"})
    ->Args({64, 1})
    ->Args({64, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_TEMPLATE(BM_BitLengthSweeps, unsigned int)
    ->ArgNames({"N", "threads"})
    ->Args({100, 1})
    ->Args({100, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_TEMPLATE(BM_BitLengthSweeps, unsigned long)
    ->ArgNames({"N", "threads"})
    ->Args({100, 1})
    ->Args({100, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_DoubleSweeps)
    ->ArgNames({"N", "threads"})
    ->Args({4, 1})
    ->Args({64, 1})
    ->Args({100, 1})
    ->Args({100, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
