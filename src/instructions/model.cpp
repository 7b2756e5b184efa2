// MODEL and STATS: the model container built from the table and the graph,
// and its sufficient statistics.
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>
#include <QZ/QZMRF>

#include "checks.h"
#include "structure.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace QZ {

namespace {

template <typename idx_t, typename val_t> void modelFunc0(vm_t& vm) {
    const size_t gra = vm.get(vm_t::GRA);
    struct_detail::checkSearch(vm, static_cast<AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT))->vertices());

    CategoricalData* D = static_cast<CategoricalData*>(vm.getP(vm_t::DPT));
    // The container goes into MPT at once, so that a failure below leaves
    // the partly filled container where the program can see it.
    IO<idx_t, val_t>* io = new IO<idx_t, val_t>();
    vm.set(vm_t::MPT, (void*)io);
    AbstractGraph<idx_t>* G = static_cast<AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
    const idx_t n = G->vertices();
    const idx_t m = G->edges();

    if (vm.getP(vm_t::YYY) != nullptr) {
        io->Y = static_cast<idx_t*>(vm.getP(vm_t::YYY));
    } else {
        io->Y = new idx_t[n];
        for (idx_t v = 0; v < n; ++v) io->Y[v] = (idx_t)D->categories(v);
    }
    const idx_t* Y = io->Y;
    checkCounting<idx_t>(D, G, Y);
    if (gra == vm_t::CLIQUES) checkSubsets<idx_t>((size_t)n, Y, vm.get(vm_t::KXX));

    idx_t d = 0;
    idx_t s, t;
    for (idx_t e = 0; e < m; ++e) {
        G->edge(e, s, t);
        d += Y[s] * Y[t];
    }
    io->dim = d;

    io->Xnames = D->columnNames();
    io->Ynames = new std::vector<std::vector<std::string>*>();
    for (idx_t v = 0; v < n; ++v) io->Ynames->push_back(new std::vector<std::string>(*D->categoryNames(v)));

    io->w = new val_t[d]();
    io->gtype = (idx_t)gra;
    io->T = (idx_t)vm.get(vm_t::TXX);
    io->decay = (idx_t)vm.get(vm_t::REP);
    // At least one instance, so that frequencies stay defined for an empty table.
    io->num_instances = D->size() == 0 ? (idx_t)1 : (idx_t)D->size();
    io->G = G;

    const size_t rep = vm.get(vm_t::REP);
    if (rep >= 1 && rep <= 9) {
        // A decay law needs the spatio-temporal graph; any other graph has no
        // base to record.
        STGraph<idx_t>* st = dynamic_cast<STGraph<idx_t>*>(G);
        io->H = st ? st->base() : nullptr;
    }
    io->llist = convertList(vm.getLP(vm_t::LPT));

    const bool ret = struct_detail::countStats<idx_t, val_t>(vm, io, D, G);
    if (!ret) throw std::logic_error("can not compute sufficient statistics (most likely out of memory)");

    // A search replaces io->G, and with it the sized fields, the counts of
    // the edges and the weights.
    vm.set(vm_t::RES, struct_detail::searchStructure<idx_t, val_t>(vm, io, D));
    vm.set(vm_t::GPT, (void*)io->G);
}

template <typename idx_t, typename val_t> void statsFunc0(vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    const AbstractGraph<idx_t>* G = static_cast<const AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
    CategoricalData* D = static_cast<CategoricalData*>(vm.getP(vm_t::DPT));
    // STATS does not require a table before it runs; counting without one is
    // reported like any other missing resource instead of reading nothing.
    if (D == nullptr || D == (void*)1) throw std::logic_error("no data loaded");
    checkCounting<idx_t>(D, G, io->Y);
    // The earlier arrays are replaced, not released.
    if (sumStats<idx_t, val_t>(D, G, io->Y, vm.random_engine, io->E, io->woff, io->odim, io->sdim))
        io->num_instances = (idx_t)D->size();
    else
        throw std::logic_error("can not compute sufficient statistics (most likely out of memory)");
}

struct ModelF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { modelFunc0<idx_t, val_t>(vm); }
};

struct StatsF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { statsFunc0<idx_t, val_t>(vm); }
};

}  // namespace

void vm_t::modelFunc() {
    ModelF f{*this};
    dispatch(f);
}

void vm_t::statsFunc() {
    StatsF f{*this};
    dispatch(f);
}

}  // namespace QZ
