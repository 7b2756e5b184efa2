// The shared inference base: parameter layout, value conversions, scoring,
// enumeration, decoding of most probable states and Gibbs sampling.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>
#include <QZ/bp/hugin>
#include <QZ/inf/base>
#include <QZ/inf/numeric>
#include <QZ/inf/sqmplus>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using qztest::makeGraph;

// An engine whose vertex marginals come from a table, so that the decoding
// operations of the base can be driven directly.
template <typename idx_t, typename val_t> class TableIA : public QZ::InferenceAlgorithm<idx_t, val_t> {
public:
    std::vector<val_t> table;
    size_t stride;
    int inferCalls = 0;

    TableIA(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, std::mt19937* e, val_t* w)
        : QZ::InferenceAlgorithm<idx_t, val_t>(G, Y, e, w), stride(this->Ymax) {
        table.assign((size_t)G->vertices() * stride, 0);
    }
    void infer(const idx_t&) override { ++inferCalls; }
    void vertex_marginal(const idx_t& v, const idx_t& x, val_t& q, val_t& Z) const override {
        q = table[(size_t)v * stride + x];
        Z = 1;
    }
    void edge_marginal(const idx_t&, const idx_t&, const idx_t&, val_t& psi, val_t& Z) const override {
        psi = 0;
        Z = 1;
    }
    idx_t ymax() const { return this->Ymax; }
    idx_t* rawWrev() const { return this->wrev; }
    const val_t* obsArray() const { return this->O; }
};

// Log of the sum of exp(log_potential) over all joint states, by the decoding
// form of the score.
template <typename IA> double bruteLogZ(const IA& ia, size_t states) {
    double z = 0;
    for (size_t i = 0; i < states; ++i) z += std::exp((double)ia.log_potential((decltype(ia.wdim()))i));
    return std::log(z);
}

}  // namespace

// ---------------------------------------------------------------- log / exp

TEST(InferenceBase, LogExpFloatingAreOrdinary) {
    EXPECT_DOUBLE_EQ(QZ::exp<double>(1.5), std::exp(1.5));
    EXPECT_DOUBLE_EQ(QZ::log<double>(7.0), std::log(7.0));
    EXPECT_FLOAT_EQ(QZ::exp<float>(2.0f), std::exp(2.0f));
    EXPECT_TRUE(std::isinf(QZ::log<double>(0.0)));
}

TEST(InferenceBase, ExpOfNarrowIntegerWrapsAfterSaturatingAt32Bits) {
    EXPECT_EQ(QZ::exp<unsigned char>(6), 147);  // 403 keeps its low byte
    EXPECT_EQ(QZ::exp<unsigned char>(5), 148);  // 148.4 truncates
    // e^12 = 162754.79: the low 16 bits of 162754
    EXPECT_EQ(QZ::exp<unsigned short>(12), (unsigned short)(162754u & 0xFFFFu));
    // Beyond 32 bits the value saturates at 0xFFFFFFFF first, then is cut.
    EXPECT_EQ(QZ::exp<unsigned char>(30), 255);
    EXPECT_EQ(QZ::exp<unsigned short>(30), 65535);
}

TEST(InferenceBase, ExpOfWideIntegerSaturates) {
    EXPECT_EQ(QZ::exp<unsigned int>(10), 22026u);
    EXPECT_EQ(QZ::exp<unsigned int>(30), std::numeric_limits<unsigned int>::max());
    EXPECT_EQ(QZ::exp<unsigned long>(40), (unsigned long)std::exp(40.0));
    EXPECT_EQ(QZ::exp<unsigned long>(50), std::numeric_limits<unsigned long>::max());
}

TEST(InferenceBase, LogOfIntegerTruncatesAndZeroGivesZero) {
    EXPECT_EQ(QZ::log<unsigned int>(0), 0u);
    EXPECT_EQ(QZ::log<unsigned char>(0), 0);
    EXPECT_EQ(QZ::log<unsigned int>(1), 0u);
    EXPECT_EQ(QZ::log<unsigned int>(100), 4u);
    EXPECT_EQ(QZ::log<unsigned long>(std::numeric_limits<unsigned long>::max()), 44ul);
}

// ---------------------------------------------------------------- layout

TEST(InferenceBase, CalcDimSumsEdgeBlocks) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {1, 2}, {2, 0}});
    unsigned int Y[] = {2, 3, 4};
    EXPECT_EQ(QZ::calcDim<unsigned int>(G.get(), Y), 6u + 12u + 8u);
}

