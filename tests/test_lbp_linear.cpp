// Loopy belief propagation whose sweeps run on linear values, against the
// same runs made by the log-domain rule with the number system's hooks:
// messages, products, edge normalizers, marginals and the Bethe value agree
// to the rounding, observations included; weights outside the linear range
// take the rule itself; and the results do not depend on the thread count.
#include <gtest/gtest.h>
#include <qz_bp_util.h>
#include <qz_graph_util.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>

#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace {

using qztest::EdgeList;

// The engine with its sweeps made in the log domain by the hooks, as the
// rule is written, and counting them.
template <typename idx_t, typename val_t> class LogDomainLBP : public qztest::CountingLBP<idx_t, val_t> {
public:
    LogDomainLBP(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, std::mt19937*, val_t* w, bool)
        : qztest::CountingLBP<idx_t, val_t>(G, Y, w) {}
    void infer(const idx_t& mode) override {
        if (mode == 10) this->infer_slow(mode);
        else if (mode == 0) this->template run<false>(false);
        else this->template run<true>(false);
    }
    void infer_continue(const idx_t& mode) override {
        if (mode == 0) this->template run<false>(true);
        else this->template run<true>(true);
    }
};

// Sets the threshold and the sweep limit of both engines.
template <typename A, typename B> void configure(A& a, B& b, double eps, unsigned iters) {
    a.setEpsilon(eps);
    b.setEpsilon(eps);
    a.setMaxIter(iters);
    b.setMaxIter(iters);
}

struct Model {
    size_t n = 0;
    EdgeList edges;
    std::vector<unsigned> Y;
    std::vector<double> w;
    std::unique_ptr<QZ::Graph<unsigned>> G;
};

// An L x L grid with random chords and random orientations, state counts
// drawn from the given list, weights uniform in [-s, s].
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
    size_t d = 0;
    for (const auto& e : M.edges) d += (size_t)M.Y[e.first] * M.Y[e.second];
    std::uniform_real_distribution<double> U(-s, s);
    for (size_t i = 0; i < d; ++i) M.w.push_back(U(g));
    M.G = qztest::makeGraph<unsigned>(M.n, M.edges);
    return M;
}

// Everything a run leaves behind that a caller can read.
struct State {
    std::vector<double> msgs, prev, lp, edgeC, edgeZ, vm, em;
    double A = 0;
};

template <typename E> State state(const E& bp, const Model& M) {
    State S;
    for (unsigned e = 0; e < M.edges.size(); ++e) {
        const unsigned s = (unsigned)M.edges[e].first, t = (unsigned)M.edges[e].second;
        for (unsigned y = 0; y < M.Y[t]; ++y) {
            S.msgs.push_back(bp.messages(e, false)[y]);
            S.prev.push_back(bp.off_messages(e, false)[y]);
        }
        for (unsigned x = 0; x < M.Y[s]; ++x) {
            S.msgs.push_back(bp.messages(e, true)[x]);
            S.prev.push_back(bp.off_messages(e, true)[x]);
        }
        S.edgeC.push_back(bp.get_edge_c(e));
        S.edgeZ.push_back(bp.get_edge_z(e));
        for (unsigned x = 0; x < M.Y[s]; ++x)
            for (unsigned y = 0; y < M.Y[t]; ++y) {
                double a = 0, Z = 0;
                bp.edge_marginal(e, x, y, a, Z);
                S.em.push_back(a / Z);
            }
    }
    for (unsigned v = 0; v < M.n; ++v)
        for (unsigned x = 0; x < M.Y[v]; ++x) {
            S.lp.push_back(bp.log_product(v)[x]);
            double q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            S.vm.push_back(q / Z);
        }
    S.A = bp.A();
    return S;
}

void expectNear(const std::vector<double>& a, const std::vector<double>& b, double tol, const char* what) {
    ASSERT_EQ(a.size(), b.size()) << what;
    double worst = 0;
    for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::fabs(a[i] - b[i]) / std::max(1.0, std::fabs(b[i])));
    EXPECT_LE(worst, tol) << what;
}

void expectSameRun(const State& a, const State& b, double tol) {
    expectNear(a.msgs, b.msgs, tol, "messages");
    expectNear(a.prev, b.prev, tol, "previous copy");
    expectNear(a.lp, b.lp, tol, "log products");
    expectNear(a.edgeC, b.edgeC, tol, "edge centres");
    expectNear(a.edgeZ, b.edgeZ, tol, "edge normalizers");
    expectNear(a.vm, b.vm, tol, "vertex marginals");
    expectNear(a.em, b.em, tol, "edge marginals");
    EXPECT_NEAR(a.A, b.A, tol * std::max(1.0, std::fabs(b.A)));
}

