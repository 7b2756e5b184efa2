// INITZERO, INITGAUSS, CLOSEDFORM and INITLATENT through programs: the start
// weights of the container and the latent columns of the table.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_table_util.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <cmath>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned long, double> IOd;

// Every pair of neighbouring states occurs, with unequal counts. The reader
// drops the line after the header.
const char* kTree =
    "a,b,c\n"
    "dropped,dropped,dropped\n"
    "x,p,1\n"
    "x,p,2\n"
    "x,q,1\n"
    "y,p,1\n"
    "y,q,2\n"
    "y,q,2\n"
    "x,p,1\n"
    "y,p,2\n";

std::string tableFile(const std::string& tag, const std::string& text) { return csvFile("init_" + tag, text); }

QZ::CategoricalData* table(void* c) { return reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT")); }
IOd* model(void* c) { return reinterpret_cast<IOd*>(reg(c, "MPT")); }

void loadAndModel(void* c, const std::string& tag, const std::string& text, const char* gra = "CHAIN") {
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile(tag, text) + "'", "LDX DPT;", std::string("GRA ") + gra + ";",
                             "LDX GPT;", "MODEL;"}));
}

// Eight columns of ten states each over the full graph: 2800 weights.
std::string wideTable() {
    std::string s = "c0,c1,c2,c3,c4,c5,c6,c7\ndropped,d,d,d,d,d,d,d\n";
    for (int r = 0; r < 10; ++r) {
        for (int j = 0; j < 8; ++j) s += (j ? "," : "") + std::to_string((r + j) % 10);
        s += "\n";
    }
    return s;
}

// The engine's next raw draw: tells whether a body drew from it.
unsigned long nextDraw(Ctx& c) { return (*static_cast<QZ::vm_t*>(c.p)->random_engine)(); }

std::vector<double> weights(void* c) {
    const IOd* io = model(c);
    return std::vector<double>(io->w, io->w + io->dim);
}

}  // namespace

TEST(InitZero, ZeroesEveryWeight) {
    Ctx c;
    loadAndModel(c, "zero", kTree);
    IOd* io = model(c);
    ASSERT_EQ(io->dim, 8u);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 1.5 + (double)i;
    ASSERT_TRUE(runLines(c, {"INITZERO;"}));
    EXPECT_EQ(weights(c), std::vector<double>(8, 0.0));
}

TEST(InitGauss, DeviationZeroGivesZeroWeightsThroughTheDistribution) {
    Ctx c;
    loadAndModel(c, "gauss_zero", kTree);
    IOd* io = model(c);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 3.0;
    ASSERT_TRUE(runLines(c, {"SDE 0.0", "INITGAUSS;"}));
    EXPECT_EQ(weights(c), std::vector<double>(8, 0.0));
}

TEST(InitGauss, DrawsWithMeanZeroAndDeviationSDE) {
    Ctx c;
    wreg(c, "SEED", 3);
    loadAndModel(c, "gauss_wide", wideTable(), "FULL");
    ASSERT_EQ(model(c)->dim, 2800u);
    ASSERT_TRUE(runLines(c, {"SDE 2.0", "INITGAUSS;"}));
    const std::vector<double> w = weights(c);
    double sum = 0, sq = 0;
    for (double x : w) sum += x;
    const double mean = sum / w.size();
    for (double x : w) sq += (x - mean) * (x - mean);
    const double sd = std::sqrt(sq / (w.size() - 1));
    // Four standard errors of 2/sqrt(2800) and about 4% of the deviation.
    EXPECT_NEAR(mean, 0.0, 0.16);
    EXPECT_NEAR(sd, 2.0, 0.11);
    EXPECT_EQ(std::set<double>(w.begin(), w.end()).size(), w.size());
}

TEST(InitGauss, ReproducibleWithAFixedSeed) {
    std::vector<std::vector<double>> runs;
    for (size_t seed : {17u, 17u, 18u}) {
        Ctx c;
        loadAndModel(c, "gauss_seed", kTree);
        wreg(c, "SEED", seed);
        ASSERT_TRUE(runLines(c, {"INITGAUSS;"}));
        runs.push_back(weights(c));
    }
    EXPECT_EQ(runs[0], runs[1]);
    EXPECT_NE(runs[0], runs[2]);
}

