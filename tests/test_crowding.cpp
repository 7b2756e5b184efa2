// Teams give way when they would be slower than one thread: when other work
// is runnable on the machine, when their threads are kept from running, and
// when the leader alone does the passes faster than the team. The judgements
// here are fed with times of the test's own choosing, or with processes and
// threads that spin or sleep, so that they do not depend on the machine.
#include <gtest/gtest.h>
#include <qz_graph_util.h>

#include <QZ/bp/loopy>
#include <QZ/team/crowding>
#include <QZ/team/region_clock>
#include <QZ/team/pass_team>

#include <omp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

using QZ::detail::Crowding;
using QZ::detail::PassTimes;

constexpr long long ms = 1000000;

// Processes that spin until the object goes.
struct Spinners {
    std::vector<pid_t> pids;
    explicit Spinners(int n) {
        for (int i = 0; i < n; ++i) {
            const pid_t p = fork();
            if (p == 0) {
                volatile unsigned long x = 0;
                for (;;) x = x + 1;
            }
            if (p > 0) pids.push_back(p);
        }
    }
    ~Spinners() {
        for (pid_t p : pids) kill(p, SIGKILL);
        for (pid_t p : pids) waitpid(p, nullptr, 0);
    }
};

// The tests of the process-wide judgement switch it on, and off again after.
struct CrowdedMachine : ::testing::Test {
    void SetUp() override { QZ::detail::crowding().setWatch(true); }
    void TearDown() override { QZ::detail::crowding().setWatch(false); }
};

}  // namespace

TEST(Crowding, WorkTooShortIsNotJudgedAndAddsUp) {
    Crowding c;
    const long long t = 1000 * ms;
    c.report(2 * ms, 2 * ms, t);  // all of it kept, but only 2 ms
    EXPECT_FALSE(c.crowded(t));
    c.report(5 * ms, 0, t);  // 7 ms
    EXPECT_FALSE(c.crowded(t));
    c.report(1 * ms, 1 * ms, t);  // 8 ms, 3 kept: more than a third
    EXPECT_TRUE(c.crowded(t));
    EXPECT_EQ(c.backoff(), 50 * ms);
}

TEST(Crowding, AThirdKeptIsNotCrowdedMoreIs) {
    Crowding c;
    const long long t = 1000 * ms;
    c.report(9 * ms, 3 * ms, t);
    EXPECT_FALSE(c.crowded(t));
    EXPECT_EQ(c.backoff(), 0);
    c.report(9 * ms, 3 * ms + 1, t);
    EXPECT_TRUE(c.crowded(t));
}

TEST(Crowding, BackOffLastsItsTimeAndDoublesUpToALimit) {
    Crowding c;
    long long t = 1000 * ms;
    c.crowd(t);
    EXPECT_TRUE(c.crowded(t + 50 * ms - 1));
    EXPECT_FALSE(c.crowded(t + 50 * ms));
    long long expect = 50 * ms;
    for (int i = 0; i < 10; ++i) {
        t += 10000 * ms;
        c.crowd(t);
        expect = std::min(2 * expect, 6400 * ms);
        EXPECT_EQ(c.backoff(), expect) << i;
        EXPECT_TRUE(c.crowded(t + expect - 1));
        EXPECT_FALSE(c.crowded(t + expect));
    }
    EXPECT_EQ(c.backoff(), 6400 * ms);
}

TEST(Crowding, ATeamUndisturbedEndsTheBackOff) {
    Crowding c;
    long long t = 1000 * ms;
    c.crowd(t);
    c.crowd(t);
    EXPECT_EQ(c.backoff(), 100 * ms);
    t += 200 * ms;
    c.report(8 * ms, 1 * ms, t);
    EXPECT_EQ(c.backoff(), 0);
    c.crowd(t);
    EXPECT_EQ(c.backoff(), 50 * ms);
}

