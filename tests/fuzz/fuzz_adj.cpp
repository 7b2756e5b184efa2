// Fuzz host for adjacency files: square and ragged matrices, odd cells
// (letters, signs, huge numbers, blanks), empty lines, other separators,
// read under any index type and joined to a table that may or may not
// have a column for every vertex.
#include "fuzz_host.h"

using namespace qzfuzz;

int main(int argc, char** argv) {
    return fuzzMain("fuzz_adj", argc, argv, [](Rng& r, const Scratch& s, bool verbose) {
        const size_t n = pick(r, 7);
        const char sep = chance(r, 0.85) ? ',' : oneOf(r, std::vector<char>{';', '\t', ' '});
        const std::vector<std::string> odd = {"2", "x", "-1", "99999999999999999999", " ", "", "01", "1.5", "A"};
        std::string a;
        for (size_t i = 0; i < n; ++i) {
            const size_t len = chance(r, 0.1) ? pick(r, n + 2) : n;
            for (size_t j = 0; j < len; ++j) {
                if (j) a += sep;
                a += chance(r, 0.05) ? oneOf(r, odd) : (chance(r, 0.4) ? "1" : "0");
            }
            a += "\n";
            if (chance(r, 0.05)) a += "\n";
        }
        if (chance(r, 0.05)) a = std::string(pick(r, 30), (char)pick(r, 256));
        const std::string g = s.path("g.adj"), t = s.path("t.csv");
        writeFile(g, a);
        const size_t cols = chance(r, 0.7) ? n : pick(r, 7);
        writeFile(t, textTable(r, 1 + pick(r, 8), cols == 0 ? 1 : cols, 0.1));
        std::vector<std::string> p = {typePair(r), "SEED " + std::to_string(pick(r, 1000)),
                                      std::string("SEP '") + sep + "'", "GFN " + q(g)};
        if (chance(r, 0.8)) {
            p.push_back("DFN " + q(t));
            p.push_back("LDX DPT;");
        }
        p.push_back("GRA FILE");
        p.push_back("LDX GPT;");
        p.push_back("MODEL;");
        for (const std::string& l : queries(r, s)) p.push_back(l);
        if (verbose) std::fprintf(stderr, "--- g.adj\n%s", a.c_str());
        return [p, verbose]() { runProgram(p, verbose); };
    });
}
