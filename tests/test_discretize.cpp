// Discretization of real-valued host arrays into category codes.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

namespace {

struct Fit {
    DiscretizationModel M;
    std::vector<unsigned short> codes;
    ~Fit() {
        delete[] M.intervals;
        delete[] M.moments;
    }
};

void fit(Fit& f, std::vector<double> in, size_t q) {
    f.codes.assign(in.size(), 7777);
    f.M = discretize(f.codes.data(), in.data(), in.size(), q);
}

double meanOf(const std::vector<double>& x) {
    double s = 0;
    for (double v : x) s += v;
    return s / x.size();
}

double sdevOf(const std::vector<double>& x) {
    const double m = meanOf(x);
    double s = 0;
    for (double v : x) s += (v - m) * (v - m);
    return std::sqrt(s / (x.size() - 1));
}

std::vector<double> standardised(const std::vector<double>& x) {
    const double m = meanOf(x), s = sdevOf(x);
    std::vector<double> z;
    for (double v : x) z.push_back((v - m) / s);
    return z;
}

// A hand-made model of two bins over the given four edges, without moments.
DiscretizationModel twoBins(double* edges, double mean, double sdev) {
    DiscretizationModel M;
    M.num_intervals = 2;
    M.num_moments = 0;
    M.intervals = edges;
    M.moments = nullptr;
    M.mean = mean;
    M.sdev = sdev;
    return M;
}

}  // namespace

TEST(Discretize, ConstantColumnGivesOneDegenerateBin) {
    Fit f;
    fit(f, std::vector<double>(6, 3.5), 4);
    EXPECT_EQ(f.M.num_intervals, 1u);
    EXPECT_EQ(f.M.num_moments, 1u);
    EXPECT_EQ(f.M.intervals[0], 0.0);
    EXPECT_EQ(f.M.intervals[1], 0.0);
    EXPECT_EQ(f.M.mean, 3.5);
    EXPECT_EQ(f.M.sdev, 0.0);
    EXPECT_EQ(f.M.moments[0], 0.0);  // mean of the bin
    EXPECT_EQ(f.M.moments[1], 0.0);  // its variance
    EXPECT_EQ(f.M.moments[4], 6.0);  // its size
    for (unsigned short c : f.codes) EXPECT_EQ(c, 0u);
}

TEST(Discretize, FourDistinctValuesFourBins) {
    const std::vector<double> in = {4.0, 1.0, 3.0, 2.0};
    Fit f;
    fit(f, in, 4);
    ASSERT_EQ(f.M.num_intervals, 4u);
    EXPECT_EQ(f.codes, (std::vector<unsigned short>{3, 0, 2, 1}));
    const std::vector<double> z = standardised({1.0, 2.0, 3.0, 4.0});
    // Single-value bins have no variance (0 over 0): each reaches to the next value.
    for (size_t b = 0; b < 3; ++b) {
        EXPECT_DOUBLE_EQ(f.M.intervals[2 * b], z[b]);
        EXPECT_DOUBLE_EQ(f.M.intervals[2 * b + 1], z[b + 1]);
    }
    EXPECT_DOUBLE_EQ(f.M.intervals[6], z[3]);
    EXPECT_DOUBLE_EQ(f.M.intervals[7], z[3] + 2e-9);
    EXPECT_GT(f.M.intervals[7], f.M.intervals[6]);
    EXPECT_DOUBLE_EQ(f.M.mean, 2.5);
    EXPECT_DOUBLE_EQ(f.M.sdev, sdevOf(in));
}

TEST(Discretize, RepeatedDistinctValuesGiveDegenerateBins) {
    const std::vector<double> in = {2, 1, 4, 3, 1, 2, 3, 4};
    Fit f;
    fit(f, in, 4);
    ASSERT_EQ(f.M.num_intervals, 4u);
    EXPECT_EQ(f.codes, (std::vector<unsigned short>{1, 0, 3, 2, 0, 1, 2, 3}));
    for (size_t b = 0; b < 4; ++b) {
        EXPECT_EQ(f.M.intervals[2 * b], f.M.intervals[2 * b + 1]);
        EXPECT_EQ(f.M.moments[5 * b + 1], 0.0);
        EXPECT_EQ(f.M.moments[5 * b + 4], 2.0);
    }
}

