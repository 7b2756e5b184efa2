// The categorical table and its three readers.
#include <QZ/QZMISC>
#include <QZ/QZDATA>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <new>

namespace QZ {

CategoricalData::CategoricalData(bool _h, char _m, bool _s, std::vector<std::vector<std::string>*>* _YN)
    : data(nullptr), xdata(nullptr), N(0), n(0), H(0), hasHeader(_h), sharedStates(_s), states_locked(false),
      missingChar(_m), missingString(1, _m), myData(true) {
    if (_YN == nullptr) return;
    states_locked = true;
    for (const std::vector<std::string>* names : *_YN) {
        std::map<std::string, size_t>* m = new std::map<std::string, size_t>();
        std::vector<std::string>* inv = new std::vector<std::string>();
        // A name listed twice keeps its later position in the map, both in the list.
        for (size_t j = 0; j < names->size(); ++j) {
            inv->push_back(names->at(j));
            (*m)[names->at(j)] = j;
        }
        states.push_back(m);
        statesInv.push_back(inv);
    }
}

CategoricalData::~CategoricalData() {
    for (auto* m : states) delete m;
    for (auto* l : statesInv) delete l;
    if (myData && data != nullptr) delete[] data;
    if (xdata != nullptr) delete[] xdata;
}

void CategoricalData::read(const std::string& fname) {
    std::ifstream in(fname);
    read(in);
    in.close();
}

const std::string& CategoricalData::categoryName(const size_t& c, const size_t& x) const {
    assert(c<n+H);
    if (x == MIS_VAL) return missingString;
    if (sharedStates) {
        assert(x<categories(0));
        return statesInv[0]->at(x);
    }
    assert(x<categories(c));
    return statesInv[c]->at(x);
}

std::vector<std::string>* CategoricalData::categoryNames(const size_t& c) const {
    assert(c<n+H);
    return statesInv[sharedStates ? 0 : c];
}

std::string CategoricalData::columnName(const size_t& c) const {
    assert(c<n+H);
    if (hasHeader) return header.at(c);
    return (added[c] ? "H" : "X") + std::to_string(c);
}

std::vector<std::string>* CategoricalData::columnNames() const {
    std::vector<std::string>* L = new std::vector<std::string>();
    L->reserve(columns());
    for (size_t i = 0; i < columns(); ++i) L->push_back(columnName(i));
    return L;
}

std::string CategoricalData::getString(const size_t& row, const size_t& col) const {
    assert(col<n+H && row<N);
    if (!customStrings.empty()) {
        auto it = customStrings.find(std::make_pair(row, col));
        if (it != customStrings.end()) {
            const size_t cell = col < n ? data[row * n + col] : xdata[row * H + col - n];
            return categoryName(col, cell) + " " + it->second;
        }
    }
    // An added column is read from data with the stride H, not from xdata.
    // Printing never reaches this branch (store stops at the file columns);
    // it is kept as it is for callers that rely on it.
    const size_t cell = col < n ? data[row * n + col] : data[row * H + col - n];
    return categoryName(col, cell);
}

void storeFile(const std::string& fn, const std::function<void(std::ostream&)>& write) {
    const std::logic_error failed("cannot write file " + fn);
    struct stat st;
    const bool exists = lstat(fn.c_str(), &st) == 0;
    if (exists && !S_ISREG(st.st_mode)) {
        // A device, pipe or link is written where it is; there is nothing to
        // put beside it.
        std::ofstream out(fn, std::ios::out | std::ios::binary | std::ios::trunc);
        if (!out) throw failed;
        write(out);
        out.flush();
        if (!out) throw failed;
        out.close();
        if (out.fail()) throw failed;
        return;
    }
    // A name of our own in the same folder, so that the rename stays within
    // one file system; O_EXCL makes sure no other writer has it.
    static std::atomic<unsigned> serial{0};
    std::string tmp;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        tmp = fn + ".tmp" + std::to_string((long)getpid()) + "_" + std::to_string(serial++);
        fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) throw failed;
    close(fd);
    bool ok;
    {
        std::ofstream out(tmp, std::ios::out | std::ios::binary | std::ios::trunc);
        ok = (bool)out;
        if (ok) {
            try {
                write(out);
            } catch (...) {
                out.close();
                std::remove(tmp.c_str());
                throw;
            }
            out.flush();
            ok = (bool)out;
            out.close();
            ok = ok && !out.fail();
        }
    }
    // A file replaced keeps the permissions it had.
    if (ok && exists) chmod(tmp.c_str(), st.st_mode & 07777);
    if (!ok || std::rename(tmp.c_str(), fn.c_str()) != 0) {
        std::remove(tmp.c_str());
        throw failed;
    }
}

void CategoricalData::store(const std::string& fname) const {
    storeFile(fname, [this](std::ostream& out) { write(out); });
}

