// The program text: line grammar, setters, assignments, operands and every
// failure of the scanner.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>

#include <cmath>
#include <stdexcept>

using namespace qztest;
using QZ::vm_t;

namespace {

// Runs the lines on a new context and returns the message of the exception
// of type E that the run raised, or "" when the run succeeded.
template <typename E> std::string failure(const std::vector<std::string>& lines, void* ctx = nullptr) {
    Ctx own;
    void* c = ctx ? ctx : own.p;
    try {
        runLines(c, lines);
    } catch (const E& e) {
        return e.what();
    }
    return "";
}

vm_t* vmOf(Ctx& c) { return static_cast<vm_t*>(c.p); }

void runFresh(const std::vector<std::string>& lines) {
    Ctx c;
    runLines(c, lines);
}

}  // namespace

TEST(Parser, AssignmentWithoutTerminator) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"LAM 0.5"}));
    EXPECT_EQ(regR(c, "LAM"), 0.5);
}

TEST(Parser, InstructionWithoutTerminatorFails) {
    EXPECT_EQ(failure<std::logic_error>({"ESTIMATE"}), "unexpected end of line");
    EXPECT_EQ(failure<std::logic_error>({"INC KXX"}), "unexpected end of line");
}

TEST(Parser, InstructionRunsAtItsTerminator) {
    // The instruction is executed: its resource check reports the missing model.
    EXPECT_EQ(failure<std::logic_error>({"ESTIMATE;"}), "no model loaded");
}

TEST(Parser, TextBehindTerminatorIsIgnored) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"INC KXX; INC KXX; this is no program text %%%"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(failure<std::logic_error>({"ESTIMATE; ???"}), "no model loaded");
}

TEST(Parser, TerminatorAloneDoesNothing) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {";", "; INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 4u);
}

TEST(Parser, EstimateWithBlankBeforeTerminatorStillRuns) {
    // No operand, so the blank has nothing to reset.
    EXPECT_EQ(failure<std::logic_error>({"ESTIMATE ;"}), "no model loaded");
}

TEST(Parser, AddTwoRegisters) {
    Ctx c;
    wregR(c, "GP0", 1.5);
    wregR(c, "GP1", 2.0);
    ASSERT_TRUE(runLines(c, {"ADD GP0 GP1;"}));
    EXPECT_EQ(regR(c, "GP0"), 3.5);
}

TEST(Parser, UnknownSecondOperandIsASyntaxError) {
    EXPECT_EQ(failure<std::logic_error>({"ADD GP0 FOO;"}), "unknown syntax error");
}

TEST(Parser, UnknownFirstOperandFailsAtTheSecond) {
    EXPECT_EQ(failure<std::logic_error>({"ADD FOO GP1;"}), "cannot parse argument of op 14");
    EXPECT_EQ(failure<std::logic_error>({"BLT FOO GP1 GP2;"}), "cannot parse argument of op 16");
}

TEST(Parser, UnknownThirdOperandIsASyntaxError) {
    EXPECT_EQ(failure<std::logic_error>({"BLT GP0 GP1 FOO;"}), "unknown syntax error");
}

TEST(Parser, UnknownSingleOperandIsASyntaxError) {
    EXPECT_EQ(failure<std::logic_error>({"INC FOO;"}), "unknown syntax error");
}

TEST(Parser, MissingOperandNamesTheOp) {
    EXPECT_EQ(failure<std::logic_error>({"INC"}), "cannot parse argument of op 21");
    EXPECT_EQ(failure<std::logic_error>({"INC   "}), "cannot parse argument of op 21");
    EXPECT_EQ(failure<std::logic_error>({"MOV KXX"}), "cannot parse argument of op 18");
    EXPECT_EQ(failure<std::logic_error>({"BNE KXX MIO"}), "cannot parse argument of op 45");
}

TEST(Parser, IncWithTerminatorAsOperandReadsRegister200) {
    // ';' is no blank: the operand lookup yields the unknown register, which
    // the instruction then reads from the map.
    EXPECT_THROW(runFresh({"INC;"}), std::out_of_range);
    Ctx c;
    try {
        runLines(c, {"INC;"});
        FAIL();
    } catch (const std::out_of_range&) {
    }
    EXPECT_EQ(vmOf(c)->target, vm_t::UNKNOWN);
}

TEST(Parser, SetterTakesNameOrNumber) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA CHAIN;"}));
    EXPECT_EQ(reg(c, "GRA"), 1u);
    Ctx d;
    ASSERT_TRUE(runLines(d, {"GRA 1;"}));
    EXPECT_EQ(reg(d, "GRA"), 1u);
    Ctx e;
    ASSERT_TRUE(runLines(e, {"GRA 13;"}));
    EXPECT_EQ(reg(e, "GRA"), 13u);
}

TEST(Parser, SetterNumberWithBlankBeforeTerminatorIsNotTaken) {
    EXPECT_EQ(failure<std::logic_error>({"GRA 1 ;"}), "parser error");
}

