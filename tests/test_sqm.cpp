// Sampling-based inference over the polynomial expansion of exp: the bounds,
// the term distribution and its sampler, the exact and the sampled sums, and
// the accuracy of SQMplus against enumeration of all joint states, with a
// tolerance derived here from the approximation error and the truncation.
#include <gtest/gtest.h>
#include <qz_graph_util.h>
#include <qz_test_util.h>

#include <QZ/graph/core>
#include <QZ/inf/base>
#include <QZ/inf/sqm>
#include <QZ/inf/sqmplus>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <vm_wrapper>

namespace {

using qztest::EdgeList;
using qztest::makeGraph;

// Exposes what the engines keep to themselves, so that the tests can check
// the run's bookkeeping.
template <typename idx_t, typename val_t> class OpenSQM : public QZ::SQMplus<idx_t, val_t> {
public:
    using QZ::SQMplus<idx_t, val_t>::SQMplus;
    bool negate = false;  // turn every coefficient's sign around after the fit

    void init_sqm() override {
        QZ::SQMplus<idx_t, val_t>::init_sqm();
        if (negate)
            for (size_t i = 0; i <= (size_t)this->k; ++i) this->a[i] = -this->a[i];
    }
    val_t tauValue() const { return this->tau; }
    val_t vepsValue() const { return this->veps; }
    static val_t psum() { return QZ::SQM<idx_t, val_t>::PSUM; }
    static size_t known() { return QZ::SQM<idx_t, val_t>::KNOWN.size(); }
    const QZ::ChebyshevApproximation<idx_t, val_t>* approximation() const { return this->g; }
    // The plain Monte Carlo loop of the parent, which this class replaces.
    void plainInfer() { QZ::SQM<idx_t, val_t>::infer(0); }
};

// A model over a graph given as an edge list, with its own random engine, and
// everything the tests compute by enumeration of its joint states.
template <typename idx_t = unsigned long, typename val_t = double> struct Model {
    std::unique_ptr<QZ::Graph<idx_t>> G;
    std::vector<idx_t> Y;
    std::vector<val_t> w;
    std::mt19937 engine;
    size_t n, m;
    std::vector<size_t> off, es, et;

    Model(size_t _n, const EdgeList& edges, std::vector<idx_t> _Y = {}, unsigned seed = 1)
        : G(makeGraph<idx_t>(_n, edges)), Y(_Y.empty() ? std::vector<idx_t>(_n, 2) : _Y), engine(seed), n(_n),
          m(edges.size()) {
        size_t o = 0;
        for (const auto& e : edges) {
            off.push_back(o);
            es.push_back(e.first);
            et.push_back(e.second);
            o += (size_t)Y[e.first] * Y[e.second];
        }
        off.push_back(o);
        w.assign(o, 0);
    }

    size_t dim() const { return off.back(); }

    // Weights drawn uniformly from [lo, hi] with a generator of their own.
    void randomWeights(double lo, double hi, unsigned seed) {
        std::mt19937 gen(seed);
        std::uniform_real_distribution<double> U(lo, hi);
        for (val_t& x : w) x = (val_t)U(gen);
    }

    std::unique_ptr<OpenSQM<idx_t, val_t>> engineOf(size_t k, size_t maxIter) {
        std::unique_ptr<OpenSQM<idx_t, val_t>> e(new OpenSQM<idx_t, val_t>(G.get(), Y.data(), &engine, w.data(), (idx_t)k));
        e->setMaxIter((idx_t)maxIter);
        return e;
    }

    // Calls f(x, log potential) for every joint state.
    template <typename F> void each(F f) const {
        std::vector<size_t> x(n, 0);
        while (true) {
            double lp = 0;
            for (size_t e = 0; e < m; ++e) lp += (double)w[off[e] + x[es[e]] * Y[et[e]] + x[et[e]]];
            f(x, lp);
            size_t v = 0;
            for (; v < n; ++v) {
                if (++x[v] < Y[v]) break;
                x[v] = 0;
            }
            if (v == n) return;
        }
    }

    double states() const {
        double X = 1;
        for (size_t v = 0; v < n; ++v) X *= (double)Y[v];
        return X;
    }

    // Sum over states of h(lp), and the same restricted to each weight's
    // states, in the layout of the weights.
    template <typename H> double sums(H h, std::vector<double>* perWeight) const {
        double Z = 0;
        if (perWeight) perWeight->assign(dim(), 0.0);
        each([&](const std::vector<size_t>& x, double lp) {
            const double q = h(lp);
            Z += q;
            if (perWeight)
                for (size_t e = 0; e < m; ++e) (*perWeight)[off[e] + x[es[e]] * Y[et[e]] + x[et[e]]] += q;
        });
        return Z;
    }

    // Vertex marginals implied by per-weight sums: for each vertex and state,
    // the mean over the edges at the vertex of the edge's share of that state.
    std::vector<double> vertexMarginals(const std::vector<double>& mw) const {
        std::vector<double> r;
        for (size_t v = 0; v < n; ++v) {
            size_t deg = 0;
            std::vector<double> acc(Y[v], 0.0);
            for (size_t e = 0; e < m; ++e) {
                if (es[e] != v && et[e] != v) continue;
                ++deg;
                double blk = 0;
                for (size_t q = off[e]; q < off[e + 1]; ++q) blk += mw[q];
                for (size_t x = 0; x < Y[es[e]]; ++x)
                    for (size_t y = 0; y < Y[et[e]]; ++y) acc[es[e] == v ? x : y] += mw[off[e] + x * Y[et[e]] + y] / blk;
            }
            for (size_t x = 0; x < Y[v]; ++x) r.push_back(acc[x] / deg);
        }
        return r;
    }
};

template <typename E> std::vector<double> engineVertexMarginals(const E& ia, size_t n, const std::vector<unsigned long>& Y) {
    std::vector<double> r;
    for (size_t v = 0; v < n; ++v)
        for (size_t x = 0; x < Y[v]; ++x) {
            double q = 0, Z = 0;
            ia.vertex_marginal(v, x, q, Z);
            r.push_back(q / Z);
        }
    return r;
}

template <typename Poly> double polyAt(const Poly* g, double z) { return (double)g->evaluate(z); }

// The largest deviation of the fitted polynomial from exp on [l, u], sampled
// densely here, with a margin for what falls between the samples.
template <typename Poly> double measuredError(const Poly* g) {
    const double l = (double)g->left(), u = (double)g->right();
    double e = 0;
    for (int i = 0; i <= 20000; ++i) {
        const double z = l + (u - l) * i / 20000;
        e = std::max(e, std::fabs(std::exp(z) - polyAt(g, z)));
    }
    return e * 1.01;
}

// Every tuple of weight indices of degree 0..k whose weights can hold at
// once, with its probability under the sampler and its term in the expansion:
// the sampler picks a degree by |a_i| X m^i / tau, the i edges uniformly and
// the states of their vertices uniformly; the term is a_i times the product
// of the weights times the number of states the tuple fixes nothing of.
struct Tuple {
    size_t degree;
    std::vector<size_t> j;
    double mass;
    double term;
    std::map<size_t, size_t> fixedState;  // vertex -> state
};

template <typename M> std::vector<Tuple> allTuples(const M& mod, const double* a, size_t k) {
    const double X = mod.states();
    double tau = 0;
    for (size_t i = 0; i <= k; ++i) tau += std::fabs(a[i]) * X * std::pow((double)mod.m, (double)i);
    std::vector<Tuple> r;
    const size_t d = mod.dim();
    for (size_t i = 0; i <= k; ++i) {
        std::vector<size_t> j(i, 0);
        while (true) {
            std::map<size_t, size_t> fixedState;
            bool ok = true;
            double prod = 1;
            for (size_t q = 0; q < i && ok; ++q) {
                size_t e = 0;
                while (mod.off[e + 1] <= j[q]) ++e;
                const size_t local = j[q] - mod.off[e];
                const size_t s = mod.es[e], t = mod.et[e];
                const size_t xs = local / mod.Y[t], xt = local % mod.Y[t];
                for (auto vx : {std::make_pair(s, xs), std::make_pair(t, xt)}) {
                    auto it = fixedState.find(vx.first);
                    if (it != fixedState.end() && it->second != vx.second) ok = false;
                    fixedState[vx.first] = vx.second;
                }
                prod *= (double)mod.w[j[q]];
            }
            if (ok) {
                double yu = 1;
                for (const auto& f : fixedState) yu *= (double)mod.Y[f.first];
                const double mass = std::fabs(a[i]) * X / yu / tau;
                r.push_back({i, j, mass, a[i] * prod * X / yu, fixedState});
            }
            size_t q = 0;
            for (; q < i; ++q) {
                if (++j[q] < d) break;
                j[q] = 0;
            }
            if (q == i) break;
        }
    }
    return r;
}


// The part of a weight's states that a tuple leaves possible, and whether any
// is left: the weight's edge states against the states the tuple fixes.
template <typename M> double shareOf(const M& mod, size_t l, const Tuple& t) {
    size_t e = 0;
    while (mod.off[e + 1] <= l) ++e;
    const size_t s = mod.es[e], u = mod.et[e];
    const size_t xs = (l - mod.off[e]) / mod.Y[u], xt = (l - mod.off[e]) % mod.Y[u];
    double share = 1;
    auto fs = t.fixedState.find(s), ft = t.fixedState.find(u);
    if (fs == t.fixedState.end()) share /= (double)mod.Y[s];
    else if (fs->second != xs) return 0;
    if (ft == t.fixedState.end()) share /= (double)mod.Y[u];
    else if (ft->second != xt) return 0;
    return share;
}

// What one ordinary SQMplus run must have added up, replayed from the same
// draws: the run calls nothing but the sampler on the engine, so a second
// engine with an engine seeded alike and its sampler give the same tuples.
// Tuples are known by the code j0 d^i + (j0, ..., j_{i-1}) in base d, and a
// known code is skipped; the loop stops when the visited tuples carry 95% of
// the mass or every weight has seen maxIter of them.
struct Replay {
    double S = 0;
    std::vector<double> mu;  // the weight sums, before the counts become 1
    size_t visited = 0;
    double mass = 0;
};

template <typename M> Replay replay(M& mod, unsigned seed, size_t k, size_t maxIter, const std::vector<Tuple>& tuples) {
    std::map<std::vector<size_t>, size_t> index;
    for (size_t q = 0; q < tuples.size(); ++q) index[tuples[q].j] = q;
    std::mt19937 rng(seed);
    auto e = mod.engineOf(k, maxIter);
    e->setRandomEngine(&rng);
    e->init_sqm();
    const size_t d = mod.dim();
    Replay r;
    r.mu.assign(d, 0.0);
    std::vector<size_t> counts(d, 0);
    std::set<unsigned long> known;
    size_t least = 0, samples = 0;
    std::vector<unsigned long> j(k + 1);
    while (least < maxIter && r.mass < 0.95) {
        unsigned long i = 0;
        e->sample(j.data(), i);
        unsigned long code = 0;
        if (i > 0) {
            code = j[0];
            for (size_t q = 0; q < i; ++q) code = code * d + j[q];
        }
        if (!known.insert(code).second) continue;
        const Tuple& t = tuples[index.at(std::vector<size_t>(j.begin(), j.begin() + i))];
        r.mass += t.mass;
        const double term = std::max(0.0, t.term);
        for (size_t l = 0; l < d; ++l) {
            const double share = shareOf(mod, l, t);
            if (counts[l] < maxIter && share > 0) {
                r.mu[l] += share * term;
                ++counts[l];
            }
        }
        if (samples < maxIter) {
            r.S += term;
            ++samples;
        }
        least = *std::min_element(counts.begin(), counts.end());
    }
    r.visited = known.size();
    if (r.S == 0) r.S = 1;
    return r;
}

// An upper bound on what leaving out at most 5% of the mass can cost: the
// largest sum of terms over tuples of total mass 0.05, taking the tuples of
// the largest term per mass first (fractions allowed).
double worstTruncation(std::vector<Tuple> tuples) {
    std::sort(tuples.begin(), tuples.end(),
              [](const Tuple& x, const Tuple& y) { return x.term / x.mass > y.term / y.mass; });
    double left = 0.05, W = 0;
    for (const Tuple& t : tuples) {
        if (left <= 0) break;
        const double take = std::min(left, t.mass);
        W += std::max(0.0, t.term) * take / t.mass;
        left -= take;
    }
    return W;
}

EdgeList chain(size_t n) {
    EdgeList E;
    for (size_t v = 0; v + 1 < n; ++v) E.push_back({v, v + 1});
    return E;
}

typedef Model<unsigned long, double> ModelD;
typedef OpenSQM<unsigned long, double> EngineD;

}  // namespace

