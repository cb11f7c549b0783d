#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>

#include "device_fixture.h"

namespace {

class MemoryTest : public DeviceTest {};

// Before the device comes up: these tests fill it, and sanitizers keep books of all its bytes.
[[maybe_unused]] const int limited = setenv("GPUSIM_MEMORY", "256M", 0);

TEST_F(MemoryTest, DirectionAndBoundsAreChecked) {
    DeviceArray<char> device(64), other(64);
    std::vector<char> host(1000), second(1000);
    char* d = device.get();
    char* e = other.get();
    char* h = host.data();
    char* pinned = nullptr;
    ASSERT_CUDA(cudaMallocHost(&pinned, 64));
    struct Case {
        void* dst;
        const void* src;
        size_t count;
        cudaMemcpyKind kind;
        cudaError_t error;
    };
    const auto bad_kind = static_cast<cudaMemcpyKind>(5);
    for (const Case& c : {
             Case{d, h, 64, cudaMemcpyHostToDevice, cudaSuccess},
             Case{h, d, 64, cudaMemcpyDeviceToHost, cudaSuccess},
             Case{d, e, 64, cudaMemcpyDeviceToDevice, cudaSuccess},
             Case{h, second.data(), 1000, cudaMemcpyHostToHost, cudaSuccess},
             Case{d, h, 64, cudaMemcpyDefault, cudaSuccess},
             Case{d + 60, h, 4, cudaMemcpyHostToDevice, cudaSuccess},
             Case{d, pinned, 64, cudaMemcpyHostToDevice, cudaSuccess},
             Case{nullptr, nullptr, 0, cudaMemcpyHostToDevice, cudaSuccess},
             Case{d, h, 64, cudaMemcpyDeviceToHost, cudaErrorInvalidValue},
             Case{h, d, 64, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
             Case{d, h, 64, cudaMemcpyHostToHost, cudaErrorInvalidValue},
             Case{d, h, 64, cudaMemcpyDeviceToDevice, cudaErrorInvalidValue},
             Case{h, e, 64, cudaMemcpyDeviceToDevice, cudaErrorInvalidValue},
             Case{d, h, 65, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
             Case{d + 60, h, 5, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
             Case{d - 1, h, 1, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
             Case{d, pinned + 32, 33, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
             Case{h, nullptr, 4, cudaMemcpyHostToHost, cudaErrorInvalidValue},
             Case{d, h, 4, bad_kind, cudaErrorInvalidMemcpyDirection},
         }) {
        EXPECT_EQ(cudaMemcpy(c.dst, c.src, c.count, c.kind), c.error)
            << c.count << " bytes, kind " << c.kind;
        EXPECT_EQ(cudaMemcpyAsync(c.dst, c.src, c.count, c.kind, nullptr), c.error);
    }
    EXPECT_CUDA(cudaMemset(d + 1, 0, 63));
    EXPECT_EQ(cudaMemset(d + 1, 0, 64), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemset(h, 0, 4), cudaErrorInvalidValue);
    EXPECT_EQ(cudaFree(d + 1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaFree(h), cudaErrorInvalidValue);
    EXPECT_CUDA(cudaFreeHost(pinned));
    EXPECT_EQ(cudaFreeHost(pinned), cudaErrorInvalidValue);
}

TEST_F(MemoryTest, PitchedCopies) {
    constexpr int kRows = 5, kWidth = 6, kPitch = 10, kHostPitch = 8;
    std::vector<char> host(kRows * kHostPitch);
    std::iota(host.begin(), host.end(), 1);
    DeviceArray<char> device(kRows * kPitch - (kPitch - kWidth)), copy(kRows * kPitch);
    ASSERT_CUDA(cudaMemcpy2D(device.get(), kPitch, host.data(), kHostPitch, kWidth, kRows,
                             cudaMemcpyHostToDevice));
    ASSERT_CUDA(cudaMemcpy2D(copy.get(), kPitch, device.get(), kPitch, kWidth, kRows,
                             cudaMemcpyDeviceToDevice));
    ASSERT_CUDA(cudaMemset2D(copy.get() + 1, kPitch, 77, 2, kRows - 1));
    const std::vector<char> out = copy.read();
    for (int r = 0; r < kRows; ++r) {
        for (int c = 0; c < kPitch; ++c) {
            const bool filled = c >= 1 && c < 3 && r < kRows - 1;
            const char expected = filled ? 77 : c < kWidth ? host[r * kHostPitch + c] : -1;
            EXPECT_EQ(out[r * kPitch + c], expected) << r << " " << c;
        }
    }
    EXPECT_EQ(cudaMemcpy2D(device.get(), kWidth - 1, host.data(), kHostPitch, kWidth, kRows,
                           cudaMemcpyHostToDevice),
              cudaErrorInvalidPitchValue);
    EXPECT_EQ(cudaMemcpy2D(device.get(), kPitch, host.data(), kHostPitch, kWidth + 1, kRows,
                           cudaMemcpyHostToDevice),
              cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemset2D(device.get(), kPitch, 0, kWidth, kRows + 1), cudaErrorInvalidValue);
}

__global__ void write_value(int* out, int value) {
    *out = value;
}

TEST_F(MemoryTest, PinnedAndRegisteredHostMemory) {
    int* pinned = nullptr;
    ASSERT_CUDA(cudaHostAlloc(&pinned, sizeof(int), cudaHostAllocMapped));
    ASSERT_CUDA(launch(1, 1, write_value, pinned, 41));
    ASSERT_CUDA(cudaDeviceSynchronize());
    EXPECT_EQ(*pinned, 41);

    std::vector<int> plain(16);
    cudaPointerAttributes attributes;
    void* mapped = nullptr;
    ASSERT_CUDA(cudaPointerGetAttributes(&attributes, plain.data()));
    EXPECT_EQ(attributes.type, cudaMemoryTypeUnregistered);
    EXPECT_EQ(cudaHostGetDevicePointer(&mapped, plain.data(), 0), cudaErrorInvalidValue);
    ASSERT_CUDA(cudaHostRegister(plain.data(), 64, cudaHostRegisterDefault));
    EXPECT_EQ(cudaHostRegister(&plain[2], 4, 0), cudaErrorHostMemoryAlreadyRegistered);
    ASSERT_CUDA(cudaPointerGetAttributes(&attributes, &plain[15]));
    EXPECT_EQ(attributes.type, cudaMemoryTypeHost);
    EXPECT_CUDA(cudaHostGetDevicePointer(&mapped, &plain[3], 0));
    EXPECT_EQ(mapped, &plain[3]);
    EXPECT_CUDA(cudaHostUnregister(plain.data()));
    EXPECT_EQ(cudaHostUnregister(plain.data()), cudaErrorHostMemoryNotRegistered);

    DeviceArray<int> device(4);
    ASSERT_CUDA(cudaPointerGetAttributes(&attributes, device.get() + 3));
    EXPECT_EQ(attributes.type, cudaMemoryTypeDevice);
    EXPECT_EQ(attributes.devicePointer, device.get() + 3);
}

TEST_F(MemoryTest, PoolReusesInStreamOrder) {
    cudaStream_t a, b;
    ASSERT_CUDA(cudaStreamCreateWithFlags(&a, cudaStreamNonBlocking));
    ASSERT_CUDA(cudaStreamCreateWithFlags(&b, cudaStreamNonBlocking));
    void *first, *same, *other, *later;
    Gate gate(a);
    ASSERT_CUDA(cudaMallocAsync(&first, 5000, a));
    ASSERT_CUDA(cudaMemsetAsync(first, 1, 5000, a));
    ASSERT_CUDA(cudaFreeAsync(first, a));
    // Stream a is still before the memset: another stream can't have the block, a itself can.
    ASSERT_CUDA(cudaMallocAsync(&other, 5000, b));
    EXPECT_NE(other, first);
    ASSERT_CUDA(cudaMallocAsync(&same, 5000, a));
    EXPECT_EQ(same, first);
    // Gone for the host from the call on.
    ASSERT_CUDA(cudaFreeAsync(same, a));
    EXPECT_EQ(cudaFreeAsync(same, a), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemsetAsync(same, 0, 4, a), cudaErrorInvalidValue);
    gate.open();
    ASSERT_CUDA(cudaStreamSynchronize(a));
    ASSERT_CUDA(cudaMallocAsync(&later, 5000, b));
    EXPECT_EQ(later, first);
}

TEST_F(MemoryTest, PoolAttributes) {
    cudaMemPool_t pool;
    ASSERT_CUDA(cudaDeviceGetDefaultMemPool(&pool, 0));
    unsigned long threshold = ~0ul, read = 0;
    ASSERT_CUDA(cudaMemPoolSetAttribute(pool, cudaMemPoolAttrReleaseThreshold, &threshold));
    ASSERT_CUDA(cudaMemPoolGetAttribute(pool, cudaMemPoolAttrReleaseThreshold, &read));
    EXPECT_EQ(read, threshold);
    EXPECT_CUDA(cudaMemPoolTrimTo(pool, 0));
    EXPECT_EQ(cudaDeviceGetDefaultMemPool(&pool, 1), cudaErrorInvalidDevice);
}

TEST_F(MemoryTest, BlocksDontOverlapAndMemoryComesBack) {
    size_t before = 0, total = 0, after = 0;
    ASSERT_CUDA(cudaMemGetInfo(&before, &total));
    std::mt19937 engine(5);
    std::map<char*, size_t> blocks;
    for (int i = 0; i < 2000; ++i) {
        if (blocks.empty() || engine() % 5 < 3) {
            const size_t size = 1 + engine() % (engine() % 20 == 0 ? 3000000 : 5000);
            char* pointer = nullptr;
            ASSERT_CUDA(i % 2 == 0 ? cudaMalloc(&pointer, size)
                                   : cudaMallocAsync(&pointer, size, nullptr));
            EXPECT_EQ(reinterpret_cast<uintptr_t>(pointer) % 256, 0u);
            const auto next = blocks.lower_bound(pointer);
            ASSERT_TRUE(next == blocks.end() || pointer + size <= next->first);
            ASSERT_TRUE(next == blocks.begin() ||
                        std::prev(next)->first + std::prev(next)->second <= pointer);
            blocks[pointer] = size;
        } else {
            const auto victim = std::next(blocks.begin(), engine() % blocks.size());
            ASSERT_CUDA(i % 3 == 0 ? cudaFree(victim->first)
                                   : cudaFreeAsync(victim->first, nullptr));
            blocks.erase(victim);
        }
    }
    for (const auto& block : blocks) {
        ASSERT_CUDA(cudaFreeAsync(block.first, nullptr));
    }
    ASSERT_CUDA(cudaMemGetInfo(&after, &total));
    EXPECT_EQ(after, before);
    // Everything has grown together again: most of it can be had in one piece.
    void* all = nullptr;
    ASSERT_CUDA(cudaMalloc(&all, total - (1 << 20)));
    EXPECT_EQ(cudaMalloc(&all, 2 << 20), cudaErrorMemoryAllocation);
    EXPECT_EQ(all, nullptr);
    EXPECT_EQ(cudaGetLastError(), cudaErrorMemoryAllocation);
    EXPECT_EQ(cudaMalloc(&all, ~size_t{0}), cudaErrorMemoryAllocation);
    EXPECT_EQ(cudaMallocAsync(&all, total + 1, nullptr), cudaErrorMemoryAllocation);
}

TEST_F(MemoryTest, EnvironmentLimitsTheDevice) {
    EXPECT_EXIT(
        {
            setenv("GPUSIM_MEMORY", "64M", 1);
            size_t free_bytes = 0;
            size_t total = 0;
            void* most = nullptr;
            void* more = nullptr;
            cudaMemGetInfo(&free_bytes, &total);
            const bool fine = total == 64u << 20 && cudaMalloc(&most, 60 << 20) == cudaSuccess &&
                              cudaMalloc(&more, 8 << 20) == cudaErrorMemoryAllocation &&
                              cudaFree(most) == cudaSuccess &&
                              cudaMalloc(&more, 8 << 20) == cudaSuccess;
            std::_Exit(fine ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

bool has_protection_keys() {
    std::ifstream info("/proc/cpuinfo");
    const std::string text{std::istreambuf_iterator<char>(info), {}};
    return text.find(" ospke") != std::string::npos;
}

TEST_F(MemoryTest, HostCodeCannotTouchDeviceMemory) {
    if (!has_protection_keys()) {
        GTEST_SKIP() << "this processor has no protection keys";
    }
    DeviceArray<int> device(std::vector<int>{1, 2, 3});
    volatile int* pointer = device.get();
    EXPECT_DEATH(std::exit(pointer[1]), "");
    EXPECT_DEATH(pointer[1] = 0, "");
    // Nor can a function that a stream calls.
    EXPECT_DEATH(
        {
            cudaLaunchHostFunc(
                nullptr, [](void* p) { *static_cast<volatile int*>(p) = 0; }, device.get());
            cudaDeviceSynchronize();
        },
        "");
    EXPECT_EQ(device.read(), (std::vector<int>{1, 2, 3}));
}

#if defined(__SANITIZE_ADDRESS__)
__global__ void read_at(const int* data, int i, int* out) {
    *out = data[i];
}

TEST_F(MemoryTest, AddressSanitizerSeesBadKernelReads) {
    DeviceArray<int> out(1);
    EXPECT_DEATH(
        {
            DeviceArray<int> data(10);
            launch(1, 1, read_at, data.get(), 10, out.get());
            cudaDeviceSynchronize();
        },
        "use-after-poison");
    EXPECT_DEATH(
        {
            int* freed = nullptr;
            cudaMallocAsync(&freed, 40, nullptr);
            cudaFreeAsync(freed, nullptr);
            launch(1, 1, read_at, freed, 0, out.get());
            cudaDeviceSynchronize();
        },
        "use-after-poison");
}
#endif

}  // namespace
