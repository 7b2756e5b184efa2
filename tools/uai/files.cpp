// qz model files in and out, UAI text out, and evidence as a table.
#include "uai.h"

#include <QZ/QZMISC>
#include <QZ/QZGRAPH>
#include <QZ/QZIO>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

namespace uai {

namespace {

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
        M.original = n;
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

template <typename idx_t, typename val_t> void storeTyped(const PairModel& M, const std::string& path) {
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

std::string formatEntry(double x) {
    char buf[40];
    std::snprintf(buf, sizeof(buf), "%.17g", x);
    return buf;
}

}  // namespace

PairModel readModelFile(const std::string& path) { return ModelFileReader(path).read(); }

void writeTextAtomically(const std::string& path, const std::string& text) {
    writeAtomically(path, [&](const std::string& tmp) {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        if (!out) throw Failure("cannot write '" + path + "'");
    });
}

void storeModel(const PairModel& M, const std::string& path, int idxCode, int valCode) {
    using StoreFn = void (*)(const PairModel&, const std::string&);
    static const StoreFn table[4][2] = {
        {storeTyped<unsigned char, float>, storeTyped<unsigned char, double>},
        {storeTyped<unsigned short, float>, storeTyped<unsigned short, double>},
        {storeTyped<unsigned int, float>, storeTyped<unsigned int, double>},
        {storeTyped<unsigned long, float>, storeTyped<unsigned long, double>},
    };
    table[idxCode][valCode == QZ::vm_t::valFLT32 ? 0 : 1](M, path);
}

// A weight of minus infinity is a zero entry; any other weight must have a
// finite, positive potential.
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
                const bool forbidden = M.w[pos] == -std::numeric_limits<double>::infinity();
                if (!forbidden && (!(p > 0.0) || !std::isfinite(p)))
                    throw Failure(source + ": weight " + std::to_string(pos) + " of edge " + std::to_string(e) + " (" +
                                  formatEntry(M.w[pos]) + ") has no finite non-zero potential");
                os << " " << formatEntry(p);
            }
            os << "\n";
        }
    }
    writeTextAtomically(path, os.str());
}

void writeEvidenceTable(const PairModel& M, const std::vector<Evidence>& rows, const std::string& source,
                        const std::string& path) {
    auto csvName = [&](const std::string& s, const std::string& what) {
        if (s.empty() || s.find_first_of(",\r\n") != std::string::npos || s[0] == '?')
            throw Failure(source + ": " + what + " '" + s + "' cannot stand in a CSV table cell");
        return s;
    };
    std::ostringstream os;
    for (size_t v = 0; v < M.n(); ++v) os << (v ? "," : "") << csvName(M.names[v], "the variable name");
    os << "\n";
    // Vertices past the evidence's variables (those added for factors over
    // three or more variables) are never observed.
    auto line = [&](const Evidence& row) {
        for (size_t v = 0; v < M.n(); ++v) {
            if (v) os << ",";
            if (v >= row.size() || row[v] < 0)
                os << "?";
            else
                os << csvName(M.states[v][(size_t)row[v]], "the state name");
        }
        os << "\n";
    };
    // The reader drops the line behind the header: it gets a copy of the first row.
    const Evidence none(M.n(), -1);
    line(rows.empty() ? none : rows[0]);
    for (const auto& r : rows) line(r);
    writeTextAtomically(path, os.str());
}

}  // namespace uai
