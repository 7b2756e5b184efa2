// qzuai: UAI models into qz model files and back, evidence into tables, and
// the errors that name the line and write nothing.
#include <gtest/gtest.h>
#include <qz_process_util.h>
#include <qz_test_util.h>
#include <qz_uai_net.h>

#include <QZ/QZIO>

#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using namespace qztest;

namespace {

ProcessResult qzuai(const std::vector<std::string>& args, const std::string& tag) {
    return runProcess(QZ_QZUAI, args, "qzuai_" + tag);
}

bool fileExists(const std::string& p) { return std::ifstream(p).good(); }

std::string fresh(const std::string& name) {
    const std::string p = tmpPath("qzuai_" + name);
    std::remove(p.c_str());
    return p;
}

std::string uaiFile(const std::string& name, const std::string& text) {
    const std::string p = tmpPath("qzuai_" + name + ".uai");
    writeFile(p, text);
    return p;
}

using Net = UaiNet;
using Factor = UaiFactor;

struct Inferred {
    double lnz;
    std::vector<double> pp;  // vertex marginals, then edge marginals
};

// Loads a model file into a new context and runs INFER with the given
// observation table (or none).
Inferred inferFile(const std::string& model, bool slow, const std::string& table = "", const std::string& alg = "") {
    Ctx c;
    std::vector<std::string> lines;
    if (!alg.empty()) lines.push_back("ALG " + alg + ";");
    lines.push_back("MFN '" + model + "'");
    lines.push_back("LDX MPT;");
    if (!table.empty()) {
        lines.push_back("DFN '" + table + "'");
        lines.push_back("LDX DPT;");
    }
    lines.push_back(slow ? "SLW true" : "SLW false");
    lines.push_back("INFER;");
    runLines(c, lines);
    const QZ::IO<size_t, double>* io = reinterpret_cast<QZ::IO<size_t, double>*>(reg(c, "MPT"));
    size_t size = io->dim;
    for (size_t v = 0; v < io->G->vertices(); ++v) size += io->Y[v];
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    return {regR(c, "LNZ"), std::vector<double>(PP, PP + size)};
}

std::string imported(const Net& net, const std::string& name) {
    const std::string uai = uaiFile(name, net.text());
    const std::string qzm = fresh(name + ".qzm");
    const ProcessResult r = qzuai({"import", uai, qzm}, name);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    return qzm;
}

// Two variables, one vertex and one pairwise factor: Z = 3.3 by hand.
const char* const TWO =
    "MARKOV\n2\n2 2\n2\n1 0\n2 0 1\n\n2\n 0.4 0.6\n\n4\n 1.0 2.0\n 3.0 0.5\n";

}  // namespace

TEST(Qzuai, HandWrittenTwoVariableModelHasItsPartitionFunction) {
    const std::string uai = uaiFile("two", TWO);
    const std::string qzm = fresh("two.qzm");
    const ProcessResult r = qzuai({"import", uai, qzm}, "two");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NEAR(inferFile(qzm, true).lnz, std::log(3.3), 1e-12);
    // One edge is a tree: P(x0 = 1) = (1.8 + 0.3) / 3.3 from the messages as well.
    EXPECT_NEAR(inferFile(qzm, false).pp[1], 2.1 / 3.3, 1e-6);
}

TEST(Qzuai, ChainWithVertexFactorsMatchesEnumeration) {
    Net net;
    net.card = {2, 3, 2, 4};
    net.factors = {{{1}, {0.5, 2.0, 1.5}},
                   {{0, 1}, {1.0, 0.2, 3.0, 0.7, 1.1, 0.9}},
                   {{2, 1}, {0.3, 1.0, 2.2, 1.7, 0.4, 0.8}},  // the edge in the other orientation
                   {{3}, {1.0, 4.0, 0.25, 2.0}},
                   {{2, 3}, {1.0, 1.0, 2.0, 0.5, 0.1, 3.0, 1.0, 1.0}},
                   {{0}, {0.3, 0.7}}};
    const std::string qzm = imported(net, "chain");
    std::vector<std::vector<double>> marg;
    const double Z = net.enumerate(&marg);
    EXPECT_NEAR(inferFile(qzm, true).lnz, std::log(Z), 1e-12);
    // A tree: belief propagation gives the exact marginals too.
    const Inferred bp = inferFile(qzm, false);
    EXPECT_NEAR(bp.lnz, std::log(Z), 1e-6);
    size_t k = 0;
    for (size_t v = 0; v < net.card.size(); ++v)
        for (size_t x = 0; x < net.card[v]; ++x) EXPECT_NEAR(bp.pp[k++], marg[v][x], 1e-6) << v << " " << x;
}

