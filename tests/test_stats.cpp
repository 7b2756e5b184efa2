// Counting a table into the statistics vector E and its block offsets woff.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/mrf/stats>
#include <QZ/comb/counting>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using namespace QZ;
using namespace qztest;

namespace {

const int MIS = -1;

// A table whose column c has the states "0" .. Y[c]-1, coded by position;
// MIS marks a missing cell.
struct Table {
    std::vector<std::vector<std::string>*> YN;
    std::unique_ptr<CategoricalCSVData> D;
    Table(const std::vector<size_t>& Y, const std::vector<std::vector<int>>& rows) {
        for (size_t y : Y) {
            std::vector<std::string>* names = new std::vector<std::string>();
            for (size_t s = 0; s < y; ++s) names->push_back(std::to_string(s));
            YN.push_back(names);
        }
        std::ostringstream text;
        for (size_t c = 0; c < Y.size(); ++c) text << (c ? "," : "") << "c" << c;
        text << "\n";
        for (size_t c = 0; c < Y.size(); ++c) text << (c ? "," : "") << "0";  // the discarded line
        text << "\n";
        for (const std::vector<int>& r : rows) {
            for (size_t c = 0; c < r.size(); ++c) text << (c ? "," : "") << (r[c] == MIS ? "?" : std::to_string(r[c]));
            text << "\n";
        }
        D.reset(new CategoricalCSVData(true, '?', false, &YN));
        std::istringstream in(text.str());
        D->read(in);
    }
    ~Table() {
        for (auto* v : YN) delete v;
    }
};

template <typename I> std::vector<I> states(const std::vector<size_t>& Y) { return std::vector<I>(Y.begin(), Y.end()); }

template <typename T> std::vector<double> asDouble(const T* a, size_t n) {
    std::vector<double> r;
    for (size_t i = 0; i < n; ++i) r.push_back((double)a[i]);
    return r;
}

template <typename T> std::vector<size_t> asSize(const T* a, size_t n) {
    std::vector<size_t> r;
    for (size_t i = 0; i < n; ++i) r.push_back((size_t)a[i]);
    return r;
}

// The arrays one count produces, freed at the end of the test.
template <typename I, typename V> struct Counts {
    V* E = nullptr;
    I* woff = nullptr;
    I odim = 0, sdim = 0;
    std::mt19937 rng;
    explicit Counts(unsigned seed = 1) : rng(seed) {}
    ~Counts() {
        delete[] E;
        delete[] woff;
    }
    bool sum(CategoricalData* D, const AbstractGraph<I>& G, std::vector<I>& Y) {
        return sumStats<I, V>(D, &G, Y.data(), &rng, E, woff, odim, sdim);
    }
    bool configure(CategoricalData* D, const AbstractGraph<I>& G, std::vector<I>& Y, const I& k,
                   progress_t cbp = nullptr) {
        return configureStats<I, V>(D, &G, Y.data(), &rng, k, E, woff, odim, sdim, cbp);
    }
    std::vector<size_t> offsets() const { return asSize(woff, odim); }
    std::vector<double> counts() const { return asDouble(E, sdim); }
};

std::vector<size_t> column(const CategoricalData& D, size_t c) {
    std::vector<size_t> r;
    for (size_t i = 0; i < D.size(); ++i) r.push_back(D.get(i, c));
    return r;
}

// Three columns with 2, 3 and 2 states, four rows; counted by hand below.
const std::vector<size_t> kY = {2, 3, 2};
const std::vector<std::vector<int>> kRows = {{0, 0, 1}, {1, 2, 0}, {1, 2, 1}, {0, 1, 1}};

template <typename P> struct StatsTyped : public ::testing::Test {};
typedef ::testing::Types<std::tuple<unsigned char, float>, std::tuple<unsigned short, float>,
                         std::tuple<unsigned int, float>, std::tuple<unsigned long, float>,
                         std::tuple<unsigned char, double>, std::tuple<unsigned short, double>,
                         std::tuple<unsigned int, double>, std::tuple<unsigned long, double>,
                         std::tuple<unsigned char, unsigned char>, std::tuple<unsigned short, unsigned short>,
                         std::tuple<unsigned int, unsigned int>, std::tuple<unsigned long, unsigned long>>
    AllPairs;
TYPED_TEST_SUITE(StatsTyped, AllPairs);

}  // namespace

