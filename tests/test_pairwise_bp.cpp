// The message-passing engine: message store, message rule, synchronous
// schedule, convergence test and modes.
#include <gtest/gtest.h>
#include <qz_bp_util.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/bp/pairwise>
#include <QZ/bp/loopy>
#include <QZ/bp/bitlength>
#include <QZ/inf/base>

#include <omp.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <qz_count_new.h>

namespace {

using qztest::makeGraph;

using qztest::CountingLBP;

// The engine with marginals of no meaning and without edge normalization or
// message normalization, for driving the schedule and the message rule.
template <typename idx_t, typename val_t> class BareBP : public QZ::PairwiseBP<idx_t, val_t> {
public:
    BareBP(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, val_t* w, bool ts)
        : QZ::PairwiseBP<idx_t, val_t>(G, Y, nullptr, w, ts) {}
    void vertex_marginal(const idx_t&, const idx_t&, val_t& q, val_t& Z) const override {
        q = 0;
        Z = 1;
    }
    void edge_marginal(const idx_t&, const idx_t&, const idx_t&, val_t& psi, val_t& Z) const override {
        psi = 0;
        Z = 1;
    }

protected:
    void compute_edge_normalization() override {}
    void post_process() override {}
};

// Plain maps, so that message entries can be compared with the rule itself.
template <typename idx_t, typename val_t> class RawBP : public BareBP<idx_t, val_t> {
public:
    RawBP(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, val_t* w) : BareBP<idx_t, val_t>(G, Y, w, true) {}
    // One entry of one message, into the current copy.
    void single(const idx_t& e, const idx_t& y, bool rev, bool max) {
        if (rev) max ? this->template compute_message<true, true>(e, y) : this->template compute_message<true, false>(e, y);
        else max ? this->template compute_message<false, true>(e, y) : this->template compute_message<false, false>(e, y);
    }
    void setMessage(const idx_t& e, bool rev, const idx_t& y, const val_t& v) {
        this->M[this->offsets[2 * (size_t)e + (rev ? 1 : 0)] + y] = v;
    }

protected:
    val_t A_local() const override { return 0; }
    val_t map_logarithm(const val_t& m) const override { return std::log(m); }
    val_t map_exponential(const val_t& m) const override { return std::exp(m); }
    val_t map_other(const val_t& x, const val_t&) const override { return x; }
};

// An integer engine whose accumulation keeps the largest term, one
// accumulator per thread.
template <typename T> class MaxIntBP : public BareBP<T, T> {
public:
    mutable std::vector<T> acc;
    int sweeps = 0;
    MaxIntBP(const QZ::AbstractGraph<T>* G, const T* Y, T* w)
        : BareBP<T, T>(G, Y, w, false), acc(omp_get_max_threads() + 1, 0) {}
    T lp(const T& v, const T& x) const { return this->get_log_prod(v, x, (T)-1, 0); }

protected:
    void post_process() override {
#pragma omp master
        ++sweeps;
    }
    T A_local() const override { return 7; }
    T map_logarithm(const T& m) const override { return m; }
    T map_exponential(const T& m) const override { return m; }
    T map_other(const T& x, const T& z) const override {
        T& a = acc[omp_get_thread_num()];
        if (z != 0) a = 0;
        if (a < x) a = x;
        return a;
    }
};

template <typename E> std::vector<double> allMessages(const E& bp, size_t m) {
    std::vector<double> r;
    const auto* G = bp.graph();
    for (size_t e = 0; e < m; ++e) {
        auto s = decltype(G->vertices())(0), t = s;
        G->edge(e, s, t);
        for (size_t y = 0; y < bp.stateSpace(t); ++y) r.push_back(bp.messages(e, false)[y]);
        for (size_t x = 0; x < bp.stateSpace(s); ++x) r.push_back(bp.messages(e, true)[x]);
    }
    return r;
}

std::vector<std::pair<size_t, size_t>> gridEdges(size_t L) {
    std::vector<std::pair<size_t, size_t>> el;
    for (size_t v = 0; v < L * L; ++v) {
        if (v + L < L * L) el.push_back({v, v + L});
        if (v % L != L - 1) el.push_back({v, v + 1});
    }
    return el;
}

void randomWeights(double* w, size_t d, unsigned seed, double scale) {
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(-scale, scale);
    for (size_t i = 0; i < d; ++i) w[i] = U(g);
}

// Loopy belief propagation that counts the calls of its two maps.
class MapCountingLBP : public QZ::LBP<unsigned int, double> {
public:
    mutable std::atomic<long> exps{0}, logs{0};
    MapCountingLBP(const QZ::AbstractGraph<unsigned int>* G, const unsigned int* Y, double* w)
        : QZ::LBP<unsigned int, double>(G, Y, nullptr, w, false) {}

protected:
    double map_exponential(const double& m) const override {
        exps.fetch_add(1);
        return QZ::LBP<unsigned int, double>::map_exponential(m);
    }
    double map_logarithm(const double& m) const override {
        logs.fetch_add(1);
        return QZ::LBP<unsigned int, double>::map_logarithm(m);
    }
};

}  // namespace

