// Graph conversions through programs: STGRAPH, JUNCTIONTREE, BOLTZMANNTREE
// and BASEGRAPH, the registers they set, the container they repoint, the
// dispatch on IDX and VAL, the dry pass, the release of derived graphs, and
// INITLATENT on a deep Boltzmann tree.
#include <gtest/gtest.h>
#include <qz_live_count.h>
#include <qz_graph_util.h>
#include <qz_table_util.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>
#include <QZ/graph/core>
#include <QZ/graph/stgraph>
#include <QZ/graph/set_graph>
#include <QZ/graph/junction_tree>
#include <QZ/graph/boltzmann_tree>
#include <QZ/QZIO>
#include <QZ/QZMISC>

#include <cmath>
#include <cstdlib>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace qztest;
using QZ::vm_t;

namespace {

typedef unsigned long I;
typedef QZ::IO<I, double> IOd;

template <typename idx_t = I> QZ::AbstractGraph<idx_t>* graphOf(void* c) {
    return reinterpret_cast<QZ::AbstractGraph<idx_t>*>(reg(c, "GPT"));
}

QZ::CategoricalData* table(void* c) { return reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT")); }
IOd* model(void* c) { return reinterpret_cast<IOd*>(reg(c, "MPT")); }

std::vector<size_t> layers(void* c) {
    const std::vector<size_t>* L = reinterpret_cast<const std::vector<size_t>*>(reg(c, "LPT"));
    return L ? *L : std::vector<size_t>();
}

template <typename idx_t> std::set<size_t> objects(const QZ::SetGraph<idx_t>& G, size_t v) {
    const std::set<idx_t>* s = G.vertexObjects((idx_t)v);
    return std::set<size_t>(s->begin(), s->end());
}

// Three visible columns and one more; the reader drops the line after the header.
const char* kFour =
    "a,b,c,out\n"
    "dropped,d,d,d\n"
    "x,p,1,u\n"
    "x,q,2,v\n"
    "y,p,1,u\n"
    "y,r,2,v\n"
    "x,q,1,u\n"
    "y,p,2,v\n";

std::string four(const std::string& tag) { return "DFN '" + csvFile("conv_" + tag, kFour) + "'"; }

}  // namespace

// ---------------------------------------------------------------- STGRAPH

TEST(ConvertST, OneSliceLeavesGraphAndKindAlone) {
    for (const char* txx : {"TXX 1", "TXX 0"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 4", "LDX GPT;"}));
        const size_t g = reg(c, "GPT");
        ASSERT_TRUE(runLines(c, {txx, "STGRAPH;"}));
        EXPECT_EQ(reg(c, "GPT"), g) << txx;
        EXPECT_EQ(reg(c, "GRA"), (size_t)vm_t::CHAIN) << txx;
    }
}

TEST(ConvertST, SlicesOfTheGraphInPlaceOfIt) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA GRID;", "GVX 4", "LDX GPT;"}));
    QZ::AbstractGraph<I>* grid = graphOf(c);
    ASSERT_TRUE(runLines(c, {"TXX 3", "STGRAPH;"}));
    const QZ::STGraph<I>* st = dynamic_cast<const QZ::STGraph<I>*>(graphOf(c));
    ASSERT_NE(st, nullptr);
    EXPECT_EQ(st->base(), grid);
    EXPECT_EQ(st->slices(), 3u);
    EXPECT_EQ(reg(c, "GRA"), (size_t)vm_t::ST);
    // The counts of the new graph: 4 * 3 vertices, 4 * 3 + 2 * (4 + 8) edges.
    EXPECT_EQ(reg(c, "GVX"), 12u);
    EXPECT_EQ(reg(c, "GEX"), 36u);
    EXPECT_EQ(edgeList(*st).size(), 36u);
}

TEST(ConvertST, MoreEdgesThanTheIndexTypeCanNumberIsAnError) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"idx_t UINT8;", "GRA CHAIN;", "GVX 100", "LDX GPT;", "TXX 2"}));
    const size_t g = reg(c, "GPT");
    // 99 * 2 + 1 * (100 + 198) = 496 edges.
    EXPECT_EQ(failureOf(c, {"STGRAPH;"}), "spatio-temporal graph has more edges than the index type can number");
    EXPECT_EQ(reg(c, "GPT"), g);
    Ctx d;
    // 9 * 2 + 1 * (10 + 18) = 46 edges fit.
    ASSERT_TRUE(runLines(d, {"idx_t UINT8;", "GRA CHAIN;", "GVX 10", "LDX GPT;", "TXX 2", "STGRAPH;"}));
    EXPECT_EQ(graphOf<unsigned char>(d)->edges(), 46u);
}