TEST(Discretize, OneBinForManyValues) {
    std::vector<double> in;
    for (int i = 0; i < 50; ++i) in.push_back(std::sin(i) * 10);
    Fit f;
    fit(f, in, 1);
    ASSERT_EQ(f.M.num_intervals, 1u);
    std::vector<double> z = standardised(in);
    std::sort(z.begin(), z.end());
    EXPECT_DOUBLE_EQ(f.M.intervals[0], z.front());
    EXPECT_DOUBLE_EQ(f.M.intervals[1], z.back());
    // The top value is not below the upper edge: rule of the last bin.
    for (unsigned short c : f.codes) EXPECT_EQ(c, 0u);
    EXPECT_EQ(f.M.moments[4], 50.0);
}

TEST(Discretize, TiesAcrossABinBorderStayTogether) {
    // Equal shares would cut the run of 1s at position 3; it goes whole into
    // the bin that starts with it.
    const std::vector<double> in = {0, 1, 1, 1, 1, 1, 1, 2, 3};
    Fit f;
    fit(f, in, 3);
    ASSERT_EQ(f.M.num_intervals, 3u);
    EXPECT_EQ(f.codes, (std::vector<unsigned short>{0, 1, 1, 1, 1, 1, 1, 2, 2}));
    // The middle bin holds only 1s: degenerate, with four elements.
    EXPECT_EQ(f.M.intervals[2], f.M.intervals[3]);
    EXPECT_EQ(f.M.moments[5 + 4], 4.0);
    // Bin sizes follow the cut positions 0, 3, 7, 9.
    EXPECT_EQ(f.M.moments[4], 3.0);
    EXPECT_EQ(f.M.moments[10 + 4], 2.0);
}

TEST(Discretize, BinCountCanDropBelowQ) {
    // The cut lands in the run of 2s, which reaches the end: the edge at
    // position 5 and the closing edge have one value, and the earlier goes.
    const std::vector<double> in = {0, 1, 2, 2, 2, 2, 2, 2, 2, 2};
    Fit f;
    fit(f, in, 2);
    EXPECT_EQ(f.M.num_intervals, 1u);
    for (unsigned short c : f.codes) EXPECT_EQ(c, 0u);
    EXPECT_EQ(f.M.moments[4], 10.0);
}

TEST(Discretize, CutThatRunsToTheEndReadsTheTopValueOnePastTheData) {
    // q = 3 over 0, 1, 2 and seven 3s: the first cut lands at position 3;
    // the second starts at 3 + 7/2 = 6 inside the run of 3s and walks to N,
    // so the edge (10, A[10]) is taken from one past the sorted copy. That
    // element is the top value: the edges at 3 and 10 and the closing edge
    // then hold one value and merge into the last, leaving a single bin.
    const std::vector<double> in = {3, 0, 3, 1, 3, 2, 3, 3, 3, 3};
    Fit f;
    fit(f, in, 3);
    ASSERT_EQ(f.M.num_intervals, 1u);
    const std::vector<double> z = standardised(in);
    EXPECT_DOUBLE_EQ(f.M.intervals[0], *std::min_element(z.begin(), z.end()));
    EXPECT_DOUBLE_EQ(f.M.intervals[1], *std::max_element(z.begin(), z.end()));
    EXPECT_EQ(f.M.moments[4], 10.0);
    for (unsigned short c : f.codes) EXPECT_EQ(c, 0u);
}