TEST(Qzuai, RepeatedPairsAndLoneVariablesKeepThePartitionFunction) {
    // Two factors on one pair (in both orientations) multiply; variable 2 has
    // only a vertex factor, and variable 4 none at all.
    Net net;
    net.card = {3, 2, 2, 2, 3};
    net.factors = {{{0, 1}, {1.0, 2.0, 0.5, 0.5, 3.0, 1.0}},
                   {{1, 0}, {2.0, 0.1, 1.0, 1.0, 1.0, 4.0}},
                   {{2}, {0.2, 0.8}},
                   {{1, 3}, {1.0, 5.0, 5.0, 1.0}},
                   {{3, 0}, {0.5, 1.0, 2.0, 1.5, 0.5, 0.25}}};
    const std::string qzm = imported(net, "repeated");
    EXPECT_NEAR(inferFile(qzm, true).lnz, std::log(net.enumerate()), 1e-12);
    // The edges: pairs in order of first appearance, then the edge that
    // carries variable 2's factor to its neighbour 3.
    QZ::IO<size_t, double> io(qzm);
    ASSERT_EQ(io.G->edges(), 4u);
    size_t s, t;
    io.G->edge(0, s, t);
    EXPECT_EQ(s * 10 + t, 1u);
    io.G->edge(2, s, t);
    EXPECT_EQ(s * 10 + t, 30u);
    io.G->edge(3, s, t);
    EXPECT_EQ(s * 10 + t, 23u);
    delete io.G;
}

TEST(Qzuai, LastLoneVariableLeansOnTheOneBefore) {
    Net net;
    net.card = {2, 3};
    net.factors = {{{1}, {1.0, 2.0, 7.0}}};
    const std::string qzm = imported(net, "lone");
    EXPECT_NEAR(inferFile(qzm, true).lnz, std::log(10.0 * 2), 1e-12);
    QZ::IO<size_t, double> io(qzm);
    size_t s, t;
    io.G->edge(0, s, t);
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(t, 0u);
    delete io.G;
}

TEST(Qzuai, RoundTripKeepsWeightsAndInference) {
    const std::string orig = fresh("vote.qzm");
    {
        Ctx c;
        runLines(c, {"SEED 7", "DFN '" + std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv'", "LDX DPT;",
                     "GRA FULL;", "LDX GPT;", "MODEL;", "ALG GD;", "STP 0.5", "MIO 20", "MIL 50", "ESTIMATE;",
                     "MFN '" + orig + "'", "STORE MPT;"});
    }
    const std::string uai = fresh("vote.uai");
    const std::string back = fresh("vote_back.qzm");
    ProcessResult r = qzuai({"export", orig, uai}, "export");
    ASSERT_EQ(r.code, 0) << r.err;
    r = qzuai({"import", uai, back}, "reimport");
    ASSERT_EQ(r.code, 0) << r.err;

    QZ::IO<size_t, double> a(orig), b(back);
    ASSERT_EQ(a.G->vertices(), b.G->vertices());
    ASSERT_EQ(a.G->edges(), 136u);
    ASSERT_EQ(b.G->edges(), 136u);
    ASSERT_EQ(a.dim, b.dim);
    for (size_t e = 0; e < 136; ++e) {
        size_t s1, t1, s2, t2;
        a.G->edge(e, s1, t1);
        b.G->edge(e, s2, t2);
        EXPECT_EQ(s1, s2);
        EXPECT_EQ(t1, t2);
    }
    double largest = 0.0;
    for (size_t i = 0; i < a.dim; ++i) {
        EXPECT_NEAR(a.w[i], b.w[i], 1e-12) << i;
        largest = std::max(largest, std::fabs(a.w[i]));
    }
    EXPECT_GT(largest, 0.1);  // a fitted model, not zeros
    delete a.G;
    delete b.G;

    const Inferred x = inferFile(orig, false), y = inferFile(back, false);
    EXPECT_NEAR(x.lnz, y.lnz, 1e-12);
    ASSERT_EQ(x.pp.size(), y.pp.size());
    for (size_t i = 0; i < x.pp.size(); ++i) EXPECT_NEAR(x.pp[i], y.pp[i], 1e-12) << i;
}

