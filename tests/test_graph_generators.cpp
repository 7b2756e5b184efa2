// The standard graph families: vertex numbering and edge order, which fix the
// layout of every model's weights, and their incidence index.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/graph/generators>

#include <omp.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace QZ;

namespace {

typedef qztest::EdgeList EL;
using qztest::edgeList;

// Every vertex's incidence run equals a scan of the edge list for that vertex,
// edge numbers ascending.
template <typename idx_t> void expectIncidenceMatchesScan(const AbstractGraph<idx_t>& G) {
    const EL el = edgeList(G);
    for (size_t v = 0; v < (size_t)G.vertices(); ++v) {
        std::vector<size_t> scan, got;
        for (size_t e = 0; e < el.size(); ++e) {
            if (el[e].first == v) scan.push_back(e);
            if (el[e].second == v) scan.push_back(e);
        }
        for (size_t i = 0; i < (size_t)G.num_neighbors((idx_t)v); ++i) got.push_back((size_t)G.in_edge((idx_t)v, (idx_t)i));
        EXPECT_EQ(got, scan) << "vertex " << v;
    }
}

}  // namespace

template <typename T> class Generators : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IdxTypes;
TYPED_TEST_SUITE(Generators, IdxTypes);

TYPED_TEST(Generators, ChainOfOneVertexHasNoEdge) {
    Chain<TypeParam> G(1);
    EXPECT_EQ((size_t)G.vertices(), 1u);
    EXPECT_EQ((size_t)G.edges(), 0u);
    EXPECT_EQ((size_t)G.num_neighbors(0), 0u);
}

TYPED_TEST(Generators, ChainOfNoVertexIsEmpty) {
    Chain<TypeParam> G(0);
    EXPECT_EQ((size_t)G.vertices(), 0u);
    EXPECT_EQ((size_t)G.edges(), 0u);
}

TYPED_TEST(Generators, ChainEdges) {
    Chain<TypeParam> G(5);
    EXPECT_EQ((size_t)G.vertices(), 5u);
    EXPECT_EQ(edgeList(G), (EL{{0, 1}, {1, 2}, {2, 3}, {3, 4}}));
    EXPECT_TRUE(G.myA);
    expectIncidenceMatchesScan(G);
}

TYPED_TEST(Generators, StarLeafFirstCentreSecondWithAGap) {
    Star<TypeParam> G(4, 1);
    EXPECT_EQ((size_t)G.vertices(), 4u);
    EXPECT_EQ(edgeList(G), (EL{{0, 1}, {2, 1}, {3, 1}}));
    expectIncidenceMatchesScan(G);
    Star<TypeParam> H(5, 0);
    EXPECT_EQ(edgeList(H), (EL{{1, 0}, {2, 0}, {3, 0}, {4, 0}}));
    expectIncidenceMatchesScan(H);
    Star<TypeParam> K(3, 2);
    EXPECT_EQ(edgeList(K), (EL{{0, 2}, {1, 2}}));
}

TYPED_TEST(Generators, StarWithCentreOutsideAsserts) {
    EXPECT_DEATH({ Star<TypeParam> G(3, 3); }, "Assertion `_c>=0 && _c<_n' failed");
}

TYPED_TEST(Generators, GridOfSideOneHasNoEdge) {
    Grid<TypeParam> G(1);
    EXPECT_EQ((size_t)G.vertices(), 1u);
    EXPECT_EQ((size_t)G.edges(), 0u);
    EXPECT_EQ((size_t)G.num_neighbors(0), 0u);
    // Side 0: 2*0*(0-1) is 0 in every width, not a wrapped count.
    Grid<TypeParam> H(0);
    EXPECT_EQ((size_t)H.vertices(), 0u);
    EXPECT_EQ((size_t)H.edges(), 0u);
}

TYPED_TEST(Generators, GridOfSideTwo) {
    Grid<TypeParam> G(2);
    EXPECT_EQ((size_t)G.vertices(), 4u);
    EXPECT_EQ(edgeList(G), (EL{{0, 2}, {0, 1}, {1, 3}, {2, 3}}));
    expectIncidenceMatchesScan(G);
}

