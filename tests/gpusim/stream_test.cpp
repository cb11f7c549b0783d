#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <numeric>

#include "device_fixture.h"

namespace {

__global__ void append_value(int* list, int value) {
    list[1 + atomicAdd(list, 1)] = value;
}

/// Kernels append to a list, so that it shows the order in which they ran.
class StreamTest : public DeviceTest {
protected:
    cudaError_t append(cudaStream_t stream, int value) {
        return launch(config(1, 1, stream), append_value, list_.get(), value);
    }
    std::vector<int> entries() {
        const std::vector<int> values = list_.read();
        return {values.begin() + 1, values.begin() + 1 + values[0]};
    }

private:
    DeviceArray<int> list_{std::vector<int>(256, 0)};
};

TEST_F(StreamTest, NullStreamWaitsForBlockingStreamsAndTheyForIt) {
    const cudaStream_t a = create_stream(), b = create_stream();
    Gate gate(a);
    for (int i = 0; i < 5; ++i) {
        ASSERT_CUDA(append(a, i));
    }
    ASSERT_CUDA(append(nullptr, 5));
    ASSERT_CUDA(append(b, 6));
    for (const cudaStream_t stream : {a, b, cudaStream_t{}, cudaStreamLegacy}) {
        EXPECT_EQ(cudaStreamQuery(stream), cudaErrorNotReady);
    }
    gate.open();
    EXPECT_CUDA(cudaStreamSynchronize(b));
    EXPECT_CUDA(cudaStreamQuery(b));
    EXPECT_EQ(entries(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
}

TEST_F(StreamTest, NonBlockingStreamsPassTheNullStream) {
    const cudaStream_t stream = create_stream(cudaStreamNonBlocking);
    Gate null_gate(nullptr);
    ASSERT_CUDA(append(stream, 1));
    EXPECT_CUDA(cudaStreamSynchronize(stream));
    null_gate.open();
    Gate gate(stream);
    ASSERT_CUDA(append(nullptr, 2));
    EXPECT_CUDA(cudaStreamSynchronize(nullptr));
    gate.open();
    EXPECT_EQ(entries(), (std::vector<int>{1, 2}));
}

TEST_F(StreamTest, EventsOrderStreams) {
    const cudaStream_t a = create_stream(cudaStreamNonBlocking);
    const cudaStream_t b = create_stream(cudaStreamNonBlocking);
    cudaEvent_t event;
    ASSERT_CUDA(cudaEventCreateWithFlags(&event, cudaEventDisableTiming));
    EXPECT_CUDA(cudaEventQuery(event));
    Gate gate(a);
    ASSERT_CUDA(append(a, 1));
    ASSERT_CUDA(cudaEventRecord(event, a));
    ASSERT_CUDA(cudaStreamWaitEvent(b, event));
    ASSERT_CUDA(append(b, 2));
    EXPECT_EQ(cudaEventQuery(event), cudaErrorNotReady);
    EXPECT_EQ(cudaGetLastError(), cudaErrorNotReady);
    // A wait keeps what it was given, whatever becomes of event and stream.
    ASSERT_CUDA(cudaEventRecord(event, b));
    ASSERT_CUDA(cudaStreamDestroy(a));
    gate.open();
    EXPECT_CUDA(cudaEventSynchronize(event));
    EXPECT_CUDA(cudaEventQuery(event));
    EXPECT_EQ(entries(), (std::vector<int>{1, 2}));
    EXPECT_CUDA(cudaEventDestroy(event));
}

TEST_F(StreamTest, HostFunctionsMayNotCallTheRuntime) {
    cudaError_t seen = cudaSuccess;
    const auto call = [](void* out) { *static_cast<cudaError_t*>(out) = cudaDeviceSynchronize(); };
    ASSERT_CUDA(cudaLaunchHostFunc(nullptr, call, &seen));
    ASSERT_CUDA(cudaDeviceSynchronize());
    EXPECT_EQ(seen, cudaErrorNotPermitted);
}

TEST_F(StreamTest, ThreadsKeepTheirOrderAcrossTheirStreamAndTheNullStream) {
    constexpr int kThreads = 4, kLaunches = 50;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this, i] {
            const cudaStream_t stream = create_stream();
            for (int k = 0; k < kLaunches; ++k) {
                EXPECT_CUDA(append(k % 10 == i ? nullptr : stream, i * kLaunches + k));
            }
            EXPECT_CUDA(cudaStreamDestroy(stream));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_CUDA(cudaDeviceSynchronize());
    std::vector<int> seen = entries(), expected(kThreads * kLaunches);
    std::iota(expected.begin(), expected.end(), 0);
    std::stable_sort(seen.begin(), seen.end(),
                     [](int a, int b) { return a / kLaunches < b / kLaunches; });
    EXPECT_EQ(seen, expected);
}

// The device reads its environment when it comes up, in the child.
TEST_F(DeviceTest, EnvironmentMakesLaunchesWaitAndLimitsMemory) {
    EXPECT_EXIT(
        {
            setenv("CUDA_LAUNCH_BLOCKING", "1", 1);
            setenv("GPUSIM_MEMORY", "64M", 1);
            int* list = nullptr;
            EXPECT_CUDA(cudaMallocHost(&list, 64));
            list[0] = 0;
            const cudaStream_t stream = create_stream();
            const auto sleep = [](void*) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            };
            EXPECT_CUDA(cudaLaunchHostFunc(stream, sleep, nullptr));
            EXPECT_CUDA(launch(config(1, 1, stream), append_value, list, 5));
            EXPECT_EQ(list[1], 5);
            size_t free = 0;
            size_t total = 0;
            EXPECT_CUDA(cudaMemGetInfo(&free, &total));
            EXPECT_EQ(total, size_t{64} << 20);
            std::_Exit(HasFailure());
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
