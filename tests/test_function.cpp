// The objective interface that optimizers see: dimension, owned gradient,
// gradient norm and Lipschitz constant.
#include <gtest/gtest.h>
#include <qz_test_util.h>

#include <QZ/opt/function>

#include <cmath>

using namespace QZ;

namespace {

// The smallest complete objective: f(x) = sum of x[i], so the gradient is all
// ones. It counts destruction to show that deleting through the base works.
template <typename I, typename V>
struct SumFn : Function<I, V> {
    V* x;
    int* destroyed;
    SumFn(I d, int* dd) : Function<I, V>(d), x(new V[d]()), destroyed(dd) {}
    ~SumFn() override {
        delete[] x;
        if (destroyed) ++*destroyed;
    }
    void decode_weights() override {}
    V* current_point() override { return x; }
    V eval() override {
        V s = 0;
        for (I i = 0; i < this->d; ++i) s += x[i];
        return s;
    }
    V* comp_gradient() override {
        for (I i = 0; i < this->d; ++i) this->g[i] = 1;
        this->g_nrm = this->d ? 1 : 0;
        return this->g;
    }
};

}  // namespace

TEST(Function, ConstructorSetsDimensionAndZeroesGradientNormAndLip) {
    SumFn<unsigned int, double> f(7, nullptr);
    EXPECT_EQ(f.d, 7u);
    EXPECT_EQ(f.dim(), 7u);
    EXPECT_EQ(f.g_nrm, 0.0);
    EXPECT_EQ(f.get_gradient_norm(), 0.0);
    EXPECT_EQ(f.lip, 0.0);
    EXPECT_EQ(f.L(), 0.0);
    ASSERT_NE(f.g, nullptr);
    for (unsigned i = 0; i < 7; ++i) EXPECT_EQ(f.g[i], 0.0) << i;
}

TEST(Function, GetGradientReturnsTheOwnedArray) {
    SumFn<unsigned short, float> f(3, nullptr);
    Function<unsigned short, float>* b = &f;
    EXPECT_EQ(b->get_gradient(), f.g);
    EXPECT_EQ(b->comp_gradient(), f.g);
    EXPECT_EQ(f.g[2], 1.0f);
}

TEST(Function, AccessorsReadTheFieldsThatSubclassesWrite) {
    SumFn<unsigned long, double> f(2, nullptr);
    f.lip = 4.5;
    f.g_nrm = 0.25;
    EXPECT_EQ(f.L(), 4.5);
    EXPECT_EQ(f.get_gradient_norm(), 0.25);
    f.comp_gradient();
    EXPECT_EQ(f.get_gradient_norm(), 1.0);
}

TEST(Function, ObjectiveWithoutParametersHasZeroDimensionLipAndNorm) {
    SumFn<unsigned char, double> f(0, nullptr);
    EXPECT_EQ(f.dim(), 0);
    EXPECT_EQ(f.L(), 0.0);
    f.comp_gradient();
    EXPECT_EQ(f.get_gradient_norm(), 0.0);
    EXPECT_EQ(f.eval(), 0.0);
}

TEST(Function, IntegerValuesGetAZeroedGradient) {
    SumFn<unsigned char, unsigned char> f(255, nullptr);
    EXPECT_EQ(f.dim(), 255);
    for (unsigned i = 0; i < 255; ++i) EXPECT_EQ(f.g[i], 0) << i;
    EXPECT_EQ(f.get_gradient_norm(), 0);
    EXPECT_EQ(f.L(), 0);
}

TEST(Function, DeletingThroughTheBaseRunsTheSubclassDestructor) {
    int destroyed = 0;
    Function<unsigned int, float>* f = new SumFn<unsigned int, float>(4, &destroyed);
    f->current_point()[1] = 2.0f;
    EXPECT_EQ(f->eval(), 2.0f);
    delete f;
    EXPECT_EQ(destroyed, 1);
}
