#include <gtest/gtest.h>
#include <qz_test_util.h>
TEST(Smoke, Version) { EXPECT_EQ(version(), 10068u); }
