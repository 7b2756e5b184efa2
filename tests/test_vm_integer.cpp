// The integer models through programs: the engine, model and search method
// that the machine builds for integer value types, training on the voting
// records, and the queries of an integer model.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include "../src/instructions/engine.h"

#include <QZ/bp/bitlength>
#include <QZ/inf/base>
#include <QZ/mrf/model>
#include <QZ/mrf/integer>
#include <QZ/opt/optimizer>
#include <QZ/opt/search>
#include <QZ/QZDATA>
#include <QZ/QZINT>
#include <QZ/QZIO>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

using namespace qztest;
using QZ::vm_t;

namespace {

vm_t* vmOf(Ctx& c) { return static_cast<vm_t*>(c.p); }

const char* kBinary =
    "a,b,c\n"
    "dropped,dropped,dropped\n"
    "0,0,0\n"
    "0,0,1\n"
    "1,1,1\n"
    "1,1,0\n"
    "0,1,1\n"
    "1,1,1\n";

// The second column has three states.
const char* kWithThree = "a,b\nd,d\n1,u\n0,v\n1,w\n1,u\n";

std::vector<std::string> chainModel(const std::string& tag, const char* width, const std::string& text = kBinary) {
    return {std::string("idx_t ") + width + ";", std::string("val_t ") + width + ";",
            "DFN '" + csvFile("int_" + tag, text) + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"};
}

// The voting records, or their first rows only.
std::string voteFile(size_t rows) {
    const std::string src = std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv";
    if (rows == 0) return src;
    std::ifstream in(src);
    std::string out, line;
    // The header, the line the reader drops, then the rows.
    for (size_t i = 0; i < rows + 2 && std::getline(in, line); ++i) out += line + "\n";
    const std::string p = tmpPath("int_vote_" + std::to_string(rows) + ".csv");
    writeFile(p, out);
    return p;
}

// Points and mismatches that the update hook of the run sees: the start, then
// each iterate before the frame compares it.
std::vector<std::vector<uint64_t>> gPoints;
std::vector<uint64_t> gNorms;

template <typename T> void recordHook(QZ::OptState<T, T>* o) {
    gPoints.push_back(std::vector<uint64_t>(o->weights, o->weights + o->dim));
    gNorms.push_back((uint64_t)o->norm);
}

struct Run {
    std::vector<std::vector<uint64_t>> points;
    std::vector<uint64_t> norms;
    std::vector<uint64_t> w;
    uint64_t res;
    std::vector<uint64_t> blocks;  // block starts, one block per edge
};

template <typename T> Run trainOnVotes(const char* width, const char* gra, size_t rows, const char* alg, size_t iters) {
    Ctx c;
    gPoints.clear();
    gNorms.clear();
    EXPECT_TRUE(runLines(c, {std::string("idx_t ") + width + ";", std::string("val_t ") + width + ";", "SEED 1984",
                             "DFN '" + voteFile(rows) + "'", "LDX DPT;", std::string("GRA ") + gra + ";", "LDX GPT;",
                             "MODEL;"}));
    wreg(c, "CBU", (size_t)&recordHook<T>);
    EXPECT_TRUE(runLines(c, {std::string("ALG ") + alg + ";", "MIL 30", "MIO " + std::to_string(iters), "ESTIMATE;"}));
    Run r;
    r.points = gPoints;
    r.norms = gNorms;
    auto* io = reinterpret_cast<QZ::IO<T, T>*>(reg(c, "MPT"));
    r.w.assign(io->w, io->w + io->dim);
    r.res = reg(c, "RES");  // the integer form
    T s = 0, t = 0, o = 0;
    for (T e = 0; e < io->G->edges(); ++e) {
        io->G->edge(e, s, t);
        r.blocks.push_back(o);
        o += io->Y[s] * io->Y[t];
    }
    r.blocks.push_back(o);
    return r;
}

// The best iterate by mismatch, strict improvements only, from the first.
size_t bestIndexUpTo(const Run& r, size_t i) {
    size_t b = 1;
    for (size_t j = 2; j <= i; ++j)
        if (r.norms[j] < r.norms[b]) b = j;
    return b;
}

size_t bitDistance(const std::vector<uint64_t>& a, const std::vector<uint64_t>& b) {
    size_t r = 0;
    for (size_t i = 0; i < a.size(); ++i) r += (size_t)__builtin_popcountll(a[i] ^ b[i]);
    return r;
}

template <typename T> void expectSearchOnVotes(const char* width, const char* gra, size_t rows) {
    for (const char* alg : {"IGD", "EA11"}) {
        // The largest mismatch of all weights falls in jumps under the
        // mutations, which need more steps (MIO is an idx_t: at most 255).
        const size_t iters = std::string(alg) == "EA11" ? 250 : 120;
        const Run a = trainOnVotes<T>(width, gra, rows, alg, iters);
        ASSERT_EQ(a.norms.size(), iters + 1) << width << " " << alg;
        // The best point is what the container keeps, and RES its mismatch.
        const size_t b = bestIndexUpTo(a, iters);
        EXPECT_EQ(a.w, a.points[b]) << width << " " << alg;
        EXPECT_EQ(a.res, a.norms[b]) << width << " " << alg;
        // The mismatch falls during the search, and below that of the
        // all-zero start. Not so in 8 bits: there a scaled marginal is 0 or
        // 1 over its normalizer (255 times it must fit a byte), and the
        // first mutation can land far above the start.
        EXPECT_EQ(a.points[0], std::vector<uint64_t>(a.points[0].size(), 0));
        EXPECT_LT(a.res, a.norms[1]) << width << " " << alg;
        if (sizeof(T) > 1) EXPECT_LT(a.res, a.norms[0]) << width << " " << alg;
        for (const auto& p : a.points)
            for (uint64_t x : p) EXPECT_LT(x, 4u);  // KXX 4
        // The same seed gives the same run.
        const Run again = trainOnVotes<T>(width, gra, rows, alg, iters);
        EXPECT_EQ(again.points, a.points) << width << " " << alg;
        EXPECT_EQ(again.res, a.res);

        if (std::string(alg) == "IGD") {
            // No elite: each step starts where the last ended, worse or not,
            // and changes one edge block.
            size_t keptWorse = 0;
            for (size_t i = 1; i < iters; ++i) {
                size_t changedBlocks = 0;
                for (size_t k = 0; k + 1 < a.blocks.size(); ++k) {
                    bool changed = false;
                    for (size_t j = a.blocks[k]; j < a.blocks[k + 1]; ++j)
                        changed |= a.points[i + 1][j] != a.points[i][j];
                    changedBlocks += changed;
                }
                EXPECT_LE(changedBlocks, 1u) << "step " << i;
                if (a.norms[i] > a.norms[bestIndexUpTo(a, i)] && a.points[i + 1] != a.points[i]) ++keptWorse;
            }
            EXPECT_GT(keptWorse, 0u) << width;
        } else {
            // Elite: a worse mutation is undone before the next one, so each
            // iterate is a mutation of the best so far, about one bit away
            // from it, and about two from a worse point before it. A mutation
            // that flips nothing (about a third of them) gives the best back.
            size_t backToBest = 0, worse = 0, fromBest = 0, fromLast = 0;
            for (size_t i = 1; i < iters; ++i) {
                const std::vector<uint64_t>& best = a.points[bestIndexUpTo(a, i)];
                if (a.points[i + 1] == best) ++backToBest;
                if (a.points[i] != best) {
                    ++worse;
                    fromBest += bitDistance(a.points[i + 1], best);
                    fromLast += bitDistance(a.points[i + 1], a.points[i]);
                }
            }
            EXPECT_GT(backToBest, iters / 5) << width;
            EXPECT_GT(worse, iters / 4) << width;
            EXPECT_LT(fromBest * 3, fromLast * 2) << width;
        }
    }
}

}  // namespace

// ---------------------------------------------------------------- building

TEST(IntegerBuild, EveryEngineChoiceGivesTheBitLengthEngine) {
    for (const char* inf : {"ALG LBP;", "ALG JT;", "ALG SQM;", "INF 9", "ALG EXTI;"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, chainModel("jt", "UINT16")));
        ASSERT_TRUE(runLines(c, {inf, "TREE true", "MIL 17", "EPL 3.7"}));
        vm_t* vm = vmOf(c);
        auto* io = reinterpret_cast<QZ::IO<unsigned short, unsigned short>*>(reg(c, "MPT"));
        QZ::InferenceAlgorithm<unsigned short, unsigned short>* IA = vm->getIA<unsigned short, unsigned short>();
        auto* bp = dynamic_cast<QZ::BitLengthBP<unsigned short>*>(IA);
        ASSERT_NE(bp, nullptr) << inf;
        EXPECT_EQ(bp->getMaxIter(), 17u);
        EXPECT_EQ(bp->getEpsilon(), 3u);  // truncated
        EXPECT_FALSE(bp->tree());         // TRE is not read
        EXPECT_EQ(bp->getParameters(), io->w);
        EXPECT_EQ(bp->getStateSpaces(), io->Y);
        EXPECT_EQ(bp->graph(), io->G);
        EXPECT_EQ(bp->getRandomEngine(), vm->random_engine);
        delete IA;
    }
}

