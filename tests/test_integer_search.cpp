// The integer search methods under the optimizer frame: bit-flip mutation of
// the (1+1) evolutionary search and the block steps of the coordinate search.
#include <gtest/gtest.h>

#include <QZ/opt/function>
#include <QZ/opt/optimizer>
#include <QZ/opt/search>

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <vector>

namespace {

// A point of d integer weights whose mismatch is whatever the test says, and
// whose direction is a fixed vector.
template <typename T> struct StubF : QZ::Function<T, T> {
    std::vector<T> x;
    std::function<T(const std::vector<T>&)> norm;
    std::vector<std::vector<T>> evaluated;
    explicit StubF(const T& d) : QZ::Function<T, T>(d), x(d, 0), norm([](const std::vector<T>&) { return (T)0; }) {}
    void decode_weights() override {}
    T* current_point() override { return x.data(); }
    T eval() override { return this->g_nrm; }
    T* comp_gradient() override {
        evaluated.push_back(x);
        this->g_nrm = norm(x);
        return this->g;
    }
    void direction(const std::vector<T>& g) {
        for (size_t i = 0; i < g.size(); ++i) this->g[i] = g[i];
    }
};

// Each update records the point it starts from.
template <typename T> struct RecordingEA11 : QZ::EA11<T, T> {
    std::vector<std::vector<T>> starts;
    explicit RecordingEA11(const T& k) : QZ::EA11<T, T>(k) {}
    void update(QZ::Function<T, T>* f, QZ::OptState<T, T>& o) override {
        T* x = f->current_point();
        starts.push_back(std::vector<T>(x, x + f->dim()));
        QZ::EA11<T, T>::update(f, o);
    }
};

template <typename T> struct RecordingIntGD : QZ::IntGD<T, T> {
    std::vector<std::vector<T>> starts;
    RecordingIntGD(const T* g, const T& ng, const T& k) : QZ::IntGD<T, T>(g, ng, k) {}
    void update(QZ::Function<T, T>* f, QZ::OptState<T, T>& o) override {
        T* x = f->current_point();
        starts.push_back(std::vector<T>(x, x + f->dim()));
        QZ::IntGD<T, T>::update(f, o);
    }
};

template <typename T> T* blocks(const std::vector<T>& starts) {
    T* g = new T[starts.size()];
    for (size_t i = 0; i < starts.size(); ++i) g[i] = starts[i];
    return g;
}

size_t popcount(uint64_t x) { return (size_t)__builtin_popcountll(x); }

}  // namespace

// ---------------------------------------------------------------- EA11

TEST(EA11, BitsPerWeightFollowTheRange) {
    EXPECT_EQ((QZ::EA11<unsigned int, unsigned int>(4).b), 2u);  // the default KXX
    EXPECT_EQ((QZ::EA11<unsigned int, unsigned int>(2).b), 1u);
    EXPECT_EQ((QZ::EA11<unsigned int, unsigned int>(5).b), 3u);
    EXPECT_EQ((QZ::EA11<unsigned char, unsigned char>(255).b), 8u);
    EXPECT_EQ((QZ::EA11<unsigned long, unsigned long>(1ul << 33).b), 33u);
    QZ::EA11<unsigned short, unsigned short> O(9);
    EXPECT_EQ(O.b, 4u);
    EXPECT_EQ(O.k, 9u);
    EXPECT_EQ(O.flip, nullptr);
    EXPECT_EQ(O.ldim, 0u);
}

TEST(EA11, RangeOfOneHasNoBitToFlip) {
    // log(0) leaves no meaningful bit count: none is used, and a step makes
    // no change (the only value below 1 is 0).
    QZ::EA11<unsigned int, unsigned int> O(1);
    EXPECT_EQ(O.b, 0u);
    StubF<unsigned int> f(5);
    std::mt19937 eng(3);
    O.setRandEng(&eng);
    QZ::OptState<unsigned int, unsigned int> o{};
    for (int i = 0; i < 50; ++i) O.update(&f, o);
    EXPECT_EQ(f.x, std::vector<unsigned int>(5, 0));
}

