// Floating-point loopy belief propagation: normalization, marginals and the
// Bethe value, checked against exact enumeration on trees.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>
#include <qz_refgrid.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>

#include <omp.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <utility>
#include <vector>

namespace {

template <typename idx_t> struct Model {
    std::unique_ptr<QZ::Graph<idx_t>> G;
    std::vector<idx_t> Y;
    std::vector<double> wd;
    size_t d = 0;
};

// A random tree: vertex v > 0 hangs below a random earlier vertex, in a random
// orientation; states from 2 to 4 (or fixed), weights uniform in [-s, s].
template <typename idx_t> Model<idx_t> randomTree(size_t n, unsigned seed, double s, size_t fixedStates = 0) {
    std::mt19937 g(seed);
    Model<idx_t> M;
    qztest::EdgeList el;
    for (size_t v = 1; v < n; ++v) {
        const size_t p = std::uniform_int_distribution<size_t>(0, v - 1)(g);
        const bool flip = std::uniform_int_distribution<int>(0, 1)(g) == 1;
        el.push_back(flip ? std::make_pair(v, p) : std::make_pair(p, v));
    }
    M.G = qztest::makeGraph<idx_t>(n, el);
    for (size_t v = 0; v < n; ++v)
        M.Y.push_back((idx_t)(fixedStates ? fixedStates : std::uniform_int_distribution<size_t>(2, 4)(g)));
    for (const auto& e : el) M.d += (size_t)M.Y[e.first] * M.Y[e.second];
    std::uniform_real_distribution<double> U(-s, s);
    for (size_t i = 0; i < M.d; ++i) M.wd.push_back(U(g));
    return M;
}

template <typename idx_t> Model<idx_t> chain(size_t n, size_t states, unsigned seed, double s) {
    Model<idx_t> M;
    qztest::EdgeList el;
    for (size_t e = 0; e + 1 < n; ++e) el.push_back({e, e + 1});
    M.G = qztest::makeGraph<idx_t>(n, el);
    M.Y.assign(n, (idx_t)states);
    M.d = (n - 1) * states * states;
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(-s, s);
    for (size_t i = 0; i < M.d; ++i) M.wd.push_back(U(g));
    return M;
}

// Exposes the numeric hooks.
class OpenLBP : public QZ::LBP<unsigned int, double> {
public:
    using QZ::LBP<unsigned int, double>::LBP;
    double mexp(double x) const { return map_exponential(x); }
    double mlog(double x) const { return map_logarithm(x); }
    double mother(double x, double z) const { return map_other(x, z); }
};

// Exact vertex marginal from the enumeration's unnormalized edge statistics,
// read through an edge at v.
template <typename idx_t, typename E> double slowVertexMarginal(const E& slow, idx_t v, idx_t x) {
    const auto* G = slow.graph();
    const idx_t e = G->in_edge(v, 0);
    idx_t s = 0, t = 0;
    G->edge(e, s, t);
    const double* mu = slow.raw_mu();
    const idx_t o = slow.edgeWeightOffset(e);
    double a = 0, Z = 0;
    for (idx_t i = 0; i < slow.stateSpace(s); ++i)
        for (idx_t j = 0; j < slow.stateSpace(t); ++j) {
            const double p = mu[o + i * slow.stateSpace(t) + j];
            Z += p;
            if ((v == s ? i : j) == x) a += p;
        }
    return a / Z;
}

template <typename idx_t> void expectMatchesEnumeration(const Model<idx_t>& M, double tol) {
    QZ::LBP<idx_t, double> bp(M.G.get(), M.Y.data(), nullptr, const_cast<double*>(M.wd.data()), false);
    bp.setEpsilon(-1);
    bp.setMaxIter((idx_t)(M.Y.size() + 2));
    bp.infer(0);
    QZ::LBP<idx_t, double> slow(M.G.get(), M.Y.data(), nullptr, const_cast<double*>(M.wd.data()), false);
    slow.infer(10);
    EXPECT_NEAR(bp.A(), slow.A(), tol);
    const idx_t n = M.G->vertices(), m = M.G->edges();
    for (idx_t v = 0; v < n; ++v)
        for (idx_t x = 0; x < M.Y[v]; ++x) {
            double q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            EXPECT_NEAR(q / Z, slowVertexMarginal(slow, v, x), tol) << "v=" << (size_t)v << " x=" << (size_t)x;
        }
    for (idx_t e = 0; e < m; ++e) {
        idx_t s = 0, t = 0;
        M.G->edge(e, s, t);
        for (idx_t x = 0; x < M.Y[s]; ++x)
            for (idx_t y = 0; y < M.Y[t]; ++y) {
                double a = 0, Z = 0, b = 0, Zs = 0;
                bp.edge_marginal(e, x, y, a, Z);
                slow.edge_marginal(e, x, y, b, Zs);
                EXPECT_NEAR(a / Z, b / Zs, tol) << "e=" << (size_t)e;
            }
    }
}

// Brute-force most probable joint state.
template <typename idx_t> std::vector<idx_t> bruteArgmax(const QZ::LBP<idx_t, double>& bp) {
    const idx_t n = bp.graph()->vertices();
    size_t states = 1;
    for (idx_t v = 0; v < n; ++v) states *= bp.stateSpace(v);
    std::vector<idx_t> best(n, 0), x(n, 0);
    double bestVal = -std::numeric_limits<double>::infinity();
    for (size_t i = 0; i < states; ++i) {
        const double lp = bp.log_potential(x.data());
        if (lp > bestVal) {
            bestVal = lp;
            best = x;
        }
        for (idx_t j = 0; j < n; ++j) {
            if (++x[j] < bp.stateSpace(j)) break;
            x[j] = 0;
        }
    }
    return best;
}

}  // namespace

