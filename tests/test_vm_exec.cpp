// The register file and the execution core: defaults, typed access, computed
// registers, arithmetic, moves, jumps, the value stack and the resource checks.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <cstring>
#include <omp.h>
#include <stdexcept>

using namespace qztest;
using QZ::vm_t;

namespace {

vm_t* vmOf(Ctx& c) { return static_cast<vm_t*>(c.p); }

// Registers a host writes before the run, e.g. the sentinel 1 in MPT, which
// stands for a resource and passes a check without being one.
typedef std::vector<std::pair<const char*, size_t>> Presets;

// Runs the lines on a new context and returns the message of the failure, or
// "" when the run succeeded.
std::string failure(const std::vector<std::string>& lines, const Presets& presets = {}) {
    Ctx c;
    for (const auto& p : presets) wreg(c, p.first, p.second);
    try {
        runLines(c, lines);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

// The dry pass over the lines, on the given context.
bool dryRun(Ctx& c, const std::vector<std::string>& lines) {
    vmOf(c)->setCode(new std::vector<std::string>(lines));
    return vmOf(c)->parse(true);
}

}  // namespace

TEST(Registers, DefaultsOfANewContext) {
    Ctx c;
    EXPECT_EQ(reg(c, "IDX"), 3u);
    EXPECT_EQ(reg(c, "VAL"), 5u);
    EXPECT_EQ(reg(c, "MIO"), 1000u);
    EXPECT_EQ(reg(c, "MIL"), 1000u);
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "DEG"), 8u);
    EXPECT_EQ(reg(c, "TXX"), 1u);
    EXPECT_EQ(reg(c, "GNU"), 10u);
    EXPECT_EQ(reg(c, "GBR"), 10u);
    EXPECT_EQ(reg(c, "GRE"), 10u);
    EXPECT_EQ(reg(c, "HED"), 1u);
    EXPECT_EQ(reg(c, "LSN"), 2u);
    EXPECT_EQ(reg(c, "DBG"), 1u);
    EXPECT_EQ(reg(c, "INI"), 1u);
    EXPECT_EQ(reg(c, "SEP"), 44u);
    EXPECT_EQ(reg(c, "MIS"), 63u);
    EXPECT_EQ(reg(c, "MVA"), 255u);
    EXPECT_EQ(reg(c, "EPO"), bitsOf(0.000001));
    EXPECT_EQ(reg(c, "EPL"), bitsOf(0.000001));
    EXPECT_EQ(reg(c, "PAM"), bitsOf(0.1));
    EXPECT_EQ(reg(c, "SDE"), bitsOf(1.0));
    EXPECT_EQ(reg(c, "OMP"), (size_t)omp_get_max_threads());
    EXPECT_EQ(reg(c, "ONE"), 1u);
    EXPECT_EQ(reg(c, "OPT"), 0u);
    EXPECT_EQ(reg(c, "INF"), 0u);
    EXPECT_EQ(reg(c, "GRA"), 0u);
    EXPECT_EQ(reg(c, "REP"), 0u);
    EXPECT_EQ(reg(c, "FMT"), 0u);
    EXPECT_EQ(reg(c, "OVW"), 0u);
    EXPECT_EQ(reg(c, "LNN"), 0u);
    EXPECT_EQ(reg(c, "SEED"), 0u);
    EXPECT_EQ(reg(c, "ERR"), 0u);
    for (const char* p : {"MPT", "GPT", "DPT", "LPT", "PPT", "EDP", "EAP", "YYY", "CBP", "MFN", "DFN", "GFN"})
        EXPECT_EQ(reg(c, p), 0u) << p;
}

TEST(Registers, EveryRegisterHasAnEntry) {
    Ctx c;
    vm_t* vm = vmOf(c);
    EXPECT_EQ(vm->VS.size(), 110u);
    EXPECT_EQ(vm->V2T.size(), 110u);
    for (const auto& row : vm->VARS) EXPECT_NE(reg(c, std::get<0>(row).c_str()), ~(size_t)0) << std::get<0>(row);
}

TEST(Registers, SizesReadBackWithoutAGraph) {
    Ctx c;
    ASSERT_TRUE(wreg(c, "GVX", 12));
    ASSERT_TRUE(wreg(c, "GEX", 30));
    EXPECT_EQ(reg(c, "GVX"), 12u);
    EXPECT_EQ(reg(c, "GEX"), 30u);
}

TEST(Registers, OneIsComputed) {
    Ctx c;
    ASSERT_TRUE(wreg(c, "ONE", 5));
    EXPECT_EQ(reg(c, "ONE"), 1u);
    ASSERT_TRUE(runLines(c, {"MOV KXX ONE;"}));
    EXPECT_EQ(reg(c, "KXX"), 1u);
}

