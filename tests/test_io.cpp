// The model container and its file format: writing and reading back for every
// instantiation, the exact bytes, ownership on destruction, and replacing the
// graph of a model.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/QZIO>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using namespace QZ;

namespace {

// The addresses the allocator hands out and gets back while a test watches,
// so that what a destructor releases and what it keeps can be told exactly.
struct HeapLog {
    static constexpr size_t CAP = 4096;
    bool on = false;
    size_t made = 0, n = 0;
    // While watching, the allocation with this number fails as if memory ran out.
    size_t failAt = (size_t)-1;
    const void* m[CAP] = {};
    const void* p[CAP] = {};
    void start() {
        made = n = 0;
        on = true;
    }
    void stop() { on = false; }
    void noteMade(const void* q) {
        if (on && made < CAP) m[made++] = q;
    }
    void note(const void* q) {
        if (on && q != nullptr && n < CAP) p[n++] = q;
    }
    static size_t count(const void* const* a, size_t k, const void* q) {
        size_t c = 0;
        for (size_t i = 0; i < k; ++i) c += a[i] == q;
        return c;
    }
    bool freed(const void* q) const { return count(p, n, q) != 0; }
    // Every block made while watching was given back as often as it was made.
    bool balanced() const {
        if (made == CAP || n == CAP) return false;
        for (size_t i = 0; i < made; ++i)
            if (count(m, made, m[i]) != count(p, n, m[i])) return false;
        return true;
    }
};
HeapLog heapLog;

void* allocate(size_t n) {
    if (heapLog.on && heapLog.made == heapLog.failAt) {
        heapLog.failAt = (size_t)-1;
        throw std::bad_alloc();
    }
    void* p = std::malloc(n != 0 ? n : 1);
    if (p == nullptr) throw std::bad_alloc();
    heapLog.noteMade(p);
    return p;
}

void giveBack(void* p) noexcept {
    heapLog.note(p);
    std::free(p);
}

}  // namespace

// The library's allocations reach these as well, the shared library's
// references binding to the program's definitions.
void* operator new(size_t n) { return allocate(n); }
void* operator new[](size_t n) { return allocate(n); }
void operator delete(void* p) noexcept { giveBack(p); }
void operator delete[](void* p) noexcept { giveBack(p); }
void operator delete(void* p, size_t) noexcept { giveBack(p); }
void operator delete[](void* p, size_t) noexcept { giveBack(p); }

using qztest::readFile;
using qztest::tmpPath;
using qztest::writeFile;

namespace {

// A graph over an edge list given pair by pair, in that order and
// orientation; the caller takes it over.
template <typename I> Graph<I>* newGraph(size_t n, const qztest::EdgeList& edges) {
    return qztest::makeGraph<I>(n, edges).release();
}

// Fills offsets, statistics and weights of a container over G with states Y,
// all values distinct so that a moved or dropped block shows.
template <typename I, typename V> IO<I, V>* build(AbstractGraph<I>* G, const std::vector<int>& Y, bool names = true) {
    IO<I, V>* io = new IO<I, V>();
    const size_t n = G->vertices(), m = G->edges();
    io->G = G;
    io->Y = new I[n];
    for (size_t v = 0; v < n; ++v) io->Y[v] = (I)Y[v % Y.size()];
    io->odim = (I)(n + m + 1);
    io->woff = new I[n + m + 1];
    io->woff[0] = 0;
    for (size_t v = 0; v < n; ++v) io->woff[v + 1] = io->woff[v] + io->Y[v];
    I s, t;
    for (size_t e = 0; e < m; ++e) {
        G->edge((I)e, s, t);
        io->woff[n + e + 1] = io->woff[n + e] + io->Y[s] * io->Y[t];
    }
    io->sdim = io->woff[n + m];
    io->dim = io->sdim - io->woff[n];
    io->E = new V[io->sdim];
    for (size_t i = 0; i < io->sdim; ++i) io->E[i] = (V)(i % 100 + 1) + (std::is_integral<V>::value ? (V)0 : (V)0.25);
    io->w = new V[io->dim];
    for (size_t i = 0; i < io->dim; ++i) io->w[i] = (V)((i * 7) % 50) + (std::is_integral<V>::value ? (V)0 : (V)-0.125);
    if (names) {
        io->Xnames = new std::vector<std::string>();
        io->Ynames = new std::vector<std::vector<std::string>*>();
        for (size_t v = 0; v < n; ++v) {
            io->Xnames->push_back("X" + std::to_string(v));
            io->Ynames->push_back(new std::vector<std::string>());
            for (size_t x = 0; x < io->Y[v]; ++x) io->Ynames->back()->push_back("v" + std::to_string(v) + "s" + std::to_string(x));
        }
    }
    io->gtype = 1;
    io->T = 1;
    io->decay = 3;
    io->K = 9;
    io->num_instances = 77;
    io->llist = "2,3";
    io->clist = "5";
    return io;
}

// Releases what the destructor leaves alone: the graph(s) and, for a model
// built in memory, w.
template <typename I, typename V> void release(IO<I, V>* io, bool freeW) {
    if (freeW) delete[] io->w;
    if (io->H != nullptr) delete io->H;
    delete io->G;
    delete io;
}

template <typename I, typename V> void expectSameModel(const IO<I, V>& a, const IO<I, V>& b) {
    ASSERT_EQ(a.G->vertices(), b.G->vertices());
    ASSERT_EQ(a.G->edges(), b.G->edges());
    for (I e = 0; e < a.G->edges(); ++e) {
        I s1, t1, s2, t2;
        a.G->edge(e, s1, t1);
        b.G->edge(e, s2, t2);
        EXPECT_EQ(s1, s2);
        EXPECT_EQ(t1, t2);
    }
    EXPECT_EQ(a.itype, b.itype);
    EXPECT_EQ(a.vtype, b.vtype);
    EXPECT_EQ(a.dim, b.dim);
    EXPECT_EQ(a.odim, b.odim);
    ASSERT_EQ(a.sdim, b.sdim);
    EXPECT_EQ(0, std::memcmp(a.woff, b.woff, sizeof(I) * a.odim));
    EXPECT_EQ(0, std::memcmp(a.Y, b.Y, sizeof(I) * a.G->vertices()));
    EXPECT_EQ(0, std::memcmp(a.E, b.E, sizeof(V) * a.sdim));
    EXPECT_EQ(0, std::memcmp(a.w, b.w, sizeof(V) * a.dim));
    EXPECT_EQ(a.gtype, b.gtype);
    EXPECT_EQ(a.T, b.T);
    EXPECT_EQ(a.decay, b.decay);
    EXPECT_EQ(a.K, b.K);
    EXPECT_EQ(a.num_instances, b.num_instances);
    EXPECT_EQ(a.llist, b.llist);
    EXPECT_EQ(a.clist, b.clist);
    EXPECT_EQ(*a.Xnames, *b.Xnames);
    ASSERT_EQ(a.Ynames->size(), b.Ynames->size());
    for (size_t v = 0; v < a.Ynames->size(); ++v) EXPECT_EQ(*a.Ynames->at(v), *b.Ynames->at(v));
}

// Builds a file byte by byte.
struct Bytes {
    std::string s;
    template <typename T> Bytes& num(T x) {
        s.append(reinterpret_cast<const char*>(&x), sizeof(T));
        return *this;
    }
    Bytes& text(const std::string& t) {
        s += t;
        return *this;
    }
    Bytes& name(const std::string& t) {
        s += t;
        s.push_back('\0');
        return *this;
    }
};

}  // namespace

