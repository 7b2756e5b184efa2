// Fuzz host for text tables: ragged rows, empty and odd tokens, missing
// columns, carriage returns, stray bytes, read with and without a header,
// with shared states, under any pair of index and value types, then taken
// through a model and queries. Some tables are wide, for 8- and 16-bit index
// types over graphs of as many edges as those can number.
#include "fuzz_host.h"

using namespace qzfuzz;

namespace {

std::string damage(Rng& r, std::string t) {
    const size_t k = pick(r, 4);
    for (size_t j = 0; j < k && !t.empty(); ++j) {
        const size_t at = pick(r, t.size());
        switch (pick(r, 9)) {
        case 0: t.insert(at, ","); break;  // one cell more
        case 1:
            if (t[at] == ',') t.erase(at, 1);  // one cell less
            break;
        case 2: t.insert(at, "\n"); break;
        case 3: t.insert(at, "\r"); break;
        case 4: t.insert(at, ",,"); break;
        case 5: t[at] = (char)pick(r, 256); break;
        case 6: t.insert(at, std::string(70 + pick(r, 100), 'z')); break;
        case 7: t = t.substr(0, at); break;
        default: t.insert(at, "?"); break;
        }
    }
    return t;
}

// Many columns of few states each, every state present, for narrow index
// types: complete graphs over them have as many edges as 8 or 16 bits can
// number, or a few more, so that weights, statistics, messages and offsets
// fit or overflow one after the other.
std::vector<std::string> narrowIndexProgram(Rng& r, const Scratch& s) {
    const bool bits8 = chance(r, 0.6);
    // 8 bits: 8 binary columns make 224 message entries over the complete
    // graph, 9 make 288; 16 bits: 128 make 65024, 129 make 66048.
    const size_t cols = bits8 ? 6 + pick(r, 8) : 126 + pick(r, 6);
    const size_t states = chance(r, 0.8) ? 2 : 3;
    const size_t rows = 2 + pick(r, 8);
    std::string t;
    for (size_t c = 0; c < cols; ++c) t += (c ? ",c" : "c") + std::to_string(c);
    t += "\n";
    for (size_t c = 0; c < cols; ++c) t += c ? ",s" : "s";
    t += "\n";
    for (size_t i = 0; i < rows; ++i) {
        for (size_t c = 0; c < cols; ++c) {
            // The first rows hold every state, so that no column has fewer.
            const size_t x = i < states ? (i + c) % states : pick(r, states);
            t += std::string(c ? "," : "") + (chance(r, 0.05) && i >= states ? "?" : std::string(1, (char)('a' + x)));
        }
        t += "\n";
    }
    const std::string f = s.path("wide.csv");
    writeFile(f, t);
    static const std::vector<std::string> t8 = {"idx_t UINT8 val_t FLT64", "idx_t UINT8 val_t FLT32",
                                                "idx_t UINT8 val_t UINT8"};
    static const std::vector<std::string> t16 = {"idx_t UINT16 val_t FLT64", "idx_t UINT16 val_t FLT32",
                                                 "idx_t UINT16 val_t UINT16"};
    static const std::vector<std::string> graphs = {"GRA FULL", "GRA FULL", "GRA FULL", "GRA STAR", "GRA CHAIN",
                                                    "GRA GRID", "GRA CHOWLIU"};
    std::vector<std::string> p = {oneOf(r, bits8 ? t8 : t16), "HED true", "SEED " + std::to_string(pick(r, 1000)),
                                  "OMP " + std::to_string(1 + pick(r, 3)), "MIL " + std::to_string(1 + pick(r, 20)),
                                  "DFN " + q(f), "LDX DPT;", oneOf(r, graphs), "LDX GPT;", "MODEL;"};
    for (const std::string& l : queries(r, s, cols <= 20)) p.push_back(l);
    return p;
}

}  // namespace

int main(int argc, char** argv) {
    return fuzzMain("fuzz_csv", argc, argv, [](Rng& r, const Scratch& s, bool verbose) {
        if (chance(r, 0.15)) {
            const std::vector<std::string> p = narrowIndexProgram(r, s);
            return std::function<void()>([p, verbose]() { runProgram(p, verbose); });
        }
        const size_t rows = pick(r, 12), cols = 1 + pick(r, 6);
        std::string t = textTable(r, rows, cols, chance(r, 0.2) ? 0.9 : 0.15);
        if (chance(r, 0.15)) {
            // A column of missing cells only, anywhere.
            std::string u;
            std::istringstream in(t);
            std::string line;
            const size_t col = pick(r, cols);
            size_t no = 0;
            while (std::getline(in, line)) {
                if (no++ >= 2) {
                    std::vector<std::string> cells;
                    std::stringstream ls(line);
                    std::string c;
                    while (std::getline(ls, c, ',')) cells.push_back(c);
                    if (col < cells.size()) cells[col] = "?";
                    line.clear();
                    for (size_t k = 0; k < cells.size(); ++k) line += (k ? "," : "") + cells[k];
                }
                u += line + "\n";
            }
            t = u;
        }
        if (chance(r, 0.6)) t = damage(r, t);
        const std::string f = s.path("t.csv");
        writeFile(f, t);
        std::vector<std::string> p = {typePair(r), chance(r, 0.8) ? "HED true" : "HED false",
                                      chance(r, 0.2) ? "YYC true" : "YYC false", chance(r, 0.1) ? "MIS 'a'" : "MIS '?'",
                                      "SEED " + std::to_string(pick(r, 1000)), "OMP " + std::to_string(1 + pick(r, 3)),
                                      "DFN " + q(f), "LDX DPT;", graphKind(r), "LDX GPT;", "MODEL;"};
        for (const std::string& l : queries(r, s)) p.push_back(l);
        if (chance(r, 0.3)) {
            // The table read again against the model's coding.
            p.push_back("DEL DPT;");
            p.push_back("LDX DPT;");
            for (const std::string& l : queries(r, s)) p.push_back(l);
        }
        if (verbose) std::fprintf(stderr, "--- t.csv\n%s", t.c_str());
        return std::function<void()>([p, verbose]() { runProgram(p, verbose); });
    });
}
