// qzuai: converts models in the UAI format of the inference competitions to
// and from qz model files, and UAI evidence files into tables of observations.
//
//   qzuai import MODEL.uai OUT.qzm [--idx T] [--val T] [-f]
//   qzuai export MODEL.qzm OUT.uai [-f]
//   qzuai evidence EVIDENCE.evid MODEL OUT.csv [-f]
//
// Only MARKOV models with vertex and pairwise factors convert. A qz model has
// weights on edges only (the natural logarithms of the potentials), so a
// vertex factor is folded into the first edge at its variable; a variable
// without any pairwise factor gets an edge to a neighbouring variable (the
// next one, or the one before for the last) that carries only its vertex
// factor. Every input is read and checked completely before an output file
// is opened, and outputs go to a temporary file that is renamed at the end:
// a failure writes nothing. Errors name the line of a UAI or evidence file,
// or the byte offset of a model file, and exit with 1; a bad command line
// exits with 2.
#include <QZ/QZMISC>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

// A failure with its place already in the message ("FILE:LINE: ...").
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Everything the conversions need of a pairwise model: weights in the qz
// layout (edge-major, the first end vertex's state the slow index).
struct PairModel {
    std::vector<size_t> Y;
    std::vector<std::pair<size_t, size_t>> edges;
    std::vector<double> w;
    std::vector<std::string> names;
    std::vector<std::vector<std::string>> states;

    size_t n() const { return Y.size(); }
    size_t blockSize(size_t e) const { return Y[edges[e].first] * Y[edges[e].second]; }
};

constexpr size_t MAX_STATES = 65535;  // category codes are 16 bits, 65535 marks a missing cell

// ------------------------------------------------------------------ text tokens

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

std::string readWhole(const std::string& path) {
    struct stat st;
    std::ifstream in(path, std::ios::binary);
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || !in) throw Failure("cannot read '" + path + "'");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// ------------------------------------------------------------------ UAI model in

