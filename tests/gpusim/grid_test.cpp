#include <pthread.h>

#include <cassert>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <thread>

#include "device_fixture.h"

namespace {

class GridTest : public LaunchTest {};
INSTANTIATE_TEST_SUITE_P(Forms, GridTest, testing::Bool());

/// Waits, at most so many looks, until *count is at least `wanted`.
void wait_for(int* count, int wanted, int looks) {
    for (int i = 0; i < looks && atomicAdd(count, 0) < wanted; ++i) {
        std::this_thread::yield();
    }
}

bool several_threads() {
    const char* text = std::getenv("GPUSIM_THREADS");
    return text == nullptr ? std::thread::hardware_concurrency() > 1 : std::atoi(text) > 1;
}

// Each block turns its numbers around. The first ones wait until two are on their way, which takes
// two host threads.
__global__ void meet(int* arrived, unsigned* out, unsigned long* host) {
    __shared__ unsigned turned[64];
    const unsigned t = threadIdx.x;
    if (t == 0) {
        if (blockIdx.x == 0) {
            let_others_run();
        } else {
            atomicAdd(arrived, 1);
            wait_for(arrived, 2, 100'000'000);
        }
        host[blockIdx.x] = pthread_self();
    }
    turned[63 - t] = 64 * blockIdx.x + t;
    __syncthreads();
    out[64 * blockIdx.x + t] = turned[t];
}

TEST_P(GridTest, HostThreadsShareTheBlocksOfALongLaunch) {
    if (!several_threads()) {
        GTEST_SKIP() << "one host thread";
    }
    constexpr unsigned kBlocks = 3000;
    for (int round = 0; round < 3; ++round) {
        DeviceArray<int> arrived(std::vector<int>{0});
        DeviceArray<unsigned> out(64 * kBlocks);
        DeviceArray<unsigned long> host(kBlocks);
        ASSERT_CUDA(launch<meet>(config(kBlocks, 64), arrived.get(), out.get(), host.get()));
        const std::vector<unsigned> values = out.read();
        for (unsigned i = 0; i < 64 * kBlocks; ++i) {
            ASSERT_EQ(values[i], i / 64 * 64 + 63 - i % 64);
        }
        const std::vector<unsigned long> threads = host.read();
        EXPECT_GT(std::set<unsigned long>(threads.begin(), threads.end()).size(), 1u);
    }
}

// Two blocks fail, the first of them later than the other where there are two host threads.
__global__ void fail_twice(int* failing) {
    __syncthreads();
    if (blockIdx.x == 0) {
        let_others_run();
    }
    if (blockIdx.x == 2) {
        wait_for(failing, 1, 1'000'000);
        assert(blockIdx.x != 2);
    }
    if (blockIdx.x >= 3) {
        atomicAdd(failing, 1);
        assert(blockIdx.x < 3);
    }
}

TEST_P(GridTest, TheFirstOfSeveralFaultsIsTold) {
    std::set<std::string> messages;
    for (int round = 0; round < 3; ++round) {
        DeviceArray<int> failing(std::vector<int>{0});
        testing::internal::CaptureStderr();
        ASSERT_CUDA(launch<fail_twice>(config(100, 1), failing.get()));
        EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorAssert);
        messages.insert(testing::internal::GetCapturedStderr());
        cudaDeviceReset();
    }
    // The same one each time.
    EXPECT_EQ(messages.size(), 1u);
    const std::regex expected(R"([^\n]*: block: \[)" + in_order("2", R"(\d+)") +
                              R"(,0,0\], thread: \[0,0,0\] Assertion `blockIdx\.x )" +
                              in_order("!= 2", ".*") + R"(` failed\.\n)");
    EXPECT_TRUE(std::regex_match(*messages.begin(), expected)) << *messages.begin();
    // The threads that left their blocks go on.
    DeviceArray<int> arrived(std::vector<int>{2});
    DeviceArray<unsigned> out(64 * 100);
    DeviceArray<unsigned long> host(100);
    ASSERT_CUDA(launch<meet>(config(100, 64), arrived.get(), out.get(), host.get()));
    EXPECT_EQ(out.read()[64], 64u + 63);
}

}  // namespace
