#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZINT>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <type_traits>
#include <vector>

using QZ::sparse_uint_t;
typedef unsigned __int128 u128;

namespace {

template <typename idx_t> std::set<idx_t> S(std::initializer_list<unsigned> l) {
    std::set<idx_t> s;
    for (unsigned x : l) s.insert((idx_t)x);
    return s;
}

template <typename idx_t> sparse_uint_t<idx_t> fromSet(std::initializer_list<unsigned> l) {
    sparse_uint_t<idx_t> x;
    *x.data_rw() = S<idx_t>(l);
    return x;
}

template <typename idx_t> sparse_uint_t<idx_t> from128(u128 v) {
    sparse_uint_t<idx_t> x;
    for (unsigned i = 0; i < 128; ++i)
        if ((v >> i) & 1) x.data_rw()->insert((idx_t)i);
    return x;
}

// The value as a 128-bit integer; fails the test for a bit at or above 128.
template <typename idx_t> u128 to128(const sparse_uint_t<idx_t>& x) {
    u128 v = 0;
    for (idx_t e : *x.data()) {
        EXPECT_LT((unsigned)e, 128u);
        if ((unsigned)e < 128) v |= (u128)1 << e;
    }
    return v;
}

u128 rnd128(std::mt19937_64& g, unsigned bits) {
    u128 v = ((u128)g() << 64) | g();
    if (bits < 128) v &= (((u128)1 << bits) - 1);
    return v;
}

}  // namespace

template <typename T> class SparseUintTyped : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> Widths;
TYPED_TEST_SUITE(SparseUintTyped, Widths);

// ---- edge cases ----

TYPED_TEST(SparseUintTyped, NewObjectIsZeroWithBitLengthOne) {
    sparse_uint_t<TypeParam> x;
    EXPECT_EQ(x.to_uint64(), 0u);
    EXPECT_EQ(x.bl(), (TypeParam)1);
    EXPECT_EQ(x.compare((TypeParam)0), 0);
    EXPECT_TRUE(x.data()->empty());
}

TYPED_TEST(SparseUintTyped, AddingOneToSevenCarriesIntoBitThree) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({0, 1, 2});
    x += (TypeParam)1;
    EXPECT_EQ(*x.data(), S<TypeParam>({3}));
}

TYPED_TEST(SparseUintTyped, ShiftRightByTwoDropsLowBits) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({1, 2, 5});
    x >>= (TypeParam)2;
    EXPECT_EQ(*x.data(), S<TypeParam>({0, 3}));
}

TYPED_TEST(SparseUintTyped, MultiplyByThreeZeroAndOne) {
    sparse_uint_t<TypeParam> x((TypeParam)5);
    x *= (TypeParam)3;
    EXPECT_EQ(x.to_uint64(), 15u);
    sparse_uint_t<TypeParam> y((TypeParam)5);
    y *= (TypeParam)0;
    EXPECT_TRUE(y.data()->empty());
    sparse_uint_t<TypeParam> z((TypeParam)5);
    z *= (TypeParam)1;
    EXPECT_EQ(*z.data(), S<TypeParam>({0, 2}));
}

TYPED_TEST(SparseUintTyped, TwoToTheSixtyFourHasBitLength65AndNoUint64) {
    sparse_uint_t<TypeParam> x;
    x.p2x((TypeParam)64);
    EXPECT_EQ(x.bl(), (TypeParam)65);
    EXPECT_EQ(x.to_uint64(), 0u);
    EXPECT_EQ(x.compare(std::numeric_limits<TypeParam>::max()), 1);
}

TEST(SparseUint, TwoToTheSixtyFourAboveLargestUint64) {
    sparse_uint_t<unsigned long> x;
    x.p2x(64);
    EXPECT_EQ(x.compare(18446744073709551615UL), 1);
    EXPECT_FALSE(x <= 18446744073709551615UL);
    sparse_uint_t<unsigned long> y(18446744073709551615UL);
    EXPECT_EQ(y.to_uint64(), 18446744073709551615ULL);
    EXPECT_EQ(y.bl(), 64u);
}

