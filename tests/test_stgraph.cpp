// The spatio-temporal graph: numbering of temporal, diagonal and spatial edges,
// incidence computed on the fly, times of edges and their swapping, and the
// single-precision reciprocal that the numbering goes through.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/graph/generators>
#include <QZ/graph/stgraph>

#include <algorithm>
#include <utility>
#include <memory>
#include <sstream>
#include <vector>

using namespace QZ;

namespace {

typedef qztest::EdgeList EL;
using qztest::edgeList;
using qztest::incidence;

// A path 0 - 1 - ... - m whose edge b is (b, b+1), of any size without
// memory: enough for the numbering at large edge numbers.
template <typename idx_t> class PathOracle : public AbstractGraph<idx_t> {
public:
    idx_t M;
    explicit PathOracle(idx_t m) : M(m) {}
    idx_t vertices() const override { return (idx_t)(M + 1); }
    idx_t edges() const override { return M; }
    idx_t num_neighbors(const idx_t& v) const override { return (v == 0 || v == M) ? 1 : 2; }
    void edge(const idx_t& e, idx_t& v, idx_t& u) const override {
        v = e;
        u = (idx_t)(e + 1);
    }
    idx_t in_edge(const idx_t& v, const idx_t& i) const override { return (v == 0) ? 0 : (idx_t)(v - 1 + i); }
    void store(const std::string&) const override {}
    void store(std::ostream&) const override {}
    size_t mem() const override { return 0; }
};

}  // namespace

template <typename T> class STGraphTyped : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> IdxTypes;
TYPED_TEST_SUITE(STGraphTyped, IdxTypes);

TYPED_TEST(STGraphTyped, OneBaseEdgeTwoSlices) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(2);
    STGraph<idx_t> G(&base, 2);
    EXPECT_EQ((size_t)G.vertices(), 4u);
    EXPECT_EQ((size_t)G.edges(), 6u);
    EXPECT_EQ(edgeList(G), (EL{{0, 2}, {1, 3}, {0, 1}, {0, 3}, {2, 1}, {2, 3}}));
}

TYPED_TEST(STGraphTyped, OneBaseEdgeTwoSlicesIncidenceOfVertexZero) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(2);
    STGraph<idx_t> G(&base, 2);
    EXPECT_EQ((size_t)G.num_neighbors(0), 3u);
    EXPECT_EQ((size_t)G.in_edge(0, 0), 2u);
    EXPECT_EQ((size_t)G.in_edge(0, 1), 3u);
    EXPECT_EQ((size_t)G.in_edge(0, 2), 0u);
    EXPECT_EQ(incidence<idx_t>(G, 1), (std::vector<size_t>{2, 4, 1}));
    EXPECT_EQ(incidence<idx_t>(G, 2), (std::vector<size_t>{5, 4, 0}));
    EXPECT_EQ(incidence<idx_t>(G, 3), (std::vector<size_t>{5, 3, 1}));
}

TYPED_TEST(STGraphTyped, ThreeSlicesEdgeListAndIncidence) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(2);
    STGraph<idx_t> G(&base, 3);
    EXPECT_EQ((size_t)G.edges(), 11u);
    EXPECT_EQ(edgeList(G),
              (EL{{0, 2}, {2, 4}, {1, 3}, {3, 5}, {0, 1}, {0, 3}, {2, 1}, {2, 3}, {2, 5}, {4, 3}, {4, 5}}));
    // Spatial, diagonals back, diagonals forward, temporal forward, temporal back.
    EXPECT_EQ(incidence<idx_t>(G, 0), (std::vector<size_t>{4, 5, 0}));
    EXPECT_EQ(incidence<idx_t>(G, 1), (std::vector<size_t>{4, 6, 2}));
    EXPECT_EQ(incidence<idx_t>(G, 2), (std::vector<size_t>{7, 6, 8, 1, 0}));
    EXPECT_EQ(incidence<idx_t>(G, 3), (std::vector<size_t>{7, 5, 9, 3, 2}));
    EXPECT_EQ(incidence<idx_t>(G, 4), (std::vector<size_t>{10, 9, 1}));
    EXPECT_EQ(incidence<idx_t>(G, 5), (std::vector<size_t>{10, 8, 3}));
}

TYPED_TEST(STGraphTyped, IncidenceBeyondTheDegreeIsAllOnes) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(2);
    STGraph<idx_t> G(&base, 3);
    const idx_t none = (idx_t)~(idx_t)0;
    EXPECT_EQ(G.in_edge(2, 5), none);
    EXPECT_EQ(G.in_edge(4, 3), none);
}