TEST(Registers, TypedViewsOfOneRegister) {
    Ctx c;
    vm_t* vm = vmOf(c);
    vm->set(vm_t::GP0, (size_t)0x1234);
    EXPECT_EQ(vm->getB(vm_t::GP0), true);
    EXPECT_EQ(vm->getC(vm_t::GP0), (char)0x34);
    EXPECT_EQ(vm->getP(vm_t::GP0), (void*)0x1234);
    vm->set(vm_t::GP0, (size_t)0x100);
    EXPECT_EQ(vm->getB(vm_t::GP0), false);
    vm->set(vm_t::KXX, 2.5);
    EXPECT_EQ(vm->get(vm_t::KXX), bitsOf(2.5));
    EXPECT_EQ(vm->getR(vm_t::KXX), 2.5);
    vm->set(vm_t::KXX, (unsigned char)7);
    EXPECT_EQ(vm->get(vm_t::KXX), 7u);
    vm->set(vm_t::KXX, (unsigned short)700);
    EXPECT_EQ(vm->get(vm_t::KXX), 700u);
    vm->set(vm_t::KXX, (unsigned int)70000);
    EXPECT_EQ(vm->get(vm_t::KXX), 70000u);
    EXPECT_THROW(vm->getR(vm_t::UNKNOWN), std::out_of_range);
}

TEST(Registers, SeparatorChecksOnlyTheIntegerWrite) {
    Ctx c;
    vm_t* vm = vmOf(c);
    EXPECT_THROW(vm->set(vm_t::SEP, (size_t)'|'), std::out_of_range);
    EXPECT_EQ(vm->get(vm_t::SEP), (size_t)',');
    EXPECT_THROW(vm->set(vm_t::SEP, (size_t)(0x100 | '|')), std::out_of_range);
    vm->set(vm_t::SEP, '|');
    EXPECT_EQ(vm->get(vm_t::SEP), (size_t)'|');
    // Arithmetic stores go through the integer write and are refused.
    EXPECT_EQ(failure({"GP0 124", "MOV SEP GP0;"}), "separator | not supported");
}

TEST(Exec, IncrementSaturatesAtTwoToThe53) {
    Ctx c;
    const size_t big = (size_t)1 << 53;
    wreg(c, "KXX", big);
    ASSERT_TRUE(runLines(c, {"INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), big);
}

TEST(Exec, DecrementStopsAtZero) {
    Ctx c;
    wreg(c, "KXX", 0);
    ASSERT_TRUE(runLines(c, {"DEC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 0u);
    wreg(c, "KXX", 3);
    ASSERT_TRUE(runLines(c, {"DEC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 2u);
}

TEST(Exec, IncrementOfOtherKindsGoesThroughDouble) {
    Ctx c;
    wregR(c, "GP0", 1.25);
    ASSERT_TRUE(runLines(c, {"INC GP0;", "DEC LAM;"}));
    EXPECT_EQ(regR(c, "GP0"), 2.25);
    EXPECT_EQ(regR(c, "LAM"), -1.0);
    // A boolean becomes the double 1.0 plus its bits read as a double.
    ASSERT_TRUE(runLines(c, {"INC OVW;"}));
    EXPECT_EQ(regR(c, "OVW"), 1.0);
}

TEST(Exec, MoveOfOneIntoAReal) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"MOV GP0 ONE;"}));
    EXPECT_EQ(regR(c, "GP0"), 1.0);
}

TEST(Exec, MoveTruncatesIntoAnInteger) {
    Ctx c;
    wregR(c, "GP0", 2.7);
    ASSERT_TRUE(runLines(c, {"MOV KXX GP0;"}));
    EXPECT_EQ(reg(c, "KXX"), 2u);
}

TEST(Exec, StoresSaturate) {
    Ctx c;
    wregR(c, "GP0", -3.5);
    ASSERT_TRUE(runLines(c, {"MOV KXX GP0;"}));
    EXPECT_EQ(reg(c, "KXX"), 0u);
    wregR(c, "GP0", 1e30);
    ASSERT_TRUE(runLines(c, {"MOV KXX GP0;"}));
    EXPECT_EQ(reg(c, "KXX"), ~(size_t)0);
    wregR(c, "GP0", NAN);
    ASSERT_TRUE(runLines(c, {"MOV KXX GP0;"}));
    EXPECT_EQ(reg(c, "KXX"), 0u);
}

TEST(Exec, AddingABooleanAddsADenormal) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"ADD GP0 HED;"}));
    const double v = regR(c, "GP0");
    EXPECT_GT(v, 0.0);
    EXPECT_LT(v, 1e-300);
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%f", v);
    EXPECT_STREQ(buf, "0.000000");
}

TEST(Exec, MoveReadsABooleanAsItsInteger) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"MOV GP0 HED;", "MOV KXX SEP;"}));
    EXPECT_EQ(regR(c, "GP0"), 1.0);
    EXPECT_EQ(reg(c, "KXX"), 44u);
}

