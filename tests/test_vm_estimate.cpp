// ESTIMATE through programs, and the engine, model and empirical means that
// the model instructions build from the registers.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include "../src/instructions/engine.h"

#include <QZ/graph/core>
#include <QZ/bp/loopy>
#include <QZ/inf/base>
#include <QZ/mrf/model>
#include <QZ/opt/optimizer>
#include <QZ/opt/first_order>
#include <QZ/opt/search>
#include <QZ/QZIO>

#include <cfloat>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

using namespace qztest;
using QZ::vm_t;

namespace {

typedef QZ::IO<unsigned long, double> IOd;
typedef QZ::IO<unsigned int, float> IOf;

vm_t* vmOf(Ctx& c) { return static_cast<vm_t*>(c.p); }

// Header, the sacrificial line the reader drops, then twelve rows in which
// every pair of neighbouring values occurs, with uneven frequencies.
const char* kTable =
    "a,b,c\n"
    "dropped,dropped,dropped\n"
    "0,0,0\n"
    "0,0,0\n"
    "0,0,1\n"
    "0,1,1\n"
    "1,1,1\n"
    "1,1,1\n"
    "1,1,0\n"
    "1,0,0\n"
    "0,0,0\n"
    "1,1,1\n"
    "0,1,0\n"
    "1,0,1\n";

// A column with three states.
const char* kThreeStates =
    "a,b\n"
    "dropped,dropped\n"
    "0,x\n"
    "1,y\n"
    "0,z\n";

std::string tableFile(const std::string& tag, const std::string& text = kTable) { return csvFile("est_" + tag, text); }

std::vector<std::string> chainModel(const std::string& tag, const std::string& text = kTable) {
    return {"DFN '" + tableFile(tag, text) + "'", "LDX DPT;", "GRA CHAIN;", "LDX GPT;", "MODEL;"};
}

// The message of the exception of type E that f raises; empty if none.
template <typename E, typename F> std::string thrownBy(F f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "";
}

template <typename E = std::exception> std::string failure(void* c, const std::vector<std::string>& lines) {
    return thrownBy<E>([c, &lines] { runLines(c, lines); });
}

// A failed run leaves its context unusable, so each expected failure gets a
// fresh context: setup lines, the chain model, then the failing lines.
template <typename E = std::exception>
std::string freshFailure(const std::string& tag, const std::vector<std::string>& setup,
                         const std::vector<std::string>& lines) {
    Ctx c;
    if (!setup.empty() && !runLines(c, setup)) return "setup refused";
    if (!runLines(c, chainModel(tag))) return "model refused";
    return failure<E>(c, lines);
}

template <typename T> std::vector<T> arr(const T* p, size_t n) { return std::vector<T>(p, p + n); }

// The objective at the container's weights, computed independently: the log
// partition function of an exact run on the tree minus the inner product of
// the weights and the edge frequencies.
template <typename idx_t, typename val_t> double objectiveAt(QZ::IO<idx_t, val_t>* io) {
    std::mt19937 rng(1);
    QZ::LBP<idx_t, val_t> bp(io->G, io->Y, &rng, io->w, false);
    bp.infer(0);
    double ip = 0;
    const idx_t n = io->G->vertices();
    for (idx_t i = 0; i < io->dim; ++i)
        ip += (double)io->w[i] * (double)io->E[io->woff[n] + i] / (double)io->num_instances;
    return (double)bp.A() - ip;
}

// Hook records.
struct HookLog {
    int calls = 0;
    uint8_t itype = 255, vtype = 255;
    void* payload = nullptr;
    size_t lastIter = 0;
};
HookLog updateLog, progressLog;

template <typename idx_t, typename val_t> void onUpdate(QZ::OptState<idx_t, val_t>* o) {
    ++updateLog.calls;
    updateLog.itype = o->itype;
    updateLog.vtype = o->vtype;
    updateLog.payload = o->payload;
    updateLog.lastIter = o->iter;
}

template <typename idx_t, typename val_t> void onProgress(QZ::OptState<idx_t, val_t>* o) {
    ++progressLog.calls;
    progressLog.itype = o->itype;
    progressLog.vtype = o->vtype;
    progressLog.payload = o->payload;
    progressLog.lastIter = o->iter;
}

void stopAfterFirst(QZ::OptState<unsigned long, double>* o) {
    ++progressLog.calls;
    progressLog.lastIter = o->iter;
    __run = false;
}

// External factories, as a host would register them.
int extInfCalls = 0;
QZ::InferenceAlgorithm<unsigned long, double>* makeEngine(QZ::AbstractGraph<unsigned long>*& G, unsigned long*& Y,
                                                          std::mt19937* e, double* w) {
    ++extInfCalls;
    return new QZ::LBP<unsigned long, double>(G, Y, e, w, false);
}

int extOptCalls = 0;
QZ::Optimizer<unsigned long, double, true>* makeOptimizer(void (*g)(QZ::OptState<unsigned long, double>*),
                                                          void (*)(QZ::OptState<unsigned long, double>*)) {
    ++extOptCalls;
    return new QZ::GradientDescent<unsigned long, double>(g);
}

}  // namespace

