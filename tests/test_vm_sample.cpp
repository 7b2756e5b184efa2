// SAMPLE through programs: small chain models with known weights, checked
// against enumeration of all joint states.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned long, double> IOd;

// A cell beyond every state space: the sampler draws it afresh.
const unsigned short kFree = 1000;

QZ::CategoricalData* table(void* c) { return reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT")); }
IOd* model(void* c) { return reinterpret_cast<IOd*>(reg(c, "MPT")); }

// Three columns with 2, 3 and 2 states over a chain; the reader drops the
// line after the header. Every state occurs so that the codes cover them.
std::string tableText(size_t rows, size_t cols = 3) {
    const char* a[] = {"x", "y"};
    const char* b[] = {"p", "q", "r"};
    const char* cc[] = {"1", "2"};
    std::string t = cols == 3 ? "a,b,c\nd,d,d\n" : "a,b\nd,d\n";
    for (size_t i = 0; i < rows; ++i) {
        t += std::string(a[i % 2]) + "," + b[i % 3];
        if (cols == 3) t += std::string(",") + cc[(i / 2) % 2];
        t += "\n";
    }
    return t;
}

std::string tableFile(const std::string& tag, const std::string& text) { return csvFile("sample_" + tag, text); }

// Builds the model over a chain from the table and gives it fixed weights of
// order 1 that favour no state by symmetry.
IOd* build(void* c, const std::string& tag, size_t rows) {
    wreg(c, "SEED", 11);
    if (!runLines(c, {"DFN '" + tableFile(tag, tableText(rows)) + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}))
        return nullptr;
    IOd* io = model(c);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 1.3 * std::sin(1.7 * (double)i + 0.4);
    return io;
}

// Replaces the table in DPT by another one read from text.
void loadTable(void* c, const std::string& tag, const std::string& text) {
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "DFN '" + tableFile(tag, text) + "'", "LDX DPT;"}));
}

typedef std::vector<std::vector<unsigned short>> Cells;

Cells cells(const QZ::CategoricalData* D) {
    Cells r(D->size(), std::vector<unsigned short>(D->columns()));
    for (size_t i = 0; i < D->size(); ++i)
        for (size_t j = 0; j < D->columns(); ++j) r[i][j] = (unsigned short)D->get(i, j);
    return r;
}

void fill(QZ::CategoricalData* D, size_t col, unsigned short v) {
    for (size_t i = 0; i < D->size(); ++i) D->set(v, i, col, true);
}

// Vertex marginals by enumeration, given the fixed states in obs (-1: free).
std::vector<std::vector<double>> marginals(const IOd* io, const std::vector<long>& obs) {
    const size_t n = io->G->vertices(), m = io->G->edges();
    std::vector<size_t> off;
    size_t o = 0;
    for (size_t e = 0; e < m; ++e) {
        unsigned long s, t;
        io->G->edge(e, s, t);
        off.push_back(o);
        o += io->Y[s] * io->Y[t];
    }
    std::vector<std::vector<double>> p(n);
    for (size_t v = 0; v < n; ++v) p[v].assign(io->Y[v], 0.0);
    double Z = 0;
    std::vector<size_t> x(n, 0);
    for (size_t v = 0; v < n; ++v)
        if (obs[v] >= 0) x[v] = (size_t)obs[v];
    while (true) {
        double lp = 0;
        for (size_t e = 0; e < m; ++e) {
            unsigned long s, t;
            io->G->edge(e, s, t);
            lp += io->w[off[e] + x[s] * io->Y[t] + x[t]];
        }
        const double q = std::exp(lp);
        Z += q;
        for (size_t v = 0; v < n; ++v) p[v][x[v]] += q;
        size_t v = 0;
        for (; v < n; ++v) {
            if (obs[v] >= 0) continue;
            if (++x[v] < io->Y[v]) break;
            x[v] = 0;
        }
        if (v == n) break;
    }
    for (auto& pv : p)
        for (double& q : pv) q /= Z;
    return p;
}

// Frequencies of each state per column against the exact marginals, within
// five standard errors of a proportion over N independent draws.
void expectFrequencies(const QZ::CategoricalData* D, const IOd* io, const std::vector<long>& obs) {
    const auto p = marginals(io, obs);
    const size_t N = D->size();
    for (size_t v = 0; v < io->G->vertices(); ++v) {
        if (obs[v] >= 0) continue;
        std::vector<double> f(io->Y[v], 0.0);
        for (size_t i = 0; i < N; ++i) {
            const size_t x = D->get(i, v);
            ASSERT_LT(x, io->Y[v]);
            f[x] += 1.0 / (double)N;
        }
        for (size_t x = 0; x < io->Y[v]; ++x) {
            const double se = std::sqrt(p[v][x] * (1 - p[v][x]) / (double)N);
            EXPECT_NEAR(f[x], p[v][x], 5 * se + 1e-3) << "vertex " << v << " state " << x;
        }
    }
}