TEST(InitGauss, IntegerWeightsAreTruncatedDrawsSaturatingAtZero) {
    Ctx c;
    wreg(c, "SEED", 9);
    wreg(c, "IDX", QZ::vm_t::idxUINT64);
    wreg(c, "VAL", QZ::vm_t::valUINT64);
    loadAndModel(c, "gauss_int", wideTable(), "FULL");
    typedef QZ::IO<unsigned long, unsigned long> IOi;
    IOi* io = reinterpret_cast<IOi*>(reg(c, "MPT"));
    ASSERT_EQ(io->dim, 2800u);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 1000;
    ASSERT_TRUE(runLines(c, {"SDE 3.0", "INITGAUSS;"}));
    size_t zeros = 0;
    unsigned long top = 0;
    for (unsigned long i = 0; i < io->dim; ++i) {
        zeros += io->w[i] == 0;
        top = std::max(top, io->w[i]);
    }
    // Half the draws are negative and a third more truncate to 0.
    EXPECT_GT(zeros, 1500u);
    EXPECT_LT(zeros, 2200u);
    EXPECT_GT(top, 3u);
    EXPECT_LT(top, 30u);
}

TEST(InitGauss, NarrowIntegerWeightsSaturateAtBothEnds) {
    Ctx c;
    wreg(c, "SEED", 2);
    wreg(c, "IDX", QZ::vm_t::idxUINT8);
    wreg(c, "VAL", QZ::vm_t::valUINT8);
    loadAndModel(c, "gauss_uint8", kTree);
    typedef QZ::IO<unsigned char, unsigned char> IOb;
    IOb* io = reinterpret_cast<IOb*>(reg(c, "MPT"));
    ASSERT_EQ(io->dim, 8u);
    ASSERT_TRUE(runLines(c, {"SDE 1000000.0", "INITGAUSS;"}));
    std::set<unsigned> seen;
    for (unsigned i = 0; i < io->dim; ++i) seen.insert(io->w[i]);
    EXPECT_EQ(seen, (std::set<unsigned>{0u, 255u}));
}

TEST(ClosedForm, TreeWeightsReproduceTheEmpiricalFrequencies) {
    Ctx c;
    loadAndModel(c, "cf_tree", kTree);
    ASSERT_TRUE(runLines(c, {"CLOSEDFORM;"}));
    // The table goes so that nothing is observed.
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "INFER;"}));
    const IOd* io = model(c);
    const double* P = reinterpret_cast<const double*>(reg(c, "PPT"));
    ASSERT_NE(P, nullptr);
    const double N = 8;
    // a: x 4, y 4; b: p 5, q 3; c: 1 4, 2 4.
    const std::vector<double> vertex = {4 / N, 4 / N, 5 / N, 3 / N, 4 / N, 4 / N};
    for (size_t k = 0; k < vertex.size(); ++k) EXPECT_NEAR(P[k], vertex[k], 1e-9) << k;
    // a-b: xp 3, xq 1, yp 2, yq 2; b-c: p1 3, p2 2, q1 1, q2 2.
    const std::vector<double> edge = {3 / N, 1 / N, 2 / N, 2 / N, 3 / N, 2 / N, 1 / N, 2 / N};
    for (size_t k = 0; k < edge.size(); ++k) EXPECT_NEAR(P[6 + k], edge[k], 1e-9) << k;
    // The factorisation is normalised: the log partition function is 0.
    EXPECT_NEAR(regR(c, "LNZ"), 0.0, 1e-9);
    // The first edge carries both single terms, the second only that of c.
    EXPECT_NEAR(io->w[0], std::log(3 / N), 1e-12);
    EXPECT_NEAR(io->w[4], std::log((3 / N) / (5 / N)), 1e-12);
}

TEST(ClosedForm, PerfectlyDependentColumnsGiveFiniteWeightsThroughTheFloor) {
    Ctx c;
    loadAndModel(c, "cf_dependent", "a,b\nd,d\nx,x\ny,y\nx,x\nx,x\n");
    ASSERT_TRUE(runLines(c, {"CLOSEDFORM;"}));
    const std::vector<double> w = weights(c);
    ASSERT_EQ(w.size(), 4u);
    for (double x : w) EXPECT_TRUE(std::isfinite(x));
    // Unseen pairs: log(floor / (pv pu)) + log pv + log pu = log(1 / (10 N)).
    EXPECT_NEAR(w[1], std::log(1.0 / 40), 1e-12);
    EXPECT_NEAR(w[2], std::log(1.0 / 40), 1e-12);
    EXPECT_NEAR(w[0], std::log(0.75), 1e-12);
    EXPECT_NEAR(w[3], std::log(0.25), 1e-12);
}