// ---------------------------------------------------------------- JUNCTIONTREE

TEST(ConvertJT, JunctionTreeOfTheChain) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;"}));
    QZ::AbstractGraph<I>* chain = graphOf(c);
    ASSERT_TRUE(runLines(c, {"JUNCTIONTREE;"}));
    const QZ::JunctionTree<I>* J = dynamic_cast<const QZ::JunctionTree<I>*>(graphOf(c));
    ASSERT_NE(J, nullptr);
    EXPECT_EQ(J->base(), chain);
    EXPECT_EQ(reg(c, "GRA"), (size_t)vm_t::JTG);
    EXPECT_EQ(edgeList(*J), (EdgeList{{0, 2}, {2, 1}}));
    EXPECT_EQ(objects(*J, 0), (std::set<size_t>{1, 2}));
    EXPECT_EQ(objects(*J, 2), (std::set<size_t>{1}));
}

// A grid goes to its junction tree and back: BASEGRAPH hands over the grid
// under the tree, the host puts it into GPT again, and a second conversion
// gives the same tree.
TEST(ConvertJT, GraphToJunctionTreeAndBackWithBaseGraph) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA GRID;", "GVX 9", "LDX GPT;"}));
    QZ::AbstractGraph<I>* grid = graphOf(c);
    const EdgeList gridEdges = edgeList(*grid);
    ASSERT_TRUE(runLines(c, {"JUNCTIONTREE;", "BASEGRAPH;"}));
    QZ::JunctionTree<I>* first = dynamic_cast<QZ::JunctionTree<I>*>(graphOf(c));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(reg(c, "RES"), (size_t)grid);

    // Every grid edge lies in a clique; every base vertex is covered.
    EXPECT_EQ(first->baseVertices(), 9u);
    for (const auto& e : gridEdges) {
        bool inside = false;
        for (I k = 0; k < first->cliques(); ++k) {
            const std::set<size_t> s = objects(*first, k);
            inside = inside || (s.count(e.first) && s.count(e.second));
        }
        EXPECT_TRUE(inside) << e.first << "-" << e.second;
    }
    std::vector<std::set<size_t>> sets;
    for (I v = 0; v < first->vertices(); ++v) sets.push_back(objects(*first, v));
    const EdgeList treeEdges = edgeList(*first);

    // Back: the grid itself is the graph again.
    ASSERT_TRUE(wreg(c, "GPT", reg(c, "RES")));
    ASSERT_TRUE(runLines(c, {"GRA GRID;"}));
    EXPECT_EQ(graphOf(c), grid);
    EXPECT_EQ(edgeList(*graphOf(c)), gridEdges);
    ASSERT_TRUE(runLines(c, {"BASEGRAPH;"}));
    EXPECT_EQ(reg(c, "RES"), 0u);

    // And forth again: the same tree over the same grid.
    ASSERT_TRUE(runLines(c, {"JUNCTIONTREE;", "BASEGRAPH;"}));
    const QZ::JunctionTree<I>* second = dynamic_cast<const QZ::JunctionTree<I>*>(graphOf(c));
    ASSERT_NE(second, nullptr);
    EXPECT_NE((const void*)second, (const void*)first);
    EXPECT_EQ(reg(c, "RES"), (size_t)grid);
    EXPECT_EQ(edgeList(*second), treeEdges);
    for (I v = 0; v < second->vertices(); ++v) EXPECT_EQ(objects(*second, v), sets[v]);
    // The first tree goes back into GPT to be released; the grid stays, as
    // the second tree stands on it, and goes with that one at the end.
    const size_t second_ = reg(c, "GPT");
    ASSERT_TRUE(wreg(c, "GPT", (size_t)first));
    ASSERT_TRUE(runLines(c, {"DEL GPT;"}));
    EXPECT_EQ(edgeList(*grid), gridEdges);
    ASSERT_TRUE(wreg(c, "GPT", second_));
}