PairModel readUai(const std::string& path) {
    TokenReader R(path, readWhole(path));
    const Token& kind = R.next("the network type MARKOV");
    if (kind.text == "BAYES")
        R.fail(kind.line, "BAYES networks are not supported: only MARKOV models convert");
    if (kind.text != "MARKOV") R.fail(kind.line, "expected the network type MARKOV, found '" + kind.text + "'");

    const Token& nTok = R.next("the number of variables");
    const size_t n = R.toCount(nTok, "number of variables", std::numeric_limits<uint32_t>::max());
    if (n == 0) R.fail(nTok.line, "a model needs at least one variable");
    PairModel M;
    M.Y.resize(n);
    for (size_t v = 0; v < n; ++v) {
        const Token& t = R.next("the cardinality of variable " + std::to_string(v));
        M.Y[v] = R.toCount(t, "cardinality of variable " + std::to_string(v), MAX_STATES);
        if (M.Y[v] == 0) R.fail(t.line, "variable " + std::to_string(v) + " has no states");
    }

    const Token& fTok = R.next("the number of factors");
    const size_t F = R.toCount(fTok, "number of factors", std::numeric_limits<size_t>::max());
    // Each factor takes at least four tokens: scope size, a variable, entry count, an entry.
    if (F > R.size() / 4) R.fail(fTok.line, "the file is too short for " + fTok.text + " factors");
    struct Scope {
        std::vector<size_t> vars;
        size_t line;
    };
    std::vector<Scope> scopes(F);
    for (size_t f = 0; f < F; ++f) {
        const std::string fs = "factor " + std::to_string(f);
        const Token& kTok = R.next("the size of the scope of " + fs);
        const size_t k = R.toCount(kTok, "scope size of " + fs, std::numeric_limits<uint32_t>::max());
        scopes[f].line = kTok.line;
        if (k == 0) R.fail(kTok.line, fs + " has no variables: only vertex and pairwise factors convert");
        if (k > 2)
            R.fail(kTok.line, fs + " is over " + std::to_string(k) +
                                  " variables: only vertex and pairwise factors convert");
        for (size_t i = 0; i < k; ++i) {
            const Token& t = R.next("a variable of " + fs);
            const size_t v = R.toCount(t, "variable of " + fs, std::numeric_limits<size_t>::max());
            if (v >= n)
                R.fail(t.line, fs + " names variable " + t.text + ", but there are " + std::to_string(n));
            if (i == 1 && v == scopes[f].vars[0]) R.fail(t.line, fs + " names variable " + t.text + " twice");
            scopes[f].vars.push_back(v);
        }
    }

    // Pairwise factors make the edges, in the order and orientation of their
    // first scope; more factors on one pair multiply, so their logarithms add.
    std::map<std::pair<size_t, size_t>, size_t> edgeOf;
    std::vector<size_t> edgeOfFactor(F, 0);
    for (size_t f = 0; f < F; ++f) {
        if (scopes[f].vars.size() != 2) continue;
        const size_t a = scopes[f].vars[0], b = scopes[f].vars[1];
        const std::pair<size_t, size_t> key(std::min(a, b), std::max(a, b));
        auto it = edgeOf.find(key);
        if (it == edgeOf.end()) {
            it = edgeOf.emplace(key, M.edges.size()).first;
            M.edges.emplace_back(a, b);
        }
        edgeOfFactor[f] = it->second;
    }
    std::vector<size_t> off(M.edges.size() + 1, 0);
    for (size_t e = 0; e < M.edges.size(); ++e) off[e + 1] = off[e] + M.blockSize(e);
    M.w.assign(off.back(), 0.0);

    std::vector<std::vector<double>> unary(n);
    std::vector<size_t> unaryLine(n, 0);
    for (size_t f = 0; f < F; ++f) {
        const std::string fs = "factor " + std::to_string(f);
        const std::vector<size_t>& sc = scopes[f].vars;
        size_t expected = 1;
        for (size_t v : sc) expected *= M.Y[v];
        const Token& cTok = R.next("the number of entries of " + fs);
        const size_t count = R.toCount(cTok, "number of entries of " + fs, std::numeric_limits<size_t>::max());
        if (count != expected)
            R.fail(cTok.line, fs + " has " + std::to_string(count) + " entries, but its scope has " +
                                  std::to_string(expected) + " joint states");
        std::vector<double> logs(count);
        for (size_t i = 0; i < count; ++i) {
            const size_t line = R.atEnd() ? 0 : R.at(R.position()).line;
            const double x = R.real("an entry of " + fs);
            if (x == 0.0)
                R.fail(line, fs + " has a zero entry: a qz model holds logarithms of potentials, and 0 has none");
            if (x < 0.0) R.fail(line, fs + " has a negative entry");
            logs[i] = std::log(x);
        }
        if (sc.size() == 1) {
            const size_t v = sc[0];
            if (unary[v].empty()) {
                unary[v].assign(M.Y[v], 0.0);
                unaryLine[v] = scopes[f].line;
            }
            for (size_t x = 0; x < M.Y[v]; ++x) unary[v][x] += logs[x];
            continue;
        }
        // Entries run over (first, second) of the scope with the second
        // fastest; the edge may point the other way.
        const size_t e = edgeOfFactor[f];
        const bool same = M.edges[e].first == sc[0];
        const size_t Y0 = M.Y[sc[0]], Y1 = M.Y[sc[1]];
        for (size_t x = 0; x < Y0; ++x)
            for (size_t y = 0; y < Y1; ++y) {
                const size_t i = same ? x * Y1 + y : y * Y0 + x;
                M.w[off[e] + i] += logs[x * Y1 + y];
            }
    }
    if (!R.atEnd()) R.fail(R.at(R.position()).line, "unexpected text after the last function table");

    // Vertex factors go into the first edge at their variable, or into a new
    // edge to a neighbour when the variable has none.
    for (size_t v = 0; v < n; ++v) {
        if (unary[v].empty()) continue;
        size_t e = 0;
        while (e < M.edges.size() && M.edges[e].first != v && M.edges[e].second != v) ++e;
        if (e == M.edges.size()) {
            if (n == 1)
                R.fail(unaryLine[v], "variable 0 has a vertex factor, but a model of one variable has no edge to carry it");
            M.edges.emplace_back(v, v + 1 < n ? v + 1 : v - 1);
            off.push_back(off.back() + M.blockSize(e));
            M.w.resize(off.back(), 0.0);
        }
        const size_t s = M.edges[e].first, t = M.edges[e].second;
        for (size_t x = 0; x < M.Y[s]; ++x)
            for (size_t y = 0; y < M.Y[t]; ++y) M.w[off[e] + x * M.Y[t] + y] += unary[v][s == v ? x : y];
    }

    for (size_t v = 0; v < n; ++v) {
        M.names.push_back("x" + std::to_string(v));
        std::vector<std::string> S;
        for (size_t x = 0; x < M.Y[v]; ++x) S.push_back(std::to_string(x));
        M.states.push_back(S);
    }
    return M;
}

