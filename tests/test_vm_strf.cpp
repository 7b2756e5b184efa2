// Spatio-temporal models through programs: a grid of sensors over three
// slices, converted with STGRAPH, trained with a decay law, queried, stored
// with its law and read back; checked against the test's own composition of
// the weights and enumeration of the joint states.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_process_util.h>
#include <qz_strf_util.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>
#include <QZ/graph/stgraph>
#include <QZ/QZIO>
#include <QZ/QZMISC>

#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using namespace qztest;
using QZ::vm_t;

namespace {

typedef unsigned long I;
typedef QZ::IO<I, double> IOd;

const size_t kSensors = 4, kSlices = 3;

// Sensors (four, on a 2 x 2 grid) read "lo" or "hi" at three times; column
// t * sensors + v is sensor v at time t, the numbering of the slices. A reading
// tends to stay as it was and to follow the sensor next to it. The reader
// drops the line after the header. Read with shared states, a reading has
// the same code in every column.
std::string sensorTable(const std::string& tag, unsigned seed, size_t rows, size_t sensors = kSensors) {
    std::mt19937 g(seed);
    std::uniform_real_distribution<double> U(0, 1);
    std::string s;
    for (size_t t = 0; t < kSlices; ++t)
        for (size_t v = 0; v < sensors; ++v)
            s += std::string(t + v ? "," : "") + "s" + std::to_string(v) + "t" + std::to_string(t);
    s += "\nlo";
    for (size_t k = 1; k < sensors * kSlices; ++k) s += ",lo";
    s += "\n";
    for (size_t r = 0; r < rows; ++r) {
        std::vector<int> x(sensors);
        for (size_t v = 0; v < sensors; ++v) x[v] = U(g) < 0.4;
        for (size_t t = 0; t < kSlices; ++t) {
            if (t > 0) {
                std::vector<int> y = x;
                for (size_t v = 0; v < sensors; ++v) {
                    if (U(g) < 0.15) y[v] = 1 - y[v];
                    if (U(g) < 0.25) y[v] = x[v ^ 1];
                }
                x = y;
            }
            for (size_t v = 0; v < sensors; ++v) s += std::string(t + v ? "," : "") + (x[v] ? "hi" : "lo");
        }
        s += "\n";
    }
    return "DFN '" + csvFile("vmstrf_" + tag, s) + "'";
}

IOd* model(void* c) { return reinterpret_cast<IOd*>(reg(c, "MPT")); }

// The marginals array of the last INFER.
std::vector<double> marginals(void* c) {
    const IOd* io = model(c);
    size_t ysum = 0;
    for (I v = 0; v < io->G->vertices(); ++v) ysum += io->Y[v];
    const double* p = reinterpret_cast<const double*>(reg(c, "PPT"));
    return std::vector<double>(p, p + ysum + io->dim);
}

std::vector<double> weights(void* c) {
    const IOd* io = model(c);
    return std::vector<double>(io->w, io->w + io->dim);
}

// Vertex and edge marginals of the container's increments under a law, by
// the test's own composition and enumeration, in the layout of INFER.
std::vector<double> expectedMarginals(void* c, int law, double& logZ) {
    const IOd* io = model(c);
    const Layout<I> L(*io->G, io->Y);
    const Ties<I> ties(L, kSensors);
    const std::vector<double> w = Composition<I>(L, ties, law).weights(weights(c));
    std::vector<double> vm, em;
    enumerate(L, w, vm, em, logZ);
    vm.insert(vm.end(), em.begin(), em.end());
    return vm;
}

std::vector<std::string> trainLines(const std::string& table, const char* law) {
    // One coding of the readings for all columns, so that a state means the
    // same reading at every time.
    return {"SEED 5",   "YYC true", table,     "LDX DPT;",  "TXX 3",     "GRA GRID;",
            "LDX GPT;", "STGRAPH;", std::string("REP ") + law + ";", "MODEL;", "ALG JT;", "ALG GD;",
            "STP 0.5",  "MIO 80",   "ESTIMATE;"};
}

}  // namespace