// ---------------------------------------------------------------------------
// Engine, model function and empirical means

TEST(EngineBuild, BeliefPropagationTakesTheContainerAndTheRegisters) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("lbp")));
    ASSERT_TRUE(runLines(c, {"MIL 17", "EPL 0.25", "TREE false"}));
    vm_t* vm = vmOf(c);
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    QZ::InferenceAlgorithm<unsigned long, double>* IA = vm->getIA<unsigned long, double>();
    auto* bp = dynamic_cast<QZ::LBP<unsigned long, double>*>(IA);
    ASSERT_NE(bp, nullptr);
    EXPECT_EQ(IA->getMaxIter(), 17u);
    // The engine works on the container's own arrays.
    EXPECT_EQ(IA->getParameters(), io->w);
    EXPECT_EQ(IA->getStateSpaces(), io->Y);
    EXPECT_EQ(IA->graph(), io->G);
    EXPECT_EQ(IA->wdim(), io->dim);
    QZ::AbstractMRF<unsigned long, double>* P = vm->getMOD<unsigned long, double>(IA);
    EXPECT_TRUE((dynamic_cast<QZ::MRF<unsigned long, double>*>(P) != nullptr));
    EXPECT_EQ(P->current_point(), io->w);
    delete P;
    delete IA;
}

TEST(EngineBuild, EmpiricalMeansAreEdgeFrequencies) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("mu")));
    vm_t* vm = vmOf(c);
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    auto* IA = vm->getIA<unsigned long, double>();
    auto* P = vm->getMOD<unsigned long, double>(IA);
    double* mu = vm->initMU<unsigned long, double>(P);
    // Edge (a,b): 00 x4, 01 x2, 10 x2, 11 x4 of twelve rows.
    EXPECT_EQ(arr(mu, 4), (std::vector<double>{4 / 12.0, 2 / 12.0, 2 / 12.0, 4 / 12.0}));
    EXPECT_EQ(P->emp, mu);
    EXPECT_EQ(P->N, 12u);
    EXPECT_EQ(io->num_instances, 12u);
    delete P;
    delete[] mu;
    delete IA;
}

TEST(EngineBuild, IntegerMeansAreRawCounts) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"idx_t UINT8;", "val_t UINT8;"}));
    ASSERT_TRUE(runLines(c, chainModel("mu8")));
    vm_t* vm = vmOf(c);
    auto* io = reinterpret_cast<QZ::IO<unsigned char, unsigned char>*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    // The integer engine and model are not built yet; a stand-in pair over the
    // container is enough to receive the means.
    struct Engine : QZ::InferenceAlgorithm<unsigned char, unsigned char> {
        using QZ::InferenceAlgorithm<unsigned char, unsigned char>::InferenceAlgorithm;
        void infer(const unsigned char&) override {}
        void vertex_marginal(const unsigned char&, const unsigned char&, unsigned char&, unsigned char&) const override {}
        void edge_marginal(const unsigned char&, const unsigned char&, const unsigned char&, unsigned char&,
                           unsigned char&) const override {}
    };
    struct Model : QZ::AbstractMRF<unsigned char, unsigned char> {
        using QZ::AbstractMRF<unsigned char, unsigned char>::AbstractMRF;
        void decode_weights() override {}
        unsigned char eval() override { return 0; }
        unsigned char* comp_gradient() override { return g; }
    };
    Engine IA(io->G, io->Y, vm->random_engine, io->w);
    Model P(&IA);
    unsigned char* mu = vm->initMU<unsigned char, unsigned char>(&P);
    // Counts, not frequencies: edge (a,b) has 00 x4, 01 x2, 10 x2, 11 x4.
    EXPECT_EQ(arr(mu, 4), (std::vector<unsigned char>{4, 2, 2, 4}));
    EXPECT_EQ(P.emp, mu);
    EXPECT_EQ(P.N, 12u);
    delete[] mu;
}

