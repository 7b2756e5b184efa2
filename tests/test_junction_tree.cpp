// Junction trees: elimination order, cliques with fill-in, the spanning tree
// of largest overlap, separators between cliques, and the properties every
// junction tree must have, checked on random graphs by independent code.
#include <gtest/gtest.h>
#include <qz_live_count.h>
#include <qz_graph_util.h>

#include <QZ/graph/core>
#include <QZ/graph/generators>
#include <QZ/graph/junction_tree>
#include <QZ/bp/hugin>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>


namespace {

using qztest::EdgeList;
using qztest::makeGraph;

template <typename idx_t> std::set<size_t> objects(const QZ::JunctionTree<idx_t>& J, size_t v) {
    const std::set<idx_t>* s = J.vertexObjects((idx_t)v);
    return std::set<size_t>(s->begin(), s->end());
}

template <typename T> class JunctionTreeTyped : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IndexTypes;
TYPED_TEST_SUITE(JunctionTreeTyped, IndexTypes);

TYPED_TEST(JunctionTreeTyped, ChainOfThreeGivesTwoCliquesAndOneSeparator) {
    typedef TypeParam I;
    auto G = makeGraph<I>(3, {{0, 1}, {1, 2}});
    QZ::JunctionTree<I> J(*G);
    EXPECT_EQ((size_t)J.vertices(), 3u);
    EXPECT_EQ((size_t)J.cliques(), 2u);
    EXPECT_EQ((size_t)J.separators(), 1u);
    EXPECT_EQ((size_t)J.edges(), 2u);
    EXPECT_EQ(objects(J, 0), (std::set<size_t>{1, 2}));
    EXPECT_EQ(objects(J, 1), (std::set<size_t>{0, 1}));
    EXPECT_EQ(objects(J, 2), (std::set<size_t>{1}));
    EXPECT_EQ(qztest::edgeList(J), (EdgeList{{0, 2}, {2, 1}}));
    EXPECT_FALSE(J.isSeparator(0));
    EXPECT_FALSE(J.isSeparator(1));
    EXPECT_TRUE(J.isSeparator(2));
    EXPECT_EQ(J.base(), G.get());
    EXPECT_EQ((size_t)J.baseVertices(), 3u);
}

TYPED_TEST(JunctionTreeTyped, OneCliqueHasNoSeparators) {
    typedef TypeParam I;
    QZ::Kn<I> K(5, nullptr);
    QZ::JunctionTree<I> J(K);
    EXPECT_EQ((size_t)J.cliques(), 1u);
    EXPECT_EQ((size_t)J.separators(), 0u);
    EXPECT_EQ((size_t)J.edges(), 0u);
    EXPECT_EQ(objects(J, 0), (std::set<size_t>{0, 1, 2, 3, 4}));

    auto one = makeGraph<I>(1, {});
    QZ::JunctionTree<I> J1(*one);
    EXPECT_EQ((size_t)J1.vertices(), 1u);
    EXPECT_EQ((size_t)J1.cliques(), 1u);
    EXPECT_EQ((size_t)J1.edges(), 0u);
    EXPECT_EQ(objects(J1, 0), (std::set<size_t>{0}));
}

TYPED_TEST(JunctionTreeTyped, DisjointEdgesAreJoinedByAnEmptySeparator) {
    typedef TypeParam I;
    auto G = makeGraph<I>(4, {{0, 1}, {2, 3}});
    QZ::JunctionTree<I> J(*G);
    ASSERT_EQ((size_t)J.cliques(), 2u);
    ASSERT_EQ((size_t)J.separators(), 1u);
    EXPECT_TRUE(objects(J, 2).empty());
    std::set<std::set<size_t>> cl{objects(J, 0), objects(J, 1)};
    EXPECT_EQ(cl, (std::set<std::set<size_t>>{{0, 1}, {2, 3}}));
    EXPECT_EQ(qztest::edgeList(J), (EdgeList{{0, 2}, {2, 1}}));
}

TYPED_TEST(JunctionTreeTyped, CycleOfFourGetsAChord) {
    typedef TypeParam I;
    auto G = makeGraph<I>(4, {{0, 1}, {1, 2}, {2, 3}, {3, 0}});
    QZ::JunctionTree<I> J(*G);
    ASSERT_EQ((size_t)J.cliques(), 2u);
    EXPECT_EQ(objects(J, 0).size(), 3u);
    EXPECT_EQ(objects(J, 1).size(), 3u);
    // The two triangles share the chord.
    EXPECT_EQ(objects(J, 2).size(), 2u);
    std::set<size_t> all = objects(J, 0);
    const std::set<size_t> second = objects(J, 1);
    all.insert(second.begin(), second.end());
    EXPECT_EQ(all.size(), 4u);
}

TYPED_TEST(JunctionTreeTyped, BaseVerticesCountIsolatedVerticesToo) {
    typedef TypeParam I;
    auto G = makeGraph<I>(7, {{0, 1}, {1, 2}, {4, 5}});
    QZ::JunctionTree<I> J(*G);
    EXPECT_EQ((size_t)J.baseVertices(), 7u);
    // Vertices 3 and 6 are cliques of their own.
    size_t singles = 0;
    for (size_t c = 0; c < (size_t)J.cliques(); ++c)
        if (objects(J, c).size() == 1) ++singles;
    EXPECT_EQ(singles, 2u);
}

// The search exactly as stated: before each pick the vertices stand in index
// order and are stably sorted by the non-strict order over the numbering.
template <typename idx_t> std::vector<size_t> literalSearch(const QZ::AbstractGraph<idx_t>& G) {
    const size_t n = G.vertices();
    std::vector<std::pair<idx_t, idx_t>> w(n);
    std::vector<idx_t> alpha(n, 0);
    for (size_t i = 0; i < n; ++i) w[i] = std::make_pair((idx_t)i, (idx_t)0);
    QZ::UnnumberedWeightedOrder<idx_t> order(alpha.data());
    for (size_t i = 0; i < n; ++i) {
        const idx_t x = w[0].first;
        if (alpha[x] != 0) break;
        alpha[x] = (idx_t)(n - i);
        w[0].second = 0;
        std::stable_sort(w.begin(), w.end(), QZ::IdxOrder<idx_t, false>);
        for (idx_t j = 0; j < G.num_neighbors(x); ++j) {
            idx_t s, t;
            G.edge(G.in_edge(x, j), s, t);
            const idx_t u = s == x ? t : s;
            if (alpha[u] == 0) ++w[u].second;
        }
        std::stable_sort(w.begin(), w.end(), order);
    }
    std::vector<size_t> out(n, 0);
    for (size_t v = 0; v < n; ++v) out[alpha[v] - 1] = v;
    return out;
}

TYPED_TEST(JunctionTreeTyped, MaximumCardinalitySearchOnAChain) {
    typedef TypeParam I;
    // Vertex 0 goes first, and the first visited vertex stands last; each
    // later pick is the neighbour with the most numbered neighbours.
    auto G = makeGraph<I>(4, {{0, 1}, {1, 2}, {2, 3}});
    const QZ::AbstractGraph<I>* Gp = G.get();
    I out[4];
    QZ::MCS<I>(out, Gp);
    EXPECT_EQ(std::vector<size_t>(out, out + 4), (std::vector<size_t>{3, 2, 1, 0}));
}

// ---------------------------------------------------------------- properties

// Random graph of n vertices: each pair joined with probability p.
template <typename idx_t> std::unique_ptr<QZ::Graph<idx_t>> randomGraph(size_t n, double p, unsigned seed) {
    std::mt19937 g(seed);
    std::bernoulli_distribution B(p);
    EdgeList el;
    for (size_t a = 0; a < n; ++a)
        for (size_t b = a + 1; b < n; ++b)
            if (B(g)) el.push_back(std::uniform_int_distribution<int>(0, 1)(g) ? std::make_pair(a, b) : std::make_pair(b, a));
    std::shuffle(el.begin(), el.end(), g);
    return makeGraph<idx_t>(n, el);
}

// Largest total overlap of any spanning tree over the cliques, by Prim's
// method on the dense overlap matrix.
size_t bestOverlap(const std::vector<std::set<size_t>>& C) {
    const size_t k = C.size();
    if (k < 2) return 0;
    auto ov = [&](size_t a, size_t b) {
        size_t c = 0;
        for (size_t x : C[a]) c += C[b].count(x);
        return c;
    };
    std::vector<char> in(k, 0);
    std::vector<long long> best(k, -1);
    in[0] = 1;
    for (size_t j = 1; j < k; ++j) best[j] = (long long)ov(0, j);
    size_t total = 0;
    for (size_t it = 1; it < k; ++it) {
        size_t pick = 0;
        long long bv = -2;
        for (size_t j = 0; j < k; ++j)
            if (!in[j] && best[j] > bv) {
                bv = best[j];
                pick = j;
            }
        in[pick] = 1;
        total += (size_t)bv;
        for (size_t j = 0; j < k; ++j)
            if (!in[j]) best[j] = std::max(best[j], (long long)ov(pick, j));
    }
    return total;
}

template <typename idx_t>
void checkJunctionTree(const QZ::AbstractGraph<idx_t>& G, size_t dense = QZ::JunctionTree<idx_t>::DENSE_CLIQUES) {
    QZ::JunctionTree<idx_t> J(G, dense);
    const size_t n = (size_t)G.vertices(), nc = (size_t)J.cliques(), N = (size_t)J.vertices();
    ASSERT_GE(nc, n > 0 ? 1u : 0u);
    ASSERT_EQ(N, nc > 0 ? 2 * nc - 1 : 0);
    ASSERT_EQ((size_t)J.edges(), nc > 0 ? 2 * (nc - 1) : 0);
    std::vector<std::set<size_t>> C;
    for (size_t c = 0; c < nc; ++c) C.push_back(objects(J, c));
    // No clique lies inside an earlier one.
    for (size_t a = 0; a < nc; ++a)
        for (size_t b = a + 1; b < nc; ++b)
            EXPECT_FALSE(std::includes(C[a].begin(), C[a].end(), C[b].begin(), C[b].end())) << a << " " << b;
    // Every edge lies inside a clique; every vertex is covered.
    for (size_t e = 0; e < (size_t)G.edges(); ++e) {
        idx_t s, t;
        G.edge((idx_t)e, s, t);
        bool found = false;
        for (const auto& c : C) found = found || (c.count(s) && c.count(t));
        EXPECT_TRUE(found) << "edge " << e;
    }
    EXPECT_EQ((size_t)J.baseVertices(), n);
    // Tree edges alternate clique - separator, separator - clique; each
    // separator has degree 2 and holds the overlap of its two cliques.
    std::vector<std::vector<size_t>> adj(N);
    for (size_t e = 0; e < (size_t)J.edges(); ++e) {
        idx_t a, b;
        J.edge((idx_t)e, a, b);
        if (e % 2 == 0) {
            EXPECT_LT((size_t)a, nc);
            EXPECT_EQ((size_t)b, nc + e / 2);
        } else {
            EXPECT_EQ((size_t)a, nc + e / 2);
            EXPECT_LT((size_t)b, nc);
        }
        adj[a].push_back(b);
        adj[b].push_back(a);
    }
    size_t overlap = 0;
    for (size_t S = nc; S < N; ++S) {
        ASSERT_EQ(adj[S].size(), 2u);
        std::set<size_t> I;
        for (size_t x : C[adj[S][0]])
            if (C[adj[S][1]].count(x)) I.insert(x);
        EXPECT_EQ(objects(J, S), I);
        overlap += I.size();
        EXPECT_EQ((size_t)J.num_neighbors((idx_t)S), 2u);
    }
    // Connected, and a maximum weight spanning tree of the clique overlaps.
    if (N > 0) {
        std::vector<char> seen(N, 0);
        std::vector<size_t> st{0};
        seen[0] = 1;
        while (!st.empty()) {
            size_t x = st.back();
            st.pop_back();
            for (size_t y : adj[x])
                if (!seen[y]) {
                    seen[y] = 1;
                    st.push_back(y);
                }
        }
        EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), (long)N);
    }
    EXPECT_EQ(overlap, bestOverlap(C));
    // Running intersection: the nodes that hold a vertex are connected.
    std::vector<std::set<size_t>> obj;
    for (size_t x = 0; x < N; ++x) obj.push_back(objects(J, x));
    std::vector<std::vector<size_t>> holdersOf(n);
    for (size_t x = 0; x < N; ++x)
        for (size_t v : obj[x]) holdersOf[v].push_back(x);
    for (size_t v = 0; v < n; ++v) {
        const std::vector<size_t>& holders = holdersOf[v];
        ASSERT_FALSE(holders.empty());
        std::set<size_t> reach{holders[0]};
        std::vector<size_t> st{holders[0]};
        while (!st.empty()) {
            size_t x = st.back();
            st.pop_back();
            for (size_t y : adj[x])
                if (!reach.count(y) && obj[y].count(v)) {
                    reach.insert(y);
                    st.push_back(y);
                }
        }
        EXPECT_EQ(reach.size(), holders.size()) << "vertex " << v;
    }
    // The chordal graph of the cliques has every base edge plus fill-in only
    // between vertices that share a clique: each clique is complete in it.
    std::vector<std::set<idx_t>*>* again = J.eliminationCliques(G);
    ASSERT_EQ(again->size(), nc);
    for (size_t c = 0; c < nc; ++c) {
        EXPECT_EQ(std::set<size_t>(again->at(c)->begin(), again->at(c)->end()), C[c]);
        delete again->at(c);
    }
    delete again;
}