void CategoricalData::write(std::ostream& out) const {
    if (hasHeader) {
        const size_t h = std::min(n, header.size());
        for (size_t c = 0; c < h; ++c) {
            if (c > 0) out << ',';
            out << header[c];
        }
        out << std::endl;
    }
    // No quoting: a name holding a comma gives a line with too many fields.
    for (size_t r = 0; r < N; ++r) {
        for (size_t c = 0; c < n; ++c) {
            if (c > 0) out << ',';
            out << getString(r, c);
        }
        out << std::endl;
    }
}

void CategoricalData::addColumns(const size_t& num, const size_t& _Y) {
    unsigned short* old = xdata;
    size_t cells;
    if (__builtin_mul_overflow(N, H + num, &cells)) throw std::bad_array_new_length();
    xdata = new unsigned short[cells];
    for (size_t j = H; j < H + num; ++j) {
        if (hasHeader) header.push_back("H" + std::to_string(j + 1));
        added.push_back(true);
        if (!states_locked) {
            // Needs exactly one table per column so far; the index is that of
            // the new column.
            states.push_back(new std::map<std::string, size_t>());
            std::map<std::string, size_t>* m = states.at(n + j);
            for (size_t y = 0; y < _Y; ++y) (*m)["h" + std::to_string(y)] = y;
            statesInv.push_back(new std::vector<std::string>());
            std::vector<std::string>* inv = statesInv.at(n + j);
            inv->reserve(_Y);
            for (size_t y = 0; y < _Y; ++y) inv->push_back("h" + std::to_string(y));
        }
    }
    const size_t stride = H + num;
    // Rows without any added column have nothing to fill or move.
    for (size_t i = 0; stride > 0 && i < N; ++i) {
        unsigned short* dst = xdata + i * stride;
        if (old != nullptr && H > 0) std::memcpy(dst, old + i * H, H * sizeof(unsigned short));
        std::fill(dst + H, dst + stride, MIS_VAL);
    }
    H += num;
    delete[] old;
}

void CategoricalData::trimCategories(const size_t& col, const size_t& _Y) {
    assert(col>=n && col<n+H && added[col]);
    statesInv[col]->resize(_Y);
    std::map<std::string, size_t>* m = states[col];
    m->clear();
    for (size_t y = 0; y < _Y; ++y) (*m)["h" + std::to_string(y)] = y;
}

void CategoricalData::addRow(std::vector<unsigned short>& row) {
    assert(row.size()==n);
    unsigned short* nd = new unsigned short[(N + 1) * n];
    if (N * n > 0) std::memcpy(nd, data, N * n * sizeof(unsigned short));
    std::copy(row.begin(), row.end(), nd + N * n);
    if (myData) delete[] data;
    data = nd;
    myData = true;  // a host array cannot grow: the table now owns a copy
    if (xdata != nullptr) {
        unsigned short* nx = new unsigned short[(N + 1) * H];
        if (N * H > 0) std::memcpy(nx, xdata, N * H * sizeof(unsigned short));
        std::fill(nx + N * H, nx + (N + 1) * H, MIS_VAL);
        delete[] xdata;
        xdata = nx;
    }
    ++N;
}

void CategoricalData::setColumn(const size_t& col, const unsigned short value) {
    for (size_t r = 0; r < N; ++r) set(value, r, col, false);
}

template void CategoricalData::fillRBMLayer<unsigned char>(size_t, size_t, size_t, size_t, const unsigned char*);
template void CategoricalData::fillRBMLayer<unsigned short>(size_t, size_t, size_t, size_t, const unsigned short*);
template void CategoricalData::fillRBMLayer<unsigned int>(size_t, size_t, size_t, size_t, const unsigned int*);
template void CategoricalData::fillRBMLayer<unsigned long>(size_t, size_t, size_t, size_t, const unsigned long*);

// ---------------------------------------------------------------- readers