template <typename P> class IOTyped : public ::testing::Test {};
typedef ::testing::Types<std::pair<unsigned char, unsigned char>, std::pair<unsigned short, unsigned short>,
                         std::pair<unsigned int, unsigned int>, std::pair<unsigned long, unsigned long>,
                         std::pair<unsigned char, float>, std::pair<unsigned short, float>,
                         std::pair<unsigned int, float>, std::pair<unsigned long, float>,
                         std::pair<unsigned char, double>, std::pair<unsigned short, double>,
                         std::pair<unsigned int, double>, std::pair<unsigned long, double>>
    AllPairs;
TYPED_TEST_SUITE(IOTyped, AllPairs);

TYPED_TEST(IOTyped, DefaultConstructorIsEmpty) {
    typedef typename TypeParam::first_type I;
    typedef typename TypeParam::second_type V;
    IO<I, V> io;
    EXPECT_EQ(io.itype, type_code<I>());
    EXPECT_EQ(io.vtype, type_code<V>());
    EXPECT_FALSE(io.from_file);
    EXPECT_FALSE(io.external());
    EXPECT_EQ(io.G, nullptr);
    EXPECT_EQ(io.H, nullptr);
    EXPECT_EQ(io.w, nullptr);
    EXPECT_EQ(io.E, nullptr);
    EXPECT_EQ(io.Y, nullptr);
    EXPECT_EQ(io.woff, nullptr);
    EXPECT_EQ(io.Ynames, nullptr);
    EXPECT_EQ(io.Xnames, nullptr);
    EXPECT_EQ(io.dim + io.odim + io.sdim + io.gtype + io.T + io.decay + io.K + io.num_instances, 0u);
    EXPECT_TRUE(io.llist.empty());
    EXPECT_TRUE(io.clist.empty());
}

TYPED_TEST(IOTyped, StoredModelReadsBackEqual) {
    typedef typename TypeParam::first_type I;
    typedef typename TypeParam::second_type V;
    // A reversed edge checks that the orientation survives.
    Graph<I>* G = newGraph<I>(5, {{0, 1}, {2, 1}, {3, 4}, {4, 0}});
    IO<I, V>* io = build<I, V>(G, {2, 3, 4});
    const std::string fn = tmpPath("io_roundtrip_" + std::to_string(sizeof(I)) + "_" + std::to_string(io->vtype));
    io->store(fn);
    IO<I, V>* back = new IO<I, V>(fn);
    EXPECT_TRUE(back->from_file);
    EXPECT_EQ(back->H, nullptr);
    EXPECT_NE(dynamic_cast<Graph<I>*>(back->G), nullptr);
    expectSameModel(*io, *back);
    release(io, true);
    release(back, false);
}