TEST(Parser, SetterWithoutTerminatorTakesNumberAtLineEnd) {
    Ctx c;
    // Without a ';' the value range ends one short of the line: "1" of "12" is read.
    ASSERT_TRUE(runLines(c, {"GRA 12"}));
    EXPECT_EQ(reg(c, "GRA"), 1u);
}

TEST(Parser, SetterWithTerminatorAsValueTakesTheFirstRow) {
    Ctx c;
    wreg(c, "GRA", 5);
    ASSERT_TRUE(runLines(c, {"GRA ;"}));
    EXPECT_EQ(reg(c, "GRA"), 0u);
}

TEST(Parser, SetterTakenByNumberSkipsTheTerminator) {
    // The position moves on by the length of the row's text ("FG"), which
    // passes the ';' of "FMT 2;": the pending instruction never runs.
    EXPECT_EQ(failure<std::logic_error>({"ESTIMATE FMT 2;"}), "unexpected end of line");
    // Taken by name, the ';' is reached and the instruction runs.
    EXPECT_EQ(failure<std::logic_error>({"ESTIMATE FMT FG;"}), "no model loaded");
}

TEST(Parser, SetterValueRunsToTheLineEnd) {
    // The number is read up to the end of the line, so text behind the ';'
    // spoils it.
    EXPECT_EQ(failure<std::logic_error>({"REP 0;INC KXX;"}), "parser error");
}

TEST(Parser, SetterByNameGoesOnScanning) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA GRID INC KXX;"}));
    EXPECT_EQ(reg(c, "GRA"), 2u);
    EXPECT_EQ(reg(c, "KXX"), 5u);
}

TEST(Parser, SetterAtLineEndFails) {
    EXPECT_EQ(failure<std::logic_error>({"GRA"}), "cannot set graph");
    EXPECT_EQ(failure<std::logic_error>({"GRA   "}), "cannot set graph");
    EXPECT_EQ(failure<std::logic_error>({"REP"}), "cannot set rep");
    EXPECT_EQ(failure<std::logic_error>({"FMT"}), "cannot set graph format");
    EXPECT_EQ(failure<std::logic_error>({"idx_t"}), "cannot set idx_t");
    EXPECT_EQ(failure<std::logic_error>({"val_t "}), "cannot set val_t");
    EXPECT_EQ(failure<std::logic_error>({"ALG"}), "cannot set ALG");
}

TEST(Parser, SetterWithUnknownValueIsAParserError) {
    EXPECT_EQ(failure<std::logic_error>({"GRA TORUS;"}), "parser error");
    EXPECT_EQ(failure<std::logic_error>({"REP CUBIC;"}), "parser error");
    EXPECT_EQ(failure<std::logic_error>({"FMT DOT;"}), "parser error");
    EXPECT_EQ(failure<std::logic_error>({"idx_t UINT128;"}), "parser error");
    EXPECT_EQ(failure<std::logic_error>({"val_t FLT16;"}), "parser error");
    EXPECT_EQ(failure<std::logic_error>({"ALG BP;"}), "parser error");
}

TEST(Parser, IndexAndValueTypes) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"idx_t UINT32;", "val_t FLT32;"}));
    EXPECT_EQ(reg(c, "IDX"), 2u);
    EXPECT_EQ(reg(c, "VAL"), 4u);
    ASSERT_TRUE(runLines(c, {"val_t FLTMPREC;", "idx_t UINT8;"}));
    EXPECT_EQ(reg(c, "VAL"), 6u);
    EXPECT_EQ(reg(c, "IDX"), 0u);
}

TEST(Parser, AlgorithmKeywordChoosesInferenceOrOptimizer) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"ALG GD;"}));
    EXPECT_EQ(reg(c, "OPT"), 4u);
    EXPECT_EQ(reg(c, "INF"), 0u);
    ASSERT_TRUE(runLines(c, {"ALG SQM;"}));
    EXPECT_EQ(reg(c, "INF"), 2u);
    EXPECT_EQ(reg(c, "OPT"), 4u);
    ASSERT_TRUE(runLines(c, {"ALG EXTO;"}));
    EXPECT_EQ(reg(c, "OPT"), 9u);
    ASSERT_TRUE(runLines(c, {"ALG EXTI;"}));
    EXPECT_EQ(reg(c, "INF"), 3u);
}

TEST(Parser, AlgorithmNumberBeyondInferenceTableGoesToOptimizer) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"ALG 5;"}));
    EXPECT_EQ(reg(c, "OPT"), 5u);
    EXPECT_EQ(reg(c, "INF"), 0u);
    Ctx d;
    ASSERT_TRUE(runLines(d, {"ALG 2;"}));
    EXPECT_EQ(reg(d, "INF"), 2u);
    EXPECT_EQ(reg(d, "OPT"), 0u);
}

TEST(Parser, QuotedStringKeepsBlanks) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"MFN 'a b.mod'"}));
    EXPECT_EQ(regS(c, "MFN"), "a b.mod");
}

