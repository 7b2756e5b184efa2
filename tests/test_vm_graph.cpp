// Graphs loaded through programs: the graph kinds of GRA, the file and host
// list forms, their failures, release, and the computed registers GVX and GEX.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/QZIO>
#include <QZ/QZMISC>

#include <functional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

using namespace qztest;
using QZ::AbstractGraph;
using QZ::Graph;

namespace {

typedef EdgeList EL;

template <typename idx_t = unsigned long> const AbstractGraph<idx_t>* graphOf(void* ctx) {
    return reinterpret_cast<const AbstractGraph<idx_t>*>(reg(ctx, "GPT"));
}

template <typename idx_t = unsigned long> EL edgesOf(void* ctx) { return edgeList(*graphOf<idx_t>(ctx)); }

// GVX and GEX as a program or host reads them.
typedef std::pair<size_t, size_t> Counts;
Counts counts(void* ctx) { return {reg(ctx, "GVX"), reg(ctx, "GEX")}; }

// The message of the exception of exactly type E that the program raises
// after setup (an out-of-range error is a logic error too, and is told apart);
// a fresh context each time, since a failed run leaves its context unusable.
template <typename E>
std::string failure(const std::vector<std::string>& lines, const std::function<void(void*)>& setup = nullptr) {
    Ctx ctx;
    if (setup) setup(ctx);
    try {
        runLines(ctx, lines);
    } catch (const std::exception& e) {
        if (typeid(e) == typeid(E)) return e.what();
        return std::string("other exception: ") + e.what();
    }
    return "no exception";
}

}  // namespace

TEST(VmGraph, ChainOfStoredVertexCount) {
    Ctx ctx;
    runLines(ctx, {"GRA CHAIN", "GVX 5", "LDX GPT;"});
    ASSERT_NE(reg(ctx, "GPT"), 0u);
    EXPECT_EQ(counts(ctx), (Counts{5, 4}));
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 1}, {1, 2}, {2, 3}, {3, 4}}));
    EXPECT_EQ(graphOf(ctx)->itype, 3);
}

TEST(VmGraph, StoredZeroGivesAnEmptyChain) {
    Ctx ctx;
    runLines(ctx, {"GRA CHAIN", "GVX 0", "LDX GPT;"});
    ASSERT_NE(reg(ctx, "GPT"), 0u);
    EXPECT_EQ(counts(ctx), (Counts{0, 0}));
}

TEST(VmGraph, StructureSearchKindsStartFromAChain) {
    for (const char* kind : {"GRA CLIQUES", "GRA RNDCLIQUES"}) {
        Ctx ctx;
        runLines(ctx, {kind, "GVX 4", "LDX GPT;"});
        EXPECT_EQ(edgesOf(ctx), (EL{{0, 1}, {1, 2}, {2, 3}})) << kind;
    }
}

TEST(VmGraph, GridTakesTheIntegerSquareRoot) {
    Ctx ctx;
    runLines(ctx, {"GRA GRID", "GVX 10", "LDX GPT;"});
    EXPECT_EQ(counts(ctx), (Counts{9, 12}));
    const EL el = edgesOf(ctx);
    EXPECT_EQ(EL(el.begin(), el.begin() + 4), (EL{{0, 3}, {0, 1}, {1, 4}, {1, 2}}));
}

TEST(VmGraph, StarAroundCEN) {
    Ctx ctx;
    runLines(ctx, {"GRA STAR", "GVX 4", "CEN 1", "LDX GPT;"});
    EXPECT_EQ(counts(ctx), (Counts{4, 3}));
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 1}, {2, 1}, {3, 1}}));
}

TEST(VmGraph, StarWithCentreOutsideAsserts) {
    EXPECT_DEATH(
        {
            Ctx ctx;
            runLines(ctx, {"GRA STAR", "GVX 3", "CEN 3", "LDX GPT;"});
        },
        "Assertion `_c>=0 && _c<_n' failed");
}

namespace {
std::vector<std::string> g_labels;
size_t g_total = 0;
void progress(size_t, size_t total, const char* text) {
#pragma omp critical(vm_graph_progress)
    {
        g_labels.push_back(text);
        g_total = total;
    }
}
}  // namespace

