// The Ising model: n + m compact parameters over binary vertices, their
// expansion into the edge blocks the engine reads, the gradient mapped back,
// and the model through ESTIMATE, INFER and SAMPLE with REP ISING.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>
#include <QZ/inf/base>
#include <QZ/mrf/ising>
#include <QZ/opt/function>
#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned int, double> IOd;

// An Ising model over an engine on a graph given by its edges, all binary.
struct Model {
    std::unique_ptr<QZ::Graph<unsigned int>> G;
    std::vector<unsigned int> Y;
    std::vector<double> w;
    std::unique_ptr<QZ::LBP<unsigned int, double>> E;
    std::unique_ptr<QZ::Ising<unsigned int, double>> P;

    Model(size_t n, const EdgeList& edges) : G(makeGraph<unsigned int>(n, edges)), Y(n, 2), w(4 * edges.size(), 0) {
        E.reset(new QZ::LBP<unsigned int, double>(G.get(), Y.data(), nullptr, w.data(), false));
        E->setMaxIter(200);
        E->setEpsilon(1e-13);
        P.reset(new QZ::Ising<unsigned int, double>(E.get()));
    }
};

// log Z and the model's edge-state probabilities by enumeration, for weights
// in the layout of the engine (binary vertices, 4 entries an edge).
struct Exact {
    double logZ = 0;
    std::vector<double> p;  // 4 per edge
};

Exact enumerate(size_t n, const EdgeList& edges, const std::vector<double>& w) {
    Exact r;
    r.p.assign(4 * edges.size(), 0.0);
    double Z = 0;
    for (size_t x = 0; x < (1u << n); ++x) {
        double lp = 0;
        for (size_t e = 0; e < edges.size(); ++e)
            lp += w[4 * e + 2 * ((x >> edges[e].first) & 1) + ((x >> edges[e].second) & 1)];
        const double q = std::exp(lp);
        Z += q;
        for (size_t e = 0; e < edges.size(); ++e)
            r.p[4 * e + 2 * ((x >> edges[e].first) & 1) + ((x >> edges[e].second) & 1)] += q;
    }
    for (double& q : r.p) q /= Z;
    r.logZ = std::log(Z);
    return r;
}

// Rows of binary states as a table file with its sacrificial line.
std::string binaryTable(const std::string& tag, const std::vector<std::vector<int>>& rows) {
    std::string t;
    const size_t n = rows[0].size();
    for (size_t j = 0; j < n; ++j) t += (j ? "," : "") + std::string("c") + std::to_string(j);
    t += "\n";
    for (size_t j = 0; j < n; ++j) t += j ? ",d" : "d";
    t += "\n";
    for (const auto& r : rows) {
        for (size_t j = 0; j < n; ++j) t += (j ? "," : "") + std::to_string(r[j]);
        t += "\n";
    }
    return csvFile("ising_" + tag, t);
}

// Every row of five binary columns once, plus some more: every joint state of
// every pair occurs, so the optimum is finite.
std::vector<std::vector<int>> fiveColumnRows() {
    std::vector<std::vector<int>> rows;
    for (int x = 0; x < 32; ++x) rows.push_back({x & 1, (x >> 1) & 1, (x >> 2) & 1, (x >> 3) & 1, (x >> 4) & 1});
    const int extra[][5] = {{1, 1, 1, 0, 0}, {1, 1, 0, 0, 0}, {0, 0, 0, 1, 1}, {1, 1, 1, 1, 1}, {0, 1, 1, 1, 0},
                            {1, 1, 1, 0, 1}, {0, 0, 1, 1, 1}, {1, 0, 0, 0, 1}, {1, 1, 0, 1, 1}, {0, 0, 0, 0, 0}};
    for (const auto& r : extra) rows.push_back(std::vector<int>(r, r + 5));
    return rows;
}

}  // namespace

// ---------------------------------------------------------------- the model

TEST(Ising, CompactDimensionIsVerticesPlusEdges) {
    Model M(4, {{0, 1}, {1, 2}, {3, 1}});
    EXPECT_EQ(M.P->l_d, 7u);
    EXPECT_EQ(M.P->dim(), 7u);
    QZ::Function<unsigned int, double>* asFunction = M.P.get();
    EXPECT_EQ(asFunction->dim(), 7u);
    EXPECT_EQ(M.E->wdim(), 12u);
    EXPECT_EQ(M.P->current_point(), M.P->l_w);
    EXPECT_NE(M.P->current_point(), M.w.data());
    EXPECT_EQ(M.P->L(), 6.0);  // 2 times the number of edges
    for (unsigned int i = 0; i < 7; ++i) EXPECT_EQ(M.P->l_w[i], 0.0);
}