TEST(EngineBuild, EmptyTableGivesOneInstanceAndZeroMeans) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"DFN '" + emptyBinaryTable("est_empty", 3, 2) + "'", "LDX DPT;", "GVX 3", "GRA CHAIN;",
                             "LDX GPT;", "MODEL;"}));
    vm_t* vm = vmOf(c);
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    EXPECT_EQ(io->num_instances, 1u);
    auto* IA = vm->getIA<unsigned long, double>();
    auto* P = vm->getMOD<unsigned long, double>(IA);
    double* mu = vm->initMU<unsigned long, double>(P);
    EXPECT_EQ(arr(mu, io->dim), std::vector<double>(io->dim, 0.0));
    EXPECT_EQ(P->N, 1u);
    delete P;
    delete[] mu;
    delete IA;
}

TEST(EngineBuild, UnknownInferenceAlgorithm) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("unkinf")));
    EXPECT_EQ(failure<std::out_of_range>(c, {"INF 4", "ALG GD;", "STP 0.5", "ESTIMATE;"}), "unknown inference algorithm");
    Ctx d;
    ASSERT_TRUE(runLines(d, chainModel("nullext")));
    // An external engine with no factory behind it is unknown as well.
    EXPECT_EQ(failure<std::out_of_range>(d, {"ALG EXTI;", "ALG GD;", "ESTIMATE;"}), "unknown inference algorithm");
}

TEST(EngineBuild, ExternalEngineFromTheFactory) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("ext")));
    wreg(c, "EXT0", (size_t)&makeEngine);
    ASSERT_TRUE(runLines(c, {"MIL 9", "ALG EXTI;"}));
    vm_t* vm = vmOf(c);
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    extInfCalls = 0;
    auto* IA = vm->getIA<unsigned long, double>();
    EXPECT_EQ(extInfCalls, 1);
    EXPECT_EQ(IA->getParameters(), io->w);
    EXPECT_EQ(IA->getMaxIter(), 9u);
    delete IA;
    // And a whole estimation runs over it.
    extInfCalls = 0;
    ASSERT_TRUE(runLines(c, {"ALG GD;", "STP 0.5", "MIO 5", "ESTIMATE;"}));
    EXPECT_EQ(extInfCalls, 1);
    EXPECT_NE(io->w[0], 0.0);
}

TEST(EngineBuild, ExternalEngineWithMultiplePrecisionValuesIsIncompatible) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"val_t FLTMPREC;"}));
    ASSERT_TRUE(runLines(c, chainModel("mprec")));
    // A valid factory of the double instance does not help.
    wreg(c, "EXT0", (size_t)&makeEngine);
    extInfCalls = 0;
    EXPECT_EQ(failure<std::out_of_range>(c, {"ALG EXTI;", "ALG GD;", "ESTIMATE;"}),
              "incompatible data types for external inference algorithm");
    EXPECT_EQ(extInfCalls, 0);
}

TEST(EngineBuild, DecayLawsNeedASpatioTemporalGraph) {
    for (const char* rep : {"STLINEAR", "10", "11"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, chainModel(std::string("strf") + rep)));
        EXPECT_EQ(failure<std::logic_error>(c, {std::string("REP ") + rep + (rep[0] == 'S' ? ";" : ""), "ALG GD;",
                                               "ESTIMATE;"}),
                  "spatio-temporal model requires a spatio-temporal graph")
            << rep;
    }
}

