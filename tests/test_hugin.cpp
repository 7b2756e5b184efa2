// Exact inference over the junction tree: log partition function and
// marginals against an independent enumeration in the test and against the
// engine base's own enumeration, on chains, grids, cycles, complete graphs
// and graphs with isolated vertices; the reference grids; the assertions on
// a broken tree.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_refgrid.h>

#include <QZ/graph/core>
#include <QZ/graph/junction_tree>
#include <QZ/bp/hugin>

#include <omp.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

namespace {

using qztest::EdgeList;
using qztest::makeGraph;

// Exact answers by enumerating every joint state in long double, with a
// shift by the largest log potential.
struct Exact {
    double logZ = 0;
    std::vector<std::vector<double>> vertex;  // [v][x]
    std::vector<double> edge;                 // weight layout
};

Exact enumerate(size_t n, const EdgeList& el, const std::vector<size_t>& Y, const std::vector<double>& w) {
    std::vector<size_t> off;
    size_t d = 0;
    for (const auto& e : el) {
        off.push_back(d);
        d += Y[e.first] * Y[e.second];
    }
    size_t total = 1;
    for (size_t v = 0; v < n; ++v) total *= Y[v];
    std::vector<long double> lp(total);
    std::vector<size_t> x(n, 0);
    long double mx = -INFINITY;
    for (size_t i = 0; i < total; ++i) {
        size_t r = i;
        for (size_t v = 0; v < n; ++v) {
            x[v] = r % Y[v];
            r /= Y[v];
        }
        long double s = 0;
        for (size_t e = 0; e < el.size(); ++e) s += w[off[e] + x[el[e].first] * Y[el[e].second] + x[el[e].second]];
        lp[i] = s;
        if (s > mx) mx = s;
    }
    Exact E;
    E.vertex.resize(n);
    for (size_t v = 0; v < n; ++v) E.vertex[v].assign(Y[v], 0.0);
    E.edge.assign(d, 0.0);
    std::vector<long double> V(d, 0.0L);
    std::vector<std::vector<long double>> VV(n);
    for (size_t v = 0; v < n; ++v) VV[v].assign(Y[v], 0.0L);
    long double Z = 0;
    for (size_t i = 0; i < total; ++i) {
        size_t r = i;
        for (size_t v = 0; v < n; ++v) {
            x[v] = r % Y[v];
            r /= Y[v];
        }
        const long double p = std::exp(lp[i] - mx);
        Z += p;
        for (size_t v = 0; v < n; ++v) VV[v][x[v]] += p;
        for (size_t e = 0; e < el.size(); ++e) V[off[e] + x[el[e].first] * Y[el[e].second] + x[el[e].second]] += p;
    }
    E.logZ = (double)(std::log(Z) + mx);
    for (size_t v = 0; v < n; ++v)
        for (size_t s = 0; s < Y[v]; ++s) E.vertex[v][s] = (double)(VV[v][s] / Z);
    for (size_t i = 0; i < d; ++i) E.edge[i] = (double)(V[i] / Z);
    return E;
}

struct Case {
    size_t n = 0;
    EdgeList el;
    std::vector<size_t> Y;
    std::vector<double> w;
};

Case withRandomWeights(size_t n, EdgeList el, std::vector<size_t> Y, unsigned seed, double s) {
    Case c;
    c.n = n;
    c.el = std::move(el);
    c.Y = std::move(Y);
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(-s, s);
    size_t d = 0;
    for (const auto& e : c.el) d += c.Y[e.first] * c.Y[e.second];
    for (size_t i = 0; i < d; ++i) c.w.push_back(U(g));
    return c;
}

std::vector<size_t> randomStates(size_t n, unsigned seed, size_t lo, size_t hi) {
    std::mt19937 g(seed * 7 + 1);
    std::vector<size_t> Y(n);
    for (auto& y : Y) y = std::uniform_int_distribution<size_t>(lo, hi)(g);
    return Y;
}

EdgeList gridEdges(size_t r, size_t c) {
    EdgeList el;
    for (size_t i = 0; i < r; ++i)
        for (size_t j = 0; j < c; ++j) {
            const size_t v = i * c + j;
            if (i + 1 < r) el.push_back({v, v + c});
            if (j + 1 < c) el.push_back({v + 1, v});  // reversed on purpose
        }
    return el;
}

EdgeList cycleEdges(size_t n) {
    EdgeList el;
    for (size_t v = 0; v < n; ++v) el.push_back({v, (v + 1) % n});
    return el;
}

EdgeList completeEdges(size_t n) {
    EdgeList el;
    for (size_t a = 0; a < n; ++a)
        for (size_t b = a + 1; b < n; ++b) el.push_back((a + b) % 2 ? std::make_pair(a, b) : std::make_pair(b, a));
    return el;
}

// Runs the engine and the base's enumeration on the case and checks both
// against the test's own enumeration.
template <typename idx_t, typename val_t> void check(const Case& c, double tol, const char* what, bool slow = true) {
    SCOPED_TRACE(what);
    auto G = makeGraph<idx_t>(c.n, c.el);
    std::vector<idx_t> Y(c.Y.begin(), c.Y.end());
    std::vector<val_t> w(c.w.begin(), c.w.end());
    std::vector<double> wd(w.begin(), w.end());  // the weights as the engine sees them
    const Exact E = enumerate(c.n, c.el, c.Y, wd);
    std::mt19937 rng(1);
    QZ::HuginAlgorithm<idx_t, val_t> H(G.get(), Y.data(), &rng, w.data());
    H.infer(0);
    EXPECT_NEAR((double)H.A(), E.logZ, tol * std::max(1.0, std::fabs(E.logZ)));
    // The base's enumeration exponentiates without a guard: only where the
    // potentials stay in range.
    QZ::HuginAlgorithm<idx_t, val_t> S(G.get(), Y.data(), &rng, w.data());
    if (slow) {
        S.infer_slow(10);
        EXPECT_NEAR((double)H.A(), (double)S.A(), tol * std::max(1.0, std::fabs(E.logZ)));
    }
    for (size_t v = 0; v < c.n; ++v)
        for (size_t x = 0; x < c.Y[v]; ++x) {
            val_t q = -1, Z = -1;
            H.vertex_marginal((idx_t)v, (idx_t)x, q, Z);
            EXPECT_EQ(Z, (val_t)1);
            EXPECT_NEAR((double)q, E.vertex[v][x], tol) << "vertex " << v << " state " << x;
        }
    size_t o = 0;
    const val_t* mu = S.raw_mu();
    for (size_t e = 0; e < c.el.size(); ++e) {
        const size_t Ys = c.Y[c.el[e].first], Yt = c.Y[c.el[e].second];
        double Zs = 0;
        for (size_t i = 0; i < Ys * Yt; ++i) Zs += (double)mu[o + i];
        for (size_t x = 0; x < Ys; ++x)
            for (size_t y = 0; y < Yt; ++y) {
                val_t p = -1, Z = -1;
                H.edge_marginal((idx_t)e, (idx_t)x, (idx_t)y, p, Z);
                EXPECT_EQ(Z, (val_t)1);
                EXPECT_NEAR((double)p, E.edge[o + x * Yt + y], tol) << "edge " << e << " " << x << y;
                if (slow) EXPECT_NEAR((double)p, (double)mu[o + x * Yt + y] / Zs, tol) << "edge " << e << " " << x << y;
            }
        o += Ys * Yt;
    }
}

// The graph, state spaces and weights of a case with an engine over them;
// the engine reads the weights in place.
struct Built {
    std::unique_ptr<QZ::Graph<unsigned>> G;
    std::vector<unsigned> Y;
    std::vector<double> w;
    std::mt19937 rng{1};
    std::unique_ptr<QZ::HuginAlgorithm<unsigned, double>> H;
    explicit Built(const Case& c) : G(makeGraph<unsigned>(c.n, c.el)), Y(c.Y.begin(), c.Y.end()), w(c.w) {
        H.reset(new QZ::HuginAlgorithm<unsigned, double>(G.get(), Y.data(), &rng, w.data()));
    }
};

template <typename T> class HuginTyped : public ::testing::Test {};
template <typename I, typename V> struct Pair {
    typedef I idx;
    typedef V val;
};
typedef ::testing::Types<Pair<unsigned char, float>, Pair<unsigned short, float>, Pair<unsigned int, float>,
                         Pair<unsigned long, float>, Pair<unsigned char, double>, Pair<unsigned short, double>,
                         Pair<unsigned int, double>, Pair<unsigned long, double>>
    EnginePairs;
TYPED_TEST_SUITE(HuginTyped, EnginePairs);

template <typename V> double tolOf() { return sizeof(V) == 4 ? 1e-4 : 1e-9; }

TYPED_TEST(HuginTyped, ChainsMatchEnumeration) {
    typedef typename TypeParam::idx I;
    typedef typename TypeParam::val V;
    for (unsigned seed = 0; seed < 6; ++seed) {
        const size_t n = 3 + seed;
        EdgeList el;
        for (size_t v = 0; v + 1 < n; ++v) el.push_back(seed % 2 ? std::make_pair(v, v + 1) : std::make_pair(v + 1, v));
        check<I, V>(withRandomWeights(n, el, randomStates(n, seed, 2, 4), seed, 1.5), tolOf<V>(), "chain");
    }
}

TYPED_TEST(HuginTyped, GridsMatchEnumeration) {
    typedef typename TypeParam::idx I;
    typedef typename TypeParam::val V;
    // Narrow indices must number every table entry in 8 bits.
    const bool narrow = sizeof(I) == 1;
    check<I, V>(withRandomWeights(4, gridEdges(2, 2), randomStates(4, 1, 2, 4), 11, 1.0), tolOf<V>(), "2x2");
    check<I, V>(withRandomWeights(6, gridEdges(2, 3), randomStates(6, 2, 2, 4), 12, 1.0), tolOf<V>(), "2x3");
    // An 8-bit index numbers at most 255 table entries in all.
    check<I, V>(withRandomWeights(9, gridEdges(3, 3), randomStates(9, 3, 2, narrow ? 2 : 4), 13, 1.0), tolOf<V>(),
                "3x3");
    check<I, V>(withRandomWeights(12, gridEdges(3, 4), randomStates(12, 4, 2, narrow ? 2 : 3), 14, 1.0), tolOf<V>(),
                "3x4");
    if (!narrow)
        check<I, V>(withRandomWeights(16, gridEdges(4, 4), std::vector<size_t>(16, 2), 15, 1.0), tolOf<V>(), "4x4");
}

TYPED_TEST(HuginTyped, CyclesMatchEnumeration) {
    typedef typename TypeParam::idx I;
    typedef typename TypeParam::val V;
    for (size_t n = 3; n <= 8; ++n)
        check<I, V>(withRandomWeights(n, cycleEdges(n), randomStates(n, (unsigned)n, 2, 4), (unsigned)n, 1.0),
                    tolOf<V>(), "cycle");
}

TYPED_TEST(HuginTyped, CompleteGraphsMatchEnumeration) {
    typedef typename TypeParam::idx I;
    typedef typename TypeParam::val V;
    const bool narrow = sizeof(I) == 1;
    for (size_t n = 2; n <= 8; ++n) {
        // One table over all vertices: 8 bits number 128 entries at most.
        const size_t hi = narrow ? (n <= 4 ? 3 : 2) : (n <= 6 ? 4 : 3);
        if (narrow && n == 8) continue;
        check<I, V>(withRandomWeights(n, completeEdges(n), randomStates(n, (unsigned)n + 40, 2, hi), (unsigned)n, 0.7),
                    tolOf<V>(), "complete");
    }
}

TYPED_TEST(HuginTyped, IsolatedVerticesAreUniformAndIndependent) {
    typedef typename TypeParam::idx I;
    typedef typename TypeParam::val V;
    // Vertices 0, 3 and 6 have no edge.
    const EdgeList el{{1, 2}, {2, 4}, {4, 1}, {5, 7}};
    check<I, V>(withRandomWeights(8, el, randomStates(8, 77, 2, 4), 7, 1.2), tolOf<V>(), "isolated");
    check<I, V>(withRandomWeights(3, {}, {2, 3, 4}, 8, 1.0), tolOf<V>(), "no edges");
}

TYPED_TEST(HuginTyped, RandomGraphsMatchEnumeration) {
    typedef typename TypeParam::idx I;
    typedef typename TypeParam::val V;
    const bool narrow = sizeof(I) == 1;
    for (unsigned seed = 0; seed < 8; ++seed) {
        std::mt19937 g(seed + 300);
        const size_t n = (narrow ? 4 : 5) + seed % 4;
        EdgeList el;
        for (size_t a = 0; a < n; ++a)
            for (size_t b = a + 1; b < n; ++b)
                if (std::bernoulli_distribution(0.4)(g)) el.push_back({b, a});
        check<I, V>(withRandomWeights(n, el, randomStates(n, seed + 9, 2, narrow ? 2 : 3), seed, 1.0), tolOf<V>(),
                    "random");
    }
}

TEST(Hugin, EdgesInSeveralCliquesCountOnce) {
    // Two triangles that share the edge 1-2: the edge's weights must enter
    // one clique only, or its potential would be squared.
    const EdgeList el{{0, 1}, {0, 2}, {1, 2}, {1, 3}, {2, 3}};
    auto G = makeGraph<unsigned>(4, el);
    QZ::JunctionTree<unsigned> J(*G);
    ASSERT_EQ(J.cliques(), 2u);
    check<unsigned, double>(withRandomWeights(4, el, {2, 3, 2, 3}, 5, 2.0), 1e-9, "shared edge");
}

TEST(Hugin, InferTwiceGivesTheSameResult) {
    const Case c = withRandomWeights(9, gridEdges(3, 3), randomStates(9, 5, 2, 3), 21, 1.0);
    Built b(c);
    std::vector<double>& w = b.w;
    QZ::HuginAlgorithm<unsigned, double>& H = *b.H;
    H.infer(0);
    const double A1 = H.A();
    std::vector<double> M1(H.messages(), H.messages() + H.numMessages());
    H.infer(0);
    EXPECT_EQ(H.A(), A1);
    EXPECT_EQ(std::vector<double>(H.messages(), H.messages() + H.numMessages()), M1);
    // New parameters need nothing but another run.
    for (double& x : w) x *= -0.5;
    H.infer(0);
    const Exact E = enumerate(c.n, c.el, c.Y, w);
    EXPECT_NEAR(H.A(), E.logZ, 1e-9);
}

TEST(Hugin, ObservationsChangeNothing) {
    const Case c = withRandomWeights(6, gridEdges(2, 3), randomStates(6, 6, 2, 3), 22, 1.0);
    Built b(c);
    QZ::HuginAlgorithm<unsigned, double>& H = *b.H;
    H.infer(0);
    const double A1 = H.A();
    std::vector<double> M1(H.messages(), H.messages() + H.numMessages());
    H.observe(0, 1);
    H.observe(3, 0);
    H.infer(0);
    EXPECT_EQ(H.A(), A1);
    EXPECT_EQ(std::vector<double>(H.messages(), H.messages() + H.numMessages()), M1);
}

TEST(Hugin, ModeIsIgnoredEvenSlow) {
    const Case c = withRandomWeights(5, cycleEdges(5), {2, 2, 3, 2, 2}, 23, 1.0);
    Built b(c);
    std::vector<double>& w = b.w;
    QZ::HuginAlgorithm<unsigned, double>& H = *b.H;
    H.infer(10);
    // The enumeration leaves no statistics behind: the marker stays.
    EXPECT_EQ(H.raw_mu_samples()[0], -1.0);
    const double A10 = H.A();
    H.infer(1);
    EXPECT_EQ(H.A(), A10);
    EXPECT_NEAR(A10, enumerate(c.n, c.el, c.Y, w).logZ, 1e-9);
}

TEST(Hugin, VertexInACliqueAndASeparatorIsSummedInTheSeparator) {
    // Chain 0-1-2: cliques {1,2} and {0,1}, separator {1} (node 2).
    const Case c = withRandomWeights(3, {{0, 1}, {1, 2}}, {2, 3, 2}, 24, 1.0);
    Built b(c);
    QZ::HuginAlgorithm<unsigned, double>& H = *b.H;
    H.infer(0);
    EXPECT_EQ(H.marginalNodeOfVertex(1), 2u);
    EXPECT_EQ(H.marginalNodeOfVertex(0), 1u);
    EXPECT_EQ(H.marginalNodeOfVertex(2), 0u);
    EXPECT_EQ(H.marginalNodeOfEdge(0), 1u);
    EXPECT_EQ(H.marginalNodeOfEdge(1), 0u);
    // The separator's table is the vertex marginal itself.
    const double* M = H.messages();
    for (unsigned x = 0; x < 3; ++x) {
        double q, Z;
        H.vertex_marginal(1, x, q, Z);
        EXPECT_NEAR(std::exp(M[H.Moff[2] + x]), q, 1e-15);
    }
}

TEST(Hugin, TablesAndTheirIndexLayout) {
    // Chain 0-1-2 with 2, 3 and 4 states: clique {1,2} has 12 entries, clique
    // {0,1} 6, separator {1} 3; the lowest member varies fastest.
    const Case c = withRandomWeights(3, {{0, 1}, {2, 1}}, {2, 3, 4}, 25, 1.0);
    Built b(c);
    std::vector<double>& w = b.w;
    QZ::HuginAlgorithm<unsigned, double>& H = *b.H;
    EXPECT_EQ(H.numMessages(), 21u);
    EXPECT_EQ(H.numMSG, 21u);
    EXPECT_EQ(H.numW, 18u);
    EXPECT_EQ(std::vector<unsigned>(H.YC, H.YC + 3), (std::vector<unsigned>{12, 6, 3}));
    EXPECT_EQ(std::vector<unsigned>(H.Moff, H.Moff + 4), (std::vector<unsigned>{0, 12, 18, 21}));
    EXPECT_EQ(H.jt(), H.H);
    EXPECT_EQ(H.jt()->cliques(), 2u);
    H.infer(0);
    const Exact E = enumerate(c.n, c.el, c.Y, w);
    EXPECT_EQ(H.all_marginals(), H.messages());
    const double* M = H.messages();
    // Clique {1,2}: entry x1 + 3 x2 is the joint marginal of vertices 1 and 2,
    // which edge 1 = (2, 1) holds at x2 * 3 + x1.
    for (unsigned x1 = 0; x1 < 3; ++x1)
        for (unsigned x2 = 0; x2 < 4; ++x2) {
            EXPECT_NEAR(std::exp(M[x1 + 3 * x2]), E.edge[6 + x2 * 3 + x1], 1e-12);
            double p;
            H.clique_marginal(0, x1 + 3 * x2, p);
            EXPECT_NEAR(p, E.edge[6 + x2 * 3 + x1], 1e-12);
        }
    // Clique {0,1}: entry x0 + 2 x1; edge 0 = (0, 1) holds it at x0 * 3 + x1.
    for (unsigned x0 = 0; x0 < 2; ++x0)
        for (unsigned x1 = 0; x1 < 3; ++x1) EXPECT_NEAR(std::exp(M[12 + x0 + 2 * x1]), E.edge[x0 * 3 + x1], 1e-12);
    // Every table sums to 1 in probability.
    for (unsigned C = 0; C < 3; ++C) {
        double s = 0;
        for (unsigned i = H.Moff[C]; i < H.Moff[C + 1]; ++i) s += std::exp(M[i]);
        EXPECT_NEAR(s, 1.0, 1e-12);
    }
}

TEST(Hugin, OneCliqueIsTheLogOfTheSumOfItsTable) {
    // A complete graph of four vertices: no separators, and log Z is the log
    // of the sum over the one table of the exponentials of the summed weights.
    const Case c = withRandomWeights(4, completeEdges(4), {2, 3, 2, 2}, 26, 1.5);
    Built b(c);
    QZ::HuginAlgorithm<unsigned, double>& H = *b.H;
    ASSERT_EQ(H.jt()->vertices(), 1u);
    H.infer(0);
    double Z = 0;
    for (unsigned a = 0; a < 2; ++a)
        for (unsigned b = 0; b < 3; ++b)
            for (unsigned cc = 0; cc < 2; ++cc)
                for (unsigned d = 0; d < 2; ++d) {
                    const unsigned x[4] = {a, b, cc, d};
                    Z += std::exp(H.log_potential(x));
                }
    EXPECT_NEAR(H.A(), std::log(Z), 1e-12);
}

TEST(Hugin, ClampsUnderflowInTheCliqueMarginal) {
    // State 0 of vertex 0 has probability exp(-800) relative to state 1: it
    // underflows to 0 in double and is reported as the smallest number.
    const Case c{2, {{0, 1}}, {2, 2}, {-800, -800, 0, 0}};
    Built b(c);
    QZ::HuginAlgorithm<unsigned, double>& H = *b.H;
    H.infer(0);
    double p = -1;
    H.clique_marginal(0, 0, p);
    EXPECT_EQ(p, std::numeric_limits<double>::min());
    H.clique_marginal(0, 1, p);
    EXPECT_NEAR(p, 0.5, 1e-15);
}

TEST(Hugin, LargeWeightsDoNotOverflow) {
    // Weights far beyond the range of the exponential: propagation scales its
    // tables, so the marginals and log Z stay exact.
    const Case c = withRandomWeights(9, gridEdges(3, 3), std::vector<size_t>(9, 2), 27, 400.0);
    check<unsigned, double>(c, 1e-9, "large weights", false);
}

TEST(Hugin, LongChainsNeedNoDeepStack) {
    // 200,000 vertices: one clique per edge; propagation runs without
    // recursion and stays exact for a chain, whose log Z follows from a
    // forward recursion in the log domain.
    const size_t n = 200000;
    EdgeList el;
    for (size_t v = 0; v + 1 < n; ++v) el.push_back({v, v + 1});
    auto G = makeGraph<unsigned>(n, el);
    std::vector<unsigned> Y(n, 2);
    std::vector<double> w(4 * (n - 1));
    std::mt19937 g(3);
    for (double& x : w) x = std::uniform_real_distribution<double>(-1, 1)(g);
    std::mt19937 rng(1);
    QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, w.data());
    H.infer(0);
    auto lse = [](double x, double y) {
        const double m = std::max(x, y);
        return m + std::log(std::exp(x - m) + std::exp(y - m));
    };
    double a0 = 0, a1 = 0;
    for (size_t e = 0; e + 1 < n; ++e) {
        const double* q = w.data() + 4 * e;
        const double n0 = lse(a0 + q[0], a1 + q[2]);
        const double n1 = lse(a0 + q[1], a1 + q[3]);
        a0 = n0;
        a1 = n1;
    }
    const double logZ = lse(a0, a1);
    EXPECT_NEAR(H.A(), logZ, 1e-9 * std::fabs(logZ));
}