bool sameBits(const std::vector<double>& a, const std::vector<double>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

void expectSameBits(const State& a, const State& b) {
    EXPECT_TRUE(sameBits(a.msgs, b.msgs));
    EXPECT_TRUE(sameBits(a.prev, b.prev));
    EXPECT_TRUE(sameBits(a.lp, b.lp));
    EXPECT_TRUE(sameBits(a.edgeC, b.edgeC));
    EXPECT_TRUE(sameBits(a.edgeZ, b.edgeZ));
    EXPECT_TRUE(sameBits(a.vm, b.vm));
    EXPECT_TRUE(sameBits(a.em, b.em));
    EXPECT_EQ(std::memcmp(&a.A, &b.A, sizeof(double)), 0) << a.A << " " << b.A;
}

}  // namespace

TEST(LinearSweep, SumAndMaxProductMatchTheLogDomainRule) {
    // State counts of the straight-line kernels (2, 3, 4) and of the general
    // one (1, 5 and mixed blocks).
    const std::vector<std::vector<unsigned>> spaces = {{2}, {3}, {4}, {1, 2, 3, 5}};
    unsigned seed = 1;
    for (const auto& sp : spaces)
        for (double s : {0.5, 2.0, 6.0}) {
            Model M = loopy(5, seed++, s, sp, 6);
            QZ::LBP<unsigned, double> lin(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
            LogDomainLBP<unsigned, double> ref(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
            for (unsigned mode : {0u, 1u})
                for (unsigned k : {1u, 2u, 9u, 40u}) {
                    SCOPED_TRACE(testing::Message() << "states " << sp.size() << " s " << s << " mode " << mode << " k " << k);
                    configure(lin, ref, -1, k);
                    lin.infer(mode);
                    ref.infer(mode);
                    expectSameRun(state(lin, M), state(ref, M), 1e-10);
                }
        }
}

TEST(LinearSweep, ObservedAndSoftlyObservedSourcesMatch) {
    Model M = loopy(6, 11, 1.5, {2, 3}, 8);
    QZ::LBP<unsigned, double> lin(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    LogDomainLBP<unsigned, double> ref(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    // A hard state, a soft value at a binary vertex, the marker, a negative
    // value (unobserved for the messages) and a state out of range.
    unsigned binary = 0;
    while (M.Y[binary] != 2) ++binary;
    for (auto* bp : {static_cast<QZ::LBP<unsigned, double>*>(&lin), static_cast<QZ::LBP<unsigned, double>*>(&ref)}) {
        bp->observe(3, 1.0);
        bp->observe(binary, 0.3);
        bp->observe(7, -1.0);
        bp->observe(12, -2.0);
        bp->observe(20, 5.0);
        bp->observe(30, 0.0);
        bp->setEpsilon(-1);
        bp->setMaxIter(25);
    }
    ASSERT_EQ(lin.observed(binary), 0.3);
    for (unsigned mode : {0u, 1u}) {
        lin.infer(mode);
        ref.infer(mode);
        expectSameRun(state(lin, M), state(ref, M), 1e-10);
    }
}

TEST(LinearSweep, ConvergedRunsTakeTheSameSweepsAndContinueAlike) {
    Model M = loopy(8, 21, 0.8, {2, 3, 4}, 10);
    qztest::CountingLBP<unsigned, double> lin(M.G.get(), M.Y.data(), M.w.data());
    LogDomainLBP<unsigned, double> ref(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    configure(lin, ref, 1e-9, 1000);
    lin.infer(0);
    ref.infer(0);
    EXPECT_GT(ref.sweeps, 5);
    EXPECT_LT(ref.sweeps, 1000);
    EXPECT_EQ(lin.sweeps, ref.sweeps);
    expectSameRun(state(lin, M), state(ref, M), 1e-10);
    // A warm start after a change of the weights, from the kept messages.
    std::vector<double> w2 = M.w;
    for (size_t i = 0; i < w2.size(); i += 3) w2[i] *= -1.5;
    lin.setParameters(w2.data());
    ref.setParameters(w2.data());
    lin.sweeps = ref.sweeps = 0;
    lin.infer_continue(0);
    ref.infer_continue(0);
    EXPECT_EQ(lin.sweeps, ref.sweeps);
    expectSameRun(state(lin, M), state(ref, M), 1e-10);
    // A continued run of few sweeps reads products of 0 with the kept messages.
    configure(lin, ref, -1, 2);
    lin.infer_continue(1);
    ref.infer_continue(1);
    expectSameRun(state(lin, M), state(ref, M), 1e-10);
}

TEST(LinearSweep, DenseGraphWithStrongWeightsMatchesAShiftedLogDomainSweep) {
    // A complete graph on 20 vertices with weights in [-85, 85]: products of
    // 19 messages whose entries span up to about exp(-170) are scaled back
    // up on the way. The log-domain rule overflows its clamps here; the
    // reference shifts every sum by its largest term, in long double.
    EdgeList el;
    for (size_t a = 0; a < 20; ++a)
        for (size_t b = a + 1; b < 20; ++b) el.push_back({b, a});
    Model M;
    M.n = 20;
    M.edges = el;
    M.Y.assign(20, 2);
    M.G = qztest::makeGraph<unsigned>(20, el);
    std::mt19937 g(5);
    std::uniform_real_distribution<double> U(-85, 85);
    M.w.resize(4 * el.size());
    for (double& x : M.w) x = U(g);
    QZ::LBP<unsigned, double> lin(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    lin.setEpsilon(-1);
    const size_t m = el.size();
    for (bool max : {false, true})
        for (unsigned k : {1u, 3u, 12u}) {
            // msg[2e] from the first end to the second, msg[2e+1] back.
            std::vector<std::array<long double, 2>> msg(2 * m, {0.0L, 0.0L});
            for (unsigned it = 0; it < k; ++it) {
                std::vector<std::array<long double, 2>> lp(20, {0.0L, 0.0L});
                for (size_t e = 0; e < m; ++e)
                    for (int x = 0; x < 2; ++x) {
                        lp[el[e].second][x] += msg[2 * e][x];
                        lp[el[e].first][x] += msg[2 * e + 1][x];
                    }
                std::vector<std::array<long double, 2>> next(2 * m);
                for (size_t e = 0; e < m; ++e)
                    for (int rev = 0; rev < 2; ++rev) {
                        const size_t src = rev ? el[e].second : el[e].first;
                        std::array<long double, 2> out;
                        for (int y = 0; y < 2; ++y) {
                            long double terms[2], hi = -INFINITY;
                            for (int x = 0; x < 2; ++x) {
                                const long double wv = rev ? M.w[4 * e + 2 * y + x] : M.w[4 * e + 2 * x + y];
                                terms[x] = lp[src][x] - msg[2 * e + 1 - rev][x] + wv;
                                hi = std::max(hi, terms[x]);
                            }
                            out[y] = max ? hi : hi + std::log(std::exp(terms[0] - hi) + std::exp(terms[1] - hi));
                        }
                        const long double top = std::max(out[0], out[1]);
                        const long double lz = top + std::log(std::exp(out[0] - top) + std::exp(out[1] - top));
                        next[2 * e + rev] = {out[0] - lz, out[1] - lz};
                    }
                msg = next;
            }
            lin.setMaxIter(k);
            lin.infer(max ? 1 : 0);
            double worst = 0;
            for (unsigned e = 0; e < m; ++e)
                for (int rev = 0; rev < 2; ++rev)
                    for (int y = 0; y < 2; ++y)
                        worst = std::max(worst, (double)std::fabs(lin.messages(e, rev != 0)[y] - msg[2 * e + rev][y]) /
                                                    std::max(1.0, (double)std::fabs(msg[2 * e + rev][y])));
            EXPECT_LT(worst, 1e-11) << "max " << max << " k " << k;
            // Vertex marginals: the normalized product of the incoming messages.
            for (unsigned v = 0; v < 20; ++v) {
                long double l[2] = {0.0L, 0.0L};
                for (size_t e = 0; e < m; ++e)
                    for (int x = 0; x < 2; ++x) {
                        if (el[e].second == v) l[x] += msg[2 * e][x];
                        if (el[e].first == v) l[x] += msg[2 * e + 1][x];
                    }
                const long double p1 = 1.0L / (1.0L + std::exp(l[0] - l[1]));
                double q = 0, Z = 0;
                lin.vertex_marginal(v, 1, q, Z);
                EXPECT_NEAR(q / Z, (double)p1, 1e-11) << "v " << v;
            }
        }
}

TEST(LinearSweep, WeightsOutsideTheLinearRangeTakeTheRuleItself) {
    Model M = loopy(4, 31, 1.0, {2, 3}, 3);
    LogDomainLBP<unsigned, double> ref(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    QZ::LBP<unsigned, double> lin(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    configure(lin, ref, -1, 7);
    // A spread of more than 180 within one block, an infinite weight, and a
    // NaN: the results are those of the rule, bit for bit.
    for (double bad : {-400.0, std::numeric_limits<double>::infinity(), std::nan("")}) {
        M.w[5] = bad;
        for (unsigned mode : {0u, 1u}) {
            lin.infer(mode);
            ref.infer(mode);
            expectSameBits(state(lin, M), state(ref, M));
        }
    }
    // Kept messages far out of range: the continued run is the rule's too.
    // A column of -3000 makes the message into its vertex hold about -708.
    const std::vector<double> saved = M.w;
    const unsigned Yt = M.Y[M.edges[0].second];
    for (unsigned x = 0; x < M.Y[M.edges[0].first]; ++x) M.w[x * Yt + 1] = -3000.0;
    lin.infer(0);
    ref.infer(0);
    ASSERT_LT(lin.messages(0, false)[1], -700);
    M.w = saved;
    lin.setParameters(M.w.data());
    ref.setParameters(M.w.data());
    lin.infer_continue(0);
    ref.infer_continue(0);
    expectSameBits(state(lin, M), state(ref, M));
}

TEST(LinearSweep, VertexWithoutStatesTakesTheRule) {
    Model M = loopy(3, 41, 1.0, {2}, 0);
    M.Y[4] = 0;  // the centre: four empty blocks
    M.w.clear();
    for (const auto& e : M.edges)
        for (size_t i = 0; i < (size_t)M.Y[e.first] * M.Y[e.second]; ++i) M.w.push_back(0.1 * (double)(i + e.first));
    LogDomainLBP<unsigned, double> ref(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    QZ::LBP<unsigned, double> lin(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
    configure(lin, ref, -1, 4);
    lin.infer(0);
    ref.infer(0);
    expectSameBits(state(lin, M), state(ref, M));
}

TEST(LinearSweep, FloatMatchesItsLogDomainRule) {
    Model M = loopy(6, 51, 1.5, {2, 3, 4}, 5);
    std::vector<float> wf(M.w.begin(), M.w.end());
    QZ::LBP<unsigned, float> lin(M.G.get(), M.Y.data(), nullptr, wf.data(), false);
    LogDomainLBP<unsigned, float> ref(M.G.get(), M.Y.data(), nullptr, wf.data(), false);
    configure(lin, ref, -1, 30);
    for (unsigned mode : {0u, 1u}) {
        lin.infer(mode);
        ref.infer(mode);
        EXPECT_NEAR(lin.A(), ref.A(), 1e-4f * std::fabs(ref.A()));
        for (unsigned e = 0; e < M.edges.size(); ++e)
            for (unsigned y = 0; y < M.Y[M.edges[e].second]; ++y)
                EXPECT_NEAR(lin.messages(e, false)[y], ref.messages(e, false)[y], 2e-5f);
    }
    // A float block may spread 15 at most: beyond, the rule itself.
    wf[0] = 40;
    lin.infer(0);
    ref.infer(0);
    EXPECT_EQ(lin.A(), ref.A());
}

TEST(LinearSweep, OneAndTwoThreadsGiveTheSameBits) {
    // Large enough that two threads share the sweeps.
    Model M = loopy(80, 61, 1.0, {2, 3}, 50);
    const int saved = omp_get_max_threads();
    for (bool linear : {true, false}) {
        if (!linear) M.w[0] = 500;  // the log-domain sweeps
        std::vector<State> runs;
        for (int threads : {1, 2}) {
            omp_set_num_threads(threads);
            QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, M.w.data(), false);
            bp.setEpsilon(-1);
            bp.setMaxIter(6);
            bp.observe(17, 1.0);
            bp.infer(0);
            runs.push_back(state(bp, M));
            bp.infer(1);
            runs.push_back(state(bp, M));
        }
        SCOPED_TRACE(linear ? "linear" : "log domain");
        expectSameBits(runs[0], runs[2]);
        expectSameBits(runs[1], runs[3]);
    }
    omp_set_num_threads(saved);
}
