// The plan of the exact engine: greedy elimination orders, the count of their
// tables against the junction tree built from the same order, the choice of
// the smallest tree, results that do not depend on the tree, and the memory
// budget that refuses a model before anything is allocated.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/graph/elimination>
#include <QZ/graph/junction_tree>
#include <QZ/bp/exact_plan>
#include <QZ/bp/hugin>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace qztest;

namespace {

typedef unsigned I;
typedef QZ::HuginAlgorithm<I, double> Engine;

EdgeList grid(size_t N, bool torus) {
    EdgeList E;
    for (size_t r = 0; r < N; ++r)
        for (size_t c = 0; c < N; ++c) {
            const size_t v = r * N + c;
            if (c + 1 < N) E.push_back({v, v + 1});
            else if (torus && N > 2) E.push_back({r * N, v});
            if (r + 1 < N) E.push_back({v, v + N});
            else if (torus && N > 2) E.push_back({c, v});
        }
    return E;
}

EdgeList randomGraph(size_t n, size_t m, unsigned seed) {
    std::mt19937 g(seed);
    std::set<std::pair<size_t, size_t>> S;
    while (S.size() < m) {
        const size_t a = g() % n, b = g() % n;
        if (a != b) S.insert({std::min(a, b), std::max(a, b)});
    }
    return EdgeList(S.begin(), S.end());
}

// A square grid with a diagonal in every cell: the maximum cardinality
// search leaves much larger cliques on it than min-fill does.
EdgeList diagonalGrid(size_t N) {
    EdgeList E = grid(N, false);
    for (size_t r = 0; r + 1 < N; ++r)
        for (size_t c = 0; c + 1 < N; ++c) E.push_back({r * N + c, (r + 1) * N + c + 1});
    return E;
}

std::vector<I> states(size_t n, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<I> Y(n);
    for (I& y : Y) y = 2 + g() % 2;
    return Y;
}

std::vector<double> weights(const EdgeList& E, const std::vector<I>& Y, unsigned seed) {
    std::mt19937_64 g(seed);
    std::normal_distribution<double> N(0.0, 0.7);
    std::vector<double> w;
    for (const auto& e : E)
        for (size_t k = 0; k < (size_t)Y[e.first] * Y[e.second]; ++k) w.push_back(N(g));
    return w;
}

// The entries of the cliques of a junction tree, counted from its sets.
double treeEntries(const QZ::JunctionTree<I>& J, const std::vector<I>& Y, size_t& largestVertices) {
    double total = 0, largest = 0;
    largestVertices = 0;
    for (I C = 0; C < J.cliques(); ++C) {
        double L = 1;
        for (const I& v : *J.vertexObjects(C)) L *= Y[v];
        total += L;
        if (L > largest) {
            largest = L;
            largestVertices = J.vertexObjects(C)->size();
        }
    }
    return total;
}

// Sets an environment variable for the life of the object.
struct Env {
    std::string name;
    bool had;
    std::string old;
    Env(const char* n, const char* v) : name(n) {
        const char* o = std::getenv(n);
        had = o != nullptr;
        if (had) old = o;
        setenv(n, v, 1);
    }
    ~Env() {
        if (had) setenv(name.c_str(), old.c_str(), 1);
        else unsetenv(name.c_str());
    }
};

const double kNoBudget = 1e18;

}  // namespace

// The simulated elimination finds the maximal cliques that the junction tree
// finds for the same order, whatever the order: random orders on random
// graphs, and the greedy orders.
TEST(ExactPlan, CountsTheCliquesOfTheTreeOfTheSameOrder) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const size_t n = 8 + seed % 9;
        const EdgeList E = randomGraph(n, n + seed % 13, seed);
        const auto G = makeGraph<I>(n, E);
        const std::vector<I> Y = states(n, seed);
        std::vector<size_t> order(n);
        std::iota(order.begin(), order.end(), 0);
        std::mt19937 g(seed);
        std::shuffle(order.begin(), order.end(), g);
        const QZ::EliminationRule fill = QZ::EliminationRule::MinFill, weight = QZ::EliminationRule::MinWeight;
        const QZ::EliminationPlan plans[3] = {
            QZ::planElimination<I>(*G, Y.data(), order, nullptr, kNoBudget),
            QZ::planElimination<I>(*G, Y.data(), {}, &fill, kNoBudget),
            QZ::planElimination<I>(*G, Y.data(), {}, &weight, kNoBudget)};
        for (const QZ::EliminationPlan& p : plans) {
            ASSERT_TRUE(p.complete);
            ASSERT_EQ(p.order.size(), n);
            std::vector<size_t> sorted = p.order;
            std::sort(sorted.begin(), sorted.end());
            for (size_t i = 0; i < n; ++i) ASSERT_EQ(sorted[i], i);  // a permutation
            const QZ::JunctionTree<I> J(*G, &p.order);
            size_t lv = 0;
            EXPECT_EQ(treeEntries(J, Y, lv), p.entries) << "seed " << seed;
            EXPECT_EQ((size_t)J.cliques(), p.cliques) << "seed " << seed;
            EXPECT_EQ(lv, p.largestVertices) << "seed " << seed;
        }
    }
}

