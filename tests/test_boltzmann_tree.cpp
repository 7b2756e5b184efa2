// Deep Boltzmann trees: the numbering of visible, output and hidden units, the
// order of the edges, the vertex sets of the units, and the shape every tree
// must have, checked on random graphs against their junction trees.
#include <gtest/gtest.h>
#include <qz_live_count.h>
#include <qz_graph_util.h>

#include <QZ/graph/set_graph>
#include <QZ/graph/junction_tree>
#include <QZ/graph/boltzmann_tree>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>


namespace {

using qztest::EdgeList;
using qztest::edgeList;
using qztest::incidence;
using qztest::makeGraph;

template <typename idx_t> std::set<size_t> objects(const QZ::SetGraph<idx_t>& G, size_t v) {
    const std::set<idx_t>* s = G.vertexObjects((idx_t)v);
    return std::set<size_t>(s->begin(), s->end());
}

template <typename T> class BoltzmannTreeTyped : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IndexTypes;
TYPED_TEST_SUITE(BoltzmannTreeTyped, IndexTypes);

// The chain 0 - 1 - 2 has the cliques {1,2} and {0,1} and the separator {1}.
// With one output unit: visible 0, 1, 2; output 3; clique units 4 and 5;
// separator unit 6.
TYPED_TEST(BoltzmannTreeTyped, ChainOfThreeWithOneSinkEdgeByEdge) {
    typedef TypeParam I;
    auto G = makeGraph<I>(3, {{0, 1}, {1, 2}});
    QZ::JunctionTree<I> J(*G);
    ASSERT_EQ(objects(J, 0), (std::set<size_t>{1, 2}));
    ASSERT_EQ(objects(J, 1), (std::set<size_t>{0, 1}));
    QZ::DeepBoltzmannTree<I> D(J, (I)1);

    EXPECT_EQ((size_t)D.n0, 4u);
    EXPECT_EQ((size_t)D.s0, 1u);
    EXPECT_EQ((size_t)D.sinks, 1u);
    EXPECT_EQ((size_t)D.vertices(), 7u);
    EXPECT_EQ((size_t)D.edges(), 6u);  // 3 + 2 + 1 + 1 - 1

    I v = 0, u = 0;
    D.edge(0, v, u);
    EXPECT_EQ((size_t)v, 1u);  // visible 1 on the first clique that holds it
    EXPECT_EQ((size_t)u, 4u);
    D.edge(1, v, u);
    EXPECT_EQ((size_t)v, 2u);
    EXPECT_EQ((size_t)u, 4u);
    D.edge(2, v, u);
    EXPECT_EQ((size_t)v, 4u);  // clique {1,2} to the separator
    EXPECT_EQ((size_t)u, 6u);
    D.edge(3, v, u);
    EXPECT_EQ((size_t)v, 0u);  // visible 0 on clique {0,1}; 1 is taken already
    EXPECT_EQ((size_t)u, 5u);
    D.edge(4, v, u);
    EXPECT_EQ((size_t)v, 5u);  // clique {0,1} to the separator
    EXPECT_EQ((size_t)u, 6u);
    D.edge(5, v, u);
    EXPECT_EQ((size_t)v, 3u);  // the separator's output edge comes last
    EXPECT_EQ((size_t)u, 6u);

    EXPECT_EQ((size_t)D.visibleUnits(), 3u);
    EXPECT_EQ((size_t)D.outputUnits(), 1u);
    EXPECT_EQ((size_t)D.hiddenCliqueUnits(), 2u);
    EXPECT_EQ((size_t)D.hiddenSeparatorUnits(), 1u);
    EXPECT_EQ((size_t)D.hiddenUnits(), 3u);
    EXPECT_EQ(std::set<size_t>(D.separators.begin(), D.separators.end()), (std::set<size_t>{6}));
    EXPECT_TRUE(D.isSeparator(6));
    EXPECT_FALSE(D.isSeparator(4));
    EXPECT_EQ(D.base(), G.get());

    EXPECT_EQ(objects(D, 0), (std::set<size_t>{0}));
    EXPECT_EQ(objects(D, 1), (std::set<size_t>{1}));
    EXPECT_EQ(objects(D, 2), (std::set<size_t>{2}));
    EXPECT_EQ(objects(D, 3), (std::set<size_t>{3}));
    EXPECT_EQ(objects(D, 4), (std::set<size_t>{1, 2}));
    EXPECT_EQ(objects(D, 5), (std::set<size_t>{0, 1}));
    EXPECT_EQ(objects(D, 6), (std::set<size_t>{1}));

    // Incidences follow the edge numbers.
    EXPECT_EQ(incidence<I>(D, 4), (std::vector<size_t>{0, 1, 2}));
    EXPECT_EQ(incidence<I>(D, 6), (std::vector<size_t>{2, 4, 5}));
    EXPECT_EQ(incidence<I>(D, 3), (std::vector<size_t>{5}));
}

TYPED_TEST(BoltzmannTreeTyped, OneCliqueHasNoOutputEdgesWhateverTheSinks) {
    typedef TypeParam I;
    // A triangle is one clique.
    auto G = makeGraph<I>(3, {{0, 1}, {1, 2}, {0, 2}});
    QZ::JunctionTree<I> J(*G);
    ASSERT_EQ((size_t)J.cliques(), 1u);
    ASSERT_EQ((size_t)J.separators(), 0u);
    for (size_t sinks : {0u, 1u, 4u}) {
        QZ::DeepBoltzmannTree<I> D(J, (I)sinks);
        EXPECT_EQ((size_t)D.edges(), 3u) << sinks;  // m = b
        EXPECT_EQ((size_t)D.vertices(), 3 + sinks + 1) << sinks;
        EXPECT_EQ(edgeList(D), (EdgeList{{0, 3 + sinks}, {1, 3 + sinks}, {2, 3 + sinks}})) << sinks;
        for (size_t u = 3; u < 3 + sinks; ++u) {
            EXPECT_EQ((size_t)D.num_neighbors((I)u), 0u) << u;
            EXPECT_EQ(objects(D, u), (std::set<size_t>{u}));
        }
        EXPECT_EQ((size_t)D.hiddenSeparatorUnits(), 0u);
        EXPECT_EQ((size_t)D.hiddenCliqueUnits(), 1u);
    }
    // A single vertex: one clique of one, one edge.
    auto P = makeGraph<I>(1, {});
    QZ::JunctionTree<I> JP(*P);
    QZ::DeepBoltzmannTree<I> DP(JP, (I)2);
    EXPECT_EQ((size_t)DP.vertices(), 4u);
    EXPECT_EQ(edgeList(DP), (EdgeList{{0, 3}}));
}

TYPED_TEST(BoltzmannTreeTyped, NoSinksGivesOnlyVisibleAndHiddenUnits) {
    typedef TypeParam I;
    auto G = makeGraph<I>(3, {{0, 1}, {1, 2}});
    QZ::JunctionTree<I> J(*G);
    QZ::DeepBoltzmannTree<I> D(J, (I)0);
    EXPECT_EQ((size_t)D.n0, 3u);
    EXPECT_EQ((size_t)D.vertices(), 6u);
    EXPECT_EQ((size_t)D.outputUnits(), 0u);
    EXPECT_EQ((size_t)D.visibleUnits(), 3u);
    // The same network as with a sink, one number lower above the visible
    // units, and without the output edge.
    EXPECT_EQ(edgeList(D), (EdgeList{{1, 3}, {2, 3}, {3, 5}, {0, 4}, {4, 5}}));
    EXPECT_EQ(objects(D, 5), (std::set<size_t>{1}));
}

TYPED_TEST(BoltzmannTreeTyped, DisjointEdgesLinkThroughAnEmptySeparator) {
    typedef TypeParam I;
    auto G = makeGraph<I>(4, {{0, 1}, {2, 3}});
    QZ::JunctionTree<I> J(*G);
    ASSERT_EQ((size_t)J.cliques(), 2u);
    QZ::DeepBoltzmannTree<I> D(J, (I)2);
    // b = 4, n0 = 6, cliques 6 and 7, separator 8 with an empty set.
    EXPECT_EQ((size_t)D.vertices(), 9u);
    EXPECT_EQ((size_t)D.edges(), 4u + 2u + 2u);
    EXPECT_TRUE(objects(D, 8).empty());
    EXPECT_EQ((size_t)D.num_neighbors(8), 4u);
    EXPECT_EQ((size_t)D.num_neighbors(4), 1u);
    EXPECT_EQ((size_t)D.num_neighbors(5), 1u);
}

TYPED_TEST(BoltzmannTreeTyped, TheJunctionTreeMayGoTheBaseGraphStays) {
    typedef TypeParam I;
    auto G = makeGraph<I>(4, {{0, 1}, {1, 2}, {2, 3}, {3, 0}});
    std::unique_ptr<QZ::JunctionTree<I>> J(new QZ::JunctionTree<I>(*G));
    const size_t nJ = J->vertices();
    std::vector<std::set<size_t>> sets;
    for (size_t v = 0; v < nJ; ++v) sets.push_back(objects(*J, v));
    QZ::DeepBoltzmannTree<I> D(*J, (I)1);
    J.reset();
    EXPECT_EQ(D.base(), G.get());
    for (size_t v = 0; v < nJ; ++v) EXPECT_EQ(objects(D, D.n0 + v), sets[v]) << v;
}

TYPED_TEST(BoltzmannTreeTyped, StoreWritesTheEdgeListOfTheNetwork) {
    typedef TypeParam I;
    auto G = makeGraph<I>(3, {{0, 1}, {1, 2}});
    QZ::JunctionTree<I> J(*G);
    QZ::DeepBoltzmannTree<I> D(J, (I)1);
    std::stringstream ss;
    D.store(ss);
    const std::string s = ss.str();
    ASSERT_EQ(s.size(), (2 + 2 * 6) * sizeof(I));
    std::vector<I> words(s.size() / sizeof(I));
    std::memcpy(words.data(), s.data(), s.size());
    EXPECT_EQ((size_t)words[0], 7u);
    EXPECT_EQ((size_t)words[1], 6u);
    const std::vector<size_t> list{1, 4, 2, 4, 4, 6, 0, 5, 5, 6, 3, 6};
    for (size_t k = 0; k < list.size(); ++k) EXPECT_EQ((size_t)words[2 + k], list[k]) << k;
}

TEST(BoltzmannTree, TooManyUnitsForTheIndexTypeIsAnError) {
    auto G = makeGraph<unsigned char>(3, {{0, 1}, {1, 2}});
    QZ::JunctionTree<unsigned char> J(*G);
    // 3 visible, 250 outputs, 3 hidden: 256 units cannot be numbered in 8 bits.
    try {
        QZ::DeepBoltzmannTree<unsigned char> D(J, (unsigned char)250);
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_EQ(std::string(e.what()), "deep Boltzmann tree has more units than the index type can number");
    }
    QZ::DeepBoltzmannTree<unsigned char> ok(J, (unsigned char)249);
    EXPECT_EQ((size_t)ok.vertices(), 255u);
}

TEST(BoltzmannTree, EmptyBaseGraphGivesIsolatedOutputs) {
    auto G = makeGraph<unsigned int>(0, {});
    QZ::JunctionTree<unsigned int> J(*G);
    QZ::DeepBoltzmannTree<unsigned int> D(J, 2u);
    EXPECT_EQ(D.vertices(), 2u);
    EXPECT_EQ(D.edges(), 0u);
    EXPECT_EQ(objects(D, 1), (std::set<size_t>{1}));
}

TEST(BoltzmannTree, ReleasesEverythingItTook) {
    auto G = makeGraph<unsigned int>(6, {{0, 1}, {1, 2}, {2, 3}, {3, 0}, {3, 4}, {4, 5}});
    QZ::JunctionTree<unsigned int> J(*G);
    const long long before = qztest::liveBlocks();
    {
        QZ::DeepBoltzmannTree<unsigned int> D(J, 3u);
        EXPECT_GT(qztest::liveBlocks(), before);
    }
    EXPECT_EQ(qztest::liveBlocks(), before);
}

// On random graphs, the network derived from a junction tree is checked
// against that tree: every visible unit hangs on the first clique that holds
// its vertex, each clique on its separators, each separator carries the sinks,
// and the units' sets are those of the tree.
TEST(BoltzmannTree, RandomGraphsHaveTheShapeOfTheirJunctionTree) {
    std::mt19937 g(11);
    for (int round = 0; round < 60; ++round) {
        const size_t n = std::uniform_int_distribution<size_t>(1, 12)(g);
        const double p = std::uniform_real_distribution<double>(0.0, 0.6)(g);
        EdgeList el;
        for (size_t a = 0; a < n; ++a)
            for (size_t b = a + 1; b < n; ++b)
                if (std::uniform_real_distribution<double>(0, 1)(g) < p) el.push_back({a, b});
        const size_t sinks = std::uniform_int_distribution<size_t>(0, 3)(g);
        auto G = makeGraph<unsigned long>(n, el);
        QZ::JunctionTree<unsigned long> J(*G);
        QZ::DeepBoltzmannTree<unsigned long> D(J, sinks);
        const size_t c = J.cliques(), s = J.separators(), n0 = n + sinks;
        ASSERT_EQ(c, s + 1);
        ASSERT_EQ((size_t)D.vertices(), n0 + c + s);
        ASSERT_EQ((size_t)D.edges(), n + 2 * s + s * sinks);

        // Expected edges, in the order of the tree's vertices.
        EdgeList want;
        std::vector<bool> seen(n, false);
        for (size_t v = 0; v < (size_t)J.vertices(); ++v) {
            if (v >= c) {
                for (size_t u = n; u < n0; ++u) want.push_back({u, n0 + v});
                continue;
            }
            for (size_t x : objects(J, v))
                if (!seen[x]) {
                    seen[x] = true;
                    want.push_back({x, n0 + v});
                }
            // The clique's links, by ascending edge number of the tree.
            for (size_t e = 0; e < (size_t)J.edges(); ++e) {
                unsigned long a, b;
                J.edge(e, a, b);
                if (a == v) want.push_back({n0 + v, n0 + b});
                else if (b == v) want.push_back({n0 + v, n0 + a});
            }
        }
        ASSERT_EQ(edgeList(D), want) << "round " << round;

        // Sets, degrees and separators.
        for (size_t x = 0; x < n; ++x) {
            EXPECT_EQ(objects(D, x), (std::set<size_t>{x}));
            EXPECT_GE((size_t)D.num_neighbors(x), 1u);
        }
        for (size_t v = 0; v < (size_t)J.vertices(); ++v) {
            EXPECT_EQ(objects(D, n0 + v), objects(J, v));
            EXPECT_EQ(D.isSeparator(n0 + v), v >= c);
            if (v >= c) EXPECT_EQ((size_t)D.num_neighbors(n0 + v), 2 + sinks);
        }
        EXPECT_EQ((size_t)D.hiddenSeparatorUnits(), s);
        EXPECT_EQ((size_t)D.hiddenCliqueUnits(), c);
        // With a separator every unit is reached; without, the sinks stay apart.
        if (s > 0) EXPECT_TRUE(qztest::connected(D.vertices(), edgeList(D)));
    }
}

}  // namespace
