// Reading a categorical table back in the tests.
#ifndef QZ_TABLE_TEST_UTIL_H
#define QZ_TABLE_TEST_UTIL_H

#include <QZ/QZDATA>

#include <vector>

namespace qztest {

// Every cell of every row of one column.
inline std::vector<unsigned short> column(const QZ::CategoricalData* D, size_t col) {
    std::vector<unsigned short> r;
    for (size_t i = 0; i < D->rows(); ++i) r.push_back((unsigned short)D->get(i, col));
    return r;
}

}  // namespace qztest

#endif
