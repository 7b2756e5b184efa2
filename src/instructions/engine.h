// The engine, the model function over it and the empirical means that every
// model instruction builds from the registers and the container in MPT. Each
// instruction makes them afresh, and deletes the model before the engine.
#ifndef QZ_INSTRUCTIONS_ENGINE_H
#define QZ_INSTRUCTIONS_ENGINE_H

#include <QZ/QZMISC>
#include <QZ/QZBP>
#include <QZ/QZINF>
#include <QZ/QZIO>
#include <QZ/QZMRF>
#include <QZ/QZOPT>

#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace QZ {

// What a host registers in EXT0: the arguments of the belief propagation
// constructor without its flag, in that order (graph and state spaces by
// reference, then the random engine and the container's weights), for the
// index and value types in force. The host must hand in the function of the
// instantiation that IDX and VAL select.
template <typename idx_t, typename val_t>
using ExternalInferenceFactory = InferenceAlgorithm<idx_t, val_t>* (*)(AbstractGraph<idx_t>*& G, idx_t*& Y,
                                                                       std::mt19937* engine, val_t* w);

// What a host registers in EXT1: the update hook (CBU) and the proximal hook
// (CPR), for the index and value types in force.
template <typename idx_t, typename val_t>
using ExternalOptimizerFactory = Optimizer<idx_t, val_t, true>* (*)(void (*g)(OptState<idx_t, val_t>*),
                                                                    void (*p)(OptState<idx_t, val_t>*));

namespace engine_detail {

// The external factories exist only for the floating instantiations; the
// multiple-precision value code reaches the double instance but no factory
// was ever made for it.
inline bool externalPairOk(const vm_t& vm) {
    const size_t I = vm.get(vm_t::IDX);
    const size_t V = vm.get(vm_t::VAL);
    return (V == vm_t::valFLT32 || V == vm_t::valFLT64) && I <= vm_t::idxUINT64;
}

// A real register truncated to an integer value type, through a signed
// integer so that -1 becomes all ones (the value that switches a test off).
// Values beyond the range of a 64-bit signed integer saturate there, and NaN
// gives 0.
template <typename val_t> inline val_t truncated(const double& r) {
    if (!(r == r)) return 0;
    if (r >= 9223372036854775807.0) return (val_t)std::numeric_limits<long long>::max();
    if (r <= -9223372036854775808.0) return (val_t)std::numeric_limits<long long>::min();
    return (val_t)(long long)r;
}

// Loopy belief propagation counts a vertex without edges in its Bethe value
// with the factor (degree - 1) taken in idx_t, which wraps: the log partition
// function and every objective built on it are then meaningless. The
// arithmetic is kept as it is, but INFER and ESTIMATE say so.
template <typename idx_t, typename val_t> void warnIsolated(vm_t& vm, const IO<idx_t, val_t>* io) {
    if (vm.op != vm_t::INFER && vm.op != vm_t::ESTIMATE) return;
    const AbstractGraph<idx_t>* G = io->G;
    std::vector<size_t> lone;
    for (idx_t v = 0; v < G->vertices(); ++v)
        if (G->num_neighbors(v) == 0) lone.push_back((size_t)v);
    if (lone.empty()) return;
    std::string names;
    const size_t shown = lone.size() < 5 ? lone.size() : 5;
    for (size_t i = 0; i < shown; ++i) {
        if (i > 0) names += i + 1 == lone.size() ? " and " : ", ";
        names += std::to_string(lone[i]);
        if (io->Xnames != nullptr && lone[i] < io->Xnames->size()) names += " (" + (*io->Xnames)[lone[i]] + ")";
    }
    if (shown < lone.size()) names += " and " + std::to_string(lone.size() - shown) + " more";
    vm.warn((lone.size() == 1 ? "vertex " + names + " has" : "vertices " + names + " have") +
            " no edges: loopy belief propagation gives no meaningful log partition function (LNZ) or objective "
            "with a vertex without edges; use ALG JT, or a graph that covers every column");
}

}  // namespace engine_detail