TEST(Exec, ArithmeticInDouble) {
    Ctx c;
    wreg(c, "KXX", 6);
    wreg(c, "MIO", 7);
    wregR(c, "GP0", 0.5);
    ASSERT_TRUE(runLines(c, {"MUL KXX MIO;", "MUL GP0 KXX;", "ADD MIO GP0;"}));
    EXPECT_EQ(reg(c, "KXX"), 42u);
    EXPECT_EQ(regR(c, "GP0"), 21.0);
    EXPECT_EQ(reg(c, "MIO"), 28u);
    // Integers above 2^53 lose low bits on the way through double.
    wreg(c, "KXX", ((size_t)1 << 60) + 1);
    ASSERT_TRUE(runLines(c, {"ADD KXX ONE;"}));
    EXPECT_EQ(reg(c, "KXX"), (size_t)1 << 60);
}

TEST(Exec, MovingAPointerGoesThroughDouble) {
    Ctx c;
    wreg(c, "HPT", ((size_t)1 << 53) + 1);
    ASSERT_TRUE(runLines(c, {"MOV EIP HPT;"}));
    EXPECT_EQ(reg(c, "EIP"), (size_t)1 << 53);
}

TEST(Exec, PushRealPopIntegerKeepsTheBits) {
    Ctx c;
    wregR(c, "GP0", 2.5);
    ASSERT_TRUE(runLines(c, {"PUSH GP0;", "POP KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), bitsOf(2.5));
}

TEST(Exec, PushAndPopMovePointersSafely) {
    Ctx c;
    const size_t p = ((size_t)1 << 53) + 1;
    wreg(c, "HPT", p);
    ASSERT_TRUE(runLines(c, {"PUSH HPT;", "POP EIP;"}));
    EXPECT_EQ(reg(c, "EIP"), p);
}

TEST(Exec, PopByTheKindOfThePair) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"NAM 'xyz'", "PUSH NAM;", "PUSH HED;", "PUSH KXX;", "POP GP0;", "POP MIO;", "POP LFN;"}));
    // The integer goes in by the integer write, whatever the target's kind.
    EXPECT_EQ(reg(c, "GP0"), 4u);
    EXPECT_EQ(reg(c, "MIO"), 1u);
    EXPECT_EQ(regS(c, "LFN"), "xyz");
    EXPECT_EQ(reg(c, "LFN"), reg(c, "NAM"));
}

TEST(Exec, PopOfACharacterChangesNothing) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"PUSH SEP;", "POP KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    // The pair was taken off all the same.
    EXPECT_TRUE(vmOf(c)->STACK.empty());
}

TEST(Exec, PopOfAnEmptyStackFails) { EXPECT_EQ(failure({"POP KXX;"}), "POP on an empty stack"); }

TEST(Exec, StackSurvivesRunsUntilCleared) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"PUSH KXX;", "PUSH MIO;"}));
    ASSERT_TRUE(runLines(c, {"POP GP1;"}));
    EXPECT_EQ(reg(c, "GP1"), 1000u);
    ASSERT_TRUE(runLines(c, {"CLEARSTACK;"}));
    EXPECT_TRUE(vmOf(c)->STACK.empty());
    ASSERT_TRUE(runLines(c, {"PUSH KXX;"}));
    ASSERT_TRUE(reset_ctx(c));
    EXPECT_TRUE(vmOf(c)->STACK.empty());
}

TEST(Exec, BranchIfLessContinuesAfterTheTarget) {
    Ctx c;
    wregR(c, "GP0", 1.0);
    wregR(c, "GP1", 2.0);
    wreg(c, "BRR", 3);
    ASSERT_TRUE(runLines(c, {"BLT GP0 GP1 BRR;", "INC KXX;", "INC KXX;", "INC KXX;", "INC MIO;"}));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "MIO"), 1001u);
}