// A table without a missing cell comes back as it was.
void expectFullRowsKept(const std::string& tag, double pam) {
    Ctx c;
    ASSERT_NE(build(c, tag, 12), nullptr);
    const Cells before = cells(table(c));
    wregR(c, "PAM", pam);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    EXPECT_EQ(cells(table(c)), before);
}

std::vector<size_t> gReports;
void onProgress(size_t done, size_t total, const char* text) {
    EXPECT_STREQ(text, "SAMPLE");
    gReports.push_back(done);
    gReports.push_back(total);
}

}  // namespace

TEST(Sample, ZeroRowsSetsTheCountToZeroAndReportsNothing) {
    Ctx c;
    ASSERT_NE(build(c, "zero_model", 6), nullptr);
    loadTable(c, "zero", tableText(0));
    ASSERT_EQ(table(c)->size(), 0u);
    wreg(c, "GNU", 77);
    gReports.clear();
    wreg(c, "CBP", reinterpret_cast<size_t>(&onProgress));
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    EXPECT_EQ(reg(c, "GNU"), 0u);
    EXPECT_TRUE(gReports.empty());
}

TEST(Sample, CountAndProgressCoverEveryRowStartingAtTwo) {
    Ctx c;
    ASSERT_NE(build(c, "progress", 5), nullptr);
    wreg(c, "GNU", 3);  // overwritten
    gReports.clear();
    wreg(c, "CBP", reinterpret_cast<size_t>(&onProgress));
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    EXPECT_EQ(reg(c, "GNU"), 5u);
    ASSERT_EQ(gReports.size(), 10u);
    for (size_t k = 0; k < 5; ++k) {
        EXPECT_EQ(gReports[2 * k], k + 2);  // one critical section: strictly in order
        EXPECT_EQ(gReports[2 * k + 1], 5u);
    }
}

TEST(Sample, FullyObservedRowIsUnchangedUnderGibbs) { expectFullRowsKept("full_gibbs", 0.0); }

TEST(Sample, FullyObservedRowIsUnchangedUnderPerturbAndMap) { expectFullRowsKept("full_pam", 2.0); }

TEST(Sample, GibbsFrequenciesMatchTheExactMarginals) {
    Ctx c;
    IOd* io = build(c, "gibbs_freq", 4000);
    ASSERT_NE(io, nullptr);
    for (size_t v = 0; v < 3; ++v) fill(table(c), v, kFree);
    wregR(c, "PAM", 0.0);
    wreg(c, "GRE", 20);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    expectFrequencies(table(c), io, {-1, -1, -1});
}

TEST(Sample, GibbsKeepsPresentCellsAndSamplesTheRestConditionally) {
    Ctx c;
    IOd* io = build(c, "gibbs_cond", 4000);
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    fill(D, 0, kFree);
    fill(D, 1, 2);
    fill(D, 2, kFree);
    wregR(c, "PAM", 0.0);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    for (size_t i = 0; i < D->size(); ++i) ASSERT_EQ(D->get(i, 1), 2u);
    expectFrequencies(D, io, {-1, 2, -1});
    // Conditioning matters here: the free marginal of vertex 0 differs.
    const auto p = marginals(io, {-1, -1, -1}), q = marginals(io, {-1, 2, -1});
    EXPECT_GT(std::fabs(p[0][0] - q[0][0]), 0.05);
}

TEST(Sample, MissingCellsOfAFloatingModelComeBackAsStateZeroUnderGibbs) {
    // -1.0 converts to state 0 and so counts as a value: clamped, not drawn.
    Ctx c;
    ASSERT_NE(build(c, "gibbs_missing", 50), nullptr);
    QZ::CategoricalData* D = table(c);
    fill(D, 0, QZ::CategoricalData::MIS_VAL);
    fill(D, 2, QZ::CategoricalData::MIS_VAL);
    const Cells before = cells(D);
    wregR(c, "PAM", 0.0);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    for (size_t i = 0; i < D->size(); ++i) {
        EXPECT_EQ(D->get(i, 0), 0u);
        EXPECT_EQ(D->get(i, 1), before[i][1]);
        EXPECT_EQ(D->get(i, 2), 0u);
    }
}

