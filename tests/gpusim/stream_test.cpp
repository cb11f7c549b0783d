#include <chrono>
#include <cstdlib>

#include "device_fixture.h"

namespace {

class StreamTest : public DeviceTest {
protected:
    cudaStream_t create(unsigned flags = cudaStreamDefault) {
        cudaStream_t stream = nullptr;
        EXPECT_CUDA(cudaStreamCreateWithFlags(&stream, flags));
        return stream;
    }
};

__global__ void append(int* list, int value) {
    list[++list[0]] = value;
}

__global__ void count_up(int* sum) {
    atomicAdd(sum, 1);
}

cudaError_t append_on(cudaStream_t stream, int* list, int value) {
    const cudaLaunchConfig_t c = config(1, 1, stream);
    return cudaLaunchKernelEx(&c, append, list, value);
}

/// What was appended, in order.
std::vector<int> entries(const DeviceArray<int>& list) {
    const std::vector<int> values = list.read();
    return {values.begin() + 1, values.begin() + 1 + values[0]};
}

TEST_F(StreamTest, LaunchesReturnBeforeTheyRunAndKeepTheirOrder) {
    DeviceArray<int> list(std::vector<int>(20, 0));
    const cudaStream_t stream = create();
    Gate gate(stream);
    std::vector<int> expected;
    for (int i = 0; i < 10; ++i) {
        ASSERT_CUDA(append_on(stream, list.get(), i));
        expected.push_back(i);
    }
    EXPECT_EQ(cudaStreamQuery(stream), cudaErrorNotReady);
    gate.open();
    EXPECT_CUDA(cudaStreamSynchronize(stream));
    EXPECT_CUDA(cudaStreamQuery(stream));
    EXPECT_EQ(entries(list), expected);
}

TEST_F(StreamTest, NullStreamWaitsForBlockingStreamsAndTheyForIt) {
    DeviceArray<int> list(std::vector<int>(8, 0));
    const cudaStream_t a = create(), b = create();
    Gate gate(a);
    ASSERT_CUDA(append_on(a, list.get(), 1));
    ASSERT_CUDA(append_on(nullptr, list.get(), 2));
    ASSERT_CUDA(append_on(b, list.get(), 3));
    EXPECT_EQ(cudaStreamQuery(b), cudaErrorNotReady);
    EXPECT_EQ(cudaStreamQuery(nullptr), cudaErrorNotReady);
    gate.open();
    EXPECT_CUDA(cudaStreamSynchronize(b));
    EXPECT_EQ(entries(list), (std::vector<int>{1, 2, 3}));
}

TEST_F(StreamTest, NonBlockingStreamsPassTheNullStream) {
    DeviceArray<int> list(std::vector<int>(8, 0));
    EXPECT_CUDA(cudaDeviceSynchronize());
    const cudaStream_t stream = create(cudaStreamNonBlocking);
    Gate null_gate(nullptr);
    ASSERT_CUDA(append_on(stream, list.get(), 1));
    EXPECT_CUDA(cudaStreamSynchronize(stream));
    null_gate.open();
    Gate gate(stream);
    ASSERT_CUDA(append_on(nullptr, list.get(), 2));
    EXPECT_CUDA(cudaStreamSynchronize(nullptr));
    gate.open();
    EXPECT_CUDA(cudaDeviceSynchronize());
    EXPECT_EQ(entries(list), (std::vector<int>{1, 2}));
}

TEST_F(StreamTest, EventsOrderStreams) {
    DeviceArray<int> list(std::vector<int>(8, 0));
    EXPECT_CUDA(cudaDeviceSynchronize());
    const cudaStream_t a = create(cudaStreamNonBlocking), b = create(cudaStreamNonBlocking);
    cudaEvent_t event;
    ASSERT_CUDA(cudaEventCreateWithFlags(&event, cudaEventDisableTiming));
    EXPECT_CUDA(cudaEventQuery(event));
    Gate gate(a);
    ASSERT_CUDA(append_on(a, list.get(), 1));
    ASSERT_CUDA(cudaEventRecord(event, a));
    ASSERT_CUDA(cudaStreamWaitEvent(b, event));
    ASSERT_CUDA(append_on(b, list.get(), 2));
    EXPECT_EQ(cudaEventQuery(event), cudaErrorNotReady);
    EXPECT_EQ(cudaGetLastError(), cudaErrorNotReady);
    // A wait keeps what it was given, whatever becomes of event and stream.
    ASSERT_CUDA(cudaEventRecord(event, b));
    ASSERT_CUDA(cudaStreamDestroy(a));
    gate.open();
    EXPECT_CUDA(cudaEventSynchronize(event));
    EXPECT_CUDA(cudaEventQuery(event));
    EXPECT_EQ(entries(list), (std::vector<int>{1, 2}));
    EXPECT_CUDA(cudaEventDestroy(event));
}

TEST_F(StreamTest, ElapsedTime) {
    const cudaStream_t stream = create();
    cudaEvent_t start, end, untimed;
    ASSERT_CUDA(cudaEventCreate(&start));
    ASSERT_CUDA(cudaEventCreate(&end));
    ASSERT_CUDA(cudaEventCreateWithFlags(&untimed, cudaEventDisableTiming));
    float ms = -1;
    EXPECT_EQ(cudaEventElapsedTime(&ms, start, end), cudaErrorInvalidResourceHandle);
    ASSERT_CUDA(cudaEventRecord(start, stream));
    ASSERT_CUDA(cudaLaunchHostFunc(
        stream, [](void*) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); },
        nullptr));
    ASSERT_CUDA(cudaEventRecord(end, stream));
    ASSERT_CUDA(cudaEventRecord(untimed, stream));
    ASSERT_CUDA(cudaStreamSynchronize(stream));
    EXPECT_CUDA(cudaEventElapsedTime(&ms, start, end));
    EXPECT_GE(ms, 20.0f);
    EXPECT_EQ(cudaEventElapsedTime(&ms, start, untimed), cudaErrorInvalidResourceHandle);
}

