// The C interface and the life cycle of a context: Idle, Running, Wedged.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <map>
#include <cstdlib>
#include <omp.h>
#include <stdexcept>
#include <thread>

using namespace qztest;

// Release tracking: the global delete operators of this program (the library
// resolves to them too) note what they free while a FreeTracker lives, so
// that a test can tell which objects a call released.
namespace {

constexpr size_t kMaxFreed = 4096;
std::atomic<bool> g_trackFrees{false};
std::atomic<size_t> g_numFreed{0};
const void* g_freed[kMaxFreed];

void noteFree(const void* p) {
    if (p == nullptr || !g_trackFrees.load(std::memory_order_relaxed)) return;
    const size_t i = g_numFreed.fetch_add(1);
    if (i < kMaxFreed) g_freed[i] = p;
}

struct FreeTracker {
    FreeTracker() {
        g_numFreed = 0;
        g_trackFrees = true;
    }
    ~FreeTracker() { g_trackFrees = false; }
    size_t count() const { return g_numFreed.load(); }
    bool freed(const void* p) const {
        const size_t n = std::min(g_numFreed.load(), kMaxFreed);
        for (size_t i = 0; i < n; ++i)
            if (g_freed[i] == p) return true;
        return false;
    }
};

}  // namespace

void operator delete(void* p) noexcept {
    noteFree(p);
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    noteFree(p);
    std::free(p);
}
void operator delete[](void* p) noexcept {
    noteFree(p);
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    noteFree(p);
    std::free(p);
}

TEST(CApi, VersionIs10068) { EXPECT_EQ(version(), 10068u); }

TEST(CApi, EntryPointsHaveCLinkage) {
    for (const char* name : {"create_ctx", "ctx_set_code", "run_ctx", "reset_ctx", "ctx_read_reg", "ctx_write_reg",
                             "destroy_ctx", "version", "ctrlchandler", "__run", "discretize",
                             "discretize_precomputed"})
        EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "__run"), (void*)&__run);
}

TEST(CApi, DestroyNullIsNoOp) {
    FreeTracker t;
    destroy_ctx(nullptr);
    EXPECT_EQ(t.count(), 0u);
}

TEST(CApi, DestroyReleasesTheContextsResources) {
    void* c = create_ctx();
    std::string* mfn = new std::string("a model file name that is long");
    ASSERT_TRUE(wreg(c, "MFN", (size_t)mfn));
    FreeTracker t;
    destroy_ctx(c);
    EXPECT_TRUE(t.freed(mfn));
    EXPECT_TRUE(t.freed(c));
}

TEST(CApi, ResetReleasesStringsMarginalsAndListButNotLfnOrNam) {
    Ctx c;
    const std::vector<std::string> released = {"MFN", "GPS", "GFN", "DFN", "OTHERFN"};
    const std::vector<std::string> kept = {"LFN", "NAM"};
    std::map<std::string, std::string*> strs;
    for (const auto* names : {&released, &kept})
        for (const std::string& n : *names) {
            strs[n] = new std::string("the string of " + n);
            ASSERT_TRUE(wreg(c, n.c_str(), (size_t)strs[n]));
        }
    std::vector<size_t>* L = new std::vector<size_t>{3, 4};
    double* P = new double[6];
    ASSERT_TRUE(wreg(c, "LPT", (size_t)L));
    ASSERT_TRUE(wreg(c, "PPT", (size_t)P));
    {
        FreeTracker t;
        ASSERT_TRUE(reset_ctx(c));
        for (const std::string& n : released) EXPECT_TRUE(t.freed(strs[n])) << n;
        for (const std::string& n : kept) EXPECT_FALSE(t.freed(strs[n])) << n;
        EXPECT_TRUE(t.freed(L));
        EXPECT_TRUE(t.freed(P));
    }
    for (const char* r : {"MFN", "GPS", "GFN", "DFN", "OTHERFN", "LFN", "NAM", "LPT", "PPT"})
        EXPECT_EQ(reg(c, r), 0u) << r;
    // The two strings reset leaves alone are still whole, and still ours.
    EXPECT_EQ(*strs["LFN"], "the string of LFN");
    EXPECT_EQ(*strs["NAM"], "the string of NAM");
    delete strs["LFN"];
    delete strs["NAM"];
}