TEST(Hugin, BranchesOnTwoThreadsGiveExactMarginals) {
    // 5,000 vertices of 8 states in a chain: tables of 64 entries, enough in
    // all for the root to sit in the middle and its two branches to go to
    // two threads. Marginals from forward and backward recursions.
    const size_t n = 5000, K = 8;
    EdgeList el;
    for (size_t v = 0; v + 1 < n; ++v) el.push_back({v, v + 1});
    auto G = makeGraph<unsigned>(n, el);
    std::vector<unsigned> Y(n, (unsigned)K);
    std::vector<double> w(K * K * (n - 1));
    std::mt19937 g(4);
    for (double& x : w) x = std::uniform_real_distribution<double>(-1, 1)(g);
    std::mt19937 rng(1);
    QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, w.data());
    H.infer(0);
    // f[v*K+x]: log of the sum over the vertices before v, v in state x; b:
    // the same over the vertices after v.
    std::vector<double> f(n * K, 0.0), b(n * K, 0.0);
    auto lse = [](const std::vector<double>& t) {
        double m = -INFINITY;
        for (double x : t) m = std::max(m, x);
        double r = 0;
        for (double x : t) r += std::exp(x - m);
        return m + std::log(r);
    };
    std::vector<double> t(K);
    for (size_t e = 0; e + 1 < n; ++e)
        for (size_t y = 0; y < K; ++y) {
            for (size_t x = 0; x < K; ++x) t[x] = f[e * K + x] + w[e * K * K + x * K + y];
            f[(e + 1) * K + y] = lse(t);
        }
    for (size_t e = n - 1; e-- > 0;)
        for (size_t x = 0; x < K; ++x) {
            for (size_t y = 0; y < K; ++y) t[y] = b[(e + 1) * K + y] + w[e * K * K + x * K + y];
            b[e * K + x] = lse(t);
        }
    for (size_t x = 0; x < K; ++x) t[x] = f[(n - 1) * K + x];
    const double logZ = lse(t);
    EXPECT_NEAR(H.A(), logZ, 1e-9 * std::fabs(logZ));
    for (size_t v = 0; v < n; v += 97)
        for (size_t x = 0; x < K; x += 3) {
            double q, Z;
            H.vertex_marginal((unsigned)v, (unsigned)x, q, Z);
            EXPECT_NEAR(q, std::exp(f[v * K + x] + b[v * K + x] - logZ), 1e-9) << v;
        }
    for (size_t e = 3; e + 1 < n; e += 211) {
        double p, Z;
        H.edge_marginal((unsigned)e, 2, 5, p, Z);
        EXPECT_NEAR(p, std::exp(f[e * K + 2] + w[e * K * K + 2 * K + 5] + b[(e + 1) * K + 5] - logZ), 1e-9) << e;
    }
}