TEST(Discretize, OfTwoNearEqualEdgesTheLaterStays) {
    // 0 and 1e-10 differ by less than 1e-9 after standardising (the
    // deviation is near 1): the edge at position 0 is erased, the first bin
    // starts at the second value and holds it alone.
    const std::vector<double> in = {0.0, 1e-10, 1.0, 2.0};
    Fit f;
    fit(f, in, 4);
    ASSERT_EQ(f.M.num_intervals, 3u);
    const std::vector<double> z = standardised(in);
    EXPECT_DOUBLE_EQ(f.M.intervals[0], z[1]);
    EXPECT_NE(f.M.intervals[0], z[0]);
    EXPECT_EQ(f.M.moments[4], 1.0);
    EXPECT_EQ(f.M.moments[5 + 4], 1.0);
    EXPECT_EQ(f.M.moments[10 + 4], 1.0);
    // The smallest value is below the first edge and still gets code 0.
    EXPECT_EQ(f.codes, (std::vector<unsigned short>{0, 0, 1, 2}));
}

TEST(Discretize, HostThreadsMayCallAtOnce) {
    std::vector<std::vector<double>> inputs(4);
    for (size_t k = 0; k < inputs.size(); ++k) {
        std::mt19937 rng(100 + k);
        std::normal_distribution<double> nd((double)k, 1.0 + k);
        inputs[k].resize(30000);
        for (double& x : inputs[k]) x = std::round(nd(rng) * 8) / 8;
    }
    std::vector<Fit> alone(inputs.size()), together(inputs.size());
    for (size_t k = 0; k < inputs.size(); ++k) fit(alone[k], inputs[k], 6 + k);
    std::vector<std::thread> threads;
    for (size_t k = 0; k < inputs.size(); ++k)
        threads.emplace_back([&, k] { fit(together[k], inputs[k], 6 + k); });
    for (std::thread& t : threads) t.join();
    for (size_t k = 0; k < inputs.size(); ++k) {
        EXPECT_EQ(together[k].codes, alone[k].codes) << k;
        ASSERT_EQ(together[k].M.num_intervals, alone[k].M.num_intervals) << k;
        for (size_t i = 0; i < 2 * alone[k].M.num_intervals; ++i)
            EXPECT_EQ(together[k].M.intervals[i], alone[k].M.intervals[i]);
        for (size_t i = 0; i < 5 * alone[k].M.num_moments; ++i) {
            const double a = alone[k].M.moments[i], b = together[k].M.moments[i];
            EXPECT_TRUE(a == b || (std::isnan(a) && std::isnan(b))) << k << " " << i;
        }
    }
}

TEST(Discretize, EqualFrequencyBins) {
    std::vector<double> in;
    for (int i = 0; i < 1000; ++i) in.push_back((i * 7919) % 1000);  // a permutation of 0..999
    Fit f;
    fit(f, in, 4);
    ASSERT_EQ(f.M.num_intervals, 4u);
    std::vector<size_t> count(4, 0);
    for (size_t i = 0; i < in.size(); ++i) {
        ++count.at(f.codes[i]);
        EXPECT_EQ(f.codes[i], (size_t)in[i] / 250) << in[i];
    }
    EXPECT_EQ(count, (std::vector<size_t>{250, 250, 250, 250}));
    for (size_t b = 0; b < 4; ++b) EXPECT_EQ(f.M.moments[5 * b + 4], 250.0);
}

TEST(Discretize, MomentsOfABin) {
    const std::vector<double> in = {1, 2, 3, 4, 10};
    Fit f;
    fit(f, in, 1);
    ASSERT_EQ(f.M.num_moments, 1u);
    const std::vector<double> z = standardised(in);
    const double n = 5;
    const double m = meanOf(z);
    double v = 0;
    for (double x : z) v += (x - m) * (x - m);
    v /= n - 1;
    double s3 = 0, s4 = 0;
    for (double x : z) {
        const double d = (m - x) / std::sqrt(v);  // mean minus value
        s3 += d * d * d;
        s4 += d * d * d * d;
    }
    EXPECT_NEAR(f.M.moments[0], m, 1e-12);
    EXPECT_NEAR(f.M.moments[1], v, 1e-12);  // the variance, not the deviation
    EXPECT_NEAR(f.M.moments[2], s3 / ((n - 1) * (n - 2)), 1e-12);
    EXPECT_NEAR(f.M.moments[3], s4 / n - 3, 1e-12);
    EXPECT_EQ(f.M.moments[4], 5.0);
    // A right tail gives a negative third element under this sign.
    EXPECT_LT(f.M.moments[2], 0.0);
}

