// Belief propagation in bit lengths: the accumulation of exact sums of powers
// of two, the normalization of the messages, the marginals scaled to fit the
// index type, and the fixed point on trees against sums formed here from the
// definition of a message.
#include <gtest/gtest.h>
#include <qz_count_new.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/bp/bitlength>
#include <QZ/QZINT>

#include <omp.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <utility>
#include <vector>


namespace {

using qztest::EdgeList;
using qztest::makeGraph;

// The engine with its hooks reachable from the tests.
template <typename idx_t> class Probe : public QZ::BitLengthBP<idx_t> {
public:
    Probe(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, idx_t* w)
        : QZ::BitLengthBP<idx_t>(G, Y, nullptr, w, false) {}
    idx_t other(const idx_t& b, const idx_t& reset) const { return this->map_other(b, reset); }
    idx_t lg(const idx_t& m) const { return this->map_logarithm(m); }
    idx_t ex(const idx_t& m) const { return this->map_exponential(m); }
    idx_t Alocal() const { return this->A_local(); }
    idx_t eps() const { return this->getEpsilon(); }
    idx_t logProd(const idx_t& v, const idx_t& x) const { return this->get_log_prod(v, x, (idx_t)-1, 0); }
    void setMessage(const idx_t& e, bool rev, const idx_t& y, const idx_t& v) {
        this->M[this->offsets[2 * (size_t)e + (rev ? 1 : 0)] + y] = v;
        this->M[this->off + this->offsets[2 * (size_t)e + (rev ? 1 : 0)] + y] = v;
    }
    void setLogProd(const idx_t& v, const idx_t& x, const idx_t& val) { this->log_prods[this->Yoff[v] + x] = val; }
    const QZ::sparse_uint_t<idx_t>& accumulator(int i) const { return this->msgBitData[i]; }
    idx_t mYField() const { return this->mY; }
};

// A tree with random orientation of its edges, state counts and weights.
struct Tree {
    size_t n;
    EdgeList edges;
    std::vector<size_t> Y;
    std::vector<std::vector<uint64_t>> w;  // per edge, Y[s] * Y[t] entries, s the slow index
};

Tree randomTree(size_t n, unsigned seed, size_t maxStates, uint64_t maxWeight, bool withSingleStates) {
    std::mt19937 g(seed);
    Tree T;
    T.n = n;
    for (size_t v = 0; v < n; ++v) {
        std::uniform_int_distribution<size_t> S(withSingleStates ? 1 : 2, maxStates);
        T.Y.push_back(S(g));
    }
    for (size_t v = 1; v < n; ++v) {
        std::uniform_int_distribution<size_t> P(0, v - 1);
        const size_t p = P(g);
        if (g() & 1) T.edges.push_back({p, v});
        else T.edges.push_back({v, p});
    }
    std::uniform_int_distribution<uint64_t> Wd(0, maxWeight);
    for (const auto& e : T.edges) {
        std::vector<uint64_t> b(T.Y[e.first] * T.Y[e.second]);
        for (uint64_t& x : b) x = Wd(g);
        T.w.push_back(b);
    }
    return T;
}

// Directed messages of a tree at the fixed point, from the definition: the
// message from a into b over edge e, for state y of b, is the bit length of
// the exact sum over the states x of a of 2 to the power of the weight of
// (x, y) plus the messages into a from its other neighbours, less the
// smallest such length over y. Computed by recursion from the leaves.
struct Reference {
    const Tree& T;
    bool maxProduct;
    std::map<std::pair<size_t, bool>, std::vector<uint64_t>> memo;  // (edge, from t to s)

    Reference(const Tree& t, bool mx = false) : T(t), maxProduct(mx) {}

    uint64_t weight(size_t e, size_t xs, size_t xt) const { return T.w[e][xs * T.Y[T.edges[e].second] + xt]; }

    // Sum of the messages into v from all neighbours except over edge skip.
    uint64_t incoming(size_t v, size_t x, size_t skip) {
        uint64_t r = 0;
        for (size_t e = 0; e < T.edges.size(); ++e) {
            if (e == skip) continue;
            if (T.edges[e].second == v) r += message(e, false)[x];
            else if (T.edges[e].first == v) r += message(e, true)[x];
        }
        return r;
    }

