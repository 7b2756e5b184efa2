// The spatio-temporal random field: the decay laws, the composition of the
// weights from the increments, and the gradient, checked against finite
// differences of the objective and against the plain pairwise gradient
// carried through the coefficients by the test's own bookkeeping of which
// edges are the same edge at other times.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_strf_util.h>

#include <QZ/graph/core>
#include <QZ/graph/stgraph>
#include <QZ/bp/hugin>
#include <QZ/inf/base>
#include <QZ/mrf/strf>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace {

typedef QZ::vm_t::ReparamType Law;
const Law kLaws[] = {QZ::vm_t::NONE,     QZ::vm_t::STRF_LI,  QZ::vm_t::STRF_QU,  QZ::vm_t::STRF_CU,
                     QZ::vm_t::STRF_RA,  QZ::vm_t::STRF_EX,  QZ::vm_t::STRF_IQU, QZ::vm_t::STRF_ICU,
                     QZ::vm_t::STRF_IRA, QZ::vm_t::STRF_IEX, QZ::vm_t::INTEGERREP, QZ::vm_t::DBTREP};

typedef QZ::STRF<unsigned int, double> STRFd;

using qztest::decayLaw;

double lawValue(Law law, double x, double z) { return decayLaw((int)law, x, z); }

// ---------------------------------------------------------------- laws

TEST(STRFDecay, LinearAtZeroAndAtHalf) {
    EXPECT_EQ(STRFd::decay_coeff(0, 0, QZ::vm_t::STRF_LI), 1.0);
    EXPECT_EQ(STRFd::decay_coeff(0, 1, QZ::vm_t::STRF_LI), 0.5);
}

TEST(STRFDecay, RationalIsOneAtTheEdgesOwnTime) {
    for (unsigned z = 0; z < 6; ++z) EXPECT_EQ(STRFd::decay_coeff(z, z, QZ::vm_t::STRF_RA), 1.0) << z;
    EXPECT_EQ(STRFd::decay_coeff(1, 4, QZ::vm_t::STRF_RA), 0.25);
}

TEST(STRFDecay, RationalTakesTheDistanceInTheIndexType) {
    // x past z wraps around in 8 bits: 1 / (255 + 1).
    EXPECT_EQ((QZ::STRF<unsigned char, double>::decay_coeff(1, 0, QZ::vm_t::STRF_RA)), 1.0 / 256);
    EXPECT_EQ((QZ::STRF<unsigned short, double>::decay_coeff(1, 0, QZ::vm_t::STRF_RA)), 1.0 / 65536);
}

TEST(STRFDecay, ExponentialAtDistanceTwo) {
    EXPECT_DOUBLE_EQ(STRFd::decay_coeff(0, 2, QZ::vm_t::STRF_EX), std::exp(-2.0));
}

TEST(STRFDecay, EveryLawIsOneAtTheEdgesOwnTime) {
    for (int law = 1; law <= 9; ++law)
        for (unsigned z = 0; z < 12; ++z)
            EXPECT_NEAR(STRFd::decay_coeff(z, z, (Law)law), 1.0, 1e-14) << "law " << law << " z " << z;
}

TEST(STRFDecay, NoneIsOneEverywhereAndTheOthersAreZero) {
    for (unsigned z = 0; z < 5; ++z)
        for (unsigned x = 0; x <= z; ++x) {
            EXPECT_EQ(STRFd::decay_coeff(x, z, QZ::vm_t::NONE), 1.0);
            EXPECT_EQ(STRFd::decay_coeff(x, z, QZ::vm_t::INTEGERREP), 0.0);
            EXPECT_EQ(STRFd::decay_coeff(x, z, QZ::vm_t::DBTREP), 0.0);
            EXPECT_EQ(STRFd::decay_coeff(x, z, QZ::vm_t::ISING), 0.0);
            EXPECT_EQ(STRFd::decay_coeff(x, z, (Law)13), 0.0);
        }
}

