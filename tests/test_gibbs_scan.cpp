// Gibbs sampling through the engine's incidence table against the scan done
// step by step with the public operations (observe, clear and the
// unnormalized conditional), on the same random engine: the same states come
// out, for free and clamped cells, several state counts, a self-loop and
// narrow index types.
#include <gtest/gtest.h>
#include <qz_graph_util.h>

#include <QZ/bp/loopy>
#include <QZ/inf/base>

#include <random>
#include <vector>

namespace {

using qztest::EdgeList;

// The scan of systematic-scan Gibbs sampling, one public call at a time.
template <typename idx_t, typename val_t, typename E>
void stepwise(E& ia, std::vector<val_t>& x, const idx_t& r, bool keep, std::mt19937& rng) {
    const idx_t n = ia.graph()->vertices();
    const idx_t* Y = ia.getStateSpaces();
    std::uniform_real_distribution<double> U(0.0, 1.0);
    auto conv = [](const val_t& v) -> idx_t { return v > 0 ? (idx_t)v : (idx_t)0; };
    for (idx_t v = 0; v < n; ++v) {
        if (conv(x[v]) < Y[v]) {
            ia.observe(v, x[v]);
        } else {
            std::uniform_int_distribution<unsigned long long> D(0, (unsigned long long)Y[v] - 1);
            ia.observe(v, (val_t)D(rng));
        }
    }
    std::vector<val_t> psi(16);
    for (size_t j = 0; j < (size_t)r * n; ++j) {
        const idx_t v = (idx_t)(j % n);
        if (keep && conv(x[v]) < Y[v]) continue;
        ia.clear(v);
        val_t Z = 0;
        for (idx_t s = 0; s < Y[v]; ++s) {
            ia.fast_unnormalized_conditional_vertex_marginal(v, s, psi[s], 0);
            Z += psi[s];
        }
        val_t psum = 0;
        idx_t chosen = 0;
        const double u = U(rng);
        for (idx_t y = 0; y < Y[v]; ++y) {
            psum += psi[y] / Z;
            if (u <= psum) {
                chosen = y;
                break;
            }
        }
        ia.observe(v, (val_t)chosen);
    }
    for (idx_t v = 0; v < n; ++v) x[v] = ia.observed(v);
}

template <typename idx_t> void compareOn(const EdgeList& el, size_t n, const std::vector<idx_t>& Y, unsigned seed) {
    auto G = qztest::makeGraph<idx_t>(n, el);
    size_t d = 0;
    for (const auto& e : el) d += (size_t)Y[e.first] * Y[e.second];
    std::vector<double> w(d);
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(-1.5, 1.5);
    for (double& x : w) x = U(g);
    for (bool keep : {false, true})
        for (idx_t r : {(idx_t)1, (idx_t)4, (idx_t)25}) {
            std::mt19937 e1(seed + 100 * r), e2(seed + 100 * r);
            QZ::LBP<idx_t, double> a(G.get(), Y.data(), &e1, w.data(), false), b(G.get(), Y.data(), &e2, w.data(), false);
            // Given states, the marker, a value out of range and a fraction.
            std::vector<double> x(n, 1e9);
            x[0] = 1.0;
            x[1] = -1.0;
            x[2] = 0.5;
            x[n - 1] = (double)Y[n - 1];
            std::vector<double> y = x;
            a.GIBBS(x.data(), r, keep);
            stepwise<idx_t, double>(b, y, r, keep, e2);
            EXPECT_EQ(x, y) << "keep " << keep << " sweeps " << (size_t)r;
            // O holds the sampled state in both.
            for (idx_t v = 0; v < (idx_t)n; ++v) EXPECT_EQ(a.observed(v), b.observed(v));
            // The engines continue on the same stream.
            EXPECT_EQ(e1(), e2());
        }
}

}  // namespace

TEST(GibbsScan, GridWithMixedStatesMatchesTheStepwiseScan) {
    EdgeList el;
    const size_t L = 7;
    for (size_t v = 0; v < L * L; ++v) {
        if (v % L + 1 < L) el.push_back({v, v + 1});
        if (v + L < L * L) el.push_back({v + L, v});
    }
    std::vector<unsigned> Y(L * L);
    for (size_t v = 0; v < L * L; ++v) Y[v] = 2 + (unsigned)((v * 5) % 3);
    compareOn<unsigned>(el, L * L, Y, 1);
    std::vector<unsigned> Y2(L * L, 2);
    compareOn<unsigned>(el, L * L, Y2, 2);
}

TEST(GibbsScan, SelfLoopAndRepeatedEdgeMatch) {
    // Vertex 2 has a loop, and 0 - 1 is there twice in both orientations.
    const EdgeList el = {{0, 1}, {1, 2}, {2, 2}, {1, 0}, {2, 3}, {3, 4}};
    compareOn<unsigned>(el, 5, {2, 3, 2, 4, 2}, 3);
}

TEST(GibbsScan, NarrowIndexTypesMatch) {
    const EdgeList el = {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {0, 2}};
    compareOn<unsigned char>(el, 4, {3, 2, 4, 2}, 4);
    compareOn<unsigned short>(el, 4, {2, 2, 5, 3}, 5);
    compareOn<unsigned long>(el, 4, {4, 3, 2, 2}, 6);
}

TEST(GibbsScan, UnitDrawsAreThoseOfTheStandardUniformDistribution) {
    std::mt19937 a(77), b(77);
    std::uniform_real_distribution<double> U(0.0, 1.0);
    for (int i = 0; i < 200000; ++i) {
        const double u = QZ::InferenceAlgorithm<unsigned, double>::unitDraw(a);
        ASSERT_EQ(u, U(b)) << "draw " << i;
    }
    // The engine states are the same afterwards.
    EXPECT_EQ(a(), b());
}