// ---------------------------------------------------------------- store

TEST(PairwiseBP, MessageBlocksFollowEdgeOrderBothDirections) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 1}});
    unsigned int Y[] = {2, 3, 4};
    RawBP<unsigned int, double> bp(G.get(), Y, nullptr);
    // Edge 0: 0 -> 1 (3 entries), 1 -> 0 (2); edge 1: 2 -> 1 (3), 1 -> 2 (4).
    const double* base = bp.messages(0, false);
    EXPECT_EQ(bp.messages(0, true) - base, 3);
    EXPECT_EQ(bp.messages(1, false) - base, 5);
    EXPECT_EQ(bp.messages(1, true) - base, 8);
    EXPECT_EQ(bp.message_entries(), 12u);
    EXPECT_EQ(bp.off_messages(0, false) - base, 12);
    EXPECT_EQ(bp.off_messages(1, true) - base, 12 + 8);
    EXPECT_EQ(bp.getMaxIter(), 2u);  // the number of edges
    EXPECT_TRUE(bp.tree());
}

namespace {

// The message error of an engine built from G and Y, or "" when it is built.
template <typename E, typename idx_t> std::string refusal(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y) {
    try {
        E bp(G, Y, nullptr, nullptr, false);
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "";
}

qztest::EdgeList complete(size_t n) {
    qztest::EdgeList el;
    for (size_t s = 0; s < n; ++s)
        for (size_t t = s + 1; t < n; ++t) el.push_back({s, t});
    return el;
}

qztest::EdgeList chain(size_t n) {
    qztest::EdgeList el;
    for (size_t v = 0; v + 1 < n; ++v) el.push_back({v, v + 1});
    return el;
}

}  // namespace

TEST(PairwiseBP, MessagesThatTheIndexTypeCannotCountAreRefused) {
    // The complete graph on 9 binary vertices: its 36 edges of 4 weights
    // (144) fit 8 bits, but the two copies of the messages, 2 entries each way
    // of an edge, hold 2 * 36 * (2 + 2) = 288 entries, which wrap to 32.
    auto K9 = makeGraph<unsigned char>(9, complete(9));
    const std::vector<unsigned char> Y(40, 2);
    ASSERT_EQ(QZ::calcDim<unsigned char>(K9.get(), Y.data()), 144);
    const std::string msg = "too many message entries for idx_t of 8 bits";
    EXPECT_EQ((refusal<QZ::LBP<unsigned char, double>>(K9.get(), Y.data())), msg);
    EXPECT_EQ((refusal<QZ::LBP<unsigned char, float>>(K9.get(), Y.data())), msg);
    EXPECT_EQ((refusal<QZ::BitLengthBP<unsigned char>>(K9.get(), Y.data())), msg);

    // A binary chain holds 8 entries an edge in the two copies: 31 edges fill
    // 248 of the 255 entries that 8 bits count, 32 edges would need 256.
    auto C32 = makeGraph<unsigned char>(32, chain(32));
    RawBP<unsigned char, double> fits(C32.get(), Y.data(), nullptr);
    EXPECT_EQ((size_t)fits.message_entries(), 124u);  // one copy
    auto C33 = makeGraph<unsigned char>(33, chain(33));
    EXPECT_EQ((refusal<QZ::LBP<unsigned char, double>>(C33.get(), Y.data())), msg);

    // 16 bits: 8193 binary vertices in a chain have 32768 weights, but
    // 8 * 8192 = 65536 message entries.
    auto C8193 = makeGraph<unsigned short>(8193, chain(8193));
    const std::vector<unsigned short> Y16(8193, 2);
    EXPECT_EQ((refusal<QZ::LBP<unsigned short, double>>(C8193.get(), Y16.data())),
              "too many message entries for idx_t of 16 bits");
    auto C8192 = makeGraph<unsigned short>(8192, chain(8192));
    EXPECT_EQ((refusal<QZ::LBP<unsigned short, double>>(C8192.get(), Y16.data())), "");

    // Vertices without edges send nothing, but their states are counted in
    // the log products all the same: 200 + 100 states.
    auto two = makeGraph<unsigned char>(2, {});
    const unsigned char wide[] = {200, 100};
    EXPECT_EQ((refusal<QZ::LBP<unsigned char, double>>(two.get(), wide)), "too many states for idx_t of 8 bits");
    // Weights are counted first, as the model counts them.
    auto pair = makeGraph<unsigned char>(2, {{0, 1}});
    EXPECT_EQ((refusal<QZ::LBP<unsigned char, double>>(pair.get(), wide)), "too many weights for idx_t of 8 bits");
}

TEST(PairwiseBP, DefaultEpsilonPerValueType) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    RawBP<unsigned int, double> d(G.get(), Y, nullptr);
    EXPECT_EQ(d.getEpsilon(), 1e-6);
    RawBP<unsigned int, float> f(G.get(), Y, nullptr);
    EXPECT_EQ(f.getEpsilon(), 1e-6f);
    MaxIntBP<unsigned int> i(G.get(), Y, nullptr);
    EXPECT_EQ(i.getEpsilon(), 0u);
    d.setEpsilon(0.5);
    EXPECT_EQ(d.getEpsilon(), 0.5);
}