TEST(Sample, DefaultNoiseLeavesMissingCellsOfAFloatingModelAtStateZero) {
    // With the default scale the draws are the MAP state of a barely
    // perturbed model, but a floating engine reports the observation marker
    // for a free vertex, and the marker is stored as state 0, even where the
    // weights make state 1 the clear MAP state.
    Ctx c;
    IOd* io = build(c, "pam_default", 40);
    ASSERT_NE(io, nullptr);
    EXPECT_DOUBLE_EQ(regR(c, "PAM"), 0.1);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 0.0;
    io->w[4] = 2.0;  // a=1, b=1 on the first edge
    QZ::CategoricalData* D = table(c);
    fill(D, 0, QZ::CategoricalData::MIS_VAL);
    fill(D, 1, kFree);
    const Cells before = cells(D);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    for (size_t i = 0; i < D->size(); ++i) {
        EXPECT_EQ(D->get(i, 0), 0u);
        EXPECT_EQ(D->get(i, 1), 0u);
        EXPECT_EQ(D->get(i, 2), before[i][2]);
    }
}

TEST(Sample, FewerColumnsThanVerticesStoresOnlyTheColumns) {
    Ctx c;
    IOd* io = build(c, "narrow_model", 12);
    ASSERT_NE(io, nullptr);
    loadTable(c, "narrow", tableText(3000, 2));
    QZ::CategoricalData* D = table(c);
    ASSERT_EQ(D->columns(), 2u);
    fill(D, 0, kFree);
    fill(D, 1, 1);
    wregR(c, "PAM", 0.0);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    ASSERT_EQ(D->columns(), 2u);
    for (size_t i = 0; i < D->size(); ++i) ASSERT_EQ(D->get(i, 1), 1u);
    // Vertex 0 only sees vertex 1, so its draws follow the exact conditional.
    expectFrequencies(D, io, {-1, 1, 0});
}

TEST(Sample, SharedNoiseOnAVertexWithoutAFreeEdgeLeavesTheWeightsAlone) {
    // A chain of three has two edges: at least one vertex finds every
    // incident edge taken and shares one draw over its first edge's block.
    // The container's weights stay as they were, whichever sampler ran.
    Ctx c;
    IOd* io = build(c, "weights", 200);
    ASSERT_NE(io, nullptr);
    const std::vector<double> w(io->w, io->w + io->dim);
    fill(table(c), 0, kFree);
    wregR(c, "PAM", 3.0);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    EXPECT_EQ(std::vector<double>(io->w, io->w + io->dim), w);
    wregR(c, "PAM", 0.0);
    fill(table(c), 2, kFree);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    EXPECT_EQ(std::vector<double>(io->w, io->w + io->dim), w);
}

TEST(Sample, FixedSeedAndThreadCountGiveTheSameSamples) {
    auto once = [](size_t seed) {
        Ctx c;
        build(c, "seed", 300);
        for (size_t v = 0; v < 3; ++v) fill(table(c), v, kFree);
        wreg(c, "OMP", 1);
        wreg(c, "SEED", seed);
        wregR(c, "PAM", 0.0);
        runLines(c, {"SAMPLE;"});
        return cells(table(c));
    };
    const Cells a = once(5), b = once(5), d = once(6);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, d);
}

TEST(Sample, WithoutATableTheAssertionFails) {
    Ctx c;
    ASSERT_NE(build(c, "notable", 6), nullptr);
    EXPECT_DEATH(runLines(c, {"DEL DPT;", "SAMPLE;"}), "Assertion `false' failed");
}

TEST(Sample, AnEngineThatCannotBeMadeIsReportedToTheCaller) {
    Ctx c;
    ASSERT_NE(build(c, "noengine", 6), nullptr);
    const Cells before = cells(table(c));
    std::string what;
    try {
        runLines(c, {"ALG EXTI;", "SAMPLE;"});
    } catch (const std::exception& e) {
        what = e.what();
    }
    EXPECT_EQ(what, "unknown inference algorithm");
    EXPECT_EQ(cells(table(c)), before);
}

// ------------------------------------------------- forbidden joint states

namespace {

const double kNegInf = -std::numeric_limits<double>::infinity();

// The chain's weights with zeros: a = x forbids b = p, b = r forbids c = 2,
// and a = y, b = q is forbidden too.
IOd* buildWithZeros(void* c, const std::string& tag, size_t rows) {
    IOd* io = build(c, tag, rows);
    if (io == nullptr) return nullptr;
    io->w[0 * 3 + 0] = kNegInf;
    io->w[1 * 3 + 1] = kNegInf;
    io->w[6 + 2 * 2 + 1] = kNegInf;
    return io;
}

double rowLogPotential(const IOd* io, const QZ::CategoricalData* D, size_t i) {
    const double* w = io->w;
    return w[D->get(i, 0) * 3 + D->get(i, 1)] + w[6 + D->get(i, 1) * 2 + D->get(i, 2)];
}

}  // namespace