TEST(CApi, HostObjectsBehindPointerRegistersAreNotTouched) {
    Ctx c;
    std::vector<size_t>* host = new std::vector<size_t>{1};
    for (const char* r : {"EDP", "EAP", "YYY", "EIP", "HPT", "CBO", "CBP", "CBU", "CPR", "EXT0", "EXT1"})
        ASSERT_TRUE(wreg(c, r, (size_t)host));
    {
        FreeTracker t;
        ASSERT_TRUE(reset_ctx(c));
        EXPECT_FALSE(t.freed(host));
    }
    delete host;
}

TEST(CApi, CodeVectorIsFreedOnlyWhenReplacedByAnother) {
    void* c = create_ctx();
    QZ::vm_t* vm = static_cast<QZ::vm_t*>(c);
    auto* v1 = new std::vector<std::string>{"INC KXX;"};
    auto* v2 = new std::vector<std::string>{"INC MIO;"};
    vm->setCode(v1);
    {
        FreeTracker t;
        vm->setCode(v1);
        EXPECT_FALSE(t.freed(v1));
        vm->setCode(v2);
        EXPECT_TRUE(t.freed(v1));
    }
    ASSERT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "MIO"), 1001u);
    {
        // The last vector outlives the context.
        FreeTracker t;
        destroy_ctx(c);
        EXPECT_FALSE(t.freed(v2));
    }
    EXPECT_EQ(v2->at(0), "INC MIO;");
    delete v2;
}

TEST(CApi, SetCodeCopiesTheHostLinesIntoTheSameVector) {
    Ctx c;
    char line0[] = "INC KXX;";
    char line1[] = "INC KXX;";
    char* lines[] = {line0, line1};
    ASSERT_TRUE(ctx_set_code(c, lines, 2));
    const std::vector<std::string>* first = static_cast<QZ::vm_t*>(c.p)->getCode();
    ASSERT_NE(first, nullptr);
    // The host's strings stay the host's: changing them changes nothing.
    std::strcpy(line0, "INC MIL;");
    ASSERT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 6u);
    EXPECT_EQ(reg(c, "MIL"), 1000u);
    ASSERT_TRUE(ctx_set_code(c, lines, 1));
    EXPECT_EQ(static_cast<QZ::vm_t*>(c.p)->getCode(), first);
    EXPECT_EQ(first->size(), 1u);
    ASSERT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "MIL"), 1001u);
}

TEST(CApi, UnknownRegisterReadGivesAllOnes) {
    Ctx c;
    EXPECT_EQ(reg(c, "FOO"), ~(size_t)0);
    EXPECT_EQ(reg(c, ""), ~(size_t)0);
}

TEST(CApi, UnknownRegisterWriteIsTrueAndStoresNothing) {
    Ctx c;
    QZ::vm_t* vm = static_cast<QZ::vm_t*>(c.p);
    const auto before = vm->VS;
    EXPECT_TRUE(wreg(c, "FOO", 42));
    EXPECT_EQ(vm->VS, before);
}

TEST(CApi, NamesMatchExactlyWithoutAlias) {
    Ctx c;
    EXPECT_EQ(reg(c, "DEVICE"), ~(size_t)0);
    EXPECT_EQ(reg(c, "DEV"), 0u);
    EXPECT_TRUE(wreg(c, "DEVICE", 9));
    EXPECT_EQ(reg(c, "DEV"), 0u);
    EXPECT_TRUE(wreg(c, "DEV", 9));
    EXPECT_EQ(reg(c, "DEV"), 9u);
    // A prefix is no name at this boundary.
    EXPECT_EQ(reg(c, "LN"), ~(size_t)0);
    EXPECT_EQ(reg(c, "LNNX"), ~(size_t)0);
}

TEST(CApi, RunWithoutCodeIsAnEmptyProgram) {
    Ctx c;
    EXPECT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "LNN"), 0u);
}