TEST(IntegerBuild, MinusOneSwitchesTheConvergenceTestOff) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("epl", "UINT32")));
    ASSERT_TRUE(runLines(c, {"EPL -1.0"}));
    auto* IA = vmOf(c)->getIA<unsigned int, unsigned int>();
    EXPECT_EQ(static_cast<QZ::BitLengthBP<unsigned int>*>(IA)->getEpsilon(), (unsigned int)-1);
    delete IA;
}

TEST(IntegerBuild, ModelIsIntegerWhateverRepSays) {
    // A column of three states and REP ISING: the integer path reads no REP.
    Ctx c;
    ASSERT_TRUE(runLines(c, {"REP ISING;", "KXX 6"}));
    ASSERT_TRUE(runLines(c, chainModel("rep", "UINT64", kWithThree)));
    vm_t* vm = vmOf(c);
    auto* IA = vm->getIA<unsigned long, unsigned long>();
    QZ::AbstractMRF<unsigned long, unsigned long>* P = vm->getMOD<unsigned long, unsigned long>(IA);
    auto* I = dynamic_cast<QZ::IntegerMRF<unsigned long>*>(P);
    ASSERT_NE(I, nullptr);
    EXPECT_EQ(I->K, 6u);
    EXPECT_EQ(I->ENGINE, IA);
    EXPECT_EQ(I->current_point(), IA->getParameters());
    // The means are raw counts: 4 rows, states (0, 0) twice, (1, 1), (0, 2),
    // codes in the order in which the names first occur.
    unsigned long* mu = vm->initMU<unsigned long, unsigned long>(P);
    EXPECT_EQ(std::vector<unsigned long>(mu, mu + 6), (std::vector<unsigned long>{2, 0, 1, 0, 1, 0}));
    EXPECT_EQ(I->N, 4u);
    delete P;
    delete[] mu;
    delete IA;
    // And the whole instruction runs.
    ASSERT_TRUE(runLines(c, {"ALG IGD;", "MIO 5", "ESTIMATE;"}));
}

