// Pairwise model functions over an inference engine: the moment gradient, the
// objective A(w) - <w, mu>, their agreement with enumeration and with finite
// differences, training by gradient steps, and the integer instantiations.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>
#include <QZ/inf/base>
#include <QZ/mrf/model>
#include <QZ/opt/function>
#include <QZ/opt/first_order>

#include <omp.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <random>
#include <utility>
#include <vector>

namespace {

template <typename idx_t> struct Model {
    std::unique_ptr<QZ::Graph<idx_t>> G;
    std::vector<idx_t> Y;
    std::vector<double> w;
    std::vector<double> emp;
    size_t d = 0;
};

// Random empirical frequencies: each edge block sums to 1.
template <typename idx_t> void randomEmp(Model<idx_t>& M, std::mt19937& g) {
    std::uniform_real_distribution<double> U(0.05, 1.0);
    M.emp.assign(M.d, 0.0);
    size_t o = 0;
    for (idx_t e = 0; e < M.G->edges(); ++e) {
        idx_t s = 0, t = 0;
        M.G->edge(e, s, t);
        const size_t k = (size_t)M.Y[s] * M.Y[t];
        double z = 0;
        for (size_t i = 0; i < k; ++i) z += (M.emp[o + i] = U(g));
        for (size_t i = 0; i < k; ++i) M.emp[o + i] /= z;
        o += k;
    }
}

template <typename idx_t> Model<idx_t> fromEdges(size_t n, const qztest::EdgeList& el, std::vector<idx_t> Y,
                                                 unsigned seed, double s) {
    Model<idx_t> M;
    M.G = qztest::makeGraph<idx_t>(n, el);
    M.Y = std::move(Y);
    for (const auto& e : el) M.d += (size_t)M.Y[e.first] * M.Y[e.second];
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(-s, s);
    for (size_t i = 0; i < M.d; ++i) M.w.push_back(U(g));
    randomEmp(M, g);
    return M;
}

// A random tree, edges in random orientation, 2 to 4 states per vertex.
template <typename idx_t> Model<idx_t> randomTree(size_t n, unsigned seed, double s) {
    std::mt19937 g(seed);
    qztest::EdgeList el;
    for (size_t v = 1; v < n; ++v) {
        const size_t p = std::uniform_int_distribution<size_t>(0, v - 1)(g);
        const bool flip = std::uniform_int_distribution<int>(0, 1)(g) == 1;
        el.push_back(flip ? std::make_pair(v, p) : std::make_pair(p, v));
    }
    std::vector<idx_t> Y;
    for (size_t v = 0; v < n; ++v) Y.push_back((idx_t)std::uniform_int_distribution<size_t>(2, 4)(g));
    return fromEdges<idx_t>(n, el, Y, seed + 1000, s);
}

template <typename idx_t> Model<idx_t> chain(size_t n, size_t states, unsigned seed, double s) {
    qztest::EdgeList el;
    for (size_t e = 0; e + 1 < n; ++e) el.push_back({e, e + 1});
    return fromEdges<idx_t>(n, el, std::vector<idx_t>(n, (idx_t)states), seed, s);
}

template <typename idx_t> std::unique_ptr<QZ::LBP<idx_t, double>> engineFor(Model<idx_t>& M) {
    std::unique_ptr<QZ::LBP<idx_t, double>> bp(
        new QZ::LBP<idx_t, double>(M.G.get(), M.Y.data(), nullptr, M.w.data(), false));
    bp->setEpsilon(-1);
    bp->setMaxIter((idx_t)(M.Y.size() + 2));
    return bp;
}

// An exact-on-trees engine over the model's weights and a function on it that
// reads the model's means.
template <typename idx_t> struct Fitted {
    std::unique_ptr<QZ::LBP<idx_t, double>> bp;
    std::unique_ptr<QZ::MRF<idx_t, double>> f;
    Fitted(Model<idx_t>& M, idx_t N) : bp(engineFor(M)), f(new QZ::MRF<idx_t, double>(bp.get())) {
        double* e = M.emp.data();
        f->set_empirical(e, N);
    }
};

// log Z by direct enumeration of all joint states, independent of any engine.
template <typename idx_t> double bruteLogZ(const Model<idx_t>& M) {
    const size_t n = M.Y.size();
    std::vector<size_t> x(n, 0);
    std::vector<double> lp;
    for (;;) {
        double r = 0;
        size_t o = 0;
        for (idx_t e = 0; e < M.G->edges(); ++e) {
            idx_t s = 0, t = 0;
            M.G->edge(e, s, t);
            r += M.w[o + x[s] * M.Y[t] + x[t]];
            o += (size_t)M.Y[s] * M.Y[t];
        }
        lp.push_back(r);
        size_t j = 0;
        for (; j < n; ++j) {
            if (++x[j] < M.Y[j]) break;
            x[j] = 0;
        }
        if (j == n) break;
    }
    double mx = lp[0];
    for (double v : lp) mx = std::max(mx, v);
    double z = 0;
    for (double v : lp) z += std::exp(v - mx);
    return mx + std::log(z);
}

template <typename idx_t> double dot(const Model<idx_t>& M) {
    double r = 0;
    for (size_t i = 0; i < M.d; ++i) r += M.w[i] * M.emp[i];
    return r;
}

// Gradient against exact marginals from an enumerating engine on the same weights.
template <typename idx_t> void expectGradientMatchesEnumeration(Model<idx_t>& M) {
    Fitted<idx_t> F(M, (idx_t)10);
    QZ::MRF<idx_t, double>& f = *F.f;
    const double* g = f.comp_gradient();
    QZ::LBP<idx_t, double> slow(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    slow.infer_slow(0);
    double nrm = 0;
    for (idx_t k = 0; k < M.G->edges(); ++k) {
        idx_t s = 0, t = 0;
        M.G->edge(k, s, t);
        for (idx_t x = 0; x < M.Y[s]; ++x)
            for (idx_t y = 0; y < M.Y[t]; ++y) {
                const idx_t i = slow.edgeWeightOffset(k) + x * M.Y[t] + y;
                double a = 0, b = 0;
                slow.edge_marginal(k, x, y, a, b);
                EXPECT_NEAR(g[i], a / b - M.emp[i], 1e-9) << "e=" << (size_t)k << " i=" << (size_t)i;
                nrm = std::max(nrm, std::fabs(a / b - M.emp[i]));
            }
    }
    EXPECT_NEAR(f.get_gradient_norm(), nrm, 1e-9);
    EXPECT_NEAR(f.eval(), bruteLogZ(M) - dot(M), 1e-9);
}

// An engine with fixed, known marginals for edge e and joint index k: (k + 1 + e)
// over a per-edge normalizer; it counts its runs and the marginal queries per edge.
template <typename idx_t, typename val_t> class FixedEngine : public QZ::InferenceAlgorithm<idx_t, val_t> {
public:
    typedef QZ::InferenceAlgorithm<idx_t, val_t> IA;
    val_t logZ;
    val_t norm;
    mutable std::vector<std::atomic<size_t>> calls;
    size_t runs = 0;

    FixedEngine(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, val_t* w, val_t _logZ, val_t _norm)
        : IA(G, Y, nullptr, w), logZ(_logZ), norm(_norm), calls(G->edges()) {}

    void infer(const idx_t&) override {
        ++runs;
        this->A_val = logZ;
    }
    void vertex_marginal(const idx_t&, const idx_t&, val_t& q, val_t& Z) const override {
        q = 1;
        Z = 1;
    }
    void edge_marginal(const idx_t& e, const idx_t& x, const idx_t& y, val_t& psi, val_t& Z) const override {
        ++calls[e];
        idx_t s = 0, t = 0;
        this->G->edge(e, s, t);
        psi = (val_t)(x * this->Y[t] + y + 1 + e);
        Z = norm;
    }
};

}  // namespace


TEST(MRF, UniformSingleEdgeHasZeroGradientAndLogFour) {
    Model<unsigned int> M = chain<unsigned int>(2, 2, 1, 0.0);
    for (double& v : M.w) v = 0;
    for (double& v : M.emp) v = 0.25;
    Fitted<unsigned int> F(M, 4u);
    auto& bp = F.bp;
    QZ::MRF<unsigned int, double>& f = *F.f;
    const double* g = f.comp_gradient();
    ASSERT_EQ(f.dim(), 4u);
    for (unsigned i = 0; i < 4; ++i) {
        double a = 0, b = 0;
        bp->edge_marginal(0, i / 2, i % 2, a, b);
        EXPECT_NEAR(a / b, 0.25, 1e-12);
        EXPECT_NEAR(g[i], 0.0, 1e-12);
    }
    EXPECT_NEAR(f.get_gradient_norm(), 0.0, 1e-12);
    EXPECT_NEAR(f.eval(), std::log(4.0), 1e-12);
}

TEST(MRF, UniformSingleEdgeInFloat) {
    qztest::EdgeList el{{0, 1}};
    auto G = qztest::makeGraph<unsigned char>(2, el);
    unsigned char Y[2] = {2, 2};
    float w[4] = {0, 0, 0, 0};
    float emp[4] = {0.25f, 0.25f, 0.25f, 0.25f};
    QZ::LBP<unsigned char, float> bp(G.get(), Y, nullptr, w, false);
    bp.setMaxIter(4);
    QZ::MRF<unsigned char, float> f(&bp);
    float* e = emp;
    f.set_empirical(e, (unsigned char)4);
    f.comp_gradient();
    EXPECT_NEAR(f.get_gradient_norm(), 0.0f, 1e-6f);
    EXPECT_NEAR(f.eval(), std::log(4.0f), 1e-5f);
}

TEST(MRF, GradientNormIsLargestAbsoluteEntryNotEuclidean) {
    Model<unsigned int> M = chain<unsigned int>(2, 2, 1, 0.0);
    for (double& v : M.w) v = 0;
    M.emp = {1.0, 0.0, 0.0, 0.0};
    Fitted<unsigned int> F(M, 1u);
    QZ::MRF<unsigned int, double>& f = *F.f;
    const double* g = f.comp_gradient();
    EXPECT_NEAR(g[0], -0.75, 1e-12);
    for (int i = 1; i < 4; ++i) EXPECT_NEAR(g[i], 0.25, 1e-12);
    EXPECT_NEAR(f.get_gradient_norm(), 0.75, 1e-12);
    EXPECT_GT(std::fabs(f.get_gradient_norm() - std::sqrt(0.75 * 0.75 + 3 * 0.0625)), 0.1);
    EXPECT_EQ(f.get_gradient(), f.g);
}

TEST(MRF, EvalBeforeAnyGradientReadsTheEngineValueAsItIs) {
    Model<unsigned int> M = chain<unsigned int>(3, 2, 7, 1.0);
    Fitted<unsigned int> F(M, 1u);
    auto& bp = F.bp;
    QZ::MRF<unsigned int, double>& f = *F.f;
    // No run yet: eval neither infers nor waits for one; it combines the
    // engine's present value, whatever that is, with the inner product.
    const double A0 = bp->A();
    EXPECT_DOUBLE_EQ(f.eval(), A0 - dot(M));
    EXPECT_DOUBLE_EQ(bp->A(), A0);
    EXPECT_NE(f.eval(), bruteLogZ(M) - dot(M));
    f.comp_gradient();
    EXPECT_NEAR(f.eval(), bruteLogZ(M) - dot(M), 1e-9);
    // Moving the point without a new gradient keeps the old log partition value.
    const double A1 = bp->A();
    M.w[0] += 1.0;
    EXPECT_DOUBLE_EQ(f.eval(), A1 - dot(M));
}

TEST(MRF, GraphWithoutEdgesHasNoParameters) {
    auto G = qztest::makeGraph<unsigned int>(3, {});
    unsigned Y[3] = {2, 3, 2};
    QZ::LBP<unsigned int, double> bp(G.get(), Y, nullptr, nullptr, false);
    bp.setMaxIter(3);
    QZ::MRF<unsigned int, double> f(&bp);
    EXPECT_EQ(f.dim(), 0u);
    EXPECT_EQ(f.L(), 0.0);
    double* e = nullptr;
    f.set_empirical(e, 0u);
    f.comp_gradient();
    EXPECT_EQ(f.get_gradient_norm(), 0.0);
    EXPECT_DOUBLE_EQ(f.eval(), bp.A());
}

TEST(MRF, EdgeWithZeroStateEndContributesNoTasks) {
    qztest::EdgeList el{{0, 1}, {0, 2}, {1, 2}};
    auto G = qztest::makeGraph<unsigned int>(3, el);
    unsigned Y[3] = {2, 0, 3};
    FixedEngine<unsigned int, double> E(G.get(), Y, nullptr, 0.5, 10.0);
    QZ::MRF<unsigned int, double> f(&E);
    ASSERT_EQ(f.dim(), 6u);
    std::vector<double> emp(6, 0.0);
    double* e = emp.data();
    f.set_empirical(e, 1u);
    const double* g = f.comp_gradient();
    EXPECT_EQ(E.calls[0].load(), 0u);
    EXPECT_EQ(E.calls[1].load(), 6u);
    EXPECT_EQ(E.calls[2].load(), 0u);
    for (unsigned k = 0; k < 6; ++k) EXPECT_DOUBLE_EQ(g[k], (k + 2) / 10.0);
    EXPECT_DOUBLE_EQ(f.get_gradient_norm(), 0.7);
}

TEST(MRF, ConstructionTakesEverythingFromTheEngine) {
    Model<unsigned short> M = randomTree<unsigned short>(5, 3, 1.0);
    auto bp = engineFor(M);
    QZ::MRF<unsigned short, double>* f = new QZ::MRF<unsigned short, double>(bp.get());
    EXPECT_EQ((size_t)f->dim(), M.d);
    EXPECT_EQ(f->G, M.G.get());
    EXPECT_EQ(f->Y, bp->getStateSpaces());
    EXPECT_EQ(f->w, M.w.data());
    EXPECT_EQ(f->current_point(), M.w.data());
    EXPECT_EQ(f->engine(), bp.get());
    EXPECT_EQ(f->emp, nullptr);
    EXPECT_EQ(f->N, 0u);
    EXPECT_EQ(f->L(), 8.0);
    EXPECT_EQ(f->get_gradient_norm(), 0.0);
    for (size_t i = 0; i < M.d; ++i) EXPECT_EQ(f->g[i], 0.0);
    double* e = M.emp.data();
    f->set_empirical(e, (unsigned short)17);
    EXPECT_EQ(f->emp, M.emp.data());
    EXPECT_EQ(f->N, 17u);
    // Decoding leaves the shared point as it is.
    const std::vector<double> before = M.w;
    f->decode_weights();
    EXPECT_EQ(M.w, before);
    // Through the base the same operations dispatch to the model.
    QZ::Function<unsigned short, double>* base = f;
    base->comp_gradient();
    EXPECT_GT(base->get_gradient_norm(), 0.0);
    delete base;
    // The engine and the means survive the function.
    bp->infer(0);
    EXPECT_NEAR(bp->A(), bruteLogZ(M), 1e-9);
}

TEST(MRF, GradientMatchesEnumerationOnTrees) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        Model<unsigned int> M = randomTree<unsigned int>(2 + seed, seed, 1.5);
        expectGradientMatchesEnumeration(M);
    }
    Model<unsigned char> M8 = randomTree<unsigned char>(6, 99, 1.0);
    expectGradientMatchesEnumeration(M8);
    Model<unsigned long> M64 = randomTree<unsigned long>(6, 98, 1.0);
    expectGradientMatchesEnumeration(M64);
}

