// The categorical table: coding, access, names, printing, added columns.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/QZDATA>

#include <memory>
#include <sstream>

using QZ::CategoricalCSVData;
using QZ::CategoricalData;
using QZ::CategoricalNumPyData;
using namespace qztest;

namespace {

typedef std::vector<std::vector<std::string>*> Lists;

// A table read from text; the line behind the header is the sacrificial one.
std::unique_ptr<CategoricalCSVData> csv(const std::string& text, bool header = true, char mis = '?',
                                        bool shared = false, Lists* YN = nullptr) {
    std::unique_ptr<CategoricalCSVData> D(new CategoricalCSVData(header, mis, shared, YN));
    std::istringstream in(text);
    D->read(in);
    return D;
}

// a,b,c with two data rows behind the discarded one.
const char* kABC = "a,b,c\nskip,skip,skip\nx,p,?\ny,p,u\n";

}  // namespace

TEST(CategoricalTable, MissingCellIs65535AndPrintsAsMissingString) {
    auto D = csv(kABC);
    ASSERT_EQ(D->rows(), 2u);
    EXPECT_EQ(D->get(0, 2), 65535u);
    EXPECT_EQ(D->get(0, 2), (size_t)CategoricalData::MIS_VAL);
    EXPECT_EQ(D->categoryName(2, D->get(0, 2)), "?");
    EXPECT_EQ(D->missingString, "?");
    EXPECT_EQ(D->get(1, 2), 0u);
    EXPECT_EQ(D->categoryName(2, 0), "u");
}

TEST(CategoricalTable, OtherMissingCharacterPrintsAsItself) {
    auto D = csv("a,b\nq,q\nx,*\ny,z\n", true, '*');
    EXPECT_EQ(D->get(0, 1), 65535u);
    EXPECT_EQ(D->getString(0, 1), "*");
}

TEST(CategoricalTable, SizesAndCounts) {
    auto D = csv(kABC);
    EXPECT_EQ(D->columns(), 3u);
    EXPECT_EQ(D->rows(), 2u);
    EXPECT_EQ(D->size(), 2u);
    EXPECT_EQ(D->categories(0), 2u);
    EXPECT_EQ(D->categories(1), 1u);
    EXPECT_EQ(D->categories(2), 1u);
    D->addColumns(2, 5);
    EXPECT_EQ(D->columns(), 5u);
    EXPECT_EQ(D->categories(3), 5u);
}

TEST(CategoricalTable, ColumnNamesWithoutHeaderCountTheWholeTable) {
    // No header: the first line is the discarded one.
    auto D = csv("skip,skip,skip\n0,1,2\n", false);
    ASSERT_EQ(D->columns(), 3u);
    EXPECT_EQ(D->columnName(0), "X0");
    EXPECT_EQ(D->columnName(2), "X2");
    D->addColumns(2, 2);
    EXPECT_EQ(D->columnName(3), "H3");
    EXPECT_EQ(D->columnName(4), "H4");
    EXPECT_TRUE(D->header.empty());
}

TEST(CategoricalTable, ColumnNamesWithHeaderCountAddedColumnsOnly) {
    auto D = csv(kABC);
    EXPECT_EQ(D->columnName(0), "a");
    D->addColumns(1, 2);
    EXPECT_EQ(D->columnName(3), "H1");
    D->addColumns(1, 2);
    EXPECT_EQ(D->columnName(4), "H2");
    ASSERT_EQ(D->header.size(), 5u);
}

TEST(CategoricalTable, StoreAfterAddColumnsWritesOnlyFileColumns) {
    auto D = csv(kABC);
    D->addColumns(2, 3);
    D->set(1, 0, 3);
    const std::string f = tmpPath("table_store_added.csv");
    D->store(f);
    EXPECT_EQ(readFile(f), "a,b,c\nx,p,?\ny,p,u\n");
}

TEST(CategoricalTable, StoreWithoutHeaderWritesRowsOnly) {
    auto D = csv("skip,skip\nx,y\nz,?\n", false);
    const std::string f = tmpPath("table_store_nohead.csv");
    D->store(f);
    EXPECT_EQ(readFile(f), "x,y\nz,?\n");
}

