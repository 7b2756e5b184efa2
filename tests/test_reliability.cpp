// Hostile input and hostile use through the C interface: each case once
// crashed the library (or lost data without a word) and must now end in a
// result or a clear error. Several of them only show under the sanitizer
// build (scripts/sanitize.sh), where a read past an array is a failure.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned long, double> IOd;

IOd* model(void* c) { return reinterpret_cast<IOd*>(reg(c, "MPT")); }
QZ::CategoricalData* table(void* c) { return reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT")); }

std::string quoted(const std::string& s) { return "'" + s + "'"; }

// Three columns of 2, 3 and 2 states behind the header and the discarded line.
std::string threeColumns(size_t rows) {
    const char* a[] = {"x", "y"};
    const char* b[] = {"p", "q", "r"};
    std::string t = "a,b,c\nd,d,d\n";
    for (size_t i = 0; i < rows; ++i) t += std::string(a[i % 2]) + "," + b[(i * 7) % 3] + "," + a[(i / 3) % 2] + "\n";
    return t;
}

// A chain model over the three columns, with weights from INITGAUSS.
void chainModel(void* c, const std::string& tag) {
    wreg(c, "SEED", 5);
    ASSERT_TRUE(runLines(c, {"DFN " + quoted(csvFile("rel_" + tag, threeColumns(30))), "LDX DPT;", "GRA CHAIN",
                             "LDX GPT;", "MODEL;", "INITGAUSS;"}));
}

std::vector<double> marginals(void* c) {
    const IOd* io = model(c);
    size_t ysum = 0;
    for (unsigned long v = 0; v < io->G->vertices(); ++v) ysum += io->Y[v];
    const double* pp = reinterpret_cast<const double*>(reg(c, "PPT"));
    return std::vector<double>(pp, pp + ysum + io->dim);
}

}  // namespace

// ------------------------------------------------------------ SAMPLE on a vertex without edges

TEST(Reliability, SampleOnAVertexWithoutEdges) {
    // One column gives a chain of one vertex and no edge, which has no block
    // for the noise. Missing cells of a floating model come back as state 0
    // under both samplers, cells with a value keep it.
    std::string text = "a\nd\nx\ny\nz\n";
    for (int i = 0; i < 60; ++i) text += "?\n";
    for (double pam : {0.1, 0.0}) {
        Ctx c;
        wreg(c, "SEED", 3);
        ASSERT_TRUE(runLines(c, {"DFN " + quoted(csvFile("rel_isolated", text)), "LDX DPT;", "GRA CHAIN", "LDX GPT;",
                                 "MODEL;", "DEL DPT;", "LDX DPT;"}));
        ASSERT_EQ(reg(c, "GEX"), 0u);
        wregR(c, "PAM", pam);
        ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
        const QZ::CategoricalData* D = table(c);
        ASSERT_EQ(D->rows(), 63u);
        EXPECT_EQ(D->get(0, 0), 0u);
        EXPECT_EQ(D->get(1, 0), 1u);
        EXPECT_EQ(D->get(2, 0), 2u);
        for (size_t i = 3; i < D->rows(); ++i) EXPECT_EQ(D->get(i, 0), 0u) << "PAM " << pam;
    }
}

TEST(Reliability, SampleOnAGraphFileWithAnIsolatedVertex) {
    // Vertex 2 has no edge in the adjacency file.
    const std::string adj = tmpPath("rel_isolated.adj");
    writeFile(adj, "0,1,0\n1,0,0\n0,0,0\n");
    Ctx c;
    wreg(c, "SEED", 4);
    ASSERT_TRUE(runLines(c, {"DFN " + quoted(csvFile("rel_isolated3", threeColumns(40))), "LDX DPT;",
                             "GFN " + quoted(adj), "GRA FILE", "LDX GPT;", "MODEL;", "INITGAUSS;", "SAMPLE;"}));
    EXPECT_EQ(reg(c, "GEX"), 1u);
    const QZ::CategoricalData* D = table(c);
    // Every row was observed in full and comes back as it was.
    Ctx ref;
    ASSERT_TRUE(runLines(ref, {"DFN " + quoted(csvFile("rel_isolated3", threeColumns(40))), "LDX DPT;"}));
    for (size_t i = 0; i < D->rows(); ++i)
        for (size_t v = 0; v < 3; ++v) EXPECT_EQ(D->get(i, v), table(ref)->get(i, v)) << i << "," << v;
}

// ------------------------------------------------------------ DEL GPT under a loaded model

TEST(Reliability, ReleasedGraphStaysWithItsModel) {
    Ctx c;
    chainModel(c, "delgpt");
    ASSERT_TRUE(runLines(c, {"INFER;", "SCORE;"}));
    const double lnz = regR(c, "LNZ"), score = regR(c, "RES");
    const std::vector<double> w(model(c)->w, model(c)->w + model(c)->dim);
    const std::string mfn = tmpPath("rel_delgpt.mod");
    std::remove(mfn.c_str());
    // The model reads its graph in every one of these; DEL GPT only takes it
    // out of the register.
    ASSERT_TRUE(runLines(c, {"DEL GPT;", "SCORE;"}));
    EXPECT_EQ(reg(c, "GPT"), 0u);
    EXPECT_DOUBLE_EQ(regR(c, "RES"), score);
    EXPECT_DOUBLE_EQ(regR(c, "LNZ"), lnz);
    ASSERT_TRUE(runLines(c, {"PREDICT;", "SAMPLE;", "MFN " + quoted(mfn), "STORE MPT;", "OPT 4", "STP 0.1", "MIO 3",
                             "ESTIMATE;"}));
    // INFER asks for the graph register itself.
    Ctx d;
    chainModel(d, "delgpt2");
    EXPECT_EQ(failureOf(d, {"DEL GPT;", "INFER;"}), "no graph loaded");
    // The stored model is the one before ESTIMATE.
    Ctx e;
    ASSERT_TRUE(runLines(e, {"MFN " + quoted(mfn), "LDX MPT;", "INFER;"}));
    EXPECT_DOUBLE_EQ(regR(e, "LNZ"), lnz);
    EXPECT_EQ(std::vector<double>(model(e)->w, model(e)->w + model(e)->dim), w);
}