template <typename idx_t> void checkDoubleRange() {
    sparse_uint_t<idx_t> big;
    big.p2x((idx_t)1023);
    EXPECT_EQ((size_t)big.bl(), 1024u);
    EXPECT_EQ(big.to_double(), 0.0);
    sparse_uint_t<idx_t> fin;
    fin.p2x((idx_t)1022);
    EXPECT_EQ((size_t)fin.bl(), 1023u);
    EXPECT_TRUE(std::isfinite(fin.to_double()));
    EXPECT_EQ(fin.to_double(), std::ldexp(1.0, 1022));
}

TEST(SparseUint, ExponentTooLargeForDoubleReadsAsZero) {
    checkDoubleRange<unsigned short>();
    checkDoubleRange<unsigned int>();
    checkDoubleRange<unsigned long>();
}

TYPED_TEST(SparseUintTyped, RankOfZeroOneAmongPairsOfFive) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({0, 1});
    const TypeParam expect = (TypeParam)(QZ::binom<TypeParam, double>(4, 2) + QZ::binom<TypeParam, double>(3, 1));
    EXPECT_EQ(expect, (TypeParam)9);
    EXPECT_EQ(x.combinatorial_index(5, 2), (TypeParam)9);
    sparse_uint_t<TypeParam> y;
    y.from_combinatorial_index(9, 5, 2);
    EXPECT_EQ(*y.data(), S<TypeParam>({0, 1}));
}

TYPED_TEST(SparseUintTyped, SingletonRanksAreNotInverses) {
    sparse_uint_t<TypeParam> x;
    x.from_combinatorial_index(0, 5, 1);
    EXPECT_EQ(*x.data(), S<TypeParam>({4}));
    EXPECT_EQ(x.combinatorial_index(5, 1), (TypeParam)4);
    // Rank 1 unranks to {3}, whose own index is 3 again, not 1.
    x.from_combinatorial_index(1, 5, 1);
    EXPECT_EQ(*x.data(), S<TypeParam>({3}));
    EXPECT_EQ(x.combinatorial_index(5, 1), (TypeParam)3);
}

TYPED_TEST(SparseUintTyped, InterfaceTypes) {
    typedef TypeParam T;
    typedef sparse_uint_t<T> U;
    U x;
    const U& c = x;
    static_assert(std::is_same<decltype(c.bl()), T>::value, "bit length in the index type");
    static_assert(std::is_same<decltype(c.has((T)0)), bool>::value, "");
    static_assert(std::is_same<decltype(c.combinatorial_index((T)5, (T)2)), T>::value, "");
    static_assert(std::is_same<decltype(x.from_combinatorial_index((T)0, (T)5, (T)2)), void>::value, "");
    static_assert(std::is_same<decltype(c.data()), const std::set<T>*>::value, "");
    static_assert(std::is_same<decltype(x.data_rw()), std::set<T>*>::value, "");
    static_assert(std::is_same<decltype(c.to_double()), double>::value, "");
    static_assert(std::is_same<decltype(c.to_uint64()), unsigned long long>::value, "");
    static_assert(std::is_same<decltype(c.compare(c)), int>::value, "");
    static_assert(std::is_same<decltype(c.compare((T)0)), int>::value, "");
    static_assert(std::is_same<decltype(x += (T)1), U&>::value, "");
    static_assert(std::is_same<decltype(x += c), U&>::value, "");
    static_assert(std::is_same<decltype(x <<= (T)1), U&>::value, "");
    static_assert(std::is_same<decltype(x >>= (T)1), U&>::value, "");
    static_assert(std::is_same<decltype(x *= (T)3), U&>::value, "");
    static_assert(std::is_same<decltype(x = (T)3), U&>::value, "");
    static_assert(std::is_same<decltype(c * (T)3), U>::value, "");
    static_assert(std::is_same<decltype(c << (T)3), U>::value, "");
    static_assert(std::is_same<decltype(x.p2x((T)0)), void>::value, "");
    static_assert(std::is_same<decltype(QZ::bl<T>((T)0)), T>::value, "");
    static_assert(std::is_nothrow_move_constructible<U>::value, "a move only takes the pointer");
    static_assert(!std::is_polymorphic<U>::value && sizeof(U) == sizeof(void*), "the set pointer is all there is");
    EXPECT_TRUE(x.data()->empty());
}