TEST(InferenceBase, CalcDimWrapsInNarrowIndexType) {
    auto G = makeGraph<unsigned char>(3, {{0, 1}, {1, 2}});
    unsigned char Y[] = {16, 16, 16};
    EXPECT_EQ(QZ::calcDim<unsigned char>(G.get(), Y), 0);  // 512 mod 256
    unsigned char Y2[] = {16, 16, 1};
    EXPECT_EQ(QZ::calcDim<unsigned char>(G.get(), Y2), 16);  // 272 mod 256
}

TEST(InferenceBase, EnginesRefuseWeightsTheIndexTypeCannotCount) {
    // 16 * 16 weights on each of two edges: 512, which calcDim wraps to 0.
    auto G = makeGraph<unsigned char>(3, {{0, 1}, {1, 2}});
    const unsigned char Y[] = {16, 16, 16};
    const auto refusal = [&](auto make) {
        try {
            make();
        } catch (const std::logic_error& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    const std::string msg = "too many weights for idx_t of 8 bits";
    EXPECT_EQ(refusal([&]() { QZ::HuginAlgorithm<unsigned char, double> jt(G.get(), Y, nullptr, nullptr); }), msg);
    EXPECT_EQ(refusal([&]() { QZ::SQMplus<unsigned char, double> sq(G.get(), Y, nullptr, nullptr, 2); }), msg);
    EXPECT_EQ(refusal([&]() { QZ::LBP<unsigned char, double> bp(G.get(), Y, nullptr, nullptr, false); }), msg);
    // A single block of 16 * 15 = 240 weights fits, and the engine lays it out.
    auto one = makeGraph<unsigned char>(2, {{0, 1}});
    const unsigned char Y1[] = {16, 15};
    QZ::HuginAlgorithm<unsigned char, double> jt(one.get(), Y1, nullptr, nullptr);
    EXPECT_EQ(jt.wdim(), 240);
    EXPECT_EQ(jt.edgeWeightOffset(0), 0);
}

TEST(InferenceBase, WeightBlocksFollowEdgeOrderWithSecondVertexFastest) {
    // Edges in the given orientation, not normalised: (2, 0) stays (2, 0).
    auto G = makeGraph<unsigned long>(3, {{0, 1}, {2, 0}, {1, 2}});
    unsigned long Y[] = {2, 3, 4};
    TableIA<unsigned long, double> ia(G.get(), Y, nullptr, nullptr);
    ASSERT_EQ(ia.wdim(), 6ul + 8ul + 12ul);
    EXPECT_EQ(ia.edgeWeightOffset(0), 0ul);
    EXPECT_EQ(ia.edgeWeightOffset(1), 6ul);
    EXPECT_EQ(ia.edgeWeightOffset(2), 14ul);
    EXPECT_EQ(ia.edgeWeightOffset(3), 26ul);
    EXPECT_EQ(ia.ymax(), 4ul);
    // A null vector is allocated and zeroed.
    for (unsigned long i = 0; i < ia.wdim(); ++i) EXPECT_EQ(ia.getParameters()[i], 0.0);

    double* w = ia.getParameters();
    // Entry for x at the first end vertex and y at the second end vertex.
    w[6 + 3 * 2 + 1] = 5.0;  // edge (2, 0): x = 3 at vertex 2, y = 1 at vertex 0
    unsigned long x[] = {1, 0, 3};
    EXPECT_DOUBLE_EQ(ia.log_potential(x), 5.0);
}

TEST(InferenceBase, GraphWithoutEdgesHasDimensionZero) {
    auto G = makeGraph<unsigned int>(3, {});
    unsigned int Y[] = {2, 2, 5};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    EXPECT_EQ(ia.wdim(), 0u);
    EXPECT_EQ(ia.edgeWeightOffset(0), 0u);
    EXPECT_EQ(ia.ymax(), 5u);
}

TEST(InferenceBase, MarkersAfterConstruction) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    unsigned int Y[] = {2, 2, 2};
    TableIA<unsigned int, double> f(G.get(), Y, nullptr, nullptr);
    EXPECT_EQ(f.raw_mu_samples()[0], -1.0);
    for (unsigned int v = 0; v < 3; ++v) EXPECT_EQ(f.observed(v), -1.0);
    EXPECT_EQ(f.getMaxIter(), 0u);
    TableIA<unsigned int, unsigned int> i(G.get(), Y, nullptr, nullptr);
    EXPECT_EQ(i.raw_mu_samples()[0], 0xFFFFFFFFu);
    for (unsigned int v = 0; v < 3; ++v) EXPECT_EQ(i.observed(v), 0xFFFFFFFFu);
}

TEST(InferenceBase, AccessorsAndAdoptedParameters) {
    auto G = makeGraph<unsigned short>(2, {{0, 1}});
    unsigned short Y[] = {2, 3};
    std::vector<float> w(6, 1.0f), w2(6, 2.0f);
    std::mt19937 eng(1), eng2(2);
    TableIA<unsigned short, float> ia(G.get(), Y, &eng, w.data());
    EXPECT_EQ(ia.getParameters(), w.data());
    EXPECT_EQ(ia.getRandomEngine(), &eng);
    EXPECT_EQ(ia.graph(), G.get());
    EXPECT_EQ(ia.getStateSpaces(), Y);
    EXPECT_EQ(ia.stateSpace(1), 3);
    ia.setMaxIter(17);
    EXPECT_EQ(ia.getMaxIter(), 17);
    ia.setRandomEngine(&eng2);
    EXPECT_EQ(ia.getRandomEngine(), &eng2);
    ia.setParameters(w2.data());
    EXPECT_EQ(ia.getParameters(), w2.data());
    unsigned short x[] = {1, 2};
    EXPECT_FLOAT_EQ(ia.log_potential(x), 2.0f);
    // The caller's vectors survive the engine: nothing was copied or freed.
    EXPECT_EQ(w[5], 1.0f);
}

TEST(InferenceBase, WeightEdgeLookupMapsEveryEntryToItsEdge) {
    auto G = makeGraph<unsigned int>(4, {{0, 1}, {1, 2}, {3, 1}});
    unsigned int Y[] = {2, 3, 2, 4};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    ia.initWeightEdgeLookup();
    std::vector<unsigned int> expect;
    for (unsigned int i = 0; i < 6; ++i) expect.push_back(0);
    for (unsigned int i = 0; i < 6; ++i) expect.push_back(1);
    for (unsigned int i = 0; i < 12; ++i) expect.push_back(2);
    ASSERT_EQ(ia.wdim(), (unsigned int)expect.size());
    for (unsigned int i = 0; i < ia.wdim(); ++i) EXPECT_EQ(ia.weightEdgeLookup(i), expect[i]) << i;
    // A built table is not walked again.
    ia.rawWrev()[7] = 9;
    ia.initWeightEdgeLookup();
    EXPECT_EQ(ia.weightEdgeLookup(7), 9u);
    // Before the first call entry 0 holds the marker.
    TableIA<unsigned int, double> fresh(G.get(), Y, nullptr, nullptr);
    EXPECT_EQ(fresh.rawWrev()[0], 0xFFFFFFFFu);
}

// ---------------------------------------------------------------- observations

TEST(InferenceBase, ObserveOutOfRangeStateMakesVertexUnobserved) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {3, 2};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    ia.observe(0, 2.0);
    EXPECT_EQ(ia.observed(0), 2.0);
    ia.observe(0, 3.0);
    EXPECT_EQ(ia.observed(0), -1.0);
    ia.observe(1, 1.0);
    ia.observe(1, 1e30);  // saturates to the largest index
    EXPECT_EQ(ia.observed(1), -1.0);

    TableIA<unsigned int, unsigned int> ii(G.get(), Y, nullptr, nullptr);
    ii.observe(0, 1);
    EXPECT_EQ(ii.observed(0), 1u);
    ii.observe(0, 7);
    EXPECT_EQ(ii.observed(0), 0xFFFFFFFFu);
}

