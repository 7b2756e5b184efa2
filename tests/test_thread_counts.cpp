// Work too small for a team runs on the calling thread, larger work is shared:
// either way, and with one thread or two, the gradient, the Bethe value, the
// counts of a table and the messages come out the same bit for bit.
#include <gtest/gtest.h>
#include <qz_graph_util.h>

#include <QZ/graph/core>
#include <QZ/bp/loopy>
#include <QZ/team/pass_team>
#include <QZ/mrf/model>
#include <QZ/mrf/stats>
#include <QZ/QZDATA>

#include <omp.h>

#include <atomic>
#include <cstring>
#include <sstream>
#include <string>
#include <random>
#include <vector>

namespace {

using qztest::EdgeList;

struct GradientRun {
    std::vector<double> g;
    double nrm = 0, A = 0, f = 0;
};

// The gradient of the plain model at random weights against random
// frequencies, with the given number of threads.
GradientRun gradient(size_t L, unsigned states, int threads) {
    const EdgeList el = qztest::squareGrid(L);
    auto G = qztest::makeGraph<unsigned>(L * L, el);
    std::vector<unsigned> Y(L * L, states);
    const size_t d = el.size() * states * states;
    std::vector<double> w(d), emp(d);
    std::mt19937 g(9);
    std::uniform_real_distribution<double> U(-1, 1), P(0, 1);
    for (double& x : w) x = U(g);
    for (double& x : emp) x = P(g);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(threads);
    QZ::LBP<unsigned, double> bp(G.get(), Y.data(), nullptr, w.data(), false);
    bp.setEpsilon(-1);
    bp.setMaxIter(8);
    QZ::MRF<unsigned, double> f(&bp);
    double* e = emp.data();
    f.set_empirical(e, 10);
    GradientRun r;
    const double* gr = f.comp_gradient();
    r.g.assign(gr, gr + d);
    r.nrm = f.get_gradient_norm();
    r.A = bp.A();
    r.f = f.eval();
    omp_set_num_threads(saved);
    return r;
}

void expectSameBits(const GradientRun& a, const GradientRun& b) {
    ASSERT_EQ(a.g.size(), b.g.size());
    EXPECT_EQ(std::memcmp(a.g.data(), b.g.data(), a.g.size() * sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(&a.nrm, &b.nrm, sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(&a.A, &b.A, sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(&a.f, &b.f, sizeof(double)), 0);
}

}  // namespace

// One thread and two give the same bits, and the norm is the largest
// magnitude of the gradient.
static void expectSameGradient(size_t L, unsigned states) {
    const GradientRun one = gradient(L, states, 1), two = gradient(L, states, 2);
    expectSameBits(one, two);
    double m = 0;
    for (double x : one.g) m = std::max(m, std::fabs(x));
    EXPECT_EQ(one.nrm, m);
}

TEST(ThreadCounts, SmallGradientIsTheSameOnOneThreadOrTwo) {
    // 5 x 5 with two states: far below the work that pays for a team.
    expectSameGradient(5, 2);
}

TEST(ThreadCounts, LargeGradientIsTheSameOnOneThreadOrTwo) {
    // 60 x 60 with three states: the edges are shared among the threads.
    expectSameGradient(60, 3);
}

TEST(ThreadCounts, PairCountsAreTheSameOnOneThreadOrTwo) {
    // Enough columns that a row's pairs are shared among the threads.
    const size_t n = 200, N = 30;
    std::vector<unsigned> Y(n);
    std::vector<std::vector<std::string>*> names;
    for (size_t j = 0; j < n; ++j) {
        Y[j] = 2 + (unsigned)(j % 3);
        names.push_back(new std::vector<std::string>());
        for (unsigned s = 0; s < Y[j]; ++s) names.back()->push_back(std::to_string(s));
    }
    std::mt19937 g(3);
    std::vector<std::vector<unsigned>> rows(N, std::vector<unsigned>(n));
    std::ostringstream text;
    for (size_t j = 0; j < n; ++j) text << (j ? "," : "") << "c" << j;
    text << "\n";
    for (size_t j = 0; j < n; ++j) text << (j ? "," : "") << "0";  // the line the reader drops
    text << "\n";
    for (size_t i = 0; i < N; ++i) {
        for (size_t j = 0; j < n; ++j) {
            rows[i][j] = std::uniform_int_distribution<unsigned>(0, Y[j] - 1)(g);
            text << (j ? "," : "") << rows[i][j];
        }
        text << "\n";
    }
    std::vector<std::vector<double>> runs;
    for (int threads : {1, 2}) {
        const int saved = omp_get_max_threads();
        omp_set_num_threads(threads);
        QZ::CategoricalCSVData D(true, '?', false, &names);
        std::istringstream in(text.str());
        D.read(in);
        ASSERT_EQ(D.size(), N);
        QZ::Graph<unsigned> G((unsigned)n, 0);
        std::mt19937 r(1);
        double* E = nullptr;
        unsigned* woff = nullptr;
        unsigned odim = 0, sdim = 0;
        ASSERT_TRUE((QZ::configureStats<unsigned, double>(&D, &G, Y.data(), &r, 2, E, woff, odim, sdim, nullptr)));
        runs.push_back(std::vector<double>(E, E + sdim));
        // The single columns, last first, hold the counts of their states;
        // each pair's block adds up to the number of rows.
        for (size_t j = 0; j < n; ++j)
            for (unsigned s = 0; s < Y[n - 1 - j]; ++s) {
                double c = 0;
                for (size_t i = 0; i < N; ++i) c += rows[i][n - 1 - j] == s;
                ASSERT_EQ(E[woff[j] + s], c) << j << " " << s;
            }
        const size_t n2 = n * (n - 1) / 2;
        for (size_t j = 0; j < n2; ++j) {
            double s = 0;
            for (unsigned k = woff[n + j]; k < woff[n + j + 1]; ++k) s += E[k];
            ASSERT_EQ(s, (double)N);
        }
        delete[] E;
        delete[] woff;
        omp_set_num_threads(saved);
    }
    for (auto* v : names) delete v;
    EXPECT_EQ(runs[0], runs[1]);
}

// The passes of a team: every item of every pass is done exactly once, by
// the kind of the pass, whatever thread takes it, over passes of many sizes
// and chunk sizes (empty passes and passes of one chunk included); and
// every team is stopped.
TEST(ThreadCounts, EveryItemOfATeamsPassIsDoneOnce) {
    const size_t most = 3000;
    std::vector<std::atomic<int>> hits(most);
    for (auto& h : hits) h.store(0);
    std::atomic<unsigned> kindNow(0);
    std::atomic<long> wrongKind(0);
    for (int threads : {1, 2, 3}) {
        QZ::detail::PassTeam team;
        long bad = 0;
#pragma omp parallel num_threads(threads) reduction(+ : bad)
        {
            auto work = [&](const unsigned& k, const size_t& lo, const size_t& hi) {
                if (k != kindNow.load()) wrongKind.fetch_add(1);
                for (size_t i = lo; i < hi; ++i) hits[i].fetch_add(1);
            };
            if (omp_get_thread_num() == 0) {
                for (unsigned p = 0; p < 3000; ++p) {
                    const size_t n = (p * 7919u) % most, c = 1 + (p * 31u) % 257;
                    kindNow.store(p % 11);
                    team.lead(p % 11, n, c, work);
                    for (size_t i = 0; i < most; ++i) {
                        if (hits[i].load() != (i < n ? 1 : 0)) ++bad;
                        hits[i].store(0);
                    }
                }
                team.stop();
            } else {
                team.help(work);
            }
        }
        EXPECT_EQ(bad, 0) << threads << " threads";
    }
    EXPECT_EQ(wrongKind.load(), 0);
}
