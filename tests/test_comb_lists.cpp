// The process-wide tables of permutations and set partitions: content and
// order of the walk, completeness against counts computed here by recurrence,
// the 8-bit limit of the box masks and the checks of the accessors.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/comb/counting>
#include <QZ/comb/lists>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

typedef std::vector<unsigned> Row;

template <typename T> Row permRow(size_t n, size_t i) {
    const T* r = QZ::getPermutation<T>(n, i);
    return Row(r, r + n);
}

template <typename T> Row partRow(size_t n, size_t k, size_t i) {
    const T* r = QZ::getUnorderedkPartition<T>(n, k, i);
    return Row(r, r + n);
}

std::string digits(const Row& r) {
    std::string s;
    for (unsigned x : r) s += std::to_string(x);
    return s;
}

// Stirling numbers of the second kind by S(n, k) = k S(n-1, k) + S(n-1, k-1).
size_t stirlingByRecurrence(size_t n, size_t k) {
    std::vector<std::vector<size_t>> S(n + 1, std::vector<size_t>(n + 2, 0));
    S[0][0] = 1;
    for (size_t a = 1; a <= n; ++a)
        for (size_t b = 1; b <= a; ++b) S[a][b] = b * S[a - 1][b] + S[a - 1][b - 1];
    return k <= n ? S[n][k] : 0;
}

size_t factorialOf(size_t n) { return n <= 1 ? 1 : n * factorialOf(n - 1); }

// The blocks of a partition named by their first element, so that two rows
// that only rename boxes compare equal.
Row canonical(const Row& boxes) {
    std::vector<unsigned> name(boxes.size() + 2, 0);
    unsigned next = 1;
    Row c;
    for (unsigned b : boxes) {
        if (name[b] == 0) name[b] = next++;
        c.push_back(name[b]);
    }
    return c;
}

template <typename T> void expectEveryPermutationOnce(size_t n) {
    const size_t N = factorialOf(n);
    std::set<Row> seen;
    Row prev;
    for (size_t i = 0; i < N; ++i) {
        const Row r = permRow<T>(n, i);
        Row sorted = r;
        std::sort(sorted.begin(), sorted.end());
        for (size_t j = 0; j < n; ++j) ASSERT_EQ(sorted[j], j + 1) << "n=" << n << " row " << i;
        EXPECT_TRUE(seen.insert(r).second) << "n=" << n << " row " << i << " repeats";
        // Neighbouring rows swap two adjacent positions.
        if (i > 0) {
            std::vector<size_t> moved;
            for (size_t j = 0; j < n; ++j)
                if (r[j] != prev[j]) moved.push_back(j);
            ASSERT_EQ(moved.size(), 2u) << "n=" << n << " row " << i;
            EXPECT_EQ(r[moved[0]], prev[moved[1]]);
            EXPECT_EQ(r[moved[1]], prev[moved[0]]);
            const int d = (int)r[moved[0]] - (int)r[moved[1]];
            EXPECT_TRUE(d == 1 || d == -1);
        }
        prev = r;
    }
    EXPECT_EQ(seen.size(), N);
}

template <typename T> void expectEveryPartitionOnce(size_t n, size_t k) {
    const size_t N = stirlingByRecurrence(n, k);
    ASSERT_EQ((size_t)(QZ::stirling2<size_t, double>(n, k)), N) << n << "," << k;
    std::set<Row> seen;
    for (size_t i = 0; i < N; ++i) {
        const Row r = partRow<T>(n, k, i);
        std::vector<bool> used(k + 1, false);
        for (unsigned b : r) {
            ASSERT_GE(b, 1u);
            ASSERT_LE(b, k);
            used[b] = true;
        }
        for (size_t b = 1; b <= k; ++b) EXPECT_TRUE(used[b]) << "box " << b << " empty in row " << i;
        EXPECT_TRUE(seen.insert(canonical(r)).second) << "(" << n << "," << k << ") row " << i << " repeats";
    }
    EXPECT_EQ(seen.size(), N);
}

