#include <cmath>
#include <regex>
#include <thread>

#include "device_test.h"
#include "vorn/logging.h"
#include "vorn/tensor/dim.h"
#include "vorn/util/gpu_util.h"

namespace vorn {
namespace test {
namespace {

const std::string kPrefix = "\\[[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\] [^ ]+logging[^ ]*:[0-9]+: ";

// A platform call that fails and counts how often it is made.
int g_calls = 0;
cudaError_t failing_call() {
    std::cerr << "<call " << ++g_calls << ">";
    return cudaErrorInvalidValue;
}

TEST(LoggingTest, FatalBlockHasBothPrefixesAndTheStackTrace) {
    EXPECT_DEATH(CHECK(1 + 1 == 3) << "extra " << 7,
                 "^" + kPrefix + kPrefix + literal("Check failed: 1 + 1 == 3 extra 7") +
                     "\n\nStack trace returned [1-9][0-9]* entries:\n\\[bt\\] \\(0\\) .+\n"
                     "(\\[bt\\] \\([0-9]+\\) .+\n)*\n$");
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

struct Caught {
    logging::CheckFailure failure;
};

// The calling thread's handler for the lifetime of a scope.
class HandlerScope {
public:
    explicit HandlerScope(logging::CheckFailureHandler handler)
        : _previous(logging::set_check_failure_handler(handler)) {}
    ~HandlerScope() { logging::set_check_failure_handler(_previous); }

private:
    logging::CheckFailureHandler _previous;
};

void throw_failure(const logging::CheckFailure& failure) {
    throw Caught{failure};
}

class HandlerTest : public DeviceTest {};

TEST_P(HandlerTest, ThatThrowsLeavesTheOperationAndTheTensors) {
    const HandlerScope scope(throw_failure);
    Tensor<float> out(Dim(2, 3), device()), in(Dim(3, 2), device());
    out.set_element(5);
    for (int repeat = 0; repeat < 100; ++repeat) {
        try {
            out.tanh(in);
            FAIL() << "the check holds";
        } catch (const Caught& caught) {
            EXPECT_EQ(caught.failure.message.find("Check failed: "), 0u);
            EXPECT_NE(std::string(caught.failure.file).find("ops.h"), std::string::npos);
            EXPECT_GT(caught.failure.line, 0);
            EXPECT_TRUE(std::regex_search(
                caught.failure.trace,
                std::regex("^Stack trace returned [1-9][0-9]* entries:\n\\[bt\\] \\(0\\) .+\n")));
        }
    }
    EXPECT_EQ(out.sum(), 30);
    out.tanh();
    EXPECT_NEAR(out.sum(), 6 * std::tanh(5.0), 1e-5);
}

INSTANTIATE_TEST_SUITE_P(Places, HandlerTest, kDensePlaces, name_of_place);

TEST(LoggingTest, HandlerThatReturnsAbortsWithTheLog) {
    EXPECT_DEATH(
        {
            logging::set_check_failure_handler(
                [](const logging::CheckFailure&) { std::cerr << "handled\n"; });
            CHECK(1 + 1 == 3) << "extra " << 7;
        },
        "^handled\n" + kPrefix + kPrefix + literal("Check failed: 1 + 1 == 3 extra 7") +
            "\n\nStack trace returned [1-9][0-9]* entries:\n");
}

struct FailsAtItsEnd {
    ~FailsAtItsEnd() { CHECK(1 + 1 == 3); }
};

TEST(LoggingTest, ChecksInDestructorsAndOnOtherThreadsStillAbort) {
    const HandlerScope scope(throw_failure);
    EXPECT_DEATH(
        try { FailsAtItsEnd fails; } catch (const Caught&){}, "terminate called after throwing");
    EXPECT_DEATH(std::thread([] {
                     try {
                         CHECK(1 + 1 == 3);
                     } catch (const Caught&) {
                     }
                 }).join(),
                 literal("Check failed: 1 + 1 == 3"));
}

TEST(LoggingTest, ErrorLineGoesOn) {
    ::testing::internal::CaptureStderr();
    LOG_ERROR << "number " << 5;
    EXPECT_TRUE(std::regex_match(::testing::internal::GetCapturedStderr(),
                                 std::regex(kPrefix + "number 5\n")));
}

TEST(LoggingTest, StatusTextsOfFourLibraries) {
    const std::pair<const char*, const char*> texts[] = {
        {gpu_get_error_string(cudaErrorInvalidValue), "invalid argument"},
        {gpu_get_error_string(CUBLAS_STATUS_ARCH_MISMATCH), "CUBLAS_STATUS_ARCH_MISMATCH"},
        {gpu_get_error_string(CUBLAS_STATUS_SUCCESS), "CUBLAS_STATUS_SUCCESS"},
        {gpu_get_error_string(static_cast<cublasStatus_t>(2)), "<unknown> cublasStatus_t"},
        {gpu_get_error_string(CURAND_STATUS_LAUNCH_FAILURE), "CURAND_STATUS_LAUNCH_FAILURE"},
        {gpu_get_error_string(CURAND_STATUS_SUCCESS), "<unknown> curandStatus_t"},
        {gpu_get_error_string(static_cast<curandStatus_t>(9)), "<unknown> curandStatus_t"},
        {gpu_get_error_string(CUDNN_STATUS_BAD_PARAM), cudnnGetErrorString(CUDNN_STATUS_BAD_PARAM)},
    };
    for (const auto& [actual, expected] : texts) {
        EXPECT_STREQ(actual, expected);
    }
}

}  // namespace
}  // namespace test
}  // namespace vorn
