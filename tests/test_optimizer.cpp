// The iteration frame: stopping rules, best point by gradient norm, hooks and
// the record they receive, for real and integer values.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/opt/function>
#include <QZ/opt/optimizer>

#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

using namespace QZ;

namespace {

// Either f(x) = 1/2 |x - c|^2 with the infinity norm of x - c, or, with a
// script, norms and values read from lists call by call (the point is ignored),
// so that every comparison of the loop can be steered.
struct TestFn : Function<unsigned int, double> {
    std::vector<double> x, c, norms, fvals;
    int grads = 0, decodes = 0;
    explicit TestFn(std::vector<double> start, std::vector<double> centre = {})
        : Function<unsigned int, double>((unsigned)start.size()), x(start), c(centre) {
        if (c.empty()) c.assign(x.size(), 0.0);
    }
    void decode_weights() override { ++decodes; }
    double* current_point() override { return x.data(); }
    double eval() override {
        if (!fvals.empty()) return fvals[std::min<size_t>(grads - 1, fvals.size() - 1)];
        double s = 0;
        for (size_t i = 0; i < x.size(); ++i) s += 0.5 * (x[i] - c[i]) * (x[i] - c[i]);
        return s;
    }
    double* comp_gradient() override {
        ++grads;
        double m = 0;
        for (size_t i = 0; i < x.size(); ++i) {
            g[i] = x[i] - c[i];
            m = std::max(m, std::fabs(g[i]));
        }
        g_nrm = norms.empty() ? m : norms[std::min<size_t>(grads - 1, norms.size() - 1)];
        return g;
    }
};

// Moves every coordinate by stp times the gradient.
struct Step : Optimizer<unsigned int, double, true> {
    int updates = 0;
    void update(Function<unsigned int, double>* f, OptState<unsigned int, double>& o) override {
        ++updates;
        for (unsigned i = 0; i < o.dim; ++i) o.weights[i] -= o.stp * o.gradient[i];
    }
};

// Adds a fixed offset to the point, so that the point tells the iteration.
struct Shift : Optimizer<unsigned int, double, true> {
    void update(Function<unsigned int, double>* f, OptState<unsigned int, double>& o) override {
        for (unsigned i = 0; i < o.dim; ++i) o.weights[i] += 1.0;
    }
};

typedef OptState<unsigned int, double> St;

std::vector<St> updates, progress;
void recU(St* o) { updates.push_back(*o); }
void recP(St* o) { progress.push_back(*o); }
std::vector<double> progressPoints;
void recPoint(St* o) { progressPoints.push_back(o->weights[0]); }
void clearRecords() {
    updates.clear();
    progress.clear();
    progressPoints.clear();
}

// Runs a script of norms: the first is the start point's, then one per iteration.
double runScript(Optimizer<unsigned int, double, true>& op, TestFn& f, unsigned maxIter, bool elite = false) {
    clearRecords();
    return op.opt(&f, recU, recP, nullptr, maxIter, 0.5, elite, 0.0, 0.0);
}

// Runs the quadratic from 1 with a given Lipschitz constant and eta, recording the hooks.
void runSteps(double lip, double eta, unsigned maxIter) {
    TestFn f({1.0});
    f.lip = lip;
    Step s;
    clearRecords();
    s.opt(&f, recU, recP, nullptr, maxIter, eta, false, 0.0, 0.0);
}

}  // namespace

TEST(Optimizer, DefaultsAndSetters) {
    Step s;
    EXPECT_EQ(s.eps, 0.0);
    EXPECT_DOUBLE_EQ(s.gamma, 1.001);
    EXPECT_EQ(s.random_engine, nullptr);
    std::mt19937 e(3);
    s.setRandEng(&e);
    s.setEps(1e-3);
    EXPECT_EQ(s.random_engine, &e);
    EXPECT_EQ(s.eps, 1e-3);
    s.reset();
    EXPECT_EQ(s.eps, 1e-3);
    EXPECT_TRUE((Optimizer<unsigned int, double, true>::minimize));
    EXPECT_FALSE((Optimizer<unsigned int, double, true>::maximize));
}

TEST(Optimizer, StateRecordStartsWithTypeCodes) {
    EXPECT_EQ(offsetof(St, itype), 0u);
    EXPECT_EQ(offsetof(St, vtype), 1u);
    EXPECT_LT(offsetof(St, fval), offsetof(St, norm));
    EXPECT_LT(offsetof(St, lam2), offsetof(St, iter));
    EXPECT_LT(offsetof(St, extra), offsetof(St, integer));
    EXPECT_LT(offsetof(St, best_weights), offsetof(St, val_bytes));
    EXPECT_LT(offsetof(St, payload), offsetof(St, converged));
}