// The program of the whole round: a grid in slices, two laws, training,
// queries, the model file and back.
TEST(VmSTRF, TrainStoreReloadAndInferTheSameForTwoLaws) {
    const std::string table = sensorTable("round", 17, 400);
    std::vector<std::vector<double>> trained;
    for (const char* law : {"STLINEAR", "STEXPONENTIAL"}) {
        const int code = std::string(law) == "STLINEAR" ? vm_t::STRF_LI : vm_t::STRF_EX;
        Ctx c;
        ASSERT_TRUE(runLines(c, trainLines(table, law))) << law;
        IOd* io = model(c);
        const QZ::STGraph<I>* st = dynamic_cast<const QZ::STGraph<I>*>(io->G);
        ASSERT_NE(st, nullptr);
        EXPECT_EQ(st->slices(), kSlices);
        EXPECT_EQ(io->H, st->base());
        const EdgeList stEdges = edgeList(*st);
        EXPECT_EQ(io->G->vertices(), kSensors * kSlices);
        EXPECT_EQ(io->decay, (I)code);
        EXPECT_EQ(io->T, kSlices);
        EXPECT_EQ(io->gtype, (I)vm_t::ST);

        // Training lowered the objective from that of zero weights, 12 log 2.
        const double fitted = regR(c, "RES");
        EXPECT_LT(fitted, 12 * std::log(2.0)) << law;
        // The mean log-likelihood of the rows the model was counted from is
        // minus the objective: SCORE decodes the increments as training did.
        ASSERT_TRUE(runLines(c, {"SCORE;"}));
        EXPECT_NEAR(regR(c, "RES"), -fitted, 1e-9) << law;

        // Unconditional marginals: those of the weights the increments make.
        ASSERT_TRUE(runLines(c, {"DEL DPT;", "INFER;"}));
        const std::vector<double> before = marginals(c);
        const std::vector<double> encoded = weights(c);
        double logZ = 0;
        const std::vector<double> want = expectedMarginals(c, code, logZ);
        ASSERT_EQ(before.size(), want.size());
        for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(before[i], want[i], 1e-9) << law << " " << i;
        EXPECT_NEAR(regR(c, "LNZ"), logZ, 1e-9) << law;
        trained.push_back(encoded);

        // The model file keeps the law; the reader wraps the grid in slices again.
        const std::string file = tmpPath(std::string("vmstrf_") + law + ".qzm");
        ASSERT_TRUE(runLines(c, {"OVW true", "MFN '" + file + "'", "STORE MPT;", "DEL MPT;", "DEL GPT;", "REP NONE;",
                                 "GRA CHAIN;", "TXX 1", "LDX MPT;"}));
        EXPECT_EQ(reg(c, "REP"), (size_t)code) << law;
        EXPECT_EQ(reg(c, "GRA"), (size_t)vm_t::ST) << law;
        const QZ::STGraph<I>* back = dynamic_cast<const QZ::STGraph<I>*>(model(c)->G);
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(reg(c, "GPT"), (size_t)model(c)->G);
        EXPECT_EQ(back->slices(), kSlices);
        EXPECT_EQ(edgeList(*back), stEdges);
        EXPECT_EQ(weights(c), encoded) << law;
        ASSERT_TRUE(runLines(c, {"INFER;"}));
        EXPECT_EQ(marginals(c), before) << law;
        // INFER left the increments in the container.
        EXPECT_EQ(weights(c), encoded) << law;
    }
    // The two laws fit different increments.
    ASSERT_EQ(trained.size(), 2u);
    EXPECT_NE(trained[0], trained[1]);
}

