// Structure learning on the model container: the helpers of the searches,
// and the searches themselves checked against entropies and informations
// counted straight from the rows of small tables.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/QZSTRUCT>
#include <QZ/graph/core>
#include <QZ/graph/generators>
#include <QZ/inf/base>
#include <QZ/mrf/stats>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

using namespace QZ;
using namespace qztest;

namespace {

typedef std::vector<std::vector<int>> Rows;

// A table over host memory: column c has the states 0 .. Y[c]-1.
struct Table {
    std::vector<unsigned short> cells;
    std::vector<std::vector<std::string>*> YN;
    std::unique_ptr<CategoricalNumPyData> D;
    Rows rows;
    Table(const std::vector<size_t>& Y, const Rows& _rows) : rows(_rows) {
        for (size_t y : Y) {
            std::vector<std::string>* names = new std::vector<std::string>();
            for (size_t s = 0; s < y; ++s) names->push_back(std::to_string(s));
            YN.push_back(names);
        }
        for (const std::vector<int>& r : rows)
            for (int x : r) cells.push_back((unsigned short)x);
        D.reset(new CategoricalNumPyData(false, &YN));
        D->read(cells.data(), rows.size(), Y.size());
    }
    ~Table() {
        for (auto* v : YN) delete v;
    }
    size_t columns() const { return YN.size(); }

