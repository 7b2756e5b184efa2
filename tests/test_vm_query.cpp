// INFER, PREDICT and SCORE through programs, checked against enumeration of
// all joint states of small models with known weights.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

using namespace qztest;

// Tells whether one chosen array has been released, wherever from.
static void* volatile gWatched = nullptr;
static volatile bool gWatchedFreed = false;

void operator delete[](void* p) noexcept {
    if (p != nullptr && p == gWatched) gWatchedFreed = true;
    std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept { operator delete[](p); }

namespace {

typedef QZ::IO<unsigned long, double> IOd;
typedef std::vector<long> State;  // -1: not observed

// Three columns with 2, 3 and 2 states: the chain a-b-c is a tree. The
// reader drops the line after the header.
const char* kTable =
    "a,b,c\n"
    "dropped,dropped,dropped\n"
    "x,p,1\n"
    "y,q,2\n"
    "x,r,1\n"
    "y,p,1\n"
    "x,q,2\n";

std::string tableFile(const std::string& tag, const std::string& text = kTable) { return csvFile("query_" + tag, text); }

QZ::CategoricalData* table(void* c) { return reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT")); }
IOd* model(void* c) { return reinterpret_cast<IOd*>(reg(c, "MPT")); }

// Loads the table, builds the model over the graph kind and gives it weights
// that favour no state by symmetry.
IOd* build(void* c, const std::string& tag, const char* gra = "CHAIN", const std::string& text = kTable) {
    wreg(c, "SEED", 11);
    if (!runLines(c, {"DFN '" + tableFile(tag, text) + "'", "LDX DPT;", std::string("GRA ") + gra + ";", "LDX GPT;",
                      "MODEL;"}))
        return nullptr;
    IOd* io = model(c);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 1.3 * std::sin(1.7 * (double)i + 0.4);
    return io;
}

std::vector<double> weights(const IOd* io) { return std::vector<double>(io->w, io->w + io->dim); }

// Enumeration of every joint state of a model.
struct Brute {
    const IOd* io;
    size_t n, m;
    std::vector<size_t> off;  // start of each edge block

    explicit Brute(const IOd* _io) : io(_io), n(_io->G->vertices()), m(_io->G->edges()) {
        size_t o = 0;
        for (size_t e = 0; e < m; ++e) {
            off.push_back(o);
            unsigned long s, t;
            io->G->edge(e, s, t);
            o += io->Y[s] * io->Y[t];
        }
    }

    double logPotential(const std::vector<size_t>& x) const {
        double r = 0;
        for (size_t e = 0; e < m; ++e) {
            unsigned long s, t;
            io->G->edge(e, s, t);
            r += io->w[off[e] + x[s] * io->Y[t] + x[t]];
        }
        return r;
    }

    // Calls f(x, logPotential) for every state consistent with the observations.
    template <typename F> void each(const State& obs, F f) const {
        std::vector<size_t> x(n, 0);
        for (size_t v = 0; v < n; ++v)
            if (obs[v] >= 0) x[v] = (size_t)obs[v];
        while (true) {
            f(x, logPotential(x));
            size_t v = 0;
            for (; v < n; ++v) {
                if (obs[v] >= 0) continue;
                if (++x[v] < io->Y[v]) break;
                x[v] = 0;
            }
            if (v == n) return;
        }
    }

    State none() const { return State(n, -1); }

    // Sum of the log-likelihoods of rows from..N-1 of a complete table.
    double rowSum(const QZ::CategoricalData* D, size_t from, double lz) const {
        double r = 0;
        for (size_t i = from; i < D->rows(); ++i) r += logPotential({D->get(i, 0), D->get(i, 1), D->get(i, 2)}) - lz;
        return r;
    }

    double logZ(const State& obs) const {
        double z = 0;
        each(obs, [&](const std::vector<size_t>&, double lp) { z += std::exp(lp); });
        return std::log(z);
    }

    // Vertex marginals, vertex-major, conditional on the observations.
    std::vector<double> vertexMarginals(const State& obs) const {
        std::vector<size_t> start;
        size_t ysum = 0;
        for (size_t v = 0; v < n; ++v) {
            start.push_back(ysum);
            ysum += io->Y[v];
        }
        std::vector<double> p(ysum, 0.0);
        double z = 0;
        each(obs, [&](const std::vector<size_t>& x, double lp) {
            const double q = std::exp(lp);
            z += q;
            for (size_t v = 0; v < n; ++v) p[start[v] + x[v]] += q;
        });
        for (double& q : p) q /= z;
        return p;
    }

    // Edge marginals in the layout of the weights.
    std::vector<double> edgeMarginals(const State& obs) const {
        std::vector<double> p(io->dim, 0.0);
        double z = 0;
        each(obs, [&](const std::vector<size_t>& x, double lp) {
            const double q = std::exp(lp);
            z += q;
            for (size_t e = 0; e < m; ++e) {
                unsigned long s, t;
                io->G->edge(e, s, t);
                p[off[e] + x[s] * io->Y[t] + x[t]] += q;
            }
        });
        for (double& q : p) q /= z;
        return p;
    }

    // Largest potential with vertex v in state y, normalised over y.
    std::vector<double> maxMarginal(const State& obs, size_t v) const {
        std::vector<double> mm(io->Y[v], 0.0);
        each(obs, [&](const std::vector<size_t>& x, double lp) { mm[x[v]] = std::max(mm[x[v]], std::exp(lp)); });
        double z = 0;
        for (double q : mm) z += q;
        for (double& q : mm) q /= z;
        return mm;
    }
};

void expectNear(const std::vector<double>& got, const std::vector<double>& want, double tol, const char* what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (size_t i = 0; i < got.size(); ++i) EXPECT_NEAR(got[i], want[i], tol) << what << " entry " << i;
}

size_t ysumOf(const IOd* io) {
    size_t s = 0;
    for (size_t v = 0; v < io->G->vertices(); ++v) s += io->Y[v];
    return s;
}

std::vector<double> vertexPart(void* c, const IOd* io) {
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    return std::vector<double>(PP, PP + ysumOf(io));
}

std::vector<double> edgePart(void* c, const IOd* io) {
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    return std::vector<double>(PP + ysumOf(io), PP + ysumOf(io) + io->dim);
}

// Splits "[a:0.25;b:0.75]" into names and numbers.
void parseCell(const std::string& text, std::vector<std::string>& names, std::vector<double>& probs) {
    ASSERT_GE(text.size(), 2u);
    ASSERT_EQ(text.front(), '[');
    ASSERT_EQ(text.back(), ']');
    std::stringstream ss(text.substr(1, text.size() - 2));
    std::string item;
    while (std::getline(ss, item, ';')) {
        const size_t colon = item.find(':');
        ASSERT_NE(colon, std::string::npos) << text;
        names.push_back(item.substr(0, colon));
        probs.push_back(std::stod(item.substr(colon + 1)));
    }
}

// The text PREDICT attached to a cell, or "" when it attached none.
std::string cellText(const QZ::CategoricalData* D, size_t row, size_t col) {
    const std::string s = D->getString(row, col);
    const size_t sp = s.find(' ');
    return sp == std::string::npos ? std::string() : s.substr(sp + 1);
}

struct Call {
    size_t done, total;
    std::string text;
};
std::vector<Call> gCalls;
void recordProgress(size_t done, size_t total, const char* text) { gCalls.push_back({done, total, text}); }
// Asks the machine to stop as soon as the first row is through.
void stopAfterFirst(size_t done, size_t, const char*) {
    if (done == 1) __run = false;
}

// Puts the stop flag back whatever the test does.
struct RunFlag {
    ~RunFlag() { __run = true; }
};

}  // namespace

// ---------------------------------------------------------------- INFER

TEST(Infer, TreeMarginalsAndLogPartitionMatchEnumeration) {
    Ctx c;
    IOd* io = build(c, "tree");
    ASSERT_NE(io, nullptr);
    ASSERT_EQ(io->dim, 2u * 3u + 3u * 2u);
    const std::vector<double> w0 = weights(io);
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "INFER;"}));
    Brute B(io);
    const State none = B.none();
    expectNear(vertexPart(c, io), B.vertexMarginals(none), 1e-9, "vertex");
    expectNear(edgePart(c, io), B.edgeMarginals(none), 1e-9, "edge");
    EXPECT_NEAR(regR(c, "LNZ"), B.logZ(none), 1e-9);
    EXPECT_EQ(weights(io), w0);
}

