// qzuai solve: the competitions' result files of PR, MAR and MAP, read back
// and held against the enumeration of the networks' own tables.
#include <gtest/gtest.h>
#include <qz_process_util.h>
#include <qz_test_util.h>
#include <qz_uai_net.h>
#include <uai/uai.h>

#include <QZ/graph/core>
#include <QZ/bp/hugin>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

using namespace qztest;

namespace {

using Observed = std::map<size_t, size_t>;

std::string evidenceText(const Observed& o) {
    std::string s = std::to_string(o.size());
    for (const auto& p : o) s += " " + std::to_string(p.first) + " " + std::to_string(p.second);
    return s + "\n";
}

struct Solved {
    int code;
    std::string err;
    std::string text;  // the result file
};

// Writes the network (and the evidence, if any) and solves the task into a
// result file, with the further arguments given.
Solved solve(const UaiNet& net, const std::string& tag, const std::string& task, const Observed* ev = nullptr,
             std::vector<std::string> more = {}) {
    const std::string uai = tmpPath("solve_" + tag + ".uai");
    writeFile(uai, net.text());
    std::vector<std::string> args = {"solve", uai};
    if (ev != nullptr) {
        const std::string evid = tmpPath("solve_" + tag + ".evid");
        writeFile(evid, evidenceText(*ev));
        args.push_back(evid);
    }
    const std::string out = tmpPath("solve_" + tag + "." + task);
    std::remove(out.c_str());
    args.insert(args.end(), {"--task", task, "-o", out});
    args.insert(args.end(), more.begin(), more.end());
    const ProcessResult r = runProcess(QZ_QZUAI, args, "solve_" + tag + "_" + task);
    return {r.code, r.err, readFile(out)};
}

// PR and MAR against the enumeration, for an algorithm that should be exact
// on the network (tol) or close to it.
void expectPrAndMar(const UaiNet& net, const std::string& tag, const Observed& ev, const std::vector<std::string>& more,
                    double tol) {
    std::vector<std::vector<double>> marg;
    const double Z = net.enumerate(&marg, ev);
    const Observed* evp = ev.empty() ? nullptr : &ev;
    const Solved pr = solve(net, tag, "PR", evp, more);
    ASSERT_EQ(pr.code, 0) << tag << ": " << pr.err;
    const std::vector<double> p = resultNumbers(pr.text, "PR");
    ASSERT_EQ(p.size(), 1u) << tag << ": " << pr.text;
    EXPECT_NEAR(p[0], std::log10(Z), tol) << tag;

    const Solved mar = solve(net, tag, "MAR", evp, more);
    ASSERT_EQ(mar.code, 0) << tag << ": " << mar.err;
    std::vector<std::vector<double>> got;
    ASSERT_TRUE(parseMarginals(resultNumbers(mar.text, "MAR"), got)) << tag << ": " << mar.text;
    ASSERT_EQ(got.size(), net.card.size()) << tag;
    for (size_t v = 0; v < got.size(); ++v) {
        ASSERT_EQ(got[v].size(), net.card[v]) << tag;
        // Six significant digits in the file.
        for (size_t x = 0; x < got[v].size(); ++x) EXPECT_NEAR(got[v][x], marg[v][x], tol + 1e-6) << tag << " x" << v;
    }
}

// A MAP result: a joint state that agrees with the evidence and has the
// largest potential (ties are all right).
void expectMap(const UaiNet& net, const std::string& tag, const Observed& ev, const std::vector<std::string>& more = {}) {
    const Solved map = solve(net, tag, "MAP", ev.empty() ? nullptr : &ev, more);
    ASSERT_EQ(map.code, 0) << tag << ": " << map.err;
    const std::vector<double> nums = resultNumbers(map.text, "MAP");
    ASSERT_EQ(nums.size(), net.card.size() + 1) << tag << ": " << map.text;
    EXPECT_EQ(nums[0], (double)net.card.size());
    std::vector<size_t> x;
    for (size_t v = 0; v < net.card.size(); ++v) {
        x.push_back((size_t)nums[v + 1]);
        ASSERT_LT(x.back(), net.card[v]) << tag;
    }
    for (const auto& o : ev) EXPECT_EQ(x[o.first], o.second) << tag << " observed x" << o.first;
    EXPECT_NEAR(net.potential(x), net.bestPotential(ev), 1e-12 * net.bestPotential(ev)) << tag;
}

// A deterministic table of positive entries, with a zero at every k-th
// entry from `at` when k is not 0.
std::vector<double> table(size_t size, size_t seed, size_t k = 0, size_t at = 0) {
    std::vector<double> t;
    for (size_t i = 0; i < size; ++i)
        t.push_back(k != 0 && i % k == at ? 0.0 : 0.2 + (double)((i * 7 + seed * 13) % 17) / 8.0);
    return t;
}

// A loop of four variables with a factor over three of them, zeros in
// several tables.
UaiNet loopWithZeros() {
    UaiNet net;
    net.card = {2, 3, 2, 3};
    net.factors = {{{0, 1}, table(6, 1, 4, 1)},     {{1, 2}, table(6, 2)},       {{2, 3}, table(6, 3, 5, 2)},
                   {{3, 0}, table(6, 4)},           {{0, 2, 3}, table(12, 5, 6, 0)}, {{1}, table(3, 6, 3, 2)},
                   {{}, {2.5}}};
    return net;
}

// A Bayesian network whose last variable has three parents; its Z is 1.
UaiNet bayesNet() {
    UaiNet net;
    net.bayes = true;
    net.card = {2, 3, 2, 2, 2};
    auto cpt = [](size_t parents, size_t states, size_t seed) {
        std::vector<double> t;
        for (size_t r = 0; r < parents; ++r) {
            std::vector<double> row = table(states, seed + r);
            if ((r + seed) % 4 == 1) row[0] = 0.0;  // some impossible child states
            double s = 0;
            for (double p : row) s += p;
            for (double p : row) t.push_back(p / s);
        }
        return t;
    };
    net.factors = {{{0}, cpt(1, 2, 1)},     {{1}, cpt(1, 3, 2)},          {{0, 2}, cpt(2, 2, 3)},
                   {{1, 3}, cpt(3, 2, 4)},  {{0, 2, 3, 4}, cpt(8, 2, 5)}};
    return net;
}

// A network whose pairwise form is a tree: a chain, and a factor over three
// variables that meets it at one variable only.
UaiNet treeNet(bool zeros) {
    UaiNet net;
    net.card = {2, 3, 2, 2, 3};
    const size_t k = zeros ? 4 : 0;
    net.factors = {{{0, 1}, table(6, 1, k, 1)}, {{1, 2}, table(6, 2)}, {{2, 3, 4}, table(12, 3, k, 3)},
                   {{4}, table(3, 4, k, 0)},    {{0}, table(2, 5)}};
    return net;
}

}  // namespace