// ---------------------------------------------------------------- BASEGRAPH

TEST(BaseGraph, PlainGraphStoresIntegerZero) {
    for (const char* gra : {"CHAIN", "GRID", "FULL", "STAR"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, {std::string("GRA ") + gra + ";", "GVX 4", "LDX GPT;"}));
        wregR(c, "RES", 2.5);
        ASSERT_TRUE(runLines(c, {"BASEGRAPH;"}));
        EXPECT_EQ(reg(c, "RES"), 0u) << gra;
    }
}

TEST(BaseGraph, EveryDerivedKindGivesTheGraphUnderIt) {
    for (const char* conv : {"STGRAPH", "JUNCTIONTREE", "BOLTZMANNTREE"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;"}));
        const size_t chain = reg(c, "GPT");
        ASSERT_TRUE(runLines(c, {"TXX 2", std::string(conv) + ";", "BASEGRAPH;"}));
        EXPECT_NE(reg(c, "GPT"), chain) << conv;
        EXPECT_EQ(reg(c, "RES"), chain) << conv;
    }
}

TEST(BaseGraph, DerivedGraphsStackAndUnstack) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA GRID;", "GVX 4", "LDX GPT;"}));
    const size_t grid = reg(c, "GPT");
    ASSERT_TRUE(runLines(c, {"TXX 2", "STGRAPH;"}));
    const size_t st = reg(c, "GPT");
    ASSERT_TRUE(runLines(c, {"JUNCTIONTREE;", "BASEGRAPH;"}));
    const size_t jt = reg(c, "GPT");
    EXPECT_EQ(reg(c, "RES"), st);
    ASSERT_TRUE(wreg(c, "GPT", reg(c, "RES")));
    ASSERT_TRUE(runLines(c, {"GRA ST;", "BASEGRAPH;"}));
    EXPECT_EQ(reg(c, "RES"), grid);
    // The tree goes back into GPT, and the context releases all three.
    ASSERT_TRUE(wreg(c, "GPT", jt));
}

TEST(BaseGraph, AGraphOfAnotherKindThanGraNamesHasNoBase) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;"}));
    for (const char* gra : {"ST", "JT", "DBT"}) {
        wregR(c, "RES", 2.5);
        ASSERT_TRUE(runLines(c, {std::string("GRA ") + gra + ";", "BASEGRAPH;"}));
        EXPECT_EQ(reg(c, "RES"), 0u) << gra;
    }
}

// ---------------------------------------------------------------- BOLTZMANNTREE

TEST(ConvertDBT, OutputUnitsFromTheTableAndTheLayerList) {
    Ctx c;
    // The graph first, so that it has three vertices; then the table of four
    // columns: the fourth is the output unit.
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;", four("dbt"), "LDX DPT;"}));
    const size_t chain = reg(c, "GPT");
    std::vector<size_t>* before = new std::vector<size_t>{9, 9};
    wreg(c, "LPT", (size_t)before);
    ASSERT_TRUE(runLines(c, {"BOLTZMANNTREE;"}));
    const QZ::DeepBoltzmannTree<I>* D = dynamic_cast<const QZ::DeepBoltzmannTree<I>*>(graphOf(c));
    ASSERT_NE(D, nullptr);
    EXPECT_EQ((size_t)D->base(), chain);
    EXPECT_EQ(reg(c, "GRA"), (size_t)vm_t::DBT);
    EXPECT_EQ(reg(c, "SNK"), 1u);
    EXPECT_EQ(edgeList(*D), (EdgeList{{1, 4}, {2, 4}, {4, 6}, {0, 5}, {5, 6}, {3, 6}}));
    EXPECT_EQ(layers(c), (std::vector<size_t>{3, 2, 1, 1}));
    // The list held before is a different one, and was not touched.
    EXPECT_NE(reg(c, "LPT"), (size_t)before);
    EXPECT_EQ(*before, (std::vector<size_t>{9, 9}));
    delete before;
}

