// Polynomial approximation: the small dense linear algebra, the reference
// points and passes of the exchange, and the equal ripple of its fits of the
// exponential, checked by sampling the error curve here and against the
// classical bounds on the best approximation error.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZPOLY>

#include <cmath>
#include <functional>
#include <random>
#include <vector>

namespace {

template <typename val_t> using Fn = std::function<val_t(const val_t&)>;
typedef QZ::ChebyshevApproximationRemez<unsigned long, double> Remez;

template <typename val_t> Fn<val_t> expFn() {
    return [](const val_t& x) { return (val_t)std::exp((double)x); };
}

double factorialOf(unsigned n) { return n <= 1 ? 1.0 : n * factorialOf(n - 1); }

// For f with (n+1)-th derivative between lo and hi on an interval of width w,
// the best approximation of degree n has an error between
// lo (w/2)^(n+1) / (2^n (n+1)!) and the same with hi.
double bernsteinFactor(unsigned n, double w) { return std::pow(w / 2, n + 1) / (std::pow(2.0, n) * factorialOf(n + 1)); }

struct Ripple {
    double maxErr = 0;
    unsigned alternations = 0;  // alternating signs among points within 1% of maxErr
};

// Samples exp minus the polynomial on a fine grid and counts how many times
// the sign alternates among the samples that come within 1% of the largest.
template <typename A> Ripple ripple(const A& g, double l, double u) {
    const int M = 40000;
    std::vector<double> e(M + 1);
    Ripple r;
    for (int i = 0; i <= M; ++i) {
        const double x = l + (u - l) * i / M;
        e[i] = std::exp(x) - (double)g.evaluate((decltype(g.left()))x);
        r.maxErr = std::max(r.maxErr, std::fabs(e[i]));
    }
    int last = 0;
    for (int i = 0; i <= M; ++i) {
        if (std::fabs(e[i]) < 0.99 * r.maxErr) continue;
        const int s = e[i] > 0 ? 1 : -1;
        if (s != last) {
            ++r.alternations;
            last = s;
        }
    }
    return r;
}

template <typename val_t> void expectEqualRipple(double l, double u, unsigned long deg, double slack) {
    QZ::ChebyshevApproximationRemez<unsigned long, val_t> g(deg, (val_t)l, (val_t)u);
    Fn<val_t> F = expFn<val_t>();
    g.apx(F, F, F, 100);
    const double lev = (double)g.error();
    const Ripple r = ripple(g, l, u);
    SCOPED_TRACE("[" + std::to_string(l) + ", " + std::to_string(u) + "] degree " + std::to_string(deg));
    // deg + 2 alternation points at one level: the mark of the best fit.
    EXPECT_GE(r.alternations, deg + 2);
    EXPECT_LE(r.maxErr, lev * (1 + slack));
    EXPECT_GE(r.maxErr, lev * (1 - slack));
    const double B = bernsteinFactor((unsigned)deg, u - l);
    EXPECT_LE(r.maxErr, std::exp(u) * B * (1 + slack));
    EXPECT_GE(r.maxErr, std::exp(l) * B * (1 - slack));
}

}  // namespace

TEST(PolyHelpers, LinearMapOfTheMidpoint) {
    EXPECT_DOUBLE_EQ(QZ::lmap<double>(0, -1, 1, 2, 4), 3.0);
    EXPECT_FLOAT_EQ(QZ::lmap<float>(-1, -1, 1, 2, 4), 2.0f);
    EXPECT_DOUBLE_EQ(QZ::lmap<double>(5, 0, 10, -1, 1), 0.0);
}

TEST(PolyHelpers, PiOfEachType) {
    EXPECT_DOUBLE_EQ(QZ::PI<double>(), std::acos(-1.0));
    EXPECT_FLOAT_EQ(QZ::PI<float>(), (float)std::acos(-1.0));
}

TEST(PolyHelpers, EvaluateIncludesTheLastCoefficient) {
    const double a[] = {1, 2, 3};
    EXPECT_DOUBLE_EQ((QZ::evaluate<unsigned, double>(2.0, a, 2u)), 1 + 4 + 12);
    EXPECT_DOUBLE_EQ((QZ::evaluate<unsigned, double>(2.0, a, 1u)), 5.0);
    EXPECT_DOUBLE_EQ((QZ::evaluate<unsigned char, double>(-1.0, a, (unsigned char)0)), 1.0);
}

TEST(PolyHelpers, MatrixProductRowMajor) {
    const double A[] = {1, 2, 3, 4, 5, 6};     // 2 x 3
    const double B[] = {7, 8, 9, 10, 11, 12};  // 3 x 2
    double C[4];
    double* Cp = C;
    QZ::gemm<unsigned, double>(Cp, A, B, 2u, 3u, 2u);
    EXPECT_EQ(C[0], 58);
    EXPECT_EQ(C[1], 64);
    EXPECT_EQ(C[2], 139);
    EXPECT_EQ(C[3], 154);
}