TEST(UaiSolve, TheWorkedExampleOfTheFormats) {
    UaiNet net;
    net.card = {2, 2};
    net.factors = {{{0}, {0.4, 0.6}}, {{0, 1}, {1.0, 2.0, 3.0, 0.5}}};
    Solved s = solve(net, "two", "PR");
    ASSERT_EQ(s.code, 0) << s.err;
    EXPECT_EQ(s.text, "PR\n0.51851394\n");
    s = solve(net, "two", "PR", nullptr, {"--max-mb", "1"});
    EXPECT_EQ(s.err,
              "qzuai: junction tree (exact): its tables hold 4 entries (the largest 4), 3.052e-05 MB, within the budget "
              "of 1 MB (--max-mb)\n");
    EXPECT_EQ(solve(net, "two", "MAR").text, "MAR\n2 2 0.363636 0.636364 2 0.666667 0.333333\n");
    s = solve(net, "two", "MAP");
    EXPECT_EQ(s.text, "MAP\n2 1 0\n");
    EXPECT_EQ(s.err,
              "qzuai: MAP by max-product loopy belief propagation: the junction tree engine sums over joint states and "
              "gives no most probable one\n");
    // Observed variables are certain in MAR and kept in MAP.
    const Observed ev = {{1, 1}};
    EXPECT_EQ(solve(net, "two", "MAR", &ev).text, "MAR\n2 2 0.727273 0.272727 2 0 1\n");
    EXPECT_EQ(solve(net, "two", "MAP", &ev).text, "MAP\n2 0 1\n");
}