TEST(Optimizer, HooksReceiveTheStateOfTheRun) {
    TestFn f({3.0, -1.0});
    f.lip = 1.0;
    Step s;
    int payload = 0;
    clearRecords();
    s.opt(&f, recU, recP, &payload, 3, 0.5, false, 0.25, 0.75);
    ASSERT_EQ(updates.size(), 4u);   // before the loop and after each gradient
    ASSERT_EQ(progress.size(), 4u);  // after each gradient and once after the loop
    const St& u0 = updates[0];
    EXPECT_EQ(u0.itype, 2);
    EXPECT_EQ(u0.vtype, 5);
    EXPECT_FALSE(u0.integer);
    EXPECT_EQ(u0.iter, 0u);
    EXPECT_EQ(u0.maxIter, 3u);
    EXPECT_EQ(u0.dim, 2u);
    EXPECT_EQ(u0.val_bytes, 8u);
    EXPECT_EQ(u0.lam1, 0.25);
    EXPECT_EQ(u0.lam2, 0.75);
    EXPECT_EQ(u0.payload, &payload);
    EXPECT_EQ(u0.stp, 0.5);
    EXPECT_DOUBLE_EQ(u0.fval, 0.5 * (9.0 + 1.0));
    EXPECT_EQ(u0.norm, 3.0);
    EXPECT_EQ(u0.extra, nullptr);
    EXPECT_EQ(u0.best_norm, std::numeric_limits<double>::max());
    EXPECT_EQ(u0.best_fval, std::numeric_limits<double>::max());
    EXPECT_EQ(u0.gradient, f.g);
    EXPECT_NE(u0.best_weights, f.x.data());
    EXPECT_FALSE(u0.converged);
    // The point is the function's own array, not a copy.
    EXPECT_EQ(progress[0].weights, f.x.data());
    // First iteration: stp = 0.5 / sqrt(1), point 3 -> 1.5, norm 1.5.
    EXPECT_EQ(progress[0].iter, 0u);
    EXPECT_DOUBLE_EQ(progress[0].norm, 1.5);
    EXPECT_DOUBLE_EQ(progress[0].fval, 0.5 * (1.5 * 1.5 + 0.5 * 0.5));
    EXPECT_EQ(progress[1].iter, 1u);
    EXPECT_DOUBLE_EQ(progress[1].best_norm, 1.5);
    EXPECT_EQ(progress[3].iter, 3u);  // the last call comes after the loop
}

TEST(Optimizer, UpdateHookMayChangeTheGradientBeforeTheStep) {
    // A ridge term added by the hook moves the minimiser from c to c / (1 + lam2).
    TestFn f({0.0}, {4.0});
    f.lip = 1.0;
    Step s;
    s.setEps(1e-12);
    auto ridge = [](St* o) {
        for (unsigned i = 0; i < o->dim; ++i) o->gradient[i] += o->lam2 * o->weights[i];
    };
    s.opt(&f, ridge, nullptr, nullptr, 500, 0.5, false, 0.0, 1.0);
    EXPECT_NEAR(f.x[0], 2.0, 1e-6);
}

TEST(Optimizer, IterationLimitBoundsTheRun) {
    TestFn f({5.0});
    Step s;
    runScript(s, f, 7);
    EXPECT_EQ(s.updates, 7);
    EXPECT_EQ(f.grads, 8);
    EXPECT_EQ(progress.back().iter, 7u);
    EXPECT_FALSE(progress.back().converged);
}

TEST(Optimizer, ZeroIterationsReturnTheLargestValueAndKeepThePoint) {
    TestFn f({5.0});
    Step s;
    double r = runScript(s, f, 0);
    EXPECT_EQ(r, std::numeric_limits<double>::max());
    EXPECT_EQ(s.updates, 0);
    EXPECT_EQ(f.x[0], 5.0);
    EXPECT_EQ(updates.size(), 1u);
    EXPECT_EQ(progress.size(), 1u);
}

TEST(Optimizer, ConvergesWhenTheBestNormImprovesByLessThanEps) {
    TestFn f({1.0});
    f.norms = {9.0, 8.0, 7.0, 6.95, 1.0};
    Step s;
    s.setEps(0.1);
    runScript(s, f, 10);
    EXPECT_EQ(s.updates, 3);
    EXPECT_TRUE(progress.back().converged);
    EXPECT_EQ(progress.back().best_norm, 6.95);
}