TEST(Parser, UnquotedStringLosesFirstAndLastCharacter) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"MFN a.mod"}));
    EXPECT_EQ(regS(c, "MFN"), ".mo");
}

TEST(Parser, QuotesNeedNotMatch) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"MFN 'x y\" INC KXX;"}));
    EXPECT_EQ(regS(c, "MFN"), "x y");
    EXPECT_EQ(reg(c, "KXX"), 5u);
    // Without a closing quote the value runs to the end of the line.
    ASSERT_TRUE(runLines(c, {"GFN \"abc;def"}));
    EXPECT_EQ(regS(c, "GFN"), "abc;de");
}

TEST(Parser, CharacterTakesTheSecondCharacter) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"SEP ','"}));
    EXPECT_EQ(reg(c, "SEP"), (size_t)',');
    ASSERT_TRUE(runLines(c, {"MIS '-'"}));
    EXPECT_EQ(reg(c, "MIS"), (size_t)'-');
}

TEST(Parser, CharacterWithoutQuotesFails) {
    EXPECT_THROW(runFresh({"SEP ,"}), std::out_of_range);
}

TEST(Parser, SeparatorBarFromProgramTextIsAccepted) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"SEP '|'"}));
    EXPECT_EQ(reg(c, "SEP"), (size_t)'|');
}

TEST(Parser, CommentOnlyAtTheFirstColumn) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"# INC KXX;", "INC KXX; # a trailing remark"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
    EXPECT_EQ(failure<std::logic_error>({" # not a comment"}), "unknown syntax error");
}

TEST(Parser, BlankLinesAreLegal) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"", "   ", "\t \t", "INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
}

TEST(Parser, BlankBeforeTerminatorReplacesTheOperand) {
    EXPECT_EQ(failure<std::logic_error>({"LDX DPT ;"}), "cannot load unknown data");
    Ctx c;
    // The increment goes to NOOP, not to GP0.
    ASSERT_TRUE(runLines(c, {"INC GP0 ;"}));
    EXPECT_EQ(regR(c, "GP0"), 0.0);
    EXPECT_EQ(regR(c, "NOOP"), 1.0);
}

TEST(Parser, UnknownWordIsASyntaxError) {
    EXPECT_EQ(failure<std::logic_error>({"FOO 1"}), "unknown syntax error");
    EXPECT_EQ(failure<std::logic_error>({"42"}), "unknown syntax error");
}

TEST(Parser, AssignmentWithoutValueFails) {
    EXPECT_EQ(failure<std::logic_error>({"KXX"}), "unknown syntax error");
    EXPECT_EQ(failure<std::logic_error>({"KXX   "}), "unknown syntax error");
}

TEST(Parser, BadNumbersRaiseTheStandardConversionErrors) {
    EXPECT_THROW(runFresh({"KXX abc"}), std::invalid_argument);
    EXPECT_THROW(runFresh({"LAM x"}), std::invalid_argument);
    EXPECT_THROW(runFresh({"KXX 99999999999999999999999"}), std::out_of_range);
}

TEST(Parser, RegisterNamesMatchByPrefix) {
    // DEV is found first and leaves ICE as the value.
    EXPECT_THROW(runFresh({"DEVICE 5"}), std::invalid_argument);
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DEV 5"}));
    EXPECT_EQ(reg(c, "DEV"), 5u);
    // The value starts right behind the name.
    ASSERT_TRUE(runLines(c, {"KXX12"}));
    EXPECT_EQ(reg(c, "KXX"), 12u);
}

TEST(Parser, MnemonicsWinOverRegisters) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"INF 2"}));
    EXPECT_EQ(reg(c, "INF"), 2u);
    // INFER is the instruction, which needs a graph.
    EXPECT_EQ(failure<std::logic_error>({"INFER;"}), "no graph loaded");
}

TEST(Parser, AssignmentsTakeEffectDuringTheScan) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"KXX 5 INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 6u);
    ASSERT_TRUE(runLines(c, {"GP0 1.5 GP1 2.5 ADD GP0 GP1;"}));
    EXPECT_EQ(regR(c, "GP0"), 4.0);
}

TEST(Parser, AssignmentByKind) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"HED false", "OVW TRUE", "PPX 1", "YYC yes", "EDP 1234", "LAM 2.5e-3", "MIO 17"}));
    EXPECT_EQ(reg(c, "HED"), 0u);
    EXPECT_EQ(reg(c, "OVW"), 1u);
    EXPECT_EQ(reg(c, "PPX"), 1u);
    EXPECT_EQ(reg(c, "YYC"), 0u);
    EXPECT_EQ(reg(c, "EDP"), 1234u);
    EXPECT_EQ(regR(c, "LAM"), 2.5e-3);
    EXPECT_EQ(reg(c, "MIO"), 17u);
}

TEST(Parser, StringAssignmentKeepsTheOldString) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"NAM 'first'"}));
    const std::string* first = reinterpret_cast<const std::string*>(reg(c, "NAM"));
    ASSERT_TRUE(runLines(c, {"NAM 'second'"}));
    // The earlier string is not released by the assignment.
    EXPECT_EQ(*first, "first");
    EXPECT_EQ(regS(c, "NAM"), "second");
    delete first;
}