TEST(Hugin, OneThreadAndTwoGiveTheSameBits) {
    // The 14 x 14 reference grid splits its tree into two branches; the
    // order of the work does not depend on the thread count.
    const qztest::RefGrid R = qztest::refGrid(14, 2);
    auto G = makeGraph<unsigned>(196, R.edges);
    std::vector<unsigned> Y(196, 2);
    std::vector<double> w = R.w;
    std::mt19937 rng(1);
    std::vector<std::vector<double>> out;
    const int saved = omp_get_max_threads();
    for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, w.data());
        H.infer(0);
        std::vector<double> r{H.A()};
        for (unsigned v = 0; v < 196; ++v) {
            double q, Z;
            H.vertex_marginal(v, 0, q, Z);
            r.push_back(q);
        }
        for (unsigned e = 0; e < G->edges(); ++e) {
            double p, Z;
            H.edge_marginal(e, 1, 1, p, Z);
            r.push_back(p);
        }
        out.push_back(r);
    }
    omp_set_num_threads(saved);
    EXPECT_EQ(out[0], out[1]);
    EXPECT_NEAR(out[0][0], 172.289871424397, 1e-9 * 172.3);
}

TEST(Hugin, NarrowIndexRefusesTablesItCannotNumber) {
    // Nine binary vertices in one clique: 512 entries, beyond 8 bits.
    auto G = makeGraph<unsigned char>(9, completeEdges(9));
    std::vector<unsigned char> Y(9, 2);
    std::mt19937 rng(1);
    EXPECT_THROW((QZ::HuginAlgorithm<unsigned char, double>(G.get(), Y.data(), &rng, nullptr)), std::out_of_range);
}

