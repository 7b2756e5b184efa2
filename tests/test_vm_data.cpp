// Programs that load, store and release data tables.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>
#include <QZ/graph/core>
#include <QZ/QZIO>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>

using QZ::CategoricalBinaryData;
using QZ::CategoricalCSVData;
using QZ::CategoricalData;
using QZ::CategoricalNumPyData;
using namespace qztest;

namespace {

CategoricalData* table(void* ctx) { return reinterpret_cast<CategoricalData*>(reg(ctx, "DPT")); }

// The message of the logic_error that ends the run, or "" if none.
std::string failure(void* ctx, const std::vector<std::string>& lines) {
    try {
        runLines(ctx, lines);
    } catch (const std::logic_error& e) {
        return e.what();
    }
    return "";
}

std::string dfn(const std::string& path) { return "DFN '" + path + "'"; }

std::string vote() { return std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv"; }

// Runs a shell command and returns what it printed on stdout.
std::string shell(const std::string& cmd, int* status = nullptr) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return out;
    char buf[512];
    size_t k;
    while ((k = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, k);
    const int st = pclose(p);
    if (status) *status = st;
    return out;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string l;
    while (std::getline(in, l)) lines.push_back(l);
    return lines;
}

const char* kSmall = "a,b,c\nskip,skip,skip\nx,p,?\ny,p,u\nx,q,v\n";

// A model container in MPT for the default IDX UINT64, VAL FLT64, owned by the test.
struct Model {
    QZ::IO<unsigned long, double>* io;
    std::unique_ptr<QZ::Graph<unsigned long>> G;  // vertices only: all the loader asks of a model's graph
    std::vector<unsigned long> Y;
    void* ctx;
    Model(void* c, std::vector<unsigned long> states)
        : io(new QZ::IO<unsigned long, double>()), G(makeGraph<unsigned long>(states.size(), {})), Y(states),
          ctx(c) {
        io->G = G.get();
        io->Y = Y.data();
        io->is_external = true;
        wreg(ctx, "MPT", (size_t)io);
    }
    ~Model() {
        wreg(ctx, "MPT", 0);
        io->G = nullptr;
        io->Y = nullptr;
        io->Ynames = nullptr;
        delete io;
    }
};

}  // namespace

// ---------------------------------------------------------------- files

TEST(VmData, LoadsACsvFile) {
    const std::string f = tmpPath("vmd_small.csv");
    writeFile(f, kSmall);
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "LDX DPT;"}));
    CategoricalData* D = table(ctx);
    ASSERT_NE(D, nullptr);
    EXPECT_NE(dynamic_cast<CategoricalCSVData*>(D), nullptr);
    EXPECT_EQ(reg(ctx, "NXX"), 3u);
    EXPECT_EQ(D->columns(), 3u);
    EXPECT_EQ(reg(ctx, "RES"), std::strlen(kSmall));  // the integer, not a double
    EXPECT_EQ(D->header, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(D->getString(2, 1), "q");
    EXPECT_EQ(D->get(0, 2), 65535u);
    EXPECT_EQ(D->H, 0u);
    EXPECT_NE(D->xdata, nullptr);  // addColumns(0, 0) ran
}

TEST(VmData, RegistersSteerTheTextReader) {
    const std::string f = tmpPath("vmd_flags.csv");
    writeFile(f, "skip,skip\nb,a\n*a,c\n");
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "HED false", "MIS '*'", "YYC true", "LDX DPT;"}));
    CategoricalData* D = table(ctx);
    EXPECT_FALSE(D->hasHeader);
    EXPECT_TRUE(D->sharedStates);
    EXPECT_EQ(D->missingString, "*");
    EXPECT_EQ(reg(ctx, "NXX"), 2u);
    EXPECT_EQ(D->get(0, 0), 0u);
    EXPECT_EQ(D->get(0, 1), 1u);
    EXPECT_EQ(D->get(1, 0), 65535u);
    EXPECT_EQ(D->get(1, 1), 2u);
    EXPECT_EQ(D->columnName(1), "X1");
}