// ---------------------------------------------------------------- schedule

TEST(PairwiseBP, GraphWithoutEdgesRunsEmptySweeps) {
    auto G = makeGraph<unsigned int>(3, {});
    unsigned int Y[] = {2, 3, 2};
    CountingLBP<unsigned int, double> bp(G.get(), Y, nullptr);
    EXPECT_EQ(bp.message_entries(), 0u);
    bp.setEpsilon(-1);
    bp.setMaxIter(5);
    bp.infer(0);
    EXPECT_EQ(bp.sweeps, 5);
    for (unsigned int v = 0; v < 3; ++v)
        for (unsigned int x = 0; x < Y[v]; ++x) EXPECT_EQ(bp.log_product(v)[x], 0.0);
    // With a threshold the largest change b = 0 ends the run after one sweep.
    bp.sweeps = 0;
    bp.setEpsilon(1e-6);
    bp.infer(0);
    EXPECT_EQ(bp.sweeps, 1);
    for (unsigned int v = 0; v < 3; ++v)
        for (unsigned int x = 0; x < Y[v]; ++x) EXPECT_EQ(bp.log_product(v)[x], 0.0);
}

TEST(PairwiseBP, FixedSweepCountWithEpsilonMinusOne) {
    auto G = makeGraph<unsigned int>(4, {{0, 1}, {1, 2}, {1, 3}});
    unsigned int Y[] = {2, 3, 2, 4};
    std::vector<double> w(6 + 6 + 12);
    randomWeights(w.data(), w.size(), 1, 1.0);
    CountingLBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.setMaxIter(100);
    bp.infer(0);
    const int converged = bp.sweeps;
    EXPECT_LT(converged, 10);
    bp.sweeps = 0;
    bp.setEpsilon(-1);
    bp.setMaxIter(5);
    bp.infer(0);
    EXPECT_EQ(bp.sweeps, 5);
    bp.sweeps = 0;
    bp.setMaxIter(40);
    bp.infer(0);
    EXPECT_EQ(bp.sweeps, 40);
}

TEST(PairwiseBP, ZeroIterationsSendNoMessageButNormalizeEdges) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    std::vector<double> w = {0.1, 0.2, 0.3, 0.4};
    CountingLBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.setMaxIter(0);
    bp.infer(0);
    EXPECT_EQ(bp.sweeps, 0);
    for (double m : allMessages(bp, 1)) EXPECT_EQ(m, 0.0);
    EXPECT_DOUBLE_EQ(bp.get_edge_c(0), 0.25);
}

TEST(PairwiseBP, ModesTwoAndSevenAreMaxProductAndTenLeavesMessages) {
    auto G = makeGraph<unsigned int>(5, {{0, 1}, {1, 2}, {3, 1}, {3, 4}});
    unsigned int Y[] = {2, 3, 4, 2, 3};
    std::vector<double> w(6 + 12 + 6 + 6);
    randomWeights(w.data(), w.size(), 2, 2.0);
    QZ::LBP<unsigned int, double> bp(G.get(), Y, nullptr, w.data(), false);
    bp.setMaxIter(50);
    bp.infer(1);
    const auto maxMsgs = allMessages(bp, 4);
    bp.infer(0);
    const auto sumMsgs = allMessages(bp, 4);
    EXPECT_NE(maxMsgs, sumMsgs);
    bp.infer(2);
    EXPECT_EQ(allMessages(bp, 4), maxMsgs);
    bp.infer(7);
    EXPECT_EQ(allMessages(bp, 4), maxMsgs);
    const double Amax = bp.A();
    bp.infer(10);
    EXPECT_EQ(allMessages(bp, 4), maxMsgs);
    EXPECT_NE(bp.A(), Amax);
    // The value of the enumeration.
    QZ::LBP<unsigned int, double> slow(G.get(), Y, nullptr, w.data(), false);
    slow.infer_slow(0);
    EXPECT_DOUBLE_EQ(bp.A(), slow.A());
}

