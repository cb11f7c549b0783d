#include <unistd.h>

#include <cstdio>

#include "device_fixture.h"

namespace {

class ErrorTest : public DeviceTest {};

__global__ void nothing() {}

TEST_F(ErrorTest, NumbersNamesAndTexts) {
    EXPECT_STREQ(cudaGetErrorName(cudaError_t(2)), "cudaErrorMemoryAllocation");
    EXPECT_STREQ(cudaGetErrorName(cudaError_t(600)), "cudaErrorNotReady");
    EXPECT_STREQ(cudaGetErrorString(cudaError_t(710)), "device-side assert triggered");
    EXPECT_STREQ(cudaGetErrorString(cudaError_t(12345)), "unrecognized error code");
}

TEST_F(ErrorTest, LaunchesRefused) {
    cudaLaunchConfig_t dynamic = config(1, 1);
    dynamic.dynamicSmemBytes = 16;
    const auto shape = cudaErrorInvalidConfiguration;
    for (const auto& [c, error] : std::vector<std::pair<cudaLaunchConfig_t, cudaError_t>>{
             {config(dim3(0), 1), shape},
             {config(dim3(1, 0), 1), shape},
             {config(1, dim3(1, 1, 0)), shape},
             {config(1, 1025), shape},
             {config(1, dim3(33, 32)), shape},
             {config(1, dim3(1, 1, 65)), shape},
             {config(dim3(1, 65536), 1), shape},
             {config(dim3(1, 1, 65536), 1), shape},
             {config(dim3(0x80000000u), 1), shape},
             {dynamic, cudaErrorNotSupported},
         }) {
        EXPECT_EQ(launch(c, nothing), error);
        // Recorded, kept by a look, cleared by reading; the device is unharmed.
        EXPECT_EQ(cudaPeekAtLastError(), error);
        EXPECT_EQ(cudaGetLastError(), error);
        EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    }
    void (*none)() = nullptr;
    EXPECT_EQ(launch(config(1, 1), none), cudaErrorInvalidDeviceFunction);
    EXPECT_CUDA(launch(config(dim3(2, 65535), 1), nothing));
    EXPECT_CUDA(launch(config(1, dim3(16, 1, 64)), nothing));
    EXPECT_CUDA(cudaDeviceSynchronize());
}

template <int kInts>
__global__ void use_shared(int* out) {
    __shared__ int first[kInts];
    __shared__ char second[4096];
    first[threadIdx.x] = second[threadIdx.x] = 1;
    *out = first[0] + second[0];
}

TEST_F(ErrorTest, TooMuchSharedMemory) {
    constexpr int kMost = (48 * 1024 - 4096) / 4;
    DeviceArray<int> out(1);
    EXPECT_CUDA(launch(config(1, 1), use_shared<kMost>, out.get()));
    EXPECT_EQ(out.read()[0], 2);
    testing::internal::CaptureStderr();
    EXPECT_EQ(launch(config(1, 1), use_shared<kMost + 1>, out.get()),
              cudaErrorInvalidConfiguration);
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_NE(message.find("use_shared<11265>(int*): more than 49152 bytes of shared memory\n"),
              std::string::npos)
        << message;
}

TEST_F(ErrorTest, LastErrorBelongsToTheThread) {
    EXPECT_EQ(cudaSetDevice(1), cudaErrorInvalidDevice);
    std::thread([] { EXPECT_EQ(cudaGetLastError(), cudaSuccess); }).join();
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidDevice);
}

TEST_F(ErrorTest, HandlesThatAreNone) {
    const cudaStream_t stream = create_stream();
    cudaEvent_t event;
    ASSERT_CUDA(cudaEventCreate(&event));
    ASSERT_CUDA(cudaStreamDestroy(stream));
    ASSERT_CUDA(cudaEventDestroy(event));
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaEventRecord(event), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaEventDestroy(event), cudaErrorInvalidResourceHandle);
}

TEST_F(ErrorTest, OutsideAKernel) {
    const int one = 1;
    EXPECT_DEATH(assert(one == 2), "error_test.cpp.*Assertion `one == 2' failed");
    // A compiler for a real device refuses this call; a plain one has to leave it to the library.
    EXPECT_DEATH(gpusim::detail::block_barrier("file", 1, "host"), "a barrier outside a kernel");
}

TEST_F(ErrorTest, OrderThatIsNone) {
    const char* const order_of_this_run = std::getenv("GPUSIM_ORDER");
    const std::string kept = order_of_this_run == nullptr ? "forward" : order_of_this_run;
    for (const char* order : {"backward", "shuffle", "shuffle:", "shuffle:7x"}) {
        ASSERT_EQ(setenv("GPUSIM_ORDER", order, 1), 0);
        EXPECT_DEATH((launch(config(1, 1), nothing), cudaDeviceSynchronize()),
                     "GPUSIM_ORDER is forward or shuffle:SEED, not '" + std::string(order) + "'");
    }
    ASSERT_EQ(setenv("GPUSIM_ORDER", kept.c_str(), 1), 0);
}

TEST_F(ErrorTest, ForkedProcessIsRefused) {
    ASSERT_CUDA(cudaDeviceSynchronize());
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(std::_Exit(cudaDeviceSynchronize() == cudaErrorInitializationError ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

// Calls that come when main() is over, from whatever was built before the device.
struct AtExit {
    void* pointer = nullptr;
    cudaStream_t stream = nullptr;
    ~AtExit() {
        if (pointer != nullptr) {
            std::fputs(cudaGetErrorString(cudaFreeAsync(pointer, stream)), stderr);
            std::_Exit(cudaStreamDestroy(stream) == cudaErrorCudartUnloading ? 0 : 1);
        }
    }
} at_exit;

TEST_F(ErrorTest, StaticDestructorsThatCallAreRefused) {
    EXPECT_EXIT(
        {
            at_exit.stream = create_stream();
            cudaMallocAsync(&at_exit.pointer, 100, at_exit.stream);
            launch(config(1000, 256), nothing);
            std::exit(2);
        },
        testing::ExitedWithCode(0), "driver shutting down");
}

__global__ void print_and_fail(int zero) {
    printf("the kernel's last words\n");
    assert(zero != 0);
}

TEST_F(ErrorTest, AFailedAssertionDoesNotLoseWhatWasPrinted) {
    EXPECT_DEATH(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);  // as where it is a pipe
            launch(config(1, 1), print_and_fail, 0);
            cudaDeviceSynchronize();
            std::abort();
        },
        "the kernel's last words");
}

}  // namespace