TEST(CategoricalTable, StoreDoesNotQuoteNames) {
    // Under locked lists a name may hold a comma; it is written as it is.
    std::vector<std::string> c0 = {"a,b", "c"};
    Lists YN = {&c0};
    auto D = csv("h\nskip\nc\n", true, '?', false, &YN);
    D->set(0, 0, 0);
    const std::string f = tmpPath("table_store_comma.csv");
    D->store(f);
    EXPECT_EQ(readFile(f), "h\na,b\n");
}

TEST(CategoricalTable, StoreTruncatesAnExistingFile) {
    auto D = csv("h\nskip\nx\n");
    const std::string f = tmpPath("table_store_trunc.csv");
    writeFile(f, "a much longer earlier content\nwith two lines\n");
    D->store(f);
    EXPECT_EQ(readFile(f), "h\nx\n");
}

TEST(CategoricalTable, SetWithIgnoreBeyondLastColumnChangesNothing) {
    auto D = csv(kABC);
    D->addColumns(1, 2);
    const std::vector<unsigned short> before(D->data, D->data + D->N * D->n);
    const std::vector<unsigned short> xbefore(D->xdata, D->xdata + D->N * D->H);
    D->set(1, 0, D->n + D->H, true);
    D->set(7, 1, D->n + D->H + 5, true);
    EXPECT_EQ(std::vector<unsigned short>(D->data, D->data + D->N * D->n), before);
    EXPECT_EQ(std::vector<unsigned short>(D->xdata, D->xdata + D->N * D->H), xbefore);
}

TEST(CategoricalTable, SetWritesFileAndAddedCells) {
    auto D = csv(kABC);
    D->addColumns(2, 3);
    D->set(1, 0, 0);
    D->set(2, 1, 4);
    D->set(CategoricalData::MIS_VAL, 1, 1);
    EXPECT_EQ(D->get(0, 0), 1u);
    EXPECT_EQ(D->get(1, 4), 2u);
    EXPECT_EQ(D->get(1, 1), 65535u);
    EXPECT_EQ(D->xdata[1 * 2 + 1], 2u);
    // With ignore the category check is skipped too.
    D->set(9, 0, 1, true);
    EXPECT_EQ(D->get(0, 1), 9u);
}

TEST(CategoricalTableDeath, SetWithCodeEqualToCategoriesAsserts) {
    auto D = csv(kABC);
    ASSERT_EQ(D->categories(0), 2u);
    EXPECT_DEATH(D->set(2, 0, 0), "Assertion `ignore \\|\\| v<categories\\(col\\) \\|\\| v==MIS_VAL' failed");
    D->set(65535, 0, 0);
    EXPECT_EQ(D->get(0, 0), 65535u);
    D->set(1, 0, 0);
    EXPECT_EQ(D->get(0, 0), 1u);
}

TEST(CategoricalTableDeath, SetBeyondColumnsAsserts) {
    auto D = csv(kABC);
    EXPECT_DEATH(D->set(0, 0, 3), "Assertion `ignore \\|\\| col<n\\+H' failed");
}

TEST(CategoricalTableDeath, GetOutsideTheTableAsserts) {
    auto D = csv(kABC);
    EXPECT_DEATH(D->get(0, 3), "Assertion `col<n\\+H && row<N' failed");
    EXPECT_DEATH(D->get(2, 0), "Assertion `col<n\\+H && row<N' failed");
    EXPECT_DEATH(D->getString(2, 0), "Assertion `col<n\\+H && row<N' failed");
}

TEST(CategoricalTableDeath, ColumnIndexChecks) {
    auto D = csv(kABC);
    EXPECT_DEATH(D->categories(3), "Assertion `col<n\\+H' failed");
    EXPECT_DEATH(D->categoryName(3, 0), "Assertion `c<n\\+H' failed");
    EXPECT_DEATH(D->categoryNames(3), "Assertion `c<n\\+H' failed");
    EXPECT_DEATH(D->columnName(3), "Assertion `c<n\\+H' failed");
}