TEST(Optimizer, TwoCloseImprovingNormsStopEvenAtALargeNorm) {
    TestFn f({1.0});
    f.norms = {1e6, 5e5, 5e5 - 1.0, 1.0};
    Step s;
    s.setEps(2.0);
    runScript(s, f, 10);
    EXPECT_EQ(s.updates, 2);
    EXPECT_TRUE(progress.back().converged);
    EXPECT_EQ(progress.back().best_norm, 5e5 - 1.0);
}

TEST(Optimizer, WorseNormsDoNotStopTheRun) {
    TestFn f({1.0});
    f.norms = {9.0, 5.0, 5.0, 6.0, 5.0};
    Step s;
    s.setEps(0.5);
    runScript(s, f, 6);
    EXPECT_EQ(s.updates, 6);
    EXPECT_FALSE(progress.back().converged);
}

TEST(Optimizer, ZeroEpsAlwaysUsesAllIterations) {
    TestFn f({2.0}, {2.0});  // starts at the minimum: the norm is 0 throughout
    Step s;
    s.setEps(0.0);
    runScript(s, f, 25);
    EXPECT_EQ(s.updates, 25);
    EXPECT_EQ(progress.back().best_norm, 0.0);
    EXPECT_FALSE(progress.back().converged);
}

TEST(Optimizer, ZeroStepSizeKeepsThePointAndRepeatsTheNorm) {
    TestFn f({3.0, 1.0});
    f.lip = 2.0;
    Step s;
    clearRecords();
    s.opt(&f, recU, recP, nullptr, 3, 0.0, false, 0.0, 0.0);
    ASSERT_EQ(progress.size(), 4u);
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(progress[k].stp, 0.0) << k;
        EXPECT_EQ(progress[k].stp_min, 0.0) << k;
        EXPECT_EQ(progress[k].norm, 3.0) << k;
    }
    // The first iteration sets the best norm, the second one is no improvement.
    EXPECT_EQ(progress[1].best_norm, 3.0);
    EXPECT_EQ(progress[2].best_norm, 3.0);
    EXPECT_EQ(f.x[0], 3.0);
    EXPECT_EQ(f.x[1], 1.0);
}

TEST(Optimizer, StepDecaysUntilItMeetsTheLipschitzFloor) {
    runSteps(2.0, 1.0, 8);
    const double floor = 1.0 / (1.001 * 2.0);
    EXPECT_NEAR(floor, 0.4995, 1e-4);
    EXPECT_DOUBLE_EQ(updates[0].stp_min, floor);
    for (unsigned k = 0; k < 4; ++k) EXPECT_DOUBLE_EQ(progress[k].stp, 1.0 / std::sqrt(k + 1.0)) << k;
    for (unsigned k = 4; k < 8; ++k) EXPECT_DOUBLE_EQ(progress[k].stp, floor) << k;
}

TEST(Optimizer, SmallEtaBecomesTheFloor) {
    runSteps(2.0, 0.1, 2);
    EXPECT_DOUBLE_EQ(updates[0].stp_min, 0.1);
    EXPECT_DOUBLE_EQ(progress[1].stp, 0.1);
}

TEST(Optimizer, WithoutLipschitzConstantTheFloorIsZero) {
    runSteps(0.0, 1.0, 4);
    EXPECT_EQ(updates[0].stp_min, 0.0);
    EXPECT_DOUBLE_EQ(progress[3].stp, 0.5);
}

TEST(Optimizer, ReturnsTheValueOfTheBestIterateNotOfTheLast) {
    TestFn f({0.0});
    f.norms = {100.0, 5.0, 1.0, 3.0};
    f.fvals = {1000.0, 50.0, 10.0, 30.0};
    Shift s;
    double r = runScript(s, f, 3);
    EXPECT_EQ(r, 10.0);
    EXPECT_NE(r, 1.0);  // not the best norm
    EXPECT_EQ(progress.back().fval, 30.0);
}

TEST(Optimizer, BestPointByGradientNormGoesBack) {
    TestFn f({0.0});
    f.norms = {100.0, 5.0, 1.0, 3.0, 2.0};
    Shift s;
    runScript(s, f, 4);
    EXPECT_EQ(progress[3].weights, f.x.data());
    // The point of the second iteration had the smallest norm.
    EXPECT_EQ(f.x[0], 2.0);
    EXPECT_EQ(f.decodes, 6);  // start, four iterations, and the final copy-back
}

TEST(Optimizer, WithoutEliteTheRunContinuesFromAWorsePoint) {
    TestFn f({0.0});
    f.norms = {100.0, 5.0, 1.0, 3.0, 2.0};
    Shift s;
    clearRecords();
    s.opt(&f, nullptr, recPoint, nullptr, 4, 0.5, false, 0.0, 0.0);
    EXPECT_EQ(progressPoints, (std::vector<double>{1.0, 2.0, 3.0, 4.0, 4.0}));
}

