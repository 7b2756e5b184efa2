// MODEL with a structure search in GRA: the learned graph replaces the
// complete one in the container and in GPT, RES carries the score, the
// registers that steer the searches are checked, and the new model can be
// fitted and queried.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned long, double> IOd;

const std::string kVote = std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv";

std::vector<std::string> loadVote(const std::string& gra) {
    return {"SEED 3", "DFN '" + kVote + "'", "LDX DPT;", "GRA " + gra + ";", "LDX GPT;"};
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Rows of n binary columns that copy one hidden fair bit with 5% noise each,
// with the header and the line the reader drops.
std::string copiesTable(const std::string& tag, size_t n, size_t N) {
    std::mt19937 rng(17);
    std::ostringstream t;
    for (size_t c = 0; c < n; ++c) t << (c ? "," : "") << "c" << c;
    t << "\n";
    for (size_t c = 0; c < n; ++c) t << (c ? "," : "") << "0";
    t << "\n";
    for (size_t i = 0; i < N; ++i) {
        const int h = rng() % 2;
        for (size_t c = 0; c < n; ++c) t << (c ? "," : "") << (rng() % 20 == 0 ? 1 - h : h);
        t << "\n";
    }
    return csvFile("struct_" + tag, t.str());
}

std::vector<std::string> seen;
void recordLabel(size_t, size_t, const char* text) {
    if (seen.empty() || seen.back() != text) seen.push_back(text);
}

const IOd* model(void* c) { return reinterpret_cast<const IOd*>(reg(c, "MPT")); }

// The container agrees with its new graph: sizes, offsets and zero weights.
void expectInLine(void* c, const IOd* io) {
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(reg(c, "GPT"), (size_t)io->G);
    const size_t n = io->G->vertices(), m = io->G->edges();
    EXPECT_EQ(reg(c, "GEX"), m);
    EXPECT_EQ(reg(c, "DIM"), (size_t)io->dim);
    EXPECT_EQ((size_t)io->odim, n + m + 1);
    size_t dim = 0;
    for (size_t e = 0; e < m; ++e) {
        unsigned long s, t;
        io->G->edge(e, s, t);
        EXPECT_EQ(io->woff[n + e + 1] - io->woff[n + e], io->Y[s] * io->Y[t]);
        dim += io->Y[s] * io->Y[t];
    }
    EXPECT_EQ((size_t)io->dim, dim);
    EXPECT_EQ((size_t)io->sdim, (size_t)io->woff[n + m]);
    for (size_t i = 0; i < dim; ++i) EXPECT_EQ(io->w[i], 0.0);
}

}  // namespace

TEST(ModelSearch, ElemGMKeepsAFractionOfThePairs) {
    Ctx c;
    wreg(c, "CBP", (size_t)&recordLabel);
    seen.clear();
    ASSERT_TRUE(runLines(c, loadVote("ELEMGM") + std::vector<std::string>{"PEL 0.25", "MODEL;"}));
    const IOd* io = model(c);
    expectInLine(c, io);
    EXPECT_EQ(io->gtype, 7u);
    EXPECT_EQ(regR(c, "RES"), -1.0);
    // At most a quarter of the 136 pairs, rounded up by the cap's strict test.
    EXPECT_GT(reg(c, "GEX"), 0u);
    EXPECT_LE(reg(c, "GEX"), 34u);
    EXPECT_EQ(reg(c, "GVX"), 17u);
    EXPECT_EQ(seen, (std::vector<std::string>{"GRAPH", "EGM  ", "EGM E"}));
}

TEST(ModelSearch, ElemGMByDefaultTakesNoEdge) {
    Ctx c;
    ASSERT_TRUE(runLines(c, loadVote("ELEMGM") + std::vector<std::string>{"MODEL;"}));
    expectInLine(c, model(c));
    EXPECT_EQ(reg(c, "GEX"), 0u);
}