TEST(Infer, SlowModeEnumeratesWhereBeliefPropagationIsApproximate) {
    // On a triangle the Bethe value is not the log partition function; the
    // enumeration gives it exactly.
    Ctx c;
    IOd* io = build(c, "loop", "FULL");
    ASSERT_NE(io, nullptr);
    ASSERT_EQ(io->G->edges(), 3u);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = (i % 3 == 0) ? 2.5 : -0.7 * (double)(i % 4);
    const std::vector<double> w0 = weights(io);
    Brute B(io);
    const State none = B.none();
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "SLW 0", "INFER;"}));
    const double bethe = regR(c, "LNZ");
    EXPECT_GT(std::fabs(bethe - B.logZ(none)), 1e-4);
    ASSERT_TRUE(runLines(c, {"SLW 1", "INFER;"}));
    EXPECT_NEAR(regR(c, "LNZ"), B.logZ(none), 1e-9);
    expectNear(edgePart(c, io), B.edgeMarginals(none), 1e-9, "edge");
    EXPECT_EQ(weights(io), w0);
}

TEST(Infer, SecondRunFreesTheFirstArray) {
    Ctx c;
    IOd* io = build(c, "twice");
    ASSERT_NE(io, nullptr);
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    void* first = reinterpret_cast<void*>(reg(c, "PPT"));
    ASSERT_NE(first, nullptr);
    gWatched = first;
    gWatchedFreed = false;
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    EXPECT_TRUE(gWatchedFreed);
    gWatched = nullptr;
    EXPECT_NE(reg(c, "PPT"), 0u);
}