    // Empirical entropy of the joint states of the columns in S, in nats.
    double H(const std::vector<size_t>& S) const {
        std::map<std::vector<int>, double> count;
        for (const std::vector<int>& r : rows) {
            std::vector<int> key;
            for (size_t c : S) key.push_back(r[c]);
            count[key] += 1;
        }
        double h = 0;
        for (const auto& kv : count) {
            const double p = kv.second / (double)rows.size();
            h -= p * std::log(p);
        }
        return h;
    }
    double MI(size_t a, size_t b) const { return H({a}) + H({b}) - H({a, b}); }
    // The alternating sum over the non-empty subsets of S.
    double interaction(const std::vector<size_t>& S) const {
        double I = 0;
        for (size_t y = 1; y < ((size_t)1 << S.size()); ++y) {
            std::vector<size_t> sub;
            for (size_t b = 0; b < S.size(); ++b)
                if (y >> b & 1) sub.push_back(S[b]);
            I += (sub.size() % 2 == 1 ? 1.0 : -1.0) * H(sub);
        }
        return I;
    }
    // Counts of the joint states of columns a < b, first column slowest.
    std::vector<double> pairCounts(size_t a, size_t b) const {
        std::vector<double> c(YN[a]->size() * YN[b]->size(), 0.0);
        for (const std::vector<int>& r : rows) c[(size_t)r[a] * YN[b]->size() + (size_t)r[b]] += 1;
        return c;
    }
    std::vector<double> counts(size_t a) const {
        std::vector<double> c(YN[a]->size(), 0.0);
        for (const std::vector<int>& r : rows) c[(size_t)r[a]] += 1;
        return c;
    }
};

// A container over the table as MODEL makes it: the graph (complete unless
// given), state spaces from the table, counts of the graph's vertices and
// edges, or of all subsets up to k when k is set.
template <typename I, typename V> struct Model {
    IO<I, V> io;
    std::mt19937 rng;
    typename IO<I, V>::subset_stats_t g;
    Model(Table& T, AbstractGraph<I>* G = nullptr, I k = 0) : rng(5) {
        const I n = (I)T.columns();
        io.G = G != nullptr ? G : new Kn<I>(n, nullptr);
        io.Y = new I[n];
        for (I v = 0; v < n; ++v) io.Y[v] = (I)T.D->categories(v);
        io.dim = calcDim<I>(io.G, io.Y);
        io.w = new V[io.dim]();
        io.num_instances = T.rows.empty() ? (I)1 : (I)T.rows.size();
        if (k == 0)
            sumStats<I, V>(T.D.get(), io.G, io.Y, &rng, io.E, io.woff, io.odim, io.sdim);
        else
            configureStats<I, V>(T.D.get(), io.G, io.Y, &rng, k, io.E, io.woff, io.odim, io.sdim, nullptr);
        CategoricalData* D = T.D.get();
        I* Y = io.Y;
        g = [D, n, Y](size_t x, const I& L) mutable { return sumStatsOnlineSUI<I, V>(D, n, Y, x, L); };
    }
    ~Model() {
        delete io.G;
        delete[] io.w;  // a container built in memory leaves its weights to their owner
    }
    EdgeList edges() const { return edgeList(*io.G); }
    // The statistics of edge e as doubles.
    std::vector<double> edgeCounts(I e) const {
        const I n = io.G->vertices();
        return std::vector<double>(io.E + io.woff[n + e], io.E + io.woff[n + e + 1]);
    }
    // The container's invariants after a new graph: offsets from Y, and the
    // counts of every vertex and edge block straight from the rows. After a
    // clique search the vertex part keeps the order of the subset layout:
    // the block at position j is that of vertex n-1-j.
    void expectConsistent(const Table& T, bool subsetOrder = false) const {
        const I n = io.G->vertices(), m = io.G->edges();
        ASSERT_EQ((size_t)io.odim, (size_t)n + m + 1);
        ASSERT_EQ((size_t)io.dim, (size_t)calcDim<I>(io.G, io.Y));
        ASSERT_EQ((size_t)io.woff[n + m], (size_t)io.sdim);
        for (I j = 0; j < n; ++j) {
            const I v = subsetOrder ? (I)(n - 1 - j) : j;
            EXPECT_EQ(io.woff[j + 1] - io.woff[j], io.Y[v]);
            EXPECT_EQ(std::vector<double>(io.E + io.woff[j], io.E + io.woff[j + 1]), T.counts(v)) << "vertex " << v;
        }
        for (I e = 0; e < m; ++e) {
            I s, t;
            io.G->edge(e, s, t);
            EXPECT_LT(s, t);
            EXPECT_EQ(edgeCounts(e), T.pairCounts(s, t)) << "edge " << e;
        }
        for (I i = 0; i < io.dim; ++i) EXPECT_EQ(io.w[i], (V)0);
    }
};

// The progress reports one search makes, in order.
struct Report {
    size_t done, total;
    std::string label;
};
std::vector<Report> reports;
void record(size_t done, size_t total, const char* text) { reports.push_back({done, total, text}); }

std::vector<std::string> labels() {
    std::vector<std::string> r;
    for (const Report& x : reports)
        if (r.empty() || r.back() != x.label) r.push_back(x.label);
    return r;
}

// Columns that are noisy copies of one hidden fair bit, so that every pair of
// them is strongly dependent.
Rows noisyCopies(size_t n, size_t N, double flip, unsigned seed) {
    std::mt19937 rng(seed);
    std::bernoulli_distribution coin(0.5), noise(flip);
    Rows rows;
    for (size_t i = 0; i < N; ++i) {
        const int h = coin(rng);
        std::vector<int> r;
        for (size_t c = 0; c < n; ++c) r.push_back(noise(rng) ? 1 - h : h);
        rows.push_back(r);
    }
    return rows;
}

// Total mutual information of the edges.
double treeInformation(const Table& T, const EdgeList& E) {
    double I = 0;
    for (const auto& e : E) I += T.MI(e.first, e.second);
    return I;
}

// The spanning tree of largest total information, found by trying every
// parent array with vertex 0 as the root: those that lead to 0 from
// everywhere are exactly the spanning trees. The edges have the smaller
// vertex first, in ascending order.
EdgeList bestSpanningTree(const Table& T) {
    const size_t n = T.columns();
    size_t codes = 1;
    for (size_t v = 1; v < n; ++v) codes *= n;
    double best = -1;
    EdgeList bestTree;
    for (size_t code = 0; code < codes; ++code) {
        std::vector<size_t> parent(n, 0);
        size_t c = code;
        for (size_t v = 1; v < n; ++v, c /= n) parent[v] = c % n;
        bool tree = true;
        for (size_t v = 1; v < n && tree; ++v) {
            size_t u = v, steps = 0;
            while (u != 0 && steps++ <= n) u = parent[u];
            tree = u == 0;
        }
        if (!tree) continue;
        EdgeList E;
        for (size_t v = 1; v < n; ++v) E.push_back({std::min(v, parent[v]), std::max(v, parent[v])});
        const double total = treeInformation(T, E);
        if (total > best + 1e-12) {
            best = total;
            std::sort(E.begin(), E.end());
            bestTree = E;
        }
    }
    return bestTree;
}

}  // namespace

// ---------------------------------------------------------------- helpers

