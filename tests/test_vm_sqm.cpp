// ALG SQM in the model instructions: the engine is SQMplus with KXX as its
// degree and MIL as its count bound, on the container's weights and the
// machine's random engine. Each program's results are compared with the same
// engine run here on a copy of the weights and an engine seeded alike. MIL is
// kept small: on models this small the clashing tuple codes can keep the mass
// below 95% for good, and then only the count bound ends a run.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/inf/sqm>
#include <QZ/inf/sqmplus>
#include <QZ/QZIO>

#include <cmath>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

using namespace qztest;

namespace {

typedef QZ::IO<unsigned long, double> IOd;
typedef QZ::SQMplus<unsigned long, double> Plus;

// Five binary columns; the reader drops the line after the header.
const char* kTable =
    "a,b,c,d,e\n"
    "dropped,dropped,dropped,dropped,dropped\n"
    "0,1,1,0,1\n"
    "1,1,0,0,1\n"
    "0,0,1,1,1\n"
    "1,1,1,0,0\n"
    "0,1,0,1,1\n"
    "1,0,0,1,0\n";

QZ::CategoricalData* table(void* c) { return reinterpret_cast<QZ::CategoricalData*>(reg(c, "DPT")); }

// A chain model over the table with small non-negative weights, for which the
// polynomial expansion behaves.
template <typename IO = IOd> IO* build(void* c, const std::string& tag, const std::vector<std::string>& types = {}) {
    std::vector<std::string> lines = types;
    for (const std::string& l : {"DFN '" + csvFile("sqm_" + tag, kTable) + "'", std::string("LDX DPT;"),
                                 std::string("GRA CHAIN;"), std::string("LDX GPT;"), std::string("MODEL;")})
        lines.push_back(l);
    if (!runLines(c, lines)) return nullptr;
    IO* io = reinterpret_cast<IO*>(reg(c, "MPT"));
    for (size_t i = 0; i < io->dim; ++i) io->w[i] = (typename std::remove_reference<decltype(io->w[0])>::type)(0.05 + 0.2 * std::fabs(std::sin(1.3 * (double)i)));
    return io;
}

template <typename IO> std::vector<double> weightsOf(const IO* io) { return std::vector<double>(io->w, io->w + io->dim); }

// The engine the machine builds, made here on a copy of the weights.
template <typename idx_t, typename val_t> struct Twin {
    std::vector<val_t> w;
    std::mt19937 rng;
    QZ::SQMplus<idx_t, val_t> e;
    Twin(const QZ::IO<idx_t, val_t>* io, unsigned seed, size_t k, size_t mil)
        : w(io->w, io->w + io->dim), rng(seed), e(io->G, io->Y, &rng, w.data(), (idx_t)k) {
        e.setMaxIter((idx_t)mil);
    }
    std::vector<double> vertexMarginals() const {
        std::vector<double> r;
        const auto* G = e.graph();
        for (idx_t v = 0; v < G->vertices(); ++v)
            for (idx_t x = 0; x < e.stateSpace(v); ++x) {
                val_t q = 0, Z = 0;
                e.vertex_marginal(v, x, q, Z);
                r.push_back((double)(q / Z));
            }
        return r;
    }
    std::vector<double> edgeMarginals() const {
        std::vector<double> r;
        const auto* G = e.graph();
        idx_t s = 0, t = 0;
        for (idx_t m = 0; m < G->edges(); ++m) {
            G->edge(m, s, t);
            for (idx_t x = 0; x < e.stateSpace(s); ++x)
                for (idx_t y = 0; y < e.stateSpace(t); ++y) {
                    val_t q = 0, Z = 0;
                    e.edge_marginal(m, x, y, q, Z);
                    r.push_back((double)(q / Z));
                }
        }
        return r;
    }
};

std::vector<double> published(void* c, size_t count, size_t from = 0) {
    const double* PP = reinterpret_cast<const double*>(reg(c, "PPT"));
    return std::vector<double>(PP + from, PP + from + count);
}

// Splits "[a:0.25;b:0.75]" into its numbers.
std::vector<double> cellProbabilities(const QZ::CategoricalData* D, size_t row, size_t col) {
    const std::string s = D->getString(row, col);
    const size_t open = s.find('[');
    std::vector<double> r;
    if (open == std::string::npos) return r;
    std::stringstream ss(s.substr(open + 1, s.size() - open - 2));
    std::string item;
    while (std::getline(ss, item, ';')) r.push_back(std::stod(item.substr(item.find(':') + 1)));
    return r;
}

}  // namespace