TEST(Optimizer, EliteTakesBackAStepWithoutImprovement) {
    TestFn f({0.0});
    f.norms = {100.0, 5.0, 1.0, 3.0, 2.0};
    Shift s;
    clearRecords();
    s.opt(&f, nullptr, recPoint, nullptr, 4, 0.5, true, 0.0, 0.0);
    // Iteration 3 is worse and is undone to 2 before iteration 4 moves to 3.
    EXPECT_EQ(progressPoints, (std::vector<double>{1.0, 2.0, 3.0, 3.0, 2.0}));
    EXPECT_EQ(f.x[0], 2.0);
}

TEST(Optimizer, StartPointIsNoCandidateButStartsTheBestCopy) {
    TestFn f({0.0});
    f.norms = {0.5, 7.0, 8.0};
    f.fvals = {1.0, 70.0, 80.0};
    Shift s;
    double r = runScript(s, f, 2);
    EXPECT_EQ(r, 70.0);
    EXPECT_EQ(progress.back().best_norm, 7.0);
    EXPECT_EQ(f.x[0], 1.0);
}

TEST(Optimizer, NonFiniteNormsNeverBecomeTheBest) {
    TestFn f({0.0});
    const double nan = std::numeric_limits<double>::quiet_NaN();
    f.norms = {9.0, nan, 4.0, nan, std::numeric_limits<double>::infinity()};
    Shift s;
    clearRecords();
    double r = s.opt(&f, nullptr, recPoint, nullptr, 4, 0.5, false, 0.0, 0.0);
    EXPECT_EQ(progressPoints, (std::vector<double>{1.0, 2.0, 3.0, 4.0, 4.0}));
    EXPECT_EQ(f.x[0], 2.0);
    EXPECT_DOUBLE_EQ(r, 0.5 * 4.0);
}

TEST(Optimizer, ClearedRunFlagEndsAtOnce) {
    TestFn f({5.0});
    Step s;
    __run = false;
    double r = runScript(s, f, 10);
    __run = true;
    EXPECT_EQ(s.updates, 0);
    EXPECT_EQ(r, std::numeric_limits<double>::max());
    EXPECT_EQ(f.x[0], 5.0);
    EXPECT_EQ(progress.size(), 1u);
}

TEST(Optimizer, RunFlagClearedDuringAnIterationEndsAfterIt) {
    TestFn f({5.0});
    Step s;
    clearRecords();
    auto stopAtTwo = [](St* o) {
        progress.push_back(*o);
        if (o->iter == 2) __run = false;
    };
    double r = s.opt(&f, nullptr, stopAtTwo, nullptr, 10, 0.5, false, 0.0, 0.0);
    const bool flag = __run;
    __run = true;
    EXPECT_FALSE(flag);
    EXPECT_EQ(s.updates, 3);
    EXPECT_LT(r, std::numeric_limits<double>::max());
    EXPECT_EQ(progress.back().iter, 3u);
}

TEST(Optimizer, ExceptionsFromHooksPassThrough) {
    TestFn f({5.0});
    Step s;
    auto thrower = [](St* o) {
        if (o->iter == 1) throw std::logic_error("hook");
    };
    EXPECT_THROW(s.opt(&f, nullptr, thrower, nullptr, 10, 0.5, false, 0.0, 0.0), std::logic_error);
}

namespace {

// Integer objective: the norm is the largest coordinate and the value their sum.
template <typename T>
struct IntFn : Function<T, T> {
    std::vector<T> x;
    std::vector<T> norms;
    int grads = 0;
    explicit IntFn(std::vector<T> start) : Function<T, T>((T)start.size()), x(start) {}
    void decode_weights() override {}
    T* current_point() override { return x.data(); }
    T eval() override {
        T s = 0;
        for (T v : x) s += v;
        return s;
    }
    T* comp_gradient() override {
        ++grads;
        T m = 0;
        for (size_t i = 0; i < x.size(); ++i) {
            this->g[i] = x[i];
            m = std::max(m, x[i]);
        }
        this->g_nrm = norms.empty() ? m : norms[std::min<size_t>(grads - 1, norms.size() - 1)];
        return this->g;
    }
};

// Lowers every coordinate by stp, stopping at 0.
template <typename T>
struct Lower : Optimizer<T, T, true> {
    void update(Function<T, T>* f, OptState<T, T>& o) override {
        for (T i = 0; i < o.dim; ++i) o.weights[i] = o.weights[i] > o.stp ? (T)(o.weights[i] - o.stp) : (T)0;
    }
};

template <typename T>
std::vector<OptState<T, T>>& intRecords() {
    static std::vector<OptState<T, T>> r;
    return r;
}
template <typename T>
void intRec(OptState<T, T>* o) {
    intRecords<T>().push_back(*o);
}

}  // namespace