// Edges (0,1) and (2,1): the second edge is counted with vertex 2 as the slow
// digit, as the edge is oriented, not as the vertices are numbered.
TYPED_TEST(StatsTyped, SumStatsCountsAndLayoutOfASmallTable) {
    typedef typename std::tuple_element<0, TypeParam>::type I;
    typedef typename std::tuple_element<1, TypeParam>::type V;
    Table T(kY, kRows);
    auto G = makeGraph<I>(3, {{0, 1}, {2, 1}});
    std::vector<I> Y = states<I>(kY);
    Counts<I, V> C;
    ASSERT_TRUE(C.sum(T.D.get(), *G, Y));
    EXPECT_EQ((size_t)C.odim, 6u);
    EXPECT_EQ((size_t)C.sdim, 19u);
    EXPECT_EQ(C.offsets(), (std::vector<size_t>{0, 2, 5, 7, 13, 19}));
    EXPECT_EQ(C.counts(), (std::vector<double>{2, 2, /**/ 1, 1, 2, /**/ 1, 3, /**/ 1, 1, 0, 0, 0, 2,
                                               /**/ 0, 0, 1, 1, 1, 1}));
}

// Singles come in unranking order {2}, {1}, {0}, pairs as {1,2}, {0,2}, {0,1};
// within a pair the larger member is the fast digit.
TYPED_TEST(StatsTyped, ConfigureStatsCountsAndLayoutOfASmallTable) {
    typedef typename std::tuple_element<0, TypeParam>::type I;
    typedef typename std::tuple_element<1, TypeParam>::type V;
    Table T(kY, kRows);
    auto G = makeGraph<I>(3, {{0, 1}});
    std::vector<I> Y = states<I>(kY);
    Counts<I, V> C;
    ASSERT_TRUE(C.configure(T.D.get(), *G, Y, (I)2));
    EXPECT_EQ((size_t)C.odim, 7u);
    EXPECT_EQ((size_t)C.sdim, 23u);
    EXPECT_EQ(C.offsets(), (std::vector<size_t>{0, 2, 5, 7, 13, 17, 23}));
    EXPECT_EQ(C.counts(), (std::vector<double>{1, 3, /**/ 1, 1, 2, /**/ 2, 2, /**/ 0, 1, 0, 1, 1, 1,
                                               /**/ 0, 2, 1, 1, /**/ 1, 1, 0, 0, 0, 2}));
}

TYPED_TEST(StatsTyped, OnlineCountsOfThreeColumns) {
    typedef typename std::tuple_element<0, TypeParam>::type I;
    typedef typename std::tuple_element<1, TypeParam>::type V;
    Table T(kY, kRows);
    I* Y = new I[3]{2, 3, 2};
    sparse_uint_t<I> x;
    x.from_combinatorial_index(0, 3, 3);
    const I n = 3, L = 12;
    V* res = sumStatsOnlineSUI<I, V>(T.D.get(), n, Y, (size_t)&x, L);
    // idx = r2 + r1*2 + r0*6
    std::vector<double> want(12, 0);
    for (const auto& r : kRows) want[r[2] + r[1] * 2 + r[0] * 6] += 1;
    EXPECT_EQ(want[1], 1);  // row 0
    EXPECT_EQ(asDouble(res, L), want);
    delete[] res;
    delete[] Y;
}

TEST(SufficientStats, SumStatsLayoutFollowsTheFormulas) {
    // n = 4 vertices with 2..5 states, m = 3 edges in a non-sorted order.
    const std::vector<size_t> Ys = {2, 3, 4, 5};
    const EdgeList edges = {{3, 0}, {1, 2}, {0, 2}};
    Table T(Ys, {});
    auto G = makeGraph<unsigned int>(4, edges);
    std::vector<unsigned int> Y = states<unsigned int>(Ys);
    Counts<unsigned int, float> C(1);
    ASSERT_TRUE(C.sum(T.D.get(), *G, Y));
    ASSERT_EQ(C.odim, 4u + 3u + 1u);
    size_t at = 0;
    for (size_t v = 0; v < 4; ++v) {
        EXPECT_EQ(C.woff[v], at);
        at += Ys[v];
    }
    const size_t vdim = at;
    for (size_t e = 0; e < 3; ++e) {
        EXPECT_EQ(C.woff[4 + e], at);
        at += Ys[edges[e].first] * Ys[edges[e].second];
    }
    EXPECT_EQ(C.woff[7], at);
    EXPECT_EQ(C.sdim, at);
    EXPECT_EQ(vdim, 14u);
    EXPECT_EQ(C.sdim, 14u + 10u + 12u + 8u);
}