// ------------------------------------------------------------------ qz model file in

// Walks a model file field by field, so that a damaged or foreign file is
// reported instead of read as garbage: the library's own reader checks
// nothing.
class ModelFileReader {
public:
    ModelFileReader(const std::string& path) : path_(path), data_(readWhole(path)) {}

    PairModel read() {
        if (data_.size() < 2) fail("the file is too short for a model file");
        const uint8_t itype = (uint8_t)data_[0], vtype = (uint8_t)data_[1];
        pos_ = 2;
        if (itype > 3) fail("index type code " + std::to_string(itype) + " is none of 0 to 3: no model file");
        if (vtype < 4) fail("this is an integer model; its weights are no logarithms of potentials and have no UAI form");
        if (vtype > 5) fail("value type code " + std::to_string(vtype) + " is none of 0 to 5: no model file");
        I_ = (size_t)1 << itype;
        const size_t W = vtype == 4 ? 4 : 8;

        PairModel M;
        const size_t n = idx("the number of vertices");
        const size_t m = idx("the number of edges");
        need(2 * m * I_, "the edge list");
        for (size_t e = 0; e < m; ++e) {
            const size_t s = idx("an edge"), t = idx("an edge");
            if (s >= n || t >= n) fail("edge " + std::to_string(e) + " has an end vertex past the " + std::to_string(n) + " vertices");
            M.edges.emplace_back(s, t);
        }
        idx("the graph type");
        skipList("the layer list");
        skipList("the second list");
        const size_t T = idx("the number of time slices");
        const size_t decay = idx("the reparametrisation");
        idx("the number of instances");
        idx("K");
        if (T > 1) fail("a spatio-temporal model (" + std::to_string(T) + " time slices) has no UAI form");
        if (decay != 0) fail("a model with reparametrisation " + std::to_string(decay) + " (REP is not NONE) has no UAI form");
        if (n > (data_.size() - pos_) / (I_ + 1)) fail("the file is too short for " + std::to_string(n) + " variables");
        for (size_t v = 0; v < n; ++v) {
            const size_t y = idx("the number of states of vertex " + std::to_string(v));
            if (y == 0 || y > MAX_STATES) fail("vertex " + std::to_string(v) + " has " + std::to_string(y) + " states");
            M.Y.push_back(y);
            M.names.push_back(name("the name of vertex " + std::to_string(v)));
            std::vector<std::string> S;
            for (size_t x = 0; x < y; ++x) S.push_back(name("a state name of vertex " + std::to_string(v)));
            M.states.push_back(S);
        }
        const size_t dimAt = pos_;
        const size_t dim = idx("the number of weights");
        size_t expected = 0, ysum = 0;
        for (size_t e = 0; e < m; ++e) expected += M.blockSize(e);
        for (size_t y : M.Y) ysum += y;
        if (dim != expected) {
            pos_ = dimAt;
            fail("the model has " + std::to_string(dim) + " weights, but its edges need " + std::to_string(expected));
        }
        // The statistics, then the weights; a file stored without weights
        // reads with zero weights, as the library reads it.
        const size_t rest = data_.size() - pos_;
        const size_t withW = (ysum + dim + dim) * W, withoutW = (ysum + dim) * W;
        if (rest != withW && rest != withoutW)
            fail("the statistics and weights need " + std::to_string(withW) + " bytes, but " + std::to_string(rest) + " follow");
        pos_ += (ysum + dim) * W;
        M.w.assign(dim, 0.0);
        if (rest == withW)
            for (size_t i = 0; i < dim; ++i) {
                if (W == 4) {
                    float f;
                    std::memcpy(&f, &data_[pos_], 4);
                    M.w[i] = f;
                } else {
                    std::memcpy(&M.w[i], &data_[pos_], 8);
                }
                pos_ += W;
            }
        return M;
    }

private:
    std::string path_;
    std::string data_;
    size_t pos_ = 0;
    size_t I_ = 8;