TEST(STRFDecay, InverseQuadraticSpansTheRangeOfTheQuadratic) {
    for (unsigned z = 1; z < 8; ++z) {
        const double l = 1.0 / ((z + 1.0) * (z + 1.0));
        EXPECT_NEAR(STRFd::decay_coeff(0, z, QZ::vm_t::STRF_IQU), l, 1e-15) << z;
        EXPECT_NEAR(STRFd::decay_coeff(0, z, QZ::vm_t::STRF_QU), l, 1e-15) << z;
        EXPECT_NEAR(STRFd::decay_coeff(z, z, QZ::vm_t::STRF_IQU), 1.0, 1e-15) << z;
        double last = l;
        for (unsigned x = 1; x < z; ++x) {
            const double c = STRFd::decay_coeff(x, z, QZ::vm_t::STRF_IQU);
            EXPECT_GT(c, l);
            EXPECT_LT(c, 1.0);
            EXPECT_GT(c, last);  // rising with x
            last = c;
        }
    }
    // A value worked out by hand: z = 1, x = 1/2 would be the midpoint; at
    // z = 2, x = 1: P(1) = 1/2 (1 - 1/9) + 1/9 = 5/9, r = 3 sqrt(5/9) - 1 =
    // sqrt(5) - 1, P(r) = r/2 * 8/9 + 1/9.
    const double r = std::sqrt(5.0) - 1;
    EXPECT_NEAR(STRFd::decay_coeff(1, 2, QZ::vm_t::STRF_IQU), r / 2 * 8 / 9 + 1.0 / 9, 1e-15);
}

TEST(STRFDecay, InverseLawsAreOneAtTimeZero) {
    for (Law law : {QZ::vm_t::STRF_IQU, QZ::vm_t::STRF_ICU, QZ::vm_t::STRF_IRA, QZ::vm_t::STRF_IEX})
        EXPECT_EQ(STRFd::decay_coeff(0, 0, law), 1.0) << law;
}

TEST(STRFDecay, EveryLawAgreesWithItsDefinition) {
    for (Law law : kLaws)
        for (unsigned z = 0; z < 9; ++z)
            for (unsigned x = 0; x <= z; ++x)
                EXPECT_NEAR(STRFd::decay_coeff(x, z, law), lawValue(law, x, z), 1e-13)
                    << "law " << law << " x " << x << " z " << z;
}

TEST(STRFDecay, FloatLawsFollowTheDoubleOnes) {
    for (Law law : kLaws)
        for (unsigned z = 0; z < 6; ++z)
            for (unsigned x = 0; x <= z; ++x)
                EXPECT_NEAR((QZ::STRF<unsigned short, float>::decay_coeff(x, z, law)), lawValue(law, x, z), 2e-6)
                    << "law " << law;
}

TEST(STRFProject, MapsTheIntervalLinearly) {
    EXPECT_EQ(STRFd::project(0, 0, 4, 0.5, 1), 0.5);
    EXPECT_EQ(STRFd::project(4, 0, 4, 0.5, 1), 1.0);
    EXPECT_EQ(STRFd::project(1, 0, 4, 0.5, 1), 0.625);
    EXPECT_EQ(STRFd::project(3, 2, 3, 10, 20), 20.0);
    EXPECT_EQ(STRFd::project(2, 2, 2, 7, 7), 7.0);
}

TEST(STRFProjectDeathTest, APointIntervalAcceptsOnlyItsPoint) {
    EXPECT_DEATH(STRFd::project(1, 0, 0, 1, 1), "Assertion `x==a' failed");
    EXPECT_DEATH(STRFd::project(0, 0, 0, 0.5, 1), "Assertion `l==u' failed");
    // An inverse law asked for a time past the edge's own runs into the first.
    EXPECT_DEATH(STRFd::decay_coeff(1, 0, QZ::vm_t::STRF_IQU), "Assertion `x==a' failed");
}

// ---------------------------------------------------------------- models

// A base graph, its slices, state counts for every vertex of the slices, and
// weights and frequencies in the layout of the spatio-temporal graph.
struct STModel {
    std::unique_ptr<QZ::Graph<unsigned int>> base;
    std::unique_ptr<QZ::STGraph<unsigned int>> G;
    std::vector<unsigned int> Y;
    std::vector<double> w;
    std::vector<double> emp;
    std::vector<size_t> off;  // block start per edge
    size_t n = 0, T = 0, d = 0;