    const std::vector<uint64_t>& message(size_t e, bool rev) {
        auto key = std::make_pair(e, rev);
        auto it = memo.find(key);
        if (it != memo.end()) return it->second;
        const size_t src = rev ? T.edges[e].second : T.edges[e].first;
        const size_t dst = rev ? T.edges[e].first : T.edges[e].second;
        std::vector<uint64_t> m(T.Y[dst]);
        for (size_t y = 0; y < T.Y[dst]; ++y) {
            QZ::sparse_uint_t<unsigned long> S;
            uint64_t best = 0;
            for (size_t x = 0; x < T.Y[src]; ++x) {
                const uint64_t ex = (rev ? weight(e, y, x) : weight(e, x, y)) + incoming(src, x, e);
                S.p2x(ex);
                if (ex > best) best = ex;
            }
            m[y] = maxProduct ? best : S.bl();
        }
        uint64_t lo = m[0];
        for (uint64_t v : m) lo = std::min(lo, v);
        for (uint64_t& v : m) v -= lo;
        return memo[key] = m;
    }

    // Exact sum over the states of v of 2^(all incoming messages).
    QZ::sparse_uint_t<unsigned long> vertexSum(size_t v) {
        QZ::sparse_uint_t<unsigned long> S;
        for (size_t x = 0; x < T.Y[v]; ++x) S.p2x(incoming(v, x, (size_t)-1));
        return S;
    }

    uint64_t edgeExponent(size_t e, size_t x, size_t y) {
        const size_t s = T.edges[e].first, t = T.edges[e].second;
        return incoming(s, x, e) + weight(e, x, y) + incoming(t, y, e);
    }

    QZ::sparse_uint_t<unsigned long> edgeSum(size_t e) {
        QZ::sparse_uint_t<unsigned long> S;
        for (size_t x = 0; x < T.Y[T.edges[e].first]; ++x)
            for (size_t y = 0; y < T.Y[T.edges[e].second]; ++y) S.p2x(edgeExponent(e, x, y));
        return S;
    }
};

template <typename idx_t> struct Built {
    std::unique_ptr<QZ::Graph<idx_t>> G;
    std::vector<idx_t> Y;
    std::vector<idx_t> w;
    std::unique_ptr<Probe<idx_t>> bp;

    explicit Built(const Tree& T) : G(makeGraph<idx_t>(T.n, T.edges)) {
        for (size_t y : T.Y) Y.push_back((idx_t)y);
        for (const auto& b : T.w)
            for (uint64_t x : b) w.push_back((idx_t)x);
        bp.reset(new Probe<idx_t>(G.get(), Y.data(), w.data()));
    }
};

// Messages, log partition value and, where nothing needs scaling, the
// marginals of the engine against the reference on one tree.
template <typename idx_t> void expectFixedPoint(const Tree& T, int mode) {
    Built<idx_t> B(T);
    B.bp->setMaxIter(200);
    B.bp->infer((idx_t)mode);
    Reference R(T, mode == 1);
    for (size_t e = 0; e < T.edges.size(); ++e) {
        for (int rev = 0; rev < 2; ++rev) {
            const std::vector<uint64_t>& ref = R.message(e, rev == 1);
            const idx_t* got = B.bp->messages((idx_t)e, rev == 1);
            for (size_t y = 0; y < ref.size(); ++y)
                EXPECT_EQ((uint64_t)got[y], ref[y]) << "edge " << e << " rev " << rev << " state " << y;
        }
    }
    if (mode != 0) return;
    EXPECT_EQ((uint64_t)B.bp->A(), (uint64_t)R.vertexSum(0).bl());
    const size_t W = 8 * sizeof(idx_t);
    for (size_t v = 0; v < T.n; ++v) {
        if (T.Y[v] == 1) continue;
        QZ::sparse_uint_t<unsigned long> S = R.vertexSum(v);
        if (S.bl() > W - 8) continue;  // scaled; covered elsewhere
        for (size_t x = 0; x < T.Y[v]; ++x) {
            idx_t q = 0, Z = 0;
            B.bp->vertex_marginal((idx_t)v, (idx_t)x, q, Z);
            EXPECT_EQ((uint64_t)q, 1ull << R.incoming(v, x, (size_t)-1)) << "vertex " << v;
            EXPECT_EQ((uint64_t)Z, S.to_uint64()) << "vertex " << v;
        }
    }
    for (size_t e = 0; e < T.edges.size(); ++e) {
        const size_t Ys = T.Y[T.edges[e].first], Yt = T.Y[T.edges[e].second];
        if (Ys * Yt == 1) continue;
        QZ::sparse_uint_t<unsigned long> S = R.edgeSum(e);
        if (S.bl() > W - 8) continue;
        for (size_t x = 0; x < Ys; ++x)
            for (size_t y = 0; y < Yt; ++y) {
                idx_t q = 0, Z = 0;
                B.bp->edge_marginal((idx_t)e, (idx_t)x, (idx_t)y, q, Z);
                EXPECT_EQ((uint64_t)q, 1ull << R.edgeExponent(e, x, y)) << "edge " << e;
                EXPECT_EQ((uint64_t)Z, S.to_uint64()) << "edge " << e;
            }
    }
}

}  // namespace