TEST(UaiSolve, JunctionTreeIsExactOnEveryKindOfNetwork) {
    const UaiNet loop = loopWithZeros(), bayes = bayesNet(), tree = treeNet(true);
    expectPrAndMar(loop, "jt_loop", {}, {}, 1e-8);
    expectPrAndMar(loop, "jt_loop_ev", {{3, 1}, {1, 0}}, {}, 1e-8);
    // Without evidence a Bayesian network has Z = 1; with it, Z is the
    // probability of the evidence.
    expectPrAndMar(bayes, "jt_bayes", {}, {"--alg", "JT"}, 1e-8);
    expectPrAndMar(bayes, "jt_bayes_ev", {{4, 1}, {0, 1}}, {"--alg", "JT"}, 1e-8);
    expectPrAndMar(tree, "jt_tree_ev", {{2, 0}}, {}, 1e-8);
}

TEST(UaiSolve, JunctionTreeOnADisconnectedNetwork) {
    UaiNet net;
    net.card = {2, 2, 2, 2, 3};
    net.factors = {{{0, 1}, {1, 2, 3, 4}}, {{2, 3}, {2, 1, 0.5, 1}}, {{4}, {1, 2, 3}}};
    expectPrAndMar(net, "disconnected", {}, {"--alg", "JT"}, 1e-8);
    expectPrAndMar(net, "disconnected_ev", {{3, 0}}, {"--alg", "JT"}, 1e-8);
}

// A chain of positive pairwise factors, and a loop of them.
UaiNet pairwiseNet(bool loop) {
    UaiNet net;
    net.card = {2, 3, 2, 3};
    net.factors = {{{0, 1}, table(6, 1)}, {{2, 1}, table(6, 2)}, {{2, 3}, table(6, 3)}, {{1}, table(3, 4)}};
    if (loop) net.factors.push_back({{3, 0}, table(6, 5)});
    return net;
}

TEST(UaiSolve, LoopyBeliefPropagationIsExactOnTrees) {
    const UaiNet chain = pairwiseNet(false);
    expectPrAndMar(chain, "lbp_chain", {}, {"--alg", "LBP"}, 1e-6);
    // The tool's own choice, once the budget forbids the junction tree.
    const Solved s = solve(chain, "lbp_budget", "PR", nullptr, {"--max-mb", "0"});
    ASSERT_EQ(s.code, 0) << s.err;
    EXPECT_EQ(s.err.rfind("qzuai: loopy belief propagation (approximate): the junction tree's tables hold ", 0), 0u) << s.err;
    EXPECT_NE(s.err.find(", beyond the budget of 0 MB (--max-mb)\n"), std::string::npos) << s.err;
    EXPECT_NEAR(resultNumbers(s.text, "PR").at(0), std::log10(chain.enumerate()), 1e-6);
}

// Zeros, the consistency of an added variable and evidence are all weights
// of minus infinity.
TEST(UaiSolve, LoopyBeliefPropagationIsExactOnTreesWithZerosAndEvidence) {
    expectPrAndMar(treeNet(false), "lbp_tree", {}, {"--alg", "LBP"}, 1e-6);
    expectPrAndMar(treeNet(true), "lbp_tree_zeros", {}, {"--alg", "LBP"}, 1e-6);
    expectPrAndMar(treeNet(true), "lbp_tree_zeros_ev", {{1, 2}, {3, 1}}, {"--alg", "LBP"}, 1e-6);
    expectPrAndMar(pairwiseNet(false), "lbp_chain_ev", {{1, 2}, {3, 1}}, {"--alg", "LBP"}, 1e-6);
}

TEST(UaiSolve, MaxProductFindsTheMostProbableState) {
    // Exact on a tree; on this small loop too, improved one variable at a time.
    expectMap(pairwiseNet(false), "map_chain", {});
    expectMap(pairwiseNet(true), "map_loop", {});
    expectMap(treeNet(false), "map_tree", {});
}

TEST(UaiSolve, MaxProductFindsTheMostProbableStateWithZerosAndEvidence) {
    expectMap(treeNet(true), "map_tree_zeros", {});
    expectMap(treeNet(true), "map_tree_zeros_ev", {{1, 1}, {4, 2}});
    expectMap(pairwiseNet(true), "map_loop_ev", {{2, 1}});
    expectMap(loopWithZeros(), "map_loop_zeros", {});
    expectMap(loopWithZeros(), "map_loop_zeros_ev", {{2, 1}});
    expectMap(bayesNet(), "map_bayes", {});
    expectMap(bayesNet(), "map_bayes_ev", {{4, 0}, {1, 1}});
}

