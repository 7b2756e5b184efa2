// qzuai: models in the UAI format of the inference competitions into qz model
// files and back, UAI evidence files into tables of observations, and the
// competitions' tasks solved by qz's engines.
//
//   qzuai import MODEL.uai [EVIDENCE.evid] OUT.qzm [--idx T] [--val T] [-f]
//   qzuai export MODEL.qzm OUT.uai [-f]
//   qzuai evidence EVIDENCE.evid MODEL OUT.csv [-f]
//   qzuai solve MODEL.uai [EVIDENCE.evid] --task PR|MAR|MAP [--alg JT|LBP|GIBBS] [-o FILE] [-f] ...
//
// Every input is read and checked completely before an output file is
// opened, and outputs go to a temporary file that is renamed at the end: a
// failure writes nothing. Errors name the line of a UAI or evidence file, or
// the byte offset of a model file, and exit with 1; a bad command line exits
// with 2. How a network becomes a pairwise model is told in uai/read.cpp.
#include "uai/uai.h"

#include <QZ/QZMISC>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

void usage() {
    std::cerr
        << "usage: qzuai import MODEL.uai [EVIDENCE.evid] OUT.qzm [--idx UINT8|UINT16|UINT32|UINT64] [--val FLT32|FLT64] [-f]\n"
           "       qzuai export MODEL.qzm OUT.uai [-f]\n"
           "       qzuai evidence EVIDENCE.evid MODEL OUT.csv [-f]\n"
           "       qzuai solve MODEL.uai [EVIDENCE.evid] --task PR|MAR|MAP [--alg JT|LBP|GIBBS] [-o FILE] [-f]\n"
           "                   [--max-mb MB] [--iter N] [--sweeps N] [--seed N]\n"
           "  import    a UAI MARKOV or BAYES network into a qz model file (index and value types\n"
           "            as IDX and VAL must be set to read it; default UINT64 and FLT64, the\n"
           "            registers' defaults); with evidence, the observed states are the only\n"
           "            allowed ones. Zero entries become weights of minus infinity, and each\n"
           "            factor over three or more variables an added variable\n"
           "  export    a qz model file (floating weights, REP NONE) into a UAI MARKOV model\n"
           "  evidence  a UAI evidence file into a CSV table for LDX DPT, one row per sample,\n"
           "            '?' for unobserved variables; MODEL is the qz model file or the UAI model,\n"
           "            and the model must be loaded before the table, so that the state names\n"
           "            code as the model's\n"
           "  solve     writes the competitions' result file of the task: PR the log10 of the\n"
           "            partition function with the evidence, MAR the marginals, MAP the most\n"
           "            probable joint state; to MODEL's file name with the task as extension in\n"
           "            the current directory, or to FILE ('-' is standard output)\n"
           "    --alg     JT the junction tree (exact), LBP loopy belief propagation (max-product\n"
           "              for MAP), GIBBS Gibbs sampling (MAR, MAP); without it, the junction tree\n"
           "              when its tables fit --max-mb and LBP otherwise (MAP: LBP)\n"
           "    --max-mb  memory for the junction tree's tables (default a quarter of the machine's)\n"
           "    --iter    sweeps of loopy belief propagation at most (default 1000)\n"
           "    --sweeps  Gibbs sweeps (default 10000, and a tenth of that before counting)\n"
           "    --seed    seed of the sampler (default 1)\n"
           "  -f        overwrite an existing output file\n";
}

int pick(const std::string& value, const std::vector<std::string>& names) {
    for (size_t i = 0; i < names.size(); ++i)
        if (value == names[i]) return (int)i;
    return -1;
}

