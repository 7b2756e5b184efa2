#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/comb/counting>

#include <algorithm>
#include <cmath>
#include <vector>

using namespace QZ;

// ---- edge cases ----

TEST(Comb, BinomBoundaryCases) {
    EXPECT_EQ((binom<unsigned, double>(5, 7)), 0.0);
    EXPECT_EQ((binom<unsigned, double>(5, 0)), 1.0);
    EXPECT_EQ((binom<unsigned, double>(5, 5)), 1.0);
    EXPECT_EQ((binom<unsigned, double>(5, 4)), 5.0);
    // The same answers in an integer value type, which takes none of the
    // logarithm path here.
    EXPECT_EQ((binom<unsigned char, unsigned char>(5, 7)), 0);
    EXPECT_EQ((binom<unsigned char, unsigned char>(5, 0)), 1);
    EXPECT_EQ((binom<unsigned char, unsigned char>(5, 5)), 1);
    EXPECT_EQ((binom<unsigned char, unsigned char>(5, 4)), 5);
}

TEST(Comb, Stirling2BoundaryCases) {
    EXPECT_EQ((stirling2<unsigned, double>(0, 0)), 1.0);
    EXPECT_EQ((stirling2<unsigned, double>(3, 0)), 0.0);
    EXPECT_EQ((stirling2<unsigned, double>(4, 2)), 7.0);
    EXPECT_EQ((stirling2<unsigned, double>(5, 4)), (binom<unsigned, double>(5, 2)));
    EXPECT_EQ((stirling2<unsigned, double>(5, 4)), 10.0);
}

TEST(Comb, CombBoundaryCases) {
    unsigned C[4] = {0, 0, 0, 0};
    comb<unsigned, double>(5, 1, 3, C);
    EXPECT_EQ(C[0], 3u);
    comb<unsigned, double>(4, 2, 1, C);
    EXPECT_EQ(C[0], 1u);
    EXPECT_EQ(C[1], 2u);
    comb<unsigned, double>(4, 2, 6, C);
    EXPECT_EQ(C[0], 3u);
    EXPECT_EQ(C[1], 4u);
}

// ---- assertions ----

TEST(CombDeathTest, Stirling2NegativeSumAborts) {
    // Rounding in the alternating sum of a case with k far above n.
    EXPECT_DEATH((stirling2<unsigned, double>(4, 41)), "src/include/QZ/comb/counting:[0-9]+: .*Assertion `sum>=0' failed");
    // The coarse integer coefficients do not cancel.
    EXPECT_DEATH((stirling2<int, int>(3, 4)), "Assertion `sum>=0' failed");
}

TEST(CombDeathTest, CombPastTheLastRankAborts) {
    unsigned C[2];
    EXPECT_DEATH((comb<unsigned, double>(4, 2, 7, C)), "src/include/QZ/comb/counting:[0-9]+: .*Assertion `R!=0' failed");
}

// ---- factorial ----

TEST(Comb, FactorialValues) {
    EXPECT_EQ((factorial<unsigned, double>(0)), 1.0);
    EXPECT_EQ((factorial<unsigned, double>(1)), 1.0);
    EXPECT_EQ((factorial<unsigned, double>(5)), 120.0);
    EXPECT_EQ((factorial<unsigned long, unsigned long>(20)), 2432902008176640000UL);
    EXPECT_EQ((factorial<unsigned char, unsigned long>(13)), 6227020800UL);
    // An integer value type wraps: 720 mod 256.
    EXPECT_EQ((factorial<unsigned char, unsigned char>(6)), 208);
    // The largest index of the type ends the loop as well.
    EXPECT_EQ((factorial<unsigned char, unsigned char>(255)), 0);
}

// ---- binom ----

// Rows 0 to 48 of Pascal's triangle, where the logarithm path of binom is
// still exact in double.
static std::vector<std::vector<double>> pascal() {
    std::vector<std::vector<double>> P(49);
    for (unsigned n = 0; n < 49; ++n) {
        P[n].assign(n + 1, 1.0);
        for (unsigned k = 1; k < n; ++k) P[n][k] = P[n - 1][k - 1] + P[n - 1][k];
    }
    return P;
}