TEST(Ising, FieldOfTheMiddleOfAChainGoesToTheSecondEndOfEdgeZero) {
    Model M(3, {{0, 1}, {1, 2}});
    double* l = M.P->current_point();
    l[1] = 0.7;
    M.P->decode_weights();
    EXPECT_EQ(M.w, (std::vector<double>{0, 0.7, 0, 0.7, 0, 0, 0, 0}));
    // All five: fields of 0 (first end of edge 0) and 2 (second end of edge
    // 1), couplings on (1, 1).
    l[0] = 0.5;
    l[2] = -1.25;
    l[3] = 2.0;
    l[4] = -0.5;
    M.P->decode_weights();
    EXPECT_EQ(M.w, (std::vector<double>{0, 0.7, 0.5, 2.0 + 0.5 + 0.7, 0, -1.25, 0, -0.5 - 1.25}));
}

template <typename I, typename V> void expectChainDecode() {
    auto G = makeGraph<I>(3, {{0, 1}, {1, 2}});
    std::vector<I> Y(3, 2);
    std::vector<V> w(8, (V)9);
    QZ::LBP<I, V> E(G.get(), Y.data(), nullptr, w.data(), false);
    QZ::Ising<I, V> P(&E);
    EXPECT_EQ(P.dim(), (I)5);
    V* l = P.current_point();
    for (int i = 0; i < 5; ++i) l[i] = (V)(i + 1);
    P.decode_weights();
    EXPECT_EQ(w, (std::vector<V>{0, 2, 1, 4 + 1 + 2, 0, 3, 0, 5 + 3}));
}

TEST(Ising, EveryFloatingInstanceDecodesTheSame) {
    expectChainDecode<unsigned char, float>();
    expectChainDecode<unsigned short, float>();
    expectChainDecode<unsigned int, float>();
    expectChainDecode<unsigned long, float>();
    expectChainDecode<unsigned char, double>();
    expectChainDecode<unsigned short, double>();
    expectChainDecode<unsigned int, double>();
    expectChainDecode<unsigned long, double>();
}

TEST(Ising, AllCompactZeroGivesAllWeightsZero) {
    Model M(4, {{0, 1}, {2, 1}, {2, 3}});
    for (double& x : M.w) x = 3.5;
    M.P->decode_weights();
    EXPECT_EQ(M.w, std::vector<double>(12, 0.0));
}

TEST(Ising, DecodedPotentialIsFieldsAndCouplings) {
    // Whatever edge a field lands on, the log potential of a joint state is
    // the sum of the fields of the vertices in state 1 and the couplings of
    // the edges with both ends in state 1.
    const EdgeList edges = {{0, 1}, {2, 1}, {2, 3}, {1, 4}, {4, 3}};
    Model M(5, edges);
    double* l = M.P->current_point();
    for (unsigned int i = 0; i < 10; ++i) l[i] = 0.3 * (double)i - 1.1;
    M.P->decode_weights();
    for (unsigned int x = 0; x < 32; ++x) {
        double want = 0;
        for (unsigned int v = 0; v < 5; ++v)
            if ((x >> v) & 1) want += l[v];
        for (size_t e = 0; e < edges.size(); ++e)
            if (((x >> edges[e].first) & 1) && ((x >> edges[e].second) & 1)) want += l[5 + e];
        unsigned int s[5];
        for (unsigned int v = 0; v < 5; ++v) s[v] = (x >> v) & 1;
        EXPECT_NEAR(M.E->log_potential(s), want, 1e-12) << x;
    }
}

TEST(Ising, VertexWithoutEdgesKeepsItsParameterOutOfTheWeights) {
    // No first edge: the field has nowhere to go and no gradient.
    Model M(3, {{0, 1}});
    double* l = M.P->current_point();
    l[2] = 5.0;
    M.P->decode_weights();
    EXPECT_EQ(M.w, (std::vector<double>{0, 0, 0, 0}));
    std::vector<double> emp = {0.25, 0.25, 0.25, 0.25};
    double* e = emp.data();
    M.P->set_empirical(e, 4);
    const double* g = M.P->comp_gradient();
    EXPECT_EQ(g[2], 0.0);
}

