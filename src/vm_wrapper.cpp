// The exported C interface. No function here catches an exception: failures
// of a program reach the host as they are.
#include <vm_wrapper>
#include <QZ/QZMISC>

#include <cstdlib>

volatile bool __run = true;

extern "C" {

void* create_ctx() { return new QZ::vm_t(); }

bool ctx_set_code(void* ctx, char** code, size_t n) {
    QZ::vm_t* vm = static_cast<QZ::vm_t*>(ctx);
    if (vm->running()) return false;
    std::vector<std::string>* L = vm->getCode();
    if (L == nullptr)
        L = new std::vector<std::string>();
    else
        L->clear();
    for (size_t i = 0; i < n; ++i) L->push_back(std::string(code[i]));
    vm->setCode(L);
    return true;
}

bool run_ctx(void* ctx) { return static_cast<QZ::vm_t*>(ctx)->run(); }

bool reset_ctx(void* ctx) { return static_cast<QZ::vm_t*>(ctx)->reset(); }

size_t ctx_read_reg(void* ctx, char* r) { return static_cast<QZ::vm_t*>(ctx)->getRegValByName(r); }

bool ctx_write_reg(void* ctx, char* r, size_t val) { return static_cast<QZ::vm_t*>(ctx)->setRegValByName(r, val); }

void destroy_ctx(void* ctx) {
    if (ctx == nullptr) return;
    delete static_cast<QZ::vm_t*>(ctx);
}

size_t version() { return 10068; }

// The first interrupt asks for a graceful stop, a second one ends the process.
void ctrlchandler(int) {
    if (!__run) abort();
    __run = false;
}

}  // extern "C"

vm_wrapper::vm_wrapper() : vm(new QZ::vm_t()) {}

vm_wrapper::~vm_wrapper() {
    if (vm != nullptr) delete static_cast<QZ::vm_t*>(vm);
}

void vm_wrapper::setCode(std::vector<std::string>* L) { static_cast<QZ::vm_t*>(vm)->setCode(L); }

void vm_wrapper::run() { (void)static_cast<QZ::vm_t*>(vm)->run(); }

// ---------------------------------------------------------------- discretization
//
// Equal-frequency bins on the standardised scale, ties kept in one bin, each
// bin with its first four moments and its size.

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <list>
#include <tuple>
#include <utility>

namespace {

typedef std::tuple<double, double, double, double, double> Moments;

// (mean, variance, third, fourth, n). z is taken as mean minus value, so the
// odd moment has the opposite sign from the usual one; the third divides by
// (n-1)(n-2) computed as an unsigned count.
Moments estimateMoments(double* x, const size_t& n) {
    const double dn = (double)n;
    double sum = 0.0;
    for (size_t i = 0; i < n; ++i) sum += x[i];
    const double m = sum / dn;
    double ss = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double d = x[i] - m;
        ss += d * d;
    }
    const double v = ss / (double)(n - 1);
    const double s = std::sqrt(v);
    double s3 = 0.0, s4 = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double z = (m - x[i]) / s;
        const double z2 = z * z;
        s3 += z2 * z;
        s4 += z2 * z2;
    }
    const double third = s3 / (double)((n - 1) * (n - 2));
    const double fourth = s4 / dn - 3.0;
    return Moments(m, v, third, fourth, dn);
}

}  // namespace