TEST(Comb, BinomInDoubleMatchesPascalsTriangle) {
    const std::vector<std::vector<double>> P = pascal();
    for (unsigned n = 0; n < P.size(); ++n)
        for (unsigned k = 0; k <= n; ++k) ASSERT_EQ((binom<unsigned, double>(n, k)), P[n][k]) << n << " " << k;
}

TEST(Comb, BinomIsSymmetricAndZeroAboveN) {
    for (unsigned short n = 0; n < 30; ++n) {
        for (unsigned short k = 0; k <= n; ++k)
            EXPECT_EQ((binom<unsigned short, double>(n, k)), (binom<unsigned short, double>(n, n - k)));
        EXPECT_EQ((binom<unsigned short, double>(n, n + 1)), 0.0);
    }
}

TEST(Comb, BinomWithIntegerValueTypeIsCoarse) {
    // The running sum of logarithms is truncated after every term:
    // C(6,3) = 20 and C(5,2) = 10 both come out as round(e) = 3.
    EXPECT_EQ((binom<unsigned, unsigned>(6, 3)), 3u);
    EXPECT_EQ((binom<unsigned, unsigned>(5, 2)), 3u);
    EXPECT_EQ((binom<unsigned long, unsigned long>(10, 5)), 7UL);  // not 252
    // k = 1 and k = n - 1 stay exact.
    EXPECT_EQ((binom<unsigned, unsigned>(100, 1)), 100u);
    EXPECT_EQ((binom<unsigned, unsigned>(100, 99)), 100u);
}

TEST(Comb, BinomSaturatesAnIntegerValueType) {
    // exp of the coarse sum is far above 255.
    EXPECT_EQ((binom<unsigned char, unsigned char>(200, 100)), 255);
    // The coarse C(20, 10) is 403: it fits 32 bits, and 8 bits take 255,
    // not 403 modulo 256.
    EXPECT_EQ((binom<unsigned, unsigned>(20, 10)), 403u);
    EXPECT_EQ((binom<unsigned char, unsigned char>(20, 10)), 255);
}

TEST(Comb, BinomInFloatIsTheExactCoefficientRoundedToFloat) {
    // The logarithms add up in double and only the result becomes a float:
    // C(21, 10) = 352716 must not come out as 352717.
    EXPECT_EQ((binom<unsigned, float>(21, 10)), 352716.0f);
    EXPECT_EQ((binom<unsigned, float>(24, 12)), 2704156.0f);
    EXPECT_EQ((binom<unsigned, float>(30, 15)), 155117520.0f);
    const std::vector<std::vector<double>> P = pascal();
    for (unsigned n = 0; n < P.size(); ++n)
        for (unsigned k = 0; k <= n; ++k) {
            ASSERT_EQ((binom<unsigned, float>(n, k)), (float)P[n][k]) << n << " " << k;
            ASSERT_EQ((binom<unsigned char, float>((unsigned char)n, (unsigned char)k)), (float)P[n][k]) << n << " " << k;
        }
}

// ---- stirling2 ----

TEST(Comb, Stirling2InDoubleMatchesTheRecurrence) {
    // S(n, k) = k S(n-1, k) + S(n-1, k-1); exact in double up to 22 elements.
    std::vector<std::vector<double>> S(23, std::vector<double>(23, 0.0));
    S[0][0] = 1;
    for (unsigned n = 1; n < 23; ++n)
        for (unsigned k = 1; k <= n; ++k) S[n][k] = k * S[n - 1][k] + S[n - 1][k - 1];
    for (unsigned n = 0; n < 23; ++n)
        for (unsigned k = 0; k <= n; ++k) ASSERT_EQ((stirling2<unsigned, double>(n, k)), S[n][k]) << n << " " << k;
}

