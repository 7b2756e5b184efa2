// Checks that the model instructions make of a table against the state spaces
// of a model before they index anything by a cell, so that bad input ends in
// a clear error instead of a write or read past an array.
#ifndef QZ_INSTRUCTIONS_CHECKS_H
#define QZ_INSTRUCTIONS_CHECKS_H

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>

#include <stdexcept>
#include <string>
#include <vector>

namespace QZ {

inline std::string columnLabel(const CategoricalData* D, size_t v) {
    return v < D->columns() ? D->columnName(v) : "vertex " + std::to_string(v);
}

// Every cell of the first n columns is missing or one of the column's Y[v]
// states. A binary table does not check its cells against its category
// count, and a table read apart from the model may have more states.
template <typename idx_t> void checkCells(const CategoricalData* D, size_t n, const idx_t* Y) {
    const size_t cols = n < D->columns() ? n : D->columns();
    for (size_t i = 0; i < D->rows(); ++i)
        for (size_t v = 0; v < cols; ++v) {
            const size_t x = D->get(i, v);
            if (x != CategoricalData::MIS_VAL && x >= (size_t)Y[v])
                throw std::logic_error("row " + std::to_string(i) + ", column " + columnLabel(D, v) +
                                       " holds state " + std::to_string(x) + ", but the column has only " +
                                       std::to_string((size_t)Y[v]) + " states");
        }
}

// What counting needs from a table and a graph: at least one state per
// variable (a column without any observed value has none, and its missing
// cells could not be drawn), cells within the state spaces, and a number of
// statistics and offsets that idx_t can count.
template <typename idx_t> void checkCounting(const CategoricalData* D, const AbstractGraph<idx_t>* G, const idx_t* Y) {
    const size_t n = (size_t)G->vertices(), m = (size_t)G->edges();
    for (size_t v = 0; v < n; ++v)
        if (Y[v] == 0)
            throw std::logic_error("column " + columnLabel(D, v) +
                                   " has no observed value: a model needs at least one state per column");
    idx_t s, t;
    const size_t vdim = checkedSum<idx_t>(n, [&](size_t v) { return (size_t)Y[v]; }, "states");
    const size_t dim = checkedSum<idx_t>(m, [&](size_t e) {
        G->edge((idx_t)e, s, t);
        return checkedProduct<idx_t>(Y[s], Y[t], "weights");
    }, "weights");
    checkedSum<idx_t>(2, [&](size_t k) { return k == 0 ? vdim : dim; }, "statistics");
    checkedSum<idx_t>(3, [&](size_t k) { return k == 0 ? n : k == 1 ? m : 1; }, "offsets");
    checkCells<idx_t>(D, n, Y);
}

// The counting for a clique search lays out a block for every subset of up
// to k columns, sized by the product of their states, with offsets and the
// statistics of one and two columns in idx_t: every size and offset must fit
// it. Sums go by the number of subsets and the elementary symmetric sums of
// the state counts, degree by degree.
template <typename idx_t> void checkSubsets(size_t n, const idx_t* Y, size_t k) {
    const size_t most = (size_t)(idx_t)~(idx_t)0;
    if (k > n) k = n;
    // e[l]: the sum of the block sizes of the subsets of l columns; c[l]:
    // their number. A value past what idx_t holds is marked, not kept.
    std::vector<size_t> e(k + 1, 0), c(k + 1, 0);
    std::vector<char> eOver(k + 1, 0), cOver(k + 1, 0);
    e[0] = c[0] = 1;
    const auto addTimes = [most](size_t& to, char& over, size_t from, char fromOver, size_t times) {
        size_t p;
        if (fromOver || __builtin_mul_overflow(from, times, &p) || p > most || __builtin_add_overflow(to, p, &to) ||
            to > most)
            over = 1;
    };
    for (size_t v = 0; v < n; ++v)
        for (size_t l = (v + 1 < k ? v + 1 : k); l >= 1; --l) {
            addTimes(e[l], eOver[l], e[l - 1], eOver[l - 1], (size_t)Y[v]);
            addTimes(c[l], cOver[l], c[l - 1], cOver[l - 1], 1);
        }
    size_t blocks = 0, offsets = 0;
    for (size_t l = 0; l <= k; ++l) {
        if (l > 0 && (eOver[l] || __builtin_add_overflow(blocks, e[l], &blocks) || blocks > most))
            tooMany<idx_t>("statistics");
        if (cOver[l] || __builtin_add_overflow(offsets, c[l], &offsets) || offsets > most) tooMany<idx_t>("offsets");
    }
}

}  // namespace QZ

#endif