    STModel(size_t _n, const qztest::EdgeList& el, size_t _T, std::vector<unsigned int> baseY, unsigned seed)
        : n(_n), T(_T) {
        base = qztest::makeGraph<unsigned int>(n, el);
        G.reset(new QZ::STGraph<unsigned int>(base.get(), (unsigned int)T));
        for (size_t t = 0; t < T; ++t)
            for (size_t v = 0; v < n; ++v) Y.push_back(baseY[v]);
        layout();
        std::mt19937 g(seed);
        std::uniform_real_distribution<double> U(0.05, 1.0);
        emp.assign(d, 0);
        for (size_t e = 0; e < G->edges(); ++e) {
            const size_t k = blockSize(e);
            double z = 0;
            for (size_t i = 0; i < k; ++i) z += (emp[off[e] + i] = U(g));
            for (size_t i = 0; i < k; ++i) emp[off[e] + i] /= z;
        }
        w.assign(d, 0);
    }

    void layout() {
        off.clear();
        d = 0;
        for (size_t e = 0; e < G->edges(); ++e) {
            off.push_back(d);
            d += blockSize(e);
        }
    }

    std::pair<size_t, size_t> ends(size_t e) const {
        unsigned int a, b;
        G->edge((unsigned int)e, a, b);
        return {a, b};
    }

    size_t blockSize(size_t e) const {
        const auto p = ends(e);
        return (size_t)Y[p.first] * Y[p.second];
    }
};

typedef qztest::Layout<unsigned int> Layout;
typedef qztest::Ties<unsigned int> Ties;
typedef qztest::Composition<unsigned int> Composition;

Layout layoutOf(const STModel& M) { return Layout(*M.G, M.Y.data()); }
Ties tiesOf(const STModel& M) { return Ties(layoutOf(M), M.n); }
Composition compositionOf(const STModel& M, Law law) { return Composition(layoutOf(M), tiesOf(M), (int)law); }

std::vector<double> randomDelta(size_t d, unsigned seed) {
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(-0.8, 0.8);
    std::vector<double> r(d);
    for (double& v : r) v = U(g);
    return r;
}

// A chain 0 - 1 - 2 over three slices; the middle vertex has three states.
STModel chainModel(unsigned seed) { return STModel(3, {{0, 1}, {1, 2}}, 3, {2, 3, 2}, seed); }

struct Fitted {
    QZ::HuginAlgorithm<unsigned int, double> engine;
    STRFd f;
    Fitted(STModel& M, Law law)
        : engine(M.G.get(), M.Y.data(), nullptr, M.w.data()), f(law, &engine) {
        double* e = M.emp.data();
        f.set_empirical(e, 100u);
    }
    void setDelta(const std::vector<double>& delta) {
        double* p = f.current_point();
        std::copy(delta.begin(), delta.end(), p);
    }
};

// Central differences of the objective at delta, one increment at a time,
// against the gradient g computed there.
void expectFiniteDifferences(Fitted& F, const std::vector<double>& delta, const std::vector<double>& g, Law law) {
    const double h = 1e-5;
    for (size_t j = 0; j < delta.size(); ++j) {
        std::vector<double> p = delta;
        p[j] += h;
        F.setDelta(p);
        F.f.comp_gradient();
        const double up = F.f.eval();
        p[j] -= 2 * h;
        F.setDelta(p);
        F.f.comp_gradient();
        const double down = F.f.eval();
        EXPECT_NEAR(g[j], (up - down) / (2 * h), 1e-6) << "law " << law << " j " << j;
    }
}

// The chain model of a seed under a law, at increments drawn from the seed.
struct Case {
    STModel M;
    Fitted F;
    const std::vector<double> delta;
    Case(Law law, unsigned seed) : M(chainModel(seed)), F(M, law), delta(randomDelta(M.d, 100 * seed + law)) {
        F.setDelta(delta);
    }
};

TEST(STRFModel, CompositionFollowsTheTiesAndTheLaw) {
    for (Law law : kLaws) {
        Case k(law, 1);
        k.F.f.decode_weights();
        const std::vector<double> want = compositionOf(k.M, law).weights(k.delta);
        for (size_t i = 0; i < k.M.d; ++i) EXPECT_NEAR(k.M.w[i], want[i], 1e-12) << "law " << law << " i " << i;
        EXPECT_TRUE(k.F.f.converted);
    }
}