TYPED_TEST(STGraphTyped, EdgeTimes) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(2);
    STGraph<idx_t> G(&base, 3);
    std::vector<size_t> times;
    for (idx_t e = 0; e < G.edges(); ++e) times.push_back((size_t)G.edge_time(e));
    EXPECT_EQ(times, (std::vector<size_t>{0, 1, 0, 1, 0, 0, 0, 1, 1, 1, 2}));
}

TYPED_TEST(STGraphTyped, LastBlockEdgeTimeIsTheLastSlice) {
    typedef TypeParam idx_t;
    Grid<idx_t> base(2);
    STGraph<idx_t> G(&base, 4);
    // P = 3*4 = 12, B = 9, m = 4: the last block is 48 to 51.
    ASSERT_EQ((size_t)G.edges(), 52u);
    for (idx_t e = 48; e < 52; ++e) EXPECT_EQ((size_t)G.edge_time(e), 3u);
}

TYPED_TEST(STGraphTyped, EdgeTimeSwap) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(2);
    STGraph<idx_t> G(&base, 3);
    const idx_t none = (idx_t)~(idx_t)0;
    // Temporal block: edge of base vertex 1 at time 1 taken to time 0.
    EXPECT_EQ((size_t)G.edge_time_swap(3, 0), 2u);
    EXPECT_EQ((size_t)G.edge_time_swap(0, 1), 1u);
    // The time is not checked: base vertex 1 "at time 7".
    EXPECT_EQ((size_t)G.edge_time_swap(2, 7), 9u);
    // Middle block: a forward diagonal at time 0 taken to time 1, the same kind.
    EXPECT_EQ((size_t)G.edge_time_swap(5, 1), 8u);
    EXPECT_EQ((size_t)G.edge_time_swap(9, 0), 6u);
    EXPECT_EQ((size_t)G.edge_time_swap(7, 0), 4u);
    // A diagonal has no counterpart at the last slice.
    EXPECT_EQ(G.edge_time_swap(8, 2), none);
    // A spatial edge taken to the last slice: P - B*m + b, wrapped, which is
    // not the last-block edge 10.
    EXPECT_EQ(G.edge_time_swap(7, 2), (idx_t)(idx_t(4) - idx_t(6)));
    EXPECT_EQ(G.edge_time_swap(4, 2), (idx_t)~(idx_t)1);
    // Last block: to earlier slices the spatial edge of that time, else itself.
    EXPECT_EQ((size_t)G.edge_time_swap(10, 0), 4u);
    EXPECT_EQ((size_t)G.edge_time_swap(10, 1), 7u);
    EXPECT_EQ((size_t)G.edge_time_swap(10, 2), 10u);
}

TYPED_TEST(STGraphTyped, LastBlockSwappedToTheLastSliceIsItself) {
    typedef TypeParam idx_t;
    Grid<idx_t> base(2);
    STGraph<idx_t> G(&base, 4);
    for (idx_t e = 48; e < 52; ++e) EXPECT_EQ(G.edge_time_swap(e, 3), e);
}

TYPED_TEST(STGraphTyped, StoreWritesOnlyTheBaseGraph) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(3);
    STGraph<idx_t> G(&base, 5);
    std::stringstream a;
    G.store(a);
    const idx_t expect[6] = {3, 2, 0, 1, 1, 2};
    EXPECT_EQ(a.str(), std::string(reinterpret_cast<const char*>(expect), sizeof(expect)));

    const std::string f = qztest::tmpPath(std::string("stgraph_store_") + std::to_string(sizeof(idx_t)));
    G.store(f);
    EXPECT_EQ(qztest::readFile(f), a.str());
}

TYPED_TEST(STGraphTyped, SizesAndAccessors) {
    typedef TypeParam idx_t;
    Grid<idx_t> base(3);
    STGraph<idx_t> G(&base, 4);
    EXPECT_EQ((size_t)G.vertices(), 36u);
    // m*T + (T-1)*(n + 2m) = 12*4 + 3*(9 + 24)
    EXPECT_EQ((size_t)G.edges(), 147u);
    EXPECT_EQ(G.base(), &base);
    EXPECT_EQ((size_t)G.slices(), 4u);
    EXPECT_EQ((size_t)G.s_vertex(22), 4u);
    EXPECT_EQ((size_t)G.time(22), 2u);
    EXPECT_EQ((size_t)G.st_vertex(4, 2), 22u);
    EXPECT_EQ(G.mem(), base.mem() + sizeof(idx_t) + 8);
    EXPECT_EQ(G.Tm1inv, (float)(1.0 / 3.0));
    EXPECT_EQ(G.itype, base.itype);
}