TEST(ConvertDBT, WithoutATableTheOutputCountIsSNK) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;", "SNK 3", "BOLTZMANNTREE;"}));
    const QZ::DeepBoltzmannTree<I>* D = dynamic_cast<const QZ::DeepBoltzmannTree<I>*>(graphOf(c));
    ASSERT_NE(D, nullptr);
    EXPECT_EQ(D->outputUnits(), 3u);
    EXPECT_EQ(D->vertices(), 9u);
    EXPECT_EQ(layers(c), (std::vector<size_t>{3, 2, 1, 3}));
    EXPECT_EQ(reg(c, "SNK"), 3u);
}

TEST(ConvertDBT, AnEmptyTableLeavesSNKAsItIs) {
    Ctx c;
    const std::string empty = emptyBinaryTable("conv_empty", 5, 2);
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;", "DFN '" + empty + "'", "LDX DPT;", "SNK 2",
                             "BOLTZMANNTREE;"}));
    EXPECT_EQ(reg(c, "SNK"), 2u);
    EXPECT_EQ(layers(c), (std::vector<size_t>{3, 2, 1, 2}));
}

TEST(ConvertDBT, FewerColumnsThanVerticesIsAnError) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 6", "LDX GPT;", four("few"), "LDX DPT;"}));
    const size_t g = reg(c, "GPT");
    EXPECT_EQ(failureOf(c, {"BOLTZMANNTREE;"}), "the table has fewer columns than the graph has vertices");
    EXPECT_EQ(reg(c, "GPT"), g);
}

// ---------------------------------------------------------------- the container

TEST(ConvertModel, ConversionsPointTheModelAtTheNewGraph) {
    for (const char* conv : {"STGRAPH", "JUNCTIONTREE", "BOLTZMANNTREE"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, {four(std::string("model") + conv), "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
        const size_t old = reg(c, "GPT");
        ASSERT_EQ((size_t)model(c)->G, old);
        ASSERT_EQ(model(c)->H, nullptr);
        ASSERT_TRUE(runLines(c, {"TXX 2", std::string(conv) + ";"}));
        EXPECT_NE(reg(c, "GPT"), old) << conv;
        EXPECT_EQ((size_t)model(c)->G, reg(c, "GPT")) << conv;
        EXPECT_EQ((size_t)model(c)->H, old) << conv;
    }
}

TEST(ConvertModel, OneSliceLeavesTheModelAlone) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {four("model1"), "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;", "TXX 1", "STGRAPH;"}));
    EXPECT_EQ((size_t)model(c)->G, reg(c, "GPT"));
    EXPECT_EQ(model(c)->H, nullptr);
}

// A model whose arrays fit the derived graph (as many vertices and edges,
// blocks of the same sizes in the same order) simply goes on over it: the
// junction tree of a binary chain has the chain's three vertices and two
// blocks of four. Its log partition function is that of the model's weights
// read over the new graph's edges.
TEST(ConvertModel, AModelThatFitsTheDerivedGraphGoesOn) {
    const std::string bin = csvFile("conv_bin3", "a,b,c\n0,0,0\n0,1,0\n1,1,0\n1,0,1\n0,0,1\n");
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + bin + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;", "JUNCTIONTREE;",
                             "ALG JT;", "INFER;"}));
    EXPECT_EQ(reg(c, "GRA"), (size_t)vm_t::JTG);
    EXPECT_DOUBLE_EQ(regR(c, "LNZ"), 3 * std::log(2.0));

    ASSERT_TRUE(runLines(c, {"SEED 4", "SDE 1.0", "INITGAUSS;", "INFER;"}));
    const IOd* io = model(c);
    const QZ::AbstractGraph<I>* G = io->G;
    ASSERT_EQ(G->vertices(), 3u);
    ASSERT_EQ(G->edges(), 2u);
    double Z = 0;
    for (size_t x = 0; x < 8; ++x) {
        double r = 0;
        for (I e = 0, off = 0; e < G->edges(); ++e, off += 4) {
            I s, t;
            G->edge(e, s, t);
            r += io->w[off + 2 * ((x >> s) & 1) + ((x >> t) & 1)];
        }
        Z += std::exp(r);
    }
    EXPECT_NEAR(regR(c, "LNZ"), std::log(Z), 1e-12);
}

// ---------------------------------------------------------------- dispatch and dry pass