TEST(InferenceBase, ObserveFractionStoresTheValueItself) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    ia.observe(1, 0.5);
    EXPECT_EQ(ia.observed(1), 0.5);
    ia.observe(0, 1.75);  // truncates to 1 for the range test, but is kept
    EXPECT_EQ(ia.observed(0), 1.75);
}

TEST(InferenceBase, ObserveNegativeValueIsStoredSincePlainConversionGivesZero) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    ia.observe(0, -3.0);
    EXPECT_EQ(ia.observed(0), -3.0);
    ia.observe(1, std::nan(""));
    EXPECT_TRUE(std::isnan(ia.observed(1)));
}

TEST(InferenceBase, ObserveAndClearBeyondLastVertexChangeNothing) {
    auto G = makeGraph<unsigned char>(2, {{0, 1}});
    unsigned char Y[] = {2, 2};
    TableIA<unsigned char, float> ia(G.get(), Y, nullptr, nullptr);
    ia.observe(0, 1.0f);
    ia.observe(1, 0.0f);
    ia.observe(2, 1.0f);
    ia.clear(2);
    ia.clear(200);
    EXPECT_EQ(ia.observed(2), -1.0f);
    EXPECT_EQ(ia.observed(255), -1.0f);
    EXPECT_EQ(ia.observed(0), 1.0f);
    EXPECT_EQ(ia.observed(1), 0.0f);
    ia.clear(0);
    EXPECT_EQ(ia.observed(0), -1.0f);
    EXPECT_EQ(ia.observed(1), 0.0f);
    ia.clear();
    EXPECT_EQ(ia.observed(1), -1.0f);
}