TEST(ModelSearch, ElemGMNeedsAFraction) {
    for (const char* pel : {"PEL 1.5", "PEL -0.1"}) {
        Ctx c;
        EXPECT_EQ(failureOf(c, loadVote("ELEMGM") + std::vector<std::string>{pel, "MODEL;"}),
                  "ELEMGM requires PEL between 0 and 1");
        // Refused before anything was built.
        EXPECT_EQ(reg(c, "MPT"), 0u);
    }
}

TEST(ModelSearch, CliquesOfTwoGiveATreeAndTheirScore) {
    Ctx c;
    wreg(c, "CBP", (size_t)&recordLabel);
    seen.clear();
    ASSERT_TRUE(runLines(c, loadVote("CLIQUES") + std::vector<std::string>{"KXX 2", "MODEL;"}));
    const IOd* io = model(c);
    expectInLine(c, io);
    EXPECT_EQ(io->gtype, 6u);
    EXPECT_EQ(reg(c, "GEX"), 16u);
    EXPECT_TRUE(connected(17, edgeList(*io->G)));
    const double res = regR(c, "RES");
    EXPECT_TRUE(std::isfinite(res));
    EXPECT_GT(res, 0.0);
    EXPECT_EQ(seen, (std::vector<std::string>{"STATE", "IDX  ", "STATS", "ENT  ", "MI   ", "SORT ", "CLIQS"}));
}

TEST(ModelSearch, CliquesOfThree) {
    Ctx c;
    ASSERT_TRUE(runLines(c, loadVote("CLIQUES") + std::vector<std::string>{"KXX 3", "MODEL;"}));
    const IOd* io = model(c);
    expectInLine(c, io);
    EXPECT_EQ(io->gtype, 12u);
    EXPECT_TRUE(connected(17, edgeList(*io->G)));
    EXPECT_TRUE(std::isfinite(regR(c, "RES")));
}

TEST(ModelSearch, CliquesLargerThanTheTableTakeNothing) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + copiesTable("small", 3, 20) + "'", "LDX DPT;", "GRA CLIQUES;", "LDX GPT;",
                             "KXX 4", "MODEL;"}));
    expectInLine(c, model(c));
    EXPECT_EQ(reg(c, "GEX"), 0u);
    EXPECT_TRUE(std::isnan(regR(c, "RES")));
}

TEST(ModelSearch, CliquesNeedPairs) {
    Ctx c;
    EXPECT_EQ(failureOf(c, loadVote("CLIQUES") + std::vector<std::string>{"KXX 1", "MODEL;"}),
              "CLIQUES requires KXX of at least 2");
    EXPECT_EQ(reg(c, "MPT"), 0u);
}

TEST(ModelSearch, RandomCliquesJoinEveryColumn) {
    Ctx c;
    wreg(c, "CBP", (size_t)&recordLabel);
    seen.clear();
    ASSERT_TRUE(runLines(c, {"SEED 5", "DFN '" + copiesTable("rnd", 6, 300) + "'", "LDX DPT;", "GRA RNDCLIQUES;",
                             "LDX GPT;", "KXX 2", "MODEL;"}));
    const IOd* io = model(c);
    expectInLine(c, io);
    EXPECT_EQ(io->gtype, 13u);
    EXPECT_TRUE(connected(6, edgeList(*io->G)));
    EXPECT_GT(regR(c, "RES"), 0.0);
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[0], "STRUCT");
    EXPECT_EQ(seen.back().substr(0, 7), "STRUCT;");
}

TEST(ModelSearch, RandomCliquesNeedASizeTheTableCanFill) {
    for (const char* k : {"KXX 1", "KXX 7"}) {
        Ctx c;
        EXPECT_EQ(failureOf(c, {"DFN '" + copiesTable("rndk", 6, 10) + "'", "LDX DPT;", "GRA RNDCLIQUES;", "LDX GPT;",
                                k, "MODEL;"}),
                  "RNDCLIQUES requires KXX between 2 and the number of vertices");
        EXPECT_EQ(reg(c, "MPT"), 0u);
    }
}