TEST(ConvertDispatch, EachIndexTypeGetsItsOwnTree) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"idx_t UINT16;", "val_t FLT32;", "GRA CHAIN;", "GVX 3", "LDX GPT;", "JUNCTIONTREE;"}));
    EXPECT_NE(dynamic_cast<QZ::JunctionTree<unsigned short>*>(graphOf<unsigned short>(c)), nullptr);
    Ctx d;
    ASSERT_TRUE(runLines(d, {"idx_t UINT32;", "val_t FLTMPREC;", "GRA CHAIN;", "GVX 3", "LDX GPT;", "TXX 2", "STGRAPH;"}));
    EXPECT_NE(dynamic_cast<QZ::STGraph<unsigned int>*>(graphOf<unsigned int>(d)), nullptr);
    Ctx e;
    ASSERT_TRUE(runLines(e, {"idx_t UINT8;", "val_t UINT8;", "GRA CHAIN;", "GVX 3", "LDX GPT;", "BOLTZMANNTREE;"}));
    EXPECT_NE(dynamic_cast<QZ::DeepBoltzmannTree<unsigned char>*>(graphOf<unsigned char>(e)), nullptr);
}

TEST(ConvertDispatch, APairThatNamesNoInstantiationDoesNothing) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;"}));
    const size_t g = reg(c, "GPT");
    wregR(c, "RES", 2.5);
    ASSERT_TRUE(runLines(c, {"val_t UINT32;", "TXX 2", "STGRAPH;", "JUNCTIONTREE;", "BOLTZMANNTREE;", "BASEGRAPH;"}));
    EXPECT_EQ(reg(c, "GPT"), g);
    EXPECT_EQ(reg(c, "GRA"), (size_t)vm_t::CHAIN);
    EXPECT_EQ(reg(c, "LPT"), 0u);
    EXPECT_EQ(regR(c, "RES"), 2.5);
    ASSERT_TRUE(runLines(c, {"val_t FLT64;"}));
}

TEST(ConvertDryPass, ConversionsAreSkipped) {
    QZ::vm_t vm;
    vm.setCode(new std::vector<std::string>{"GRA CHAIN;", "GVX 3", "LDX GPT;", "TXX 2", "STGRAPH;", "JUNCTIONTREE;",
                                            "BOLTZMANNTREE;", "BASEGRAPH;"});
    vm.set(vm_t::RES, 2.5);
    ASSERT_TRUE(vm.parse(true));
    EXPECT_EQ(vm.getP(vm_t::GPT), (void*)1);
    EXPECT_EQ(vm.get(vm_t::GRA), (size_t)vm_t::CHAIN);
    EXPECT_EQ(vm.getP(vm_t::LPT), nullptr);
    EXPECT_EQ(vm.getR(vm_t::RES), 2.5);
    vm.set(vm_t::GPT, (void*)nullptr);
}

TEST(ConvertDryPass, AGraphLoadedBeforeStaysInPlace) {
    QZ::vm_t vm;
    vm.setCode(new std::vector<std::string>{"GRA CHAIN;", "GVX 3", "LDX GPT;"});
    ASSERT_TRUE(vm.parse(false));
    void* g = vm.getP(vm_t::GPT);
    vm.setCode(new std::vector<std::string>{"TXX 2", "STGRAPH;", "JUNCTIONTREE;", "BOLTZMANNTREE;"});
    vm.set(vm_t::LNN, (size_t)0);
    ASSERT_TRUE(vm.parse(true));
    EXPECT_EQ(vm.getP(vm_t::GPT), g);
    EXPECT_EQ(vm.get(vm_t::GRA), (size_t)vm_t::CHAIN);
    // The same lines with the work switched on.
    vm.set(vm_t::LNN, (size_t)0);
    ASSERT_TRUE(vm.parse(false));
    EXPECT_EQ(vm.get(vm_t::GRA), (size_t)vm_t::DBT);
}

TEST(ConvertDryPass, RequiresAGraph) {
    for (const char* mn : {"STGRAPH;", "JUNCTIONTREE;", "BOLTZMANNTREE;", "BASEGRAPH;"}) {
        Ctx d;
        EXPECT_EQ(failureOf(d, {mn}), "no graph loaded") << mn;
    }
}

// ---------------------------------------------------------------- release