TEST(STRFModel, GradientMatchesFiniteDifferencesForEveryLaw) {
    for (Law law : kLaws) {
        Case k(law, 2);
        const double* g0 = k.F.f.comp_gradient();
        const std::vector<double> g(g0, g0 + k.M.d);
        expectFiniteDifferences(k.F, k.delta, g, law);
        double nrm = 0;
        for (size_t j = 0; j < k.M.d; ++j) nrm = std::max(nrm, std::fabs(g[j]));
        k.F.setDelta(k.delta);
        k.F.f.comp_gradient();
        EXPECT_DOUBLE_EQ(k.F.f.get_gradient_norm(), nrm) << "law " << law;
    }
}

TEST(STRFModel, GradientIsThePairwiseGradientCarriedThroughTheCoefficients) {
    for (Law law : kLaws) {
        Case k(law, 3);
        const double* g = k.F.f.comp_gradient();
        const Composition C = compositionOf(k.M, law);
        const std::vector<double> w = C.weights(k.delta);
        std::vector<double> vmarg, marg;
        double logZ = 0;
        qztest::enumerate(layoutOf(k.M), w, vmarg, marg, logZ);
        std::vector<double> gw(k.M.d);
        double dot = 0;
        for (size_t i = 0; i < k.M.d; ++i) {
            gw[i] = marg[i] - k.M.emp[i];
            dot += w[i] * k.M.emp[i];
        }
        const std::vector<double> want = C.pullBack(gw);
        for (size_t j = 0; j < k.M.d; ++j) EXPECT_NEAR(g[j], want[j], 1e-9) << "law " << law << " j " << j;
        // The objective is that of the plain model at the composed weights.
        EXPECT_NEAR(k.F.f.eval(), logZ - dot, 1e-9) << "law " << law;
    }
}

TEST(STRFModel, NoDecayValuesGiveZeroWeightsAndZeroGradient) {
    for (Law law : {QZ::vm_t::INTEGERREP, QZ::vm_t::DBTREP}) {
        Case k(law, 4);
        const double* g = k.F.f.comp_gradient();
        for (size_t i = 0; i < k.M.d; ++i) {
            EXPECT_EQ(k.M.w[i], 0.0) << i;
            EXPECT_EQ(g[i], 0.0) << i;
        }
        EXPECT_EQ(k.F.f.get_gradient_norm(), 0.0);
    }
}

TEST(STRFModel, TheCurrentPointIsDeltaAndDecodingFillsTheEngineWeights) {
    STModel M = chainModel(5);
    for (double& v : M.w) v = 0.25;
    Fitted F(M, QZ::vm_t::STRF_LI);
    // The constructor starts delta as a copy of the weights.
    for (size_t i = 0; i < M.d; ++i) EXPECT_EQ(F.f.delta[i], 0.25);
    EXPECT_TRUE(F.f.converted);
    double* p = F.f.current_point();
    EXPECT_EQ(p, F.f.delta);
    EXPECT_NE(p, M.w.data());
    EXPECT_FALSE(F.f.converted);
    EXPECT_EQ(F.f.dim(), M.d);
    EXPECT_EQ(F.f.dMode, QZ::vm_t::STRF_LI);
    // Each weight knows its edge's time.
    const Ties ties = tiesOf(M);
    for (size_t e = 0; e < M.G->edges(); ++e)
        EXPECT_EQ((size_t)F.f.edge_weight_time((unsigned int)M.off[e]), ties.time[e]) << e;
}

TEST(STRFModel, LipschitzConstantOfTheSlicesAndTheLaw) {
    for (Law law : kLaws) {
        Case k(law, 6);
        // States of one slice: 4 + 9 + 4; base edges 2*3 + 3*2, thrice.
        const double c = 17 + 3 * 12.0;
        double q = 0;
        for (size_t z = 0; z < 3; ++z)
            for (size_t x = 0; x <= z; ++x) q += std::pow(lawValue(law, x, z), 2);
        EXPECT_NEAR(k.F.f.L(), 2.0 * k.M.G->edges() * c * q, 1e-9 * (1 + 2.0 * k.M.G->edges() * c * q)) << law;
    }
}

// An engine that runs nothing: enough for the composition alone, on a graph
// whose incidences no inference could walk.
class Idle : public QZ::InferenceAlgorithm<unsigned int, double> {
public:
    Idle(const QZ::AbstractGraph<unsigned int>* G, const unsigned int* Y, double* w)
        : QZ::InferenceAlgorithm<unsigned int, double>(G, Y, nullptr, w) {}
    void infer(const unsigned int&) override {}
    void vertex_marginal(const unsigned int&, const unsigned int&, double& q, double& Z) const override {
        q = 0;
        Z = 1;
    }
    void edge_marginal(const unsigned int&, const unsigned int&, const unsigned int&, double& q,
                       double& Z) const override {
        q = 0;
        Z = 1;
    }
};

