// Engines for the tests of message passing.
#ifndef QZ_BP_TEST_UTIL_H
#define QZ_BP_TEST_UTIL_H

#include <QZ/graph/core>
#include <QZ/bp/loopy>

namespace qztest {

// Loopy belief propagation that counts its sweeps.
template <typename idx_t, typename val_t> class CountingLBP : public QZ::LBP<idx_t, val_t> {
public:
    int sweeps = 0;
    CountingLBP(const QZ::AbstractGraph<idx_t>* G, const idx_t* Y, val_t* w)
        : QZ::LBP<idx_t, val_t>(G, Y, nullptr, w, false) {}

protected:
    void post_process() override {
        QZ::LBP<idx_t, val_t>::post_process();
#pragma omp master
        ++sweeps;
    }
};

}  // namespace qztest

#endif
