#include <gtest/gtest.h>

#include <cstdlib>

// Death tests run in a fresh process: the simulated GPU has threads, and a fork would lose them.
int main(int argc, char** argv) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::testing::InitGoogleTest(&argc, argv);
    // Every failure names the order in which kernels ran.
    const char* order = std::getenv("GPUSIM_ORDER");
    SCOPED_TRACE(::testing::Message() << "GPUSIM_ORDER=" << (order ? order : "forward"));
    return RUN_ALL_TESTS();
}