TEST(VmSqm, InferPublishesTheEstimateOfSqmPlusWithKxxAndMil) {
    for (size_t k : {2, 4}) {
        Ctx c;
        IOd* io = build(c, "infer" + std::to_string(k));
        ASSERT_NE(io, nullptr);
        const std::vector<double> w0 = weightsOf(io);
        wreg(c, "SEED", 17);
        wreg(c, "KXX", k);
        wreg(c, "MIL", 50);
        ASSERT_TRUE(runLines(c, {"ALG SQM;", "INFER;"}));
        Twin<unsigned long, double> t(io, 17, k, 50);
        t.e.infer(0);
        EXPECT_EQ(regR(c, "LNZ"), t.e.A()) << k;
        EXPECT_EQ(published(c, 10), t.vertexMarginals()) << k;
        EXPECT_EQ(published(c, io->dim, 10), t.edgeMarginals()) << k;
        EXPECT_EQ(weightsOf(io), w0);
    }
}

TEST(VmSqm, DegreeAndCountBoundChangeTheEstimate) {
    std::vector<double> lnz;
    for (auto km : std::vector<std::pair<size_t, size_t>>{{3, 100}, {4, 100}, {4, 2}}) {
        Ctx c;
        ASSERT_NE(build(c, "km" + std::to_string(km.first) + "_" + std::to_string(km.second)), nullptr);
        wreg(c, "SEED", 3);
        wreg(c, "KXX", km.first);
        wreg(c, "MIL", km.second);
        ASSERT_TRUE(runLines(c, {"ALG SQM;", "INFER;"}));
        lnz.push_back(regR(c, "LNZ"));
    }
    EXPECT_NE(lnz[0], lnz[1]);
    EXPECT_NE(lnz[1], lnz[2]);
}

TEST(VmSqm, SlowInferenceSumsTheWholeExpansion) {
    Ctx c;
    IOd* io = build(c, "slow");
    ASSERT_NE(io, nullptr);
    wreg(c, "KXX", 2);
    ASSERT_TRUE(runLines(c, {"ALG SQM;", "SLW 1", "INFER;"}));
    std::vector<double> w(io->w, io->w + io->dim);
    std::mt19937 rng(1);
    QZ::SQM<unsigned long, double> slow(io->G, io->Y, &rng, w.data(), 2);
    slow.infer_slow(0);
    EXPECT_EQ(regR(c, "LNZ"), slow.A());
}

TEST(VmSqm, ScoreUsesTheEstimatedLogPartitionFunction) {
    Ctx c;
    IOd* io = build(c, "score");
    ASSERT_NE(io, nullptr);
    wreg(c, "SEED", 23);
    wreg(c, "MIL", 100);
    ASSERT_TRUE(runLines(c, {"ALG SQM;", "SCORE;"}));
    Twin<unsigned long, double> t(io, 23, 4, 100);
    t.e.infer(0);
    EXPECT_EQ(regR(c, "LNZ"), t.e.A());
    const QZ::CategoricalData* D = table(c);
    double sum = 0;
    for (size_t i = 0; i < D->rows(); ++i) {
        std::vector<unsigned long> x;
        for (size_t v = 0; v < 5; ++v) x.push_back(D->get(i, v));
        sum += t.e.log_potential(x.data()) - t.e.A();
    }
    EXPECT_NEAR(regR(c, "RES"), sum / (double)D->rows(), 1e-12);
}

TEST(VmSqm, PredictRunsTheEngineForEveryRow) {
    Ctx c;
    IOd* io = build(c, "predict");
    ASSERT_NE(io, nullptr);
    QZ::CategoricalData* D = table(c);
    D->set(QZ::CategoricalData::MIS_VAL, 0, 2);
    D->set(QZ::CategoricalData::MIS_VAL, 2, 4);
    D->set(QZ::CategoricalData::MIS_VAL, 5, 0);
    wreg(c, "SEED", 31);
    wreg(c, "KXX", 3);
    wreg(c, "MIL", 100);
    ASSERT_TRUE(runLines(c, {"ALG SQM;", "PPX 1", "PREDICT;"}));
    // One run a row, in order, on the one engine: the rows' marginals.
    Twin<unsigned long, double> t(io, 31, 3, 100);
    std::vector<std::vector<double>> rows;
    for (size_t i = 0; i < D->rows(); ++i) {
        t.e.infer(1);
        rows.push_back(t.vertexMarginals());
    }
    for (auto cell : std::vector<std::pair<size_t, size_t>>{{0, 2}, {2, 4}, {5, 0}}) {
        const std::vector<double> p = cellProbabilities(D, cell.first, cell.second);
        ASSERT_EQ(p.size(), 2u);
        EXPECT_NEAR(p[0], rows[cell.first][2 * cell.second], 1e-5);
        EXPECT_NEAR(p[1], rows[cell.first][2 * cell.second + 1], 1e-5);
        EXPECT_NE(p[0], p[1]);
    }
    EXPECT_TRUE(cellProbabilities(D, 0, 1).empty());
}