template <typename T> void expectCompleteTablesUpTo8() {
    for (size_t n = 1; n <= 8; ++n) {
        SCOPED_TRACE("n=" + std::to_string(n));
        expectEveryPermutationOnce<T>(n);
        for (size_t k = 1; k <= n; ++k) expectEveryPartitionOnce<T>(n, k);
    }
}

}  // namespace

TEST(PermutationTable, ThreeElementsInWalkOrder) {
    std::vector<std::string> got;
    for (size_t i = 0; i < 6; ++i) got.push_back(digits(permRow<unsigned int>(3, i)));
    EXPECT_EQ(got, (std::vector<std::string>{"123", "132", "231", "321", "312", "213"}));
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(digits(permRow<unsigned char>(3, i)), got[i]);
        EXPECT_EQ(digits(permRow<unsigned long>(3, i)), got[i]);
    }
}

TEST(PermutationTable, RowsArePositionsOfTheElements) {
    // Row 2 of n = 3 is 231: element 1 at position 2, 2 at 3, 3 at 1, so
    // reading the positions back gives the arrangement 3 1 2.
    const Row r = permRow<unsigned short>(3, 2);
    Row arrangement(3);
    for (size_t e = 0; e < 3; ++e) arrangement[r[e] - 1] = (unsigned)(e + 1);
    EXPECT_EQ(arrangement, (Row{3, 1, 2}));
}

TEST(PartitionTable, FourIntoTwoInWalkOrder) {
    std::vector<std::string> got;
    for (size_t i = 0; i < 7; ++i) got.push_back(digits(partRow<unsigned int>(4, 2, i)));
    EXPECT_EQ(got, (std::vector<std::string>{"1112", "1121", "1122", "1222", "1221", "1211", "1212"}));
    for (size_t i = 0; i < 7; ++i) EXPECT_EQ(digits(partRow<unsigned char>(4, 2, i)), got[i]);
}

TEST(PartitionTable, OneBoxIsAllOnesAndNBoxesCountUp) {
    for (size_t n = 1; n <= 12; ++n) {
        EXPECT_EQ(partRow<unsigned short>(n, 1, 0), Row(n, 1)) << n;
        Row up;
        for (size_t j = 1; j <= n; ++j) up.push_back((unsigned)j);
        EXPECT_EQ(partRow<unsigned short>(n, n, 0), up) << n;
    }
    EXPECT_EQ(partRow<unsigned char>(8, 1, 0), Row(8, 1));
    EXPECT_EQ(partRow<unsigned long>(15, 15, 0).back(), 15u);
}

TEST(CombinatorialTables, EveryObjectExactlyOnceUpToEightElements8Bit) { expectCompleteTablesUpTo8<unsigned char>(); }
TEST(CombinatorialTables, EveryObjectExactlyOnceUpToEightElements16Bit) { expectCompleteTablesUpTo8<unsigned short>(); }
TEST(CombinatorialTables, EveryObjectExactlyOnceUpToEightElements32Bit) { expectCompleteTablesUpTo8<unsigned int>(); }
TEST(CombinatorialTables, EveryObjectExactlyOnceUpToEightElements64Bit) { expectCompleteTablesUpTo8<unsigned long>(); }

TEST(CombinatorialTables, AllWidthsGiveTheSameRows) {
    for (size_t n = 1; n <= 7; ++n) {
        for (size_t i = 0; i < factorialOf(n); ++i) {
            const Row r = permRow<unsigned char>(n, i);
            ASSERT_EQ(permRow<unsigned short>(n, i), r);
            ASSERT_EQ(permRow<unsigned int>(n, i), r);
            ASSERT_EQ(permRow<unsigned long>(n, i), r);
        }
        for (size_t k = 1; k <= n; ++k)
            for (size_t i = 0; i < stirlingByRecurrence(n, k); ++i) {
                const Row r = partRow<unsigned char>(n, k, i);
                ASSERT_EQ(partRow<unsigned short>(n, k, i), r);
                ASSERT_EQ(partRow<unsigned long>(n, k, i), r);
            }
    }
}