TEST(VmData, LoadsABinaryFileByItsMagic) {
    std::string bytes("qzbin$\0#", 8);
    const uint64_t head[3] = {2, 2, 3};
    bytes.append(reinterpret_cast<const char*>(head), sizeof(head));
    bytes.append("\x02\x00\x01\x02", 4);
    const std::string f = tmpPath("vmd_table.csv");  // the name does not matter
    writeFile(f, bytes);
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "LDX DPT;"}));
    CategoricalData* D = table(ctx);
    ASSERT_NE(dynamic_cast<CategoricalBinaryData*>(D), nullptr);
    EXPECT_EQ(reg(ctx, "NXX"), 2u);
    EXPECT_EQ(reg(ctx, "RES"), bytes.size());
    EXPECT_EQ(D->get(0, 0), 2u);
    EXPECT_EQ(D->get(1, 1), 2u);
    EXPECT_EQ(D->categories(1), 3u);
}

TEST(VmData, VoteRecordsThroughAProgram) {
    // The file: one header line and 435 data lines; the first data line is
    // the sacrificial one, so the table has 434 rows.
    const std::string text = readFile(vote());
    const std::vector<std::string> lines = splitLines(text);
    ASSERT_EQ(lines.size(), 436u);
    std::vector<std::set<std::string>> seen(17);
    size_t missingCells = 0;
    for (size_t l = 2; l < lines.size(); ++l) {
        std::vector<std::string> cells;
        QZ::readandsplit(lines[l], &cells);
        ASSERT_EQ(cells.size(), 17u);
        for (size_t c = 0; c < 17; ++c) {
            if (cells[c][0] == '?')
                ++missingCells;
            else
                seen[c].insert(cells[c]);
        }
    }

    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(vote()), "LDX DPT;"}));
    EXPECT_EQ(reg(ctx, "NXX"), 434u);
    EXPECT_EQ(reg(ctx, "RES"), text.size());
    CategoricalData* D = table(ctx);
    ASSERT_EQ(D->columns(), 17u);
    EXPECT_EQ(D->columnName(16), "Class");
    size_t missing = 0;
    for (size_t c = 0; c < 17; ++c) {
        EXPECT_EQ(D->categories(c), seen[c].size()) << c;
        EXPECT_EQ(D->categories(c), 2u) << c;  // y/n, or the two parties
        for (size_t r = 0; r < D->rows(); ++r)
            if (D->get(r, c) == 65535) ++missing;
    }
    EXPECT_EQ(missing, missingCells);
    EXPECT_GT(missing, 0u);
    // The second data line of the file is the table's first row.
    std::vector<std::string> first;
    QZ::readandsplit(lines[2], &first);
    for (size_t c = 0; c < 17; ++c) EXPECT_EQ(D->getString(0, c), first[c]);
    // Category codes follow the first appearance in the kept lines.
    EXPECT_EQ(D->categoryName(16, 0), "republican");
    EXPECT_EQ(D->categoryName(16, 1), "democrat");
}

TEST(VmData, RoundTripThroughStore) {
    const std::string in = tmpPath("vmd_round_in.csv"), out = tmpPath("vmd_round_out.csv");
    writeFile(in, kSmall);
    std::remove(out.c_str());
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(in), "LDX DPT;", "DEL DFN;", dfn(out), "STORE DPT;"}));
    EXPECT_EQ(readFile(out), "a,b,c\nx,p,?\ny,p,u\nx,q,v\n");
    EXPECT_EQ(reg(ctx, "NXX"), 3u);
}

TEST(VmData, VoteRoundTripKeepsEverythingButTheDiscardedLine) {
    const std::string out = tmpPath("vmd_vote_out.csv");
    std::remove(out.c_str());
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(vote()), "LDX DPT;", "DEL DFN;", dfn(out), "STORE DPT;"}));
    std::vector<std::string> lines = splitLines(readFile(vote()));
    lines.erase(lines.begin() + 1);
    EXPECT_EQ(splitLines(readFile(out)), lines);
}

TEST(VmData, StoreOverwritesWithOvw) {
    const std::string in = tmpPath("vmd_ovw_in.csv"), out = tmpPath("vmd_ovw_out.csv");
    writeFile(in, kSmall);
    writeFile(out, "old");
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(in), "LDX DPT;", "DEL DFN;", dfn(out), "OVW true", "STORE DPT;"}));
    EXPECT_EQ(readFile(out), "a,b,c\nx,p,?\ny,p,u\nx,q,v\n");
}

