// The part of MODEL that depends on the graph kind in GRA: which statistics are
// counted, and the structure search that then replaces the graph.
#ifndef QZ_INSTRUCTIONS_STRUCTURE_H
#define QZ_INSTRUCTIONS_STRUCTURE_H

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>
#include <QZ/QZMRF>
#include <QZ/QZSTRUCT>

#include <cmath>
#include <limits>
#include <string>
#include <vector>
#include <stdexcept>

namespace QZ {

namespace struct_detail {

// Register values under which a search would read past its arrays or never
// end are refused before anything is built: the clique layout needs pairs,
// the random search needs k distinct vertices of which not all may share a
// component, and the cell walk needs a fraction of the cells.
inline void checkSearch(const vm_t& vm, const size_t& n) {
    const size_t gra = vm.get(vm_t::GRA);
    const size_t k = vm.get(vm_t::KXX);
    if (gra == vm_t::CLIQUES && k < 2) throw std::out_of_range("CLIQUES requires KXX of at least 2");
    if (gra == vm_t::RNDCLIQUES && (k < 2 || k > n))
        throw std::out_of_range("RNDCLIQUES requires KXX between 2 and the number of vertices");
    if (gra == vm_t::ELEMGM) {
        const double f = vm.getR(vm_t::PEL);
        if (!(f >= 0.0 && f <= 1.0)) throw std::out_of_range("ELEMGM requires PEL between 0 and 1");
    }
}

// The subset size of the clique search in idx_t. A KXX above the number of
// vertices takes no clique whatever its value, so it becomes n + 1: KXX itself
// could wrap to a size below 2 in a narrow index type, and the layout would
// then miss the pairs that the counting fills. (checkSubsets has refused a
// table of as many vertices as idx_t can number.)
template <typename idx_t> idx_t cliqueOrder(const vm_t& vm, const idx_t& n) {
    const size_t k = vm.get(vm_t::KXX);
    return k <= (size_t)n ? (idx_t)k : (idx_t)(n + 1);
}

// The counts the search of GRA starts from: all subsets up to KXX for the
// exhaustive clique search, the vertices and edges of the graph otherwise.
template <typename idx_t, typename val_t>
bool countStats(vm_t& vm, IO<idx_t, val_t>* io, CategoricalData* D, const AbstractGraph<idx_t>* G) {
    if (vm.get(vm_t::GRA) == vm_t::CLIQUES)
        return configureStats<idx_t, val_t>(D, G, io->Y, vm.random_engine, cliqueOrder<idx_t>(vm, G->vertices()), io->E,
                                            io->woff, io->odim, io->sdim,
                                            reinterpret_cast<progress_t>(vm.getP(vm_t::CBP)));
    return sumStats<idx_t, val_t>(D, G, io->Y, vm.random_engine, io->E, io->woff, io->odim, io->sdim);
}

// The number of vertices in the component of vertex 0.
template <typename idx_t> size_t joinedToFirst(const AbstractGraph<idx_t>& G) {
    const size_t n = (size_t)G.vertices();
    if (n == 0) return 0;
    std::vector<std::vector<size_t>> adj(n);
    idx_t s, t;
    for (idx_t e = 0; e < G.edges(); ++e) {
        G.edge(e, s, t);
        adj[(size_t)s].push_back((size_t)t);
        adj[(size_t)t].push_back((size_t)s);
    }
    std::vector<char> seen(n, 0);
    std::vector<size_t> todo{0};
    seen[0] = 1;
    size_t count = 1;
    while (!todo.empty()) {
        const size_t v = todo.back();
        todo.pop_back();
        for (const size_t u : adj[v])
            if (!seen[u]) {
                seen[u] = 1;
                ++count;
                todo.push_back(u);
            }
    }
    return count;
}

// Runs the search of io->gtype and returns the score for RES: the mean score
// of the clique searches, -1 for the others and for graphs that are kept.
template <typename idx_t, typename val_t> double searchStructure(vm_t& vm, IO<idx_t, val_t>* io, CategoricalData* D) {
    const progress_t cbp = reinterpret_cast<progress_t>(vm.getP(vm_t::CBP));
    const idx_t n = io->G->vertices();
    idx_t* Y = io->Y;
    // The counts of one vertex subset, straight from the table.
    typename IO<idx_t, val_t>::subset_stats_t g = [D, n, Y](size_t x, const idx_t& L) mutable {
        return sumStatsOnlineSUI<idx_t, val_t>(D, n, Y, x, L);
    };
    const idx_t k = cliqueOrder<idx_t>(vm, n);
    const double pel = vm.getR(vm_t::PEL);
    switch ((size_t)io->gtype) {
    case vm_t::CLIQUES: {
        const double r = (double)io->buildCliques(pel, k, cbp, g);
        if (vm.get(vm_t::KXX) > (size_t)n)
            vm.warn("KXX is above the number of vertices: there is no clique of that size, so the graph has no "
                    "edges and RES is not a number");
        else if (!__run) vm.warn("the clique search was interrupted: the graph holds only the cliques taken before, if any");
        return r;
    }
    case vm_t::RNDCLIQUES: {
        const double r = (double)io->buildCliquesRnd(pel, k, cbp, g, *vm.random_engine);
        // The random search also ends when its acceptance has decayed to
        // nothing (or on an interrupt), with the cliques taken so far. That
        // graph is kept, since the counts it cost are worth having, but it
        // leaves vertices without edges: the host hears of it, and RES is
        // not a number so that a host without a callback can tell too.
        const size_t joined = joinedToFirst(*io->G);
        if (joined < (size_t)n) {
            vm.warn(std::string("RNDCLIQUES ") + (__run ? "gave up" : "was interrupted") + " with " +
                    std::to_string(joined) + " of " + std::to_string((size_t)n) +
                    " vertices joined: the other vertices have no edges; try a larger KXX or another SEED");
            return std::numeric_limits<double>::quiet_NaN();
        }
        return r;
    }
    case vm_t::CHOWLIU: io->buildChowLiu(cbp); return -1.0;
    case vm_t::ELEMGM: io->buildElemGM(pel, cbp); return -1.0;
    default: return -1.0;
    }
}

}  // namespace struct_detail

}  // namespace QZ

#endif
