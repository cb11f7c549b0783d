#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>

#include "device_fixture.h"

namespace {

class MemoryTest : public DeviceTest {
protected:
    static cudaMemoryType type_of(const void* pointer) {
        cudaPointerAttributes attributes;
        EXPECT_CUDA(cudaPointerGetAttributes(&attributes, pointer));
        return attributes.type;
    }
};

// Before the device comes up: these tests fill it, and sanitizers keep books of all its bytes.
[[maybe_unused]] const int limited = setenv("GPUSIM_MEMORY", "256M", 0);

TEST_F(MemoryTest, DirectionAndBoundsAreChecked) {
    DeviceArray<char> device(64), other(64);
    std::vector<char> host(1000), second(1000);
    char *d = device.get(), *e = other.get(), *h = host.data(), *pinned = nullptr;
    ASSERT_CUDA(cudaMallocHost(&pinned, 64));
    struct Case {
        void* dst;
        const void* src;
        size_t count;
        int kind;
        cudaError_t error = cudaErrorInvalidValue;
    };
    for (const Case& c : {
             Case{d, e, 64, cudaMemcpyDeviceToDevice, cudaSuccess},
             Case{h, second.data(), 1000, cudaMemcpyHostToHost, cudaSuccess},
             Case{d, h, 64, cudaMemcpyDefault, cudaSuccess},
             Case{d + 60, h, 4, cudaMemcpyHostToDevice, cudaSuccess},
             Case{d, pinned, 64, cudaMemcpyHostToDevice, cudaSuccess},
             Case{nullptr, nullptr, 0, cudaMemcpyHostToDevice, cudaSuccess},
             Case{d, h, 64, cudaMemcpyDeviceToHost},
             Case{h, d, 64, cudaMemcpyHostToDevice},
             Case{d, h, 64, cudaMemcpyHostToHost},
             Case{d, h, 64, cudaMemcpyDeviceToDevice},
             Case{h, e, 64, cudaMemcpyDeviceToDevice},
             Case{d + 60, h, 5, cudaMemcpyHostToDevice},
             Case{d - 1, h, 1, cudaMemcpyHostToDevice},
             Case{d, pinned + 32, 33, cudaMemcpyHostToDevice},
             Case{h, nullptr, 4, cudaMemcpyHostToHost},
             Case{d, h, 4, 5, cudaErrorInvalidMemcpyDirection},
         }) {
        SCOPED_TRACE(testing::Message() << c.count << " bytes, kind " << c.kind);
        const auto kind = static_cast<cudaMemcpyKind>(c.kind);
        EXPECT_EQ(cudaMemcpy(c.dst, c.src, c.count, kind), c.error);
        EXPECT_EQ(cudaMemcpyAsync(c.dst, c.src, c.count, kind, nullptr), c.error);
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
    const auto upload = [&](int pitch, int width) {
        return cudaMemcpy2D(device.get(), pitch, host.data(), kHostPitch, width, kRows,
                            cudaMemcpyHostToDevice);
    };
    ASSERT_CUDA(upload(kPitch, kWidth));
    ASSERT_CUDA(cudaMemcpy2D(copy.get(), kPitch, device.get(), kPitch, kWidth, kRows,
                             cudaMemcpyDeviceToDevice));
    ASSERT_CUDA(cudaMemset2D(copy.get() + 1, kPitch, 77, 2, kRows - 1));
    const std::vector<char> out = copy.read();
    for (int i = 0; i < kRows * kPitch; ++i) {
        const int row = i / kPitch, col = i % kPitch;
        const bool filled = col >= 1 && col < 3 && row < kRows - 1;
        EXPECT_EQ(out[i], filled ? 77 : col < kWidth ? host[row * kHostPitch + col] : -1) << i;
    }
    EXPECT_EQ(upload(kWidth - 1, kWidth), cudaErrorInvalidPitchValue);
    EXPECT_EQ(upload(kPitch, kWidth + 1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemset2D(device.get(), kPitch, 0, kWidth, kRows + 1), cudaErrorInvalidValue);
}

__global__ void write_value(int* out, int value) {
    *out = value;
}

TEST_F(MemoryTest, PinnedAndRegisteredHostMemory) {
    int* pinned = nullptr;
    ASSERT_CUDA(cudaMallocHost(&pinned, sizeof(int)));
    ASSERT_CUDA(launch(config(1, 1), write_value, pinned, 41));
    ASSERT_CUDA(cudaDeviceSynchronize());
    EXPECT_EQ(*pinned, 41);

    std::vector<int> plain(16);
    EXPECT_EQ(type_of(plain.data()), cudaMemoryTypeUnregistered);
    ASSERT_CUDA(cudaHostRegister(plain.data(), 64, cudaHostRegisterDefault));
    EXPECT_EQ(cudaHostRegister(&plain[2], 4, 0), cudaErrorHostMemoryAlreadyRegistered);
    EXPECT_EQ(type_of(&plain[15]), cudaMemoryTypeHost);
    EXPECT_CUDA(cudaHostUnregister(plain.data()));
    EXPECT_EQ(cudaHostUnregister(plain.data()), cudaErrorHostMemoryNotRegistered);
    EXPECT_EQ(type_of(DeviceArray<int>(4).get() + 3), cudaMemoryTypeDevice);
}

TEST_F(MemoryTest, PoolReusesInStreamOrder) {
    const cudaStream_t a = create_stream(cudaStreamNonBlocking);
    const cudaStream_t b = create_stream(cudaStreamNonBlocking);
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

TEST_F(MemoryTest, FreshBlocksHoldNaN) {
    const cudaStream_t stream = create_stream();
    std::vector<unsigned char> bytes(5000);
    // The first block of a size, and one that was in use before.
    for (int life = 0; life < 2; ++life) {
        for (const bool in_stream : {false, true}) {
            char* block = nullptr;
            ASSERT_CUDA(in_stream ? cudaMallocAsync(&block, bytes.size(), stream)
                                  : cudaMalloc(&block, bytes.size()));
            ASSERT_CUDA(cudaStreamSynchronize(stream));
            ASSERT_CUDA(cudaMemcpy(bytes.data(), block, bytes.size(), cudaMemcpyDeviceToHost));
            EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0xff), 5000);
            ASSERT_CUDA(cudaMemset(block, 0, bytes.size()));
            ASSERT_CUDA(in_stream ? cudaFreeAsync(block, stream) : cudaFree(block));
        }
    }
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
            const auto at = blocks.emplace(pointer, size).first, next = std::next(at);
            ASSERT_TRUE(next == blocks.end() || pointer + size <= next->first);
            ASSERT_TRUE(at == blocks.begin() ||
                        std::prev(at)->first + std::prev(at)->second <= pointer);
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

TEST_F(MemoryTest, HostCodeCannotTouchDeviceMemory) {
    std::ifstream info("/proc/cpuinfo");
    const std::string text{std::istreambuf_iterator<char>(info), {}};
    if (text.find(" ospke") == std::string::npos && !is_strict()) {
        GTEST_SKIP() << "this processor has no protection keys, and GPUSIM_STRICT is not 1";
    }
    DeviceArray<int> device(std::vector<int>{1, 2, 3});
    volatile int* pointer = device.get();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const char* const report = "";
#else
    const char* const report = is_strict() ? "gpusim: host code touches device memory" : "";
#endif
    EXPECT_DEATH(std::exit(pointer[1]), report);
    EXPECT_DEATH(pointer[1] = 0, report);
    // Nor can a function that a stream calls.
    const auto write = [](void* p) { *static_cast<volatile int*>(p) = 0; };
    EXPECT_DEATH((cudaLaunchHostFunc(nullptr, write, device.get()), cudaDeviceSynchronize()),
                 report);
    EXPECT_EQ(device.read(), (std::vector<int>{1, 2, 3}));
}

struct Holder {
    int tag;
    float* data;
};
__global__ void store_first(int* number, Holder holder) {
    *number = 1;
    holder.data[0] = 1;
}

TEST_F(MemoryTest, KernelsGetNoPageableMemory) {
    DeviceArray<int> device(1);
    DeviceArray<float> floats(1);
    std::vector<int> pageable(1);
    std::vector<float> pageable_floats(1);
    int* pinned = nullptr;
    ASSERT_CUDA(cudaMallocHost(&pinned, sizeof(int)));
    ASSERT_CUDA(cudaHostRegister(pageable_floats.data(), sizeof(float), cudaHostRegisterDefault));
    for (int* number : {device.get(), pinned}) {
        for (float* data : {floats.get(), pageable_floats.data()}) {
            ASSERT_CUDA(launch(config(1, 1), store_first, number, Holder{1, data}));
            ASSERT_CUDA(cudaDeviceSynchronize());
        }
    }
    EXPECT_EQ(*pinned, 1);
    EXPECT_EQ(pageable_floats[0], 1);
    ASSERT_CUDA(cudaHostUnregister(pageable_floats.data()));

    if (is_strict()) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(launch(config(1, 1), store_first, pageable.data(), Holder{1, floats.get()}),
                  cudaErrorIllegalAddress);
        EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorIllegalAddress);
        const std::string message = testing::internal::GetCapturedStderr();
        EXPECT_NE(message.find("gpusim: an argument of kernel "), std::string::npos) << message;
        EXPECT_NE(message.find("store_first(int*, "), std::string::npos) << message;
        EXPECT_NE(message.find(" points to host memory that is not page-locked\n"),
                  std::string::npos)
            << message;
        EXPECT_EQ(pageable[0], 0);
        cudaDeviceReset();
    }
    ASSERT_CUDA(cudaFreeHost(pinned));
}

struct alignas(16) Four {
    float values[4];
};
__global__ void copy_fours(const float* in, Four* out) {
    out[threadIdx.x] = *reinterpret_cast<const Four*>(in + 4 * threadIdx.x);
}

// A compiler that doesn't optimise copies word by word.
TEST_F(MemoryTest, MisalignedVectorsAreReported) {
#if defined(__SANITIZE_ADDRESS__)
    const char* const report = "misaligned address.*Four";
#elif defined(__OPTIMIZE__) && !defined(__SANITIZE_THREAD__)
    const char* const report =
        is_strict() ? R"(gpusim: kernel .*copy_fours.*, block \[0,0,0\], thread \[.,0,0\]: )"
                      "an access that is misaligned or outside of memory"
                    : "";
#else
    const char* const report = nullptr;
#endif
    if (report == nullptr) {
        GTEST_SKIP() << "not noticed in this build";
    }
    DeviceArray<float> in(20);
    DeviceArray<Four> out(4);
    ASSERT_CUDA(launch(config(1, 4), copy_fours, in.get() + 4, out.get()));
    ASSERT_CUDA(cudaDeviceSynchronize());
    EXPECT_DEATH(
        {
            launch(config(1, 4), copy_fours, in.get() + 1, out.get());
            cudaDeviceSynchronize();
        },
        report);
}

#if !defined(__SANITIZE_ADDRESS__)
__global__ void store_past(Holder holder, int at) {
    holder.data[at] = 1;
}
__global__ void store_through(float* const* where) {
    where[0][100] = 1;
}

TEST_F(MemoryTest, StoresPastABlockAreReported) {
    constexpr int n = 100;
    const auto stored_by = [](auto kernel, auto... args) {
        testing::internal::CaptureStderr();
        EXPECT_CUDA(launch(config(1, 1), kernel, args...));
        EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorIllegalAddress);
        const std::string message = testing::internal::GetCapturedStderr();
        cudaDeviceReset();
        return message;
    };
    for (const int at : {n, n + 127}) {
        float *block = nullptr, *next = nullptr;
        ASSERT_CUDA(cudaMallocAsync(&block, n * sizeof(float), nullptr));
        ASSERT_CUDA(cudaMallocAsync(&next, n * sizeof(float), nullptr));
        ASSERT_CUDA(launch(config(1, 1), store_past, Holder{1, block + 1}, n - 2));
        ASSERT_CUDA(cudaDeviceSynchronize());
        const std::string message = stored_by(store_past, Holder{1, block + 1}, at - 1);
        EXPECT_NE(message.find("store_past("), std::string::npos) << message;
        EXPECT_NE(message.find(") stored past the end of a block of 400 bytes"), std::string::npos)
            << message;
    }
    // Where no argument leads to the block, the store shows when the block is freed.
    DeviceArray<float> block(n);
    DeviceArray<float*> where(std::vector<float*>{block.get()});
    ASSERT_CUDA(launch(config(1, 1), store_through, where.get()));
    ASSERT_CUDA(cudaDeviceSynchronize());
    testing::internal::CaptureStderr();
    EXPECT_CUDA(cudaFreeAsync(block.get(), nullptr));
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorIllegalAddress);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "gpusim: something was stored past the end of a block of 400 bytes\n");
}
#else
TEST_F(MemoryTest, AddressSanitizerSeesKernelsOutsideTheirBlocks) {
    for (const bool freed : {false, true}) {
        EXPECT_DEATH(
            {
                int* block = nullptr;
                cudaMallocAsync(&block, 40, nullptr);
                if (freed) {
                    cudaFreeAsync(block, nullptr);
                }
                launch(config(1, 1), write_value, block + (freed ? 0 : 10), 1);
                cudaDeviceSynchronize();
            },
            "use-after-poison");
    }
}
#endif

TEST_F(MemoryTest, AFreeInTheNullStreamComesAfterTheWorkOfTheOthers) {
    const cudaStream_t a = create_stream(), b = create_stream(cudaStreamNonBlocking);
    void *first = nullptr, *second = nullptr;
    ASSERT_CUDA(cudaMallocAsync(&first, 4096, nullptr));
    Gate gate(a);
    ASSERT_CUDA(cudaMemsetAsync(first, 1, 4096, a));
    ASSERT_CUDA(cudaFreeAsync(first, nullptr));
    ASSERT_CUDA(cudaMallocAsync(&second, 4096, b));
    EXPECT_NE(second, first);
}

}  // namespace