TEST(CategoricalTableDeath, CategoryNameBeyondCategoriesAsserts) {
    auto D = csv(kABC);
    EXPECT_DEATH(D->categoryName(0, 2), "Assertion `x<categories\\(c\\)' failed");
    auto S = csv("a,b\nq,q\nx,y\n", true, '?', true);
    ASSERT_EQ(S->categories(1), 2u);
    EXPECT_EQ(S->categoryName(1, 0), "x");
    EXPECT_DEATH(S->categoryName(1, 2), "Assertion `x<categories\\(0\\)' failed");
}

TEST(CategoricalTable, CategoryNameThroughAShortListIsOutOfRange) {
    auto D = csv(kABC);
    D->addColumns(1, 3);
    D->trimCategories(3, 3);
    D->statesInv[3]->resize(1);  // a list shorter than its map
    EXPECT_THROW(D->categoryName(3, 2), std::out_of_range);
}

TEST(CategoricalTable, FillRBMLayerWithEveryDistanceAtN0WritesZero) {
    // Row 0 differs from row 1 in both visible columns. Both centres of the
    // hidden column are row 1, so every distance of row 0 is n0 = 2: no
    // centre is strictly closer than n0, and the cell gets code 0 although
    // it held 1 before.
    auto D = csv("a,b\nq,q\nx,x\ny,y\n");
    D->addColumns(1, 2);
    D->set(1, 0, 2);
    D->set(1, 1, 2);
    const unsigned int sel[2] = {1, 1};
    D->fillRBMLayer<unsigned int>(0, 2, 1, 2, sel);
    EXPECT_EQ(D->get(0, 2), 0u);
    // Row 1 is at distance 0 from both centres: the tie goes to h = 0.
    EXPECT_EQ(D->get(1, 2), 0u);
}

TEST(CategoricalTable, FillRBMLayerPicksNearestCentreAndLowestOnTies) {
    // Four rows over three visible columns, one hidden column with 3 centres.
    auto D = csv("a,b,c\nq,q,q\n0,0,0\n0,0,1\n1,1,1\n0,1,1\n");
    D->addColumns(1, 3);
    // Centres: h0 = row 0 (0,0,0), h1 = row 2 (1,1,1), h2 = row 2 again.
    const unsigned long sel[3] = {0, 2, 2};
    D->fillRBMLayer<unsigned long>(0, 3, 1, 3, sel);
    EXPECT_EQ(D->get(0, 3), 0u);  // distance 0 to h0
    EXPECT_EQ(D->get(1, 3), 0u);  // 1 to h0, 2 to h1
    EXPECT_EQ(D->get(2, 3), 1u);  // 3 to h0, 0 to h1 and h2: the lower wins
    EXPECT_EQ(D->get(3, 3), 1u);  // 2 to h0, 1 to h1
}

TEST(CategoricalTable, FillRBMLayerAllWidthsAgree) {
    auto run = [](auto tag) {
        typedef decltype(tag) T;
        auto D = csv("a,b,c\nq,q,q\n0,0,0\n0,0,1\n1,1,1\n0,1,1\n");
        D->addColumns(2, 3);
        const T sel[6] = {0, 2, 3, 2, 0, 1};
        D->template fillRBMLayer<T>(0, 3, 2, 3, sel);
        std::vector<size_t> out;
        for (size_t i = 0; i < 4; ++i)
            for (size_t c = 3; c < 5; ++c) out.push_back(D->get(i, c));
        return out;
    };
    const std::vector<size_t> r8 = run((unsigned char)0);
    EXPECT_EQ(r8, run((unsigned short)0));
    EXPECT_EQ(r8, run((unsigned int)0));
    EXPECT_EQ(r8, run((unsigned long)0));
    // Hidden column 0: centres rows 0, 2, 3; column 1: rows 2, 0, 1.
    EXPECT_EQ(r8, (std::vector<size_t>{0, 1, 0, 2, 1, 0, 2, 0}));
}