TEST(Parser, UnknownKindCannotBeConverted) {
    Ctx c;
    vmOf(c)->V2T[vm_t::GP0] = (vm_t::TypeType)9;
    EXPECT_EQ(failure<std::logic_error>({"GP0 1"}, c.p), "unknown data type");
}

TEST(Parser, LayIsNoRegister) {
    Ctx c;
    EXPECT_EQ(reg(c, "LAY"), ~(size_t)0);
    EXPECT_THROW(vmOf(c)->get(vm_t::LAY), std::out_of_range);
    EXPECT_EQ(failure<std::logic_error>({"LAY 1"}), "unknown syntax error");
}

TEST(Parser, DryPassStillAssignsAndJumps) {
    Ctx c;
    vm_t* vm = vmOf(c);
    vm->setCode(new std::vector<std::string>{"KXX 9", "BRR 3", "BRA BRR;", "MIO 5", "MIL 6"});
    ASSERT_TRUE(vm->parse(true));
    EXPECT_EQ(reg(c, "KXX"), 9u);
    EXPECT_EQ(reg(c, "MIO"), 1000u);
    EXPECT_EQ(reg(c, "MIL"), 6u);
}

TEST(Parser, DryPassSetsSentinels) {
    Ctx c;
    vm_t* vm = vmOf(c);
    const std::string existing = std::string(QZ_SOURCE_DIR) + "/README.md";
    vm->setCode(new std::vector<std::string>{"DFN '" + existing + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;",
                                             "MODEL;", "INFER;"});
    ASSERT_TRUE(vm->parse(true));
    EXPECT_EQ(reg(c, "DPT"), 1u);
    EXPECT_EQ(reg(c, "GPT"), 1u);
    EXPECT_EQ(reg(c, "MPT"), 1u);
    EXPECT_EQ(reg(c, "PPT"), 1u);
    // The computed registers answer for the sentinels.
    EXPECT_EQ(reg(c, "NXX"), 1u);
    EXPECT_EQ(reg(c, "DIM"), 1u);
    EXPECT_EQ(reg(c, "GVX"), 1u);
    EXPECT_EQ(reg(c, "GEX"), 1u);
    // Loops over the computed registers terminate.
    vm->setCode(new std::vector<std::string>{"KXX 0", "BRR 1", "INC KXX;", "BLT KXX GVX BRR;"});
    ASSERT_TRUE(vm->parse(true));
    EXPECT_EQ(reg(c, "KXX"), 1u);
    // Releasing leaves the sentinels undeleted and clears the registers.
    vm->setCode(new std::vector<std::string>{"DEL DPT;", "DEL MPT;", "DEL GPT;", "DEL PPT;"});
    ASSERT_TRUE(vm->parse(true));
    EXPECT_EQ(reg(c, "DPT"), 0u);
    EXPECT_EQ(reg(c, "MPT"), 0u);
    EXPECT_EQ(reg(c, "GPT"), 0u);
    EXPECT_EQ(reg(c, "PPT"), 0u);
}

TEST(Parser, DryPassModelLoadSetsModelAndGraph) {
    Ctx c;
    vm_t* vm = vmOf(c);
    const std::string existing = std::string(QZ_SOURCE_DIR) + "/README.md";
    vm->setCode(new std::vector<std::string>{"MFN '" + existing + "'", "LDX MPT;", "STATS;", "SAMPLE;"});
    ASSERT_TRUE(vm->parse(true));
    EXPECT_EQ(reg(c, "MPT"), 1u);
    EXPECT_EQ(reg(c, "GPT"), 1u);
    EXPECT_EQ(reg(c, "DPT"), 1u);
}

TEST(Parser, DryPassRunsTheChecks) {
    Ctx c;
    vm_t* vm = vmOf(c);
    vm->setCode(new std::vector<std::string>{"DFN 'no/such/file.csv'", "LDX DPT;"});
    try {
        vm->parse(true);
        FAIL();
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "file no/such/file.csv does not exist");
    }
    Ctx d;
    vm = vmOf(d);
    vm->setCode(new std::vector<std::string>{"ESTIMATE;"});
    EXPECT_THROW(vm->parse(true), std::logic_error);
}

TEST(Parser, DryPassFreesNothingAtReset) {
    Ctx c;
    vm_t* vm = vmOf(c);
    vm->setCode(new std::vector<std::string>{"GRA CHAIN;", "LDX GPT;", "MODEL;"});
    vm->set(vm_t::DPT, (void*)1);
    ASSERT_TRUE(vm->parse(true));
    // The sentinels must not reach a destructor.
    EXPECT_TRUE(reset_ctx(c));
    EXPECT_EQ(reg(c, "GPT"), 0u);
    EXPECT_EQ(reg(c, "MPT"), 0u);
    EXPECT_EQ(reg(c, "DPT"), 0u);
}

