// Programs that load, store, export, measure and release the model container,
// and the choice of its instantiation by IDX and VAL.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/QZIO>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace QZ;
using qztest::Ctx;
using qztest::readFile;
using qztest::reg;
using qztest::runLines;
using qztest::tmpPath;
using qztest::wreg;
using qztest::writeFile;

namespace {

// A named model over a path 0-1-...-(n-1) with states 2, 3, 2, 3, ...
// Statistics and weights count up so that every cell is told apart.
template <typename I, typename V> IO<I, V>* pathModel(I n) {
    IO<I, V>* io = new IO<I, V>();
    qztest::EdgeList path;
    for (size_t e = 0; e + 1 < (size_t)n; ++e) path.push_back({e, e + 1});
    io->G = qztest::makeGraph<I>(n, path).release();
    io->Y = new I[n];
    io->Xnames = new std::vector<std::string>();
    io->Ynames = new std::vector<std::vector<std::string>*>();
    for (I v = 0; v < n; ++v) {
        io->Y[v] = (I)(2 + v % 2);
        io->Xnames->push_back("V" + std::to_string(v));
        io->Ynames->push_back(new std::vector<std::string>());
        for (I x = 0; x < io->Y[v]; ++x) io->Ynames->back()->push_back(std::to_string(x));
    }
    io->odim = (I)(2 * n);
    io->woff = new I[2 * n];
    io->woff[0] = 0;
    for (I v = 0; v < n; ++v) io->woff[v + 1] = io->woff[v] + io->Y[v];
    for (I e = 0; e + 1 < n; ++e) io->woff[n + e + 1] = io->woff[n + e] + io->Y[e] * io->Y[e + 1];
    io->sdim = io->woff[2 * n - 1];
    io->dim = io->sdim - io->woff[n];
    io->E = new V[io->sdim];
    for (I i = 0; i < io->sdim; ++i) io->E[i] = (V)(i + 1);
    io->w = new V[io->dim];
    for (I i = 0; i < io->dim; ++i) io->w[i] = (V)(2 * i);
    io->gtype = 1;
    io->T = 1;
    io->decay = 10;
    io->num_instances = 21;
    io->llist = "4,5,6";
    return io;
}

std::string quoted(const std::string& s) { return "'" + s + "'"; }

bool exists(const std::string& fn) {
    FILE* f = std::fopen(fn.c_str(), "rb");
    if (f != nullptr) std::fclose(f);
    return f != nullptr;
}

// What a context never releases of a model built in memory: its graph, unless
// GPT holds it, and its weights. Released at the end of the scope.
template <typename I, typename V> struct Leftovers {
    AbstractGraph<I>* G;
    V* w;
    explicit Leftovers(const IO<I, V>* io) : G(io->G), w(io->w) {}
    ~Leftovers() {
        delete[] w;
        delete G;
    }
};

// A model that no context holds.
template <typename I, typename V> void dispose(IO<I, V>* io) {
    Leftovers<I, V> rest(io);
    delete io;
}

// Writes the path model of n vertices to a file and loads it in ctx by a
// program that sets the types first.
template <typename I, typename V>
void loadPathModel(void* ctx, I n, const std::string& name, std::vector<std::string> types) {
    IO<I, V>* io = pathModel<I, V>(n);
    const std::string fn = tmpPath(name);
    io->store(fn);
    dispose(io);
    types.push_back("MFN " + quoted(fn));
    types.push_back("LDX MPT;");
    runLines(ctx, types);
}

template <typename I, typename V> void checkLoaded(void* ctx, const IO<I, V>& ref) {
    const IO<I, V>* io = reinterpret_cast<const IO<I, V>*>(reg(ctx, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(reg(ctx, "GPT"), (size_t)io->G);
    EXPECT_EQ(reg(ctx, "NXX"), (size_t)ref.num_instances);
    EXPECT_EQ(reg(ctx, "GRA"), (size_t)ref.gtype);
    EXPECT_EQ(reg(ctx, "REP"), (size_t)ref.decay);
    EXPECT_EQ(reg(ctx, "DIM"), (size_t)ref.dim);
    ASSERT_EQ(io->sdim, ref.sdim);
    EXPECT_EQ(0, std::memcmp(io->E, ref.E, sizeof(V) * ref.sdim));
    EXPECT_EQ(0, std::memcmp(io->w, ref.w, sizeof(V) * ref.dim));
    EXPECT_EQ(0, std::memcmp(io->woff, ref.woff, sizeof(I) * ref.odim));
}

template <typename I, typename V>
void roundTrip(const std::string& idx, const std::string& val) {
    IO<I, V>* io = pathModel<I, V>(4);
    Leftovers<I, V> rest(io);
    // The longest names a model file carries.
    io->Xnames->at(1) = std::string(64, 'x');
    io->Ynames->at(2)->at(1) = std::string(63, 'y') + "z";
    const std::string fn = tmpPath("vm_rt_" + idx + "_" + val);
    std::remove(fn.c_str());
    const std::vector<std::string> setup = {"idx_t " + idx + ";", "val_t " + val + ";", "MFN " + quoted(fn)};
    {
        Ctx ctx;
        runLines(ctx, setup);
        wreg(ctx, "MPT", (size_t)io);
        runLines(ctx, {"STORE MPT;"});
        // Still the same container, which the context frees at its end.
        EXPECT_EQ(reg(ctx, "MPT"), (size_t)io);
        Ctx ctx2;
        std::vector<std::string> load = setup;
        load.push_back("LDX MPT;");
        runLines(ctx2, load);
        checkLoaded<I, V>(ctx2, *io);
        const IO<I, V>* loaded = reinterpret_cast<const IO<I, V>*>(reg(ctx2, "MPT"));
        EXPECT_EQ(*loaded->Xnames, *io->Xnames);
        for (size_t v = 0; v < 4; ++v) EXPECT_EQ(*loaded->Ynames->at(v), *io->Ynames->at(v));
        const std::vector<size_t>* L = reinterpret_cast<const std::vector<size_t>*>(reg(ctx2, "LPT"));
        ASSERT_NE(L, nullptr);
        EXPECT_EQ(*L, (std::vector<size_t>{4, 5, 6}));
    }
}

}  // namespace

TEST(VmModel, StoreWithoutModelFailsWithNoDataLoaded) {
    Ctx ctx;
    try {
        runLines(ctx, {"MFN 'x.mod'", "STORE MPT;"});
        FAIL() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "no data loaded");
    }
}

TEST(VmModel, DelOtherfnWithoutDfnAbandonsTheString) {
    Ctx ctx;
    // Not a heap string: deleting it would end the test program.
    std::string local = "kept";
    wreg(ctx, "OTHERFN", (size_t)&local);
    runLines(ctx, {"DEL OTHERFN;"});
    EXPECT_EQ(reg(ctx, "OTHERFN"), 0u);
    EXPECT_EQ(local, "kept");
}

TEST(VmModel, DelOtherfnWithDfnReleasesTheString) {
    Ctx ctx;
    runLines(ctx, {"DFN 'd.csv'", "OTHERFN 'o.txt'"});
    EXPECT_NE(reg(ctx, "OTHERFN"), 0u);
    runLines(ctx, {"DEL OTHERFN;"});
    EXPECT_EQ(reg(ctx, "OTHERFN"), 0u);
}

TEST(VmModel, DelOfAPlainRegisterFails) {
    Ctx ctx;
    try {
        runLines(ctx, {"DEL KXX;"});
        FAIL() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "cannot release memory of unknown type");
    }
}

