#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZALGO>
#include <QZ/QZINT>

#include <algorithm>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

using namespace QZ;

// ---- edge cases ----

template <typename T> class SetOpsTyped : public ::testing::Test {};
typedef ::testing::Types<unsigned char, unsigned short, unsigned int, unsigned long> Widths;
TYPED_TEST_SUITE(SetOpsTyped, Widths);

TYPED_TEST(SetOpsTyped, EqualSetIsSubset) {
    std::set<TypeParam>* A = new std::set<TypeParam>{1, 4, 9};
    std::set<TypeParam>* B = new std::set<TypeParam>{1, 4, 9};
    EXPECT_TRUE(is_subset(A, B));
    EXPECT_TRUE(is_subset(B, A));
    delete A;
    delete B;
}

TYPED_TEST(SetOpsTyped, IntersectionOfDisjointSetsIsEmptyNotNull) {
    const std::set<TypeParam> A{1, 2}, B{3, 4};
    const std::set<TypeParam>* pa = &A;
    const std::set<TypeParam>* pb = &B;
    std::set<TypeParam>* R = intersect(pa, pb);
    ASSERT_NE(R, nullptr);
    EXPECT_TRUE(R->empty());
    delete R;
}

TEST(Orders, UnnumberedWeightedOrderHoldsForAPairWithItself) {
    const unsigned w[3] = {0, 2, 0};
    UnnumberedWeightedOrder<unsigned> ord(w);
    for (unsigned v = 0; v < 3; ++v) {
        const std::pair<unsigned, unsigned> p(v, 5 * v);
        EXPECT_TRUE(ord(p, p)) << v;
    }
}

TEST(Orders, AbsValOrderPutsMinusThreeBeforeTwo) {
    std::vector<std::pair<sparse_uint_t<unsigned>, double>> v;
    v.emplace_back(sparse_uint_t<unsigned>(1u), 2.0);
    v.emplace_back(sparse_uint_t<unsigned>(2u), -3.0);
    EXPECT_TRUE((AbsValOrder<sparse_uint_t<unsigned>, double, true>(v[1], v[0])));
    EXPECT_FALSE((AbsValOrder<sparse_uint_t<unsigned>, double, true>(v[0], v[1])));
    std::sort(v.begin(), v.end(), AbsValOrder<sparse_uint_t<unsigned>, double, true>);
    EXPECT_EQ(v[0].second, -3.0);
    EXPECT_EQ(v[0].first.to_uint64(), 2u);
    EXPECT_EQ(v[1].second, 2.0);
    EXPECT_EQ(v[1].first.to_uint64(), 1u);
}

// ---- comparators ----

TEST(Orders, IdxOrderAscendsByFirst) {
    typedef std::pair<unsigned short, unsigned short> P;
    EXPECT_TRUE((IdxOrder<unsigned short, false>(P(1, 9), P(2, 0))));
    EXPECT_FALSE((IdxOrder<unsigned short, false>(P(2, 0), P(1, 9))));
    EXPECT_FALSE((IdxOrder<unsigned short, false>(P(2, 0), P(2, 9))));
    EXPECT_TRUE((IdxOrder<unsigned short, true>(P(2, 0), P(1, 9))));
    std::vector<P> v{P(3, 0), P(0, 1), P(2, 2), P(1, 3)};
    std::stable_sort(v.begin(), v.end(), IdxOrder<unsigned short, false>);
    for (unsigned short i = 0; i < 4; ++i) EXPECT_EQ(v[i].first, i);
}

TEST(Orders, ValOrderDescendsByValueForRealAndIntegerValues) {
    std::vector<std::pair<unsigned, double>> v{{0, 1.5}, {1, -2.0}, {2, 7.0}, {3, 0.0}};
    std::sort(v.begin(), v.end(), ValOrder<unsigned, double, true>);
    EXPECT_EQ(v[0].first, 2u);
    EXPECT_EQ(v[1].first, 0u);
    EXPECT_EQ(v[2].first, 3u);
    EXPECT_EQ(v[3].first, 1u);

    std::vector<std::pair<unsigned char, unsigned char>> u{{0, 3}, {1, 200}, {2, 17}};
    std::sort(u.begin(), u.end(), ValOrder<unsigned char, unsigned char, true>);
    EXPECT_EQ(u[0].first, 1);
    EXPECT_EQ(u[1].first, 2);
    EXPECT_EQ(u[2].first, 0);
    EXPECT_FALSE((ValOrder<unsigned char, unsigned char, true>(u[0], u[0])));
    EXPECT_TRUE((ValOrder<unsigned, float, false>({0, 1.0f}, {1, 2.0f})));
}

TEST(Orders, AbsValOrderWithUnsignedValuesAndAscendingForm) {
    typedef std::pair<int, unsigned> P;
    EXPECT_TRUE((AbsValOrder<int, unsigned, true>(P(0, 5), P(1, 3))));
    EXPECT_FALSE((AbsValOrder<int, unsigned, true>(P(0, 3), P(1, 3))));
    typedef std::pair<int, float> F;
    EXPECT_TRUE((AbsValOrder<int, float, false>(F(0, 1.0f), F(1, -2.0f))));
}