TYPED_TEST(JunctionTreeTyped, RandomGraphsGiveValidTrees) {
    typedef TypeParam I;
    for (unsigned seed = 0; seed < 25; ++seed) {
        const size_t n = 3 + seed % 14;
        auto G = randomGraph<I>(n, 0.15 + 0.03 * (seed % 10), seed);
        checkJunctionTree<I>(*G);
    }
}

TYPED_TEST(JunctionTreeTyped, GridsCyclesAndCompleteGraphsGiveValidTrees) {
    typedef TypeParam I;
    for (I l = 1; l <= 5; ++l) {
        QZ::Grid<I> G(l);
        checkJunctionTree<I>(G);
    }
    for (size_t n = 3; n <= 9; ++n) {
        EdgeList el;
        for (size_t v = 0; v < n; ++v) el.push_back({v, (v + 1) % n});
        auto G = makeGraph<I>(n, el);
        checkJunctionTree<I>(*G);
        QZ::Kn<I> K((I)n, nullptr);
        checkJunctionTree<I>(K);
    }
    auto empty = makeGraph<I>(0, {});
    checkJunctionTree<I>(*empty);
}

TEST(JunctionTree, SearchEqualsTheStableSortWalk) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        const size_t n = 2 + seed * 3;
        auto G = randomGraph<unsigned>(n, seed % 3 == 0 ? 0.05 : 0.2, 500 + seed);
        const QZ::AbstractGraph<unsigned>* Gp = G.get();
        std::vector<unsigned> out(n);
        QZ::MCS<unsigned>(out.data(), Gp);
        EXPECT_EQ(std::vector<size_t>(out.begin(), out.end()), literalSearch<unsigned>(*G)) << seed;
    }
    QZ::Grid<unsigned> grid(9);
    const QZ::AbstractGraph<unsigned>* Gp = &grid;
    std::vector<unsigned> out(81);
    QZ::MCS<unsigned>(out.data(), Gp);
    EXPECT_EQ(std::vector<size_t>(out.begin(), out.end()), literalSearch<unsigned>(grid));
}