TEST(VmSqm, EstimateFitsWithTheSampledGradient) {
    Ctx c;
    IOd* io = build(c, "estimate");
    ASSERT_NE(io, nullptr);
    for (size_t i = 0; i < io->dim; ++i) io->w[i] = 0.1;
    const std::vector<double> w0 = weightsOf(io);
    wreg(c, "SEED", 5);
    wreg(c, "KXX", 3);
    wreg(c, "MIL", 100);
    ASSERT_TRUE(runLines(c, {"ALG SQM;", "ALG GD;", "STP 0.5", "MIO 4", "ESTIMATE;"}));
    const std::vector<double> w1 = weightsOf(io);
    EXPECT_NE(w1, w0);
    for (double x : w1) EXPECT_TRUE(std::isfinite(x));
    EXPECT_TRUE(std::isfinite(regR(c, "RES")));
}

TEST(VmSqm, SampleDrawsValidStatesAndRepeatsWithTheSeed) {
    std::vector<std::vector<size_t>> runs;
    for (int r = 0; r < 2; ++r) {
        Ctx c;
        ASSERT_NE(build(c, "sample" + std::to_string(r)), nullptr);
        wreg(c, "SEED", 41);
        wreg(c, "OMP", 1);
        wreg(c, "MIL", 100);
        ASSERT_TRUE(runLines(c, {"ALG SQM;", "SAMPLE;"}));
        const QZ::CategoricalData* D = table(c);
        std::vector<size_t> cells;
        for (size_t i = 0; i < D->rows(); ++i)
            for (size_t v = 0; v < 5; ++v) {
                cells.push_back(D->get(i, v));
                EXPECT_LT(D->get(i, v), 2u);
            }
        runs.push_back(cells);
    }
    EXPECT_EQ(runs[0], runs[1]);
}

TEST(VmSqm, SampleWithThreadsSharingTheKnownTuplesStillEnds) {
    Ctx c;
    ASSERT_NE(build(c, "sample_threads"), nullptr);
    wreg(c, "OMP", 2);
    wreg(c, "MIL", 100);
    ASSERT_TRUE(runLines(c, {"ALG SQM;", "SAMPLE;"}));
    const QZ::CategoricalData* D = table(c);
    for (size_t i = 0; i < D->rows(); ++i)
        for (size_t v = 0; v < 5; ++v) EXPECT_LT(D->get(i, v), 2u);
}

TEST(VmSqm, NarrowIndexAndSinglePrecision) {
    typedef QZ::IO<unsigned short, float> IOf;
    Ctx c;
    IOf* io = build<IOf>(c, "float", {"idx_t UINT16;", "val_t FLT32;"});
    ASSERT_NE(io, nullptr);
    wreg(c, "SEED", 9);
    wreg(c, "KXX", 3);
    wreg(c, "MIL", 100);
    ASSERT_TRUE(runLines(c, {"ALG SQM;", "INFER;"}));
    Twin<unsigned short, float> t(io, 9, 3, 100);
    t.e.infer(0);
    EXPECT_EQ(regR(c, "LNZ"), (double)t.e.A());
    EXPECT_EQ(published(c, 10), t.vertexMarginals());
}

// A forbidden joint state leaves the expansion no range of weights to
// approximate exp over: INFER and SLW runs stop with an error that names the
// weight, and the model keeps its weights.
TEST(VmSqm, ModelWithAForbiddenJointStateIsRefused) {
    for (const char* slw : {"0", "1"}) {
        Ctx c;
        IOd* io = build(c, std::string("forbidden") + slw);
        ASSERT_NE(io, nullptr);
        io->w[12] = -std::numeric_limits<double>::infinity();
        const std::vector<double> w0 = weightsOf(io);
        EXPECT_EQ(failureOf(c, {"ALG SQM;", std::string("SLW ") + slw, "INFER;"}),
                  "SQM cannot expand a model with forbidden joint states (weight 12 is minus infinity): use ALG JT "
                  "or ALG LBP")
            << slw;
        EXPECT_EQ(weightsOf(io), w0);
    }
}