// ---------------------------------------------------------------- decoding

TEST(InferenceBase, DecodeZeroGivesAllZeros) {
    unsigned int Y[] = {3, 2, 4};
    unsigned int* X = TableIA<unsigned int, double>::decode(0, 3, Y);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(X[i], 0u);
    delete[] X;
}

TEST(InferenceBase, DecodeFirstRadixCarriesIntoPositionOne) {
    unsigned int Y[] = {3, 2, 4};
    unsigned int* X = TableIA<unsigned int, double>::decode(Y[0], 3, Y);
    EXPECT_EQ(X[0], 0u);
    EXPECT_EQ(X[1], 1u);
    EXPECT_EQ(X[2], 0u);
    delete[] X;
    X = TableIA<unsigned int, double>::decode(2 + 3 * 1 + 6 * 3, 3, Y);
    EXPECT_EQ(X[0], 2u);
    EXPECT_EQ(X[1], 1u);
    EXPECT_EQ(X[2], 3u);
    delete[] X;
}

TEST(InferenceBase, LogPotentialOfFlatStateEqualsArrayForm) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 1}});
    unsigned int Y[] = {3, 2, 4};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    for (unsigned int i = 0; i < ia.wdim(); ++i) ia.getParameters()[i] = 0.1 * i - 0.7;
    for (unsigned int s = 0; s < 24; ++s) {
        unsigned int* X = TableIA<unsigned int, double>::decode(s, 3, Y);
        const double expect = ia.getParameters()[X[0] * 2 + X[1]] + ia.getParameters()[6 + X[2] * 2 + X[1]];
        EXPECT_DOUBLE_EQ(ia.log_potential(X), expect);
        EXPECT_DOUBLE_EQ(ia.log_potential(s), expect);
        delete[] X;
    }
    // A literal or another integer type is a flat state, not a pointer.
    EXPECT_DOUBLE_EQ(ia.log_potential(0), ia.getParameters()[0] + ia.getParameters()[6]);
    EXPECT_DOUBLE_EQ(ia.log_potential((size_t)1), ia.getParameters()[2] + ia.getParameters()[6]);
}

TEST(InferenceBase, MMChoosesHighestStateAmongEqualMaxima) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {4, 3};
    TableIA<unsigned int, unsigned int> ia(G.get(), Y, nullptr, nullptr);
    // Vertex 0: maxima 5 at states 1 and 2. Vertex 1: all zero.
    ia.table = {1, 5, 5, 2, 0, 0, 0, 0};
    unsigned int x[2] = {99, 99};
    ia.MM(x);
    EXPECT_EQ(x[0], 2u);
    EXPECT_EQ(x[1], 2u);  // all marginals 0: the last state
}

TEST(InferenceBase, MMIntegerModelKeepsDecodedStateAndHonoursObservation) {
    auto G = makeGraph<unsigned short>(2, {{0, 1}});
    unsigned short Y[] = {2, 2};
    TableIA<unsigned short, unsigned short> ia(G.get(), Y, nullptr, nullptr);
    ia.table = {1, 3, 4, 2};
    ia.observe(1, 1);
    unsigned short x[2];
    ia.MM(x);
    EXPECT_EQ(x[0], 1);  // unobserved: the marker converts above the range
    EXPECT_EQ(x[1], 1);  // observed value overrides the decoded 0
}