TEST(Entropy, OneCellHoldingTheTotalIsZero) {
    const double A[3] = {0, 7, 0};
    const double H = entropy<unsigned, double>(A, 7.0, 3u);
    EXPECT_EQ(H, 0.0);
    EXPECT_FALSE(std::signbit(H));
    const float B[1] = {3};
    EXPECT_EQ((entropy<unsigned char, float>(B, 3.0f, (unsigned char)1)), 0.0f);
}

TEST(Entropy, SkipsCellsAtOrBelowZero) {
    const double A[4] = {1, 0, 3, -2};
    const double expect = -(0.25 * std::log(0.25) + 0.75 * std::log(0.75));
    EXPECT_NEAR((entropy<unsigned long, double>(A, 4.0, 4ul)), expect, 1e-15);
    // An empty table has no cell above zero.
    const double Z[2] = {0, 0};
    EXPECT_EQ((entropy<unsigned long, double>(Z, 1.0, 2ul)), 0.0);
}

TEST(AddToADJ, SetsBothCells) {
    std::vector<unsigned> A(9, 0);
    addToADJ<unsigned>(A.data(), 0, 2, 3);
    EXPECT_EQ(A, (std::vector<unsigned>{0, 0, 1, 0, 0, 0, 1, 0, 0}));
}

TEST(Process, TwoUncoveredVerticesMakeASetAndTwoCells) {
    const unsigned n = 3;
    std::vector<unsigned> A(n * n, 0);
    std::set<unsigned>* V[n] = {nullptr, nullptr, nullptr};
    const unsigned v[2] = {0, 2};
    EXPECT_TRUE(process<unsigned>(A.data(), v, 2, n, V));
    ASSERT_NE(V[0], nullptr);
    EXPECT_EQ(V[0], V[2]);
    EXPECT_EQ(*V[0], (std::set<unsigned>{0, 2}));
    EXPECT_EQ(V[1], nullptr);
    EXPECT_EQ(A, (std::vector<unsigned>{0, 0, 1, 0, 0, 0, 1, 0, 0}));
    delete V[0];
}

TEST(Process, CliqueInsideOneComponentChangesNothing) {
    const unsigned n = 4;
    std::vector<unsigned> A(n * n, 0);
    std::set<unsigned>* V[n] = {nullptr, nullptr, nullptr, nullptr};
    const unsigned a[2] = {0, 1}, b[2] = {1, 2};
    ASSERT_TRUE(process<unsigned>(A.data(), a, 2, n, V));
    ASSERT_TRUE(process<unsigned>(A.data(), b, 2, n, V));
    const std::vector<unsigned> before = A;
    std::set<unsigned>* S = V[0];
    // {0, 2} and {0, 1, 2} lie inside the component {0, 1, 2}, although the
    // pair (0, 2) is no edge yet.
    const unsigned inside[2] = {0, 2}, triangle[3] = {0, 1, 2};
    EXPECT_FALSE(process<unsigned>(A.data(), inside, 2, n, V));
    EXPECT_FALSE(process<unsigned>(A.data(), triangle, 3, n, V));
    EXPECT_EQ(A, before);
    EXPECT_EQ(V[0], S);
    EXPECT_EQ(*S, (std::set<unsigned>{0, 1, 2}));
    EXPECT_EQ(V[3], nullptr);
    delete S;
}

TEST(Process, MergesComponentsAndAddsAllPairs) {
    const unsigned n = 6;
    std::vector<unsigned> A(n * n, 0);
    std::vector<std::set<unsigned>*> V(n, nullptr);
    const unsigned a[2] = {0, 1}, b[2] = {2, 3};
    ASSERT_TRUE(process<unsigned>(A.data(), a, 2, n, V.data()));
    ASSERT_TRUE(process<unsigned>(A.data(), b, 2, n, V.data()));
    ASSERT_NE(V[0], V[2]);
    // One vertex of each component and an uncovered one.
    const unsigned c[3] = {1, 3, 5};
    ASSERT_TRUE(process<unsigned>(A.data(), c, 3, n, V.data()));
    for (unsigned v : {0u, 1u, 2u, 3u, 5u}) EXPECT_EQ(V[v], V[0]) << v;
    EXPECT_EQ(*V[0], (std::set<unsigned>{0, 1, 2, 3, 5}));
    EXPECT_EQ(V[4], nullptr);
    std::set<std::pair<unsigned, unsigned>> edges;
    for (unsigned s = 0; s < n; ++s)
        for (unsigned t = 0; t < n; ++t) {
            EXPECT_EQ(A[s * n + t], A[t * n + s]);
            if (s < t && A[s * n + t]) edges.insert({s, t});
        }
    EXPECT_EQ(edges, (std::set<std::pair<unsigned, unsigned>>{{0, 1}, {2, 3}, {1, 3}, {1, 5}, {3, 5}}));
    delete V[0];
}