// ---------------------------------------------------------------- bounds

TEST(SQM, EqualWeightsWidenTheIntervalByAnEighth) {
    ModelD one(2, {{0, 1}});
    auto e = one.engineOf(2, 10);
    double l = 7, u = 7;
    e->lowerupper(l, u);
    EXPECT_EQ(l, -0.125);
    EXPECT_EQ(u, 0.125);
    ModelD two(3, chain(3));
    std::fill(two.w.begin(), two.w.end(), 0.3);
    auto f = two.engineOf(2, 10);
    f->lowerupper(l, u);
    EXPECT_DOUBLE_EQ(l, 0.6 - 0.125);
    EXPECT_DOUBLE_EQ(u, 0.6 + 0.125);
}

TEST(SQM, BoundsAreSumsOfTheSmallestAndLargestWeightsWhateverTheirEdges) {
    ModelD M(3, chain(3));
    M.w = {0.5, -1.0, 2.0, 0.0, 3.0, -0.25, 1.0, 0.75};
    auto e = M.engineOf(2, 10);
    double l = 0, u = 0;
    e->lowerupper(l, u);
    EXPECT_DOUBLE_EQ(l, -1.25);  // both from edge 0 and 1, as any two smallest
    EXPECT_DOUBLE_EQ(u, 5.0);    // 3 + 2, of different edges
}

