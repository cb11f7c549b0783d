#ifndef GPUSIM_TESTS_DEVICE_FIXTURE_H_
#define GPUSIM_TESTS_DEVICE_FIXTURE_H_

// What all tests of the simulated toolkit share.

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "gate.h"

#define EXPECT_CUDA(call) EXPECT_EQ(call, cudaSuccess)
#define ASSERT_CUDA(call) ASSERT_EQ(call, cudaSuccess)

/// Leaves a fresh device behind, whatever a test and its fixture did to it.
class DeviceTest : public testing::Test {
protected:
    DeviceTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    ~DeviceTest() override { cudaDeviceReset(); }

    static cudaStream_t create_stream(unsigned flags = cudaStreamDefault) {
        cudaStream_t stream = nullptr;
        EXPECT_CUDA(cudaStreamCreateWithFlags(&stream, flags));
        return stream;
    }
};

inline cudaLaunchConfig_t config(dim3 grid, dim3 block, cudaStream_t stream = nullptr) {
    cudaLaunchConfig_t c{};
    c.gridDim = grid;
    c.blockDim = block;
    c.stream = stream;
    return c;
}

template <class Kernel, class... A>
cudaError_t launch(const cudaLaunchConfig_t& config, Kernel kernel, const A&... args) {
    return cudaLaunchKernelEx(&config, kernel, args...);
}

/// Runs with both forms of a launch: a kernel known by its address, and one known at compile time.
class LaunchTest : public DeviceTest, public testing::WithParamInterface<bool> {
protected:
    template <auto kernel, class... A>
    static cudaError_t launch(const cudaLaunchConfig_t& config, const A&... args) {
        constexpr std::integral_constant<decltype(kernel), kernel> constant;
        return GetParam() ? ::launch(config, constant, args...) : ::launch(config, kernel, args...);
    }
};

/// A block of device memory that is freed with the scope.
template <class T>
class DeviceArray {
public:
    explicit DeviceArray(size_t size) : size_(size) {
        EXPECT_CUDA(cudaMalloc(&data_, size * sizeof(T)));
        EXPECT_CUDA(cudaMemset(data_, 0xff, size * sizeof(T)));
    }
    explicit DeviceArray(const std::vector<T>& values) : DeviceArray(values.size()) {
        EXPECT_CUDA(cudaMemcpy(data_, values.data(), size_ * sizeof(T), cudaMemcpyHostToDevice));
    }
    ~DeviceArray() { cudaFree(data_); }
    DeviceArray(const DeviceArray&) = delete;
    DeviceArray& operator=(const DeviceArray&) = delete;

    T* get() const { return data_; }
    std::vector<T> read() const {
        std::vector<T> values(size_);
        EXPECT_CUDA(cudaMemcpy(values.data(), data_, size_ * sizeof(T), cudaMemcpyDeviceToHost));
        return values;
    }

private:
    size_t size_;
    T* data_ = nullptr;
};

/// Whether GPUSIM_ORDER asks for another order than the ascending one.
inline bool is_shuffled() {
    const char* order = std::getenv("GPUSIM_ORDER");
    return order != nullptr && std::string(order) != "forward";
}

/// Whether this is a run with the simulator's dearer checks.
inline bool is_strict() {
    const char* strict = std::getenv("GPUSIM_STRICT");
    return strict != nullptr && std::string(strict) == "1";
}

/// What a message says in ascending order, or the pattern of all that it may say in others.
inline std::string in_order(const std::string& ascending, const std::string& any) {
    return is_shuffled() ? any : ascending;
}

/// The pattern of how a message of the simulator's own ends.
inline std::string order_note() {
    return in_order("", R"( in GPUSIM_ORDER=shuffle:\d+)");
}

inline std::vector<float> random_floats(size_t size, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> draw(-1, 1);
    std::vector<float> values(size);
    for (float& v : values) {
        v = draw(engine);
    }
    return values;
}

#endif  // GPUSIM_TESTS_DEVICE_FIXTURE_H_