TEST(VmSTRF, ValuesThatNameNoDecayGiveTheUniformModel) {
    for (const char* rep : {"INTEGER", "DBT"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, {sensorTable(std::string("nodecay") + rep, 3, 50), "LDX DPT;", "TXX 3", "GRA GRID;",
                                 "LDX GPT;", "STGRAPH;", std::string("REP ") + rep + ";", "MODEL;", "SDE 1.0",
                                 "INITGAUSS;", "ALG JT;", "DEL DPT;", "INFER;"}));
        const std::vector<double> w = weights(c);
        bool moved = false;
        for (double v : w) moved = moved || v != 0;
        ASSERT_TRUE(moved);
        const std::vector<double> p = marginals(c);
        for (size_t i = 0; i < kSensors * kSlices * 2; ++i) EXPECT_NEAR(p[i], 0.5, 1e-12) << rep << " " << i;
        for (size_t i = kSensors * kSlices * 2; i < p.size(); ++i) EXPECT_NEAR(p[i], 0.25, 1e-12) << rep << " " << i;
        EXPECT_NEAR(regR(c, "LNZ"), 12 * std::log(2.0), 1e-9) << rep;
        EXPECT_EQ(weights(c), w);
    }
}

TEST(VmSTRF, LoopyBeliefPropagationTrainsItToo) {
    Ctx c;
    std::vector<std::string> lines = trainLines(sensorTable("lbp", 9, 200), "STINVQUAD");
    for (std::string& l : lines)
        if (l == "ALG JT;") l = "ALG LBP;";
    ASSERT_TRUE(runLines(c, lines));
    EXPECT_LT(regR(c, "RES"), 12 * std::log(2.0));
    EXPECT_EQ(model(c)->decay, (I)vm_t::STRF_IQU);
}

TEST(VmSTRF, ADecayLawOnAGraphWithoutSlicesIsRefused) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {sensorTable("noslices", 3, 20), "LDX DPT;", "TXX 3", "GRA GRID;", "LDX GPT;",
                             "REP STQUAD;", "MODEL;"}));
    EXPECT_EQ(model(c)->H, nullptr);
    EXPECT_EQ(failureOf(c, {"ALG JT;", "INFER;"}), "spatio-temporal model requires a spatio-temporal graph");
}

// Every index type with float and double values: the same increments up to
// rounding, hence the same marginals. Two sensors in a row, small enough for
// every structure of the engines to be numbered in 8 bits.
TEST(VmSTRF, EveryFloatingInstantiationFitsTheSameModel) {
    const std::string table = sensorTable("inst", 23, 200, 2);
    auto fit = [&table](const std::string& idx, const std::string& val) {
        Ctx c;
        std::vector<std::string> lines = {"idx_t " + idx + ";", "val_t " + val + ";"};
        for (const std::string& l : trainLines(table, "STCUBIC"))
            lines.push_back(l == "MIO 80" ? "MIO 20" : l == "GRA GRID;" ? "GRA CHAIN;" : l);
        lines.push_back("DEL DPT;");
        lines.push_back("INFER;");
        EXPECT_TRUE(runLines(c, lines)) << idx << " " << val;
        const double* p = reinterpret_cast<const double*>(reg(c, "PPT"));
        // 6 binary vertices and 1 * 3 + 2 * (2 + 2) edges of 4 joint states.
        return std::vector<double>(p, p + 12 + 44);
    };
    const std::vector<double> ref = fit("UINT64", "FLT64");
    for (const char* idx : {"UINT8", "UINT16", "UINT32", "UINT64"})
        for (const char* val : {"FLT32", "FLT64", "FLTMPREC"}) {
            const std::vector<double> p = fit(idx, val);
            const double tol = std::string(val) == "FLT32" ? 1e-4 : 1e-12;
            for (size_t i = 0; i < ref.size(); ++i) EXPECT_NEAR(p[i], ref[i], tol) << idx << " " << val << " " << i;
        }
}

// ---------------------------------------------------------------- the example

namespace {

// Runs a shell command line from the repository root.
ProcessResult fromRoot(const std::string& cmd, const std::string& tag) {
    return runProcess("/bin/sh", {"-c", "cd " + shellQuote(QZ_SOURCE_DIR) + " && " + cmd}, "vmstrf_" + tag);
}

double valueOf(const std::string& out, const std::string& name) {
    const size_t at = out.find(name + "=");
    if (at == std::string::npos) return NAN;
    return std::stod(out.substr(at + name.size() + 1));
}

}  // namespace

