// Graph helpers shared by the test programs: building a graph from an edge
// list and reading a graph's edges and incidences back as plain vectors.
#ifndef QZ_GRAPH_TEST_UTIL_H
#define QZ_GRAPH_TEST_UTIL_H

#include <QZ/graph/core>

#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace qztest {

typedef std::vector<std::pair<size_t, size_t>> EdgeList;

// A graph that owns a copy of the edge list, in the order and orientation given.
template <typename idx_t> std::unique_ptr<QZ::Graph<idx_t>> makeGraph(size_t n, const EdgeList& edges) {
    idx_t* A = (idx_t*)std::calloc(2 * edges.size() + 1, sizeof(idx_t));
    for (size_t e = 0; e < edges.size(); ++e) {
        A[2 * e] = (idx_t)edges[e].first;
        A[2 * e + 1] = (idx_t)edges[e].second;
    }
    return std::unique_ptr<QZ::Graph<idx_t>>(new QZ::Graph<idx_t>(true, A, (idx_t)n, (idx_t)edges.size()));
}

template <typename idx_t> EdgeList edgeList(const QZ::AbstractGraph<idx_t>& G) {
    EdgeList r;
    for (size_t e = 0; e < (size_t)G.edges(); ++e) {
        idx_t v, u;
        G.edge((idx_t)e, v, u);
        r.push_back({(size_t)v, (size_t)u});
    }
    return r;
}

template <typename idx_t> std::vector<size_t> incidence(const QZ::AbstractGraph<idx_t>& G, idx_t v) {
    std::vector<size_t> r;
    for (size_t i = 0; i < (size_t)G.num_neighbors(v); ++i) r.push_back((size_t)G.in_edge(v, (idx_t)i));
    return r;
}

// The L x L grid, vertex v at row v / L and column v % L: each vertex's
// edge to its right, then to the one below.
inline EdgeList squareGrid(size_t L) {
    EdgeList el;
    for (size_t v = 0; v < L * L; ++v) {
        if (v % L + 1 < L) el.push_back({v, v + 1});
        if (v + L < L * L) el.push_back({v, v + L});
    }
    return el;
}

// Whether the edges join all n vertices into one component.
inline bool connected(size_t n, const EdgeList& E) {
    std::vector<size_t> comp(n);
    for (size_t v = 0; v < n; ++v) comp[v] = v;
    std::function<size_t(size_t)> find = [&](size_t v) { return comp[v] == v ? v : comp[v] = find(comp[v]); };
    for (const auto& e : E) comp[find(e.first)] = find(e.second);
    for (size_t v = 0; v < n; ++v)
        if (find(v) != find(0)) return false;
    return true;
}

}  // namespace qztest

#endif