TEST(ModelSearch, LearnedGraphIsFittedAndQueried) {
    Ctx c;
    ASSERT_TRUE(runLines(c, loadVote("ELEMGM") + std::vector<std::string>{"PEL 0.2", "MODEL;", "ALG GD;", "STP 0.5",
                                                                         "MIO 30", "MIL 20", "ESTIMATE;",
                                                                         "MOV GP0 RES;", "INFER;"}));
    const double nll = regR(c, "GP0");
    // Below the independence model's (no weights) value of 17 log 2.
    EXPECT_TRUE(std::isfinite(nll));
    EXPECT_LT(nll, 17 * std::log(2.0));
    EXPECT_TRUE(std::isfinite(regR(c, "LNZ")));
}

TEST(ModelSearch, OtherInstantiations) {
    Ctx f;
    ASSERT_TRUE(runLines(f, std::vector<std::string>{"idx_t UINT16;", "val_t FLT32;"} + loadVote("CLIQUES") +
                                std::vector<std::string>{"KXX 2", "MODEL;"}));
    const auto* io = reinterpret_cast<const QZ::IO<unsigned short, float>*>(reg(f, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->G->edges(), 16u);
    EXPECT_EQ(reg(f, "GPT"), (size_t)io->G);

    // Integer counts make every pointwise score vanish: no pair is taken.
    Ctx u;
    ASSERT_TRUE(runLines(u, std::vector<std::string>{"idx_t UINT32;", "val_t UINT32;"} + loadVote("ELEMGM") +
                                std::vector<std::string>{"PEL 1.0", "MODEL;"}));
    const auto* iu = reinterpret_cast<const QZ::IO<unsigned int, unsigned int>*>(reg(u, "MPT"));
    ASSERT_NE(iu, nullptr);
    EXPECT_EQ(iu->G->edges(), 0u);
    EXPECT_EQ(iu->gtype, 7u);
}

TEST(ModelSearch, ChowLiuReplacesTheCompleteGraphAndLeavesNoScore) {
    Ctx c;
    ASSERT_TRUE(runLines(c, loadVote("CHOWLIU")));
    EXPECT_EQ(reg(c, "GEX"), 136u);
    wregR(c, "RES", 5.0);
    wreg(c, "CBP", (size_t)&recordLabel);
    seen.clear();
    ASSERT_TRUE(runLines(c, {"MODEL;"}));
    const IOd* io = model(c);
    expectInLine(c, io);
    EXPECT_EQ(io->gtype, 6u);
    EXPECT_EQ(reg(c, "GEX"), 16u);
    EXPECT_TRUE(connected(17, edgeList(*io->G)));
    EXPECT_EQ(regR(c, "RES"), -1.0);
    EXPECT_EQ(seen, (std::vector<std::string>{"CL   "}));
}

namespace {

// Entropy of the joint states of some columns of the table, in nats.
double entropyOf(const QZ::CategoricalData& D, const std::vector<size_t>& cols) {
    std::map<std::vector<size_t>, double> count;
    for (size_t r = 0; r < D.size(); ++r) {
        std::vector<size_t> key;
        for (size_t c : cols) key.push_back(D.get(r, c));
        count[key] += 1;
    }
    double h = 0;
    for (const auto& kv : count) h -= kv.second / D.size() * std::log(kv.second / D.size());
    return h;
}

// Mutual information of two columns.
double infoOf(const QZ::CategoricalData& D, size_t a, size_t b) {
    return entropyOf(D, {a}) + entropyOf(D, {b}) - entropyOf(D, {a, b});
}

// The largest total mutual information of a spanning tree over the first n
// columns, by Prim's algorithm over all pairs.
double bestTreeInformation(const QZ::CategoricalData& D, size_t n) {
    std::vector<bool> in(n, false);
    std::vector<double> best(n, -1);
    in[0] = true;
    for (size_t v = 1; v < n; ++v) best[v] = infoOf(D, 0, v);
    double total = 0;
    for (size_t step = 1; step < n; ++step) {
        size_t u = 0;
        for (size_t v = 0; v < n; ++v)
            if (!in[v] && (u == 0 || best[v] > best[u])) u = v;
        in[u] = true;
        total += best[u];
        for (size_t v = 0; v < n; ++v)
            if (!in[v]) best[v] = std::max(best[v], infoOf(D, u, v));
    }
    return total;
}

double sumOfEntropies(const QZ::CategoricalData& D, size_t n) {
    double h = 0;
    for (size_t v = 0; v < n; ++v) h += entropyOf(D, {v});
    return h;
}

}  // namespace

// A tree reproduces the table's pairwise frequencies on its edges at the
// optimum, where the average negative log-likelihood is the sum of the column
// entropies less the informations of the tree's edges.
TEST(ModelSearch, ChowLiuTreeFittedExactlyReachesTheTreeLikelihood) {
    Ctx c;
    ASSERT_TRUE(runLines(c, loadVote("CHOWLIU") + std::vector<std::string>{"MODEL;", "ALG JT;", "ALG FL1;", "STP 2",
                                                                          "MIO 1000", "EPO 0", "ESTIMATE;"}));
    const double nll = regR(c, "RES");
    // The table now holds the drawn votes in place of the unknown ones.
    const QZ::CategoricalData& D = *reinterpret_cast<const QZ::CategoricalData*>(reg(c, "DPT"));
    const size_t n = 17;
    double treeI = 0;
    for (const auto& e : edgeList(*model(c)->G)) treeI += infoOf(D, e.first, e.second);
    // The learned tree is a maximum spanning tree.
    const double primI = bestTreeInformation(D, n);
    EXPECT_NEAR(treeI, primI, 1e-12);
    EXPECT_NEAR(nll, sumOfEntropies(D, n) - treeI, 1e-6);
}

// The main example's model: the ELEMGM graph of the voting table fitted with
// the junction tree. Its objective is the exact average negative
// log-likelihood, here summed over all 2^17 joint states by brute force, and
// it lies below that of the Chow-Liu tree of the same table.
TEST(ModelSearch, VotingExampleFitsBelowTheTreeExactly) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"SEED 1984", "DFN '" + kVote + "'", "LDX DPT;", "GRA ELEMGM;", "PEL 0.6", "LDX GPT;",
                             "MODEL;", "ALG JT;", "ALG FL1;", "STP 1", "MIO 500", "ESTIMATE;"}));
    const double nll = regR(c, "RES");
    const IOd* io = model(c);
    const QZ::CategoricalData& D = *reinterpret_cast<const QZ::CategoricalData*>(reg(c, "DPT"));
    const size_t n = 17, m = io->G->edges();
    ASSERT_GT(m, 16u);
    std::vector<size_t> S(m), T(m), off(m);
    for (size_t e = 0; e < m; ++e) {
        unsigned long s, t;
        io->G->edge(e, s, t);
        S[e] = s;
        T[e] = t;
        off[e] = e == 0 ? 0 : off[e - 1] + 4;
    }
    auto energy = [&](const std::vector<size_t>& x) {
        double u = 0;
        for (size_t e = 0; e < m; ++e) u += io->w[off[e] + 2 * x[S[e]] + x[T[e]]];
        return u;
    };
    std::vector<size_t> x(n);
    double top = -1e300;
    std::vector<double> u(1u << n);
    for (size_t code = 0; code < u.size(); ++code) {
        for (size_t v = 0; v < n; ++v) x[v] = code >> v & 1;
        u[code] = energy(x);
        top = std::max(top, u[code]);
    }
    double z = 0;
    for (double e : u) z += std::exp(e - top);
    const double logZ = top + std::log(z);
    double mean = 0;
    for (size_t r = 0; r < D.size(); ++r) {
        for (size_t v = 0; v < n; ++v) x[v] = D.get(r, v);
        mean += energy(x) / D.size();
    }
    EXPECT_NEAR(nll, logZ - mean, 1e-9);

    // The Chow-Liu tree of the same table, from its entropies.
    EXPECT_LT(nll, sumOfEntropies(D, n) - bestTreeInformation(D, n) - 0.2);
}