TEST(SQM, IntervalWiderThan64IsScaledDownKeepingItsSigns) {
    ModelD M(3, chain(3));
    M.w = {-60, -50, 0, 0, 30, 20, 0, 0};
    auto e = M.engineOf(2, 10);
    double l = 0, u = 0;
    e->lowerupper(l, u);
    // -110 and 50, 160 wide, become 64 wide in the same proportion.
    EXPECT_NEAR(u - l, 64.0, 1e-12);
    EXPECT_LT(l, 0);
    EXPECT_GT(u, 0);
    EXPECT_NEAR(l / u, -110.0 / 50.0, 1e-12);
    ModelD N(2, {{0, 1}});
    N.w = {100, 10, 20, 30};
    auto f = N.engineOf(2, 10);
    f->lowerupper(l, u);
    EXPECT_NEAR(u - l, 64.0, 1e-12);
    EXPECT_GT(l, 0);
    EXPECT_NEAR(u / l, 10.0, 1e-12);
}

// ---------------------------------------------------------------- terms

TEST(SQM, DegreeProbabilitiesSumToOneAndFollowTheCoefficients) {
    ModelD M(4, {{0, 1}, {1, 2}, {2, 3}, {3, 0}}, {2, 3, 2, 2});
    M.randomWeights(-0.3, 0.4, 3);
    for (size_t k = 0; k <= 6; ++k) {
        auto e = M.engineOf(k, 10);
        e->init_sqm();
        const double* a = e->coefficients();
        double sum = 0, norm = 0;
        for (size_t i = 0; i <= k; ++i) norm += std::fabs(a[i]) * M.states() * std::pow(4.0, (double)i);
        for (size_t i = 0; i <= k; ++i) {
            sum += e->p(i);
            EXPECT_NEAR(e->p(i), std::fabs(a[i]) * M.states() * std::pow(4.0, (double)i) / norm, 1e-12);
            EXPECT_DOUBLE_EQ(e->chi_sum(i), M.states() * std::pow(4.0, (double)i));
        }
        EXPECT_NEAR(sum, 1.0, 1e-12) << k;
        EXPECT_NEAR(e->tauValue(), norm, 1e-9 * norm);
        EXPECT_EQ(e->getDegree(), k);
    }
}