TEST(Qzuai, ImportsIntoOtherIndexAndValueTypes) {
    Net net;
    net.card = {2, 3, 2};
    net.factors = {{{0, 1}, {1.0, 0.5, 2.0, 1.5, 0.3, 1.0}}, {{1, 2}, {0.7, 1.3, 2.0, 0.2, 1.0, 1.0}}};
    const std::string uai = uaiFile("types", net.text());
    const std::string qzm = fresh("types.qzm");
    const ProcessResult r = qzuai({"import", uai, qzm, "--idx", "UINT8", "--val", "FLT32"}, "types");
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string bytes = readFile(qzm);
    EXPECT_EQ(bytes[0], 0);  // UINT8
    EXPECT_EQ(bytes[1], 4);  // FLT32
    Ctx c;
    runLines(c, {"idx_t UINT8;", "val_t FLT32;", "MFN '" + qzm + "'", "LDX MPT;", "SLW true", "INFER;"});
    EXPECT_NEAR(regR(c, "LNZ"), std::log(net.enumerate()), 1e-5);
    // And back: a float model exports as well.
    const std::string again = fresh("types_back.uai");
    EXPECT_EQ(qzuai({"export", qzm, again}, "types_back").code, 0);
}

TEST(Qzuai, EvidenceBecomesTheObservationsOfInfer) {
    Net net;
    net.card = {2, 3, 2};
    net.factors = {{{0, 1}, {1.0, 0.5, 2.0, 1.5, 0.3, 1.0}}, {{1, 2}, {0.7, 1.3, 2.0, 0.2, 1.0, 1.0}},
                   {{2}, {2.0, 1.0}}};
    const std::string qzm = imported(net, "evid");
    const std::string evid = tmpPath("qzuai_evid.evid");
    writeFile(evid, "1\n 0 1\n");
    const std::string csv = fresh("evid.csv");
    const ProcessResult r = qzuai({"evidence", evid, qzm, csv}, "evid");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(readFile(csv), "x0,x1,x2\n1,?,?\n1,?,?\n");

    std::vector<std::vector<double>> marg;
    net.enumerate(&marg, {{0, 1}});
    const Inferred bp = inferFile(qzm, false, csv);
    // Vertices 1 and 2 are not observed; on a chain the marginals are exact.
    for (size_t x = 0; x < 3; ++x) EXPECT_NEAR(bp.pp[2 + x], marg[1][x], 1e-6);
    for (size_t x = 0; x < 2; ++x) EXPECT_NEAR(bp.pp[5 + x], marg[2][x], 1e-6);

    // The older form with a sample count gives one row a sample; the UAI
    // file serves as the model as well.
    writeFile(evid, "2\n1 0 1\n2 2 1 1 0\n");
    const std::string csv2 = fresh("evid2.csv");
    const ProcessResult r2 = qzuai({"evidence", evid, tmpPath("qzuai_evid.uai"), csv2}, "evid2");
    ASSERT_EQ(r2.code, 0) << r2.err;
    EXPECT_EQ(readFile(csv2), "x0,x1,x2\n1,?,?\n1,?,?\n?,0,1\n");
}

namespace {

struct BadCase {
    const char* name;
    const char* text;
    const char* message;  // after "qzuai: PATH:"
};

}  // namespace