TEST(MRF, GradientMatchesEnumerationOnChains) {
    for (unsigned seed = 1; seed <= 4; ++seed) {
        Model<unsigned int> M = chain<unsigned int>(3 + seed, 2 + seed % 3, 10 + seed, 2.0);
        expectGradientMatchesEnumeration(M);
    }
}

TEST(MRF, ObjectiveEqualsBruteForceLogPartitionMinusInnerProduct) {
    Model<unsigned int> M = randomTree<unsigned int>(6, 21, 2.0);
    Fitted<unsigned int> F(M, 5u);
    QZ::MRF<unsigned int, double>& f = *F.f;
    f.comp_gradient();
    const double expect = bruteLogZ(M) - dot(M);
    EXPECT_NEAR(f.eval(), expect, 1e-9);
    // With frequencies as means there is no scaling by the number of rows.
    double* e = M.emp.data();
    f.set_empirical(e, 500u);
    EXPECT_NEAR(f.eval(), expect, 1e-9);
}

TEST(MRF, GradientAgreesWithFiniteDifferencesOfEval) {
    Model<unsigned int> M = randomTree<unsigned int>(5, 31, 1.0);
    Fitted<unsigned int> F(M, 1u);
    QZ::MRF<unsigned int, double>& f = *F.f;
    f.comp_gradient();
    const std::vector<double> g(f.g, f.g + M.d);
    const double h = 1e-5;
    for (size_t i = 0; i < M.d; ++i) {
        const double w0 = M.w[i];
        M.w[i] = w0 + h;
        f.comp_gradient();
        const double up = f.eval();
        M.w[i] = w0 - h;
        f.comp_gradient();
        const double down = f.eval();
        M.w[i] = w0;
        EXPECT_NEAR((up - down) / (2 * h), g[i], 1e-6) << "i=" << i;
    }
}