    [[noreturn]] void fail(const std::string& msg) const {
        throw Failure(path_ + ": byte " + std::to_string(pos_) + ": " + msg);
    }

    void need(size_t bytes, const std::string& what) const {
        if (bytes > data_.size() - pos_) fail("the file ends inside " + what);
    }

    size_t idx(const std::string& what) {
        need(I_, what);
        uint64_t v = 0;
        std::memcpy(&v, &data_[pos_], I_);  // host byte order, little-endian
        pos_ += I_;
        return (size_t)v;
    }

    void skipList(const std::string& what) {
        need(8, what);
        uint64_t len = 0;
        std::memcpy(&len, &data_[pos_], 8);
        pos_ += 8;
        need(len, what);
        pos_ += len;
    }

    std::string name(const std::string& what) {
        const size_t maxLen = QZ::IO<size_t, double>::MAX_NAME;
        size_t end = pos_;
        while (end < data_.size() && end - pos_ <= maxLen && data_[end] != '\0') ++end;
        if (end >= data_.size() || data_[end] != '\0') fail(what + " is not a name of at most 64 characters");
        std::string s = data_.substr(pos_, end - pos_);
        pos_ = end + 1;
        return s;
    }
};

bool looksLikeUai(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    int c = in.get();
    while (c != EOF && std::isspace(c)) c = in.get();
    return c == 'M' || c == 'B';
}

// ------------------------------------------------------------------ outputs

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Writes through a temporary file in the same directory, renamed at the end,
// so that no half-written output is left behind.
template <typename F> void writeAtomically(const std::string& out, F write) {
    const std::string tmp = out + ".tmp" + std::to_string(getpid());
    try {
        write(tmp);
    } catch (...) {
        std::remove(tmp.c_str());
        throw;
    }
    if (std::rename(tmp.c_str(), out.c_str()) != 0) {
        std::remove(tmp.c_str());
        throw Failure("cannot write '" + out + "'");
    }
}

void checkStream(const std::ostream& os, const std::string& path) {
    if (!os) throw Failure("cannot write '" + path + "'");
}

template <typename idx_t, typename val_t> void storeModel(const PairModel& M, const std::string& path) {
    const size_t n = M.n(), m = M.edges.size(), dim = M.w.size();
    size_t ysum = 0;
    for (size_t y : M.Y) ysum += y;
    const size_t largest = std::max(std::max(n, m), ysum + dim + 1);
    if (largest > (size_t)std::numeric_limits<idx_t>::max())
        throw Failure("the model is too large for an index type of " + std::to_string(8 * sizeof(idx_t)) + " bits");

    // The graph takes the edge list from the C allocator, like every graph.
    idx_t* el = (idx_t*)std::calloc(2 * m + 1, sizeof(idx_t));
    for (size_t e = 0; e < m; ++e) {
        el[2 * e] = (idx_t)M.edges[e].first;
        el[2 * e + 1] = (idx_t)M.edges[e].second;
    }
    QZ::Graph<idx_t> G(true, el, (idx_t)n, (idx_t)m);
    QZ::IO<idx_t, val_t> io;
    io.G = &G;
    io.Y = new idx_t[n];
    for (size_t v = 0; v < n; ++v) io.Y[v] = (idx_t)M.Y[v];
    io.dim = (idx_t)dim;
    io.odim = (idx_t)(n + m + 1);
    io.sdim = (idx_t)(ysum + dim);
    io.woff = new idx_t[n + m + 1];
    io.woff[0] = 0;
    for (size_t v = 0; v < n; ++v) io.woff[v + 1] = io.woff[v] + io.Y[v];
    for (size_t e = 0; e < m; ++e) io.woff[n + e + 1] = io.woff[n + e] + (idx_t)M.blockSize(e);
    // No table was counted: the statistics are zero, from no instances.
    io.E = new val_t[ysum + dim]();
    std::vector<val_t> w(dim);
    for (size_t i = 0; i < dim; ++i) w[i] = (val_t)M.w[i];
    io.w = w.data();
    io.Xnames = new std::vector<std::string>(M.names);
    io.Ynames = new std::vector<std::vector<std::string>*>();
    for (const auto& S : M.states) io.Ynames->push_back(new std::vector<std::string>(S));
    io.gtype = (idx_t)QZ::vm_t::FILE;
    io.T = 1;
    io.decay = (idx_t)QZ::vm_t::NONE;
    io.num_instances = 0;
    writeAtomically(path, [&](const std::string& tmp) {
        // The library's writer reports nothing: a file that did not come
        // into being is found here.
        io.store(tmp);
        if (!exists(tmp)) throw Failure("cannot write '" + path + "'");
    });
    io.w = nullptr;  // the vector's; a model built in memory never frees w anyway
}