TEST(CategoricalTable, FillRBMLayerComparesMissingCellsAsCode65535) {
    // Rows: (?, 0), (?, 1), (0, 1). Centres h0 = row 2, h1 = row 1.
    auto D = csv("a,b\nq,q\n?,0\n?,1\n0,1\n");
    D->addColumns(1, 2);
    const unsigned char sel[2] = {2, 1};
    D->fillRBMLayer<unsigned char>(0, 2, 1, 2, sel);
    // Row 0: 2 from h0 (n0, never chosen), 1 from h1: a missing cell equals a missing cell.
    EXPECT_EQ(D->get(0, 2), 1u);
    // Row 1 is h1 itself; row 2 is h0 itself, 1 from h1 (missing against 0).
    EXPECT_EQ(D->get(1, 2), 1u);
    EXPECT_EQ(D->get(2, 2), 0u);
}

TEST(CategoricalTable, FillRBMLayerHonoursOffset) {
    // Columns 0 (ignored), 1-2 visible for the layer, hidden column at 3.
    auto D = csv("a,b,c\nq,q,q\n5,0,0\n6,1,1\n");
    D->addColumns(1, 2);
    const unsigned short sel[2] = {1, 0};
    D->fillRBMLayer<unsigned short>(1, 2, 1, 2, sel);
    EXPECT_EQ(D->get(0, 3), 1u);  // row 0 equals centre h1 (row 0)
    EXPECT_EQ(D->get(1, 3), 0u);  // row 1 equals centre h0 (row 1)
}

TEST(CategoricalTable, FileExistsNeedsEveryCommaPiece) {
    const std::string a = tmpPath("fe_a.txt"), b = tmpPath("fe_b.txt"), missing = tmpPath("fe_missing.txt");
    writeFile(a, "x");
    writeFile(b, "y");
    std::remove(missing.c_str());
    EXPECT_TRUE(QZ::file_exists(a));
    EXPECT_TRUE(QZ::file_exists(a + "," + b));
    EXPECT_FALSE(QZ::file_exists(a + "," + missing));
    EXPECT_FALSE(QZ::file_exists(missing + "," + a));
    EXPECT_FALSE(QZ::file_exists(missing));
    EXPECT_FALSE(QZ::file_exists(""));
    EXPECT_FALSE(QZ::file_exists(a + ","));  // a trailing empty piece
}

TEST(CategoricalTable, FilesizeIsTheLengthInBytes) {
    const std::string f = tmpPath("fs.bin");
    writeFile(f, std::string("ab\0cd\r\n", 7));
    EXPECT_EQ(QZ::filesize(f), 7u);
    writeFile(f, "");
    EXPECT_EQ(QZ::filesize(f), 0u);
}

TEST(CategoricalTable, ToDigit) {
    EXPECT_EQ(QZ::toDigit('0'), 0u);
    EXPECT_EQ(QZ::toDigit('7'), 7u);
    EXPECT_EQ(QZ::toDigit('9'), 9u);
    EXPECT_EQ(QZ::toDigit('a'), ~(size_t)0);
    EXPECT_EQ(QZ::toDigit('/'), ~(size_t)0);
    EXPECT_EQ(QZ::toDigit(':'), ~(size_t)0);
}