TEST(Orders, IsLessFindsTheLargestSecondMember) {
    std::vector<std::pair<unsigned long, double>> v{{7, 0.5}, {3, 4.25}, {9, -1.0}, {4, 4.0}};
    EXPECT_TRUE(is_less<unsigned long>(v[0], v[1]));
    EXPECT_FALSE(is_less<unsigned long>(v[1], v[0]));
    EXPECT_FALSE(is_less<unsigned long>(v[1], v[1]));
    auto it = std::max_element(v.begin(), v.end(), is_less<unsigned long>);
    EXPECT_EQ(it->first, 3u);
    // Among equal maxima the standard search keeps the first.
    v.push_back({11, 4.25});
    EXPECT_EQ(std::max_element(v.begin(), v.end(), is_less<unsigned long>)->first, 3u);
}

TEST(Orders, UnnumberedWeightedOrderKeepsNumberedVerticesBehind) {
    // Vertex 1 is numbered; 0 and 2 are not.
    const unsigned w[3] = {0, 1, 0};
    UnnumberedWeightedOrder<unsigned> ord(w);
    typedef std::pair<unsigned, unsigned> P;
    // A numbered vertex never goes ahead of an unnumbered one, however heavy.
    EXPECT_FALSE(ord(P(1, 100), P(0, 0)));
    // The unnumbered one goes ahead only when at least as heavy.
    EXPECT_TRUE(ord(P(0, 5), P(1, 5)));
    EXPECT_FALSE(ord(P(0, 4), P(1, 5)));
    // Among unnumbered vertices the heavier goes first, and equal weights
    // compare true both ways.
    EXPECT_TRUE(ord(P(2, 3), P(0, 1)));
    EXPECT_FALSE(ord(P(0, 1), P(2, 3)));
    EXPECT_TRUE(ord(P(0, 2), P(2, 2)));
    EXPECT_TRUE(ord(P(2, 2), P(0, 2)));
}

TEST(Orders, UnnumberedWeightedOrderStableSortTurnsEqualsAround) {
    std::vector<unsigned> w(6, 0);
    w[4] = 1;  // numbered
    UnnumberedWeightedOrder<unsigned> ord(w.data());
    std::vector<std::pair<unsigned, unsigned>> v{{0, 2}, {1, 2}, {2, 5}, {3, 2}, {4, 9}, {5, 0}};
    std::stable_sort(v.begin(), v.end(), ord);
    // Heaviest unnumbered first; the three of weight 2 come out reversed.
    const unsigned expect[6] = {2, 3, 1, 0, 4, 5};
    for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(v[i].first, expect[i]) << i;
    // With all weights equal and nothing numbered the order is reversed whole.
    std::vector<unsigned> z(4, 0);
    UnnumberedWeightedOrder<unsigned> oz(z.data());
    std::vector<std::pair<unsigned, unsigned>> u{{0, 1}, {1, 1}, {2, 1}, {3, 1}};
    std::stable_sort(u.begin(), u.end(), oz);
    for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(u[i].first, 3 - i);
}

TYPED_TEST(SetOpsTyped, ResultTypes) {
    typedef TypeParam T;
    const std::set<T> A{1};
    const std::set<T>* pa = &A;
    static_assert(std::is_same<decltype(is_subset(pa, pa)), bool>::value, "");
    static_assert(std::is_same<decltype(intersect_size(pa, pa)), T>::value, "a count in the index type");
    static_assert(std::is_same<decltype(intersect(pa, pa)), std::set<T>*>::value, "a set the caller owns");
    std::set<T>* R = intersect(pa, pa);
    EXPECT_NE(R, pa);
    EXPECT_EQ(*R, A);
    delete R;
}

// ---- set operations ----

TYPED_TEST(SetOpsTyped, SubsetAnswers) {
    const std::set<TypeParam> E, A{2, 5}, B{1, 2, 5, 8}, C{2, 6};
    const std::set<TypeParam>*pe = &E, *pa = &A, *pb = &B, *pc = &C;
    EXPECT_TRUE(is_subset(pe, pb));
    EXPECT_TRUE(is_subset(pe, pe));
    EXPECT_TRUE(is_subset(pa, pb));
    EXPECT_FALSE(is_subset(pb, pa));
    EXPECT_FALSE(is_subset(pc, pb));
    EXPECT_FALSE(is_subset(pa, pe));
}

TYPED_TEST(SetOpsTyped, IntersectionSizeAndMembers) {
    const std::set<TypeParam> A{1, 3, 5, 7, 9}, B{3, 4, 5, 9, 10}, E;
    const std::set<TypeParam>*pa = &A, *pb = &B, *pe = &E;
    EXPECT_EQ(intersect_size(pa, pb), (TypeParam)3);
    EXPECT_EQ(intersect_size(pb, pa), (TypeParam)3);
    EXPECT_EQ(intersect_size(pa, pe), (TypeParam)0);
    std::set<TypeParam>* R = intersect(pa, pb);
    EXPECT_EQ(*R, (std::set<TypeParam>{3, 5, 9}));
    delete R;
    R = intersect(pe, pa);
    EXPECT_TRUE(R->empty());
    delete R;
}