// ---- bit length, p2x, construction ----

TEST(SparseUint, FreeBitLengthCountsZeroAsOneBit) {
    EXPECT_EQ(QZ::bl<unsigned char>(0), 1);
    EXPECT_EQ(QZ::bl<unsigned char>(1), 1);
    EXPECT_EQ(QZ::bl<unsigned char>(255), 8);
    EXPECT_EQ(QZ::bl<unsigned short>(256), 9);
    EXPECT_EQ(QZ::bl<unsigned int>(0x80000000u), 32u);
    EXPECT_EQ(QZ::bl<unsigned long>(18446744073709551615UL), 64u);
    EXPECT_EQ(QZ::bl<unsigned long>(5), 3u);
}

TYPED_TEST(SparseUintTyped, MemberBitLengthAgreesWithFreeOne) {
    for (unsigned v = 0; v < 256; ++v) {
        sparse_uint_t<TypeParam> x((TypeParam)v);
        EXPECT_EQ(x.bl(), QZ::bl<TypeParam>((TypeParam)v)) << v;
    }
}

TEST(SparseUint, BitLengthWrapsAtTheTopPositionOfTheIndexType) {
    sparse_uint_t<unsigned char> x;
    x.p2x(255);
    EXPECT_EQ(x.bl(), 0);
    // The conversions look at the true length and do not shift past 63.
    EXPECT_EQ(x.to_uint64(), 0u);
    EXPECT_EQ(x.to_double(), std::ldexp(1.0, 255));
}

TYPED_TEST(SparseUintTyped, P2xCarriesThroughRunsOfOnes) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({1, 2, 3, 5, 9});
    x.p2x(1);  // 1+1 -> 2 -> 3 -> 4 stops below 5
    EXPECT_EQ(*x.data(), S<TypeParam>({4, 5, 9}));
    x.p2x(9);  // the largest: replaced by 10
    EXPECT_EQ(*x.data(), S<TypeParam>({4, 5, 10}));
    x.p2x(12);  // above all: appended
    EXPECT_EQ(*x.data(), S<TypeParam>({4, 5, 10, 12}));
    x.p2x(0);  // no carry
    EXPECT_EQ(*x.data(), S<TypeParam>({0, 4, 5, 10, 12}));
    x.p2x(4);  // 4+4 -> 5 -> 6
    EXPECT_EQ(*x.data(), S<TypeParam>({0, 6, 10, 12}));
    sparse_uint_t<TypeParam> e;
    e.p2x(7);
    EXPECT_EQ(*e.data(), S<TypeParam>({7}));
}

TYPED_TEST(SparseUintTyped, P2xCarryRunUpToTheLargestExponent) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({2, 3, 4, 5});
    x.p2x(2);
    EXPECT_EQ(*x.data(), S<TypeParam>({6}));
}

TYPED_TEST(SparseUintTyped, ConstructFromMachineIntegerAndAssign) {
    sparse_uint_t<TypeParam> x((TypeParam)0xA5);
    EXPECT_EQ(*x.data(), S<TypeParam>({0, 2, 5, 7}));
    x = (TypeParam)6;
    EXPECT_EQ(*x.data(), S<TypeParam>({1, 2}));
    x = (TypeParam)0;
    EXPECT_TRUE(x.data()->empty());
}