TEST(PolyHelpers, InvertingTheExchangeMatrixNeedsThePivotSwap) {
    const double in[] = {0, 1, 1, 0};
    double out[4] = {9, 9, 9, 9};
    double* o = out;
    EXPECT_EQ((QZ::invert<unsigned, double>(o, in, 2u)), 0u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i], in[i]);
    const float inf[] = {0, 1, 1, 0};
    float outf[4];
    float* of = outf;
    EXPECT_EQ((QZ::invert<int, float>(of, inf, 2)), 0);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(outf[i], inf[i]);
}

TEST(PolyHelpers, InverseTimesMatrixIsTheIdentity) {
    std::mt19937 gen(5);
    std::uniform_real_distribution<double> U(-2, 2);
    const int n = 6;
    std::vector<double> M(n * n), Inv(n * n);
    for (double& x : M) x = U(gen);
    double* o = Inv.data();
    QZ::invert<int, double>(o, M.data(), n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double s = 0;
            for (int k = 0; k < n; ++k) s += M[i * n + k] * Inv[k * n + j];
            EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-10);
        }
}

TEST(PolyHelpersDeathTest, SingularMatrixEndsTheProcess) {
    const double in[] = {1, 2, 2, 4};
    double out[4];
    double* o = out;
    EXPECT_DEATH((QZ::invert<unsigned, double>(o, in, 2u)), "QZPOLY.*Assertion `false' failed");
}

TEST(Remez, ReferencePointsStartAtChebyshevZerosWithTheEndsReplaced) {
    const double l = -3, u = 5;
    Remez g(3, l, u);
    const double* t = g.points();
    EXPECT_EQ(t[0], l);
    EXPECT_EQ(t[4], u);
    // The inner points are the inner zeros of the Chebyshev polynomial of
    // degree 5 mapped onto [l, u], ascending.
    for (int i = 1; i < 4; ++i) {
        const double z = std::cos(std::acos(-1.0) * ((5 - i) - 0.5) / 5.0);
        EXPECT_NEAR(t[i], l + (z + 1) * (u - l) / 2, 1e-12) << i;
        EXPECT_LT(t[i - 1], t[i]);
    }
    EXPECT_DOUBLE_EQ(Remez::cheb_zeros(1, 2), std::cos(std::acos(-1.0) / 4));
    // Before any pass the coefficients are zero and the error is unknown.
    for (unsigned long i = 0; i <= 3; ++i) EXPECT_EQ(g.coefficient(i), 0.0);
    EXPECT_EQ(g.error(), -1.0);
    EXPECT_EQ(g.left(), l);
    EXPECT_EQ(g.right(), u);
}

TEST(Remez, ZeroPassesLeaveZeroCoefficientsAndUnknownError) {
    Remez g(4, -1, 1);
    Fn<double> F = expFn<double>();
    g.apx(F, F, F, 0);
    for (unsigned long i = 0; i <= 4; ++i) EXPECT_EQ(g.coefficients()[i], 0.0);
    EXPECT_EQ(g.error(), -1.0);
}

TEST(Remez, EndPointsNeverMove) {
    for (unsigned long passes : {1ul, 2ul, 7ul, 100ul}) {
        Remez g(4, -0.7, 2.3);
        Fn<double> F = expFn<double>();
        g.apx(F, F, F, passes);
        EXPECT_EQ(g.points()[0], -0.7) << passes;
        EXPECT_EQ(g.points()[5], 2.3) << passes;
        for (int i = 1; i < 6; ++i) EXPECT_LT(g.points()[i - 1], g.points()[i]);
    }
}

TEST(Remez, DegreeTwoFitOfAQuadraticIsExactOnAnyInterval) {
    const double c0 = 1.5, c1 = -2.0, c2 = 0.75;
    Fn<double> F = [=](const double& x) { return c0 + c1 * x + c2 * x * x; };
    Fn<double> dF = [=](const double& x) { return c1 + 2 * c2 * x; };
    Fn<double> ddF = [=](const double&) { return 2 * c2; };
    for (auto iv : std::vector<std::pair<double, double>>{{-1, 1}, {3, 10}, {-50, -40}, {0, 0.01}}) {
        Remez g(2, iv.first, iv.second);
        g.apx(F, dF, ddF, 100);
        const double scale = std::max(1.0, std::fabs(iv.first) + std::fabs(iv.second));
        EXPECT_NEAR(g.error(), 0.0, 1e-9 * scale * scale) << iv.first;
        EXPECT_NEAR(g.coefficient(0), c0, 1e-7 * scale * scale) << iv.first;
        EXPECT_NEAR(g.coefficient(1), c1, 1e-7 * scale) << iv.first;
        EXPECT_NEAR(g.coefficient(2), c2, 1e-7) << iv.first;
    }
}