// ---------------------------------------------------------------- the hooks

TEST(BitLengthBP, EqualExponentsAddUpToLengthTwoMore) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    Probe<unsigned int> bp(G.get(), Y, nullptr);
    for (unsigned int e : {0u, 1u, 5u, 31u, 40u, 1000u}) {
        EXPECT_EQ(bp.other(e, 1), e + 1) << e;
        // 2^e twice is 2^(e+1), of e + 2 bits.
        EXPECT_EQ(bp.other(e, 0), e + 2) << e;
    }
    // 2^0 alone and the value 0 both have length 1.
    EXPECT_EQ(bp.other(0, 1), 1u);
    EXPECT_EQ(QZ::sparse_uint_t<unsigned int>().bl(), 1u);
}

TEST(BitLengthBP, AccumulationIsAnExactSumUntilReset) {
    auto G = makeGraph<unsigned long>(2, {{0, 1}});
    unsigned long Y[] = {2, 2};
    Probe<unsigned long> bp(G.get(), Y, nullptr);
    // 2^3 + 2^3 + 2^4 + 2^0 = 33: six bits, then 2^5 more makes 65, seven.
    EXPECT_EQ(bp.other(3, 1), 4u);
    EXPECT_EQ(bp.other(3, 0), 5u);
    EXPECT_EQ(bp.other(4, 0), 6u);
    EXPECT_EQ(bp.other(0, 0), 6u);
    EXPECT_EQ(bp.other(5, 0), 7u);
    EXPECT_EQ(bp.accumulator(0).to_uint64(), 65u);
    // Reset starts the sum over.
    EXPECT_EQ(bp.other(2, 7), 3u);
    EXPECT_EQ(bp.accumulator(0).to_uint64(), 4u);
}

template <typename idx_t> void expectExactSums(unsigned seed, unsigned top) {
    auto G = makeGraph<idx_t>(2, {{0, 1}});
    idx_t Y[] = {2, 2};
    Probe<idx_t> bp(G.get(), Y, nullptr);
    std::mt19937 g(seed);
    std::uniform_int_distribution<unsigned> D(0, top);
    for (int run = 0; run < 200; ++run) {
        // Few distinct exponents, so that carries run through several bits.
        QZ::sparse_uint_t<idx_t> want;
        const int terms = 1 + (int)(g() % 12);
        idx_t got = 0;
        for (int i = 0; i < terms; ++i) {
            const idx_t e = (idx_t)D(g);
            want.p2x(e);
            got = bp.other(e, (idx_t)(i == 0));
        }
        EXPECT_EQ(got, want.bl());
        EXPECT_TRUE(*bp.accumulator(0).data() == *want.data()) << "run " << run;
    }
}

TEST(BitLengthBP, AccumulatorsHoldTheExactSumAcrossRestarts) {
    expectExactSums<unsigned char>(1, 6);
    expectExactSums<unsigned short>(2, 40);
    expectExactSums<unsigned int>(3, 5);
    expectExactSums<unsigned long>(4, 100);
}