// ---------------------------------------------------------------- host memory

TEST(VmData, HostTableColumnsFromByteSize) {
    std::vector<unsigned short> host(200 / 2);
    for (size_t i = 0; i < host.size(); ++i) host[i] = (unsigned short)(i % 10 == 3 ? 65535 : i % 4);
    Ctx ctx;
    wreg(ctx, "EDP", (size_t)host.data());
    wreg(ctx, "NXX", 10);
    wreg(ctx, "GPX", 200);
    ASSERT_TRUE(runLines(ctx, {"LDX DPT;"}));
    CategoricalData* D = table(ctx);
    ASSERT_NE(dynamic_cast<CategoricalNumPyData*>(D), nullptr);
    EXPECT_EQ(D->columns(), 10u);
    EXPECT_EQ(D->rows(), 10u);
    EXPECT_EQ(reg(ctx, "NXX"), 10u);
    EXPECT_EQ(D->data, host.data());  // used in place
    EXPECT_FALSE(D->myData);
    EXPECT_EQ(D->get(0, 3), 65535u);
    EXPECT_EQ(D->get(2, 1), 21u % 4);
    EXPECT_EQ(D->categories(0), 3u);  // codes 0, 2 (0, 10, 20, ... mod 4) and 1 between
    EXPECT_EQ(D->xdata, nullptr);     // no addColumns in this path
    EXPECT_EQ(reg(ctx, "RES"), 0u);
    // Freeing the table leaves the host's array alone.
    ASSERT_TRUE(runLines(ctx, {"DEL DPT;"}));
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(host[21], 21u % 4);
}

// Rows the host array cannot hold are refused, before anything walks them:
// fewer bytes than one cell a row, and a row count whose byte size wraps
// (which would divide by zero).
TEST(VmData, HostTableRowsNeedACellEach) {
    std::vector<unsigned short> host(4, 0);
    for (const std::pair<size_t, size_t> rows_bytes :
         {std::make_pair((size_t)3, (size_t)4), std::make_pair((size_t)1 << 62, (size_t)0),
          std::make_pair(((size_t)1 << 63) + 1, (size_t)8)}) {
        Ctx ctx;
        wreg(ctx, "EDP", (size_t)host.data());
        wreg(ctx, "NXX", rows_bytes.first);
        wreg(ctx, "GPX", rows_bytes.second);
        EXPECT_EQ(failureOf(ctx, {"LDX DPT;"}), "host table announces " + std::to_string(rows_bytes.first) +
                                                    " rows (NXX) in " + std::to_string(rows_bytes.second) +
                                                    " bytes (GPX): rows need at least one column");
        EXPECT_EQ(reg(ctx, "DPT"), 0u);
    }
    // Two rows of two cells in 8 bytes still load.
    Ctx ctx;
    wreg(ctx, "EDP", (size_t)host.data());
    wreg(ctx, "NXX", 2);
    wreg(ctx, "GPX", 8);
    ASSERT_TRUE(runLines(ctx, {"LDX DPT;"}));
    EXPECT_EQ(table(ctx)->columns(), 2u);
}

TEST(VmData, HostTableWithSharedStates) {
    std::vector<unsigned short> host = {0, 4, 1, 2};
    Ctx ctx;
    wreg(ctx, "EDP", (size_t)host.data());
    wreg(ctx, "NXX", 2);
    wreg(ctx, "GPX", host.size() * 2);
    wreg(ctx, "YYC", 1);
    ASSERT_TRUE(runLines(ctx, {"LDX DPT;"}));
    EXPECT_EQ(table(ctx)->columns(), 2u);
    EXPECT_EQ(table(ctx)->categories(0), 5u);
}

