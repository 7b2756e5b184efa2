// A UAI network held by a test: cardinalities and factors, written out as
// text and enumerated in the test, independently of qzuai; and the parts of
// the competitions' result files read back.
#ifndef QZ_UAI_NET_H
#define QZ_UAI_NET_H

#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace qztest {

struct UaiFactor {
    std::vector<size_t> scope;
    std::vector<double> table;  // last scope variable fastest
};

struct UaiNet {
    std::vector<size_t> card;
    std::vector<UaiFactor> factors;
    bool bayes = false;

    // Tokens spread over lines in an uneven way: line breaks carry no meaning.
    std::string text() const {
        std::ostringstream os;
        os.precision(17);
        os << (bayes ? "BAYES\n" : "MARKOV\n") << card.size() << "\n";
        for (size_t c : card) os << c << "\t";
        os << "\n" << factors.size() << "\n";
        for (const UaiFactor& f : factors) {
            os << f.scope.size();
            for (size_t v : f.scope) os << " " << v;
            os << "\n";
        }
        for (const UaiFactor& f : factors) {
            os << "\n" << f.table.size() << "\n";
            for (size_t i = 0; i < f.table.size(); ++i) os << (i % 3 == 2 ? "\n  " : " ") << f.table[i];
            os << "\n";
        }
        return os.str();
    }

    // The product of the factors' entries for a joint state.
    double potential(const std::vector<size_t>& x) const {
        double p = 1.0;
        for (const UaiFactor& f : factors) {
            size_t i = 0;
            for (size_t v : f.scope) i = i * card[v] + x[v];
            p *= f.table[i];
        }
        return p;
    }

    // Calls f(x, potential) for every joint state that agrees with the
    // observations, variable 0 fastest.
    template <typename F> void forEach(const std::map<size_t, size_t>& observed, F f) const {
        const size_t n = card.size();
        std::vector<size_t> x(n, 0);
        for (;;) {
            bool agrees = true;
            for (const auto& o : observed) agrees = agrees && x[o.first] == o.second;
            if (agrees) f(x, potential(x));
            size_t j = 0;
            while (j < n && ++x[j] == card[j]) x[j++] = 0;
            if (j == n) break;
        }
    }

    // Z over the joint states that agree with the observations, and the
    // vertex marginals under them.
    double enumerate(std::vector<std::vector<double>>* marg = nullptr,
                     const std::map<size_t, size_t>& observed = {}) const {
        std::vector<std::vector<double>> m(card.size());
        for (size_t v = 0; v < card.size(); ++v) m[v].assign(card[v], 0.0);
        double Z = 0.0;
        forEach(observed, [&](const std::vector<size_t>& x, double p) {
            Z += p;
            for (size_t v = 0; v < x.size(); ++v) m[v][x[v]] += p;
        });
        if (marg != nullptr) {
            for (auto& mv : m)
                for (double& p : mv) p /= Z;
            *marg = m;
        }
        return Z;
    }

    // The largest potential of a joint state that agrees with the observations.
    double bestPotential(const std::map<size_t, size_t>& observed = {}) const {
        double best = 0.0;
        forEach(observed, [&](const std::vector<size_t>&, double p) { best = std::max(best, p); });
        return best;
    }
};

// The numbers of a result file after its first line, which must be the task.
inline std::vector<double> resultNumbers(const std::string& text, const std::string& task) {
    std::istringstream is(text);
    std::string head;
    std::vector<double> v;
    if (!(is >> head) || head != task) return v;
    double x;
    while (is >> x) v.push_back(x);
    return v;
}

// A MAR result as marginals: n, then per variable its state count and values.
inline bool parseMarginals(const std::vector<double>& nums, std::vector<std::vector<double>>& out) {
    out.clear();
    if (nums.empty()) return false;
    size_t k = 1;
    const size_t n = (size_t)nums[0];
    for (size_t v = 0; v < n; ++v) {
        if (k >= nums.size()) return false;
        const size_t c = (size_t)nums[k++];
        if (k + c > nums.size()) return false;
        out.emplace_back(nums.begin() + (long)k, nums.begin() + (long)(k + c));
        k += c;
    }
    return k == nums.size();
}

}  // namespace qztest

#endif