TEST(Ising, ThreeStatesAnywhereRaiseTheError) {
    auto G = makeGraph<unsigned short>(3, {{0, 1}, {1, 2}});
    std::vector<unsigned short> Y = {2, 3, 2};
    QZ::LBP<unsigned short, float> E(G.get(), Y.data(), nullptr, nullptr, false);
    try {
        QZ::Ising<unsigned short, float> P(&E);
        FAIL() << "no error";
    } catch (const std::out_of_range& x) {
        EXPECT_STREQ(x.what(), "Ising model requires binary states.");
    }
    // The engine is not touched by the failure.
    E.setMaxIter(5);
    E.infer(0);
    EXPECT_TRUE(std::isfinite(E.A()));
}

TEST(Ising, GradientIsModelMinusDataOfStateOneAndOfBothOne) {
    const EdgeList edges = {{0, 1}, {2, 1}, {1, 3}, {3, 4}};
    Model M(5, edges);
    double* l = M.P->current_point();
    const double vals[] = {0.4, -0.9, 0.2, 1.1, -0.3, 0.8, -0.6, 0.5, 0.35};
    for (unsigned int i = 0; i < 9; ++i) l[i] = vals[i];
    // Data frequencies of some table, in the engine's layout.
    std::vector<double> emp = {0.1, 0.2, 0.3, 0.4, 0.25, 0.25, 0.15, 0.35, 0.4, 0.1, 0.2, 0.3, 0.05, 0.45, 0.3, 0.2};
    double* e = emp.data();
    M.P->set_empirical(e, 20);
    M.P->decode_weights();
    const double* g = M.P->comp_gradient();
    const Exact X = enumerate(5, edges, M.w);
    // P(v = 1) from the enumeration against the data's v = 1 in v's first edge.
    const size_t first[] = {0, 0, 1, 2, 3};
    for (unsigned int v = 0; v < 5; ++v) {
        const size_t f = first[v];
        const bool second = edges[f].second == v;
        const double model = second ? X.p[4 * f + 1] + X.p[4 * f + 3] : X.p[4 * f + 2] + X.p[4 * f + 3];
        const double data = second ? emp[4 * f + 1] + emp[4 * f + 3] : emp[4 * f + 2] + emp[4 * f + 3];
        EXPECT_NEAR(g[v], model - data, 1e-9) << v;
    }
    double largest = 0;
    for (unsigned int e2 = 0; e2 < 4; ++e2) EXPECT_NEAR(g[5 + e2], X.p[4 * e2 + 3] - emp[4 * e2 + 3], 1e-9);
    for (unsigned int i = 0; i < 9; ++i) largest = std::max(largest, std::fabs(g[i]));
    EXPECT_EQ(M.P->get_gradient_norm(), largest);
}

TEST(Ising, GradientAgreesWithFiniteDifferencesOfTheFullObjective) {
    const EdgeList edges = {{1, 0}, {1, 2}, {3, 2}};
    Model M(4, edges);
    std::vector<double> emp = {0.1, 0.3, 0.2, 0.4, 0.3, 0.2, 0.1, 0.4, 0.25, 0.05, 0.3, 0.4};
    double* e = emp.data();
    M.P->set_empirical(e, 10);
    double* l = M.P->current_point();
    const double start[] = {0.2, -0.4, 0.7, 0.1, -0.8, 0.5, 0.3};
    for (unsigned int i = 0; i < 7; ++i) l[i] = start[i];
    // The objective of which this is the gradient: A of the decoded weights
    // less their inner product with all the data frequencies.
    auto objective = [&]() {
        M.P->decode_weights();
        double dot = 0;
        for (size_t i = 0; i < M.w.size(); ++i) dot += M.w[i] * emp[i];
        return enumerate(4, edges, M.w).logZ - dot;
    };
    M.P->decode_weights();
    const std::vector<double> g(M.P->comp_gradient(), M.P->comp_gradient() + 7);
    const double h = 1e-6;
    for (unsigned int i = 0; i < 7; ++i) {
        const double keep = l[i];
        l[i] = keep + h;
        const double up = objective();
        l[i] = keep - h;
        const double down = objective();
        l[i] = keep;
        EXPECT_NEAR(g[i], (up - down) / (2 * h), 1e-6) << i;
    }
}