TEST(VmData, TextInHostMemory) {
    std::string text = "a,b\nskip,skip\nx,y\nz,y\nz,w\n";
    Ctx ctx;
    wreg(ctx, "EDP", (size_t)&text);
    ASSERT_TRUE(runLines(ctx, {"LDX DPT;"}));
    CategoricalData* D = table(ctx);
    ASSERT_NE(dynamic_cast<CategoricalCSVData*>(D), nullptr);
    EXPECT_EQ(reg(ctx, "NXX"), 3u);
    EXPECT_EQ(reg(ctx, "RES"), text.size());
    EXPECT_EQ(D->getString(2, 1), "w");
    EXPECT_EQ(D->categories(0), 2u);
    EXPECT_NE(D->xdata, nullptr);
}

TEST(VmData, TextInHostMemoryWinsOverAFileName) {
    std::string text = "a\nskip\nx\n";
    Ctx ctx;
    wreg(ctx, "EDP", (size_t)&text);
    // With EDP set the file name is not looked at, not even for existence.
    ASSERT_TRUE(runLines(ctx, {dfn(tmpPath("vmd_no_such_file.csv")), "LDX DPT;"}));
    EXPECT_EQ(reg(ctx, "NXX"), 1u);
    EXPECT_EQ(reg(ctx, "RES"), text.size());
}

TEST(VmData, StoreOfTextInHostMemoryNeedsAFileName) {
    std::string text = "a\nskip\nx\n";
    Ctx ctx;
    wreg(ctx, "EDP", (size_t)&text);
    EXPECT_EQ(failure(ctx, {"LDX DPT;", "STORE DPT;"}), "no data filename provided");
    EXPECT_NE(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(reg(ctx, "LNN"), 1u);
}

// ---------------------------------------------------------------- failures

TEST(VmData, MissingFile) {
    const std::string f = tmpPath("vmd_absent.csv");
    std::remove(f.c_str());
    Ctx ctx;
    EXPECT_EQ(failure(ctx, {dfn(f), "LDX DPT;"}), "file " + f + " does not exist");
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(reg(ctx, "NXX"), 0u);
}

TEST(VmData, NoFileNameAndNoHostData) {
    Ctx ctx;
    EXPECT_EQ(failure(ctx, {"LDX DPT;"}), "9 requires a data filename");
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
}

TEST(VmData, FailuresAreLogicErrors) {
    Ctx ctx;
    EXPECT_THROW(runLines(ctx, {"LDX DPT;"}), std::logic_error);
}

TEST(VmData, ReaderFailurePassesThroughAndLoadsNothing) {
    // An empty cell ends the text reader with the string's range error.
    const std::string f = tmpPath("vmd_empty_cell.csv");
    writeFile(f, "a,b\nskip,skip\nx,y\nx,,y\n");
    Ctx ctx;
    ASSERT_TRUE(wreg(ctx, "NXX", 0));
    EXPECT_THROW(runLines(ctx, {dfn(f), "LDX DPT;"}), std::out_of_range);
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(reg(ctx, "NXX"), 0u);
    EXPECT_EQ(reg(ctx, "RES"), 0u);
}

TEST(VmData, SharedStatesFileWithoutDataLinesLoadsAnEmptyTable) {
    const std::string f = tmpPath("vmd_shared_empty.csv");
    const std::string text = "a,b\nskip,skip\n";
    writeFile(f, text);
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "YYC true", "LDX DPT;"}));
    EXPECT_EQ(reg(ctx, "NXX"), 0u);
    ASSERT_NE(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(table(ctx)->columns(), 0u);
    EXPECT_EQ(reg(ctx, "RES"), text.size());
}

TEST(VmData, StoreWithoutTable) {
    Ctx ctx;
    EXPECT_EQ(failure(ctx, {dfn(tmpPath("vmd_x.csv")), "STORE DPT;"}), "no data loaded");
}

TEST(VmData, StoreWithoutFileName) {
    const std::string in = tmpPath("vmd_nofn.csv");
    writeFile(in, kSmall);
    Ctx ctx;
    EXPECT_EQ(failure(ctx, {dfn(in), "LDX DPT;", "DEL DFN;", "STORE DPT;"}), "no data filename provided");
}

TEST(VmData, StoreOntoAnExistingFileWithoutOvw) {
    const std::string in = tmpPath("vmd_exist_in.csv");
    writeFile(in, kSmall);
    Ctx ctx;
    EXPECT_EQ(failure(ctx, {dfn(in), "LDX DPT;", "STORE DPT;"}), "overwrite disabled but modelfile exists");
    EXPECT_EQ(readFile(in), kSmall);
}