// ---------------------------------------------------------------------------
// ESTIMATE

TEST(Estimate, FitsTheMarginalsOfATree) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("fit")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_NE(io, nullptr);
    ASSERT_TRUE(runLines(c, {"ALG GD;", "STP 2.0", "MIO 3000", "EPO 0.0", "ESTIMATE;"}));
    EXPECT_NE(arr(io->w, io->dim), std::vector<double>(io->dim, 0.0));

    std::mt19937 rng(3);
    QZ::LBP<unsigned long, double> bp(io->G, io->Y, &rng, io->w, false);
    bp.infer(0);
    const double N = (double)io->num_instances;
    for (unsigned long v = 0; v < 3; ++v)
        for (unsigned long x = 0; x < 2; ++x) {
            double q, Z;
            bp.vertex_marginal(v, x, q, Z);
            EXPECT_NEAR(q / Z, io->E[io->woff[v] + x] / N, 0.02) << v << "," << x;
        }
    for (unsigned long e = 0; e < 2; ++e)
        for (unsigned long x = 0; x < 2; ++x)
            for (unsigned long y = 0; y < 2; ++y) {
                double p, Z;
                bp.edge_marginal(e, x, y, p, Z);
                EXPECT_NEAR(p / Z, io->E[io->woff[3 + e] + 2 * x + y] / N, 0.02) << e << "," << x << y;
            }
    // RES is the objective at the weights kept.
    EXPECT_NEAR(regR(c, "RES"), objectiveAt(io), 1e-9);
    // Below the uniform model's value: the fit improved.
    EXPECT_LT(regR(c, "RES"), 3 * std::log(2.0));
}

TEST(Estimate, ProximalMethodsRunToo) {
    for (const char* alg : {"PL1", "FL1"}) {
        Ctx c;
        ASSERT_TRUE(runLines(c, chainModel(std::string("prox") + alg)));
        IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
        ASSERT_TRUE(runLines(c, {std::string("ALG ") + alg + ";", "STP 1.0", "MIO 50", "ESTIMATE;"}));
        EXPECT_NE(arr(io->w, io->dim), std::vector<double>(io->dim, 0.0)) << alg;
        EXPECT_LT(regR(c, "RES"), 3 * std::log(2.0)) << alg;
        EXPECT_NEAR(regR(c, "RES"), objectiveAt(io), 1e-9) << alg;
    }
}

TEST(Estimate, SecondRunContinuesFromTheFirst) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("again")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_TRUE(runLines(c, {"ALG GD;", "STP 1.0", "MIO 10", "ESTIMATE;"}));
    const std::vector<double> first = arr(io->w, io->dim);
    const double res1 = regR(c, "RES");
    ASSERT_TRUE(runLines(c, {"ESTIMATE;"}));
    const std::vector<double> second = arr(io->w, io->dim);
    EXPECT_NE(second, first);
    // Continuing can only keep or lower the objective of the first result.
    EXPECT_LE(regR(c, "RES"), res1 + 1e-12);
    // With no step the second run stays where the first ended, and reports
    // the objective there, not at zero.
    ASSERT_TRUE(runLines(c, {"STP 0.0", "ESTIMATE;"}));
    EXPECT_EQ(arr(io->w, io->dim), second);
    EXPECT_NEAR(regR(c, "RES"), objectiveAt(io), 1e-9);
}

TEST(Estimate, UnsetMethodFailsAfterTheMeansWithWeightsUnchanged) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("noopt")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 0.125 * (double)i;
    const std::vector<double> before = arr(io->w, io->dim);
    EXPECT_EQ(failure<std::out_of_range>(c, {"ESTIMATE;"}), "unknown optimization algorithm");
    EXPECT_EQ(arr(io->w, io->dim), before);
    // The engine and the model come first: their errors win over the method's.
    EXPECT_EQ(freshFailure<std::out_of_range>("noopt_inf", {}, {"INF 5", "ESTIMATE;"}), "unknown inference algorithm");
    Ctx d;
    ASSERT_TRUE(runLines(d, chainModel("noopt_rst")));
    IOd* jo = reinterpret_cast<IOd*>(reg(d, "MPT"));
    jo->w[1] = 2.0;
    // A reset happens before the method is chosen, and stays.
    EXPECT_EQ(failure<std::out_of_range>(d, {"RST true", "OPT 3", "ESTIMATE;"}), "unknown optimization algorithm");
    EXPECT_EQ(arr(jo->w, jo->dim), std::vector<double>(jo->dim, 0.0));
}