TEST(Reliability, GraphLoadedAgainAfterDelKeepsTheModel) {
    Ctx c;
    chainModel(c, "reload");
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    const double lnz = regR(c, "LNZ");
    const std::vector<double> pp = marginals(c);
    ASSERT_TRUE(runLines(c, {"DEL GPT;", "LDX GPT;", "INFER;"}));
    EXPECT_DOUBLE_EQ(regR(c, "LNZ"), lnz);
    EXPECT_EQ(marginals(c), pp);
    EXPECT_EQ((size_t)model(c)->G, reg(c, "GPT"));
}

// ------------------------------------------------------------ LDX GPT of another graph under a loaded model

TEST(Reliability, OtherGraphOverTheSameVariablesReshapesTheModel) {
    Ctx c;
    chainModel(c, "reshape");
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    const double lnz = regR(c, "LNZ");
    const std::vector<double> chain = marginals(c);
    // The complete graph keeps the chain's two edges with their weights and
    // adds (0,2) at zero: the same distribution.
    ASSERT_TRUE(runLines(c, {"GRA FULL", "LDX GPT;"}));
    const IOd* io = model(c);
    ASSERT_EQ(reg(c, "GEX"), 3u);
    // Edges of the complete graph on 3 vertices: (1,2), (0,2), (0,1).
    EXPECT_EQ(reg(c, "DIM"), 3u * 2 + 2 * 2 + 2 * 3);
    EXPECT_EQ(io->sdim, 7u + io->dim);
    EXPECT_EQ(io->odim, 3u + 3 + 1);
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    EXPECT_NEAR(regR(c, "LNZ"), lnz, 1e-9);
    const std::vector<double> full = marginals(c);
    // Vertex marginals agree.
    for (size_t k = 0; k < 7; ++k) EXPECT_NEAR(full[k], chain[k], 1e-9) << k;
    // Statistics recounted for the new graph; ESTIMATE and a stored model go by it.
    const std::string mfn = tmpPath("rel_reshape.mod");
    std::remove(mfn.c_str());
    ASSERT_TRUE(runLines(c, {"STATS;", "OPT 4", "STP 0.1", "MIO 5", "ESTIMATE;", "MFN " + quoted(mfn), "STORE MPT;"}));
    Ctx d;
    ASSERT_TRUE(runLines(d, {"MFN " + quoted(mfn), "LDX MPT;", "INFER;"}));
    EXPECT_EQ(reg(d, "GEX"), 3u);
    EXPECT_EQ(reg(d, "DIM"), reg(c, "DIM"));
}

TEST(Reliability, GraphOverOtherVariablesIsRefused) {
    Ctx c;
    chainModel(c, "refuse");
    // Without a table and a graph, LDX GPT sizes the graph by GVX.
    EXPECT_EQ(failureOf(c, {"DEL DPT;", "DEL GPT;", "GVX 5", "LDX GPT;"}),
              "the graph has 5 vertices, but the model has 3 variables");
    // The model keeps its graph.
    EXPECT_EQ(model(c)->G->vertices(), 3u);
    EXPECT_EQ(model(c)->dim, 12u);
}

TEST(Reliability, KindWithoutGraphLeavesAModelThatSaysSo) {
    Ctx c;
    chainModel(c, "nograph");
    EXPECT_EQ(failureOf(c, {"GRA OTHER", "LDX GPT;", "SCORE;"}), "the model has no graph: load one with LDX GPT");
}

// ------------------------------------------------------------ conversions of the graph under a loaded model

// A conversion points the model at the derived graph, whose vertices are
// cliques, slices or units, while the model's states and weights stay those
// of its variables: every instruction that reads the model refuses it, and a
// graph of its variables brings it back with its weights.
TEST(Reliability, ConvertedGraphUnderAModelIsRefusedUntilItsGraphIsBack) {
    const std::string refused =
        "the model does not fit the graph a conversion derived from its own: load a graph of its variables with LDX GPT";
    for (const char* conv : {"JUNCTIONTREE;", "STGRAPH;", "BOLTZMANNTREE;"}) {
        Ctx c;
        chainModel(c, "convert");
        ASSERT_TRUE(runLines(c, {"INFER;"}));
        const double lnz = regR(c, "LNZ");
        const std::vector<double> pp = marginals(c);
        const std::vector<double> w(model(c)->w, model(c)->w + model(c)->dim);
        ASSERT_TRUE(runLines(c, {"TXX 2", conv}));
        EXPECT_EQ((size_t)model(c)->G, reg(c, "GPT")) << conv;
        // A failed run wedges its context: each use gets its own.
        for (const char* use : {"INFER;", "PREDICT;", "SCORE;", "SAMPLE;", "STATS;", "ESTIMATE;", "INITGAUSS;",
                                "INITZERO;", "CLOSEDFORM;", "STORE MPT;", "FMT FG STORE GPT;", "FMT ADJ STORE GPT;",
                                "FMT TGF STORE GPT;"}) {
            Ctx d;
            chainModel(d, "convert_use");
            EXPECT_EQ(failureOf(d, {"TXX 2", conv, "MFN " + quoted(tmpPath("rel_convert.mod")),
                                   "GFN " + quoted(tmpPath("rel_convert.exp")), "OVW true", use}),
                      refused)
                << conv << " " << use;
        }
        ASSERT_TRUE(runLines(c, {"TXX 1", "GRA CHAIN", "LDX GPT;", "INFER;"})) << conv;
        EXPECT_DOUBLE_EQ(regR(c, "LNZ"), lnz) << conv;
        EXPECT_EQ(marginals(c), pp) << conv;
        EXPECT_EQ(std::vector<double>(model(c)->w, model(c)->w + model(c)->dim), w) << conv;
        EXPECT_EQ(model(c)->H, nullptr) << conv;
    }
}

