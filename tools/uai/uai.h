// The UAI front end of qz: networks of the inference competitions read as
// they are, turned into pairwise qz models, stored, exported and solved.
#ifndef QZ_TOOLS_UAI_H
#define QZ_TOOLS_UAI_H

#include <cstddef>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace uai {

// A failure with its place already in the message ("FILE:LINE: ...").
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr size_t MAX_STATES = 65535;  // category codes are 16 bits, 65535 marks a missing cell

// A network as its file gives it: a product of factors over variables
// 0 .. n-1, each table with the last scope variable changing fastest.
struct Factor {
    std::vector<size_t> scope;
    std::vector<double> table;
    size_t line = 0;  // where the scope stands, for messages
};

struct FactorModel {
    std::string path;
    bool bayes = false;
    std::vector<size_t> card;
    std::vector<Factor> factors;

    size_t n() const { return card.size(); }
    // Index of a joint state of the scope in the factor's table.
    size_t entry(const Factor& f, const std::vector<size_t>& x) const {
        size_t i = 0;
        for (size_t v : f.scope) i = i * card[v] + x[v];
        return i;
    }
};

// A pairwise model: weights in the qz layout (edge-major, the first end
// vertex's state the slow index). The first `original` vertices are the
// network's variables; the rest stand for its factors over three or more
// variables. A weight of minus infinity forbids its pair of states.
struct PairModel {
    std::vector<size_t> Y;
    std::vector<std::pair<size_t, size_t>> edges;
    std::vector<double> w;
    std::vector<std::string> names;
    std::vector<std::vector<std::string>> states;
    size_t original = 0;

    size_t n() const { return Y.size(); }
    size_t blockSize(size_t e) const { return Y[edges[e].first] * Y[edges[e].second]; }
    // The sum of the weights of a joint state of all vertices.
    double logPotential(const std::vector<size_t>& x) const;
};

// Observed states of the original variables, -1 where unobserved; one row a
// sample of the evidence file.
using Evidence = std::vector<long>;

std::string readWhole(const std::string& path);
bool exists(const std::string& path);
bool looksLikeUai(const std::string& path);

FactorModel readUaiModel(const std::string& path);
std::vector<Evidence> readEvidence(const std::string& path, const std::vector<size_t>& card);

// The pairwise form. With evidence, the observed states are the only allowed
// ones. connectAll gives every vertex an edge (loopy belief propagation
// counts a vertex without one wrongly in its log partition function); the
// model file keeps such vertices alone, as it always did.
PairModel toPairwise(const FactorModel& F, const Evidence* evidence = nullptr, bool connectAll = false);

PairModel readModelFile(const std::string& path);

// Writes through a temporary file in the same directory, renamed at the end,
// so that no half-written output is left behind.
void writeTextAtomically(const std::string& path, const std::string& text);
void storeModel(const PairModel& M, const std::string& path, int idxCode, int valCode);
void writeUai(const PairModel& M, const std::string& source, const std::string& path);
void writeEvidenceTable(const PairModel& M, const std::vector<Evidence>& rows, const std::string& source,
                        const std::string& path);

// ------------------------------------------------------------------ solving

// The memory the exact engine would take for a pairwise model, as entries of
// its tables: the largest one and all of them. Planning stops at the first
// table of more than `limit` entries: the plan is then not complete, and
// both numbers are that table's.
struct TablePlan {
    double largest = 0;
    double total = 0;
    bool complete = true;
};
TablePlan exactTableEntries(const PairModel& M, double limit = std::numeric_limits<double>::infinity());
// Bytes the exact engine holds per table entry.
double exactBytesPerEntry();

struct SolveOptions {
    std::string model, evidence, task, alg, out;
    double maxMb = -1;   // below 0: a quarter of the machine's memory
    size_t iter = 1000;  // sweeps of loopy belief propagation
    size_t sweeps = 10000;
    unsigned long seed = 1;
    bool force = false;
};

// What a solve gives, for the original variables only.
struct Solution {
    std::string task;
    double log10Z = 0;
    std::vector<std::vector<double>> marginals;
    std::vector<size_t> assignment;
};

// Runs the task; `report` receives what the user should read on stderr.
Solution solve(const SolveOptions& opt, void (*report)(const std::string&));
// The task of `opt` by the algorithm named (JT, LBP or GIBBS), on the
// pairwise form M of F made with the evidence (or none) and connectAll.
Solution runAlgorithm(const FactorModel& F, const PairModel& M, const Evidence* evidence, const std::string& alg,
                      const SolveOptions& opt);
std::string formatSolution(const Solution& s);

}  // namespace uai

#endif
