// Cost of the sparse integers: additions of single powers of two, whose price
// must follow the bits they touch and not the magnitude of the value, and the
// ranking of vertex subsets in both directions.
#include <benchmark/benchmark.h>

#include <QZ/QZINT>

#include <random>
#include <vector>

namespace {

const size_t ADDS = 1000000;

std::vector<unsigned> randomExponents(unsigned range, unsigned offset = 0) {
    std::mt19937 g(7);
    std::uniform_int_distribution<unsigned> d(offset, offset + range - 1);
    std::vector<unsigned> e(ADDS);
    for (unsigned& x : e) x = d(g);
    return e;
}

// The powers 2^x for the exponents e, added one by one into one value by p2x.
void addByP2x(benchmark::State& state, const std::vector<unsigned>& e) {
    for (auto _ : state) {
        QZ::sparse_uint_t<unsigned> x;
        for (unsigned p : e) x.p2x(p);
        benchmark::DoNotOptimize(x.data()->size());
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)e.size());
}

// The same powers, each as an object of its own added by operator+=.
void addObjects(benchmark::State& state, const std::vector<unsigned>& e) {
    std::vector<QZ::sparse_uint_t<unsigned>> terms(e.size());
    for (size_t i = 0; i < e.size(); ++i) terms[i].p2x(e[i]);
    for (auto _ : state) {
        QZ::sparse_uint_t<unsigned> x;
        for (const QZ::sparse_uint_t<unsigned>& t : terms) x += t;
        benchmark::DoNotOptimize(x.data()->size());
    }
    state.SetItemsProcessed(state.iterations() * (int64_t)e.size());
}

// 10^6 random powers 2^x, x below the argument, into one value by p2x.
void BM_P2xRandomPowers(benchmark::State& state) { addByP2x(state, randomExponents((unsigned)state.range(0))); }
BENCHMARK(BM_P2xRandomPowers)->Arg(64)->Arg(1 << 12)->Arg(1 << 20)->Arg(1 << 30)->Unit(benchmark::kMillisecond);

// 10^6 random powers among 64 positions starting at the argument: the same
// bit pattern at a small and at a huge magnitude.
void BM_P2xPowersAtOffset(benchmark::State& state) {
    addByP2x(state, randomExponents(64, (unsigned)state.range(0)));
}
BENCHMARK(BM_P2xPowersAtOffset)->Arg(0)->Arg(1 << 30)->Unit(benchmark::kMillisecond);

// As BM_P2xRandomPowers, by operator+= of single-power objects.
void BM_AddSparseRandomPowers(benchmark::State& state) {
    addObjects(state, randomExponents((unsigned)state.range(0)));
}
BENCHMARK(BM_AddSparseRandomPowers)->Arg(64)->Arg(1 << 30)->Unit(benchmark::kMillisecond);

// As BM_P2xPowersAtOffset, by operator+= of single-power objects.
void BM_AddSparsePowersAtOffset(benchmark::State& state) {
    addObjects(state, randomExponents(64, (unsigned)state.range(0)));
}
BENCHMARK(BM_AddSparsePowersAtOffset)->Arg(0)->Arg(1 << 30)->Unit(benchmark::kMillisecond);

// Every 3-subset of 64 elements ranked and unranked again.
template <typename idx_t> void BM_RankUnrank3Of64(benchmark::State& state) {
    const idx_t n = 64, k = 3;
    QZ::sparse_uint_t<idx_t> x, y;
    size_t bad = 0;
    for (auto _ : state) {
        for (idx_t a = 0; a < n; ++a)
            for (idx_t b = a + 1; b < n; ++b)
                for (idx_t c = b + 1; c < n; ++c) {
                    x.data_rw()->clear();
                    x.data_rw()->insert({a, b, c});
                    const idx_t r = x.combinatorial_index(n, k);
                    y.from_combinatorial_index(r, n, k);
                    bad += !(y == x);
                }
    }
    if (bad != 0) state.SkipWithError("unranking did not invert ranking");
    state.SetItemsProcessed(state.iterations() * 41664);
}
BENCHMARK_TEMPLATE(BM_RankUnrank3Of64, unsigned short)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RankUnrank3Of64, unsigned long)->Unit(benchmark::kMillisecond);

}  // namespace
