// MODEL with a structure search in GRA: the learned graph replaces the
// complete one in the container and in GPT, RES carries the score, the
// registers that steer the searches are checked, and the new model can be
// fitted and queried.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>

#include <cmath>
#include <functional>
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
                                                                         "MIO 30", "MIL 20", "ESTIMATE;", "MOV GP0 RES;",
                                                                         "INFER;"}));
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