TEST(Ising, ValueIsThePartialInnerProductOfTheFirstEntries) {
    const EdgeList edges = {{0, 1}, {1, 2}};
    Model M(3, edges);
    std::vector<double> emp = {0.1, 0.2, 0.3, 0.4, 0.4, 0.3, 0.2, 0.1};
    double* e = emp.data();
    M.P->set_empirical(e, 10);
    double* l = M.P->current_point();
    l[0] = 0.3;
    l[1] = -0.2;
    l[2] = 0.9;
    l[3] = 0.6;
    l[4] = -1.0;
    M.P->decode_weights();
    M.P->comp_gradient();
    // Five of the eight entries.
    double dot = 0;
    for (int i = 0; i < 5; ++i) dot += M.w[i] * emp[i];
    EXPECT_NEAR(M.P->eval(), M.E->A() - dot, 1e-12);
    const double full = enumerate(3, edges, M.w).logZ;
    EXPECT_NEAR(M.E->A(), full, 1e-9);
}

// ---------------------------------------------------------------- programs

namespace {

std::vector<std::string> loadLines(const std::string& file, const char* gra) {
    return {"DFN '" + file + "'", "LDX DPT;", std::string("GRA ") + gra + ";", "LDX GPT;", "MODEL;"};
}

// The objective A(w) - <w, mu> by enumeration, with mu the table's edge
// frequencies, for weights in the engine's layout.
double objectiveOf(const IOd* io, const EdgeList& edges, const std::vector<double>& w) {
    const size_t n = io->G->vertices();
    const Exact X = enumerate(n, edges, w);
    double dot = 0;
    const double* E = io->E + io->woff[n];
    for (size_t i = 0; i < w.size(); ++i) dot += w[i] * E[i] / (double)io->num_instances;
    return X.logZ - dot;
}

// The weights that n fields and m couplings give.
std::vector<double> expand(const double* l, size_t n, const EdgeList& edges) {
    std::vector<double> w(4 * edges.size(), 0.0);
    for (size_t e = 0; e < edges.size(); ++e) w[4 * e + 3] += l[n + e];
    std::vector<bool> placed(n, false);
    for (size_t e = 0; e < edges.size(); ++e) {
        for (size_t v : {edges[e].first, edges[e].second}) {
            if (placed[v]) continue;
            placed[v] = true;
            w[4 * e + (v == edges[e].first ? 2 : 1)] += l[v];
            w[4 * e + 3] += l[v];
        }
    }
    return w;
}

// An engine that enumerates all joint states at every run: exact marginals
// and log partition function on any small graph, for the external factory.
class Enumerating : public QZ::LBP<unsigned int, double> {
public:
    using QZ::LBP<unsigned int, double>::LBP;
    void infer(const unsigned int& mode) override { this->infer_slow(mode); }
};

QZ::InferenceAlgorithm<unsigned int, double>* makeEnumerating(QZ::AbstractGraph<unsigned int>*& G, unsigned int*& Y,
                                                              std::mt19937* e, double* w) {
    return new Enumerating(G, Y, e, w, false);
}

// Fits the plain model and the Ising model on one table and graph with the
// engine that the setup lines choose, to convergence, and compares the
// objectives of both fits: on binary data the two are the same family.
void expectSameOptimum(const std::string& tag, const char* gra, const std::vector<std::string>& engine,
                       size_t edgeCount, const char* steps) {
    const std::string f = binaryTable(tag, fiveColumnRows());
    std::vector<std::string> fit = engine;
    for (const char* l : {"ALG GD;", "STP 1.0", "EPO 0.0", "MIL 200", "EPL 1e-12"}) fit.push_back(l);
    fit.push_back(std::string("MIO ") + steps);
    fit.push_back("ESTIMATE;");
    Ctx plain;
    wreg(plain, "IDX", 2);
    wreg(plain, "EXT0", (size_t)&makeEnumerating);
    ASSERT_TRUE(runLines(plain, loadLines(f, gra)));
    ASSERT_TRUE(runLines(plain, fit));
    const IOd* a = reinterpret_cast<IOd*>(reg(plain, "MPT"));
    const EdgeList edges = edgeList(*a->G);
    ASSERT_EQ(edges.size(), edgeCount);
    const double plainObjective = objectiveOf(a, edges, std::vector<double>(a->w, a->w + a->dim));
    // RES is the objective of the best point, as the engine gives A.
    EXPECT_NEAR(regR(plain, "RES"), plainObjective, 1e-8);

    Ctx ising;
    wreg(ising, "IDX", 2);
    wreg(ising, "EXT0", (size_t)&makeEnumerating);
    ASSERT_TRUE(runLines(ising, {"REP ISING;"}));
    ASSERT_TRUE(runLines(ising, loadLines(f, gra)));
    ASSERT_TRUE(runLines(ising, fit));
    const IOd* b = reinterpret_cast<IOd*>(reg(ising, "MPT"));
    ASSERT_EQ(edgeList(*b->G), edges);
    const size_t n = 5, m = edges.size();
    // The container's head holds the n + m compact parameters; the plain
    // model has 4 for each edge.
    const double isingObjective = objectiveOf(b, edges, expand(b->w, n, edges));
    EXPECT_NEAR(isingObjective, plainObjective, 1e-5);
    EXPECT_EQ(a->dim, 4 * m);
    // And the mean log-likelihood of the rows says the same of the Ising fit.
    const QZ::CategoricalData* D = reinterpret_cast<QZ::CategoricalData*>(reg(ising, "DPT"));
    const std::vector<double> wb = expand(b->w, n, edges);
    const double lz = enumerate(n, edges, wb).logZ;
    double ll = 0;
    for (size_t i = 0; i < D->rows(); ++i) {
        double lp = 0;
        for (size_t v = 0; v < n; ++v)
            if (D->get(i, v) == 1) lp += b->w[v];
        for (size_t e = 0; e < m; ++e)
            if (D->get(i, edges[e].first) == 1 && D->get(i, edges[e].second) == 1) lp += b->w[n + e];
        ll += lp - lz;
    }
    EXPECT_NEAR(-ll / (double)D->rows(), plainObjective, 1e-5);
}

// An Ising model over the chain of the five-column table, 32-bit indices.
IOd* isingChain(Ctx& c, const std::string& tag) {
    wreg(c, "IDX", 2);
    if (!runLines(c, {"REP ISING;"})) return nullptr;
    if (!runLines(c, loadLines(binaryTable(tag, fiveColumnRows()), "CHAIN"))) return nullptr;
    return reinterpret_cast<IOd*>(reg(c, "MPT"));
}

}  // namespace