TEST(IntegerBuild, BlockSearchGetsOneBlockPerEdgeEndingAtTheDimension) {
    // Columns of 2, 3 and 2 states: blocks of 6 and 6 weights.
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("groups", "UINT32", "a,b,c\nd,d,d\n0,x,0\n1,y,1\n0,z,1\n")));
    ASSERT_TRUE(runLines(c, {"ALG IGD;", "KXX 7", "MIO 0"}));
    vm_t* vm = vmOf(c);
    auto* IA = vm->getIA<unsigned int, unsigned int>();
    auto* P = vm->getMOD<unsigned int, unsigned int>(IA);
    unsigned int* mu = vm->initMU<unsigned int, unsigned int>(P);
    QZ::Optimizer<unsigned int, unsigned int, true>* O = vm->learn<unsigned int, unsigned int>(P);
    auto* I = dynamic_cast<QZ::IntGD<unsigned int, unsigned int>*>(O);
    ASSERT_NE(I, nullptr);
    EXPECT_EQ(I->num_groups, 2u);
    EXPECT_EQ(std::vector<unsigned int>(I->groups, I->groups + 3), (std::vector<unsigned int>{0, 6, 12}));
    EXPECT_EQ(I->groups[2], P->dim());
    EXPECT_EQ(I->k, 7u);
    EXPECT_EQ(I->random_engine, vm->random_engine);
    // MIO 0: the loop is skipped and RES holds all ones.
    EXPECT_EQ(reg(c, "RES"), (size_t)(unsigned int)-1);
    delete O;
    vm->set(vm_t::OPT, (size_t)vm_t::EA11);
    O = vm->learn<unsigned int, unsigned int>(P);
    auto* E = dynamic_cast<QZ::EA11<unsigned int, unsigned int>*>(O);
    ASSERT_NE(E, nullptr);
    EXPECT_EQ(E->k, 7u);
    EXPECT_EQ(E->b, 3u);
    EXPECT_EQ(E->random_engine, vm->random_engine);
    delete O;
    delete P;
    delete[] mu;
    delete IA;
}