TEST(MRF, GradientStepsLowerTheObjective) {
    Model<unsigned int> M = chain<unsigned int>(4, 3, 41, 0.0);
    for (double& v : M.w) v = 0;
    std::mt19937 rg(5);
    randomEmp(M, rg);
    Fitted<unsigned int> F(M, 1u);
    QZ::MRF<unsigned int, double>& f = *F.f;
    f.comp_gradient();
    const double f0 = f.eval(), n0 = f.get_gradient_norm();
    QZ::GradientDescent<unsigned int, double> opt(nullptr);
    opt.setEps(0);
    const double best = opt.opt(&f, nullptr, nullptr, nullptr, 10u, 1.0, false, 0.0, 0.0);
    f.comp_gradient();
    EXPECT_LT(f.eval(), f0 - 1e-3);
    EXPECT_LT(f.get_gradient_norm(), n0);
    EXPECT_NEAR(best, f.eval(), 1e-12);
    EXPECT_NEAR(f.eval(), bruteLogZ(M) - dot(M), 1e-9);
}

TEST(MRF, GradientDoesNotDependOnTheNumberOfThreads) {
    Model<unsigned int> M = randomTree<unsigned int>(9, 51, 1.0);
    Fitted<unsigned int> F(M, 1u);
    QZ::MRF<unsigned int, double>& f = *F.f;
    const int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    f.comp_gradient();
    const std::vector<double> one(f.g, f.g + M.d);
    const double n1 = f.get_gradient_norm();
    omp_set_num_threads(3);
    f.comp_gradient();
    omp_set_num_threads(saved);
    for (size_t i = 0; i < M.d; ++i) EXPECT_DOUBLE_EQ(f.g[i], one[i]);
    EXPECT_DOUBLE_EQ(f.get_gradient_norm(), n1);
}