// A table loaded against such a model is coded by the model's variables; the
// layer list of the network derived from its graph has no hidden unit among
// them.
TEST(Reliability, TableLoadedAgainstAConvertedModelStaysWithinItsVariables) {
    Ctx c;
    chainModel(c, "convert_load");
    EXPECT_EQ(failureOf(c, {"BOLTZMANNTREE;", "LDX DPT;"}),
              "the layer list puts the first hidden unit at 3, but the model has 3 variables");
    for (const char* pair : {"idx_t UINT32 val_t UINT32", "idx_t UINT64 val_t FLT64"}) {
        Ctx d;
        ASSERT_TRUE(runLines(d, {pair, "DFN " + quoted(csvFile("rel_convert_load", threeColumns(30))), "LDX DPT;",
                                 "GRA CHAIN", "LDX GPT;", "MODEL;", "JUNCTIONTREE;", "LDX DPT;"}))
            << pair;
        EXPECT_EQ(table(d)->columns(), 3u) << pair;
    }
}

// The refusal belongs to the model the conversion left behind: a model made
// after it is released, perhaps at the same address, is used as any other.
TEST(Reliability, ModelMadeAfterAConvertedOneIsNotRefused) {
    Ctx c;
    chainModel(c, "convert_new");
    ASSERT_TRUE(runLines(c, {"JUNCTIONTREE;", "DEL MPT;", "TXX 1", "GRA CHAIN", "LDX GPT;", "MODEL;", "INFER;"}));
    ASSERT_TRUE(runLines(c, {"JUNCTIONTREE;", "DEL MPT;", "MFN " + quoted(tmpPath("rel_convert_new.mod")),
                             "GRA CHAIN", "LDX GPT;", "MODEL;", "OVW true", "STORE MPT;", "DEL MPT;", "LDX MPT;",
                             "INFER;"}));
}

// Two conversions in a row keep the layout the model had before the first.
TEST(Reliability, SecondConversionKeepsTheModelsLayout) {
    Ctx c;
    chainModel(c, "convert_twice");
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    const double lnz = regR(c, "LNZ");
    ASSERT_TRUE(runLines(c, {"JUNCTIONTREE;", "TXX 2", "STGRAPH;", "TXX 1", "GRA CHAIN", "LDX GPT;", "INFER;"}));
    EXPECT_DOUBLE_EQ(regR(c, "LNZ"), lnz);
}

// ------------------------------------------------------------ register reads while the graph changes

TEST(Reliability, ReadingGraphRegistersWhileTheProgramReplacesTheGraph) {
    Ctx c;
    const std::string mfn = tmpPath("rel_race.mod");
    {
        Ctx m;
        chainModel(m, "race");
        std::remove(mfn.c_str());
        ASSERT_TRUE(runLines(m, {"MFN " + quoted(mfn), "STORE MPT;"}));
    }
    wreg(c, "TXX", 300);
    // Stored before the run, so that every poll has one of the known answers.
    wreg(c, "GVX", 30);
    ASSERT_TRUE(setCode(c, {"GRA FULL", "GVX 30", "MFN " + quoted(mfn), "KXX 0", "BRR 4",
                            "GRA FULL LDX GPT;", "DEL GPT;", "LDX MPT;", "DEL GPT;", "DEL MPT;", "INC KXX;",
                            "BLT KXX TXX BRR;"}));
    std::atomic<bool> done{false};
    std::atomic<size_t> reads{0}, odd{0};
    std::thread poller([&] {
        while (!done) {
            const size_t v = reg(c, "GVX"), e = reg(c, "GEX"), d = reg(c, "DIM");
            // The stored sizes, the complete graph's, or the chain model's.
            if ((v != 30 && v != 3) || (e != 0 && e != 435 && e != 2) || (d != 0 && d != 12)) ++odd;
            ++reads;
        }
    });
    const bool ok = run_ctx(c);
    done = true;
    poller.join();
    EXPECT_TRUE(ok);
    EXPECT_EQ(reg(c, "KXX"), 300u);
    EXPECT_GT(reads.load(), 0u);
    EXPECT_EQ(odd.load(), 0u);
}