TEST(JunctionTree, EliminationTreeIsAlsoOfLargestOverlap) {
    // Beyond the dense limit the tree comes from the elimination itself; it
    // must have every property and the same total overlap.
    for (unsigned seed = 0; seed < 40; ++seed) {
        auto G = randomGraph<unsigned>(4 + seed % 20, 0.1 + 0.02 * (seed % 8), 900 + seed);
        checkJunctionTree<unsigned>(*G, 0);
    }
    for (unsigned l = 2; l <= 6; ++l) {
        QZ::Grid<unsigned> G(l);
        checkJunctionTree<unsigned>(G, 0);
    }
    auto star = makeGraph<unsigned>(30, [] {
        EdgeList el;
        for (size_t v = 1; v < 30; ++v) el.push_back({0, v});
        return el;
    }());
    checkJunctionTree<unsigned>(*star, 0);
}

TEST(JunctionTree, LargeGraphsTakeTheEliminationTree) {
    // 3000 vertices of a random tree with a few extra edges: far more cliques
    // than pairs could be listed for.
    std::mt19937 g(8);
    EdgeList el;
    const size_t n = 3000;
    for (size_t v = 1; v < n; ++v) el.push_back({std::uniform_int_distribution<size_t>(0, v - 1)(g), v});
    for (int k = 0; k < 40; ++k) {
        const size_t a = std::uniform_int_distribution<size_t>(0, n - 1)(g), b = (a + 1 + g() % 5) % n;
        if (a != b) el.push_back({a, b});
    }
    auto G = makeGraph<unsigned>(n, el);
    QZ::JunctionTree<unsigned> J(*G);
    EXPECT_GT((size_t)J.cliques(), QZ::JunctionTree<unsigned>::DENSE_CLIQUES);
    checkJunctionTree<unsigned>(*G);
}

