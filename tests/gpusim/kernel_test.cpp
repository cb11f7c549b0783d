#include <cassert>
#include <cmath>
#include <limits>

#include "device_fixture.h"

namespace {

class KernelTest : public DeviceTest {};

__global__ void coordinates(uint3* threads, uint3* blocks, int* hits) {
    const unsigned block = blockIdx.x + gridDim.x * (blockIdx.y + gridDim.y * blockIdx.z);
    const unsigned thread = threadIdx.x + blockDim.x * (threadIdx.y + blockDim.y * threadIdx.z);
    const unsigned i = block * blockDim.x * blockDim.y * blockDim.z + thread;
    threads[i] = threadIdx;
    blocks[i] = blockIdx;
    atomicAdd(&hits[i], 1);
}

TEST_F(KernelTest, EveryThreadRunsOnceWithItsCoordinates) {
    const dim3 grid(3, 2, 2), block(5, 4, 3);
    const unsigned count = 12 * 60;
    DeviceArray<uint3> threads(count), blocks(count);
    DeviceArray<int> hits(std::vector<int>(count, 0));
    ASSERT_CUDA(launch(grid, block, coordinates, threads.get(), blocks.get(), hits.get()));
    const auto t = threads.read(), b = blocks.read();
    const auto h = hits.read();
    for (unsigned i = 0; i < count; ++i) {
        const unsigned thread = i % 60, group = i / 60;
        ASSERT_EQ(h[i], 1);
        ASSERT_EQ(t[i].x + 5 * (t[i].y + 4 * t[i].z), thread);
        ASSERT_TRUE(t[i].x < 5 && t[i].y < 4);
        ASSERT_EQ(b[i].x + 3 * (b[i].y + 2 * b[i].z), group);
        ASSERT_TRUE(b[i].x < 3 && b[i].y < 2);
    }
}

struct Pair {
    const float* first;
    double second;
};
__global__ void arguments(Pair pair, short s, float f, float* out) {
    out[0] = pair.first[0] + static_cast<float>(pair.second) + s + f;
}

TEST_F(KernelTest, ArgumentsConvertAndAreCopiedAtTheLaunch) {
    DeviceArray<float> in(std::vector<float>{1}), out(1);
    cudaStream_t stream;
    ASSERT_CUDA(cudaStreamCreate(&stream));
    Gate gate(stream);
    {
        Pair pair{in.get(), 20};
        int number = 300;
        const cudaLaunchConfig_t c = config(1, 1, stream);
        ASSERT_CUDA(cudaLaunchKernelEx(&c, arguments, pair, number, 4000, out.get()));
        pair = {nullptr, -1};
        number = -1;
    }
    gate.open();
    EXPECT_EQ(out.read()[0], 4321);
}

struct Counters {
    int sum, low, high, exchanged, swapped;
    unsigned count;
    unsigned long long wide;
    float real;
};
__global__ void count_all(Counters* c) {
    const int i = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
    atomicAdd(&c->sum, i);
    atomicMin(&c->low, -i);
    atomicMax(&c->high, i);
    atomicExch(&c->exchanged, 7);
    atomicCAS(&c->swapped, i, i + 1);
    atomicAdd(&c->count, 1u);
    atomicAdd(&c->wide, 1ull << 33);
    atomicAdd(&c->real, 0.5f);
}

TEST_F(KernelTest, AtomicsAcrossStreams) {
    constexpr int kStreams = 3, kThreads = 4 * 256;
    DeviceArray<Counters> counters(std::vector<Counters>{Counters{}});
    std::vector<cudaStream_t> streams(kStreams);
    for (cudaStream_t& stream : streams) {
        ASSERT_CUDA(cudaStreamCreate(&stream));
        const cudaLaunchConfig_t c = config(4, 256, stream);
        ASSERT_CUDA(cudaLaunchKernelEx(&c, count_all, counters.get()));
    }
    const Counters c = counters.read()[0];
    EXPECT_EQ(c.sum, kStreams * kThreads * (kThreads - 1) / 2);
    EXPECT_EQ(c.low, 1 - kThreads);
    EXPECT_EQ(c.high, kThreads - 1);
    EXPECT_EQ(c.exchanged, 7);
    EXPECT_EQ(c.swapped, kThreads);
    EXPECT_EQ(c.count, unsigned{kStreams * kThreads});
    EXPECT_EQ(c.wide, static_cast<unsigned long long>(kStreams * kThreads) << 33);
    EXPECT_EQ(c.real, 0.5f * kStreams * kThreads);
}

__global__ void mathematics(float x, float y, float* out) {
    out[0] = fmaf(x, y, -1.0f);
    out[1] = rsqrtf(x);
    out[2] = max(x, y) - min(x, y);
    out[3] = static_cast<float>(max(-3, 2) + min(5u, 9u));
    out[4] = __fadd_rn(__fmul_rn(x, y), -1.0f);
    out[5] = fmaxf(tanhf(x), expf(-x));
}

TEST_F(KernelTest, Mathematics) {
    // x y is 1 + 2^-11 + 2^-24: the last bit is lost unless the product is fused.
    const float x = 1 + 0x1p-12f, y = 1 + 0x1p-12f;
    DeviceArray<float> out(6);
    ASSERT_CUDA(launch(1, 1, mathematics, x, y, out.get()));
    const std::vector<float> v = out.read();
    EXPECT_EQ(v[0], 0x1p-11f + 0x1p-24f);
    EXPECT_NEAR(v[1], 1 / std::sqrt(static_cast<double>(x)), 1e-7);
    EXPECT_EQ(v[2], 0.0f);
    EXPECT_EQ(v[3], 7.0f);
    EXPECT_EQ(v[4], 0x1p-11f);
    EXPECT_NEAR(v[5], std::tanh(static_cast<double>(x)), 1e-6);
}

__global__ void say(int n) {
    if (threadIdx.x == 2) {
        printf("thread %d of %d: %.3f\n", static_cast<int>(threadIdx.x), n, n / 8.0);
    }
}

TEST_F(KernelTest, Printf) {
    testing::internal::CaptureStdout();
    ASSERT_CUDA(launch(1, 4, say, 9));
    ASSERT_CUDA(cudaDeviceSynchronize());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "thread 2 of 9: 1.125\n");
}