TEST(OptimizerInteger, GammaTruncatesToOne) {
    Lower<unsigned char> a;
    Lower<unsigned long> b;
    EXPECT_EQ(a.gamma, 1);
    EXPECT_EQ(b.gamma, 1u);
}

TEST(OptimizerInteger, ZeroIterationsReturnAllOnes) {
    IntFn<unsigned char> f({9});
    Lower<unsigned char> op;
    intRecords<unsigned char>().clear();
    unsigned char r = op.opt(&f, intRec<unsigned char>, nullptr, nullptr, 0, 1, false, 0, 0);
    EXPECT_EQ(r, 255);
    const auto& o = intRecords<unsigned char>()[0];
    EXPECT_EQ(o.itype, 0);
    EXPECT_EQ(o.vtype, 0);
    EXPECT_TRUE(o.integer);
    EXPECT_EQ(o.best_norm, 255);
    EXPECT_EQ(o.best_fval, 255);
    EXPECT_EQ(o.val_bytes, 1);
}

TEST(OptimizerInteger, StepStaysEtaAndMinimisesToTheBestPoint) {
    IntFn<unsigned short> f({7, 3});
    Lower<unsigned short> op;
    intRecords<unsigned short>().clear();
    unsigned short r = op.opt(&f, nullptr, intRec<unsigned short>, nullptr, 5, 2, false, 0, 0);
    auto& rec = intRecords<unsigned short>();
    ASSERT_EQ(rec.size(), 6u);
    EXPECT_EQ(rec[0].itype, 1);
    EXPECT_EQ(rec[0].vtype, 1);
    for (size_t k = 0; k < 5; ++k) EXPECT_EQ(rec[k].stp, 2) << k;
    // 7,3 -> 5,1 -> 3,0 -> 1,0 -> 0,0 -> 0,0
    EXPECT_EQ(f.x[0], 0);
    EXPECT_EQ(f.x[1], 0);
    EXPECT_EQ(r, 0);
}

TEST(OptimizerInteger, FloorIsTruncatedFromFloat) {
    IntFn<unsigned int> f({4});
    Lower<unsigned int> op;
    intRecords<unsigned int>().clear();
    f.lip = 1;  // 1 / (1 * 1) = 1
    op.opt(&f, intRec<unsigned int>, nullptr, nullptr, 1, 3, false, 0, 0);
    EXPECT_EQ(intRecords<unsigned int>()[0].stp_min, 1u);
    IntFn<unsigned int> h({4});
    h.lip = 3;  // one third truncates to 0
    intRecords<unsigned int>().clear();
    op.opt(&h, intRec<unsigned int>, nullptr, nullptr, 1, 3, false, 0, 0);
    EXPECT_EQ(intRecords<unsigned int>()[0].stp_min, 0u);
    IntFn<unsigned int> k({4});
    k.lip = 1;  // eta below the floor becomes the floor
    intRecords<unsigned int>().clear();
    op.opt(&k, intRec<unsigned int>, nullptr, nullptr, 1, 0, false, 0, 0);
    EXPECT_EQ(intRecords<unsigned int>()[0].stp_min, 0u);
}

TEST(OptimizerInteger, ConvergenceComparesTheNormsAsDoubles) {
    IntFn<unsigned long> f({50});
    f.norms = {100, 40, 39, 10};
    Lower<unsigned long> op;
    op.setEps(2);
    intRecords<unsigned long>().clear();
    op.opt(&f, nullptr, intRec<unsigned long>, nullptr, 10, 1, false, 0, 0);
    auto& rec = intRecords<unsigned long>();
    // 40 after all ones: the difference is huge; 39 after 40 is closer than 2.
    EXPECT_EQ(rec.back().iter, 2u);
    EXPECT_TRUE(rec.back().converged);
    EXPECT_EQ(rec.back().best_norm, 39u);
    EXPECT_EQ(rec.back().itype, 3);
    EXPECT_EQ(rec.back().vtype, 3);
}

TEST(OptimizerInteger, ClearedRunFlagEndsAtOnce) {
    IntFn<unsigned char> f({9});
    Lower<unsigned char> op;
    __run = false;
    unsigned char r = op.opt(&f, nullptr, nullptr, nullptr, 10, 1, false, 0, 0);
    __run = true;
    EXPECT_EQ(r, 255);
    EXPECT_EQ(f.x[0], 9);
}
