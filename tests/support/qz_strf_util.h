// Bookkeeping of spatio-temporal models done by the tests themselves: the
// decay laws from their definitions, which edges of a slice graph are one
// edge at different times (read from the endpoints alone), the weights that
// the increments compose to, and exact marginals by enumeration.
#ifndef QZ_STRF_TEST_UTIL_H
#define QZ_STRF_TEST_UTIL_H

#include <QZ/graph/core>
#include <QZ/QZMISC>

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

namespace qztest {

// The weight at time z of the increment of time x, in double.
inline double decayLaw(int law, double x, double z) {
    typedef QZ::vm_t V;
    auto P = [z](double u, double l) { return z == 0 ? l : u / z * (1 - l) + l; };
    switch (law) {
    case V::NONE: return 1;
    case V::STRF_LI: return (x + 1) / (z + 1);
    case V::STRF_QU: return std::pow((x + 1) / (z + 1), 2);
    case V::STRF_CU: return std::pow((x + 1) / (z + 1), 3);
    case V::STRF_RA: return 1 / (z - x + 1);
    case V::STRF_EX: return std::exp(x - z);
    case V::STRF_IQU: {
        const double l = 1 / ((z + 1) * (z + 1));
        return P((z + 1) * std::sqrt(P(x, l)) - 1, l);
    }
    case V::STRF_ICU: {
        const double l = 1 / ((z + 1) * (z + 1) * (z + 1));
        return P((z + 1) * std::cbrt(P(x, l)) - 1, l);
    }
    case V::STRF_IRA: {
        const double l = 1 / (z + 1);
        return P((z + 1) - 1 / P(x, l), l);
    }
    case V::STRF_IEX: {
        const double l = std::exp(-z);
        return P(std::log(P(x, l)) + z, l);
    }
    default: return 0;
    }
}

// A weight layout: the endpoints and the block start of every edge.
template <typename idx_t> struct Layout {
    std::vector<std::pair<size_t, size_t>> ends;
    std::vector<size_t> off;
    std::vector<size_t> Y;
    size_t d = 0;

    Layout(const QZ::AbstractGraph<idx_t>& G, const idx_t* _Y) : Y(_Y, _Y + (size_t)G.vertices()) {
        for (size_t e = 0; e < (size_t)G.edges(); ++e) {
            idx_t a, b;
            G.edge((idx_t)e, a, b);
            ends.push_back({(size_t)a, (size_t)b});
            off.push_back(d);
            d += Y[a] * Y[b];
        }
    }

    size_t index(size_t e, size_t x, size_t y) const { return off[e] + Y[ends[e].second] * x + y; }
};

// Which edges are one edge at different times: a temporal edge by its base
// vertex, a spatial edge by its oriented base pair, a diagonal by its
// oriented base pair and whether it runs forward in time. An edge's time is
// the earlier of its endpoints' slices; n is the size of a slice.
template <typename idx_t> struct Ties {
    std::vector<size_t> time;
    std::vector<std::vector<size_t>> atTime;  // per edge, the same edge at time 0, 1, ...

    Ties(const Layout<idx_t>& L, size_t n) {
        const size_t m = L.ends.size();
        std::map<std::tuple<int, size_t, size_t, int>, std::map<size_t, size_t>> byKey;
        std::vector<std::tuple<int, size_t, size_t, int>> keys(m);
        time.resize(m);
        for (size_t e = 0; e < m; ++e) {
            const auto p = L.ends[e];
            const size_t tu = p.first / n, su = p.first % n, tv = p.second / n, sv = p.second % n;
            std::tuple<int, size_t, size_t, int> key;
            if (su == sv) key = std::make_tuple(0, su, su, 0);
            else if (tu == tv) key = std::make_tuple(1, su, sv, 0);
            else key = std::make_tuple(2, su, sv, tu < tv ? 1 : -1);
            keys[e] = key;
            time[e] = std::min(tu, tv);
            byKey[key][time[e]] = e;
        }
        atTime.resize(m);
        for (size_t e = 0; e < m; ++e)
            for (size_t k = 0; k <= time[e]; ++k) atTime[e].push_back(byKey.at(keys[e]).at(k));
    }
};

// The Jacobian of the weights by the increments as (weight, increment,
// coefficient) terms. The increment of joint state (x, y) of edge e at the
// earlier time k lies in the block of e's copy at time k, at the place that
// e's own state counts give it (Y[t] * x + y), also where that copy has other
// state counts: then it is some other cell of the weights.
template <typename idx_t> struct Composition {
    std::vector<std::tuple<size_t, size_t, double>> terms;
    size_t d;

    Composition(const Layout<idx_t>& L, const Ties<idx_t>& ties, int law) : d(L.d) {
        for (size_t e = 0; e < L.ends.size(); ++e) {
            const auto p = L.ends[e];
            for (size_t x = 0; x < L.Y[p.first]; ++x)
                for (size_t y = 0; y < L.Y[p.second]; ++y)
                    for (size_t k = 0; k <= ties.time[e]; ++k) {
                        const size_t f = ties.atTime[e][k];
                        terms.emplace_back(L.index(e, x, y), L.off[f] + L.Y[p.second] * x + y,
                                           decayLaw(law, (double)k, (double)ties.time[e]));
                    }
        }
    }

    std::vector<double> weights(const std::vector<double>& delta) const {
        std::vector<double> w(d, 0.0);
        for (const auto& t : terms) w[std::get<0>(t)] += std::get<2>(t) * delta[std::get<1>(t)];
        return w;
    }

    // g_delta = J^T g_w.
    std::vector<double> pullBack(const std::vector<double>& gw) const {
        std::vector<double> g(d, 0.0);
        for (const auto& t : terms) g[std::get<1>(t)] += std::get<2>(t) * gw[std::get<0>(t)];
        return g;
    }
};

// Vertex marginals (vertex-major), edge marginals (in the weight layout) and
// log Z of a weight vector, by enumerating every joint state.
template <typename idx_t>
void enumerate(const Layout<idx_t>& L, const std::vector<double>& w, std::vector<double>& vmarg,
               std::vector<double>& emarg, double& logZ) {
    const size_t N = L.Y.size(), m = L.ends.size();
    std::vector<size_t> x(N, 0), voff(N, 0);
    for (size_t v = 1; v < N; ++v) voff[v] = voff[v - 1] + L.Y[v - 1];
    std::vector<double> lp;
    std::vector<std::vector<size_t>> states;
    for (;;) {
        double r = 0;
        for (size_t e = 0; e < m; ++e) r += w[L.index(e, x[L.ends[e].first], x[L.ends[e].second])];
        lp.push_back(r);
        states.push_back(x);
        size_t j = 0;
        for (; j < N; ++j) {
            if (++x[j] < L.Y[j]) break;
            x[j] = 0;
        }
        if (j == N) break;
    }
    const double mx = *std::max_element(lp.begin(), lp.end());
    double Z = 0;
    for (double v : lp) Z += std::exp(v - mx);
    logZ = mx + std::log(Z);
    vmarg.assign(N == 0 ? 0 : voff[N - 1] + L.Y[N - 1], 0.0);
    emarg.assign(L.d, 0.0);
    for (size_t s = 0; s < lp.size(); ++s) {
        const double p = std::exp(lp[s] - logZ);
        const std::vector<size_t>& X = states[s];
        for (size_t v = 0; v < N; ++v) vmarg[voff[v] + X[v]] += p;
        for (size_t e = 0; e < m; ++e) emarg[L.index(e, X[L.ends[e].first], X[L.ends[e].second])] += p;
    }
}

}  // namespace qztest

#endif