TYPED_TEST(STGraphTyped, DegreesBySlice) {
    typedef TypeParam idx_t;
    Grid<idx_t> base(3);
    STGraph<idx_t> G(&base, 4);
    // Base vertex 4 has degree 4, vertex 0 degree 2.
    EXPECT_EQ((size_t)G.num_neighbors(4), 9u);
    EXPECT_EQ((size_t)G.num_neighbors(9 + 4), 14u);
    EXPECT_EQ((size_t)G.num_neighbors(27 + 4), 9u);
    EXPECT_EQ((size_t)G.num_neighbors(18 + 0), 8u);
}

TYPED_TEST(STGraphTyped, IncidenceMatchesAScanOfTheEdgeList) {
    typedef TypeParam idx_t;
    Grid<idx_t> grid(3);
    Star<idx_t> star(4, 2);
    RBMGraph<idx_t> rbm(std::vector<size_t>{2, 2});
    const AbstractGraph<idx_t>* bases[3] = {&grid, &star, &rbm};
    for (const AbstractGraph<idx_t>* b : bases) {
        for (idx_t T : {(idx_t)2, (idx_t)3, (idx_t)5}) {
            STGraph<idx_t> G(const_cast<AbstractGraph<idx_t>*>(b), T);
            const EL el = edgeList(G);
            // Every edge is a spatial edge in a slice or joins adjacent slices.
            for (const auto& p : el) {
                const size_t n = b->vertices();
                const size_t ta = p.first / n, tb = p.second / n;
                EXPECT_LE(std::max(ta, tb) - std::min(ta, tb), 1u);
            }
            for (size_t v = 0; v < (size_t)G.vertices(); ++v) {
                std::vector<size_t> scan;
                for (size_t e = 0; e < el.size(); ++e)
                    if (el[e].first == v || el[e].second == v) scan.push_back(e);
                std::vector<size_t> got = incidence<idx_t>(G, (idx_t)v);
                std::sort(got.begin(), got.end());
                EXPECT_EQ(got, scan) << "T " << (size_t)T << " vertex " << v;
            }
        }
    }
}

// The order of a vertex's incidences, found from the edge list alone: spatial
// edges, diagonals to the slice before, diagonals to the slice after, the
// temporal edge forward, the temporal edge back; within a group of edges of
// one base edge, the order of that base edge at the base vertex.
TYPED_TEST(STGraphTyped, IncidenceOrderFollowsTheGroups) {
    typedef TypeParam idx_t;
    Grid<idx_t> grid(3);
    Star<idx_t> star(4, 2);
    auto mixed = qztest::makeGraph<idx_t>(5, {{1, 0}, {3, 1}, {2, 3}, {0, 2}, {4, 2}});
    const AbstractGraph<idx_t>* bases[3] = {&grid, &star, mixed.get()};
    for (const AbstractGraph<idx_t>* b : bases) {
        const size_t n = b->vertices();
        for (idx_t T : {(idx_t)2, (idx_t)3, (idx_t)5}) {
            STGraph<idx_t> G(const_cast<AbstractGraph<idx_t>*>(b), T);
            const EL el = edgeList(G);
            for (size_t v = 0; v < (size_t)G.vertices(); ++v) {
                const size_t s = v % n, t = v / n;
                std::vector<std::pair<std::pair<int, size_t>, size_t>> keyed;
                for (size_t e = 0; e < el.size(); ++e) {
                    if (el[e].first != v && el[e].second != v) continue;
                    const size_t other = el[e].first == v ? el[e].second : el[e].first;
                    const size_t so = other % n, to = other / n;
                    int group;
                    if (so == s)
                        group = to == t + 1 ? 3 : 4;
                    else
                        group = to == t ? 0 : (to + 1 == t ? 1 : 2);
                    size_t pos = 0;
                    if (group < 3) {
                        // Place of the base edge {s, so} in the base incidence of s.
                        const std::vector<size_t> inc = incidence<idx_t>(*b, (idx_t)s);
                        const EL bel = edgeList(*b);
                        while (pos < inc.size() &&
                               !((bel[inc[pos]].first == s && bel[inc[pos]].second == so) ||
                                 (bel[inc[pos]].first == so && bel[inc[pos]].second == s)))
                            ++pos;
                        ASSERT_LT(pos, inc.size());
                    }
                    keyed.push_back({{group, pos}, e});
                }
                std::sort(keyed.begin(), keyed.end());
                std::vector<size_t> expect;
                for (const auto& k : keyed) expect.push_back(k.second);
                EXPECT_EQ(incidence<idx_t>(G, (idx_t)v), expect) << "T " << (size_t)T << " vertex " << v;
            }
        }
    }
}

