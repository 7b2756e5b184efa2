// The edge-list graph: construction from a dense matrix, from a list in place
// and from the binary form, the incidence index, and the adjacency text reader.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

using namespace QZ;
using qztest::edgeList;
using qztest::incidence;
using qztest::tmpPath;
using qztest::writeFile;

namespace {

typedef qztest::EdgeList EL;

}  // namespace

template <typename T> class GraphCoreTyped : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IdxTypes;
TYPED_TEST_SUITE(GraphCoreTyped, IdxTypes);

TYPED_TEST(GraphCoreTyped, TriangleFromDenseMatrixKeepsRowMajorOrder) {
    typedef TypeParam idx_t;
    const idx_t M[9] = {0, 1, 1, 1, 0, 1, 1, 1, 0};
    Graph<idx_t> G(M, 3, 3);
    EXPECT_EQ(edgeList(G), (EL{{0, 1}, {0, 2}, {1, 2}}));
    EXPECT_EQ((size_t)G.in_edge(2, 0), 1u);
    EXPECT_EQ((size_t)G.in_edge(2, 1), 2u);
    EXPECT_EQ(incidence<idx_t>(G, 0), (std::vector<size_t>{0, 1}));
    EXPECT_EQ(incidence<idx_t>(G, 1), (std::vector<size_t>{0, 2}));
}

TYPED_TEST(GraphCoreTyped, DenseMatrixReadsOnlyAboveTheDiagonal) {
    typedef TypeParam idx_t;
    // Lower triangle and diagonal full of non-zeros, upper triangle has one edge.
    const idx_t M[9] = {7, 0, 1, 5, 9, 0, 3, 4, 2};
    Graph<idx_t> G(M, 3, 1);
    EXPECT_EQ(edgeList(G), (EL{{0, 2}}));
}

TYPED_TEST(GraphCoreTyped, TypeCodeOfTheIndexWidth) {
    typedef TypeParam idx_t;
    auto Gp = qztest::makeGraph<idx_t>(2, {{0, 1}});
    Graph<idx_t>& G = *Gp;
    const uint8_t expected = sizeof(idx_t) == 1 ? 0 : sizeof(idx_t) == 2 ? 1 : sizeof(idx_t) == 4 ? 2 : 3;
    EXPECT_EQ(G.itype, expected);
}

TYPED_TEST(GraphCoreTyped, DegreeOfTheLastVertexComesFromTheEdgeCount) {
    typedef TypeParam idx_t;
    auto Gp = qztest::makeGraph<idx_t>(4, {{0, 3}, {1, 3}, {2, 3}, {0, 1}});
    Graph<idx_t>& G = *Gp;
    // voff of the last vertex is 5, and there is no voff[4]: 2*4 - 5 = 3.
    EXPECT_EQ((size_t)G.getvoff()[3], 5u);
    EXPECT_EQ((size_t)G.num_neighbors(3), 3u);
    EXPECT_EQ(incidence<idx_t>(G, 3), (std::vector<size_t>{0, 1, 2}));
    EXPECT_EQ((size_t)G.num_neighbors(0), 2u);
    EXPECT_EQ(incidence<idx_t>(G, 0), (std::vector<size_t>{0, 3}));
}

TYPED_TEST(GraphCoreTyped, IsolatedVertexHasAnEmptyRun) {
    typedef TypeParam idx_t;
    // Vertex 1 in the middle and vertex 3 at the end are isolated.
    auto Gp = qztest::makeGraph<idx_t>(5, {{2, 0}, {0, 4}, {2, 4}});
    Graph<idx_t>& G = *Gp;
    EXPECT_EQ((size_t)G.num_neighbors(1), 0u);
    EXPECT_EQ(G.getvoff()[1], G.getvoff()[2]);
    EXPECT_EQ((size_t)G.num_neighbors(3), 0u);
    EXPECT_EQ(G.getvoff()[3], G.getvoff()[4]);
    EXPECT_EQ((size_t)G.getvoff()[2], 2u);
    // The runs are the edge numbers in ascending order.
    const idx_t* Nv = G.getNv();
    std::vector<size_t> all(Nv, Nv + 6);
    EXPECT_EQ(all, (std::vector<size_t>{0, 1, 0, 2, 1, 2}));
}

