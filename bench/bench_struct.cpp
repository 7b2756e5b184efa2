// Structure learning on 100,000 rows of 50 columns with 4 states each, drawn
// from a random tree: the counts of the complete graph that the pairwise
// searches start from (rows per second), and the time of each search on
// those counts.
#include <benchmark/benchmark.h>

#include <QZ/QZDATA>
#include <QZ/graph/generators>
#include <QZ/inf/base>
#include <QZ/mrf/stats>
#include <QZ/QZSTRUCT>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace QZ;

namespace {

typedef unsigned int I;
typedef double V;

const size_t kRows = 100000, kCols = 50, kStates = 4;

// Each column copies its parent's state, or with probability 0.4 draws a
// fresh one; the parent of column c is a random earlier column.
struct TreeTable {
    std::vector<unsigned short> cells;
    std::vector<std::vector<std::string>*> YN;
    std::unique_ptr<CategoricalNumPyData> D;
    TreeTable() : cells(kRows * kCols) {
        std::mt19937 rng(2024);
        std::vector<size_t> parent(kCols, 0);
        for (size_t c = 1; c < kCols; ++c) parent[c] = rng() % c;
        std::uniform_int_distribution<unsigned short> state(0, kStates - 1);
        std::bernoulli_distribution fresh(0.4);
        for (size_t r = 0; r < kRows; ++r) {
            unsigned short* row = &cells[r * kCols];
            row[0] = state(rng);
            for (size_t c = 1; c < kCols; ++c) row[c] = fresh(rng) ? state(rng) : row[parent[c]];
        }
        for (size_t c = 0; c < kCols; ++c) YN.push_back(new std::vector<std::string>{"a", "b", "c", "d"});
        D.reset(new CategoricalNumPyData(false, &YN));
        D->read(cells.data(), kRows, kCols);
    }
    ~TreeTable() {
        for (auto* v : YN) delete v;
    }
};

TreeTable& table() {
    static TreeTable T;
    return T;
}

// A container over the complete graph with the table's counts.
struct Counted {
    IO<I, V> io;
    std::mt19937 rng{1};
    Counted() {
        io.G = new Kn<I>((I)kCols, nullptr);
        io.Y = new I[kCols];
        for (size_t v = 0; v < kCols; ++v) io.Y[v] = (I)kStates;
        io.dim = calcDim<I>(io.G, io.Y);
        io.w = new V[io.dim]();
        io.num_instances = (I)kRows;
        sumStats<I, V>(table().D.get(), io.G, io.Y, &rng, io.E, io.woff, io.odim, io.sdim);
    }
    ~Counted() {
        delete io.G;
        delete[] io.w;
    }
};

// A fresh copy of the counted container for one search, which replaces its
// graph and arrays.
IO<I, V>* copyOf(const IO<I, V>& src) {
    IO<I, V>* io = new IO<I, V>();
    io->G = new Kn<I>(src.G->vertices(), nullptr);
    io->Y = new I[kCols];
    std::memcpy(io->Y, src.Y, kCols * sizeof(I));
    io->dim = src.dim;
    io->odim = src.odim;
    io->sdim = src.sdim;
    io->num_instances = src.num_instances;
    io->w = new V[src.dim]();
    io->E = new V[src.sdim];
    std::memcpy(io->E, src.E, src.sdim * sizeof(V));
    io->woff = new I[src.odim];
    std::memcpy(io->woff, src.woff, src.odim * sizeof(I));
    return io;
}

void release(IO<I, V>* io) {
    delete io->G;
    delete[] io->w;
    delete io;
}

void BM_CountCompleteGraph(benchmark::State& state) {
    TreeTable& T = table();
    Kn<I> G((I)kCols, nullptr);
    std::vector<I> Y(kCols, (I)kStates);
    std::mt19937 rng(1);
    for (auto _ : state) {
        V* E = nullptr;
        I* woff = nullptr;
        I odim = 0, sdim = 0;
        sumStats<I, V>(T.D.get(), &G, Y.data(), &rng, E, woff, odim, sdim);
        benchmark::DoNotOptimize(E);
        delete[] E;
        delete[] woff;
    }
    state.counters["rows/s"] = benchmark::Counter((double)kRows, benchmark::Counter::kIsIterationInvariantRate);
}

template <typename Search> void runSearch(benchmark::State& state, Search search) {
    static Counted C;
    size_t edges = 0;
    for (auto _ : state) {
        state.PauseTiming();
        IO<I, V>* io = copyOf(C.io);
        state.ResumeTiming();
        search(*io);
        state.PauseTiming();
        edges = io->G->edges();
        release(io);
        state.ResumeTiming();
    }
    state.counters["edges"] = (double)edges;
}

void BM_ChowLiu(benchmark::State& state) {
    runSearch(state, [](IO<I, V>& io) { io.buildChowLiu(nullptr); });
}

void BM_ElemGM(benchmark::State& state) {
    const double fraction = (double)state.range(0) / 100.0;
    runSearch(state, [fraction](IO<I, V>& io) { io.buildElemGM(fraction, nullptr); });
}

}  // namespace

BENCHMARK(BM_CountCompleteGraph)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ChowLiu)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ElemGM)->Arg(5)->Arg(50)->Unit(benchmark::kMillisecond)->UseRealTime();