TYPED_TEST(IOTyped, SpatioTemporalModelHasOneRecordPerSliceVertex) {
    typedef typename TypeParam::first_type I;
    typedef typename TypeParam::second_type V;
    Graph<I>* base = newGraph<I>(3, {{0, 1}, {1, 2}});
    STGraph<I>* st = new STGraph<I>(base, (I)3);
    IO<I, V>* io = build<I, V>(st, {2, 3});
    io->H = base;
    io->T = 3;
    ASSERT_EQ(io->G->vertices(), 9u);
    const std::string fn = tmpPath("io_st_" + std::to_string(sizeof(I)) + "_" + std::to_string(io->vtype));
    io->store(fn);

    // Only the base graph precedes the fields of the model: n = 3, m = 2.
    const std::string bytes = readFile(fn);
    I n = 0, m = 0;
    std::memcpy(&n, bytes.data() + 2, sizeof(I));
    std::memcpy(&m, bytes.data() + 2 + sizeof(I), sizeof(I));
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(m, 2u);

    IO<I, V>* back = new IO<I, V>(fn);
    STGraph<I>* g = dynamic_cast<STGraph<I>*>(back->G);
    ASSERT_NE(g, nullptr);
    ASSERT_NE(back->H, nullptr);
    EXPECT_EQ(back->H->vertices(), 3u);
    EXPECT_EQ(back->H->edges(), 2u);
    EXPECT_EQ(back->G->vertices(), 9u);
    EXPECT_EQ(back->Xnames->size(), 9u);
    EXPECT_EQ(back->Xnames->at(8), "X8");
    expectSameModel(*io, *back);
    release(io, true);
    release(back, false);
}

TEST(IO, ModelWithoutWeightsReadsWithZeroWeights) {
    Graph<unsigned int>* G = newGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    IO<unsigned int, double>* io = build<unsigned int, double>(G, {2, 3});
    const std::string withW = tmpPath("io_withw");
    io->store(withW);
    delete[] io->w;
    io->w = nullptr;
    const std::string fn = tmpPath("io_now");
    io->store(fn);
    // Without w the file is the one with w, less the weights at its end.
    const std::string full = readFile(withW), part = readFile(fn);
    EXPECT_EQ(full.size(), part.size() + 12 * sizeof(double));
    EXPECT_EQ(full.substr(0, part.size()), part);
    IO<unsigned int, double>* back = new IO<unsigned int, double>(fn);
    ASSERT_EQ(back->dim, 12u);
    ASSERT_NE(back->w, nullptr);
    for (unsigned int i = 0; i < back->dim; ++i) EXPECT_EQ(back->w[i], 0.0);
    EXPECT_EQ(0, std::memcmp(io->E, back->E, sizeof(double) * io->sdim));
    release(io, false);
    release(back, false);
}

TEST(IO, EmptyListIsWrittenAsLengthZeroWithoutText) {
    Graph<unsigned short>* G = newGraph<unsigned short>(2, {});
    IO<unsigned short, float>* io = build<unsigned short, float>(G, {2});
    io->llist = "";
    io->clist = "";
    const std::string fn = tmpPath("io_emptylist");
    io->store(fn);
    const std::string bytes = readFile(fn);
    // itype, vtype, n, m, no edges, gtype, then the two lengths.
    const size_t at = 2 + 2 + 2 + 2;
    ASSERT_GT(bytes.size(), at + 16);
    EXPECT_EQ(bytes.substr(at, 16), std::string(16, '\0'));
    unsigned short T = 0;
    std::memcpy(&T, bytes.data() + at + 16, 2);
    EXPECT_EQ(T, 1u);
    release(io, true);
}

TEST(IO, EightBitIndicesWriteOneByteFieldsButEightByteListLengths) {
    Graph<unsigned char>* G = newGraph<unsigned char>(2, {{1, 0}});
    IO<unsigned char, unsigned char>* io = build<unsigned char, unsigned char>(G, {2});
    io->Xnames->at(0) = "a";
    io->Xnames->at(1) = "b";
    *io->Ynames->at(0) = {"x", "y"};
    *io->Ynames->at(1) = {"p", ""};
    const std::string fn = tmpPath("io_u8bytes");
    io->store(fn);
    Bytes b;
    b.num<unsigned char>(0).num<unsigned char>(0);          // itype, vtype
    b.num<unsigned char>(2).num<unsigned char>(1);          // n, m
    b.num<unsigned char>(1).num<unsigned char>(0);          // the edge as stored
    b.num<unsigned char>(1);                                // gtype
    b.num<size_t>(3).text("2,3").num<size_t>(1).text("5");  // llist, clist
    b.num<unsigned char>(1).num<unsigned char>(3).num<unsigned char>(77).num<unsigned char>(9);  // T, decay, N, K
    b.num<unsigned char>(2).name("a").name("x").name("y");
    b.num<unsigned char>(2).name("b").name("p").name("");
    b.num<unsigned char>(4);  // dim
    for (int i = 0; i < 8; ++i) b.num<unsigned char>((unsigned char)(i + 1));
    for (int i = 0; i < 4; ++i) b.num<unsigned char>((unsigned char)((i * 7) % 50));
    EXPECT_EQ(readFile(fn), b.s);
    release(io, true);
}