TEST(Exec, BranchIfLessNotTaken) {
    Ctx c;
    wregR(c, "GP0", 2.0);
    wregR(c, "GP1", 2.0);
    wreg(c, "BRR", 3);
    ASSERT_TRUE(runLines(c, {"BLT GP0 GP1 BRR;", "INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
}

TEST(Exec, UnconditionalBranch) {
    Ctx c;
    wreg(c, "BRR", 2);
    ASSERT_TRUE(runLines(c, {"BRA BRR;", "INC KXX;", "INC KXX;", "INC MIO;"}));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "MIO"), 1001u);
    // A real operand is truncated.
    Ctx d;
    wregR(d, "GP0", 1.9);
    ASSERT_TRUE(runLines(d, {"BRA GP0;", "INC KXX;", "INC MIO;"}));
    EXPECT_EQ(reg(d, "KXX"), 4u);
    EXPECT_EQ(reg(d, "MIO"), 1001u);
}

TEST(Exec, BranchIfNotZero) {
    Ctx c;
    wreg(c, "BRR", 3);
    ASSERT_TRUE(runLines(c, {"BNZ DRY BRR;", "INC KXX;", "BNZ ONE BRR;", "INC MIO;", "INC MIL;"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(reg(c, "MIO"), 1000u);
    EXPECT_EQ(reg(c, "MIL"), 1001u);
}

TEST(Exec, BranchIfNotEqual) {
    Ctx c;
    wreg(c, "BRR", 3);
    wreg(c, "MIO", 7);
    wreg(c, "MIL", 7);
    ASSERT_TRUE(runLines(c, {"BNE MIO MIL BRR;", "INC KXX;", "BNE MIO KXX BRR;", "INC TXX;", "INC GNU;"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(reg(c, "TXX"), 1u);
    EXPECT_EQ(reg(c, "GNU"), 11u);
}

TEST(Exec, NegativeJumpGoesToLineOne) {
    Ctx c;
    wregR(c, "GP0", -4.0);
    ASSERT_TRUE(runLines(c, {"BRR 0", "INC KXX;", "BNE KXX MIO GP0;", "INC MIL;"}));
    // GP0 saturates to line 0, so the loop goes on at line 1 until KXX reaches MIO.
    EXPECT_EQ(reg(c, "KXX"), 1000u);
    EXPECT_EQ(reg(c, "MIL"), 1001u);
}

TEST(Exec, AssignmentToTheLineNumberJumps) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"LNN 2", "INC KXX;", "INC KXX;", "INC MIO;"}));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "MIO"), 1001u);
}

TEST(Exec, JumpPastTheEndEndsTheRun) {
    Ctx c;
    wreg(c, "BRR", 100);
    ASSERT_TRUE(runLines(c, {"BRA BRR;", "INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "LNN"), 101u);
}

TEST(Exec, UniformDrawsOnEveryRead) {
    Ctx c;
    wreg(c, "SEED", 3);
    ASSERT_TRUE(runLines(c, {"MOV GP0 UNI;", "MOV GP1 UNI;", "MOV KXX UNI;"}));
    const double a = regR(c, "GP0"), b = regR(c, "GP1");
    EXPECT_GE(a, 0.0);
    EXPECT_LT(a, 1.0);
    EXPECT_GE(b, 0.0);
    EXPECT_LT(b, 1.0);
    EXPECT_NE(a, b);
    EXPECT_EQ(reg(c, "KXX"), 0u);
}

TEST(Exec, NormalDrawsUseTheDeviation) {
    Ctx c, d;
    wreg(c, "SEED", 9);
    wreg(d, "SEED", 9);
    wregR(d, "SDE", 4.0);
    ASSERT_TRUE(runLines(c, {"MOV GP0 RND;"}));
    ASSERT_TRUE(runLines(d, {"MOV GP0 RND;"}));
    EXPECT_NE(regR(c, "GP0"), 0.0);
    EXPECT_DOUBLE_EQ(regR(d, "GP0"), 4.0 * regR(c, "GP0"));
}

TEST(Exec, BranchOperandsDrawEvenWhenNotTaken) {
    Ctx a, b;
    wreg(a, "SEED", 5);
    wreg(b, "SEED", 5);
    ASSERT_TRUE(runLines(a, {"BNZ DRY UNI;", "MOV GP0 UNI;"}));
    ASSERT_TRUE(runLines(b, {"MOV GP1 UNI;", "MOV GP0 UNI;"}));
    EXPECT_EQ(reg(a, "GP0"), reg(b, "GP0"));
}

TEST(Exec, NumberReadDrawsForAnIntegerView) {
    Ctx a, b;
    wreg(a, "SEED", 8);
    wreg(b, "SEED", 8);
    // ADD reads UNI as a real draw first, whatever it does with it.
    ASSERT_TRUE(runLines(a, {"ADD KXX UNI;", "MOV GP0 UNI;"}));
    ASSERT_TRUE(runLines(b, {"MOV GP1 UNI;", "MOV GP0 UNI;"}));
    EXPECT_EQ(reg(a, "GP0"), reg(b, "GP0"));
    EXPECT_EQ(reg(a, "KXX"), 4u);
}

TEST(Exec, SameSeedSameProgramSameDraws) {
    Ctx a, b;
    const std::vector<std::string> prog = {"SEED 42", "MOV GP0 UNI;", "MOV GP1 RND;", "ADD GP2 UNI;"};
    ASSERT_TRUE(runLines(a, prog));
    ASSERT_TRUE(runLines(b, prog));
    for (const char* r : {"GP0", "GP1", "GP2"}) EXPECT_EQ(reg(a, r), reg(b, r)) << r;
}

TEST(Exec, SeedThroughMoveReseeds) {
    Ctx a, b;
    wreg(a, "GP0", bitsOf(17.0));
    ASSERT_TRUE(runLines(a, {"MOV SEED GP0;", "MOV GP1 UNI;"}));
    ASSERT_TRUE(runLines(b, {"SEED 17", "MOV GP1 UNI;"}));
    EXPECT_EQ(reg(a, "GP1"), reg(b, "GP1"));
    EXPECT_EQ(reg(a, "SEED"), 17u);
}

TEST(Exec, ThreadCountThroughProgram) {
    Ctx c;
    const int before = omp_get_max_threads();
    ASSERT_TRUE(runLines(c, {"OMP 1"}));
    EXPECT_EQ(omp_get_max_threads(), 1);
    omp_set_num_threads(before);
}

TEST(Exec, ResultRegisterTakesAnyView) {
    Ctx c;
    vm_t* vm = vmOf(c);
    vm->set(vm_t::RES, (size_t)1234);
    EXPECT_EQ(reg(c, "RES"), 1234u);
    vm->set(vm_t::RES, -1.0);
    EXPECT_EQ(regR(c, "RES"), -1.0);
    ASSERT_TRUE(runLines(c, {"MOV GP0 RES;"}));
    EXPECT_EQ(regR(c, "GP0"), -1.0);
}

TEST(Exec, NothingWritesTheErrorRegister) {
    Ctx c;
    try {
        runLines(c, {"INC KXX;", "POP KXX;"});
    } catch (const std::exception&) {
    }
    EXPECT_EQ(reg(c, "ERR"), 0u);
}

TEST(Exec, ResourceInstructionsCheckTheirResourcesInOrder) {
    EXPECT_EQ(failure({"ESTIMATE;"}), "no model loaded");
    EXPECT_EQ(failure({"STATS;"}), "no model loaded");
    EXPECT_EQ(failure({"MODEL;"}), "no graph loaded");
    EXPECT_EQ(failure({"INFER;"}), "no graph loaded");
    EXPECT_EQ(failure({"PREDICT;"}), "no model loaded");
    EXPECT_EQ(failure({"SCORE;"}), "no model loaded");
    EXPECT_EQ(failure({"SAMPLE;"}), "no model loaded");
    EXPECT_EQ(failure({"STGRAPH;"}), "no graph loaded");
    EXPECT_EQ(failure({"BOLTZMANNTREE;"}), "no graph loaded");
    EXPECT_EQ(failure({"JUNCTIONTREE;"}), "no graph loaded");
    EXPECT_EQ(failure({"BASEGRAPH;"}), "no graph loaded");
    EXPECT_EQ(failure({"INITLATENT;"}), "no graph loaded");
    EXPECT_EQ(failure({"INITGAUSS;"}), "no model loaded");
    EXPECT_EQ(failure({"INITZERO;"}), "no model loaded");
    EXPECT_EQ(failure({"CLOSEDFORM;"}), "no graph loaded");
}

TEST(Exec, SecondResourceCheck) {
    EXPECT_EQ(failure({"STATS;"}, {{"MPT", 1}}), "no graph loaded");
    EXPECT_EQ(failure({"MODEL;"}, {{"GPT", 1}}), "no data loaded");
    EXPECT_EQ(failure({"INFER;"}, {{"GPT", 1}}), "no model loaded");
    EXPECT_EQ(failure({"PREDICT;"}, {{"MPT", 1}}), "no data loaded");
    EXPECT_EQ(failure({"SCORE;"}, {{"MPT", 1}}), "no data loaded");
    EXPECT_EQ(failure({"INITLATENT;"}, {{"GPT", 1}}), "no data loaded");
    EXPECT_EQ(failure({"CLOSEDFORM;"}, {{"GPT", 1}}), "no model loaded");
}

TEST(Exec, FailedCheckChangesNothing) {
    Ctx c;
    wreg(c, "MPT", 1);
    const auto before = vmOf(c)->VS;
    EXPECT_THROW(runLines(c, {"STATS;"}), std::logic_error);
    EXPECT_EQ(vmOf(c)->VS, before);
}

TEST(Exec, DryPassChecksButRunsNoBody) {
    Ctx c;
    wreg(c, "MPT", 1);
    wreg(c, "GPT", 1);
    wreg(c, "DPT", 1);
    const std::vector<std::string> noEffect = {"ESTIMATE;",  "PREDICT;",      "SCORE;",     "STGRAPH;",
                                               "BOLTZMANNTREE;", "JUNCTIONTREE;", "BASEGRAPH;", "INITLATENT;",
                                               "INITGAUSS;", "INITZERO;",     "CLOSEDFORM;", "STATS;"};
    auto before = vmOf(c)->VS;
    ASSERT_TRUE(dryRun(c, noEffect));
    before[vm_t::LNN] = noEffect.size();
    EXPECT_EQ(vmOf(c)->VS, before);
    // The instructions that make a resource leave the sentinel in its register.
    Ctx d;
    wreg(d, "GPT", 1);
    wreg(d, "DPT", 1);
    ASSERT_TRUE(dryRun(d, {"MODEL;"}));
    EXPECT_EQ(reg(d, "MPT"), 1u);
    ASSERT_TRUE(dryRun(d, {"DEL DPT;", "SAMPLE;"}));
    EXPECT_EQ(reg(d, "DPT"), 1u);
    ASSERT_TRUE(dryRun(d, {"INFER;"}));
    EXPECT_EQ(reg(d, "PPT"), 1u);
    // The checks run in the dry pass as well.
    Ctx e;
    try {
        dryRun(e, {"INITLATENT;"});
        FAIL();
    } catch (const std::logic_error& ex) {
        EXPECT_STREQ(ex.what(), "no graph loaded");
    }
}

TEST(Exec, ResourceMessagesOfLoadStoreAndRelease) {
    EXPECT_EQ(failure({"LDX KXX;"}), "cannot load unknown data");
    EXPECT_EQ(failure({"LDX DPT;"}), "9 requires a data filename");
    EXPECT_EQ(failure({"LDX MPT;"}), "9 requires a loaded model");
    EXPECT_EQ(failure({"LDX GPT;"}), "9 requires an adjacency matrix file");
    EXPECT_EQ(failure({"MFN 'no_such_model'", "LDX MPT;"}), "file no_such_model does not exist");
    EXPECT_EQ(failure({"GFN 'no_such_graph'", "LDX GPT;"}), "file no_such_graph does not exist");
    EXPECT_EQ(failure({"STORE KXX;"}), "cannot store");
    EXPECT_EQ(failure({"STORE DPT;"}), "no data loaded");
    EXPECT_EQ(failure({"STORE MPT;"}), "no data loaded");
    EXPECT_EQ(failure({"STORE GPT;"}), "graph of graphfile missing");
    EXPECT_EQ(failure({"FMT FG;", "STORE GPT;"}), "model or graph missing");
    EXPECT_EQ(failure({"DEL KXX;"}), "cannot release memory of unknown type");
}

TEST(Exec, ReleaseOfStringsAndLists) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"MFN 'a'", "GFN 'b'", "DFN 'c'", "GPS 'd'", "LFN 'e'", "NAM 'f'"}));
    wreg(c, "LPT", (size_t) new std::vector<size_t>{2, 3});
    ASSERT_TRUE(runLines(c, {"DEL MFN;", "DEL GFN;", "DEL DFN;", "DEL GPS;", "DEL LFN;", "DEL NAM;", "DEL LPT;"}));
    for (const char* r : {"MFN", "GFN", "DFN", "GPS", "LFN", "NAM", "LPT"}) EXPECT_EQ(reg(c, r), 0u) << r;
    // Releasing what is not there is no failure.
    ASSERT_TRUE(runLines(c, {"DEL MFN;", "DEL LPT;", "DEL PPT;", "DEL DPT;", "DEL MPT;", "DEL GPT;"}));
}