TEST(Estimate, ZeroIterationsKeepTheWeightsAndReportTheLargestValue) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("mio0")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 0.5 - 0.1 * (double)i;
    const std::vector<double> before = arr(io->w, io->dim);
    ASSERT_TRUE(runLines(c, {"ALG GD;", "STP 1.0", "MIO 0", "ESTIMATE;"}));
    EXPECT_EQ(arr(io->w, io->dim), before);
    EXPECT_EQ(regR(c, "RES"), DBL_MAX);

    Ctx f;
    ASSERT_TRUE(runLines(f, {"idx_t UINT32;", "val_t FLT32;"}));
    ASSERT_TRUE(runLines(f, chainModel("mio0f")));
    ASSERT_TRUE(runLines(f, {"ALG GD;", "STP 1.0", "MIO 0", "ESTIMATE;"}));
    EXPECT_EQ(regR(f, "RES"), (double)FLT_MAX);
}

TEST(Estimate, ResetDiscardsAPriorFit) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("rst")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_TRUE(runLines(c, {"ALG GD;", "STP 1.0", "MIO 10", "ESTIMATE;"}));
    const std::vector<double> fresh = arr(io->w, io->dim);
    const double freshRes = regR(c, "RES");
    ASSERT_NE(fresh, std::vector<double>(io->dim, 0.0));
    // Starting over from zero repeats the first fit exactly.
    ASSERT_TRUE(runLines(c, {"RST true", "ESTIMATE;"}));
    EXPECT_EQ(arr(io->w, io->dim), fresh);
    EXPECT_EQ(regR(c, "RES"), freshRes);
    // With no step, a reset run ends at zero and reports the uniform model.
    ASSERT_TRUE(runLines(c, {"STP 0.0", "ESTIMATE;"}));
    EXPECT_EQ(arr(io->w, io->dim), std::vector<double>(io->dim, 0.0));
    EXPECT_NEAR(regR(c, "RES"), 3 * std::log(2.0), 1e-9);
}

TEST(Estimate, ZeroStepKeepsTheWeightsAndReportsTheStartingObjective) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("stp0")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    ASSERT_TRUE(runLines(c, {"ALG GD;", "MIO 20", "ESTIMATE;"}));
    EXPECT_EQ(arr(io->w, io->dim), std::vector<double>(io->dim, 0.0));
    // The uniform model over three binary variables.
    EXPECT_NEAR(regR(c, "RES"), 3 * std::log(2.0), 1e-9);
    // From a non-zero start as well.
    for (unsigned long i = 0; i < io->dim; ++i) io->w[i] = 0.3 * (double)(i % 3);
    const std::vector<double> before = arr(io->w, io->dim);
    const double start = objectiveAt(io);
    ASSERT_TRUE(runLines(c, {"ESTIMATE;"}));
    EXPECT_EQ(arr(io->w, io->dim), before);
    EXPECT_NEAR(regR(c, "RES"), start, 1e-9);
}

