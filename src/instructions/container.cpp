// Loading, storing, exporting and releasing the model container of a context.
// Each operation picks the IO instantiation by IDX and VAL; for a pair that
// names none it silently does nothing.
#include <QZ/QZMISC>
#include <QZ/QZIO>

#include <cstring>
#include <map>
#include <string>
#include <utility>

namespace QZ {

namespace {

// The sentinel a dry pass leaves in pointer registers.
inline bool isResource(const void* p) { return p != nullptr && p != (void*)1; }

template <typename idx_t, typename val_t> void loadModel0(vm_t& vm) {
    // A failing constructor leaves MPT as it was.
    IO<idx_t, val_t>* io = new IO<idx_t, val_t>(*vm.getS(vm_t::MFN));
    vm.set(vm_t::MPT, (void*)io);
    vm.set(vm_t::NNN, (size_t)io->num_instances);
    vm.set(vm_t::GPT, (void*)io->G);
    vm.set(vm_t::GRA, (size_t)io->gtype);
    vm.set(vm_t::LPT, (void*)getL<size_t>(io->llist));
    vm.set(vm_t::REP, (size_t)io->decay);
}

template <typename idx_t, typename val_t> void storeModel0(const vm_t& vm) {
    static_cast<const IO<idx_t, val_t>*>(vm.getP(vm_t::MPT))->store(*vm.getS(vm_t::MFN));
}

template <typename idx_t, typename val_t> void storeGraph0(const vm_t& vm) {
    const size_t fmt = vm.get(vm_t::FMT);
    if (fmt != vm_t::ADJ && fmt != vm_t::TGF && fmt != vm_t::FG) return;
    // The checks of STORE GPT ask for a model only with FG, but every export
    // reads the container's graph: without a model, ADJ and TGF fail here
    // instead of dereferencing nothing.
    if (!isResource(vm.getP(vm_t::MPT))) throw std::logic_error("model or graph missing");
    // And the model's graph must be one its states are laid out for.
    vm.requireModelGraph();
    const IO<idx_t, val_t>* io = static_cast<const IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    const std::string& fn = *vm.getS(vm_t::GFN);
    switch (fmt) {
    case vm_t::ADJ: io->storeADJ(fn); break;
    case vm_t::TGF: io->storeTGF(fn); break;
    default: io->storeFG(fn); break;
    }
}

template <typename idx_t, typename val_t> size_t getDim0(const vm_t& vm) {
    const void* p = vm.getP(vm_t::MPT);
    if (p == (void*)1) return 1;
    if (p == nullptr) return 0;
    return (size_t) static_cast<const IO<idx_t, val_t>*>(p)->dim;
}

template <typename idx_t, typename val_t> void freeModel0(const vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    if (!io->external()) delete io;
}

const size_t UNKNOWN_COUNT = ~(size_t)0;

// The number of variables of a model: those of its graph, or, without one,
// one per list of state names; UNKNOWN_COUNT when neither tells (a container
// a host made with only its state counts).
template <typename idx_t, typename val_t> size_t modelVertices(const IO<idx_t, val_t>* io) {
    if (io->G != nullptr) return (size_t)io->G->vertices();
    return io->Ynames != nullptr ? io->Ynames->size() : UNKNOWN_COUNT;
}

// A new graph over the same variables: the container's offsets, statistics
// and weights are laid out for it. An edge the old graph had keeps its counts
// and weights (transposed if it now runs the other way); a new edge starts at
// zero, to be counted by STATS. A graph over other variables is refused
// before anything changes, since the model has no states for them.
template <typename idx_t, typename val_t> void attachGraphToModel0(const vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    AbstractGraph<idx_t>* G = static_cast<AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
    const AbstractGraph<idx_t>* old = io->G;
    if (G == nullptr) {
        // A kind that makes no graph leaves a model without edges, and
        // without a graph until the next LDX GPT.
        io->G = nullptr;
        io->gtype = (idx_t)vm.get(vm_t::GRA);
        io->dim = 0;
        return;
    }
    const size_t V = (size_t)G->vertices(), M = (size_t)G->edges();
    // A model that a conversion pointed at a derived graph is still laid out
    // for the graph it had before: that layout is the one to take over.
    const bool misfit = vm.misfitModel == (const void*)io;
    const size_t Vm = misfit ? vm.misfitVertices : modelVertices(io);
    if (Vm != UNKNOWN_COUNT && Vm != V)
        throw std::logic_error("the graph has " + std::to_string(V) + " vertices, but the model has " +
                               std::to_string(Vm) + " variables");
    io->gtype = (idx_t)vm.get(vm_t::GRA);
    if (old == G && !misfit) return;

    const idx_t* Y = io->Y;
    const size_t vdim = checkedSum<idx_t>(V, [&](size_t v) { return (size_t)Y[v]; }, "state counts");
    idx_t s, t;
    const size_t dim = checkedSum<idx_t>(M, [&](size_t e) {
        G->edge((idx_t)e, s, t);
        return checkedProduct<idx_t>(Y[s], Y[t], "weights");
    }, "weights");
    checkedSum<idx_t>(2, [&](size_t k) { return k == 0 ? vdim : dim; }, "statistics");
    checkedSum<idx_t>(3, [&](size_t k) { return k == 0 ? V : k == 1 ? M : 1; }, "offsets");

    idx_t* woff = new idx_t[V + M + 1];
    val_t* E = new val_t[vdim + dim]();
    val_t* w = new val_t[dim]();
    woff[0] = 0;
    for (size_t v = 0; v < V; ++v) woff[v + 1] = (idx_t)(woff[v] + Y[v]);
    // The counts of each variable do not depend on the edges.
    const bool haveStats = io->E != nullptr && io->woff != nullptr;
    if (haveStats) std::memcpy(E, io->E, vdim * sizeof(val_t));

    std::map<std::pair<size_t, size_t>, size_t> oldEdges;
    if (misfit && haveStats)
        for (size_t e = 0; e < vm.misfitEdges.size(); ++e) oldEdges.emplace(vm.misfitEdges[e], e);
    else if (old != nullptr && haveStats)
        for (idx_t e = 0; e < old->edges(); ++e) {
            old->edge(e, s, t);
            oldEdges.emplace(std::make_pair((size_t)s, (size_t)t), (size_t)e);
        }
    for (size_t e = 0; e < M; ++e) {
        G->edge((idx_t)e, s, t);
        const size_t Ys = Y[s], Yt = Y[t];
        woff[V + e + 1] = (idx_t)(woff[V + e] + Ys * Yt);
        auto same = oldEdges.find(std::make_pair((size_t)s, (size_t)t));
        auto turned = oldEdges.find(std::make_pair((size_t)t, (size_t)s));
        const bool flip = same == oldEdges.end();
        auto hit = flip ? turned : same;
        if (hit == oldEdges.end()) continue;
        const size_t from = (size_t)io->woff[V + hit->second];
        const size_t to = (size_t)woff[V + e];
        for (size_t x = 0; x < Ys; ++x)
            for (size_t y = 0; y < Yt; ++y) {
                const size_t src = flip ? y * Ys + x : x * Yt + y;
                E[to + x * Yt + y] = io->E[from + src];
                if (io->w != nullptr) w[to - vdim + x * Yt + y] = io->w[from - vdim + src];
            }
    }

    delete[] io->E;
    delete[] io->woff;
    delete[] io->w;
    io->E = E;
    io->woff = woff;
    io->w = w;
    io->G = G;
    // The graph under the derived one no longer stands under the model's.
    if (misfit) io->H = nullptr;
    io->dim = (idx_t)dim;
    io->odim = (idx_t)(V + M + 1);
    io->sdim = (idx_t)(vdim + dim);
}

template <typename idx_t, typename val_t> bool usesGraph0(const vm_t& vm, const void* g) {
    return (const void*) static_cast<const IO<idx_t, val_t>*>(vm.getP(vm_t::MPT))->G == g;
}

template <typename idx_t, typename val_t> bool lacksGraph0(const vm_t& vm) {
    return static_cast<const IO<idx_t, val_t>*>(vm.getP(vm_t::MPT))->G == nullptr;
}

struct LoadModelF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { loadModel0<idx_t, val_t>(vm); }
};

struct StoreModelF {
    const vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { storeModel0<idx_t, val_t>(vm); }
};

struct StoreGraphF {
    const vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { storeGraph0<idx_t, val_t>(vm); }
};

struct GetDimF {
    const vm_t& vm;
    size_t result;
    template <typename idx_t, typename val_t> void operator()() { result = getDim0<idx_t, val_t>(vm); }
};

struct FreeModelF {
    const vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { freeModel0<idx_t, val_t>(vm); }
};

struct AttachGraphF {
    const vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { attachGraphToModel0<idx_t, val_t>(vm); }
};

struct UsesGraphF {
    const vm_t& vm;
    const void* g;
    bool result;
    template <typename idx_t, typename val_t> void operator()() { result = usesGraph0<idx_t, val_t>(vm, g); }
};

struct LacksGraphF {
    const vm_t& vm;
    bool result;
    template <typename idx_t, typename val_t> void operator()() { result = lacksGraph0<idx_t, val_t>(vm); }
};

}  // namespace