TYPED_TEST(SparseUintTyped, CopyIsDeepAndMoveLeavesNull) {
    sparse_uint_t<TypeParam> a((TypeParam)12);
    sparse_uint_t<TypeParam> b(a);
    b.p2x(0);
    EXPECT_EQ(a.to_uint64(), 12u);
    EXPECT_EQ(b.to_uint64(), 13u);
    EXPECT_NE(a.data(), b.data());

    const std::set<TypeParam>* raw = a.data();
    sparse_uint_t<TypeParam> c(std::move(a));
    EXPECT_EQ(c.data(), raw);
    EXPECT_EQ(a.data(), nullptr);

    sparse_uint_t<TypeParam> d;
    d = std::move(c);
    EXPECT_EQ(d.data(), raw);
    EXPECT_EQ(c.data(), nullptr);
    EXPECT_EQ(d.to_uint64(), 12u);

    d = d;  // self-assignment keeps the value
    EXPECT_EQ(d.to_uint64(), 12u);
    d = std::move(d);
    EXPECT_EQ(d.data(), raw);

    sparse_uint_t<TypeParam> e;
    e = b;
    EXPECT_EQ(e.to_uint64(), 13u);
    EXPECT_NE(e.data(), b.data());
}

TYPED_TEST(SparseUintTyped, ToArrayWritesExponentsAscending) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({7, 0, 3});
    int a[3] = {-1, -1, -1};
    x.toArray(a);
    EXPECT_EQ(a[0], 0);
    EXPECT_EQ(a[1], 3);
    EXPECT_EQ(a[2], 7);
}

TYPED_TEST(SparseUintTyped, HasTellsSetBits) {
    sparse_uint_t<TypeParam> x((TypeParam)10);
    EXPECT_FALSE(x.has(0));
    EXPECT_TRUE(x.has(1));
    EXPECT_FALSE(x.has(2));
    EXPECT_TRUE(x.has(3));
}

// ---- shifts and multiplication ----

TYPED_TEST(SparseUintTyped, ShiftLeftMovesEveryExponent) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({0, 1, 4, 9});
    x <<= (TypeParam)3;
    EXPECT_EQ(*x.data(), S<TypeParam>({3, 4, 7, 12}));
    x <<= (TypeParam)0;
    EXPECT_EQ(*x.data(), S<TypeParam>({3, 4, 7, 12}));
    sparse_uint_t<TypeParam> z;
    z <<= (TypeParam)5;
    EXPECT_TRUE(z.data()->empty());
}

TYPED_TEST(SparseUintTyped, ShiftRightPastAllBitsGivesZero) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({0, 4, 6});
    x >>= (TypeParam)0;
    EXPECT_EQ(*x.data(), S<TypeParam>({0, 4, 6}));
    x >>= (TypeParam)4;  // the exponent equal to the shift survives as 0
    EXPECT_EQ(*x.data(), S<TypeParam>({0, 2}));
    x >>= (TypeParam)3;
    EXPECT_TRUE(x.data()->empty());
}

TEST(SparseUint, ShiftLeftOutOfTheIndexTypeWraps) {
    sparse_uint_t<unsigned char> x = fromSet<unsigned char>({1, 250});
    x <<= 10;
    EXPECT_EQ(*x.data(), S<unsigned char>({4, 11}));
}

TYPED_TEST(SparseUintTyped, MultiplyByPowersOfTwoShifts) {
    const unsigned factors[] = {2, 4, 8, 16};
    for (unsigned i = 0; i < 4; ++i) {
        sparse_uint_t<TypeParam> x = fromSet<TypeParam>({0, 3, 40});
        x *= (TypeParam)factors[i];
        EXPECT_EQ(*x.data(), S<TypeParam>({i + 1, 4 + i, 41 + i}));
    }
}

TYPED_TEST(SparseUintTyped, MultiplyOneByValueAssignsIt) {
    sparse_uint_t<TypeParam> x((TypeParam)1);
    x *= (TypeParam)100;
    EXPECT_EQ(x.to_uint64(), 100u);
    sparse_uint_t<TypeParam> z;
    z *= (TypeParam)100;
    EXPECT_TRUE(z.data()->empty());
}