TYPED_TEST(Generators, GridOfSideThreeAlternatesVerticalAndHorizontal) {
    Grid<TypeParam> G(3);
    EXPECT_EQ((size_t)G.vertices(), 9u);
    EXPECT_EQ((size_t)G.edges(), 12u);
    EXPECT_EQ(edgeList(G), (EL{{0, 3}, {0, 1}, {1, 4}, {1, 2}, {2, 5}, {3, 6}, {3, 4}, {4, 7}, {4, 5}, {5, 8}, {6, 7},
                               {7, 8}}));
    expectIncidenceMatchesScan(G);
}

TYPED_TEST(Generators, KnOfTwoIsOneEdge) {
    Kn<TypeParam> G(2, nullptr);
    EXPECT_EQ((size_t)G.vertices(), 2u);
    EXPECT_EQ(edgeList(G), (EL{{0, 1}}));
}

TYPED_TEST(Generators, KnEdgesInReverseLexicographicOrder) {
    Kn<TypeParam> G(4, nullptr);
    EXPECT_EQ(edgeList(G), (EL{{2, 3}, {1, 3}, {1, 2}, {0, 3}, {0, 2}, {0, 1}}));
    expectIncidenceMatchesScan(G);
    Kn<TypeParam> H(5, nullptr);
    EXPECT_EQ(edgeList(H),
              (EL{{3, 4}, {2, 4}, {2, 3}, {1, 4}, {1, 3}, {1, 2}, {0, 4}, {0, 3}, {0, 2}, {0, 1}}));
    expectIncidenceMatchesScan(H);
}

TYPED_TEST(Generators, KnOfZeroAndOneHaveNoEdge) {
    Kn<TypeParam> G(0, nullptr);
    EXPECT_EQ((size_t)G.edges(), 0u);
    Kn<TypeParam> H(1, nullptr);
    EXPECT_EQ((size_t)H.vertices(), 1u);
    EXPECT_EQ((size_t)H.edges(), 0u);
}

TYPED_TEST(Generators, RBMOfTwoLayers) {
    RBMGraph<TypeParam> G(std::vector<size_t>{2, 3});
    EXPECT_EQ((size_t)G.vertices(), 5u);
    EXPECT_EQ(edgeList(G), (EL{{0, 2}, {0, 3}, {0, 4}, {1, 2}, {1, 3}, {1, 4}}));
    expectIncidenceMatchesScan(G);
}

TYPED_TEST(Generators, RBMOfThreeLayers) {
    RBMGraph<TypeParam> G(std::vector<size_t>{2, 3, 1});
    EXPECT_EQ((size_t)G.vertices(), 6u);
    EXPECT_EQ(edgeList(G), (EL{{0, 2}, {0, 3}, {0, 4}, {1, 2}, {1, 3}, {1, 4}, {2, 5}, {3, 5}, {4, 5}}));
    expectIncidenceMatchesScan(G);
}

TYPED_TEST(Generators, RBMLeadingEmptyLayerMakesTheNextOneFirst) {
    RBMGraph<TypeParam> G(std::vector<size_t>{0, 2, 3});
    EXPECT_EQ((size_t)G.vertices(), 5u);
    EXPECT_EQ(edgeList(G), (EL{{0, 2}, {0, 3}, {0, 4}, {1, 2}, {1, 3}, {1, 4}}));
}

TYPED_TEST(Generators, RBMEmptyMiddleLayerCutsTheConnection) {
    RBMGraph<TypeParam> G(std::vector<size_t>{2, 0, 3});
    EXPECT_EQ((size_t)G.vertices(), 5u);
    EXPECT_EQ((size_t)G.edges(), 0u);
}

TYPED_TEST(Generators, RBMCounts) {
    typedef RBMGraph<TypeParam> R;
    EXPECT_EQ((size_t)R::countNodes({3, 4, 5}), 12u);
    EXPECT_EQ((size_t)R::countEdges({3, 4, 5}), 32u);
    EXPECT_EQ((size_t)R::countEdges({7}), 0u);
}