using StoreFn = void (*)(const PairModel&, const std::string&);

StoreFn storeFor(int idx, int val) {
    static const StoreFn table[4][2] = {
        {storeModel<unsigned char, float>, storeModel<unsigned char, double>},
        {storeModel<unsigned short, float>, storeModel<unsigned short, double>},
        {storeModel<unsigned int, float>, storeModel<unsigned int, double>},
        {storeModel<unsigned long, float>, storeModel<unsigned long, double>},
    };
    return table[idx][val == QZ::vm_t::valFLT32 ? 0 : 1];
}

std::string formatEntry(double x) {
    char buf[40];
    std::snprintf(buf, sizeof(buf), "%.17g", x);
    return buf;
}

void writeUai(const PairModel& M, const std::string& source, const std::string& path) {
    std::ostringstream os;
    os << "MARKOV\n" << M.n() << "\n";
    for (size_t v = 0; v < M.n(); ++v) os << (v ? " " : "") << M.Y[v];
    os << "\n" << M.edges.size() << "\n";
    for (const auto& e : M.edges) os << "2 " << e.first << " " << e.second << "\n";
    size_t pos = 0;
    for (size_t e = 0; e < M.edges.size(); ++e) {
        const size_t Ys = M.Y[M.edges[e].first], Yt = M.Y[M.edges[e].second];
        os << "\n" << Ys * Yt << "\n";
        for (size_t x = 0; x < Ys; ++x) {
            for (size_t y = 0; y < Yt; ++y, ++pos) {
                const double p = std::exp(M.w[pos]);
                if (!(p > 0.0) || !std::isfinite(p))
                    throw Failure(source + ": weight " + std::to_string(pos) + " of edge " + std::to_string(e) + " (" +
                                  formatEntry(M.w[pos]) + ") has no finite non-zero potential");
                os << " " << formatEntry(p);
            }
            os << "\n";
        }
    }
    writeAtomically(path, [&](const std::string& tmp) {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << os.str();
        out.close();
        checkStream(out, path);
    });
}

// ------------------------------------------------------------------ evidence