TEST(Hugin, ReferenceGridsGiveTheIndependentLogPartitionValues) {
    // The grids are read through the adjacency reader, which lists the edges
    // in the generator's order.
    const struct {
        size_t N;
        double logZ;
    } refs[] = {{12, 122.490584263945}, {14, 172.289871424397}};
    for (const auto& r : refs) {
        const qztest::RefGrid R = qztest::refGrid(r.N, 2);
        std::istringstream adj(qztest::refGridAdjacency(R));
        unsigned* A = nullptr;
        unsigned n = 0, m = 0;
        QZ::adjFromCSV<unsigned>(adj, A, n, m, ',');
        QZ::Graph<unsigned> G(A, n, m);
        delete[] A;
        ASSERT_EQ((size_t)G.edges(), R.edges.size());
        for (unsigned e = 0; e < G.edges(); ++e) {
            unsigned s, t;
            G.edge(e, s, t);
            ASSERT_EQ(std::make_pair((size_t)s, (size_t)t), R.edges[e]);
        }
        std::vector<unsigned> Y(n, 2);
        std::vector<double> w = R.w;
        std::mt19937 rng(1);
        QZ::HuginAlgorithm<unsigned, double> H(&G, Y.data(), &rng, w.data());
        H.infer(0);
        EXPECT_NEAR(H.A(), r.logZ, 1e-9 * r.logZ) << r.N;
    }
}

