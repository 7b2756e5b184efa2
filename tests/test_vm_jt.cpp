// Exact inference in the model instructions: ESTIMATE, INFER, SCORE, PREDICT
// and SAMPLE with ALG JT, checked against enumeration and the table's own
// frequencies, computed in the test from the cells.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned long, double> IOd;

const std::string kVote = std::string(QZ_SOURCE_DIR) + "/examples/data/vote.csv";

// log Z of the container's weights by enumeration of all joint states.
double enumerateLogZ(const IOd* io) {
    const size_t n = io->G->vertices(), m = io->G->edges();
    std::vector<size_t> x(n, 0), s(m), t(m), off(m);
    size_t o = 0, total = 1;
    for (size_t e = 0; e < m; ++e) {
        unsigned long a, b;
        io->G->edge(e, a, b);
        s[e] = a;
        t[e] = b;
        off[e] = o;
        o += io->Y[a] * io->Y[b];
    }
    for (size_t v = 0; v < n; ++v) total *= io->Y[v];
    std::vector<double> lp(total);
    double mx = -INFINITY;
    for (size_t i = 0; i < total; ++i) {
        double r = 0;
        for (size_t e = 0; e < m; ++e) r += io->w[off[e] + x[s[e]] * io->Y[t[e]] + x[t[e]]];
        lp[i] = r;
        mx = std::max(mx, r);
        for (size_t v = 0; v < n; ++v) {
            if (++x[v] < io->Y[v]) break;
            x[v] = 0;
        }
    }
    long double Z = 0;
    for (double r : lp) Z += std::exp((long double)(r - mx));
    return (double)std::log(Z) + mx;
}

// Mean log potential of the table's rows under the container's weights.
double meanLogPotential(const IOd* io, const QZ::CategoricalData* D) {
    const size_t m = io->G->edges();
    double sum = 0;
    for (size_t r = 0; r < D->rows(); ++r) {
        size_t o = 0;
        for (size_t e = 0; e < m; ++e) {
            unsigned long a, b;
            io->G->edge(e, a, b);
            sum += io->w[o + D->get(r, a) * io->Y[b] + D->get(r, b)];
            o += io->Y[a] * io->Y[b];
        }
    }
    return sum / (double)D->rows();
}

TEST(ExactTraining, VoteObjectiveIsTheExactAverageNegativeLogLikelihood) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"SEED 1984", "DFN '" + kVote + "'", "LDX DPT;", "GRA FULL;", "LDX GPT;", "MODEL;",
                             "ALG JT;", "ALG GD;", "STP 0.5", "MIO 40", "ESTIMATE;"}));
    const IOd* io = reinterpret_cast<const IOd*>(reg(c, "MPT"));
    const QZ::CategoricalData* D = reinterpret_cast<const QZ::CategoricalData*>(reg(c, "DPT"));
    ASSERT_EQ(io->G->vertices(), 17u);
    ASSERT_EQ(D->rows(), 434u);
    // Missing votes were drawn into the table by MODEL: these are the rows
    // the statistics counted.
    const double nll = enumerateLogZ(io) - meanLogPotential(io, D);
    EXPECT_NEAR(regR(c, "RES"), nll, 1e-9);
    // Better than the uniform model, 17 log 2.
    EXPECT_LT(regR(c, "RES"), 17 * std::log(2.0) - 1.0);
    // SCORE over the same rows is minus the objective.
    ASSERT_TRUE(runLines(c, {"SCORE;"}));
    EXPECT_NEAR(regR(c, "RES"), -nll, 1e-9);
    EXPECT_NEAR(regR(c, "LNZ"), enumerateLogZ(io), 1e-9);
}