TYPED_TEST(SparseUintTyped, FreeProductAndShiftLeaveTheOperandAlone) {
    const sparse_uint_t<TypeParam> x((TypeParam)7);
    sparse_uint_t<TypeParam> p = x * (TypeParam)6;
    sparse_uint_t<TypeParam> q = x << (TypeParam)70;
    EXPECT_EQ(p.to_uint64(), 42u);
    EXPECT_EQ(*q.data(), S<TypeParam>({70, 71, 72}));
    EXPECT_EQ(x.to_uint64(), 7u);
}

// ---- comparison ----

TYPED_TEST(SparseUintTyped, CompareOrdersByValue) {
    sparse_uint_t<TypeParam> a((TypeParam)5), b((TypeParam)6), c((TypeParam)5), z;
    EXPECT_EQ(a.compare(b), -1);
    EXPECT_EQ(b.compare(a), 1);
    EXPECT_EQ(a.compare(c), 0);
    EXPECT_EQ(a.compare(z), 1);
    EXPECT_EQ(z.compare(a), -1);
    EXPECT_EQ(z.compare(z), 0);
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_TRUE(a <= c);
    EXPECT_TRUE(a <= b);
    EXPECT_FALSE(b <= a);
    EXPECT_TRUE(a == c);
    EXPECT_FALSE(a == b);
    EXPECT_EQ(a.compare((TypeParam)4), 1);
    EXPECT_EQ(a.compare((TypeParam)5), 0);
    EXPECT_EQ(a.compare((TypeParam)7), -1);
    EXPECT_EQ(z.compare((TypeParam)1), -1);
    EXPECT_TRUE(a == (TypeParam)5);
    EXPECT_TRUE(a < (TypeParam)6);
    EXPECT_TRUE(a <= (TypeParam)5);
    EXPECT_FALSE(a <= (TypeParam)4);
}

TEST(SparseUint, CompareWalksBitPositionsAsInt) {
    // With bit lengths beyond the range of int the walk starts at the
    // truncated position: here only the bits up to 5 are looked at.
    const unsigned long top = (1UL << 32) + 5;
    sparse_uint_t<unsigned long> a, b;
    a.data_rw()->insert({7, top});
    b.data_rw()->insert({3, top});
    EXPECT_EQ(a.compare(b), -1);
    EXPECT_EQ(b.compare(a), 1);
}

TEST(SparseUint, CompareGoesByTheBitLengthOfTheIndexType) {
    // Bit 255 gives an 8-bit length of 0, so such a value compares below any
    // other non-zero value, and two of them compare equal; against 0 the
    // value is still larger.
    sparse_uint_t<unsigned char> top, three((unsigned char)3), top2;
    top.p2x(255);
    top2.data_rw()->insert({0, 255});
    EXPECT_EQ(top.compare(three), -1);
    EXPECT_EQ(three.compare(top), 1);
    EXPECT_EQ(top.compare(top2), 0);
    EXPECT_EQ(top.compare((unsigned char)3), -1);
    EXPECT_EQ(top.compare((unsigned char)0), 1);
    EXPECT_EQ(top.compare(sparse_uint_t<unsigned char>()), 1);
}

// ---- arithmetic against 128-bit integers ----

TYPED_TEST(SparseUintTyped, AdditionMatches128BitIntegers) {
    std::mt19937_64 g(11);
    for (int t = 0; t < 3000; ++t) {
        // Below 2^126 each, so that the sums stay inside 128 bits.
        const u128 a = rnd128(g, 1 + (unsigned)(g() % 126)), b = rnd128(g, 1 + (unsigned)(g() % 126));
        sparse_uint_t<TypeParam> x = from128<TypeParam>(a), y = from128<TypeParam>(b);
        ASSERT_EQ(to128(x), a);
        x += y;
        ASSERT_EQ(to128(x), a + b);
        const TypeParam m = (TypeParam)g();
        x += m;
        ASSERT_EQ(to128(x), a + b + (u128)m);
    }
}

