#include "device_fixture.h"

namespace {

class ErrorTest : public DeviceTest {};

__global__ void nothing() {}

TEST_F(ErrorTest, NumbersNamesAndTexts) {
    struct Case {
        cudaError_t error;
        int number;
        const char* name;
        const char* text;
    };
    for (const Case& c : {
             Case{cudaSuccess, 0, "cudaSuccess", "no error"},
             Case{cudaErrorInvalidValue, 1, "cudaErrorInvalidValue", "invalid argument"},
             Case{cudaErrorMemoryAllocation, 2, "cudaErrorMemoryAllocation", "out of memory"},
             Case{cudaErrorInvalidConfiguration, 9, "cudaErrorInvalidConfiguration",
                  "invalid configuration argument"},
             Case{cudaErrorNotReady, 600, "cudaErrorNotReady", "device not ready"},
             Case{cudaErrorAssert, 710, "cudaErrorAssert", "device-side assert triggered"},
             Case{cudaErrorLaunchFailure, 719, "cudaErrorLaunchFailure",
                  "unspecified launch failure"},
             Case{static_cast<cudaError_t>(12345), 12345, "unrecognized error code",
                  "unrecognized error code"},
         }) {
        EXPECT_EQ(static_cast<int>(c.error), c.number);
        EXPECT_STREQ(cudaGetErrorName(c.error), c.name);
        EXPECT_STREQ(cudaGetErrorString(c.error), c.text);
    }
}

TEST_F(ErrorTest, LaunchShapes) {
    for (const auto& [grid, block] :
         std::vector<std::pair<dim3, dim3>>{{dim3(0), dim3(1)},
                                            {dim3(1, 0), dim3(1)},
                                            {dim3(1), dim3(1, 1, 0)},
                                            {dim3(1), dim3(1025)},
                                            {dim3(1), dim3(33, 32)},
                                            {dim3(1), dim3(1, 1, 65)},
                                            {dim3(1, 65536), dim3(1)},
                                            {dim3(1, 1, 65536), dim3(1)},
                                            {dim3(0x80000000u), dim3(1)}}) {
        EXPECT_EQ(launch(grid, block, nothing), cudaErrorInvalidConfiguration);
        // Recorded, kept by a look, cleared by reading; the device is unharmed.
        EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidConfiguration);
        EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidConfiguration);
        EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    }
    EXPECT_CUDA(launch(dim3(2, 65535), dim3(16, 1, 64), nothing));
    EXPECT_CUDA(cudaDeviceSynchronize());

    cudaLaunchConfig_t c = config(1, 1);
    c.dynamicSmemBytes = 16;
    EXPECT_EQ(cudaLaunchKernelEx(&c, nothing), cudaErrorNotSupported);
    EXPECT_EQ(launch(1, 1, static_cast<void (*)()>(nullptr)), cudaErrorInvalidDeviceFunction);
}

TEST_F(ErrorTest, LastErrorBelongsToTheThread) {
    EXPECT_EQ(cudaSetDevice(1), cudaErrorInvalidDevice);
    std::thread([] { EXPECT_EQ(cudaGetLastError(), cudaSuccess); }).join();
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidDevice);
}

TEST_F(ErrorTest, HandlesThatAreNone) {
    cudaStream_t stream;
    cudaEvent_t event;
    ASSERT_CUDA(cudaStreamCreate(&stream));
    ASSERT_CUDA(cudaEventCreate(&event));
    ASSERT_CUDA(cudaStreamDestroy(stream));
    ASSERT_CUDA(cudaEventDestroy(event));
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaEventRecord(event), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaEventDestroy(event), cudaErrorInvalidResourceHandle);
}

TEST_F(ErrorTest, Device) {
    int count = -1, device = -1, pools = 0, major = 0;
    EXPECT_CUDA(cudaGetDeviceCount(&count));
    EXPECT_EQ(count, 1);
    EXPECT_CUDA(cudaSetDevice(0));
    EXPECT_CUDA(cudaGetDevice(&device));
    EXPECT_EQ(device, 0);
    EXPECT_CUDA(cudaDeviceGetAttribute(&pools, cudaDevAttrMemoryPoolsSupported, 0));
    EXPECT_EQ(pools, 1);
    EXPECT_CUDA(cudaDeviceGetAttribute(&major, cudaDevAttrComputeCapabilityMajor, 0));
    cudaDeviceProp properties;
    EXPECT_CUDA(cudaGetDeviceProperties(&properties, 0));
    EXPECT_EQ(properties.major, major);
    EXPECT_EQ(properties.maxThreadsPerBlock, 1024);
    EXPECT_EQ(cudaDeviceGetAttribute(&pools, cudaDevAttrWarpSize, 1), cudaErrorInvalidDevice);
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
            const bool fine = cudaFreeAsync(pointer, stream) == cudaSuccess &&
                              cudaStreamDestroy(stream) == cudaSuccess;
            std::fprintf(stderr, fine ? "freed at exit\n" : "not freed\n");
        }
    }
} at_exit;

TEST_F(ErrorTest, StaticDestructorsMayCall) {
    EXPECT_EXIT(
        {
            cudaStreamCreate(&at_exit.stream);
            cudaMallocAsync(&at_exit.pointer, 100, at_exit.stream);
            launch(dim3(1000), dim3(256), nothing);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "freed at exit");
}

}  // namespace
