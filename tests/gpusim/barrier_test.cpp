#include <regex>

#include "device_fixture.h"

namespace {

class BarrierTest : public LaunchTest {};
INSTANTIATE_TEST_SUITE_P(Forms, BarrierTest, testing::Bool());

// Twice: each group of `width` lanes rotates its values by one lane, with barriers of its own and
// as often as only it does; then the block is turned around through block barriers.
__global__ void rotate_and_turn(unsigned width, unsigned* out) {
    __shared__ volatile unsigned buffer[1024];
    const unsigned size = blockDim.x * blockDim.y;
    const unsigned t = threadIdx.x + blockDim.x * threadIdx.y;
    const unsigned group = t / width, first = group * width;
    const unsigned mask = 0xffffffffu >> (32 - width) << first % 32;
    buffer[t] = t;
    for (int pass = 0; pass < 2; ++pass) {
        for (unsigned i = 0; i < group % 5; ++i) {
            __syncwarp(mask);
            const unsigned value = buffer[first + (t + 1) % width];
            __syncwarp(mask);
            buffer[t] = value;
        }
        __syncwarp();
        __syncthreads();
        const unsigned value = buffer[size - 1 - t];
        __syncthreads();
        buffer[t] = value;
    }
    out[blockIdx.x * size + t] = buffer[t];
}

TEST_P(BarrierTest, GroupsOfLanesAndBlocks) {
    for (const auto& [width, block] : std::vector<std::pair<unsigned, dim3>>{
             {32, 1024}, {16, 112}, {4, 100}, {1, 33}, {1, 1}, {8, dim3(4, 30)}}) {
        const unsigned size = block.x * block.y;
        DeviceArray<unsigned> out(2 * size);
        ASSERT_CUDA(launch<rotate_and_turn>(config(2, block), width, out.get()));
        const auto source = [w = width, size](unsigned t) {
            const unsigned from = size - 1 - t, group = from / w;
            return group * w + (from + group % 5) % w;
        };
        const std::vector<unsigned> values = out.read();
        for (unsigned i = 0; i < 2 * size; ++i) {
            EXPECT_EQ(values[i], source(source(i % size))) << size;
        }
    }
}

// Threads past the end leave before the barriers; they count as arrived.
__global__ void early_exit(int n, int* out) {
    __shared__ int total;
    const int t = threadIdx.x;
    if (t == 0) {
        total = 0;
    }
    __syncthreads();
    if (t >= n) {
        return;
    }
    atomicAdd(&total, t);
    __syncwarp();
    __syncthreads();
    out[blockIdx.x * blockDim.x + t] = total;
}

TEST_P(BarrierTest, EndedThreadsCountAsArrived) {
    for (const int n : {1, 31, 40, 96}) {
        DeviceArray<int> out(2 * 96);
        ASSERT_CUDA(launch<early_exit>(config(2, 96), n, out.get()));
        const std::vector<int> values = out.read();
        for (int i = 0; i < 2 * 96; ++i) {
            EXPECT_EQ(values[i], i % 96 < n ? n * (n - 1) / 2 : -1);
        }
    }
}

// Odd ways to wait; `fault` chooses one.
__global__ void faulty(int fault) {
    const unsigned t = threadIdx.x;
    if (fault == 0 && t < 40) {
        __syncthreads();
    } else if (fault == 0 || (fault == 1 && t == 7)) {
        __syncthreads();
    } else if (fault == 3 && blockIdx.x == 2) {
        __syncwarp(0xfffffffeu);
    } else {
        __syncwarp(fault == 2 && t == 3 ? 0xfu : 0xffffffffu);
    }
}

TEST_P(BarrierTest, FaultsAreNamed) {
    const std::string place = R"(\S*barrier_test\.cpp:\d+)";
    const std::string block = in_order(R"(block \[0,0,0\]: )", R"(block \[[0-3],0,0\]: )");
    const auto thread = [](const std::string& ascending) {
        return R"(thread \[)" + in_order(ascending, R"(\d+)") + R"(,0,0\])";
    };
    const std::string warp_waits = R"(thread \[31,0,0\] waits at the warp barrier )" + place;
    const std::vector<std::string> texts = {
        block + "threads of one block wait at different barriers: " + thread("0") + " at " + place +
            ", " + thread("40") + " at " + place,
        block + warp_waits + R"( for thread \[7,0,0\], which waits at )" + place,
        block + warp_waits + R"( for thread \[3,0,0\], which waits at )" + place +
            " or with another mask",
        R"(block \[2,0,0\]: )" + thread("0") + " waits at the warp barrier " + place +
            ", whose mask leaves it out",
    };
    for (int fault = 0; fault < 4; ++fault) {
        testing::internal::CaptureStderr();
        EXPECT_CUDA(launch<faulty>(config(4, 64), fault));
        EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorLaunchFailure);
        const std::string message = testing::internal::GetCapturedStderr();
        // One line, of the first block that is at fault: it ends the kernel.
        const std::regex expected("gpusim: kernel .*faulty.*, " + texts[fault] + order_note() +
                                  "\n");
        EXPECT_TRUE(std::regex_match(message, expected)) << message;
        cudaDeviceReset();
        // Fibers that the fault abandoned are whole again.
        DeviceArray<unsigned> out(64);
        ASSERT_CUDA(launch<rotate_and_turn>(config(1, 64), 1u, out.get()));
        EXPECT_EQ(out.read()[63], 63u);
    }
}

}  // namespace