TEST(IO, HandWrittenFileReadsFieldByField) {
    Bytes b;
    b.num<unsigned char>(2).num<unsigned char>(5);
    b.num<unsigned int>(3).num<unsigned int>(2);
    b.num<unsigned int>(0).num<unsigned int>(1).num<unsigned int>(2).num<unsigned int>(1);
    b.num<unsigned int>(5);  // gtype
    b.num<size_t>(0).num<size_t>(4).text("1,22");
    b.num<unsigned int>(1).num<unsigned int>(2).num<unsigned int>(10).num<unsigned int>(4);
    b.num<unsigned int>(2).name("A").name("a0").name("a1");
    b.num<unsigned int>(3).name("B").name("b0").name("b1").name("b2");
    b.num<unsigned int>(2).name("C").name("c0").name("c1");
    b.num<unsigned int>(12);
    for (int i = 0; i < 19; ++i) b.num<double>(i * 0.5);
    for (int i = 0; i < 12; ++i) b.num<double>(-i * 1.5);
    const std::string fn = tmpPath("io_hand");
    writeFile(fn, b.s);

    IO<unsigned int, double> io(fn);
    EXPECT_EQ(io.itype, 2);
    EXPECT_EQ(io.vtype, 5);
    ASSERT_EQ(io.G->vertices(), 3u);
    ASSERT_EQ(io.G->edges(), 2u);
    unsigned int s, t;
    io.G->edge(1, s, t);
    EXPECT_EQ(s, 2u);
    EXPECT_EQ(t, 1u);
    EXPECT_EQ(io.gtype, 5u);
    EXPECT_EQ(io.llist, "");
    EXPECT_EQ(io.clist, "1,22");
    EXPECT_EQ(io.T, 1u);
    EXPECT_EQ(io.decay, 2u);
    EXPECT_EQ(io.num_instances, 10u);
    EXPECT_EQ(io.K, 4u);
    EXPECT_EQ(io.dim, 12u);
    EXPECT_EQ(io.odim, 6u);
    EXPECT_EQ(io.sdim, 19u);
    const unsigned int woff[] = {0, 2, 5, 7, 13, 19};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(io.woff[i], woff[i]) << i;
    EXPECT_EQ(io.Y[1], 3u);
    EXPECT_EQ(*io.Xnames, (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_EQ(*io.Ynames->at(1), (std::vector<std::string>{"b0", "b1", "b2"}));
    EXPECT_EQ(io.E[18], 9.0);
    EXPECT_EQ(io.w[11], -16.5);
    // Writing it again gives the same bytes: the writer is the reader's inverse.
    const std::string again = tmpPath("io_hand_again");
    io.store(again);
    EXPECT_EQ(readFile(again), b.s);
    delete io.G;
}

// A model file whose dim is too big for the address space: the statistics
// cannot be allocated, and everything built before is released again,
// graphs included, before the exception leaves the constructor.
TEST(IO, TooLargeACountFailsAndReleasesWhatWasBuilt) {
    for (unsigned long T : {1ul, 2ul}) {
        Bytes b;
        b.num<unsigned char>(3).num<unsigned char>(5);
        b.num<unsigned long>(2).num<unsigned long>(1).num<unsigned long>(0).num<unsigned long>(1);
        const std::string clist = "a list longer than fifteen";  // a string of its own on the heap
        b.num<unsigned long>(0).num<size_t>(0).num<size_t>(clist.size()).text(clist);
        b.num<unsigned long>(T).num<unsigned long>(0).num<unsigned long>(1).num<unsigned long>(0);
        for (unsigned long v = 0; v < 2 * T; ++v) b.num<unsigned long>(2).name("v").name("s0").name("s1");
        b.num<unsigned long>(1ul << 62);
        const std::string fn = tmpPath("io_huge");
        writeFile(fn, b.s);
        bool threw = false;
        heapLog.start();
        try {
            IO<unsigned long, double> io(fn);
        } catch (const std::logic_error& e) {
            // The count is checked against the file before it is allocated.
            threw = std::string(e.what()).find("is damaged (dim)") != std::string::npos;
        }
        heapLog.stop();
        EXPECT_TRUE(threw) << "T = " << T;
        EXPECT_GT(heapLog.made, 5u);
        EXPECT_TRUE(heapLog.balanced()) << "T = " << T;
    }
}

TEST(IO, NameOfSixtyFourCharactersComesBack) {
    const std::string longName(64, 'n');
    const std::string longState = std::string(63, 's') + "!";
    Graph<unsigned long>* G = newGraph<unsigned long>(2, {{0, 1}});
    IO<unsigned long, double>* io = build<unsigned long, double>(G, {2});
    io->Xnames->at(1) = longName;
    io->Ynames->at(0)->at(1) = longState;
    const std::string fn = tmpPath("io_longname");
    io->store(fn);
    IO<unsigned long, double>* back = new IO<unsigned long, double>(fn);
    EXPECT_EQ(back->Xnames->at(1), longName);
    EXPECT_EQ(back->Ynames->at(0)->at(1), longState);
    expectSameModel(*io, *back);
    release(io, true);
    release(back, false);
}

TEST(IO, StoringAModelWithoutNamesFailsOutOfRange) {
    Graph<unsigned int>* G = newGraph<unsigned int>(2, {{0, 1}});
    IO<unsigned int, float>* io = build<unsigned int, float>(G, {2}, false);
    EXPECT_THROW(io->store(tmpPath("io_nonames")), std::out_of_range);
    io->Xnames = new std::vector<std::string>{"a", "b"};
    EXPECT_THROW(io->store(tmpPath("io_nonames")), std::out_of_range);
    io->Ynames = new std::vector<std::vector<std::string>*>{new std::vector<std::string>{"0", "1"},
                                                            new std::vector<std::string>{"0"}};
    EXPECT_THROW(io->store(tmpPath("io_nonames")), std::out_of_range);
    io->Ynames->at(1)->push_back("1");
    EXPECT_NO_THROW(io->store(tmpPath("io_nonames")));
    release(io, true);
}

TEST(IO, ReadListWithLengthZeroLeavesTheString) {
    IO<unsigned int, double> io;
    std::stringstream ss;
    io.writeList(ss, "");
    io.writeList(ss, "7,8");
    EXPECT_EQ(ss.str().size(), 8u + 8u + 3u);
    std::string s = "kept";
    io.readList(ss, s);
    EXPECT_EQ(s, "kept");
    io.readList(ss, s);
    EXPECT_EQ(s, "7,8");
}

TEST(IO, ReadArrayFillsTheGivenArray) {
    IO<unsigned short, float> io;
    std::stringstream ss;
    const float in[3] = {1.5f, -2.0f, 3.25f};
    ss.write(reinterpret_cast<const char*>(in), sizeof(in));
    float* A = new float[4]();
    float* keep = A;
    io.readArray(A, 3, ss);
    EXPECT_EQ(A, keep);
    EXPECT_EQ(A[0], 1.5f);
    EXPECT_EQ(A[2], 3.25f);
    EXPECT_EQ(A[3], 0.0f);
    delete[] A;
}

TEST(IO, TruncatedFileIsReported) {
    Graph<unsigned int>* G = newGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    IO<unsigned int, double>* io = build<unsigned int, double>(G, {2});
    const std::string fn = tmpPath("io_trunc");
    io->store(fn);
    const std::string whole = readFile(fn);
    // Cut in the middle of w, of E, of a name, of the edge list: each is
    // reported, none reads as a model with zeros where the file stopped.
    for (size_t cut : {4 * sizeof(double), 8 * sizeof(double) + 3, whole.size() - 30, (size_t)12}) {
        writeFile(fn, whole.substr(0, whole.size() - cut));
        try {
            IO<unsigned int, double> back(fn);
            ADD_FAILURE() << "no error for a file cut by " << cut;
        } catch (const std::logic_error& e) {
            EXPECT_NE(std::string(e.what()).find("model file " + fn + " does not match idx_t and val_t or is damaged"),
                      std::string::npos)
                << e.what();
        }
    }
    // Without its weights the file is whole: w reads as zeros.
    writeFile(fn, whole.substr(0, whole.size() - 8 * sizeof(double)));
    IO<unsigned int, double>* back = new IO<unsigned int, double>(fn);
    ASSERT_EQ(back->dim, 8u);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(back->w[i], 0.0);
    release(io, true);
    release(back, false);
}

namespace {

// Each allocation of the reader in turn fails: whichever it is, the
// exception leaves the constructor and all that was built is released, the
// graphs of a spatio-temporal model included.
TEST(IO, AFailingAllocationAnywhereInTheReaderReleasesAllItBuilt) {
    for (unsigned int T : {1u, 3u}) {
        Graph<unsigned int>* base = newGraph<unsigned int>(3, {{0, 1}, {1, 2}});
        STGraph<unsigned int>* st = T > 1 ? new STGraph<unsigned int>(base, T) : nullptr;
        IO<unsigned int, float>* io = build<unsigned int, float>(st != nullptr ? (AbstractGraph<unsigned int>*)st : base, {2, 3});
        io->T = T;
        io->H = st != nullptr ? base : nullptr;
        io->Xnames->at(0) = std::string(40, 'n');  // a name on the heap of its own
        const std::string fn = tmpPath("io_failing_" + std::to_string(T));
        io->store(fn);
        release(io, true);

        size_t k = 0;
        for (;; ++k) {
            bool failed = false;
            heapLog.start();
            heapLog.failAt = k;
            try {
                IO<unsigned int, float> back(fn);
                delete back.G;
                delete back.H;
            } catch (const std::bad_alloc&) {
                failed = true;
            }
            heapLog.stop();
            heapLog.failAt = (size_t)-1;
            // Freed in the end either way; with a failure, before the exception arrived.
            EXPECT_TRUE(heapLog.balanced()) << "T = " << T << ", allocation " << k;
            if (!failed) break;
        }
        // The reader allocates: the graph or two, Y, the name lists, woff, E and w.
        EXPECT_GT(k, 8u) << "T = " << T;
    }
}

// What a destructor releases, told pointer by pointer from the free log.
struct Parts {
    const void *w, *E, *woff, *Y, *Xnames, *Ynames, *Y0, *G, *H;
    template <typename I, typename V> explicit Parts(const IO<I, V>& io)
        : w(io.w), E(io.E), woff(io.woff), Y(io.Y), Xnames(io.Xnames), Ynames(io.Ynames),
          Y0(io.Ynames != nullptr ? (const void*)io.Ynames->at(0) : nullptr), G(io.G), H(io.H) {}
    // The parts that went back to the allocator, in the order of the fields.
    std::string released() const {
        std::string r;
        const std::pair<const void*, const char*> all[] = {{w, "w"},           {E, "E"},           {woff, "woff"},
                                                           {Y, "Y"},           {Xnames, "Xnames"}, {Ynames, "Ynames"},
                                                           {Y0, "Ynames[0]"}, {G, "G"},           {H, "H"}};
        for (const auto& part : all)
            if (heapLog.freed(part.first)) r += (r.empty() ? "" : " ") + std::string(part.second);
        return r;
    }
    template <typename I, typename V> static Parts deleted(IO<I, V>* io) {
        const Parts p(*io);
        heapLog.start();
        delete io;
        heapLog.stop();
        return p;
    }
};

}  // namespace

TEST(IOOwnership, ModelBuiltInMemoryKeepsItsWeightsAndGraph) {
    Graph<unsigned int>* G = newGraph<unsigned int>(2, {{0, 1}});
    const Parts p = Parts::deleted(build<unsigned int, double>(G, {2}));
    EXPECT_EQ(p.released(), "E woff Y Xnames Ynames Ynames[0]");
    delete[] static_cast<const double*>(p.w);
    delete G;
}

TEST(IOOwnership, ModelReadFromAFileReleasesItsWeightsButNotItsGraphs) {
    // A spatio-temporal model, so that the reader makes both G and H.
    Graph<unsigned int>* base = newGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    STGraph<unsigned int>* st = new STGraph<unsigned int>(base, 2);
    IO<unsigned int, double>* io = build<unsigned int, double>(st, {2});
    io->H = base;
    io->T = 2;
    const std::string fn = tmpPath("io_owned");
    io->store(fn);
    release(io, true);

    IO<unsigned int, double>* back = new IO<unsigned int, double>(fn);
    AbstractGraph<unsigned int>* G = back->G;
    AbstractGraph<unsigned int>* H = back->H;
    ASSERT_NE(H, nullptr);
    const Parts p = Parts::deleted(back);
    EXPECT_EQ(p.released(), "w E woff Y Xnames Ynames Ynames[0]");
    delete G;
    delete H;
}

TEST(IOOwnership, ExternalModelReleasesOnlyStatisticsAndNames) {
    Graph<unsigned int>* G = newGraph<unsigned int>(2, {{0, 1}});
    const std::string fn = tmpPath("io_external");
    IO<unsigned int, double>* io = build<unsigned int, double>(G, {2});
    io->store(fn);
    release(io, true);

    IO<unsigned int, double>* back = new IO<unsigned int, double>(fn);
    back->is_external = true;
    EXPECT_TRUE(back->external());
    AbstractGraph<unsigned int>* g = back->G;
    const Parts p = Parts::deleted(back);
    EXPECT_EQ(p.released(), "E Xnames Ynames Ynames[0]");
    // Still whole: the arrays are the owner's to read and release.
    EXPECT_EQ(static_cast<const unsigned int*>(p.Y)[1], 2u);
    EXPECT_EQ(static_cast<const unsigned int*>(p.woff)[3], 8u);
    delete[] static_cast<const double*>(p.w);
    delete[] static_cast<const unsigned int*>(p.woff);
    delete[] static_cast<const unsigned int*>(p.Y);
    delete g;
}

TEST(IOOwnership, EmptyContainerReleasesNothing) {
    IO<unsigned char, float>* io = new IO<unsigned char, float>();
    heapLog.start();
    delete io;
    heapLog.stop();
    // The object itself only.
    EXPECT_EQ(heapLog.n, 1u);
    EXPECT_TRUE(heapLog.freed(io));
}

TEST(IO, ReconfigureKeepsStatisticsOfTheEdgeThatFNames) {
    // Complete graph on 3 vertices with distinct statistics per edge block.
    Graph<unsigned int>* K3 = newGraph<unsigned int>(3, {{0, 1}, {0, 2}, {1, 2}});
    IO<unsigned int, double>* io = build<unsigned int, double>(K3, {2, 3, 2});
    std::vector<double> oldE(io->E, io->E + io->sdim);
    std::vector<unsigned int> oldWoff(io->woff, io->woff + io->odim);
    // Keep the edges {2,1} and {2,0}; the matrix is symmetric.
    unsigned int A[9] = {0, 0, 1, 0, 0, 1, 1, 1, 0};
    auto f = [](const unsigned int& s, const unsigned int& t) -> unsigned int {
        const unsigned int a = s < t ? s : t, b = s < t ? t : s;
        return a == 0 ? b - 1 : 2;  // (0,1)->0, (0,2)->1, (1,2)->2
    };
    io->reconfigure(A, f, nullptr);
    ASSERT_EQ(io->G->edges(), 2u);
    unsigned int s, t;
    io->G->edge(0, s, t);
    EXPECT_EQ(s, 0u);
    EXPECT_EQ(t, 2u);
    io->G->edge(1, s, t);
    EXPECT_EQ(s, 1u);
    EXPECT_EQ(t, 2u);
    EXPECT_EQ(io->odim, 6u);
    EXPECT_EQ(io->dim, 4u + 6u);
    EXPECT_EQ(io->sdim, 7u + 10u);
    const unsigned int woff[] = {0, 2, 5, 7, 11, 17};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(io->woff[i], woff[i]) << i;
    for (unsigned int i = 0; i < 7; ++i) EXPECT_EQ(io->E[i], oldE[i]);
    // New edge 0 is old edge 1 = (0,2), new edge 1 is old edge 2 = (1,2).
    for (unsigned int i = 0; i < 4; ++i) EXPECT_EQ(io->E[7 + i], oldE[oldWoff[3 + 1] + i]);
    for (unsigned int i = 0; i < 6; ++i) EXPECT_EQ(io->E[11 + i], oldE[oldWoff[3 + 2] + i]);
    for (unsigned int i = 0; i < io->dim; ++i) EXPECT_EQ(io->w[i], 0.0);
    delete io->G;
    delete[] io->w;
    delete io;
}

TEST(IO, ReconfigureTakesNewBlocksFromTheCallback) {
    Graph<unsigned short>* K3 = newGraph<unsigned short>(3, {{0, 1}, {0, 2}, {1, 2}});
    IO<unsigned short, float>* io = build<unsigned short, float>(K3, {2});
    unsigned short A[9] = {0, 1, 0, 1, 0, 1, 0, 1, 0};
    std::vector<std::vector<unsigned short>> seen;
    std::function<float*(size_t, const unsigned short&)> g = [&](size_t x, const unsigned short& size) {
        const sparse_uint_t<unsigned short>* X = reinterpret_cast<const sparse_uint_t<unsigned short>*>(x);
        seen.push_back(std::vector<unsigned short>(X->data()->begin(), X->data()->end()));
        float* r = new float[size];
        for (unsigned short i = 0; i < size; ++i) r[i] = 100.0f * seen.size() + i;
        return r;
    };
    // The pair's combinatorial index among the 2-subsets of 3 vertices.
    auto f = [](const unsigned short& s, const unsigned short& t) -> unsigned short {
        return (unsigned short)((s == 0 ? (t == 1 ? 2 : 1) : 0));
    };
    io->reconfigure(A, f, &g);
    ASSERT_EQ(io->G->edges(), 2u);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], (std::vector<unsigned short>{0, 1}));
    EXPECT_EQ(seen[1], (std::vector<unsigned short>{1, 2}));
    EXPECT_EQ(io->E[6], 100.0f);
    EXPECT_EQ(io->E[9], 103.0f);
    EXPECT_EQ(io->E[10], 200.0f);
    EXPECT_EQ(io->E[13], 203.0f);
    delete io->G;
    delete[] io->w;
    delete io;
}