template <typename idx_t, typename val_t> InferenceAlgorithm<idx_t, val_t>* vm_t::getIA() {
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(getP(MPT));
    const idx_t mil = (idx_t)get(MIL);
    if constexpr (std::is_floating_point<val_t>::value) {
        const size_t inf = get(INF);
        switch (inf) {
        case LBP: {
            engine_detail::warnIsolated(*this, io);
            QZ::LBP<idx_t, val_t>* ia = new QZ::LBP<idx_t, val_t>(io->G, io->Y, random_engine, io->w, getB(TRE));
            ia->setMaxIter(mil);
            ia->setEpsilon((val_t)getR(EPL));
            return ia;
        }
        case JT: return new HuginAlgorithm<idx_t, val_t>(io->G, io->Y, random_engine, io->w);
        case SQM: {
            // The sampling engine is always the variant that visits each
            // tuple of the expansion once; KXX is the degree of the polynomial.
            QZ::SQMplus<idx_t, val_t>* ia = new QZ::SQMplus<idx_t, val_t>(io->G, io->Y, random_engine, io->w, (idx_t)get(KXX));
            ia->setMaxIter(mil);
            return ia;
        }
        case EXTERNINF: {
            void* f = getP(EXT0);
            if (f == nullptr) break;
            if (!engine_detail::externalPairOk(*this))
                throw std::out_of_range("incompatible data types for external inference algorithm");
            ExternalInferenceFactory<idx_t, val_t> make = reinterpret_cast<ExternalInferenceFactory<idx_t, val_t>>(f);
            InferenceAlgorithm<idx_t, val_t>* ia = make(io->G, io->Y, random_engine, io->w);
            ia->setMaxIter(mil);
            return ia;
        }
        default: break;
        }
        throw std::out_of_range("unknown inference algorithm");
    } else {
        // Integer models have a single engine, whatever INF and TRE say.
        BitLengthBP<idx_t>* ia = new BitLengthBP<idx_t>(io->G, io->Y, random_engine, io->w, false);
        ia->setMaxIter(mil);
        ia->setEpsilon(engine_detail::truncated<val_t>(getR(EPL)));
        return ia;
    }
}

template <typename idx_t, typename val_t> AbstractMRF<idx_t, val_t>* vm_t::getMOD(InferenceAlgorithm<idx_t, val_t>* IA) {
    if constexpr (std::is_floating_point<val_t>::value) {
        const size_t rep = get(REP);
        if (rep == NONE) return new MRF<idx_t, val_t>(IA);
        // ISING is the Ising model. Every other value, the two that name no
        // decay included, reaches the spatio-temporal model; a value beyond
        // the table has no law either, and gets the coefficients 0 of those two.
        AbstractMRF<idx_t, val_t>* P = rep == ISING ? (AbstractMRF<idx_t, val_t>*)new Ising<idx_t, val_t>(IA)
                                                    : new STRF<idx_t, val_t>(rep <= ISING ? (ReparamType)rep : INTEGERREP, IA);
        // The point of a reparametrised model travels in the container's
        // weights (copied in before, and back after, each instruction): one
        // with more parameters than the container has weights (an Ising model
        // of many vertices without edges, say) has no room there.
        const IO<idx_t, val_t>* io = static_cast<const IO<idx_t, val_t>*>(getP(MPT));
        if ((size_t)P->dim() > (size_t)io->dim) {
            const size_t need = (size_t)P->dim(), have = (size_t)io->dim;
            delete P;
            throw std::logic_error("the model function needs " + std::to_string(need) + " parameters, more than the " +
                                   std::to_string(have) + " weights of the model");
        }
        return P;
    } else {
        // REP is not read: no reparametrisation exists for integer weights.
        return new IntegerMRF<idx_t>((idx_t)get(KXX), IA);
    }
}

template <typename idx_t, typename val_t> val_t* vm_t::initMU(void* _varP) {
    AbstractMRF<idx_t, val_t>* P = static_cast<AbstractMRF<idx_t, val_t>*>(_varP);
    IO<idx_t, val_t>* io = static_cast<IO<idx_t, val_t>*>(getP(MPT));
    const idx_t d = io->dim;
    const idx_t n = io->G->vertices();
    const val_t* edgeCounts = io->E + io->woff[n];
    const idx_t N = io->num_instances;
    val_t* mu = new val_t[d];
    if constexpr (std::is_floating_point<val_t>::value) {
        const val_t cnt = (val_t)N;
        for (idx_t i = 0; i < d; ++i) mu[i] = edgeCounts[i] / cnt;
    } else {
        // Integer models keep raw counts and scale in their gradient.
        for (idx_t i = 0; i < d; ++i) mu[i] = edgeCounts[i];
    }
    P->set_empirical(mu, N);
    return mu;
}

}  // namespace QZ

#endif