TEST(MIaupper, OrdersOneAndTwo) {
    EXPECT_EQ((MIaupper<unsigned, double>(9, 1, 0.3, 2.0)), 0.3);
    EXPECT_DOUBLE_EQ((MIaupper<unsigned, double>(9, 2, 0.3, 2.0)), 2 * 2.0 - 0.3);
    // The magnitude: here 2*hmax - hmin is negative.
    EXPECT_DOUBLE_EQ((MIaupper<unsigned, double>(9, 2, 0.5, 0.2)), 0.1);
}

TEST(MIaupper, BinomialWeightsWithTheFactorOnOddTermsOnly) {
    const double hmin = 0.4, hmax = 1.3;
    for (unsigned k = 1; k <= 8; ++k) {
        // Pascal's triangle for the binomial coefficients of k.
        std::vector<double> row = {1};
        for (unsigned r = 1; r <= k; ++r) {
            std::vector<double> next(r + 1, 1);
            for (unsigned j = 1; j < r; ++j) next[j] = row[j - 1] + row[j];
            row = next;
        }
        double I = 0;
        for (unsigned i = 0; i < k; ++i) I += i % 2 == 1 ? i * row[i] * hmax : -row[i] * hmin;
        EXPECT_NEAR((MIaupper<unsigned, double>(0, k, hmin, hmax)), std::fabs(I), 1e-12) << "k = " << k;
    }
    EXPECT_DOUBLE_EQ((MIaupper<unsigned, double>(0, 4, hmin, hmax)), 16 * hmax - 7 * hmin);
}

// ---------------------------------------------------------------- ELEMGM

TEST(ElemGM, FractionZeroTakesNoEdge) {
    Table T({2, 2, 2, 2}, noisyCopies(4, 200, 0.1, 1));
    Model<unsigned long, double> M(T);
    M.io.buildElemGM(0.0, nullptr);
    EXPECT_EQ(M.io.G->vertices(), 4u);
    EXPECT_EQ(M.io.G->edges(), 0u);
    EXPECT_EQ(M.io.gtype, 7u);
    EXPECT_EQ(M.io.dim, 0u);
    M.expectConsistent(T);
}

TEST(ElemGM, AllCellsZeroLeavesTheGraphEmpty) {
    for (double fraction : {0.5, 1.0}) {
        Table T({2, 3, 2}, {});
        Model<unsigned int, double> M(T);
        ASSERT_EQ(M.io.G->edges(), 3u);
        M.io.buildElemGM(fraction, nullptr);
        EXPECT_EQ(M.io.G->edges(), 0u) << fraction;
        EXPECT_EQ(M.io.sdim, 7u);
    }
}

TEST(ElemGM, FractionOneTakesEveryDependentPair) {
    Table T({2, 2, 2, 2, 2}, noisyCopies(5, 300, 0.1, 2));
    Model<unsigned short, float> M(T);
    M.io.buildElemGM(1.0, nullptr);
    EXPECT_EQ(M.io.G->edges(), 10u);
    EXPECT_EQ(M.io.gtype, 7u);
}