// ---------------------------------------------------------------- a broken tree

TEST(HuginDeath, EdgeOutsideEveryCliqueReachesASeparator) {
    auto G = makeGraph<unsigned>(3, {{0, 1}, {1, 2}});
    std::vector<unsigned> Y(3, 2);
    std::mt19937 rng(1);
    QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, nullptr);
    // Take vertex 2 out of clique {1,2}: edge (1,2) is then in no clique.
    H.H->vset->at(0)->erase(2);
    EXPECT_DEATH(H.infer(0), "Assertion `!H->isSeparator\\(C\\)' failed");
}

TEST(HuginDeath, SelfLoopHasNoSecondEnd) {
    auto G = makeGraph<unsigned>(2, {{0, 1}, {1, 1}});
    std::vector<unsigned> Y(2, 2);
    std::mt19937 rng(1);
    QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, nullptr);
    EXPECT_DEATH(H.infer(0), "Assertion `xs!=\\(idx_t\\)-1&&xt!=\\(idx_t\\)-1' failed");
}

TEST(HuginDeath, CliqueNextToACliqueIsNoSeparator) {
    auto G = makeGraph<unsigned>(3, {{0, 1}, {1, 2}});
    std::vector<unsigned> Y(3, 2);
    std::mt19937 rng(1);
    QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, nullptr);
    // Tree edges (0,2), (2,1): let the first one join the two cliques.
    H.H->A[1] = 1;
    H.H->buildNeighborhoods();
    EXPECT_DEATH(H.infer(0), "Assertion `H->isSeparator\\(S\\)' failed");
}

}  // namespace

