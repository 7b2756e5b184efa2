// The register machine: its tables of mnemonics and registers, the life cycle
// of a context, and the register file.
#include <QZ/QZMISC>
#include <QZ/QZDATA>

#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <omp.h>

namespace QZ {

const std::vector<vm_t::VarRow>& vm_t::registerTable() {
    static const std::vector<VarRow> rows = {
        {"EAP", EAP, POINTER},
        {"EIP", EIP, POINTER},
        {"YYY", YYY, POINTER},
        {"CBO", CBO, POINTER},
        {"CBU", CBU, POINTER},
        {"CPR", CPR, POINTER},
        {"CBP", CBP, POINTER},
        {"EXT0", EXT0, POINTER},
        {"EXT1", EXT1, POINTER},
        {"EDP", EDP, POINTER},
        {"FMT", FMT, INTEGER},
        {"SNK", SNK, INTEGER},
        {"OPT", OPT, INTEGER},
        {"REP", REP, INTEGER},
        {"INF", INF, INTEGER},
        {"GRA", GRA, INTEGER},
        {"CEN", CEN, INTEGER},
        {"GPX", GPX, INTEGER},
        {"SEED", SEED, INTEGER},
        {"DEV", DEV, INTEGER},
        {"MIO", MIO, INTEGER},
        {"MIL", MIL, INTEGER},
        {"KXX", KXX, INTEGER},
        {"DEG", DEG, INTEGER},
        {"TXX", TXX, INTEGER},
        {"GNU", GNU, INTEGER},
        {"GBR", GBR, INTEGER},
        {"GRE", GRE, INTEGER},
        {"OMP", OMP, INTEGER},
        {"GVX", GVX, INTEGER},
        {"ONE", ONE, INTEGER},
        {"DIM", DIM, INTEGER},
        {"GEX", GEX, INTEGER},
        {"PPX", PPX, BOOL},
        {"PGX", PGX, BOOL},
        {"YYC", YYC, BOOL},
        {"HED", HED, BOOL},
        {"DRP", DRP, BOOL},
        {"NOOP", NOOP, BOOL},
        {"DRY", DRY, BOOL},
        {"RST", RST, BOOL},
        {"RET", RET, BOOL},
        {"LSN", LSN, INTEGER},
        {"COL", COL, INTEGER},
        {"DBG", DBG, INTEGER},
        {"OVW", OVW, BOOL},
        {"SEP", SEP, CHAR},
        {"MIS", MIS, CHAR},
        {"LAM", LAM, REAL},
        {"ELAM", ELAM, REAL},
        {"EPL", EPL, REAL},
        {"EPO", EPO, REAL},
        {"STP", STP, REAL},
        {"SDE", SDE, REAL},
        {"PEL", PEL, REAL},
        {"MVA", MVA, REAL},
        {"OVA", OVA, REAL},
        {"GP0", GP0, REAL},
        {"GP1", GP1, REAL},
        {"GP2", GP2, REAL},
        {"RND", RND, REAL},
        {"UNI", UNI, REAL},
        {"RES", RES, REAL},
        {"RNU", RNU, INTEGER},
        {"LNN", LNN, INTEGER},
        {"MFN", MFN, STRING},
        {"DFN", DFN, STRING},
        {"OTHERFN", OTHERFN, STRING},
        {"GFN", GFN, STRING},
        {"GPS", GPS, STRING},
        {"NAM", NAM, STRING},
        {"MPT", MPT, POINTER},
        {"GPT", GPT, POINTER},
        {"DPT", DPT, POINTER},
        {"LPT", LPT, POINTER},
        {"PPT", PPT, POINTER},
        {"HPT", HPT, POINTER},
        {"GP3", GP3, REAL},
        {"GP4", GP4, REAL},
        {"GP5", GP5, REAL},
        {"GP6", GP6, REAL},
        {"BRR", BRR, INTEGER},
        {"NXX", NNN, INTEGER},
        {"GP7", GP7, REAL},
        {"GP8", GP8, REAL},
        {"GP9", GP9, REAL},
        {"HP0", HP0, REAL},
        {"HP1", HP1, REAL},
        {"HP2", HP2, REAL},
        {"HP3", HP3, REAL},
        {"HP4", HP4, REAL},
        {"HP5", HP5, REAL},
        {"HP6", HP6, REAL},
        {"HP7", HP7, REAL},
        {"HP8", HP8, REAL},
        {"HP9", HP9, REAL},
        {"LFN", LFN, STRING},
        {"ITR", ITR, INTEGER},
        {"NLL", NLL, REAL},
        {"NNZ", NNZ, INTEGER},
        {"IDX", IDX, INTEGER},
        {"VAL", VAL, INTEGER},
        {"RTT", RTT, INTEGER},
        {"NAB", NAB, REAL},
        {"ERR", ERR, REAL},
        {"LNZ", LNZ, REAL},
        {"PAM", PAM, REAL},
        {"INI", INI, BOOL},
        {"TREE", TRE, BOOL},
        {"SLW", SLW, BOOL},
    };
    return rows;
}

bool vm_t::lookupRegister(const std::string& name, VarType& v, TypeType& t) {
    for (const VarRow& r : registerTable()) {
        if (name == r.text) {
            v = r.var;
            t = r.kind;
            return true;
        }
    }
    return false;
}

static std::vector<std::tuple<std::string, vm_t::VarType, vm_t::TypeType>> makeVars() {
    std::vector<std::tuple<std::string, vm_t::VarType, vm_t::TypeType>> V;
    for (const vm_t::VarRow& r : vm_t::registerTable()) V.emplace_back(r.text, r.var, r.kind);
    return V;
}

vm_t::vm_t()
    : ARGS0({{"ESTIMATE", ESTIMATE},
             {"STATS", STATS},
             {"MODEL", MODEL},
             {"INFER", INFER},
             {"PREDICT", PREDICT},
             {"SCORE", SCORE},
             {"SAMPLE", SAMPLE},
             {"SET", SET},
             {"STGRAPH", CST},
             {"BOLTZMANNTREE", CBT},
             {"JUNCTIONTREE", CJT},
             {"BASEGRAPH", BASE},
             {"CLEARSTACK", CLS},
             {"INITLATENT", INITLAT},
             {"CLOSEDFORM", CLOSEDFORM},
             {"INITGAUSS", INITGAUSS},
             {"INITZERO", INITZERO}}),
      ARGS1({{"INC", INC},
             {"DEC", DEC},
             {"LDX", LOAD},
             {"STORE", STORE},
             {"DEL", FREE},
             {"BRA", BRANCH},
             {"PUSH", PUSH},
             {"POP", POP}}),
      ARGS2({{"MOV", MOV}, {"ADD", ADD}, {"MUL", MUL}, {"BNZ", BNZ}}),
      ARGS3({{"BLT", BLT}, {"BNE", BNE}}),
      InfL({{"LBP", LBP}, {"JT", JT}, {"SQM", SQM}, {"EXTI", EXTERNINF}}),
      OptL({{"GD", GD}, {"PL1", PL1}, {"FL1", FL1}, {"EA11", EA11}, {"IGD", IGD}, {"EXTO", EXTERNOPT}}),
      IdxL({{"UINT8", idxUINT8}, {"UINT16", idxUINT16}, {"UINT32", idxUINT32}, {"UINT64", idxUINT64}}),
      ValL({{"UINT8", valUINT8},
            {"UINT16", valUINT16},
            {"UINT32", valUINT32},
            {"UINT64", valUINT64},
            {"FLT32", valFLT32},
            {"FLT64", valFLT64},
            {"FLTMPREC", valFLTMPREC}}),
      RepL({{"NONE", NONE},
            {"STLINEAR", STRF_LI},
            {"STQUAD", STRF_QU},
            {"STCUBIC", STRF_CU},
            {"STRATIONAL", STRF_RA},
            {"STEXPONENTIAL", STRF_EX},
            {"STINVQUAD", STRF_IQU},
            {"STINVCUBIC", STRF_ICU},
            {"STINVRATIONAL", STRF_IRA},
            {"STINVEXPONENTIAL", STRF_IEX},
            {"INTEGER", INTEGERREP},
            {"DBT", DBTREP},
            {"ISING", ISING}}),
      FmtL({{"ADJ", ADJ}, {"TGF", TGF}, {"FG", FG}}),
      GraL({{"FILE", FILE},
            {"CHAIN", CHAIN},
            {"GRID", GRID},
            {"STAR", STAR},
            {"RBM", RBM},
            {"FULL", FULL},
            {"CHOWLIU", CHOWLIU},
            {"ELEMGM", ELEMGM},
            {"OTHER", OTHER},
            {"JT", JTG},
            {"DBT", DBT},
            {"ST", ST},
            {"CLIQUES", CLIQUES},
            {"RNDCLIQUES", RNDCLIQUES}}),
      VARS(makeVars()),
      ALIAS({{DEV, {"DEVICE"}}}),
      random_engine(nullptr),
      code(nullptr),
      isRunning(false),
      op(SET),
      target(GRA),
      source(GRA),
      loader(GRA),
      execPending(false),
      noexec(false) {
    random_engine = new std::mt19937((std::mt19937::result_type)std::chrono::system_clock::now().time_since_epoch().count());
    init_storage();
}

vm_t::~vm_t() {
    reset();
    delete random_engine;
}

void vm_t::init_storage() {
    for (const auto& row : VARS) {
        V2T[std::get<1>(row)] = std::get<2>(row);
        VS[std::get<1>(row)] = 0;
    }
    auto bits = [](double d) {
        size_t b;
        std::memcpy(&b, &d, sizeof(b));
        return b;
    };
    VS[MIO] = 1000;
    VS[MIL] = 1000;
    VS[KXX] = 4;
    VS[DEG] = 8;
    VS[TXX] = 1;
    VS[GNU] = 10;
    VS[GBR] = 10;
    VS[GRE] = 10;
    VS[OMP] = (size_t)omp_get_max_threads();
    VS[HED] = 1;
    VS[SDE] = bits(1.0);
    VS[LSN] = 2;
    VS[DBG] = 1;
    VS[INI] = 1;
    VS[SEP] = (size_t)',';
    VS[MIS] = (size_t)'?';
    VS[IDX] = idxUINT64;
    VS[VAL] = valFLT64;
    VS[EPL] = bits(0.000001);
    VS[EPO] = bits(0.000001);
    VS[PAM] = bits(0.1);
    VS[MVA] = 255;  // the integer bits, although the register is a real
}

void vm_t::setCode(std::vector<std::string>* L) {
    if (running()) return;
    set(LNN, (size_t)0);
    if (code != L) delete code;
    code = L;
}

bool vm_t::run() {
    if (running()) return false;
    runningLock.lock();
    // The running thread reads the computed registers straight from the
    // objects, as the line loop does (see computedForHost). A failed run
    // keeps it the runner: the context is wedged and nothing else runs.
    runner = std::this_thread::get_id();
    __atomic_store_n(&isRunning, true, __ATOMIC_SEQ_CST);
    // No clean-up path on purpose: a failed run leaves the context wedged.
    const bool result = parse(false);
    runner = std::thread::id();
    __atomic_store_n(&isRunning, false, __ATOMIC_SEQ_CST);
    runningLock.unlock();
    return result;
}

bool vm_t::reset() {
    if (running()) return false;
    for (VarType v : {MFN, GPS, GFN, DFN, OTHERFN}) {
        delete getS(v);
        set(v, (std::string*)nullptr);
    }
    freeMarginals();
    delete getLP(LPT);
    set(LPT, (void*)nullptr);
    freeData();
    freeGraph();
    freeModel();
    STACK.clear();
    V2T.clear();
    VS.clear();
    init_storage();
    return true;
}

bool vm_t::setRegValByName(const std::string reg, size_t val) {
    if (running()) return false;
    for (const auto& row : VARS)
        if (std::get<0>(row) == reg) set(std::get<1>(row), val);
    return true;
}

size_t vm_t::getRegValByName(const std::string reg) {
    for (const auto& row : VARS) {
        if (std::get<0>(row) != reg) continue;
        switch (std::get<2>(row)) {
        case STRING: return (size_t)getS(std::get<1>(row));
        case POINTER: return (size_t)getP(std::get<1>(row));
        default: {
            const VarType v = std::get<1>(row);
            if (v == GVX || v == GEX || v == DIM) return computedForHost(v);
            return get(v);
        }
        }
    }
    return ~(size_t)0;
}

// ---------------------------------------------------------------- registers

// Only once a thread from outside has asked while the resources were being
// changed, so that a run nobody watches never looks at them more often than
// the program does.
void vm_t::publishComputed() {
    if (!pollers.load()) return;
    shownGVX = get(GVX);
    shownGEX = get(GEX);
    shownDIM = get(DIM);
    shown = true;
}

size_t vm_t::computedForHost(VarType v) {
    // The run's own threads (the running thread, callbacks from it or from a
    // parallel loop of an instruction) see the objects as the instruction
    // leaves them at that point. Any other thread asks the objects only
    // while no instruction is changing them (resLock); during one that does,
    // it gets the values published at the end of the last such instruction
    // (the stored bits, as with no graph or model, before the first).
    if (runner.load() == std::this_thread::get_id() || omp_in_parallel()) return get(v);
    std::unique_lock<std::mutex> quiet(resLock, std::try_to_lock);
    if (quiet.owns_lock()) return get(v);
    pollers = true;
    if (!shown.load()) return bits(v);
    return v == GVX ? shownGVX.load() : v == GEX ? shownGEX.load() : shownDIM.load();
}

// The computed registers answer from the resources (or their dry-pass
// sentinels); every other register is its stored bits. Only the computed ones
// look at the resource registers, so that the line loop's reads of LNN cost
// one lookup.
size_t vm_t::get(VarType v) const {
    switch (v) {
    case GVX:
    case GEX:
        if (bits(MPT) == 1) return 1;
        if (!__atomic_load_n(&noexec, __ATOMIC_RELAXED) && bits(GPT) != 0) {
            size_t count;
            if (graphCount(v, count)) return count;
        }
        break;
    case DIM: {
        const size_t mpt = bits(MPT);
        if (mpt == 1) return 1;
        if (mpt != 0) return getDim();
        break;
    }
    case NNN:
        if (bits(DPT) == 1) return 1;
        break;
    case ONE:
        return 1;
    default:
        break;
    }
    return bits(v);
}

double vm_t::getR(VarType v) const {
    if (v == RND) {
        std::normal_distribution<double> N(0.0, getR(SDE));
        return N(*random_engine);
    }
    if (v == UNI) {
        std::uniform_real_distribution<double> U(0.0, 1.0);
        return U(*random_engine);
    }
    const size_t b = bits(v);
    double d;
    std::memcpy(&d, &b, sizeof(d));
    return d;
}

void vm_t::set(VarType v, size_t x) {
    if (v == SEED) {
        delete random_engine;
        random_engine = new std::mt19937((std::mt19937::result_type)x);
    }
    if (v == OMP) omp_set_num_threads((int)x);
    if (v == SEP && (char)(x & 0xff) == '|') throw std::out_of_range("separator | not supported");
    std::lock_guard<std::mutex> lock(vsLock);
    __atomic_store_n(&VS[v], (size_t)(x), __ATOMIC_RELAXED);
}

void vm_t::set(VarType v, bool x) {
    std::lock_guard<std::mutex> lock(vsLock);
    __atomic_store_n(&VS[v], (size_t)(x ? 1 : 0), __ATOMIC_RELAXED);
}

void vm_t::set(VarType v, char x) {
    std::lock_guard<std::mutex> lock(vsLock);
    __atomic_store_n(&VS[v], (size_t)((size_t)(unsigned char)x), __ATOMIC_RELAXED);
}

void vm_t::set(VarType v, double x) {
    size_t b;
    std::memcpy(&b, &x, sizeof(b));
    std::lock_guard<std::mutex> lock(vsLock);
    __atomic_store_n(&VS[v], (size_t)(b), __ATOMIC_RELAXED);
}

void vm_t::set(VarType v, std::string* x) {
    std::lock_guard<std::mutex> lock(vsLock);
    __atomic_store_n(&VS[v], (size_t)((size_t)x), __ATOMIC_RELAXED);
}

void vm_t::set(VarType v, void* x) {
    std::lock_guard<std::mutex> lock(vsLock);
    __atomic_store_n(&VS[v], (size_t)((size_t)x), __ATOMIC_RELAXED);
}

void vm_t::requireMPT() const {
    if (getP(MPT) == nullptr) throw std::logic_error("no model loaded");
}

// After the checks of an instruction that works on the model: a model whose
// graph was released (DEL GPT), or which was given none, cannot be used until
// a graph of its variables is loaded again.
void vm_t::requireModelGraph() const {
    if (modelLacksGraph()) throw std::logic_error("the model has no graph: load one with LDX GPT");
    if (misfitModel != nullptr && misfitModel == getP(MPT))
        throw std::logic_error("the model does not fit the graph a conversion derived from its own: load a graph of "
                               "its variables with LDX GPT");
}

void vm_t::requireGPT() const {
    if (getP(GPT) == nullptr) throw std::logic_error("no graph loaded");
}

void vm_t::requireDPT() const {
    if (getP(DPT) == nullptr) throw std::logic_error("no data loaded");
}

}  // namespace QZ