TEST(IO, ReconfigureReleasesTheOldGraphAndArrays) {
    for (bool withW : {true, false}) {
        Graph<unsigned int>* K3 = newGraph<unsigned int>(3, {{0, 1}, {0, 2}, {1, 2}});
        IO<unsigned int, double>* io = build<unsigned int, double>(K3, {2});
        if (!withW) {
            delete[] io->w;
            io->w = nullptr;
        }
        const Parts old(*io);
        unsigned int A[9] = {0, 1, 1, 1, 0, 0, 1, 0, 0};
        auto f = [](const unsigned int& s, const unsigned int& t) -> unsigned int { return s + t - 1; };
        heapLog.start();
        io->reconfigure(A, f, nullptr);
        heapLog.stop();
        EXPECT_EQ(old.released(), withW ? "w E woff G" : "E woff G");
        EXPECT_EQ(io->Y, old.Y);
        ASSERT_NE(io->w, nullptr);
        ASSERT_EQ(io->dim, 8u);
        for (unsigned int i = 0; i < io->dim; ++i) EXPECT_EQ(io->w[i], 0.0);
        delete io->G;
        delete[] io->w;
        delete io;
    }
}

TEST(IO, TypeCodesOfAFileAreTakenNotCompared) {
    Graph<unsigned int>* G = newGraph<unsigned int>(3, {{0, 1}, {1, 2}});
    IO<unsigned int, double>* io = build<unsigned int, double>(G, {2, 3});
    const std::string fn = tmpPath("io_codes");
    io->store(fn);
    std::string bytes = readFile(fn);
    EXPECT_EQ(bytes[0], '\2');
    EXPECT_EQ(bytes[1], '\5');
    // Codes of another instantiation: read as they stand, the rest as usual.
    bytes[0] = '\0';
    bytes[1] = '\4';
    writeFile(fn, bytes);
    IO<unsigned int, double>* back = new IO<unsigned int, double>(fn);
    EXPECT_EQ(back->itype, 0);
    EXPECT_EQ(back->vtype, 4);
    back->itype = 2;
    back->vtype = 5;
    expectSameModel(*io, *back);
    release(io, true);
    release(back, false);
}