namespace {

// Runs an example program from the repository root and returns the printed
// registers by name.
std::map<std::string, double> runExample(const std::string& args) {
    const std::string cmd = "cd " + std::string(QZ_SOURCE_DIR) + " && " + QZ_QZRUN + " " + args + " 2>&1";
    FILE* f = popen(cmd.c_str(), "r");
    std::map<std::string, double> regs;
    if (f == nullptr) return regs;
    char buf[256];
    while (fgets(buf, sizeof buf, f) != nullptr) {
        const std::string line(buf);
        const size_t eq = line.find('=');
        if (eq != std::string::npos) regs[line.substr(0, eq)] = std::stod(line.substr(eq + 1));
    }
    EXPECT_EQ(pclose(f), 0) << args;
    return regs;
}

}  // namespace

TEST(ModelSearch, StructureExampleComparesTreeElemGMAndCompleteGraph) {
    std::map<std::string, double> r =
        runExample("examples/structure.qz -p GP0 -p GP1 -p GP2 -p GP3 -p GP4 -p GP5");
    EXPECT_EQ(r["GP0"], 136);
    EXPECT_EQ(r["GP2"], 16);
    EXPECT_EQ(r["GP4"], 82);
    // More edges fit better: complete graph, then ELEMGM, then the tree.
    EXPECT_LT(r["GP1"], r["GP5"]);
    EXPECT_LT(r["GP5"], r["GP3"]);
    EXPECT_GT(r["GP1"], 7.0);

    // The main example fits the same ELEMGM graph.
    std::map<std::string, double> v = runExample("examples/vote.qz -p GEX -p DIM -p GP0 -p LNZ");
    EXPECT_EQ(v["GEX"], 82);
    EXPECT_EQ(v["DIM"], 328);
    EXPECT_NEAR(v["GP0"], r["GP5"], 1e-6);
    EXPECT_LT(v["GP0"], r["GP3"]);
}