TEST(VmGraph, FullGraphWithProgressFromCBP) {
    g_labels.clear();
    Ctx ctx;
    wreg(ctx, "CBP", (size_t)&progress);
    runLines(ctx, {"GRA FULL", "GVX 5", "LDX GPT;"});
    EXPECT_EQ(reg(ctx, "GEX"), 10u);
    const EL el = edgesOf(ctx);
    EXPECT_EQ(el.front(), (std::pair<size_t, size_t>{3, 4}));
    EXPECT_EQ(el.back(), (std::pair<size_t, size_t>{0, 1}));
    ASSERT_FALSE(g_labels.empty());
    EXPECT_EQ(g_labels.front(), "GRAPH");
    EXPECT_EQ(g_total, 9u);
}

TEST(VmGraph, TreeSearchKindsStartFromTheCompleteGraph) {
    for (const char* kind : {"GRA CHOWLIU", "GRA ELEMGM"}) {
        Ctx ctx;
        runLines(ctx, {kind, "GVX 4", "LDX GPT;"});
        EXPECT_EQ(edgesOf(ctx), (EL{{2, 3}, {1, 3}, {1, 2}, {0, 3}, {0, 2}, {0, 1}})) << kind;
    }
}

TEST(VmGraph, RBMFromTheLayerList) {
    Ctx ctx;
    wreg(ctx, "LPT", (size_t) new std::vector<size_t>{2, 3});
    runLines(ctx, {"GRA RBM", "LDX GPT;"});
    EXPECT_EQ(counts(ctx), (Counts{5, 6}));
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 2}, {0, 3}, {0, 4}, {1, 2}, {1, 3}, {1, 4}}));
}

TEST(VmGraph, FileFromDenseAdjacencyText) {
    const std::string f = tmpPath("vm_graph_adj.csv");
    writeFile(f, "0,1,0,1\n1,0,1,0\n0,1,0,1\n1,0,1,0\n");
    Ctx ctx;
    runLines(ctx, {"GRA FILE", "GFN '" + f + "'", "LDX GPT;"});
    EXPECT_EQ(counts(ctx), (Counts{4, 4}));
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 1}, {0, 3}, {1, 2}, {2, 3}}));
}

TEST(VmGraph, FileUsesTheSeparatorOfSEP) {
    const std::string f = tmpPath("vm_graph_adj_semicolon.csv");
    writeFile(f, "0;0;1\n0;0;1\n1;1;0\n");
    Ctx ctx;
    runLines(ctx, {"GFN '" + f + "'", "SEP ';'", "LDX GPT;"});
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 2}, {1, 2}}));
}

TEST(VmGraph, FileWithWrongAdjacencyFormatFails) {
    const std::string f = tmpPath("vm_graph_adj_bad.csv");
    writeFile(f, "0,1\n1,0,1\n");
    EXPECT_EQ(failure<std::out_of_range>({"GFN '" + f + "'", "LDX GPT;"}), "wrong adjancency format");
}

TEST(VmGraph, FileFromAHostEdgeListInPlace) {
    std::vector<unsigned long> el = {0, 2, 2, 1, 1, 3};
    {
        Ctx ctx;
        wreg(ctx, "EAP", (size_t)el.data());
        wreg(ctx, "GVX", 4);
        wreg(ctx, "GEX", 3);
        runLines(ctx, {"GRA FILE", "LDX GPT;"});
        EXPECT_EQ(counts(ctx), (Counts{4, 3}));
        EXPECT_EQ(edgesOf(ctx), (EL{{0, 2}, {2, 1}, {1, 3}}));
        const Graph<unsigned long>* G = static_cast<const Graph<unsigned long>*>(graphOf(ctx));
        EXPECT_EQ(G->getA(), el.data());
        EXPECT_FALSE(G->myA);
        runLines(ctx, {"DEL GPT;"});
        EXPECT_EQ(reg(ctx, "GPT"), 0u);
    }
    // The list stayed the host's through DEL and the end of the context.
    EXPECT_EQ(el, (std::vector<unsigned long>{0, 2, 2, 1, 1, 3}));
}