TEST(InferenceBase, MMFloatingModelReportsMinusOneForUnobservedVertices) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    unsigned int Y[] = {2, 3, 2};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    ia.table = {0.2, 0.8, 0, 0.1, 0.7, 0.2, 0.9, 0.1, 0};
    ia.observe(2, 1.0);
    double x[3];
    ia.MM(x);
    EXPECT_EQ(x[0], -1.0);
    EXPECT_EQ(x[1], -1.0);
    EXPECT_EQ(x[2], 1.0);  // the observation, not the decoded 0
}

TEST(InferenceBase, MMPWritesNormalisedMarginalsConsecutively) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 3};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    ia.table = {0.25, 0.75, 0, 0.5, 0.3, 0.2};
    std::vector<double> out(5, -7);
    double* p = out.data();
    ia.MMP(p);
    const std::vector<double> expect = {0.25, 0.75, 0.5, 0.3, 0.2};
    for (size_t i = 0; i < 5; ++i) EXPECT_DOUBLE_EQ(out[i], expect[i]);
}

// ---------------------------------------------------------------- conditionals

TEST(InferenceBase, ConditionalCountsUnobservedNeighbourAsStateZeroInFloatingModel) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 0}});
    unsigned int Y[] = {2, 3, 2};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    double* w = ia.getParameters();
    for (unsigned int i = 0; i < ia.wdim(); ++i) w[i] = 0.1 * (i + 1);
    // Vertex 1 observed at 2, vertex 2 unobserved (-1.0 converts to 0).
    ia.observe(1, 2.0);
    double psi = 0;
    ia.fast_unnormalized_conditional_vertex_marginal(0, 1, psi, 0.5);
    const double expect = (w[1 * 3 + 2] - 0.5) + (w[6 + 0 * 2 + 1] - 0.5);
    EXPECT_NEAR(psi, std::exp(expect), 1e-12);
}

TEST(InferenceBase, ConditionalIgnoresUnobservedNeighbourInIntegerModel) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 0}});
    unsigned int Y[] = {2, 3, 2};
    TableIA<unsigned int, unsigned int> ia(G.get(), Y, nullptr, nullptr);
    unsigned int* w = ia.getParameters();
    for (unsigned int i = 0; i < ia.wdim(); ++i) w[i] = i + 1;
    ia.observe(1, 2);
    unsigned int psi = 0;
    ia.fast_unnormalized_conditional_vertex_marginal(0, 1, psi, 0);
    // Only the edge to vertex 1 contributes: exp(6) truncated.
    EXPECT_EQ(psi, (unsigned int)std::exp((double)w[1 * 3 + 2]));
    ia.observe(2, 1);
    ia.fast_unnormalized_conditional_vertex_marginal(0, 1, psi, 0);
    EXPECT_EQ(psi, (unsigned int)std::exp((double)(w[5] + w[6 + 1 * 2 + 1])));
}

// ---------------------------------------------------------------- Gibbs

TEST(InferenceBase, GibbsWithZeroSweepsFillsAndCopiesBack) {
    auto G = makeGraph<unsigned int>(4, {{0, 1}, {1, 2}, {2, 3}});
    unsigned int Y[] = {3, 3, 3, 3};
    std::mt19937 eng(7);
    TableIA<unsigned int, double> ia(G.get(), Y, &eng, nullptr);
    std::vector<int> seen(3, 0);
    for (int rep = 0; rep < 60; ++rep) {
        double x[4] = {1.0, 3.0, -1.0, 100.0};
        ia.GIBBS(x, 0, false);
        EXPECT_EQ(x[0], 1.0);
        EXPECT_EQ(x[2], -1.0);  // -1.0 is a value to the plain conversion: kept
        ASSERT_GE(x[1], 0.0);
        ASSERT_LT(x[1], 3.0);
        EXPECT_EQ(x[1], std::floor(x[1]));
        ASSERT_GE(x[3], 0.0);
        ASSERT_LT(x[3], 3.0);
        seen[(int)x[1]]++;
        // O holds the result.
        EXPECT_EQ(ia.observed(0), 1.0);
        EXPECT_EQ(ia.observed(1), x[1]);
        EXPECT_EQ(ia.observed(3), x[3]);
    }
    for (int s = 0; s < 3; ++s) EXPECT_GT(seen[s], 0) << s;
}

