// Weights of minus infinity (forbidden joint states) in loopy belief
// propagation, Gibbs sampling and enumeration, against exact enumeration in
// the test; models with only finite weights give the bits they gave before
// forbidden states were handled.
#include <gtest/gtest.h>
#include <qz_graph_util.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qztest::EdgeList;
const double NEG_INF = -std::numeric_limits<double>::infinity();

struct Model {
    size_t n = 0;
    EdgeList edges;
    std::vector<unsigned> Y;
    std::vector<double> w;
    std::unique_ptr<QZ::Graph<unsigned>> G;

    void finish() {
        size_t d = 0;
        for (const auto& e : edges) d += (size_t)Y[e.first] * Y[e.second];
        w.resize(d, 0.0);
        G = qztest::makeGraph<unsigned>(n, edges);
    }
    size_t offset(size_t e) const {
        size_t o = 0;
        for (size_t k = 0; k < e; ++k) o += (size_t)Y[edges[k].first] * Y[edges[k].second];
        return o;
    }
};

// An L x L grid with random chords and orientations, state counts drawn from
// the list, weights uniform in [-s, s].
Model loopy(size_t L, unsigned seed, double s, const std::vector<unsigned>& states, size_t chords) {
    std::mt19937 g(seed);
    Model M;
    M.n = L * L;
    auto add = [&](size_t a, size_t b) {
        if (std::uniform_int_distribution<int>(0, 1)(g)) std::swap(a, b);
        M.edges.push_back({a, b});
    };
    for (size_t v = 0; v < M.n; ++v) {
        if (v % L + 1 < L) add(v, v + 1);
        if (v + L < M.n) add(v, v + L);
    }
    for (size_t c = 0; c < chords; ++c) {
        const size_t a = std::uniform_int_distribution<size_t>(0, M.n - 1)(g);
        const size_t b = std::uniform_int_distribution<size_t>(0, M.n - 1)(g);
        if (a != b) add(a, b);
    }
    for (size_t v = 0; v < M.n; ++v) M.Y.push_back(states[std::uniform_int_distribution<size_t>(0, states.size() - 1)(g)]);
    M.finish();
    std::uniform_real_distribution<double> U(-s, s);
    for (double& x : M.w) x = U(g);
    return M;
}

// FNV-1a over the bits of a sequence of numbers.
struct Bits {
    uint64_t h = 1469598103934665603ull;
    template <typename T> void add(const T& x) {
        unsigned char b[sizeof(T)];
        std::memcpy(b, &x, sizeof(T));
        for (unsigned char c : b) h = (h ^ c) * 1099511628211ull;
    }
};

// The bits of everything a caller reads after a run: the log partition
// function, the vertex and edge marginals and the messages.
template <typename val_t> uint64_t runBits(const Model& M, const std::vector<val_t>& w, int mode,
                                           const std::vector<std::pair<unsigned, val_t>>& obs = {}) {
    std::vector<val_t> wc = w;
    QZ::LBP<unsigned, val_t> bp(M.G.get(), M.Y.data(), nullptr, wc.data(), false);
    bp.setMaxIter(40);
    for (const auto& o : obs) bp.observe(o.first, o.second);
    bp.infer((unsigned)mode);
    Bits b;
    b.add(bp.A());
    for (unsigned v = 0; v < M.n; ++v)
        for (unsigned x = 0; x < M.Y[v]; ++x) {
            val_t q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            b.add(q);
            b.add(Z);
        }
    for (unsigned e = 0; e < M.edges.size(); ++e) {
        for (unsigned x = 0; x < M.Y[M.edges[e].first]; ++x)
            for (unsigned y = 0; y < M.Y[M.edges[e].second]; ++y) {
                val_t a = 0, Z = 0;
                bp.edge_marginal(e, x, y, a, Z);
                b.add(a);
                b.add(Z);
            }
        for (unsigned y = 0; y < M.Y[M.edges[e].second]; ++y) b.add(bp.messages(e, false)[y]);
        for (unsigned x = 0; x < M.Y[M.edges[e].first]; ++x) b.add(bp.messages(e, true)[x]);
    }
    return b.h;
}