__global__ void claim(const int* values, int* reached) {
    const int i = static_cast<int>(threadIdx.x);
    __syncthreads();
    assert(values[i] < 5);
    __syncthreads();
    *reached = 1;
}

TEST_F(KernelTest, AssertionEndsTheKernelAndSticks) {
    DeviceArray<int> values(std::vector<int>{0, 1, 2, 8, 3, 9}), reached(std::vector<int>{0});
    int* host = nullptr;
    ASSERT_CUDA(cudaMallocHost(&host, sizeof(int)));
    *host = 0;
    testing::internal::CaptureStderr();
    ASSERT_CUDA(launch(dim3(2, 3), 6, claim, values.get(), host));
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorAssert);
    const std::string message = testing::internal::GetCapturedStderr();
    EXPECT_NE(message.find("kernel_test.cpp:"), std::string::npos) << message;
    EXPECT_NE(message.find(": block: [0,0,0], thread: [3,0,0] Assertion `values[i] < 5` failed.\n"),
              std::string::npos)
        << message;
    EXPECT_EQ(*host, 0);
    // Nothing but a reset helps.
    EXPECT_EQ(cudaGetLastError(), cudaErrorAssert);
    EXPECT_EQ(cudaGetLastError(), cudaErrorAssert);
    EXPECT_EQ(launch(1, 1, say, 1), cudaErrorAssert);
    void* pointer = nullptr;
    EXPECT_EQ(cudaMalloc(&pointer, 4), cudaErrorAssert);
    cudaDeviceReset();
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    EXPECT_CUDA(cudaMalloc(&pointer, 4));
}

TEST_F(KernelTest, AssertionOnTheHostIsTheHosts) {
    const int one = 1;
    EXPECT_DEATH(assert(one == 2), "kernel_test.cpp.*Assertion `one == 2' failed");
}

}  // namespace