TEST(EA11, FlipsThatLeaveTheRangeAreDropped) {
    // k = 5, b = 3, one weight: each bit flips with probability 1/3, in the
    // order of the bits, and a result of 5 or more is not taken. From 1:
    //   none, or only bit 2 (1 ^ 4 = 5 dropped): 1    8/27 + 4/27
    //   only bit 0: 0                                 4/27
    //   bit 1, with or without bit 2 (3 ^ 4 = 7):   3  4/27 + 2/27
    //   bits 0 and 1 (then 2 ^ 4 = 6 dropped): 2       2/27 + 1/27
    //   bits 0 and 2: 0 ^ 4 = 4                        2/27
    const std::map<unsigned, double> expected = {{0, 4.0 / 27}, {1, 12.0 / 27}, {2, 3.0 / 27}, {3, 6.0 / 27},
                                                 {4, 2.0 / 27}};
    QZ::EA11<unsigned int, unsigned int> O(5);
    StubF<unsigned int> f(1);
    std::mt19937 eng(11);
    O.setRandEng(&eng);
    QZ::OptState<unsigned int, unsigned int> o{};
    std::map<unsigned, double> seen;
    const int trials = 54000;
    for (int i = 0; i < trials; ++i) {
        f.x[0] = 1;
        O.update(&f, o);
        seen[f.x[0]] += 1.0 / trials;
    }
    EXPECT_EQ(seen.size(), expected.size());
    for (const auto& kv : expected) EXPECT_NEAR(seen[kv.first], kv.second, 0.01) << kv.first;
    for (const auto& kv : seen) EXPECT_LT(kv.first, 5u);
}

TEST(EA11, OneBitFlipsPerStepOnAverage) {
    // k = 256 and 8 bits: no flip can leave the range.
    QZ::EA11<unsigned long, unsigned long> O(256);
    StubF<unsigned long> f(40);
    std::mt19937 eng(17);
    O.setRandEng(&eng);
    QZ::OptState<unsigned long, unsigned long> o{};
    size_t flips = 0;
    const int steps = 4000;
    for (int i = 0; i < steps; ++i) {
        const std::vector<unsigned long> before = f.x;
        O.update(&f, o);
        for (size_t j = 0; j < 40; ++j) flips += popcount(before[j] ^ f.x[j]);
    }
    EXPECT_EQ(O.ldim, 40u);
    ASSERT_NE(O.flip, nullptr);
    EXPECT_DOUBLE_EQ(O.flip->p(), 1.0 / 320);
    EXPECT_NEAR((double)flips / steps, 1.0, 0.05);
}

TEST(EA11, CoinFollowsTheDimension) {
    QZ::EA11<unsigned int, unsigned int> O(4);
    std::mt19937 eng(2);
    O.setRandEng(&eng);
    QZ::OptState<unsigned int, unsigned int> o{};
    StubF<unsigned int> f(10), h(3);
    O.update(&f, o);
    EXPECT_EQ(O.ldim, 10u);
    EXPECT_DOUBLE_EQ(O.flip->p(), 1.0 / 20);
    O.update(&h, o);
    EXPECT_EQ(O.ldim, 3u);
    EXPECT_DOUBLE_EQ(O.flip->p(), 1.0 / 6);
}

TEST(EA11, BitsAboveThirtyOneAreOutOfReach) {
    // k = 2^33 gives 33 bits, yet bit j = 32 flips bit 0 again: no value of
    // 2^32 or more ever comes up, though all of them are in range.
    QZ::EA11<unsigned long, unsigned long> O(1ul << 33);
    ASSERT_EQ(O.b, 33u);
    StubF<unsigned long> f(2);
    std::mt19937 eng(23);
    O.setRandEng(&eng);
    QZ::OptState<unsigned long, unsigned long> o{};
    uint64_t seenBits = 0;
    for (int i = 0; i < 5000; ++i) {
        O.update(&f, o);
        seenBits |= f.x[0] | f.x[1];
    }
    EXPECT_EQ(seenBits >> 32, 0u);
    // All 32 low bits did get flipped at some point.
    EXPECT_EQ(seenBits, 0xffffffffull);
}