TEST(CApi, SecondRunAfterFinishedRunDoesNothing) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"INC KXX;", "INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 6u);
    EXPECT_EQ(reg(c, "LNN"), 2u);
    EXPECT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 6u);
}

TEST(CApi, ResetRunsTheSameProgramAgainWithDefaults) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"INC KXX;", "MIO 7", "LAM 0.5"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(reg(c, "MIO"), 7u);
    ASSERT_TRUE(reset_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "MIO"), 1000u);
    EXPECT_EQ(regR(c, "LAM"), 0.0);
    EXPECT_EQ(reg(c, "LNN"), 0u);
    ASSERT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(regR(c, "LAM"), 0.5);
}

TEST(CApi, WritingLnnResumesAtThatLine) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"INC KXX;", "INC MIO;", "INC MIL;"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    ASSERT_TRUE(wreg(c, "LNN", 2));
    ASSERT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(reg(c, "MIO"), 1001u);
    EXPECT_EQ(reg(c, "MIL"), 1002u);
}

TEST(CApi, SetCodeRewindsAndKeepsRegisters) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"INC KXX;"}));
    EXPECT_EQ(reg(c, "LNN"), 1u);
    ASSERT_TRUE(setCode(c, {"INC KXX;", "INC KXX;"}));
    EXPECT_EQ(reg(c, "LNN"), 0u);
    ASSERT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 7u);
}

TEST(CApi, EmptyCodeClearsTheProgram) {
    Ctx c;
    ASSERT_TRUE(setCode(c, {"INC KXX;"}));
    ASSERT_TRUE(ctx_set_code(c, nullptr, 0));
    EXPECT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "LNN"), 0u);
}

TEST(CApi, FailedRunWedgesTheContext) {
    Ctx c;
    ASSERT_TRUE(setCode(c, {"INC KXX;", "ESTIMATE", "INC KXX;"}));
    try {
        run_ctx(c);
        FAIL() << "the run must fail";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "unexpected end of line");
    }
    // Reads still answer, with the registers as they stood.
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(reg(c, "LNN"), 1u);
    EXPECT_FALSE(wreg(c, "KXX", 1));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_FALSE(reset_ctx(c));
    EXPECT_FALSE(run_ctx(c));
    EXPECT_FALSE(setCode(c, {"INC KXX;"}));
    EXPECT_FALSE(reset_ctx(c));
    EXPECT_EQ(reg(c, "KXX"), 5u);
}

TEST(CApi, WedgedContextIsDestroyedWithoutReleasingItsResources) {
    void* c = create_ctx();
    std::string* mfn = new std::string("a model file name that is long");
    ASSERT_TRUE(wreg(c, "MFN", (size_t)mfn));
    ASSERT_TRUE(setCode(c, {"POP KXX;"}));
    EXPECT_THROW(run_ctx(c), std::logic_error);
    {
        FreeTracker t;
        destroy_ctx(c);
        // The reset inside is refused: the string stays allocated.
        EXPECT_FALSE(t.freed(mfn));
        EXPECT_TRUE(t.freed(c));
    }
    EXPECT_EQ(*mfn, "a model file name that is long");
    delete mfn;
}

namespace {

// What the entry points answered when they were called from inside a run,
// through the progress callback that the complete-graph generator calls.
struct InRun {
    void* ctx = nullptr;
    int calls = 0;
    bool running = false, wrote = true, setCode = true, reset = true, ran = true;
    size_t gra = 0, lnn = 0;
} g_inRun;

void probeFromInsideARun(size_t, size_t, const char*) {
    if (g_inRun.calls++ > 0) return;
    void* c = g_inRun.ctx;
    g_inRun.running = static_cast<QZ::vm_t*>(c)->running();
    g_inRun.wrote = wreg(c, "KXX", 99);
    char line[] = "INC MIO;";
    char* lines[] = {line};
    g_inRun.setCode = ctx_set_code(c, lines, 1);
    g_inRun.reset = reset_ctx(c);
    g_inRun.ran = run_ctx(c);
    g_inRun.gra = reg(c, "GRA");
    g_inRun.lnn = reg(c, "LNN");
}

}  // namespace