TEST(Exec, ReleaseOfOtherFileNameLooksAtTheDataFileName) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"OTHERFN 'x'"}));
    const std::string* s = reinterpret_cast<const std::string*>(reg(c, "OTHERFN"));
    ASSERT_TRUE(runLines(c, {"DEL OTHERFN;"}));
    EXPECT_EQ(reg(c, "OTHERFN"), 0u);
    // With DFN unset the string was abandoned, not freed.
    EXPECT_EQ(*s, "x");
    delete s;
    ASSERT_TRUE(runLines(c, {"DFN 'y'", "OTHERFN 'z'", "DEL OTHERFN;"}));
    EXPECT_EQ(reg(c, "OTHERFN"), 0u);
}

TEST(Exec, GraphConversionsStepAsideForTheSentinels) {
    // With every resource a sentinel the checks pass and the body is reached;
    // there is no graph to convert, and no base to give.
    for (const char* mn : {"STGRAPH", "BOLTZMANNTREE", "JUNCTIONTREE", "BASEGRAPH"}) {
        Ctx c;
        for (const char* r : {"MPT", "GPT", "DPT"}) wreg(c, r, 1);
        wregR(c, "RES", 2.5);
        ASSERT_TRUE(runLines(c, {"TXX 3", std::string(mn) + ";"})) << mn;
        EXPECT_EQ(reg(c, "GPT"), 1u) << mn;
        EXPECT_EQ(reg(c, "MPT"), 1u) << mn;
        if (std::string(mn) == "BASEGRAPH") EXPECT_EQ(reg(c, "RES"), 0u);
        else EXPECT_EQ(regR(c, "RES"), 2.5) << mn;
    }
}