TEST(PairwiseBP, SecondInferRestartsFromZeroMessagesContinueFromKeptOnes) {
    auto G = makeGraph<unsigned int>(64, gridEdges(8));
    const size_t m = gridEdges(8).size();
    std::vector<unsigned int> Y(64, 2);
    std::vector<double> w(4 * m);
    randomWeights(w.data(), w.size(), 3, 0.6);
    CountingLBP<unsigned int, double> bp(G.get(), Y.data(), w.data());
    bp.setEpsilon(1e-9);
    bp.setMaxIter(1000);
    bp.infer(0);
    const int first = bp.sweeps;
    const auto msgs = allMessages(bp, m);
    ASSERT_LT(first, 1000);
    ASSERT_GT(first, 5);
    bp.sweeps = 0;
    bp.infer(0);
    EXPECT_EQ(bp.sweeps, first);
    EXPECT_EQ(allMessages(bp, m), msgs);
    // A continued run converges to the same fixed point.
    bp.infer_continue(0);
    const auto cont = allMessages(bp, m);
    for (size_t i = 0; i < cont.size(); ++i) EXPECT_NEAR(cont[i], msgs[i], 1e-7);
    // One sweep from the kept messages is not one sweep from zero.
    bp.setMaxIter(1);
    bp.infer(0);
    const auto oneFresh = allMessages(bp, m);
    bp.setMaxIter(1000);
    bp.infer(0);
    bp.setMaxIter(1);
    bp.infer_continue(0);
    EXPECT_NE(allMessages(bp, m), oneFresh);
    bp.setMaxIter(1000);
    bp.infer_continue(0);
    // With no sweep at all, a continued run still holds the messages and a
    // fresh run has zeroed them.
    const auto held = allMessages(bp, m);
    bp.setMaxIter(0);
    bp.infer_continue(0);
    EXPECT_EQ(allMessages(bp, m), held);
    bp.infer(0);
    for (double x : allMessages(bp, m)) EXPECT_EQ(x, 0.0);
}

TEST(PairwiseBP, ContinueZeroesLogProductsBeforeTheFirstSweep) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    unsigned int Y[] = {2, 2, 2};
    std::vector<double> w = {0.5, -0.5, 0.25, 1.0, -1.0, 0.0, 0.75, 0.5};
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.setEpsilon(-1);
    bp.setMaxIter(10);
    bp.infer(0);
    const double rev[2] = {bp.messages(0, true)[0], bp.messages(0, true)[1]};
    bp.setMaxIter(1);
    bp.infer_continue(0);
    // Message 0 -> 1 reads the product 0 at the leaf 0 minus the kept
    // reverse message 1 -> 0.
    for (unsigned int y = 0; y < 2; ++y) {
        const double expect = std::log(std::exp(-rev[0] + w[0 * 2 + y]) + std::exp(-rev[1] + w[1 * 2 + y]));
        EXPECT_NEAR(bp.messages(0, false)[y], expect, 1e-12);
    }
    // A fresh single sweep reads products and messages of 0.
    bp.infer(0);
    for (unsigned int y = 0; y < 2; ++y)
        EXPECT_NEAR(bp.messages(0, false)[y], std::log(std::exp(w[y]) + std::exp(w[2 + y])), 1e-12);
}

TEST(PairwiseBP, SweepIsJacobiWhateverTheThreadCount) {
    auto G = makeGraph<unsigned int>(49, gridEdges(7));
    std::vector<unsigned int> Y(49);
    for (size_t v = 0; v < 49; ++v) Y[v] = 2 + v % 3;
    const auto el = gridEdges(7);
    size_t d = 0;
    for (auto& e : el) d += Y[e.first] * Y[e.second];
    std::vector<double> w(d);
    randomWeights(w.data(), d, 4, 1.0);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    QZ::LBP<unsigned int, double> one(G.get(), Y.data(), nullptr, w.data(), false);
    one.setEpsilon(-1);
    one.setMaxIter(15);
    one.infer(0);
    omp_set_num_threads(2);
    QZ::LBP<unsigned int, double> two(G.get(), Y.data(), nullptr, w.data(), false);
    two.setEpsilon(-1);
    two.setMaxIter(15);
    two.infer(0);
    omp_set_num_threads(saved);
    EXPECT_EQ(allMessages(one, el.size()), allMessages(two, el.size()));
    EXPECT_NEAR(one.A(), two.A(), 1e-9 * std::fabs(one.A()));
}

TEST(PairwiseBP, ContinueWithModeTenIsMaxProduct) {
    auto G = makeGraph<unsigned int>(5, {{0, 1}, {1, 2}, {3, 1}, {3, 4}});
    unsigned int Y[] = {2, 3, 4, 2, 3};
    std::vector<double> w(6 + 12 + 6 + 6);
    randomWeights(w.data(), w.size(), 12, 2.0);
    QZ::LBP<unsigned int, double> a(G.get(), Y, nullptr, w.data(), false), b(G.get(), Y, nullptr, w.data(), false);
    a.setMaxIter(30);
    b.setMaxIter(30);
    a.infer(0);
    b.infer(0);
    a.infer_continue(10);
    b.infer_continue(1);
    EXPECT_EQ(allMessages(a, 4), allMessages(b, 4));
    EXPECT_EQ(a.A(), b.A());
    // No enumeration took place: the statistics are still marked empty.
    EXPECT_EQ(a.raw_mu_samples()[0], -1.0);
}