TEST(Estimate, HooksSeeTheInstantiationAndTheContainer) {
    Ctx c;
    ASSERT_TRUE(runLines(c, {"idx_t UINT32;", "val_t FLT32;"}));
    ASSERT_TRUE(runLines(c, chainModel("hooks")));
    wreg(c, "CBU", (size_t)&onUpdate<unsigned int, float>);
    wreg(c, "CBO", (size_t)&onProgress<unsigned int, float>);
    updateLog = HookLog();
    progressLog = HookLog();
    ASSERT_TRUE(runLines(c, {"ALG GD;", "STP 0.5", "MIO 7", "EPO 0.0", "ESTIMATE;"}));
    IOf* io = reinterpret_cast<IOf*>(reg(c, "MPT"));
    // Once at the start and once per iteration.
    EXPECT_EQ(updateLog.calls, 8);
    // Once per iteration and once at the end.
    EXPECT_EQ(progressLog.calls, 8);
    EXPECT_EQ(updateLog.itype, 2);
    EXPECT_EQ(updateLog.vtype, 4);
    EXPECT_EQ(progressLog.itype, 2);
    EXPECT_EQ(progressLog.vtype, 4);
    EXPECT_EQ(updateLog.payload, (void*)io);
    EXPECT_EQ(progressLog.payload, (void*)io);
    EXPECT_EQ(progressLog.lastIter, 7u);
}

TEST(Estimate, InterruptEndsTheLoopAndKeepsTheBestPoint) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("interrupt")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    wreg(c, "CBO", (size_t)&stopAfterFirst);
    progressLog = HookLog();
    const bool ok = runLines(c, {"ALG GD;", "STP 1.0", "MIO 500", "ESTIMATE;"});
    __run = true;
    ASSERT_TRUE(ok);
    // One iteration, then the closing report.
    EXPECT_EQ(progressLog.calls, 2);
    EXPECT_EQ(progressLog.lastIter, 1u);
    EXPECT_NE(arr(io->w, io->dim), std::vector<double>(io->dim, 0.0));
    EXPECT_NEAR(regR(c, "RES"), objectiveAt(io), 1e-9);
}

TEST(Estimate, ExternalOptimizerFromTheFactory) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("exto")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    EXPECT_EQ(freshFailure<std::out_of_range>("exto_null", {}, {"ALG EXTO;", "ESTIMATE;"}),
              "unknown optimization algorithm");
    wreg(c, "EXT1", (size_t)&makeOptimizer);
    extOptCalls = 0;
    ASSERT_TRUE(runLines(c, {"ALG EXTO;", "STP 1.0", "MIO 5", "ESTIMATE;"}));
    EXPECT_EQ(extOptCalls, 1);
    EXPECT_NE(arr(io->w, io->dim), std::vector<double>(io->dim, 0.0));

    Ctx d;
    ASSERT_TRUE(runLines(d, {"val_t FLTMPREC;"}));
    ASSERT_TRUE(runLines(d, chainModel("exto_mp")));
    wreg(d, "EXT1", (size_t)&makeOptimizer);
    extOptCalls = 0;
    // The message names the engine, also for the optimizer.
    EXPECT_EQ(failure<std::out_of_range>(d, {"ALG EXTO;", "ESTIMATE;"}),
              "incompatible data types for external inference algorithm");
    EXPECT_EQ(extOptCalls, 0);
}

TEST(Estimate, MethodsOfTheOtherValueKindAreUnknown) {
    for (const char* alg : {"EA11", "IGD"})
        EXPECT_EQ(freshFailure<std::out_of_range>(std::string("int_on_float") + alg, {},
                                                  {std::string("ALG ") + alg + ";", "ESTIMATE;"}),
                  "unknown optimization algorithm")
            << alg;

    Ctx d;
    vm_t* vm = vmOf(d);
    for (size_t opt : {0, 4, 5, 6, 9}) {
        vm->set(vm_t::OPT, opt);
        EXPECT_EQ(thrownBy<std::out_of_range>([vm] { vm->learn<unsigned char, unsigned char>(nullptr); }),
                  "unknown optimization algorithm")
            << opt;
    }
}

TEST(Estimate, DryRunDoesNotEstimate) {
    Ctx c;
    ASSERT_TRUE(runLines(c, chainModel("dry")));
    IOd* io = reinterpret_cast<IOd*>(reg(c, "MPT"));
    vm_t* vm = vmOf(c);
    vm->setCode(new std::vector<std::string>{"ALG GD;", "STP 1.0", "ESTIMATE;"});
    ASSERT_TRUE(vm->parse(true));
    EXPECT_EQ(arr(io->w, io->dim), std::vector<double>(io->dim, 0.0));
}
