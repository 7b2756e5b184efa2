// Gradient descent, proximal gradient and the accelerated proximal method on
// small convex objectives, with and without host hooks.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/opt/function>
#include <QZ/opt/optimizer>
#include <QZ/opt/first_order>

#include <cmath>
#include <string>
#include <vector>

using namespace QZ;

namespace {

// Separable convex objectives with known minimisers:
// quadratic: sum of a[i]/2 (x[i] - c[i])^2, minimum at c, Lipschitz max a;
// logistic:  sum of log(1 + e^x[i]) - x[i] c[i], minimum at logit(c), Lipschitz 1/4.
template <typename I, typename V>
struct Convex : Function<I, V> {
    std::vector<V> x, a, c;
    bool logistic;
    int grads = 0;
    Convex(std::vector<V> start, std::vector<V> curv, std::vector<V> centre, bool logi = false)
        : Function<I, V>((I)start.size()), x(start), a(curv), c(centre), logistic(logi) {
        V m = 0;
        for (V v : a) m = std::max(m, v);
        this->lip = logistic ? (V)0.25 : m;
    }
    void decode_weights() override {}
    V* current_point() override { return x.data(); }
    V eval() override {
        V s = 0;
        for (size_t i = 0; i < x.size(); ++i)
            s += logistic ? std::log1p(std::exp(x[i])) - x[i] * c[i] : a[i] / 2 * (x[i] - c[i]) * (x[i] - c[i]);
        return s;
    }
    V* comp_gradient() override {
        ++grads;
        V m = 0;
        for (size_t i = 0; i < x.size(); ++i) {
            this->g[i] = logistic ? 1 / (1 + std::exp(-x[i])) - c[i] : a[i] * (x[i] - c[i]);
            m = std::max(m, std::fabs(this->g[i]));
        }
        this->g_nrm = m;
        return this->g;
    }
};

template <typename I, typename V>
Convex<I, V> quadratic() {
    return Convex<I, V>({0, 0, 0}, {1, 2, (V)0.5}, {1, -2, 3});
}

template <typename I, typename V>
Convex<I, V> logistic() {
    return Convex<I, V>({0, 0, 0}, {1, 1, 1}, {(V)0.2, (V)0.5, (V)0.9}, true);
}

enum Method { GD, PL1, FL1 };

template <typename I, typename V>
Optimizer<I, V, true>* make(Method m, void (*g)(OptState<I, V>*) = nullptr, void (*p)(OptState<I, V>*) = nullptr) {
    if (m == GD) return new GradientDescent<I, V>(g);
    if (m == PL1) return new ProximalGradient<I, V>(g, p);
    return new FISTA<I, V>(g, p);
}

// Minimises both objectives with one method and checks the minimisers.
template <typename I, typename V>
void minimiseBoth(Method m, double tol) {
    {
        Convex<I, V> f = quadratic<I, V>();
        Optimizer<I, V, true>* op = make<I, V>(m);
        V r = op->opt(&f, nullptr, nullptr, nullptr, 250, 1, false, 0, 0);
        delete op;
        EXPECT_NEAR(f.x[0], 1, tol);
        EXPECT_NEAR(f.x[1], -2, tol);
        EXPECT_NEAR(f.x[2], 3, tol);
        EXPECT_NEAR(r, 0, tol);
    }
    {
        Convex<I, V> f = logistic<I, V>();
        Optimizer<I, V, true>* op = make<I, V>(m);
        op->opt(&f, nullptr, nullptr, nullptr, 250, 4, false, 0, 0);
        delete op;
        EXPECT_NEAR(f.x[0], std::log(0.2 / 0.8), tol);
        EXPECT_NEAR(f.x[1], 0, tol);
        EXPECT_NEAR(f.x[2], std::log(0.9 / 0.1), tol);
        EXPECT_LT(f.get_gradient_norm(), tol);
    }
}

typedef OptState<unsigned int, double> St;
std::vector<double> points;
void recordPoint(St* o) { points.push_back(o->weights[0]); }

std::vector<double> trajectory(Optimizer<unsigned int, double, true>* op, double start, double eta, unsigned n) {
    Convex<unsigned int, double> f({start}, {1.5}, {2.0});
    points.clear();
    op->opt(&f, nullptr, recordPoint, nullptr, n, eta, false, 0, 0);
    delete op;
    return points;
}

// Soft-thresholding with shrinkage: the proximal step of
// lam1 |x| + lam2/2 x^2 after a gradient step.
void elasticProx(St* o) {
    for (unsigned i = 0; i < o->dim; ++i) {
        double z = o->weights[i] - o->stp * o->gradient[i];
        double s = std::max(std::fabs(z) - o->stp * o->lam1, 0.0);
        o->weights[i] = std::copysign(s, z) / (1 + o->stp * o->lam2);
    }
}

std::string calls;
void hookCall(St* o) { calls += 'H'; }
void progressCall(St* o) { calls += 'P'; }

// The hook calls of a three-iteration run, H for the hook and P for progress.
std::string hookCalls(Optimizer<unsigned int, double, true>& op, bool asUpdateHook) {
    Convex<unsigned int, double> f = quadratic<unsigned int, double>();
    calls.clear();
    op.opt(&f, asUpdateHook ? hookCall : nullptr, progressCall, nullptr, 3, 1, false, 0, 0);
    return calls;
}

}  // namespace