TEST(JunctionTree, TreesHaveCliquesOfTheirEdges) {
    // A perfect elimination order on a tree makes no fill-in: one clique per
    // edge, each of two vertices.
    for (unsigned seed = 0; seed < 10; ++seed) {
        std::mt19937 g(seed);
        EdgeList el;
        const size_t n = 12;
        for (size_t v = 1; v < n; ++v) el.push_back({std::uniform_int_distribution<size_t>(0, v - 1)(g), v});
        auto G = makeGraph<unsigned>(n, el);
        QZ::JunctionTree<unsigned> J(*G);
        EXPECT_EQ((size_t)J.cliques(), n - 1);
        std::set<std::set<size_t>> cl, ed;
        for (size_t c = 0; c < (size_t)J.cliques(); ++c) cl.insert(objects(J, c));
        for (const auto& e : el) ed.insert({e.first, e.second});
        EXPECT_EQ(cl, ed);
    }
}

TEST(JunctionTree, SpanningTreeEqualsTheOneOverTheCompleteGraph) {
    // The links are those of the maximum spanning tree over the complete
    // graph of the cliques in its own edge order.
    for (unsigned seed = 0; seed < 8; ++seed) {
        auto G = randomGraph<unsigned>(12, 0.25, 100 + seed);
        QZ::JunctionTree<unsigned> J(*G);
        const unsigned nc = J.cliques();
        QZ::Kn<unsigned> K(nc, nullptr);
        std::vector<unsigned> W(K.edges() + 1);
        for (unsigned e = 0; e < K.edges(); ++e) {
            unsigned a, b;
            K.edge(e, a, b);
            W[e] = QZ::intersect_size<unsigned>(J.vertexObjects(a), J.vertexObjects(b));
        }
        const QZ::AbstractGraph<unsigned>* Kp = &K;
        unsigned* ref = nullptr;
        QZ::MWST<unsigned, unsigned, true>(ref, Kp, W.data());
        // The tree's links, read from its edges: clique - separator k - clique.
        std::vector<unsigned> mine((size_t)nc * nc, 0);
        for (unsigned e = 0; e + 1 < J.edges(); e += 2) {
            unsigned a, s, s2, b;
            J.edge(e, a, s);
            J.edge(e + 1, s2, b);
            mine[(size_t)a * nc + b] = mine[(size_t)b * nc + a] = 1;
        }
        EXPECT_EQ(mine, std::vector<unsigned>(ref, ref + (size_t)nc * nc));
        delete[] ref;
    }
}

