// Loopy belief propagation on the reference grid models that other engines
// were measured on (the same weights, drawn as gridgen.cpp draws them): run
// to a change below 1e-9, the Bethe value is the one listed for each model,
// to a relative 1e-9, and the same with one thread and with two.
#include <gtest/gtest.h>
#include <qz_refgrid.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>

#include <omp.h>

#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

struct Reference {
    size_t N, K;
    double bethe;
};

// The converged Bethe values listed with the models.
const Reference kReferences[] = {
    {12, 2, 122.482957546694},     {14, 2, 172.278017454498},     {100, 2, 9091.014482481321},
    {100, 4, 16988.630479255738},  {300, 2, 82169.530498547974},  {300, 4, 152968.579707948025},
};

double bethe(const qztest::RefGrid& R, int threads) {
    const size_t V = R.N * R.N;
    unsigned* A = (unsigned*)std::calloc(2 * R.edges.size() + 1, sizeof(unsigned));
    for (size_t e = 0; e < R.edges.size(); ++e) {
        A[2 * e] = (unsigned)R.edges[e].first;
        A[2 * e + 1] = (unsigned)R.edges[e].second;
    }
    QZ::Graph<unsigned> G(true, A, (unsigned)V, (unsigned)R.edges.size());
    std::vector<unsigned> Y(V, (unsigned)R.K);
    std::vector<double> w = R.w;
    const int saved = omp_get_max_threads();
    omp_set_num_threads(threads);
    QZ::LBP<unsigned, double> bp(&G, Y.data(), nullptr, w.data(), false);
    bp.setEpsilon(1e-9);
    bp.setMaxIter(10000);
    bp.infer(0);
    omp_set_num_threads(saved);
    return bp.A();
}

}  // namespace

TEST(ReferenceGrids, LoopyBeliefPropagationConvergesToTheListedBetheValues) {
    for (const Reference& r : kReferences) {
        const qztest::RefGrid R = qztest::refGrid(r.N, r.K);
        const double one = bethe(R, 1), two = bethe(R, 2);
        EXPECT_NEAR(one, r.bethe, 1e-9 * r.bethe) << r.N << " x " << r.N << ", K = " << r.K;
        // The same bits whatever the thread count.
        EXPECT_EQ(one, two) << r.N << " x " << r.N << ", K = " << r.K;
    }
}

TEST(ReferenceGrids, SmallGridsStayBelowTheirExactValue) {
    // The exact log partition functions listed for the two small grids: the
    // Bethe value lies below each, by less than 0.02.
    const double exact12 = 122.490584263945, exact14 = 172.289871424397;
    const double b12 = bethe(qztest::refGrid(12, 2), 1), b14 = bethe(qztest::refGrid(14, 2), 1);
    EXPECT_GT(exact12 - b12, 1e-3);
    EXPECT_LT(exact12 - b12, 0.02);
    EXPECT_GT(exact14 - b14, 1e-3);
    EXPECT_LT(exact14 - b14, 0.02);
}