// ---------------------------------------------------------------- maps

TEST(LBP, MapsClampToPositiveFiniteValues) {
    auto M = chain<unsigned int>(2, 2, 1, 1.0);
    OpenLBP bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    EXPECT_EQ(bp.mexp(-1e4), std::numeric_limits<double>::min());
    EXPECT_EQ(bp.mexp(1e4), std::numeric_limits<double>::max());
    EXPECT_DOUBLE_EQ(bp.mexp(0.5), std::exp(0.5));
    EXPECT_EQ(bp.mlog(0.0), 0.0);
    EXPECT_DOUBLE_EQ(bp.mlog(3.0), std::log(3.0));
    EXPECT_EQ(bp.mother(2.0, 5.0), 5.0);
    EXPECT_EQ(bp.mother(std::nan(""), 5.0), 5.0);
    EXPECT_EQ(bp.mother(-1.0, std::nan("")), -1.0);
}

// ---------------------------------------------------------------- edge cases

TEST(LBP, ConvergedChainGivesLogPartitionOfEnumeration) {
    auto M = chain<unsigned int>(7, 3, 2, 1.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    bp.setMaxIter(100);  // eps stays 1e-6
    bp.infer(0);
    QZ::LBP<unsigned int, double> slow(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    slow.infer_slow(0);
    EXPECT_NEAR(bp.A(), slow.A(), 1e-5);
}

TEST(LBP, AfterInferSlowEdgeMarginalsComeFromEnumeration) {
    auto M = randomTree<unsigned int>(5, 3, 1.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    bp.setMaxIter(2);
    bp.setEpsilon(-1);
    bp.infer(0);  // not yet converged: messages are not exact
    std::vector<double> vq, eq;
    for (unsigned int v = 0; v < 5; ++v)
        for (unsigned int x = 0; x < M.Y[v]; ++x) {
            double q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            vq.push_back(q / Z);
        }
    bp.infer_slow(0);
    QZ::LBP<unsigned int, double> slow(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    slow.infer_slow(0);
    double maxdiff = 0;
    for (unsigned int e = 0; e < 4; ++e) {
        unsigned int s = 0, t = 0;
        M.G->edge(e, s, t);
        for (unsigned int x = 0; x < M.Y[s]; ++x)
            for (unsigned int y = 0; y < M.Y[t]; ++y) {
                double a = 0, Z = 0;
                bp.edge_marginal(e, x, y, a, Z);
                EXPECT_EQ(a, bp.raw_mu()[bp.edgeWeightOffset(e) + x * M.Y[t] + y]);
                double b = 0, Zb = 0;
                slow.edge_marginal(e, x, y, b, Zb);
                EXPECT_DOUBLE_EQ(a / Z, b / Zb);
                EXPECT_NEAR(Z, std::exp(slow.A()), 1e-9 * std::exp(slow.A()));
            }
    }
    // Vertex marginals still come from the messages.
    size_t k = 0;
    for (unsigned int v = 0; v < 5; ++v)
        for (unsigned int x = 0; x < M.Y[v]; ++x) {
            double q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            EXPECT_DOUBLE_EQ(q / Z, vq[k++]);
            maxdiff = std::max(maxdiff, std::fabs(q / Z - slowVertexMarginal(slow, v, x)));
        }
    EXPECT_GT(maxdiff, 1e-6);
}

TEST(LBP, EveryRunInvalidatesVertexNormalizers) {
    auto M = randomTree<unsigned int>(6, 4, 1.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    for (unsigned int v = 0; v < 6; ++v) EXPECT_EQ(bp.get_node_z(v), -1.0);
    for (int mode : {0, 1, 0}) {
        bp.infer(mode);
        // The run itself read marginals for the Bethe value; the cache was
        // reset at the end of the sweeps and is filled again by A_local.
        for (unsigned int v = 0; v < 6; ++v) EXPECT_GT(bp.get_node_z(v), 0.0);
        bp.infer_continue(mode);
        for (unsigned int v = 0; v < 6; ++v) EXPECT_GT(bp.get_node_z(v), 0.0);
    }
    // Without a Bethe pass the reset is visible: a subclass whose A_local
    // reads nothing.
    class NoBethe : public QZ::LBP<unsigned int, double> {
    public:
        using QZ::LBP<unsigned int, double>::LBP;

    protected:
        double A_local() const override { return 0; }
    };
    NoBethe nb(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    nb.infer(0);
    double q = 0, Z = 0;
    nb.vertex_marginal(2, 1, q, Z);
    EXPECT_GT(nb.get_node_z(2), 0.0);
    const double z2 = nb.get_node_z(2);
    double q2 = 0, Z2 = 123;  // served from the cache, whatever the caller passed
    nb.vertex_marginal(2, 0, q2, Z2);
    EXPECT_EQ(Z2, z2);
    nb.infer(0);
    for (unsigned int v = 0; v < 6; ++v) EXPECT_EQ(nb.get_node_z(v), -1.0);
    // The first call accumulates onto the Z it is given.
    double q3 = 0, Z3 = 10;
    nb.vertex_marginal(2, 0, q3, Z3);
    EXPECT_NEAR(Z3 - 10, z2, 1e-12);
}

TEST(LBP, MessagesSumToOneAfterNormalization) {
    auto M = randomTree<unsigned int>(8, 5, 2.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    for (unsigned int iters : {1u, 2u, 7u}) {
        bp.setEpsilon(-1);
        bp.setMaxIter(iters);
        bp.infer(0);
        for (unsigned int e = 0; e < 7; ++e) {
            unsigned int s = 0, t = 0;
            M.G->edge(e, s, t);
            double z0 = 0, z1 = 0;
            for (unsigned int y = 0; y < M.Y[t]; ++y) z0 += std::exp(bp.messages(e, false)[y]);
            for (unsigned int x = 0; x < M.Y[s]; ++x) z1 += std::exp(bp.messages(e, true)[x]);
            EXPECT_NEAR(z0, 1.0, 1e-12);
            EXPECT_NEAR(z1, 1.0, 1e-12);
        }
    }
}

TEST(LBP, IsolatedVertexFactorWrapsInWideIndexTypes) {
    // Edge (0, 1) and an isolated vertex 2 with two states and no weight on
    // it: its belief is uniform, h = -log 2.
    auto build = [](auto tag) { return qztest::makeGraph<decltype(tag)>(3, {{0, 1}}); };
    const std::vector<double> w0 = {0.3, -0.7, 1.1, 0.2};
    auto check = [&](auto tag, double factor) {
        typedef decltype(tag) T;
        auto G = build(tag);
        T Y[] = {2, 2, 2};
        std::vector<double> w = w0;
        QZ::LBP<T, double> bp(G.get(), Y, nullptr, w.data(), false);
        bp.infer(0);
        const double edgeLogZ = std::log(std::exp(0.3) + std::exp(-0.7) + std::exp(1.1) + std::exp(0.2));
        // The two vertices of the edge have degree 1 and factor 0.
        EXPECT_NEAR(bp.A(), edgeLogZ + factor * -std::log(2.0), 1e-9 * std::max(1.0, std::fabs(factor)));
    };
    check((unsigned char)0, -1.0);
    check((unsigned short)0, -1.0);
    check((unsigned int)0, 4294967295.0);
    check((unsigned long)0, 18446744073709551615.0);
    // With 8 or 16 bits the value is the exact one, log 2 for the free vertex.
    auto G = build((unsigned char)0);
    unsigned char Y[] = {2, 2, 2};
    std::vector<double> w = w0;
    QZ::LBP<unsigned char, double> slow(G.get(), Y, nullptr, w.data(), false);
    slow.infer_slow(0);
    QZ::LBP<unsigned char, double> bp(G.get(), Y, nullptr, w.data(), false);
    bp.infer(0);
    EXPECT_NEAR(bp.A(), slow.A(), 1e-9);
}

// ---------------------------------------------------------------- exactness on trees

TEST(LBP, TreesMatchEnumerationToTightTolerance) {
    for (unsigned seed = 10; seed < 22; ++seed) {
        auto M = randomTree<unsigned int>(3 + seed % 6, seed, 1.5);
        expectMatchesEnumeration(M, 1e-9);
    }
}

TEST(LBP, ChainsOfTwoToFourStatesMatchEnumeration) {
    for (size_t states = 2; states <= 4; ++states) {
        auto M = chain<unsigned int>(6, states, 30 + (unsigned)states, 1.5);
        expectMatchesEnumeration(M, 1e-9);
    }
}

TEST(LBP, AllIndexTypesMatchEnumeration) {
    expectMatchesEnumeration(randomTree<unsigned char>(6, 41, 1.0), 1e-9);
    expectMatchesEnumeration(randomTree<unsigned short>(6, 42, 1.0), 1e-9);
    expectMatchesEnumeration(randomTree<unsigned long>(6, 43, 1.0), 1e-9);
}

TEST(LBP, FloatInstanceAgreesWithDouble) {
    auto M = randomTree<unsigned int>(7, 50, 1.0);
    std::vector<float> wf(M.wd.begin(), M.wd.end());
    QZ::LBP<unsigned int, float> bf(M.G.get(), M.Y.data(), nullptr, wf.data(), false);
    bf.setMaxIter(20);
    bf.infer(0);
    QZ::LBP<unsigned int, double> bd(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    bd.setMaxIter(20);
    bd.infer(0);
    EXPECT_NEAR(bf.A(), bd.A(), 1e-4);
    for (unsigned int v = 0; v < 7; ++v)
        for (unsigned int x = 0; x < M.Y[v]; ++x) {
            float q = 0, Z = 0;
            double qd = 0, Zd = 0;
            bf.vertex_marginal(v, x, q, Z);
            bd.vertex_marginal(v, x, qd, Zd);
            EXPECT_NEAR(q / Z, qd / Zd, 1e-5);
        }
}

TEST(LBP, MaxProductOnTreeFindsBruteForceArgmax) {
    for (unsigned seed = 60; seed < 70; ++seed) {
        auto M = randomTree<unsigned int>(4 + seed % 4, seed, 2.0);
        QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
        bp.setEpsilon(-1);
        bp.setMaxIter((unsigned int)M.Y.size() + 2);
        bp.infer(1);
        const auto best = bruteArgmax(bp);
        for (unsigned int v = 0; v < M.G->vertices(); ++v) {
            double top = -1;
            unsigned int arg = 0;
            for (unsigned int x = 0; x < M.Y[v]; ++x) {
                double q = 0, Z = 0;
                bp.vertex_marginal(v, x, q, Z);
                if (q > top) {
                    top = q;
                    arg = x;
                }
            }
            EXPECT_EQ(arg, best[v]) << "seed " << seed << " v " << v;
        }
        // MM on a floating model reports the observation for every vertex:
        // -1.0 where none was made.
        bp.observe(0, (double)best[0]);
        bp.infer(1);
        std::vector<double> mm(M.Y.size(), 5.0);
        bp.MM(mm.data());
        EXPECT_EQ(mm[0], (double)best[0]);
        for (size_t v = 1; v < mm.size(); ++v) EXPECT_EQ(mm[v], -1.0);
    }
}

TEST(LBP, MMPGivesNormalizedVertexMarginals) {
    auto M = randomTree<unsigned int>(5, 70, 1.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    bp.setMaxIter(20);
    bp.infer(0);
    size_t total = 0;
    for (auto y : M.Y) total += y;
    std::vector<double> p(total);
    double* pp = p.data();
    bp.MMP(pp);
    size_t k = 0;
    for (unsigned int v = 0; v < 5; ++v) {
        double sum = 0;
        for (unsigned int x = 0; x < M.Y[v]; ++x) {
            double q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            EXPECT_DOUBLE_EQ(p[k], q / Z);
            sum += p[k++];
        }
        EXPECT_NEAR(sum, 1.0, 1e-12);
    }
}

TEST(LBP, ObservationConditionsTheMarginals) {
    auto M = randomTree<unsigned int>(6, 80, 1.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    bp.setEpsilon(-1);
    bp.setMaxIter(10);
    bp.observe(3, 1.0);
    bp.infer(0);
    // Exact conditional marginals by enumeration of the states with x3 = 1.
    const unsigned int n = 6;
    std::vector<unsigned int> x(n, 0);
    std::vector<std::vector<double>> P(n);
    for (unsigned int v = 0; v < n; ++v) P[v].assign(M.Y[v], 0.0);
    double Z = 0;
    for (;;) {
        if (x[3] == 1) {
            const double p = std::exp(bp.log_potential(x.data()));
            Z += p;
            for (unsigned int v = 0; v < n; ++v) P[v][x[v]] += p;
        }
        unsigned int j = 0;
        for (; j < n; ++j) {
            if (++x[j] < M.Y[j]) break;
            x[j] = 0;
        }
        if (j == n) break;
    }
    for (unsigned int v = 0; v < n; ++v) {
        if (v == 3) continue;
        for (unsigned int s = 0; s < M.Y[v]; ++s) {
            double q = 0, Zq = 0;
            bp.vertex_marginal(v, s, q, Zq);
            EXPECT_NEAR(q / Zq, P[v][s] / Z, 1e-9) << v;
        }
    }
}

// ---------------------------------------------------------------- loopy graphs

TEST(LBP, BetheValueIsFormedFromTheMarginals) {
    // A 4 x 4 grid with mixed state spaces and a vertex of every degree but 0.
    qztest::EdgeList el;
    for (size_t v = 0; v < 16; ++v) {
        if (v + 4 < 16) el.push_back({v, v + 4});
        if (v % 4 != 3) el.push_back({v + 1, v});
    }
    auto G = qztest::makeGraph<unsigned int>(16, el);
    std::vector<unsigned int> Y(16);
    for (size_t v = 0; v < 16; ++v) Y[v] = 2 + (v * 7) % 3;
    size_t d = 0;
    for (auto& e : el) d += Y[e.first] * Y[e.second];
    std::vector<double> w(d);
    std::mt19937 g(90);
    std::uniform_real_distribution<double> U(-1.5, 1.5);
    for (double& x : w) x = U(g);
    QZ::LBP<unsigned int, double> bp(G.get(), Y.data(), nullptr, w.data(), false);
    bp.setEpsilon(-1);
    bp.setMaxIter(7);  // not converged: the formula holds for any state
    for (int mode : {0, 1}) {
        bp.infer(mode);
        double H = 0;
        for (unsigned int v = 0; v < 16; ++v) {
            double h = 0;
            for (unsigned int x = 0; x < Y[v]; ++x) {
                double a = 0, Z = 0;
                bp.vertex_marginal(v, x, a, Z);
                h += std::log(a / Z) * (a / Z);
            }
            H += ((double)G->num_neighbors(v) - 1) * h;
        }
        for (unsigned int e = 0; e < el.size(); ++e) {
            unsigned int s = 0, t = 0;
            G->edge(e, s, t);
            double h = 0;
            for (unsigned int x = 0; x < Y[s]; ++x)
                for (unsigned int y = 0; y < Y[t]; ++y) {
                    double a = 0, Z = 0;
                    bp.edge_marginal(e, x, y, a, Z);
                    h += (std::log(a / Z) - w[bp.edgeWeightOffset(e) + Y[t] * x + y]) * (a / Z);
                }
            H -= h;
        }
        EXPECT_NEAR(bp.A(), H, 1e-10 * std::max(1.0, std::fabs(H))) << "mode " << mode;
    }
}

TEST(LBP, EdgeBeliefIsHeldRelativeToItsMeanLogValue) {
    auto M = randomTree<unsigned int>(7, 95, 2.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    bp.setEpsilon(-1);
    bp.setMaxIter(2);
    bp.infer(0);
    for (unsigned int e = 0; e < 6; ++e) {
        unsigned int s = 0, t = 0;
        M.G->edge(e, s, t);
        const unsigned int o = bp.edgeWeightOffset(e);
        double C = 0;
        for (unsigned int x = 0; x < M.Y[s]; ++x)
            for (unsigned int y = 0; y < M.Y[t]; ++y)
                C += M.wd[o + M.Y[t] * x + y] + bp.get_log_prod(s, x, t, e) + bp.get_log_prod(t, y, s, e);
        C /= M.Y[s] * M.Y[t];
        EXPECT_NEAR(bp.get_edge_c(e), C, 1e-12);
        double Z = 0;
        for (unsigned int x = 0; x < M.Y[s]; ++x)
            for (unsigned int y = 0; y < M.Y[t]; ++y) {
                const double l = M.wd[o + M.Y[t] * x + y] + bp.get_log_prod(s, x, t, e) + bp.get_log_prod(t, y, s, e);
                Z += std::exp(l - C);
                double a = 0, Za = 0;
                bp.edge_marginal(e, x, y, a, Za);
                EXPECT_NEAR(a, std::exp(l - C), 1e-12 * std::exp(l - C));
                EXPECT_EQ(Za, bp.get_edge_z(e));
            }
        EXPECT_NEAR(bp.get_edge_z(e), Z, 1e-12 * Z);
    }
}

TEST(LBP, HeldStatisticsAreReadPerEntryCount) {
    auto M = chain<unsigned int>(3, 2, 96, 1.0);
    QZ::LBP<unsigned int, double> bp(M.G.get(), M.Y.data(), nullptr, M.wd.data(), false);
    bp.setMaxIter(5);
    bp.infer(0);
    double a0 = 0, Z0 = 0;
    bp.edge_marginal(1, 1, 0, a0, Z0);  // from the messages
    bp.infer_slow(0);
    double* mu = bp.raw_mu();
    double* cnt = bp.raw_mu_samples();
    double block = 0;
    for (unsigned int i = 4; i < 8; ++i) block += mu[i];
    // The block sum is divided by the count of the entry asked for.
    cnt[4 + 1] = 2;
    double a = 0, Z = 0;
    bp.edge_marginal(1, 0, 1, a, Z);
    EXPECT_EQ(a, mu[5]);
    EXPECT_NEAR(Z, block / 2, 1e-12 * block);
    bp.edge_marginal(1, 0, 0, a, Z);
    EXPECT_NEAR(Z, block, 1e-12 * block);
    // An entry without samples falls back to the messages.
    cnt[4 + 2] = 0;
    bp.edge_marginal(1, 1, 0, a, Z);
    EXPECT_EQ(a, a0);
    EXPECT_EQ(Z, Z0);
    // The marker in entry 0 switches the statistics off for every edge.
    cnt[0] = -1;
    bp.edge_marginal(1, 0, 1, a, Z);
    EXPECT_EQ(Z, bp.get_edge_z(1));
}

// A continued run of an engine that has not run yet starts from messages of
// 0, as a new run does: the same messages and value after a few sweeps of a
// loopy model, whatever the freed memory the engine's arrays were made from
// held.
TEST(LBP, ContinuedRunOfANewEngineStartsAsANewRun) {
    const size_t L = 4;
    const qztest::EdgeList el = qztest::squareGrid(L);
    auto G = qztest::makeGraph<unsigned int>(L * L, el);
    std::vector<unsigned int> Y(L * L);
    for (size_t v = 0; v < L * L; ++v) Y[v] = 2 + (unsigned)(v % 3);
    size_t d = 0;
    for (const auto& e : el) d += (size_t)Y[e.first] * Y[e.second];
    std::vector<double> w(d);
    std::mt19937 g(12);
    std::uniform_real_distribution<double> U(-1, 1);
    for (double& x : w) x = U(g);
    for (int mode : {0, 1}) {
        QZ::LBP<unsigned int, double> fresh(G.get(), Y.data(), nullptr, w.data(), false);
        fresh.setMaxIter(3);
        fresh.infer(mode);
        // Blocks of the sizes of the engine's arrays, filled and freed, so
        // that the next engine is likely made of them.
        for (size_t k : {(size_t)fresh.message_entries() * 2, (size_t)fresh.message_entries(), el.size(), d}) {
            double* junk = new double[k];
            for (size_t i = 0; i < k; ++i) junk[i] = 1e3 + (double)i;
            delete[] junk;
        }
        QZ::LBP<unsigned int, double> cont(G.get(), Y.data(), nullptr, w.data(), false);
        cont.setMaxIter(3);
        cont.infer_continue(mode);
        EXPECT_EQ(cont.A(), fresh.A()) << "mode " << mode;
        for (unsigned int e = 0; e < (unsigned int)el.size(); ++e)
            for (bool rev : {false, true}) {
                const unsigned int k = Y[rev ? el[e].first : el[e].second];
                for (unsigned int y = 0; y < k; ++y) EXPECT_EQ(cont.messages(e, rev)[y], fresh.messages(e, rev)[y]);
            }
    }
}

// Engines run inside a region of the caller's too (each thread of SAMPLE
// and PREDICT has one): the log-domain sweeps' shared loops must stay with
// their own engine. Weights this large take those sweeps; one weight of
// minus infinity takes the sweeps that keep it. Each thread's engine gives
// the bits of a lone run.
TEST(LBP, EnginesOnTheThreadsOfACallersRegionRunAlone) {
    typedef unsigned long I;
    const size_t N = 12;
    const qztest::RefGrid R = qztest::refGrid(N, 2);
    // The graph takes the edge array over and frees it.
    I* A = (I*)std::calloc(2 * R.edges.size(), sizeof(I));
    for (size_t e = 0; e < R.edges.size(); ++e) {
        A[2 * e] = R.edges[e].first;
        A[2 * e + 1] = R.edges[e].second;
    }
    QZ::Graph<I> G(true, A, (I)(N * N), (I)R.edges.size());
    std::vector<I> Y(N * N, 2);
    for (const bool forbid : {false, true}) {
        std::vector<double> w(R.w);
        for (double& x : w) x *= 400;
        if (forbid) w[5] = -std::numeric_limits<double>::infinity();
        double lone[2];
        for (int mode : {0, 1}) {
            QZ::LBP<I, double> bp(&G, Y.data(), nullptr, w.data(), false);
            bp.setMaxIter(30);
            bp.infer((I)mode);
            lone[mode] = bp.A();
            ASSERT_FALSE(std::isnan(lone[mode])) << forbid << mode;
        }
        double got[2][2];
#pragma omp parallel num_threads(2)
        {
            const int t = omp_get_thread_num();
            QZ::LBP<I, double> bp(&G, Y.data(), nullptr, w.data(), false);
            bp.setMaxIter(30);
            for (int mode : {0, 1}) {
                bp.infer((I)mode);
                got[t][mode] = bp.A();
            }
        }
        for (int t : {0, 1})
            for (int mode : {0, 1}) EXPECT_EQ(got[t][mode], lone[mode]) << "forbid " << forbid << " thread " << t << " mode " << mode;
    }
}
