// Fuzz host for model files: a model is built and stored, then its bytes are
// flipped, cut, stretched, given fields of huge counts or replaced by a table
// file, and the result is loaded, under the writer's pair of types or
// another one, and queried.
#include "fuzz_host.h"

using namespace qzfuzz;

namespace {

std::string mutate(Rng& r, std::string b, const std::string& table) {
    const size_t k = 1 + pick(r, 3);
    for (size_t j = 0; j < k; ++j) {
        if (b.empty()) break;
        const size_t at = pick(r, b.size());
        switch (pick(r, 7)) {
        case 0: b[at] = (char)pick(r, 256); break;
        case 1: b[at] = (char)(b[at] ^ (1 << pick(r, 8))); break;
        case 2: b = b.substr(0, at); break;
        case 3: b += std::string(1 + pick(r, 16), (char)pick(r, 256)); break;
        case 4: {
            // A count field set to something huge or small.
            const uint64_t v = oneOf(r, std::vector<uint64_t>{0, 1, 2, 255, 65535, 1ull << 32, 1ull << 62, ~0ull});
            const size_t w = oneOf(r, std::vector<size_t>{1, 2, 4, 8});
            if (at + w <= b.size()) std::memcpy(&b[at], &v, w);
            break;
        }
        case 5: b.erase(at, 1 + pick(r, 8)); break;
        default: b = table; break;
        }
    }
    return b;
}

}  // namespace

int main(int argc, char** argv) {
    return fuzzMain("fuzz_model", argc, argv, [](Rng& r, const Scratch& s, bool verbose) {
        const std::string types = typePair(r);
        const std::string loadTypes = chance(r, 0.7) ? types : typePair(r);
        const std::string tf = s.path("t.csv"), mf = s.path("m.mod");
        const std::string text = textTable(r, 2 + pick(r, 8), 1 + pick(r, 5), 0.1);
        writeFile(tf, text);
        const std::vector<std::string> build = {types, "SEED 7", "DFN " + q(tf), "LDX DPT;",
                                                chance(r, 0.7) ? "GRA CHAIN" : graphKind(r), "LDX GPT;", "MODEL;",
                                                "INITGAUSS;", "MFN " + q(mf), "STORE MPT;"};
        std::vector<std::string> use = {loadTypes, "MFN " + q(mf), "LDX MPT;"};
        if (chance(r, 0.7)) {
            use.push_back("DFN " + q(tf));
            use.push_back("LDX DPT;");
        }
        for (const std::string& l : queries(r, s)) use.push_back(l);
        const uint64_t mseed = r();
        const std::string binTable = std::string("qzbin$\0#", 8) + std::string(24, '\0');
        const std::string table = chance(r, 0.5) ? text : binTable;
        return [=]() {
            runProgram(build, verbose);
            Rng m(mseed);
            const std::string bytes = mutate(m, readFile(mf), table);
            writeFile(mf, bytes);
            if (verbose) std::fprintf(stderr, "--- m.mod: %zu bytes after the change\n", bytes.size());
            runProgram(use, verbose);
        };
    });
}