// A tree needs no fill: min-fill eliminates leaves first and leaves exactly
// one table per edge.
TEST(ExactPlan, MinFillAddsNothingToATree) {
    const EdgeList E = {{0, 1}, {1, 2}, {1, 3}, {3, 4}, {3, 5}, {0, 6}};
    const auto G = makeGraph<I>(7, E);
    const std::vector<I> Y(7, 3);
    const QZ::EliminationRule fill = QZ::EliminationRule::MinFill;
    const QZ::EliminationPlan p = QZ::planElimination<I>(*G, Y.data(), {}, &fill, kNoBudget);
    EXPECT_EQ(p.cliques, E.size());
    EXPECT_EQ(p.entries, 9.0 * E.size());
    EXPECT_EQ(p.largestVertices, 2u);
}

// The plan passes the budget as soon as one table or all of them do, and
// says so instead of counting on.
TEST(ExactPlan, StopsAtTheBudget) {
    const auto G = makeGraph<I>(36, grid(6, false));
    const std::vector<I> Y(36, 2);
    const QZ::EliminationRule fill = QZ::EliminationRule::MinFill;
    const QZ::EliminationPlan all = QZ::planElimination<I>(*G, Y.data(), {}, &fill, kNoBudget);
    ASSERT_TRUE(all.complete);
    EXPECT_TRUE(QZ::planElimination<I>(*G, Y.data(), {}, &fill, all.entries).complete);
    const QZ::EliminationPlan cut = QZ::planElimination<I>(*G, Y.data(), {}, &fill, all.entries - 1);
    EXPECT_FALSE(cut.complete);
    EXPECT_LT(cut.order.size(), 36u);
}

// The engine takes the smallest of the orders it tries: never larger than
// the maximum cardinality search, much smaller where that search is poor,
// and that search's own tree where it is best (a square grid of 20).
TEST(ExactPlan, TheEngineTakesTheSmallestTree) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        const EdgeList E = randomGraph(30, 45, seed);
        const auto G = makeGraph<I>(30, E);
        const std::vector<I> Y = states(30, seed);
        const QZ::ExactPlan p = QZ::planExact<I>(*G, Y.data(), 1e12);
        ASSERT_EQ(p.tried.size(), 2u);
        EXPECT_STREQ(p.tried[0].name, "maximum cardinality");
        EXPECT_STREQ(p.tried[1].name, "min-fill");
        EXPECT_LE(p.chosen.entries, p.tried[0].entries);
    }
    {
        const auto G = makeGraph<I>(100, diagonalGrid(10));
        const std::vector<I> Y(100, 2);
        const QZ::ExactPlan p = QZ::planExact<I>(*G, Y.data(), 1e12);
        EXPECT_STREQ(p.chosen.name, "min-fill");
        EXPECT_LT(p.chosen.entries * 3, p.tried[0].entries);
        std::vector<double> w = weights(diagonalGrid(10), Y, 3);
        Engine H(G.get(), Y.data(), nullptr, w.data());
        EXPECT_EQ((double)H.numW, p.chosen.entries);
    }
    {
        const auto G = makeGraph<I>(400, grid(20, false));
        const std::vector<I> Y(400, 2);
        const QZ::ExactPlan p = QZ::planExact<I>(*G, Y.data(), 1e12);
        EXPECT_STREQ(p.chosen.name, "maximum cardinality");
    }
}

// Over the tree of the maximum cardinality search and over the chosen tree
// the engine gives the same log partition function and marginals, to
// rounding, and both agree with enumeration where it is feasible.
TEST(ExactPlan, ResultsDoNotDependOnTheTree) {
    struct Case {
        size_t n;
        EdgeList E;
    };
    const std::vector<Case> cases = {{16, grid(4, true)},        {25, grid(5, false)}, {36, diagonalGrid(6)},
                                     {20, randomGraph(20, 40, 5)}, {12, randomGraph(12, 50, 6)},
                                     {30, randomGraph(30, 50, 7)}};
    for (size_t k = 0; k < cases.size(); ++k) {
        const Case& c = cases[k];
        const auto G = makeGraph<I>(c.n, c.E);
        const std::vector<I> Y = states(c.n, 10 + (unsigned)k);
        std::vector<double> w = weights(c.E, Y, 20 + (unsigned)k);
        Engine A(G.get(), Y.data(), nullptr, w.data(), true), B(G.get(), Y.data(), nullptr, w.data());
        A.infer(0);
        B.infer(0);
        EXPECT_NEAR(B.A(), A.A(), 1e-10 * std::fabs(A.A())) << k;
        for (I v = 0; v < (I)c.n; ++v)
            for (I x = 0; x < Y[v]; ++x) {
                double p = 0, q = 0, Z = 0;
                A.vertex_marginal(v, x, p, Z);
                B.vertex_marginal(v, x, q, Z);
                EXPECT_NEAR(q, p, 1e-10 * std::max(p, 1e-300)) << k << " vertex " << v;
            }
        for (I e = 0; e < (I)c.E.size(); ++e) {
            I s = 0, t = 0;
            G->edge(e, s, t);
            for (I x = 0; x < Y[s]; ++x)
                for (I y = 0; y < Y[t]; ++y) {
                    double p = 0, q = 0, Z = 0;
                    A.edge_marginal(e, x, y, p, Z);
                    B.edge_marginal(e, x, y, q, Z);
                    EXPECT_NEAR(q, p, 1e-10 * std::max(p, 1e-300)) << k << " edge " << e;
                }
        }
        // Enumeration where the joint states are few enough.
        double states = 1;
        for (const I& y : Y) states *= y;
        if (states <= 1 << 20) {
            Engine S(G.get(), Y.data(), nullptr, w.data());
            S.infer_slow(10);
            EXPECT_NEAR(B.A(), S.A(), 1e-9 * std::fabs(S.A())) << k;
        }
    }
}