TEST(VmModel, DimIsZeroForAPairWithoutInstantiation) {
    Ctx ctx;
    IO<unsigned short, unsigned short>* io = pathModel<unsigned short, unsigned short>(3);
    Leftovers<unsigned short, unsigned short> rest(io);
    wreg(ctx, "MPT", (size_t)io);
    runLines(ctx, {"idx_t UINT16;", "val_t UINT32;"});
    EXPECT_EQ(reg(ctx, "DIM"), 0u);
    runLines(ctx, {"val_t UINT16;"});
    EXPECT_EQ(reg(ctx, "DIM"), 12u);
    runLines(ctx, {"DEL MPT;"});
    EXPECT_EQ(reg(ctx, "MPT"), 0u);
}

TEST(VmModel, DelModelWithAPairWithoutInstantiationFreesNothing) {
    IO<unsigned int, double>* io = pathModel<unsigned int, double>(3);
    {
        Ctx ctx;
        wreg(ctx, "MPT", (size_t)io);
        runLines(ctx, {"idx_t UINT32;", "val_t UINT8;", "DEL MPT;"});
        EXPECT_EQ(reg(ctx, "MPT"), 0u);
    }
    // Untouched: still ours to use and release.
    EXPECT_EQ(io->dim, 12u);
    EXPECT_EQ(io->Xnames->at(2), "V2");
    dispose(io);
}

TEST(VmModel, ExternalModelIsNotFreed) {
    IO<unsigned long, double>* io = pathModel<unsigned long, double>(3);
    io->is_external = true;
    {
        Ctx ctx;
        wreg(ctx, "MPT", (size_t)io);
        runLines(ctx, {"DEL MPT;"});
        EXPECT_EQ(reg(ctx, "MPT"), 0u);
    }
    EXPECT_EQ(io->Xnames->at(1), "V1");
    io->is_external = false;
    dispose(io);
}