template <typename val_t> std::vector<val_t> cast(const std::vector<double>& w) {
    return std::vector<val_t>(w.begin(), w.end());
}

// Gibbs sampling and enumeration of a finite model, by bits.
uint64_t gibbsBits(const Model& M, unsigned seed) {
    std::vector<double> wc = M.w;
    std::mt19937 rng(seed);
    QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), &rng, wc.data(), false);
    std::vector<double> x(M.n, 1000.0);
    x[3] = 1;
    Bits b;
    for (int k = 0; k < 20; ++k) {
        bp.GIBBS(x.data(), 2, true);
        for (double v : x) b.add(v);
        for (unsigned v = 0; v < M.n; ++v) bp.clear(v);
        std::fill(x.begin(), x.end(), 1000.0);
        x[3] = (double)(k % 2);
    }
    return b.h;
}

uint64_t slowBits(const Model& M) {
    std::vector<double> wc = M.w;
    QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, wc.data(), false);
    bp.infer(10);
    Bits b;
    b.add(bp.A());
    for (size_t i = 0; i < M.w.size(); ++i) b.add(bp.raw_mu()[i]);
    return b.h;
}

// A random tree (each vertex joined to an earlier one, orientation random),
// weights uniform in [-s, s], about a fraction z of them forbidden.
Model tree(size_t n, unsigned seed, double s, double z, const std::vector<unsigned>& states) {
    std::mt19937 g(seed);
    Model M;
    M.n = n;
    for (size_t v = 1; v < n; ++v) {
        size_t u = std::uniform_int_distribution<size_t>(0, v - 1)(g), a = v;
        if (std::uniform_int_distribution<int>(0, 1)(g)) std::swap(u, a);
        M.edges.push_back({u, a});
    }
    for (size_t v = 0; v < n; ++v) M.Y.push_back(states[std::uniform_int_distribution<size_t>(0, states.size() - 1)(g)]);
    M.finish();
    std::uniform_real_distribution<double> U(-s, s), B(0, 1);
    for (double& x : M.w) x = B(g) < z ? NEG_INF : U(g);
    return M;
}

// Exact enumeration given observations (-1: free): Z, the log of the largest
// potential and a state that has it, and the vertex and edge marginals.
struct Exact {
    double Z = 0, best = NEG_INF;
    std::vector<unsigned> argmax;
    std::vector<std::vector<double>> vm, em;
};

Exact enumerate(const Model& M, const std::vector<long>& obs = {}) {
    Exact X;
    const size_t n = M.n, m = M.edges.size();
    X.vm.resize(n);
    for (size_t v = 0; v < n; ++v) X.vm[v].assign(M.Y[v], 0.0);
    X.em.resize(m);
    for (size_t e = 0; e < m; ++e) X.em[e].assign((size_t)M.Y[M.edges[e].first] * M.Y[M.edges[e].second], 0.0);
    std::vector<unsigned> x(n, 0);
    auto fixed = [&](size_t v) { return v < obs.size() && obs[v] >= 0; };
    for (size_t v = 0; v < n; ++v)
        if (fixed(v)) x[v] = (unsigned)obs[v];
    std::vector<size_t> off(m);
    for (size_t e = 0; e < m; ++e) off[e] = M.offset(e);
    while (true) {
        double lp = 0;
        for (size_t e = 0; e < m; ++e) lp += M.w[off[e] + x[M.edges[e].first] * M.Y[M.edges[e].second] + x[M.edges[e].second]];
        const double q = std::exp(lp);
        X.Z += q;
        if (lp > X.best) {
            X.best = lp;
            X.argmax = x;
        }
        for (size_t v = 0; v < n; ++v) X.vm[v][x[v]] += q;
        for (size_t e = 0; e < m; ++e) X.em[e][x[M.edges[e].first] * M.Y[M.edges[e].second] + x[M.edges[e].second]] += q;
        size_t v = 0;
        for (; v < n; ++v) {
            if (fixed(v)) continue;
            if (++x[v] < M.Y[v]) break;
            x[v] = 0;
        }
        if (v == n) break;
    }
    for (auto& p : X.vm)
        for (double& q : p) q /= X.Z;
    for (auto& p : X.em)
        for (double& q : p) q /= X.Z;
    return X;
}

