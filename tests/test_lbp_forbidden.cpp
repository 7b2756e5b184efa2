// Weights of minus infinity (forbidden joint states) in loopy belief
// propagation, Gibbs sampling and enumeration, against exact enumeration in
// the test; models with only finite weights give the bits they gave before
// forbidden states were handled.
#include <gtest/gtest.h>
#include <qz_graph_util.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qztest::EdgeList;
const double NEG_INF = -std::numeric_limits<double>::infinity();

struct Model {
    size_t n = 0;
    EdgeList edges;
    std::vector<unsigned> Y;
    std::vector<double> w;
    std::unique_ptr<QZ::Graph<unsigned>> G;

    void finish() {
        size_t d = 0;
        for (const auto& e : edges) d += (size_t)Y[e.first] * Y[e.second];
        w.resize(d, 0.0);
        G = qztest::makeGraph<unsigned>(n, edges);
    }
    size_t offset(size_t e) const {
        size_t o = 0;
        for (size_t k = 0; k < e; ++k) o += (size_t)Y[edges[k].first] * Y[edges[k].second];
        return o;
    }
};

// An L x L grid with random chords and orientations, state counts drawn from
// the list, weights uniform in [-s, s].
Model loopy(size_t L, unsigned seed, double s, const std::vector<unsigned>& states, size_t chords) {
    std::mt19937 g(seed);
    Model M;
    M.n = L * L;
    auto add = [&](size_t a, size_t b) {
        if (std::uniform_int_distribution<int>(0, 1)(g)) std::swap(a, b);
        M.edges.push_back({a, b});
    };
    for (size_t v = 0; v < M.n; ++v) {
        if (v % L + 1 < L) add(v, v + 1);
        if (v + L < M.n) add(v, v + L);
    }
    for (size_t c = 0; c < chords; ++c) {
        const size_t a = std::uniform_int_distribution<size_t>(0, M.n - 1)(g);
        const size_t b = std::uniform_int_distribution<size_t>(0, M.n - 1)(g);
        if (a != b) add(a, b);
    }
    for (size_t v = 0; v < M.n; ++v) M.Y.push_back(states[std::uniform_int_distribution<size_t>(0, states.size() - 1)(g)]);
    M.finish();
    std::uniform_real_distribution<double> U(-s, s);
    for (double& x : M.w) x = U(g);
    return M;
}

// FNV-1a over the bits of a sequence of numbers.
struct Bits {
    uint64_t h = 1469598103934665603ull;
    template <typename T> void add(const T& x) {
        unsigned char b[sizeof(T)];
        std::memcpy(b, &x, sizeof(T));
        for (unsigned char c : b) h = (h ^ c) * 1099511628211ull;
    }
};

// The bits of everything a caller reads after a run: the log partition
// function, the vertex and edge marginals and the messages.
template <typename val_t> uint64_t runBits(const Model& M, const std::vector<val_t>& w, int mode,
                                           const std::vector<std::pair<unsigned, val_t>>& obs = {}) {
    std::vector<val_t> wc = w;
    QZ::LBP<unsigned, val_t> bp(M.G.get(), M.Y.data(), nullptr, wc.data(), false);
    bp.setMaxIter(40);
    for (const auto& o : obs) bp.observe(o.first, o.second);
    bp.infer((unsigned)mode);
    Bits b;
    b.add(bp.A());
    for (unsigned v = 0; v < M.n; ++v)
        for (unsigned x = 0; x < M.Y[v]; ++x) {
            val_t q = 0, Z = 0;
            bp.vertex_marginal(v, x, q, Z);
            b.add(q);
            b.add(Z);
        }
    for (unsigned e = 0; e < M.edges.size(); ++e) {
        for (unsigned x = 0; x < M.Y[M.edges[e].first]; ++x)
            for (unsigned y = 0; y < M.Y[M.edges[e].second]; ++y) {
                val_t a = 0, Z = 0;
                bp.edge_marginal(e, x, y, a, Z);
                b.add(a);
                b.add(Z);
            }
        for (unsigned y = 0; y < M.Y[M.edges[e].second]; ++y) b.add(bp.messages(e, false)[y]);
        for (unsigned x = 0; x < M.Y[M.edges[e].first]; ++x) b.add(bp.messages(e, true)[x]);
    }
    return b.h;
}

