// Execution of an instruction: arithmetic, control flow and the stack here,
// the resource instructions (LDX, STORE, DEL) and the dispatch to the
// instruction families in src/instructions.
#include <QZ/QZMISC>
#include <QZ/QZDATA>

#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <omp.h>

namespace QZ {

namespace {

// The instructions that make, replace or release a table, graph or model, or
// change the sizes a graph or model reports.
bool changesResources(vm_t::OpType op) {
    switch (op) {
    case vm_t::LOAD:
    case vm_t::FREE:
    case vm_t::MODEL:
    case vm_t::STATS:
    case vm_t::CST:
    case vm_t::CBT:
    case vm_t::CJT:
    case vm_t::BASE:
    case vm_t::INITLAT: return true;
    default: return false;
    }
}

}  // namespace

size_t vm_t::saturate(double x) {
    if (!(x > 0.0)) return 0;  // negative values and NaN
    if (x >= 18446744073709551616.0) return ~(size_t)0;
    return (size_t)x;
}

double vm_t::numRead(VarType r) {
    double x = getR(r);  // draws for RND and UNI whatever the kind
    if (V2T.at(r) == INTEGER) x = (double)get(r);
    return x;
}

void vm_t::numStore(VarType r, double x) {
    if (V2T.at(r) == REAL)
        set(r, x);
    else
        set(r, saturate(x));
}

size_t vm_t::lineOperand(VarType r) {
    if (V2T.at(r) == INTEGER) return get(r);
    return saturate(std::trunc(getR(r)));
}

void vm_t::warn(const std::string& text) {
    warnedNow = true;
    const progress_t cbp = reinterpret_cast<progress_t>(getP(CBP));
    if (cbp != nullptr) cbp(0, 0, ("warning: " + text).c_str());
}

std::string vm_t::mnemonic(OpType o) const {
    for (const auto* L : {&ARGS0, &ARGS1, &ARGS2, &ARGS3})
        for (const auto& row : *L)
            if (row.second == o) return row.first;
    return std::to_string((int)o);
}

namespace {

// The instructions whose results land in LNZ or RES. A value that a program
// computes itself (ADD, MOV, ...) is the program's business.
bool computesResults(vm_t::OpType op) {
    switch (op) {
    case vm_t::ESTIMATE: case vm_t::STATS: case vm_t::MODEL: case vm_t::INFER: case vm_t::PREDICT:
    case vm_t::SCORE: case vm_t::SAMPLE: case vm_t::CLOSEDFORM: case vm_t::INITLAT: case vm_t::INITGAUSS:
    case vm_t::INITZERO: case vm_t::LOAD:
        return true;
    default:
        return false;
    }
}

std::string realText(double x) {
    if (std::isnan(x)) return "nan";
    return x > 0 ? "inf" : "-inf";
}

}  // namespace

bool vm_t::exec() {
    execPending = false;
    (void)get(GRA);
    warnedNow = false;
    // A result that is not a number or infinite is never silent: the host
    // hears of it, unless the instruction has already said why.
    struct NonFinite {
        vm_t& vm;
        const bool watch;
        const size_t lnz, res;
        ~NonFinite() {
            if (!watch || vm.warnedNow || std::uncaught_exceptions() > 0) return;
            for (const VarType v : {LNZ, RES}) {
                if (vm.bits(v) == (v == LNZ ? lnz : res)) continue;
                const double x = vm.getR(v);
                if (std::isfinite(x)) continue;
                vm.warn(vm.mnemonic(vm.op) + " left " + (v == LNZ ? "LNZ" : "RES") + " = " + realText(x) +
                        ", which is not a finite number");
            }
        }
    } nonFinite{*this, !noexec && computesResults(op), bits(LNZ), bits(RES)};
    // Readers on other threads wait for no instruction: while one changes the
    // resources they are answered from what was published before. An
    // instruction that fails keeps the lock, since it may have left the
    // resources half changed (the context is wedged from then on).
    struct Changing {
        std::mutex* m;
        vm_t& vm;
        ~Changing() {
            if (m == nullptr || std::uncaught_exceptions() > 0) return;
            vm.publishComputed();
            m->unlock();
        }
    } changing{changesResources(op) ? &resLock : nullptr, *this};
    if (changing.m != nullptr) changing.m->lock();
    switch (op) {
    case ADD: {
        const double a = numRead(target), b = numRead(source);
        numStore(target, a + b);
        break;
    }
    case MUL: {
        const double a = numRead(target), b = numRead(source);
        numStore(target, a * b);
        break;
    }
    case MOV: {
        const double x = (V2T.at(source) != REAL) ? (double)get(source) : getR(source);
        numStore(target, x);
        break;
    }
    case INC:
        if (V2T.at(target) == INTEGER)
            set(target, saturate((double)get(target) + 1.0));
        else
            set(target, getR(target) + 1.0);
        break;
    case DEC:
        if (V2T.at(target) == INTEGER)
            set(target, saturate((double)get(target) - 1.0));
        else
            set(target, getR(target) - 1.0);
        break;
    case BRANCH: {
        const size_t n = lineOperand(target);
        set(LNN, n);
        break;
    }
    case BNZ: {
        const double a = numRead(target);
        const size_t n = lineOperand(source);
        if (a != 0.0) set(LNN, n);
        break;
    }
    case BLT: {
        const double a = numRead(target), b = numRead(source);
        const size_t n = lineOperand(loader);
        if (a < b) set(LNN, n);
        break;
    }
    case BNE: {
        const double a = numRead(target), b = numRead(source);
        const size_t n = lineOperand(loader);
        if (a != b) set(LNN, n);
        break;
    }
    case PUSH:
        STACK.emplace_back(get(target), V2T.at(target));
        break;
    case POP: {
        // Popping an empty stack is a program error, not a value.
        if (STACK.empty()) throw std::logic_error("POP on an empty stack");
        const std::pair<size_t, TypeType> top = STACK.back();
        STACK.pop_back();
        switch (top.second) {
        case INTEGER: set(target, top.first); break;
        case REAL: {
            double d;
            std::memcpy(&d, &top.first, sizeof(d));
            set(target, d);
            break;
        }
        case STRING: set(target, (std::string*)top.first); break;
        case BOOL: set(target, (top.first & 0xff) != 0); break;
        case POINTER: set(target, (void*)top.first); break;
        default: break;  // a character is dropped
        }
        break;
    }
    case CLS:
        STACK.clear();
        break;
    case LOAD:
        execLoad();
        break;
    case STORE:
        execStore();
        break;
    case FREE:
        execFree();
        break;
    case ESTIMATE:
        requireMPT();
        if (!noexec) {
            requireModelGraph();
            estimateFunc();
        }
        break;
    case STATS:
        requireMPT();
        requireGPT();
        if (!noexec) {
            requireModelGraph();
            statsFunc();
        } else {
            set(MPT, (void*)1);
        }
        break;
    case MODEL:
        requireGPT();
        requireDPT();
        if (!noexec)
            modelFunc();
        else
            set(MPT, (void*)1);
        break;
    case INFER:
        requireGPT();
        requireMPT();
        if (!noexec) {
            requireModelGraph();
            inferFunc();
        } else {
            set(PPT, (void*)1);
        }
        break;
    case PREDICT:
        requireMPT();
        requireDPT();
        if (!noexec) {
            requireModelGraph();
            predictFunc();
        }
        break;
    case SCORE:
        requireMPT();
        requireDPT();
        if (!noexec) {
            requireModelGraph();
            scoreFunc();
        }
        break;
    case SAMPLE:
        requireMPT();
        if (!noexec) {
            requireModelGraph();
            sampleFunc();
        } else {
            set(DPT, (void*)1);
        }
        break;
    case CST:
        requireGPT();
        if (!noexec) convertGraphST();
        break;
    case CBT:
        requireGPT();
        if (!noexec) convertGraphDBT();
        break;
    case CJT:
        requireGPT();
        if (!noexec) convertGraphJT();
        break;
    case BASE:
        requireGPT();
        if (!noexec) getBaseGraph();
        break;
    case INITLAT:
        requireGPT();
        requireDPT();
        if (!noexec) initLatent();
        break;
    case INITGAUSS:
        requireMPT();
        if (!noexec) {
            requireModelGraph();
            initGauss();
        }
        break;
    case INITZERO:
        requireMPT();
        if (!noexec) {
            requireModelGraph();
            initZero();
        }
        break;
    case CLOSEDFORM:
        requireGPT();
        requireMPT();
        if (!noexec) {
            requireModelGraph();
            closedForm();
        }
        break;
    default:
        break;  // SET and anything without a branch do nothing
    }
    return true;
}

// ---------------------------------------------------------------- resources

void vm_t::execLoad() {
    const std::string opnum = std::to_string((int)op);
    switch (target) {
    case DPT: {
        std::string* dfn = getS(DFN);
        if (dfn == nullptr && getP(EDP) == nullptr) throw std::logic_error(opnum + " requires a data filename");
        if (getP(EDP) == nullptr && dfn != nullptr && !file_exists(*dfn))
            throw std::logic_error("file " + *dfn + " does not exist");
        if (noexec)
            set(DPT, (void*)1);
        else
            loadData();
        break;
    }
    case MPT: {
        std::string* mfn = getS(MFN);
        if (mfn == nullptr) throw std::logic_error(opnum + " requires a loaded model");
        if (!file_exists(*mfn)) throw std::logic_error("file " + *mfn + " does not exist");
        if (noexec) {
            set(MPT, (void*)1);
            set(GPT, (void*)1);
        } else {
            loadModel();
        }
        break;
    }
    case GPT: {
        std::string* gfn = getS(GFN);
        const bool fileGraph = get(GRA) == FILE;
        if (gfn == nullptr && fileGraph && getP(EAP) == nullptr)
            throw std::logic_error(opnum + " requires an adjacency matrix file");
        if (getP(EAP) == nullptr && gfn != nullptr && fileGraph && !file_exists(*gfn))
            throw std::logic_error("file " + *gfn + " does not exist");
        if (noexec)
            set(GPT, (void*)1);
        else
            loadGraph();
        break;
    }
    default:
        throw std::logic_error("cannot load unknown data");
    }
}

void vm_t::execStore() {
    switch (target) {
    case DPT: {
        if (getP(DPT) == nullptr) throw std::logic_error("no data loaded");
        std::string* dfn = getS(DFN);
        if (dfn == nullptr) throw std::logic_error("no data filename provided");
        if (file_exists(*dfn) && !getB(OVW)) throw std::logic_error("overwrite disabled but modelfile exists");
        if (!noexec) storeData();
        break;
    }
    case MPT: {
        // The message names data although the model is what is missing.
        if (getP(MPT) == nullptr) throw std::logic_error("no data loaded");
        std::string* mfn = getS(MFN);
        if (mfn == nullptr) throw std::logic_error("no model filename provided");
        if (file_exists(*mfn) && !getB(OVW)) throw std::logic_error("overwrite disabled but modelfile exists");
        if (!noexec) {
            requireModelGraph();
            storeModel();
        }
        break;
    }
    case GPT: {
        std::string* gfn = getS(GFN);
        if (get(FMT) == FG && (getP(MPT) == nullptr || getP(GPT) == nullptr || gfn == nullptr))
            throw std::logic_error("model or graph missing");
        if (getP(GPT) == nullptr || gfn == nullptr) throw std::logic_error("graph of graphfile missing");
        if (file_exists(*gfn) && !getB(OVW)) throw std::logic_error("overwrite disabled but graphfile exists");
        if (!noexec) storeGraph();
        break;
    }
    default:
        throw std::logic_error("cannot store");
    }
}

void vm_t::execFree() {
    switch (target) {
    case DPT:
        if (noexec)
            set(DPT, (void*)nullptr);
        else
            freeData();
        break;
    case MPT:
        if (noexec)
            set(MPT, (void*)nullptr);
        else
            freeModel();
        break;
    case GPT:
        if (noexec)
            set(GPT, (void*)nullptr);
        else
            freeGraph();
        break;
    case PPT:
        if (noexec)
            set(PPT, (void*)nullptr);
        else
            freeMarginals();
        break;
    case MFN:
    case GFN:
    case DFN:
    case GPS:
    case LFN:
    case NAM:
        delete getS(target);
        set(target, (std::string*)nullptr);
        break;
    case LPT:
        delete getLP(LPT);
        set(LPT, (void*)nullptr);
        break;
    case OTHERFN:
        // Looks at DFN, not at OTHERFN: with DFN unset the string is abandoned.
        if (getS(DFN) != nullptr) delete getS(OTHERFN);
        set(OTHERFN, (std::string*)nullptr);
        break;
    default:
        throw std::logic_error("cannot release memory of unknown type");
    }
}

void vm_t::freeMarginals() {
    void* p = getP(PPT);
    if (p != nullptr && p != (void*)1) ::operator delete[](p);  // an array of a trivial value type
    set(PPT, (void*)nullptr);
}

}  // namespace QZ