TYPED_TEST(SparseUintTyped, ShiftsMatch128BitIntegers) {
    std::mt19937_64 g(12);
    for (int t = 0; t < 3000; ++t) {
        const unsigned bits = 1 + (unsigned)(g() % 127);
        const u128 a = rnd128(g, bits);
        const unsigned sl = (unsigned)(g() % (129 - bits));
        const unsigned sr = (unsigned)(g() % 140);
        sparse_uint_t<TypeParam> x = from128<TypeParam>(a), y = from128<TypeParam>(a);
        x <<= (TypeParam)sl;
        y >>= (TypeParam)sr;
        ASSERT_EQ(to128(x), sl == 128 ? (u128)0 : a << sl);
        ASSERT_EQ(to128(y), sr >= 128 ? (u128)0 : a >> sr);
    }
}

TYPED_TEST(SparseUintTyped, MultiplicationBySmallIntegersMatches128BitIntegers) {
    std::mt19937_64 g(13);
    for (int t = 0; t < 3000; ++t) {
        const u128 a = rnd128(g, 1 + (unsigned)(g() % 118));
        const TypeParam m = (TypeParam)(g() % 200);
        sparse_uint_t<TypeParam> x = from128<TypeParam>(a);
        x *= m;
        ASSERT_EQ(to128(x), a * (u128)m) << (unsigned)m;
    }
}

TYPED_TEST(SparseUintTyped, ComparisonMatches128BitIntegers) {
    std::mt19937_64 g(14);
    for (int t = 0; t < 5000; ++t) {
        const u128 a = rnd128(g, 1 + (unsigned)(g() % 128));
        u128 b;
        switch (t % 4) {
        case 0: b = a; break;
        case 1: b = a ^ ((u128)1 << (g() % 128)); break;  // differs in one bit
        default: b = rnd128(g, 1 + (unsigned)(g() % 128)); break;
        }
        const int expect = a < b ? -1 : (a > b ? 1 : 0);
        const sparse_uint_t<TypeParam> x = from128<TypeParam>(a), y = from128<TypeParam>(b);
        ASSERT_EQ(x.compare(y), expect);
        ASSERT_EQ(x < y, expect < 0);
        ASSERT_EQ(x <= y, expect <= 0);
        ASSERT_EQ(x == y, expect == 0);
        const TypeParam m = (TypeParam)(b & std::numeric_limits<TypeParam>::max());
        const int em = a < (u128)m ? -1 : (a > (u128)m ? 1 : 0);
        ASSERT_EQ(x.compare(m), em);
    }
}

TYPED_TEST(SparseUintTyped, ConversionsMatch128BitIntegers) {
    std::mt19937_64 g(15);
    for (int t = 0; t < 2000; ++t) {
        const unsigned bits = 1 + (unsigned)(g() % 128);
        const u128 a = rnd128(g, bits);
        const sparse_uint_t<TypeParam> x = from128<TypeParam>(a);
        ASSERT_EQ(x.to_uint64(), (a >> 64) ? 0ULL : (unsigned long long)a);
        // The sum runs from the smallest power up, in double.
        double d = 0;
        for (unsigned i = 0; i < 128; ++i)
            if ((a >> i) & 1) d += std::ldexp(1.0, (int)i);
        ASSERT_EQ(x.to_double(), d);
    }
}

// ---- combinatorial index ----

template <typename idx_t> void checkRanksInvert(unsigned n) {
    for (unsigned k = 2; k <= n; ++k) {
        const unsigned long total = (unsigned long)QZ::binom<unsigned, double>(n, k);
        std::vector<bool> seen(total, false);
        for (unsigned mask = 0; mask < (1u << n); ++mask) {
            if ((unsigned)__builtin_popcount(mask) != k) continue;
            sparse_uint_t<idx_t> x;
            for (unsigned i = 0; i < n; ++i)
                if ((mask >> i) & 1) x.data_rw()->insert((idx_t)i);
            const idx_t r = x.combinatorial_index((idx_t)n, (idx_t)k);
            ASSERT_LT((unsigned long)r, total) << n << " " << k;
            EXPECT_FALSE(seen[r]);
            seen[r] = true;
            sparse_uint_t<idx_t> y;
            y.from_combinatorial_index(r, (idx_t)n, (idx_t)k);
            ASSERT_EQ(*y.data(), *x.data()) << "n=" << n << " k=" << k << " rank=" << (unsigned long)r;
        }
    }
}