TEST(VmData, FailedRunWedgesTheContext) {
    const std::string f = tmpPath("vmd_wedge.csv");
    std::remove(f.c_str());
    Ctx ctx;
    ASSERT_TRUE(wreg(ctx, "GP0", 5));
    EXPECT_EQ(failure(ctx, {"GP1 2.5", dfn(f), "LDX DPT;", "GP2 1.0"}), "file " + f + " does not exist");
    // Reading still works and shows the state at the failure.
    EXPECT_EQ(reg(ctx, "LNN"), 2u);
    EXPECT_EQ(regR(ctx, "GP1"), 2.5);
    EXPECT_EQ(regR(ctx, "GP2"), 0.0);
    EXPECT_EQ(regS(ctx, "DFN"), f);
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    // Everything else is refused from now on.
    EXPECT_FALSE(wreg(ctx, "GP0", 6));
    EXPECT_EQ(reg(ctx, "GP0"), 5u);
    EXPECT_FALSE(setCode(ctx, {"LDX DPT;"}));
    EXPECT_FALSE(run_ctx(ctx));
    EXPECT_FALSE(reset_ctx(ctx));
    EXPECT_EQ(regS(ctx, "DFN"), f);
}

TEST(VmData, DeleteReleasesTheTable) {
    const std::string f = tmpPath("vmd_del.csv");
    writeFile(f, kSmall);
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "LDX DPT;"}));
    EXPECT_NE(reg(ctx, "DPT"), 0u);
    ASSERT_TRUE(runLines(ctx, {"DEL DPT;"}));
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(reg(ctx, "NXX"), 3u);  // the row count stays
    ASSERT_TRUE(runLines(ctx, {"DEL DPT;"}));  // nothing to release: fine
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(failure(ctx, {"STORE DPT;"}), "no data loaded");
}

TEST(VmData, ResetReleasesTheTable) {
    const std::string f = tmpPath("vmd_reset.csv");
    writeFile(f, kSmall);
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "LDX DPT;"}));
    ASSERT_TRUE(reset_ctx(ctx));
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(reg(ctx, "NXX"), 0u);
}

TEST(VmData, InvalidTypePairLoadsNothing) {
    const std::string f = tmpPath("vmd_pair.csv");
    writeFile(f, kSmall);
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "idx_t UINT32", "val_t UINT8", "LDX DPT;"}));
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
    EXPECT_EQ(reg(ctx, "NXX"), 0u);
    EXPECT_EQ(reg(ctx, "RES"), 0u);
}

TEST(VmData, ReleaseIgnoresTheTypePair) {
    const std::string f = tmpPath("vmd_pair_del.csv");
    writeFile(f, kSmall);
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(f), "LDX DPT;"}));
    ASSERT_NE(reg(ctx, "DPT"), 0u);
    // A table is no template: with a pair that names no instantiation it is still freed.
    ASSERT_TRUE(runLines(ctx, {"idx_t UINT32", "val_t UINT8", "DEL DPT;"}));
    EXPECT_EQ(reg(ctx, "DPT"), 0u);
}

TEST(VmData, EveryValidTypePairLoads) {
    const std::string f = tmpPath("vmd_pairs.csv");
    writeFile(f, kSmall);
    const std::vector<std::pair<std::string, std::string>> pairs = {
        {"UINT8", "UINT8"}, {"UINT16", "UINT16"}, {"UINT32", "UINT32"}, {"UINT64", "UINT64"},
        {"UINT8", "FLT32"}, {"UINT32", "FLT64"},  {"UINT16", "FLTMPREC"}};
    for (const auto& p : pairs) {
        Ctx ctx;
        ASSERT_TRUE(runLines(ctx, {dfn(f), "idx_t " + p.first, "val_t " + p.second, "LDX DPT;"}));
        EXPECT_NE(reg(ctx, "DPT"), 0u) << p.first << " " << p.second;
        EXPECT_EQ(reg(ctx, "NXX"), 3u);
    }
}