TEST(Qzuai, MalformedModelsNameTheLineAndWriteNothing) {
    const BadCase cases[] = {
        {"kind", "\n\nMARKOFF\n", "3: expected the network type MARKOV or BAYES, found 'MARKOFF'"},
        {"joint", "MARKOV\n3\n300 300 2\n2\n1 0\n3 0 1 2\n300\n1\n",
         "6: factor 1 over x0, x1, x2 has 180000 joint states, more than the 65535 that a 16-bit state code can number"},
        {"twice3", "MARKOV\n3\n2 2 2\n1\n3 0 1 0\n8\n1 1 1 1 1 1 1 1\n", "5: factor 0 names variable 0 twice"},
        {"bayesempty", "BAYES\n2\n2 2\n1\n0\n1\n1\n", "5: factor 0 has no variables: a conditional table needs its child"},
        {"negative", "MARKOV\n2\n2 2\n1\n2 0 1\n4\n1.0 -2.0\n1 0.5\n", "7: factor 0 has a negative entry"},
        {"word", "MARKOV\n2\n2 2\n1\n2 0 1\n4\n1.0 2.0\n1 x\n", "8: 'x' is no number (an entry of factor 0)"},
        {"count", "MARKOV\n2\n2 3\n1\n2 0 1\n4\n1 1 1 1\n",
         "6: factor 0 has 4 entries, but its scope has 6 joint states"},
        {"short", "MARKOV\n2\n2 2\n1\n2 0 1\n4\n1 1\n1\n",
         "8: the file ends where an entry of factor 0 was expected"},
        {"alone", "MARKOV\n1\n2\n1\n1 0\n2\n1 1\n",
         "5: variable 0 has a vertex factor, but a model of one variable has no edge to carry it"},
        {"extra", "MARKOV\n2\n2 2\n1\n2 0 1\n4\n1 1 1 1\n5\n", "8: unexpected text after the last function table"},
        {"range", "MARKOV\n2\n2 2\n1\n2 0 2\n4\n1 1 1 1\n", "5: factor 0 names variable 2, but there are 2"},
        {"twice", "MARKOV\n2\n2 2\n1\n2 1 1\n4\n1 1 1 1\n", "5: factor 0 names variable 1 twice"},
        {"nostates", "MARKOV\n2\n2 0\n0\n", "3: variable 1 has no states"},
        {"cardinality", "MARKOV\n1\n2.5\n0\n", "3: '2.5' is no whole number (cardinality of variable 0)"},
        {"nothing", "", "1: the file ends where the network type MARKOV or BAYES was expected"},
    };
    for (const BadCase& c : cases) {
        const std::string uai = uaiFile(std::string("bad_") + c.name, c.text);
        const std::string out = fresh(std::string("bad_") + c.name + ".qzm");
        const ProcessResult r = qzuai({"import", uai, out}, c.name);
        EXPECT_EQ(r.code, 1) << c.name;
        EXPECT_EQ(r.err, "qzuai: " + uai + ":" + c.message + "\n") << c.name;
        EXPECT_FALSE(fileExists(out)) << c.name;
    }
}

TEST(Qzuai, ModelsWithoutAUaiFormAreRefused) {
    // An integer model.
    const std::string intModel = fresh("int.qzm");
    {
        Ctx c;
        runLines(c, {"idx_t UINT8;", "val_t UINT8;", "DFN '" + std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv'",
                     "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;", "MFN '" + intModel + "'", "STORE MPT;"});
    }
    const std::string out = fresh("int.uai");
    ProcessResult r = qzuai({"export", intModel, out}, "int");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "qzuai: " + intModel +
                         ": byte 2: this is an integer model; its weights are no logarithms of potentials and have "
                         "no UAI form\n");
    EXPECT_FALSE(fileExists(out));

    // A truncated model file.
    const std::string whole = imported(Net{{2, 2}, {{{0, 1}, {1, 2, 3, 4}}}}, "whole");
    const std::string bytes = readFile(whole);
    const std::string cut = tmpPath("qzuai_cut.qzm");
    writeFile(cut, bytes.substr(0, bytes.size() - 8));
    r = qzuai({"export", cut, out}, "cut");
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("the statistics and weights need 96 bytes, but 88 follow"), std::string::npos) << r.err;
    EXPECT_FALSE(fileExists(out));
    writeFile(cut, bytes.substr(0, 30));
    r = qzuai({"export", cut, out}, "cut2");
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("the file ends inside"), std::string::npos) << r.err;
    EXPECT_FALSE(fileExists(out));
}

