// Register file, scanner and the control-flow part of the register machine.
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

// The instructions that make, replace or release a table, graph or model, or
// change the sizes a graph or model reports.
static bool changesResources(vm_t::OpType op) {
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

// ---------------------------------------------------------------- scanner

bool vm_t::parse(bool _noexec) {
    // Read by get() on threads that poll registers during a run.
    __atomic_store_n(&noexec, _noexec, __ATOMIC_RELAXED);
    bool ok = true;
    // A context that never received a program runs an empty one.
    if (code == nullptr) return ok;
    while (get(LNN) < code->size() && ok) {
        // parse0 takes its own copy of the line.
        ok = parse0(code->at(get(LNN)));
        if (ok) set(LNN, get(LNN) + 1);
    }
    return ok;
}

bool vm_t::parse0(std::string s) {
    size_t pos = 0;
    while (pos < s.length()) {
        if (s[0] == '#') return true;
        pos = parseNext(s, pos);
    }
    if (execPending) throw std::logic_error("unexpected end of line");
    return true;
}

static inline bool prefixAt(const std::string& s, size_t pos, const std::string& text) {
    return s.compare(pos, text.size(), text) == 0;
}

static inline bool isBlank(char c) { return c == ' ' || c == '\t'; }

size_t vm_t::parseNext(const std::string& s, size_t pos) {
    for (const auto& row : ARGS0) {
        if (prefixAt(s, pos, row.first)) {
            op = row.second;
            pos += row.first.size();
            execPending = true;
            return pos;
        }
    }
    for (const auto& row : ARGS1) {
        if (prefixAt(s, pos, row.first)) {
            op = row.second;
            pos += row.first.size();
            execPending = true;
            target = parseVar(s, pos);
            return pos;
        }
    }
    for (const auto& row : ARGS2) {
        if (prefixAt(s, pos, row.first)) {
            op = row.second;
            pos += row.first.size();
            execPending = true;
            target = parseVar(s, pos);
            source = parseVar(s, pos);
            return pos;
        }
    }
    for (const auto& row : ARGS3) {
        if (prefixAt(s, pos, row.first)) {
            op = row.second;
            pos += row.first.size();
            execPending = true;
            target = parseVar(s, pos);
            source = parseVar(s, pos);
            loader = parseVar(s, pos);
            return pos;
        }
    }
    if (prefixAt(s, pos, "idx_t")) {
        if (!parseSetter(pos, s, "idx_t", IDX, 5, IdxL, 0)) throw std::logic_error("parser error");
        return pos;
    }
    if (prefixAt(s, pos, "val_t")) {
        if (!parseSetter(pos, s, "val_t", VAL, 5, ValL, 0)) throw std::logic_error("parser error");
        return pos;
    }
    if (prefixAt(s, pos, "ALG")) {
        const size_t start = pos;
        if (parseSetter(pos, s, "ALG", INF, 3, InfL, 0)) return pos;
        pos = start;
        if (!parseSetter(pos, s, "ALG", OPT, 3, OptL, 4)) throw std::logic_error("parser error");
        return pos;
    }
    if (prefixAt(s, pos, "REP")) {
        if (!parseSetter(pos, s, "rep", REP, 3, RepL, 0)) throw std::logic_error("parser error");
        return pos;
    }
    if (prefixAt(s, pos, "FMT")) {
        if (!parseSetter(pos, s, "graph format", FMT, 3, FmtL, 0)) throw std::logic_error("parser error");
        return pos;
    }
    if (prefixAt(s, pos, "GRA")) {
        if (!parseSetter(pos, s, "graph", GRA, 3, GraL, 0)) throw std::logic_error("parser error");
        return pos;
    }
    if (s[pos] == ';') {
        if (!exec()) throw std::logic_error("unknown syntax error");
        op = SET;
        target = NOOP;
        // One instruction a line: whatever follows the ';' is a comment.
        return s.length();
    }
    if (isBlank(s[pos])) {
        // Required: a blank resets the first operand, so "LDX DPT ;" loads NOOP.
        target = NOOP;
        return pos + 1;
    }

    // Assignment of a register.
    target = getVar(s, pos);
    if (target == UNKNOWN) throw std::logic_error("unknown syntax error");
    while (pos < s.length() && isBlank(s[pos])) ++pos;
    if (pos >= s.length()) throw std::logic_error("unknown syntax error");
    std::string token;
    if (s[pos] == '\'' || s[pos] == '"') {
        // The closing quote may be of either sort; without one the value runs to the end.
        const size_t close = s.find_first_of("'\"", pos + 1);
        token = (close == std::string::npos) ? s.substr(pos) : s.substr(pos, close - pos + 1);
    } else {
        const size_t end = s.find_first_of(" \t;", pos);
        token = (end == std::string::npos) ? s.substr(pos) : s.substr(pos, end - pos);
    }
    if (target == DEV) {
        set(target, QZ::get<size_t>(token));
    } else {
        switch (V2T.at(target)) {
        case STRING: set(target, QZ::get<std::string*>(token)); break;
        case POINTER: set(target, QZ::get<void*>(token)); break;
        case BOOL: set(target, QZ::get<bool>(token)); break;
        case REAL: set(target, QZ::get<double>(token)); break;
        case CHAR: set(target, QZ::get<char>(token)); break;
        case INTEGER: set(target, QZ::get<size_t>(token)); break;
        default: throw std::logic_error("unknown data type");
        }
    }
    return pos + token.length();
}

vm_t::VarType vm_t::getVar(std::string s, size_t& pos) {
    for (const auto& row : VARS) {
        const std::string& text = std::get<0>(row);
        if (prefixAt(s, pos, text)) {
            pos += text.size();
            return std::get<1>(row);
        }
        for (const std::string& alt : ALIAS[std::get<1>(row)]) {
            if (prefixAt(s, pos, alt)) {
                pos += alt.size();
                return std::get<1>(row);
            }
        }
    }
    return UNKNOWN;
}

vm_t::VarType vm_t::parseVar(const std::string& s, size_t& pos) {
    while (pos < s.length() && isBlank(s[pos])) ++pos;
    if (pos >= s.length()) throw std::logic_error("cannot parse argument of op " + std::to_string((int)op));
    const VarType v = getVar(s, pos);
    // The check looks at the operand stored before, not at the one just read:
    // an unknown first operand passes here and fails at the next one.
    if (target == UNKNOWN) throw std::logic_error("cannot parse argument of op " + std::to_string((int)op));
    return v;
}

template <typename T>
bool vm_t::parseSetter(size_t& pos, const std::string& s, const std::string& tag, VarType vt, const size_t off,
                       const std::vector<std::pair<std::string, T>>& L, size_t init) {
    target = vt;
    pos += off;
    while (pos < s.length() && isBlank(s[pos])) ++pos;
    if (pos >= s.length()) throw std::logic_error("cannot set " + tag);
    size_t epos = pos;
    while (epos < s.length() && s[pos] != ';') ++epos;
    --epos;  // wraps below pos when the value is the ';' itself
    size_t itr = init;
    for (const auto& row : L) {
        if (prefixAt(s, pos, row.first) || toInt(s.c_str() + pos, epos - pos) == itr) {
            set(vt, itr);
            pos += row.first.size();
            return true;
        }
        ++itr;
    }
    return false;
}

template bool vm_t::parseSetter(size_t&, const std::string&, const std::string&, VarType, const size_t,
                                const std::vector<std::pair<std::string, InfType>>&, size_t);
template bool vm_t::parseSetter(size_t&, const std::string&, const std::string&, VarType, const size_t,
                                const std::vector<std::pair<std::string, OptType>>&, size_t);
template bool vm_t::parseSetter(size_t&, const std::string&, const std::string&, VarType, const size_t,
                                const std::vector<std::pair<std::string, IdxType>>&, size_t);
template bool vm_t::parseSetter(size_t&, const std::string&, const std::string&, VarType, const size_t,
                                const std::vector<std::pair<std::string, ValType>>&, size_t);
template bool vm_t::parseSetter(size_t&, const std::string&, const std::string&, VarType, const size_t,
                                const std::vector<std::pair<std::string, ReparamType>>&, size_t);
template bool vm_t::parseSetter(size_t&, const std::string&, const std::string&, VarType, const size_t,
                                const std::vector<std::pair<std::string, GraphExport>>&, size_t);
template bool vm_t::parseSetter(size_t&, const std::string&, const std::string&, VarType, const size_t,
                                const std::vector<std::pair<std::string, GraphType>>&, size_t);

// ---------------------------------------------------------------- execution

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