TEST(SufficientStats, ConfigureStatsLayoutFollowsTheFormulas) {
    // n = 4, k = 3: 1 + 4 + 6 + 4 offsets; E holds singles and pairs only.
    const std::vector<size_t> Ys = {2, 3, 4, 5};
    Table T(Ys, {{1, 2, 3, 4}});
    auto G = makeGraph<unsigned short>(4, {});
    std::vector<unsigned short> Y = states<unsigned short>(Ys);
    Counts<unsigned short, double> C(1);
    ASSERT_TRUE(C.configure(T.D.get(), *G, Y, (unsigned short)3));
    ASSERT_EQ(C.odim, 15u);
    size_t at = 0, toff = 0, ofOrder12 = 0;
    for (unsigned short l = 1; l <= 3; ++l) {
        const size_t num = (size_t)binom<unsigned short, double>(4, l);
        for (size_t j = 0; j < num; ++j) {
            sparse_uint_t<unsigned short> x;
            x.from_combinatorial_index((unsigned short)j, 4, l);
            size_t size = 1;
            for (unsigned short v : *x.data()) size *= Ys[v];
            EXPECT_EQ(C.woff[toff + j], at) << "order " << l << " rank " << j;
            at += size;
        }
        toff += num;
        if (l == 2) ofOrder12 = at;
    }
    EXPECT_EQ(C.woff[14], at);
    EXPECT_EQ(C.sdim, ofOrder12);
    EXPECT_EQ(C.sdim, 14u + (6u + 8u + 10u + 12u + 15u + 20u));
    // Blocks of order 3 start at or beyond the end of E.
    for (size_t b = 10; b < 15; ++b) EXPECT_GE(C.woff[b], C.sdim);
    // The one row is counted once in every single and pair block.
    double total = 0;
    for (size_t i = 0; i < C.sdim; ++i) total += C.E[i];
    EXPECT_EQ(total, 10.0);
}

TEST(SufficientStats, EmptyTableGivesFullLayoutAndZeroCountsInSumStats) {
    Table T(kY, {});
    ASSERT_EQ(T.D->size(), 0u);
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 1}});
    std::vector<unsigned int> Y = states<unsigned int>(kY);
    Counts<unsigned int, double> C(1);
    ASSERT_TRUE(C.sum(T.D.get(), *G, Y));
    EXPECT_EQ(C.offsets(), (std::vector<size_t>{0, 2, 5, 7, 13, 19}));
    EXPECT_EQ(C.counts(), std::vector<double>(19, 0.0));
}

TEST(SufficientStats, EmptyTableGivesFullLayoutAndZeroCountsInConfigureStats) {
    Table T(kY, {});
    auto G = makeGraph<unsigned int>(3, {});
    std::vector<unsigned int> Y = states<unsigned int>(kY);
    Counts<unsigned int, float> C(1);
    ASSERT_TRUE(C.configure(T.D.get(), *G, Y, 3u));
    // Order 3 adds the block {0,1,2} of 12 entries past the end of E.
    EXPECT_EQ(C.offsets(), (std::vector<size_t>{0, 2, 5, 7, 13, 17, 23, 35}));
    EXPECT_EQ(C.sdim, 23u);
    EXPECT_EQ(C.counts(), std::vector<double>(23, 0.0));
}