TEST(IntegerBuild, FloatingMethodsAreUnknownToIntegerModels) {
    for (const char* alg : {"ALG GD;", "ALG PL1;", "ALG FL1;", "ALG EXTO;", "OPT 0"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, chainModel("unknown", "UINT8")));
        EXPECT_EQ(failureOf(c, {alg, "ESTIMATE;"}), "unknown optimization algorithm") << alg;
    }
}

// ---------------------------------------------------------------- ESTIMATE

TEST(IntegerEstimate, SearchOnTheVotesIn16Bits) { expectSearchOnVotes<unsigned short>("UINT16", "FULL", 0); }
TEST(IntegerEstimate, SearchOnTheVotesIn32Bits) { expectSearchOnVotes<unsigned int>("UINT32", "FULL", 0); }
TEST(IntegerEstimate, SearchOnTheVotesIn64Bits) { expectSearchOnVotes<unsigned long>("UINT64", "FULL", 0); }
TEST(IntegerEstimate, SearchOnTheVotesIn8Bits) {
    // 8-bit offsets and counts: a chain (64 weights) and 200 rows fit.
    expectSearchOnVotes<unsigned char>("UINT8", "CHAIN", 200);
}

TEST(IntegerEstimate, NoIterationsLeaveTheWeightsAndGiveAllOnes) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("mio0", "UINT32")));
    auto* io = reinterpret_cast<QZ::IO<unsigned int, unsigned int>*>(reg(c, "MPT"));
    for (unsigned int i = 0; i < io->dim; ++i) io->w[i] = i % 4;
    const std::vector<unsigned int> before(io->w, io->w + io->dim);
    ASSERT_TRUE(runLines(c, {"ALG EA11;", "MIO 0", "ESTIMATE;"}));
    EXPECT_EQ(std::vector<unsigned int>(io->w, io->w + io->dim), before);
    EXPECT_EQ(reg(c, "RES"), (size_t)(unsigned int)-1);
    // RST starts from zero weights instead.
    ASSERT_TRUE(runLines(c, {"RST true", "ESTIMATE;"}));
    EXPECT_EQ(std::vector<unsigned int>(io->w, io->w + io->dim), std::vector<unsigned int>(io->dim, 0));
}

// ---------------------------------------------------------------- queries

namespace {

// One edge between a binary and a three-state column, weights given.
template <typename T> QZ::IO<T, T>* oneEdge(Ctx& c, const char* width, const std::vector<T>& w) {
    const std::string t = "a,b\nd,d\n0,x\n1,y\n0,z\n1,x\n";
    EXPECT_TRUE(runLines(c, {std::string("idx_t ") + width + ";", std::string("val_t ") + width + ";",
                             "DFN '" + csvFile(std::string("int_edge_") + width, t) + "'", "LDX DPT;", "GRA CHAIN;",
                             "LDX GPT;", "MODEL;"}));
    auto* io = reinterpret_cast<QZ::IO<T, T>*>(reg(c, "MPT"));
    for (size_t i = 0; i < w.size(); ++i) io->w[i] = w[i];
    return io;
}

}  // namespace

TEST(IntegerQuery, InferGivesTheExactEdgeBeliefOfASingleEdge) {
    Ctx c;
    const std::vector<unsigned int> w = {0, 3, 1, 2, 2, 4};
    auto* io = oneEdge<unsigned int>(c, "UINT32", w);
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "INFER;"}));
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    double total = 0;
    for (unsigned int x : w) total += (double)(1u << x);
    for (size_t i = 0; i < 6; ++i) EXPECT_DOUBLE_EQ(PP[5 + i], (double)(1u << w[i]) / total) << i;
    // The message into vertex 0 is the bit length of each row's sum less the
    // smaller: bl(1 + 8 + 2) = 4, bl(4 + 4 + 16) = 5; and A the length of
    // 2^0 + 2^1.
    EXPECT_DOUBLE_EQ(PP[0], 1.0 / 3.0);
    EXPECT_DOUBLE_EQ(PP[1], 2.0 / 3.0);
    EXPECT_EQ(regR(c, "LNZ"), 2.0);
    EXPECT_EQ(std::vector<unsigned int>(io->w, io->w + 6), w);
}