TYPED_TEST(SparseUintTyped, UnrankInvertsRankForEverySubsetOfAtLeastTwo) {
    // Up to 10 elements every rank fits even 8 bits.
    for (unsigned n = 2; n <= 10; ++n) checkRanksInvert<TypeParam>(n);
}

TEST(SparseUint, UnrankInvertsRankOnSixteenElementsInWideTypes) {
    checkRanksInvert<unsigned short>(16);
    checkRanksInvert<unsigned int>(16);
    checkRanksInvert<unsigned long>(16);
}

template <typename idx_t> void checkThreeSubsetsOf64() {
    const unsigned n = 64;
    std::vector<bool> seen(41664, false);
    for (unsigned a = 0; a < n; ++a)
        for (unsigned b = a + 1; b < n; ++b)
            for (unsigned c = b + 1; c < n; ++c) {
                sparse_uint_t<idx_t> x;
                x.data_rw()->insert({(idx_t)a, (idx_t)b, (idx_t)c});
                const idx_t r = x.combinatorial_index((idx_t)n, 3);
                ASSERT_LT((unsigned long)r, 41664u);
                ASSERT_FALSE(seen[r]) << a << " " << b << " " << c;
                seen[r] = true;
                sparse_uint_t<idx_t> y;
                y.from_combinatorial_index(r, (idx_t)n, 3);
                ASSERT_EQ(*y.data(), *x.data()) << (unsigned long)r;
            }
}

TEST(SparseUint, EveryThreeSubsetOf64RanksOntoAllRanksAndBack) {
    checkThreeSubsetsOf64<unsigned short>();
    checkThreeSubsetsOf64<unsigned int>();
    checkThreeSubsetsOf64<unsigned long>();
}

TEST(SparseUint, SmallIndexTypeUnranksWhereCoefficientsExceedIt) {
    // binom(30, 2) = 435 and binom(30, 3) = 4060 do not fit 8 bits; the
    // search for the coefficient below the rank must still see them as larger
    // than any rank, and the ranks that fit come back.
    for (unsigned k = 2; k <= 3; ++k)
        for (unsigned r = 0; r < 256; ++r) {
            sparse_uint_t<unsigned char> x;
            x.from_combinatorial_index((unsigned char)r, 30, (unsigned char)k);
            ASSERT_EQ(x.data()->size(), k) << r;
            ASSERT_LT(*x.data()->rbegin(), 30) << r;
            ASSERT_EQ(x.combinatorial_index(30, (unsigned char)k), r) << k << " " << r;
            sparse_uint_t<unsigned long> w;
            w.from_combinatorial_index(r, 30, k);
            ASSERT_EQ(w.data()->size(), x.data()->size());
            ASSERT_TRUE(std::equal(w.data()->begin(), w.data()->end(), x.data()->begin())) << k << " " << r;
        }
}

TYPED_TEST(SparseUintTyped, PairRanksCountFromTheTop) {
    // Rank e of the pairs of 4 is the pair at place 5-e of the lexicographic order.
    const unsigned expect[6][2] = {{2, 3}, {1, 3}, {1, 2}, {0, 3}, {0, 2}, {0, 1}};
    for (unsigned e = 0; e < 6; ++e) {
        sparse_uint_t<TypeParam> x;
        x.from_combinatorial_index((TypeParam)e, 4, 2);
        EXPECT_EQ(*x.data(), S<TypeParam>({expect[e][0], expect[e][1]})) << e;
    }
}

// ---- further operations ----