// One row of observed states per evidence sample; -1 where unobserved.
std::vector<std::vector<long>> readEvidence(const std::string& path, const PairModel& M) {
    TokenReader R(path, readWhole(path));
    if (R.size() == 0) R.fail(1, "the file is empty: it needs the number of observed variables");
    std::vector<std::vector<long>> rows;
    auto sample = [&](const std::string& what) {
        const Token& kTok = R.next("the number of observed variables");
        const size_t k = R.toCount(kTok, "number of observed variables", M.n());
        std::vector<long> row(M.n(), -1);
        for (size_t i = 0; i < k; ++i) {
            const Token& vTok = R.next("an observed variable");
            const size_t v = R.toCount(vTok, "observed variable", std::numeric_limits<size_t>::max());
            if (v >= M.n())
                R.fail(vTok.line, "variable " + vTok.text + " is observed, but the model has " + std::to_string(M.n()));
            const Token& sTok = R.next("the state of variable " + vTok.text);
            const size_t s = R.toCount(sTok, "state", std::numeric_limits<size_t>::max());
            if (s >= M.Y[v])
                R.fail(sTok.line, "variable " + vTok.text + " is observed in state " + sTok.text + ", but it has " +
                                      std::to_string(M.Y[v]) + " states");
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

void writeEvidenceTable(const PairModel& M, const std::vector<std::vector<long>>& rows, const std::string& source,
                        const std::string& path) {
    auto csvName = [&](const std::string& s, const std::string& what) {
        if (s.empty() || s.find_first_of(",\r\n") != std::string::npos || s[0] == '?')
            throw Failure(source + ": " + what + " '" + s + "' cannot stand in a CSV table cell");
        return s;
    };
    std::ostringstream os;
    for (size_t v = 0; v < M.n(); ++v) os << (v ? "," : "") << csvName(M.names[v], "the variable name");
    os << "\n";
    auto line = [&](const std::vector<long>& row) {
        for (size_t v = 0; v < M.n(); ++v) {
            if (v) os << ",";
            if (row[v] < 0)
                os << "?";
            else
                os << csvName(M.states[v][(size_t)row[v]], "the state name");
        }
        os << "\n";
    };
    // The reader drops the line behind the header: it gets a copy of the first row.
    const std::vector<long> none(M.n(), -1);
    line(rows.empty() ? none : rows[0]);
    for (const auto& r : rows) line(r);
    writeAtomically(path, [&](const std::string& tmp) {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << os.str();
        out.close();
        checkStream(out, path);
    });
}

// ------------------------------------------------------------------ command line

void usage() {
    std::cerr << "usage: qzuai import MODEL.uai OUT.qzm [--idx UINT8|UINT16|UINT32|UINT64] [--val FLT32|FLT64] [-f]\n"
                 "       qzuai export MODEL.qzm OUT.uai [-f]\n"
                 "       qzuai evidence EVIDENCE.evid MODEL OUT.csv [-f]\n"
                 "  import    a UAI MARKOV model of vertex and pairwise factors into a qz model file\n"
                 "            (index and value types as IDX and VAL must be set to read it; default\n"
                 "            UINT64 and FLT64, the registers' defaults)\n"
                 "  export    a qz model file (floating weights, REP NONE) into a UAI MARKOV model\n"
                 "  evidence  a UAI evidence file into a CSV table for LDX DPT, one row per sample,\n"
                 "            '?' for unobserved variables; MODEL is the qz model file or the UAI model,\n"
                 "            and the model must be loaded before the table, so that the state names\n"
                 "            code as the model's\n"
                 "  -f        overwrite an existing output file\n";
}

int pick(const std::string& value, const std::vector<std::string>& names) {
    for (size_t i = 0; i < names.size(); ++i)
        if (value == names[i]) return (int)i;
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args;
    bool force = false;
    int idx = QZ::vm_t::idxUINT64, val = QZ::vm_t::valFLT64;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            usage();
            return 0;
        }
        if (a == "-f") {
            force = true;
        } else if (a == "--idx" || a == "--val") {
            if (i + 1 >= argc) {
                std::cerr << "qzuai: " << a << " needs a type\n";
                usage();
                return 2;
            }
            const std::string v = argv[++i];
            const int k = a == "--idx" ? pick(v, {"UINT8", "UINT16", "UINT32", "UINT64"}) : pick(v, {"FLT32", "FLT64"});
            if (k < 0) {
                std::cerr << "qzuai: '" << v << "' is no type for " << a << "\n";
                usage();
                return 2;
            }
            if (a == "--idx")
                idx = k;
            else
                val = k == 0 ? QZ::vm_t::valFLT32 : QZ::vm_t::valFLT64;
        } else if (!a.empty() && a[0] == '-') {
            std::cerr << "qzuai: unknown option '" << a << "'\n";
            usage();
            return 2;
        } else {
            args.push_back(a);
        }
    }
    const std::string cmd = args.empty() ? "" : args[0];
    const size_t want = cmd == "import" || cmd == "export" ? 3 : cmd == "evidence" ? 4 : 0;
    if (want == 0 || args.size() != want) {
        if (!cmd.empty() && want == 0) std::cerr << "qzuai: unknown command '" << cmd << "'\n";
        usage();
        return 2;
    }
    const std::string out = args.back();
    if (!force && exists(out)) {
        std::cerr << "qzuai: '" << out << "' exists (use -f to overwrite)\n";
        return 1;
    }
    try {
        if (cmd == "import") {
            storeFor(idx, val)(readUai(args[1]), out);
        } else if (cmd == "export") {
            writeUai(ModelFileReader(args[1]).read(), args[1], out);
        } else {
            const PairModel M = looksLikeUai(args[2]) ? readUai(args[2]) : ModelFileReader(args[2]).read();
            writeEvidenceTable(M, readEvidence(args[1], M), args[2], out);
        }
    } catch (const Failure& e) {
        std::cerr << "qzuai: " << e.what() << "\n";
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "qzuai: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