TEST(Parser, GetConversions) {
    EXPECT_EQ(QZ::get<size_t>("18446744073709551615"), ~(size_t)0);
    EXPECT_EQ(QZ::get<int>("-7"), -7);
    EXPECT_EQ(QZ::get<long>("-7"), -7L);
    EXPECT_EQ(QZ::get<unsigned int>("7"), 7u);
    EXPECT_EQ(QZ::get<unsigned long long>("12"), 12ull);
    EXPECT_EQ(QZ::get<float>("0.5"), 0.5f);
    EXPECT_EQ(QZ::get<double>("0.25"), 0.25);
    EXPECT_EQ(QZ::get<void*>("4096"), (void*)4096);
    EXPECT_TRUE(QZ::get<bool>("true"));
    EXPECT_TRUE(QZ::get<bool>("TRUE"));
    EXPECT_TRUE(QZ::get<bool>("1"));
    EXPECT_FALSE(QZ::get<bool>("True"));
    EXPECT_FALSE(QZ::get<bool>("yes"));
    EXPECT_EQ(QZ::get<char>("'x'"), 'x');
    EXPECT_THROW(QZ::get<char>("x"), std::out_of_range);
    std::string* s = QZ::get<std::string*>("[abc]");
    EXPECT_EQ(*s, "abc");
    delete s;
    s = QZ::get<std::string*>("x");
    EXPECT_EQ(*s, "");
    delete s;
}

TEST(ParserDeath, NarrowConversionsAreNotSupported) {
    EXPECT_DEATH(QZ::get<unsigned char>("1"), "Assertion `false' failed");
    EXPECT_DEATH(QZ::get<unsigned short>("1"), "Assertion `false' failed");
}

TEST(Parser, ListConversions) {
    std::vector<size_t>* L = QZ::getL<size_t>("3,10,2");
    EXPECT_EQ(*L, (std::vector<size_t>{3, 10, 2}));
    EXPECT_EQ(QZ::convertList(L), "3,10,2");
    delete L;
    L = QZ::getL<size_t>("");
    EXPECT_TRUE(L->empty());
    EXPECT_EQ(QZ::convertList(L), "");
    delete L;
    EXPECT_EQ(QZ::convertList<size_t>(nullptr), "");
    std::vector<unsigned char>* S = QZ::getL<unsigned char>("1,255");
    EXPECT_EQ(*S, (std::vector<unsigned char>{1, 255}));
    EXPECT_EQ(QZ::convertList(S), "1,255");
    delete S;
}

TEST(Parser, DigitsAndNumbers) {
    EXPECT_EQ(QZ::toDigit('0'), 0u);
    EXPECT_EQ(QZ::toDigit('9'), 9u);
    EXPECT_EQ(QZ::toDigit('a'), ~(size_t)0);
    EXPECT_EQ(QZ::toInt("472", 3), 472u);
    EXPECT_EQ(QZ::toInt("472", 2), 47u);
    EXPECT_EQ(QZ::toInt("472", 0), 0u);
    EXPECT_EQ(QZ::toInt("472", (size_t)-1), 0u);
    EXPECT_EQ(QZ::toInt("1 ", 2), ~(size_t)0);
    EXPECT_EQ(QZ::toInt("GD", 2), ~(size_t)0);
}

TEST(Parser, ReadAndSplit) {
    std::vector<std::string> out;
    QZ::readandsplit("a,b,,c", &out);
    EXPECT_EQ(out, (std::vector<std::string>{"a", "b", "", "c"}));
    out.clear();
    QZ::readandsplit("", &out);
    EXPECT_EQ(out, (std::vector<std::string>{""}));
    out.clear();
    QZ::readandsplit("x,", &out);
    EXPECT_EQ(out, (std::vector<std::string>{"x", ""}));
}

TEST(Parser, TablesHaveTheirSizesAndOrder) {
    Ctx c;
    vm_t* vm = vmOf(c);
    EXPECT_EQ(vm->ARGS0.size(), 17u);
    EXPECT_EQ(vm->ARGS1.size(), 8u);
    EXPECT_EQ(vm->ARGS2.size(), 4u);
    EXPECT_EQ(vm->ARGS3.size(), 2u);
    EXPECT_EQ(vm->VARS.size(), 110u);
    EXPECT_EQ(std::get<0>(vm->VARS.front()), "EAP");
    EXPECT_EQ(std::get<0>(vm->VARS.back()), "SLW");
    EXPECT_EQ(vm->ALIAS.at(vm_t::DEV), (std::set<std::string>{"DEVICE"}));
    // Every register has a distinct value and every name its own row.
    std::set<int> values;
    std::set<std::string> names;
    for (const auto& r : vm->VARS) {
        values.insert((int)std::get<1>(r));
        names.insert(std::get<0>(r));
    }
    EXPECT_EQ(values.size(), 110u);
    EXPECT_EQ(names.size(), 110u);
    EXPECT_EQ(values.count(35), 0u);
    EXPECT_EQ(values.count(200), 0u);
}

