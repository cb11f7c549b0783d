#include "cudnn_fixture.h"

namespace {

constexpr auto F = CUDNN_DATA_FLOAT;
constexpr auto OK = CUDNN_STATUS_SUCCESS, BAD = CUDNN_STATUS_BAD_PARAM,
               NOT = CUDNN_STATUS_NOT_SUPPORTED;

// The statuses here are those of cuDNN 9.19, which sets descriptors on machines without a GPU too.

TEST(CudnnDescriptorTest, Tensors) {
    cudnnTensorDescriptor_t t = nullptr;
    EXPECT_BAD_PARAM(cudnnCreateTensorDescriptor(nullptr));
    EXPECT_DNN(cudnnCreateTensorDescriptor(&t));
    const auto set = [&](cudnnTensorFormat_t format, Extents e) {
        return cudnnSetTensor4dDescriptor(t, format, F, e[0], e[1], e[2], e[3]);
    };
    EXPECT_EQ(set(CUDNN_TENSOR_NCHW, {2, 3, 4, 5}), OK);
    EXPECT_EQ(set(CUDNN_TENSOR_NHWC, {2, 3, 4, 5}), OK);
    EXPECT_EQ(set(CUDNN_TENSOR_NCHW_VECT_C, {1, 4, 1, 1}), BAD);
    EXPECT_EQ(set(CUDNN_TENSOR_NCHW, {0, 1, 1, 1}), BAD);
    EXPECT_EQ(set(CUDNN_TENSOR_NCHW, {1, -1, 1, 1}), BAD);
    EXPECT_EQ(set(CUDNN_TENSOR_NCHW, {32767, 65536, 1, 1}), OK);
    EXPECT_EQ(set(CUDNN_TENSOR_NCHW, {32768, 65536, 1, 1}), NOT);
    EXPECT_EQ(cudnnSetTensor4dDescriptor(t, CUDNN_TENSOR_NCHW, cudnnDataType_t(99), 1, 1, 1, 1),
              BAD);
    EXPECT_EQ(cudnnSetTensor4dDescriptor(nullptr, CUDNN_TENSOR_NCHW, F, 1, 1, 1, 1), BAD);
    const struct {
        Extents e, s;
        cudnnStatus_t status;
    } cases[] = {
        {{2, 3, 4, 5}, {120, 40, 10, 2}, OK},       {{2, 3, 4, 5}, {60, 20, 4, 1}, OK},
        {{2, 3, 4, 5}, {59, 20, 5, 0}, BAD},        {{2, 3, 4, 5}, {0, 20, 5, 1}, BAD},
        {{1, 3, 4, 5}, {0, 20, 5, 1}, OK},          {{2, 1, 1, 5}, {-5, 5, 5, 1}, OK},
        {{2, 3, 4, 5}, {1, 2, 6, 24}, OK},          {{2, 0, 1, 1}, {3, 2, 1, 1}, BAD},
        {{2, 1, 1, 1}, {2147483647, 1, 1, 1}, NOT},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(cudnnSetTensor4dDescriptorEx(t, F, c.e[0], c.e[1], c.e[2], c.e[3], c.s[0], c.s[1],
                                               c.s[2], c.s[3]),
                  c.status);
    }
    EXPECT_DNN(cudnnDestroyTensorDescriptor(t));
    EXPECT_DNN(cudnnDestroyTensorDescriptor(nullptr));
    // cuDNN would touch freed memory here.
    EXPECT_EQ(set(CUDNN_TENSOR_NCHW, {2, 3, 4, 5}), BAD);
    EXPECT_BAD_PARAM(cudnnDestroyTensorDescriptor(t));
}

TEST(CudnnDescriptorTest, FiltersAndConvolutions) {
    TestTensor x({2, 3, 5, 5}, 1);
    cudnnFilterDescriptor_t w = nullptr;
    cudnnConvolutionDescriptor_t conv = nullptr;
    EXPECT_DNN(cudnnCreateFilterDescriptor(&w));
    EXPECT_DNN(cudnnCreateConvolutionDescriptor(&conv));
    Extents y;
    const auto output = [&] {
        return cudnnGetConvolution2dForwardOutputDim(conv, x.desc, w, &y[0], &y[1], &y[2], &y[3]);
    };
    EXPECT_EQ(output(), BAD);  // nothing is set
    const auto set_filter = [&](Extents e) {
        return cudnnSetFilter4dDescriptor(w, F, CUDNN_TENSOR_NCHW, e[0], e[1], e[2], e[3]);
    };
    const auto set_conv = [&](const std::array<int, 6>& v) {
        return cudnnSetConvolution2dDescriptor(conv, v[0], v[1], v[2], v[3], v[4], v[5],
                                               CUDNN_CROSS_CORRELATION, F);
    };
    EXPECT_EQ(set_filter({4, 3, -1, 3}), BAD);
    EXPECT_DNN(set_filter({4, 3, 3, 2}));
    const std::array<int, 6> good = {1, 0, 2, 1, 2, 3};  // padding, strides, dilations
    for (int i = 0; i < 6; ++i) {
        std::array<int, 6> bad = good;
        bad[i] = i < 2 ? -1 : 0;
        EXPECT_EQ(set_conv(bad), BAD) << i;
    }
    EXPECT_DNN(set_conv(good));
    EXPECT_DNN(output());
    EXPECT_EQ(y, (Extents{2, 4, 2, 2}));
    for (const Extents& e : {Extents{4, 2, 3, 3}, {4, 3, 8, 1}}) {  // channels; too large
        EXPECT_DNN(set_filter(e));
        EXPECT_EQ(output(), BAD);
    }
    EXPECT_DNN(cudnnDestroyFilterDescriptor(w));
    EXPECT_DNN(cudnnDestroyConvolutionDescriptor(conv));
}

TEST(CudnnDescriptorTest, Pooling) {
    TestTensor x({2, 3, 5, 5}, 1);
    cudnnPoolingDescriptor_t p = nullptr;
    EXPECT_DNN(cudnnCreatePoolingDescriptor(&p));
    const auto set = [&](int mode, int window, int pad, int stride) {
        return cudnnSetPooling2dDescriptor(p, cudnnPoolingMode_t(mode), CUDNN_PROPAGATE_NAN, window,
                                           window, pad, pad, stride, stride);
    };
    Extents y;
    const auto output = [&] {
        return cudnnGetPooling2dForwardOutputDim(p, x.desc, &y[0], &y[1], &y[2], &y[3]);
    };
    EXPECT_EQ(output(), BAD);
    EXPECT_EQ(set(4, 2, 0, 2), BAD);
    EXPECT_EQ(set(0, 0, 0, 2), BAD);
    EXPECT_EQ(set(0, 2, 0, 0), BAD);
    for (const auto& [window, pad, size] : {std::array{2, 0, 2}, {3, 1, 3}, {5, 0, 1}}) {
        EXPECT_DNN(set(0, window, pad, 2));
        EXPECT_DNN(output());
        EXPECT_EQ(y, (Extents{2, 3, size, size}));
    }
    EXPECT_DNN(set(0, 7, 0, 2));
    EXPECT_EQ(output(), BAD);
    EXPECT_DNN(cudnnDestroyPoolingDescriptor(p));
}

class CudnnBiasTest : public CudnnTest {};

TEST_F(CudnnBiasTest, AddTensor) {
    const Extents full = {2, 3, 4, 5};
    for (const Extents e : {Extents{1, 3, 1, 1}, {1, 3, 4, 5}, {2, 1, 1, 5}, full, {1, 1, 1, 1}}) {
        for (const Scalars& s : kScalars) {
            TestTensor a(e, 1, kGaps), c(full, 2, kInterleaved);
            c.make_old(s);
            EXPECT_DNN(
                cudnnAddTensor(handle_, &s.alpha, a.desc, a.get(), &s.beta, c.desc, c.get()));
            c.expect(s, [&](int n, int ch, int h, int w) {
                return a(e[0] == 1 ? 0 : n, e[1] == 1 ? 0 : ch, e[2] == 1 ? 0 : h,
                         e[3] == 1 ? 0 : w);
            });
        }
    }
}

TEST_F(CudnnBiasTest, BackwardBias) {
    for (const Layout layout : {kPacked, kInterleaved, kGaps}) {
        for (const Scalars& s : kScalars) {
            TestTensor dy({3, 4, 5, 6}, 1, layout), db({1, 4, 1, 1}, 2, layout);
            db.make_old(s);
            EXPECT_DNN(cudnnConvolutionBackwardBias(handle_, &s.alpha, dy.desc, dy.get(), &s.beta,
                                                    db.desc, db.get()));
            std::array<double, 4> sums{};
            for_all(dy.extent, [&](int n, int c, int h, int w) { sums[c] += dy(n, c, h, w); });
            db.expect(s, [&](int, int c, int, int) { return sums[c]; });
        }
    }
}

// What all operations refuse alike.
TEST_F(CudnnBiasTest, Refusals) {
    const float one = 1;
    TestTensor a({1, 3, 1, 1}, 1), c({2, 3, 4, 5}, 2), wrong({1, 2, 1, 1}, 3);
    TestTensor half({1, 3, 1, 1}, 4, kPacked, CUDNN_DATA_HALF);
    const auto add = [&](const TestTensor& from, const void* data, const void* alpha,
                         const TestTensor& to, void* out) {
        return cudnnAddTensor(handle_, alpha, from.desc, data, &one, to.desc, out);
    };
    EXPECT_BAD_PARAM(add(wrong, wrong.get(), &one, c, c.get()));
    EXPECT_BAD_PARAM(add(half, half.get(), &one, c, c.get()));
    EXPECT_NOT_SUPPORTED(add(half, half.get(), &one, half, a.get()));
    EXPECT_BAD_PARAM(add(a, a.get(), nullptr, c, c.get()));
    EXPECT_BAD_PARAM(add(a, nullptr, &one, c, c.get()));
    EXPECT_BAD_PARAM(cudnnAddTensor(nullptr, &one, a.desc, a.get(), &one, c.desc, c.get()));
    EXPECT_BAD_PARAM(cudnnAddTensor(handle_, &one, nullptr, a.get(), &one, c.desc, c.get()));
    EXPECT_BAD_PARAM(cudnnConvolutionBackwardBias(handle_, &one, c.desc, c.get(), &one, wrong.desc,
                                                  wrong.get()));
    testing::internal::CaptureStderr();
    EXPECT_BAD_PARAM(add(a, c.get() + 60, &one, c, c.get()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "gpusim: cudnnAddTensor: C overlaps A\n");
    // An output with two elements at one address, and a negative stride.
    for (const int row : {4, -5}) {
        EXPECT_DNN(cudnnSetTensor4dDescriptorEx(c.desc, F, 1, 3, 4, 5, 60, 20, row, 1));
        EXPECT_NOT_SUPPORTED(add(a, a.get(), &one, c, c.get()));
    }
    // A GPU would write past the end.
    EXPECT_DNN(cudnnSetTensor4dDescriptor(c.desc, CUDNN_TENSOR_NCHW, F, 3, 3, 4, 5));
    testing::internal::CaptureStderr();
    EXPECT_EQ(add(a, a.get(), &one, c, c.get()), CUDNN_STATUS_EXECUTION_FAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "gpusim: cudnnAddTensor: C is not 720 bytes of device memory\n");
    EXPECT_EQ(cudaGetLastError(), cudaErrorIllegalAddress);
    cudnnHandle_t other = nullptr;
    EXPECT_EQ(cudnnCreate(&other), CUDNN_STATUS_NOT_INITIALIZED);
}

}  // namespace