// A random table of 2 and 3 states per column in which every pair of
// neighbouring values occurs; the line behind the header is the one the
// reader drops.
std::string randomTable(unsigned seed, size_t rows, size_t cols = 6) {
    std::mt19937 g(seed);
    std::ostringstream o;
    for (size_t v = 0; v < cols; ++v) o << "c" << v << (v + 1 < cols ? "," : "\n");
    for (size_t v = 0; v < cols; ++v) o << "x" << (v + 1 < cols ? "," : "\n");
    size_t prev = 0;
    for (size_t r = 0; r < rows; ++r) {
        for (size_t v = 0; v < cols; ++v) {
            const size_t Y = v % 3 == 1 ? 3 : 2;
            // Each column leans on its left neighbour.
            size_t x = std::uniform_int_distribution<size_t>(0, Y - 1)(g);
            if (v > 0 && std::bernoulli_distribution(0.4)(g)) x = prev % Y;
            prev = x;
            o << x << (v + 1 < cols ? "," : "\n");
        }
    }
    return o.str();
}

TEST(ExactTraining, TreeFitMatchesTheTableFrequencies) {
    Ctx c;
    const std::string f = csvFile("jt_tree", randomTable(3, 600));
    ASSERT_TRUE(runLines(c, {"DFN '" + f + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;", "ALG JT;", "ALG FL1;",
                             "STP 1.0", "MIO 20000", "EPO 0.0", "ESTIMATE;", "DEL DPT;", "INFER;"}));
    const IOd* io = reinterpret_cast<const IOd*>(reg(c, "MPT"));
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    ASSERT_NE(PP, nullptr);
    // Frequencies from the cells of the file, read back here.
    std::istringstream in(readFile(f));
    std::string line;
    std::getline(in, line);
    std::getline(in, line);
    std::vector<std::vector<size_t>> rows;
    while (std::getline(in, line)) {
        std::vector<size_t> r;
        std::istringstream ls(line);
        std::string cell;
        while (std::getline(ls, cell, ',')) r.push_back(std::stoul(cell));
        rows.push_back(r);
    }
    ASSERT_EQ(rows.size(), 600u);
    // The table codes categories in order of appearance: map each file value
    // to the state the table gave it.
    const QZ::IO<unsigned long, double>* model = io;
    std::vector<size_t> ysum(7, 0);
    for (size_t v = 0; v < 6; ++v) ysum[v + 1] = ysum[v] + model->Y[v];
    std::vector<std::vector<size_t>> code(6);
    for (size_t v = 0; v < 6; ++v)
        for (size_t j = 0; j < model->Y[v]; ++j)
            code[v].push_back(std::stoul(model->Ynames->at(v)->at(j)));
    auto state = [&](size_t v, size_t value) {
        for (size_t j = 0; j < code[v].size(); ++j)
            if (code[v][j] == value) return j;
        return (size_t)-1;
    };
    const double N = (double)rows.size();
    for (size_t v = 0; v < 6; ++v)
        for (size_t x = 0; x < model->Y[v]; ++x) {
            double cnt = 0;
            for (const auto& r : rows) cnt += state(v, r[v]) == x;
            EXPECT_NEAR(PP[ysum[v] + x], cnt / N, 1e-4) << "vertex " << v << " state " << x;
        }
    size_t o = 0;
    for (size_t e = 0; e < 5; ++e) {
        unsigned long s, t;
        model->G->edge(e, s, t);
        for (size_t x = 0; x < model->Y[s]; ++x)
            for (size_t y = 0; y < model->Y[t]; ++y) {
                double cnt = 0;
                for (const auto& r : rows) cnt += state(s, r[s]) == x && state(t, r[t]) == y;
                EXPECT_NEAR(PP[ysum[6] + o + x * model->Y[t] + y], cnt / N, 1e-4) << "edge " << e;
            }
        o += model->Y[s] * model->Y[t];
    }
    EXPECT_NEAR(regR(c, "LNZ"), enumerateLogZ(io), 1e-9);
}