TEST(Exec, LoadChecksLookAtTheHostPointersAndTheGraphKind) {
    // A dry pass, so that nothing is read: only the checks decide.
    const std::vector<std::vector<std::string>> passing = {
        {"EDP 4096", "LDX DPT;"},                                // a host table needs no file name
        {"EDP 4096", "DFN 'no/such/data.csv'", "LDX DPT;"},      // nor a file that exists
        {"GRA CHAIN;", "LDX GPT;"},                              // a generated graph needs no file
        {"GRA CHAIN;", "GFN 'no/such/graph.csv'", "LDX GPT;"},   // and looks at none
        {"EAP 4096", "LDX GPT;"},                                // a host edge list needs no file
        {"EAP 4096", "GFN 'no/such/graph.csv'", "LDX GPT;"}};
    for (const auto& lines : passing) {
        Ctx c;
        EXPECT_TRUE(dryRun(c, lines)) << lines.back();
        const char* r = lines.back() == "LDX DPT;" ? "DPT" : "GPT";
        EXPECT_EQ(reg(c, r), 1u) << lines[0];
    }
    EXPECT_EQ(failure({"DFN 'no_such_data'", "LDX DPT;"}), "file no_such_data does not exist");
    EXPECT_EQ(failure({"GRA RBM;", "LDX MPT;"}), "9 requires a loaded model");
}