TEST(VmGraph, HostEdgeListInThirtyTwoBits) {
    std::vector<unsigned int> el = {1, 0, 2, 1};
    Ctx ctx;
    wreg(ctx, "EAP", (size_t)el.data());
    runLines(ctx, {"idx_t UINT32", "GVX 3", "GEX 2", "LDX GPT;"});
    EXPECT_EQ(graphOf<unsigned int>(ctx)->itype, 2);
    EXPECT_EQ(edgesOf<unsigned int>(ctx), (EL{{1, 0}, {2, 1}}));
}

TEST(VmGraph, EightBitAdjacencyTextMakesAnEdgeOfEveryCellAboveTheDiagonal) {
    // One character per cell in this width: "0" is not zero.
    const std::string f = tmpPath("vm_graph_adj_eight.csv");
    writeFile(f, "0,0,0\n0,0,0\n0,0,0\n");
    Ctx ctx;
    runLines(ctx, {"idx_t UINT8", "val_t FLT64", "GFN '" + f + "'", "LDX GPT;"});
    EXPECT_EQ(counts(ctx), (Counts{3, 3}));
    EXPECT_EQ(edgesOf<unsigned char>(ctx), (EL{{0, 1}, {0, 2}, {1, 2}}));
}

TEST(VmGraph, HostEdgeListWinsOverAFileName) {
    // With EAP set the file is neither checked nor read.
    std::vector<unsigned long> el = {1, 0};
    Ctx ctx;
    wreg(ctx, "EAP", (size_t)el.data());
    runLines(ctx, {"GFN '" + tmpPath("vm_graph_never_written.csv") + "'", "GVX 2", "GEX 1", "LDX GPT;"});
    EXPECT_EQ(edgesOf(ctx), (EL{{1, 0}}));
}

TEST(VmGraph, FileNameIsNotCheckedForOtherKinds) {
    Ctx ctx;
    runLines(ctx, {"GFN '" + tmpPath("vm_graph_never_written.csv") + "'", "GRA CHAIN", "GVX 3", "LDX GPT;"});
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 1}, {1, 2}}));
}

// ------------------------------------------------------------ failures

TEST(VmGraphFailures, FileKindWithoutFileOrListNeedsAFile) {
    EXPECT_EQ(failure<std::logic_error>({"GRA FILE", "LDX GPT;"}), "9 requires an adjacency matrix file");
}

TEST(VmGraphFailures, MissingAdjacencyFile) {
    const std::string f = tmpPath("vm_graph_no_such_file.csv");
    std::remove(f.c_str());
    EXPECT_EQ(failure<std::logic_error>({"GFN '" + f + "'", "LDX GPT;"}), "file " + f + " does not exist");
}

TEST(VmGraphFailures, TemporalRBMIsNotSupported) {
    EXPECT_EQ(failure<std::out_of_range>({"GRA RBM", "TXX 2", "LDX GPT;"},
                                         [](void* ctx) { wreg(ctx, "LPT", (size_t) new std::vector<size_t>{2, 3}); }),
              "Temporal RBM is not supported");
}

TEST(VmGraphFailures, TemporalRBMIsRefusedBeforeTheLayersAreLookedAt) {
    EXPECT_EQ(failure<std::out_of_range>({"GRA RBM", "TXX 3", "LDX GPT;"}), "Temporal RBM is not supported");
}

TEST(VmGraphFailures, RBMWithoutLayers) {
    EXPECT_EQ(failure<std::out_of_range>({"GRA RBM", "LDX GPT;"}), "RBM requires layer definition");
}

TEST(VmGraphFailures, RBMWithOneLayer) {
    EXPECT_EQ(failure<std::out_of_range>({"GRA RBM", "LDX GPT;"},
                                         [](void* ctx) { wreg(ctx, "LPT", (size_t) new std::vector<size_t>{4}); }),
              "RBM requires more than one layer");
}