TEST(VmModel, FltmprecBehavesAsFlt64) {
    IO<unsigned long, double>* io = pathModel<unsigned long, double>(5);
    Leftovers<unsigned long, double> rest(io);
    const std::string a = tmpPath("vm_mprec"), b = tmpPath("vm_flt64");
    std::remove(a.c_str());
    std::remove(b.c_str());
    {
        Ctx ctx;
        wreg(ctx, "MPT", (size_t)io);
        runLines(ctx, {"idx_t UINT64;", "val_t FLTMPREC;"});
        EXPECT_EQ(reg(ctx, "VAL"), 6u);
        EXPECT_EQ(reg(ctx, "DIM"), (size_t)io->dim);
        runLines(ctx, {"MFN " + quoted(a), "STORE MPT;", "val_t FLT64;", "MFN " + quoted(b), "STORE MPT;"});
        EXPECT_EQ(readFile(a), readFile(b));
        EXPECT_EQ(readFile(a)[1], '\5');

        Ctx ctx2;
        runLines(ctx2, {"idx_t UINT64;", "val_t FLTMPREC;", "MFN " + quoted(a), "LDX MPT;"});
        checkLoaded<unsigned long, double>(ctx2, *io);
    }
}

TEST(VmModel, EveryInstantiationStoresAndLoadsThroughPrograms) {
    roundTrip<unsigned char, unsigned char>("UINT8", "UINT8");
    roundTrip<unsigned short, unsigned short>("UINT16", "UINT16");
    roundTrip<unsigned int, unsigned int>("UINT32", "UINT32");
    roundTrip<unsigned long, unsigned long>("UINT64", "UINT64");
    roundTrip<unsigned char, float>("UINT8", "FLT32");
    roundTrip<unsigned short, float>("UINT16", "FLT32");
    roundTrip<unsigned int, float>("UINT32", "FLT32");
    roundTrip<unsigned long, float>("UINT64", "FLT32");
    roundTrip<unsigned char, double>("UINT8", "FLT64");
    roundTrip<unsigned short, double>("UINT16", "FLT64");
    roundTrip<unsigned int, double>("UINT32", "FLT64");
    roundTrip<unsigned long, double>("UINT64", "FLT64");
}

