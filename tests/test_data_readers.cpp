// The three readers: comma-separated text, the binary table, host arrays.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>

#include <cstring>
#include <memory>
#include <sstream>

using QZ::CategoricalBinaryData;
using QZ::CategoricalCSVData;
using QZ::CategoricalData;
using QZ::CategoricalNumPyData;
using namespace qztest;

namespace {

typedef std::vector<std::vector<std::string>*> Lists;

std::unique_ptr<CategoricalCSVData> csv(const std::string& text, bool header = true, bool shared = false,
                                        Lists* YN = nullptr, char mis = '?') {
    std::unique_ptr<CategoricalCSVData> D(new CategoricalCSVData(header, mis, shared, YN));
    std::istringstream in(text);
    D->read(in);
    return D;
}

std::vector<size_t> rowOf(const CategoricalData& D, size_t r) {
    std::vector<size_t> v;
    for (size_t c = 0; c < D.columns(); ++c) v.push_back(D.get(r, c));
    return v;
}

void put64(std::string& s, uint64_t x) { s.append(reinterpret_cast<const char*>(&x), 8); }

std::string binaryTable(uint64_t N, uint64_t n, uint64_t sX, const std::string& cells) {
    std::string s("qzbin$\0#", 8);
    put64(s, N);
    put64(s, n);
    put64(s, sX);
    return s + cells;
}

std::unique_ptr<CategoricalBinaryData> binary(const std::string& bytes) {
    std::unique_ptr<CategoricalBinaryData> D(new CategoricalBinaryData());
    std::istringstream in(bytes);
    D->read(in);
    return D;
}

}  // namespace

// ---------------------------------------------------------------- text

TEST(CsvReader, HeaderThenDiscardedLine) {
    auto D = csv("a,b\nx,y\nz,w\n");
    EXPECT_EQ(D->header, (std::vector<std::string>{"a", "b"}));
    ASSERT_EQ(D->rows(), 1u);
    EXPECT_EQ(D->columns(), 2u);
    EXPECT_EQ(rowOf(*D, 0), (std::vector<size_t>{0, 0}));
    EXPECT_EQ(D->getString(0, 0), "z");
    EXPECT_EQ(D->getString(0, 1), "w");
    // The discarded line defines no category.
    EXPECT_EQ(D->categories(0), 1u);
    EXPECT_EQ(D->states[0]->count("x"), 0u);
}

TEST(CsvReader, WithoutHeaderTheFirstLineIsDiscarded) {
    auto D = csv("a,b\nx,y\nz,w\n", false);
    EXPECT_TRUE(D->header.empty());
    ASSERT_EQ(D->rows(), 2u);
    EXPECT_EQ(rowOf(*D, 0), (std::vector<size_t>{0, 0}));
    EXPECT_EQ(rowOf(*D, 1), (std::vector<size_t>{1, 1}));
    EXPECT_EQ(D->getString(0, 0), "x");
    EXPECT_EQ(D->getString(1, 1), "w");
    EXPECT_EQ(D->states[0]->count("a"), 0u);
}

TEST(CsvReader, EmptyLinesAreSkipped) {
    auto D = csv("h1,h2\nskip,skip\n\nx,y\n\n\nz,w\n\n");
    ASSERT_EQ(D->rows(), 2u);
    EXPECT_EQ(rowOf(*D, 1), (std::vector<size_t>{1, 1}));
}

TEST(CsvReader, LockedListCodesByPositionAndUnknownIsMissing) {
    std::vector<std::string> c0 = {"p", "q"};
    Lists YN = {&c0};
    auto D = csv("h\nskip\nq\np\nr\n", true, false, &YN);
    ASSERT_EQ(D->rows(), 3u);
    EXPECT_EQ(D->get(0, 0), 1u);
    EXPECT_EQ(D->get(1, 0), 0u);
    EXPECT_EQ(D->get(2, 0), 65535u);
    // Locked lists stay as supplied: reading adds no name.
    EXPECT_EQ(D->categories(0), 2u);
    EXPECT_EQ(D->statesInv.size(), 1u);
}