TYPED_TEST(SparseUintTyped, RemainingComparisonOperators) {
    sparse_uint_t<TypeParam> a((TypeParam)9), b((TypeParam)12), c((TypeParam)9);
    EXPECT_TRUE(a != b);
    EXPECT_FALSE(a != c);
    EXPECT_TRUE(b > a);
    EXPECT_FALSE(a > c);
    EXPECT_TRUE(a >= c);
    EXPECT_FALSE(a >= b);
    EXPECT_TRUE(a != (TypeParam)8);
    EXPECT_FALSE(a != (TypeParam)9);
    EXPECT_TRUE(a > (TypeParam)8);
    EXPECT_FALSE(a > (TypeParam)9);
    EXPECT_TRUE(a >= (TypeParam)9);
    EXPECT_FALSE(a >= (TypeParam)10);
}

TYPED_TEST(SparseUintTyped, UnionAndIntersectionOfBits) {
    sparse_uint_t<TypeParam> a = fromSet<TypeParam>({0, 3, 7, 90}), b = fromSet<TypeParam>({3, 5, 90});
    sparse_uint_t<TypeParam> u(a), i(a);
    u |= b;
    i &= b;
    EXPECT_EQ(*u.data(), S<TypeParam>({0, 3, 5, 7, 90}));
    EXPECT_EQ(*i.data(), S<TypeParam>({3, 90}));
    u |= u;
    EXPECT_EQ(*u.data(), S<TypeParam>({0, 3, 5, 7, 90}));
    i &= sparse_uint_t<TypeParam>();
    EXPECT_TRUE(i.data()->empty());
}

TYPED_TEST(SparseUintTyped, SubtractingAPowerBorrowsFromTheNextBit) {
    sparse_uint_t<TypeParam> x = fromSet<TypeParam>({1, 6, 9});
    x.m2x(6);  // the bit itself
    EXPECT_EQ(*x.data(), S<TypeParam>({1, 9}));
    x.m2x(3);  // 2^9 - 2^3 = 2^3 + ... + 2^8
    EXPECT_EQ(*x.data(), S<TypeParam>({1, 3, 4, 5, 6, 7, 8}));
    x.m2x(20);  // below 2^20: no negative values
    EXPECT_TRUE(x.data()->empty());
}

TYPED_TEST(SparseUintTyped, SubtractionSaturatesAtZero) {
    sparse_uint_t<TypeParam> a((TypeParam)100), b((TypeParam)37), c((TypeParam)100);
    a -= b;
    EXPECT_EQ(a.to_uint64(), 63u);
    a -= c;
    EXPECT_TRUE(a.data()->empty());
    c -= c;
    EXPECT_TRUE(c.data()->empty());
}

TYPED_TEST(SparseUintTyped, ProductOfTwoObjects) {
    sparse_uint_t<TypeParam> a((TypeParam)13), b((TypeParam)11), z;
    a *= b;
    EXPECT_EQ(a.to_uint64(), 143u);
    a *= a;
    EXPECT_EQ(a.to_uint64(), 143u * 143u);
    a *= z;
    EXPECT_TRUE(a.data()->empty());
}

TYPED_TEST(SparseUintTyped, SubtractionAndProductsMatch128BitIntegers) {
    std::mt19937_64 g(16);
    for (int t = 0; t < 3000; ++t) {
        const u128 a = rnd128(g, 1 + (unsigned)(g() % 127)), b = rnd128(g, 1 + (unsigned)(g() % 127));
        sparse_uint_t<TypeParam> x = from128<TypeParam>(a), y = from128<TypeParam>(b);
        x -= y;
        ASSERT_EQ(to128(x), a > b ? a - b : (u128)0);
        const u128 c = rnd128(g, 1 + (unsigned)(g() % 64)), d = rnd128(g, 1 + (unsigned)(g() % 63));
        sparse_uint_t<TypeParam> p = from128<TypeParam>(c), q = from128<TypeParam>(d);
        p *= q;
        ASSERT_EQ(to128(p), c * d);
    }
}