TEST(Infer, FirstRowObservesItsCellsAndMinusOneWhereMissing) {
    Ctx c;
    IOd* io = build(c, "observe");
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    // a = x (0) observed, b missing, c = 1 (0) observed; later rows ignored.
    D->set(QZ::CategoricalData::MIS_VAL, 0, 1);
    ASSERT_EQ(D->get(0, 0), 0u);
    ASSERT_EQ(D->get(0, 2), 0u);
    const std::vector<double> w0 = weights(io);
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    Brute B(io);
    const State obs = {0, -1, 0};
    const std::vector<double> got = vertexPart(c, io);
    const std::vector<double> want = B.vertexMarginals(obs);
    // The middle vertex gets its conditional given both ends.
    expectNear(std::vector<double>(got.begin() + 2, got.begin() + 5),
               std::vector<double>(want.begin() + 2, want.begin() + 5), 1e-9, "missing cell");
    // Both ends count: the marginals given none or only one of them differ.
    for (const State& other : {B.none(), State{0, -1, -1}, State{-1, -1, 0}}) {
        const std::vector<double> p = B.vertexMarginals(other);
        EXPECT_GT(std::fabs(got[2] - p[2]) + std::fabs(got[3] - p[3]), 1e-3);
    }
    // The table is not touched.
    EXPECT_EQ(D->get(0, 1), QZ::CategoricalData::MIS_VAL);
    EXPECT_EQ(weights(io), w0);
}