TEST(CategoricalTable, ColumnNamesIsOwnedByCallerCategoryNamesIsBorrowed) {
    auto D = csv(kABC);
    std::vector<std::string>* cn = D->columnNames();
    ASSERT_NE(cn, nullptr);
    EXPECT_EQ(*cn, (std::vector<std::string>{"a", "b", "c"}));
    std::vector<std::string>* again = D->columnNames();
    EXPECT_NE(cn, again);  // a fresh vector each time
    delete cn;
    delete again;
    std::vector<std::string>* names = D->categoryNames(0);
    EXPECT_EQ(names, D->statesInv[0]);  // the table's own list
    EXPECT_EQ(*names, (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(D->categoryNames(0), names);
}

TEST(CategoricalTable, SharedStatesUseTableZero) {
    auto D = csv("a,b\nq,q\nb,a\na,c\n", true, '?', true);
    EXPECT_EQ(D->categories(0), 3u);
    EXPECT_EQ(D->categories(1), 3u);
    EXPECT_EQ(D->categoryNames(1), D->statesInv[0]);
    EXPECT_EQ(D->categoryName(1, 2), "c");
}

TEST(CategoricalTable, GetStringAppendsCustomText) {
    auto D = csv(kABC);
    D->setCustomString("0.25", 0, 0);
    D->setCustomString("0.75", 0, 0);  // replaces the earlier text
    EXPECT_EQ(D->getString(0, 0), "x 0.75");
    EXPECT_EQ(D->getString(1, 0), "y");
    const std::string f = tmpPath("table_custom.csv");
    D->store(f);
    EXPECT_EQ(readFile(f), "a,b,c\nx 0.75,p,?\ny,p,u\n");
}

TEST(CategoricalTable, GetStringCustomOnAddedColumnReadsXdata) {
    auto D = csv(kABC);
    D->addColumns(1, 2);
    D->set(1, 1, 3);
    D->setCustomString("t", 1, 3);
    EXPECT_EQ(D->getString(1, 3), "h1 t");
}

TEST(CategoricalTable, GetStringOfAddedColumnReadsData) {
    // Without custom text an added cell is read from data at row*H + col-n:
    // here H = 1, n = 3, so row 1 reads data[1], the file cell (0, 1).
    auto D = csv("a,b,c\nq,q,q\nx,p,u\ny,r,u\n");
    D->addColumns(1, 2);
    D->set(0, 1, 3);               // the real added cell holds 0 ...
    D->set(1, 0, 1);               // ... while data[1] holds 1
    EXPECT_EQ(D->get(1, 3), 0u);
    EXPECT_EQ(D->getString(1, 3), "h1");  // categoryName(3, data[1]) = "h1"
    D->set(0, 0, 1);
    EXPECT_EQ(D->getString(1, 3), "h0");
}

TEST(CategoricalTable, AddColumnsKeepsOldCellsAndMarksNewMissing) {
    auto D = csv(kABC);
    D->addColumns(1, 2);
    D->set(1, 0, 3);
    D->set(0, 1, 3);
    const unsigned short* first = D->xdata;
    D->addColumns(2, 4);
    EXPECT_NE(D->xdata, first);
    EXPECT_EQ(D->H, 3u);
    EXPECT_EQ(D->get(0, 3), 1u);
    EXPECT_EQ(D->get(1, 3), 0u);
    for (size_t r = 0; r < 2; ++r)
        for (size_t c = 4; c < 6; ++c) EXPECT_EQ(D->get(r, c), 65535u);
    EXPECT_EQ(D->added, (std::vector<bool>{false, false, false, true, true, true}));
    EXPECT_EQ(*D->statesInv[4], (std::vector<std::string>{"h0", "h1", "h2", "h3"}));
    EXPECT_EQ(D->states[5]->at("h3"), 3u);
}

TEST(CategoricalTable, AddColumnsZeroAllocatesAnEmptyBlock) {
    auto D = csv(kABC);
    EXPECT_EQ(D->xdata, nullptr);
    D->addColumns(0, 5);
    EXPECT_NE(D->xdata, nullptr);
    EXPECT_EQ(D->H, 0u);
    EXPECT_EQ(D->states.size(), 3u);
    EXPECT_EQ(D->columns(), 3u);
}

TEST(CategoricalTable, AddColumnsUnderLockedStatesAddsNoNames) {
    std::vector<std::string> c0 = {"x", "y"}, c1 = {"p"}, h = {"u0", "u1", "u2"};
    Lists YN = {&c0, &c1, &h};
    auto D = csv("a,b\nq,q\nx,p\ny,p\n", true, '?', false, &YN);
    ASSERT_TRUE(D->states_locked);
    D->addColumns(1, 7);
    EXPECT_EQ(D->states.size(), 3u);
    EXPECT_EQ(D->categories(2), 3u);  // the supplied list, not 7 names
    EXPECT_EQ(D->categoryName(2, 1), "u1");
    EXPECT_EQ(D->header.back(), "H1");
}

TEST(CategoricalTable, TrimCategoriesRewritesAnAddedColumn) {
    auto D = csv(kABC);
    D->addColumns(1, 4);
    D->trimCategories(3, 2);
    EXPECT_EQ(D->categories(3), 2u);
    EXPECT_EQ(*D->statesInv[3], (std::vector<std::string>{"h0", "h1"}));
    D->trimCategories(3, 3);
    // The list is not rewritten: a lack is filled by empty names.
    EXPECT_EQ(*D->statesInv[3], (std::vector<std::string>{"h0", "h1", ""}));
    EXPECT_EQ(D->states[3]->size(), 3u);
    EXPECT_EQ(D->states[3]->at("h2"), 2u);
}

TEST(CategoricalTableDeath, TrimCategoriesOfAFileColumnAsserts) {
    auto D = csv(kABC);
    D->addColumns(1, 4);
    EXPECT_DEATH(D->trimCategories(1, 2), "Assertion `col>=n && col<n\\+H && added\\[col\\]' failed");
    EXPECT_DEATH(D->trimCategories(4, 2), "Assertion `col>=n && col<n\\+H && added\\[col\\]' failed");
}

TEST(CategoricalTable, LockedListsGiveThePositionAsCodeAndAreCopied) {
    std::vector<std::string> c0 = {"y", "x", "y"};  // a name twice: the map keeps the later position
    Lists YN = {&c0};
    CategoricalCSVData D(true, '?', false, &YN);
    c0[1] = "changed";
    EXPECT_TRUE(D.states_locked);
    EXPECT_EQ(D.statesInv[0]->size(), 3u);
    EXPECT_EQ(D.statesInv[0]->at(1), "x");
    EXPECT_EQ(D.states[0]->size(), 2u);
    EXPECT_EQ(D.states[0]->at("y"), 2u);
    EXPECT_EQ(D.states[0]->at("x"), 1u);
}

TEST(CategoricalTable, ConstructorDefaults) {
    CategoricalCSVData D(false, '#', true, nullptr);
    EXPECT_EQ(D.data, nullptr);
    EXPECT_EQ(D.xdata, nullptr);
    EXPECT_EQ(D.N, 0u);
    EXPECT_EQ(D.n, 0u);
    EXPECT_EQ(D.H, 0u);
    EXPECT_FALSE(D.hasHeader);
    EXPECT_TRUE(D.sharedStates);
    EXPECT_FALSE(D.states_locked);
    EXPECT_EQ(D.missingChar, '#');
    EXPECT_EQ(D.missingString, "#");
    EXPECT_TRUE(D.myData);
    EXPECT_TRUE(D.states.empty());
}

TEST(CategoricalTable, DestructorLeavesHostDataAlone) {
    std::vector<unsigned short> host = {0, 1, 1, 0};
    {
        CategoricalNumPyData* D = new CategoricalNumPyData(false, nullptr);
        D->read(host.data(), 2, 2);
        D->addColumns(1, 2);
        CategoricalData* base = D;
        delete base;  // virtual: frees its tables and xdata, not the host array
    }
    EXPECT_EQ(host, (std::vector<unsigned short>{0, 1, 1, 0}));
}

TEST(CategoricalTable, AddRowAndSetColumn) {
    auto D = csv(kABC);
    D->addColumns(1, 2);
    std::vector<unsigned short> row = {1, 0, 65535};
    D->addRow(row);
    EXPECT_EQ(D->rows(), 3u);
    EXPECT_EQ(D->getString(2, 0), "y");
    EXPECT_EQ(D->get(2, 2), 65535u);
    EXPECT_EQ(D->get(2, 3), 65535u);
    EXPECT_EQ(D->get(0, 0), 0u);
    D->setColumn(3, 1);
    for (size_t r = 0; r < 3; ++r) EXPECT_EQ(D->get(r, 3), 1u);
}