// The engine with its sweeps in the log domain, as the rule is written,
// whatever the weights.
template <typename idx_t, typename val_t> class LogDomainLBP : public QZ::LBP<idx_t, val_t> {
public:
    LogDomainLBP(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, val_t* w) : QZ::LBP<idx_t, val_t>(G, Y, nullptr, w, false) {}
    void infer(const idx_t& mode) override {
        if (mode == 0) this->template run<false>(false);
        else this->template run<true>(false);
    }
};

// Sum-product marginals and the Bethe value of a converged run on a tree
// against enumeration; a forbidden state and pair get exactly 0.
template <typename Engine, typename val_t>
void expectExactOnTree(Engine& bp, const Model& M, const Exact& X, double tol, const std::string& what) {
    bp.setEpsilon((val_t)-1);
    bp.setMaxIter((unsigned)M.n + 2);
    bp.infer(0);
    EXPECT_NEAR((double)bp.A(), std::log(X.Z), tol) << what;
    for (unsigned v = 0; v < M.n; ++v)
        for (unsigned x = 0; x < M.Y[v]; ++x) {
            val_t q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            const double p = (double)(q / Z);
            EXPECT_NEAR(p, X.vm[v][x], tol) << what << " vertex " << v << " state " << x;
            if (X.vm[v][x] == 0) EXPECT_EQ(p, 0.0) << what << " vertex " << v << " state " << x;
        }
    for (unsigned e = 0; e < M.edges.size(); ++e)
        for (size_t k = 0; k < X.em[e].size(); ++k) {
            const unsigned Yt = M.Y[M.edges[e].second];
            val_t a = 0, Z = 0;
            bp.edge_marginal(e, (unsigned)(k / Yt), (unsigned)(k % Yt), a, Z);
            const double p = (double)(a / Z);
            EXPECT_NEAR(p, X.em[e][k], tol) << what << " edge " << e << " entry " << k;
            if (X.em[e][k] == 0) EXPECT_EQ(p, 0.0) << what << " edge " << e << " entry " << k;
        }
}

// The states of largest max-marginal after max-product messages.
template <typename Engine> std::vector<unsigned> maxStates(Engine& bp, const Model& M) {
    bp.setEpsilon(-1);
    bp.setMaxIter((unsigned)M.n + 2);
    bp.infer(1);
    std::vector<unsigned> x(M.n, 0);
    for (unsigned v = 0; v < M.n; ++v) {
        double best = -1;
        for (unsigned s = 0; s < M.Y[v]; ++s) {
            double q = 0, Z = 0;
            bp.vertex_marginal(v, s, q, Z);
            EXPECT_TRUE(std::isfinite(q / Z));
            if (q > best) {
                best = q;
                x[v] = s;
            }
        }
    }
    return x;
}

double logPotential(const Model& M, const std::vector<unsigned>& x) {
    double lp = 0;
    for (size_t e = 0; e < M.edges.size(); ++e)
        lp += M.w[M.offset(e) + x[M.edges[e].first] * M.Y[M.edges[e].second] + x[M.edges[e].second]];
    return lp;
}

std::string deadMessage(unsigned v) {
    return "belief propagation found every state of vertex " + std::to_string(v) +
           " forbidden given the others: the model with its observations has probability zero";
}

template <typename F> std::string errorOf(F f) {
    try {
        f();
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "";
}

}  // namespace

