// qzrun as users start it: a process with exit codes and messages.
#include <gtest/gtest.h>
#include <qz_process_util.h>
#include <qz_test_util.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <cstdlib>
#include <string>

using namespace qztest;

namespace {

typedef ProcessResult Result;

std::string quote(const std::string& s) { return shellQuote(s); }

Result qzrun(const std::vector<std::string>& args, const std::string& tag) {
    return runProcess(QZ_QZRUN, args, "qzrun_" + tag);
}

std::string program(const std::string& tag, const std::string& text) {
    const std::string p = tmpPath("qzrun_" + tag + ".qz");
    writeFile(p, text);
    return p;
}

}  // namespace

TEST(Qzrun, RunsTheCountingExample) {
    const Result r = qzrun({std::string(QZ_SOURCE_DIR) + "/examples/count.qz", "-p", "GP0", "-p", "KXX"}, "count");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "GP0=5\nKXX=10\n");
    EXPECT_EQ(r.err, "");
}

TEST(Qzrun, ErrorNamesTheLineCountedFromOne) {
    const std::string p = program("bad", "INC KXX;\n# a comment\nFOO 3\nINC KXX;\n");
    const Result r = qzrun({p, "-p", "KXX"}, "bad");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "error at line 3: unknown syntax error\n");
    EXPECT_EQ(r.out, "");
}

TEST(Qzrun, ResourceFailureIsOneLine) {
    const std::string p = program("nomodel", "ESTIMATE;\n");
    const Result r = qzrun({p}, "nomodel");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "error at line 1: no model loaded\n");
}

TEST(Qzrun, ConversionFailureIsOneLine) {
    const std::string p = program("conv", "KXX 3\nSEP ,\n");
    const Result r = qzrun({p}, "conv");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err.rfind("error at line 2: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1);
}

TEST(Qzrun, WritesRegistersByKind) {
    const std::string p = program("kinds", "ADD LAM LAM;\n");
    const Result r = qzrun({p, "-r", "LAM=0.25", "-r", "KXX=17", "-r", "MFN=my model.qzm", "-r", "SEP=;", "-r",
                            "OVW=true", "-p", "LAM", "-p", "KXX", "-p", "MFN", "-p", "SEP", "-p", "OVW", "-p", "MIO"},
                           "kinds");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "LAM=0.5\nKXX=17\nMFN=my model.qzm\nSEP=;\nOVW=true\nMIO=1000\n");
}

TEST(Qzrun, PrintsRealsAsNumbers) {
    const std::string p = program("reals", "GP0 0.1\nGP1 -2.5e-7\n");
    const Result r = qzrun({p, "-p", "GP0", "-p", "GP1", "-p", "EPO"}, "reals");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "GP0=0.1\nGP1=-2.5e-07\nEPO=1e-06\n");
}

TEST(Qzrun, WritesComeBeforeTheRun) {
    const std::string p = program("before", "MOV GP0 KXX;\nADD GP0 LAM;\n");
    const Result r = qzrun({p, "-r", "KXX=3", "-r", "LAM=0.5", "-r", "HPT=4096", "-p", "GP0", "-p", "HPT"}, "before");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "GP0=3.5\nHPT=4096\n");
}

TEST(Qzrun, LineNumberWrittenOnTheCommandLineIsWhereTheRunStarts) {
    const std::string p = program("resume", "INC KXX;\nINC MIO;\n");
    const Result r = qzrun({p, "-r", "LNN=1", "-p", "KXX", "-p", "MIO"}, "resume");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "KXX=4\nMIO=1001\n");
}

TEST(Qzrun, PrintsEveryKind) {
    const std::string p = program("printkinds", "MIS '-'\nHED false\n");
    const Result r = qzrun({p, "-p", "ONE", "-p", "MIS", "-p", "HED", "-p", "GPT", "-p", "DFN", "-p", "MVA", "-p",
                            "LNN"},
                           "printkinds");
    EXPECT_EQ(r.code, 0) << r.err;
    // MVA holds the integer bits 255, which as a double are a denormal.
    EXPECT_EQ(r.out, "ONE=1\nMIS=-\nHED=false\nGPT=0\nDFN=\nMVA=1.25986739689518e-321\nLNN=2\n");
}