TEST(Infer, WithoutTableOrWithEmptyTableMarginalsAreUnconditional) {
    Ctx c;
    IOd* io = build(c, "notable");
    ASSERT_NE(io, nullptr);
    Brute B(io);
    // With the table, its first row conditions the result.
    ASSERT_TRUE(runLines(c, {"INFER;"}));
    const std::vector<double> conditioned = edgePart(c, io);
    const std::vector<double> free = B.edgeMarginals(B.none());
    double diff = 0;
    for (size_t i = 0; i < free.size(); ++i) diff += std::fabs(conditioned[i] - free[i]);
    EXPECT_GT(diff, 1e-3);
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "INFER;"}));
    expectNear(vertexPart(c, io), B.vertexMarginals(B.none()), 1e-9, "no table");
    expectNear(edgePart(c, io), B.edgeMarginals(B.none()), 1e-9, "no table");
    // A table with no rows observes nothing either.
    ASSERT_TRUE(runLines(c, {"DFN '" + tableFile("notable_empty", "a,b,c\ndropped,dropped,dropped\n") + "'",
                             "LDX DPT;", "INFER;"}));
    ASSERT_EQ(table(c)->size(), 0u);
    expectNear(vertexPart(c, io), B.vertexMarginals(B.none()), 1e-9, "empty table");
}

TEST(Infer, DryPassLeavesThePlaceholder) {
    Ctx c;
    wreg(c, "MPT", 1);
    wreg(c, "GPT", 1);
    QZ::vm_t* vm = static_cast<QZ::vm_t*>(c.p);
    vm->setCode(new std::vector<std::string>{"INFER;", "PREDICT;", "SCORE;"});
    wreg(c, "DPT", 1);
    ASSERT_TRUE(vm->parse(true));
    EXPECT_EQ(reg(c, "PPT"), 1u);
}

TEST(Infer, ErrorsOfTheEngineAndModelChoicePassThrough) {
    // A failed run leaves its context unusable: one context per failure.
    {
        Ctx c;
        ASSERT_NE(build(c, "errors_ising"), nullptr);
        // The middle column has three states.
        EXPECT_EQ(failureOf(c, {"REP ISING;", "INFER;"}), "Ising model requires binary states.");
    }
    {
        Ctx c;
        ASSERT_NE(build(c, "errors_ext"), nullptr);
        EXPECT_EQ(failureOf(c, {"ALG EXTI;", "SCORE;"}), "unknown inference algorithm");
    }
}

// ---------------------------------------------------------------- PREDICT

TEST(Predict, WithoutProbabilitiesEveryVertexIsWrittenObservedOnesWithTheirState) {
    Ctx c;
    IOd* io = build(c, "predict_plain");
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    std::vector<std::vector<size_t>> before(D->rows(), std::vector<size_t>(3));
    for (size_t i = 0; i < D->rows(); ++i)
        for (size_t j = 0; j < 3; ++j) before[i][j] = D->get(i, j);
    // Row 1 misses its middle cell, row 3 its first and last.
    D->set(QZ::CategoricalData::MIS_VAL, 1, 1);
    D->set(QZ::CategoricalData::MIS_VAL, 3, 0);
    D->set(QZ::CategoricalData::MIS_VAL, 3, 2);
    const std::vector<double> w0 = weights(io);
    ASSERT_TRUE(runLines(c, {"PPX 0", "PREDICT;"}));
    for (size_t i = 0; i < D->rows(); ++i)
        for (size_t j = 0; j < 3; ++j) {
            const bool missing = (i == 1 && j == 1) || (i == 3 && j != 1);
            // A floating model reports no state for a missing cell: state 0.
            EXPECT_EQ(D->get(i, j), missing ? 0u : before[i][j]) << i << "," << j;
            EXPECT_EQ(cellText(D, i, j), "") << i << "," << j;
        }
    EXPECT_EQ(weights(io), w0);
}

