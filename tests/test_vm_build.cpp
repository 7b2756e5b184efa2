// MODEL and STATS through programs: the container built from a table and a
// graph, its counts, names and registers.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>
#include <QZ/graph/generators>
#include <QZ/graph/stgraph>
#include <QZ/QZIO>

#include <cstdint>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned long, double> IOd;

// Header, the sacrificial line the reader drops, then four rows; the last
// row misses its third cell.
const char* kTable =
    "a,b,c\n"
    "dropped,dropped,dropped\n"
    "x,p,1\n"
    "y,p,2\n"
    "x,q,1\n"
    "x,p,?\n";

std::string tableFile(const std::string& tag, const std::string& text = kTable) { return csvFile("build_" + tag, text); }

template <typename T> std::vector<T> arr(const T* p, size_t n) { return std::vector<T>(p, p + n); }

}  // namespace

TEST(Model, BuildsTheContainerFromTableAndGraph) {
    Ctx c;
    wreg(c, "SEED", 7);
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("basic") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(reg(c, "GPT"), (size_t)io->G);
    EXPECT_EQ(reg(c, "DIM"), 8u);
    EXPECT_EQ(io->dim, 8u);
    EXPECT_EQ(arr(io->Y, 3), (std::vector<unsigned long>{2, 2, 2}));
    EXPECT_EQ(io->odim, 6u);
    EXPECT_EQ(io->sdim, 14u);
    EXPECT_EQ(arr(io->woff, 6), (std::vector<unsigned long>{0, 2, 4, 6, 10, 14}));
    EXPECT_EQ(io->num_instances, 4u);
    EXPECT_EQ(io->gtype, 1u);
    EXPECT_EQ(io->T, 1u);
    EXPECT_EQ(io->decay, 0u);
    EXPECT_EQ(io->llist, "");
    EXPECT_EQ(io->H, nullptr);
    EXPECT_EQ(arr(io->w, 8), std::vector<double>(8, 0.0));
    EXPECT_EQ(*io->Xnames, (std::vector<std::string>{"a", "b", "c"}));
    ASSERT_EQ(io->Ynames->size(), 3u);
    EXPECT_EQ(*io->Ynames->at(0), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(*io->Ynames->at(1), (std::vector<std::string>{"p", "q"}));
    EXPECT_EQ(*io->Ynames->at(2), (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(regR(c, "RES"), -1.0);

    // Counts: a = x,y,x,x; b = p,p,q,p; edge (a,b) = (x,p),(y,p),(x,q),(x,p).
    EXPECT_EQ(arr(io->E, 4), (std::vector<double>{3, 1, 3, 1}));
    EXPECT_EQ(arr(io->E + 6, 4), (std::vector<double>{2, 1, 1, 0}));
    // The missing cell was drawn, written back and counted.
    const QZ::CategoricalData* D = reinterpret_cast<const QZ::CategoricalData*>(reg(c, "DPT"));
    const size_t drawn = D->get(3, 2);
    ASSERT_LT(drawn, 2u);
    std::vector<double> cCounts = {2, 1};
    cCounts[drawn] += 1;
    EXPECT_EQ(arr(io->E + 4, 2), cCounts);
    // Edge (b,c): (p,1),(p,2),(q,1),(p,drawn).
    std::vector<double> bc = {1, 1, 1, 0};
    bc[0 * 2 + drawn] += 1;
    EXPECT_EQ(arr(io->E + 10, 4), bc);
}

TEST(Model, EmptyTableCountsOneInstance) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + emptyBinaryTable("build_empty", 3, 2) + "'", "LDX DPT;", "GVX 3", "GRA CHAIN;",
                             "LDX GPT;", "MODEL;"}));
    EXPECT_EQ(reg(c, "NXX"), 0u);
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->num_instances, 1u);
    EXPECT_EQ(io->dim, 8u);
    EXPECT_EQ(arr(io->E, io->sdim), std::vector<double>(io->sdim, 0.0));
}