TEST(EA11, UnderTheFrameAWorseMutationIsUndoneAtOnce) {
    // The mismatch is the distance to a target; with elite every step starts
    // from the best point met so far.
    StubF<unsigned int> f(6);
    const std::vector<unsigned int> target = {3, 0, 2, 1, 3, 2};
    f.norm = [&target](const std::vector<unsigned int>& x) {
        unsigned int d = 0;
        for (size_t i = 0; i < x.size(); ++i) d += x[i] > target[i] ? x[i] - target[i] : target[i] - x[i];
        return d;
    };
    RecordingEA11<unsigned int> O(4);
    std::mt19937 eng(31);
    O.setRandEng(&eng);
    const unsigned int best = O.opt(&f, nullptr, nullptr, nullptr, 300, 0, true, 0, 0);
    ASSERT_EQ(O.starts.size(), 300u);
    // evaluated[0] is the start, evaluated[i + 1] the result of update i.
    std::vector<unsigned int> bestPoint = f.evaluated[0];
    unsigned int bestNorm = (unsigned int)-1;
    for (size_t i = 0; i < O.starts.size(); ++i) {
        EXPECT_EQ(O.starts[i], i == 0 ? f.evaluated[0] : bestPoint) << "step " << i;
        const unsigned int n = f.norm(f.evaluated[i + 1]);
        if (n < bestNorm) {
            bestNorm = n;
            bestPoint = f.evaluated[i + 1];
        }
    }
    EXPECT_EQ(best, bestNorm);
    EXPECT_EQ(best, 0u);
    EXPECT_EQ(f.x, target);
}

// ---------------------------------------------------------------- IntGD

TEST(IntGD, StepsFollowTheDirectionWithinTheRange) {
    // One block of six weights, so the block is always the same.
    StubF<unsigned short> f(6);
    f.x = {0, 2, 3, 1, 0, 3};
    const unsigned short down = (unsigned short)-1;
    f.direction({1, down, 1, 0, 7, down});
    QZ::IntGD<unsigned short, unsigned short> O(blocks<unsigned short>({0, 6}), 1, 4);
    std::mt19937 eng(1);
    O.setRandEng(&eng);
    QZ::OptState<unsigned short, unsigned short> o{};
    O.update(&f, o);
    // 0 up to 1; 2 down to 1; 3 stays at the top; 1 has no direction; a
    // direction of 7 is none; 3 down to 2.
    EXPECT_EQ(f.x, (std::vector<unsigned short>{1, 1, 3, 1, 0, 2}));
    EXPECT_EQ(O.ldim, 6u);
    EXPECT_EQ(O.group, 0u);
}

TEST(IntGD, LoweringAWeightAtZeroRaisesTheRestOfItsBlock) {
    StubF<unsigned int> f(5);
    f.x = {0, 3, 1, 2, 0};
    const unsigned int down = (unsigned int)-1;
    f.direction({down, 0, 0, 0, 0});
    QZ::IntGD<unsigned int, unsigned int> O(blocks<unsigned int>({0, 5}), 1, 4);
    std::mt19937 eng(1);
    O.setRandEng(&eng);
    QZ::OptState<unsigned int, unsigned int> o{};
    O.update(&f, o);
    // The others go up by one where they stay below 4; the weight itself
    // stays at 0.
    EXPECT_EQ(f.x, (std::vector<unsigned int>{0, 3, 2, 3, 1}));
    // Changes take effect at once: a later entry sees the raised values.
    f.x = {1, 0, 2};
    f.x.resize(5, 0);
    f.direction({down, down, down, 0, 0});
    O.update(&f, o);
    // j = 0: 1 -> 0. j = 1: at 0, raises 0, 2, 3, 4 -> {1, 0, 3, 1, 1}.
    // j = 2: 3 -> 2.
    EXPECT_EQ(f.x, (std::vector<unsigned int>{1, 0, 2, 1, 1}));
}