TEST(Exec, StoreChecksInOrder) {
    const std::string existing = "'" + std::string(QZ_SOURCE_DIR) + "/README.md'";
    EXPECT_EQ(failure({"STORE DPT;"}, {{"DPT", 1}}), "no data filename provided");
    EXPECT_EQ(failure({"DFN " + existing, "STORE DPT;"}, {{"DPT", 1}}), "overwrite disabled but modelfile exists");
    EXPECT_EQ(failure({"STORE MPT;"}, {{"MPT", 1}}), "no model filename provided");
    EXPECT_EQ(failure({"MFN " + existing, "STORE MPT;"}, {{"MPT", 1}}), "overwrite disabled but modelfile exists");
    EXPECT_EQ(failure({"FMT FG;", "GFN 'g.fg'", "STORE GPT;"}, {{"GPT", 1}}), "model or graph missing");
    EXPECT_EQ(failure({"FMT FG;", "GFN 'g.fg'", "STORE GPT;"}, {{"MPT", 1}}), "model or graph missing");
    EXPECT_EQ(failure({"FMT FG;", "STORE GPT;"}, {{"MPT", 1}, {"GPT", 1}}), "model or graph missing");
    EXPECT_EQ(failure({"STORE GPT;"}, {{"GPT", 1}}), "graph of graphfile missing");
    EXPECT_EQ(failure({"GFN 'g.adj'", "STORE GPT;"}, {{"MPT", 1}}), "graph of graphfile missing");
    EXPECT_EQ(failure({"GFN " + existing, "STORE GPT;"}, {{"MPT", 1}, {"GPT", 1}}),
              "overwrite disabled but graphfile exists");
}

TEST(Exec, DryStorePassesTheChecksAndWritesNothing) {
    const std::string d = tmpPath("dry_store.csv"), m = tmpPath("dry_store.qzm"), g = tmpPath("dry_store.fg");
    for (const std::string& f : {d, m, g}) std::remove(f.c_str());
    Ctx c;
    for (const char* r : {"DPT", "MPT", "GPT"}) wreg(c, r, 1);
    ASSERT_TRUE(dryRun(c, {"DFN '" + d + "'", "MFN '" + m + "'", "GFN '" + g + "'", "FMT FG;", "STORE DPT;",
                           "STORE MPT;", "STORE GPT;"}));
    for (const std::string& f : {d, m, g}) EXPECT_FALSE(std::ifstream(f).good()) << f;
    // An existing file passes with OVW.
    const std::string existing = "'" + std::string(QZ_SOURCE_DIR) + "/README.md'";
    Ctx e;
    for (const char* r : {"DPT", "MPT", "GPT"}) wreg(e, r, 1);
    ASSERT_TRUE(dryRun(e, {"OVW true", "DFN " + existing, "MFN " + existing, "GFN " + existing, "STORE DPT;",
                           "STORE MPT;", "STORE GPT;"}));
}