TEST(IO, StoringWhereNoFileCanBeMadeIsReported) {
    Graph<unsigned short>* G = newGraph<unsigned short>(2, {{0, 1}});
    IO<unsigned short, float>* io = build<unsigned short, float>(G, {2});
    const std::string fn = tmpPath("no_such_directory/model");
    EXPECT_THROW(io->store(fn), std::logic_error);
    EXPECT_EQ(std::fopen(fn.c_str(), "rb"), nullptr);
    release(io, true);
}

// Releases through programs, watched on the allocator.

TEST(Release, DelOfTheModelDeletesTheContainerUnlessExternalOrWithoutInstance) {
    Graph<unsigned int>* G = newGraph<unsigned int>(2, {{0, 1}});
    IO<unsigned int, double>* io = build<unsigned int, double>(G, {2});
    const std::string fn = tmpPath("io_del.mod");
    io->store(fn);
    release(io, true);
    // 0: an own container, 1: an external one, 2: a pair of types without instance.
    for (int k = 0; k < 3; ++k) {
        qztest::Ctx ctx;
        qztest::runLines(ctx, {"idx_t UINT32;", "val_t FLT64;", "MFN '" + fn + "'", "LDX MPT;"});
        IO<unsigned int, double>* m = reinterpret_cast<IO<unsigned int, double>*>(qztest::reg(ctx, "MPT"));
        ASSERT_NE(m, nullptr);
        if (k == 1) m->is_external = true;
        if (k == 2) qztest::wreg(ctx, "VAL", vm_t::valUINT8);
        const Parts p(*m);
        heapLog.start();
        qztest::runLines(ctx, {"DEL MPT;"});
        heapLog.stop();
        EXPECT_EQ(qztest::reg(ctx, "MPT"), 0u) << k;
        EXPECT_EQ(heapLog.freed(m), k == 0) << k;
        EXPECT_EQ(p.released(), k == 0 ? "w E woff Y Xnames Ynames Ynames[0]" : "") << k;
        if (k != 0) {
            m->is_external = false;
            delete m;
        }
        // GPT still holds the model's graph, which the context releases.
    }
}