// The bits of runs made before forbidden states were handled: a finite model
// takes the same path and gives the same numbers, in both number types, in
// the linear sweeps and in the log-domain ones (weights spread too far for
// the linear range), with and without observations.
TEST(Forbidden, FiniteModelsGiveTheBitsTheyGaveBefore) {
    const Model M = loopy(5, 3, 2.0, {2, 3, 4}, 6);
    Model wide = loopy(5, 4, 2.0, {2, 3}, 4);
    for (double& x : wide.w) x *= 150.0;
    const std::vector<std::pair<unsigned, double>> obs = {{2, 1.0}, {7, 0.0}, {11, 0.25}};
    const std::vector<std::pair<unsigned, float>> obsf = {{2, 1.0f}, {7, 0.0f}, {11, 0.25f}};
    const uint64_t got[] = {
        runBits<double>(M, M.w, 0),           runBits<double>(M, M.w, 1),
        runBits<double>(M, M.w, 0, obs),      runBits<double>(M, M.w, 1, obs),
        runBits<double>(wide, wide.w, 0),     runBits<double>(wide, wide.w, 1),
        runBits<double>(wide, wide.w, 0, obs), runBits<float>(M, cast<float>(M.w), 0),
        runBits<float>(M, cast<float>(M.w), 1, obsf),
        runBits<float>(wide, cast<float>(wide.w), 0), gibbsBits(M, 17), slowBits(loopy(3, 5, 1.5, {2, 3}, 2))};
    const uint64_t want[] = {0x2ec3cd6a91d6225eull, 0x4d5747bbdc9697cfull, 0x4e470881b7686100ull, 0x8bf2906a089b0bf0ull,
                             0xfca0efd99f712fd1ull, 0x4af87e1b1d18f353ull, 0xea4b3d399cede602ull, 0x3536a47ab8fce546ull,
                             0x5c9b6ee8dfbefedfull, 0x617ace600c422f4dull, 0x7712b96f8ff8db13ull, 0x045d28aaa5ceed0eull};
    for (size_t k = 0; k < sizeof(want) / sizeof(want[0]); ++k)
        EXPECT_EQ(got[k], want[k]) << "run " << k << ": 0x" << std::hex << got[k];
}

TEST(Forbidden, SumProductIsExactOnTreesWithZeros) {
    int checked = 0;
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const Model M = tree(7, seed, 1.5, 0.3, {2, 3, 4});
        const Exact X = enumerate(M);
        if (!(X.Z > 0)) continue;
        ++checked;
        const std::string what = "seed " + std::to_string(seed);
        std::vector<double> w = M.w;
        QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
        expectExactOnTree<QZ::LBP<unsigned, double>, double>(bp, M, X, 1e-9, what + " (linear entry)");
        LogDomainLBP<unsigned, double> lg(M.G.get(), M.Y.data(), w.data());
        expectExactOnTree<LogDomainLBP<unsigned, double>, double>(lg, M, X, 1e-9, what + " (log domain)");
        std::vector<float> wf(M.w.begin(), M.w.end());
        QZ::LBP<unsigned, float> bf(M.G.get(), M.Y.data(), nullptr, wf.data(), false);
        expectExactOnTree<QZ::LBP<unsigned, float>, float>(bf, M, X, 2e-4, what + " (float)");
    }
    EXPECT_GE(checked, 6);
}

TEST(Forbidden, SumProductWithObservationsOnATree) {
    const Model M = tree(8, 21, 1.0, 0.25, {2, 3});
    std::vector<double> w = M.w;
    int checked = 0;
    for (unsigned v = 0; v < M.n; ++v)
        for (unsigned x = 0; x < M.Y[v]; ++x) {
            std::vector<long> obs(M.n, -1);
            obs[v] = x;
            const Exact X = enumerate(M, obs);
            QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
            bp.observe(v, (double)x);
            bp.setEpsilon(-1);
            bp.setMaxIter(12);
            if (!(X.Z > 0)) {
                // The observed state is forbidden by every joint state.
                EXPECT_NE(errorOf([&] { bp.infer(0); }).find(" forbidden given the others: the model with its "
                                                               "observations has probability zero"),
                          std::string::npos);
                continue;
            }
            ++checked;
            bp.infer(0);
            // The marginals of the free vertices are the conditional ones.
            for (unsigned u = 0; u < M.n; ++u) {
                if (u == v) continue;
                for (unsigned y = 0; y < M.Y[u]; ++y) {
                    double q = 0, Z = 0;
                    bp.vertex_marginal(u, y, q, Z);
                    EXPECT_NEAR(q / Z, X.vm[u][y], 1e-9) << v << "=" << x << ": vertex " << u << " state " << y;
                }
            }
        }
    EXPECT_GE(checked, 8);
}

