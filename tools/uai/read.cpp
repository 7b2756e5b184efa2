// Reading UAI networks and evidence, and turning a network into the pairwise
// form that a qz model holds.
#include "uai.h"

#include <QZ/QZIO>

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <map>
#include <sstream>

namespace uai {

namespace {

constexpr double NEG_INF = -std::numeric_limits<double>::infinity();

struct Token {
    std::string text;
    size_t line;
};

// UAI and evidence files are numbers separated by any white space; line
// breaks carry no meaning, but every token remembers its line for errors.
class TokenReader {
public:
    TokenReader(const std::string& path, const std::string& text) : path_(path) {
        size_t line = 1;
        size_t i = 0;
        while (i < text.size()) {
            const char c = text[i];
            if (c == '\n') ++line;
            if (std::isspace((unsigned char)c)) {
                ++i;
                continue;
            }
            const size_t start = i;
            while (i < text.size() && !std::isspace((unsigned char)text[i])) ++i;
            tokens_.push_back({text.substr(start, i - start), line});
        }
        // A file that stops short is reported at its last token.
        if (!tokens_.empty()) lastLine_ = tokens_.back().line;
    }

    bool atEnd() const { return pos_ >= tokens_.size(); }
    size_t size() const { return tokens_.size(); }
    const Token& at(size_t i) const { return tokens_.at(i); }
    size_t position() const { return pos_; }
    size_t nextLine() const { return atEnd() ? lastLine_ : tokens_[pos_].line; }

    const Token& next(const std::string& what) {
        if (atEnd()) fail(lastLine_, "the file ends where " + what + " was expected");
        return tokens_[pos_++];
    }

    // A whole number from 0 to max.
    size_t count(const std::string& what, size_t max = std::numeric_limits<size_t>::max()) {
        const Token& t = next(what);
        return toCount(t, what, max);
    }

    size_t toCount(const Token& t, const std::string& what, size_t max) const {
        if (t.text.empty() || t.text.find_first_not_of("0123456789") != std::string::npos)
            fail(t.line, "'" + t.text + "' is no whole number (" + what + ")");
        errno = 0;
        const unsigned long long v = std::strtoull(t.text.c_str(), nullptr, 10);
        if (errno == ERANGE || v > max)
            fail(t.line, what + " " + t.text + " is too large (at most " + std::to_string(max) + ")");
        return (size_t)v;
    }

    double real(const std::string& what) {
        const Token& t = next(what);
        char* end = nullptr;
        errno = 0;
        const double v = std::strtod(t.text.c_str(), &end);
        if (end == t.text.c_str() || *end != '\0') fail(t.line, "'" + t.text + "' is no number (" + what + ")");
        if (errno == ERANGE && std::fabs(v) > 1.0) fail(t.line, what + " " + t.text + " is out of range");
        if (!std::isfinite(v)) fail(t.line, what + " " + t.text + " is not finite");
        return v;
    }