TEST(IsingProgram, FitReachesThePlainModelsOptimumOnATree) {
    // A chain has no isolated vertex; belief propagation is exact on it.
    expectSameOptimum("chain", "CHAIN", {"ALG LBP;"}, 4, "4000");
}

TEST(IsingProgram, FitWithTheJunctionTreeReachesThePlainModelsOptimum) {
    // Exact inference on a graph with loops: the complete graph over the five
    // columns, 10 edges, 15 parameters against 40.
    expectSameOptimum("full_jt", "FULL", {"ALG JT;"}, 10, "6000");
}

TEST(IsingProgram, FitReachesThePlainModelsOptimumOnACompleteGraph) {
    // Loops everywhere; an engine that enumerates makes every gradient exact.
    expectSameOptimum("full_enum", "FULL", {"ALG EXTI;"}, 10, "6000");
}

TEST(IsingProgram, ResetStartZeroesTheCompactVectorOnly) {
    Ctx c;
    IOd* io = isingChain(c, "rst");
    ASSERT_NE(io, nullptr);
    ASSERT_EQ(io->dim, 16u);
    // A prior fit of the compact parameters, and a tail the compact vector
    // does not cover.
    for (unsigned int i = 0; i < 16; ++i) io->w[i] = 0.25 * (double)i + 1.0;
    // With MIO 0 the point stays where the start put it.
    ASSERT_TRUE(runLines(c, {"ALG GD;", "STP 1.0", "MIO 0", "RST true", "ESTIMATE;"}));
    // The head holds the zeroed compact parameters; the rest is the last
    // decode of them, all zero as well.
    EXPECT_EQ(std::vector<double>(io->w, io->w + 16), std::vector<double>(16, 0.0));
    // Without RST the container's head is the start: a second run continues.
    for (unsigned int i = 0; i < 9; ++i) io->w[i] = 0.5;
    ASSERT_TRUE(runLines(c, {"RST false", "ESTIMATE;"}));
    EXPECT_EQ(std::vector<double>(io->w, io->w + 9), std::vector<double>(9, 0.5));
    // Its tail is the decode of those: edges 2 and 3 carry the fields of
    // their second ends (on (0, 1) and (1, 1)) and their couplings.
    EXPECT_EQ(std::vector<double>(io->w + 9, io->w + 16), (std::vector<double>{0.5, 0, 1.0, 0, 0.5, 0, 1.0}));
}