TEST(Comb, Stirling2ShortCuts) {
    EXPECT_EQ((stirling2<unsigned, double>(7, 7)), 1.0);
    EXPECT_EQ((stirling2<unsigned, double>(7, 1)), 1.0);
    EXPECT_EQ((stirling2<unsigned, double>(7, 2)), 63.0);
    EXPECT_EQ((stirling2<unsigned, double>(40, 2)), std::pow(2.0, 39) - 1);
    EXPECT_EQ((stirling2<unsigned, double>(7, 6)), 21.0);
    EXPECT_EQ((stirling2<unsigned, double>(0, 3)), 0.0);
}

TEST(Comb, Stirling2WithIntegerValueTypeInheritsTheCoarseBinomial) {
    // n = k + 1 goes through binom(n, 2), coarse in integers: 3, not 10.
    EXPECT_EQ((stirling2<unsigned, unsigned>(5, 4)), 3u);
    // For k = 3 the coefficients C(3, j) are all exact, and so is the sum.
    EXPECT_EQ((stirling2<unsigned, unsigned>(5, 3)), 25u);
    EXPECT_EQ((stirling2<unsigned, unsigned>(6, 3)), 90u);
    EXPECT_EQ((stirling2<unsigned char, unsigned char>(9, 2)), 255);
    // k = 2 saturates rather than wrapping.
    EXPECT_EQ((stirling2<unsigned char, unsigned char>(12, 2)), 255);
}

TEST(Comb, Stirling2WithIntegerValueTypeSumsModuloItsWidth) {
    // S(n, 3) = (3^n - 3 * 2^n + 3) / 6 whenever 6 S(n, 3) fits the type, the
    // negative partial sum 3 - 3 * 2^n included. From n = 5 on: S(4, 3) is
    // taken from the coarse binom(4, 2).
    for (unsigned n = 5; n <= 33; ++n) {
        const unsigned long long s = ((unsigned long long)std::pow(3.0, n) - 3ULL * (1ULL << n) + 3ULL) / 6;
        ASSERT_EQ((stirling2<unsigned long, unsigned long>(n, 3)), s) << n;
        if (6 * s <= 0xFFFFFFFFULL) ASSERT_EQ((stirling2<unsigned, unsigned>(n, 3)), s) << n;
        if (6 * s <= 0xFFFFULL) ASSERT_EQ((stirling2<unsigned short, unsigned short>(n, 3)), s) << n;
        if (6 * s <= 0xFFULL) ASSERT_EQ((stirling2<unsigned char, unsigned char>(n, 3)), s) << n;
    }
    // 6 S(6, 3) = 540 is 28 modulo 256, and 28 / 6 is 4.
    EXPECT_EQ((stirling2<unsigned char, unsigned char>(6, 3)), 4);
    // The coarse coefficients make the sum of S(8, 6) -223279; an unsigned
    // sum holds it modulo 2^32 and the check on its sign cannot fail.
    EXPECT_EQ((stirling2<unsigned, unsigned>(8, 6)), (unsigned)((4294967296ULL - 223279ULL) / 720ULL));
    // 10! holds eight factors 2 and is 0 in eight bits: the quotient
    // saturates instead of dividing by zero.
    EXPECT_EQ((factorial<unsigned char, unsigned char>(10)), 0);
    EXPECT_EQ((stirling2<unsigned char, unsigned char>(12, 10)), 255);
}

TEST(Comb, Stirling2InFloatSumsInFloat) {
    EXPECT_EQ((stirling2<unsigned, float>(4, 2)), 7.0f);
    EXPECT_EQ((stirling2<unsigned, float>(10, 4)), 34105.0f);
    EXPECT_EQ((stirling2<unsigned char, float>(12, 5)), 1379400.0f);
}

// ---- comb ----