void vm_t::loadModel() {
    LoadModelF f{*this};
    dispatch(f);
}

void vm_t::storeModel() {
    StoreModelF f{*this};
    dispatch(f);
}

void vm_t::storeGraph() {
    StoreGraphF f{*this};
    dispatch(f);
}

size_t vm_t::getDim() const {
    GetDimF f{*this, 0};
    dispatch(f);
    return f.result;
}

void vm_t::attachGraphToModel() {
    if (!isResource(getP(MPT)) || getP(GPT) == (void*)1) return;
    AttachGraphF f{*this};
    dispatch(f);
    // The model is laid out for its graph again.
    if (misfitModel == getP(MPT) && isResource(getP(GPT))) misfitModel = nullptr;
    // The graph kept for the model after DEL GPT is no longer its graph.
    if (keptGraph != nullptr && !modelUsesGraph(keptGraph)) dropKeptGraph();
}

bool vm_t::modelUsesGraph(const void* g) const {
    if (!isResource(getP(MPT))) return false;
    UsesGraphF f{*this, g, false};
    dispatch(f);
    return f.result;
}

bool vm_t::modelLacksGraph() const {
    if (!isResource(getP(MPT))) return false;
    LacksGraphF f{*this, false};
    dispatch(f);
    return f.result;
}

bool vm_t::freeModel() {
    if (isResource(getP(MPT))) {
        FreeModelF f{*this};
        dispatch(f);
    }
    // Nothing reads the graph DEL GPT kept for the model any more.
    dropKeptGraph();
    misfitModel = nullptr;
    set(MPT, (void*)nullptr);
    return true;
}

}  // namespace QZ