TEST(BitLengthBP, MapsAreTheIdentityAndDefaultsAreIntegral) {
    auto G = makeGraph<unsigned short>(2, {{0, 1}});
    unsigned short Y[] = {2, 2};
    Probe<unsigned short> bp(G.get(), Y, nullptr);
    for (unsigned short m : {0, 1, 17, 65535}) {
        EXPECT_EQ(bp.lg(m), m);
        EXPECT_EQ(bp.ex(m), m);
    }
    EXPECT_EQ(bp.eps(), 0u);
    EXPECT_EQ(bp.mYField(), 0u);
}

TEST(BitLengthBP, OneAccumulatorPerThreadOfTheTeam) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {2, 2};
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
    Probe<unsigned int> bp(G.get(), Y, nullptr);
    omp_set_num_threads(saved);
#pragma omp parallel num_threads(2)
    {
        const unsigned int t = (unsigned int)omp_get_thread_num();
        bp.other(10 + t, 1);
    }
    EXPECT_EQ(bp.accumulator(0).to_uint64(), 1u << 10);
    EXPECT_EQ(bp.accumulator(1).to_uint64(), 1u << 11);
    // Outside of a region the first one is used.
    bp.other(3, 1);
    EXPECT_EQ(bp.accumulator(0).to_uint64(), 8u);
    EXPECT_EQ(bp.accumulator(1).to_uint64(), 1u << 11);
}

// ---------------------------------------------------------------- sweeps

TEST(BitLengthBP, EveryMessageHasAZeroEntryAfterEachSweep) {
    const Tree T = randomTree(9, 3, 4, 6, false);
    // Grids have loops: the sweeps do not settle early there.
    const EdgeList grid = {{0, 1}, {1, 2}, {3, 4}, {4, 5}, {0, 3}, {1, 4}, {2, 5}};
    Tree L{6, grid, {3, 2, 4, 2, 3, 2}, {}};
    std::mt19937 g(8);
    for (const auto& e : grid) {
        std::vector<uint64_t> b(L.Y[e.first] * L.Y[e.second]);
        for (uint64_t& x : b) x = g() % 9;
        L.w.push_back(b);
    }
    for (const Tree* t : {&T, (const Tree*)&L}) {
        for (unsigned int sweeps = 1; sweeps <= 6; ++sweeps) {
            Built<unsigned int> B(*t);
            B.bp->setEpsilon((unsigned int)-1);
            B.bp->setMaxIter(sweeps);
            B.bp->infer(0);
            for (size_t e = 0; e < t->edges.size(); ++e)
                for (int rev = 0; rev < 2; ++rev) {
                    const size_t k = rev ? t->Y[t->edges[e].first] : t->Y[t->edges[e].second];
                    const unsigned int* m = B.bp->messages((unsigned int)e, rev == 1);
                    unsigned int lo = m[0];
                    for (size_t y = 0; y < k; ++y) lo = std::min(lo, m[y]);
                    EXPECT_EQ(lo, 0u) << "sweeps " << sweeps << " edge " << e;
                }
        }
    }
}

TEST(BitLengthBP, SweepsAllocateNothingOnceTheSumsHaveGrown) {
    // A grid of three-state vertices with weights up to 7, two threads.
    EdgeList grid;
    for (size_t v = 0; v < 64; ++v) {
        if (v + 8 < 64) grid.push_back({v, v + 8});
        if (v % 8 != 7) grid.push_back({v, v + 1});
    }
    auto G = makeGraph<unsigned int>(64, grid);
    std::vector<unsigned int> Y(64, 3);
    std::vector<unsigned int> w(9 * grid.size());
    std::mt19937 g(4);
    for (unsigned int& x : w) x = g() % 8;
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
    QZ::BitLengthBP<unsigned int> bp(G.get(), Y.data(), nullptr, w.data(), false);
    bp.setEpsilon((unsigned int)-1);
    bp.setMaxIter(20);
    bp.infer(0);  // the thread team and the node pools exist from here on
    gNewCalls = 0;
    gCountNew = true;
    bp.infer(0);
    bp.infer(1);
    bp.infer_continue(0);
    gCountNew = false;
    EXPECT_EQ(gNewCalls.load(), 0);
    // The counter does see the engine's own arrays.
    gCountNew = true;
    { QZ::BitLengthBP<unsigned int> other(G.get(), Y.data(), nullptr, w.data(), false); }
    gCountNew = false;
    EXPECT_GT(gNewCalls.load(), 5);
    omp_set_num_threads(saved);
}

