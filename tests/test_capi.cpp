// The C interface and the life cycle of a context: Idle, Running, Wedged.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>

#include <dlfcn.h>

#include <atomic>
#include <omp.h>
#include <stdexcept>
#include <thread>

using namespace qztest;

TEST(CApi, VersionIs10068) { EXPECT_EQ(version(), 10068u); }

TEST(CApi, EntryPointsHaveCLinkage) {
    for (const char* name : {"create_ctx", "ctx_set_code", "run_ctx", "reset_ctx", "ctx_read_reg", "ctx_write_reg",
                             "destroy_ctx", "version", "ctrlchandler", "__run", "discretize",
                             "discretize_precomputed"})
        EXPECT_NE(dlsym(RTLD_DEFAULT, name), nullptr) << name;
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "__run"), (void*)&__run);
}

TEST(CApi, DestroyNullIsNoOp) {
    destroy_ctx(nullptr);
    SUCCEED();
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
    EXPECT_DEATH(
        {
            __run = true;
            ctrlchandler(2);
            ctrlchandler(2);
        },
        "");
}

TEST(CApi, FirstInterruptOnlyAsksToStop) {
    __run = true;
    ctrlchandler(2);
    EXPECT_FALSE(__run);
    __run = true;
}