TEST(SQM, CoefficientsAreTheRemezFitOfExpOnTheBounds) {
    ModelD M(4, chain(4));
    M.randomWeights(-0.2, 0.5, 9);
    auto e = M.engineOf(4, 10);
    e->init_sqm();
    double l = 0, u = 0;
    e->lowerupper(l, u);
    QZ::ChebyshevApproximationRemez<unsigned long, double> g(4, l, u);
    std::function<double(const double&)> F = [](const double& x) { return std::exp(x); };
    g.apx(F, F, F, 100);
    for (unsigned long i = 0; i <= 4; ++i) EXPECT_EQ(e->coefficients()[i], g.coefficient(i));
    EXPECT_EQ(e->vepsValue(), g.error());
    EXPECT_EQ(e->approximation()->left(), l);
    EXPECT_EQ(e->approximation()->right(), u);
}

TEST(SQM, ValidityOfTuples) {
    ModelD M(3, chain(3), {2, 3, 2});
    auto e = M.engineOf(3, 10);
    unsigned long vcnt = 5;
    EXPECT_TRUE(e->valid(nullptr, 0, vcnt));
    EXPECT_EQ(vcnt, 0u);
    // Weights 0 (x0=0, x1=0) and 4 (x0=1, x1=1) of edge (0, 1).
    unsigned long same[] = {0, 4};
    EXPECT_FALSE(e->valid(same, 2, vcnt));
    // Weight 3 is x0=1, x1=0; weight 6 + 1 is x1=0, x2=1 on edge (1, 2).
    unsigned long agree[] = {3, 7, 3};
    EXPECT_TRUE(e->valid(agree, 3, vcnt));
    EXPECT_EQ(vcnt, 3u);
    unsigned long clash[] = {3, 9};  // 9: x1=1 on edge (1, 2)
    EXPECT_FALSE(e->valid(clash, 2, vcnt));
    EXPECT_TRUE(e->valid_pair(9, clash, 0));
    EXPECT_FALSE(e->valid_pair(9, agree, 1));
    EXPECT_FALSE(e->valid_pair(6, agree, 2));  // x2 = 0 against x2 = 1 of weight 7
    EXPECT_TRUE(e->valid_pair(7, agree, 2));
    EXPECT_FALSE(e->valid_pair(11, same, 1));  // x1 = 2 against x1 = 0 of weight 0
    EXPECT_TRUE(e->valid_pair(6, same, 1));    // x1 = 0 on the other edge
    // Vertices in common in the other orientation: weight 1 of edge (0, 1) is
    // x0 = 0, x1 = 1, and weight 8 of (1, 2) is x1 = 1, x2 = 0.
    unsigned long eight[] = {8};
    EXPECT_TRUE(e->valid_pair(1, eight, 1));
    EXPECT_FALSE(e->valid_pair(0, eight, 1));
    ModelD F(4, {{0, 1}, {2, 3}});
    auto f = F.engineOf(1, 10);
    unsigned long first[] = {3};
    EXPECT_TRUE(f->valid_pair(4, first, 1));  // no vertex in common
}

TEST(SQM, VertexSetsStateCountsAndImportanceWeights) {
    ModelD M(4, {{0, 1}, {1, 2}, {3, 2}}, {2, 3, 4, 5});
    auto e = M.engineOf(3, 10);
    unsigned long edges[] = {3, 1, 3};
    std::unique_ptr<std::set<unsigned long>> U(e->vertex_set(edges, 3));
    EXPECT_EQ(*U, (std::set<unsigned long>{0, 1, 2, 3}));
    EXPECT_EQ(e->clique_tuple_state_space_size(edges, 3), 2ul * 3 * 4 * 5);
    EXPECT_EQ(e->clique_tuple_state_space_size(edges, 1), 20ul);
    std::set<unsigned long> Q{1};
    // Weight 0 lies on edge (0, 1): vertex 0 adds 2 states, vertex 1 none.
    EXPECT_DOUBLE_EQ(e->importance_weight(0, &Q), 0.5);
    std::set<unsigned long> none;
    EXPECT_DOUBLE_EQ(e->importance_weight(6, &none), 1.0 / 12);  // edge (1, 2)
    std::set<unsigned long> both{2, 3};
    EXPECT_DOUBLE_EQ(e->importance_weight(18, &both), 1.0);  // edge (3, 2)
}