TEST(BitLengthBP, LogProductsAreNotCentred) {
    // A star whose leaves all prefer state 1 of the centre: the centre's log
    // products are plain sums of incoming lengths.
    auto G = makeGraph<unsigned int>(4, {{1, 0}, {2, 0}, {3, 0}});
    unsigned int Y[] = {2, 2, 2, 2};
    std::vector<unsigned int> w = {0, 5, 0, 5, 0, 5, 0, 5, 0, 5, 0, 5};
    Probe<unsigned int> bp(G.get(), Y, w.data());
    bp.setMaxIter(10);
    bp.infer(0);
    // Each leaf sends bl(2^0 + 2^0) = 2 and bl(2^5 + 2^5) = 7, less 2.
    EXPECT_EQ(bp.messages(0, false)[0], 0u);
    EXPECT_EQ(bp.messages(0, false)[1], 5u);
    EXPECT_EQ(bp.logProd(0, 0), 0u);
    EXPECT_EQ(bp.logProd(0, 1), 15u);
}

TEST(BitLengthBP, TreesReachTheFixedPointOfTheDefinitionInEveryWidth) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const Tree T = randomTree(2 + seed % 7, seed, 3, 4, true);
        expectFixedPoint<unsigned char>(T, 0);
        expectFixedPoint<unsigned short>(T, 0);
        expectFixedPoint<unsigned int>(T, 0);
        expectFixedPoint<unsigned long>(T, 0);
    }
}

TEST(BitLengthBP, LargerTreesAndWeightsIn64Bits) {
    for (unsigned seed = 20; seed < 26; ++seed) {
        const Tree T = randomTree(12, seed, 4, 30, false);
        expectFixedPoint<unsigned long>(T, 0);
    }
}

TEST(BitLengthBP, MaxProductKeepsTheLargestExponent) {
    for (unsigned seed = 30; seed < 36; ++seed) {
        const Tree T = randomTree(8, seed, 3, 9, true);
        expectFixedPoint<unsigned int>(T, 1);
        expectFixedPoint<unsigned char>(T, 1);
    }
}

TEST(BitLengthBP, SingleEdgeMarginalsAreExact) {
    // With no other neighbours the edge belief is the potential itself.
    const Tree T{2, {{0, 1}}, {2, 3}, {{0, 3, 1, 2, 2, 5}}};
    Built<unsigned long> B(T);
    B.bp->setMaxIter(10);
    B.bp->infer(0);
    const uint64_t total = 1 + 8 + 2 + 4 + 4 + 32;
    for (unsigned long x = 0; x < 2; ++x)
        for (unsigned long y = 0; y < 3; ++y) {
            unsigned long q = 0, Z = 0;
            B.bp->edge_marginal(0, x, y, q, Z);
            EXPECT_EQ(q, 1ul << T.w[0][x * 3 + y]);
            EXPECT_EQ(Z, total);
        }
}

// Reading the entries of one edge after another, in any order, gives the
// normalizer of the edge asked for; a new infer after new weights gives the
// new one. Two edges without neighbours in common: each belief is its
// potential, times the messages of its other end, here none.
TEST(BitLengthBP, EdgeNormalizersFollowTheEdgeAndTheRun) {
    const Tree T{4, {{0, 1}, {2, 3}}, {2, 2, 2, 2}, {{0, 3, 1, 2}, {4, 0, 0, 1}}};
    Built<unsigned long> B(T);
    B.bp->setMaxIter(10);
    B.bp->infer(0);
    auto total = [&](size_t e) {
        uint64_t z = 0;
        for (size_t k = 0; k < 4; ++k) z += 1ull << B.w[4 * e + k];
        return z;
    };
    auto check = [&](int round, unsigned long e, unsigned long k) {
        unsigned long q = 0, Z = 0;
        B.bp->edge_marginal(e, k / 2, k % 2, q, Z);
        EXPECT_EQ(q, 1ul << B.w[4 * e + k]) << round << " " << e << " " << k;
        EXPECT_EQ(Z, total(e)) << round << " " << e << " " << k;
    };
    for (int round = 0; round < 2; ++round) {
        // The edges in turn, then each edge whole; the last read is of edge
        // 0, the first of the next round too.
        for (unsigned long k = 0; k < 4; ++k)
            for (unsigned long e = 0; e < 2; ++e) check(round, e, k);
        for (unsigned long e : {1ul, 0ul})
            for (unsigned long k = 0; k < 4; ++k) check(round, e, k);
        // New weights for the second round, seen after the next infer.
        B.w[1] = 6;
        B.w[6] = 5;
        B.bp->infer(0);
    }
}