// The rank-th (from 1) P-subset of {1..N} in lexicographic order, by walking.
static std::vector<std::vector<unsigned>> lexicographic(unsigned N, unsigned P) {
    std::vector<std::vector<unsigned>> out;
    std::vector<unsigned> c(P);
    for (unsigned i = 0; i < P; ++i) c[i] = i + 1;
    while (true) {
        out.push_back(c);
        int i = (int)P - 1;
        while (i >= 0 && c[i] == N - P + 1 + i) --i;
        if (i < 0) break;
        ++c[i];
        for (unsigned j = i + 1; j < P; ++j) c[j] = c[j - 1] + 1;
    }
    return out;
}

TEST(Comb, CombMatchesLexicographicEnumeration) {
    for (unsigned N = 1; N <= 12; ++N) {
        for (unsigned P = 1; P <= N; ++P) {
            const std::vector<std::vector<unsigned>> all = lexicographic(N, P);
            ASSERT_EQ((double)all.size(), (binom<unsigned, double>(N, P)));
            std::vector<unsigned> C(P);
            for (unsigned L = 1; L <= all.size(); ++L) {
                comb<unsigned, double>(N, P, L, C.data());
                ASSERT_EQ(C, all[L - 1]) << "N=" << N << " P=" << P << " L=" << L;
            }
        }
    }
}

TEST(Comb, CombOverSmallIndexAndFloatTypes) {
    const std::vector<std::vector<unsigned>> all = lexicographic(9, 4);
    unsigned char C[4];
    for (unsigned L = 1; L <= all.size(); ++L) {
        comb<unsigned char, float>(9, 4, (unsigned char)L, C);
        for (unsigned i = 0; i < 4; ++i) ASSERT_EQ(C[i], all[L - 1][i]) << L;
    }
}

TEST(Comb, CombOfPairsWithIntegerValueType) {
    // Pairs need only coefficients with k = 1, which integers get right.
    const std::vector<std::vector<unsigned>> all = lexicographic(10, 2);
    unsigned long C[2];
    for (unsigned L = 1; L <= all.size(); ++L) {
        comb<unsigned long, unsigned long>(10, 2, L, C);
        ASSERT_EQ(C[0], all[L - 1][0]);
        ASSERT_EQ(C[1], all[L - 1][1]);
    }
}

template <typename T> class CombWidths : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> Widths;
TYPED_TEST_SUITE(CombWidths, Widths);

// Up to 10 elements every rank fits 8 bits, so each index width unranks the
// same lexicographic order with either real value type.
TYPED_TEST(CombWidths, CombMatchesLexicographicEnumerationInEveryWidth) {
    typedef TypeParam T;
    for (unsigned N = 1; N <= 10; ++N)
        for (unsigned P = 1; P <= N; ++P) {
            const std::vector<std::vector<unsigned>> all = lexicographic(N, P);
            ASSERT_EQ((double)all.size(), (binom<T, double>((T)N, (T)P)));
            ASSERT_EQ((float)all.size(), (binom<T, float>((T)N, (T)P)));
            std::vector<T> C(P), D(P);
            for (unsigned L = 1; L <= all.size(); ++L) {
                comb<T, double>((T)N, (T)P, (T)L, C.data());
                comb<T, float>((T)N, (T)P, (T)L, D.data());
                for (unsigned i = 0; i < P; ++i) {
                    ASSERT_EQ((unsigned)C[i], all[L - 1][i]) << "N=" << N << " P=" << P << " L=" << L;
                    ASSERT_EQ((unsigned)D[i], all[L - 1][i]) << "N=" << N << " P=" << P << " L=" << L;
                }
            }
        }
}

TYPED_TEST(CombWidths, FactorialAndStirlingInEveryWidth) {
    typedef TypeParam T;
    EXPECT_EQ((factorial<T, double>(5)), 120.0);
    EXPECT_EQ((factorial<T, T>(5)), (T)120);
    EXPECT_EQ((stirling2<T, double>(6, 3)), 90.0);
    EXPECT_EQ((stirling2<T, float>(6, 3)), 90.0f);
    EXPECT_EQ((stirling2<T, double>(10, 5)), 42525.0);
    EXPECT_EQ((stirling2<T, T>(5, 3)), (T)25);
}