TEST(SQM, SamplerDrawsEveryValidTupleWithItsMass) {
    ModelD M(3, chain(3), {2, 2, 3});
    M.randomWeights(0.0, 0.4, 4);
    auto e = M.engineOf(3, 10);
    e->init_sqm();
    const std::vector<Tuple> tuples = allTuples(M, e->coefficients(), 3);
    std::map<std::vector<size_t>, size_t> seen;
    const size_t draws = 400000;
    std::vector<unsigned long> j(3);
    for (size_t r = 0; r < draws; ++r) {
        unsigned long i = 9;
        for (auto& x : j) x = 77;
        e->sample(j.data(), i);
        ASSERT_LE(i, 3u);
        for (size_t q = i; q < 3; ++q) ASSERT_EQ(j[q], 0u);  // beyond the degree: zero
        unsigned long vcnt = 0;
        ASSERT_TRUE(e->valid(j.data(), i, vcnt));
        ++seen[std::vector<size_t>(j.begin(), j.begin() + i)];
    }
    double massSum = 0;
    for (const Tuple& t : tuples) {
        massSum += t.mass;
        const double expect = t.mass * draws, got = (double)seen[t.j];
        EXPECT_NEAR(got, expect, 5 * std::sqrt(expect) + 1) << "degree " << t.degree;
        // The engine's own probability of the tuple agrees.
        std::vector<unsigned long> jj(t.j.begin(), t.j.end());
        EXPECT_NEAR(e->p_cond(jj.data(), t.degree, nullptr) * e->p(t.degree), t.mass, 1e-12);
    }
    EXPECT_NEAR(massSum, 1.0, 1e-12);
    EXPECT_EQ(seen.size(), tuples.size());
}

TEST(SQM, DegreeZeroLeavesTheTupleZeroAndItsValueIsTau) {
    ModelD M(3, chain(3));
    M.randomWeights(0.0, 0.5, 2);
    auto e = M.engineOf(2, 10);
    e->init_sqm();
    std::vector<unsigned long> j(2);
    bool zeroSeen = false;
    for (int r = 0; r < 2000 && !zeroSeen; ++r) {
        j = {5, 6};
        unsigned long i = 1;
        e->sample(j.data(), i);
        if (i == 0) {
            zeroSeen = true;
            EXPECT_EQ(j, (std::vector<unsigned long>{0, 0}));
        }
    }
    EXPECT_TRUE(zeroSeen);
    // Degree 0 only: every draw is the empty tuple with value tau = a0 X.
    auto z = M.engineOf(0, 50);
    z->plainInfer();
    EXPECT_NEAR(z->A(), std::log(z->coefficients()[0] * 8), 1e-12);
    EXPECT_NEAR(z->tauValue(), z->coefficients()[0] * 8, 1e-12);
    EXPECT_EQ(z->raw_S_samples(), 50.0);
    // With a[0] < 0 the value clips to 0, and the empty sum is taken as 1.
    auto neg = M.engineOf(0, 50);
    neg->negate = true;
    neg->plainInfer();
    EXPECT_EQ(neg->raw_S(), 1.0);
    EXPECT_NEAR(neg->A(), -std::log(50.0), 1e-12);
}

// ---------------------------------------------------------------- sums

TEST(SQM, SlowSumIsTheExpansionOfThePolynomial) {
    ModelD M(4, {{0, 1}, {1, 2}, {2, 3}, {3, 1}}, {2, 3, 2, 2});
    M.randomWeights(-0.4, 0.6, 21);
    for (size_t k : {0, 1, 2, 3}) {
        auto e = M.engineOf(k, 10);
        e->infer_slow(0);
        // Sum over states of P(log potential), and per weight, here.
        const auto* g = e->approximation();
        std::vector<double> pw;
        const double Zp = M.sums([&](double lp) { return polyAt(g, lp); }, &pw);
        EXPECT_NEAR(e->A(), std::log(Zp), 1e-10) << k;
        for (size_t h = 0; h < M.dim(); ++h) {
            EXPECT_NEAR(e->raw_mu()[h], pw[h], 1e-10 * Zp) << k << " " << h;
            EXPECT_EQ(e->raw_mu_samples()[h], 1.0);
        }
        const std::vector<double> vm = engineVertexMarginals(*e, M.n, M.Y);
        const std::vector<double> want = M.vertexMarginals(pw);
        for (size_t q = 0; q < vm.size(); ++q) EXPECT_NEAR(vm[q], want[q], 1e-10) << k;
    }
}

TEST(SQM, PlainMonteCarloAveragesToTheExpansion) {
    ModelD M(4, chain(4));
    M.randomWeights(0.0, 0.4, 6);
    auto e = M.engineOf(3, 100000);
    e->plainInfer();
    const auto* g = e->approximation();
    const double Zp = M.sums([&](double lp) { return polyAt(g, lp); }, nullptr);
    // Every value lies in [0, tau * max(1, w)^3]; with n draws the mean is
    // within 5 of its standard errors of the expansion.
    double wmax = *std::max_element(M.w.begin(), M.w.end());
    const double spread = e->tauValue() * std::pow(std::max(1.0, wmax), 3.0);
    const double tol = 5 * spread / std::sqrt(e->raw_S_samples());
    EXPECT_NEAR(std::exp(e->A()), Zp, tol);
    EXPECT_EQ(e->raw_S_samples(), 100000.0);
    // Every weight saw at least maxIter samples; none more.
    for (size_t h = 0; h < M.dim(); ++h) EXPECT_EQ(e->raw_mu_samples()[h], 100000.0);
}