TEST_F(StreamTest, HostFunctionsMayNotCallTheRuntime) {
    cudaError_t seen = cudaSuccess;
    const cudaStream_t stream = create();
    ASSERT_CUDA(cudaLaunchHostFunc(
        stream, [](void* out) { *static_cast<cudaError_t*>(out) = cudaDeviceSynchronize(); },
        &seen));
    ASSERT_CUDA(cudaStreamSynchronize(stream));
    EXPECT_EQ(seen, cudaErrorNotPermitted);
}

TEST_F(StreamTest, ManyThreadsSubmit) {
    DeviceArray<int> total(std::vector<int>{0});
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            cudaStream_t stream;
            EXPECT_CUDA(cudaStreamCreate(&stream));
            for (int k = 0; k < 50; ++k) {
                const cudaLaunchConfig_t c = config(2, 8, k % 10 == i ? nullptr : stream);
                EXPECT_CUDA(cudaLaunchKernelEx(&c, count_up, total.get()));
            }
            EXPECT_CUDA(cudaStreamDestroy(stream));
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_CUDA(cudaDeviceSynchronize());
    EXPECT_EQ(total.read()[0], 4 * 50 * 16);
}

TEST_F(StreamTest, LaunchBlockingWaitsAtTheLaunch) {
    EXPECT_EXIT(
        {
            setenv("CUDA_LAUNCH_BLOCKING", "1", 1);
            // The device reads its environment when it comes up, in the child.
            int* list = nullptr;
            cudaStream_t stream;
            cudaMallocHost(&list, 64);
            list[0] = 0;
            cudaStreamCreate(&stream);
            cudaLaunchHostFunc(
                stream, [](void*) { std::this_thread::sleep_for(std::chrono::milliseconds(50)); },
                nullptr);
            append_on(stream, list, 5);
            std::_Exit(list[0] == 1 && list[1] == 5 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