    [[noreturn]] void fail(size_t line, const std::string& msg) const {
        throw Failure(path_ + ":" + std::to_string(line) + ": " + msg);
    }

private:
    std::string path_;
    std::vector<Token> tokens_;
    size_t pos_ = 0;
    size_t lastLine_ = 1;
};

std::string scopeText(const std::vector<size_t>& scope) {
    std::string s;
    for (size_t i = 0; i < scope.size(); ++i) s += (i ? ", x" : "x") + std::to_string(scope[i]);
    return s;
}

// "f12_x3_x7_x9"; a scope too long for a name keeps its first variables and
// its last, with "_..." where the others were left out.
std::string addedName(size_t f, const std::vector<size_t>& scope) {
    const size_t maxLen = QZ::IO<size_t, double>::MAX_NAME;
    std::string name = "f" + std::to_string(f);
    const std::string last = "_x" + std::to_string(scope.back());
    for (size_t i = 0; i + 1 < scope.size(); ++i) {
        const std::string part = "_x" + std::to_string(scope[i]);
        const bool more = i + 2 < scope.size();
        if (name.size() + part.size() + (more ? 4 : 0) + last.size() > maxLen) return name + "_..." + last;
        name += part;
    }
    return name + last;
}

}  // namespace

std::string readWhole(const std::string& path) {
    struct stat st;
    std::ifstream in(path, std::ios::binary);
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !in) throw Failure("cannot read '" + path + "'");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool looksLikeUai(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    int c = in.get();
    while (c != EOF && std::isspace(c)) c = in.get();
    return c == 'M' || c == 'B';
}

double PairModel::logPotential(const std::vector<size_t>& x) const {
    double lp = 0.0;
    size_t off = 0;
    for (size_t e = 0; e < edges.size(); ++e) {
        lp += w[off + x[edges[e].first] * Y[edges[e].second] + x[edges[e].second]];
        off += blockSize(e);
    }
    return lp;
}

// ------------------------------------------------------------------ UAI network

FactorModel readUaiModel(const std::string& path) {
    TokenReader R(path, readWhole(path));
    FactorModel F;
    F.path = path;
    const Token& kind = R.next("the network type MARKOV or BAYES");
    if (kind.text != "MARKOV" && kind.text != "BAYES")
        R.fail(kind.line, "expected the network type MARKOV or BAYES, found '" + kind.text + "'");
    F.bayes = kind.text == "BAYES";

    const Token& nTok = R.next("the number of variables");
    const size_t n = R.toCount(nTok, "number of variables", std::numeric_limits<uint32_t>::max());
    if (n == 0) R.fail(nTok.line, "a model needs at least one variable");
    // Each cardinality takes a token: a count beyond the file is no file.
    if (n > R.size()) R.fail(nTok.line, "the file is too short for " + nTok.text + " variables");
    F.card.resize(n);
    for (size_t v = 0; v < n; ++v) {
        const Token& t = R.next("the cardinality of variable " + std::to_string(v));
        F.card[v] = R.toCount(t, "cardinality of variable " + std::to_string(v), MAX_STATES);
        if (F.card[v] == 0) R.fail(t.line, "variable " + std::to_string(v) + " has no states");
    }

    const Token& fTok = R.next("the number of factors");
    const size_t nf = R.toCount(fTok, "number of factors", std::numeric_limits<size_t>::max());
    // Each factor takes at least three tokens: scope size, entry count, an entry.
    if (nf > R.size() / 3) R.fail(fTok.line, "the file is too short for " + fTok.text + " factors");
    F.factors.resize(nf);
    for (size_t f = 0; f < nf; ++f) {
        Factor& fac = F.factors[f];
        const std::string fs = "factor " + std::to_string(f);
        const Token& kTok = R.next("the size of the scope of " + fs);
        const size_t k = R.toCount(kTok, "scope size of " + fs, n);
        fac.line = kTok.line;
        if (F.bayes && k == 0) R.fail(kTok.line, fs + " has no variables: a conditional table needs its child");
        for (size_t i = 0; i < k; ++i) {
            const Token& t = R.next("a variable of " + fs);
            const size_t v = R.toCount(t, "variable of " + fs, std::numeric_limits<size_t>::max());
            if (v >= n) R.fail(t.line, fs + " names variable " + t.text + ", but there are " + std::to_string(n));
            for (size_t u : fac.scope)
                if (u == v) R.fail(t.line, fs + " names variable " + t.text + " twice");
            fac.scope.push_back(v);
        }
        // A factor over three or more variables becomes one variable whose
        // states are the scope's joint states: they must fit a state code.
        if (k >= 3) {
            double joint = 1;
            for (size_t v : fac.scope) joint *= (double)F.card[v];
            if (joint > (double)MAX_STATES) {
                char buf[40];
                std::snprintf(buf, sizeof(buf), joint < 1e15 ? "%.0f" : "%.3g", joint);
                R.fail(kTok.line, fs + " over " + scopeText(fac.scope) + " has " + buf +
                                      " joint states, more than the 65535 that a 16-bit state code can number");
            }
        }
    }

    for (size_t f = 0; f < nf; ++f) {
        Factor& fac = F.factors[f];
        const std::string fs = "factor " + std::to_string(f);
        // At most 65535 squared for three or more variables, 65535 for two.
        size_t expected = 1;
        for (size_t v : fac.scope) expected *= F.card[v];
        const Token& cTok = R.next("the number of entries of " + fs);
        const size_t count = R.toCount(cTok, "number of entries of " + fs, std::numeric_limits<size_t>::max());
        if (count != expected)
            R.fail(cTok.line, fs + " has " + std::to_string(count) + " entries, but its scope has " +
                                  std::to_string(expected) + " joint states");
        // A count beyond the file is found at its end, without a table of that size.
        fac.table.reserve(std::min(count, R.size() - R.position()));
        for (size_t i = 0; i < count; ++i) {
            const size_t line = R.nextLine();
            const double x = R.real("an entry of " + fs);
            if (x < 0.0) R.fail(line, fs + " has a negative entry");
            fac.table.push_back(x);
        }
    }
    if (!R.atEnd()) R.fail(R.at(R.position()).line, "unexpected text after the last function table");
    return F;
}

// ------------------------------------------------------------------ evidence

std::vector<Evidence> readEvidence(const std::string& path, const std::vector<size_t>& card) {
    TokenReader R(path, readWhole(path));
    const size_t n = card.size();
    if (R.size() == 0) R.fail(1, "the file is empty: it needs the number of observed variables");
    std::vector<Evidence> rows;
    auto sample = [&](const std::string& what) {
        const Token& kTok = R.next("the number of observed variables");
        const size_t k = R.toCount(kTok, "number of observed variables", n);
        Evidence row(n, -1);
        for (size_t i = 0; i < k; ++i) {
            const Token& vTok = R.next("an observed variable");
            const size_t v = R.toCount(vTok, "observed variable", std::numeric_limits<size_t>::max());
            if (v >= n) R.fail(vTok.line, "variable " + vTok.text + " is observed, but the model has " + std::to_string(n));
            const Token& sTok = R.next("the state of variable " + vTok.text);
            const size_t s = R.toCount(sTok, "state", std::numeric_limits<size_t>::max());
            if (s >= card[v])
                R.fail(sTok.line, "variable " + vTok.text + " is observed in state " + sTok.text + ", but it has " +
                                      std::to_string(card[v]) + " states");
            if (row[v] >= 0) R.fail(vTok.line, "variable " + vTok.text + " is observed twice" + what);
            row[v] = (long)s;
        }
        rows.push_back(row);
    };
    // Either "k v s v s ..." or, in older files, a number of samples first
    // with one such block each. The token count tells them apart; the newer
    // form wins where both fit.
    const Token& first = R.at(0);
    const size_t k0 = R.toCount(first, "number of observed variables", std::numeric_limits<size_t>::max() / 4);
    if (R.size() == 1 + 2 * k0) {
        sample("");
    } else {
        const size_t samples = R.count("the number of samples");
        for (size_t i = 0; i < samples; ++i) sample(" in sample " + std::to_string(i));
    }
    if (!R.atEnd()) R.fail(R.at(R.position()).line, "unexpected text after the evidence");
    return rows;
}

// ------------------------------------------------------------------ pairwise form

// A qz model has weights on edges only (the natural logarithms of the
// potentials), so:
// - a pairwise factor is an edge, oriented as its first appearance; more
//   factors on one pair add their logarithms;
// - a factor over k >= 3 variables is an added vertex whose states are the
//   joint states of its scope (last scope variable fastest, as in the
//   table), with an edge to each scope variable that allows only the
//   consistent pairs; the table goes on the first of these edges;
// - a vertex factor, and the evidence as a factor of 1 at the observed state
//   and 0 elsewhere, fold into the first edge at their variable; a variable
//   without one gets an edge to a neighbouring variable (the next one, or
//   the one before for the last) that carries only its vertex factor;
// - a factor without variables is a constant, folded into the first edge.
// A zero entry is a weight of minus infinity. Z and the marginals of the
// network's variables stay as they are, exactly.
PairModel toPairwise(const FactorModel& F, const Evidence* evidence, bool connectAll) {
    const size_t n = F.n();
    const size_t nf = F.factors.size();
    PairModel M;
    M.Y = F.card;
    M.original = n;
    auto failAt = [&](size_t line, const std::string& msg) -> void {
        throw Failure(F.path + ":" + std::to_string(line) + ": " + msg);
    };

    std::map<std::pair<size_t, size_t>, size_t> edgeOf;
    std::vector<size_t> edgeOfFactor(nf, 0);
    for (size_t f = 0; f < nf; ++f) {
        const std::vector<size_t>& sc = F.factors[f].scope;
        if (sc.size() != 2) continue;
        const std::pair<size_t, size_t> key(std::min(sc[0], sc[1]), std::max(sc[0], sc[1]));
        auto it = edgeOf.find(key);
        if (it == edgeOf.end()) {
            it = edgeOf.emplace(key, M.edges.size()).first;
            M.edges.emplace_back(sc[0], sc[1]);
        }
        edgeOfFactor[f] = it->second;
    }
    std::vector<size_t> addedOf(nf, 0);
    for (size_t f = 0; f < nf; ++f) {
        const std::vector<size_t>& sc = F.factors[f].scope;
        if (sc.size() < 3) continue;
        const size_t a = M.Y.size();
        addedOf[f] = a;
        edgeOfFactor[f] = M.edges.size();
        M.Y.push_back(F.factors[f].table.size());
        for (size_t v : sc) M.edges.emplace_back(a, v);
    }
    const size_t N = M.Y.size();

    std::vector<std::vector<double>> unary(N);
    std::vector<size_t> unaryLine(N, 0);
    double constant = 0.0;
    size_t constantLine = 0;
    auto addUnary = [&](size_t v, size_t line, const std::vector<double>& logs) {
        if (unary[v].empty()) {
            unary[v].assign(M.Y[v], 0.0);
            unaryLine[v] = line;
        }
        for (size_t x = 0; x < M.Y[v]; ++x) unary[v][x] += logs[x];
    };
    for (size_t f = 0; f < nf; ++f) {
        const Factor& fac = F.factors[f];
        if (fac.scope.empty()) {
            constant += std::log(fac.table[0]);
            if (constantLine == 0) constantLine = fac.line;
        } else if (fac.scope.size() == 1) {
            std::vector<double> logs(fac.table.size());
            for (size_t x = 0; x < logs.size(); ++x) logs[x] = std::log(fac.table[x]);
            addUnary(fac.scope[0], fac.line, logs);
        }
    }
    if (evidence != nullptr)
        for (size_t v = 0; v < n; ++v) {
            if ((*evidence)[v] < 0) continue;
            std::vector<double> logs(M.Y[v], NEG_INF);
            logs[(size_t)(*evidence)[v]] = 0.0;
            addUnary(v, 0, logs);
        }

    // Carrier edges for vertex terms of variables that have no edge.
    std::vector<size_t> firstEdge(N, std::numeric_limits<size_t>::max());
    for (size_t e = M.edges.size(); e-- > 0;) {
        firstEdge[M.edges[e].first] = e;
        firstEdge[M.edges[e].second] = e;
    }
    const bool needConstantEdge = constant != 0.0 && M.edges.empty();
    for (size_t v = 0; v < n; ++v) {
        if (firstEdge[v] != std::numeric_limits<size_t>::max()) continue;
        if (unary[v].empty() && !connectAll && !(needConstantEdge && v == 0)) continue;
        if (n == 1) {
            if (unary[v].empty() && !needConstantEdge) continue;  // nothing to carry
            if (!unary[v].empty() && unaryLine[v] == 0)
                throw Failure(F.path + ": variable 0 is observed, but a model of one variable has no edge to carry "
                                       "the observation");
            failAt(unary[v].empty() ? constantLine : unaryLine[v],
                   unary[v].empty() ? "a factor without variables needs an edge to carry it, but a model of one variable has none"
                                    : "variable 0 has a vertex factor, but a model of one variable has no edge to carry it");
        }
        firstEdge[v] = M.edges.size();
        M.edges.emplace_back(v, v + 1 < n ? v + 1 : v - 1);
    }

    std::vector<size_t> off(M.edges.size() + 1, 0);
    for (size_t e = 0; e < M.edges.size(); ++e) off[e + 1] = off[e] + M.blockSize(e);
    M.w.assign(off.back(), 0.0);

    for (size_t f = 0; f < nf; ++f) {
        const Factor& fac = F.factors[f];
        const std::vector<size_t>& sc = fac.scope;
        if (sc.size() == 2) {
            // Entries run over (first, second) of the scope with the second
            // fastest; the edge may point the other way.
            const size_t e = edgeOfFactor[f];
            const bool same = M.edges[e].first == sc[0];
            const size_t Y0 = M.Y[sc[0]], Y1 = M.Y[sc[1]];
            for (size_t x = 0; x < Y0; ++x)
                for (size_t y = 0; y < Y1; ++y) {
                    const size_t i = same ? x * Y1 + y : y * Y0 + x;
                    M.w[off[e] + i] += std::log(fac.table[x * Y1 + y]);
                }
        } else if (sc.size() >= 3) {
            const size_t Ya = M.Y[addedOf[f]];
            size_t stride = Ya;
            for (size_t i = 0; i < sc.size(); ++i) {
                const size_t e = edgeOfFactor[f] + i, Yv = M.Y[sc[i]];
                stride /= Yv;  // of scope variable i within the joint state
                for (size_t xa = 0; xa < Ya; ++xa) {
                    const size_t digit = xa / stride % Yv;
                    for (size_t y = 0; y < Yv; ++y)
                        M.w[off[e] + xa * Yv + y] = y != digit ? NEG_INF : i == 0 ? std::log(fac.table[xa]) : 0.0;
                }
            }
        }
    }

    auto foldVertex = [&](size_t v, const std::vector<double>& logs) {
        const size_t e = firstEdge[v];
        const size_t s = M.edges[e].first, t = M.edges[e].second;
        for (size_t x = 0; x < M.Y[s]; ++x)
            for (size_t y = 0; y < M.Y[t]; ++y) M.w[off[e] + x * M.Y[t] + y] += logs[s == v ? x : y];
    };
    for (size_t v = 0; v < N; ++v)
        if (!unary[v].empty()) foldVertex(v, unary[v]);
    if (constant != 0.0)
        for (size_t i = off[0]; i < off[1]; ++i) M.w[i] += constant;

    for (size_t v = 0; v < n; ++v) {
        M.names.push_back("x" + std::to_string(v));
        std::vector<std::string> S;
        for (size_t x = 0; x < M.Y[v]; ++x) S.push_back(std::to_string(x));
        M.states.push_back(S);
    }
    // An added variable's states are named by the joint states of its scope.
    for (size_t f = 0; f < nf; ++f) {
        const std::vector<size_t>& sc = F.factors[f].scope;
        if (sc.size() < 3) continue;
        M.names.push_back(addedName(f, sc));
        std::vector<std::string> S;
        std::vector<size_t> x(sc.size(), 0);
        for (size_t xa = 0; xa < M.Y[addedOf[f]]; ++xa) {
            std::string s;
            for (size_t i = 0; i < sc.size(); ++i) s += (i ? "." : "") + std::to_string(x[i]);
            S.push_back(s);
            for (size_t i = sc.size(); i-- > 0;) {
                if (++x[i] < M.Y[sc[i]]) break;
                x[i] = 0;
            }
        }
        M.states.push_back(S);
    }
    return M;
}

}  // namespace uai