TEST(SQM, NoIterationsLeaveNoSamplesAndTheUniformAnswer) {
    ModelD M(3, chain(3), {2, 3, 2});
    M.randomWeights(-1, 1, 8);
    auto e = M.engineOf(3, 0);
    e->plainInfer();
    EXPECT_EQ(e->raw_S(), 1.0);
    EXPECT_EQ(e->raw_S_samples(), 0.0);
    EXPECT_TRUE(std::isinf(e->A()) && e->A() > 0);  // log(1 / 0)
    double psi = 0, Z = 0;
    e->edge_marginal(1, 2, 1, psi, Z);
    EXPECT_EQ(psi, 1.0);
    EXPECT_EQ(Z, 6.0);
    // A pair handed in is kept where there are no samples and Z is not 0.
    psi = 0.25;
    Z = 2;
    e->edge_marginal(0, 1, 1, psi, Z);
    EXPECT_EQ(psi, 0.25);
    EXPECT_EQ(Z, 2.0);
    double q = 0, ZZ = 0;
    e->vertex_marginal(1, 2, q, ZZ);
    EXPECT_DOUBLE_EQ(q, 1.0 / 3);
    EXPECT_EQ(ZZ, 1.0);
}

TEST(SQM, IsolatedVertexHasNoEdgesToAverage) {
    ModelD M(3, {{0, 1}});
    M.randomWeights(0, 0.3, 1);
    // One edge has so few tuples that the count bound must end the run.
    auto e = M.engineOf(2, 1);
    e->infer(0);
    double q = 5, Z = 0;
    e->vertex_marginal(2, 0, q, Z);
    EXPECT_TRUE(std::isnan(q));
    EXPECT_EQ(Z, 1.0);
}

TEST(SQM, EdgeMarginalDividesTheBlockByTheCountOfTheAskedEntry) {
    ModelD M(2, {{0, 1}});
    auto e = M.engineOf(1, 10);
    e->infer_slow(0);
    double* mu = e->raw_mu();
    double* cnt = e->raw_mu_samples();
    mu[0] = 1;
    mu[1] = 2;
    mu[2] = 3;
    mu[3] = 4;
    cnt[0] = 2;
    cnt[1] = 4;
    cnt[2] = 0;
    cnt[3] = 1;
    double psi = 0, Z = 0;
    e->edge_marginal(0, 0, 1, psi, Z);
    EXPECT_EQ(psi, 0.5);
    EXPECT_EQ(Z, 2.5);
    e->edge_marginal(0, 0, 0, psi, Z);
    EXPECT_EQ(psi, 0.5);
    EXPECT_EQ(Z, 5.0);
    // Entry (1, 0) has no samples: the pair from the call before stays.
    e->edge_marginal(0, 1, 0, psi, Z);
    EXPECT_EQ(psi, 0.5);
    EXPECT_EQ(Z, 5.0);
}

// ---------------------------------------------------------------- SQMplus

TEST(SQMplus, SlowModeIsExactlyTheSlowSum) {
    ModelD M(4, chain(4), {2, 3, 2, 2});
    M.randomWeights(-0.5, 0.5, 12);
    auto plus = M.engineOf(3, 1000);
    plus->infer(10);
    QZ::SQM<unsigned long, double> base(M.G.get(), M.Y.data(), &M.engine, M.w.data(), 3);
    base.infer_slow(0);
    EXPECT_EQ(plus->A(), base.A());
    for (size_t h = 0; h < M.dim(); ++h) {
        EXPECT_EQ(plus->raw_mu()[h], base.raw_mu()[h]);
        EXPECT_EQ(plus->raw_mu_samples()[h], base.raw_mu_samples()[h]);
    }
}

TEST(SQMplus, CountsBecomeOneAndAtMostMaxIterTermsAreSummed) {
    ModelD M(5, chain(5));
    M.randomWeights(0.0, 0.3, 5);
    auto e = M.engineOf(3, 1);
    e->infer(0);
    for (size_t h = 0; h < M.dim(); ++h) EXPECT_EQ(e->raw_mu_samples()[h], 1.0);
    EXPECT_EQ(e->raw_S_samples(), 1.0);
    EXPECT_EQ(EngineD::psum(), 1.0);
    // With maxIter = 1, S is the term of a single tuple.
    const std::vector<Tuple> tuples = allTuples(M, e->coefficients(), 3);
    bool found = false;
    for (const Tuple& t : tuples) found = found || std::fabs(std::max(0.0, t.term) - e->raw_S()) <= 1e-12 * e->raw_S();
    EXPECT_TRUE(found);
    // With maxIter = 3, no more than the three largest terms.
    std::vector<double> terms;
    for (const Tuple& t : tuples) terms.push_back(std::max(0.0, t.term));
    std::sort(terms.rbegin(), terms.rend());
    auto f = M.engineOf(3, 3);
    f->infer(0);
    EXPECT_LE(f->raw_S(), (terms[0] + terms[1] + terms[2]) * (1 + 1e-12));
}

TEST(SQMplus, RunsInARowAreIndependent) {
    ModelD M(5, chain(5), {2, 3, 2, 2, 3});
    M.randomWeights(0.0, 0.3, 15);
    auto e = M.engineOf(3, (size_t)-1);
    M.engine.seed(99);
    e->infer(0);
    const double A1 = e->A();
    const std::vector<double> mu1(e->raw_mu(), e->raw_mu() + M.dim());
    const size_t known1 = EngineD::known();
    EXPECT_GT(known1, 0u);
    M.engine.seed(99);
    e->infer(0);
    EXPECT_EQ(e->A(), A1);
    EXPECT_EQ(std::vector<double>(e->raw_mu(), e->raw_mu() + M.dim()), mu1);
    EXPECT_EQ(EngineD::known(), known1);
    // Preparing any engine of the same types empties the shared set.
    auto other = M.engineOf(2, 5);
    other->init_sqm();
    EXPECT_EQ(EngineD::known(), 0u);
    EXPECT_EQ(EngineD::psum(), 0.0);
}