TEST(VmGraphFailures, OtherKindGivesNoGraphAndStatsFails) {
    static int fakeModel = 0;
    EXPECT_EQ(failure<std::logic_error>({"STATS;"},
                                        [](void* ctx) {
                                            runLines(ctx, {"GRA OTHER", "GVX 5", "LDX GPT;"});
                                            EXPECT_EQ(reg(ctx, "GPT"), 0u);
                                            EXPECT_EQ(reg(ctx, "GVX"), 5u);
                                            // Never dereferenced: STATS checks the graph
                                            // right after the model and fails there.
                                            wreg(ctx, "MPT", (size_t)&fakeModel);
                                        }),
              "no graph loaded");
}

TEST(VmGraphFailures, DerivedKindsGiveNoGraph) {
    for (const char* kind : {"GRA JT", "GRA DBT", "GRA ST"}) {
        Ctx ctx;
        runLines(ctx, {kind, "GVX 5", "LDX GPT;"});
        EXPECT_EQ(reg(ctx, "GPT"), 0u) << kind;
    }
    EXPECT_EQ(failure<std::logic_error>({"GRA OTHER", "GVX 5", "LDX GPT;", "MODEL;"}), "no graph loaded");
}

TEST(VmGraphFailures, NoInstantiationLeavesTheGraphNullSilently) {
    Ctx ctx;
    // A model is there; with no instantiation it is neither given a graph
    // nor asked for its dimension.
    QZ::IO<unsigned long, double>* io = new QZ::IO<unsigned long, double>();
    io->dim = 77;
    wreg(ctx, "MPT", (size_t)io);
    runLines(ctx, {"idx_t UINT16", "val_t UINT32", "GRA CHAIN", "GVX 5", "LDX GPT;"});
    EXPECT_EQ(reg(ctx, "GPT"), 0u);
    EXPECT_EQ(reg(ctx, "GVX"), 5u);
    EXPECT_EQ(reg(ctx, "DIM"), 0u);
    EXPECT_EQ(io->G, nullptr);
    wreg(ctx, "MPT", 0);
    delete io;
    // The same index type with a matching integer value type works.
    runLines(ctx, {"val_t UINT16", "LDX GPT;"});
    EXPECT_NE(reg(ctx, "GPT"), 0u);
    EXPECT_EQ(graphOf<unsigned short>(ctx)->itype, 1);
}

TEST(VmGraphFailures, ReleaseWithAnUnknownIndexType) {
    EXPECT_EQ(failure<std::logic_error>({"DEL GPT;"},
                                        [](void* ctx) {
                                            runLines(ctx, {"GRA CHAIN", "GVX 3", "LDX GPT;"});
                                            wreg(ctx, "IDX", 9);
                                        }),
              "unsupported storage type");
}

TEST(VmGraphFailures, ReleaseOfNoGraphNeedsNoIndexType) {
    // Nothing to delete, so nothing to dispatch on: the register is cleared.
    Ctx ctx;
    wreg(ctx, "IDX", 9);
    runLines(ctx, {"DEL GPT;"});
    EXPECT_EQ(reg(ctx, "GPT"), 0u);
}

// ------------------------------------------------------------ dispatch

TEST(VmGraphDispatch, MultiplePrecisionIsDouble) {
    Ctx ctx;
    runLines(ctx, {"val_t FLTMPREC", "GRA GRID", "GVX 4", "LDX GPT;"});
    EXPECT_EQ(reg(ctx, "GEX"), 4u);
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 2}, {0, 1}, {1, 3}, {2, 3}}));
}

TEST(VmGraphDispatch, EveryIndexWidthWithFloatValues) {
    const char* idx[4] = {"idx_t UINT8", "idx_t UINT16", "idx_t UINT32", "idx_t UINT64"};
    for (int i = 0; i < 4; ++i) {
        Ctx ctx;
        runLines(ctx, {idx[i], "val_t FLT32", "GRA CHAIN", "GVX 6", "LDX GPT;"});
        ASSERT_NE(reg(ctx, "GPT"), 0u);
        EXPECT_EQ(reinterpret_cast<const AbstractGraph<unsigned char>*>(reg(ctx, "GPT"))->itype, i);
        EXPECT_EQ(reg(ctx, "GEX"), 5u);
        runLines(ctx, {"DEL GPT;"});
        EXPECT_EQ(reg(ctx, "GPT"), 0u);
    }
}

// ------------------------------------------------------------ registers