// A learned model is an ordinary model: its file reads back with the learned
// graph, its counts and its fitted weights.
TEST(ModelSearch, LearnedModelStoresAndReadsBack) {
    const std::string mfn = tmpPath("struct_learned.qzm");
    std::remove(mfn.c_str());
    Ctx c;
    ASSERT_TRUE(runLines(c, loadVote("CLIQUES") + std::vector<std::string>{"KXX 3", "MODEL;", "ALG JT;", "ALG FL1;",
                                                                          "MIO 50", "ESTIMATE;", "MFN '" + mfn + "'",
                                                                          "STORE MPT;"}));
    const IOd* io = model(c);
    Ctx d;
    ASSERT_TRUE(runLines(d, {"MFN '" + mfn + "'", "LDX MPT;"}));
    const IOd* back = model(d);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(edgeList(*back->G), edgeList(*io->G));
    EXPECT_EQ(back->gtype, 12u);
    EXPECT_EQ(std::vector<unsigned long>(back->woff, back->woff + back->odim),
              std::vector<unsigned long>(io->woff, io->woff + io->odim));
    EXPECT_EQ(std::vector<double>(back->E, back->E + back->sdim), std::vector<double>(io->E, io->E + io->sdim));
    EXPECT_EQ(std::vector<double>(back->w, back->w + back->dim), std::vector<double>(io->w, io->w + io->dim));
}

