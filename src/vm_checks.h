// Checks that the model instructions make of a table against the state spaces
// of a model before they index anything by a cell, so that bad input ends in
// a clear error instead of a write or read past an array.
#ifndef QZ_VM_CHECKS_H
#define QZ_VM_CHECKS_H

#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZGRAPH>

#include <stdexcept>
#include <string>

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

}  // namespace QZ

#endif