TEST(Qzuai, BadEvidenceNamesTheLine) {
    const std::string qzm = imported(Net{{2, 3}, {{{0, 1}, {1, 2, 3, 4, 5, 6}}}}, "evbad");
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"1\n1 3\n", "2: variable 1 is observed in state 3, but it has 3 states"},
        {"1\n2 0\n", "2: variable 2 is observed, but the model has 2"},
        {"2\n0 1\n0 0\n", "3: variable 0 is observed twice"},
        {"1 0 1 7\n", "1: unexpected text after the evidence"},
        {"", "1: the file is empty: it needs the number of observed variables"},
    };
    int i = 0;
    for (const auto& c : cases) {
        const std::string evid = tmpPath("qzuai_evbad" + std::to_string(i) + ".evid");
        writeFile(evid, c.text);
        const std::string out = fresh("evbad.csv");
        const ProcessResult r = qzuai({"evidence", evid, qzm, out}, "evbad" + std::to_string(i++));
        EXPECT_EQ(r.code, 1);
        EXPECT_EQ(r.err, "qzuai: " + evid + ":" + c.message + "\n");
        EXPECT_FALSE(fileExists(out));
    }
}

TEST(Qzuai, CommandLine) {
    const std::string uai = uaiFile("cli", TWO);
    const std::string out = fresh("cli.qzm");
    EXPECT_EQ(qzuai({}, "cli0").code, 2);
    EXPECT_EQ(qzuai({"convert", uai, out}, "cli1").code, 2);
    EXPECT_EQ(qzuai({"import", uai}, "cli2").code, 2);
    EXPECT_EQ(qzuai({"import", uai, out, "--idx", "UINT7"}, "cli3").code, 2);
    EXPECT_EQ(qzuai({"import", uai, out, "--val", "UINT8"}, "cli4").code, 2);
    EXPECT_FALSE(fileExists(out));
    EXPECT_EQ(qzuai({"-h"}, "cli5").code, 0);
    // An existing output is kept unless -f is given.
    writeFile(out, "keep");
    ProcessResult r = qzuai({"import", uai, out}, "cli6");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "qzuai: '" + out + "' exists (use -f to overwrite)\n");
    EXPECT_EQ(readFile(out), "keep");
    r = qzuai({"import", uai, out, "-f"}, "cli7");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(readFile(out), "keep");
    r = qzuai({"import", tmpPath("qzuai_none.uai"), fresh("none.qzm")}, "cli8");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "qzuai: cannot read '" + tmpPath("qzuai_none.uai") + "'\n");
}

// ------------------------------------------------------------------ every network

namespace {

const double NEG_INF = -std::numeric_limits<double>::infinity();

// Vertex marginals of the first n vertices from INFER's array.
std::vector<std::vector<double>> firstMarginals(const Inferred& r, const std::vector<size_t>& card) {
    std::vector<std::vector<double>> m;
    size_t k = 0;
    for (size_t c : card) {
        m.emplace_back(r.pp.begin() + (long)k, r.pp.begin() + (long)(k + c));
        k += c;
    }
    return m;
}

void expectMarginals(const std::vector<std::vector<double>>& got, const std::vector<std::vector<double>>& want,
                     double tol, const std::string& what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (size_t v = 0; v < want.size(); ++v) {
        ASSERT_EQ(got[v].size(), want[v].size()) << what << " variable " << v;
        for (size_t x = 0; x < want[v].size(); ++x) EXPECT_NEAR(got[v][x], want[v][x], tol) << what << " x" << v << "=" << x;
    }
}

// The enumeration of a model file (added variables and all) and the junction
// tree on it give the network's Z and marginals under the observations.
void expectExact(const std::string& qzm, const Net& net, const std::map<size_t, size_t>& observed,
                 const std::string& what) {
    std::vector<std::vector<double>> marg;
    const double Z = net.enumerate(&marg, observed);
    EXPECT_NEAR(inferFile(qzm, true).lnz, std::log(Z), 1e-12) << what;
    const Inferred jt = inferFile(qzm, false, "", "JT");
    EXPECT_NEAR(jt.lnz, std::log(Z), 1e-9) << what;
    expectMarginals(firstMarginals(jt, net.card), marg, 1e-9, what);
}

// Three variables in a loop, a factor over three of them and one over four,
// zero entries in a pairwise, a vertex and a higher factor.
Net mixedNet() {
    Net net;
    net.card = {2, 3, 2, 2, 3};
    net.factors = {{{0, 1}, {1.0, 0.0, 2.0, 0.5, 1.5, 1.0}},
                   {{1, 2}, {0.7, 1.3, 2.0, 0.2, 1.0, 1.0}},
                   {{2, 0}, {1.0, 3.0, 0.5, 1.0}},
                   {{0, 2, 3}, {1.0, 2.0, 0.0, 1.0, 3.0, 1.0, 1.0, 0.5}},
                   {{3}, {0.0, 1.0}},
                   {{1, 3, 4, 2}, {}},
                   {{4}, {2.0, 1.0, 0.5}}};
    // A table of 3*2*3*2 entries with a few zeros.
    for (size_t i = 0; i < 36; ++i) net.factors[5].table.push_back(i % 7 == 3 ? 0.0 : 0.25 + (double)((i * 5) % 11) / 4);
    return net;
}

}  // namespace

