// The edge-list graph: construction from a dense matrix, from a list in place
// and from the binary form, the incidence index, and the adjacency text reader.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZGRAPH>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

using namespace QZ;
using qztest::tmpPath;
using qztest::writeFile;

namespace {

template <typename idx_t> std::vector<std::pair<size_t, size_t>> edgeList(const AbstractGraph<idx_t>& G) {
    std::vector<std::pair<size_t, size_t>> r;
    for (size_t e = 0; e < (size_t)G.edges(); ++e) {
        idx_t v, u;
        G.edge((idx_t)e, v, u);
        r.push_back({(size_t)v, (size_t)u});
    }
    return r;
}

template <typename idx_t> std::vector<size_t> incidence(const AbstractGraph<idx_t>& G, idx_t v) {
    std::vector<size_t> r;
    for (size_t i = 0; i < (size_t)G.num_neighbors(v); ++i) r.push_back((size_t)G.in_edge(v, (idx_t)i));
    return r;
}

// A list of heap edges from the C allocator, as the graph expects to own it.
template <typename idx_t> idx_t* cList(const std::vector<size_t>& flat) {
    idx_t* a = (idx_t*)std::malloc(flat.size() * sizeof(idx_t) + 1);
    for (size_t i = 0; i < flat.size(); ++i) a[i] = (idx_t)flat[i];
    return a;
}

typedef std::vector<std::pair<size_t, size_t>> EL;

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
    Graph<idx_t> G(true, cList<idx_t>({0, 1}), 2, 1);
    const uint8_t expected = sizeof(idx_t) == 1 ? 0 : sizeof(idx_t) == 2 ? 1 : sizeof(idx_t) == 4 ? 2 : 3;
    EXPECT_EQ(G.itype, expected);
}

TYPED_TEST(GraphCoreTyped, DegreeOfTheLastVertexComesFromTheEdgeCount) {
    typedef TypeParam idx_t;
    Graph<idx_t> G(true, cList<idx_t>({0, 3, 1, 3, 2, 3, 0, 1}), 4, 4);
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
    Graph<idx_t> G(true, cList<idx_t>({2, 0, 0, 4, 2, 4}), 5, 3);
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
    Graph<idx_t> G(true, cList<idx_t>({2, 0, 1, 1, 1, 0}), 3, 3);
    EXPECT_EQ(edgeList(G), (EL{{2, 0}, {1, 1}, {1, 0}}));
    EXPECT_EQ(incidence<idx_t>(G, 1), (std::vector<size_t>{1, 1, 2}));
    EXPECT_EQ(incidence<idx_t>(G, 0), (std::vector<size_t>{0, 2}));
}

TYPED_TEST(GraphCoreTyped, MemoryFigure) {
    typedef TypeParam idx_t;
    Graph<idx_t> G(true, cList<idx_t>({0, 1, 1, 2}), 5, 2);
    EXPECT_EQ(G.mem(), (4 * 2 + 5 + 3) * sizeof(idx_t));
}

TYPED_TEST(GraphCoreTyped, StoreAndStreamConstructorRoundTrip) {
    typedef TypeParam idx_t;
    Graph<idx_t> G(true, cList<idx_t>({3, 0, 1, 2, 0, 1, 2, 3}), 4, 4);
    const std::string f = tmpPath(std::string("graph_roundtrip_") + std::to_string(sizeof(idx_t)));
    G.store(f);

    // The file is n, m and the list, nothing else.
    const std::string bytes = qztest::readFile(f);
    ASSERT_EQ(bytes.size(), (2 + 8) * sizeof(idx_t));
    idx_t head[10];
    std::memcpy(head, bytes.data(), bytes.size());
    EXPECT_EQ((size_t)head[0], 4u);
    EXPECT_EQ((size_t)head[1], 4u);
    EXPECT_EQ((size_t)head[2], 3u);
    EXPECT_EQ((size_t)head[3], 0u);

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
    Graph<idx_t> G(true, cList<idx_t>({0, 1}), 2, 1);
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
    Graph<idx_t> G(true, cList<idx_t>({0, 1}), 2, 1);
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
    Graph<unsigned short> G(true, cList<unsigned short>({1, 2, 0, 2}), 3, 2);
    const AbstractGraph<unsigned short>& I = G;
    std::stringstream a, b;
    I.store(a);
    G.store(b);
    EXPECT_EQ(a.str(), b.str());
    const unsigned short expect[6] = {3, 2, 1, 2, 0, 2};
    EXPECT_EQ(a.str(), std::string(reinterpret_cast<const char*>(expect), sizeof(expect)));
}