TEST(Model, HostStateSpacesReplaceTheCategories) {
    Ctx c;
    unsigned long* Y = new unsigned long[3]{3, 4, 2};  // handed over: the container releases it
    wreg(c, "YYY", (size_t)Y);
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("yyy") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->Y, Y);
    EXPECT_EQ(io->dim, 3u * 4u + 4u * 2u);
    EXPECT_EQ(reg(c, "DIM"), 20u);
    EXPECT_EQ(io->sdim, 9u + 20u);
}

TEST(Model, RegistersGoIntoTheContainer) {
    Ctx c;
    wreg(c, "LPT", (size_t) new std::vector<size_t>{3, 2});
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("regs") + "'", "LDX DPT;", "GRA STAR;", "CEN 1", "LDX GPT;",
                             "TXX 1", "REP STLINEAR;", "MODEL;"}));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->gtype, 3u);
    EXPECT_EQ(io->decay, 1u);
    EXPECT_EQ(io->llist, "3,2");
    // A decay law over a graph that is no spatio-temporal graph has no base.
    EXPECT_EQ(io->H, nullptr);
}

TEST(Model, ReplacesTheContainerWithoutReleasingIt) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("twice") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    IOd* first = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_TRUE(runLines(c, {"MODEL;"}));
    IOd* second = reinterpret_cast<IOd*>(reg(c, "MPT"));
    EXPECT_NE(first, second);
    EXPECT_EQ(first->dim, 8u);
    EXPECT_EQ(first->G, second->G);
    // The program owns both now; free the first by hand (the graph stays with GPT).
    delete first;
}

TEST(Model, FloatAndIntegerInstantiations) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"idx_t UINT32;", "val_t FLT32;", "DFN '" + tableFile("f32") + "'", "LDX DPT;",
                             "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    auto* f = reinterpret_cast<QZ::IO<unsigned int, float>*>(reg(c, "MPT"));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->itype, 2u);
    EXPECT_EQ(f->vtype, 4u);
    EXPECT_EQ(arr(f->E + 6, 4), (std::vector<float>{2, 1, 1, 0}));

    Ctx d;
    ASSERT_TRUE(runLines(d, {"idx_t UINT8;", "val_t UINT8;", "DFN '" + tableFile("u8") + "'", "LDX DPT;",
                             "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    auto* u = reinterpret_cast<QZ::IO<unsigned char, unsigned char>*>(reg(d, "MPT"));
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->vtype, 0u);
    EXPECT_EQ(arr(u->E + 6, 4), (std::vector<unsigned char>{2, 1, 1, 0}));
    EXPECT_EQ(reg(d, "DIM"), 8u);
}

TEST(Model, PairWithoutInstantiationDoesNothing) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("none") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;",
                             "val_t UINT8;", "MODEL;"}));
    EXPECT_EQ(reg(c, "MPT"), 0u);
}

TEST(Stats, RecountsFromTheLoadedTable) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("first") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    const std::string second = tableFile("second",
                                         "a,b,c\n"
                                         "dropped,dropped,dropped\n"
                                         "y,q,2\n"
                                         "y,q,2\n");
    // The same coding as the model: the names come from the container.
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "DEL DFN;", "DFN '" + second + "'", "LDX DPT;", "STATS;"}));
    EXPECT_EQ(io->num_instances, 2u);
    EXPECT_EQ(arr(io->E, 6), (std::vector<double>{0, 2, 0, 2, 0, 2}));
    EXPECT_EQ(arr(io->E + 6, 4), (std::vector<double>{0, 0, 0, 2}));
    EXPECT_EQ(reg(c, "MPT"), (size_t)io);
}

TEST(Stats, NeedsATable) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("notable") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;",
                             "DEL DPT;"}));
    EXPECT_EQ(failureOf(c, {"STATS;"}), "no data loaded");
}