TEST(SQMplus, FixedSeedGivesTheSameEstimate) {
    ModelD M(8, chain(8));
    M.randomWeights(0.0, 0.25, 31);
    std::vector<double> A, V;
    for (int r = 0; r < 2; ++r) {
        std::mt19937 rng(2024);
        auto e = M.engineOf(3, (size_t)-1);
        e->setRandomEngine(&rng);
        e->infer(0);
        A.push_back(e->A());
        V.push_back(engineVertexMarginals(*e, M.n, M.Y)[5]);
    }
    EXPECT_EQ(A[0], A[1]);
    EXPECT_EQ(V[0], V[1]);
    std::mt19937 rng(2025);
    auto e = M.engineOf(3, (size_t)-1);
    e->setRandomEngine(&rng);
    e->infer(0);
    EXPECT_NE(e->A(), A[0]);
}

TEST(SQMplus, ClashingCodesThatHideTheMassKeepTheRunDrawingUntilInterrupted) {
    // One binary edge: the empty tuple and the tuples of weight 0 share code
    // 0, which hides far more than 5% of the mass, and no weight has more
    // than 1 + k tuples. Neither bound can end the run; every one of the 13
    // codes is visited, and only the host's interrupt stops the drawing.
    ModelD M(2, {{0, 1}});
    M.randomWeights(0.0, 0.3, 7);
    auto e = M.engineOf(4, 1000);
    std::thread stop([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        __run = false;
    });
    e->infer(0);
    stop.join();
    const bool interrupted = !__run;
    __run = true;
    EXPECT_TRUE(interrupted);
    EXPECT_EQ(EngineD::known(), 13u);
    EXPECT_TRUE(std::isfinite(e->A()));
    for (size_t h = 0; h < M.dim(); ++h) EXPECT_EQ(e->raw_mu_samples()[h], 1.0);
}

TEST(SQMplus, AllTermsClippedGiveSOneAndAZero) {
    ModelD M(4, chain(4));
    M.randomWeights(0.05, 0.3, 3);
    auto e = M.engineOf(3, (size_t)-1);
    e->negate = true;
    e->infer(0);
    EXPECT_EQ(e->raw_S(), 1.0);
    EXPECT_EQ(e->A(), 0.0);
    for (size_t h = 0; h < M.dim(); ++h) EXPECT_EQ(e->raw_mu()[h], 0.0);
}

// The run adds up exactly the tuples it drew first, in the order drawn, and
// its distance from the exact values is what leaving the others out costs
// plus the error of the polynomial: both derived here.
void expectTruncatedExpansion(size_t n, const EdgeList& E, size_t k, double hi, unsigned wseed, unsigned seed) {
    ModelD M(n, E, {}, seed);
    M.randomWeights(0.0, hi, wseed);
    std::mt19937 rng(seed);
    auto e = M.engineOf(k, (size_t)-1);
    e->setRandomEngine(&rng);
    e->infer(0);
    const size_t known = EngineD::known();
    const std::vector<double> mu(e->raw_mu(), e->raw_mu() + M.dim());
    const std::vector<double> vm = engineVertexMarginals(*e, n, M.Y);

    const double* a = e->coefficients();
    for (size_t i = 0; i <= k; ++i) ASSERT_GE(a[i], 0.0) << "the bound below needs terms of one sign";
    const std::vector<Tuple> tuples = allTuples(M, a, k);
    const Replay r = replay(M, seed, k, (size_t)-1, tuples);
    EXPECT_EQ(known, r.visited);
    EXPECT_GE(r.mass, 0.95);
    EXPECT_NEAR(e->A(), std::log(r.S), 1e-9);
    for (size_t h = 0; h < M.dim(); ++h) EXPECT_NEAR(mu[h], r.mu[h], 1e-9 * r.S);

    // Exact values by enumeration, in the base class and here.
    QZ::SQMplus<unsigned long, double> exact(M.G.get(), M.Y.data(), &M.engine, M.w.data(), (unsigned long)k);
    exact.QZ::InferenceAlgorithm<unsigned long, double>::infer_slow(0);
    std::vector<double> pw;
    const double Z = M.sums([](double lp) { return std::exp(lp); }, &pw);
    ASSERT_NEAR(exact.A(), std::log(Z), 1e-12);
    const std::vector<double> truth = M.vertexMarginals(pw);

    // |Zp - Z| <= X eps for the expansion Zp of the whole polynomial, which
    // holds the sum S of the visited terms plus the left-out part T >= 0.
    const double Xeps = M.states() * measuredError(e->approximation());
    const double Zp = M.sums([&](double lp) { return polyAt(e->approximation(), lp); }, nullptr);
    const double T = Zp - r.S;
    ASSERT_GE(T, -1e-9 * Zp);
    EXPECT_LE(std::fabs(Zp - Z), Xeps);
    const double tolA = std::log(Zp / r.S) + std::log1p(Xeps / (Z - Xeps)) + 1e-9;
    EXPECT_NEAR(e->A(), exact.A(), tolA);
    EXPECT_LE(e->A(), std::log(Z + Xeps));
    // A marginal moves by at most T / S from the truncation and by 2 X eps /
    // (Z - X eps) from the polynomial.
    const double tolP = std::max(T, 0.0) / r.S + 2 * Xeps / (Z - Xeps) + 1e-9;
    for (size_t q = 0; q < vm.size(); ++q) EXPECT_NEAR(vm[q], truth[q], tolP) << q;
    // However the 5% fell, it cannot cost more than this.
    EXPECT_LE(T, worstTruncation(tuples) * (1 + 1e-9));
}