namespace {

void* g_readCtx = nullptr;
std::atomic<size_t> g_readOdd{0}, g_readCalls{0};

// A progress callback that reads registers; SAMPLE calls it from its threads.
void readingProgress(size_t, size_t, const char*) {
    const size_t v = reg(g_readCtx, "GVX"), e = reg(g_readCtx, "GEX"), d = reg(g_readCtx, "DIM");
    reg(g_readCtx, "NXX");
    reg(g_readCtx, "LNN");
    if (v != 3 || e != 2 || d != 12) ++g_readOdd;
    ++g_readCalls;
}

}  // namespace

TEST(Reliability, ReadingRegistersFromProgressCallbacksOnWorkerThreads) {
    Ctx c;
    chainModel(c, "cbp");
    g_readCtx = c;
    wreg(c, "CBP", (size_t)&readingProgress);
    ASSERT_TRUE(runLines(c, {"OMP 4", "SAMPLE;", "SCORE;", "PREDICT;"}));
    EXPECT_GT(g_readCalls.load(), 60u);
    EXPECT_EQ(g_readOdd.load(), 0u);
}

// ------------------------------------------------------------ graph sizes near the limits

TEST(Reliability, GraphsTooLargeForMemoryEndInBadAlloc) {
    const std::vector<std::vector<std::string>> programs = {
        {"GRA FULL", "GVX 100000", "LDX GPT;"},
        {"GRA CHAIN", "GVX 18446744073709551615", "LDX GPT;"},
        {"GRA GRID", "GVX 18446744073709551615", "LDX GPT;"},
        {"GRA STAR", "GVX 18446744073709551615", "LDX GPT;"},
        {"idx_t UINT32", "GRA CHAIN", "GVX 4294967295", "LDX GPT;"},
    };
    for (const auto& p : programs) {
        Ctx c;
        EXPECT_THROW(runLines(c, p), std::bad_alloc) << p[1];
        EXPECT_EQ(reg(c, "GPT"), 0u);
    }
}

TEST(Reliability, HostEdgeListWithAnEndBeyondTheVerticesIsRefused) {
    std::vector<unsigned long> el = {0, 1, 1, 7};
    Ctx c;
    wreg(c, "EAP", (size_t)el.data());
    EXPECT_EQ(failureOf(c, {"GVX 3", "GEX 2", "LDX GPT;"}), "edge 1 joins vertices 1 and 7, but the graph has 3 vertices");
}

// ------------------------------------------------------------ hostile model files

namespace {

// A small model file written under UINT64 and FLT64; its bytes.
std::string storedModel(const std::string& tag) {
    Ctx c;
    chainModel(c, "file_" + tag);
    const std::string mfn = tmpPath("rel_" + tag + ".mod");
    std::remove(mfn.c_str());
    runLines(c, {"MFN " + quoted(mfn), "STORE MPT;"});
    return readFile(mfn);
}

// Loads the bytes as a model under the types given and runs queries on it;
// the message of the failure, or "" when all ran.
std::string loadAndQuery(const std::string& tag, const std::string& bytes, const std::string& types) {
    const std::string mfn = tmpPath("rel_" + tag + ".mod");
    writeFile(mfn, bytes);
    Ctx c;
    return failureOf(c, {types, "MFN " + quoted(mfn), "LDX MPT;", "INFER;",
                         "DFN " + quoted(csvFile("rel_q_" + tag, threeColumns(5))), "LDX DPT;", "SCORE;", "SAMPLE;",
                         "PREDICT;"});
}

bool isDamaged(const std::string& tag, const std::string& m) {
    return m.rfind("model file " + tmpPath("rel_" + tag + ".mod") + " does not match idx_t and val_t or is damaged (", 0) == 0;
}

std::string damaged(const std::string& tag, const std::string& what) {
    return "model file " + tmpPath("rel_" + tag + ".mod") + " does not match idx_t and val_t or is damaged (" + what +
           ")";
}

template <typename T> void put(std::string& b, size_t at, T v) { std::memcpy(&b[at], &v, sizeof(T)); }

}  // namespace

TEST(Reliability, ModelFileOfOtherTypesIsReported) {
    const std::string b = storedModel("types");
    EXPECT_EQ(loadAndQuery("types", b, "idx_t UINT64 val_t FLT64"), "");
    for (const char* types : {"idx_t UINT32 val_t FLT32", "idx_t UINT8 val_t FLT64", "idx_t UINT16 val_t UINT16",
                              "idx_t UINT64 val_t FLT32", "idx_t UINT32 val_t FLT64"}) {
        const std::string m = loadAndQuery("types", b, types);
        EXPECT_TRUE(isDamaged("types", m)) << types << ": " << m;
    }
}

TEST(Reliability, TableFilesGivenAsModelFilesAreReported) {
    const std::string csv = readFile(csvFile("rel_tab", threeColumns(10)));
    EXPECT_TRUE(isDamaged("tab", loadAndQuery("tab", csv, "")));
    std::string bin;
    auto put8 = [&bin](uint64_t v) { bin.append(reinterpret_cast<const char*>(&v), 8); };
    put8(0x2300246e69627a71ull);
    put8(4);
    put8(2);
    put8(3);
    bin += std::string(8, '\1');
    EXPECT_TRUE(isDamaged("bin", loadAndQuery("bin", bin, "")));
}