extern "C" {

DiscretizationModel discretize(unsigned short* out, double* in, size_t N, size_t q) {
    const double eps = 1e-9;
    const Moments in_moments = estimateMoments(in, N);
    const double in_mean = std::get<0>(in_moments);
    const double in_sdev = std::sqrt(std::get<1>(in_moments));
    const double sd = in_sdev == 0.0 ? 1.0 : in_sdev;

    // One element more than the data: the equal-frequency walk may look at
    // A[N], which repeats the top value.
    double* A = new double[N + 1];
    const long long NN = (long long)N;
    // The copy and the standardisation are one parallel pass: in is read,
    // never written.
#pragma omp parallel for schedule(static)
    for (long long i = 0; i < NN; ++i) A[i] = (in[i] - in_mean) / sd;
    std::sort(A, A + N);
    A[N] = A[N - 1];

    size_t distinct = 1;
#pragma omp parallel
    {
        size_t local = 0;
#pragma omp for schedule(static)
        for (long long i = 1; i < NN; ++i)
            if (A[i] != A[i - 1]) ++local;
#pragma omp atomic
        distinct += local;
    }

    // Bin starts as (position in A, value there).
    std::list<std::pair<double, double>> L;
    L.emplace_back(0.0, A[0]);
    if (distinct <= q) {
        for (size_t i = 1; i < N; ++i)
            if (A[i] != A[i - 1]) L.emplace_back((double)i, A[i]);
        L.emplace_back((double)N, A[N - 1] + 2 * eps);
    } else {
        size_t l = 0;
        for (size_t i = 0; i < q - 1; ++i) {
            const size_t p = (size_t)((double)(N - l) / (double)(q - i));
            size_t j = l + p;
            // A run of equal values at the bin's start is never cut.
            while (j < N && A[j] == A[l]) ++j;
            l = j;
            L.emplace_back((double)j, A[j]);
        }
        L.emplace_back((double)N, A[N - 1]);
    }

    // Of two near-equal edges the later one stays.
    {
        auto last = L.begin();
        auto ii = std::next(last);
        while (ii != L.end()) {
            if (std::fabs(last->second - ii->second) < eps) L.erase(last);
            last = ii;
            ++ii;
        }
    }

    std::vector<std::pair<double, double>> I;
    std::vector<Moments> G;
    {
        auto last = L.begin();
        auto ii = std::next(last);
        while (ii != L.end()) {
            const size_t cnt = (size_t)(ii->first - last->first);
            const Moments g = estimateMoments(A + (size_t)last->first, cnt);
            // Zero variance: a degenerate bin holding one value.
            if (std::get<1>(g) == 0)
                I.emplace_back(last->second, last->second);
            else
                I.emplace_back(last->second, ii->second);
            G.push_back(g);
            last = ii;
            ++ii;
        }
    }
    delete[] A;

    DiscretizationModel M;
    M.num_intervals = I.size();
    M.num_moments = G.size();
    M.intervals = new double[2 * I.size()];
    M.moments = new double[5 * G.size()];
    for (size_t b = 0; b < I.size(); ++b) {
        M.intervals[2 * b] = I[b].first;
        M.intervals[2 * b + 1] = I[b].second;
    }
    for (size_t b = 0; b < G.size(); ++b) {
        double* g = M.moments + 5 * b;
        std::tie(g[0], g[1], g[2], g[3], g[4]) = G[b];
    }
    M.mean = in_mean;
    M.sdev = in_sdev;
    discretize_precomputed(out, in, N, M);
    return M;
}

void discretize_precomputed(unsigned short* out, double* in, size_t N, DiscretizationModel M) {
    const double sd = M.sdev == 0.0 ? 1.0 : M.sdev;
    const double mean = M.mean;
    const double* E = M.intervals;
    const size_t K = M.num_intervals;
    const double firstLow = E[0];
    const double lastHigh = E[2 * (K - 1) + 1];
    const long long NN = (long long)N;
#pragma omp parallel for schedule(static)
    for (long long i = 0; i < NN; ++i) {
        const double val = (in[i] - mean) / sd;
        bool found = false;
        size_t code = 0;
        // The outer bins take everything beyond them.
        if (firstLow > val) {
            code = 0;
            found = true;
        } else if (lastHigh <= val) {
            code = K - 1;
            found = true;
        }
        // Closed below, open above; a degenerate bin holds its one value.
        for (size_t ii = 0; !found && ii < K; ++ii) {
            const double lo = E[2 * ii], hi = E[2 * ii + 1];
            if ((lo == hi && lo == val) || (lo <= val && hi > val)) {
                code = ii;
                found = true;
            }
        }
        assert(found);
        out[i] = (unsigned short)code;
    }
}

}  // extern "C"