namespace {

std::vector<std::string> warnings;
void recordWarning(size_t, size_t, const char* text) {
    const std::string s = text;
    if (s.rfind("warning: ", 0) == 0) warnings.push_back(s.substr(9));
}

bool anyWarningWith(const std::string& part) {
    for (const std::string& w : warnings)
        if (w.find(part) != std::string::npos) return true;
    return false;
}

}  // namespace

// The exhaustive clique search keeps the vertex part of its subset layout:
// the singletons ranked from the last vertex down. With a (2 states) and b
// (3 states), b's counts come first and vertex 1's block starts at 3.
TEST(ModelSearch, CliquesKeepTheSubsetOrderOfTheVertexCounts) {
    // The reader drops the line after the header.
    const std::string table = csvFile("struct_ab", "a,b\ny,r\nx,p\ny,q\nx,r\ny,p\nx,p\n");
    const std::string file = tmpPath("struct_ab.qzm");
    std::remove(file.c_str());
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + table + "'", "LDX DPT;", "GRA CLIQUES;", "KXX 2", "LDX GPT;", "MODEL;",
                             "MFN '" + file + "'", "STORE MPT;"}));
    const IOd* io = model(c);
    ASSERT_EQ(io->G->edges(), 1u);
    EXPECT_EQ(io->woff[0], 0u);
    EXPECT_EQ(io->woff[1], 3u);
    EXPECT_EQ(io->woff[2], 5u);
    // Counts of the five rows: a x3 y2; b (codes p, q, r by first appearance) 3, 1, 1.
    const std::vector<double> vertexPart{3, 1, 1, 3, 2};
    // The pair's block, a's state by b's: (x,p) 2, (x,q) 0, (x,r) 1, (y,p) 1, (y,q) 1, (y,r) 0.
    const std::vector<double> pairPart{2, 0, 1, 1, 1, 0};
    std::vector<double> E = vertexPart;
    E.insert(E.end(), pairPart.begin(), pairPart.end());
    ASSERT_EQ((size_t)io->sdim, E.size());
    for (size_t i = 0; i < E.size(); ++i) EXPECT_EQ(io->E[i], E[i]) << i;
    // The file ends with the statistics and then the six zero weights.
    const std::string bytes = readFile(file);
    ASSERT_GE(bytes.size(), 17 * sizeof(double));
    std::vector<double> stored(17);
    std::memcpy(stored.data(), bytes.data() + bytes.size() - 17 * sizeof(double), 17 * sizeof(double));
    for (size_t i = 0; i < E.size(); ++i) EXPECT_EQ(stored[i], E[i]) << i;
    for (size_t i = E.size(); i < 17; ++i) EXPECT_EQ(stored[i], 0.0) << i;
}

// KXX far above the number of columns ends at once with no clique, in every
// index width: there are no subsets of that size.
TEST(ModelSearch, CliquesFarAboveTheColumnsEndAtOnce) {
    for (const char* idx : {"UINT64", "UINT8"}) {
        for (const char* k : {"KXX 4294967296", "KXX 256", "KXX 4"}) {
            Ctx c;
            wreg(c, "CBP", (size_t)&recordWarning);
            warnings.clear();
            ASSERT_TRUE(runLines(c, {std::string("idx_t ") + idx, "DFN '" + copiesTable("small", 3, 20) + "'",
                                     "LDX DPT;", "GRA CLIQUES;", "LDX GPT;", k, "MODEL;"}))
                << idx << " " << k;
            EXPECT_EQ(reg(c, "GEX"), 0u) << idx << " " << k;
            EXPECT_TRUE(std::isnan(regR(c, "RES"))) << idx << " " << k;
            EXPECT_TRUE(anyWarningWith("KXX is above the number of vertices")) << idx << " " << k;
        }
    }
}

// An interrupt during the entropies ends the search with no clique taken.
namespace {
void interruptAtEntropies(size_t done, size_t total, const char* text) {
    recordWarning(done, total, text);
    if (std::string(text) == "ENT  ") __run = false;
}
}  // namespace

