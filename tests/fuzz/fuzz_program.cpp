// Fuzz host for program text: random sequences of assignments, keyword
// setters and instructions over a few prepared tables, graphs and model
// files, with sizes at the edges of the index types and an occasional
// damaged character. Some programs start with a clique search of an order
// above the number of columns. Pointer registers are left alone (a number
// written into one is the host's own doing), and jumps only go forward, so that
// every program ends. IDX and VAL are set once, on the first line: the
// design makes it the program's duty to keep them as they were when a table,
// graph or model was made (a change is not detected), as it is the host's
// duty to write only real objects into pointer registers.
#include "fuzz_host.h"

using namespace qzfuzz;

namespace {

const std::vector<std::string> kIntRegs = {"GVX", "GEX", "KXX", "TXX", "MIO", "MIL", "GRE", "CEN", "GNU", "SEED", "NXX", "GPX", "DEG"};
const std::vector<std::string> kRealRegs = {"STP", "LAM", "ELAM", "PAM", "SDE", "EPL", "EPO", "PEL", "GP0", "GP1"};
const std::vector<std::string> kBoolRegs = {"HED", "YYC", "OVW", "PPX", "SLW", "RST", "TREE"};
const std::vector<std::string> kArith = {"INC", "DEC"};

std::string setter(Rng& r) {
    static const std::vector<std::string> gra = {"FILE", "CHAIN", "GRID", "STAR", "RBM", "FULL", "CHOWLIU", "ELEMGM",
                                                 "OTHER", "JT", "DBT", "ST", "CLIQUES", "RNDCLIQUES", "14", "3"};
    static const std::vector<std::string> idx = {"UINT8", "UINT16", "UINT32", "UINT64", "4"};
    static const std::vector<std::string> val = {"UINT8", "UINT16", "UINT32", "UINT64", "FLT32", "FLT64", "FLTMPREC", "7"};
    static const std::vector<std::string> alg = {"LBP", "JT", "SQM", "EXTI", "GD", "PL1", "FL1", "EA11", "IGD", "EXTO"};
    static const std::vector<std::string> rep = {"NONE", "STLINEAR", "INTEGER", "DBT", "ISING", "13"};
    static const std::vector<std::string> fmt = {"ADJ", "TGF", "FG", "3"};
    (void)idx;
    (void)val;
    switch (pick(r, 4) + 2) {
    case 2: return "GRA " + oneOf(r, gra);
    case 3: return "ALG " + oneOf(r, alg);
    case 4: return "REP " + oneOf(r, rep);
    default: return "FMT " + oneOf(r, fmt);
    }
}

std::string line(Rng& r, const Scratch& s, size_t at, size_t total) {
    static const std::vector<std::string> ops0 = {"MODEL;", "STATS;", "ESTIMATE;", "INFER;", "PREDICT;", "SCORE;",
                                                  "SAMPLE;", "INITZERO;", "INITGAUSS;", "CLOSEDFORM;", "INITLATENT;",
                                                  "STGRAPH;", "JUNCTIONTREE;", "BOLTZMANNTREE;", "BASEGRAPH;",
                                                  "CLEARSTACK;"};
    static const std::vector<std::string> res = {"DPT", "GPT", "MPT", "PPT", "LPT", "DFN", "MFN", "GFN", "NAM", "KXX"};
    switch (pick(r, 12)) {
    case 0: return oneOf(r, kIntRegs) + " " + number(r);
    case 1: return oneOf(r, kRealRegs) + " " + real(r);
    case 2: return oneOf(r, kBoolRegs) + " " + (chance(r, 0.5) ? "true" : "false");
    case 3: return setter(r);
    case 4: {
        static const std::vector<std::string> tables = {"t1.csv", "t2.csv", "t3.bin", "missing.csv", "m1.mod"};
        return "DFN " + q(s.path(oneOf(r, tables)));
    }
    case 5: return "MFN " + q(s.path(oneOf(r, std::vector<std::string>{"m1.mod", "m2.mod", "t1.csv", "out.mod"})));
    case 6: return "GFN " + q(s.path(oneOf(r, std::vector<std::string>{"g1.adj", "g2.adj", "out.adj"})));
    case 7: return "LDX " + oneOf(r, std::vector<std::string>{"DPT", "GPT", "MPT", "GPT", "DPT", "KXX"}) + ";";
    case 8: return "STORE " + oneOf(r, std::vector<std::string>{"DPT", "GPT", "MPT", "KXX"}) + ";";
    case 9: return "DEL " + oneOf(r, res) + ";";
    case 10: {
        const std::string a = oneOf(r, kIntRegs), b = chance(r, 0.5) ? oneOf(r, kIntRegs) : oneOf(r, kRealRegs);
        switch (pick(r, 6)) {
        case 0: return oneOf(r, kArith) + " " + a + ";";
        case 1: return "ADD " + a + " " + b + ";";
        case 2: return "MUL " + oneOf(r, kRealRegs) + " " + b + ";";
        case 3: return "MOV " + a + " " + oneOf(r, std::vector<std::string>{"GVX", "GEX", "DIM", "NXX", "RES", "LNZ", "UNI"}) + ";";
        case 4: return "PUSH " + b + ";";
        default: {
            // A jump forward only.
            const size_t to = at + 1 + pick(r, total - at);
            return "BRR " + std::to_string(to) + " BRA BRR;";
        }
        }
    }
    default: return oneOf(r, ops0);
    }
}

std::string damage(Rng& r, std::string l) {
    if (l.empty()) return l;
    const size_t at = pick(r, l.size());
    switch (pick(r, 3)) {
    case 0: l.erase(at, 1); break;
    case 1: l.insert(at, 1, oneOf(r, std::vector<char>{' ', ';', '\'', '#', '9', 'X'})); break;
    default: l[at] = (char)(' ' + pick(r, 95)); break;
    }
    return l;
}

}  // namespace