TEST(Reliability, ModelFileFieldsBeyondTheirBoundsAreReported) {
    const std::string b = storedModel("fields");
    // Layout under UINT64: types at 0, n at 2, m at 10, edges from 18.
    std::string e = b;
    put<unsigned long>(e, 18 + 8 * 3, 9);  // second edge (1, 9) on 3 vertices
    EXPECT_EQ(loadAndQuery("edge", e, ""), damaged("edge", "edge end beyond the vertices"));
    std::string n = b;
    put<unsigned long>(n, 2, 1ul << 60);
    EXPECT_EQ(loadAndQuery("bign", n, ""), damaged("bign", "vertex count"));
    std::string m = b;
    put<unsigned long>(m, 10, 1ul << 60);
    EXPECT_EQ(loadAndQuery("bigm", m, ""), damaged("bigm", "edge count"));
    // dim stands before E (7 + 12 values) and w (12 values).
    const size_t dimAt = b.size() - (19 + 12) * sizeof(double) - sizeof(unsigned long);
    std::string d = b;
    put<unsigned long>(d, dimAt, 4);
    EXPECT_EQ(loadAndQuery("dim", d, ""), damaged("dim", "dim"));
}

TEST(Reliability, EveryCutOfAModelFileIsReported) {
    const std::string b = storedModel("cut");
    const size_t withoutW = b.size() - 12 * sizeof(double);
    for (size_t len = 0; len < b.size(); ++len) {
        const std::string m = loadAndQuery("cut", b.substr(0, len), "");
        if (len == withoutW) {
            EXPECT_EQ(m, "") << len;  // a model stored without weights
        } else {
            EXPECT_TRUE(isDamaged("cut", m)) << len << ": " << m;
        }
    }
}

TEST(Reliability, FlippedBytesOfAModelFileNeverCrash) {
    // Each byte in turn set to a few values: the load fails with the clear
    // error, or the model loads consistently and the queries run.
    const std::string b = storedModel("flip");
    size_t loaded = 0, refused = 0;
    for (size_t at = 0; at < b.size(); ++at)
        for (unsigned char v : {0x00, 0x01, 0x7f, 0xff}) {
            if ((unsigned char)b[at] == v) continue;
            std::string f = b;
            f[at] = (char)v;
            const std::string m = loadAndQuery("flip", f, "");
            if (m.empty())
                ++loaded;
            else
                ++refused;
        }
    EXPECT_GT(loaded, 0u);
    EXPECT_GT(refused, 0u);
}

// ------------------------------------------------------------ hostile binary tables

namespace {

std::string binaryTable(uint64_t N, uint64_t n, uint64_t sX, const std::vector<unsigned char>& cells) {
    std::string b;
    auto put8 = [&b](uint64_t v) { b.append(reinterpret_cast<const char*>(&v), 8); };
    put8(0x2300246e69627a71ull);
    put8(N);
    put8(n);
    put8(sX);
    b.append(cells.begin(), cells.end());
    return b;
}

std::string binaryFile(const std::string& tag, const std::string& bytes) {
    const std::string p = tmpPath("rel_" + tag + ".bin");
    writeFile(p, bytes);
    return p;
}

}  // namespace