TEST(InferenceBase, GibbsKeepClampsGivenValuesIncludingMinusOne) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    unsigned int Y[] = {2, 2, 2};
    std::mt19937 eng(3);
    TableIA<unsigned int, double> ia(G.get(), Y, &eng, nullptr);
    for (unsigned int i = 0; i < ia.wdim(); ++i) ia.getParameters()[i] = (i % 3) * 0.7;
    int changed = 0;
    for (int rep = 0; rep < 50; ++rep) {
        double x[3] = {1.0, 5.0, -1.0};
        ia.GIBBS(x, 3, true);
        EXPECT_EQ(x[0], 1.0);
        EXPECT_EQ(x[2], -1.0);
        ASSERT_TRUE(x[1] == 0.0 || x[1] == 1.0);
        changed += x[1] == 1.0;
    }
    EXPECT_GT(changed, 0);
    EXPECT_LT(changed, 50);
}

TEST(InferenceBase, GibbsIntegerMarkerCellIsResampledUnderKeep) {
    auto G = makeGraph<unsigned char>(2, {{0, 1}});
    unsigned char Y[] = {2, 2};
    std::mt19937 eng(5);
    TableIA<unsigned char, unsigned char> ia(G.get(), Y, &eng, nullptr);
    unsigned char* w = ia.getParameters();
    w[3] = 4;
    for (int rep = 0; rep < 20; ++rep) {
        unsigned char x[2] = {1, 255};
        ia.GIBBS(x, 2, true);
        EXPECT_EQ(x[0], 1);
        // The marker cell was drawn and resampled. The integer quotients
        // psi / Z are 0 below the total, so the scan falls through to state 0.
        EXPECT_EQ(x[1], 0);
    }
}

TEST(InferenceBase, GibbsFrequenciesMatchExactMarginals) {
    // Chain 0 - 1 - 2 with 2, 3 and 2 states and moderate couplings.
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    unsigned int Y[] = {2, 3, 2};
    std::mt19937 eng(2024);
    TableIA<unsigned int, double> ia(G.get(), Y, &eng, nullptr);
    const double wv[] = {0.3, -0.4, 0.1, -0.2, 0.6, 0.0, 0.5, -0.1, 0.2, 0.3, -0.6, 0.4};
    for (unsigned int i = 0; i < 12; ++i) ia.getParameters()[i] = wv[i];

    std::vector<double> exact(7, 0.0);
    const unsigned int yoff[] = {0, 2, 5};
    double Z = 0;
    for (unsigned int s = 0; s < 12; ++s) {
        unsigned int* X = TableIA<unsigned int, double>::decode(s, 3, Y);
        const double p = std::exp(ia.log_potential(X));
        Z += p;
        for (unsigned int v = 0; v < 3; ++v) exact[yoff[v] + X[v]] += p;
        delete[] X;
    }
    for (double& p : exact) p /= Z;

    const int N = 20000;
    std::vector<double> count(7, 0.0);
    double x[3] = {2.0, 3.0, 2.0};  // all out of range: a random start
    ia.GIBBS(x, 20, false);          // burn-in
    for (int k = 0; k < N; ++k) {
        ia.GIBBS(x, 3, false);  // thinning between recorded states
        for (unsigned int v = 0; v < 3; ++v) count[yoff[v] + (unsigned int)x[v]] += 1;
    }
    // Sampling reads the parameters and needs no inference run.
    for (unsigned int i = 0; i < 12; ++i) EXPECT_EQ(ia.getParameters()[i], wv[i]);
    EXPECT_EQ(ia.inferCalls, 0);
    for (unsigned int i = 0; i < 7; ++i) {
        const double f = count[i] / N;
        const double se = std::sqrt(exact[i] * (1 - exact[i]) / N);
        EXPECT_NEAR(f, exact[i], 5 * se + 1e-9) << i;
    }
}

// ---------------------------------------------------------------- enumeration

TEST(InferenceBase, InferSlowLogPartitionEqualsLogSumOfPotentials) {
    auto G = makeGraph<unsigned int>(4, {{0, 1}, {1, 2}, {2, 0}, {2, 3}});
    unsigned int Y[] = {2, 3, 2, 4};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    for (unsigned int i = 0; i < ia.wdim(); ++i) ia.getParameters()[i] = std::sin(1.0 + i);
    ia.infer_slow(0);
    EXPECT_NEAR(ia.A(), bruteLogZ(ia, 48), 1e-12);
    EXPECT_EQ(ia.inferCalls, 0);
}