TEST(BitLengthBP, GraphWithoutEdgesHasTheLengthOfVertexZero) {
    auto G = makeGraph<unsigned int>(3, {});
    unsigned int Y[] = {3, 2, 2};
    Probe<unsigned int> bp(G.get(), Y, nullptr);
    bp.setMaxIter(4);
    bp.infer(0);
    // Three states of log product 0: 2^0 three times is 3, of two bits.
    EXPECT_EQ(bp.A(), 2u);
    auto E = makeGraph<unsigned int>(0, {});
    Probe<unsigned int> empty(E.get(), Y, nullptr);
    empty.infer(0);
    EXPECT_EQ(empty.A(), 1u);
}

TEST(BitLengthBP, LogPartitionValueIsTheLengthSeenFromVertexZero) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {3, 2};
    Probe<unsigned int> bp(G.get(), Y, nullptr);
    bp.setLogProd(0, 0, 4);
    bp.setLogProd(0, 1, 4);
    bp.setLogProd(0, 2, 2);
    // 16 + 16 + 4 = 36, six bits.
    EXPECT_EQ(bp.Alocal(), 6u);
}

// ---------------------------------------------------------------- marginals

TEST(BitLengthBP, VertexWithOneStateGivesOneOverOne) {
    auto G = makeGraph<unsigned short>(3, {{0, 1}, {1, 2}});
    unsigned short Y[] = {2, 1, 3};
    std::vector<unsigned short> w = {7, 2, 1, 4, 9};
    Probe<unsigned short> bp(G.get(), Y, w.data());
    bp.setMaxIter(5);
    bp.infer(0);
    // Whatever the messages say.
    bp.setMessage(0, false, 0, 40);
    bp.setMessage(1, true, 0, 13);
    bp.setLogProd(1, 0, 53);
    unsigned short q = 9, Z = 9;
    bp.vertex_marginal(1, 0, q, Z);
    EXPECT_EQ(q, 1);
    EXPECT_EQ(Z, 1);
    // An edge between two single states likewise.
    auto H = makeGraph<unsigned short>(2, {{0, 1}});
    unsigned short Y1[] = {1, 1};
    unsigned short w1[] = {12};
    Probe<unsigned short> one(H.get(), Y1, w1);
    one.infer(0);
    q = 0;
    Z = 0;
    one.edge_marginal(0, 0, 0, q, Z);
    EXPECT_EQ(q, 1);
    EXPECT_EQ(Z, 1);
}