// Fourteen rows over three binary columns, in which the pair (0, 1) holds the
// strongest cell of all, while (1, 2) has two cells above the threshold and
// (0, 2) none. With a third of the cells the threshold is the fourth largest
// magnitude and the cap is one edge. The walk from the weakest cell meets a
// cell of (1, 2) before any of (0, 1), so (1, 2) is the edge taken.
TEST(ElemGM, WalksFromTheWeakEndUpToTheCap) {
    const Rows rows = {{1, 1, 0}, {0, 1, 1}, {1, 1, 1}, {0, 0, 1}, {1, 1, 0}, {1, 0, 0}, {1, 1, 1},
                       {0, 1, 0}, {0, 1, 0}, {0, 0, 1}, {0, 1, 0}, {0, 1, 0}, {1, 1, 0}, {0, 0, 0}};
    Table T({2, 2, 2}, rows);
    // The scores are the pointwise informations scaled by 2/n.
    std::vector<std::pair<double, std::pair<size_t, size_t>>> cells;
    for (size_t s = 0; s < 3; ++s)
        for (size_t t = s + 1; t < 3; ++t) {
            const std::vector<double> cs = T.counts(s), ct = T.counts(t), cst = T.pairCounts(s, t);
            for (size_t x = 0; x < 2; ++x)
                for (size_t y = 0; y < 2; ++y)
                    cells.push_back({std::fabs(std::log(cst[x * 2 + y] * 14.0 / (cs[x] * ct[y])) * 2.0 / 3.0), {s, t}});
        }
    std::sort(cells.begin(), cells.end());
    ASSERT_EQ(cells.back().second, std::make_pair((size_t)0, (size_t)1));
    const double thres = cells[12 - 1 - 3].first;
    EXPECT_EQ(cells.front().second, std::make_pair((size_t)0, (size_t)2));
    size_t above12 = 0, above02 = 0;
    for (const auto& c : cells) {
        above12 += c.second == std::make_pair((size_t)1, (size_t)2) && c.first >= thres;
        above02 += c.second == std::make_pair((size_t)0, (size_t)2) && c.first >= thres;
    }
    ASSERT_EQ(above12, 2u);
    ASSERT_EQ(above02, 0u);

    Model<unsigned long, double> M(T);
    reports.clear();
    M.io.buildElemGM(1.0 / 3.0, record);
    EXPECT_EQ(M.edges(), (EdgeList{{1, 2}}));
    M.expectConsistent(T);

    // One report per edge of the complete graph, then one per cell.
    ASSERT_EQ(reports.size(), 3u + 12u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(reports[i].label, "EGM  ");
        EXPECT_EQ(reports[i].done, i + 1);
        EXPECT_EQ(reports[i].total, 3u);
    }
    for (size_t i = 0; i < 12; ++i) {
        EXPECT_EQ(reports[3 + i].label, "EGM E");
        EXPECT_EQ(reports[3 + i].done, i + 1);
        EXPECT_EQ(reports[3 + i].total, 12u);
    }
}

TEST(ElemGM, NoCellsOnASingleVertex) {
    Table T({3}, {{0}, {2}});
    Model<unsigned char, double> M(T);
    M.io.buildElemGM(1.0, nullptr);
    EXPECT_EQ(M.io.G->edges(), 0u);
    EXPECT_EQ(M.io.odim, 2u);
}

// ---------------------------------------------------------------- cliques

TEST(Cliques, PairsEndWithTheTreeGraphType) {
    Table T({2, 2, 2, 2}, noisyCopies(4, 100, 0.2, 3));
    Model<unsigned long, double> M(T, new Chain<unsigned long>(4), 2);
    M.io.buildCliques(0.0, 2, nullptr, M.g);
    EXPECT_EQ(M.io.gtype, 6u);
    EXPECT_EQ(M.io.G->edges(), 3u);
    EXPECT_TRUE(connected(4, M.edges()));
    M.expectConsistent(T, true);
}

// On columns that are each exactly balanced all singleton entropies are
// equal, so the pair informations are the mutual informations, and taking
// pairs by falling magnitude while they join components is Kruskal's
// algorithm: the result is the maximum spanning tree of the informations.
TEST(Cliques, PairsOnBalancedColumnsGiveTheMaximumSpanningTree) {
    const size_t n = 5;
    Rows rows;
    std::mt19937 rng(11);
    for (size_t i = 0; i < 60; ++i) {
        std::vector<int> r(n);
        r[0] = rng() % 2;
        r[1] = rng() % 5 == 0 ? 1 - r[0] : r[0];
        r[2] = rng() % 3 == 0 ? 1 - r[1] : r[1];
        r[3] = rng() % 4 == 0 ? 1 - r[0] : r[0];
        r[4] = rng() % 2 == 0 ? 1 - r[3] : r[3];
        rows.push_back(r);
        for (int& x : r) x = 1 - x;  // the complement balances every column
        rows.push_back(r);
    }
    Table T(std::vector<size_t>(n, 2), rows);
    for (size_t v = 0; v < n; ++v) ASSERT_EQ(T.counts(v)[0], 60.0);

    Model<unsigned long, double> M(T, new Chain<unsigned long>(n), 2);
    M.io.buildCliques(0.0, 2, nullptr, M.g);
    EdgeList got = M.edges();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, bestSpanningTree(T));
    M.expectConsistent(T, true);
}