TEST(ExactQueries, InferGivesExactMarginalsWhateverTheFirstRowSays) {
    Ctx c;
    const std::string f = csvFile("jt_infer", randomTable(4, 200, 9));
    ASSERT_TRUE(runLines(c, {"DFN '" + f + "'", "LDX DPT;", "GRA GRID;", "LDX GPT;", "MODEL;", "INITGAUSS;"}));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_TRUE(runLines(c, {"ALG JT;", "INFER;"}));
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    const double lnz = regR(c, "LNZ");
    EXPECT_NEAR(lnz, enumerateLogZ(io), 1e-9);
    // The same through the enumeration mode of the machine: the engine
    // ignores the mode and the observations of the first row.
    std::vector<double> first(PP, PP + io->dim + 21);
    ASSERT_TRUE(runLines(c, {"SLW true", "INFER;"}));
    const double* PP2 = reinterpret_cast<const double*>(reg(c, "PPT"));
    for (size_t i = 0; i < first.size(); ++i) EXPECT_NEAR(PP2[i], first[i], 1e-12);
    EXPECT_NEAR(regR(c, "LNZ"), lnz, 1e-12);
    // Every vertex block sums to 1.
    size_t k = 0;
    for (size_t v = 0; v < io->G->vertices(); ++v) {
        double s = 0;
        // The second INFER has freed the first array: its own is read.
        for (size_t x = 0; x < io->Y[v]; ++x) s += PP2[k++];
        EXPECT_NEAR(s, 1.0, 1e-12);
    }
    // Weights unchanged by the queries.
    const double before = io->w[0];
    ASSERT_TRUE(runLines(c, {"SCORE;", "PREDICT;"}));
    EXPECT_EQ(io->w[0], before);
}

TEST(ExactQueries, SampleAndPredictRunOnTheExactEngine) {
    Ctx c;
    const std::string f = csvFile("jt_sample", randomTable(5, 100));
    ASSERT_TRUE(runLines(c, {"SEED 7", "DFN '" + f + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;", "ALG JT;",
                             "ALG GD;", "STP 1.0", "MIO 50", "ESTIMATE;", "PREDICT;"}));
    const QZ::CategoricalData* D = reinterpret_cast<const QZ::CategoricalData*>(reg(c, "DPT"));
    EXPECT_EQ(D->rows(), 100u);
    ASSERT_TRUE(runLines(c, {"PAM 1.0", "SAMPLE;"}));
    const QZ::CategoricalData* S = reinterpret_cast<const QZ::CategoricalData*>(reg(c, "DPT"));
    ASSERT_NE(S, nullptr);
    EXPECT_GT(S->rows(), 0u);
}

TEST(ExactQueries, SinglePrecisionAndNarrowIndexAgreeWithDouble) {
    const std::string f = csvFile("jt_types", randomTable(6, 150, 9));
    for (const char* gra : {"GRA GRID;", "GRA CHAIN;"}) {
        double lnz[3];
        const char* types[3][2] = {{"idx_t UINT64;", "val_t FLT64;"}, {"idx_t UINT16;", "val_t FLT32;"},
                                   {"idx_t UINT8;", "val_t FLT64;"}};
        for (int k = 0; k < 3; ++k) {
            Ctx c;
            const std::vector<std::string> p{types[k][0], types[k][1], "SEED 11", "DFN '" + f + "'", "LDX DPT;", gra,
                                             "LDX GPT;", "MODEL;", "INITGAUSS;", "ALG JT;", "INFER;"};
            ASSERT_TRUE(runLines(c, p)) << gra << " " << types[k][0];
            lnz[k] = regR(c, "LNZ");
        }
        EXPECT_NEAR(lnz[1], lnz[0], 1e-5 * std::fabs(lnz[0])) << gra;
        EXPECT_NEAR(lnz[2], lnz[0], 1e-12 * std::fabs(lnz[0])) << gra;
    }
    // The complete graph's one table holds more entries than 8 bits can
    // number: a clear error instead of wrapped offsets.
    Ctx c;
    EXPECT_EQ(failureOf(c, {"idx_t UINT8;", "DFN '" + f + "'", "LDX DPT;", "GRA FULL;", "LDX GPT;", "MODEL;", "ALG JT;",
                            "INFER;"}),
              "junction tree table is too large for the index type");
}

}  // namespace