TEST(Crowding, UnwatchedNothingIsCrowded) {
    Crowding c;
    c.setWatch(false);
    const long long now = QZ::detail::clockNanos(CLOCK_MONOTONIC);
    c.crowd(now);
    EXPECT_FALSE(c.crowded(now));
    EXPECT_EQ(c.freeFor(2), 2);
    EXPECT_EQ(c.freeFor(7), 7);
    c.setWatch(true);
    EXPECT_FALSE(c.crowded(now));  // switching clears the judgements
}

// Processes that spin are other work; with as many as the machine has cores,
// a team of two gets one thread, once two readings saw them.
TEST(Crowding, SpinningProcessesAreOtherWork) {
    const int procs = omp_get_num_procs();
    Spinners spin(procs);
    ASSERT_EQ((int)spin.pids.size(), procs);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_GE(Crowding().otherRunnable(), procs);
    Crowding c;
    c.freeFor(2);
    std::this_thread::sleep_for(std::chrono::milliseconds(6));
    EXPECT_EQ(c.freeFor(2), 1);
    EXPECT_EQ(c.freeFor(1), 1);
}

// A thread of the process's own teams that spins is not other work: counted
// by a judge that knows it, it is one less than by a judge that does not.
TEST(Crowding, ATeamThreadOfOursIsNotOtherWork) {
    Crowding knows, blind;
    std::atomic<bool> stop(false), noted(false);
    std::thread helper([&] {
        knows.noteTeamThread();
        noted = true;
        volatile unsigned long x = 0;
        while (!stop.load(std::memory_order_relaxed)) x = x + 1;
    });
    while (!noted) std::this_thread::yield();
    double a = 0, b = 0;
    const int rounds = 200;
    for (int i = 0; i < rounds; ++i) {
        a += knows.otherRunnable();
        b += blind.otherRunnable();
    }
    stop = true;
    helper.join();
    // Other programs come and go in both readings alike.
    EXPECT_GT((b - a) / rounds, 0.5);
    EXPECT_LT((b - a) / rounds, 1.5);
}

// The runtime's pool threads that serve the caller's regions are recorded by
// the judge the first time it is asked for a team: one of them spinning in a
// region is not other work for it, as it is for a judge that never was asked.
TEST(Crowding, ThePoolThreadsOfTheCallerAreNotOtherWork) {
    Crowding knows, blind;
    knows.freeFor(2);
    std::atomic<bool> stop(false);
    double a = 0, b = 0;
    const int rounds = 200;
#pragma omp parallel num_threads(2) shared(stop, a, b)
    {
        if (omp_get_thread_num() == 1) {
            volatile unsigned long x = 0;
            while (!stop.load(std::memory_order_relaxed)) x = x + 1;
        } else {
            for (int i = 0; i < rounds; ++i) {
                a += knows.otherRunnable();
                b += blind.otherRunnable();
            }
            stop = true;
        }
    }
    EXPECT_GT((b - a) / rounds, 0.5);
    EXPECT_LT((b - a) / rounds, 1.5);
}

// The leader keeps to the faster way: alone when its passes take half the
// team's time, with the team when the team's take half; a trial of the other
// way now and then costs few passes, and a change is followed.
TEST(PassTimes, KeepsToTheFasterWayAndFollowsAChange) {
    PassTimes t;
    auto run = [&](int passes, long long team, long long alone) {
        int byAlone = 0;
        for (int p = 0; p < passes; ++p) {
            const bool a = t.alone();
            byAlone += a;
            // Two kinds of pass, the second three times as long.
            const long long f = (p % 2) ? 3 : 1;
            t.record((unsigned)(p % 2), f * (a ? alone : team));
        }
        return byAlone;
    };
    // The team first, then a trial alone, then the faster.
    EXPECT_EQ(run(PassTimes::kWarm + PassTimes::kTrial, 100, 50), 0);
    EXPECT_EQ(run(PassTimes::kWarm + PassTimes::kTrial, 100, 50), (int)(PassTimes::kWarm + PassTimes::kTrial));
    EXPECT_TRUE(t.alone());
    const int n = 20 * (int)PassTimes::kBetween;
    int alone = run(n, 100, 50);
    EXPECT_GE(alone, n - 20 * (int)(PassTimes::kWarm + PassTimes::kTrial) - 40);
    EXPECT_TRUE(t.alone());
    // The team becomes the faster: followed within a stretch and a trial.
    alone = run((int)(PassTimes::kBetween + PassTimes::kWarm + PassTimes::kTrial), 30, 50);
    EXPECT_FALSE(t.alone());
    alone = run(n, 30, 50);
    EXPECT_LE(alone, 20 * (int)(PassTimes::kWarm + PassTimes::kTrial) + 40);
}