TEST(JunctionTree, KruskalFindsTheHeaviestTree) {
    // Weighted complete graph on 6 vertices: the heaviest spanning tree by
    // exhaustive search over all 6^4 Pruefer sequences.
    std::mt19937 g(5);
    QZ::Kn<unsigned> K(6, nullptr);
    std::vector<double> W(K.edges());
    for (double& x : W) x = std::uniform_real_distribution<double>(0, 10)(g);
    auto weight = [&](unsigned a, unsigned b) {
        for (unsigned e = 0; e < K.edges(); ++e) {
            unsigned s, t;
            K.edge(e, s, t);
            if ((s == a && t == b) || (s == b && t == a)) return W[e];
        }
        return -1.0;
    };
    double best = -1;
    for (int code = 0; code < 6 * 6 * 6 * 6; ++code) {
        std::vector<unsigned> pr{(unsigned)(code % 6), (unsigned)(code / 6 % 6), (unsigned)(code / 36 % 6),
                                 (unsigned)(code / 216)};
        std::vector<int> deg(6, 1);
        for (unsigned x : pr) ++deg[x];
        double sum = 0;
        for (unsigned x : pr) {
            unsigned leaf = 0;
            while (deg[leaf] != 1) ++leaf;
            sum += weight(leaf, x);
            --deg[leaf];
            --deg[x];
        }
        unsigned u = 6, v = 6;
        for (unsigned i = 0; i < 6; ++i)
            if (deg[i] == 1) (u == 6 ? u : v) = i;
        sum += weight(u, v);
        best = std::max(best, sum);
    }
    const QZ::AbstractGraph<unsigned>* Kp = &K;
    unsigned* A = nullptr;
    QZ::MWST<unsigned, double, true>(A, Kp, W.data());
    double got = 0;
    size_t ones = 0;
    for (unsigned a = 0; a < 6; ++a)
        for (unsigned b = 0; b < 6; ++b) {
            EXPECT_EQ(A[a * 6 + b], A[b * 6 + a]);
            ones += A[a * 6 + b];
            if (a < b && A[a * 6 + b]) got += weight(a, b);
        }
    EXPECT_EQ(ones, 10u);
    EXPECT_NEAR(got, best, 1e-12);
    delete[] A;
}