TEST(VmGraphRegisters, WrittenVertexCountIsReadBackWithoutAGraph) {
    Ctx ctx;
    wreg(ctx, "GVX", 300);
    wreg(ctx, "GEX", 7);
    EXPECT_EQ(counts(ctx), (Counts{300, 7}));
}

TEST(VmGraphRegisters, WithAGraphTheCountsComeFromIt) {
    Ctx ctx;
    runLines(ctx, {"GRA CHAIN", "GVX 5", "LDX GPT;"});
    wreg(ctx, "GVX", 300);
    wreg(ctx, "GEX", 7);
    EXPECT_EQ(counts(ctx), (Counts{5, 4}));
    // After DEL the stored values come back.
    runLines(ctx, {"DEL GPT;"});
    EXPECT_EQ(counts(ctx), (Counts{300, 7}));
}

TEST(VmGraphRegisters, VertexCountIsTruncatedToTheIndexWidth) {
    Ctx ctx;
    wreg(ctx, "GVX", 300);
    runLines(ctx, {"idx_t UINT8", "val_t UINT8", "GRA CHAIN", "LDX GPT;"});
    // 300 does not fit into 8 bits: the chain has 44 vertices.
    EXPECT_EQ(counts(ctx), (Counts{44, 43}));
}

TEST(VmGraphRegisters, ModelPlaceholderAnswersOneBeforeTheGraph) {
    Ctx ctx;
    runLines(ctx, {"GRA CHAIN", "GVX 5", "LDX GPT;"});
    wreg(ctx, "MPT", 1);
    EXPECT_EQ(counts(ctx), (Counts{1, 1}));
    wreg(ctx, "MPT", 0);
    EXPECT_EQ(counts(ctx), (Counts{5, 4}));
}

TEST(VmGraphRegisters, UnknownIndexTypeFallsBackToTheStoredValue) {
    Ctx ctx;
    runLines(ctx, {"GRA CHAIN", "GVX 5", "LDX GPT;"});
    wreg(ctx, "GVX", 12);
    wreg(ctx, "IDX", 7);
    EXPECT_EQ(reg(ctx, "GVX"), 12u);
    wreg(ctx, "IDX", 3);
    EXPECT_EQ(reg(ctx, "GVX"), 5u);
}

TEST(VmGraphRegisters, InstructionsReadTheEdgeCountOfTheGraph) {
    // GEX is stored 0; MOV reads it through the loaded grid.
    Ctx ctx;
    runLines(ctx, {"GRA GRID", "GVX 16", "LDX GPT;", "MOV RNU GEX;"});
    EXPECT_EQ(reg(ctx, "RNU"), 24u);
}

TEST(VmGraphRegisters, SecondLoadWithoutReleaseTakesTheCountOfTheFirst) {
    // The vertex count is read through GVX, which answers from the graph
    // already loaded.
    Ctx ctx;
    runLines(ctx, {"GRA CHAIN", "GVX 3", "LDX GPT;", "GVX 8", "GRA STAR", "LDX GPT;"});
    EXPECT_EQ(reg(ctx, "GVX"), 3u);
    EXPECT_EQ(edgesOf(ctx), (EL{{1, 0}, {2, 0}}));
}

TEST(VmGraphRegisters, DryPassHoldsTheSentinelAndStoredCounts) {
    QZ::vm_t vm;
    vm.setCode(new std::vector<std::string>{"GRA CHAIN", "GVX 5", "GEX 2", "LDX GPT;"});
    vm.parse(true);
    EXPECT_EQ(vm.getP(QZ::vm_t::GPT), (void*)1);
    EXPECT_EQ(vm.get(QZ::vm_t::GVX), 5u);
    EXPECT_EQ(vm.get(QZ::vm_t::GEX), 2u);
    // Outside the dry pass the sentinel is still no graph to read.
    vm.setCode(new std::vector<std::string>{"GRA CHAIN"});
    vm.parse(false);
    EXPECT_EQ(vm.get(QZ::vm_t::GVX), 5u);
    // Releasing the sentinel deletes nothing and clears the register.
    EXPECT_TRUE(vm.freeGraph());
    EXPECT_EQ(vm.getP(QZ::vm_t::GPT), nullptr);
}