// The pair informations read a singleton's entropy at the vertex's own
// number, where the layout holds vertex n-1-v; and the score of a taken set is
// looked up at its rank in the sorted section. Both show in the mean score.
TEST(Cliques, ScoreKeepsTheLookupsOfTheLayout) {
    const size_t n = 3;
    const Rows rows = {{0, 0, 0}, {0, 0, 1}, {1, 1, 0}, {0, 1, 2}, {0, 0, 1}, {1, 1, 2}, {0, 0, 0}, {0, 1, 1}};
    Table T({2, 2, 3}, rows);
    // I of pair {a, b} as the search forms it.
    auto pairI = [&](size_t a, size_t b) { return T.H({n - 1 - a}) + T.H({n - 1 - b}) - T.H({a, b}); };
    // The pairs in rank order: the rank of {a < b} is C(n-a-1, 2) + C(n-b-1, 1).
    const std::vector<std::pair<size_t, size_t>> byRank = {{1, 2}, {0, 2}, {0, 1}};
    std::vector<std::pair<double, std::pair<size_t, size_t>>> sorted;
    for (const auto& p : byRank) sorted.push_back({std::fabs(pairI(p.first, p.second)), p});
    std::sort(sorted.begin(), sorted.end(), [](const auto& x, const auto& y) { return x.first > y.first; });
    ASSERT_GT(sorted[0].first, sorted[1].first);
    ASSERT_GT(sorted[1].first, sorted[2].first);
    // The first two sets by magnitude join all three vertices.
    double total = 0;
    for (size_t i = 0; i < 2; ++i) {
        const auto& p = sorted[i].second;
        const size_t rank = std::find(byRank.begin(), byRank.end(), p) - byRank.begin();
        total += sorted[rank].first;
    }

    Model<unsigned long, double> M(T, new Chain<unsigned long>(n), 2);
    reports.clear();
    const double score = M.io.buildCliques(0.0, 2, record, M.g);
    EXPECT_NEAR(score, total / 2, 1e-12);
    EdgeList want = {sorted[0].second, sorted[1].second};
    std::sort(want.begin(), want.end());
    EXPECT_EQ(M.edges(), want);
    M.expectConsistent(T, true);
    EXPECT_EQ(labels(), (std::vector<std::string>{"ENT  ", "MI   ", "SORT ", "CLIQS"}));
    // The last report: vertex 0's component holds all vertices.
    EXPECT_EQ(reports.back().done, n);
    EXPECT_EQ(reports.back().total, n);
}

TEST(Cliques, TriplesJoinEveryVertexAndKeepTheCountsInSubsetOrder) {
    const size_t n = 6;
    std::mt19937 rng(4);
    Rows rows;
    const std::vector<size_t> Y = {2, 3, 2, 4, 2, 3};
    for (size_t i = 0; i < 80; ++i) {
        std::vector<int> r(n);
        for (size_t c = 0; c < n; ++c) r[c] = (int)(rng() % Y[c]);
        r[2] = (r[0] + r[1]) % 2;
        r[5] = rng() % 4 == 0 ? (int)(rng() % 3) : r[3] % 3;
        rows.push_back(r);
    }
    Table T(Y, rows);
    Model<unsigned int, double> M(T, new Chain<unsigned int>(n), 3);
    const double score = M.io.buildCliques(0.0, 3, nullptr, M.g);
    EXPECT_EQ(M.io.gtype, 12u);
    EXPECT_TRUE(std::isfinite(score));
    EXPECT_GT(score, 0.0);
    EXPECT_TRUE(connected(n, M.edges()));
    // The graph is a union of triangles: every edge lies in a triangle.
    const EdgeList E = M.edges();
    std::set<std::pair<size_t, size_t>> S(E.begin(), E.end());
    for (const auto& e : E) {
        bool inTriangle = false;
        for (size_t w = 0; w < n; ++w)
            inTriangle |= S.count({std::min(e.first, w), std::max(e.first, w)}) &&
                          S.count({std::min(e.second, w), std::max(e.second, w)});
        EXPECT_TRUE(inTriangle) << e.first << "-" << e.second;
    }
    M.expectConsistent(T, true);
}