TEST(VmModel, HandWrittenModelFileSetsEveryRegister) {
    // uint32 indices, double values; vertices A(2) B(3) C(2), edges (0,1), (2,1).
    std::string f;
    auto u8 = [&](unsigned char x) { f.push_back((char)x); };
    auto u32 = [&](unsigned int x) { f.append(reinterpret_cast<const char*>(&x), 4); };
    auto u64 = [&](size_t x) { f.append(reinterpret_cast<const char*>(&x), 8); };
    auto name = [&](const char* s) { f.append(s, std::strlen(s) + 1); };
    auto dbl = [&](double x) { f.append(reinterpret_cast<const char*>(&x), 8); };
    u8(2);
    u8(5);
    u32(3);
    u32(2);
    u32(0);
    u32(1);
    u32(2);
    u32(1);
    u32(4);  // gtype: RBM
    u64(5);
    f += "2,3,2";
    u64(0);
    u32(1);   // T
    u32(12);  // decay: ISING
    u32(33);  // num_instances
    u32(7);   // K
    u32(2);
    name("A");
    name("a0");
    name("a1");
    u32(3);
    name("B");
    name("b0");
    name("b1");
    name("b2");
    u32(2);
    name("C");
    name("c0");
    name("c1");
    u32(12);  // dim
    for (int i = 0; i < 19; ++i) dbl(0.25 * i);
    for (int i = 0; i < 12; ++i) dbl(-1.0 * i);
    const std::string fn = tmpPath("vm_hand.mod");
    writeFile(fn, f);

    Ctx ctx;
    runLines(ctx, {"idx_t UINT32;", "val_t FLT64;", "MFN " + quoted(fn), "LDX MPT;"});
    const IO<unsigned int, double>* io = reinterpret_cast<const IO<unsigned int, double>*>(reg(ctx, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(reg(ctx, "NXX"), 33u);
    EXPECT_EQ(reg(ctx, "GPT"), (size_t)io->G);
    EXPECT_EQ(reg(ctx, "GRA"), 4u);
    EXPECT_EQ(reg(ctx, "REP"), 12u);
    const std::vector<size_t>* L = reinterpret_cast<const std::vector<size_t>*>(reg(ctx, "LPT"));
    ASSERT_NE(L, nullptr);
    EXPECT_EQ(*L, (std::vector<size_t>{2, 3, 2}));
    EXPECT_EQ(reg(ctx, "DIM"), 12u);
    EXPECT_EQ(reg(ctx, "GVX"), 3u);
    EXPECT_EQ(reg(ctx, "GEX"), 2u);
    unsigned int s, t;
    io->G->edge(1, s, t);
    EXPECT_EQ(s, 2u);
    EXPECT_EQ(t, 1u);
    EXPECT_EQ(io->K, 7u);
    EXPECT_EQ(io->sdim, 19u);
    EXPECT_EQ(io->woff[4], 13u);
    EXPECT_EQ(io->E[18], 4.5);
    EXPECT_EQ(io->w[11], -11.0);
    EXPECT_EQ(io->Ynames->at(2)->at(1), "c1");
}

TEST(VmModel, LoadWithAPairWithoutInstantiationDoesNothing) {
    IO<unsigned int, unsigned int>* io = pathModel<unsigned int, unsigned int>(3);
    const std::string fn = tmpPath("vm_noinst.mod");
    io->store(fn);
    Ctx ctx;
    runLines(ctx, {"idx_t UINT32;", "val_t UINT8;", "MFN " + quoted(fn), "LDX MPT;"});
    EXPECT_EQ(reg(ctx, "MPT"), 0u);
    EXPECT_EQ(reg(ctx, "GPT"), 0u);
    EXPECT_EQ(reg(ctx, "DIM"), 0u);
    dispose(io);
}

TEST(VmModel, SecondLoadReplacesTheList) {
    IO<unsigned int, float>* io = pathModel<unsigned int, float>(3);
    io->llist = "";
    const std::string fn = tmpPath("vm_nolist.mod");
    io->store(fn);
    Ctx ctx;
    runLines(ctx, {"idx_t UINT32;", "val_t FLT32;", "MFN " + quoted(fn), "LDX MPT;"});
    const std::vector<size_t>* L = reinterpret_cast<const std::vector<size_t>*>(reg(ctx, "LPT"));
    ASSERT_NE(L, nullptr);
    EXPECT_TRUE(L->empty());
    dispose(io);
}

TEST(VmModel, StoreRefusesToOverwriteUnlessAllowed) {
    IO<unsigned long, double>* io = pathModel<unsigned long, double>(2);
    Leftovers<unsigned long, double> rest(io);
    const std::string fn = tmpPath("vm_ovw.mod");
    writeFile(fn, "old");
    {
        Ctx ctx;
        wreg(ctx, "MPT", (size_t)io);
        try {
            runLines(ctx, {"MFN " + quoted(fn), "STORE MPT;"});
            FAIL() << "no exception";
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), "overwrite disabled but modelfile exists");
        }
        EXPECT_EQ(readFile(fn), "old");
        Ctx ctx2;
        wreg(ctx2, "MPT", (size_t)io);
        runLines(ctx2, {"MFN " + quoted(fn), "OVW true", "STORE MPT;"});
        EXPECT_GT(readFile(fn).size(), 100u);
        // The failed run left ctx wedged: it frees nothing, ctx2 releases the container.
    }
}

TEST(VmModel, StoreGraphExportsTheModelsGraph) {
    IO<unsigned int, double>* io = pathModel<unsigned int, double>(3);
    Leftovers<unsigned int, double> rest(io);
    AbstractGraph<unsigned int>* G = rest.G;
    const std::string adj = tmpPath("vm_exp.adj"), tgf = tmpPath("vm_exp.tgf"), fg = tmpPath("vm_exp.fg");
    for (const std::string& p : {adj, tgf, fg}) std::remove(p.c_str());
    {
        Ctx ctx;
        runLines(ctx, {"idx_t UINT32;"});
        wreg(ctx, "MPT", (size_t)io);
        wreg(ctx, "GPT", (size_t)G);
        runLines(ctx, {"GFN " + quoted(adj), "FMT ADJ;", "STORE GPT;", "GFN " + quoted(tgf), "FMT TGF;", "STORE GPT;",
                       "GFN " + quoted(fg), "FMT FG;", "STORE GPT;"});
        EXPECT_EQ(readFile(adj), "0,1,0\n1,0,1\n0,1,0\n");
        EXPECT_EQ(readFile(tgf), "1 V0\n2 V1\n3 V2\n#\n1 2\n2 3\n");
        // Weights 2i: the factor of edge (0, 1) lists exp(w[3x + y]) at 2y + x,
        // that of edge (1, 2) exp(w[6 + 2x + y]) at 3y + x.
        EXPECT_EQ(readFile(fg),
                  "2\n\n"
                  "2\n0 1\n2 3\n6\n0 1\n1 403.429\n2 7.38906\n3 2980.96\n4 54.5982\n5 22026.5\n\n"
                  "2\n1 2\n3 2\n6\n0 162755\n1 8.88611e+06\n2 4.85165e+08\n3 1.2026e+06\n4 6.566e+07\n"
                  "5 3.58491e+09\n\n");
        // The graph is the context's as well; keep it for the end of the test.
        wreg(ctx, "GPT", 0);
    }
}