TEST(VmData, SecondLoadAbandonsTheFirstAndCountsAnew) {
    const std::string a = tmpPath("vmd_a.csv"), b = tmpPath("vmd_b.csv");
    writeFile(a, kSmall);
    writeFile(b, "h\nskip\n1\n");
    Ctx ctx;
    ASSERT_TRUE(runLines(ctx, {dfn(a), "LDX DPT;", "DEL DFN;", dfn(b), "LDX DPT;"}));
    EXPECT_EQ(reg(ctx, "NXX"), 1u);
    EXPECT_EQ(table(ctx)->columns(), 1u);
}

// ---------------------------------------------------------------- dry pass

TEST(VmDataDryPass, LoadHoldsTheSentinelAndCountsOneRow) {
    const std::string f = tmpPath("vmd_dry.csv");
    writeFile(f, kSmall);
    QZ::vm_t vm;
    vm.setCode(new std::vector<std::string>{dfn(f), "LDX DPT;"});
    vm.parse(true);
    EXPECT_EQ(vm.getP(QZ::vm_t::DPT), (void*)1);
    EXPECT_EQ(vm.get(QZ::vm_t::NNN), 1u);  // the sentinel answers for the rows
    // Releasing the sentinel deletes nothing and clears the register.
    vm.freeData();
    EXPECT_EQ(vm.getP(QZ::vm_t::DPT), nullptr);
    EXPECT_EQ(vm.get(QZ::vm_t::NNN), 0u);
}

TEST(VmDataDryPass, ChecksStillRun) {
    const std::string f = tmpPath("vmd_dry_absent.csv");
    std::remove(f.c_str());
    {
        QZ::vm_t vm;
        vm.setCode(new std::vector<std::string>{dfn(f), "LDX DPT;"});
        try {
            vm.parse(true);
            FAIL() << "no exception";
        } catch (const std::logic_error& e) {
            EXPECT_EQ(std::string(e.what()), "file " + f + " does not exist");
        }
        EXPECT_EQ(vm.getP(QZ::vm_t::DPT), nullptr);
    }
    {
        QZ::vm_t vm;
        vm.setCode(new std::vector<std::string>{"LDX DPT;"});
        try {
            vm.parse(true);
            FAIL() << "no exception";
        } catch (const std::logic_error& e) {
            EXPECT_EQ(std::string(e.what()), "9 requires a data filename");
        }
    }
    {
        // STORE DPT checks the file as in a real run.
        const std::string in = tmpPath("vmd_dry_in.csv");
        writeFile(in, kSmall);
        QZ::vm_t vm;
        vm.setCode(new std::vector<std::string>{dfn(in), "LDX DPT;", "STORE DPT;"});
        try {
            vm.parse(true);
            FAIL() << "no exception";
        } catch (const std::logic_error& e) {
            EXPECT_EQ(std::string(e.what()), "overwrite disabled but modelfile exists");
        }
    }
}

TEST(VmDataDryPass, StoreWritesNothingAndReleaseClears) {
    const std::string in = tmpPath("vmd_dry_store_in.csv"), out = tmpPath("vmd_dry_store_out.csv");
    writeFile(in, kSmall);
    std::remove(out.c_str());
    QZ::vm_t vm;
    vm.setCode(new std::vector<std::string>{dfn(in), "LDX DPT;", "DEL DFN;", dfn(out), "STORE DPT;"});
    vm.parse(true);
    EXPECT_FALSE(QZ::file_exists(out));
    EXPECT_EQ(vm.getP(QZ::vm_t::DPT), (void*)1);
    vm.setCode(new std::vector<std::string>{"DEL DPT;"});
    vm.parse(true);
    EXPECT_EQ(vm.getP(QZ::vm_t::DPT), nullptr);
}

// ---------------------------------------------------------------- with a model

