// The integer model: three-valued directions from scaled integer frequencies,
// the dead band, the mismatch as its value, and the asserts against wrapped
// products.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/graph/generators>
#include <QZ/bp/bitlength>
#include <QZ/inf/base>
#include <QZ/mrf/integer>
#include <QZ/opt/search>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace {

using qztest::makeGraph;

// An engine whose edge marginals are whatever the test puts into psi and Z,
// entry by entry in the layout of the weights.
template <typename T> class StubEngine : public QZ::InferenceAlgorithm<T, T> {
public:
    std::vector<T> psi, Z;
    int infers = 0;
    StubEngine(const QZ::AbstractGraph<T>* G, const T* Y, T* w)
        : QZ::InferenceAlgorithm<T, T>(G, Y, nullptr, w), psi(this->wdim(), 0), Z(this->wdim(), 1) {}
    void infer(const T&) override { ++infers; }
    void vertex_marginal(const T&, const T&, T& q, T& z) const override {
        q = 0;
        z = 1;
    }
    void edge_marginal(const T& e, const T& x, const T& y, T& q, T& z) const override {
        T s = 0, t = 0;
        this->G->edge(e, s, t);
        const T i = this->woff[e] + this->Y[t] * x + y;
        q = psi[i];
        z = Z[i];
    }
};

// A chain 0 - 1 - 2 with 2, 3 and 2 states: blocks of 6 and 6 weights.
template <typename T> struct Chain {
    std::unique_ptr<QZ::Graph<T>> G = makeGraph<T>(3, {{0, 1}, {1, 2}});
    std::vector<T> Y = {2, 3, 2};
    std::vector<T> w = std::vector<T>(12, 0);
    std::vector<T> emp = std::vector<T>(12, 0);
    StubEngine<T> E{G.get(), Y.data(), w.data()};
    QZ::IntegerMRF<T> P{4, &E};
    Chain(const T& N) {
        T* e = emp.data();
        P.set_empirical(e, N);
    }
};

}  // namespace

TEST(IntegerMRF, ConstructionTakesRangeScaleAndUnitStep) {
    Chain<unsigned int> c(10);
    EXPECT_EQ(c.P.K, 4u);
    EXPECT_EQ(c.P.scale, 255u);
    EXPECT_EQ(c.P.L(), 1u);
    EXPECT_EQ(c.P.dim(), 12u);
    EXPECT_EQ(c.P.current_point(), c.w.data());
    EXPECT_EQ(c.P.N, 10u);
    // There is nothing to decode: the point is the engine's array.
    c.w[3] = 2;
    c.P.decode_weights();
    EXPECT_EQ(c.w[3], 2u);
    EXPECT_EQ(c.E.getParameters(), c.w.data());
}

TEST(IntegerMRF, DirectionIsUpWhereTheModelIsTooRareDownWhereTooFrequent) {
    // N = 100 rows. Entry by entry: count, model a / b, expected direction.
    Chain<unsigned long> c(100);
    struct Row {
        unsigned long count, a, b;
        unsigned long dir;  // 1, all ones, 0
        unsigned long diff;
    };
    const unsigned long down = (unsigned long)-1;
    // U = count * 255 / 100, V = 255 * a / b, both truncated.
    const std::vector<Row> rows = {
        {50, 1, 2, 0, 0},       // 127 and 127
        {50, 1, 4, 1, 64},      // 127 and 63: the model is too rare
        {10, 1, 2, down, 102},  // 25 and 127: too frequent
        {20, 1, 5, 0, 0},       // 51 and 51
        {24, 1, 5, 1, 10},      // 61 and 51: a difference of 10 counts
        {23, 1, 5, 0, 7},       // 58 and 51: 7 is inside the band
        {0, 0, 3, 0, 0},        // 0 and 0
        {0, 1, 25, down, 10},   // 0 and 10: too frequent by the smallest difference that counts
        {4, 0, 7, 1, 10},       // 10 and 0
        {100, 1, 1, 0, 0},      // 255 and 255
        {96, 1, 1, down, 11},   // 244 and 255: too frequent
        {97, 1, 1, 0, 8},       // 247 and 255: inside
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        c.emp[i] = rows[i].count;
        c.E.psi[i] = rows[i].a;
        c.E.Z[i] = rows[i].b;
    }
    unsigned long* g = c.P.comp_gradient();
    EXPECT_EQ(c.E.infers, 1);
    unsigned long largest = 0;
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(g[i], rows[i].dir) << "entry " << i;
        largest = std::max(largest, rows[i].diff);
    }
    EXPECT_EQ(largest, 102u);
    EXPECT_EQ(c.P.get_gradient_norm(), 102u);
    EXPECT_EQ(c.P.eval(), 102u);
}