TEST(IntGD, OnlyOneBlockChangesPerStepAndBlocksEndAtTheDimension) {
    // Blocks of 4, 6 and 9 weights, the last ending at d = 19.
    StubF<unsigned long> f(19);
    std::vector<unsigned long> g(19, 1);
    f.direction(g);
    QZ::IntGD<unsigned long, unsigned long> O(blocks<unsigned long>({0, 4, 10, 19}), 3, 1000);
    EXPECT_EQ(O.num_groups, 3u);
    EXPECT_EQ(O.groups[3], 19u);
    std::mt19937 eng(9);
    O.setRandEng(&eng);
    QZ::OptState<unsigned long, unsigned long> o{};
    std::vector<int> picked(3, 0);
    for (int i = 0; i < 300; ++i) {
        const std::vector<unsigned long> before = f.x;
        O.update(&f, o);
        ASSERT_LT(O.group, 3u);
        ++picked[O.group];
        for (size_t j = 0; j < 19; ++j) {
            const bool inBlock = j >= O.groups[O.group] && j < O.groups[O.group + 1];
            EXPECT_EQ(f.x[j], before[j] + (inBlock ? 1 : 0)) << j;
        }
    }
    for (int c : picked) EXPECT_GT(c, 60);
}

TEST(IntGD, ZeroDirectionRepeatsTheNormUntilTheLimit) {
    StubF<unsigned int> f(6);
    f.x = {1, 2, 3, 0, 1, 2};
    f.norm = [](const std::vector<unsigned int>&) { return 40u; };
    QZ::IntGD<unsigned int, unsigned int> O(blocks<unsigned int>({0, 2, 6}), 2, 4);
    std::mt19937 eng(4);
    O.setRandEng(&eng);
    O.setEps(5);
    static std::vector<unsigned int> norms;
    norms.clear();
    auto hook = [](QZ::OptState<unsigned int, unsigned int>* s) { norms.push_back(s->norm); };
    const unsigned int r = O.opt(&f, nullptr, hook, nullptr, 17, 0, false, 0, 0);
    // 17 iterations and the last call after the loop, all at 40: the first
    // iteration is the only improvement, and it does not stop the run.
    EXPECT_EQ(norms, std::vector<unsigned int>(18, 40u));
    EXPECT_EQ(r, 40u);
    EXPECT_EQ(f.x, (std::vector<unsigned int>{1, 2, 3, 0, 1, 2}));
}

TEST(IntGD, UnderTheFrameAWorseStepStays) {
    // Without elite each step starts from where the last one ended.
    StubF<unsigned int> f(4);
    f.direction({1, 1, 1, 1});
    f.norm = [](const std::vector<unsigned int>& x) { return x[0] * 10 + x[2]; };
    RecordingIntGD<unsigned int> O(blocks<unsigned int>({0, 2, 4}), 2, 8);
    std::mt19937 eng(6);
    O.setRandEng(&eng);
    const unsigned int r = O.opt(&f, nullptr, nullptr, nullptr, 10, 0, false, 0, 0);
    ASSERT_EQ(O.starts.size(), 10u);
    for (size_t i = 0; i < O.starts.size(); ++i) EXPECT_EQ(O.starts[i], f.evaluated[i]) << i;
    // Every step raised a block and so the norm: the first iterate is best,
    // and it is what the point holds at the end.
    EXPECT_EQ(r, f.norm(f.evaluated[1]));
    EXPECT_EQ(f.x, f.evaluated[1]);
}

TEST(IntGD, WithoutBlocksNothingMoves) {
    StubF<unsigned char> f(0);
    QZ::IntGD<unsigned char, unsigned char> O(blocks<unsigned char>({0}), 0, 4);
    std::mt19937 eng(6);
    O.setRandEng(&eng);
    QZ::OptState<unsigned char, unsigned char> o{};
    O.update(&f, o);
    EXPECT_EQ(O.ldim, 0u);
}