TEST(IntegerQuery, PredictGivesTheStateOfLargestMaxMarginal) {
    // Row by row, the missing cell gets the state that the best joint state
    // consistent with the other cell has.
    Ctx c;
    const std::vector<unsigned long> w = {0, 3, 1, 2, 2, 4};
    oneEdge<unsigned long>(c, "UINT64", w);
    QZ::CategoricalData* D = reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT"));
    D->set(QZ::CategoricalData::MIS_VAL, 0, 1, false);  // a = 0: best b is y (3)
    D->set(QZ::CategoricalData::MIS_VAL, 1, 1, false);  // a = 1: best b is z (4)
    D->set(QZ::CategoricalData::MIS_VAL, 2, 0, false);  // b = z: best a is 1 (4 against 1)
    D->set(QZ::CategoricalData::MIS_VAL, 3, 0, false);  // b = x: best a is 1 (2 against 0)
    ASSERT_TRUE(runLines(c, {"PREDICT;"}));
    EXPECT_EQ(D->get(0, 1), 1u);
    EXPECT_EQ(D->get(1, 1), 2u);
    EXPECT_EQ(D->get(2, 0), 1u);
    EXPECT_EQ(D->get(3, 0), 1u);
    // Observed cells keep their state.
    EXPECT_EQ(D->get(0, 0), 0u);
    EXPECT_EQ(D->get(2, 1), 2u);
}

TEST(IntegerQuery, ScoreOfAnEmptyTableIsZero) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("score_empty", "UINT64")));
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "DFN '" + csvFile("int_empty", "a,b,c\nd,d,d\n") + "'", "LDX DPT;"}));
    ASSERT_EQ(reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT"))->rows(), 0u);
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    EXPECT_EQ(regR(c, "RES"), 0.0);
}

TEST(IntegerQuery, ScoreIsAnIntegerMeanAndSampleKeepsFullRows) {
    Ctx c;
    // Diagonal preference on a binary edge.
    const std::string t = "a,b\nd,d\n0,0\n1,1\n1,1\n0,0\n";
    ASSERT_TRUE(runLines(c, {"idx_t UINT16;", "val_t UINT16;", "DFN '" + csvFile("int_score", t) + "'", "LDX DPT;",
                             "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    auto* io = reinterpret_cast<QZ::IO<unsigned short, unsigned short>*>(reg(c, "MPT"));
    const unsigned short w[] = {6, 0, 0, 6};
    for (int i = 0; i < 4; ++i) io->w[i] = w[i];
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    // Messages bl(64 + 1) = 7 on both states, normalized to 0: A = bl(1 + 1)
    // = 2, and each row scores 6 - 2.
    EXPECT_EQ(reg(c, "LNZ"), 2u);
    EXPECT_EQ(regR(c, "RES"), 4.0);
    // Sampling returns fully observed rows as they are.
    QZ::CategoricalData* D = reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT"));
    for (const char* pam : {"PAM 0.0", "PAM 0.1"}) {
        ASSERT_TRUE(runLines(c, {pam, "SAMPLE;"}));
        EXPECT_EQ(reg(c, "GNU"), 4u);
        EXPECT_EQ(D->get(0, 0), 0u);
        EXPECT_EQ(D->get(0, 1), 0u);
        EXPECT_EQ(D->get(1, 0), 1u);
        EXPECT_EQ(D->get(1, 1), 1u);
    }
    // Under perturb-and-MAP a missing cell of an integer model gets the state
    // of its neighbour's diagonal.
    D->set(QZ::CategoricalData::MIS_VAL, 1, 1, false);
    D->set(QZ::CategoricalData::MIS_VAL, 3, 0, false);
    ASSERT_TRUE(runLines(c, {"PAM 0.1", "SAMPLE;"}));
    EXPECT_EQ(D->get(1, 1), 1u);
    EXPECT_EQ(D->get(3, 0), 0u);
    EXPECT_EQ(std::vector<unsigned short>(io->w, io->w + 4), std::vector<unsigned short>(w, w + 4));
}

TEST(IntegerExample, VotesAsAnIntegerModelRunFromTheRepositoryRoot) {
    const std::string cmd =
        "cd " + std::string(QZ_SOURCE_DIR) + " && " + QZ_QZRUN + " examples/vote_integer.qz -p DIM -p LNZ 2>&1";
    FILE* f = popen(cmd.c_str(), "r");
    ASSERT_NE(f, nullptr);
    std::string out;
    char buf[256];
    while (fgets(buf, sizeof buf, f) != nullptr) out += buf;
    EXPECT_EQ(pclose(f), 0) << out;
    // 136 binary edges, and a bit length as the log partition value.
    EXPECT_EQ(out.substr(0, 8), "DIM=544\n");
    ASSERT_EQ(out.substr(8, 4), "LNZ=");
    const double lnz = std::stod(out.substr(12));
    EXPECT_GE(lnz, 1.0);
    EXPECT_EQ(lnz, std::floor(lnz));
}