TEST(FirstOrder, GradientDescentMinimisesConvexFunctions) {
    minimiseBoth<unsigned int, double>(GD, 1e-6);
    minimiseBoth<unsigned char, double>(GD, 1e-6);
    minimiseBoth<unsigned short, float>(GD, 1e-3);
}

TEST(FirstOrder, ProximalGradientMinimisesConvexFunctions) {
    minimiseBoth<unsigned long, double>(PL1, 1e-6);
    minimiseBoth<unsigned int, float>(PL1, 1e-3);
}

TEST(FirstOrder, FistaMinimisesConvexFunctions) {
    minimiseBoth<unsigned short, double>(FL1, 1e-6);
    minimiseBoth<unsigned char, float>(FL1, 1e-3);
}

TEST(FirstOrder, ProximalGradientWithoutHookIsGradientDescent) {
    std::vector<double> gd = trajectory(new GradientDescent<unsigned int, double>(nullptr), 10.0, 0.9, 12);
    std::vector<double> pl = trajectory(new ProximalGradient<unsigned int, double>(nullptr, nullptr), 10.0, 0.9, 12);
    ASSERT_EQ(gd.size(), 13u);
    EXPECT_EQ(gd, pl);
    EXPECT_NE(gd[0], 10.0);
}

TEST(FirstOrder, FistaWithoutHookIsGradientDescentWithMomentum) {
    const double a = 1.5, c = 2.0, eta = 0.9;
    const unsigned n = 12;
    std::vector<double> fl = trajectory(new FISTA<unsigned int, double>(nullptr, nullptr), 10.0, eta, n);
    std::vector<double> gd = trajectory(new GradientDescent<unsigned int, double>(nullptr), 10.0, eta, n);
    // The same iteration written out: step from y, then extrapolate.
    const double floor = std::min(eta, 1.0 / (1.001 * a));
    double x = 10.0, y = 10.0, t = 1.0;
    for (unsigned k = 0; k < n; ++k) {
        const double stp = std::max(floor, eta / std::sqrt(k + 1.0));
        const double xo = x;
        x = y - stp * a * (y - c);
        const double to = t;
        t = (std::sqrt(to * 4.0 * to + 1.0) + 1.0) / 2.0;
        y = x + (to - 1) / t * (x - xo);
        EXPECT_NEAR(fl[k], x, 1e-12) << k;
    }
    EXPECT_EQ(fl[0], gd[0]);  // no momentum in the first step
    EXPECT_NE(fl[2], gd[2]);
}

TEST(FirstOrder, GradientDescentNeverCallsItsGradientHook) {
    GradientDescent<unsigned int, double> gd(hookCall);
    EXPECT_EQ(gd.gradient_hook, &hookCall);
    EXPECT_EQ(hookCalls(gd, false), "PPPP");
    // As the frame's update hook it runs before the loop and after each gradient.
    EXPECT_EQ(hookCalls(gd, true), "HHPHPHPP");
}

TEST(FirstOrder, ProximalGradientStoresItsGradientHookWithoutCallingIt) {
    ProximalGradient<unsigned int, double> pg(hookCall, nullptr);
    EXPECT_EQ(pg.gradient_hook, &hookCall);
    EXPECT_EQ(pg.prox_hook, nullptr);
    EXPECT_EQ(hookCalls(pg, false), "PPPP");
}

TEST(FirstOrder, FistaCallsItsGradientHookInsideTheStepAndAgainAfterIt) {
    FISTA<unsigned int, double> fi(hookCall, nullptr);
    EXPECT_EQ(hookCalls(fi, false), "HPHPHPP");
    fi.reset();
    // Before the loop; then per iteration inside the step, after the gradient, progress.
    EXPECT_EQ(hookCalls(fi, true), "HHHPHHPHHPP");
}