TEST(Reliability, BinaryCellAboveItsCategoriesIsReportedByModel) {
    const std::string f = binaryFile("cell", binaryTable(3, 2, 2, {0, 1, 1, 7, 0, 0}));
    Ctx c;
    EXPECT_EQ(failureOf(c, {"DFN " + quoted(f), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;"}),
              "row 1, column X1 holds state 7, but the column has only 2 states");
    // STATS of a model over a table with such a cell likewise.
    Ctx d;
    const std::string good = binaryFile("good", binaryTable(3, 2, 2, {0, 1, 1, 1, 0, 0}));
    EXPECT_EQ(failureOf(d, {"DFN " + quoted(good), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;", "DEL DPT;",
                            "DFN " + quoted(f), "LDX DPT;", "STATS;"}),
              "row 1, column X1 holds state 7, but the column has only 2 states");
}

TEST(Reliability, ScoreOfACellBeyondTheModelIsReported) {
    Ctx c;
    const std::string good = binaryFile("sgood", binaryTable(3, 2, 2, {0, 1, 1, 1, 0, 0}));
    const std::string f = binaryFile("sbad", binaryTable(2, 2, 9, {0, 1, 8, 0}));
    EXPECT_EQ(failureOf(c, {"DFN " + quoted(good), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;", "DEL DPT;",
                            "DFN " + quoted(f), "LDX DPT;", "SCORE;"}),
              "row 1, column X0 holds state 8, but the column has only 2 states");
}

TEST(Reliability, BinaryHeaderBeyondTheFileIsReported) {
    const std::string rows = binaryFile("rows", binaryTable(1ull << 40, 3, 2, {0, 1, 0}));
    Ctx c;
    EXPECT_EQ(failureOf(c, {"DFN " + quoted(rows), "LDX DPT;"}),
              "binary table " + rows + " announces 1099511627776 rows, 3 columns and 2 categories, but holds only 35 bytes");
    const std::string wrap = binaryFile("wrap", binaryTable(1ull << 33, 1ull << 31, 2, {0}));
    Ctx d;
    EXPECT_NE(failureOf(d, {"DFN " + quoted(wrap), "LDX DPT;"}).find("but holds only 33 bytes"), std::string::npos);
    const std::string cats = binaryFile("cats", binaryTable(1, 1, 70000, {0}));
    Ctx e;
    EXPECT_EQ(failureOf(e, {"DFN " + quoted(cats), "LDX DPT;"}),
              "binary table " + cats + " announces 1 rows, 1 columns and 70000 categories: a category code has 16 bits");
    const std::string cols = binaryFile("cols", binaryTable(0, 1ull << 50, 65535, {}));
    Ctx g;
    EXPECT_THROW(runLines(g, {"DFN " + quoted(cols), "LDX DPT;"}), std::bad_alloc);
    // Columns cost memory of their own, without rows or categories: this
    // header once had the reader make maps until the machine ran out.
    const std::string bare = binaryFile("bare", binaryTable(0, 1ull << 62, 0, {}));
    Ctx h;
    EXPECT_THROW(runLines(h, {"DFN " + quoted(bare), "LDX DPT;"}), std::bad_alloc);
}

TEST(Reliability, BinaryHeaderOfRowsWithoutColumnsIsReported) {
    // A row of no columns takes no byte: the file cannot bound such rows, and
    // this header once had the loader walk all of them, deaf to interrupts.
    const std::string huge = binaryFile("norows", binaryTable(1ull << 62, 0, 2, {}));
    Ctx c;
    EXPECT_EQ(failureOf(c, {"DFN " + quoted(huge), "LDX DPT;"}),
              "binary table " + huge + " announces 4611686018427387904 rows, 0 columns and 2 categories: rows need at "
              "least one column");
    EXPECT_EQ(reg(c, "DPT"), 0u);
    // Bytes behind the header do not make such rows any more real.
    const std::string three = binaryFile("norows3", binaryTable(3, 0, 2, {1, 0, 1}));
    Ctx d;
    EXPECT_EQ(failureOf(d, {"DFN " + quoted(three), "LDX DPT;"}),
              "binary table " + three + " announces 3 rows, 0 columns and 2 categories: rows need at least one column");
    // Also under a layer list, whose hidden columns would be added to every row.
    Ctx e;
    EXPECT_EQ(failureOf(e, {"DFN " + quoted(huge), "GRA RBM", "LDX DPT;"}),
              "binary table " + huge + " announces 4611686018427387904 rows, 0 columns and 2 categories: rows need at "
              "least one column");
    // No rows and no columns is an empty table.
    const std::string empty = binaryFile("empty", binaryTable(0, 0, 2, {}));
    Ctx g;
    EXPECT_EQ(failureOf(g, {"DFN " + quoted(empty), "LDX DPT;"}), "");
    ASSERT_NE(table(g), nullptr);
    EXPECT_EQ(table(g)->rows(), 0u);
    EXPECT_EQ(table(g)->columns(), 0u);
    EXPECT_EQ(reg(g, "NXX"), 0u);
}

// ------------------------------------------------------------ UINT8 dimensions

TEST(Reliability, ModelTooLargeForItsIndexTypeIsReported) {
    // 17 binary columns over the complete graph: 136 edges of 4 weights.
    std::string t = "discarded\n";
    for (int r = 0; r < 4; ++r) {
        for (int j = 0; j < 17; ++j) t += std::string(j ? "," : "") + ((r + j) % 2 ? "a" : "b");
        t += "\n";
    }
    const std::string f = csvFile("rel_uint8", t);
    Ctx c;
    EXPECT_EQ(failureOf(c, {"HED false", "idx_t UINT8", "DFN " + quoted(f), "LDX DPT;", "GRA FULL", "LDX GPT;", "MODEL;"}),
              "too many weights for idx_t of 8 bits");
    // A chain over the same columns fits.
    Ctx d;
    EXPECT_EQ(failureOf(d, {"HED false", "idx_t UINT8", "DFN " + quoted(f), "LDX DPT;", "GRA CHAIN", "LDX GPT;",
                            "MODEL;", "INFER;"}),
              "");
}

namespace {

// rows (at least 2) over `cols` binary columns, behind the discarded line:
// a row of all a, one of all b, then a scrambled pattern.
std::string binaryColumns(size_t cols, size_t rows) {
    std::string t = "discarded\n";
    for (size_t r = 0; r < rows; ++r) {
        for (size_t j = 0; j < cols; ++j) {
            const bool a = r < 2 ? r == 0 : ((r * 2654435761u + j * 40503u + r * j * 97u) >> 7) % 3 == 0;
            t += std::string(j ? "," : "") + (a ? "a" : "b");
        }
        t += "\n";
    }
    return t;
}

}  // namespace

TEST(Reliability, EnginesWhoseMessagesTheIndexTypeCannotCountAreRefused) {
    // 9 binary columns over the complete graph: 36 edges of 4 weights (144)
    // fit 8 bits, the 2 * 36 * (2 + 2) = 288 message entries of the two
    // copies do not. Every instruction that builds the engine says so, and
    // the model stays as it was.
    const std::string f = csvFile("rel_msg8", binaryColumns(9, 12));
    const std::string msg = "too many message entries for idx_t of 8 bits";
    for (const char* types : {"idx_t UINT8 val_t FLT64", "idx_t UINT8 val_t FLT32", "idx_t UINT8 val_t UINT8"}) {
        SCOPED_TRACE(types);
        for (const char* q : {"INFER;", "PREDICT;", "PPX true PREDICT;", "SCORE;", "SAMPLE;", "PAM 0.0 SAMPLE;",
                              "OPT 4 STP 0.1 MIO 3 ESTIMATE;", "REP ISING INFER;"}) {
            SCOPED_TRACE(q);
            Ctx c;
            EXPECT_EQ(failureOf(c, {"HED false", types, "DFN " + quoted(f), "LDX DPT;", "GRA FULL", "LDX GPT;", "MODEL;",
                                    "INITGAUSS;", q}),
                      msg);
            EXPECT_EQ(reg(c, "DIM"), 144u);
            EXPECT_EQ(reg(c, "PPT"), 0u);
        }
    }
    // 16 bits count them, and the marginals are those of the 64-bit run.
    std::vector<double> pp[2];
    int k = 0;
    for (const char* types : {"idx_t UINT16 val_t FLT64", "idx_t UINT64 val_t FLT64"}) {
        Ctx c;
        wreg(c, "SEED", 3);
        EXPECT_EQ(failureOf(c, {"HED false", types, "DFN " + quoted(f), "LDX DPT;", "GRA FULL", "LDX GPT;", "MODEL;",
                                "INITGAUSS;", "INFER;"}),
                  "");
        const double* p = reinterpret_cast<const double*>(reg(c, "PPT"));
        ASSERT_NE(p, nullptr);
        pp[k++].assign(p, p + 18 + 144);
    }
    ASSERT_EQ(pp[0].size(), pp[1].size());
    for (size_t i = 0; i < pp[0].size(); ++i) EXPECT_NEAR(pp[0][i], pp[1][i], 1e-12) << i;
}

TEST(Reliability, EightBitEnginesAtTheEdgeOfTheirMessageCount) {
    // A chain of 32 binary columns: 31 edges send 8 entries each, 248 of the
    // 255 that 8 bits count. Its marginals and scores are those of the
    // 64-bit run, whose arrays are wide enough for anything. With 33 columns
    // the engine is refused.
    const std::string f32 = csvFile("rel_chain32", binaryColumns(32, 20));
    std::vector<double> pp[2];
    double lnz[2], res[2];
    int k = 0;
    for (const char* types : {"idx_t UINT8 val_t FLT64", "idx_t UINT64 val_t FLT64"}) {
        Ctx c;
        wreg(c, "SEED", 3);
        EXPECT_EQ(failureOf(c, {"HED false", types, "DFN " + quoted(f32), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;",
                                "INITGAUSS;", "SCORE;", "INFER;"}),
                  "");
        res[k] = regR(c, "RES");
        lnz[k] = regR(c, "LNZ");
        const double* p = reinterpret_cast<const double*>(reg(c, "PPT"));
        ASSERT_NE(p, nullptr);
        pp[k++].assign(p, p + 64 + 124);
    }
    EXPECT_NEAR(lnz[0], lnz[1], 1e-12);
    EXPECT_NEAR(res[0], res[1], 1e-12);
    for (size_t i = 0; i < pp[0].size(); ++i) EXPECT_NEAR(pp[0][i], pp[1][i], 1e-12) << i;
    // The marginals of each vertex sum to one.
    for (size_t v = 0; v < 32; ++v) EXPECT_NEAR(pp[0][2 * v] + pp[0][2 * v + 1], 1.0, 1e-9) << v;

    const std::string f33 = csvFile("rel_chain33", binaryColumns(33, 20));
    Ctx d;
    EXPECT_EQ(failureOf(d, {"HED false", "idx_t UINT8 val_t FLT64", "DFN " + quoted(f33), "LDX DPT;", "GRA CHAIN",
                            "LDX GPT;", "MODEL;", "INFER;"}),
              "too many message entries for idx_t of 8 bits");
}

TEST(Reliability, SamplingEngineDegreeBeyondTheIndexTypeIsRefused) {
    Ctx c;
    const std::string f = csvFile("rel_sqm8", binaryColumns(3, 8));
    EXPECT_EQ(failureOf(c, {"HED false", "idx_t UINT8 val_t FLT64", "DFN " + quoted(f), "LDX DPT;", "GRA CHAIN",
                            "LDX GPT;", "MODEL;", "ALG SQM KXX 254 MIL 40 INFER;"}),
              "too many reference points (KXX + 2) for idx_t of 8 bits");
    Ctx d;
    EXPECT_EQ(failureOf(d, {"HED false", "DFN " + quoted(f), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;",
                            "ALG SQM KXX 18446744073709551615 MIL 40 INFER;"}),
              "too many reference points (KXX + 2) for idx_t of 64 bits");
}

TEST(Reliability, CliqueSearchTooLargeForItsIndexTypeIsReported) {
    // Six columns of four states: the pairs alone need 15 blocks of 16 counts.
    std::string t = "a,b,c,d,e,f\ns,s,s,s,s,s\n";
    for (int r = 0; r < 8; ++r) {
        for (int j = 0; j < 6; ++j) t += std::string(j ? "," : "") + (char)('w' + (r + j) % 4);
        t += "\n";
    }
    const std::string f = csvFile("rel_cliques8", t);
    Ctx c;
    EXPECT_EQ(failureOf(c, {"idx_t UINT8", "DFN " + quoted(f), "LDX DPT;", "GRA CLIQUES", "LDX GPT;", "MODEL;"}),
              "too many statistics for idx_t of 8 bits");
}

TEST(Reliability, IsingModelWithoutRoomInTheWeightsIsRefused) {
    // One binary column: one vertex, no edge. Its field has no place among
    // the model's 0 weights, which the instructions copy it from and to.
    const std::string f = csvFile("rel_ising1", "a\nd\nx\ny\nx\n");
    Ctx c;
    EXPECT_EQ(failureOf(c, {"DFN " + quoted(f), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;", "REP ISING", "INFER;"}),
              "the model function needs 1 parameters, more than the 0 weights of the model");
    // Two binary columns have room: 4 weights for 2 fields and 1 coupling.
    const std::string g = csvFile("rel_ising2", "a,b\nd,d\nx,p\ny,q\nx,q\n");
    Ctx d;
    EXPECT_EQ(failureOf(d, {"DFN " + quoted(g), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;", "REP ISING", "INFER;",
                            "SCORE;", "SAMPLE;"}),
              "");
}

// ------------------------------------------------------------ failed writes

TEST(Reliability, StoresIntoAMissingFolderAreReported) {
    Ctx c;
    chainModel(c, "nofolder");
    const std::string fn = tmpPath("no_such_folder/out");
    EXPECT_EQ(failureOf(c, {"MFN " + quoted(fn), "STORE MPT;"}), "cannot write file " + fn);
    Ctx d;
    chainModel(d, "nofolder2");
    EXPECT_EQ(failureOf(d, {"DFN " + quoted(fn), "STORE DPT;"}), "cannot write file " + fn);
    for (const char* fmt : {"FMT ADJ", "FMT TGF", "FMT FG"}) {
        Ctx e;
        chainModel(e, "nofolder3");
        EXPECT_EQ(failureOf(e, {fmt, "GFN " + quoted(fn), "STORE GPT;"}), "cannot write file " + fn) << fmt;
    }
}

TEST(Reliability, StoresOntoAFullDeviceAreReported) {
    for (const char* line : {"MFN '/dev/full' STORE MPT;", "DFN '/dev/full' STORE DPT;", "GFN '/dev/full' STORE GPT;"}) {
        Ctx c;
        chainModel(c, "full");
        EXPECT_EQ(failureOf(c, {"OVW true", line}), "cannot write file /dev/full") << line;
    }
}

namespace {

// Runs f in a child process whose files may not grow past limit bytes; the
// child's exit code, or -1 when it did not exit.
template <typename F> int withFileLimit(rlim_t limit, F f) {
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl = {limit, limit};
        setrlimit(RLIMIT_FSIZE, &rl);
        _exit(f());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(Reliability, AWriteThatFailsHalfwayKeepsTheOldFile) {
    const std::string mfn = tmpPath("rel_halfway.mod");
    const std::string dfn = tmpPath("rel_halfway.csv");
    std::remove(mfn.c_str());
    Ctx c;
    chainModel(c, "halfway");
    ASSERT_TRUE(runLines(c, {"MFN " + quoted(mfn), "STORE MPT;"}));
    const std::string before = readFile(mfn);
    writeFile(dfn, threeColumns(30));
    const std::string table = readFile(dfn);
    ASSERT_GT(before.size(), 200u);
    // The same model again with other weights: its file stops at 100 bytes.
    const int code = withFileLimit(100, [&]() {
        runLines(c, {"INITGAUSS;", "OVW true"});
        int r = 0;
        if (failureOf(c, {"STORE MPT;"}) != "cannot write file " + mfn) r |= 1;
        // A failed run leaves its context wedged: the table goes through another.
        Ctx d;
        if (failureOf(d, {"DFN " + quoted(dfn), "LDX DPT;", "OVW true", "STORE DPT;"}) != "cannot write file " + dfn)
            r |= 2;
        return r;
    });
    EXPECT_EQ(code, 0);
    EXPECT_EQ(readFile(mfn), before);
    EXPECT_EQ(readFile(dfn), table);
    // No temporary file is left beside it.
    EXPECT_NE(std::system(("ls " + tmpPath("") + "* | grep -q 'rel_halfway.*tmp'").c_str()), 0);
}

TEST(Reliability, ReplacedFilesKeepTheirPermissions) {
    const std::string mfn = tmpPath("rel_mode.mod");
    std::remove(mfn.c_str());
    Ctx c;
    chainModel(c, "mode");
    ASSERT_TRUE(runLines(c, {"MFN " + quoted(mfn), "STORE MPT;"}));
    ASSERT_EQ(chmod(mfn.c_str(), 0640), 0);
    ASSERT_TRUE(runLines(c, {"OVW true", "STORE MPT;"}));
    struct stat st;
    ASSERT_EQ(stat(mfn.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}

// ------------------------------------------------------------ ragged CSV rows

TEST(ReliabilityDeath, RaggedRowsThatMakeUpForEachOtherStillAssert) {
    const std::string f = csvFile("rel_ragged", "a,b,c\nd,d,d\nx,y,z\nx,y\nx,y,z,w\nx,y,z\n");
    EXPECT_DEATH(
        {
            Ctx c;
            runLines(c, {"DFN " + quoted(f), "LDX DPT;"});
        },
        "Assertion `i==n\\*N' failed");
}

// ------------------------------------------------------------ columns with no observed value

TEST(Reliability, ColumnWithoutAnyValueIsNamedByModel) {
    // The middle and the last column hold only missing cells.
    const std::string f = csvFile("rel_empty_col", "item1,item2,item3\nd,d,d\nx,?,?\ny,?,?\nx,?,?\n");
    Ctx c;
    EXPECT_EQ(failureOf(c, {"DFN " + quoted(f), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;"}),
              "column item2 has no observed value: a model needs at least one state per column");
    // Without a header the column is named by its number.
    const std::string g = csvFile("rel_empty_col2", "d,d,d\nx,?,?\ny,?,?\n");
    Ctx d;
    EXPECT_EQ(failureOf(d, {"HED false", "DFN " + quoted(g), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;"}),
              "column X1 has no observed value: a model needs at least one state per column");
}
