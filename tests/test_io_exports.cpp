// The three text exports of a model's graph: dense adjacency, Trivial Graph
// Format and factor-graph text, including what 8-bit indices do to them.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/QZIO>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace QZ;
using qztest::readFile;
using qztest::tmpPath;

namespace {

// A container that owns nothing the exports don't read: graph, states,
// vertex names and weights in edge order.
template <typename I, typename V> struct Model {
    IO<I, V> io;
    Model(I n, const qztest::EdgeList& edges, const std::vector<int>& Y, const std::vector<std::string>& names = {}) {
        io.G = qztest::makeGraph<I>(n, edges).release();
        io.Y = new I[n];
        for (I v = 0; v < n; ++v) io.Y[v] = (I)Y[v];
        size_t dim = 0;
        for (const auto& e : edges) dim += (size_t)Y[e.first] * Y[e.second];
        io.dim = (I)dim;
        io.w = new V[dim]();
        if (!names.empty()) io.Xnames = new std::vector<std::string>(names);
    }
    ~Model() {
        delete io.G;
        delete[] io.w;
    }
};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string l;
    while (std::getline(ss, l)) out.push_back(l);
    return out;
}

std::string num(double x) {
    std::stringstream ss;
    ss << x;
    return ss.str();
}

}  // namespace

TEST(Exports, GraphWithoutEdges) {
    Model<unsigned int, double> m(3, {}, {2, 2, 2}, {"a", "b", "c"});
    const std::string adj = tmpPath("exp_noedges.adj"), tgf = tmpPath("exp_noedges.tgf"),
                      fg = tmpPath("exp_noedges.fg");
    m.io.storeADJ(adj);
    m.io.storeTGF(tgf);
    m.io.storeFG(fg);
    EXPECT_EQ(readFile(adj), "0,0,0\n0,0,0\n0,0,0\n");
    EXPECT_EQ(readFile(tgf), "1 a\n2 b\n3 c\n#\n");
    EXPECT_EQ(readFile(fg), "0\n\n");
}

TEST(Exports, TwoNamedVerticesWithOneEdgeInTGF) {
    Model<unsigned short, float> m(2, {{0, 1}}, {2, 2}, {"a", "b"});
    const std::string fn = tmpPath("exp_ab.tgf");
    m.io.storeTGF(fn);
    EXPECT_EQ(lines(readFile(fn)), (std::vector<std::string>{"1 a", "2 b", "#", "1 2"}));
}

TEST(Exports, TGFKeepsEdgeOrderAndOrientation) {
    Model<unsigned long, double> m(3, {{2, 0}, {0, 1}}, {2, 2, 2}, {"x", "y", "z"});
    const std::string fn = tmpPath("exp_order.tgf");
    m.io.storeTGF(fn);
    EXPECT_EQ(readFile(fn), "1 x\n2 y\n3 z\n#\n3 1\n1 2\n");
}

TEST(Exports, TGFNumbersAreDecimalWithEightBitIndices) {
    std::vector<std::string> names;
    for (int v = 0; v < 10; ++v) names.push_back("v" + std::to_string(v));
    Model<unsigned char, unsigned char> m(10, {{8, 9}}, std::vector<int>(10, 2), names);
    const std::string fn = tmpPath("exp_u8.tgf");
    m.io.storeTGF(fn);
    const std::vector<std::string> L = lines(readFile(fn));
    ASSERT_EQ(L.size(), 12u);
    EXPECT_EQ(L[9], "10 v9");
    EXPECT_EQ(L[10], "#");
    EXPECT_EQ(L[11], "9 10");
}

TEST(Exports, TGFWithoutNamesFailsOutOfRange) {
    Model<unsigned int, float> m(2, {{0, 1}}, {2, 2});
    EXPECT_THROW(m.io.storeTGF(tmpPath("exp_nonames.tgf")), std::out_of_range);
}

TEST(Exports, AdjacencyIsSymmetricDigits) {
    Model<unsigned short, double> m(4, {{1, 0}, {3, 1}}, {2, 2, 2, 2});
    const std::string fn = tmpPath("exp_sym.adj");
    m.io.storeADJ(fn);
    EXPECT_EQ(lines(readFile(fn)), (std::vector<std::string>{"0,1,0,0", "1,0,0,1", "0,0,0,0", "0,1,0,0"}));
}

TEST(Exports, AdjacencyHasRawBytesWithEightBitIndices) {
    Model<unsigned char, float> m(3, {{0, 2}}, {2, 2, 2});
    const std::string fn = tmpPath("exp_u8.adj");
    m.io.storeADJ(fn);
    const std::string Z(1, '\0'), O(1, '\1');
    EXPECT_EQ(readFile(fn), Z + "," + Z + "," + O + "\n" + Z + "," + Z + "," + Z + "\n" + O + "," + Z + "," + Z + "\n");
}

TEST(Exports, PairWithZeroWeightsGivesFourOnes) {
    Model<unsigned int, double> m(2, {{0, 1}}, {2, 2});
    const std::string fn = tmpPath("exp_pair.fg");
    m.io.storeFG(fn);
    EXPECT_EQ(lines(readFile(fn)),
              (std::vector<std::string>{"1", "", "2", "0 1", "2 2", "4", "0 1", "1 1", "2 1", "3 1", ""}));
}