template <typename idx_t> void expectScaledRatio(unsigned seed) {
    // Exponents far beyond the width of idx_t.
    const size_t W = 8 * sizeof(idx_t);
    const uint64_t top = std::min<uint64_t>(W * 3, 200);
    std::mt19937 g(seed);
    std::uniform_int_distribution<uint64_t> D(0, top);
    for (int rep = 0; rep < 20; ++rep) {
        auto G = makeGraph<idx_t>(2, {{0, 1}});
        idx_t Y[] = {3, 2};
        std::vector<idx_t> w(6);
        for (idx_t& x : w) x = (idx_t)D(g);
        Probe<idx_t> bp(G.get(), Y, w.data());
        for (idx_t x = 0; x < 3; ++x) bp.setLogProd(0, x, (idx_t)D(g));
        // Exact ratio of 2^lp(x) to the sum, in double from the exponents.
        double lpMax = 0;
        for (idx_t x = 0; x < 3; ++x) lpMax = std::max(lpMax, (double)bp.logProd(0, x));
        double sum = 0;
        for (idx_t x = 0; x < 3; ++x) sum += std::ldexp(1.0, (int)(bp.logProd(0, x) - lpMax));
        for (idx_t x = 0; x < 3; ++x) {
            idx_t q = 0, Z = 0;
            bp.vertex_marginal(0, x, q, Z);
            const double exact = std::ldexp(1.0, (int)(bp.logProd(0, x) - lpMax)) / sum;
            ASSERT_GT(Z, 0u);
            EXPECT_LE(q, Z);
            // 255 times the value fits: the caller may scale it to a byte.
            EXPECT_LE((unsigned __int128)q * 255, (unsigned __int128)std::numeric_limits<idx_t>::max())
                << (uint64_t)q;
            // The shift truncates both: the ratio holds to within one unit of
            // either, relative to Z.
            EXPECT_NEAR((double)q / (double)Z, exact, 2.0 / (double)Z + 1e-12) << "x " << (int)x;
        }
    }
}

TEST(BitLengthBP, ExponentsBeyondTheWidthKeepTheRatio) {
    expectScaledRatio<unsigned char>(1);
    expectScaledRatio<unsigned short>(2);
    expectScaledRatio<unsigned int>(3);
    expectScaledRatio<unsigned long>(4);
}

template <typename idx_t> void expectEveryMarginalFitsAByte(unsigned seed) {
    for (unsigned r = 0; r < 5; ++r) {
        const Tree T = randomTree(7, seed + r, 4, 8 * sizeof(idx_t) + 20, true);
        Built<idx_t> B(T);
        B.bp->setMaxIter(50);
        B.bp->infer(0);
        for (size_t v = 0; v < T.n; ++v)
            for (size_t x = 0; x < T.Y[v]; ++x) {
                idx_t q = 0, Z = 0;
                B.bp->vertex_marginal((idx_t)v, (idx_t)x, q, Z);
                EXPECT_LE(q, Z);
                EXPECT_LE((unsigned __int128)q * 255, (unsigned __int128)std::numeric_limits<idx_t>::max());
            }
        for (size_t e = 0; e < T.edges.size(); ++e)
            for (size_t x = 0; x < T.Y[T.edges[e].first]; ++x)
                for (size_t y = 0; y < T.Y[T.edges[e].second]; ++y) {
                    idx_t q = 0, Z = 0;
                    B.bp->edge_marginal((idx_t)e, (idx_t)x, (idx_t)y, q, Z);
                    EXPECT_LE(q, Z);
                    EXPECT_LE((unsigned __int128)q * 255, (unsigned __int128)std::numeric_limits<idx_t>::max());
                }
    }
}

TEST(BitLengthBP, ScaledMarginalTimes255FitsInTheIndexType) {
    expectEveryMarginalFitsAByte<unsigned char>(40);
    expectEveryMarginalFitsAByte<unsigned short>(50);
    expectEveryMarginalFitsAByte<unsigned int>(60);
    expectEveryMarginalFitsAByte<unsigned long>(70);
}

TEST(BitLengthBP, ObservedSourceSendsItsRow) {
    auto G = makeGraph<unsigned int>(2, {{0, 1}});
    unsigned int Y[] = {3, 2};
    std::vector<unsigned int> w = {1, 4, 6, 2, 3, 3};
    Probe<unsigned int> bp(G.get(), Y, w.data());
    bp.observe(0, 1);
    bp.setMaxIter(5);
    bp.infer(0);
    // Row of state 1, less its smallest entry.
    EXPECT_EQ(bp.messages(0, false)[0], 4u);
    EXPECT_EQ(bp.messages(0, false)[1], 0u);
    // The all-ones marker is no observation.
    bp.observe(0, (unsigned int)-1);
    EXPECT_EQ(bp.observed(0), (unsigned int)-1);
    bp.infer(0);
    // bl(2 + 64 + 8) = 7 and bl(16 + 4 + 8) = 5.
    EXPECT_EQ(bp.messages(0, false)[0], 2u);
    EXPECT_EQ(bp.messages(0, false)[1], 0u);
}
