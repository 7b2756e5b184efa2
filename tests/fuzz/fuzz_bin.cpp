// Fuzz host for binary tables: headers with any row, column and category
// counts (no columns at all among them), cells above the category count,
// files cut short or too long.
#include "fuzz_host.h"

using namespace qzfuzz;

int main(int argc, char** argv) {
    return fuzzMain("fuzz_bin", argc, argv, [](Rng& r, const Scratch& s, bool verbose) {
        const std::vector<uint64_t> huge = {1ull << 20, 1ull << 33, 1ull << 40, 1ull << 62, ~0ull, 65535, 65536, 256};
        uint64_t N = pick(r, 10), n = 1 + pick(r, 5), sX = 1 + pick(r, 4);
        if (chance(r, 0.1)) N = oneOf(r, huge);
        if (chance(r, 0.1)) n = oneOf(r, huge);
        if (chance(r, 0.1)) sX = chance(r, 0.5) ? oneOf(r, huge) : 0;
        // Headers of no columns, with any number of rows, none included.
        if (chance(r, 0.08)) {
            n = 0;
            if (chance(r, 0.5)) N = oneOf(r, huge);
        }
        std::string b;
        auto put = [&b](uint64_t v) { b.append(reinterpret_cast<const char*>(&v), 8); };
        put(0x2300246e69627a71ull);
        put(N);
        put(n);
        put(sX);
        const size_t cells = N < 64 && n < 64 ? (size_t)(N * n) : 64;
        const bool above = chance(r, 0.3);
        for (size_t k = 0; k < cells; ++k)
            b += (char)(above && chance(r, 0.2) ? pick(r, 256) : pick(r, sX == 0 ? 1 : (sX < 256 ? sX : 256)));
        if (chance(r, 0.2)) b = b.substr(0, pick(r, b.size() + 1));
        if (chance(r, 0.1)) b += std::string(pick(r, 40), '\7');
        const std::string f = s.path("t.bin");
        writeFile(f, b);
        std::vector<std::string> p = {typePair(r), "SEED " + std::to_string(pick(r, 1000)),
                                      "OMP " + std::to_string(1 + pick(r, 3)), "DFN " + q(f), "LDX DPT;", graphKind(r),
                                      "LDX GPT;", "MODEL;"};
        // Joint states of the table: a billion take minutes to enumerate.
        double joint = 1;
        for (uint64_t c = 0; c < n && c < 64 && joint <= 1e9; ++c) joint *= (double)(sX < 256 ? sX : 256);
        if (n >= 64 && sX > 1) joint = 2e9;
        for (const std::string& l : queries(r, s, joint <= 1e9)) p.push_back(l);
        if (verbose) std::fprintf(stderr, "--- t.bin: N %" PRIu64 " n %" PRIu64 " sX %" PRIu64 ", %zu bytes\n", N, n, sX, b.size());
        return [p, verbose]() { runProgram(p, verbose); };
    });
}