// Integer values: the same operations in unsigned arithmetic, where the
// difference of means wraps around.
template <typename T> class IntegerMRF_ : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IntTypes;
TYPED_TEST_SUITE(IntegerMRF_, IntTypes);

TYPED_TEST(IntegerMRF_, GradientAndObjectiveWrapInUnsignedArithmetic) {
    typedef TypeParam T;
    qztest::EdgeList el{{0, 1}};
    auto G = qztest::makeGraph<T>(2, el);
    T Y[2] = {2, 2};
    T w[4] = {1, 2, 0, 3};
    FixedEngine<T, T> E(G.get(), Y, w, (T)20, (T)1);
    QZ::MRF<T, T> f(&E);
    EXPECT_EQ(f.L(), (T)2);
    EXPECT_EQ(f.current_point(), w);
    // Marginals a / b are 1, 2, 3, 4.
    T emp[4] = {1, 5, 3, 2};
    T* e = emp;
    f.set_empirical(e, (T)7);
    const T* g = f.comp_gradient();
    EXPECT_EQ(E.runs, 1u);
    EXPECT_EQ(g[0], (T)0);
    EXPECT_EQ(g[1], (T)(T(2) - T(5)));
    EXPECT_EQ(g[2], (T)0);
    EXPECT_EQ(g[3], (T)2);
    EXPECT_EQ(f.get_gradient_norm(), (T)(T(2) - T(5)));
    // <w, emp> = 1 + 10 + 0 + 6 = 17, A = 20.
    EXPECT_EQ(f.eval(), (T)3);
    E.logZ = 10;
    f.comp_gradient();
    EXPECT_EQ(f.eval(), (T)(T(10) - T(17)));
}