TEST(Sample, GibbsOnAModelWithZerosMatchesTheMarginalsAndNeverDrawsAForbiddenRow) {
    Ctx c;
    IOd* io = buildWithZeros(c, "gibbs_zeros", 4000);
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    // Free cells of both kinds: beyond the states, and missing.
    fill(D, 0, kFree);
    fill(D, 1, QZ::CategoricalData::MIS_VAL);
    fill(D, 2, kFree);
    wregR(c, "PAM", 0.0);
    // The zeros leave single-site moves a narrow way between the likely
    // states (a = y, b = p to a = x, b = q only through b = r): the chain
    // needs more sweeps to forget its start.
    wreg(c, "GRE", 300);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    for (size_t i = 0; i < D->size(); ++i) ASSERT_GT(rowLogPotential(io, D, i), kNegInf) << i;
    expectFrequencies(D, io, {-1, -1, -1});
    // Given b = q, a = y is impossible.
    fill(D, 0, kFree);
    fill(D, 1, 1);
    fill(D, 2, kFree);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    for (size_t i = 0; i < D->size(); ++i) ASSERT_EQ(D->get(i, 0), 0u) << i;
    expectFrequencies(D, io, {-1, 1, -1});
}

TEST(Sample, PerturbAndMapOnAModelWithZerosNeverDrawsAForbiddenRow) {
    Ctx c;
    IOd* io = buildWithZeros(c, "pam_zeros", 400);
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    fill(D, 1, QZ::CategoricalData::MIS_VAL);
    fill(D, 2, kFree);
    const Cells before = cells(D);
    wregR(c, "PAM", 1.0);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    std::vector<size_t> seen(3, 0);
    for (size_t i = 0; i < D->size(); ++i) {
        EXPECT_EQ(D->get(i, 0), before[i][0]);
        ASSERT_GT(rowLogPotential(io, D, i), kNegInf) << i;
        ++seen[D->get(i, 1)];
    }
    // The noise makes more than one state of b come up.
    EXPECT_GE((seen[0] > 0) + (seen[1] > 0) + (seen[2] > 0), 2);
}

TEST(Sample, RowsOfProbabilityZeroStopWithAnError) {
    for (double pam : {0.0, 1.0}) {
        Ctx c;
        IOd* io = buildWithZeros(c, "sample_impossible", 20);
        ASSERT_NE(io, nullptr);
        QZ::CategoricalData* D = table(c);
        fill(D, 0, 0);
        fill(D, 1, 0);  // a = x, b = p: forbidden
        fill(D, 2, kFree);
        wregR(c, "PAM", pam);
        // Gibbs sampling's start of probability zero sends it to max-product
        // too, which finds the row impossible.
        EXPECT_EQ(failureOf(c, {"SAMPLE;"}),
                  "belief propagation found every state of vertex 0 forbidden given the others: the model "
                  "with its observations has probability zero")
            << pam;
    }
}

// Five columns of four states whose neighbours must agree: a uniform start
// is almost never allowed, and one sweep from it mostly ends in a forbidden
// state. The chain starts from the max-product state instead, so that every
// row drawn is one of the four allowed joint states, even with one sweep.
TEST(Sample, GibbsStartsFromAnAllowedStateWhereTheUniformStartIsForbidden) {
    std::string text = "a,b,c,d,e\nd,d,d,d,d\n";
    for (size_t i = 0; i < 200; ++i) {
        const std::string s = "s" + std::to_string(i % 4);
        text += s + "," + s + "," + s + "," + s + "," + s + "\n";
    }
    Ctx c;
    wreg(c, "SEED", 5);
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("agree", text) + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    IOd* io = model(c);
    ASSERT_EQ(io->dim, 4u * 16u);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 0.2 * std::sin(1.7 * (double)i);
    for (unsigned long e = 0; e < 4; ++e)
        for (unsigned long x = 0; x < 4; ++x)
            for (unsigned long y = 0; y < 4; ++y)
                if (x != y) io->w[16 * e + 4 * x + y] = kNegInf;
    QZ::CategoricalData* D = table(c);
    for (size_t v = 0; v < 5; ++v) fill(D, v, kFree);
    wregR(c, "PAM", 0.0);
    wreg(c, "GRE", 1);
    ASSERT_TRUE(runLines(c, {"SAMPLE;"}));
    for (size_t i = 0; i < D->size(); ++i)
        for (size_t v = 1; v < 5; ++v) ASSERT_EQ(D->get(i, v), D->get(i, 0)) << "row " << i << " column " << v;
}