TEST(UaiSolve, GibbsSamplingEstimatesMarginalsAndFindsTheBestState) {
    // A positive loop, and a network with zeros and evidence that the sampler
    // can still move through.
    UaiNet net;
    net.card = {2, 3, 2, 2};
    net.factors = {{{0, 1}, table(6, 1)}, {{1, 2}, table(6, 2)}, {{2, 3}, table(4, 3)}, {{3, 0}, table(4, 4)}};
    const std::vector<std::string> more = {"--alg", "GIBBS", "--sweeps", "20000", "--seed", "5"};
    std::vector<std::vector<double>> marg;
    net.enumerate(&marg);
    const Solved s = solve(net, "gibbs", "MAR", nullptr, more);
    ASSERT_EQ(s.code, 0) << s.err;
    EXPECT_EQ(s.err, "");
    std::vector<std::vector<double>> got;
    ASSERT_TRUE(parseMarginals(resultNumbers(s.text, "MAR"), got));
    for (size_t v = 0; v < got.size(); ++v)
        for (size_t x = 0; x < got[v].size(); ++x) EXPECT_NEAR(got[v][x], marg[v][x], 0.02) << v << " " << x;

    UaiNet zeros = net;
    zeros.factors[1].table = table(6, 2, 5, 1);
    const Observed ev = {{3, 1}};
    zeros.enumerate(&marg, ev);
    const Solved z = solve(zeros, "gibbs_zeros", "MAR", &ev, more);
    ASSERT_EQ(z.code, 0) << z.err;
    ASSERT_TRUE(parseMarginals(resultNumbers(z.text, "MAR"), got));
    for (size_t v = 0; v < got.size(); ++v)
        for (size_t x = 0; x < got[v].size(); ++x) EXPECT_NEAR(got[v][x], marg[v][x], 0.02) << v << " " << x;
    expectMap(zeros, "gibbs_map", ev, {"--alg", "GIBBS", "--sweeps", "2000"});
}

TEST(UaiSolve, RefusesWhatItCannotDoAndWritesNothing) {
    const UaiNet loop = loopWithZeros();
    const std::string out = tmpPath("solve_refused.MAR");
    struct Case {
        const char* task;
        std::vector<std::string> more;
        const char* evidence;
        std::string message;
    } cases[] = {
        {"MAP", {"--alg", "JT"}, nullptr,
         "--alg JT cannot solve MAP: the junction tree engine sums over joint states and gives no most probable one; "
         "use LBP (max-product) or GIBBS"},
        {"PR", {"--alg", "GIBBS"}, nullptr, "--alg GIBBS cannot solve PR: sampling gives no partition function; use JT or LBP"},
        {"MAR", {"--alg", "GIBBS"}, nullptr,
         "--alg GIBBS cannot sample this network: each factor over three or more variables fixes its variables "
         "together, and single-site Gibbs sampling cannot move them; use JT or LBP"},
        {"MAR", {}, "2\n1 0 1\n1 0 0\n", tmpPath("solve_refused.evid") + ": the file holds 2 samples of evidence; solve takes one"},
        // x2 = 0 and x3 = 2 has no joint state of positive potential: the
        // table of (x2, x3) is zero there.
        {"PR", {}, "2 2 0 3 2\n",
         "the junction tree gave a log partition function of -inf: the network with its evidence has probability zero"},
        // Belief propagation finds it too: x2 is left without a state.
        {"MAP", {}, "2 2 0 3 2\n",
         "belief propagation found every state of vertex 2 forbidden given the others: the model with its "
         "observations has probability zero"},
        {"MAR", {"--alg", "LBP"}, "2 2 0 3 2\n",
         "belief propagation found every state of vertex 2 forbidden given the others: the model with its "
         "observations has probability zero"},
    };
    const std::string uai = tmpPath("solve_refused.uai");
    writeFile(uai, loop.text());
    size_t i = 0;
    for (const Case& c : cases) {
        std::vector<std::string> args = {"solve", uai};
        if (c.evidence != nullptr) {
            writeFile(tmpPath("solve_refused.evid"), c.evidence);
            args.push_back(tmpPath("solve_refused.evid"));
        }
        args.insert(args.end(), {"--task", c.task, "-o", out});
        args.insert(args.end(), c.more.begin(), c.more.end());
        std::remove(out.c_str());
        const ProcessResult r = runProcess(QZ_QZUAI, args, "solve_refused" + std::to_string(i++));
        EXPECT_EQ(r.code, 1) << c.message;
        // The refusal is the last line; the choice of engine may precede it.
        const std::string last = "qzuai: " + c.message + "\n";
        ASSERT_GE(r.err.size(), last.size()) << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - last.size()), last);
        EXPECT_FALSE(std::ifstream(out).good()) << c.message;
    }
    // The table of (x2, x3) is indeed zero at (0, 2).
    EXPECT_EQ(loop.enumerate(nullptr, {{2, 0}, {3, 2}}), 0.0);
}