TEST(Discretize, InputIsNotChanged) {
    std::vector<double> in = {5, 3, 9, 1, 1, 7};
    const std::vector<double> copy = in;
    std::vector<unsigned short> out(in.size());
    DiscretizationModel M = discretize(out.data(), in.data(), in.size(), 3);
    EXPECT_EQ(in, copy);
    delete[] M.intervals;
    delete[] M.moments;
}

TEST(Discretize, CodesFollowTheOrderOfValues) {
    std::mt19937 rng(7);
    std::normal_distribution<double> nd(3.0, 2.0);
    std::vector<double> in(5000);
    for (double& x : in) x = std::round(nd(rng) * 4) / 4;  // many ties
    Fit f;
    fit(f, in, 8);
    EXPECT_LE(f.M.num_intervals, 8u);
    for (size_t i = 0; i < in.size(); ++i) {
        ASSERT_LT(f.codes[i], f.M.num_intervals);
        for (size_t j = i + 1; j < std::min(in.size(), i + 50); ++j) {
            if (in[i] < in[j]) EXPECT_LE(f.codes[i], f.codes[j]);
            if (in[i] == in[j]) EXPECT_EQ(f.codes[i], f.codes[j]);
        }
    }
}

TEST(Discretize, ThreadCountDoesNotChangeTheResult) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> U(-5, 5);
    std::vector<double> in(20001);
    for (double& x : in) x = std::floor(U(rng) * 100) / 100;
    const int before = omp_get_max_threads();
    omp_set_num_threads(1);
    Fit a;
    fit(a, in, 16);
    omp_set_num_threads(2);
    Fit b;
    fit(b, in, 16);
    omp_set_num_threads(before);
    EXPECT_EQ(a.codes, b.codes);
    ASSERT_EQ(a.M.num_intervals, b.M.num_intervals);
    for (size_t i = 0; i < 2 * a.M.num_intervals; ++i) EXPECT_EQ(a.M.intervals[i], b.M.intervals[i]);
}

TEST(DiscretizePrecomputed, OutsideValuesGoToTheOuterBins) {
    Fit f;
    fit(f, {1.0, 2.0, 3.0, 4.0}, 4);
    std::vector<double> fresh = {-100.0, 100.0, 2.5, 1.0, 4.0, 0.999};
    std::vector<unsigned short> out(fresh.size());
    discretize_precomputed(out.data(), fresh.data(), fresh.size(), f.M);
    EXPECT_EQ(out, (std::vector<unsigned short>{0, 3, 1, 0, 3, 0}));
}

TEST(DiscretizePrecomputed, ZeroDeviationDividesByOne) {
    double edges[4] = {-1.0, 0.0, 0.0, 1.0};
    const DiscretizationModel M = twoBins(edges, 10.0, 0.0);
    std::vector<double> in = {9.5, 10.0, 10.5, 12.0};
    std::vector<unsigned short> out(in.size());
    discretize_precomputed(out.data(), in.data(), in.size(), M);
    EXPECT_EQ(out, (std::vector<unsigned short>{0, 1, 1, 1}));
}

TEST(DiscretizePrecomputedDeath, ValueBetweenADegenerateBinAndTheNextAsserts) {
    double edges[4] = {0.0, 0.0, 1.0, 2.0};
    const DiscretizationModel M = twoBins(edges, 0.0, 1.0);
    double in[1] = {0.5};
    unsigned short out[1];
    EXPECT_DEATH(discretize_precomputed(out, in, 1, M), "Assertion `found' failed");
}
