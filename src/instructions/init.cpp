// INITZERO, INITGAUSS, CLOSEDFORM and INITLATENT: what training starts from,
// either the container's weights or the latent columns of the table.
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>
#include <QZ/QZMRF>

#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace QZ {

namespace {

// The dry-run placeholder that pointer registers may hold.
inline bool placeholder(const void* p) { return p == (const void*)1; }

template <typename idx_t, typename val_t> void initZero0(vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    if (placeholder(io)) return;
    val_t* w = io->w;
    const idx_t d = io->dim;
    for (idx_t i = 0; i < d; ++i) w[i] = 0;
}

template <typename idx_t, typename val_t> void initGauss0(vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    if (placeholder(io)) return;
    std::normal_distribution<double> N(0.0, vm.getR(vm_t::SDE));
    std::mt19937& engine = *vm.random_engine;
    val_t* w = io->w;
    const idx_t d = io->dim;
    for (idx_t i = 0; i < d; ++i) {
        const double x = N(engine);
        // Integer weights keep the truncated draw; negative draws become 0,
        // and draws past the type's largest value stop there.
        if (std::is_floating_point<val_t>::value)
            w[i] = (val_t)x;
        else if (x <= 0.0)
            w[i] = 0;
        else if (x >= (double)std::numeric_limits<val_t>::max())
            w[i] = std::numeric_limits<val_t>::max();
        else
            w[i] = (val_t)x;
    }
}

template <typename idx_t, typename val_t> void closedFormT(vm_t& vm) {
    if constexpr (std::is_floating_point<val_t>::value) {
        const AbstractGraph<idx_t>* G = static_cast<const AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
        IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
        if (placeholder(G) || placeholder(io)) return;
        std::set<idx_t> Vready;
        const idx_t N = io->num_instances;
        const idx_t n = G->vertices();
        const idx_t m = G->edges();
        const idx_t* Y = io->Y;
        const idx_t* woff = io->woff;
        const val_t* E = io->E;
        val_t* w = io->w;
        const val_t Nv = (val_t)N;
        // The floor for a frequency of 0; the product wraps in idx_t like every
        // other count of the model.
        const val_t floor = (val_t)1 / (val_t)(idx_t)(N * (idx_t)10);
        idx_t v, u;
        for (idx_t e = 0; e < m; ++e) {
            G->edge(e, v, u);
            const bool vNew = Vready.find(v) == Vready.end();
            const bool uNew = Vready.find(u) == Vready.end();
            const idx_t Yv = Y[v], Yu = Y[u];
            const idx_t eoff = woff[n + e];
            for (idx_t x = 0; x < Yv; ++x) {
                for (idx_t y = 0; y < Yu; ++y) {
                    val_t pvu = E[eoff + x * Yu + y] / Nv;
                    val_t pv = E[woff[v] + x] / Nv;
                    val_t pu = E[woff[u] + y] / Nv;
                    if (pvu == 0) pvu = floor;
                    if (pv == 0) pv = floor;
                    if (pu == 0) pu = floor;
                    const idx_t idx = eoff + Yu * x + y - woff[n];
                    val_t r = std::log(pvu / (pv * pu));
                    if (vNew) r += std::log(pv);
                    if (uNew) r += std::log(pu);
                    if (std::isnan(r)) r = 0;
                    w[idx] = r;
                }
            }
            Vready.insert(v);
            Vready.insert(u);
        }
    } else {
        (void)vm;  // no exact start for integer weights
    }
}

template <typename idx_t, typename val_t> void closedForm0(vm_t& vm) { closedFormT<idx_t, val_t>(vm); }

template <typename idx_t> void initLatentRBM(vm_t& vm, CategoricalData* D, const AbstractGraph<idx_t>* G) {
    const std::vector<size_t>* getlpLPT = vm.getLP(vm_t::LPT);
    // Without a layer list no pair of layers can cover the columns.
    if (getlpLPT == nullptr || placeholder(getlpLPT) || getlpLPT->empty() ||
        getlpLPT->front() + getlpLPT->back() != D->columns())
        throw std::out_of_range("RBM requires that first and last layer cover all columns");
    const std::vector<size_t>& layers = *getlpLPT;

    size_t columns_missing = 0;
    for (size_t i = 1; i + 1 < layers.size(); ++i) columns_missing += layers[i];
    const size_t lsn = vm.get(vm_t::LSN);
    D->addColumns(columns_missing, lsn);

    const idx_t lb = (idx_t)layers.front();
    const idx_t le = (idx_t)layers.back();
    const idx_t N = (idx_t)D->size();
    const idx_t H = (size_t)N < lsn ? N : (idx_t)lsn;
    const idx_t L = (idx_t)(G->vertices() - lb - le);

    idx_t* selected = randomCenters<idx_t>(L, H, N, vm.random_engine);
    // The offset grows by the layer just filled, not by the layer read.
    size_t offset = 0;
    auto last = layers.begin();
    for (auto ii = layers.begin() + 1; ii + 1 < layers.end(); ++ii) {
        D->fillRBMLayer<idx_t>(offset, *last, *ii, (size_t)H, selected);
        last = ii;
        offset += *last;
    }
    delete[] selected;
}

// Every hidden unit of a deep Boltzmann tree takes the joint states of its
// vertex set as they occur in the rows, numbered from 0 by first appearance,
// and keeps just those states. The joint state itself is the key, so that the
// states of a wide clique cannot run into each other through an overflowing
// code.
template <typename idx_t> void initLatentDBT(vm_t& vm, CategoricalData* D, const AbstractGraph<idx_t>* G) {
    const DeepBoltzmannTree<idx_t>* T = dynamic_cast<const DeepBoltzmannTree<idx_t>*>(G);
    if (T == nullptr) throw std::logic_error("INITLATENT with GRA DBT requires a deep Boltzmann tree");
    const std::vector<size_t>* layers = vm.getLP(vm_t::LPT);
    size_t columns_missing = 0;
    if (layers != nullptr && !placeholder(layers))
        for (size_t i = 1; i + 1 < layers->size(); ++i) columns_missing += layers->at(i);
    const size_t units = (size_t)T->vertices();
    if (D->columns() + columns_missing < units)
        throw std::out_of_range("deep Boltzmann tree has more units than the table has columns");
    // A column can have as many categories as there are rows.
    D->addColumns(columns_missing, D->rows());

    typedef std::map<std::vector<unsigned short>, size_t> codes_t;
    const size_t N = D->rows();
    std::vector<std::unique_ptr<codes_t>> localY(units);
    std::vector<unsigned short> xc;
    for (size_t C = (size_t)T->visibleUnits() + (size_t)T->outputUnits(); C < units; ++C) {
        localY[C].reset(new codes_t());
        const std::set<idx_t>* S = T->vertexObjects((idx_t)C);
        for (size_t i = 0; i < N; ++i) {
            xc.clear();
            for (const idx_t& u : *S) xc.push_back((unsigned short)D->get(i, (size_t)u));
            codes_t::const_iterator it = localY[C]->find(xc);
            size_t xc_mapped;
            if (it == localY[C]->end()) {
                xc_mapped = localY[C]->size();
                if (xc_mapped >= (size_t)CategoricalData::MIS_VAL)
                    throw std::out_of_range("a hidden unit has more states than a table cell can hold");
                localY[C]->emplace(xc, xc_mapped);
                assert(localY[C]->size()<=D->rows());
            } else {
                xc_mapped = it->second;
            }
            D->set((unsigned short)xc_mapped, i, C, false);
        }
        D->trimCategories(C, localY[C]->size());
    }
}

template <typename idx_t, typename val_t> void initLatent0(vm_t& vm) {
    CategoricalData* D = static_cast<CategoricalData*>(vm.getP(vm_t::DPT));
    const AbstractGraph<idx_t>* G = static_cast<const AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
    if (D == nullptr || placeholder(D) || placeholder(G)) return;
    switch (vm.get(vm_t::GRA)) {
    case vm_t::RBM: initLatentRBM<idx_t>(vm, D, G); break;
    case vm_t::DBT: initLatentDBT<idx_t>(vm, D, G); break;
    default: break;  // other graphs have no latent columns to fill
    }
}

struct InitZeroF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { initZero0<idx_t, val_t>(vm); }
};

struct InitGaussF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { initGauss0<idx_t, val_t>(vm); }
};

struct ClosedFormF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { closedForm0<idx_t, val_t>(vm); }
};

struct InitLatentF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { initLatent0<idx_t, val_t>(vm); }
};

}  // namespace

void vm_t::initZero() {
    InitZeroF f{*this};
    dispatch(f);
}

void vm_t::initGauss() {
    InitGaussF f{*this};
    dispatch(f);
}

void vm_t::closedForm() {
    ClosedFormF f{*this};
    dispatch(f);
}

void vm_t::initLatent() {
    InitLatentF f{*this};
    dispatch(f);
}

}  // namespace QZ