TEST(ClosedForm, UnseenStateGetsTheFloorNotLogOfZero) {
    // Vertex 1 has a third state that no row shows.
    typedef unsigned int I;
    QZ::IO<I, double> m;
    auto G = makeGraph<I>(2, {{0, 1}});
    I Y[2] = {2, 3};
    I woff[3] = {0, 2, 5};
    double E[11] = {6, 4, 5, 5, 0, 3, 2, 0, 2, 3, 0};
    double w[6] = {9, 9, 9, 9, 9, 9};
    m.G = G.get();
    m.Y = Y;
    m.woff = woff;
    m.E = E;
    m.w = w;
    m.dim = 6;
    m.num_instances = 10;
    Ctx c;
    wreg(c, "IDX", QZ::vm_t::idxUINT32);
    wreg(c, "MPT", (size_t)&m);
    wreg(c, "GPT", (size_t)G.get());
    const bool ok = runLines(c, {"CLOSEDFORM;"});
    wreg(c, "MPT", 0);
    wreg(c, "GPT", 0);
    m.G = nullptr;
    m.Y = nullptr;
    m.woff = nullptr;
    m.E = nullptr;
    m.w = nullptr;
    ASSERT_TRUE(ok);
    const double floor = 1.0 / 100;
    for (double x : w) EXPECT_TRUE(std::isfinite(x));
    // (0, 2): pair and single of the unseen state both floored.
    EXPECT_NEAR(w[2], std::log(floor / (0.6 * floor)) + std::log(0.6) + std::log(floor), 1e-12);
    EXPECT_NEAR(w[5], std::log(floor), 1e-12);
    EXPECT_NEAR(w[0], std::log(0.3), 1e-12);
}

TEST(ClosedForm, IntegerWeightsAreLeftAlone) {
    Ctx c;
    wreg(c, "IDX", QZ::vm_t::idxUINT64);
    wreg(c, "VAL", QZ::vm_t::valUINT64);
    loadAndModel(c, "cf_int", kTree);
    typedef QZ::IO<unsigned long, unsigned long> IOi;
    IOi* io = reinterpret_cast<IOi*>(reg(c, "MPT"));
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 7 + i;
    ASSERT_TRUE(runLines(c, {"CLOSEDFORM;"}));
    for (unsigned long i = 0; i < io->dim; ++i) EXPECT_EQ(io->w[i], 7 + i);
}

TEST(InitLatent, ChainDoesNothingEvenWithoutTheLatentColumns) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("lat_chain", kTree) + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;"}));
    wreg(c, "LPT", (size_t) new std::vector<size_t>{5, 4, 5});
    const std::vector<unsigned short> before = column(table(c), 1);
    ASSERT_TRUE(runLines(c, {"INITLATENT;"}));
    EXPECT_EQ(table(c)->columns(), 3u);
    EXPECT_EQ(column(table(c), 1), before);
}

TEST(InitLatent, DeepBoltzmannTreeBranchNeedsADeepBoltzmannTree) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("lat_dbt", kTree) + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;"}));
    EXPECT_EQ(failureOf(c, {"GRA DBT;", "INITLATENT;"}), "INITLATENT with GRA DBT requires a deep Boltzmann tree");
    EXPECT_EQ(table(c)->columns(), 3u);
}

// Four visible columns of distinct rows: a,b are the first layer, c,d the last.
const char* kFour =
    "a,b,c,d\n"
    "dropped,d,d,d\n"
    "0,0,0,0\n"
    "0,1,1,0\n"
    "1,0,0,1\n"
    "1,1,1,1\n"
    "2,0,0,0\n";