TEST(Model, StoredModelReadsBackAndExports) {
    Ctx c;
    const std::string mfn = tmpPath("build_model.qzm"), gfn = tmpPath("build_model.tgf");
    std::remove(mfn.c_str());
    std::remove(gfn.c_str());
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("store") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;",
                             "MFN '" + mfn + "'", "STORE MPT;", "GFN '" + gfn + "'", "FMT TGF;", "STORE GPT;"}));
    EXPECT_EQ(readFile(gfn), "1 a\n2 b\n3 c\n#\n1 2\n2 3\n");
    const IOd* io = reinterpret_cast<const IOd*>(reg(c, "MPT"));
    const std::vector<double> E = arr(io->E, io->sdim);

    Ctx d;
    ASSERT_TRUE(runLines(d, {"MFN '" + mfn + "'", "LDX MPT;"}));
    const IOd* back = reinterpret_cast<const IOd*>(reg(d, "MPT"));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(reg(d, "DIM"), 8u);
    EXPECT_EQ(reg(d, "NXX"), 4u);
    EXPECT_EQ(reg(d, "GVX"), 3u);
    EXPECT_EQ(reg(d, "GEX"), 2u);
    EXPECT_EQ(arr(back->E, back->sdim), E);
    EXPECT_EQ(*back->Ynames->at(0), (std::vector<std::string>{"x", "y"}));
}

TEST(Model, VotingTableOverACompleteGraph) {
    Ctx c;
    const std::string vote = std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv";
    ASSERT_TRUE(runLines(c, {"SEED 1", "DFN '" + vote + "'", "LDX DPT;", "GRA FULL;", "LDX GPT;", "MODEL;"}));
    EXPECT_EQ(reg(c, "NXX"), 434u);
    EXPECT_EQ(reg(c, "GVX"), 17u);
    EXPECT_EQ(reg(c, "GEX"), 136u);
    // Every column holds two categories, so each edge has four joint states.
    EXPECT_EQ(reg(c, "DIM"), 136u * 4u);
    const IOd* io = reinterpret_cast<const IOd*>(reg(c, "MPT"));
    // Every vertex and edge block counts every row once: missing votes were drawn.
    for (size_t b = 0; b + 1 < (size_t)io->odim; ++b) {
        const double sum = std::accumulate(io->E + io->woff[b], io->E + io->woff[b + 1], 0.0);
        EXPECT_EQ(sum, 434.0) << "block " << b;
    }
    const QZ::CategoricalData* D = reinterpret_cast<const QZ::CategoricalData*>(reg(c, "DPT"));
    for (size_t r = 0; r < D->size(); ++r)
        for (size_t col = 0; col < 17; ++col) ASSERT_NE(D->get(r, col), 65535u);
}

TEST(Model, DecayLawRecordsTheBaseOfASpatioTemporalGraph) {
    Ctx c;
    QZ::Chain<unsigned long> base(2);
    QZ::STGraph<unsigned long>* st = new QZ::STGraph<unsigned long>(&base, 2);  // released by DEL GPT below
    const std::string table = tableFile("st",
                                        "a0,b0,a1,b1\n"
                                        "dropped,dropped,dropped,dropped\n"
                                        "0,1,1,0\n"
                                        "1,1,0,0\n");
    wreg(c, "GPT", (size_t)st);
    ASSERT_TRUE(runLines(c, {"DFN '" + table + "'", "LDX DPT;", "TXX 2", "REP STQUAD;", "MODEL;"}));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->H, &base);
    EXPECT_EQ(io->G, st);
    EXPECT_EQ(io->T, 2u);
    EXPECT_EQ(io->decay, 2u);
    EXPECT_EQ(reg(c, "GEX"), (size_t)st->edges());
    ASSERT_TRUE(runLines(c, {"DEL MPT;", "DEL GPT;"}));
}