TEST(PairwiseBP, ConvergenceTestIsLargestLinearChangeAgainstEpsilon) {
    auto G = makeGraph<unsigned int>(25, gridEdges(5));
    const auto el = gridEdges(5);
    std::vector<unsigned int> Y(25);
    for (size_t v = 0; v < 25; ++v) Y[v] = 2 + v % 2;
    size_t d = 0;
    for (auto& e : el) d += Y[e.first] * Y[e.second];
    std::vector<double> w(d);
    randomWeights(w.data(), d, 21, 1.0);
    QZ::LBP<unsigned int, double> bp(G.get(), Y.data(), nullptr, w.data(), false);
    bp.setEpsilon(-1);
    // b after sweep k: the largest |exp(new) - exp(old)| over all entries of
    // the normalized messages of sweeps k and k-1.
    std::vector<std::vector<double>> msgs;
    for (unsigned int k = 0; k <= 12; ++k) {
        bp.setMaxIter(k);
        bp.infer(0);
        msgs.push_back(allMessages(bp, el.size()));
    }
    std::vector<double> b(13, 0.0);
    for (size_t k = 1; k <= 12; ++k)
        for (size_t i = 0; i < msgs[k].size(); ++i)
            b[k] = std::max(b[k], std::fabs(std::exp(msgs[k][i]) - std::exp(msgs[k - 1][i])));
    // The last sweep k whose change is below all earlier ones: a threshold
    // equal to b[k] ends the run there, one just below it does not.
    size_t k = 0;
    for (size_t j = 2; j <= 12; ++j) {
        bool lowest = b[j] > 0;
        for (size_t i = 1; i < j; ++i) lowest = lowest && b[j] < b[i];
        if (lowest && j < 12 && b[j + 1] < b[j]) k = j;
    }
    ASSERT_GT(k, 1u);
    bp.setMaxIter(100);
    bp.setEpsilon(b[k]);
    bp.infer(0);
    EXPECT_EQ(allMessages(bp, el.size()), msgs[k]);
    bp.setEpsilon(std::nextafter(b[k], 0.0));
    bp.infer(0);
    EXPECT_EQ(allMessages(bp, el.size()), msgs[k + 1]);
}

TEST(PairwiseBP, SweepCostIsLinearInEdgesTimesStates) {
    // A star around vertex 0 and a triangle on top: the cost of a message
    // must not grow with the degree of its source.
    auto G = makeGraph<unsigned int>(9, {{0, 1}, {2, 0}, {0, 3}, {0, 4}, {5, 0}, {0, 6}, {0, 7}, {7, 8}, {8, 0}});
    unsigned int Y[] = {3, 2, 4, 2, 3, 2, 4, 2, 3};
    size_t pairs = 0, entries = 0;
    const size_t m = G->edges();
    for (unsigned int e = 0; e < m; ++e) {
        unsigned int s = 0, t = 0;
        G->edge(e, s, t);
        pairs += Y[s] * Y[t];
        entries += Y[s] + Y[t];
    }
    std::vector<double> w(pairs);
    randomWeights(w.data(), pairs, 13, 1.0);
    MapCountingLBP bp(G.get(), Y, w.data());
    bp.setEpsilon(-1);
    auto counts = [&](std::vector<long>& exps, std::vector<long>& logs) {
        for (unsigned int k : {3u, 4u, 9u}) {
            bp.setMaxIter(k);
            bp.exps = 0;
            bp.logs = 0;
            bp.infer(0);
            exps.push_back(bp.exps);
            logs.push_back(bp.logs);
        }
    };
    // Sweeps on linear values call neither map: what a run spends on them
    // does not depend on the number of sweeps.
    std::vector<long> exps, logs;
    counts(exps, logs);
    EXPECT_EQ(exps[1] - exps[0], 0);
    EXPECT_EQ(exps[2] - exps[1], 0);
    EXPECT_EQ(logs[1] - logs[0], 0);
    EXPECT_EQ(logs[2] - logs[1], 0);
    // A weight far beyond the others makes the sweeps take the log domain.
    // Per sweep: one exponential per weight for each direction, one per entry
    // for the normalization and two per entry for the convergence test; one
    // logarithm per entry and one per message.
    w[5] = 1000;
    exps.clear();
    logs.clear();
    counts(exps, logs);
    const long perSweepExp = (long)(2 * pairs + 3 * entries);
    const long perSweepLog = (long)(entries + 2 * m);
    EXPECT_EQ(exps[1] - exps[0], perSweepExp);
    EXPECT_EQ(exps[2] - exps[1], 5 * perSweepExp);
    EXPECT_EQ(logs[1] - logs[0], perSweepLog);
    EXPECT_EQ(logs[2] - logs[1], 5 * perSweepLog);
}

