#include <gtest/gtest.h>

// Death tests run in a fresh process: the simulated GPU has threads, and a fork would lose them.
int main(int argc, char** argv) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