void CategoricalCSVData::read(std::istream& inF) {
    std::string line;
    if (hasHeader) {
        std::getline(inF, line);
        readandsplit(line, &header);
    }
    // The line behind the header (the first line without one) never reaches
    // the table; files carry one sacrificial line there.
    if (!inF.eof()) std::getline(inF, line);
    // A stream that never opened is neither at its end nor readable; stop
    // there instead of spinning (the loader checks file_exists first anyway).
    const auto more = [&inF]() { return !inF.eof() && !inF.fail(); };

    // Cells go straight into one flat buffer, already cut to 16 bits.
    std::vector<unsigned short> cells;
    const size_t ALL = ~(size_t)0;
    size_t rowsRead = 0, firstLen = 0, ragged = ALL;
    std::string tok;
    // Read once: the loop grows states, which the compiler cannot tell apart
    // from these fields.
    const bool locked = states_locked, shared = sharedStates;
    const char mis = missingChar;
    while (more()) {
        std::getline(inF, line);
        if (line.empty()) continue;
        size_t col = 0, start = 0;
        while (true) {
            const size_t comma = line.find(',', start);
            const size_t end = comma == std::string::npos ? line.size() : comma;
            tok.assign(line, start, end - start);
            size_t mappedVal = ALL;
            // Checked access: an empty token ends the read with out_of_range.
            if (tok.at(0) != mis) {
                size_t idx = col;
                if (!locked) {
                    if (shared) idx = 0;
                    while (!(idx < states.size())) states.push_back(new std::map<std::string, size_t>());
                    std::map<std::string, size_t>& m = *states[idx];
                    auto it = m.find(tok);
                    if (it == m.end()) it = m.emplace(tok, m.size()).first;
                    mappedVal = it->second;
                } else {
                    // A name the supplied lists do not know reads as missing.
                    const std::map<std::string, size_t>& m = *states.at(idx);
                    auto it = m.find(tok);
                    if (it != m.end()) mappedVal = it->second;
                }
            }
            cells.push_back((unsigned short)mappedVal);
            ++col;
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
        if (rowsRead == 0) firstLen = col;
        // Where the first row of another length begins.
        if (col != firstLen && ragged == ALL) ragged = cells.size() - col;
        ++rowsRead;
    }

    N = rowsRead;
    if (N != 0) {
        n = firstLen;
        data = new unsigned short[N * n];
    }
    for (size_t c = 0; c < n; ++c) added.push_back(false);
    // Rows must all be as long as the first. The copy stops where the first
    // row of another length begins, so that a ragged file always fails the
    // count below, also where a short and a long row would make up for each
    // other, and no cell is ever written past the table or moved into the
    // column of another.
    const size_t i = ragged == ALL ? cells.size() : ragged;
    if (N * n > 0) std::memcpy(data, cells.data(), std::min(i, N * n) * sizeof(unsigned short));
    assert(i==n*N);
    std::vector<unsigned short>().swap(cells);

    if (!states_locked) {
        // Under shared states a file without one real value (or without a
        // kept line) has made no table yet; table 0 is the one every column
        // names, so it exists, empty, rather than being read past.
        if (sharedStates && states.empty()) states.push_back(new std::map<std::string, size_t>());
        const size_t tables = sharedStates ? 1 : columns();
        // Tables are made as values are met: trailing columns without any
        // value get an empty one, so that they count as columns of no state
        // (which MODEL then names) instead of being read past.
        while (states.size() < tables) states.push_back(new std::map<std::string, size_t>());
        for (size_t c = 0; c < tables; ++c) {
            const std::map<std::string, size_t>* m = states.at(c);
            std::vector<std::string>* inv = new std::vector<std::string>(m->size());
            for (const auto& kv : *m) (*inv)[kv.second] = kv.first;
            statesInv.push_back(inv);
        }
    }
}

void CategoricalBinaryData::read(std::istream& inF) {
    size_t magic = 0;
    inF.read(reinterpret_cast<char*>(&magic), 8);
    assert(magic == 0x2300246e69627a71);
    size_t sX = 0;
    inF.read(reinterpret_cast<char*>(&N), 8);
    inF.read(reinterpret_cast<char*>(&n), 8);
    inF.read(reinterpret_cast<char*>(&sX), 8);
    const size_t cnt = N * n;
    data = new unsigned short[cnt];
    // A short file leaves the cells it does not reach at zero.
    std::vector<unsigned char> bytes(cnt, 0);
    inF.read(reinterpret_cast<char*>(bytes.data()), (std::streamsize)cnt);
    for (size_t k = 0; k < cnt; ++k) data[k] = bytes[k];
    for (size_t c = 0; c < n; ++c) {
        std::map<std::string, size_t>* m = new std::map<std::string, size_t>();
        std::vector<std::string>* inv = new std::vector<std::string>();
        inv->reserve(sX);
        for (size_t x = 0; x < sX; ++x) {
            inv->push_back(std::to_string(x));
            m->emplace_hint(m->end(), inv->back(), x);
        }
        states.push_back(m);
        statesInv.push_back(inv);
    }
    for (size_t c = 0; c < n; ++c) added.push_back(false);
}

void CategoricalNumPyData::read(unsigned short* inP, size_t _N, size_t _n) {
    N = _N;
    n = _n;
    data = inP;
    if (!states_locked) {
        // Largest real code of every column, in one row-major pass.
        std::vector<size_t> top(n, 0);
        for (size_t r = 0; r < N; ++r) {
            const unsigned short* row = data + r * n;
            for (size_t c = 0; c < n; ++c)
                if (row[c] != MIS_VAL && row[c] > top[c]) top[c] = row[c];
        }
        for (size_t i = 0; i < n; ++i) {
            states.push_back(new std::map<std::string, size_t>());
            statesInv.push_back(new std::vector<std::string>());
            const size_t c = sharedStates ? 0 : i;
            for (size_t x = statesInv[c]->size(); x <= top[i]; ++x) {
                statesInv[c]->push_back(std::to_string(x));
                (*states[c])[std::to_string(x)] = x;
            }
        }
    }
    for (size_t c = 0; c < n; ++c) added.push_back(false);
}

}  // namespace QZ
