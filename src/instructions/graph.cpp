// Loading and releasing the graph of a context.
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>

#include <cmath>
#include <stdexcept>

namespace QZ {

namespace {

// Builds the graph that GRA names, sized from the data table when there is one
// (one vertex per column of a time slice), else from GVX.
template <typename idx_t, typename val_t> void loadGraph0(vm_t& vm) {
    size_t nv = vm.get(vm_t::GVX);
    void* dp = vm.getP(vm_t::DPT);
    if (dp != nullptr && dp != (void*)1) {
        const CategoricalData* D = static_cast<const CategoricalData*>(dp);
        if (D->rows() > 0) {
            const size_t T = vm.get(vm_t::TXX);
            nv = T == 0 ? 0 : D->columns() / T;
        }
    }
    const idx_t n = (idx_t)nv;

    const size_t GT = vm.get(vm_t::GRA);
    if (GT == vm_t::RBM && vm.get(vm_t::TXX) >= 2) throw std::out_of_range("Temporal RBM is not supported");

    AbstractGraph<idx_t>* G = nullptr;
    switch (GT) {
    case vm_t::CHAIN:
    case vm_t::CLIQUES:
    case vm_t::RNDCLIQUES:
        G = new Chain<idx_t>(n);
        break;
    case vm_t::RBM: {
        const std::vector<size_t>* L = vm.getLP(vm_t::LPT);
        if (L == nullptr) throw std::out_of_range("RBM requires layer definition");
        if (L->size() < 2) throw std::out_of_range("RBM requires more than one layer");
        G = new RBMGraph<idx_t>(*L);
        break;
    }
    case vm_t::GRID:
        G = new Grid<idx_t>((idx_t)std::sqrt((double)n));
        break;
    case vm_t::STAR:
        G = new Star<idx_t>(n, (idx_t)vm.get(vm_t::CEN));
        break;
    case vm_t::FULL:
    case vm_t::CHOWLIU:
    case vm_t::ELEMGM:
        G = new Kn<idx_t>(n, (progress_t)vm.getP(vm_t::CBP));
        break;
    case vm_t::FILE:
        if (vm.getP(vm_t::EAP) != nullptr) {
            // The host's list is used in place and stays the host's.
            G = new Graph<idx_t>(false, (idx_t*)vm.getP(vm_t::EAP), (idx_t)vm.get(vm_t::GVX),
                                 (idx_t)vm.get(vm_t::GEX));
        } else {
            idx_t* A = nullptr;
            idx_t fn = 0, fm = 0;
            adjFromCSV<idx_t>(*vm.getS(vm_t::GFN), A, fn, fm, vm.getC(vm_t::SEP));
            G = new Graph<idx_t>(A, fn, fm);
            delete[] A;
        }
        break;
    default:
        // OTHER, JT, DBT, ST and anything unknown: no graph.
        break;
    }

    vm.set(vm_t::GPT, (void*)G);
    if (vm.getP(vm_t::MPT) != nullptr) vm.attachGraphToModel();
}

struct LoadGraphF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { loadGraph0<idx_t, val_t>(vm); }
};

// A graph that a conversion derived from another is built on it, and nothing
// else holds the graph below once the derived one goes: the two go together.
// A graph that a derived graph still stands on is kept until the last such
// one goes, so that neither a program that put it back into GPT nor a second
// conversion of it leaves a graph on a dead one. A graph the host put into
// GPT is released alone, whatever it is built on.
template <typename idx_t> void releaseGraph(vm_t& vm, void* G) {
    std::map<void*, void*>& derived = vm.derivedGraphs;
    while (G != nullptr) {
        for (const std::pair<void* const, void*>& d : derived)
            if (d.second == G) return;
        void* under = nullptr;
        std::map<void*, void*>::iterator it = derived.find(G);
        if (it != derived.end()) {
            under = it->second;
            derived.erase(it);
        }
        delete static_cast<AbstractGraph<idx_t>*>(G);
        G = under;
    }
}

struct FreeGraphF {
    vm_t& vm;
    void* p;
    template <typename idx_t> void operator()() { releaseGraph<idx_t>(vm, p); }
};

struct GraphCountF {
    const void* p;
    bool vertices;
    size_t out;
    template <typename idx_t> void operator()() {
        const AbstractGraph<idx_t>* G = static_cast<const AbstractGraph<idx_t>*>(p);
        out = (size_t)(vertices ? G->vertices() : G->edges());
    }
};

}  // namespace

void vm_t::loadGraph() {
    LoadGraphF f{*this};
    dispatch(f);
}

bool vm_t::freeGraph() {
    void* p = getP(GPT);
    // Null and the dry-pass sentinel hold nothing to delete; the index type is
    // only needed, and only checked, when there is a graph.
    if (p != nullptr && p != (void*)1) {
        if (modelUsesGraph(p)) {
            // The model still reads its graph: releasing it is put off until
            // the model goes or gets another one, so that DEL GPT never leaves
            // a model on a dead graph.
            dropKeptGraph();
            keptGraph = p;
        } else {
            FreeGraphF f{*this, p};
            if (!dispatchIdx(f)) throw std::logic_error("unsupported storage type");
        }
    }
    set(GPT, (void*)nullptr);
    return true;
}

void vm_t::dropKeptGraph() {
    if (keptGraph == nullptr) return;
    FreeGraphF f{*this, keptGraph};
    dispatchIdx(f);
    keptGraph = nullptr;
}

bool vm_t::graphCount(VarType v, size_t& out) const {
    const void* p = getP(GPT);
    // The dry-pass sentinel is no graph: the stored value answers.
    if (p == nullptr || p == (void*)1) return false;
    GraphCountF f{p, v == GVX, 0};
    if (!dispatchIdx(f)) return false;
    out = f.out;
    return true;
}

}  // namespace QZ