TYPED_TEST(GraphCoreTyped, OrientationIsKeptAndSelfLoopCountsTwice) {
    typedef TypeParam idx_t;
    auto Gp = qztest::makeGraph<idx_t>(3, {{2, 0}, {1, 1}, {1, 0}});
    Graph<idx_t>& G = *Gp;
    EXPECT_EQ(edgeList(G), (EL{{2, 0}, {1, 1}, {1, 0}}));
    EXPECT_EQ(incidence<idx_t>(G, 1), (std::vector<size_t>{1, 1, 2}));
    EXPECT_EQ(incidence<idx_t>(G, 0), (std::vector<size_t>{0, 2}));
}

TYPED_TEST(GraphCoreTyped, MemoryFigure) {
    typedef TypeParam idx_t;
    auto Gp = qztest::makeGraph<idx_t>(5, {{0, 1}, {1, 2}});
    Graph<idx_t>& G = *Gp;
    EXPECT_EQ(G.mem(), (4 * 2 + 5 + 3) * sizeof(idx_t));
}

TYPED_TEST(GraphCoreTyped, StoreAndStreamConstructorRoundTrip) {
    typedef TypeParam idx_t;
    auto Gp = qztest::makeGraph<idx_t>(4, {{3, 0}, {1, 2}, {0, 1}, {2, 3}});
    Graph<idx_t>& G = *Gp;
    const std::string f = tmpPath(std::string("graph_roundtrip_") + std::to_string(sizeof(idx_t)));
    G.store(f);

    // The file is n, m and the list, nothing else.
    const std::string bytes = qztest::readFile(f);
    ASSERT_EQ(bytes.size(), (2 + 8) * sizeof(idx_t));
    idx_t head[10];
    std::memcpy(head, bytes.data(), bytes.size());
    EXPECT_EQ(std::vector<size_t>(head, head + 10), (std::vector<size_t>{4, 4, 3, 0, 1, 2, 0, 1, 2, 3}));

    std::ifstream in(f, std::ios::binary);
    Graph<idx_t> H(in, true);
    EXPECT_FALSE(in.is_open());
    EXPECT_EQ((size_t)H.vertices(), 4u);
    EXPECT_EQ((size_t)H.edges(), 4u);
    EXPECT_EQ(edgeList(H), (EL{{3, 0}, {1, 2}, {0, 1}, {2, 3}}));
    for (idx_t v = 0; v < 4; ++v) EXPECT_EQ(incidence<idx_t>(H, v), incidence<idx_t>(G, v));
}

TYPED_TEST(GraphCoreTyped, StreamConstructorLeavesTheStreamBehindTheList) {
    typedef TypeParam idx_t;
    auto Gp = qztest::makeGraph<idx_t>(2, {{0, 1}});
    Graph<idx_t>& G = *Gp;
    const std::string f = tmpPath(std::string("graph_trailing_") + std::to_string(sizeof(idx_t)));
    {
        std::ofstream out(f, std::ios::binary | std::ios::trunc);
        G.store(out);
        out << "tail";
    }
    std::ifstream in(f, std::ios::binary);
    Graph<idx_t> H(in, false);
    ASSERT_TRUE(in.is_open());
    std::string rest;
    in >> rest;
    EXPECT_EQ(rest, "tail");
    EXPECT_EQ(edgeList(H), (EL{{0, 1}}));
}

TYPED_TEST(GraphCoreTyped, ReadNAndReadMTakeOneIndexWidthEach) {
    typedef TypeParam idx_t;
    const idx_t vals[3] = {(idx_t)7, (idx_t)9, (idx_t)11};
    std::stringstream ss;
    ss.write(reinterpret_cast<const char*>(vals), sizeof(vals));
    EXPECT_EQ((size_t)Graph<idx_t>::read_n(ss), 7u);
    EXPECT_EQ((size_t)Graph<idx_t>::read_m(ss), 9u);
    EXPECT_EQ((size_t)Graph<idx_t>::read_n(ss), 11u);
}