// A second engine after the first has gone reuses its tables, which hold the
// first one's numbers: the results are the same bits.
TEST(ExactPlan, ReusedTablesGiveTheSameBits) {
    const EdgeList E = grid(12, false);  // tables of several MB
    const auto G = makeGraph<I>(144, E);
    const std::vector<I> Y(144, 2);
    std::vector<double> w = weights(E, Y, 4);
    double a = 0;
    std::vector<double> m1;
    {
        Engine H(G.get(), Y.data(), nullptr, w.data());
        H.infer(0);
        a = H.A();
        for (I v = 0; v < 144; ++v) {
            double p = 0, Z = 0;
            H.vertex_marginal(v, 1, p, Z);
            m1.push_back(p);
        }
    }
    std::vector<double> w2 = weights(E, Y, 5);
    {
        Engine H(G.get(), Y.data(), nullptr, w2.data());
        H.infer(0);
    }
    Engine H(G.get(), Y.data(), nullptr, w.data());
    H.infer(0);
    EXPECT_EQ(H.A(), a);
    for (I v = 0; v < 144; ++v) {
        double p = 0, Z = 0;
        H.vertex_marginal(v, 1, p, Z);
        EXPECT_EQ(p, m1[v]) << v;
    }
}

// A model whose tables pass the budget is refused before anything is
// allocated, with the budget and the clique that passed it.
TEST(ExactPlan, TheBudgetRefusesWithAClearMessage) {
    const auto G = makeGraph<I>(16, randomGraph(16, 100, 3));
    const std::vector<I> Y(16, 2);
    std::vector<double> w(400, 0.1);
    Env env("QZ_JT_MAX_MB", "0.01");
    try {
        Engine H(G.get(), Y.data(), nullptr, w.data());
        FAIL() << "no error";
    } catch (const std::logic_error& e) {
        const std::string m = e.what();
        EXPECT_EQ(m.rfind("exact inference needs more than its memory budget of 1 MB for the tables of the junction "
                          "tree: every elimination order tried passes it (the smallest reaches a clique of ",
                          0),
                  0u)
            << m;
        EXPECT_NE(m.find(" variables with "), std::string::npos) << m;
        EXPECT_NE(m.find("raise the budget with QZ_JT_MAX_MB, or use ALG LBP"), std::string::npos) << m;
    }
}

TEST(ExactPlan, ABadBudgetIsAnError) {
    for (const char* bad : {"abc", "-5", "0", "12MB", "nan"}) {
        Env env("QZ_JT_MAX_MB", bad);
        try {
            QZ::exactTableBudgetBytes();
            FAIL() << bad;
        } catch (const std::logic_error& e) {
            EXPECT_EQ(std::string(e.what()),
                      std::string("QZ_JT_MAX_MB must be a positive number of megabytes, not \"") + bad + "\"");
        }
    }
    Env env("QZ_JT_MAX_MB", "2.5");
    EXPECT_EQ(QZ::exactTableBudgetBytes(), 2.5 * 1048576.0);
}

// Through a program: ALG JT on a model beyond the budget is a failed run with
// the same message, and the context keeps its table and model.
TEST(ExactPlan, AProgramBeyondTheBudgetFails) {
    std::mt19937 g(2);
    std::string t;
    for (size_t v = 0; v < 14; ++v) t += std::string(v ? "," : "") + "c" + std::to_string(v);
    t += "\n";
    for (size_t r = 0; r < 30; ++r) {
        for (size_t v = 0; v < 14; ++v) t += std::string(v ? "," : "") + std::to_string(g() % 2);
        t += "\n";
    }
    const std::string f = csvFile("exact_plan_budget", t);
    Env env("QZ_JT_MAX_MB", "0.05");
    Ctx c;
    const std::string err =
        failureOf(c, {"DFN '" + f + "'", "LDX DPT;", "GRA FULL;", "LDX GPT;", "MODEL;", "ALG JT;", "INFER;"});
    EXPECT_EQ(err.rfind("exact inference needs more than its memory budget of 1 MB", 0), 0u) << err;
    EXPECT_NE(reg(c, "DPT"), 0u);
    EXPECT_NE(reg(c, "MPT"), 0u);
}