TEST(Forbidden, MaxProductFindsTheMostProbableStateOnTrees) {
    int checked = 0;
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const Model M = tree(8, 100 + seed, 2.0, 0.3, {2, 3, 4});
        const Exact X = enumerate(M);
        if (!(X.Z > 0)) continue;
        ++checked;
        std::vector<double> w = M.w;
        QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
        const std::vector<unsigned> x = maxStates(bp, M);
        EXPECT_NEAR(logPotential(M, x), X.best, 1e-9) << "seed " << seed;
        LogDomainLBP<unsigned, double> lg(M.G.get(), M.Y.data(), w.data());
        EXPECT_EQ(maxStates(lg, M), x) << "seed " << seed;
    }
    EXPECT_GE(checked, 6);
}

// A chain 0 - 1 - 2 in which the first edge allows x1 = 0 only and the
// second x1 = 1 only: no joint state is possible.
Model impossibleChain() {
    Model M;
    M.n = 3;
    M.edges = {{0, 1}, {1, 2}};
    M.Y = {2, 2, 2};
    M.finish();
    M.w = {0.5, NEG_INF, -0.2, NEG_INF, NEG_INF, NEG_INF, 0.3, 0.1};
    return M;
}

TEST(Forbidden, AModelOfProbabilityZeroStopsTheRun) {
    const Model M = impossibleChain();
    ASSERT_EQ(enumerate(M).Z, 0.0);
    std::vector<double> w = M.w;
    for (unsigned mode = 0; mode < 2; ++mode) {
        QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
        EXPECT_EQ(errorOf([&] { bp.infer(mode); }), deadMessage(1)) << mode;
        LogDomainLBP<unsigned, double> lg(M.G.get(), M.Y.data(), w.data());
        EXPECT_EQ(errorOf([&] { lg.infer(mode); }), deadMessage(1)) << mode;
        std::vector<float> wf(w.begin(), w.end());
        QZ::LBP<unsigned, float> bf(M.G.get(), M.Y.data(), nullptr, wf.data(), false);
        EXPECT_EQ(errorOf([&] { bf.infer(mode); }), deadMessage(1)) << mode;
    }
    // The enumeration says so too.
    QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
    EXPECT_EQ(errorOf([&] { bp.infer(10); }), "the enumeration found every joint state forbidden: the model has probability zero");
    // Possible again once the second edge allows x1 = 0, given x2 = 0:
    // observing x2 = 1 takes that away.
    w[4] = 0.0;
    QZ::LBP<unsigned, double> ok(M.G.get(), M.Y.data(), nullptr, w.data(), false);
    ok.infer(0);
    EXPECT_TRUE(std::isfinite(ok.A()));
    ok.observe(2, 1.0);
    EXPECT_EQ(errorOf([&] { ok.infer(0); }), deadMessage(1));
    ok.observe(2, 0.0);
    ok.infer(1);
    double q = 0, Z = 0;
    ok.vertex_marginal(1, 1, q, Z);
    EXPECT_EQ(q, 0.0);
}