TYPED_TEST(GraphCoreTyped, BorrowedListIsUsedInPlace) {
    typedef TypeParam idx_t;
    std::vector<idx_t> el = {1, 0, 2, 1};
    {
        Graph<idx_t> G(false, el.data(), 3, 2);
        EXPECT_FALSE(G.myA);
        EXPECT_EQ(G.getA(), el.data());
        EXPECT_EQ(edgeList(G), (EL{{1, 0}, {2, 1}}));
    }
    // The graph is gone and the host's list is intact (freeing a vector's
    // storage would have been fatal).
    EXPECT_EQ((size_t)el[2], 2u);
}

TYPED_TEST(GraphCoreTyped, ResetForgetsArraysWithoutFreeing) {
    typedef TypeParam idx_t;
    auto Gp = qztest::makeGraph<idx_t>(2, {{0, 1}});
    Graph<idx_t>& G = *Gp;
    idx_t *A = G.getA(), *Nv = G.getNv(), *voff = G.getvoff();
    G.reset();
    EXPECT_EQ(G.getA(), nullptr);
    EXPECT_EQ(G.getNv(), nullptr);
    EXPECT_EQ(G.getvoff(), nullptr);
    // Still ours to read and free.
    EXPECT_EQ((size_t)A[1], 1u);
    std::free(A);
    std::free(Nv);
    std::free(voff);
}

// What the adjacency reader makes of a text: sizes and the dense matrix.
struct Adj {
    size_t n, m;
    std::vector<size_t> dense;
    std::vector<std::pair<size_t, size_t>> edges;
};

template <typename idx_t> Adj readAdj(const std::string& text, char sep = ',') {
    std::stringstream ss(text);
    idx_t* A = nullptr;
    idx_t n = 0, m = 0;
    adjFromCSV<idx_t>(ss, A, n, m, sep);
    Adj r{(size_t)n, (size_t)m, std::vector<size_t>(A, A + (size_t)n * n), {}};
    Graph<idx_t> G(A, n, m);
    delete[] A;
    r.edges = edgeList(G);
    return r;
}

TYPED_TEST(GraphCoreTyped, AdjacencyFileWithLongerSecondLineThrows) {
    try {
        readAdj<TypeParam>("0,1\n1,0,0\n");
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "wrong adjancency format");
    }
}

// Widths that parse numbers: 16, 32 and 64 bits.
template <typename T> class AdjNumeric : public ::testing::Test {};
typedef ::testing::Types<unsigned short, unsigned int, unsigned long> NumericIdx;
TYPED_TEST_SUITE(AdjNumeric, NumericIdx);

TYPED_TEST(AdjNumeric, AdjacencyFileIsReadThroughTheFileName) {
    typedef TypeParam idx_t;
    const std::string f = tmpPath(std::string("adj_file_") + std::to_string(sizeof(idx_t)));
    writeFile(f, "0;1;1\n1;0;0\n1;0;0\n");
    idx_t* A = nullptr;
    idx_t n = 0, m = 0;
    adjFromCSV<idx_t>(f, A, n, m, ';');
    EXPECT_EQ((size_t)n, 3u);
    EXPECT_EQ((size_t)m, 2u);
    std::vector<size_t> dense(A, A + 9);
    delete[] A;
    EXPECT_EQ(dense, (std::vector<size_t>{0, 1, 1, 1, 0, 0, 1, 0, 0}));
}

TYPED_TEST(AdjNumeric, AsymmetricFileCountsOnlyCellsAboveTheDiagonal) {
    // Upper: (0,2) only. Lower: (1,0), (2,1) set. Diagonal: set.
    const Adj r = readAdj<TypeParam>("1,0,1\n1,1,0\n0,1,1\n");
    EXPECT_EQ(r.n, 3u);
    EXPECT_EQ(r.m, 1u);
    // Symmetric result with nothing on the diagonal.
    EXPECT_EQ(r.dense, (std::vector<size_t>{0, 0, 1, 0, 0, 0, 1, 0, 0}));
    EXPECT_EQ(r.edges, (EL{{0, 2}}));
}

