#include "device_fixture.h"

#if defined(__SANITIZE_THREAD__)

namespace {

class RaceTest : public DeviceTest {};

constexpr int kThreads = 64;

// Passes its values on to the next lane or the next thread. `missing` is the barrier that is not
// there; 0 if all are.
__global__ void pass_on(int missing, int* out) {
    __shared__ int values[kThreads];
    const int t = threadIdx.x;
    const int next_lane = t / 32 * 32 + (t + 1) % 32;
    for (int round = 0; round < 2; ++round) {
        values[t] = t;
        if (missing != 1) {
            __syncwarp();
        }
        const int neighbour = values[next_lane];
        if (missing != 2) {
            __syncwarp();
        }
        values[t] = neighbour;
        if (missing != 3) {
            __syncthreads();
        }
        out[blockIdx.x * kThreads + t] = values[(t + 1) % kThreads];
        if (missing != 4) {
            __syncthreads();
        }
    }
}

// Two groups of lanes with barriers of their own.
__global__ void pass_on_in_groups(bool across, int* out) {
    __shared__ int values[32];
    const int t = threadIdx.x, group = t / 16;
    values[t] = t;
    __syncwarp(0xffffu << 16 * group);
    out[t] = values[across ? (t + 16) % 32 : 16 * group + (t + 1) % 16];
}

// Without barriers: threads of a block write to neighbours' places, or blocks to each other's.
__global__ void write_beside(int to_thread, bool to_block, int* out) {
    const int block = to_block ? 0 : blockIdx.x;
    out[(block * kThreads + threadIdx.x + to_thread) / (1 + to_thread)] = 1;
}

__global__ void count_up(int* count) {
    atomicAdd(count, 1);
}

void finish() {
    cudaDeviceSynchronize();
    std::exit(0);
}

TEST_F(RaceTest, MissingOrderIsReported) {
    int* out = nullptr;
    ASSERT_CUDA(cudaMalloc(&out, 100 * kThreads * sizeof(int)));
    const auto reported = testing::ExitedWithCode(66);
    for (int missing = 1; missing <= 4; ++missing) {
        // A thread that comes late finds what another one has written, in one of the two places.
        EXPECT_EXIT(
            (launch(config(2, kThreads), pass_on, missing, out), finish()), reported,
            "data race(.|\n)*pass_on(.|\n)*race_test.cpp(.|\n)*block \\[[01],0,0\\], thread ")
            << missing;
    }
    EXPECT_EXIT((launch(config(1, 32), pass_on_in_groups, true, out), finish()), reported,
                "data race(.|\n)*pass_on_in_groups");
    EXPECT_EXIT((launch(config(1, kThreads), write_beside, 1, false, out), finish()), reported,
                "data race(.|\n)*write_beside");
    EXPECT_EXIT((launch(config(100, kThreads), write_beside, 0, true, out), finish()), reported,
                "data race(.|\n)*write_beside");
}

TEST_F(RaceTest, OrderIsNot) {
    DeviceArray<int> out(100 * kThreads), count(std::vector<int>{0});
    ASSERT_CUDA(launch(config(100, kThreads), pass_on, 0, out.get()));
    EXPECT_EQ(out.read()[kThreads - 1], 1);
    // The same memory in the next launch, with other threads.
    ASSERT_CUDA(launch(config(50, kThreads), write_beside, 0, false, out.get() + 7));
    ASSERT_CUDA(launch(config(1, 32), pass_on_in_groups, false, out.get()));
    EXPECT_EQ(out.read()[15], 0);
    ASSERT_CUDA(launch(config(50, kThreads), count_up, count.get()));
    EXPECT_EQ(count.read()[0], 50 * kThreads);
}

}  // namespace

#endif
