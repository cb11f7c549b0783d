#include <numeric>

#include "device_fixture.h"

namespace {

class BarrierTest : public DeviceTest {
protected:
    /// Runs a kernel that is expected to fault; returns what it said.
    template <class Launch>
    std::string fault_message(Launch launch) {
        testing::internal::CaptureStderr();
        EXPECT_CUDA(launch());
        EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorLaunchFailure);
        return testing::internal::GetCapturedStderr();
    }
};

// Tree sum over a block of any size, as kernels write it.
__global__ void sum_tree(const int* in, int* out) {
    __shared__ int buffer[1024];
    const unsigned size = blockDim.x * blockDim.y * blockDim.z;
    const unsigned t = threadIdx.x + blockDim.x * (threadIdx.y + blockDim.y * threadIdx.z);
    buffer[t] = in[blockIdx.x * size + t];
    __syncthreads();
    for (unsigned step = 1; step < size; step *= 2) {
        const int other = t + step < size ? buffer[t + step] : 0;
        __syncthreads();
        buffer[t] += other;
        __syncthreads();
    }
    if (t == 0) {
        out[blockIdx.x] = buffer[0];
    }
}

TEST_F(BarrierTest, BlockReduction) {
    for (const dim3 block : {dim3(1), dim3(2), dim3(31), dim3(33), dim3(128), dim3(1024),
                             dim3(5, 7, 3), dim3(8, 8, 16)}) {
        const unsigned size = block.x * block.y * block.z;
        const unsigned blocks = 3;
        std::vector<int> in(size * blocks);
        std::iota(in.begin(), in.end(), 7);
        DeviceArray<int> d_in(in), d_out(blocks);
        ASSERT_CUDA(launch(blocks, block, sum_tree, d_in.get(), d_out.get()));
        const std::vector<int> out = d_out.read();
        for (unsigned b = 0; b < blocks; ++b) {
            EXPECT_EQ(out[b], std::accumulate(&in[b * size], &in[b * size] + size, 0)) << size;
        }
    }
}

// Each warp rotates its values by one lane, `rounds` times, with warp barriers only; then the block
// is turned around through a block barrier.
__global__ void rotate(int* data, int rounds) {
    __shared__ volatile int buffer[128];
    const int t = threadIdx.x;
    const int first = t / 32 * 32;
    buffer[t] = data[t];
    for (int i = 0; i < rounds; ++i) {
        __syncwarp();
        const int value = buffer[first + (t + 1) % 32];
        __syncwarp();
        buffer[t] = value;
    }
    __syncthreads();
    data[t] = buffer[127 - t];
}

TEST_F(BarrierTest, WarpBarriersBetweenBlockBarriers) {
    std::vector<int> values(128);
    std::iota(values.begin(), values.end(), 0);
    DeviceArray<int> data(values);
    ASSERT_CUDA(launch(1, 128, rotate, data.get(), 5));
    const std::vector<int> out = data.read();
    for (int t = 0; t < 128; ++t) {
        const int source = 127 - t;
        EXPECT_EQ(out[t], source / 32 * 32 + (source + 5) % 32);
    }
}

// Halves of a warp meet for themselves, another number of times each.
__global__ void half_warps(int* out) {
    __shared__ int buffer[32];
    const int t = threadIdx.x;
    const unsigned mask = t < 16 ? 0xffffu : 0xffff0000u;
    buffer[t] = t;
    for (int i = 0; i < (t < 16 ? 3 : 2); ++i) {
        __syncwarp(mask);
        const int value = buffer[t ^ 1];
        __syncwarp(mask);
        buffer[t] = value + 100;
    }
    __syncwarp();
    out[t] = buffer[t];
}

TEST_F(BarrierTest, PartialWarpMasks) {
    DeviceArray<int> out(32);
    ASSERT_CUDA(launch(1, 32, half_warps, out.get()));
    const std::vector<int> values = out.read();
    for (int t = 0; t < 32; ++t) {
        EXPECT_EQ(values[t], t < 16 ? (t ^ 1) + 300 : t + 200);
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
    out[t] = total;
}

TEST_F(BarrierTest, EndedThreadsCountAsArrived) {
    for (const int n : {1, 31, 40, 96}) {
        DeviceArray<int> out(96);
        ASSERT_CUDA(launch(1, 96, early_exit, n, out.get()));
        const std::vector<int> values = out.read();
        for (int t = 0; t < 96; ++t) {
            EXPECT_EQ(values[t], t < n ? n * (n - 1) / 2 : -1);
        }
    }
}

__global__ void two_places() {
    if (threadIdx.x < 40) {
        __syncthreads();
    } else {
        __syncthreads();
    }
}

__global__ void warp_against_block() {
    if (threadIdx.x % 32 == 7) {
        __syncthreads();
    } else {
        __syncwarp();
    }
}

__global__ void masks_differ() {
    __syncwarp(threadIdx.x == 3 ? 0xfu : 0xffffffffu);
}

__global__ void mask_without_self() {
    __syncwarp(0xfffffffeu);
}

TEST_F(BarrierTest, FaultsAreNamed) {
    struct Case {
        void (*kernel)();
        std::vector<std::string> parts;
    };
    const std::vector<Case> cases = {
        {two_places,
         {"two_places", "block [0,0,0]", "thread [0,0,0] at ", "thread [40,0,0] at ",
          "different barriers"}},
        {warp_against_block, {"warp_against_block", "thread [7,0,0]", "warp barrier"}},
        {masks_differ, {"masks_differ", "thread [3,0,0]", "another mask"}},
        {mask_without_self, {"mask_without_self", "thread [0,0,0]", "leaves it out"}},
    };
    for (const Case& c : cases) {
        const std::string message = fault_message([&] { return launch(4, 64, c.kernel); });
        for (const std::string& part : c.parts) {
            EXPECT_NE(message.find(part), std::string::npos) << part << " in " << message;
        }
        // One line, of the first block: the fault ends the kernel.
        EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1) << message;
        cudaDeviceReset();
        // Fibers that the fault abandoned are whole again.
        std::vector<int> ones(64, 1);
        DeviceArray<int> in(ones), out(1);
        ASSERT_CUDA(launch(1, 64, sum_tree, in.get(), out.get()));
        EXPECT_EQ(out.read()[0], 64);
    }
}

TEST_F(BarrierTest, OutsideAKernelDies) {
    EXPECT_DEATH(__syncthreads(), "a barrier outside a kernel");
}

}  // namespace