TEST(IsingProgram, InferGivesTheMarginalsOfTheDecodedModelAndRestoresTheContainer) {
    Ctx c;
    IOd* io = isingChain(c, "infer");
    ASSERT_NE(io, nullptr);
    const double l[] = {0.3, -0.2, 0.5, 0.1, -0.4, 0.8, -0.6, 0.2, 0.4};
    for (unsigned int i = 0; i < 9; ++i) io->w[i] = l[i];
    for (unsigned int i = 9; i < 16; ++i) io->w[i] = 7.0;  // not read
    const std::vector<double> before(io->w, io->w + 16);
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "MIL 100", "EPL 1e-12", "INFER;"}));
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    const EdgeList edges = {{0, 1}, {1, 2}, {2, 3}, {3, 4}};
    const Exact X = enumerate(5, edges, expand(l, 5, edges));
    EXPECT_NEAR(regR(c, "LNZ"), X.logZ, 1e-9);
    for (size_t i = 0; i < 16; ++i) EXPECT_NEAR(PP[10 + i], X.p[i], 1e-9) << i;
    EXPECT_EQ(std::vector<double>(io->w, io->w + 16), before);
}

TEST(IsingProgram, SampleRunsOverTheDecodedModelAndLeavesTheContainer) {
    // Perturb-and-MAP adds its noise to the compact vector by the edge blocks
    // of the weights, which reach beyond n + m entries; Gibbs sampling reads
    // the decoded weights. Floating models hand a missing cell back as state
    // 0 and keep the cells that are there, so the rows say that every row
    // was done; the container is only read.
    for (const char* pam : {"PAM 0.1", "PAM 0.0"}) {
        Ctx c;
        wreg(c, "SEED", 5);
        IOd* io = isingChain(c, "sample");
        ASSERT_NE(io, nullptr);
        for (unsigned int i = 0; i < 5; ++i) io->w[i] = 2.0;
        for (unsigned int i = 5; i < 9; ++i) io->w[i] = 3.0;
        for (unsigned int i = 9; i < 16; ++i) io->w[i] = -50.0;  // not read
        const std::vector<double> before(io->w, io->w + 16);
        QZ::CategoricalData* D = reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT"));
        std::vector<std::vector<unsigned short>> want(D->rows(), std::vector<unsigned short>(5));
        for (size_t i = 0; i < D->rows(); ++i)
            for (size_t v = 0; v < 5; ++v) {
                want[i][v] = D->get(i, v);
                if ((i + v) % 3 == 0) {
                    D->set(QZ::CategoricalData::MIS_VAL, i, v, false);
                    want[i][v] = 0;
                }
            }
        ASSERT_TRUE(runLines(c, {"MIL 100", pam, "GRE 5", "SAMPLE;"})) << pam;
        EXPECT_EQ(reg(c, "GNU"), D->rows());
        for (size_t i = 0; i < D->rows(); ++i)
            for (size_t v = 0; v < 5; ++v) EXPECT_EQ(D->get(i, v), want[i][v]) << pam << " row " << i << " col " << v;
        EXPECT_EQ(std::vector<double>(io->w, io->w + 16), before) << pam;
    }
}

TEST(IsingProgram, ThreeStatesFailAtTheFirstModelFunctionNotAtModel) {
    const std::string f = csvFile("ising_three", "a,b\nd,d\n0,x\n1,y\n0,z\n");
    for (const char* instr : {"ESTIMATE;", "INFER;"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, {"REP ISING;"}));
        ASSERT_TRUE(runLines(c, loadLines(f, "CHAIN")));
        ASSERT_NE(reg(c, "MPT"), 0u);
        EXPECT_EQ(failureOf(c, {"ALG GD;", instr}), "Ising model requires binary states.") << instr;
    }
}