TEST(Predict, ProbabilitiesGoToMissingCellsOnlyAsMaxMarginals) {
    Ctx c;
    IOd* io = build(c, "predict_ppx");
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    D->set(QZ::CategoricalData::MIS_VAL, 1, 1);
    D->set(QZ::CategoricalData::MIS_VAL, 3, 0);
    D->set(QZ::CategoricalData::MIS_VAL, 3, 2);
    const State row1 = {(long)D->get(1, 0), -1, (long)D->get(1, 2)};
    const State row3 = {-1, (long)D->get(3, 1), -1};
    const std::vector<double> w0 = weights(io);
    ASSERT_TRUE(runLines(c, {"PPX 1", "PREDICT;"}));
    Brute B(io);
    struct Cell {
        size_t row, col;
        State obs;
    };
    for (const Cell& cell : {Cell{1, 1, row1}, Cell{3, 0, row3}, Cell{3, 2, row3}}) {
        std::vector<std::string> names;
        std::vector<double> probs;
        parseCell(cellText(D, cell.row, cell.col), names, probs);
        EXPECT_EQ(names, *io->Ynames->at(cell.col));
        expectNear(probs, B.maxMarginal(cell.obs, cell.col), 1e-5, "max-marginal");
        EXPECT_EQ(D->get(cell.row, cell.col), 0u);
    }
    EXPECT_EQ(cellText(D, 1, 0), "");
    EXPECT_EQ(cellText(D, 1, 2), "");
    EXPECT_EQ(cellText(D, 3, 1), "");
    EXPECT_EQ(cellText(D, 0, 0), "");
    EXPECT_EQ(weights(io), w0);
}

TEST(Predict, FloatingModelStoresStateZeroAndOnlyTheTextShowsTheBestState) {
    Ctx c;
    IOd* io = build(c, "predict_zero");
    ASSERT_NE(io, nullptr);
    // Every pair with b in state 2 is strongly favoured.
    unsigned long s, t;
    io->G->edge(0, s, t);
    ASSERT_EQ(std::make_pair(s, t), std::make_pair(0ul, 1ul));
    io->G->edge(1, s, t);
    ASSERT_EQ(std::make_pair(s, t), std::make_pair(1ul, 2ul));
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 0.0;
    io->w[0 * 3 + 2] = io->w[1 * 3 + 2] = 4.0;  // edge (a, b)
    io->w[6 + 2 * 2 + 0] = io->w[6 + 2 * 2 + 1] = 4.0;  // edge (b, c)
    QZ::CategoricalData* D = table(c);
    D->set(QZ::CategoricalData::MIS_VAL, 0, 1);
    ASSERT_TRUE(runLines(c, {"PPX 1", "PREDICT;"}));
    EXPECT_EQ(D->get(0, 1), 0u);
    std::vector<std::string> names;
    std::vector<double> probs;
    parseCell(cellText(D, 0, 1), names, probs);
    ASSERT_EQ(probs.size(), 3u);
    EXPECT_GT(probs[2], probs[0]);
    EXPECT_GT(probs[2], probs[1]);
    EXPECT_EQ(names[2], "r");
}

TEST(Predict, TextFallsBackToStateNumbersWithoutNames) {
    Ctx c;
    IOd* io = build(c, "predict_nonames");
    ASSERT_NE(io, nullptr);
    for (std::vector<std::string>* l : *io->Ynames) delete l;
    delete io->Ynames;
    io->Ynames = nullptr;
    QZ::CategoricalData* D = table(c);
    D->set(QZ::CategoricalData::MIS_VAL, 2, 1);
    ASSERT_TRUE(runLines(c, {"PPX 1", "PREDICT;"}));
    std::vector<std::string> names;
    std::vector<double> probs;
    parseCell(cellText(D, 2, 1), names, probs);
    EXPECT_EQ(names, (std::vector<std::string>{"0", "1", "2"}));
    double sum = 0;
    for (double p : probs) sum += p;
    EXPECT_NEAR(sum, 1.0, 1e-4);
}

TEST(Predict, ProgressStartsAtZeroAndCountsRows) {
    Ctx c;
    ASSERT_NE(build(c, "predict_progress"), nullptr);
    gCalls.clear();
    wreg(c, "CBP", reinterpret_cast<size_t>(&recordProgress));
    ASSERT_TRUE(runLines(c, {"PREDICT;"}));
    const size_t N = table(c)->rows();
    ASSERT_EQ(gCalls.size(), N + 1);
    for (size_t i = 0; i <= N; ++i) {
        EXPECT_EQ(gCalls[i].done, i);
        EXPECT_EQ(gCalls[i].total, N);
        EXPECT_EQ(gCalls[i].text, "PREDICT");
    }
}