// The second count runs on another seed and draws nothing: what the first
// count drew is in the table.
TEST(SufficientStats, MissingCellIsFilledInTheTableSoASecondCountAgrees) {
    Table T(kY, {{MIS, 0, 1}, {1, MIS, MIS}, {1, 2, 1}, {MIS, MIS, MIS}});
    auto G = makeGraph<unsigned int>(3, {{0, 1}, {2, 1}});
    std::vector<unsigned int> Y = states<unsigned int>(kY);
    Counts<unsigned int, double> first(7), second(8), third(9);
    ASSERT_TRUE(first.sum(T.D.get(), *G, Y));
    ASSERT_TRUE(second.sum(T.D.get(), *G, Y));
    ASSERT_TRUE(third.configure(T.D.get(), *G, Y, 2u));
    EXPECT_TRUE(second.rng == std::mt19937(8));
    EXPECT_TRUE(third.rng == std::mt19937(9));
    EXPECT_EQ(first.counts(), second.counts());
    // Each vertex block counts every row once.
    for (size_t v = 0; v < 3; ++v) {
        double total = 0;
        for (size_t x = first.woff[v]; x < first.woff[v + 1]; ++x) total += first.E[x];
        EXPECT_EQ(total, 4.0);
    }
    // The singles of the subset count agree with the vertex blocks ({2}, {1}, {0}).
    for (size_t v = 0; v < 3; ++v)
        EXPECT_EQ(asDouble(third.E + third.woff[2 - v], kY[v]), asDouble(first.E + first.woff[v], kY[v]));
}

TEST(SufficientStats, MissingCellsBecomeStatesInRangeWrittenBackAndCounted) {
    // A column with many states makes an out-of-range draw visible.
    const std::vector<size_t> Ys = {7, 2};
    std::vector<std::vector<int>> rows;
    for (int i = 0; i < 40; ++i) rows.push_back({MIS, i % 5 == 0 ? MIS : 1});
    for (int pass = 0; pass < 2; ++pass) {
        Table T(Ys, rows);
        auto G = makeGraph<unsigned long>(2, {{0, 1}});
        std::vector<unsigned long> Y = states<unsigned long>(Ys);
        Counts<unsigned long, float> C(3);
        if (pass == 0)
            ASSERT_TRUE(C.sum(T.D.get(), *G, Y));
        else
            ASSERT_TRUE(C.configure(T.D.get(), *G, Y, 2ul));
        std::set<size_t> seen;
        std::vector<double> want(C.sdim, 0.0);
        for (size_t i = 0; i < 40; ++i) {
            const size_t a = T.D->get(i, 0), b = T.D->get(i, 1);
            ASSERT_LT(a, 7u);
            ASSERT_LT(b, 2u);
            if (i % 5 != 0) EXPECT_EQ(b, 1u);
            seen.insert(a);
            if (pass == 0) {
                want[a] += 1;
                want[7 + b] += 1;
            } else {  // blocks {1}, {0}, {0,1}
                want[b] += 1;
                want[2 + a] += 1;
            }
            want[9 + a * 2 + b] += 1;
        }
        EXPECT_GT(seen.size(), 3u);  // the draws spread over the states
        EXPECT_EQ(C.counts(), want);
    }
}

TEST(SufficientStats, FixedSeedGivesFixedCompletionInRowMajorOrder) {
    const std::vector<std::vector<int>> rows = {{MIS, MIS, 0}, {0, MIS, MIS}, {MIS, 1, MIS}};
    Table A(kY, rows), B(kY, rows);
    auto G = makeGraph<unsigned short>(3, {});
    std::vector<unsigned short> Y = states<unsigned short>(kY);
    Counts<unsigned short, double> CA(11), CB(11);
    ASSERT_TRUE(CA.sum(A.D.get(), *G, Y));
    ASSERT_TRUE(CB.configure(B.D.get(), *G, Y, (unsigned short)2));
    // The same draws, one per missing cell, row by row and column by column.
    std::mt19937 r3(11);
    std::vector<std::vector<size_t>> want = {{9, 9, 0}, {0, 9, 9}, {9, 1, 9}};
    for (auto& r : want)
        for (size_t c = 0; c < 3; ++c)
            if (r[c] == 9) r[c] = std::uniform_int_distribution<size_t>(0, kY[c] - 1)(r3);
    for (size_t c = 0; c < 3; ++c) {
        EXPECT_EQ(column(*A.D, c), column(*B.D, c));
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(A.D->get(i, c), want[i][c]);
    }
    EXPECT_TRUE(CA.rng == r3);
    EXPECT_TRUE(CB.rng == r3);
}

