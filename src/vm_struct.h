// The part of MODEL that depends on the graph kind in GRA: which statistics are
// counted, and the structure search that then replaces the graph.
#ifndef QZ_VM_STRUCT_H
#define QZ_VM_STRUCT_H

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>
#include <QZ/QZMRF>
#include <QZ/QZSTRUCT>

#include <cmath>
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

// The counts the search of GRA starts from: all subsets up to KXX for the
// exhaustive clique search, the vertices and edges of the graph otherwise.
template <typename idx_t, typename val_t>
bool countStats(vm_t& vm, IO<idx_t, val_t>* io, CategoricalData* D, const AbstractGraph<idx_t>* G) {
    if (vm.get(vm_t::GRA) == vm_t::CLIQUES)
        return configureStats<idx_t, val_t>(D, G, io->Y, vm.random_engine, (idx_t)vm.get(vm_t::KXX), io->E,
                                            io->woff, io->odim, io->sdim,
                                            reinterpret_cast<progress_t>(vm.getP(vm_t::CBP)));
    return sumStats<idx_t, val_t>(D, G, io->Y, vm.random_engine, io->E, io->woff, io->odim, io->sdim);
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
    const idx_t k = (idx_t)vm.get(vm_t::KXX);
    const double pel = vm.getR(vm_t::PEL);
    switch ((size_t)io->gtype) {
    case vm_t::CLIQUES: return (double)io->buildCliques(pel, k, cbp, g);
    case vm_t::RNDCLIQUES: return (double)io->buildCliquesRnd(pel, k, cbp, g, *vm.random_engine);
    case vm_t::CHOWLIU: io->buildChowLiu(cbp); return -1.0;
    case vm_t::ELEMGM: io->buildElemGM(pel, cbp); return -1.0;
    default: return -1.0;
    }
}

}  // namespace struct_detail

}  // namespace QZ

#endif