TEST(CsvReader, LockedListsUnderSharedStatesUseTheColumnsOwnList) {
    std::vector<std::string> c0 = {"a", "b"}, c1 = {"b", "a"};
    Lists YN = {&c0, &c1};
    auto D = csv("h,i\nskip,skip\na,a\n", true, true, &YN);
    EXPECT_EQ(rowOf(*D, 0), (std::vector<size_t>{0, 1}));
}

TEST(CsvReader, SharedStatesCodeAcrossColumns) {
    auto D = csv("h,i\nq,q\nb,a\na,c\n", true, true);
    ASSERT_EQ(D->rows(), 2u);
    EXPECT_EQ(rowOf(*D, 0), (std::vector<size_t>{0, 1}));
    EXPECT_EQ(rowOf(*D, 1), (std::vector<size_t>{1, 2}));
    EXPECT_EQ(D->states.size(), 1u);
    EXPECT_EQ(D->statesInv.size(), 1u);
    EXPECT_EQ(*D->statesInv[0], (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(D->categories(1), 3u);
}

TEST(CsvReader, FirstSeenTokenGetsTheLowestCode) {
    auto D = csv("h,i\nq,q\nz,m\na,m\nz,b\nk,a\n");
    EXPECT_EQ(*D->statesInv[0], (std::vector<std::string>{"z", "a", "k"}));
    EXPECT_EQ(*D->statesInv[1], (std::vector<std::string>{"m", "b", "a"}));
    EXPECT_EQ(rowOf(*D, 3), (std::vector<size_t>{2, 2}));
    for (size_t c = 0; c < 2; ++c)
        for (const auto& kv : *D->states[c]) EXPECT_EQ(D->statesInv[c]->at(kv.second), kv.first);
}

TEST(CsvReader, NoQuotingNoTrimming) {
    auto D = csv("h,i\nq,q\n\"a,b\", c\n");
    ASSERT_EQ(D->rows(), 1u);
    ASSERT_EQ(D->columns(), 3u);  // the quote does not protect the comma
    EXPECT_EQ(D->getString(0, 0), "\"a");
    EXPECT_EQ(D->getString(0, 1), "b\"");
    EXPECT_EQ(D->getString(0, 2), " c");  // the blank is part of the token
}

TEST(CsvReader, CarriageReturnStaysInTheLastToken) {
    auto D = csv("h,i\r\nq,q\r\nx,y\r\nx,y\n");
    EXPECT_EQ(D->header.back(), "i\r");
    ASSERT_EQ(D->rows(), 2u);
    EXPECT_EQ(D->get(0, 0), D->get(1, 0));
    EXPECT_NE(D->get(0, 1), D->get(1, 1));  // "y\r" and "y" are two categories
    EXPECT_EQ(D->categories(1), 2u);
    EXPECT_EQ(D->getString(0, 1), "y\r");
}

TEST(CsvReader, FinalLineNeedsNoNewline) {
    auto D = csv("h,i\nq,q\nx,y\nz,w");
    ASSERT_EQ(D->rows(), 2u);
    EXPECT_EQ(D->getString(1, 1), "w");
}

TEST(CsvReader, AnyTokenStartingWithMissingCharIsMissing) {
    auto D = csv("h,i\nq,q\n?x,y\nz,?\n");
    EXPECT_EQ(D->get(0, 0), 65535u);
    EXPECT_EQ(D->get(1, 1), 65535u);
    EXPECT_EQ(D->categories(0), 1u);
    EXPECT_EQ(D->getString(0, 0), "?");
}

TEST(CsvReader, MissingCellsKeepTheirColumn) {
    auto D = csv("h,i,j\nq,q,q\n?,a,b\nc,?,d\n");
    EXPECT_EQ(*D->statesInv[1], (std::vector<std::string>{"a"}));
    EXPECT_EQ(*D->statesInv[2], (std::vector<std::string>{"b", "d"}));
    EXPECT_EQ(rowOf(*D, 1), (std::vector<size_t>{0, 65535, 1}));
}

TEST(CsvReader, EmptyTokenIsOutOfRange) {
    EXPECT_THROW(csv("h,i\nq,q\nx,,y\n"), std::out_of_range);
    EXPECT_THROW(csv("h,i\nq,q\nx,y,\n"), std::out_of_range);
    EXPECT_THROW(csv("h,i\nq,q\n,y\n"), std::out_of_range);
}

TEST(CsvReaderDeath, RaggedRowsAssert) {
    EXPECT_DEATH(csv("h,i\nq,q\nx,y\nz\n"), "Assertion `i==n\\*N' failed");
    EXPECT_DEATH(csv("h,i\nq,q\nx,y\nz,w,v\n"), "Assertion `i==n\\*N' failed");
}

TEST(CsvReaderDeath, RaggedRowsThatCancelStillAssertInsteadOfShiftingCells) {
    // A short row and a long one make up the cell count between them; the
    // copy stops at the short row, so the count falls short all the same.
    EXPECT_DEATH(csv("h,i\nq,q\nx,y\nz\nw,v,u\n"), "Assertion `i==n\\*N' failed");
    EXPECT_DEATH(csv("h,i\nq,q\nx,y\nw,v,u\nz\n"), "Assertion `i==n\\*N' failed");
}

TEST(CsvReader, NoKeptLineLeavesTheTableEmpty) {
    auto D = csv("h,i\nq,q\n");
    EXPECT_EQ(D->rows(), 0u);
    EXPECT_EQ(D->columns(), 0u);
    EXPECT_EQ(D->data, nullptr);
    auto E = csv("");
    EXPECT_EQ(E->rows(), 0u);
    EXPECT_EQ(E->data, nullptr);
}

TEST(CsvReader, TwoReadsOfOneFileAgree) {
    const std::string f = tmpPath("reader_twice.csv");
    writeFile(f, "h,i,j\nq,q,q\nb,x,1\na,y,2\nb,?,1\nc,y,3\n");
    CategoricalCSVData A(true, '?', false, nullptr), B(true, '?', false, nullptr);
    A.read(f);
    B.read(f);
    ASSERT_EQ(A.rows(), 4u);
    ASSERT_EQ(A.rows(), B.rows());
    EXPECT_EQ(std::vector<unsigned short>(A.data, A.data + 12), std::vector<unsigned short>(B.data, B.data + 12));
    EXPECT_EQ(*A.statesInv[2], *B.statesInv[2]);
}

TEST(CsvReader, AddedFlagsAndOwnership) {
    auto D = csv("h,i,j\nq,q,q\nx,y,z\n");
    EXPECT_EQ(D->added, (std::vector<bool>{false, false, false}));
    EXPECT_TRUE(D->myData);
}

TEST(CsvReader, MissingFileStopsWithAnEmptyTable) {
    // The loader checks existence first; a reader on its own must not spin.
    CategoricalCSVData D(true, '?', false, nullptr);
    D.read(tmpPath("no_such_file.csv"));
    EXPECT_EQ(D.rows(), 0u);
}

TEST(CsvReader, ManyRowsAndCategories) {
    // Every row brings a new category in column 0: the coding stays dense.
    std::string text = "h,i\nq,q\n";
    const size_t rows = 20000;
    for (size_t r = 0; r < rows; ++r) text += "v" + std::to_string(r) + "," + std::to_string(r % 3) + "\n";
    auto D = csv(text);
    ASSERT_EQ(D->rows(), rows);
    EXPECT_EQ(D->categories(0), rows);
    EXPECT_EQ(D->categories(1), 3u);
    EXPECT_EQ(D->get(rows - 1, 0), rows - 1);
    EXPECT_EQ(D->getString(12345, 0), "v12345");
}

// ---------------------------------------------------------------- binary

TEST(BinaryReader, ReadsHeaderCellsAndNames) {
    auto D = binary(binaryTable(2, 3, 4, std::string("\x00\x01\x02\x03\x00\x01", 6)));
    EXPECT_EQ(D->rows(), 2u);
    EXPECT_EQ(D->columns(), 3u);
    EXPECT_EQ(rowOf(*D, 0), (std::vector<size_t>{0, 1, 2}));
    EXPECT_EQ(rowOf(*D, 1), (std::vector<size_t>{3, 0, 1}));
    EXPECT_FALSE(D->hasHeader);
    EXPECT_TRUE(D->sharedStates);
    EXPECT_EQ(D->missingChar, '?');
    EXPECT_EQ(D->states.size(), 3u);
    for (size_t c = 0; c < 3; ++c) {
        EXPECT_EQ(D->categories(c), 4u);
        EXPECT_EQ(*D->statesInv[c], (std::vector<std::string>{"0", "1", "2", "3"}));
    }
    EXPECT_EQ(D->getString(1, 0), "3");
    EXPECT_EQ(D->added, (std::vector<bool>{false, false, false}));
}

TEST(BinaryReader, ByteFFIsCode255) {
    auto D = binary(binaryTable(1, 2, 3, std::string("\xff\x01", 2)));
    EXPECT_EQ(D->get(0, 0), 255u);
    EXPECT_NE(D->get(0, 0), 65535u);  // no missing value in this format
}

TEST(BinaryReaderDeath, CategoryNameOf255AssertsUnderFewCategories) {
    auto D = binary(binaryTable(1, 1, 255, std::string("\xff", 1)));
    EXPECT_DEATH(D->categoryName(0, D->get(0, 0)), "Assertion `x<categories\\(0\\)' failed");
    auto E = binary(binaryTable(1, 1, 256, std::string("\xff", 1)));
    EXPECT_EQ(E->categoryName(0, E->get(0, 0)), "255");
}

TEST(BinaryReader, ShortFileLeavesCellsZero) {
    auto D = binary(binaryTable(2, 2, 9, std::string("\x07\x08", 2)));
    EXPECT_EQ(rowOf(*D, 0), (std::vector<size_t>{7, 8}));
    EXPECT_EQ(rowOf(*D, 1), (std::vector<size_t>{0, 0}));
}

TEST(BinaryReader, ReadsFromAFile) {
    const std::string f = tmpPath("reader_table.qzb");
    writeFile(f, binaryTable(1, 2, 2, std::string("\x01\x00", 2)));
    CategoricalBinaryData D;
    D.read(f);
    EXPECT_EQ(rowOf(D, 0), (std::vector<size_t>{1, 0}));
}

TEST(BinaryReader, AddColumnsFindsOneTablePerColumn) {
    auto D = binary(binaryTable(1, 2, 2, std::string("\x01\x00", 2)));
    D->addColumns(1, 3);
    EXPECT_EQ(D->states.size(), 3u);
    EXPECT_EQ(*D->statesInv[2], (std::vector<std::string>{"h0", "h1", "h2"}));
    EXPECT_EQ(D->columnName(2), "H2");
}

TEST(BinaryReaderDeath, WrongMagicAsserts) {
    std::string bad = binaryTable(1, 1, 2, std::string("\x01", 1));
    bad[0] = 'Q';
    EXPECT_DEATH(binary(bad), "Assertion `magic == 0x2300246e69627a71' failed");
}

TEST(BinaryReader, MagicIsTheDocumentedNumber) {
    uint64_t m;
    std::memcpy(&m, "qzbin$\0#", 8);
    EXPECT_EQ(m, 0x2300246e69627a71u);
    EXPECT_EQ(CategoricalBinaryData::MAGIC, 0x2300246e69627a71u);
}

// ---------------------------------------------------------------- host arrays

TEST(HostArrayReader, UsesTheArrayInPlace) {
    std::vector<unsigned short> a = {0, 2, 1, 0, 65535, 1};
    CategoricalNumPyData D(false, nullptr);
    D.read(a.data(), 3, 2);
    EXPECT_EQ(D.data, a.data());
    EXPECT_FALSE(D.myData);
    EXPECT_EQ(D.rows(), 3u);
    EXPECT_EQ(D.columns(), 2u);
    EXPECT_EQ(D.get(2, 0), 65535u);
    a[1] = 1;  // the host's changes show through
    EXPECT_EQ(D.get(0, 1), 1u);
    EXPECT_EQ(D.added, (std::vector<bool>{false, false}));
}

TEST(HostArrayReader, CategoriesAreLargestCodePlusOne) {
    std::vector<unsigned short> a = {0, 5, 3, 0, 65535, 1};
    CategoricalNumPyData D(false, nullptr);
    D.read(a.data(), 3, 2);
    EXPECT_EQ(D.categories(0), 4u);  // codes 1 and 2 never occur, still counted
    EXPECT_EQ(D.categories(1), 6u);
    EXPECT_EQ(*D.statesInv[0], (std::vector<std::string>{"0", "1", "2", "3"}));
    EXPECT_EQ(D.states[1]->at("5"), 5u);
    EXPECT_EQ(D.getString(1, 0), "3");
}

TEST(HostArrayReader, AllMissingColumnHasOneCategory) {
    std::vector<unsigned short> a = {65535, 1, 65535, 0};
    CategoricalNumPyData D(false, nullptr);
    D.read(a.data(), 2, 2);
    EXPECT_EQ(D.categories(0), 1u);
    EXPECT_EQ(*D.statesInv[0], (std::vector<std::string>{"0"}));
    EXPECT_EQ(D.categories(1), 2u);
}

TEST(HostArrayReader, SharedStatesGrowTableZeroOnly) {
    std::vector<unsigned short> a = {1, 4, 0, 2};
    CategoricalNumPyData D(true, nullptr);
    D.read(a.data(), 2, 2);
    EXPECT_EQ(D.states.size(), 2u);
    EXPECT_EQ(D.statesInv[0]->size(), 5u);
    EXPECT_TRUE(D.statesInv[1]->empty());
    EXPECT_TRUE(D.states[1]->empty());
    EXPECT_EQ(D.categories(0), 5u);
    EXPECT_EQ(D.categories(1), 5u);
}

TEST(HostArrayReader, LockedStatesAreKept) {
    std::vector<std::string> c0 = {"no", "yes"};
    Lists YN = {&c0};
    std::vector<unsigned short> a = {1, 0};
    CategoricalNumPyData D(false, &YN);
    D.read(a.data(), 2, 1);
    EXPECT_EQ(D.categories(0), 2u);
    EXPECT_EQ(D.getString(0, 0), "yes");
}

TEST(HostArrayReader, ReadByFileNameLeavesTheTableEmpty) {
    const std::string f = tmpPath("reader_numpy.csv");
    writeFile(f, "a,b\nx,y\nz,w\n");
    CategoricalNumPyData D(false, nullptr);
    D.read(f);
    EXPECT_EQ(D.rows(), 0u);
    EXPECT_EQ(D.columns(), 0u);
    std::istringstream in("a,b\nx,y\nz,w\n");
    D.read(in);
    EXPECT_EQ(D.N, 0u);
}

TEST(CsvReader, ColumnsWithoutARealValueHaveNoState) {
    // Tables are made as values are met; a trailing column without any value
    // still gets its own, empty one instead of being read past.
    auto D = csv("h,i,j\nq,q,q\n?,x,?\n?,y,?\n");
    ASSERT_EQ(D->columns(), 3u);
    EXPECT_EQ(D->categories(0), 0u);
    EXPECT_EQ(D->categories(1), 2u);
    EXPECT_EQ(D->categories(2), 0u);
    EXPECT_TRUE(D->categoryNames(2)->empty());
    EXPECT_EQ(D->get(0, 2), 65535u);
    // Under shared states one table serves all columns.
    auto E = csv("h,i\nq,q\nx,?\ny,?\n", true, true);
    EXPECT_EQ(E->categories(1), 2u);
}