TEST(Cliques, NoSetTakenGivesNotANumber) {
    // Three vertices out of two: there is no set of that size.
    Table T({2, 2}, {{0, 1}, {1, 1}});
    Model<unsigned long, double> M(T, new Chain<unsigned long>(2), 3);
    EXPECT_TRUE(std::isnan(M.io.buildCliques(0.0, 3, nullptr, M.g)));
    EXPECT_EQ(M.io.G->edges(), 0u);
    EXPECT_EQ(M.io.gtype, 12u);
    M.expectConsistent(T, true);
}

// ---------------------------------------------------------------- random cliques

TEST(CliquesRnd, InformationOfASetFromItsSubsets) {
    std::mt19937 rng(8);
    Rows rows;
    for (size_t i = 0; i < 50; ++i) {
        const int a = rng() % 2, b = rng() % 3;
        rows.push_back({a, b, (a + b) % 2, (int)(rng() % 2)});
    }
    Table T({2, 3, 2, 2}, rows);
    Model<unsigned long, double> M(T);
    sparse_uint_t<unsigned long> x;
    const unsigned long pair[2] = {1, 3}, triple[3] = {0, 1, 2};
    EXPECT_NEAR(M.io.MI(x, 4, 2, pair, M.g), T.MI(1, 3), 1e-12);
    EXPECT_NEAR(M.io.MI(x, 4, 3, triple, M.g), T.interaction({0, 1, 2}), 1e-12);
}

TEST(CliquesRnd, JoinsEveryVertexOnDependentColumns) {
    const size_t n = 6;
    Table T(std::vector<size_t>(n, 2), noisyCopies(n, 400, 0.05, 6));
    for (unsigned long k : {2ul, 3ul}) {
        Model<unsigned long, double> M(T, new Chain<unsigned long>(n));
        std::mt19937 rng(21);
        reports.clear();
        const double score = M.io.buildCliquesRnd(0.0, k, record, M.g, rng);
        EXPECT_EQ(M.io.gtype, 13u);
        EXPECT_TRUE(std::isfinite(score));
        EXPECT_GT(score, 0.0);
        EXPECT_TRUE(connected(n, M.edges())) << k;
        M.expectConsistent(T);
        ASSERT_FALSE(reports.empty());
        EXPECT_EQ(reports.front().label, "STRUCT");
        EXPECT_EQ(reports.front().done, 0u);
        EXPECT_EQ(reports.back().label.substr(0, 7), "STRUCT;");
        const double rate = std::stod(reports.back().label.substr(7));
        EXPECT_GT(rate, 0.0);
        EXPECT_LE(rate, 1.0);
        EXPECT_EQ(reports.back().done, n);
        EXPECT_EQ(reports.back().total, n);
    }
}

TEST(CliquesRnd, StopRequestEndsWithNoSetTaken) {
    Table T({2, 2, 2}, noisyCopies(3, 50, 0.1, 7));
    Model<unsigned long, double> M(T, new Chain<unsigned long>(3));
    std::mt19937 rng(1);
    __run = false;
    const double score = M.io.buildCliquesRnd(0.0, 2, nullptr, M.g, rng);
    __run = true;
    EXPECT_TRUE(std::isnan(score));
    EXPECT_EQ(M.io.G->edges(), 0u);
    EXPECT_EQ(M.io.gtype, 13u);
}

// Counts that no table could give: each singleton is uniform while each pair
// sits in one cell, so the pair information exceeds the bound.
TEST(CliquesRndDeathTest, InformationAboveTheBound) {
    Table T({2, 2}, {{0, 0}, {1, 1}});
    Model<unsigned long, double> M(T, new Chain<unsigned long>(2));
    typename IO<unsigned long, double>::subset_stats_t g = [](size_t x, const unsigned long& L) {
        const sparse_uint_t<unsigned long>* s = reinterpret_cast<const sparse_uint_t<unsigned long>*>(x);
        double* r = new double[L]();
        if (s->data()->size() == 1) {
            r[0] = r[1] = 1;
        } else {
            r[0] = 2;
        }
        return r;
    };
    std::mt19937 rng(1);
    EXPECT_DEATH(M.io.buildCliquesRnd(0.0, 2, nullptr, g, rng),
                 "src/include/QZ/QZSTRUCT:[0-9]+: .*Assertion `Imax < upper' failed");
}