TEST(UaiSolve, CommandLine) {
    UaiNet net;
    net.card = {2, 2};
    net.factors = {{{0, 1}, {1.0, 2.0, 3.0, 0.5}}};
    const std::string uai = tmpPath("solve_cli.uai");
    writeFile(uai, net.text());
    auto run = [&](const std::vector<std::string>& args, const std::string& tag) {
        return runProcess(QZ_QZUAI, args, "solve_cli_" + tag);
    };
    EXPECT_EQ(run({"solve", uai}, "notask").code, 2);
    EXPECT_EQ(run({"solve", uai, "--task", "BEST"}, "badtask").code, 2);
    EXPECT_EQ(run({"solve", uai, "--task", "PR", "--alg", "BP"}, "badalg").code, 2);
    EXPECT_EQ(run({"solve", uai, "--task", "PR", "--iter", "0"}, "iter0").code, 2);
    EXPECT_EQ(run({"import", uai, tmpPath("solve_cli.qzm"), "--task", "PR"}, "importtask").code, 2);

    // Without -o the result goes to the model's file name with the task as
    // extension, in the current directory; an existing one is kept without -f.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    const std::string named = std::string(cwd) + "/tmp_solve_cli.uai.PR";
    std::remove(named.c_str());
    ProcessResult r = run({"solve", uai, "--task", "PR"}, "named");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NEAR(resultNumbers(readFile(named), "PR").at(0), std::log10(6.5), 1e-8);
    r = run({"solve", uai, "--task", "PR"}, "exists");
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.err, "qzuai: 'tmp_solve_cli.uai.PR' exists (use -f to overwrite)\n");
    writeFile(named, "keep");
    EXPECT_EQ(run({"solve", uai, "--task", "PR", "-f"}, "force").code, 0);
    EXPECT_NE(readFile(named), "keep");
    std::remove(named.c_str());
    // '-' is standard output.
    r = run({"solve", uai, "--task", "MAP", "-o", "-", "--alg", "LBP"}, "stdout");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "MAP\n2 1 0\n");
    EXPECT_EQ(r.err, "");
}

TEST(UaiSolve, PlanningFollowsTheExactEngine) {
    // A 6 x 6 grid of 3 states with a factor over three variables: the plan
    // counts the tables that the engine then allocates, and a limit below
    // them turns the model away.
    uai::FactorModel F;
    F.card.assign(36, 3);
    for (size_t r = 0; r < 6; ++r)
        for (size_t c = 0; c < 6; ++c) {
            const size_t v = r * 6 + c;
            if (c + 1 < 6) F.factors.push_back({{v, v + 1}, table(9, v), 0});
            if (r + 1 < 6) F.factors.push_back({{v, v + 6}, table(9, v + 1), 0});
        }
    F.factors.push_back({{0, 14, 35}, table(27, 7), 0});
    const uai::PairModel M = uai::toPairwise(F, nullptr, true);
    const uai::TablePlan all = uai::exactTableEntries(M);
    ASSERT_TRUE(all.complete);
    EXPECT_GE(all.total, 2 * all.largest);
    // The engine's tables: the cliques of its tree.
    QZ::Graph<size_t>* G = nullptr;
    {
        size_t* A = (size_t*)std::calloc(2 * M.edges.size() + 1, sizeof(size_t));
        for (size_t e = 0; e < M.edges.size(); ++e) {
            A[2 * e] = M.edges[e].first;
            A[2 * e + 1] = M.edges[e].second;
        }
        G = new QZ::Graph<size_t>(true, A, M.n(), M.edges.size());
    }
    std::vector<double> w = M.w;
    {
        QZ::HuginAlgorithm<size_t, double> H(G, M.Y.data(), nullptr, w.data());
        EXPECT_EQ((double)H.numW, all.total);
    }
    delete G;
    const uai::TablePlan atTotal = uai::exactTableEntries(M, all.total);
    EXPECT_TRUE(atTotal.complete);
    EXPECT_EQ(atTotal.total, all.total);
    const uai::TablePlan below = uai::exactTableEntries(M, all.total - 1);
    EXPECT_FALSE(below.complete);
}