TEST(SufficientStats, OrderOneLayoutCoversSinglesOnly) {
    // Valid calls have k >= 2: with k = 1 the pair pass would index past both
    // arrays, so only the layout of an empty table is looked at.
    Table T(kY, {});
    auto G = makeGraph<unsigned int>(3, {});
    std::vector<unsigned int> Y = states<unsigned int>(kY);
    Counts<unsigned int, double> C(1);
    ASSERT_TRUE(C.configure(T.D.get(), *G, Y, 1u));
    EXPECT_EQ(C.odim, 3u + 1u);
    EXPECT_EQ(C.sdim, 2u + 3u + 2u);
    EXPECT_EQ(C.offsets(), (std::vector<size_t>{0, 2, 5, 7}));
}

TEST(SufficientStats, TwoColumnsOrderTwoHaveThreeBlocks) {
    const std::vector<size_t> Ys = {3, 4};
    Table T(Ys, {{2, 3}, {0, 1}, {2, 0}});
    auto G = makeGraph<unsigned char>(2, {});
    std::vector<unsigned char> Y = states<unsigned char>(Ys);
    Counts<unsigned char, unsigned char> C(1);
    ASSERT_TRUE(C.configure(T.D.get(), *G, Y, (unsigned char)2));
    EXPECT_EQ(C.odim, 4u);
    EXPECT_EQ((size_t)C.sdim, 3u + 4u + 3u * 4u);
    // Blocks {1}, {0}, {0,1}.
    EXPECT_EQ(C.offsets(), (std::vector<size_t>{0, 4, 7, 19}));
    std::vector<size_t> want(19, 0);
    want[0 + 3] = want[0 + 1] = want[0 + 0] = 1;
    want[4 + 2] = 2;
    want[4 + 0] = 1;
    want[7 + 2 * 4 + 3] = want[7 + 0 * 4 + 1] = want[7 + 2 * 4 + 0] = 1;
    EXPECT_EQ(asSize(C.E, C.sdim), want);
}

TEST(SufficientStats, IntegerCountsWrapAroundTheValueWidth) {
    std::vector<std::vector<int>> rows(257, std::vector<int>{0});
    rows.push_back({1});
    Table T({2}, rows);
    auto G = makeGraph<unsigned char>(1, {});
    std::vector<unsigned char> Y = {2};
    Counts<unsigned char, unsigned char> C(1);
    ASSERT_TRUE(C.sum(T.D.get(), *G, Y));
    EXPECT_EQ(C.E[0], 1u);  // 257 mod 256
    EXPECT_EQ(C.E[1], 1u);
}

TEST(SufficientStats, OnlineCountsOfOneColumnAreItsStateCounts) {
    Table T(kY, kRows);
    unsigned int* Y = new unsigned int[3]{2, 3, 2};
    sparse_uint_t<unsigned int> x;
    x.p2x(1);
    const unsigned int n = 3, L = 3;
    double* res = sumStatsOnlineSUI<unsigned int, double>(T.D.get(), n, Y, (size_t)&x, L);
    EXPECT_EQ(asDouble(res, 3), (std::vector<double>{1, 1, 2}));
    delete[] res;
    delete[] Y;
}

TEST(SufficientStats, OnlineCountsOfAPairEqualItsBlockOfTheTableWideCount) {
    // Enough rows that the parallel loop splits them.
    const std::vector<size_t> Ys = {3, 2, 4, 5};
    std::vector<std::vector<int>> rows;
    std::mt19937 g(5);
    for (int i = 0; i < 500; ++i) {
        std::vector<int> r;
        for (size_t y : Ys) r.push_back((int)std::uniform_int_distribution<size_t>(0, y - 1)(g));
        rows.push_back(r);
    }
    Table T(Ys, rows);
    auto G = makeGraph<unsigned long>(4, {});
    std::vector<unsigned long> Y = states<unsigned long>(Ys);
    Counts<unsigned long, float> C;
    ASSERT_TRUE(C.configure(T.D.get(), *G, Y, 2ul));
    const unsigned long n = 4;
    std::function<float*(size_t, const unsigned long&)> online =
        std::bind(&sumStatsOnlineSUI<unsigned long, float>, T.D.get(), n, Y.data(), std::placeholders::_1,
                  std::placeholders::_2);
    for (unsigned long l = 1; l <= 2; ++l) {
        const unsigned long toff = l == 1 ? 0 : 4, num = l == 1 ? 4 : 6;
        for (unsigned long j = 0; j < num; ++j) {
            sparse_uint_t<unsigned long> x;
            x.from_combinatorial_index(j, n, l);
            const unsigned long L = C.woff[toff + j + 1] - C.woff[toff + j];
            float* res = online((size_t)&x, L);
            EXPECT_EQ(asDouble(res, L), asDouble(C.E + C.woff[toff + j], L)) << "order " << l << " rank " << j;
            delete[] res;
        }
    }
}