TEST(Exec, ReleaseOfSentinelsClearsTheRegisters) {
    Ctx c;
    for (const char* r : {"DPT", "MPT", "GPT", "PPT"}) wreg(c, r, 1);
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "DEL MPT;", "DEL GPT;", "DEL PPT;"}));
    for (const char* r : {"DPT", "MPT", "GPT", "PPT"}) EXPECT_EQ(reg(c, r), 0u) << r;
}

TEST(Exec, DryPassReleasesStringsAndLists) {
    Ctx c;
    wreg(c, "LPT", (size_t) new std::vector<size_t>{1, 2});
    ASSERT_TRUE(dryRun(c, {"MFN 'a'", "NAM 'b'", "DEL MFN;", "DEL NAM;", "DEL LPT;"}));
    for (const char* r : {"MFN", "NAM", "LPT"}) EXPECT_EQ(reg(c, r), 0u) << r;
}

TEST(Exec, PopOfAnIntegerGoesThroughTheIntegerWrite) {
    // The side effects of the integer write apply: '|' is refused for SEP ...
    Ctx c;
    wreg(c, "KXX", '|');
    try {
        runLines(c, {"PUSH KXX;", "POP SEP;"});
        FAIL();
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "separator | not supported");
    }
    EXPECT_EQ(reg(c, "SEP"), (size_t)',');
    // ... and SEED reseeds.
    Ctx a, b;
    wreg(a, "KXX", 17);
    ASSERT_TRUE(runLines(a, {"PUSH KXX;", "POP SEED;", "MOV GP0 UNI;"}));
    ASSERT_TRUE(runLines(b, {"SEED 17", "MOV GP0 UNI;"}));
    EXPECT_EQ(reg(a, "GP0"), reg(b, "GP0"));
}

TEST(Exec, BranchOperandsAreReadInOrder) {
    // BLT UNI UNI BRR jumps exactly when the first draw is below the second:
    // find one seed of each sort with the machine's engine and distribution.
    size_t up = 0, down = 0;
    for (size_t seed = 1; (up == 0 || down == 0) && seed < 100; ++seed) {
        std::mt19937 g((std::mt19937::result_type)seed);
        std::uniform_real_distribution<double> U(0.0, 1.0);
        const double first = U(g), second = U(g);
        if (first < second && up == 0) up = seed;
        if (first > second && down == 0) down = seed;
    }
    ASSERT_NE(up, 0u);
    ASSERT_NE(down, 0u);
    for (const size_t seed : {up, down}) {
        Ctx c;
        wreg(c, "SEED", seed);
        wreg(c, "BRR", 1);
        ASSERT_TRUE(runLines(c, {"BLT UNI UNI BRR;", "INC KXX;", "INC MIO;"}));
        EXPECT_EQ(reg(c, "KXX"), seed == up ? 4u : 5u) << seed;
        EXPECT_EQ(reg(c, "MIO"), 1001u);
    }
}

TEST(Registers, SentinelsAnswerTheComputedRegisters) {
    Ctx c;
    wreg(c, "GVX", 7);
    wreg(c, "GEX", 8);
    wreg(c, "DIM", 9);
    wreg(c, "NXX", 10);
    wreg(c, "MPT", 1);
    EXPECT_EQ(reg(c, "GVX"), 1u);
    EXPECT_EQ(reg(c, "GEX"), 1u);
    EXPECT_EQ(reg(c, "DIM"), 1u);
    EXPECT_EQ(reg(c, "NXX"), 10u);
    wreg(c, "DPT", 1);
    EXPECT_EQ(reg(c, "NXX"), 1u);
    wreg(c, "MPT", 0);
    wreg(c, "DPT", 0);
    EXPECT_EQ(reg(c, "GVX"), 7u);
    EXPECT_EQ(reg(c, "GEX"), 8u);
    EXPECT_EQ(reg(c, "DIM"), 9u);
    EXPECT_EQ(reg(c, "NXX"), 10u);
}

TEST(Exec, ArithmeticStoresSaturate) {
    Ctx c;
    wreg(c, "KXX", (size_t)1 << 63);
    wregR(c, "GP0", -10.0);
    wreg(c, "MIO", 3);
    ASSERT_TRUE(runLines(c, {"MUL KXX KXX;", "ADD MIO GP0;"}));
    EXPECT_EQ(reg(c, "KXX"), ~(size_t)0);
    EXPECT_EQ(reg(c, "MIO"), 0u);
}

TEST(Exec, SetDoesNothing) {
    Ctx c;
    const auto before = vmOf(c)->VS;
    ASSERT_TRUE(runLines(c, {"SET;"}));
    auto after = vmOf(c)->VS;
    after[vm_t::LNN] = 0;
    EXPECT_EQ(after, before);
}
