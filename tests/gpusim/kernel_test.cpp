#include <algorithm>
#include <cassert>
#include <cmath>
#include <regex>

#include "device_fixture.h"

namespace {

class KernelTest : public LaunchTest {};
INSTANTIATE_TEST_SUITE_P(Forms, KernelTest, testing::Bool());

struct Visit {
    uint3 block, thread;
};
__global__ void visit(bool wait, Visit* visits, unsigned* count) {
    if (wait) {
        __syncthreads();
    }
    visits[atomicAdd(count, 1u)] = {blockIdx, threadIdx};
}

unsigned linear(const uint3& v, const dim3& extent) {
    return v.x + extent.x * (v.y + extent.y * v.z);
}

TEST_P(KernelTest, EveryThreadOfEveryBlockRunsOnceAndInOrder) {
    const dim3 block(5, 4, 3);
    for (const dim3 grid : {dim3(3, 2, 4), dim3(1, 3, 2), dim3(2, 1, 2), dim3(4)}) {
        for (const bool wait : {false, true}) {
            const unsigned blocks = grid.x * grid.y * grid.z;
            DeviceArray<Visit> visits(blocks * 60);
            DeviceArray<unsigned> count(std::vector<unsigned>{0});
            ASSERT_CUDA(launch<visit>(config(grid, block), wait, visits.get(), count.get()));
            ASSERT_EQ(count.read()[0], blocks * 60);
            std::vector<std::vector<unsigned>> seen(blocks);
            for (const Visit& visit : visits.read()) {
                seen.at(linear(visit.block, grid)).push_back(linear(visit.thread, block));
            }
            for (const std::vector<unsigned>& threads : seen) {
                ASSERT_EQ(threads.size(), 60u);
                std::vector<unsigned> sorted(threads);
                std::sort(sorted.begin(), sorted.end());
                EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
                EXPECT_EQ(threads == sorted, !is_shuffled()) << "wait " << wait;
            }
        }
    }
}

// One thread writes; another block must not find what this one left.
__global__ void look_at_shared(unsigned* out) {
    __shared__ unsigned kept[64];
    __shared__ float one;
    const unsigned t = threadIdx.x;
    out[64 * blockIdx.x + t] = kept[t] + (std::isnan(one) ? 0 : 1);
    __syncthreads();
    kept[t] = 7;
    if (t == 0) {
        one = 7;
    }
}

TEST_P(KernelTest, SharedMemoryStartsPoisonedWhereShuffled) {
    if (!is_shuffled()) {
        GTEST_SKIP() << "in forward order it is left as it was";
    }
    DeviceArray<unsigned> out(64 * 100);
    ASSERT_CUDA(launch<look_at_shared>(config(100, 64), out.get()));
    EXPECT_EQ(out.read(), std::vector<unsigned>(64 * 100, 0xffffffffu));
}

struct Pair {
    const float* first;
    double second;
};
__global__ void arguments(Pair pair, short s, float f, float* out) {
    out[0] = pair.first[0] + static_cast<float>(pair.second) + s + f;
}

TEST_P(KernelTest, ArgumentsConvertAndAreCopiedAtTheLaunch) {
    DeviceArray<float> in(std::vector<float>{1}), out(1);
    const cudaStream_t stream = create_stream();
    Gate gate(stream);
    Pair pair{in.get(), 20};
    int number = 300;
    ASSERT_CUDA(launch<arguments>(config(1, 1, stream), pair, number, 4000, out.get()));
    pair = {nullptr, -1};
    number = -1;
    gate.open();
    EXPECT_EQ(out.read()[0], 4321);
}

__global__ void count_all(int* whole, float* real) {
    atomicAdd(whole, static_cast<int>(threadIdx.x));
    atomicAdd(real, 0.5f);
}

TEST_P(KernelTest, AtomicsAcrossStreams) {
    constexpr int kStreams = 3, kBlocks = 400, n = 256;
    DeviceArray<int> whole(std::vector<int>{0});
    DeviceArray<float> real(std::vector<float>{0});
    for (int i = 0; i < kStreams; ++i) {
        ASSERT_CUDA(
            launch<count_all>(config(kBlocks, n, create_stream()), whole.get(), real.get()));
    }
    EXPECT_EQ(whole.read()[0], kStreams * kBlocks * n * (n - 1) / 2);
    EXPECT_EQ(real.read()[0], 0.5f * kStreams * kBlocks * n);
}

// Without parameters, which a launch must not take for a conversion of the constant.
__global__ void say() {
    if (threadIdx.x == 2) {
        printf("thread %u of %u: %.3f\n", threadIdx.x, blockDim.x, blockDim.x / 8.0);
    }
}

TEST_P(KernelTest, Printf) {
    testing::internal::CaptureStdout();
    ASSERT_CUDA(launch<say>(config(1, 4)));
    ASSERT_CUDA(cudaDeviceSynchronize());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "thread 2 of 4: 0.500\n");
}

__global__ void claim(const int* values, int* reached) {
    __syncthreads();
    assert(values[threadIdx.x] < 5);
    __syncthreads();
    *reached = 1;
}

TEST_P(KernelTest, AssertionEndsTheKernelAndSticks) {
    DeviceArray<int> values(std::vector<int>{0, 1, 2, 8, 3, 9});
    int* reached = nullptr;
    ASSERT_CUDA(cudaMallocHost(&reached, sizeof(int)));
    *reached = 0;
    testing::internal::CaptureStderr();
    ASSERT_CUDA(launch<claim>(config(dim3(2, 3), 6), values.get(), reached));
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorAssert);
    const std::string message = testing::internal::GetCapturedStderr();
    const std::regex expected(R"(.*kernel_test\.cpp:\d+: .*claim.*: )" +
                              in_order(R"(block: \[0,0,0\], thread: \[3,0,0\])",
                                       R"(block: \[[01],[0-2],0\], thread: \[[35],0,0\])") +
                              R"( Assertion `values\[threadIdx\.x\] < 5` failed\.\n)");
    EXPECT_TRUE(std::regex_match(message, expected)) << message;
    EXPECT_EQ(*reached, 0);
    // Nothing but a reset helps.
    EXPECT_EQ(cudaGetLastError(), cudaErrorAssert);
    EXPECT_EQ(cudaGetLastError(), cudaErrorAssert);
    EXPECT_EQ(launch<say>(config(1, 1)), cudaErrorAssert);
    void* pointer = nullptr;
    EXPECT_EQ(cudaMalloc(&pointer, 4), cudaErrorAssert);
    cudaDeviceReset();
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
    EXPECT_CUDA(cudaMalloc(&pointer, 4));
}

}  // namespace
