// Where two threads start to pay. Every loop is given to the team whatever
// its size (the threshold of the library is lowered to 0 here), and one
// thread is set against two in the same iteration, so that both meet the
// same load, and the team does not give way to other work: whole runs of
// loopy belief propagation (20 sweeps) and
// gradients on square grids of growing side. The size at which the ratio
// passes 1, with the other core idle and with it taken by a spinning
// process, is the threshold QZ::detail::threadWork.
#include <benchmark/benchmark.h>

#include <QZ/graph/generators>
#include <QZ/bp/loopy>
#include <QZ/mrf/model>

#include <omp.h>

#include <chrono>
#include <memory>
#include <random>
#include <vector>

namespace {

struct GridModel {
    QZ::Grid<unsigned> G;
    std::vector<unsigned> Y;
    std::vector<double> w, emp;
    std::unique_ptr<QZ::LBP<unsigned, double>> bp;
    std::unique_ptr<QZ::MRF<unsigned, double>> f;

    GridModel(unsigned L, unsigned K, unsigned sweeps) : G(L), Y(L * L, K) {
        w.resize((size_t)G.edges() * K * K);
        emp.resize(w.size());
        std::mt19937 g(7);
        std::uniform_real_distribution<double> U(-1.0, 1.0), P(0.0, 1.0);
        for (double& x : w) x = U(g);
        for (double& x : emp) x = P(g);
        bp.reset(new QZ::LBP<unsigned, double>(&G, Y.data(), nullptr, w.data(), false));
        bp->setEpsilon(-1);
        bp->setMaxIter(sweeps);
        f.reset(new QZ::MRF<unsigned, double>(bp.get()));
        double* e = emp.data();
        f->set_empirical(e, 1);
    }
};

double seconds(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// Runs `work` with one thread, then with two, and reports both times and
// their ratio; `units` is the size of one run in the unit of the threshold.
template <typename F> void oneAgainstTwo(benchmark::State& state, double units, F work) {
    const size_t savedWork = QZ::detail::threadWork;
    const int saved = omp_get_max_threads();
    QZ::detail::threadWork = 0;
    // The team is what is measured, whatever the load: it must not give way.
    QZ::detail::crowding().setWatch(false);
    double t1 = 0, t2 = 0;
    for (auto _ : state) {
        omp_set_num_threads(1);
        const auto a = std::chrono::steady_clock::now();
        work();
        const auto b = std::chrono::steady_clock::now();
        omp_set_num_threads(2);
        work();
        const auto c = std::chrono::steady_clock::now();
        t1 += seconds(a, b);
        t2 += seconds(b, c);
    }
    omp_set_num_threads(saved);
    QZ::detail::threadWork = savedWork;
    QZ::detail::crowding().setWatch(true);
    const double n = (double)state.iterations();
    state.counters["work"] = units;
    state.counters["us_1thr"] = 1e6 * t1 / n;
    state.counters["us_2thr"] = 1e6 * t2 / n;
    state.counters["ratio_1v2"] = t2 > 0 ? t1 / t2 : 0.0;
}

// A run of 20 sweeps: the work is the number of message entries.
void BM_SweepsOneAgainstTwo(benchmark::State& state) {
    GridModel m((unsigned)state.range(0), (unsigned)state.range(1), 20);
    oneAgainstTwo(state, (double)m.bp->message_entries(), [&] {
        m.bp->infer(0);
        benchmark::DoNotOptimize(m.bp->A());
    });
}

// The gradient without sweeps: the work is the number of weights.
void BM_GradientOneAgainstTwo(benchmark::State& state) {
    GridModel m((unsigned)state.range(0), (unsigned)state.range(1), 0);
    oneAgainstTwo(state, (double)m.w.size(), [&] { benchmark::DoNotOptimize(m.f->comp_gradient()); });
}

void sides(benchmark::internal::Benchmark* b) {
    b->ArgNames({"side", "states"});
    for (int K : {2, 4})
        for (int L : {6, 12, 24, 36, 48, 64, 96, 128}) b->Args({L, K});
    b->Unit(benchmark::kMicrosecond)->UseRealTime();
}

}  // namespace

BENCHMARK(BM_SweepsOneAgainstTwo)->Apply(sides);
BENCHMARK(BM_GradientOneAgainstTwo)->Apply(sides);