TEST(Qzuai, ZeroEntriesBecomeForbiddenPairs) {
    Net net;
    net.card = {2, 3};
    net.factors = {{{1, 0}, {1.0, 0.0, 2.0, 3.0, 0.5, 0.0}}, {{0}, {0.0, 2.0}}};
    const std::string qzm = imported(net, "zeros");
    QZ::IO<size_t, double> io(qzm);
    ASSERT_EQ(io.G->edges(), 1u);
    size_t s, t;
    io.G->edge(0, s, t);
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(t, 0u);
    // (x1, x0) with x1 slow; the vertex factor of x0 forbids x0 = 0 everywhere.
    for (size_t i = 0; i < 6; ++i)
        if (i == 3)
            EXPECT_NEAR(io.w[i], std::log(6.0), 1e-15);
        else
            EXPECT_EQ(io.w[i], NEG_INF) << i;
    delete io.G;
    EXPECT_NEAR(inferFile(qzm, true).lnz, std::log(net.enumerate()), 1e-12);
}

TEST(Qzuai, FactorsOverThreeOrMoreVariablesGetAnAddedVariable) {
    const Net net = mixedNet();
    const std::string qzm = imported(net, "mixed");
    QZ::IO<size_t, double> io(qzm);
    ASSERT_EQ(io.G->vertices(), 7u);
    EXPECT_EQ(io.Y[5], 8u);
    EXPECT_EQ(io.Y[6], 36u);
    EXPECT_EQ((*io.Xnames)[5], "f3_x0_x2_x3");
    EXPECT_EQ((*io.Xnames)[6], "f5_x1_x3_x4_x2");
    // States are named by the joint states of the scope, last variable fastest.
    EXPECT_EQ((*(*io.Ynames)[5])[3], "0.1.1");
    EXPECT_EQ((*(*io.Ynames)[6])[35], "2.1.2.1");
    // Three pairwise edges, then one edge to each scope variable.
    ASSERT_EQ(io.G->edges(), 3u + 3u + 4u);
    size_t s, t;
    io.G->edge(3, s, t);
    EXPECT_EQ(s * 10 + t, 50u);
    io.G->edge(9, s, t);
    EXPECT_EQ(s * 10 + t, 62u);
    delete io.G;

    expectExact(qzm, net, {}, "mixed");
}