TEST(VmData, ModelNamesFixTheCoding) {
    Ctx ctx;
    Model m(ctx, {2, 2});
    auto* names = new std::vector<std::vector<std::string>*>();
    names->push_back(new std::vector<std::string>{"n", "y"});
    names->push_back(new std::vector<std::string>{"y", "n"});
    m.io->Ynames = names;
    std::string text = "a,b\nskip,skip\ny,y\nn,x\n";
    wreg(ctx, "EDP", (size_t)&text);
    ASSERT_TRUE(runLines(ctx, {"LDX DPT;"}));
    CategoricalData* D = table(ctx);
    EXPECT_TRUE(D->states_locked);
    EXPECT_EQ(D->get(0, 0), 1u);
    EXPECT_EQ(D->get(0, 1), 0u);
    EXPECT_EQ(D->get(1, 0), 0u);
    EXPECT_EQ(D->get(1, 1), 65535u);  // unknown to the model
    // The table copied the names: the model's lists stay the model's.
    EXPECT_NE(D->statesInv[0], names->at(0));
    for (auto* l : *names) delete l;
    delete names;
}

TEST(VmData, ModelWithoutNamesCodesY0Y1) {
    Ctx ctx;
    Model m(ctx, {2, 3});
    std::string text = "a,b\nskip,skip\nY1,Y2\nY0,Y3\n";
    wreg(ctx, "EDP", (size_t)&text);
    ASSERT_TRUE(runLines(ctx, {"LDX DPT;"}));
    CategoricalData* D = table(ctx);
    EXPECT_EQ(D->get(0, 0), 1u);
    EXPECT_EQ(D->get(0, 1), 2u);
    EXPECT_EQ(D->get(1, 0), 0u);
    EXPECT_EQ(D->get(1, 1), 65535u);
    EXPECT_EQ(D->categories(1), 3u);
    EXPECT_EQ(m.io->Ynames, nullptr);  // the temporary names are gone again
}

TEST(VmData, BoltzmannModelAddsHiddenColumns) {
    const std::string f = tmpPath("vmd_rbm.csv");
    writeFile(f, "a,b,c\nskip,skip,skip\nY0,Y1,Y1\nY1,Y0,Y0\n");
    Ctx ctx;
    // Layers 2 | 3 | 1: the file holds the 3 outer columns, the middle layer
    // of 3 units is added. The states come from the model's vertices.
    Model m(ctx, {2, 2, 4, 4, 4, 2});
    wreg(ctx, "LPT", (size_t) new std::vector<size_t>{2, 3, 1});
    ASSERT_TRUE(runLines(ctx, {dfn(f), "GRA RBM", "LDX DPT;"}));
    CategoricalData* D = table(ctx);
    ASSERT_EQ(D->columns(), 6u);
    EXPECT_EQ(D->H, 3u);
    EXPECT_EQ(reg(ctx, "NXX"), 2u);
    for (size_t r = 0; r < 2; ++r)
        for (size_t c = 3; c < 6; ++c) EXPECT_EQ(D->get(r, c), 65535u);
    EXPECT_EQ(D->categories(3), 4u);
    EXPECT_EQ(D->columnName(3), "H1");
    EXPECT_EQ(D->get(0, 1), 1u);
}

TEST(VmData, DeepBoltzmannTreeAddsHiddenColumnsToo) {
    // Layers 1 | 2 | 2 | 1: the middle layers (4 units) are added, each with
    // the states of the first hidden vertex, vertex 1.
    std::string text = "a,b\nskip,skip\nY1,Y0\n";
    Ctx ctx;
    Model m(ctx, {2, 3, 3, 3, 3, 2});
    wreg(ctx, "LPT", (size_t) new std::vector<size_t>{1, 2, 2, 1});
    wreg(ctx, "EDP", (size_t)&text);
    ASSERT_TRUE(runLines(ctx, {"GRA DBT", "LDX DPT;"}));
    CategoricalData* D = table(ctx);
    ASSERT_EQ(D->columns(), 6u);
    EXPECT_EQ(D->H, 4u);
    EXPECT_EQ(D->categories(2), 3u);
    EXPECT_EQ(D->columnName(5), "H4");
    EXPECT_EQ(D->get(0, 0), 1u);
    EXPECT_EQ(D->get(0, 5), 65535u);
}