TEST(Remez, DegreeZeroIsTheMeanOfTheEndValues) {
    Remez g(0, 0.5, 2.0);
    const double* t = g.points();
    EXPECT_EQ(t[0], 0.5);
    EXPECT_EQ(t[1], 2.0);
    Fn<double> F = expFn<double>();
    g.apx(F, F, F, 100);
    EXPECT_EQ(t[0], 0.5);
    EXPECT_EQ(t[1], 2.0);
    EXPECT_NEAR(g.coefficient(0), (std::exp(0.5) + std::exp(2.0)) / 2, 1e-12);
    EXPECT_NEAR(g.error(), (std::exp(2.0) - std::exp(0.5)) / 2, 1e-12);
}

TEST(Remez, MeasuredErrorSamplesTheGridUpToTheRightEnd) {
    Remez g(1, 0.0, 1.0);
    int calls = 0;
    Fn<double> counting = [&calls](const double& x) {
        ++calls;
        return std::exp(x);
    };
    // 0.25 adds up to 1 exactly: 0, 0.25, ..., 1 are five points.
    g.error(counting, 4);
    EXPECT_EQ(calls, 5);
    // Nine additions of 1/9 overshoot 1: the right end is not reached.
    calls = 0;
    g.error(counting, 9);
    EXPECT_EQ(calls, 9);
    // The coefficients are still zero, so the error is the largest exp.
    calls = 0;
    EXPECT_DOUBLE_EQ(g.error(counting, 4), std::exp(1.0));
    EXPECT_DOUBLE_EQ(g.error(), std::exp(1.0));
    QZ::ChebyshevApproximationRemez<unsigned int, float> gf(1, 0.0f, 1.0f);
    int fcalls = 0;
    Fn<float> fcount = [&fcalls](const float& x) {
        ++fcalls;
        return x;
    };
    gf.error(fcount, 10u);  // ten additions of 0.1f overshoot 1.0f
    EXPECT_EQ(fcalls, 10);
}

TEST(Remez, ExponentialFitsHaveEqualRippleForEveryDegreeUsed) {
    // The intervals bounds of log potentials take for small models with
    // moderate weights; the default degree is 4.
    const std::vector<std::pair<double, double>> intervals = {{-1, 1}, {0, 2}, {-2, 0}, {-4, 4}, {0, 8}, {-0.5, 3}};
    for (const auto& iv : intervals)
        for (unsigned long deg = 1; deg <= 8; ++deg) expectEqualRipple<double>(iv.first, iv.second, deg, 0.01);
    // Equal weights give the narrow interval around their sum. Around 0 the
    // ripple holds until the error nears rounding level (degree 6); away from
    // 0 the monomial basis loses it from degree 4 on.
    for (unsigned long deg = 1; deg <= 5; ++deg) expectEqualRipple<double>(-0.125, 0.125, deg, 0.01);
    for (unsigned long deg = 1; deg <= 3; ++deg) expectEqualRipple<double>(3.875, 4.125, deg, 0.01);
}

TEST(Remez, SinglePrecisionFitsHaveEqualRippleForLowDegrees) {
    for (const auto& iv : std::vector<std::pair<double, double>>{{-1, 1}, {0, 2}, {-2, 0}})
        for (unsigned long deg = 1; deg <= 3; ++deg) expectEqualRipple<float>(iv.first, iv.second, deg, 0.01);
}

TEST(Remez, FitsOfEachIndexTypeAgree) {
    Fn<double> F = expFn<double>();
    QZ::ChebyshevApproximationRemez<unsigned char, double> a(4, -1, 1);
    QZ::ChebyshevApproximationRemez<unsigned short, double> b(4, -1, 1);
    QZ::ChebyshevApproximationRemez<unsigned int, double> c(4, -1, 1);
    a.apx(F, F, F, 100);
    b.apx(F, F, F, 100);
    c.apx(F, F, F, 100);
    for (unsigned i = 0; i <= 4; ++i) {
        EXPECT_EQ(a.coefficient((unsigned char)i), b.coefficient((unsigned short)i));
        EXPECT_EQ(a.coefficient((unsigned char)i), c.coefficient(i));
    }
}

TEST(Remez, NewtonStepsThatLeaveTheIntervalAreDropped) {
    // On a wide interval the first Newton step of the middle point of a line
    // lands far outside: it is refused on every pass and the point stays at
    // its Chebyshev zero, so the ripple never levels.
    Remez fresh(1, -16, 16), g(1, -16, 16);
    Fn<double> F = expFn<double>();
    g.apx(F, F, F, 100);
    EXPECT_EQ(g.points()[1], fresh.points()[1]);
    const Ripple r = ripple(g, -16, 16);
    EXPECT_GT(r.maxErr, 2 * g.error());
}

TEST(Remez, ContinuedPassesStartAgainFromTheCurrentPoints) {
    Fn<double> F = expFn<double>();
    Remez once(4, -1, 2), twice(4, -1, 2);
    once.apx(F, F, F, 100);
    twice.apx(F, F, F, 50);
    twice.apx(F, F, F, 50);
    // Both are equal-ripple fits of the same function.
    EXPECT_NEAR(twice.error(), once.error(), 1e-3 * once.error());
}