TEST(PairwiseBP, RunAllocatesNothing) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer's allocator stands in for the counting operator new";
#endif
    auto G = makeGraph<unsigned int>(100, gridEdges(10));
    const auto el = gridEdges(10);
    std::vector<unsigned int> Y(100, 3);
    std::vector<double> w(9 * el.size());
    randomWeights(w.data(), w.size(), 14, 1.0);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
    QZ::LBP<unsigned int, double> bp(G.get(), Y.data(), nullptr, w.data(), false);
    bp.setEpsilon(-1);
    bp.setMaxIter(20);
    bp.infer(0);  // the thread team exists from here on
    gNewCalls = 0;
    gCountNew = true;
    bp.infer(0);
    bp.infer(1);
    bp.infer_continue(0);
    gCountNew = false;
    EXPECT_EQ(gNewCalls.load(), 0);
    // The counter does see the engine's own arrays.
    gCountNew = true;
    { QZ::LBP<unsigned int, double> other(G.get(), Y.data(), nullptr, w.data(), false); }
    gCountNew = false;
    EXPECT_GT(gNewCalls.load(), 5);
    omp_set_num_threads(saved);
}

TEST(PairwiseBP, LogProductsAreCentredIncomingSums) {
    auto G = makeGraph<unsigned int>(4, {{0, 1}, {1, 2}, {3, 1}});
    unsigned int Y[] = {2, 3, 2, 3};
    std::vector<double> w(6 + 6 + 9);
    randomWeights(w.data(), w.size(), 5, 1.5);
    QZ::LBP<unsigned int, double> bp(G.get(), Y, nullptr, w.data(), false);
    bp.setMaxIter(30);
    bp.infer(0);
    for (unsigned int v = 0; v < 4; ++v) {
        double C = 0;
        for (unsigned int x = 0; x < Y[v]; ++x) C += bp.compute_log_prod(v, x, (unsigned int)-1);
        C /= Y[v];
        double mean = 0;
        for (unsigned int x = 0; x < Y[v]; ++x) {
            EXPECT_NEAR(bp.log_product(v)[x], bp.compute_log_prod(v, x, (unsigned int)-1) - C, 1e-12);
            EXPECT_EQ(bp.get_log_prod(v, x, 4, 0), bp.log_product(v)[x]);
            mean += bp.log_product(v)[x];
        }
        EXPECT_NEAR(mean, 0.0, 1e-12);
    }
    // Excluding a neighbour subtracts the message that came over its edge.
    // Vertex 1 is the second end of edge 0 and the first end of edge 1.
    for (unsigned int x = 0; x < 3; ++x) {
        EXPECT_DOUBLE_EQ(bp.get_log_prod(1, x, 0, 0), bp.log_product(1)[x] - bp.messages(0, false)[x]);
        EXPECT_DOUBLE_EQ(bp.get_log_prod(1, x, 2, 1), bp.log_product(1)[x] - bp.messages(1, true)[x]);
        // compute_log_prod with an excluded neighbour drops just that message.
        EXPECT_NEAR(bp.compute_log_prod(1, x, 3),
                    bp.compute_log_prod(1, x, (unsigned int)-1) - bp.off_messages(2, false)[x], 1e-12);
    }
}

// ---------------------------------------------------------------- message rule

TEST(PairwiseBP, ObservedSourceSendsTheRowOfItsState) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 1}});
    unsigned int Y[] = {3, 2, 2};
    std::vector<double> w = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6, -1, -2, -3, -4};
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.observe(0, 2.0);
    bp.observe(1, 1.0);
    bp.setEpsilon(-1);
    for (unsigned int iters : {1u, 4u}) {
        bp.setMaxIter(iters);
        bp.infer(0);
        // 0 -> 1 is the row of state 2 of vertex 0, whatever came in.
        EXPECT_EQ(bp.messages(0, false)[0], 0.5);
        EXPECT_EQ(bp.messages(0, false)[1], 0.6);
        // 1 -> 2 (reverse direction of edge (2, 1)) is the column of state 1.
        EXPECT_EQ(bp.messages(1, true)[0], -2.0);
        EXPECT_EQ(bp.messages(1, true)[1], -4.0);
    }
    // The observation of the target does not change the message into it:
    // 2 -> 1 sums over the states of vertex 2 (which gets only 1 -> 2).
    for (unsigned int y = 0; y < 2; ++y) {
        const double inc0 = bp.log_product(2)[0] - bp.messages(1, true)[0];
        const double inc1 = bp.log_product(2)[1] - bp.messages(1, true)[1];
        const double expect = std::log(std::exp(inc0 + w[6 + 0 * 2 + y]) + std::exp(inc1 + w[6 + 1 * 2 + y]));
        EXPECT_NEAR(bp.messages(1, false)[y], expect, 1e-12);
    }
}