// Derived graphs, stacked three deep, go back with the graph they were built
// on when GPT is released; a context destroyed with a derived graph in GPT
// does the same.
TEST(ConvertRelease, ReleasingADerivedGraphReleasesTheGraphsUnderIt) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer's allocator stands in for the counting operator new";
#endif
    const std::vector<std::string> derive = {"GRA GRID;", "GVX 9", "LDX GPT;", "TXX 2", "STGRAPH;", "JUNCTIONTREE;",
                                             "SNK 2", "BOLTZMANNTREE;", "BASEGRAPH;"};
    std::vector<std::string> withDel = derive;
    withDel.push_back("DEL GPT;");
    withDel.push_back("DEL LPT;");
    // Whatever a context keeps beyond its end with a plain graph is the
    // measure for the others.
    auto kept = [](const std::vector<std::string>& lines) {
        const long long before = qztest::liveBlocks();
        {
            Ctx c;
            EXPECT_TRUE(runLines(c, lines));
        }
        return qztest::liveBlocks() - before;
    };
    kept(withDel);
    const long long plain = kept({"GRA GRID;", "GVX 9", "LDX GPT;", "DEL GPT;"});
    EXPECT_EQ(kept(withDel), plain);
    EXPECT_EQ(kept(derive), plain);
}

// A program may put the graph under a derived one back into GPT and release
// it: it waits for the derived graph, which still stands on it.
TEST(ConvertRelease, AGraphUnderADerivedOneWaitsForIt) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer's allocator stands in for the counting operator new";
#endif
    auto kept = [](bool derive) {
        const long long before = qztest::liveBlocks();
        {
            Ctx c;
            EXPECT_TRUE(runLines(c, {"GRA GRID;", "GVX 9", "LDX GPT;"}));
            if (derive) {
                const size_t grid = reg(c, "GPT");
                const EdgeList edges = edgeList(*graphOf(c));
                EXPECT_TRUE(runLines(c, {"TXX 2", "STGRAPH;"}));
                const size_t st = reg(c, "GPT");
                wreg(c, "GPT", grid);
                EXPECT_TRUE(runLines(c, {"DEL GPT;"}));
                EXPECT_EQ(edgeList(*reinterpret_cast<const QZ::AbstractGraph<I>*>(grid)), edges);
                wreg(c, "GPT", st);
                EXPECT_TRUE(runLines(c, {"BASEGRAPH;"}));
                EXPECT_EQ(reg(c, "RES"), grid);
            }
            EXPECT_TRUE(runLines(c, {"DEL GPT;"}));
        }
        return qztest::liveBlocks() - before;
    };
    kept(true);
    EXPECT_EQ(kept(true), kept(false));
}

// ---------------------------------------------------------------- INITLATENT

namespace {

// The joint states of a set of columns, numbered by first appearance.
std::vector<unsigned short> firstAppearance(const QZ::CategoricalData* D, const std::set<size_t>& cols,
                                            size_t& states) {
    std::map<std::vector<size_t>, unsigned short> seen;
    std::vector<unsigned short> r;
    for (size_t i = 0; i < D->rows(); ++i) {
        std::vector<size_t> key;
        for (size_t c : cols) key.push_back(D->get(i, c));
        auto it = seen.find(key);
        if (it == seen.end()) it = seen.emplace(key, (unsigned short)seen.size()).first;
        r.push_back(it->second);
    }
    states = seen.size();
    return r;
}

}  // namespace