TEST(VmData, OtherGraphKindsAddNoColumns) {
    const std::string f = tmpPath("vmd_chain.csv");
    writeFile(f, "a,b,c\nskip,skip,skip\nY0,Y1,Y1\n");
    Ctx ctx;
    Model m(ctx, {2, 2, 2});
    wreg(ctx, "LPT", (size_t) new std::vector<size_t>{2, 3, 1});
    ASSERT_TRUE(runLines(ctx, {dfn(f), "GRA CHAIN", "LDX DPT;"}));
    EXPECT_EQ(table(ctx)->columns(), 3u);
}

TEST(VmData, HostTableWithBoltzmannModelAddsNothing) {
    std::vector<unsigned short> host = {0, 1, 1, 1, 0, 0};
    Ctx ctx;
    Model m(ctx, {2, 2, 4, 4, 4, 2});
    wreg(ctx, "LPT", (size_t) new std::vector<size_t>{2, 3, 1});
    wreg(ctx, "EDP", (size_t)host.data());
    wreg(ctx, "NXX", 2);
    wreg(ctx, "GPX", 12);
    ASSERT_TRUE(runLines(ctx, {"GRA RBM", "LDX DPT;"}));
    EXPECT_EQ(table(ctx)->columns(), 3u);
    // The model's coding: vertex 2 has 4 states, whatever the largest code.
    EXPECT_EQ(table(ctx)->categories(2), 4u);
}

TEST(VmData, ModelPlaceholderIsNoModel) {
    std::string text = "a\nskip\nx\ny\n";
    Ctx ctx;
    wreg(ctx, "MPT", 1);
    wreg(ctx, "EDP", (size_t)&text);
    ASSERT_TRUE(runLines(ctx, {"LDX DPT;"}));
    EXPECT_FALSE(table(ctx)->states_locked);
    EXPECT_EQ(table(ctx)->categories(0), 2u);
}

// ---------------------------------------------------------------- qzrun and the example

TEST(VmData, QzrunLoadsTheFileNamedOnItsCommandLine) {
    const std::string prog = tmpPath("vmd_prog.qz"), data = tmpPath("vmd_cli.csv");
    writeFile(prog, "# loads whatever DFN names\nLDX DPT;\n");
    writeFile(data, kSmall);
    int status = -1;
    const std::string out =
        shell(std::string(QZ_QZRUN) + " " + prog + " -r DFN=" + data + " -p NXX 2>/dev/null", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "NXX=3\n");
}

TEST(VmData, QzrunReportsAMissingFile) {
    const std::string prog = tmpPath("vmd_prog2.qz"), data = tmpPath("vmd_cli_absent.csv");
    writeFile(prog, "LDX DPT;\n");
    std::remove(data.c_str());
    int status = -1;
    const std::string err = shell(std::string(QZ_QZRUN) + " " + prog + " -r DFN=" + data + " 2>&1", &status);
    EXPECT_NE(status, 0);
    EXPECT_NE(err.find("file " + data + " does not exist"), std::string::npos) << err;
}

TEST(VmData, VoteExampleRunsFromTheRepositoryRoot) {
    std::remove("/tmp/qz_vote_copy.csv");
    int status = -1;
    const std::string out =
        shell("cd " + std::string(QZ_SOURCE_DIR) + " && " + QZ_QZRUN + " examples/vote.qz -p NXX 2>&1", &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(out, "NXX=434\n");
    std::vector<std::string> lines = splitLines(readFile(vote()));
    lines.erase(lines.begin() + 1);
    // The copy is the table without the dropped line; the model drew the
    // unknown votes, so a '?' of the file stands as a real vote in the copy.
    const std::vector<std::string> copy = splitLines(readFile("/tmp/qz_vote_copy.csv"));
    ASSERT_EQ(copy.size(), lines.size());
    EXPECT_EQ(copy[0], lines[0]);
    for (size_t i = 1; i < lines.size(); ++i) {
        std::vector<std::string> want, got;
        QZ::readandsplit(lines[i], &want);
        QZ::readandsplit(copy[i], &got);
        ASSERT_EQ(got.size(), want.size()) << i;
        for (size_t j = 0; j < want.size(); ++j) {
            if (want[j] == "?")
                EXPECT_NE(got[j], "?") << i << "," << j;
            else
                EXPECT_EQ(got[j], want[j]) << i << "," << j;
        }
    }
}