TEST(GeneratorsNarrow, RBMCountsWrapInEightBits) {
    typedef RBMGraph<unsigned char> R;
    EXPECT_EQ((size_t)R::countNodes({200, 100}), 44u);
    EXPECT_EQ((size_t)R::countEdges({20, 20}), 144u);  // 400 mod 256
    // The graph holds the first 144 edges in the usual order.
    R G(std::vector<size_t>{20, 20});
    EXPECT_EQ((size_t)G.edges(), 144u);
    unsigned char v, u;
    G.edge(143, v, u);
    EXPECT_EQ((size_t)v, 7u);
    EXPECT_EQ((size_t)u, 23u);
}

TEST(GeneratorsNarrow, GridCountsWrapInEightBits) {
    // 17 * 17 = 289 wraps to 33 vertices.
    typedef Grid<unsigned char> Gr;
    Gr G(17);
    EXPECT_EQ((size_t)G.vertices(), 33u);
}

TEST(GeneratorsLarge, KnMatchesThePlaceInReverseLexicographicOrder) {
    const unsigned int n = 60;
    Kn<unsigned int> G(n, nullptr);
    const size_t m = (size_t)n * (n - 1) / 2;
    ASSERT_EQ((size_t)G.edges(), m);
    EL lex;
    for (size_t i = 0; i < n; ++i)
        for (size_t j = i + 1; j < n; ++j) lex.push_back({i, j});
    const EL el = edgeList(G);
    for (size_t e = 0; e < m; ++e) ASSERT_EQ(el[e], lex[m - 1 - e]) << "edge " << e;
    expectIncidenceMatchesScan(G);
}

namespace {
std::vector<size_t> g_done, g_total;
std::vector<std::string> g_text;
void recordProgress(size_t done, size_t total, const char* text) {
#pragma omp critical(kn_progress_test)
    {
        g_done.push_back(done);
        g_total.push_back(total);
        g_text.push_back(text);
    }
}
}  // namespace

TEST(GeneratorsProgress, KnReportsEachEdgeOnOneThread) {
    g_done.clear();
    g_total.clear();
    g_text.clear();
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    Kn<unsigned short> G(5, &recordProgress);
    omp_set_num_threads(before);
    EXPECT_EQ(g_done, (std::vector<size_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(g_total, std::vector<size_t>(10, 9));
    EXPECT_EQ(g_text, std::vector<std::string>(10, "GRAPH"));
}

TEST(GeneratorsProgress, KnReportsOnlyFromTheFirstThread) {
    g_done.clear();
    g_total.clear();
    g_text.clear();
    const int before = omp_get_max_threads();
    omp_set_num_threads(2);
    Kn<unsigned int> G(20, &recordProgress);
    omp_set_num_threads(before);
    // Thread 0 takes the first half of the 190 edges under static division.
    EXPECT_EQ(g_done.size(), 95u);
    // Both halves are filled: edge e is the pair at place 189 - e of the
    // lexicographic order.
    EL lex;
    for (size_t i = 0; i < 20; ++i)
        for (size_t j = i + 1; j < 20; ++j) lex.push_back({i, j});
    std::reverse(lex.begin(), lex.end());
    EXPECT_EQ(edgeList(G), lex);
    for (size_t i = 0; i < g_done.size(); ++i) {
        EXPECT_LE(g_done[i], 189u);
        EXPECT_EQ(g_total[i], 189u);
        EXPECT_EQ(g_text[i], "GRAPH");
    }
}

TEST(GeneratorsProgress, KnWithoutCallbackIsFine) {
    Kn<unsigned long> G(3, nullptr);
    EXPECT_EQ(edgeList(G), (EL{{1, 2}, {0, 2}, {0, 1}}));
}

TEST(GeneratorsOwnership, EveryGeneratorOwnsItsList) {
    Chain<unsigned int> c(3);
    Star<unsigned int> s(3, 0);
    Grid<unsigned int> g(2);
    Kn<unsigned int> k(3, nullptr);
    RBMGraph<unsigned int> r(std::vector<size_t>{1, 1});
    for (const Graph<unsigned int>* G : std::vector<const Graph<unsigned int>*>{&c, &s, &g, &k, &r}) {
        EXPECT_TRUE(G->myA);
        EXPECT_NE(G->getA(), nullptr);
    }
}

TEST(GeneratorsMem, GeneratorsReportTheGraphFigure) {
    Grid<unsigned int> G(3);
    EXPECT_EQ(G.mem(), (4 * 12 + 9 + 3) * sizeof(unsigned int));
}