TEST(Qzuai, BayesNetworksAreTheProductOfTheirTables) {
    // x3 has three parents, x2 one, x0 and x1 none.
    Net net;
    net.bayes = true;
    net.card = {2, 3, 2, 2};
    net.factors = {{{0}, {0.3, 0.7}},
                   {{1}, {0.2, 0.5, 0.3}},
                   {{0, 2}, {0.9, 0.1, 0.4, 0.6}},
                   {{0, 1, 2, 3}, {}}};
    for (size_t i = 0; i < 12; ++i) {
        const double p = i == 5 ? 1.0 : 0.1 + 0.07 * (double)i;  // one row is deterministic
        net.factors[3].table.push_back(p);
        net.factors[3].table.push_back(1.0 - p);
    }
    EXPECT_NEAR(net.enumerate(), 1.0, 1e-12);
    expectExact(imported(net, "bayes"), net, {}, "bayes");

    // Evidence conditions the model file: its Z is the probability of the
    // evidence, and its marginals the posterior ones.
    const std::string uai = tmpPath("qzuai_bayes.uai");
    const std::string evid = tmpPath("qzuai_bayes.evid");
    writeFile(evid, "2 3 0 1 2\n");
    const std::string cond = fresh("bayes_cond.qzm");
    const ProcessResult r = qzuai({"import", uai, evid, cond}, "bayes_cond");
    ASSERT_EQ(r.code, 0) << r.err;
    expectExact(cond, net, {{3, 0}, {1, 2}}, "bayes with evidence");
}

TEST(Qzuai, ConstantFactorsAndLoneObservedVariablesKeepThePartitionFunction) {
    // A factor without variables multiplies Z; x2 has no factor at all, and
    // observing it divides Z by nothing but leaves one of its states.
    Net net;
    net.card = {2, 2, 3};
    net.factors = {{{}, {5.0}}, {{0, 1}, {1.0, 2.0, 3.0, 4.0}}};
    const std::string qzm = imported(net, "constant");
    EXPECT_NEAR(inferFile(qzm, true).lnz, std::log(net.enumerate()), 1e-12);
    const std::string evid = tmpPath("qzuai_constant.evid");
    writeFile(evid, "1 2 1\n");
    const std::string cond = fresh("constant_cond.qzm");
    const ProcessResult r = qzuai({"import", tmpPath("qzuai_constant.uai"), evid, cond}, "constant_cond");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NEAR(inferFile(cond, true).lnz, std::log(net.enumerate(nullptr, {{2, 1}})), 1e-12);
}

TEST(Qzuai, LongScopesHaveShortenedNames) {
    // Fifteen binary variables numbered from 1000: the name keeps the first
    // ones and the last within 64 characters.
    Net net;
    net.card.assign(1015, 2);
    Factor f;
    for (size_t v = 1000; v < 1015; ++v) f.scope.push_back(v);
    f.table.assign(32768, 1.0);
    net.factors = {f, {{0, 1}, {1, 2, 3, 4}}};
    const std::string qzm = imported(net, "long");
    QZ::IO<size_t, double> io(qzm);
    const std::string name = (*io.Xnames)[1015];
    EXPECT_LE(name.size(), 64u);
    EXPECT_EQ(name.substr(0, 13), "f0_x1000_x100");
    EXPECT_EQ(name.substr(name.size() - 10), "_..._x1014");
    EXPECT_EQ(io.Y[1015], 32768u);
    delete io.G;
}

TEST(Qzuai, RoundTripOfANetworkWithZerosAndAddedVariables) {
    const Net net = mixedNet();
    const std::string qzm = imported(net, "rt_mixed");
    const std::string uai = fresh("rt_mixed_back.uai");
    ProcessResult r = qzuai({"export", qzm, uai}, "rt_export");
    ASSERT_EQ(r.code, 0) << r.err;
    // The exported network is pairwise, with zeros where weights are minus
    // infinity; imported again, it has the same weights.
    const std::string text = readFile(uai);
    EXPECT_EQ(text.substr(0, 11), "MARKOV\n7\n2 ");
    EXPECT_NE(text.find(" 0 "), std::string::npos);
    const std::string back = fresh("rt_mixed_back.qzm");
    r = qzuai({"import", uai, back}, "rt_import");
    ASSERT_EQ(r.code, 0) << r.err;
    QZ::IO<size_t, double> a(qzm), b(back);
    ASSERT_EQ(a.dim, b.dim);
    for (size_t i = 0; i < a.dim; ++i)
        if (a.w[i] == NEG_INF)
            EXPECT_EQ(b.w[i], NEG_INF) << i;
        else
            EXPECT_NEAR(a.w[i], b.w[i], 1e-12) << i;
    delete a.G;
    delete b.G;
    EXPECT_NEAR(inferFile(back, true).lnz, std::log(net.enumerate()), 1e-12);
}