// ---------------------------------------------------------------- Chow-Liu

namespace {

// Rows drawn from a tree: each column copies its parent's state (modulo its
// own state count) or, with probability noise, draws a fresh state.
Rows treeRows(const std::vector<size_t>& Y, const std::vector<size_t>& parent, size_t N, double noise, unsigned seed) {
    std::mt19937 rng(seed);
    std::bernoulli_distribution fresh(noise);
    Rows rows;
    for (size_t i = 0; i < N; ++i) {
        std::vector<int> r(Y.size());
        r[0] = (int)(rng() % Y[0]);
        for (size_t c = 1; c < Y.size(); ++c)
            r[c] = fresh(rng) ? (int)(rng() % Y[c]) : r[parent[c]] % (int)Y[c];
        rows.push_back(r);
    }
    return rows;
}

}  // namespace

TEST(ChowLiu, TwoVariablesKeepTheirEdgeAndCounts) {
    Table T({2, 3}, {{0, 0}, {1, 2}, {1, 1}, {0, 0}, {1, 2}});
    Model<unsigned long, double> M(T);
    const std::vector<double> before = M.edgeCounts(0);
    M.io.buildChowLiu(nullptr);
    EXPECT_EQ(M.edges(), (EdgeList{{0, 1}}));
    EXPECT_EQ(M.edgeCounts(0), before);
    EXPECT_EQ(M.io.gtype, 6u);
    M.expectConsistent(T);
}

TEST(ChowLiu, TreeOverEveryVertex) {
    for (size_t n : {3, 5, 9}) {
        Table T(std::vector<size_t>(n, 3), treeRows(std::vector<size_t>(n, 3), std::vector<size_t>(n, 0), 50, 0.7, 3));
        Model<unsigned int, float> M(T);
        reports.clear();
        M.io.buildChowLiu(record);
        EXPECT_EQ(M.io.G->edges(), n - 1);
        EXPECT_TRUE(connected(n, M.edges()));
        M.expectConsistent(T);
        const size_t m = n * (n - 1) / 2;
        ASSERT_EQ(reports.size(), m);
        for (size_t e = 0; e < m; ++e) {
            EXPECT_EQ(reports[e].label, "CL   ");
            EXPECT_EQ(reports[e].done, e + 1);
            EXPECT_EQ(reports[e].total, m);
        }
    }
}

TEST(ChowLiu, RecoversTheTreeThatDrewTheTable) {
    const std::vector<size_t> Y = {3, 2, 4, 3, 2, 3, 4, 2, 3, 3, 2};
    const std::vector<size_t> parent = {0, 0, 0, 1, 2, 2, 3, 0, 5, 8, 4};
    Table T(Y, treeRows(Y, parent, 4000, 0.3, 12));
    EdgeList want;
    for (size_t c = 1; c < Y.size(); ++c) want.push_back({std::min(c, parent[c]), std::max(c, parent[c])});
    std::sort(want.begin(), want.end());

    Model<unsigned long, double> M(T);
    M.io.buildChowLiu(nullptr);
    EdgeList got = M.edges();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, want);
    M.expectConsistent(T);
}

TEST(ChowLiu, InformationOfTheBestSpanningTree) {
    std::mt19937 rng(99);
    for (size_t trial = 0; trial < 12; ++trial) {
        const size_t n = 2 + trial % 5;
        std::vector<size_t> Y(n);
        for (size_t& y : Y) y = 2 + rng() % 3;
        Rows rows;
        for (size_t i = 0; i < 40; ++i) {
            std::vector<int> r(n);
            for (size_t c = 0; c < n; ++c)
                r[c] = c > 0 && rng() % 3 != 0 ? r[rng() % c] % (int)Y[c] : (int)(rng() % Y[c]);
            rows.push_back(r);
        }
        Table T(Y, rows);
        Model<unsigned long, double> M(T);
        M.io.buildChowLiu(nullptr);
        ASSERT_EQ(M.io.G->edges(), n - 1);
        EXPECT_NEAR(treeInformation(T, M.edges()), treeInformation(T, bestSpanningTree(T)), 1e-12)
            << "trial " << trial;
    }
}