// Past the degree: all ones, except where the rule for the temporal edges
// names an index that lies beyond the degree of a first-slice vertex.
TYPED_TEST(STGraphTyped, IncidencePastTheDegreeOfTheFirstSlice) {
    typedef TypeParam idx_t;
    Star<idx_t> base(3, 0);  // (1,0), (2,0): vertex 0 has degree 2
    STGraph<idx_t> G(&base, 3);
    const idx_t none = (idx_t)~(idx_t)0;
    // Vertex 0 at time 0: degree 2*2 + 1 = 5.
    ASSERT_EQ((size_t)G.num_neighbors(0), 5u);
    EXPECT_EQ(G.in_edge(0, 5), none);     // between 2d and 3d
    EXPECT_EQ((size_t)G.in_edge(0, 6), 0u);  // 3d: the forward temporal edge again
    EXPECT_EQ(G.in_edge(0, 7), none);     // 3d+1: (T-1)*0 + 0 - 1 wraps
    // Vertex 1 at time 0, degree 1: 3d = 3 and 3d+1 = 4.
    EXPECT_EQ((size_t)G.in_edge(1, 3), 2u);
    EXPECT_EQ((size_t)G.in_edge(1, 4), 1u);
    EXPECT_EQ(G.in_edge(1, 5), none);
}

TYPED_TEST(STGraphTyped, BaseGraphIsBorrowed) {
    typedef TypeParam idx_t;
    Chain<idx_t> base(3);
    { STGraph<idx_t> G(&base, 3); }
    // Deleting the wrapper must leave the base intact (a stack object).
    EXPECT_EQ((size_t)base.edges(), 2u);
    std::unique_ptr<AbstractGraph<idx_t>> owned(new STGraph<idx_t>(&base, 2));
    owned.reset();
    EXPECT_EQ((size_t)base.num_neighbors(1), 2u);
}

// With T = 6 the reciprocal 1/5 in single precision, applied to 16777225 =
// 5 * 3355445 (not a float), gives 3355444: the numbering keeps that.
template <typename T> class STGraphWide : public ::testing::Test {};
typedef ::testing::Types<unsigned int, unsigned long> WideTypes;
TYPED_TEST_SUITE(STGraphWide, WideTypes);

TYPED_TEST(STGraphWide, TemporalQuotientThroughTheReciprocalFallsShort) {
    typedef TypeParam idx_t;
    PathOracle<idx_t> base(3999999);  // 4000000 vertices
    STGraph<idx_t> G(&base, 6);
    idx_t v, u;
    G.edge(16777225, v, u);  // t = 0, exact quotient 3355445
    EXPECT_EQ((size_t)v, 3355444u);
    EXPECT_EQ((size_t)u, 4000000u + 3355444u);
    G.edge(16777227, v, u);  // t = 2
    EXPECT_EQ((size_t)v, 2u * 4000000u + 3355444u);
    // edge_time uses the modulo only.
    EXPECT_EQ((size_t)G.edge_time(16777227), 2u);
    // The swap goes through the same reciprocal.
    EXPECT_EQ((size_t)G.edge_time_swap(16777225, 3), 5u * 3355444u + 3u);
    // A multiple that is a float comes out exact.
    G.edge(5 * 1000, v, u);
    EXPECT_EQ((size_t)v, 1000u);
}

TYPED_TEST(STGraphWide, SpatialQuotientThroughTheReciprocalFallsShort) {
    typedef TypeParam idx_t;
    const size_t m = 3355450, n = m + 1;
    PathOracle<idx_t> base((idx_t)m);
    STGraph<idx_t> G(&base, 6);
    const size_t P = 5 * n;
    // r = 3 * 16777225 + 1: k = 1, q = 16777225, t = 0; exact base edge 3355445.
    const idx_t e = (idx_t)(P + 3 * 16777225u + 1);
    idx_t v, u;
    G.edge(e, v, u);
    EXPECT_EQ((size_t)v, 3355444u);
    EXPECT_EQ((size_t)u, n + 3355445u);
    EXPECT_EQ((size_t)G.edge_time(e), 0u);
    // Swapped to time 1 with the short base edge: P + 15*3355444 + 3 + 1.
    EXPECT_EQ((size_t)G.edge_time_swap(e, 1), P + 15u * 3355444u + 4u);
}