TEST(VmModel, StoreGraphWithoutModelFails) {
    Graph<unsigned long>* G = qztest::makeGraph<unsigned long>(2, {{0, 1}}).release();
    for (const char* fmt : {"ADJ", "TGF", "FG"}) {
        const std::string fn = tmpPath(std::string("vm_nomodel_") + fmt);
        std::remove(fn.c_str());
        // A failed run wedges its context, which then releases nothing.
        Ctx ctx;
        wreg(ctx, "GPT", (size_t)G);
        try {
            runLines(ctx, {"GFN " + quoted(fn), std::string("FMT ") + fmt + ";", "STORE GPT;"});
            FAIL() << "no exception for " << fmt;
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), "model or graph missing");
        }
        EXPECT_TRUE(readFile(fn).empty());
    }
    delete G;
}

TEST(VmModel, StoreGraphWithAnUnknownFormatWritesNothing) {
    IO<unsigned long, double>* io = pathModel<unsigned long, double>(2);
    Leftovers<unsigned long, double> rest(io);
    AbstractGraph<unsigned long>* G = rest.G;
    const std::string fn = tmpPath("vm_fmt7");
    std::remove(fn.c_str());
    {
        Ctx ctx;
        wreg(ctx, "MPT", (size_t)io);
        wreg(ctx, "GPT", (size_t)G);
        wreg(ctx, "FMT", 7);
        runLines(ctx, {"GFN " + quoted(fn), "STORE GPT;"});
        EXPECT_FALSE(exists(fn));
        wreg(ctx, "GPT", 0);
    }
}

TEST(VmModel, DryPassLeavesSentinelsAndDimOne) {
    const std::string fn = tmpPath("vm_dry.mod");
    writeFile(fn, "anything");
    vm_t vm;
    std::vector<std::string>* code = new std::vector<std::string>{"MFN " + quoted(fn), "LDX MPT;"};
    vm.setCode(code);
    vm.parse(true);
    EXPECT_EQ(vm.getP(vm_t::MPT), (void*)1);
    EXPECT_EQ(vm.getP(vm_t::GPT), (void*)1);
    EXPECT_EQ(vm.getDim(), 1u);
    EXPECT_EQ(vm.get(vm_t::DIM), 1u);
    // The sentinel is never deleted.
    EXPECT_TRUE(vm.freeModel());
    EXPECT_EQ(vm.getP(vm_t::MPT), nullptr);
    vm.set(vm_t::GPT, (void*)nullptr);
}

TEST(VmModel, NewGraphIsAttachedToTheModel) {
    IO<unsigned short, float>* io = pathModel<unsigned short, float>(4);
    Graph<unsigned short>* path = dynamic_cast<Graph<unsigned short>*>(io->G);
    const std::vector<float> E0(io->E, io->E + io->sdim), w0(io->w, io->w + io->dim);
    // A star around vertex 1 with states 2, 3, 2, 3: 2*3 + 3*2 + 3*3. Its
    // first edge is the path's first one turned round, its second is the
    // path's second, its third is new.
    Graph<unsigned short>* star = qztest::makeGraph<unsigned short>(4, {{1, 0}, {1, 2}, {1, 3}}).release();
    vm_t vm;
    vm.set(vm_t::IDX, (size_t)vm_t::idxUINT16);
    vm.set(vm_t::VAL, (size_t)vm_t::valFLT32);
    vm.set(vm_t::GRA, (size_t)vm_t::STAR);
    vm.set(vm_t::MPT, (void*)io);
    vm.set(vm_t::GPT, (void*)star);
    vm.attachGraphToModel();
    EXPECT_EQ(io->G, star);
    EXPECT_EQ(io->gtype, 3u);
    EXPECT_EQ(io->dim, 21u);
    EXPECT_EQ(vm.get(vm_t::DIM), 21u);
    // The arrays follow the new graph: offsets, vertex counts kept, the
    // blocks of the old edges carried over (the turned one transposed), the
    // new edge at zero.
    EXPECT_EQ(io->odim, 8u);
    EXPECT_EQ(io->sdim, 10u + 21u);
    const std::vector<unsigned short> woff(io->woff, io->woff + 8);
    EXPECT_EQ(woff, (std::vector<unsigned short>{0, 2, 5, 7, 10, 16, 22, 31}));
    for (int i = 0; i < 10; ++i) EXPECT_EQ(io->E[i], E0[i]);
    // Old edge (0,1) of 2 x 3 states at E0[10..15], w0[0..5]; new edge (1,0) of 3 x 2.
    for (int x = 0; x < 3; ++x)
        for (int y = 0; y < 2; ++y) {
            EXPECT_EQ(io->E[10 + x * 2 + y], E0[10 + y * 3 + x]);
            EXPECT_EQ(io->w[x * 2 + y], w0[y * 3 + x]);
        }
    // Old edge (1,2) of 3 x 2 states at E0[16..21], w0[6..11]: unchanged.
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(io->E[16 + k], E0[16 + k]);
        EXPECT_EQ(io->w[6 + k], w0[6 + k]);
    }
    for (int k = 0; k < 9; ++k) {
        EXPECT_EQ(io->E[22 + k], 0.0f);
        EXPECT_EQ(io->w[12 + k], 0.0f);
    }
    // A graph over other variables is refused and changes nothing.
    Graph<unsigned short>* three = qztest::makeGraph<unsigned short>(3, {{0, 1}}).release();
    vm.set(vm_t::GPT, (void*)three);
    try {
        vm.attachGraphToModel();
        ADD_FAILURE() << "no error";
    } catch (const std::logic_error& e) {
        EXPECT_EQ(std::string(e.what()), "the graph has 3 vertices, but the model has 4 variables");
    }
    EXPECT_EQ(io->G, star);
    EXPECT_EQ(io->dim, 21u);
    // Nothing to attach to without a model.
    vm.set(vm_t::MPT, (void*)nullptr);
    vm.attachGraphToModel();
    vm.set(vm_t::GPT, (void*)nullptr);
    delete three;
    delete path;
    Leftovers<unsigned short, float> rest(io);
    delete io;
}

