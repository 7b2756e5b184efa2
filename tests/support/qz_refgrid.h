// The reference grid models on which other engines were measured: an N x N
// grid with K states, edge and vertex log-potential tables drawn from
// mt19937_64(12345) with normal(0, 0.5), edge tables first. qz has no vertex
// tables, so each vertex table is added to one incident edge (the first edge
// that lists the vertex), which leaves the distribution unchanged.
#ifndef QZ_REFGRID_H
#define QZ_REFGRID_H

#include <cstddef>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace qztest {

struct RefGrid {
    size_t N = 0, K = 0;
    // Edges as the generator lists them: row by row, for each vertex
    // (v, v+1) then (v, v+N).
    std::vector<std::pair<size_t, size_t>> edges;
    // Folded weights, edge-major, the state of the first end vertex slow.
    std::vector<double> w;
};

inline RefGrid refGrid(size_t N, size_t K, unsigned long long seed = 12345ULL) {
    RefGrid R;
    R.N = N;
    R.K = K;
    for (size_t r = 0; r < N; ++r)
        for (size_t c = 0; c < N; ++c) {
            const size_t v = r * N + c;
            if (c + 1 < N) R.edges.push_back({v, v + 1});
            if (r + 1 < N) R.edges.push_back({v, v + N});
        }
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> nd(0.0, 0.5);
    const size_t KK = K * K, E = R.edges.size(), V = N * N;
    R.w.resize(E * KK);
    for (double& x : R.w) x = nd(rng);
    std::vector<double> uw(V * K);
    for (double& x : uw) x = nd(rng);
    std::vector<char> folded(V, 0);
    for (size_t e = 0; e < E; ++e) {
        const size_t s = R.edges[e].first, t = R.edges[e].second;
        if (!folded[s]) {
            for (size_t x = 0; x < K; ++x)
                for (size_t y = 0; y < K; ++y) R.w[e * KK + x * K + y] += uw[s * K + x];
            folded[s] = 1;
        }
        if (!folded[t]) {
            for (size_t x = 0; x < K; ++x)
                for (size_t y = 0; y < K; ++y) R.w[e * KK + x * K + y] += uw[t * K + y];
            folded[t] = 1;
        }
    }
    return R;
}

// The grid as a dense adjacency text, one row per vertex; read back through
// the adjacency reader it lists its edges in the generator's order.
inline std::string refGridAdjacency(const RefGrid& R) {
    const size_t V = R.N * R.N;
    std::vector<std::string> rows(V, std::string());
    std::vector<std::vector<char>> A(V, std::vector<char>(V, '0'));
    for (const auto& e : R.edges) A[e.first][e.second] = A[e.second][e.first] = '1';
    std::string out;
    for (size_t i = 0; i < V; ++i) {
        for (size_t j = 0; j < V; ++j) {
            out += A[i][j];
            if (j + 1 < V) out += ',';
        }
        out += '\n';
    }
    return out;
}

}  // namespace qztest

#endif