template <typename val_t> std::vector<val_t> cast(const std::vector<double>& w) {
    return std::vector<val_t>(w.begin(), w.end());
}

// Gibbs sampling and enumeration of a finite model, by bits.
uint64_t gibbsBits(const Model& M, unsigned seed) {
    std::vector<double> wc = M.w;
    std::mt19937 rng(seed);
    QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), &rng, wc.data(), false);
    std::vector<double> x(M.n, 1000.0);
    x[3] = 1;
    Bits b;
    for (int k = 0; k < 20; ++k) {
        bp.GIBBS(x.data(), 2, true);
        for (double v : x) b.add(v);
        for (unsigned v = 0; v < M.n; ++v) bp.clear(v);
        std::fill(x.begin(), x.end(), 1000.0);
        x[3] = (double)(k % 2);
    }
    return b.h;
}

uint64_t slowBits(const Model& M) {
    std::vector<double> wc = M.w;
    QZ::LBP<unsigned, double> bp(M.G.get(), M.Y.data(), nullptr, wc.data(), false);
    bp.infer(10);
    Bits b;
    b.add(bp.A());
    for (size_t i = 0; i < M.w.size(); ++i) b.add(bp.raw_mu()[i]);
    return b.h;
}

}  // namespace

// The bits of runs made before forbidden states were handled: a finite model
// takes the same path and gives the same numbers, in both number types, in
// the linear sweeps and in the log-domain ones (weights spread too far for
// the linear range), with and without observations.
TEST(Forbidden, FiniteModelsGiveTheBitsTheyGaveBefore) {
    const Model M = loopy(5, 3, 2.0, {2, 3, 4}, 6);
    Model wide = loopy(5, 4, 2.0, {2, 3}, 4);
    for (double& x : wide.w) x *= 150.0;
    const std::vector<std::pair<unsigned, double>> obs = {{2, 1.0}, {7, 0.0}, {11, 0.25}};
    const std::vector<std::pair<unsigned, float>> obsf = {{2, 1.0f}, {7, 0.0f}, {11, 0.25f}};
    const uint64_t got[] = {
        runBits<double>(M, M.w, 0),           runBits<double>(M, M.w, 1),
        runBits<double>(M, M.w, 0, obs),      runBits<double>(M, M.w, 1, obs),
        runBits<double>(wide, wide.w, 0),     runBits<double>(wide, wide.w, 1),
        runBits<double>(wide, wide.w, 0, obs), runBits<float>(M, cast<float>(M.w), 0),
        runBits<float>(M, cast<float>(M.w), 1, obsf),
        runBits<float>(wide, cast<float>(wide.w), 0), gibbsBits(M, 17), slowBits(loopy(3, 5, 1.5, {2, 3}, 2))};
    const uint64_t want[] = {0x2ec3cd6a91d6225eull, 0x4d5747bbdc9697cfull, 0x4e470881b7686100ull, 0x8bf2906a089b0bf0ull,
                             0xfca0efd99f712fd1ull, 0x4af87e1b1d18f353ull, 0xea4b3d399cede602ull, 0x3536a47ab8fce546ull,
                             0x5c9b6ee8dfbefedfull, 0x617ace600c422f4dull, 0x7712b96f8ff8db13ull, 0x045d28aaa5ceed0eull};
    for (size_t k = 0; k < sizeof(want) / sizeof(want[0]); ++k)
        EXPECT_EQ(got[k], want[k]) << "run " << k << ": 0x" << std::hex << got[k];
}
