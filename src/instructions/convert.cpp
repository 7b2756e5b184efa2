// STGRAPH, JUNCTIONTREE and BOLTZMANNTREE put a graph derived from the one in
// GPT in its place; BASEGRAPH hands the host the graph under a derived one.
// The derived graph is built on the old one, which therefore stays alive: a
// model in MPT keeps it as its H, and the machine releases it together with
// the derived graph.
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>

#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

namespace QZ {

namespace {

inline bool isResource(const void* p) { return p != nullptr && p != (void*)1; }

template <typename idx_t> AbstractGraph<idx_t>* graphOf(const vm_t& vm) {
    void* p = vm.getP(vm_t::GPT);
    return isResource(p) ? static_cast<AbstractGraph<idx_t>*>(p) : nullptr;
}

// Whether the arrays of a model laid out for graph a (states Y, statistics
// and weights by edge block) also fit graph b: the same number of vertices,
// the same number of edges, and edge blocks of the same sizes in the same
// order. The model then simply goes on over b. Anything else would make the
// instructions read its arrays past their ends, and is refused until the
// model gets a graph of its own layout again.
template <typename idx_t>
bool sameShape(const AbstractGraph<idx_t>* a, const AbstractGraph<idx_t>* b, const idx_t* Y) {
    if (a == nullptr || Y == nullptr || a->vertices() != b->vertices() || a->edges() != b->edges()) return false;
    idx_t s, t, u, v;
    for (idx_t e = 0; e < a->edges(); ++e) {
        a->edge(e, s, t);
        b->edge(e, u, v);
        if ((size_t)Y[s] * (size_t)Y[t] != (size_t)Y[u] * (size_t)Y[v]) return false;
    }
    return true;
}

// GPT and GRA name the new graph; a model is pointed at it and keeps the old
// one underneath.
template <typename idx_t, typename val_t>
void install(vm_t& vm, AbstractGraph<idx_t>* now, AbstractGraph<idx_t>* old, const size_t gra) {
    vm.derivedGraphs[(void*)now] = (void*)old;
    vm.set(vm_t::GPT, (void*)now);
    vm.set(vm_t::GRA, gra);
    void* mp = vm.getP(vm_t::MPT);
    if (!isResource(mp)) return;
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(mp);
    if (vm.misfitModel != (const void*)io && !sameShape(io->G, now, io->Y)) {
        // The layout of the model's arrays, for LDX GPT to take them over.
        vm.misfitVertices = io->G != nullptr ? (size_t)io->G->vertices()
                            : io->Ynames != nullptr ? io->Ynames->size()
                                                    : ~(size_t)0;
        vm.misfitEdges.clear();
        idx_t s, t;
        if (io->G != nullptr)
            for (idx_t e = 0; e < io->G->edges(); ++e) {
                io->G->edge(e, s, t);
                vm.misfitEdges.emplace_back((size_t)s, (size_t)t);
            }
        vm.misfitModel = io;
    }
    io->G = now;
    io->H = old;
}

template <typename idx_t, typename val_t> void convertGraphST0(vm_t& vm) {
    AbstractGraph<idx_t>* G = graphOf<idx_t>(vm);
    const size_t T = vm.get(vm_t::TXX);
    if (G == nullptr || T <= 1) return;
    // The slices are numbered on the fly in idx_t: every vertex and edge
    // number of the whole series must exist there.
    const size_t n = (size_t)G->vertices(), m = (size_t)G->edges();
    const size_t top = (size_t)std::numeric_limits<idx_t>::max();
    const bool fits = T <= top && (n == 0 || T <= top / n) && (m == 0 || T <= top / (3 * m)) &&
                      (T - 1) * n <= top - 3 * m * T;
    if (!fits) throw std::out_of_range("spatio-temporal graph has more edges than the index type can number");
    install<idx_t, val_t>(vm, new STGraph<idx_t>(G, (idx_t)T), G, vm_t::ST);
}

template <typename idx_t, typename val_t> void convertGraphJT0(vm_t& vm) {
    AbstractGraph<idx_t>* G = graphOf<idx_t>(vm);
    if (G == nullptr) return;
    install<idx_t, val_t>(vm, new JunctionTree<idx_t>(*G), G, vm_t::JTG);
}

template <typename idx_t, typename val_t> void convertGraphDBT0(vm_t& vm) {
    AbstractGraph<idx_t>* G = graphOf<idx_t>(vm);
    if (G == nullptr) return;
    std::unique_ptr<JunctionTree<idx_t>> J(new JunctionTree<idx_t>(*G));
    // Columns of the table beyond the graph's vertices are the output units.
    void* dp = vm.getP(vm_t::DPT);
    if (isResource(dp)) {
        const CategoricalData* D = static_cast<const CategoricalData*>(dp);
        if (D->rows() > 0) {
            if (D->columns() < (size_t)G->vertices())
                throw std::out_of_range("the table has fewer columns than the graph has vertices");
            vm.set(vm_t::SNK, D->columns() - (size_t)G->vertices());
        }
    }
    const size_t sinks = vm.get(vm_t::SNK);
    if (sinks > (size_t)std::numeric_limits<idx_t>::max())
        throw std::out_of_range("deep Boltzmann tree has more units than the index type can number");
    DeepBoltzmannTree<idx_t>* D = new DeepBoltzmannTree<idx_t>(*J, (idx_t)sinks);
    // The layer list of the network: visible, hidden clique, hidden separator
    // and output units. A list that LPT held before stays where it is.
    const std::string layers = std::to_string((size_t)D->visibleUnits()) + "," +
                               std::to_string((size_t)D->hiddenCliqueUnits()) + "," +
                               std::to_string((size_t)D->hiddenSeparatorUnits()) + "," +
                               std::to_string((size_t)D->outputUnits());
    install<idx_t, val_t>(vm, D, G, vm_t::DBT);
    vm.set(vm_t::LPT, (void*)getL<size_t>(layers));
}

template <typename idx_t, typename val_t> void getBaseGraph0(vm_t& vm) {
    AbstractGraph<idx_t>* G = graphOf<idx_t>(vm);
    const AbstractGraph<idx_t>* B = nullptr;
    // A graph that is not of the kind GRA names has no base to give.
    switch (vm.get(vm_t::GRA)) {
    case vm_t::ST:
        if (const STGraph<idx_t>* st = dynamic_cast<const STGraph<idx_t>*>(G)) B = st->base();
        break;
    case vm_t::DBT:
        if (const DeepBoltzmannTree<idx_t>* db = dynamic_cast<const DeepBoltzmannTree<idx_t>*>(G)) B = db->base();
        break;
    case vm_t::JTG:
        if (const JunctionTree<idx_t>* jt = dynamic_cast<const JunctionTree<idx_t>*>(G)) B = jt->base();
        break;
    default:
        break;
    }
    if (B != nullptr)
        vm.set(vm_t::RES, (void*)const_cast<AbstractGraph<idx_t>*>(B));
    else
        vm.set(vm_t::RES, (size_t)0);
}

struct ConvertSTF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { convertGraphST0<idx_t, val_t>(vm); }
};

struct ConvertJTF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { convertGraphJT0<idx_t, val_t>(vm); }
};

struct ConvertDBTF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { convertGraphDBT0<idx_t, val_t>(vm); }
};

struct BaseGraphF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { getBaseGraph0<idx_t, val_t>(vm); }
};

}  // namespace

void vm_t::convertGraphST() {
    ConvertSTF f{*this};
    dispatch(f);
}

void vm_t::convertGraphJT() {
    ConvertJTF f{*this};
    dispatch(f);
}

void vm_t::convertGraphDBT() {
    ConvertDBTF f{*this};
    dispatch(f);
}

void vm_t::getBaseGraph() {
    BaseGraphF f{*this};
    dispatch(f);
}

}  // namespace QZ