TEST(Hugin, LargeTablesGiveTheSameBitsOnOneThreadOrTwoAndWhenCrowded) {
    // Two cliques of 17 binary vertices over 19, sharing all of 0..15 but
    // 4: tables of 2^17 entries in two blocks of 2^16, projected in halves
    // onto the separator, whose every entry sums four entries of a clique,
    // two from each half (vertex 4 within a block, 16 across).
    const unsigned n = 19;
    auto inA = [](size_t v) { return v <= 16; };
    auto inB = [](size_t v) { return (v <= 15 && v != 4) || v >= 17; };
    EdgeList el;
    for (size_t a = 0; a < n; ++a)
        for (size_t b = a + 1; b < n; ++b)
            if ((inA(a) && inA(b)) || (inB(a) && inB(b))) el.push_back({a, b});
    auto G = makeGraph<unsigned>(n, el);
    std::vector<unsigned> Y(n, 2);
    std::vector<double> w(el.size() * 4);
    std::mt19937 g(11);
    std::uniform_real_distribution<double> U(-0.3, 0.3);
    for (double& x : w) x = U(g);
    std::mt19937 rng(1);
    auto run = [&](int threads) {
        omp_set_num_threads(threads);
        QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, w.data());
        H.infer(0);
        std::vector<double> r{H.A()};
        for (unsigned v = 0; v < n; ++v) {
            double q, Z;
            H.vertex_marginal(v, 1, q, Z);
            r.push_back(q);
        }
        for (unsigned e = 0; e < G->edges(); e += 5) {
            double p, Z;
            H.edge_marginal(e, 1, 0, p, Z);
            r.push_back(p);
        }
        return r;
    };
    const int saved = omp_get_max_threads();
    const std::vector<double> one = run(1), two = run(2);
    QZ::detail::crowding().setWatch(true);
    QZ::detail::crowding().crowd();
    const std::vector<double> crowded = run(2);
    QZ::detail::crowding().setWatch(false);
    omp_set_num_threads(saved);
    ASSERT_EQ(one.size(), two.size());
    EXPECT_EQ(std::memcmp(one.data(), two.data(), one.size() * sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(one.data(), crowded.data(), one.size() * sizeof(double)), 0);
    // The value of every joint state summed.
    QZ::HuginAlgorithm<unsigned, double> E(G.get(), Y.data(), &rng, w.data());
    E.infer_slow(0);
    EXPECT_NEAR(one[0], E.A(), 1e-9 * std::fabs(E.A()));
}