TEST(VmModel, LoadingAGraphAfterAModelHandsItToTheModel) {
    Ctx ctx;
    loadPathModel<unsigned int, double>(ctx, 3, "vm_attach.mod", {"idx_t UINT32;", "val_t FLT64;"});
    EXPECT_EQ(reg(ctx, "DIM"), 12u);
    // The vertex count comes from the model's graph; a star around 0 over states 2, 3, 2.
    runLines(ctx, {"GRA STAR;", "LDX GPT;"});
    const IO<unsigned int, double>* loaded = reinterpret_cast<const IO<unsigned int, double>*>(reg(ctx, "MPT"));
    EXPECT_EQ(reg(ctx, "GPT"), (size_t)loaded->G);
    EXPECT_EQ(loaded->gtype, 3u);
    EXPECT_EQ(reg(ctx, "GEX"), 2u);
    EXPECT_EQ(reg(ctx, "DIM"), 10u);
}

TEST(VmModel, AGraphKindWithoutGraphLeavesTheModelWithoutEdges) {
    Ctx ctx;
    loadPathModel<unsigned short, float>(ctx, 4, "vm_other.mod", {"idx_t UINT16;", "val_t FLT32;"});
    EXPECT_EQ(reg(ctx, "DIM"), 18u);
    runLines(ctx, {"GRA OTHER;", "LDX GPT;"});
    const IO<unsigned short, float>* loaded = reinterpret_cast<const IO<unsigned short, float>*>(reg(ctx, "MPT"));
    EXPECT_EQ(reg(ctx, "GPT"), 0u);
    EXPECT_EQ(loaded->G, nullptr);
    EXPECT_EQ(loaded->gtype, 8u);
    EXPECT_EQ(reg(ctx, "DIM"), 0u);
}

TEST(VmModel, SpatioTemporalModelLoadsWithItsSliceGraph) {
    // Base path of 3 vertices over 2 slices: the stored graph is the base only.
    IO<unsigned int, double>* base = pathModel<unsigned int, double>(3);
    STGraph<unsigned int>* st = new STGraph<unsigned int>(base->G, 2);
    IO<unsigned int, double> io;
    io.G = st;
    io.H = base->G;
    io.T = 2;
    io.Y = new unsigned int[6]{2, 2, 2, 2, 2, 2};
    io.Xnames = new std::vector<std::string>{"a", "b", "c", "d", "e", "f"};
    io.Ynames = new std::vector<std::vector<std::string>*>();
    for (int v = 0; v < 6; ++v) io.Ynames->push_back(new std::vector<std::string>{"n", "y"});
    io.dim = (unsigned int)(4 * st->edges());
    io.sdim = 12 + io.dim;
    io.E = new double[io.sdim]();
    io.E[io.sdim - 1] = 3.5;
    io.w = new double[io.dim]();
    io.w[0] = -2.0;
    const std::string fn = tmpPath("vm_st.mod");
    io.store(fn);
    delete[] io.w;
    delete st;
    dispose(base);

    Ctx ctx;
    runLines(ctx, {"idx_t UINT32;", "val_t FLT64;", "MFN " + quoted(fn), "LDX MPT;"});
    const IO<unsigned int, double>* loaded = reinterpret_cast<const IO<unsigned int, double>*>(reg(ctx, "MPT"));
    ASSERT_NE(loaded, nullptr);
    EXPECT_NE(dynamic_cast<const STGraph<unsigned int>*>(loaded->G), nullptr);
    EXPECT_EQ(reg(ctx, "GPT"), (size_t)loaded->G);
    EXPECT_EQ(loaded->H->vertices(), 3u);
    EXPECT_EQ(reg(ctx, "GVX"), 6u);
    // Temporal 3, spatial 2 per slice, diagonal 2 per base edge and step: 3 + 4 + 4.
    EXPECT_EQ(reg(ctx, "GEX"), 11u);
    EXPECT_EQ(reg(ctx, "DIM"), 44u);
    EXPECT_EQ(loaded->sdim, 56u);
    EXPECT_EQ(loaded->woff[6 + 11], 56u);
    EXPECT_EQ(loaded->E[55], 3.5);
    EXPECT_EQ(loaded->w[0], -2.0);
    EXPECT_EQ(loaded->Xnames->at(5), "f");
    // Stored again by the program: the base graph only, and the same bytes.
    const std::string again = tmpPath("vm_st_again.mod");
    std::remove(again.c_str());
    runLines(ctx, {"MFN " + quoted(again), "STORE MPT;"});
    EXPECT_EQ(readFile(again), readFile(fn));
}