TEST(PairwiseBP, SoftObservationInterpolatesRowsInLogDomain) {
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 0}});
    unsigned int Y[] = {2, 3, 3};
    std::vector<double> w = {0.1, 0.2, 0.3, 1.1, 1.2, 1.3, -1, -2, -3, -4, -5, -6};
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.observe(0, 0.25);
    ASSERT_EQ(bp.observed(0), 0.25);
    bp.setMaxIter(3);
    bp.infer(0);
    for (unsigned int y = 0; y < 3; ++y)
        EXPECT_NEAR(bp.messages(0, false)[y], 0.75 * w[y] + 0.25 * w[3 + y], 1e-15);
    // As the second end of edge (2, 0): entries y * Y[0] and y * Y[0] + 1.
    for (unsigned int y = 0; y < 3; ++y)
        EXPECT_NEAR(bp.messages(1, true)[y], 0.75 * w[6 + y * 2] + 0.25 * w[6 + y * 2 + 1], 1e-15);
}

TEST(PairwiseBP, NegativeObservationMeansUnobservedToMessages) {
    // -2.0 is stored by observe (the plain conversion gives 0), but the
    // signed conversion makes it a huge index: the vertex sends sums.
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    std::vector<double> w = {0.3, -0.2, 0.9, 0.1};
    RawBP<unsigned int, double> a(G.get(), Y, w.data()), b(G.get(), Y, w.data());
    a.observe(0, -2.0);
    ASSERT_EQ(a.observed(0), -2.0);
    a.infer(0);
    b.infer(0);
    EXPECT_EQ(allMessages(a, 1), allMessages(b, 1));
    // The conditional of vertex 1, in contrast, reads vertex 0 as state 0.
    double psi = 0;
    a.fast_unnormalized_conditional_vertex_marginal(1, 1, psi, 0);
    EXPECT_NEAR(psi, std::exp(w[1]), 1e-15);
}

TEST(PairwiseBP, VanishingExponentialsGiveLogOfSmallestNormal) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 3};
    std::vector<double> w(6, -1e5);
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.infer(0);
    const double lmin = std::log(std::numeric_limits<double>::min());
    for (double m : allMessages(bp, 1)) EXPECT_EQ(m, lmin);
    EXPECT_FALSE(std::isinf(lmin));

    std::vector<float> wf(6, -1e5f);
    RawBP<unsigned int, float> bf(G.get(), Y, wf.data());
    bf.infer(0);
    for (unsigned int y = 0; y < 3; ++y) EXPECT_EQ(bf.messages(0, false)[y], std::log(std::numeric_limits<float>::min()));
}

TEST(PairwiseBP, NaNSumGivesLogOfSmallestNormalAndMaxSkipsNaN) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    std::vector<double> w = {std::nan(""), 0.5, -0.25, 0.75};
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.setMaxIter(1);
    bp.infer(0);
    const double lmin = std::log(std::numeric_limits<double>::min());
    // 0 -> 1 at state 0 and 1 -> 0 at state 0 both meet the NaN weight.
    EXPECT_EQ(bp.messages(0, false)[0], lmin);
    EXPECT_EQ(bp.messages(0, true)[0], lmin);
    EXPECT_NEAR(bp.messages(0, false)[1], std::log(std::exp(0.5) + std::exp(0.75)), 1e-12);
    // Max-product keeps the larger of the numbers.
    bp.infer(1);
    EXPECT_EQ(bp.messages(0, false)[0], -0.25);
    EXPECT_EQ(bp.messages(0, true)[0], 0.5);
}

TEST(PairwiseBP, OverflowingSumIsReplacedByLargestValue) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    std::vector<double> w(4, 1e5);
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.setMaxIter(1);
    bp.infer(0);
    for (double m : allMessages(bp, 1)) EXPECT_EQ(m, std::numeric_limits<double>::max());
    // Max-product never exponentiates: the largest term stays.
    bp.infer(1);
    for (double m : allMessages(bp, 1)) EXPECT_EQ(m, 1e5);
    w[0] = std::numeric_limits<double>::infinity();
    bp.infer(1);
    EXPECT_EQ(bp.messages(0, false)[0], std::numeric_limits<double>::max());
    EXPECT_EQ(bp.messages(0, false)[1], 1e5);
}

TEST(PairwiseBP, MaxProductTakesLargestTermAndSumProductLogSumExp) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {3, 2};
    std::vector<double> w = {0.5, -1.0, 2.0, 0.25, -0.5, 1.5};
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.setMaxIter(1);
    bp.infer(1);
    EXPECT_EQ(bp.messages(0, false)[0], 2.0);
    EXPECT_EQ(bp.messages(0, false)[1], 1.5);
    EXPECT_EQ(bp.messages(0, true)[0], 0.5);
    EXPECT_EQ(bp.messages(0, true)[2], 1.5);
    bp.infer(0);
    EXPECT_NEAR(bp.messages(0, false)[1], std::log(std::exp(-1.0) + std::exp(0.25) + std::exp(1.5)), 1e-12);
    EXPECT_NEAR(bp.messages(0, true)[1], std::log(std::exp(2.0) + std::exp(0.25)), 1e-12);
}