TEST(CombinatorialTables, WideEntriesStayCompleteBeyondEightElements) {
    expectEveryPartitionOnce<unsigned short>(9, 4);
    expectEveryPartitionOnce<unsigned int>(10, 3);
    expectEveryPartitionOnce<unsigned long>(11, 9);
}

TEST(CombinatorialTables, EightBitMasksLoseTheNinthElementAndTheWalkEndsEarly) {
    // Element 9 has no bit in an 8-bit mask: the walk goes astray at once,
    // stops before the table is full, and the rows it never reached stay 0.
    const size_t N = stirlingByRecurrence(9, 3);
    size_t zeroRows = 0, differ = 0;
    for (size_t i = 0; i < N; ++i) {
        const Row narrow = partRow<unsigned char>(9, 3, i);
        if (narrow == Row(9, 0)) ++zeroRows;
        if (narrow != partRow<unsigned int>(9, 3, i)) ++differ;
    }
    EXPECT_GT(zeroRows, 0u);
    EXPECT_EQ(partRow<unsigned char>(9, 3, N - 1), Row(9, 0));
    EXPECT_GT(differ, N / 2);
    // The first row is still the starting partition.
    EXPECT_EQ(partRow<unsigned char>(9, 3, 0), partRow<unsigned int>(9, 3, 0));
}

TEST(CombinatorialTablesDeathTest, EightBitMasksCanEmptyTheActiveRange) {
    EXPECT_DEATH(QZ::getUnorderedkPartition<unsigned char>(9, 8, 0), "Assertion `largest_active>0' failed");
}

TEST(CombinatorialTablesDeathTest, OutOfRangeSizesFailTheAccessors) {
    EXPECT_DEATH(QZ::getPermutation<unsigned int>(14, 0), "comb/lists.*Assertion `false' failed");
    EXPECT_DEATH(QZ::getPermutation<unsigned int>(0, 0), "Assertion `false' failed");
    EXPECT_DEATH(QZ::getUnorderedkPartition<unsigned int>(16, 1, 0), "comb/lists.*Assertion `false' failed");
    EXPECT_DEATH(QZ::getUnorderedkPartition<unsigned int>(4, 5, 0), "Assertion `false' failed");
    EXPECT_DEATH(QZ::getUnorderedkPartition<unsigned int>(4, 0, 0), "Assertion `false' failed");
    EXPECT_DEATH(QZ::getUnorderedkPartition<unsigned int>(0, 0, 0), "Assertion `false' failed");
}

TEST(CombinatorialTables, InstancesAreBuiltOnceAndSharedByThreads) {
    const unsigned short* a[4] = {nullptr, nullptr, nullptr, nullptr};
    std::vector<std::thread> th;
    for (int t = 0; t < 4; ++t)
        th.emplace_back([&a, t] { a[t] = QZ::getUnorderedkPartition<unsigned short>(10, 5, 0); });
    for (std::thread& x : th) x.join();
    for (int t = 1; t < 4; ++t) EXPECT_EQ(a[t], a[0]);
    EXPECT_EQ(QZ::getUnorderedkPartition<unsigned short>(10, 5, 3), a[0] + 3 * 10);
    expectEveryPartitionOnce<unsigned short>(10, 5);
    const auto& P = QZ::PermutationList<5, unsigned int>::getInstance();
    const auto* again = &QZ::PermutationList<5, unsigned int>::getInstance();
    EXPECT_EQ(&P, again);
    EXPECT_EQ(P.size(), 120u);
    EXPECT_EQ(P.length(), 5u);
    EXPECT_EQ(P[7], P.at(7));
    EXPECT_EQ(P.at(7), QZ::getPermutation<unsigned int>(5, 7));
    const auto& U = QZ::UnorderedkPartitionList<6, 3, unsigned long>::getInstance();
    EXPECT_EQ(U.size(), 90u);
    EXPECT_EQ(U.at(89), (QZ::getUnorderedkPartition<unsigned long>(6, 3, 89)));
}
