#include <gtest/gtest.h>

#include <QZ/QZINF>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Test programs run side by side on few cores: a team that gave way to
    // the other programs would turn the comparisons of one thread with two
    // into one thread with one. The tests of the crowding switch it back on.
    QZ::detail::crowding().setWatch(false);
    return RUN_ALL_TESTS();
}