TEST(Qzrun, ErrorInsideALoopNamesTheFailingLine) {
    const std::string p = program("loop", "BRR 0\nINC KXX;\nBLT KXX MIO BRR;\nPOP GP0;\n");
    const Result r = qzrun({p}, "loop");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "error at line 4: POP on an empty stack\n");
}

TEST(Qzrun, BadPointerInAProgramIsAnErrorNotACrash) {
    // A number written into a pointer register is followed as a graph.
    const std::string p = program("badptr", "KXX 2\nGPT 8\nMOV KXX GVX;\n");
    const Result r = qzrun({p, "-p", "KXX"}, "badptr");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err.rfind("error at line 3: ", 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    // The faulting address is the register's value, so the register is named.
    EXPECT_NE(r.err.find("register GPT holds no valid object"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
#ifndef __SANITIZE_ADDRESS__
    // The same through a string popped into the pointer register. (Under the
    // address sanitizer the string's own bytes read as the graph's table of
    // functions are a report of their own, not a fault.)
    const std::string q = program("badptr2", "NAM 'x'\nPUSH NAM;\nPOP GPT;\nMOV KXX GEX;\n");
    const Result r2 = qzrun({q}, "badptr2");
    EXPECT_EQ(r2.code, 1);
    EXPECT_EQ(r2.err.rfind("error at line 4: ", 0), 0u) << r2.err;
#endif
}

TEST(Qzrun, FaultsOnSeveralThreadsAtOnceGiveOneReport) {
    // Every thread of SAMPLE calls the external engine factory in EXT0,
    // which is no function: several threads fault at the same moment.
    const std::string t = tmpPath("qzrun_threads.csv");
    std::string text = "a,b\nd,d\n";
    for (int i = 0; i < 40; ++i) text += std::string(i % 2 ? "x" : "y") + "," + (i % 3 ? "p" : "q") + "\n";
    writeFile(t, text);
    const std::string p = program("threads", "OMP 4\nDFN '" + t +
                                                 "'\nLDX DPT;\nGRA CHAIN\nLDX GPT;\nMODEL;\nINF 3\nEXT0 8\nSAMPLE;\n");
    for (int k = 0; k < 5; ++k) {
        const Result r = qzrun({p}, "threads");
        EXPECT_EQ(r.code, 1) << r.err;
        EXPECT_EQ(r.err.rfind("error at line 9: invalid memory access at address 0x8", 0), 0u) << r.err;
        EXPECT_NE(r.err.find(": register EXT0 holds no valid object\n"), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
}

TEST(Qzrun, RaggedTableIsReportedBeforeItIsLoaded) {
    const std::string t = tmpPath("qzrun_ragged.csv");
    writeFile(t, "a,b,c\nskip\nx,y,z\n\nx,y\nx,y,z\n");
    for (const std::string& text : {"KXX 1\nDFN '" + t + "'\nLDX DPT;\n", "KXX 1\nDFN '" + t + "' LDX DPT;\n"}) {
        const std::string p = program("ragged", text);
        const Result r = qzrun({p, "-p", "NXX"}, "ragged");
        EXPECT_EQ(r.code, 1);
        const std::string line = text.find("' LDX") != std::string::npos ? "2" : "3";
        EXPECT_EQ(r.err, "error at line " + line + ": table " + t + ": line 5 has 2 cells, expected 3 (as line 3)\n");
        EXPECT_EQ(r.out, "");
    }
    // Without a header the first line is the skipped one.
    const std::string p = program("ragged2", "HED false\nDFN '" + t + "'\nLDX DPT;\n");
    const Result r = qzrun({p}, "ragged2");
    EXPECT_EQ(r.err, "error at line 3: table " + t + ": line 3 has 3 cells, expected 1 (as line 2)\n");
}

TEST(Qzrun, ProgramsThatLoadTablesRunAsBefore) {
    // Loads in a loop, jumps across the loading line, a failure after it:
    // the checks between the lines change nothing the program sees.
    const std::string t = tmpPath("qzrun_loads.csv");
    writeFile(t, "a,b\nskip\nx,y\ny,y\n");
    const std::string p = program("loads", "DFN '" + t + "'\nBRR 1\nDEL DPT;\nLDX DPT;\nINC KXX;\n"
                                           "BLT KXX MIO BRR;\nBRR 8\nBRA BRR;\nLDX DPT;\nGP0 2.5\n");
    const Result r = qzrun({p, "-r", "MIO=7", "-p", "KXX", "-p", "NXX", "-p", "LNN", "-p", "GP0"}, "loads");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "KXX=7\nNXX=2\nLNN=10\nGP0=2.5\n");
    const std::string q = program("loads2", "DFN '" + t + "'\nLDX DPT;\nPOP GP0;\n");
    const Result r2 = qzrun({q}, "loads2");
    EXPECT_EQ(r2.err, "error at line 3: POP on an empty stack\n");
    // Starting at a line past a loading one.
    const Result r3 = qzrun({p, "-r", "LNN=9", "-p", "GP0", "-p", "NXX"}, "loads3");
    EXPECT_EQ(r3.code, 0) << r3.err;
    EXPECT_EQ(r3.out, "GP0=2.5\nNXX=0\n");
}

TEST(Qzrun, RefusedSeparatorIsAnError) {
    const std::string p = program("sep", "INC KXX;\n");
    const Result r = qzrun({p, "-r", "SEP=|"}, "sep");
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("separator | not supported"), std::string::npos) << r.err;
}

TEST(Qzrun, BadFlagsPrintUsage) {
    const std::string p = program("flags", "INC KXX;\n");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {p, "-x"}, {p, "-r"}, {p, "-p"}, {p, "-r", "KXX"}, {p, "-r", "=3"}, {}, {p, p}}) {
        const Result r = qzrun(args, "flags");
        EXPECT_EQ(r.code, 2) << (args.empty() ? "" : args.back());
        EXPECT_NE(r.err.find("usage: qzrun"), std::string::npos) << r.err;
    }
}

TEST(Qzrun, UnknownRegisterOrBadValueIsAUsageError) {
    const std::string p = program("regs", "INC KXX;\n");
    for (const auto& args : std::vector<std::vector<std::string>>{{p, "-p", "FOO"},
                                                                  {p, "-r", "FOO=1"},
                                                                  {p, "-r", "KXX=abc"},
                                                                  {p, "-r", "KXX=-1"},
                                                                  {p, "-r", "LAM=x"},
                                                                  {p, "-r", "SEP=ab"},
                                                                  {p, "-r", "OVW=maybe"}}) {
        const Result r = qzrun(args, "regs");
        EXPECT_EQ(r.code, 2) << args.back();
        EXPECT_NE(r.err.find("usage: qzrun"), std::string::npos) << r.err;
    }
}

TEST(Qzrun, MissingProgramFile) {
    const Result r = qzrun({tmpPath("no_such_program.qz")}, "missing");
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("cannot read program"), std::string::npos) << r.err;
    // A directory is no program either.
    const Result d = qzrun({std::string(QZ_SOURCE_DIR) + "/examples"}, "directory");
    EXPECT_EQ(d.code, 2);
    EXPECT_NE(d.err.find("cannot read program"), std::string::npos) << d.err;
}