TEST(JunctionTree, GivesBackEverythingItTook) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer's allocator stands in for the counting operator new";
#endif
    auto G = randomGraph<unsigned>(14, 0.3, 9);
    const long long before = qztest::liveBlocks();
    {
        QZ::JunctionTree<unsigned> J(*G);
        EXPECT_GT(qztest::liveBlocks(), before);
    }
    EXPECT_EQ(qztest::liveBlocks(), before);
}

TEST(JunctionTree, ExactEngineGivesBackEverythingItTook) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer's allocator stands in for the counting operator new";
#endif
    // The engine owns its tree and its tables; the log tables made on demand
    // go with it too.
    auto G = randomGraph<unsigned>(10, 0.3, 19);
    std::vector<unsigned> Y(10, 2);
    std::vector<double> w(4 * G->edges(), 0.25);
    std::mt19937 rng(1);
    const long long before = qztest::liveBlocks();
    {
        QZ::HuginAlgorithm<unsigned, double> H(G.get(), Y.data(), &rng, w.data());
        H.infer(0);
        EXPECT_NE(H.messages(), nullptr);
    }
    EXPECT_EQ(qztest::liveBlocks(), before);
}

TEST(JunctionTree, NarrowIndexRefusesTooManyNodes) {
    // 200 isolated vertices are 200 cliques and 199 separators: more nodes
    // than an 8-bit index can number.
    auto G = makeGraph<unsigned char>(200, {});
    EXPECT_THROW(QZ::JunctionTree<unsigned char> J(*G), std::out_of_range);
    auto H = makeGraph<unsigned char>(128, {});
    QZ::JunctionTree<unsigned char> J(*H);
    EXPECT_EQ((size_t)J.vertices(), 255u);
}

}  // namespace