bool wholeNumber(const std::string& s, unsigned long long& v) {
    if (s.empty() || s.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    v = std::strtoull(s.c_str(), nullptr, 10);
    return errno == 0;
}

void toStderr(const std::string& s) { std::cerr << "qzuai: " << s << "\n"; }

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int badLine(const std::string& msg) {
    std::cerr << "qzuai: " << msg << "\n";
    usage();
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args;
    bool force = false;
    int idx = QZ::vm_t::idxUINT64, val = QZ::vm_t::valFLT64;
    uai::SolveOptions so;
    bool solveOption = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            usage();
            return 0;
        }
        const bool takesValue = a == "--idx" || a == "--val" || a == "--task" || a == "--alg" || a == "-o" ||
                                a == "--max-mb" || a == "--iter" || a == "--sweeps" || a == "--seed";
        if (a == "-f") {
            force = true;
        } else if (takesValue) {
            if (i + 1 >= argc) return badLine(a + " needs a value");
            const std::string v = argv[++i];
            unsigned long long k = 0;
            if (a == "--idx" || a == "--val") {
                const int t = a == "--idx" ? pick(v, {"UINT8", "UINT16", "UINT32", "UINT64"}) : pick(v, {"FLT32", "FLT64"});
                if (t < 0) return badLine("'" + v + "' is no type for " + a);
                if (a == "--idx")
                    idx = t;
                else
                    val = t == 0 ? QZ::vm_t::valFLT32 : QZ::vm_t::valFLT64;
                continue;
            }
            solveOption = true;
            if (a == "--task") {
                if (pick(v, {"PR", "MAR", "MAP"}) < 0) return badLine("'" + v + "' is no task for --task (PR, MAR or MAP)");
                so.task = v;
            } else if (a == "--alg") {
                if (pick(v, {"JT", "LBP", "GIBBS"}) < 0) return badLine("'" + v + "' is no algorithm for --alg (JT, LBP or GIBBS)");
                so.alg = v;
            } else if (a == "-o") {
                so.out = v;
            } else if (!wholeNumber(v, k) || (a != "--seed" && a != "--max-mb" && k == 0)) {
                return badLine("'" + v + "' is no " + (a == "--seed" || a == "--max-mb" ? "whole number" : "positive whole number") +
                               " for " + a);
            } else if (a == "--max-mb") {
                so.maxMb = (double)k;
            } else if (a == "--iter") {
                so.iter = (size_t)k;
            } else if (a == "--sweeps") {
                so.sweeps = (size_t)k;
            } else {
                so.seed = (unsigned long)k;
            }
        } else if (!a.empty() && a[0] == '-' && a != "-") {
            return badLine("unknown option '" + a + "'");
        } else {
            args.push_back(a);
        }
    }
    const std::string cmd = args.empty() ? "" : args[0];
    const bool known = cmd == "import" || cmd == "export" || cmd == "evidence" || cmd == "solve";
    if (!known) {
        if (!cmd.empty()) std::cerr << "qzuai: unknown command '" << cmd << "'\n";
        usage();
        return 2;
    }
    const size_t want = cmd == "export" ? 3 : cmd == "evidence" ? 4 : 0;
    const bool countOk = want != 0 ? args.size() == want : cmd == "import" ? args.size() == 3 || args.size() == 4
                                                                           : args.size() == 2 || args.size() == 3;
    if (!countOk) return badLine("wrong number of arguments for " + cmd);
    if (cmd != "solve" && solveOption) return badLine("--task, --alg, -o, --max-mb, --iter, --sweeps and --seed belong to solve");
    if (cmd == "solve" && so.task.empty()) return badLine("solve needs --task PR, MAR or MAP");

    std::string out = args.back();
    if (cmd == "solve") {
        so.model = args[1];
        if (args.size() == 3) so.evidence = args[2];
        out = so.out.empty() ? baseName(so.model) + "." + so.task : so.out;
    }
    if (!force && out != "-" && uai::exists(out)) {
        std::cerr << "qzuai: '" << out << "' exists (use -f to overwrite)\n";
        return 1;
    }
    try {
        if (cmd == "import") {
            const uai::FactorModel F = uai::readUaiModel(args[1]);
            uai::Evidence ev;
            if (args.size() == 4) {
                const std::vector<uai::Evidence> rows = uai::readEvidence(args[2], F.card);
                if (rows.size() != 1)
                    throw uai::Failure(args[2] + ": the file holds " + std::to_string(rows.size()) +
                                       " samples of evidence; a model file takes one");
                ev = rows[0];
            }
            uai::storeModel(uai::toPairwise(F, args.size() == 4 ? &ev : nullptr), out, idx, val);
        } else if (cmd == "export") {
            uai::writeUai(uai::readModelFile(args[1]), args[1], out);
        } else if (cmd == "evidence") {
            if (uai::looksLikeUai(args[2])) {
                const uai::FactorModel F = uai::readUaiModel(args[2]);
                uai::writeEvidenceTable(uai::toPairwise(F), uai::readEvidence(args[1], F.card), args[2], out);
            } else {
                const uai::PairModel M = uai::readModelFile(args[2]);
                uai::writeEvidenceTable(M, uai::readEvidence(args[1], M.Y), args[2], out);
            }
        } else {
            const std::string text = uai::formatSolution(uai::solve(so, toStderr));
            if (out == "-")
                std::cout << text << std::flush;
            else
                uai::writeTextAtomically(out, text);
        }
    } catch (const std::exception& e) {
        std::cerr << "qzuai: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