TEST(InitLatent, RBMWithFewerRowsThanLSNUsesEveryRowAsCentre) {
    // Five distinct rows; c and d have five states each.
    const char* text =
        "a,b,c,d\n"
        "dropped,d,d,d\n"
        "0,0,0,0\n"
        "0,1,1,1\n"
        "1,0,2,2\n"
        "1,1,3,3\n"
        "2,0,4,4\n";
    Ctx c;
    wreg(c, "SEED", 4);
    wreg(c, "LPT", (size_t) new std::vector<size_t>{2, 3, 2});
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("lat_rbm", text) + "'", "LDX DPT;", "GRA RBM;", "LDX GPT;",
                             "LSN 10", "INITLATENT;"}));
    const QZ::CategoricalData* D = table(c);
    ASSERT_EQ(D->rows(), 5u);
    ASSERT_EQ(D->columns(), 7u);
    for (size_t col = 4; col < 7; ++col) EXPECT_EQ(D->categories(col), 10u);
    // The hidden layer is written right after the first layer's columns, over
    // c and d, and the added columns past it stay missing. H = 5: the rows are
    // their own nearest centres, so each unit numbers the five rows by a
    // permutation of 0..4.
    for (size_t col = 2; col < 5; ++col) {
        const std::vector<unsigned short> v = column(D, col);
        EXPECT_EQ(std::set<unsigned short>(v.begin(), v.end()), (std::set<unsigned short>{0, 1, 2, 3, 4})) << col;
    }
    for (size_t col = 5; col < 7; ++col)
        EXPECT_EQ(column(D, col), std::vector<unsigned short>(5, QZ::CategoricalData::MIS_VAL)) << col;
    EXPECT_EQ(column(D, 0), (std::vector<unsigned short>{0, 0, 1, 1, 2}));
}

TEST(InitLatent, RBMLayersMustCoverTheColumnsAndASecondRunRaises) {
    Ctx c;
    wreg(c, "LPT", (size_t) new std::vector<size_t>{2, 1, 2});
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("lat_twice", kFour) + "'", "LDX DPT;", "GRA RBM;", "LDX GPT;",
                             "INITLATENT;"}));
    EXPECT_EQ(table(c)->columns(), 5u);
    EXPECT_EQ(table(c)->categories(4), 2u);
    try {
        runLines(c, {"INITLATENT;"});
        FAIL();
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "RBM requires that first and last layer cover all columns");
    }
    EXPECT_EQ(table(c)->columns(), 5u);
}

TEST(InitLatent, TwoLayersAddNoColumnButStillDrawCentres) {
    // The graph has one hidden unit more than the two layers name, so the
    // centres are drawn from the engine while no layer is filled.
    unsigned long draws[2];
    for (int withInit = 0; withInit < 2; ++withInit) {
        Ctx c;
        wreg(c, "LPT", (size_t) new std::vector<size_t>{2, 1, 2});
        ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("lat_two", kFour) + "'", "LDX DPT;", "GRA RBM;", "LDX GPT;"}));
        wreg(c, "LPT", (size_t) new std::vector<size_t>{2, 2});
        wreg(c, "SEED", 21);
        const std::vector<unsigned short> before = column(table(c), 3);
        if (withInit) ASSERT_TRUE(runLines(c, {"INITLATENT;"}));
        EXPECT_EQ(table(c)->columns(), 4u);
        EXPECT_EQ(column(table(c), 3), before);
        draws[withInit] = nextDraw(c);
    }
    EXPECT_NE(draws[0], draws[1]);
}

TEST(Placeholder, EveryBodyReturnsAtOnce) {
    unsigned long draws[2];
    for (int withInit = 0; withInit < 2; ++withInit) {
        Ctx c;
        wreg(c, "MPT", 1);
        wreg(c, "GPT", 1);
        wreg(c, "DPT", 1);
        wreg(c, "SEED", 5);
        if (withInit) {
            // DBT would raise and RBM would read the table: neither happens.
            EXPECT_TRUE(runLines(c, {"INITZERO;", "INITGAUSS;", "CLOSEDFORM;", "GRA DBT;", "INITLATENT;",
                                     "GRA RBM;", "INITLATENT;"}));
        }
        draws[withInit] = nextDraw(c);
        wreg(c, "MPT", 0);
        wreg(c, "GPT", 0);
        wreg(c, "DPT", 0);
    }
    // INITGAUSS drew nothing from the engine.
    EXPECT_EQ(draws[0], draws[1]);
}

TEST(Placeholder, GraphPlaceholderStopsLatentFilling) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("ph_graph", kFour) + "'", "LDX DPT;"}));
    wreg(c, "GPT", 1);
    wreg(c, "LPT", (size_t) new std::vector<size_t>{9, 9});
    EXPECT_TRUE(runLines(c, {"GRA RBM;", "INITLATENT;"}));
    EXPECT_EQ(table(c)->columns(), 4u);
    wreg(c, "GPT", 0);
}