TEST(ModelSearch, CliquesStopOnAnInterrupt) {
    Ctx c;
    wreg(c, "CBP", (size_t)&interruptAtEntropies);
    warnings.clear();
    const bool ok = runLines(c, loadVote("CLIQUES") + std::vector<std::string>{"KXX 3", "MODEL;"});
    __run = true;
    ASSERT_TRUE(ok);
    EXPECT_EQ(reg(c, "GEX"), 0u);
    EXPECT_TRUE(std::isnan(regR(c, "RES")));
    EXPECT_TRUE(anyWarningWith("the clique search was interrupted"));
}

// Ten independent columns of 16 states: the random search's acceptance decays
// away before every column has joined. The partial graph is kept, RES is not
// a number, and a warning says how many joined and what to try.
TEST(ModelSearch, RandomCliquesThatGiveUpSaySo) {
    std::mt19937 g(5);
    std::ostringstream t;
    for (size_t c = 0; c < 10; ++c) t << (c ? "," : "") << "c" << c;
    t << "\n";
    for (size_t c = 0; c < 10; ++c) t << (c ? "," : "") << "s0";
    t << "\n";
    for (size_t i = 0; i < 500; ++i) {
        for (size_t c = 0; c < 10; ++c) t << (c ? "," : "") << "s" << g() % 16;
        t << "\n";
    }
    Ctx c;
    wreg(c, "CBP", (size_t)&recordWarning);
    warnings.clear();
    ASSERT_TRUE(runLines(c, {"SEED 3", "DFN '" + csvFile("struct_indep16", t.str()) + "'", "LDX DPT;",
                             "GRA RNDCLIQUES;", "LDX GPT;", "KXX 2", "MODEL;"}));
    EXPECT_LT(reg(c, "GEX"), 9u);
    EXPECT_FALSE(connected(10, edgeList(*model(c)->G)));
    EXPECT_TRUE(std::isnan(regR(c, "RES")));
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_NE(warnings[0].find("RNDCLIQUES gave up with "), std::string::npos) << warnings[0];
    EXPECT_NE(warnings[0].find(" of 10 vertices joined"), std::string::npos) << warnings[0];
    EXPECT_NE(warnings[0].find("try a larger KXX or another SEED"), std::string::npos) << warnings[0];
}

// Loopy belief propagation on a learned graph that leaves columns without
// edges: INFER says which, and what to use instead.
TEST(ModelSearch, IsolatedVerticesUnderLoopyBeliefPropagationAreNamed) {
    Ctx c;
    wreg(c, "CBP", (size_t)&recordWarning);
    warnings.clear();
    ASSERT_TRUE(runLines(c, loadVote("ELEMGM") + std::vector<std::string>{"PEL 0.05", "MODEL;"}));
    EXPECT_TRUE(warnings.empty());
    std::vector<size_t> lone;
    const IOd* io = model(c);
    for (unsigned long v = 0; v < 17; ++v)
        if (io->G->num_neighbors(v) == 0) lone.push_back(v);
    ASSERT_FALSE(lone.empty());
    ASSERT_TRUE(runLines(c, {"ALG LBP;", "INFER;"}));
    ASSERT_EQ(warnings.size(), 1u);
    const std::string& w = warnings[0];
    EXPECT_EQ(w.rfind("vertices " + std::to_string(lone[0]) + " (" + (*io->Xnames)[lone[0]] + "), ", 0), 0u) << w;
    EXPECT_NE(w.find("use ALG JT, or a graph that covers every column"), std::string::npos) << w;
    // The exact engine has nothing to say.
    warnings.clear();
    ASSERT_TRUE(runLines(c, {"ALG JT;", "INFER;"}));
    EXPECT_TRUE(warnings.empty());
    EXPECT_TRUE(std::isfinite(regR(c, "LNZ")));
}