TEST(Release, DelOfStringsListsAndMarginals) {
    qztest::Ctx ctx;
    qztest::runLines(ctx, {"MFN 'a'", "GFN 'b'", "DFN 'c'", "GPS 'd'", "LFN 'e'", "NAM 'f'"});
    qztest::wreg(ctx, "LPT", (size_t) new std::vector<size_t>{1, 2});
    qztest::wreg(ctx, "PPT", (size_t) new double[4]);
    const char* regs[] = {"MFN", "GFN", "DFN", "GPS", "LFN", "NAM", "LPT", "PPT"};
    std::vector<const void*> held;
    for (const char* r : regs) held.push_back((const void*)qztest::reg(ctx, r));
    heapLog.start();
    qztest::runLines(ctx, {"DEL MFN;", "DEL GFN;", "DEL DFN;", "DEL GPS;", "DEL LFN;", "DEL NAM;", "DEL LPT;", "DEL PPT;"});
    heapLog.stop();
    for (size_t i = 0; i < held.size(); ++i) {
        EXPECT_TRUE(heapLog.freed(held[i])) << regs[i];
        EXPECT_EQ(qztest::reg(ctx, regs[i]), 0u) << regs[i];
    }
}

TEST(Release, DelOfTheOtherFileNameLooksAtTheDataFileName) {
    qztest::Ctx ctx;
    qztest::runLines(ctx, {"OTHERFN 'x'"});
    const std::string* s = reinterpret_cast<const std::string*>(qztest::reg(ctx, "OTHERFN"));
    heapLog.start();
    qztest::runLines(ctx, {"DEL OTHERFN;"});
    heapLog.stop();
    EXPECT_EQ(qztest::reg(ctx, "OTHERFN"), 0u);
    // DFN is not set: the string is abandoned.
    EXPECT_FALSE(heapLog.freed(s));
    EXPECT_EQ(*s, "x");
    delete s;
    qztest::runLines(ctx, {"DFN 'd'", "OTHERFN 'y'"});
    s = reinterpret_cast<const std::string*>(qztest::reg(ctx, "OTHERFN"));
    const void* dfn = (const void*)qztest::reg(ctx, "DFN");
    heapLog.start();
    qztest::runLines(ctx, {"DEL OTHERFN;"});
    heapLog.stop();
    EXPECT_TRUE(heapLog.freed(s));
    EXPECT_FALSE(heapLog.freed(dfn));
    EXPECT_EQ(qztest::reg(ctx, "OTHERFN"), 0u);
    EXPECT_NE(qztest::reg(ctx, "DFN"), 0u);
}