TEST(FirstOrder, FistaTakesTwoGradientsPerIteration) {
    Convex<unsigned int, double> f = quadratic<unsigned int, double>();
    FISTA<unsigned int, double> fi(nullptr, nullptr);
    fi.opt(&f, nullptr, nullptr, nullptr, 3, 1, false, 0, 0);
    EXPECT_EQ(f.grads, 1 + 2 * 3);
}

TEST(FirstOrder, FistaGradientHookSeesTheGradientAtTheExtrapolatedPoint) {
    // Per call: the point, y and the gradient as the hook sees them.
    static std::vector<std::vector<double>> seen;
    seen.clear();
    Convex<unsigned int, double> f({5.0}, {1.0}, {1.0});
    FISTA<unsigned int, double> fi([](St* o) { seen.push_back({o->weights[0], o->extra[0], o->gradient[0]}); }, nullptr);
    points.clear();
    fi.opt(&f, nullptr, recordPoint, nullptr, 4, 0.5, false, 0, 0);
    ASSERT_EQ(seen.size(), 4u);
    for (size_t k = 0; k < seen.size(); ++k) {
        EXPECT_EQ(seen[k][0], seen[k][1]) << k;        // the point was set to y
        EXPECT_EQ(seen[k][2], seen[k][0] - 1.0) << k;  // and the gradient taken there
    }
    EXPECT_EQ(seen[0][0], 5.0);
    // With momentum, y runs ahead of the last iterate.
    EXPECT_NE(seen[2][0], points[1]);
}

TEST(FirstOrder, FistaMomentumAfterTheFirstStepIsTheGoldenRatio) {
    FISTA<unsigned int, double> fi(nullptr, nullptr);
    EXPECT_EQ(fi.t, 1.0);
    EXPECT_EQ(fi.y, nullptr);
    EXPECT_EQ(fi.x_old, nullptr);
    Convex<unsigned int, double> f({4.0, -1.0}, {1.0, 1.0}, {0.0, 0.0});
    fi.opt(&f, nullptr, nullptr, nullptr, 1, 0.5, false, 0, 0);
    EXPECT_DOUBLE_EQ(fi.t, (1 + std::sqrt(5.0)) / 2);
    ASSERT_NE(fi.y, nullptr);
    ASSERT_NE(fi.x_old, nullptr);
    // The first momentum term vanishes: y is the new point and x_old the start.
    EXPECT_DOUBLE_EQ(fi.y[0], 2.0);
    EXPECT_DOUBLE_EQ(fi.y[1], -0.5);
    EXPECT_EQ(fi.x_old[0], 4.0);
    EXPECT_EQ(fi.x_old[1], -1.0);
}

TEST(FirstOrder, FistaResetDropsTheExtrapolatedPoint) {
    FISTA<unsigned int, float> fi(nullptr, nullptr);
    Convex<unsigned int, float> f({4.0f}, {1.0f}, {0.0f});
    fi.opt(&f, nullptr, nullptr, nullptr, 2, 0.5f, false, 0, 0);
    fi.reset();
    EXPECT_EQ(fi.y, nullptr);
    EXPECT_EQ(fi.x_old, nullptr);
    EXPECT_EQ(fi.t, 1.0f);
}

TEST(FirstOrder, FistaWithoutResetStartsFromTheOldExtrapolatedPoint) {
    FISTA<unsigned int, double> fi(nullptr, nullptr);
    Convex<unsigned int, double> f({4.0}, {1.0}, {0.0});
    fi.opt(&f, nullptr, nullptr, nullptr, 1, 0.5, false, 0, 0);
    const double oldY = fi.y[0];  // 2
    points.clear();
    Convex<unsigned int, double> h({100.0}, {1.0}, {0.0});
    fi.opt(&h, nullptr, recordPoint, nullptr, 1, 0.5, false, 0, 0);
    // The step went from the old y, not from 100.
    EXPECT_DOUBLE_EQ(points[0], oldY - 0.5 * oldY);
    fi.reset();
    Convex<unsigned int, double> k({100.0}, {1.0}, {0.0});
    points.clear();
    fi.opt(&k, nullptr, recordPoint, nullptr, 1, 0.5, false, 0, 0);
    EXPECT_DOUBLE_EQ(points[0], 50.0);
}

TEST(FirstOrder, ProximalGradientStepIsEntirelyTheHooks) {
    Convex<unsigned int, double> f({4.0}, {1.0}, {0.0});
    ProximalGradient<unsigned int, double> pg(nullptr, [](St*) {});
    pg.opt(&f, nullptr, nullptr, nullptr, 5, 0.5, false, 0, 0);
    EXPECT_EQ(f.x[0], 4.0);
}