TEST(InferenceBase, InferSlowFillsUnnormalisedEdgeMarginalsAndUnitCounts) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 1}});
    unsigned int Y[] = {2, 3, 2};
    TableIA<unsigned int, double> ia(G.get(), Y, nullptr, nullptr);
    for (unsigned int i = 0; i < ia.wdim(); ++i) ia.getParameters()[i] = 0.25 * i - 1.0;
    ia.infer_slow(7);
    std::vector<double> mu(ia.wdim(), 0.0);
    double Z = 0;
    for (unsigned int s = 0; s < 12; ++s) {
        unsigned int* X = TableIA<unsigned int, double>::decode(s, 3, Y);
        const double p = std::exp(ia.log_potential(X));
        Z += p;
        mu[X[0] * 3 + X[1]] += p;
        mu[6 + X[2] * 3 + X[1]] += p;
        delete[] X;
    }
    for (unsigned int i = 0; i < ia.wdim(); ++i) {
        EXPECT_NEAR(ia.raw_mu()[i], mu[i], 1e-12) << i;
        EXPECT_EQ(ia.raw_mu_samples()[i], 1.0) << i;
    }
    EXPECT_NEAR(ia.A(), std::log(Z), 1e-12);
}

TEST(InferenceBase, InferSlowCountsBeyondTheIndexRange) {
    // 9 binary vertices: 512 joint states, more than an 8-bit index can count.
    std::vector<std::pair<size_t, size_t>> el;
    for (size_t v = 0; v + 1 < 9; ++v) el.push_back({v, v + 1});
    auto G = makeGraph<unsigned char>(9, el);
    unsigned char Y[9];
    for (auto& y : Y) y = 2;
    TableIA<unsigned char, double> ia(G.get(), Y, nullptr, nullptr);
    ia.infer_slow(0);
    // All weights 0: every state has potential 1.
    EXPECT_NEAR(ia.A(), std::log(512.0), 1e-12);
    EXPECT_NEAR(ia.raw_mu()[0], 128.0, 1e-12);
}

// ---------------------------------------------------------------- integer pairs

template <typename T> class IntegerBase : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IntTypes;
TYPED_TEST_SUITE(IntegerBase, IntTypes);

TYPED_TEST(IntegerBase, BaseOperationsRun) {
    typedef TypeParam T;
    auto G = makeGraph<T>(3, {{0, 1}, {1, 2}});
    T Y[] = {2, 3, 2};
    std::mt19937 eng(11);
    TableIA<T, T> ia(G.get(), Y, &eng, nullptr);
    ASSERT_EQ(ia.wdim(), (T)12);
    T* w = ia.getParameters();
    for (T i = 0; i < 12; ++i) w[i] = (T)(i % 3);

    // observe
    ia.observe(1, 2);
    EXPECT_EQ(ia.observed(1), (T)2);
    ia.observe(1, 3);
    EXPECT_EQ(ia.observed(1), (T)-1);

    // log_potential, both forms
    T x[] = {1, 2, 0};
    EXPECT_EQ(ia.log_potential(x), (T)(w[1 * 3 + 2] + w[6 + 2 * 2 + 0]));
    T flat = 1 + 2 * 2;
    EXPECT_EQ(ia.log_potential(flat), ia.log_potential(x));

    // decode
    T* X = TableIA<T, T>::decode(flat, 3, Y);
    EXPECT_EQ(X[0], (T)1);
    EXPECT_EQ(X[1], (T)2);
    EXPECT_EQ(X[2], (T)0);
    delete[] X;

    // infer_slow: integer exponentials and log, as QZ::exp and QZ::log give them
    ia.infer_slow(0);
    unsigned long long r = 0;
    for (T s = 0; s < 12; ++s) r += QZ::exp<T>(ia.log_potential(s));
    EXPECT_EQ(ia.A(), QZ::log<T>((T)r));
    EXPECT_EQ(ia.raw_mu_samples()[0], (T)1);

    // GIBBS: states stay within range, clamped cells stay.
    T g[] = {1, (T)-1, 7};
    ia.GIBBS(g, 2, true);
    EXPECT_EQ(g[0], (T)1);
    EXPECT_LT(g[1], (T)3);
    EXPECT_LT(g[2], (T)2);
}