TEST(VmModel, StoreWithAPairWithoutInstantiationWritesNothing) {
    IO<unsigned int, double>* io = pathModel<unsigned int, double>(3);
    Leftovers<unsigned int, double> rest(io);
    const std::string mfn = tmpPath("vm_noinst_store.mod"), gfn = tmpPath("vm_noinst_store.tgf");
    std::remove(mfn.c_str());
    std::remove(gfn.c_str());
    {
        Ctx ctx;
        wreg(ctx, "MPT", (size_t)io);
        wreg(ctx, "GPT", (size_t)rest.G);
        // An integer value type needs the index type of its width.
        EXPECT_TRUE(runLines(ctx, {"idx_t UINT32;", "val_t UINT16;", "MFN " + quoted(mfn), "STORE MPT;",
                                   "GFN " + quoted(gfn), "FMT TGF;", "STORE GPT;"}));
        for (const std::string& fn : {mfn, gfn}) {
            EXPECT_FALSE(exists(fn)) << fn;
        }
        // Nor an index type beyond the four.
        wreg(ctx, "IDX", 4);
        EXPECT_TRUE(runLines(ctx, {"val_t FLT64;", "STORE MPT;"}));
        EXPECT_FALSE(exists(mfn));
        EXPECT_EQ(reg(ctx, "DIM"), 0u);
        wreg(ctx, "GPT", 0);
        wreg(ctx, "IDX", vm_t::idxUINT32);
    }
}

TEST(VmModel, IndexAndValueTypesAreReadAsBytes) {
    IO<unsigned int, float>* io = pathModel<unsigned int, float>(3);
    Leftovers<unsigned int, float> rest(io);
    Ctx ctx;
    wreg(ctx, "MPT", (size_t)io);
    // Only the low byte counts: 0x302 is UINT32, 0x104 is FLT32.
    wreg(ctx, "IDX", 0x302);
    wreg(ctx, "VAL", 0x104);
    EXPECT_EQ(reg(ctx, "DIM"), 12u);
    wreg(ctx, "VAL", 0x107);
    EXPECT_EQ(reg(ctx, "DIM"), 0u);
    wreg(ctx, "VAL", vm_t::valFLT32);
    wreg(ctx, "IDX", vm_t::idxUINT32);
}

TEST(VmModel, ExportsReadTheModelsGraphNotTheGraphRegister) {
    IO<unsigned short, double>* io = pathModel<unsigned short, double>(3);
    Leftovers<unsigned short, double> rest(io);
    // Another graph in GPT: a triangle. The exports still write the path.
    Graph<unsigned short>* other = qztest::makeGraph<unsigned short>(3, {{0, 1}, {1, 2}, {2, 0}}).release();
    const std::string fn = tmpPath("vm_exp_container.tgf");
    std::remove(fn.c_str());
    {
        Ctx ctx;
        wreg(ctx, "MPT", (size_t)io);
        wreg(ctx, "GPT", (size_t)other);
        runLines(ctx, {"idx_t UINT16;", "val_t FLT64;", "GFN " + quoted(fn), "FMT TGF;", "STORE GPT;"});
        EXPECT_EQ(readFile(fn), "1 V0\n2 V1\n3 V2\n#\n1 2\n2 3\n");
        runLines(ctx, {"FMT ADJ;", "OVW true", "STORE GPT;"});
        EXPECT_EQ(readFile(fn), "0,1,0\n1,0,1\n0,1,0\n");
    }
}