TEST(Predict, StopFlagEndsAfterTheCurrentRow) {
    RunFlag guard;
    Ctx c;
    ASSERT_NE(build(c, "predict_stop"), nullptr);
    QZ::CategoricalData* D = table(c);
    D->set(QZ::CategoricalData::MIS_VAL, 0, 1);
    D->set(QZ::CategoricalData::MIS_VAL, 2, 1);
    wreg(c, "CBP", reinterpret_cast<size_t>(&stopAfterFirst));
    ASSERT_TRUE(runLines(c, {"PREDICT;"}));
    __run = true;
    EXPECT_EQ(D->get(0, 1), 0u);                                  // done
    EXPECT_EQ(D->get(2, 1), QZ::CategoricalData::MIS_VAL);        // never reached
}

// ---------------------------------------------------------------- SCORE

TEST(Score, MeanLogLikelihoodOfTheRowsAndTheLogPartitionFunction) {
    Ctx c;
    IOd* io = build(c, "score");
    ASSERT_NE(io, nullptr);
    const std::vector<double> w0 = weights(io);
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    Brute B(io);
    const double lz = B.logZ(B.none());
    const QZ::CategoricalData* D = table(c);
    const double sum = B.rowSum(D, 0, lz);
    EXPECT_NEAR(regR(c, "LNZ"), lz, 1e-9);
    EXPECT_NEAR(regR(c, "RES"), sum / (double)D->rows(), 1e-9);
    EXPECT_EQ(weights(io), w0);
}

TEST(Score, SlowModeUsesTheExactLogPartitionFunction) {
    Ctx c;
    IOd* io = build(c, "score_slow", "FULL");
    ASSERT_NE(io, nullptr);
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = (i % 3 == 0) ? 2.5 : -0.7 * (double)(i % 4);
    Brute B(io);
    const double lz = B.logZ(B.none());
    ASSERT_TRUE(runLines(c, {"SLW 0", "SCORE;"}));
    EXPECT_GT(std::fabs(regR(c, "LNZ") - lz), 1e-4);
    ASSERT_TRUE(runLines(c, {"SLW 1", "SCORE;"}));
    EXPECT_NEAR(regR(c, "LNZ"), lz, 1e-9);
    const QZ::CategoricalData* D = table(c);
    const double sum = B.rowSum(D, 0, lz);
    EXPECT_NEAR(regR(c, "RES"), sum / (double)D->rows(), 1e-9);
}

TEST(Score, EmptyTableGivesNotANumber) {
    Ctx c;
    ASSERT_NE(build(c, "score_empty", "CHAIN", "a,b,c\ndropped,dropped,dropped\n"), nullptr);
    ASSERT_EQ(table(c)->rows(), 0u);
    gCalls.clear();
    wreg(c, "CBP", reinterpret_cast<size_t>(&recordProgress));
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    EXPECT_TRUE(std::isnan(regR(c, "RES")));
    // No row to report progress on; the one report is the warning that the
    // mean is not a number.
    ASSERT_EQ(gCalls.size(), 1u);
    EXPECT_EQ(gCalls[0].done, 0u);
    EXPECT_EQ(gCalls[0].total, 0u);
    EXPECT_EQ(gCalls[0].text, "warning: SCORE left RES = nan, which is not a finite number");
}

TEST(Score, MeanIsMinusTheObjectiveOnTheCountedTable) {
    Ctx c;
    IOd* io = build(c, "score_eval");
    ASSERT_NE(io, nullptr);
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    // A(w) - <w, mu>, mu the edge counts of the table as frequencies.
    Brute B(io);
    const size_t n = io->G->vertices();
    double dot = 0;
    for (unsigned long i = 0; i < io->dim; ++i) dot += io->w[i] * io->E[io->woff[n] + i] / (double)io->num_instances;
    const double objective = B.logZ(B.none()) - dot;
    EXPECT_NEAR(regR(c, "RES"), -objective, 1e-9);
}