TEST(SQMplus, EstimatesOfAChainOfTenAreTheTruncatedExpansion) {
    for (unsigned seed : {1u, 2u, 3u}) expectTruncatedExpansion(10, chain(10), 3, 0.2, 40 + seed, seed);
}

TEST(SQMplus, EstimatesOfARingOfSixAreTheTruncatedExpansion) {
    EdgeList ring = chain(6);
    ring.push_back({5, 0});
    for (unsigned seed : {4u, 5u}) expectTruncatedExpansion(6, ring, 4, 0.25, 50 + seed, seed);
}

TEST(SQMplus, EstimatesOfAStarOfSixAreTheTruncatedExpansion) {
    expectTruncatedExpansion(6, {{0, 1}, {0, 2}, {0, 3}, {0, 4}, {0, 5}}, 4, 0.3, 60, 6);
}

TEST(SQMplus, SinglePrecisionFollowsTheDoubleRun) {
    Model<unsigned short, float> Mf(6, chain(6));
    Model<unsigned short, double> Md(6, chain(6));
    Md.randomWeights(0.0, 0.3, 77);
    for (size_t h = 0; h < Md.dim(); ++h) Mf.w[h] = (float)Md.w[h];
    std::mt19937 r1(8), r2(8);
    auto ef = Mf.engineOf(3, 255);
    auto ed = Md.engineOf(3, 255);
    ef->setRandomEngine(&r1);
    ed->setRandomEngine(&r2);
    ef->infer(0);
    ed->infer(0);
    // The same draws for the same weights up to rounding: the estimates agree
    // to single precision.
    EXPECT_NEAR((double)ef->A(), ed->A(), 1e-4);
    std::vector<unsigned long> Yl(6, 2);
    std::vector<double> vd = engineVertexMarginals(*ed, 6, Yl);
    for (size_t v = 0; v < 6; ++v) {
        float q = 0, Z = 0;
        ef->vertex_marginal((unsigned short)v, 1, q, Z);
        EXPECT_NEAR(q / Z, vd[2 * v + 1], 1e-4);
    }
}

TEST(SQMplus, NarrowIndexCodesWrap) {
    // With 8-bit indices the code of a tuple has 256 values: at most that many
    // tuples are ever visited, and a run ends by the count bound only if that
    // is small enough.
    Model<unsigned char, double> M(6, chain(6));
    M.randomWeights(0.0, 0.3, 13);
    auto e = M.engineOf(4, 20);
    e->infer(0);
    EXPECT_LE((OpenSQM<unsigned char, double>::known()), 256u);
    EXPECT_GT((OpenSQM<unsigned char, double>::known()), 20u);
    EXPECT_TRUE(std::isfinite(e->A()));
    EXPECT_GT(e->A(), 0.0);
}

TEST(SQMplus, DegreeWithoutRoomForItsReferencePointsIsRefused) {
    // The polynomial of degree k is fitted on k + 2 points that idx_t
    // numbers: 253 + 2 fits 8 bits, 254 + 2 does not; the largest 64-bit
    // degree would also wrap k + 1 coefficients to none.
    const auto refusal = [](auto make) {
        try {
            make();
        } catch (const std::logic_error& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    Model<unsigned char, double> M(3, chain(3));
    EXPECT_EQ(refusal([&]() { QZ::SQMplus<unsigned char, double> e(M.G.get(), M.Y.data(), &M.engine, M.w.data(), 254); }),
              "too many reference points (KXX + 2) for idx_t of 8 bits");
    EXPECT_EQ(refusal([&]() { QZ::SQMplus<unsigned char, double> e(M.G.get(), M.Y.data(), &M.engine, M.w.data(), 255); }),
              "too many reference points (KXX + 2) for idx_t of 8 bits");
    Model<unsigned long, double> W(3, chain(3));
    for (unsigned long k : {~0ul, ~0ul - 1})
        EXPECT_EQ(refusal([&]() { QZ::SQMplus<unsigned long, double> e(W.G.get(), W.Y.data(), &W.engine, W.w.data(), k); }),
                  "too many reference points (KXX + 2) for idx_t of 64 bits");
    // Below the bound the degree is the engine's own business.
    EXPECT_EQ(refusal([&]() { QZ::SQMplus<unsigned char, double> e(M.G.get(), M.Y.data(), &M.engine, M.w.data(), 3); }), "");
}

TEST(SQMplusDeathTest, InfiniteTermMassEndsTheProcess) {
    // 2^130 joint states do not fit a float: tau and b are infinite, and the
    // first tuple of positive degree brings NaN into PSUM.
    Model<unsigned int, float> M(130, chain(130));
    M.randomWeights(0.0, 0.01, 3);
    auto e = M.engineOf(2, 100);
    EXPECT_DEATH(e->infer(0), "Assertion `!std::isnan\\(PSUM\\)' failed");
}
