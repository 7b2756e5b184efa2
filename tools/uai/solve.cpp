// qzuai solve: the tasks of the inference competitions (PR, MAR, MAP) on a
// UAI network, run by qz's engines on its pairwise form.
#include "uai.h"

#include <QZ/QZBP>
#include <QZ/QZGRAPH>
#include <QZ/QZINF>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <sstream>

namespace uai {

namespace {

using Graph = QZ::Graph<size_t>;
constexpr double NEG_INF = -std::numeric_limits<double>::infinity();

std::unique_ptr<Graph> makeGraph(const PairModel& M) {
    const size_t m = M.edges.size();
    // The graph takes the edge list from the C allocator and frees it.
    size_t* el = (size_t*)std::calloc(2 * m + 1, sizeof(size_t));
    for (size_t e = 0; e < m; ++e) {
        el[2 * e] = M.edges[e].first;
        el[2 * e + 1] = M.edges[e].second;
    }
    return std::unique_ptr<Graph>(new Graph(true, el, M.n(), m));
}

std::string number(double x, const char* fmt = "%.6g") {
    char buf[48];
    std::snprintf(buf, sizeof(buf), fmt, x);
    return buf;
}

double physicalBytes() {
    const long pages = sysconf(_SC_PHYS_PAGES), size = sysconf(_SC_PAGESIZE);
    return pages > 0 && size > 0 ? (double)pages * (double)size : 4.0 * (1 << 30);
}

// The log potential of the network itself (not its pairwise form) at a joint
// state of its variables.
double networkLogPotential(const FactorModel& F, const std::vector<size_t>& x) {
    double lp = 0.0;
    for (const Factor& f : F.factors) lp += std::log(f.table[F.entry(f, x)]);
    return lp;
}

// Max-product messages give each variable its state of largest max-marginal;
// where several joint states tie, these need not belong to one joint state.
// The assignment is therefore improved one variable at a time, on the
// network's own factors, while that raises its potential: never lower, and
// consistent where a single change makes it so.
void improveLocally(const FactorModel& F, const Evidence* ev, std::vector<size_t>& x) {
    const size_t n = F.n();
    std::vector<std::vector<size_t>> factorsOf(n);
    for (size_t f = 0; f < F.factors.size(); ++f)
        for (size_t v : F.factors[f].scope) factorsOf[v].push_back(f);
    auto local = [&](size_t v) {
        double s = 0.0;
        for (size_t f : factorsOf[v]) s += std::log(F.factors[f].table[F.entry(F.factors[f], x)]);
        return s;
    };
    for (size_t pass = 0; pass < 100; ++pass) {
        bool changed = false;
        for (size_t v = 0; v < n; ++v) {
            if (ev != nullptr && (*ev)[v] >= 0) continue;
            const size_t keep = x[v];
            double best = local(v);
            size_t bestState = keep;
            for (size_t s = 0; s < F.card[v]; ++s) {
                if (s == keep) continue;
                x[v] = s;
                const double sc = local(v);
                // A gain beneath the rounding of the sum is no gain.
                if (sc > best + 1e-12 * (1.0 + std::fabs(best))) {
                    best = sc;
                    bestState = s;
                }
            }
            x[v] = bestState;
            changed = changed || bestState != keep;
        }
        if (!changed) break;
    }
}

void requireFinite(double value, const std::string& what) {
    if (std::isfinite(value)) return;
    throw Failure(what + " of " + number(value) +
                  (value == NEG_INF ? ": the network with its evidence has probability zero" : ""));
}

// Each original variable's marginal from an engine, as probabilities.
template <typename Engine>
std::vector<std::vector<double>> marginalsOf(const Engine& ia, const PairModel& M, const std::string& name) {
    std::vector<std::vector<double>> P(M.original);
    for (size_t v = 0; v < M.original; ++v) {
        double sum = 0.0;
        for (size_t x = 0; x < M.Y[v]; ++x) {
            double q = 0.0, Z = 0.0;
            ia.vertex_marginal(v, x, q, Z);
            P[v].push_back(q / Z);
            requireFinite(P[v].back(), name + " gave a marginal of variable " + std::to_string(v));
            sum += P[v].back();
        }
        if (!(sum > 0.0)) throw Failure(name + " gave variable " + std::to_string(v) + " no state of positive probability");
        for (double& p : P[v]) p /= sum;
    }
    return P;
}

// The states of largest max-marginal after max-product messages, improved
// locally; refused if the result is forbidden by the network.
std::vector<size_t> maxProductState(QZ::LBP<size_t, double>& ia, const FactorModel& F, const PairModel& M,
                                    const Evidence* ev) {
    ia.infer(1);
    std::vector<size_t> x(F.n(), 0);
    for (size_t v = 0; v < F.n(); ++v) {
        double best = -1.0;
        for (size_t s = 0; s < M.Y[v]; ++s) {
            double q = 0.0, Z = 0.0;
            ia.vertex_marginal(v, s, q, Z);
            if (q > best) {
                best = q;
                x[v] = s;
            }
        }
        if (ev != nullptr && (*ev)[v] >= 0) x[v] = (size_t)(*ev)[v];
    }
    improveLocally(F, ev, x);
    return x;
}

void requirePossible(const FactorModel& F, const std::vector<size_t>& x, const std::string& what) {
    if (networkLogPotential(F, x) > NEG_INF) return;
    throw Failure(what + " found no joint state of positive probability (the network with its evidence may have "
                         "probability zero)");
}

// Single-site Gibbs sampling by the engine, from the max-product state; the
// marginals average each variable's conditional distribution given its
// neighbours' sampled states, which is less noisy than counting its own.
void gibbs(QZ::LBP<size_t, double>& ia, const FactorModel& F, const PairModel& M, const Evidence* ev,
           const SolveOptions& o, Solution& S) {
    const size_t n = M.n();
    std::vector<size_t> x = maxProductState(ia, F, M, ev);
    requirePossible(F, x, "max-product belief propagation, which starts the sampler,");
    std::vector<double> xs(x.begin(), x.end());
    // The edges at each vertex: (edge, weight offset, the vertex is the first end).
    std::vector<std::vector<std::pair<size_t, size_t>>> inc(n);
    std::vector<size_t> off(M.edges.size() + 1, 0);
    for (size_t e = 0; e < M.edges.size(); ++e) {
        off[e + 1] = off[e] + M.blockSize(e);
        inc[M.edges[e].first].emplace_back(e, 1);
        inc[M.edges[e].second].emplace_back(e, 0);
    }
    std::vector<std::vector<double>> P(n);
    for (size_t v = 0; v < n; ++v) P[v].assign(M.Y[v], 0.0);
    std::vector<double> lg;
    std::vector<size_t> best = x;
    double bestLp = M.logPotential(x);
    ia.GIBBS(xs.data(), o.sweeps / 10, false);
    for (size_t sweep = 0; sweep < o.sweeps; ++sweep) {
        ia.GIBBS(xs.data(), 1, false);
        for (size_t v = 0; v < n; ++v) x[v] = (size_t)xs[v];
        if (S.task == "MAP") {
            const double lp = M.logPotential(x);
            if (lp > bestLp) {
                bestLp = lp;
                best = x;
            }
            continue;
        }
        for (size_t v = 0; v < n; ++v) {
            lg.assign(M.Y[v], 0.0);
            for (const auto& ie : inc[v]) {
                const size_t e = ie.first, s = M.edges[e].first, t = M.edges[e].second;
                for (size_t y = 0; y < M.Y[v]; ++y)
                    lg[y] += ie.second ? M.w[off[e] + y * M.Y[t] + x[t]] : M.w[off[e] + x[s] * M.Y[t] + y];
            }
            const double top = *std::max_element(lg.begin(), lg.end());
            if (top == NEG_INF) throw Failure("Gibbs sampling reached a state in which variable " + std::to_string(v) + " has no allowed state");
            double z = 0.0;
            for (double& l : lg) z += (l = std::exp(l - top));
            for (size_t y = 0; y < M.Y[v]; ++y) P[v][y] += lg[y] / z;
        }
    }
    if (S.task == "MAP") {
        improveLocally(F, ev, best);
        S.assignment = best;
        return;
    }
    P.resize(M.original);
    for (auto& Pv : P)
        for (double& p : Pv) p /= (double)o.sweeps;
    S.marginals = P;
}

}  // namespace

TablePlan exactTableEntries(const PairModel& M, double limit) {
    // The exact engine's own plan: the orders it tries, each stopped as soon
    // as its tables pass the limit, so that a large grid is turned away at
    // once instead of building its tree.
    const std::unique_ptr<Graph> G = makeGraph(M);
    const QZ::ExactPlan p = QZ::tryExactOrders<size_t>(*G, M.Y.data(), limit * QZ::EXACT_BYTES_PER_ENTRY);
    TablePlan plan;
    if (p.fits) {
        plan.largest = p.chosen.largest;
        plan.total = p.chosen.entries;
        return plan;
    }
    // No order fits: what the one that got furthest had reached.
    plan.complete = false;
    for (const QZ::EliminationPlan& t : p.tried)
        if (plan.total == 0 || t.entries < plan.total) {
            plan.total = t.entries;
            plan.largest = t.largest;
        }
    return plan;
}

// The scaled probabilities of the cliques, in double: the log tables that the
// engine can also make are not asked for by the solver.
double exactBytesPerEntry() { return QZ::EXACT_BYTES_PER_ENTRY; }

Solution solve(const SolveOptions& o, void (*report)(const std::string&)) {
    if (o.task != "PR" && o.task != "MAR" && o.task != "MAP") throw Failure("--task must be PR, MAR or MAP");
    if (o.task == "MAP" && o.alg == "JT")
        throw Failure("--alg JT cannot solve MAP: the junction tree engine sums over joint states and gives no most "
                      "probable one; use LBP (max-product) or GIBBS");
    if (o.task == "PR" && o.alg == "GIBBS")
        throw Failure("--alg GIBBS cannot solve PR: sampling gives no partition function; use JT or LBP");

    const FactorModel F = readUaiModel(o.model);
    Evidence ev;
    const Evidence* evp = nullptr;
    if (!o.evidence.empty()) {
        const std::vector<Evidence> rows = readEvidence(o.evidence, F.card);
        if (rows.size() > 1)
            throw Failure(o.evidence + ": the file holds " + std::to_string(rows.size()) +
                          " samples of evidence; solve takes one");
        if (rows.size() == 1) {
            ev = rows[0];
            evp = &ev;
        }
    }
    const PairModel M = toPairwise(F, evp, true);
    if (o.alg == "GIBBS" && M.n() > M.original)
        throw Failure("--alg GIBBS cannot sample this network: each factor over three or more variables fixes its "
                      "variables together, and single-site Gibbs sampling cannot move them; use JT or LBP");

    std::string alg = o.alg;
    if (alg.empty() && o.task == "MAP") {
        alg = "LBP";
        report("MAP by max-product loopy belief propagation: the junction tree engine sums over joint states and "
               "gives no most probable one");
    } else if (alg.empty()) {
        const double budget = (o.maxMb >= 0 ? o.maxMb * 1048576.0 : physicalBytes() / 4);
        const TablePlan plan = exactTableEntries(M, budget / exactBytesPerEntry());
        const double need = plan.total * exactBytesPerEntry();
        const std::string tables =
            plan.complete ? "tables hold " + number(plan.total, "%.4g") + " entries (the largest " +
                                number(plan.largest, "%.4g") + "), " + number(need / 1048576.0, "%.4g") + " MB"
                          : "tables hold more than " + number(plan.total, "%.4g") + " entries, over " +
                                number(need / 1048576.0, "%.4g") + " MB";
        const std::string limit = number(budget / 1048576.0, "%.4g") + " MB (--max-mb)";
        if (plan.complete && need <= budget) {
            alg = "JT";
            report("junction tree (exact): its " + tables + ", within the budget of " + limit);
        } else {
            alg = "LBP";
            report("loopy belief propagation (approximate): the junction tree's " + tables + ", beyond the budget of " + limit);
        }
    }

    return runAlgorithm(F, M, evp, alg, o);
}

Solution runAlgorithm(const FactorModel& F, const PairModel& M, const Evidence* evp, const std::string& alg,
                      const SolveOptions& o) {
    const std::unique_ptr<Graph> G = makeGraph(M);
    std::vector<double> w = M.w;
    std::mt19937 rng((std::mt19937::result_type)o.seed);
    Solution S;
    S.task = o.task;
    if (alg == "JT") {
        // The engine refuses tables beyond its own budget, which --max-mb sets.
        if (o.maxMb >= 0) setenv("QZ_JT_MAX_MB", number(o.maxMb, "%.17g").c_str(), 1);
        QZ::HuginAlgorithm<size_t, double> ia(G.get(), M.Y.data(), &rng, w.data());
        ia.infer(0);
        S.log10Z = ia.A() / std::log(10.0);
        requireFinite(ia.A(), "the junction tree gave a log partition function");
        if (o.task == "MAR") S.marginals = marginalsOf(ia, M, "the junction tree");
    } else {
        QZ::LBP<size_t, double> ia(G.get(), M.Y.data(), &rng, w.data(), false);
        ia.setMaxIter(o.iter);
        if (alg == "GIBBS") {
            gibbs(ia, F, M, evp, o, S);
        } else if (o.task == "MAP") {
            S.assignment = maxProductState(ia, F, M, evp);
        } else {
            ia.infer(0);
            S.log10Z = ia.A() / std::log(10.0);
            requireFinite(ia.A(), "loopy belief propagation gave a log partition function");
            if (o.task == "MAR") S.marginals = marginalsOf(ia, M, "loopy belief propagation");
        }
    }
    if (o.task == "MAP") {
        S.assignment.resize(F.n());
        requirePossible(F, S.assignment, alg == "GIBBS" ? "Gibbs sampling" : "max-product belief propagation");
    }
    // Observed variables are certain, whatever the rounding of an engine.
    if (evp != nullptr && o.task == "MAR")
        for (size_t v = 0; v < F.n(); ++v)
            if ((*evp)[v] >= 0)
                for (size_t x = 0; x < F.card[v]; ++x) S.marginals[v][x] = (long)x == (*evp)[v] ? 1.0 : 0.0;
    return S;
}

std::string formatSolution(const Solution& s) {
    std::ostringstream os;
    os << s.task << "\n";
    if (s.task == "PR") {
        os << number(s.log10Z, "%.9g") << "\n";
    } else if (s.task == "MAR") {
        os << s.marginals.size();
        for (const auto& P : s.marginals) {
            os << " " << P.size();
            for (double p : P) os << " " << number(p);
        }
        os << "\n";
    } else {
        os << s.assignment.size();
        for (size_t x : s.assignment) os << " " << x;
        os << "\n";
    }
    return os.str();
}

}  // namespace uai
