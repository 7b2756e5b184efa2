// Networks of the inference competitions' families, generated here and solved
// as qzuai solve does: Ising grids (with and without a torus), Potts grids
// whose neighbouring labels may not differ by more than one (zero entries),
// and Bayesian networks of 3-parent tables with deterministic rows. For each:
// the junction tree's plan (its largest table and all of its tables, in
// entries, as counters), MAR by the junction tree where its tables fit in
// 1 GB, and MAR by loopy belief propagation (at most 1000 sweeps).
#include <benchmark/benchmark.h>

#include <uai/uai.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace {

enum Family { ISING, TORUS, POTTS, BAYES };

uai::Factor pairFactor(size_t a, size_t b, std::vector<double> table) {
    uai::Factor f;
    f.scope = {a, b};
    f.table = std::move(table);
    return f;
}

// An L x L grid of Ising spins (couplings and fields of either sign), or of
// Potts labels with q states (attraction on equal labels, and labels two or
// more apart forbidden for neighbours).
uai::FactorModel grid(size_t L, bool torus, size_t q, bool potts) {
    std::mt19937 rng(17);
    std::uniform_real_distribution<double> U(-1.0, 1.0);
    uai::FactorModel F;
    F.card.assign(L * L, q);
    for (size_t v = 0; v < L * L; ++v) {
        uai::Factor f;
        f.scope = {v};
        for (size_t x = 0; x < q; ++x) f.table.push_back(std::exp(0.2 * U(rng)));
        F.factors.push_back(f);
    }
    auto couple = [&](size_t a, size_t b) {
        std::vector<double> t(q * q);
        const double J = U(rng);
        for (size_t x = 0; x < q; ++x)
            for (size_t y = 0; y < q; ++y) {
                const size_t d = x > y ? x - y : y - x;
                t[x * q + y] = potts ? (d >= 2 ? 0.0 : std::exp(d == 0 ? 1.0 + J : 0.0)) : std::exp(x == y ? J : -J);
            }
        F.factors.push_back(pairFactor(a, b, t));
    };
    for (size_t r = 0; r < L; ++r)
        for (size_t c = 0; c < L; ++c) {
            if (c + 1 < L || (torus && L > 2)) couple(r * L + c, r * L + (c + 1) % L);
            if (r + 1 < L || (torus && L > 2)) couple(r * L + c, ((r + 1) % L) * L + c);
        }
    return F;
}

// n binary variables in topological order; each from the fourth on has
// three parents among the `window` before it, and every fifth row of its
// table is deterministic.
uai::FactorModel bayesNet(size_t n, size_t window) {
    std::mt19937 rng(23);
    std::uniform_real_distribution<double> U(0.05, 0.95);
    uai::FactorModel F;
    F.bayes = true;
    F.card.assign(n, 2);
    for (size_t v = 0; v < n; ++v) {
        uai::Factor f;
        if (v >= 3) {
            const size_t lo = v > window ? v - window : 0;
            std::uniform_int_distribution<size_t> P(lo, v - 1);
            while (f.scope.size() < 3) {
                const size_t p = P(rng);
                bool seen = false;
                for (size_t u : f.scope) seen = seen || u == p;
                if (!seen) f.scope.push_back(p);
            }
        }
        f.scope.push_back(v);
        const size_t rows = (size_t)1 << (f.scope.size() - 1);
        for (size_t r = 0; r < rows; ++r) {
            const double p = r % 5 == 4 ? 1.0 : U(rng);
            f.table.push_back(p);
            f.table.push_back(1.0 - p);
        }
        F.factors.push_back(f);
    }
    return F;
}

uai::FactorModel make(Family fam, size_t size) {
    switch (fam) {
    case ISING: return grid(size, false, 2, false);
    case TORUS: return grid(size, true, 2, false);
    case POTTS: return grid(size, false, 3, true);
    default: return bayesNet(size, 8);
    }
}

void counters(benchmark::State& state, const uai::PairModel& M, const uai::TablePlan& plan) {
    state.counters["variables"] = (double)M.original;
    state.counters["added"] = (double)(M.n() - M.original);
    state.counters["largest_table"] = plan.largest;
    state.counters["all_tables"] = plan.total;
}

void BM_Plan(benchmark::State& state, Family fam, size_t size) {
    const uai::PairModel M = uai::toPairwise(make(fam, size), nullptr, true);
    uai::TablePlan plan;
    for (auto _ : state) {
        plan = uai::exactTableEntries(M);
        benchmark::DoNotOptimize(plan.total);
    }
    counters(state, M, plan);
}

void BM_Solve(benchmark::State& state, Family fam, size_t size, const std::string& alg) {
    const uai::FactorModel F = make(fam, size);
    const uai::PairModel M = uai::toPairwise(F, nullptr, true);
    const uai::TablePlan plan = uai::exactTableEntries(M);
    counters(state, M, plan);
    if (alg == "JT" && plan.total * uai::exactBytesPerEntry() > 1e9) {
        state.SkipWithError("the junction tree's tables exceed 1 GB");
        return;
    }
    uai::SolveOptions o;
    o.task = "MAR";
    for (auto _ : state) {
        try {
            const uai::Solution S = uai::runAlgorithm(F, M, nullptr, alg, o);
            benchmark::DoNotOptimize(S.marginals.data());
        } catch (const std::exception& e) {
            state.SkipWithError(e.what());
            return;
        }
    }
}

void BM_JT(benchmark::State& state, Family fam, size_t size) { BM_Solve(state, fam, size, "JT"); }
void BM_LBP(benchmark::State& state, Family fam, size_t size) { BM_Solve(state, fam, size, "LBP"); }

}  // namespace

#define QZ_UAI_BENCH(name, fam, size)                                                      \
    BENCHMARK_CAPTURE(BM_Plan, name, fam, size)->Unit(benchmark::kMillisecond);            \
    BENCHMARK_CAPTURE(BM_JT, name, fam, size)->Unit(benchmark::kMillisecond);              \
    BENCHMARK_CAPTURE(BM_LBP, name, fam, size)->Unit(benchmark::kMillisecond)

QZ_UAI_BENCH(ising_10x10, ISING, 10);
QZ_UAI_BENCH(ising_20x20, ISING, 20);
QZ_UAI_BENCH(ising_50x50, ISING, 50);
QZ_UAI_BENCH(torus_10x10, TORUS, 10);
QZ_UAI_BENCH(torus_20x20, TORUS, 20);
QZ_UAI_BENCH(potts3_zeros_8x8, POTTS, 8);
QZ_UAI_BENCH(potts3_zeros_30x30, POTTS, 30);
QZ_UAI_BENCH(bayes3_20, BAYES, 20);
QZ_UAI_BENCH(bayes3_30, BAYES, 30);
QZ_UAI_BENCH(bayes3_60, BAYES, 60);
QZ_UAI_BENCH(bayes3_300, BAYES, 300);
