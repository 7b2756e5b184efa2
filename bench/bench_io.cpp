// Writing and reading a model file over an l x l grid with 4 states per
// vertex. Bytes per second are those of the file; comparing the grid sizes of
// one run shows whether both directions stay linear in the model's size.
#include <benchmark/benchmark.h>

#include <QZ/QZIO>
#include <QZ/graph/generators>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

using namespace QZ;

namespace {

typedef unsigned int I;
typedef double V;

IO<I, V>* gridModel(I l) {
    IO<I, V>* io = new IO<I, V>();
    io->G = new Grid<I>(l);
    const I n = io->G->vertices(), m = io->G->edges();
    io->Y = new I[n];
    io->Xnames = new std::vector<std::string>();
    io->Ynames = new std::vector<std::vector<std::string>*>();
    for (I v = 0; v < n; ++v) {
        io->Y[v] = 4;
        io->Xnames->push_back("pixel" + std::to_string(v));
        io->Ynames->push_back(new std::vector<std::string>{"0", "1", "2", "3"});
    }
    io->odim = n + m + 1;
    io->woff = new I[io->odim];
    io->woff[0] = 0;
    for (I v = 0; v < n; ++v) io->woff[v + 1] = io->woff[v] + 4;
    for (I e = 0; e < m; ++e) io->woff[n + e + 1] = io->woff[n + e] + 16;
    io->sdim = io->woff[n + m];
    io->dim = 16 * m;
    io->E = new V[io->sdim];
    for (I i = 0; i < io->sdim; ++i) io->E[i] = (V)(i % 1000);
    io->w = new V[io->dim];
    for (I i = 0; i < io->dim; ++i) io->w[i] = 0.001 * (V)(i % 997);
    io->T = 1;
    io->num_instances = 1000;
    return io;
}

size_t fileSize(const std::string& fn) {
    std::ifstream f(fn, std::ios::binary | std::ios::ate);
    return (size_t)f.tellg();
}

std::string benchFile() { return "bench_io_model.tmp"; }

void BM_StoreModel(benchmark::State& state) {
    IO<I, V>* io = gridModel((I)state.range(0));
    const std::string fn = benchFile();
    for (auto _ : state) io->store(fn);
    const size_t bytes = fileSize(fn);
    state.SetBytesProcessed((int64_t)(bytes * state.iterations()));
    state.counters["file_MB"] = (double)bytes / 1e6;
    delete io->G;
    delete[] io->w;
    delete io;
    std::remove(fn.c_str());
}

void BM_LoadModel(benchmark::State& state) {
    IO<I, V>* io = gridModel((I)state.range(0));
    const std::string fn = benchFile();
    io->store(fn);
    delete io->G;
    delete[] io->w;
    delete io;
    for (auto _ : state) {
        IO<I, V>* back = new IO<I, V>(fn);
        benchmark::DoNotOptimize(back->w);
        delete back->G;
        delete back;
    }
    const size_t bytes = fileSize(fn);
    state.SetBytesProcessed((int64_t)(bytes * state.iterations()));
    state.counters["file_MB"] = (double)bytes / 1e6;
    std::remove(fn.c_str());
}

// One store and one reload per iteration: the round trip a host makes to keep
// a fitted model. Bytes count the file once each way.
void BM_StoreAndReload(benchmark::State& state) {
    IO<I, V>* io = gridModel((I)state.range(0));
    const std::string fn = benchFile();
    for (auto _ : state) {
        io->store(fn);
        IO<I, V>* back = new IO<I, V>(fn);
        benchmark::DoNotOptimize(back->w);
        delete back->G;
        delete back;
    }
    const size_t bytes = fileSize(fn);
    state.SetBytesProcessed((int64_t)(2 * bytes * state.iterations()));
    state.counters["file_MB"] = (double)bytes / 1e6;
    delete io->G;
    delete[] io->w;
    delete io;
    std::remove(fn.c_str());
}

}  // namespace

BENCHMARK(BM_StoreModel)->Arg(100)->Arg(200)->Arg(300)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LoadModel)->Arg(100)->Arg(200)->Arg(300)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_StoreAndReload)->Arg(300)->Unit(benchmark::kMillisecond)->UseRealTime();
