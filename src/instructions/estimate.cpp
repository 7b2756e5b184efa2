// ESTIMATE: fits the container's weights to its statistics with the optimizer
// that OPT names, over the engine and model function of the other model
// instructions.
#include "engine.h"

#include <QZ/QZOPT>

#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace QZ {

template <typename idx_t, typename val_t> Optimizer<idx_t, val_t, true>* vm_t::learn(void* _varP) {
    AbstractMRF<idx_t, val_t>* P = static_cast<AbstractMRF<idx_t, val_t>*>(_varP);
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(getP(MPT));
    typedef void (*hook_t)(OptState<idx_t, val_t>*);
    hook_t cbu = reinterpret_cast<hook_t>(getP(CBU));
    hook_t cbo = reinterpret_cast<hook_t>(getP(CBO));
    const size_t opt = get(OPT);

    if constexpr (std::is_floating_point<val_t>::value) {
        hook_t cpr = reinterpret_cast<hook_t>(getP(CPR));
        Optimizer<idx_t, val_t, true>* O = nullptr;
        switch (opt) {
        case GD: O = new GradientDescent<idx_t, val_t>(cbu); break;
        case PL1: O = new ProximalGradient<idx_t, val_t>(cbu, cpr); break;
        case FL1: O = new FISTA<idx_t, val_t>(cbu, cpr); break;
        case EXTERNOPT: {
            void* f = getP(EXT1);
            if (f == nullptr) break;
            // The same words as for an external engine: both factories exist
            // only for the floating instantiations.
            if (!engine_detail::externalPairOk(*this))
                throw std::out_of_range("incompatible data types for external inference algorithm");
            O = reinterpret_cast<ExternalOptimizerFactory<idx_t, val_t>>(f)(cbu, cpr);
            break;
        }
        default: break;
        }
        if (O == nullptr) throw std::out_of_range("unknown optimization algorithm");
        O->setEps((val_t)getR(EPO));
        const val_t res = O->opt(P, cbu, cbo, io, (idx_t)get(MIO), (val_t)getR(STP), false, (val_t)getR(LAM),
                                 (val_t)getR(ELAM));
        set(RES, (double)res);
        return O;
    } else {
        Optimizer<idx_t, val_t, true>* O = nullptr;
        bool elite = false;
        if (opt == IGD) {
            // One block per edge: the search moves the weights of one edge
            // at a time.
            const AbstractGraph<idx_t>* G = io->G;
            const idx_t m = G->edges();
            idx_t* groups = new idx_t[(size_t)m + 1];
            idx_t o = 0, s = 0, t = 0;
            for (idx_t e = 0; e < m; ++e) {
                G->edge(e, s, t);
                groups[e] = o;
                o += io->Y[s] * io->Y[t];
            }
            groups[m] = o;
            O = new IntGD<idx_t, val_t>(groups, m, (idx_t)get(KXX));
        } else if (opt == EA11) {
            O = new QZ::EA11<idx_t, val_t>((idx_t)get(KXX));
            elite = true;
        } else {
            throw std::out_of_range("unknown optimization algorithm");
        }
        O->setRandEng(random_engine);
        O->setEps(engine_detail::truncated<val_t>(getR(EPO)));
        const val_t res = O->opt(P, cbu, cbo, io, (idx_t)get(MIO), engine_detail::truncated<val_t>(getR(STP)), elite,
                                 0, 0);
        set(RES, (size_t)res);
        return O;
    }
}

// Every instantiation exists in the library.
#define QZ_LEARN(I, V) template Optimizer<I, V, true>* vm_t::learn<I, V>(void*);
QZ_LEARN(unsigned char, float)
QZ_LEARN(unsigned short, float)
QZ_LEARN(unsigned int, float)
QZ_LEARN(unsigned long, float)
QZ_LEARN(unsigned char, double)
QZ_LEARN(unsigned short, double)
QZ_LEARN(unsigned int, double)
QZ_LEARN(unsigned long, double)
QZ_LEARN(unsigned char, unsigned char)
QZ_LEARN(unsigned short, unsigned short)
QZ_LEARN(unsigned int, unsigned int)
QZ_LEARN(unsigned long, unsigned long)
#undef QZ_LEARN

namespace {

template <typename idx_t, typename val_t> void estimateFunc0(vm_t& vm) {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(vm.getP(vm_t::MPT));
    InferenceAlgorithm<idx_t, val_t>* IA = vm.getIA<idx_t, val_t>();
    AbstractMRF<idx_t, val_t>* P = vm.getMOD<idx_t, val_t>(IA);
    val_t* mu = vm.initMU<idx_t, val_t>(P);

    const idx_t d = P->dim();
    val_t* x = P->current_point();
    if (vm.getB(vm_t::RST))
        std::memset(x, 0, sizeof(val_t) * d);
    else if (x != io->w)
        std::memcpy(x, io->w, sizeof(val_t) * d);
    P->decode_weights();

    Optimizer<idx_t, val_t, true>* O = vm.learn<idx_t, val_t>(P);

    // The container keeps the optimizer's point, which is what a later
    // ESTIMATE continues from and what a query decodes again.
    std::memcpy(io->w, P->current_point(), sizeof(val_t) * d);

    delete O;
    delete[] mu;
    delete P;
    delete IA;
}

struct EstimateF {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { estimateFunc0<idx_t, val_t>(vm); }
};

}  // namespace

void vm_t::estimateFunc() {
    EstimateF f{*this};
    dispatch(f);
}

}  // namespace QZ