TEST(VmSTRFExample, RiverRunsFromTheRepositoryRoot) {
    const ProcessResult r = fromRoot(shellQuote(QZ_QZRUN) +
                                         " examples/river.qz -p GVX -p GEX -p DIM -p GP0 -p GP1 -p GP2 -p REP -p LNZ",
                                     "river");
    ASSERT_EQ(r.code, 0) << r.out << r.err;
    // Five gauges over four slices: 20 vertices, 4 * 4 + 3 * (5 + 8) edges of
    // 9 weights each.
    EXPECT_NE(r.out.find("GVX=20\nGEX=55\nDIM=495\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("REP=5\n"), std::string::npos) << r.out;
    const double uniform = 20 * std::log(3.0);
    EXPECT_LT(valueOf(r.out, "GP0"), uniform);
    EXPECT_LT(valueOf(r.out, "GP1"), uniform);
    EXPECT_NEAR(valueOf(r.out, "GP2"), -valueOf(r.out, "GP1"), 1e-9);
    EXPECT_GT(valueOf(r.out, "LNZ"), uniform);
}

TEST(VmSTRFExample, TheScriptWritesTheTableOfTheExample) {
    if (std::system("python3 -c pass >/dev/null 2>&1") != 0) GTEST_SKIP() << "no python3";
    const std::string out = tmpPath("vmstrf_river.csv");
    const ProcessResult r = fromRoot("python3 examples/make_river.py " + shellQuote(out), "script");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(readFile(out), readFile(std::string(QZ_SOURCE_DIR) + "/examples/data/river.csv"));
}

// Columns coded apart (no shared dictionary): b has two states at time 0 and
// three at time 1. The edge a1-b1 reads its increments of time 0 in the block
// of a0-b0 at the places its own three states of b give, which is how the log
// partition function of the model comes out.
TEST(VmSTRF, SlicesCodedApartReadIncrementsByTheLaterEdgesStates) {
    std::string text = "a0,b0,a1,b1\nx,p,x,p\n";
    const char* b1[] = {"p", "q", "r"};
    for (size_t r = 0; r < 30; ++r)
        text += std::string(r % 2 ? "x" : "y") + "," + (r % 3 ? "p" : "q") + "," + (r % 5 ? "x" : "y") + "," +
                b1[r % 3] + "\n";
    Ctx c;
    ASSERT_TRUE(runLines(c, {"SEED 11", "DFN '" + csvFile("vmstrf_apart", text) + "'", "LDX DPT;", "TXX 2",
                             "GRA CHAIN;", "LDX GPT;", "STGRAPH;", "REP STLINEAR;", "MODEL;", "SDE 1.0",
                             "INITGAUSS;", "ALG JT;", "INFER;"}));
    const IOd* io = model(c);
    ASSERT_EQ(io->G->vertices(), 4u);
    EXPECT_EQ(io->Y[1], 2u);
    EXPECT_EQ(io->Y[3], 3u);
    const Layout<I> L(*io->G, io->Y);
    const Ties<I> ties(L, 2);
    // At least one edge at time 1 reads a block of other state counts.
    bool other = false;
    for (size_t e = 0; e < L.ends.size(); ++e)
        if (ties.time[e] == 1) {
            const size_t f = ties.atTime[e][0];
            other = other || L.Y[L.ends[f].second] != L.Y[L.ends[e].second];
        }
    ASSERT_TRUE(other);
    const std::vector<double> w = Composition<I>(L, ties, vm_t::STRF_LI).weights(weights(c));
    std::vector<double> vm, em;
    double logZ = 0;
    enumerate(L, w, vm, em, logZ);
    EXPECT_NEAR(regR(c, "LNZ"), logZ, 1e-9);
    const std::vector<double> p = marginals(c);
    for (size_t i = 0; i < vm.size(); ++i) EXPECT_NEAR(p[i], vm[i], 1e-9) << i;
}