int main(int argc, char** argv) {
    return fuzzMain("fuzz_program", argc, argv, [](Rng& r, const Scratch& s, bool verbose) {
        writeFile(s.path("t1.csv"), textTable(r, 3 + pick(r, 6), 2 + pick(r, 4), 0.1));
        writeFile(s.path("t2.csv"), textTable(r, pick(r, 4), 1 + pick(r, 2), 0.5));
        std::string b("qzbin$\0#", 8);
        const uint64_t head[3] = {4, 3, 2};
        b.append(reinterpret_cast<const char*>(head), sizeof(head));
        for (int k = 0; k < 12; ++k) b += (char)pick(r, 3);
        writeFile(s.path("t3.bin"), b);
        writeFile(s.path("g1.adj"), "0,1,1\n1,0,1\n1,1,0\n");
        writeFile(s.path("g2.adj"), "0,1,0,0\n1,0,1,0\n0,1,0,0\n0,0,0,0\n");
        const std::string t1 = s.path("t1.csv"), m1 = s.path("m1.mod");
        const std::string types = typePair(r);
        const std::vector<std::string> prep = {types, "DFN " + q(t1), "LDX DPT;", "GRA CHAIN", "LDX GPT;", "MODEL;",
                                               "INITGAUSS;", "MFN " + q(m1), "STORE MPT;"};
        const size_t total = 4 + pick(r, 22);
        std::vector<std::string> p = {types};
        // Mostly a sensible start, so that the later lines reach further.
        if (chance(r, 0.1)) {
            // A clique search of an order above the column count of t1.csv
            // (2 to 5 columns), up to far beyond anything that could be counted.
            static const std::vector<std::string> orders = {"3", "4", "5", "6", "8", "64", "255", "256", "65535", "65536",
                                                            "2147483648", "4294967295", "4294967296"};
            for (const std::string& l : {"DFN " + q(t1), std::string("LDX DPT;"), std::string("GRA CLIQUES"),
                                         "KXX " + oneOf(r, orders), std::string("LDX GPT;"), std::string("MODEL;")})
                p.push_back(l);
        } else if (chance(r, 0.8)) {
            for (const std::string& l : {"DFN " + q(t1), std::string("LDX DPT;"),
                                         chance(r, 0.7) ? std::string("GRA CHAIN") : setter(r), std::string("LDX GPT;")})
                p.push_back(l);
            if (chance(r, 0.8)) p.push_back("MODEL;");
        }
        while (p.size() < total) {
            std::string l = line(r, s, p.size(), total);
            // A damaged jump could go back and loop for ever.
            if (chance(r, 0.05) && l.find("BRA") == std::string::npos) l = damage(r, l);
            p.push_back(l);
        }
        return [prep, p, verbose]() {
            runProgram(prep, false);
            runProgram(p, verbose);
        };
    });
}