namespace {

// Reports a vertex count far too large to lay out; nothing else is asked.
struct HugeGraph : public AbstractGraph<unsigned long> {
    unsigned long vertices() const override { return 1ul << 31; }
    unsigned long edges() const override { return 0; }
    unsigned long num_neighbors(const unsigned long&) const override { return 0; }
    void edge(const unsigned long&, unsigned long&, unsigned long&) const override {}
    unsigned long in_edge(const unsigned long&, const unsigned long&) const override { return 0; }
    void store(const std::string&) const override {}
    void store(std::ostream&) const override {}
    size_t mem() const override { return 0; }
};

}  // namespace

TEST(SufficientStats, OffsetsTooLargeToAllocateGiveFalse) {
    Table T({2, 2}, {{0, 1}});
    HugeGraph G;
    std::mt19937 rng(1);
    unsigned long Y[2] = {2, 2};
    double marker = 0;
    double* E = &marker;
    unsigned long woffMarker = 0;
    unsigned long *woff = &woffMarker, odim = 0, sdim = 0;
    EXPECT_FALSE((configureStats<unsigned long, double>(T.D.get(), &G, Y, &rng, 2ul, E, woff, odim, sdim, nullptr)));
    EXPECT_EQ(E, &marker);
    EXPECT_EQ(woff, &woffMarker);
    EXPECT_GT(odim, 1ul << 60);
}

TEST(SufficientStats, CountsTooLargeToAllocateGiveFalseAndLeaveThePointers) {
    Table T({2, 2}, {{0, 1}});
    auto G = makeGraph<unsigned long>(2, {});
    std::mt19937 rng(1);
    unsigned long Y[2] = {1ul << 61, 1};
    double marker = 0;
    double* E = &marker;
    unsigned long woffMarker = 0;
    unsigned long *woff = &woffMarker, odim = 0, sdim = 0;
    EXPECT_FALSE((configureStats<unsigned long, double>(T.D.get(), G.get(), Y, &rng, 2ul, E, woff, odim, sdim,
                                                        nullptr)));
    EXPECT_EQ(E, &marker);
    EXPECT_EQ(woff, &woffMarker);
    EXPECT_EQ(odim, 4ul);
    EXPECT_EQ(sdim, (1ul << 62) + 1);
    // The table was not touched.
    EXPECT_EQ(T.D->get(0, 1), 1u);
}

namespace {

std::mutex progressMutex;
std::vector<std::tuple<size_t, size_t, std::string>> progressCalls;

void recordProgress(size_t done, size_t total, const char* text) {
    std::lock_guard<std::mutex> lock(progressMutex);
    progressCalls.emplace_back(done, total, text);
}

}  // namespace

TEST(SufficientStats, ProgressReportsSubsetsOffsetsAndRowsWithTheirLabels) {
    Table T(kY, kRows);
    auto G = makeGraph<unsigned int>(3, {});
    std::vector<unsigned int> Y = states<unsigned int>(kY);
    Counts<unsigned int, double> C;
    progressCalls.clear();
    ASSERT_TRUE(C.configure(T.D.get(), *G, Y, 2u, recordProgress));
    std::vector<std::tuple<size_t, size_t, std::string>> idx, rows;
    size_t state = 0;
    for (const auto& p : progressCalls) {
        const std::string& label = std::get<2>(p);
        if (label == "STATE") {
            EXPECT_EQ(idx.size() + rows.size(), 0u) << "subsets are reported first";
            EXPECT_EQ(std::get<1>(p), 6u);
            EXPECT_GE(std::get<0>(p), 1u);
            EXPECT_LE(std::get<0>(p), 6u);
            ++state;
        } else if (label == "IDX  ") {
            EXPECT_EQ(rows.size(), 0u);
            idx.push_back(p);
        } else {
            EXPECT_EQ(label, "STATS");
            rows.push_back(p);
        }
    }
    EXPECT_GE(state, 2u);  // thread 0 has work in both subset sizes
    std::vector<std::tuple<size_t, size_t, std::string>> wantIdx, wantRows;
    for (size_t i = 1; i <= 6; ++i) wantIdx.emplace_back(i, 6, "IDX  ");
    for (size_t i = 0; i < 4; ++i) wantRows.emplace_back(i, 3, "STATS");
    EXPECT_EQ(idx, wantIdx);
    EXPECT_EQ(rows, wantRows);
}