// On loops the messages are approximate, but no number is lost: every
// marginal is a probability, a forbidden pair has the edge marginal 0, the
// Bethe value is finite, and results do not depend on the team's size.
TEST(Forbidden, LoopyGraphsGiveProbabilitiesAndKeepZeros) {
    Model M = loopy(12, 9, 1.0, {2, 3}, 20);
    std::mt19937 g(4);
    for (size_t e = 0; e < M.edges.size(); ++e) {
        // One forbidden pair per edge leaves every state of both ends possible.
        const size_t K = (size_t)M.Y[M.edges[e].first] * M.Y[M.edges[e].second];
        M.w[M.offset(e) + std::uniform_int_distribution<size_t>(0, K - 1)(g)] = NEG_INF;
    }
    std::vector<std::vector<double>> first;
    for (int threads : {1, 2}) {
        for (unsigned mode = 0; mode < 2; ++mode) {
            const int keep = omp_get_max_threads();
            omp_set_num_threads(threads);
            std::vector<double> w = M.w;
            QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
            bp.setMaxIter(60);
            bp.infer(mode);
            omp_set_num_threads(keep);
            std::vector<double> got = {bp.A()};
            EXPECT_TRUE(std::isfinite(bp.A()));
            for (unsigned v = 0; v < M.n; ++v) {
                double sum = 0;
                for (unsigned x = 0; x < M.Y[v]; ++x) {
                    double q = 0, Z = 0;
                    bp.vertex_marginal(v, x, q, Z);
                    ASSERT_TRUE(q / Z >= 0 && q / Z <= 1) << v;
                    sum += q / Z;
                    got.push_back(q / Z);
                }
                EXPECT_NEAR(sum, 1.0, 1e-12);
            }
            for (unsigned e = 0; e < M.edges.size(); ++e) {
                const unsigned Yt = M.Y[M.edges[e].second];
                double sum = 0;
                for (unsigned x = 0; x < M.Y[M.edges[e].first]; ++x)
                    for (unsigned y = 0; y < Yt; ++y) {
                        double a = 0, Z = 0;
                        bp.edge_marginal(e, x, y, a, Z);
                        ASSERT_TRUE(a / Z >= 0 && a / Z <= 1) << e;
                        if (M.w[M.offset(e) + x * Yt + y] == NEG_INF) EXPECT_EQ(a, 0.0);
                        sum += a / Z;
                        got.push_back(a / Z);
                    }
                EXPECT_NEAR(sum, 1.0, 1e-12);
            }
            if (threads == 1) first.push_back(got);
            else EXPECT_EQ(got, first[mode]) << "mode " << mode;
        }
    }
}

// A continued run keeps the messages of the run before; those of a model
// with zeros may be minus infinity, also when the weights are finite now.
TEST(Forbidden, ContinuedRunsFromMessagesWithZeros) {
    const Model M = tree(6, 3, 1.0, 0.3, {2, 3});
    const Exact X = enumerate(M);
    ASSERT_GT(X.Z, 0.0);
    std::vector<double> w = M.w;
    QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
    bp.setEpsilon(-1);
    bp.setMaxIter(3);
    bp.infer(0);
    bp.setMaxIter(10);
    bp.infer_continue(0);
    EXPECT_NEAR(bp.A(), std::log(X.Z), 1e-9);
    std::vector<double> finite(M.w.size(), 0.25);
    bp.setParameters(finite.data());
    bp.infer_continue(0);
    EXPECT_TRUE(std::isfinite(bp.A()));
    double q = 0, Z = 0;
    bp.vertex_marginal(0, 0, q, Z);
    EXPECT_TRUE(std::isfinite(q / Z));
}

TEST(Forbidden, EnumerationWithZerosMatchesTheTest) {
    const Model M = tree(6, 5, 1.0, 0.3, {2, 3});
    const Exact X = enumerate(M);
    ASSERT_GT(X.Z, 0.0);
    std::vector<double> w = M.w;
    QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, w.data(), false);
    bp.infer(10);
    EXPECT_NEAR(bp.A(), std::log(X.Z), 1e-12);
    for (unsigned e = 0; e < M.edges.size(); ++e)
        for (size_t k = 0; k < X.em[e].size(); ++k) {
            const unsigned Yt = M.Y[M.edges[e].second];
            double a = 0, Z = 0;
            bp.edge_marginal(e, (unsigned)(k / Yt), (unsigned)(k % Yt), a, Z);
            EXPECT_NEAR(a / Z, X.em[e][k], 1e-12);
        }
}