TEST(VmModel, FailedLoadLeavesTheRegistersAsTheyWere) {
    // A valid model first.
    IO<unsigned long, double>* first = pathModel<unsigned long, double>(3);
    const std::string good = tmpPath("vm_good.mod");
    first->store(good);
    dispose(first);
    // Then one whose dim is too big for the address space.
    std::string bad = readFile(good);
    // dim stands before E (7 + 12 values) and w (12 values).
    const size_t dimAt = bad.size() - (19 + 12) * sizeof(double) - sizeof(unsigned long);
    const unsigned long huge = 1ul << 62;
    std::memcpy(&bad[dimAt], &huge, sizeof(huge));
    const std::string badFn = tmpPath("vm_bad.mod");
    writeFile(badFn, bad);

    Ctx ctx;
    runLines(ctx, {"idx_t UINT64;", "val_t FLT64;", "MFN " + quoted(good), "LDX MPT;"});
    const size_t mpt = reg(ctx, "MPT"), gpt = reg(ctx, "GPT"), lpt = reg(ctx, "LPT");
    ASSERT_NE(mpt, 0u);
    wreg(ctx, "GRA", 2);
    wreg(ctx, "REP", 0);
    wreg(ctx, "NXX", 5);
    EXPECT_THROW(runLines(ctx, {"MFN " + quoted(badFn), "LDX MPT;"}), std::logic_error);
    EXPECT_EQ(reg(ctx, "MPT"), mpt);
    EXPECT_EQ(reg(ctx, "GPT"), gpt);
    EXPECT_EQ(reg(ctx, "LPT"), lpt);
    EXPECT_EQ(reg(ctx, "GRA"), 2u);
    EXPECT_EQ(reg(ctx, "REP"), 0u);
    EXPECT_EQ(reg(ctx, "NXX"), 5u);
    EXPECT_EQ(reg(ctx, "DIM"), 12u);
}

TEST(VmModel, StoreChecksTheirFileNames) {
    IO<unsigned int, double>* io = pathModel<unsigned int, double>(2);
    Leftovers<unsigned int, double> rest(io);
    const std::string gfn = tmpPath("vm_exists.tgf");
    writeFile(gfn, "old");
    {
        // Failed runs wedge their contexts, which then release nothing.
        Ctx a;
        wreg(a, "MPT", (size_t)io);
        try {
            runLines(a, {"STORE MPT;"});
            FAIL() << "no exception";
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), "no model filename provided");
        }
        Ctx b;
        wreg(b, "MPT", (size_t)io);
        wreg(b, "GPT", (size_t)rest.G);
        try {
            runLines(b, {"GFN " + quoted(gfn), "FMT TGF;", "STORE GPT;"});
            FAIL() << "no exception";
        } catch (const std::logic_error& e) {
            EXPECT_STREQ(e.what(), "overwrite disabled but graphfile exists");
        }
        EXPECT_EQ(readFile(gfn), "old");
    }
    // The same program may overwrite with OVW.
    Ctx c;
    wreg(c, "MPT", (size_t)io);
    wreg(c, "GPT", (size_t)rest.G);
    runLines(c, {"idx_t UINT32;", "val_t FLT64;", "GFN " + quoted(gfn), "FMT TGF;", "OVW true", "STORE GPT;"});
    EXPECT_EQ(readFile(gfn), "1 V0\n2 V1\n#\n1 2\n");
    wreg(c, "GPT", 0);
}

TEST(VmModel, DryPassChecksStoresButWritesNothing) {
    IO<unsigned int, double>* io = pathModel<unsigned int, double>(2);
    Leftovers<unsigned int, double> rest(io);
    const std::string mfn = tmpPath("vm_dry_store.mod"), gfn = tmpPath("vm_dry_store.adj");
    std::remove(mfn.c_str());
    std::remove(gfn.c_str());
    vm_t vm;
    vm.set(vm_t::IDX, (size_t)vm_t::idxUINT32);
    vm.set(vm_t::VAL, (size_t)vm_t::valFLT64);
    vm.set(vm_t::MPT, (void*)io);
    vm.set(vm_t::GPT, (void*)rest.G);
    vm.setCode(new std::vector<std::string>{"MFN " + quoted(mfn), "STORE MPT;", "GFN " + quoted(gfn), "FMT FG;",
                                            "STORE GPT;"});
    EXPECT_TRUE(vm.parse(true));
    for (const std::string& fn : {mfn, gfn}) {
        EXPECT_FALSE(exists(fn)) << fn;
    }
    // The checks still run: a missing file name fails in the dry pass too.
    vm.setCode(new std::vector<std::string>{"DEL MFN;", "STORE MPT;"});
    EXPECT_THROW(vm.parse(true), std::logic_error);
    vm.set(vm_t::GPT, (void*)nullptr);
}