TEST(Release, ASecondLoadAbandonsTheFirstModelAndList) {
    Graph<unsigned short>* G = newGraph<unsigned short>(3, {{0, 1}, {1, 2}});
    IO<unsigned short, float>* io = build<unsigned short, float>(G, {2});
    const std::string fn = tmpPath("io_twice.mod");
    io->store(fn);
    release(io, true);
    qztest::Ctx ctx;
    const std::vector<std::string> load = {"idx_t UINT16;", "val_t FLT32;", "MFN '" + fn + "'", "LDX MPT;"};
    qztest::runLines(ctx, load);
    IO<unsigned short, float>* first = reinterpret_cast<IO<unsigned short, float>*>(qztest::reg(ctx, "MPT"));
    const std::vector<size_t>* firstList = reinterpret_cast<const std::vector<size_t>*>(qztest::reg(ctx, "LPT"));
    ASSERT_NE(firstList, nullptr);
    heapLog.start();
    qztest::runLines(ctx, load);
    heapLog.stop();
    const std::vector<size_t>* list = reinterpret_cast<const std::vector<size_t>*>(qztest::reg(ctx, "LPT"));
    EXPECT_NE((const void*)qztest::reg(ctx, "MPT"), (const void*)first);
    EXPECT_NE(list, firstList);
    EXPECT_EQ(*list, (std::vector<size_t>{2, 3}));
    EXPECT_FALSE(heapLog.freed(first));
    EXPECT_FALSE(heapLog.freed(firstList));
    AbstractGraph<unsigned short>* firstG = first->G;
    delete first;
    delete firstG;
    delete firstList;
}