TEST(Parser, MnemonicsMapToTheirOpValues) {
    Ctx c;
    vm_t* vm = vmOf(c);
    const std::vector<std::pair<std::string, int>> expected = {
        {"ESTIMATE", 0}, {"STATS", 1}, {"MODEL", 40}, {"INFER", 3}, {"PREDICT", 4}, {"SCORE", 64},
        {"SAMPLE", 5}, {"SET", 7}, {"STGRAPH", 32}, {"BOLTZMANNTREE", 63}, {"JUNCTIONTREE", 66},
        {"BASEGRAPH", 33}, {"CLEARSTACK", 52}, {"INITLATENT", 54}, {"CLOSEDFORM", 65}, {"INITGAUSS", 61},
        {"INITZERO", 62}, {"INC", 21}, {"DEC", 22}, {"LDX", 9}, {"STORE", 12}, {"DEL", 8}, {"BRA", 25},
        {"PUSH", 34}, {"POP", 35}, {"MOV", 18}, {"ADD", 14}, {"MUL", 15}, {"BNZ", 20}, {"BLT", 16},
        {"BNE", 45}};
    std::vector<std::pair<std::string, int>> actual;
    for (const auto* T : {&vm->ARGS0, &vm->ARGS1, &vm->ARGS2, &vm->ARGS3})
        for (const auto& r : *T) actual.emplace_back(r.first, (int)r.second);
    EXPECT_EQ(actual, expected);
}

TEST(Parser, ExactLookupForHosts) {
    vm_t::VarType v;
    vm_t::TypeType t;
    ASSERT_TRUE(vm_t::lookupRegister("TREE", v, t));
    EXPECT_EQ(v, vm_t::TRE);
    EXPECT_EQ(t, vm_t::BOOL);
    EXPECT_FALSE(vm_t::lookupRegister("TRE", v, t));
}

TEST(Parser, RegisterTableRowByRow) {
    constexpr vm_t::TypeType I = vm_t::INTEGER, R = vm_t::REAL, S = vm_t::STRING, B = vm_t::BOOL,
                             P = vm_t::POINTER, C = vm_t::CHAR;
    const std::vector<std::tuple<std::string, int, vm_t::TypeType>> expected = {
        {"EAP", 105, P}, {"EIP", 103, P}, {"YYY", 113, P}, {"CBO", 106, P}, {"CBU", 108, P}, {"CPR", 109, P},
        {"CBP", 107, P}, {"EXT0", 111, P}, {"EXT1", 112, P}, {"EDP", 104, P}, {"FMT", 1, I}, {"SNK", 102, I},
        {"OPT", 2, I}, {"REP", 3, I}, {"INF", 4, I}, {"GRA", 43, I}, {"CEN", 73, I}, {"GPX", 0, I}, {"SEED", 72, I},
        {"DEV", 5, I}, {"MIO", 6, I}, {"MIL", 7, I}, {"KXX", 8, I}, {"DEG", 9, I}, {"TXX", 11, I}, {"GNU", 12, I},
        {"GBR", 13, I}, {"GRE", 14, I}, {"OMP", 46, I}, {"GVX", 53, I}, {"ONE", 69, I}, {"DIM", 59, I},
        {"GEX", 54, I}, {"PPX", 15, B}, {"PGX", 16, B}, {"YYC", 96, B}, {"HED", 17, B}, {"DRP", 18, B},
        {"NOOP", 44, B}, {"DRY", 19, B}, {"RST", 20, B}, {"RET", 21, B}, {"LSN", 23, I}, {"COL", 24, I},
        {"DBG", 25, I}, {"OVW", 47, B}, {"SEP", 26, C}, {"MIS", 27, C}, {"LAM", 28, R}, {"ELAM", 100, R},
        {"EPL", 29, R}, {"EPO", 30, R}, {"STP", 31, R}, {"SDE", 45, R}, {"PEL", 92, R}, {"MVA", 32, R},
        {"OVA", 33, R}, {"GP0", 48, R}, {"GP1", 49, R}, {"GP2", 50, R}, {"RND", 60, R}, {"UNI", 61, R},
        {"RES", 51, R}, {"RNU", 34, I}, {"LNN", 62, I}, {"MFN", 38, S}, {"DFN", 40, S}, {"OTHERFN", 97, S},
        {"GFN", 39, S}, {"GPS", 63, S}, {"NAM", 95, S}, {"MPT", 36, P}, {"GPT", 37, P}, {"DPT", 10, P},
        {"LPT", 52, P}, {"PPT", 71, P}, {"HPT", 66, P}, {"GP3", 55, R}, {"GP4", 56, R}, {"GP5", 57, R},
        {"GP6", 64, R}, {"BRR", 58, I}, {"NXX", 65, I}, {"GP7", 67, R}, {"GP8", 68, R}, {"GP9", 70, R},
        {"HP0", 74, R}, {"HP1", 75, R}, {"HP2", 76, R}, {"HP3", 77, R}, {"HP4", 78, R}, {"HP5", 79, R},
        {"HP6", 80, R}, {"HP7", 81, R}, {"HP8", 82, R}, {"HP9", 83, R}, {"LFN", 85, S}, {"ITR", 89, I},
        {"NLL", 87, R}, {"NNZ", 86, I}, {"IDX", 41, I}, {"VAL", 42, I}, {"RTT", 90, I}, {"NAB", 91, R},
        {"ERR", 88, R}, {"LNZ", 93, R}, {"PAM", 101, R}, {"INI", 99, B}, {"TREE", 110, B}, {"SLW", 94, B}};
    Ctx c;
    vm_t* vm = vmOf(c);
    ASSERT_EQ(vm->VARS.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const std::string& name = std::get<0>(expected[i]);
        EXPECT_EQ(std::get<0>(vm->VARS[i]), name) << "row " << i;
        EXPECT_EQ((int)std::get<1>(vm->VARS[i]), std::get<1>(expected[i])) << name;
        EXPECT_EQ(std::get<2>(vm->VARS[i]), std::get<2>(expected[i])) << name;
        // The kind map agrees with the row, and the register is in the file.
        EXPECT_EQ(vm->V2T.at(std::get<1>(vm->VARS[i])), std::get<2>(expected[i])) << name;
        EXPECT_EQ(vm->VS.count(std::get<1>(vm->VARS[i])), 1u) << name;
    }
    EXPECT_EQ((int)vm_t::LAY, 35);
    EXPECT_EQ((int)vm_t::UNKNOWN, 200);
    EXPECT_EQ(vm->VS.count(vm_t::LAY), 0u);
}