TYPED_TEST(AdjNumeric, EmptyLinesAreSkippedWhereverTheyStand) {
    const Adj r = readAdj<TypeParam>("\n0,1,0\n\n\n1,0,1\n\n0,1,0\n\n");
    EXPECT_EQ(r.n, 3u);
    EXPECT_EQ(r.m, 2u);
    EXPECT_EQ(r.edges, (EL{{0, 1}, {1, 2}}));
}

TYPED_TEST(AdjNumeric, LinesOfEqualLengthAreComparedNotCells) {
    // A proper matrix whose cells differ in width fails...
    EXPECT_THROW(readAdj<TypeParam>("0,1,10\n1,0,1\n10,1,0\n"), std::out_of_range);
    // ...and single digits pass.
    EXPECT_EQ(readAdj<TypeParam>("0,7\n7,0\n").m, 1u);
}

TEST(AdjEightBit, EveryCellWithACharacterAboveTheDiagonalIsAnEdge) {
    // One-character extraction: the cell "0" is the character '0', not zero.
    const Adj r = readAdj<unsigned char>("0,0,0\n0,0,0\n0,0,0\n");
    EXPECT_EQ(r.n, 3u);
    EXPECT_EQ(r.m, 3u);
    EXPECT_EQ(r.edges, (EL{{0, 1}, {0, 2}, {1, 2}}));
}

TEST(AdjEightBit, SameFileInSixteenBitsHasNoEdge) {
    const Adj r = readAdj<unsigned short>("0,0,0\n0,0,0\n0,0,0\n");
    EXPECT_EQ(r.n, 3u);
    EXPECT_EQ(r.m, 0u);
}

TYPED_TEST(AdjNumeric, LastLineWithoutANewlineIsRead) {
    const Adj r = readAdj<TypeParam>("0,1,1\n1,0,1\n1,1,0");
    EXPECT_EQ(r.n, 3u);
    EXPECT_EQ(r.edges, (EL{{0, 1}, {0, 2}, {1, 2}}));
}

TYPED_TEST(AdjNumeric, NonZeroValuesOtherThanOneAreEdges) {
    // Values other than 1 count as edges; the dense result holds 1.
    const Adj r = readAdj<TypeParam>("0,3,0,0\n3,0,0,2\n0,0,0,0\n0,2,0,0\n");
    EXPECT_EQ(r.n, 4u);
    EXPECT_EQ(r.m, 2u);
    EXPECT_EQ(r.dense, (std::vector<size_t>{0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0}));
    EXPECT_EQ(r.edges, (EL{{0, 1}, {1, 3}}));
}

TEST(AdjStream, AStreamThatNeverOpenedEndsTheReadAtOnce) {
    // Neither at its end nor readable: the reader stops instead of looping.
    std::ifstream in(tmpPath("adj_no_such_file_at_all.csv") + "/x");
    ASSERT_FALSE(in.is_open());
    unsigned int* A = nullptr;
    unsigned int n = 0, m = 7;
    adjFromCSV<unsigned int>(in, A, n, m, ',');
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(m, 0u);
    delete[] A;
}

TEST(AdjRows, RowCountIsNotComparedWithTheColumnCount) {
    const Adj r = readAdj<unsigned int>("0,1\n1,0\n0,0\n");
    EXPECT_EQ(r.n, 2u);
    EXPECT_EQ(r.m, 1u);
}

TEST(GraphCoreEmpty, NoVerticesNoEdges) {
    Graph<unsigned int> G(true, (unsigned int*)std::malloc(1), 0, 0);
    EXPECT_EQ(G.vertices(), 0u);
    EXPECT_EQ(G.edges(), 0u);
    EXPECT_EQ(G.mem(), 3 * sizeof(unsigned int));
}

TEST(GraphCoreStore, StoreThroughTheInterfaceWritesTheSameBytes) {
    auto Gp = qztest::makeGraph<unsigned short>(3, {{1, 2}, {0, 2}});
    Graph<unsigned short>& G = *Gp;
    const AbstractGraph<unsigned short>& I = G;
    std::stringstream a, b;
    I.store(a);
    G.store(b);
    EXPECT_EQ(a.str(), b.str());
    const unsigned short expect[6] = {3, 2, 1, 2, 0, 2};
    EXPECT_EQ(a.str(), std::string(reinterpret_cast<const char*>(expect), sizeof(expect)));
}