TEST(PairwiseBP, SingleEntryRuleMatchesTheSweep) {
    auto G = makeGraph<unsigned int>(4, {{0, 1}, {2, 1}, {1, 3}});
    unsigned int Y[] = {2, 3, 4, 2};
    std::vector<double> w(6 + 12 + 6);
    randomWeights(w.data(), w.size(), 9, 1.0);
    RawBP<unsigned int, double> bp(G.get(), Y, w.data());
    bp.setEpsilon(-1);
    for (bool max : {false, true}) {
        bp.setMaxIter(3);
        bp.infer(max ? 1 : 0);
        // After the run both copies agree; recomputing one entry from them
        // is one more sweep's value for that entry.
        bp.setMaxIter(4);
        RawBP<unsigned int, double> ref(G.get(), Y, w.data());
        ref.setEpsilon(-1);
        ref.setMaxIter(4);
        ref.infer(max ? 1 : 0);
        for (unsigned int e = 0; e < 3; ++e) {
            unsigned int s = 0, t = 0;
            G->edge(e, s, t);
            for (unsigned int y = 0; y < Y[t]; ++y) {
                bp.setMessage(e, false, y, 1234.5);
                bp.single(e, y, false, max);
                EXPECT_NEAR(bp.messages(e, false)[y], ref.messages(e, false)[y], 1e-12);
            }
            for (unsigned int x = 0; x < Y[s]; ++x) {
                bp.setMessage(e, true, x, 1234.5);
                bp.single(e, x, true, max);
                EXPECT_NEAR(bp.messages(e, true)[x], ref.messages(e, true)[x], 1e-12);
            }
        }
    }
}

// ---------------------------------------------------------------- integer values

template <typename T> class IntegerBP : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IntTypes;
TYPED_TEST_SUITE(IntegerBP, IntTypes);

TYPED_TEST(IntegerBP, AccumulationThroughHookAndUncentredProducts) {
    typedef TypeParam T;
    auto G = makeGraph<T>(4, {{0, 1}, {1, 2}, {1, 3}});
    T Y[] = {2, 3, 2, 2};
    std::vector<T> w(6 + 6 + 6);
    for (size_t i = 0; i < w.size(); ++i) w[i] = (T)((i * 7) % 5);
    MaxIntBP<T> bp(G.get(), Y, w.data());
    bp.setMaxIter(6);
    bp.infer(1);
    std::vector<T> maxMsgs;
    for (T e = 0; e < 3; ++e)
        for (T k = 0; k < 5; ++k) maxMsgs.push_back(bp.messages(e, false)[k]);
    bp.infer(0);
    std::vector<T> sumMsgs;
    for (T e = 0; e < 3; ++e)
        for (T k = 0; k < 5; ++k) sumMsgs.push_back(bp.messages(e, false)[k]);
    // The hook keeps the largest term, so both rules agree.
    EXPECT_EQ(sumMsgs, maxMsgs);
    EXPECT_EQ(bp.A(), (T)7);
    // No centring: the product is the plain sum of incoming messages.
    for (T v = 0; v < 4; ++v)
        for (T x = 0; x < Y[v]; ++x) EXPECT_EQ(bp.lp(v, x), bp.compute_log_prod(v, x, (T)-1));
    // A leaf's outgoing message is the largest weight of each column.
    for (T y = 0; y < 3; ++y) EXPECT_EQ(bp.messages(0, false)[y], std::max(w[y], w[3 + y]));
    // An observed vertex sends its row; the marker means unobserved.
    bp.observe(0, 1);
    bp.infer(0);
    for (T y = 0; y < 3; ++y) EXPECT_EQ(bp.messages(0, false)[y], w[3 + y]);
    bp.observe(0, (T)-1);
    EXPECT_EQ(bp.observed(0), (T)-1);
    bp.infer(10);
    EXPECT_EQ(bp.raw_mu_samples()[0], (T)1);
}

TYPED_TEST(IntegerBP, AllOnesThresholdMeansFixedSweepsAndZeroStopsWhenUnchanged) {
    typedef TypeParam T;
    auto G = makeGraph<T>(4, {{0, 1}, {1, 2}, {2, 3}});
    T Y[] = {2, 3, 2, 2};
    std::vector<T> w(6 + 6 + 4);
    for (size_t i = 0; i < w.size(); ++i) w[i] = (T)((i * 5) % 7);
    MaxIntBP<T> bp(G.get(), Y, w.data());
    bp.setMaxIter(50);
    // Threshold 0: the run ends after the first sweep that changes nothing,
    // which on a chain of three edges comes after a few sweeps.
    bp.infer(0);
    EXPECT_GT(bp.sweeps, 1);
    EXPECT_LT(bp.sweeps, 8);
    bp.sweeps = 0;
    bp.setEpsilon((T)-1);
    bp.setMaxIter(5);
    bp.infer(0);
    EXPECT_EQ(bp.sweeps, 5);
}