TEST(Score, MissingCellIsDrawnInsideOnlyAndTheTableKeepsIt) {
    Ctx c;
    IOd* io = build(c, "score_missing");
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    D->set(QZ::CategoricalData::MIS_VAL, 0, 1);
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    EXPECT_EQ(D->get(0, 1), QZ::CategoricalData::MIS_VAL);
    Brute B(io);
    const double lz = B.logZ(B.none());
    const double rest = B.rowSum(D, 1, lz);
    bool matched = false;
    for (size_t y = 0; y < 3; ++y) {
        const double mean = (rest + B.logPotential({D->get(0, 0), y, D->get(0, 2)}) - lz) / (double)D->rows();
        if (std::fabs(regR(c, "RES") - mean) < 1e-9) matched = true;
    }
    EXPECT_TRUE(matched);
}

TEST(Score, ProgressCountsFromOne) {
    Ctx c;
    ASSERT_NE(build(c, "score_progress"), nullptr);
    gCalls.clear();
    wreg(c, "CBP", reinterpret_cast<size_t>(&recordProgress));
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    const size_t N = table(c)->rows();
    ASSERT_EQ(gCalls.size(), N);
    for (size_t i = 0; i < N; ++i) {
        EXPECT_EQ(gCalls[i].done, i + 1);
        EXPECT_EQ(gCalls[i].total, N);
        EXPECT_EQ(gCalls[i].text, "SCORE");
    }
}

TEST(Score, StopFlagStillDividesByAllRows) {
    RunFlag guard;
    Ctx c;
    IOd* io = build(c, "score_stop");
    ASSERT_NE(io, nullptr);
    wreg(c, "CBP", reinterpret_cast<size_t>(&stopAfterFirst));
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    __run = true;
    Brute B(io);
    const QZ::CategoricalData* D = table(c);
    const double first = B.logPotential({D->get(0, 0), D->get(0, 1), D->get(0, 2)}) - B.logZ(B.none());
    EXPECT_NEAR(regR(c, "RES"), first / (double)D->rows(), 1e-9);
}