// A way that becomes slower than the other was is tried against it within a
// few passes, not after the stretch between trials; a single pass held up
// does not start a trial.
TEST(PassTimes, AWayThatBecomesSlowerIsTriedAgainstTheOtherAtOnce) {
    PassTimes t;
    const unsigned stretch = PassTimes::kWarm + PassTimes::kTrial;
    for (unsigned p = 0; p < stretch; ++p) t.record(0, 100);  // the team
    for (unsigned p = 0; p < stretch; ++p) t.record(0, 50);   // alone: faster
    ASSERT_TRUE(t.alone());
    for (unsigned p = 0; p < 100; ++p) {
        ASSERT_TRUE(t.alone()) << p;
        t.record(0, p % 10 == 0 ? 400 : 50);
    }
    // Alone now takes three times as long: within a few passes the team is
    // tried, and kept.
    unsigned p = 0;
    while (t.alone() && p < 10) {
        t.record(0, 150);
        ++p;
    }
    EXPECT_LT(p, 10u);
    for (unsigned q = 0; q < stretch; ++q) t.record(0, 100);
    EXPECT_FALSE(t.alone());
}

// Timing noise in the passes right after a change of way is not taken.
TEST(PassTimes, ThePassesAfterAChangeAreNotTimed) {
    PassTimes t;
    // The team: its first passes are slow (cold), then fast.
    for (unsigned p = 0; p < PassTimes::kWarm + PassTimes::kTrial; ++p) t.record(0, p < PassTimes::kWarm ? 1000 : 40);
    ASSERT_TRUE(t.alone());
    // Alone: its first passes are slow too, then a little slower than the team.
    for (unsigned p = 0; p < PassTimes::kWarm + PassTimes::kTrial; ++p) t.record(0, p < PassTimes::kWarm ? 1000 : 60);
    EXPECT_FALSE(t.alone());
}

// A team whose helper is slow: the leader, timing the passes, takes them on
// alone, and every item of every pass is still done exactly once.
TEST(PassTimes, ALeaderFasterThanItsTeamGoesAlone) {
    const size_t n = 64;
    std::vector<std::atomic<int>> hits(n);
    for (auto& h : hits) h.store(0);
    PassTimes times;
    QZ::detail::PassTeam team;
    team.follow(&times);
    long bad = 0;
    int aloneAtEnd = 0;
    std::atomic<int> helperChunks(0);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
#pragma omp parallel num_threads(2) reduction(+ : bad)
    {
        const bool leader = omp_get_thread_num() == 0;
        auto work = [&](const unsigned&, const size_t& lo, const size_t& hi) {
            if (!leader) {
                // Busy, not asleep: a helper that is slow, not one kept
                // from running.
                helperChunks.fetch_add(1);
                const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(300);
                while (std::chrono::steady_clock::now() < until) {
                }
            }
            for (size_t i = lo; i < hi; ++i) hits[i].fetch_add(1);
        };
        if (leader) {
            for (int p = 0; p < 200; ++p) {
                team.lead(0, n, 4, work);
                for (size_t i = 0; i < n; ++i) {
                    if (hits[i].load() != 1) ++bad;
                    hits[i].store(0);
                }
            }
            aloneAtEnd = times.alone();
            team.stop();
        } else {
            team.help(work);
        }
    }
    omp_set_num_threads(saved);
    EXPECT_EQ(bad, 0);
    // On a machine so busy that the helper was kept from running, the
    // leader went on alone for that reason instead.
    EXPECT_TRUE(aloneAtEnd == 1 || team.contended());
    // The helper took part in the first stretch and in the trials only.
    EXPECT_LE(helperChunks.load(), 4 * (int)(PassTimes::kWarm + PassTimes::kTrial));
}