namespace {
// The message of the logic error that a dry pass of the lines raises, which
// must leave no sentinel behind.
std::string dryFailure(const std::vector<std::string>& lines) {
    QZ::vm_t vm;
    vm.setCode(new std::vector<std::string>(lines));
    std::string what = "no exception";
    try {
        vm.parse(true);
    } catch (const std::logic_error& e) {
        what = e.what();
    }
    EXPECT_EQ(vm.getP(QZ::vm_t::GPT), nullptr);
    return what;
}
}  // namespace

TEST(VmGraphRegisters, DryPassStillChecksTheFile) {
    EXPECT_EQ(dryFailure({"GFN 'no/such/graph.csv'", "LDX GPT;"}), "file no/such/graph.csv does not exist");
    EXPECT_EQ(dryFailure({"GRA FILE", "LDX GPT;"}), "9 requires an adjacency matrix file");
}

TEST(VmGraphRegisters, DryPassReleaseClearsTheSentinel) {
    QZ::vm_t vm;
    vm.setCode(new std::vector<std::string>{"GRA GRID", "GVX 9", "LDX GPT;", "DEL GPT;"});
    vm.parse(true);
    EXPECT_EQ(vm.getP(QZ::vm_t::GPT), nullptr);
}

// ------------------------------------------------------------ sized from data

TEST(VmGraphData, TableColumnsDividedByTheSliceCount) {
    const std::string f = tmpPath("vm_graph_table.csv");
    // The reader drops the first line behind the header.
    std::string text = "a,b,c,d,e,f\n1,1,1,1,1,1\n";
    for (int r = 0; r < 10; ++r) text += "0,1,0,1,0,1\n";
    writeFile(f, text);
    Ctx ctx;
    runLines(ctx, {"DFN '" + f + "'", "LDX DPT;", "TXX 2", "GRA CHAIN", "GVX 40", "LDX GPT;"});
    ASSERT_EQ(reg(ctx, "NXX"), 10u);
    EXPECT_EQ(counts(ctx), (Counts{3, 2}));
    runLines(ctx, {"DEL GPT;", "TXX 1", "LDX GPT;"});
    EXPECT_EQ(reg(ctx, "GVX"), 6u);
    runLines(ctx, {"DEL GPT;", "TXX 0", "LDX GPT;"});
    EXPECT_EQ(reg(ctx, "GVX"), 0u);
}

TEST(VmGraphData, HostEdgeListIsSizedFromGVXEvenWithATable) {
    const std::string f = tmpPath("vm_graph_table_eap.csv");
    std::string text = "a,b,c,d,e,f\n1,1,1,1,1,1\n";
    for (int r = 0; r < 4; ++r) text += "0,1,0,1,0,1\n";
    writeFile(f, text);
    std::vector<unsigned long> el = {0, 1, 1, 2, 2, 3};
    Ctx ctx;
    wreg(ctx, "EAP", (size_t)el.data());
    runLines(ctx, {"DFN '" + f + "'", "LDX DPT;", "GVX 4", "GEX 3", "LDX GPT;"});
    ASSERT_EQ(reg(ctx, "NXX"), 4u);
    EXPECT_EQ(counts(ctx), (Counts{4, 3}));
    EXPECT_EQ(edgesOf(ctx), (EL{{0, 1}, {1, 2}, {2, 3}}));
}

// ------------------------------------------------------------ with a model

TEST(VmGraphModel, LoadedGraphIsHandedToTheModel) {
    Ctx ctx;
    QZ::IO<unsigned long, double>* io = new QZ::IO<unsigned long, double>();
    io->Y = new unsigned long[3]{2, 3, 4};
    wreg(ctx, "MPT", (size_t)io);
    runLines(ctx, {"GRA CHAIN", "GVX 3", "LDX GPT;"});
    ASSERT_NE(reg(ctx, "GPT"), 0u);
    EXPECT_EQ((size_t)io->G, reg(ctx, "GPT"));
    EXPECT_EQ(io->gtype, 1u);
    // 2*3 + 3*4 over the edges (0,1), (1,2).
    EXPECT_EQ(io->dim, 18u);
}