namespace {

// A keyword with the register it sets and its table of names in order.
struct Keyword {
    std::string word;
    const char* reg;
    std::vector<std::pair<std::string, size_t>> rows;
};

const std::vector<Keyword>& keywords() {
    static const std::vector<Keyword> K = {
        {"idx_t", "IDX", {{"UINT8", 0}, {"UINT16", 1}, {"UINT32", 2}, {"UINT64", 3}}},
        {"val_t",
         "VAL",
         {{"UINT8", 0}, {"UINT16", 1}, {"UINT32", 2}, {"UINT64", 3}, {"FLT32", 4}, {"FLT64", 5}, {"FLTMPREC", 6}}},
        {"ALG", "INF", {{"LBP", 0}, {"JT", 1}, {"SQM", 2}, {"EXTI", 3}}},
        {"ALG", "OPT", {{"GD", 4}, {"PL1", 5}, {"FL1", 6}, {"EA11", 7}, {"IGD", 8}, {"EXTO", 9}}},
        {"REP",
         "REP",
         {{"NONE", 0},
          {"STLINEAR", 1},
          {"STQUAD", 2},
          {"STCUBIC", 3},
          {"STRATIONAL", 4},
          {"STEXPONENTIAL", 5},
          {"STINVQUAD", 6},
          {"STINVCUBIC", 7},
          {"STINVRATIONAL", 8},
          {"STINVEXPONENTIAL", 9},
          {"INTEGER", 10},
          {"DBT", 11},
          {"ISING", 12}}},
        {"FMT", "FMT", {{"ADJ", 0}, {"TGF", 1}, {"FG", 2}}},
        {"GRA",
         "GRA",
         {{"FILE", 0},
          {"CHAIN", 1},
          {"GRID", 2},
          {"STAR", 3},
          {"RBM", 4},
          {"FULL", 5},
          {"CHOWLIU", 6},
          {"ELEMGM", 7},
          {"OTHER", 8},
          {"JT", 9},
          {"DBT", 10},
          {"ST", 11},
          {"CLIQUES", 12},
          {"RNDCLIQUES", 13}}},
    };
    return K;
}

template <typename T> std::vector<std::pair<std::string, size_t>> rowsOf(const std::vector<std::pair<std::string, T>>& L) {
    std::vector<std::pair<std::string, size_t>> r;
    for (const auto& p : L) r.emplace_back(p.first, (size_t)p.second);
    return r;
}

}  // namespace

TEST(Parser, NameTablesRowByRow) {
    Ctx c;
    vm_t* vm = vmOf(c);
    const auto& K = keywords();
    EXPECT_EQ(rowsOf(vm->IdxL), K[0].rows);
    EXPECT_EQ(rowsOf(vm->ValL), K[1].rows);
    EXPECT_EQ(rowsOf(vm->InfL), K[2].rows);
    EXPECT_EQ(rowsOf(vm->OptL), K[3].rows);
    EXPECT_EQ(rowsOf(vm->RepL), K[4].rows);
    EXPECT_EQ(rowsOf(vm->FmtL), K[5].rows);
    EXPECT_EQ(rowsOf(vm->GraL), K[6].rows);
}