TEST(InitLatentDBT, EveryHiddenUnitTakesTheJointStatesOfItsVertices) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;", four("lat"), "LDX DPT;", "BOLTZMANNTREE;"}));
    QZ::CategoricalData* D = table(c);
    // Column b in an order that first appearance renumbers: 2, 0, 2, 1, 0, 1.
    const unsigned short b[] = {2, 0, 2, 1, 0, 1};
    ASSERT_EQ(D->rows(), 6u);
    for (size_t i = 0; i < 6; ++i) D->set(b[i], i, 1, true);
    const std::vector<unsigned short> visible0 = column(D, 0), output = column(D, 3);
    ASSERT_TRUE(runLines(c, {"INITLATENT;"}));
    ASSERT_EQ(D->columns(), 7u);
    const QZ::DeepBoltzmannTree<I>* T = dynamic_cast<const QZ::DeepBoltzmannTree<I>*>(graphOf(c));
    ASSERT_NE(T, nullptr);
    // The separator {1} has one child: its states are b's, renumbered.
    EXPECT_EQ(column(D, 6), (std::vector<unsigned short>{0, 1, 0, 2, 1, 2}));
    EXPECT_EQ(D->categories(6), 3u);
    for (size_t u = 4; u < 7; ++u) {
        size_t states = 0;
        EXPECT_EQ(column(D, u), firstAppearance(D, objects(*T, u), states)) << u;
        EXPECT_EQ(D->categories(u), states) << u;
    }
    // The cliques: {1,2} and {0,1}.
    size_t s12 = 0, s01 = 0;
    firstAppearance(D, {1, 2}, s12);
    firstAppearance(D, {0, 1}, s01);
    EXPECT_EQ(D->categories(4), s12);
    EXPECT_EQ(D->categories(5), s01);
    // Visible and output columns are as they were.
    EXPECT_EQ(column(D, 0), visible0);
    EXPECT_EQ(column(D, 3), output);
}

TEST(InitLatentDBT, TheTreeModelCanThenBeCountedAndTrained) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"SEED 3", "GRA CHAIN;", "GVX 3", "LDX GPT;", four("train"), "LDX DPT;", "BOLTZMANNTREE;",
                             "INITLATENT;", "MODEL;"}));
    const IOd* io = model(c);
    ASSERT_EQ(io->G->vertices(), 7u);
    EXPECT_EQ(io->Y[6], 3u);
    // A hidden unit agrees with its vertices in every row: the counts of the
    // edge from visible 1 to the clique {1,2} are those of the pairs that
    // occur, and no other pair is counted.
    const QZ::CategoricalData* D = table(c);
    I s = 0, t = 0;
    io->G->edge(0, s, t);
    ASSERT_EQ(s, 1u);
    ASSERT_EQ(t, 4u);
    std::map<std::pair<size_t, size_t>, double> pairs;
    for (size_t i = 0; i < D->rows(); ++i) pairs[{D->get(i, 1), D->get(i, 4)}] += 1;
    for (size_t x = 0; x < io->Y[1]; ++x)
        for (size_t y = 0; y < io->Y[4]; ++y) {
            auto it = pairs.find({x, y});
            EXPECT_EQ(io->E[io->woff[7] + x * io->Y[4] + y], it == pairs.end() ? 0.0 : it->second) << x << "," << y;
        }
    ASSERT_TRUE(runLines(c, {"ALG JT;", "ALG GD;", "STP 0.5", "MIO 30", "ESTIMATE;"}));
    const double res = regR(c, "RES");
    EXPECT_TRUE(std::isfinite(res));
    // Starting from zero weights the objective is the sum of the logs of the
    // state counts; training lowers it.
    double start = 0;
    for (I v = 0; v < io->G->vertices(); ++v) start += std::log((double)io->Y[v]);
    EXPECT_LT(res, start);
}

TEST(InitLatentDBT, MoreUnitsThanColumnsIsAnError) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;", "SNK 5", "BOLTZMANNTREE;", four("units"), "LDX DPT;"}));
    EXPECT_EQ(failureOf(c, {"INITLATENT;"}), "deep Boltzmann tree has more units than the table has columns");
    EXPECT_EQ(table(c)->columns(), 4u);
}

TEST(InitLatentDBT, ASecondRunAddsColumnsAgainAndFillsTheSameUnits) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;", "GVX 3", "LDX GPT;", four("twice"), "LDX DPT;", "BOLTZMANNTREE;",
                             "INITLATENT;"}));
    QZ::CategoricalData* D = table(c);
    std::vector<std::vector<unsigned short>> hidden;
    for (size_t u = 4; u < 7; ++u) hidden.push_back(column(D, u));
    ASSERT_TRUE(runLines(c, {"INITLATENT;"}));
    ASSERT_EQ(D->columns(), 10u);
    for (size_t u = 4; u < 7; ++u) EXPECT_EQ(column(D, u), hidden[u - 4]) << u;
    for (size_t u = 7; u < 10; ++u)
        EXPECT_EQ(column(D, u), std::vector<unsigned short>(6, QZ::CategoricalData::MIS_VAL)) << u;
}
