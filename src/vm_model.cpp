// Loading, storing, exporting and releasing the model container of a context.
// Each operation picks the IO instantiation by IDX and VAL; for a pair that
// names none it silently does nothing.
#include <QZ/QZMISC>
#include <QZ/QZIO>

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

template <typename idx_t, typename val_t> void attachGraphToModel0(const vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    AbstractGraph<idx_t>* G = static_cast<AbstractGraph<idx_t>*>(vm.getP(vm_t::GPT));
    io->G = G;
    io->gtype = (idx_t)vm.get(vm_t::GRA);
    // A kind that makes no graph leaves a model without edges.
    idx_t dim = 0;
    if (G != nullptr) {
        const idx_t m = G->edges();
        const idx_t* Y = io->Y;
        idx_t s, t;
        for (idx_t e = 0; e < m; ++e) {
            G->edge(e, s, t);
            dim += Y[s] * Y[t];
        }
    }
    io->dim = dim;
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
}

bool vm_t::freeModel() {
    if (isResource(getP(MPT))) {
        FreeModelF f{*this};
        dispatch(f);
    }
    set(MPT, (void*)nullptr);
    return true;
}

}  // namespace QZ
