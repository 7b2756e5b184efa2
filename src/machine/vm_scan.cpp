// The scanner: each line is walked anew when control reaches it, assignments
// take effect as they are read, and an instruction runs at its semicolon.
#include <QZ/QZMISC>
#include <QZ/QZDATA>

#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <omp.h>

namespace QZ {

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
    // The mnemonics by operand count, tried in that order: the first prefix
    // that matches wins, and its operands follow it.
    const std::vector<std::pair<std::string, OpType>>* const byOperands[] = {&ARGS0, &ARGS1, &ARGS2, &ARGS3};
    for (int k = 0; k < 4; ++k) {
        for (const auto& row : *byOperands[k]) {
            if (!prefixAt(s, pos, row.first)) continue;
            op = row.second;
            pos += row.first.size();
            execPending = true;
            if (k >= 1) target = parseVar(s, pos);
            if (k >= 2) source = parseVar(s, pos);
            if (k >= 3) loader = parseVar(s, pos);
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

}  // namespace QZ
