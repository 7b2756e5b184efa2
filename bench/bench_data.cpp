// Reading categorical text tables and discretizing real arrays.
#include <benchmark/benchmark.h>

#include <vm_wrapper>
#include <QZ/QZDATA>

#include <omp.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

// rows x cols cells of a few categories each (column c has c % 5 + 2), about
// 3% missing, plus header and the sacrificial line. Written once per shape.
std::string csvFile(size_t rows, size_t cols, bool uniqueFirst = false) {
    const std::string path = "/tmp/qz_bench_" + std::to_string(rows) + "x" + std::to_string(cols) +
                             (uniqueFirst ? "u" : "") + ".csv";
    if (QZ::file_exists(path)) return path;
    std::mt19937 rng(42);
    std::string out;
    out.reserve(rows * cols * 3);
    for (size_t c = 0; c < cols; ++c) out += (c ? ",c" : "c") + std::to_string(c);
    out += '\n';
    for (size_t r = 0; r <= rows; ++r) {
        for (size_t c = 0; c < cols; ++c) {
            if (c) out += ',';
            if (uniqueFirst && c == 0) {
                out += 'v' + std::to_string(r);
                continue;
            }
            const unsigned x = rng();
            if (x % 32 == 0)
                out += '?';
            else
                out += (char)('a' + (x >> 8) % (c % 5 + 2));
        }
        out += '\n';
    }
    const std::string tmp = path + ".part";
    std::ofstream(tmp, std::ios::binary) << out;
    std::rename(tmp.c_str(), path.c_str());
    return path;
}

void readOnce(const std::string& path, size_t rows, benchmark::State& state) {
    QZ::CategoricalCSVData D(true, '?', false, nullptr);
    D.read(path);
    if (D.rows() != rows) state.SkipWithError("wrong row count");
    benchmark::DoNotOptimize(D.data);
}

void BM_ReadCSV_1Mx20(benchmark::State& state) {
    const size_t rows = 1000000;
    const std::string path = csvFile(rows, 20);
    for (auto _ : state) readOnce(path, rows, state);
    state.counters["rows_per_second"] =
        benchmark::Counter((double)rows * state.iterations(), benchmark::Counter::kIsRate);
    state.SetBytesProcessed((int64_t)QZ::filesize(path) * state.iterations());
}
BENCHMARK(BM_ReadCSV_1Mx20)->Unit(benchmark::kMillisecond)->Iterations(3);

// Growth in rows: time per row must stay flat.
void BM_ReadCSV_Rows(benchmark::State& state) {
    const size_t rows = (size_t)state.range(0);
    const std::string path = csvFile(rows, 20);
    for (auto _ : state) readOnce(path, rows, state);
    state.counters["rows_per_second"] =
        benchmark::Counter((double)rows * state.iterations(), benchmark::Counter::kIsRate);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_ReadCSV_Rows)->Arg(125000)->Arg(250000)->Arg(500000)->Unit(benchmark::kMillisecond)->Complexity();

// Growth in categories: column 0 brings a new category on every row.
void BM_ReadCSV_Categories(benchmark::State& state) {
    const size_t rows = (size_t)state.range(0);
    const std::string path = csvFile(rows, 4, true);
    for (auto _ : state) readOnce(path, rows, state);
    state.counters["rows_per_second"] =
        benchmark::Counter((double)rows * state.iterations(), benchmark::Counter::kIsRate);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_ReadCSV_Categories)->Arg(100000)->Arg(200000)->Arg(400000)->Unit(benchmark::kMillisecond)->Complexity();

const std::vector<double>& values() {
    static std::vector<double> v = [] {
        std::vector<double> x(10000000);
        std::mt19937 rng(7);
        std::normal_distribution<double> nd(0.0, 1.0);
        for (double& d : x) d = nd(rng);
        return x;
    }();
    return v;
}

void discretizeOnce(std::vector<unsigned short>& out, size_t q) {
    // discretize does not write its input.
    double* in = const_cast<double*>(values().data());
    DiscretizationModel M = discretize(out.data(), in, values().size(), q);
    delete[] M.intervals;
    delete[] M.moments;
}

void BM_Discretize_10M(benchmark::State& state) {
    const int threads = (int)state.range(0);
    const int before = omp_get_max_threads();
    omp_set_num_threads(threads);
    std::vector<unsigned short> out(values().size());
    for (auto _ : state) discretizeOnce(out, 16);
    omp_set_num_threads(before);
    state.counters["values_per_second"] =
        benchmark::Counter((double)values().size() * state.iterations(), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Discretize_10M)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

// One and two threads alternating within one run, so that a noisy machine
// affects both alike: t2_over_t1 below 1 is the gain of the second thread.
void BM_Discretize_ThreadRatio(benchmark::State& state) {
    const int before = omp_get_max_threads();
    std::vector<unsigned short> out(values().size());
    double t1 = 0, t2 = 0;
    for (auto _ : state) {
        for (int threads : {1, 2}) {
            omp_set_num_threads(threads);
            const auto a = std::chrono::steady_clock::now();
            discretizeOnce(out, 16);
            const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - a).count();
            (threads == 1 ? t1 : t2) += s;
        }
    }
    omp_set_num_threads(before);
    state.counters["t2_over_t1"] = t2 / t1;
}
BENCHMARK(BM_Discretize_ThreadRatio)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