TEST(Qzrun, NoProgressLineWithoutATerminal) {
    const std::string p = program("quiet", "INC KXX;\n");
    const Result r = qzrun({p}, "quiet");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "");
}

TEST(Qzrun, ProgressLineOnATerminal) {
    // The complete-graph generator reports progress; under a pseudo terminal
    // (made by script) the line is drawn on stderr.
    const std::string p = program("tty", "GRA FULL;\nGVX 40\nLDX GPT;\n");
    const std::string out = tmpPath("qzrun_tty.out");
    const std::string cmd = "script -qec " + quote(quote(QZ_QZRUN) + " " + quote(p) + " -p GEX") + " /dev/null >" +
                            quote(out) + " 2>&1";
    const int status = std::system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string o = readFile(out);
    EXPECT_NE(o.find("\rGRAPH"), std::string::npos) << o;
    EXPECT_NE(o.find("GEX=780"), std::string::npos) << o;
}

TEST(Qzrun, WindowsLineEndsAreAccepted) {
    const std::string p = program("crlf", "KXX 7\r\nINC KXX;\r\n");
    const Result r = qzrun({p, "-p", "KXX"}, "crlf");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "KXX=8\n");
}

TEST(Qzrun, SecondInterruptEndsWithOneLine) {
    // A loop long enough to be interrupted twice; the first interrupt only asks
    // long computations to stop, the second ends the process.
    const std::string p = program("interrupt", "TXX 100000000\nBRR 2\nINC KXX;\nBLT KXX TXX BRR;\n");
    const std::string err = tmpPath("qzrun_interrupt.err");
    // Interrupt only once qzrun catches SIGINT and SIGABRT (bits 0x2 and 0x20
    // of SigCgt), however slowly it starts on a busy machine.
    const std::string cmd = quote(QZ_QZRUN) + " " + quote(p) + " 2>" + quote(err) +
                            " & pid=$!; for i in $(seq 400); do"
                            " m=$(awk '/^SigCgt/{print $2}' /proc/$pid/status 2>/dev/null);"
                            " [ -n \"$m\" ] && [ $(( 0x$m & 0x22 )) -eq $(( 0x22 )) ] && break; sleep 0.05; done;"
                            " sleep 0.1; kill -INT $pid; sleep 0.3; kill -INT $pid; wait $pid";
    const int status = std::system(("bash -c " + quote(cmd)).c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    const std::string e = readFile(err);
    EXPECT_EQ(e.rfind("error at line ", 0), 0u) << e;
    EXPECT_NE(e.find(": interrupted\n"), std::string::npos) << e;
}

// Warnings of the library come on stderr, one line each with the program
// line, whether stderr is a terminal or not, and the run goes on.
TEST(Qzrun, WarningsOfTheLibraryArePrinted) {
    const std::string vote = std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv";
    const std::string p = program("warn", "DFN '" + vote +
                                              "'\nLDX DPT;\nGRA ELEMGM;\nPEL 0.05\nLDX GPT;\nMODEL;\nALG LBP;\n"
                                              "INFER;\nGRA CLIQUES;\nLDX GPT;\nKXX 40\nMODEL;\n");
    const Result r = qzrun({p, "-p", "GEX"}, "warn");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "GEX=0\n");
    EXPECT_EQ(r.err.rfind("warning at line 8: vertices 0 (handicapped-infants), ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("use ALG JT, or a graph that covers every column\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\nwarning at line 12: KXX is above the number of vertices"), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
}

// A result that is not a finite number is reported after the instruction
// that left it, naming the register: here a model file whose last weight is
// infinite.
TEST(Qzrun, NonFiniteResultsAreReported) {
    const std::string t = tmpPath("qzrun_inf.csv");
    writeFile(t, "a,b\n0,0\n0,0\n1,1\n0,1\n");
    const std::string m = tmpPath("qzrun_inf.qzm");
    const std::string store = program("inf_store", "DFN '" + t + "'\nLDX DPT;\nGRA CHAIN;\nLDX GPT;\nMODEL;\n"
                                      "OVW true\nMFN '" + m + "'\nSTORE MPT;\nALG JT;\nINFER;\n");
    const Result ok = qzrun({store, "-p", "LNZ"}, "inf_store");
    ASSERT_EQ(ok.code, 0) << ok.err;
    EXPECT_EQ(ok.err, "");
    std::string bytes = readFile(m);
    const double inf = std::numeric_limits<double>::infinity();
    ASSERT_GE(bytes.size(), sizeof(inf));
    std::memcpy(&bytes[bytes.size() - sizeof(inf)], &inf, sizeof(inf));
    writeFile(m, bytes);
    const std::string load = program("inf", "MFN '" + m + "'\nLDX MPT;\nALG JT;\nINFER;\n");
    const Result r = qzrun({load, "-p", "LNZ"}, "inf");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "LNZ=inf\n");
    EXPECT_EQ(r.err, "warning at line 4: INFER left LNZ = inf, which is not a finite number\n");
}