TEST(IntegerMRF, AgreementWithinNineUnitsGivesNoDirectionAndIntGDChangesNothing) {
    Chain<unsigned short> c(200);
    std::mt19937 gen(5);
    // Model frequencies a / 64, data counts chosen within 9/255 of them.
    for (size_t i = 0; i < 12; ++i) {
        c.E.psi[i] = (unsigned short)(gen() % 65);
        c.E.Z[i] = 64;
        const long base = std::lround(c.E.psi[i] / 64.0 * 200);
        const long jitter = (long)(gen() % 5) - 2;
        c.emp[i] = (unsigned short)std::max(0L, base + jitter);
    }
    for (size_t i = 0; i < 12; ++i) c.w[i] = (unsigned short)(i % 4);
    const std::vector<unsigned short> before = c.w;
    unsigned short* g = c.P.comp_gradient();
    for (size_t i = 0; i < 12; ++i) EXPECT_EQ(g[i], 0u) << i;
    EXPECT_LE(c.P.eval(), 9u);
    EXPECT_EQ(c.P.eval(), c.P.get_gradient_norm());
    // A search step along such a direction leaves the point alone, whatever
    // block it picks.
    unsigned short* groups = new unsigned short[3]{0, 6, 12};
    QZ::IntGD<unsigned short, unsigned short> O(groups, 2, 4);
    std::mt19937 eng(1);
    O.setRandEng(&eng);
    O.opt(&c.P, nullptr, nullptr, nullptr, 25, 0, false, 0, 0);
    EXPECT_EQ(c.w, before);
}

TEST(IntegerMRF, WithoutInstancesAllMassCountsAsTooHigh) {
    Chain<unsigned int> c(0);
    for (size_t i = 0; i < 12; ++i) {
        c.emp[i] = 7;  // counts without a number of instances are ignored
        c.E.psi[i] = (unsigned int)i;
        c.E.Z[i] = 11;
    }
    unsigned int* g = c.P.comp_gradient();
    for (size_t i = 0; i < 12; ++i) {
        // U = 0; V = 255 i / 11 is at least 23 from i = 1 on.
        EXPECT_EQ(g[i], i == 0 ? 0u : (unsigned int)-1) << i;
    }
    EXPECT_EQ(c.P.eval(), 255u * 11 / 11);
}

TEST(IntegerMRF, ZeroNormalizerReadsAsZeroFrequency) {
    Chain<unsigned char> c(40);
    for (size_t i = 0; i < 12; ++i) {
        c.emp[i] = 20;  // U = 127
        c.E.psi[i] = 0;
        c.E.Z[i] = 0;
    }
    unsigned char* g = c.P.comp_gradient();
    for (size_t i = 0; i < 12; ++i) EXPECT_EQ(g[i], 1u) << i;
    EXPECT_EQ(c.P.eval(), 127u);
}