TEST(Exports, FactorIndexRunsWithTheFirstVariableFastest) {
    // Edge (2, 0) with 2 and 3 states: w holds (x, y) at 3x + y, the factor at 2y + x.
    Model<unsigned long, float> m(3, {{0, 1}, {2, 0}}, {3, 2, 2});
    for (int i = 0; i < 6; ++i) m.io.w[i] = -1.0f;
    for (int i = 0; i < 6; ++i) m.io.w[6 + i] = (float)(0.5 * i);
    const std::string fn = tmpPath("exp_transpose.fg");
    m.io.storeFG(fn);
    const std::vector<std::string> L = lines(readFile(fn));
    ASSERT_EQ(L.size(), 2u + 2u * 11u);
    EXPECT_EQ(L[0], "2");
    EXPECT_EQ(L[6], "0 " + num(std::exp(-1.0)));
    const size_t b = 2 + 11;  // second factor block
    EXPECT_EQ(L[b], "2");
    EXPECT_EQ(L[b + 1], "2 0");
    EXPECT_EQ(L[b + 2], "2 3");
    EXPECT_EQ(L[b + 3], "6");
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 2; ++x)
            EXPECT_EQ(L[b + 4 + 2 * y + x], std::to_string(2 * y + x) + " " + num(std::exp((double)(0.5f * (3 * x + y)))));
    EXPECT_EQ(L[b + 10], "");
}

TEST(Exports, FactorGraphHasRawCharactersWithEightBitIndices) {
    Model<unsigned char, double> m(2, {{0, 1}}, {2, 3});
    const std::string fn = tmpPath("exp_u8.fg");
    m.io.storeFG(fn);
    const std::string c0(1, '\0'), c1(1, '\1'), c2(1, '\2'), c3(1, '\3');
    std::string expect = c1 + "\n\n2\n" + c0 + " " + c1 + "\n" + c2 + " " + c3 + "\n6\n";
    for (int i = 0; i < 6; ++i) expect += std::to_string(i) + " 1\n";
    expect += "\n";
    EXPECT_EQ(readFile(fn), expect);
}

TEST(Exports, IntegerWeightsAreExponentiatedInDouble) {
    Model<unsigned short, unsigned short> m(2, {{0, 1}}, {1, 2});
    m.io.w[0] = 0;
    m.io.w[1] = 2;
    const std::string fn = tmpPath("exp_int.fg");
    m.io.storeFG(fn);
    const std::vector<std::string> L = lines(readFile(fn));
    ASSERT_EQ(L.size(), 9u);
    EXPECT_EQ(L[6], "0 1");
    EXPECT_EQ(L[7], "1 " + num(std::exp(2.0)));
}

TEST(Exports, ExportsTruncateAnExistingFile) {
    Model<unsigned int, double> m(2, {}, {2, 2}, {"a", "b"});
    const std::string fn = tmpPath("exp_trunc");
    qztest::writeFile(fn, std::string(1000, 'x'));
    m.io.storeADJ(fn);
    EXPECT_EQ(readFile(fn), "0,0\n0,0\n");
    qztest::writeFile(fn, std::string(1000, 'x'));
    m.io.storeTGF(fn);
    EXPECT_EQ(readFile(fn), "1 a\n2 b\n#\n");
    qztest::writeFile(fn, std::string(1000, 'x'));
    m.io.storeFG(fn);
    EXPECT_EQ(readFile(fn), "0\n\n");
}

TEST(Exports, AdjacencyReadsBackAsTheSameGraph) {
    Model<unsigned int, double> m(5, {{3, 1}, {0, 4}, {2, 3}, {1, 4}}, {2, 2, 2, 2, 2});
    const std::string fn = tmpPath("exp_back.adj");
    m.io.storeADJ(fn);
    std::ifstream in(fn);
    unsigned int* A = nullptr;
    unsigned int n = 0, e = 0;
    adjFromCSV<unsigned int>(in, A, n, e, ',');
    ASSERT_EQ(n, 5u);
    ASSERT_EQ(e, 4u);
    Graph<unsigned int> back(A, n, e);
    delete[] A;
    // Same edges, now in ascending order with the smaller vertex first.
    EXPECT_EQ(qztest::edgeList(back), (qztest::EdgeList{{0, 4}, {1, 3}, {1, 4}, {2, 3}}));
}

TEST(Exports, AFailedOpenIsReported) {
    Model<unsigned int, double> m(2, {{0, 1}}, {2, 2}, {"a", "b"});
    const std::string fn = tmpPath("no_such_directory/graph");
    for (auto store : {&IO<unsigned int, double>::storeADJ, &IO<unsigned int, double>::storeTGF,
                       &IO<unsigned int, double>::storeFG}) {
        try {
            (m.io.*store)(fn);
            ADD_FAILURE() << "no error";
        } catch (const std::logic_error& e) {
            EXPECT_EQ(std::string(e.what()), "cannot write file " + fn);
        }
    }
    EXPECT_EQ(std::fopen(fn.c_str(), "rb"), nullptr);
}
