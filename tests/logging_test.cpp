#include <gtest/gtest.h>

#include <string>

#include "device_test.h"
#include "vorn/logging.h"
#include "vorn/tensor/dim.h"
#include "vorn/util/gpu_util.h"

namespace vorn {
namespace {

using test::expect_failures;
using test::literal;

// A platform call that fails and counts how often it is made.
int g_calls = 0;
cudaError_t failing_call() {
    std::cerr << "<call " << ++g_calls << ">";
    return cudaErrorInvalidValue;
}

TEST(LoggingTest, FatalBlockHasBothPrefixesAndTheStackTrace) {
    const std::string prefix = "\\[[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\] [^ ]+:[0-9]+: ";
    EXPECT_DEATH(CHECK(1 + 1 == 3) << "extra " << 7,
                 "^" + prefix + prefix + literal("Check failed: 1 + 1 == 3 extra 7") +
                     "\n\nStack trace returned [1-9][0-9]* entries:\n\\[bt\\] \\(0\\) .+\n"
                     "(\\[bt\\] \\([0-9]+\\) .+\n)*\n$");
}

TEST(LoggingTest, EachFamilyHasItsText) {
    const int one = 1, two = 2;
    const int* none = nullptr;
    struct Shaped {
        int axes;
        int get_dim() const { return axes; }
    } cube{3};
    expect_failures({
        {"Check failed: one > two ", [=] { CHECK(one > two); }},
        {"Check failed: (one) == (two) ", [=] { CHECK_EQ(one, two); }},
        {"Check failed: (two) < (one) ", [=] { CHECK_LT(two, one); }},
        {"Check failed: (two) <= (one) ", [=] { CHECK_LE(two, one); }},
        {"Check failed: (one) > (two) ", [=] { CHECK_GT(one, two); }},
        {"Check failed: (one) >= (two) ", [=] { CHECK_GE(one, two); }},
        {"Check notnull: none ", [=] { CHECK_NOTNULL(none); }},
        {"Check failed: (cube).get_dim() == (2) ", [=] { CHECK_MATRIX(cube); }},
        {"Not Implemented Yet", [] { LOG_FATAL << "Not Implemented Yet"; }},
    });
}

TEST(LoggingTest, ChecksThatHoldEvaluateOnceAndNoExtras) {
    int conditions = 0, extras = 0;
    const auto extra = [&] { return ++extras; };
    CHECK(++conditions == 1) << extra();
    if (conditions == 1)
        CHECK_EQ(conditions, 1) << extra();  // a check is one statement: no dangling else
    else
        FAIL();
    EXPECT_EQ(conditions, 1);
    EXPECT_EQ(extras, 0);
}

TEST(LoggingTest, FailedPlatformCallIsMadeTwice) {
    EXPECT_DEATH(
        CHECK_CALL(failing_call()),
        "^<call 1><call 2>.*" + literal("Check failed: 0 == (failing_call()) invalid argument\n"));
    EXPECT_DEATH(
        {
            const cudaError_t ret = failing_call();
            CHECK_CALL(ret);
        },
        "^<call 1>\\[.*" + literal("Check failed: 0 == (ret) invalid argument\n"));
}

TEST(LoggingTest, ErrorLineGoesOn) {
    ::testing::internal::CaptureStderr();
    LOG_ERROR << "number " << 5;
    const std::string line = ::testing::internal::GetCapturedStderr();
    const size_t text = line.find(": number 5\n");
    EXPECT_EQ(text + 11, line.size()) << line;
    EXPECT_EQ(line.substr(0, 1) + line.substr(9, 2), "[] ");
    EXPECT_NE(line.find("logging_test.cpp:"), std::string::npos) << line;
}

TEST(LoggingTest, StatusTextsOfFourLibraries) {
    EXPECT_STREQ(gpu_get_error_string(cudaErrorInvalidValue), "invalid argument");
    EXPECT_STREQ(gpu_get_error_string(CUBLAS_STATUS_ARCH_MISMATCH), "CUBLAS_STATUS_ARCH_MISMATCH");
    EXPECT_STREQ(gpu_get_error_string(CUBLAS_STATUS_SUCCESS), "CUBLAS_STATUS_SUCCESS");
    EXPECT_STREQ(cublas_get_error_string(static_cast<cublasStatus_t>(2)),
                 "<unknown> cublasStatus_t");
    EXPECT_STREQ(gpu_get_error_string(CURAND_STATUS_LAUNCH_FAILURE),
                 "CURAND_STATUS_LAUNCH_FAILURE");
    EXPECT_STREQ(curand_get_error_string(CURAND_STATUS_SUCCESS), "<unknown> curandStatus_t");
    EXPECT_STREQ(curand_get_error_string(static_cast<curandStatus_t>(9)),
                 "<unknown> curandStatus_t");
    EXPECT_STREQ(gpu_get_error_string(CUDNN_STATUS_BAD_PARAM),
                 cudnnGetErrorString(CUDNN_STATUS_BAD_PARAM));
}

}  // namespace
}  // namespace vorn