TEST(IntegerMRF, NarrowProductsAreFormedWide) {
    // 255 * 255 does not fit 8 bits, nor 255 * 65535 16 bits: neither trips
    // the asserts, and the quotients are exact.
    Chain<unsigned char> c8(255);
    for (size_t i = 0; i < 12; ++i) {
        c8.emp[i] = 255;
        c8.E.psi[i] = 255;
        c8.E.Z[i] = 255;
    }
    c8.P.comp_gradient();
    EXPECT_EQ(c8.P.eval(), 0u);
    Chain<unsigned short> c16(65535);
    for (size_t i = 0; i < 12; ++i) {
        c16.emp[i] = 65535;
        c16.E.psi[i] = 13107;  // a fifth: V = 51
        c16.E.Z[i] = 65535;
    }
    unsigned short* g = c16.P.comp_gradient();
    EXPECT_EQ(c16.P.eval(), 255u - 51u);
    EXPECT_EQ(g[0], 1u);
}

TEST(IntegerMRFDeathTest, MarginalAboveOneTripsTheFirstAssert) {
    Chain<unsigned int> c(10);
    c.E.psi[4] = 5;
    c.E.Z[4] = 4;
    EXPECT_DEATH(c.P.comp_gradient(), "Assertion `a<=b && a\\*scale>=a' failed");
}

TEST(IntegerMRFDeathTest, WrappedProductsTripTheAssertsInWideTypes) {
    {
        // 2^32 / 255 + 1 times 255 wraps in 32 bits.
        Chain<unsigned int> c(10);
        c.E.psi[2] = 16843010u;
        c.E.Z[2] = 4000000000u;
        EXPECT_DEATH(c.P.comp_gradient(), "Assertion `a<=b && a\\*scale>=a' failed");
    }
    {
        Chain<unsigned int> c(4000000000u);
        c.emp[9] = 16843010u;
        EXPECT_DEATH(c.P.comp_gradient(), "Assertion `emp\\[i\\]\\*scale>=emp\\[i\\]' failed");
    }
    {
        Chain<unsigned long> c(10);
        c.E.psi[0] = 72340172838076674ul;  // 2^64 / 255 + 1
        c.E.Z[0] = std::numeric_limits<unsigned long>::max();
        EXPECT_DEATH(c.P.comp_gradient(), "Assertion `a<=b && a\\*scale>=a' failed");
    }
}

TEST(IntegerMRF, OverBitLengthEngineOnAChainWithUniformData) {
    // All weights 0 on a binary chain: every edge marginal is 1/4 (64 of 256
    // after scaling), and uniform counts agree exactly.
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    std::vector<unsigned int> Y = {2, 2, 2};
    std::vector<unsigned int> w(8, 0);
    QZ::BitLengthBP<unsigned int> E(G.get(), Y.data(), nullptr, w.data(), false);
    E.setMaxIter(10);
    QZ::IntegerMRF<unsigned int> P(4, &E);
    std::vector<unsigned int> emp(8, 25);
    unsigned int* e = emp.data();
    P.set_empirical(e, 100);
    unsigned int* g = P.comp_gradient();
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(g[i], 0u);
    EXPECT_EQ(P.eval(), 0u);
    // Data that puts all mass on (1, 1) of the first edge: the model is too
    // rare there and too frequent elsewhere on that edge.
    std::vector<unsigned int> emp2 = {0, 0, 0, 100, 25, 25, 25, 25};
    unsigned int* e2 = emp2.data();
    P.set_empirical(e2, 100);
    g = P.comp_gradient();
    EXPECT_EQ(g[3], 1u);
    EXPECT_EQ(g[0], (unsigned int)-1);
    EXPECT_EQ(g[1], (unsigned int)-1);
    EXPECT_EQ(g[2], (unsigned int)-1);
    EXPECT_EQ(P.eval(), 255u - 63u);
    // Raising the weight of (1, 1) by two doubles its potential twice: the
    // model moves towards the data and the mismatch falls.
    w[3] = 2;
    P.comp_gradient();
    EXPECT_LT(P.eval(), 255u - 63u);
}