TEST(FirstOrder, FistaWithAHookThatDoesNothingStaysAtTheExtrapolatedPoint) {
    Convex<unsigned int, double> f({4.0}, {1.0}, {0.0});
    FISTA<unsigned int, double> fi(nullptr, [](St*) {});
    fi.opt(&f, nullptr, nullptr, nullptr, 5, 0.5, false, 0, 0);
    EXPECT_EQ(f.x[0], 4.0);
}

TEST(FirstOrder, ProximalStepsUseLam1AndLam2) {
    // minimum of 1/2 (x - c)^2 + lam1 |x| + lam2/2 x^2: soft(c, lam1) / (1 + lam2)
    const double lam1 = 1.0, lam2 = 0.5;
    const std::vector<double> expected = {2.0 / 1.5, 0.0, -1.0 / 1.5};
    for (Method m : {PL1, FL1}) {
        static std::vector<double> last;
        Convex<unsigned int, double> f({0.0, 0.0, 0.0}, {1.0, 1.0, 1.0}, {3.0, -0.5, -2.0});
        Optimizer<unsigned int, double, true>* op = make<unsigned int, double>(m, nullptr, elasticProx);
        // The last progress call comes after the loop, at the last iterate.
        op->opt(&f, nullptr, [](St* o) { last.assign(o->weights, o->weights + o->dim); }, nullptr, 200, 1.0, false,
                lam1, lam2);
        delete op;
        ASSERT_EQ(last.size(), 3u);
        for (size_t i = 0; i < 3; ++i) EXPECT_NEAR(last[i], expected[i], 1e-6) << m << " " << i;
        // The middle coordinate is shrunk to exactly 0.
        EXPECT_EQ(last[1], 0.0) << m;
    }
}

TEST(FirstOrder, ProximalHookSeesTheRegularisationWeights) {
    static std::vector<St> seen;
    seen.clear();
    auto look = [](St* o) {
        seen.push_back(*o);
        elasticProx(o);
    };
    Convex<unsigned int, double> f({1.0}, {1.0}, {0.0});
    f.lip = 0;  // no floor, so that the decaying step shows
    ProximalGradient<unsigned int, double> pg(nullptr, look);
    pg.opt(&f, nullptr, nullptr, nullptr, 2, 0.5, false, 0.125, 0.25);
    Convex<unsigned int, double> h({1.0}, {1.0}, {0.0});
    FISTA<unsigned int, double> fi(nullptr, look);
    fi.opt(&h, nullptr, nullptr, nullptr, 2, 0.5, false, 0.125, 0.25);
    ASSERT_EQ(seen.size(), 4u);
    for (const St& o : seen) {
        EXPECT_EQ(o.lam1, 0.125);
        EXPECT_EQ(o.lam2, 0.25);
        EXPECT_EQ(o.dim, 1u);
    }
    EXPECT_EQ(seen[0].extra, nullptr);
    EXPECT_EQ(seen[0].weights, f.x.data());
    EXPECT_EQ(seen[2].extra, fi.y);
    EXPECT_EQ(seen[2].weights, h.x.data());
    // The frame's schedule gives the step: 0.5 / sqrt(k + 1).
    EXPECT_DOUBLE_EQ(seen[1].stp, 0.5 / std::sqrt(2.0));
}

TEST(FirstOrder, FloatRecordsCarryTheirTypeCodes) {
    static std::vector<std::pair<int, int>> codes;
    static std::vector<size_t> bytes;
    codes.clear();
    bytes.clear();
    Convex<unsigned char, float> f({1.0f}, {1.0f}, {0.0f});
    GradientDescent<unsigned char, float> a(nullptr);
    a.opt(&f, [](OptState<unsigned char, float>* o) {
        codes.push_back({o->itype, o->vtype});
        bytes.push_back(o->val_bytes);
    }, nullptr, nullptr, 1, 0.5f, false, 0, 0);
    Convex<unsigned long, float> h({1.0f}, {1.0f}, {0.0f});
    FISTA<unsigned long, float> b(nullptr, nullptr);
    b.opt(&h, [](OptState<unsigned long, float>* o) {
        codes.push_back({o->itype, o->vtype});
        bytes.push_back(o->val_bytes);
    }, nullptr, nullptr, 1, 0.5f, false, 0, 0);
    ASSERT_EQ(codes.size(), 4u);
    EXPECT_EQ(codes[0], std::make_pair(0, 4));
    EXPECT_EQ(codes[2], std::make_pair(3, 4));
    EXPECT_EQ(bytes[0], 4u);
    EXPECT_DOUBLE_EQ(a.gamma, 1.001f);
}