TEST(Infer, NarrowIndexAndSinglePrecisionGiveTheSameDoubleArray) {
    Ctx c;
    IOd* io = build(c, "narrow_ref");
    ASSERT_NE(io, nullptr);
    ASSERT_TRUE(runLines(c, {"DEL DPT;", "INFER;"}));
    const std::vector<double> want = vertexPart(c, io), wantE = edgePart(c, io);

    Ctx f;
    wreg(f, "IDX", 0);
    wreg(f, "VAL", 4);
    ASSERT_TRUE(runLines(f, {"DFN '" + tableFile("narrow") + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"}));
    typedef QZ::IO<unsigned char, float> IOf;
    IOf* iof = reinterpret_cast<IOf*>(reg(f, "MPT"));
    ASSERT_EQ((size_t)iof->dim, (size_t)io->dim);
    for (unsigned long i = 0; i < io->dim; ++i) iof->w[i] = (float)io->w[i];
    const std::vector<float> w0(iof->w, iof->w + iof->dim);
    ASSERT_TRUE(runLines(f, {"DEL DPT;", "INFER;"}));
    const double* PP = reinterpret_cast<const double*>(reg(f, "PPT"));
    expectNear(std::vector<double>(PP, PP + want.size()), want, 1e-5, "vertex");
    expectNear(std::vector<double>(PP + want.size(), PP + want.size() + wantE.size()), wantE, 1e-5, "edge");
    EXPECT_NEAR(regR(f, "LNZ"), regR(c, "LNZ"), 1e-4);
    EXPECT_EQ(std::vector<float>(iof->w, iof->w + iof->dim), w0);
}

// ------------------------------------------------- forbidden joint states

namespace {

const double kNegInf = -std::numeric_limits<double>::infinity();

// The chain a-b-c with b = 0 (otherwise strongly favoured) forbidden next to
// a = 0, and the pair b = 2, c = 1 forbidden.
IOd* buildWithZeros(void* c, const std::string& tag) {
    IOd* io = build(c, tag);
    if (io == nullptr) return nullptr;
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 0.3 * std::sin(1.1 * (double)i);
    io->w[1 * 3 + 0] = 3.0;      // a = 1, b = 0
    io->w[0 * 3 + 0] = kNegInf;  // a = 0, b = 0
    io->w[6 + 0 * 2 + 0] = 3.0;  // b = 0, c = 0
    io->w[6 + 2 * 2 + 1] = kNegInf;
    return io;
}

}  // namespace

TEST(Predict, NeverPredictsAForbiddenStateOfAModelWithZeros) {
    Ctx c;
    IOd* io = buildWithZeros(c, "predict_zeros");
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    // Row 0: a = 0 observed, b and c missing; row 1: a = 1, b missing, c = 1.
    D->set(0, 0, 0);
    D->set(QZ::CategoricalData::MIS_VAL, 0, 1);
    D->set(QZ::CategoricalData::MIS_VAL, 0, 2);
    D->set(1, 1, 0);
    D->set(QZ::CategoricalData::MIS_VAL, 1, 1);
    D->set(1, 1, 2);
    const std::vector<double> w0 = weights(io);
    ASSERT_TRUE(runLines(c, {"PPX 1", "PREDICT;"}));
    Brute B(io);
    // The most probable completion of each row by enumeration.
    for (size_t row : {0u, 1u}) {
        const State obs = row == 0 ? State{0, -1, -1} : State{1, -1, 1};
        double best = kNegInf;
        std::vector<size_t> arg;
        B.each(obs, [&](const std::vector<size_t>& x, double lp) {
            if (lp > best) {
                best = lp;
                arg = x;
            }
        });
        ASSERT_GT(best, kNegInf);
        for (size_t v = 0; v < 3; ++v) EXPECT_EQ(D->get(row, v), arg[v]) << "row " << row << " vertex " << v;
        EXPECT_GT(B.logPotential({D->get(row, 0), D->get(row, 1), D->get(row, 2)}), kNegInf);
    }
    // b = 0 next to a = 0 has probability 0, and the text says so.
    std::vector<std::string> names;
    std::vector<double> probs;
    parseCell(cellText(D, 0, 1), names, probs);
    ASSERT_EQ(probs.size(), 3u);
    EXPECT_EQ(probs[0], 0.0);
    EXPECT_EQ(weights(io), w0);
}

TEST(Predict, ObservationsOfProbabilityZeroStopWithAnError) {
    Ctx c;
    IOd* io = buildWithZeros(c, "predict_impossible");
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    D->set(0, 0, 0);
    D->set(0, 0, 1);  // a = 0, b = 0: forbidden
    // Vertex 0 is the first whose observed state the others forbid.
    EXPECT_EQ(failureOf(c, {"PREDICT;"}),
              "belief propagation found every state of vertex 0 forbidden given the others: the model with its "
              "observations has probability zero");
}

// A row in a forbidden joint state has the log-likelihood minus infinity,
// and so has the mean; the others score as they would alone.
TEST(Score, ARowInAForbiddenStateScoresMinusInfinity) {
    for (const char* slw : {"0", "1"}) {
        Ctx c;
        IOd* io = buildWithZeros(c, std::string("score_zeros") + slw);
        ASSERT_NE(io, nullptr);
        QZ::CategoricalData* D = table(c);
        // Rows allowed by the model: no a = 0 with b = 0, no b = 2 with c = 1.
        for (size_t i = 0; i < D->rows(); ++i) {
            D->set(1, i, 0);
            D->set((unsigned short)(i % 2), i, 1);
            D->set(0, i, 2);
        }
        ASSERT_TRUE(runLines(c, {std::string("SLW ") + slw, "SCORE;"}));
        Brute B(io);
        const double lz = B.logZ(B.none());
        EXPECT_NEAR(regR(c, "LNZ"), lz, 1e-9) << slw;
        EXPECT_NEAR(regR(c, "RES"), B.rowSum(D, 0, lz) / (double)D->rows(), 1e-9) << slw;
        D->set(0, 2, 0);
        D->set(0, 2, 1);
        ASSERT_TRUE(runLines(c, {"SCORE;"}));
        EXPECT_EQ(regR(c, "RES"), kNegInf) << slw;
        EXPECT_NEAR(regR(c, "LNZ"), lz, 1e-9) << slw;
    }
}