TEST(Qzuai, EvidenceTableOfANetworkWithAddedVariables) {
    const Net net = mixedNet();
    const std::string uai = uaiFile("evmixed", net.text());
    const std::string evid = tmpPath("qzuai_evmixed.evid");
    writeFile(evid, "2 4 2 0 1\n");
    const std::string csv = fresh("evmixed.csv");
    const ProcessResult r = qzuai({"evidence", evid, uai, csv}, "evmixed");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(readFile(csv), "x0,x1,x2,x3,x4,f3_x0_x2_x3,f5_x1_x3_x4_x2\n1,?,?,?,2,?,?\n1,?,?,?,2,?,?\n");
    // The evidence names the network's variables only.
    writeFile(evid, "1 5 0\n");
    const ProcessResult bad = qzuai({"evidence", evid, uai, fresh("evmixed2.csv")}, "evmixed2");
    EXPECT_EQ(bad.code, 1);
    EXPECT_EQ(bad.err, "qzuai: " + evid + ":1: variable 5 is observed, but the model has 5\n");
}

// Loopy belief propagation is exact on a tree; the network below is one
// after conversion (the added variable is the centre of a star), with zeros.
TEST(Qzuai, LoopyBeliefPropagationIsExactOnATreeWithZeros) {
    Net net;
    net.card = {2, 3, 2, 2};
    net.factors = {{{0, 1, 2}, {1.0, 0.0, 2.0, 1.0, 0.5, 3.0, 0.0, 1.0, 2.0, 1.5, 1.0, 0.0}},
                   {{2, 3}, {0.0, 1.0, 2.0, 1.0}},
                   {{1}, {1.0, 0.0, 2.0}}};
    const std::string qzm = imported(net, "lbpzeros");
    std::vector<std::vector<double>> marg;
    const double Z = net.enumerate(&marg);
    const Inferred bp = inferFile(qzm, false, "", "LBP");
    EXPECT_NEAR(bp.lnz, std::log(Z), 1e-6);
    expectMarginals(firstMarginals(bp, net.card), marg, 1e-6, "loopy belief propagation");
}

namespace {

// SCORE of rows that the network allows, on its imported model, against
// the mean of their log probabilities by enumeration.
void expectScore(const std::string& alg, const std::string& tag) {
    Net net;
    net.card = {2, 3, 2};
    net.factors = {{{0, 1}, {1.0, 0.0, 2.0, 0.5, 1.5, 1.0}}, {{1, 2}, {0.7, 1.3, 2.0, 0.2, 1.0, 1.0}},
                   {{2}, {0.0, 1.0}}};
    const std::string qzm = imported(net, "score_" + tag);
    const std::vector<std::vector<size_t>> rows = {{0, 0, 1}, {1, 2, 1}, {0, 2, 1}, {1, 1, 1}};
    const double Z = net.enumerate();
    double mean = 0.0;
    std::string csv = "x0,x1,x2\n0,0,1\n";  // the reader drops the line behind the header
    for (const auto& r : rows) {
        mean += std::log(net.potential(r) / Z) / (double)rows.size();
        csv += std::to_string(r[0]) + "," + std::to_string(r[1]) + "," + std::to_string(r[2]) + "\n";
    }
    const std::string table = tmpPath("qzuai_score_" + tag + ".csv");
    writeFile(table, csv);
    Ctx c;
    runLines(c, {"MFN '" + qzm + "'", "LDX MPT;", "DFN '" + table + "'", "LDX DPT;", "ALG " + alg + ";", "SLW false",
                 "SCORE;"});
    const double tol = alg == "JT" ? 1e-9 : 1e-6;
    EXPECT_NEAR(regR(c, "LNZ"), std::log(Z), tol) << alg;
    EXPECT_NEAR(regR(c, "RES"), mean, tol) << alg;
}

}  // namespace

TEST(Qzuai, ScoreOfAModelWithZerosByTheJunctionTree) { expectScore("JT", "jt"); }

// The network is a chain: loopy belief propagation is exact on it.
TEST(Qzuai, ScoreOfAModelWithZerosByLoopyBeliefPropagation) { expectScore("LBP", "lbp"); }