TEST(CApi, RunningContextRefusesEverythingButReads) {
    Ctx c;
    g_inRun = InRun();
    g_inRun.ctx = c.p;
    ASSERT_TRUE(wreg(c, "CBP", (size_t)&probeFromInsideARun));
    ASSERT_TRUE(runLines(c, {"GRA FULL;", "GVX 6", "LDX GPT;", "INC KXX;"}));
    ASSERT_GT(g_inRun.calls, 0);
    EXPECT_TRUE(g_inRun.running);
    EXPECT_FALSE(g_inRun.wrote);
    EXPECT_FALSE(g_inRun.setCode);
    EXPECT_FALSE(g_inRun.reset);
    EXPECT_FALSE(g_inRun.ran);
    EXPECT_EQ(g_inRun.gra, 5u);
    EXPECT_EQ(g_inRun.lnn, 2u);
    // Nothing that was refused took effect, and the run went on to its end.
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(reg(c, "MIO"), 1000u);
    EXPECT_EQ(reg(c, "LNN"), 4u);
    EXPECT_EQ(reg(c, "GEX"), 15u);
    EXPECT_FALSE(static_cast<QZ::vm_t*>(c.p)->running());
}

TEST(CApi, SeparatorBarIsRefusedAndContextStaysIdle) {
    Ctx c;
    try {
        wreg(c, "SEP", '|');
        FAIL() << "SEP | must be refused";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "separator | not supported");
    }
    EXPECT_EQ(reg(c, "SEP"), (size_t)',');
    EXPECT_TRUE(wreg(c, "SEP", ';'));
    EXPECT_EQ(reg(c, "SEP"), (size_t)';');
    // The context is still usable.
    EXPECT_TRUE(runLines(c, {"INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
}

TEST(CApi, RealsCrossAsBitPatterns) {
    Ctx c;
    ASSERT_TRUE(wreg(c, "LAM", bitsOf(0.5)));
    EXPECT_EQ(reg(c, "LAM"), bitsOf(0.5));
    ASSERT_TRUE(runLines(c, {"ADD LAM LAM;"}));
    EXPECT_EQ(regR(c, "LAM"), 1.0);
}

TEST(CApi, RandomRegistersReadTheirStoredZero) {
    Ctx c;
    EXPECT_EQ(reg(c, "RND"), 0u);
    EXPECT_EQ(reg(c, "UNI"), 0u);
}

TEST(CApi, StringRegistersArePointersToHeapStrings) {
    Ctx c;
    EXPECT_EQ(reg(c, "MFN"), 0u);
    ASSERT_TRUE(runLines(c, {"MFN 'model.qzm'"}));
    EXPECT_EQ(regS(c, "MFN"), "model.qzm");
    std::string* mine = new std::string("other");
    ASSERT_TRUE(wreg(c, "GFN", (size_t)mine));
    EXPECT_EQ(reg(c, "GFN"), (size_t)mine);
}

TEST(CApi, SeedWriteReplacesTheEngine) {
    Ctx a, b;
    wreg(a, "SEED", 1234);
    wreg(b, "SEED", 1234);
    runLines(a, {"MOV GP0 UNI;", "MOV GP1 UNI;"});
    runLines(b, {"MOV GP0 UNI;", "MOV GP1 UNI;"});
    EXPECT_EQ(reg(a, "GP0"), reg(b, "GP0"));
    EXPECT_EQ(reg(a, "GP1"), reg(b, "GP1"));
    EXPECT_NE(reg(a, "GP0"), reg(a, "GP1"));
    // The same seed written again restarts the sequence.
    wreg(a, "SEED", 1234);
    runLines(a, {"MOV GP2 UNI;"});
    EXPECT_EQ(reg(a, "GP2"), reg(b, "GP0"));
}

TEST(CApi, UnseededContextsTakeTheirSeedFromTheClock) {
    // Built in different clock ticks, two contexts draw different sequences.
    Ctx a;
    std::this_thread::sleep_for(std::chrono::microseconds(10));
    Ctx b;
    ASSERT_TRUE(runLines(a, {"MOV GP0 UNI;", "MOV GP1 UNI;"}));
    ASSERT_TRUE(runLines(b, {"MOV GP0 UNI;", "MOV GP1 UNI;"}));
    EXPECT_FALSE(reg(a, "GP0") == reg(b, "GP0") && reg(a, "GP1") == reg(b, "GP1"));
    EXPECT_EQ(reg(a, "SEED"), 0u);
}

TEST(CApi, OmpWriteSetsTheThreadCount) {
    Ctx c;
    const int before = omp_get_max_threads();
    ASSERT_TRUE(wreg(c, "OMP", 3));
    EXPECT_EQ(omp_get_max_threads(), 3);
    EXPECT_EQ(reg(c, "OMP"), 3u);
    // A reset takes the default again from the runtime: the count last set.
    ASSERT_TRUE(reset_ctx(c));
    EXPECT_EQ(reg(c, "OMP"), 3u);
    omp_set_num_threads(before);
}

TEST(CApi, ResetKeepsTheEngineAndReadsSeedZero) {
    Ctx a, b;
    wreg(a, "SEED", 77);
    wreg(b, "SEED", 77);
    runLines(a, {"MOV GP0 UNI;"});
    ASSERT_TRUE(reset_ctx(a));
    EXPECT_EQ(reg(a, "SEED"), 0u);
    // The sequence goes on after the reset instead of starting again.
    ASSERT_TRUE(setCode(a, {"MOV GP1 UNI;"}));
    run_ctx(a);
    runLines(b, {"MOV GP0 UNI;", "MOV GP1 UNI;"});
    EXPECT_EQ(reg(a, "GP1"), reg(b, "GP1"));
}

TEST(CApi, ReadFromAnotherThreadDuringARun) {
    Ctx c;
    // About 200000 passes of a three-line loop.
    wreg(c, "TXX", 200000);
    ASSERT_TRUE(setCode(c, {"KXX 0", "BRR 1", "INC KXX;", "BLT KXX TXX BRR;"}));
    std::atomic<bool> started{false}, done{false};
    std::atomic<int> sawRunning{0}, refusedWrites{0}, refusedRuns{0};
    std::atomic<size_t> maxSeen{0};
    std::thread poller([&] {
        while (!started) std::this_thread::yield();
        while (!done) {
            const size_t k = reg(c, "KXX");
            if (k > maxSeen) maxSeen = k;
            if (static_cast<QZ::vm_t*>(c.p)->running()) {
                ++sawRunning;
                if (!wreg(c, "GP9", 1)) ++refusedWrites;
                if (!run_ctx(c)) ++refusedRuns;
            }
        }
    });
    started = true;
    bool ok = run_ctx(c);
    done = true;
    poller.join();
    EXPECT_TRUE(ok);
    EXPECT_EQ(reg(c, "KXX"), 200000u);
    ASSERT_GT(sawRunning.load(), 0);
    EXPECT_GT(refusedWrites.load(), 0);
    EXPECT_GT(refusedRuns.load(), 0);
    EXPECT_GT(maxSeen.load(), 0u);
    EXPECT_LE(maxSeen.load(), 200000u);
}

TEST(CApi, WrapperClassRunsAProgram) {
    vm_wrapper w;
    ASSERT_NE(w.vm, nullptr);
    w.setCode(new std::vector<std::string>{"INC KXX;", "INC KXX;"});
    w.run();
    EXPECT_EQ(static_cast<QZ::vm_t*>(w.vm)->get(QZ::vm_t::KXX), 6u);
}

TEST(CApiDeath, SecondInterruptAborts) {
    EXPECT_EXIT(
        {
            __run = true;
            ctrlchandler(2);
            ctrlchandler(2);
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST(CApi, FirstInterruptOnlyAsksToStop) {
    __run = true;
    ctrlchandler(2);
    EXPECT_FALSE(__run);
    __run = true;
}