TEST(SufficientStats, ProgressOnOneThreadCountsEverySubset) {
    Table T(kY, {});
    auto G = makeGraph<unsigned int>(3, {});
    std::vector<unsigned int> Y = states<unsigned int>(kY);
    Counts<unsigned int, double> C;
    progressCalls.clear();
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    const bool ok = C.configure(T.D.get(), *G, Y, 2u, recordProgress);
    omp_set_num_threads(before);
    ASSERT_TRUE(ok);
    // Before subset j of a size: the subsets done so far plus the one-place
    // lead of the offsets, 1 for the singles and 4 for the pairs.
    std::vector<size_t> state;
    for (const auto& p : progressCalls)
        if (std::get<2>(p) == "STATE") state.push_back(std::get<0>(p));
    EXPECT_EQ(state, (std::vector<size_t>{1, 2, 3, 4, 5, 6}));
}

TEST(RandomCenters, EveryRowOnceBeforeAnyRepeats) {
    std::mt19937 rng(9);
    const unsigned short L = 3, H = 4, N = 5;
    unsigned short* s = randomCenters<unsigned short>(L, H, N, &rng);
    std::vector<size_t> all = asSize(s, 12);
    for (size_t round = 0; round < 2; ++round) {
        std::vector<size_t> part(all.begin() + round * 5, all.begin() + round * 5 + 5);
        std::sort(part.begin(), part.end());
        EXPECT_EQ(part, (std::vector<size_t>{0, 1, 2, 3, 4})) << "round " << round;
    }
    EXPECT_NE(all[10], all[11]);
    EXPECT_LT(all[10], 5u);
    EXPECT_LT(all[11], 5u);
    delete[] s;
}

TEST(RandomCenters, DrawsPickFromTheRemainingRowsInListOrder) {
    std::mt19937 rng(4), ref(4);
    unsigned int* s = randomCenters<unsigned int>(2u, 2u, 3u, &rng);
    std::vector<size_t> LL;
    std::vector<size_t> want;
    for (int c = 0; c < 4; ++c) {
        if (LL.empty()) LL = {0, 1, 2};
        size_t sel = 0;
        if (LL.size() > 1) sel = std::uniform_int_distribution<size_t>(0, LL.size() - 1)(ref);
        want.push_back(LL[sel]);
        LL.erase(LL.begin() + sel);
    }
    EXPECT_EQ(asSize(s, 4), want);
    EXPECT_TRUE(rng == ref);
    delete[] s;
}

TEST(RandomCenters, OneRowGivesZerosWithoutDrawing) {
    std::mt19937 rng(2);
    const std::mt19937 before = rng;
    unsigned char* s = randomCenters<unsigned char>((unsigned char)2, (unsigned char)3, (unsigned char)1, &rng);
    EXPECT_EQ(asSize(s, 6), std::vector<size_t>(6, 0));
    EXPECT_TRUE(rng == before);
    delete[] s;
    unsigned long* t = randomCenters<unsigned long>(4ul, 1ul, 1ul, &rng);
    EXPECT_EQ(asSize(t, 4), std::vector<size_t>(4, 0));
    EXPECT_TRUE(rng == before);
    delete[] t;
}

TEST(RandomCenters, NoRowsGiveZerosWithoutDrawing) {
    std::mt19937 rng(2);
    const std::mt19937 before = rng;
    unsigned int* s = randomCenters<unsigned int>(2u, 2u, 0u, &rng);
    EXPECT_EQ(asSize(s, 4), std::vector<size_t>(4, 0));
    EXPECT_TRUE(rng == before);
    delete[] s;
}