// A thread of a plain region kept from running (here: asleep) for more than
// a third of the region's working time makes the machine crowded, and loops
// then take one thread until the back-off ends.
TEST_F(CrowdedMachine, ARegionWhoseThreadIsKeptJudgesTheMachineCrowded) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
    {
        QZ::detail::RegionClock clock;
#pragma omp parallel num_threads(2) shared(clock)
        {
            const long long cpu0 = clock.enter();
            if (omp_get_thread_num() == 1) std::this_thread::sleep_for(std::chrono::milliseconds(12));
            clock.leave(cpu0);
        }
    }
    EXPECT_TRUE(QZ::detail::crowding().crowded());
    EXPECT_EQ(QZ::detail::threadsFor((size_t)1 << 40), 1);
    QZ::detail::crowding().setWatch(false);
    EXPECT_EQ(QZ::detail::threadsFor((size_t)1 << 40), 2);
    omp_set_num_threads(saved);
}

// Sampling's shares keep their team on a crowded machine, since its draws
// depend on the team; the other loops take one thread.
TEST_F(CrowdedMachine, SharesKeepTheirTeamWhenCrowded) {
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
    QZ::detail::crowding().crowd();
    EXPECT_EQ(QZ::detail::threadsFor((size_t)1 << 40), 1);
    EXPECT_EQ(QZ::detail::threadsForShares((size_t)1 << 40), 2);
    EXPECT_EQ(QZ::detail::threadsForShares(QZ::detail::threadWork - 1), 1);
    omp_set_num_threads(saved);
}

// Loopy belief propagation on a crowded machine runs on one thread and gives
// the same bits as its team.
TEST_F(CrowdedMachine, ACrowdedRunGivesTheBitsOfATeam) {
    const size_t L = 80;
    const qztest::EdgeList el = qztest::squareGrid(L);
    auto G = qztest::makeGraph<unsigned>(L * L, el);
    std::vector<unsigned> Y(L * L, 3);
    std::vector<double> w(el.size() * 9);
    std::mt19937 g(5);
    std::uniform_real_distribution<double> U(-1, 1);
    for (double& x : w) x = U(g);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(2);
    auto run = [&](std::vector<double>& marg) {
        QZ::LBP<unsigned, double> bp(G.get(), Y.data(), nullptr, w.data(), false);
        bp.setEpsilon(-1);
        bp.setMaxIter(30);
        bp.infer(0);
        marg.clear();
        for (unsigned v = 0; v < L * L; v += 7)
            for (unsigned x = 0; x < 3; ++x) {
                double q = 0, Z = 0;
                bp.vertex_marginal(v, x, q, Z);
                marg.push_back(q / Z);
            }
        marg.push_back(bp.A());
    };
    std::vector<double> crowded, team;
    QZ::detail::crowding().crowd();
    ASSERT_EQ(QZ::detail::threadsFor((size_t)1 << 40), 1);
    run(crowded);
    QZ::detail::crowding().setWatch(false);
    ASSERT_EQ(QZ::detail::threadsFor((size_t)1 << 40), 2);
    run(team);
    omp_set_num_threads(saved);
    ASSERT_EQ(crowded.size(), team.size());
    EXPECT_EQ(std::memcmp(crowded.data(), team.data(), team.size() * sizeof(double)), 0);
}