TEST(Parser, EverySetterNameStoresItsValue) {
    for (const Keyword& k : keywords())
        for (const auto& row : k.rows) {
            Ctx c;
            // A value that no row has, so that the store is seen.
            ASSERT_TRUE(wreg(c, k.reg, 77));
            const std::string line = k.word + " " + row.first + ";";
            ASSERT_TRUE(runLines(c, {line})) << line;
            EXPECT_EQ(reg(c, k.reg), row.second) << line;
        }
}

TEST(Parser, EverySetterNumberStoresItsValue) {
    for (const Keyword& k : keywords())
        for (const auto& row : k.rows) {
            Ctx c;
            ASSERT_TRUE(wreg(c, k.reg, 77));
            const std::string line = k.word + " " + std::to_string(row.second) + ";";
            ASSERT_TRUE(runLines(c, {line})) << line;
            EXPECT_EQ(reg(c, k.reg), row.second) << line;
        }
    // A number past the last row is in no table.
    EXPECT_EQ(failure<std::logic_error>({"GRA 14;"}), "parser error");
    EXPECT_EQ(failure<std::logic_error>({"ALG 10;"}), "parser error");
    EXPECT_EQ(failure<std::logic_error>({"idx_t 4;"}), "parser error");
}

TEST(Parser, LongerNamesAfterTheirPrefixInATable) {
    // STAR stands before ST in the graph table and is found first; ST alone is row 11.
    Ctx c;
    ASSERT_TRUE(runLines(c, {"GRA STAR;"}));
    EXPECT_EQ(reg(c, "GRA"), 3u);
    ASSERT_TRUE(runLines(c, {"GRA ST;"}));
    EXPECT_EQ(reg(c, "GRA"), 11u);
}

TEST(Parser, AliasLookupAddsEmptyEntries) {
    Ctx c;
    vm_t* vm = vmOf(c);
    EXPECT_EQ(vm->ALIAS.size(), 1u);
    // The spellings of a row are tried only when its text does not match:
    // the last row is found after every row before it got an entry.
    ASSERT_TRUE(runLines(c, {"SLW 1"}));
    EXPECT_EQ(vm->ALIAS.size(), 109u);
    EXPECT_EQ(vm->ALIAS.count(vm_t::SLW), 0u);
    // A name that no row has passes every row.
    size_t pos = 0;
    EXPECT_EQ(vm->getVar("FOO 1", pos), vm_t::UNKNOWN);
    EXPECT_EQ(pos, 0u);
    EXPECT_EQ(vm->ALIAS.size(), 110u);
    EXPECT_TRUE(vm->ALIAS.at(vm_t::SLW).empty());
    EXPECT_EQ(vm->ALIAS.at(vm_t::DEV), (std::set<std::string>{"DEVICE"}));
}

TEST(Parser, TabsAreBlanks) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"MOV\tKXX\tMIO;", "MIL\t5", "GRA\tGRID;"}));
    EXPECT_EQ(reg(c, "KXX"), 1000u);
    EXPECT_EQ(reg(c, "MIL"), 5u);
    EXPECT_EQ(reg(c, "GRA"), 2u);
    // A tab before the ';' replaces the operand like a blank.
    ASSERT_TRUE(runLines(c, {"INC KXX\t;"}));
    EXPECT_EQ(reg(c, "KXX"), 1000u);
    EXPECT_EQ(reg(c, "NOOP"), bitsOf(1.0));
}

TEST(Parser, OneInstructionALineTheLastNamedRuns) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"INC KXX INC MIO;"}));
    EXPECT_EQ(reg(c, "KXX"), 4u);
    EXPECT_EQ(reg(c, "MIO"), 1001u);
}

TEST(Parser, TerminatorAfterAnAssignmentEndsTheLine) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"KXX 5;INC KXX;"}));
    EXPECT_EQ(reg(c, "KXX"), 5u);
}

TEST(Parser, RegisterTextIsTheRowsSpelling) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"TREE 1", "NXX 12"}));
    EXPECT_EQ(vmOf(c)->getB(vm_t::TRE), true);
    EXPECT_EQ(vmOf(c)->get(vm_t::NNN), 12u);
    // The enum spelling is no register name.
    EXPECT_EQ(failure<std::logic_error>({"NNN 1"}), "unknown syntax error");
    EXPECT_THROW(runFresh({"TRE 1"}), std::logic_error);
}

TEST(Parser, RunAfterADryPassDoesTheWork) {
    Ctx c;
    vm_t* vm = vmOf(c);
    wreg(c, "GPT", 1);
    wregR(c, "RES", 2.5);
    vm->setCode(new std::vector<std::string>{"BASEGRAPH;"});
    ASSERT_TRUE(vm->parse(true));
    EXPECT_TRUE(vm->noexec);
    EXPECT_EQ(regR(c, "RES"), 2.5);
    // run always scans with the work switched on: the body is reached, and
    // finds no base under the sentinel.
    ASSERT_TRUE(wreg(c, "LNN", 0));
    ASSERT_TRUE(run_ctx(c));
    EXPECT_EQ(reg(c, "RES"), 0u);
    EXPECT_FALSE(vm->noexec);
}