TEST(STRFModel, OneSliceLeavesTheWeightsEqualToTheIncrements) {
    auto base = qztest::makeGraph<unsigned int>(3, {{0, 1}, {1, 2}, {0, 2}});
    QZ::STGraph<unsigned int> G(base.get(), 1u);
    ASSERT_EQ(G.edges(), 3u);
    std::vector<unsigned int> Y{2, 3, 2};
    std::vector<double> w(6 + 6 + 4, 0.0);
    for (int law = 0; law <= 9; ++law) {
        Idle E(&G, Y.data(), w.data());
        STRFd f((Law)law, &E);
        const std::vector<double> delta = randomDelta(w.size(), 40 + law);
        std::copy(delta.begin(), delta.end(), f.current_point());
        f.decode_weights();
        for (size_t i = 0; i < w.size(); ++i) EXPECT_EQ(w[i], delta[i]) << "law " << law << " i " << i;
    }
}

TEST(STRFModel, SlicesWithOtherStateCountsReadIncrementsByTheLaterEdgesCounts) {
    // Vertex 1 has three states in slice 0 and two in the later slices: an
    // edge at a later time reads its increments of time 0 in the block of its
    // copy there, at the places its own state counts give (Y[t] * x + y).
    STModel M(2, {{0, 1}}, 3, {2, 2}, 8);
    M.Y = {2, 3, 2, 2, 2, 2};
    M.layout();
    M.w.assign(M.d, 0);
    M.emp.assign(M.d, 0);
    std::mt19937 g(8);
    std::uniform_real_distribution<double> U(0.05, 1.0);
    for (size_t e = 0; e < M.G->edges(); ++e) {
        double z = 0;
        for (size_t i = 0; i < M.blockSize(e); ++i) z += (M.emp[M.off[e] + i] = U(g));
        for (size_t i = 0; i < M.blockSize(e); ++i) M.emp[M.off[e] + i] /= z;
    }
    for (Law law : {QZ::vm_t::STRF_LI, QZ::vm_t::STRF_IEX}) {
        Fitted F(M, law);
        const std::vector<double> delta = randomDelta(M.d, 9);
        F.setDelta(delta);
        const double* g0 = F.f.comp_gradient();
        const std::vector<double> g(g0, g0 + M.d);
        const std::vector<double> want = compositionOf(M, law).weights(delta);
        for (size_t i = 0; i < M.d; ++i) EXPECT_NEAR(M.w[i], want[i], 1e-12) << i;
        expectFiniteDifferences(F, delta, g, law);
    }
}

TEST(STRFModel, FloatFollowsDouble) {
    STModel M = chainModel(9);
    const std::vector<double> delta = randomDelta(M.d, 77);
    Fitted F(M, QZ::vm_t::STRF_QU);
    F.setDelta(delta);
    const double* gd = F.f.comp_gradient();

    std::vector<float> wf(M.d, 0.0f), empf(M.emp.begin(), M.emp.end());
    QZ::HuginAlgorithm<unsigned int, float> ef(M.G.get(), M.Y.data(), nullptr, wf.data());
    QZ::STRF<unsigned int, float> ff(QZ::vm_t::STRF_QU, &ef);
    float* e = empf.data();
    ff.set_empirical(e, 100u);
    std::copy(delta.begin(), delta.end(), ff.current_point());
    const float* gf = ff.comp_gradient();
    for (size_t i = 0; i < M.d; ++i) EXPECT_NEAR(gf[i], gd[i], 1e-4) << i;
    EXPECT_NEAR(ff.eval(), F.f.eval(), 1e-4);
}

TEST(STRFModel, AGraphOfOneSliceKindOnlyIsRefused) {
    auto G = qztest::makeGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    std::vector<unsigned int> Y{2, 2, 2};
    std::vector<double> w(8, 0.0);
    QZ::HuginAlgorithm<unsigned int, double> E(G.get(), Y.data(), nullptr, w.data());
    try {
        STRFd f(QZ::vm_t::STRF_LI, &E);
        FAIL() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_EQ(std::string(e.what()), "spatio-temporal model requires a spatio-temporal graph");
    }
}

}  // namespace
