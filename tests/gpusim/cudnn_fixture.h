#ifndef GPUSIM_TESTS_CUDNN_FIXTURE_H_
#define GPUSIM_TESTS_CUDNN_FIXTURE_H_

// What the tests of cuDNN's families share.

#include <cudnn.h>

#include <array>
#include <cmath>
#include <limits>

#include "device_fixture.h"

#define EXPECT_DNN(call) EXPECT_EQ(call, CUDNN_STATUS_SUCCESS)
#define EXPECT_BAD_PARAM(call) EXPECT_EQ(call, CUDNN_STATUS_BAD_PARAM)
#define EXPECT_NOT_SUPPORTED(call) EXPECT_EQ(call, CUDNN_STATUS_NOT_SUPPORTED)

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

/// The scalars of a blend; old values are NaN where beta is 0.
struct Scalars {
    float alpha, beta;
    float old(float random) const { return beta == 0 ? kNan : random; }
};
constexpr Scalars kScalars[] = {{1, 0}, {0.5f, -2}};

using Extents = std::array<int, 4>;
enum Layout { kPacked, kInterleaved, kGaps };

template <class F>
void for_all(const Extents& e, F work) {
    for (int n = 0; n < e[0]; ++n) {
        for (int c = 0; c < e[1]; ++c) {
            for (int h = 0; h < e[2]; ++h) {
                for (int w = 0; w < e[3]; ++w) {
                    work(n, c, h, w);
                }
            }
        }
    }
}

/// A tensor with its descriptor and device memory. Where the layout has gaps, they are random too.
class TestTensor {
public:
    TestTensor(const Extents& extent, unsigned seed, Layout layout = kPacked,
               cudnnDataType_t type = CUDNN_DATA_FLOAT)
        : extent(extent),
          stride(strides(extent, layout)),
          values(random_floats(extent[0] * stride[0] + 4, seed)),
          device(values.size()) {
        EXPECT_DNN(cudnnCreateTensorDescriptor(&desc));
        EXPECT_DNN(cudnnSetTensor4dDescriptorEx(desc, type, extent[0], extent[1], extent[2],
                                                extent[3], stride[0], stride[1], stride[2],
                                                stride[3]));
        write(values);
    }
    TestTensor(const Extents& extent, const std::vector<float>& elements) : TestTensor(extent, 0) {
        for (size_t i = 0; i < elements.size(); ++i) {
            values[i] = elements[i];
        }
        write(values);
    }
    ~TestTensor() { EXPECT_DNN(cudnnDestroyTensorDescriptor(desc)); }

    void write(const std::vector<float>& v) {
        values = v;
        EXPECT_CUDA(
            cudaMemcpy(device.get(), v.data(), v.size() * sizeof(float), cudaMemcpyHostToDevice));
    }
    /// Makes the elements what a result with these scalars must not read, or must.
    void make_old(const Scalars& scalars) {
        for_all(extent,
                [&](auto... at) { values[offset(at...)] = scalars.old(values[offset(at...)]); });
        write(values);
    }
    int offset(int n, int c, int h, int w) const {
        return n * stride[0] + c * stride[1] + h * stride[2] + w * stride[3];
    }
    double operator()(int n, int c, int h, int w) const { return values[offset(n, c, h, w)]; }
    float* get() const { return device.get(); }
    std::vector<float> read() const {
        EXPECT_CUDA(cudaDeviceSynchronize());
        return device.read();
    }

    /// Holds the device's elements against alpha * expected(n, c, h, w) + beta * old, and its gaps
    /// against what they were.
    template <class F>
    void expect(const Scalars& scalars, F expected, double tolerance = 1e-5) const {
        std::vector<float> actual = read(), gaps = values;
        for_all(extent, [&](int n, int c, int h, int w) {
            const double old = scalars.beta == 0 ? 0 : scalars.beta * (*this)(n, c, h, w);
            ASSERT_NEAR(actual[offset(n, c, h, w)], scalars.alpha * expected(n, c, h, w) + old,
                        tolerance)
                << n << ' ' << c << ' ' << h << ' ' << w;
            actual[offset(n, c, h, w)] = gaps[offset(n, c, h, w)] = 0;
        });
        EXPECT_EQ(actual, gaps);
    }

    cudnnTensorDescriptor_t desc = nullptr;
    const Extents extent;
    const Extents stride;
    std::vector<float> values;
    const DeviceArray<float> device;

private:
    static Extents strides(const Extents& e, Layout layout) {
        switch (layout) {
            case kInterleaved:
                return {e[1] * e[2] * e[3], 1, e[3] * e[1], e[1]};
            case kGaps: {
                const int row = e[3] * 2 + 3;
                return {e[1] * (e[2] * row + 1) + 2, e[2] * row + 1, row, 2};
            }
            default:
                return {e[1] * e[2] * e[3], e[2] * e[3], e[3], 1};
        }
    }
};

class CudnnTest : public DeviceTest {
protected:
    CudnnTest() {
        EXPECT_DNN(cudnnCreate(&handle_));
        EXPECT_DNN(cudnnSetStream(handle_, stream_));
    }
    ~CudnnTest() override { EXPECT_DNN(cudnnDestroy(handle_)); }

    cudnnHandle_t handle_ = nullptr;
    // A stream of its own, so that a call that ignored the handle's stream would come too late.
    cudaStream_t stream_ = create_stream(cudaStreamNonBlocking);
};

#endif  // GPUSIM_TESTS_CUDNN_FIXTURE_H_
