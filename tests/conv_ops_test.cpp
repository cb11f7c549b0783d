#include <algorithm>

#include "device_test.h"
#include "vorn/ops/conv_ops.h"

namespace vorn {
namespace test {
namespace {

// An image batch (n, c, h, w), k filters of kh x kw, and how they move.
struct Conv {
    int n, c, h, w, k, kh, kw;
    int pad_h = 0, pad_w = 0, stride_h = 1, stride_w = 1, dilation_h = 1, dilation_w = 1;

    int out_h() const { return (h + 2 * pad_h - (dilation_h * (kh - 1) + 1)) / stride_h + 1; }
    int out_w() const { return (w + 2 * pad_w - (dilation_w * (kw - 1) + 1)) / stride_w + 1; }
    Dim image() const { return Dim(n, c, h, w); }
    Dim filter() const { return Dim(k, c, kh, kw); }
    Dim out() const { return Dim(n, k, out_h(), out_w()); }
    Dim columns() const { return Dim(c * kh * kw, out_h() * out_w()); }
    ConvDesc desc() const {
        ConvDesc desc(pad_h, pad_w, stride_h, stride_w);
        desc.dilation_h = dilation_h;
        desc.dilation_w = dilation_w;
        return desc;
    }

    /// Calls f(oh, ow, i, j, row, column) for each output position and tap, with the position of
    /// the tap in the image, or (-1, -1) outside.
    template <typename F>
    void for_each_tap(F f) const {
        for (int oh = 0; oh < out_h(); ++oh) {
            for (int ow = 0; ow < out_w(); ++ow) {
                for (int i = 0; i < kh; ++i) {
                    for (int j = 0; j < kw; ++j) {
                        const int row = oh * stride_h - pad_h + i * dilation_h;
                        const int column = ow * stride_w - pad_w + j * dilation_w;
                        const bool inside = row >= 0 && row < h && column >= 0 && column < w;
                        f(oh, ow, i, j, inside ? row : -1, inside ? column : -1);
                    }
                }
            }
        }
    }
    /// Calls f(out, image, filter) for the offsets of each product of the convolution.
    template <typename F>
    void for_each_product(F f) const {
        for_each_tap([&](int oh, int ow, int i, int j, int row, int column) {
            for (int b = 0; b < n && row >= 0; ++b) {
                for (int o = 0; o < k; ++o) {
                    for (int p = 0; p < c; ++p) {
                        f(((b * k + o) * out_h() + oh) * out_w() + ow,
                          ((b * c + p) * h + row) * w + column, ((o * c + p) * kh + i) * kw + j);
                    }
                }
            }
        });
    }
};

const std::vector<Conv> kConvs = {
    {2, 3, 5, 5, 4, 3, 3, 1, 1},
    {2, 3, 5, 5, 4, 3, 3, 2, 2, 1, 1, 2, 2},
    {3, 2, 7, 6, 5, 2, 3},
    {2, 2, 9, 11, 3, 3, 2, 1, 0, 2, 3},
    {1, 4, 8, 21, 2, 5, 1, 2, 0, 1, 2, 1, 1},
    {2, 1, 10, 13, 3, 3, 3, 0, 2, 2, 2, 3, 2},
    {3, 5, 4, 6, 2, 1, 1},              // the image is its own column matrix
    {2, 3, 5, 7, 4, 1, 1, 0, 0, 2, 2},  // not here
    {2, 3, 5, 7, 4, 1, 1, 1, 1},        // nor here
    {2, 2, 3, 3, 1, 3, 3},              // a single output
    {1, 1, 2, 40, 1, 2, 5, 1, 4, 1, 1, 1, 2},
    {1, 3, 2, 2, 2, 3, 3, 3, 3, 4, 4},  // regions without an element of the image
};

class ConvTest : public DeviceTest {
protected:
    void* reserve(index_t bytes) {
        _work_space = Tensor<unsigned char>(Dim(static_cast<int>(bytes)), device());
        return _work_space.get_ptr();
    }

    Tensor<unsigned char> _work_space;
};
INSTANTIATE_TEST_SUITE_P(Places, ConvTest,
                         ::testing::Values(Place::kHost, Place::kGpu, Place::kGpuPitched),
                         name_of_place);

// Each product x w of the sum out counts three ways. The host's filter gradient takes no scalars,
// and its image gradient ignores them.
TEST_P(ConvTest, ForwardAndGradientsAreTheDefinition) {
    for (const Conv& conv : kConvs) {
        const Values x = random_values(conv.image().product(), 1),
                     w = random_values(conv.filter().product(), 2),
                     y = random_values(conv.out().product(), 3);
        const float alpha = 0.5f, beta = -0.25f;
        Doubles out(y.size()), dw(w.size()), dx(x.size());
        conv.for_each_product([&](int o, int i, int f) {
            out[o] += static_cast<double>(x[i]) * w[f];
            dw[f] += static_cast<double>(x[i]) * y[o];
            dx[i] += static_cast<double>(w[f]) * y[o];
        });
        for (double& value : out) {
            value = alpha * value + beta * 7;
        }
        for (double& value : dw) {
            value = on_gpu() ? alpha * value + beta * 7 : value + 7;
        }
        for (double& value : dx) {
            value = on_gpu() ? alpha * value + beta * 7 : value;
        }

        ConvDesc desc = conv.desc();
        const TensorF tx = image(conv.image(), x), tw = make(conv.filter(), w),
                      ty = image(conv.out(), y);
        TensorF t_out = image(conv.out(), Values(y.size(), 7)),
                t_dw = make(conv.filter(), Values(w.size(), 7)),
                t_dx = image(conv.image(), Values(x.size(), 7));
        desc.algo = t_out.conv_get_fwd_algo(desc, tx, tw, ty, CONV_FWD_PREFER_FASTEST, 0);
        desc.grad_algo = t_dw.conv_get_grad_algo(desc, tx, ty, tw, CONV_GRAD_PREFER_FASTEST, 0);
        desc.diff_algo = t_dx.conv_get_diff_algo(desc, tx, ty, tw, CONV_DIFF_PREFER_FASTEST, 0);
        const index_t fwd = t_out.conv_get_fwd_work_space_size(desc, tx, tw, ty, desc.algo);
        const index_t grad = t_dw.conv_get_grad_work_space_size(desc, tx, ty, tw, desc.grad_algo);
        const index_t diff = t_dx.conv_get_diff_work_space_size(desc, tx, ty, tw, desc.diff_algo);
        t_out.conv_fwd(desc, tx, tw, reserve(fwd), fwd, alpha, beta);
        expect_close(values_of(t_out), out, 1e-5, 1e-4);
        t_dw.conv_grad(desc, tx, ty, reserve(grad), grad, on_gpu() ? alpha : 1,
                       on_gpu() ? beta : 1);
        expect_close(values_of(t_dw), dw, 1e-5, 1e-4);
        t_dx.conv_diff(desc, tw, ty, reserve(diff), diff, alpha, beta);
        expect_close(values_of(t_dx), dx, 1e-5, 1e-4);
    }
}

TEST_P(ConvTest, Bias) {
    const int n = 3, k = 5, plane = 7 * 6;
    const Dim size(n, k, 7, 6);
    const Values bias = random_values(k, 1), old_bias = random_values(k, 2),
                 y = random_values(n * k * plane, 3);
    for (const auto& [alpha, beta] : {std::pair<float, float>{1, 1}, {1, 0}, {0.5f, -2}}) {
        Doubles out(y.size()), gradient = widen(old_bias);
        for (int b = 0; b < n; ++b) {
            for (int c = 0; c < k; ++c) {
                double sum = 0;
                for (int p = 0; p < plane; ++p) {
                    const int at = (b * k + c) * plane + p;
                    out[at] = alpha * bias[c] + beta * y[at];
                    sum += y[at];
                }
                // The host blends in each sample, a GPU in the first one only.
                gradient[c] = alpha * sum + (on_gpu() && b > 0 ? 1 : beta) * gradient[c];
            }
        }
        TensorF tensor = image(size, y), dbias = make(Dim(1, k, 1, 1), old_bias);
        dbias.conv_bias(tensor, alpha, beta);
        expect_close(values_of(dbias), gradient, 1e-5, 1e-5);
        tensor.add_tensor(make(Dim(1, k, 1, 1), bias), alpha, beta);
        expect_close(values_of(tensor), out, kUlp, 1e-7);
    }
}

class TransposeChannelHeightTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, TransposeChannelHeightTest, kDensePlaces, name_of_place);

TEST_P(TransposeChannelHeightTest, ExchangesTwoAxes) {
    // On both sides of a block's 128 x 4 threads and of the grid's cap; and nothing at all.
    for (const Dim& size : {Dim(2, 3, 4, 5), Dim(1, 1, 1, 1), Dim(2, 3, 5, 129), Dim(3, 2, 9, 31),
                            Dim(40961, 1, 2, 1), Dim(0, 3, 4, 5), Dim(2, 3, 4, 0)}) {
        const int c_size = size[1], h_size = size[2], w_size = size[3];
        const Values in = random_values(size.product(), 1);
        Values expected(in.size());
        for (int i = 0; i < size.product(); ++i) {
            const int w = i % w_size, h = i / w_size % h_size, c = i / w_size / h_size % c_size;
            const int n = i / w_size / h_size / c_size;
            expected[((n * h_size + h) * c_size + c) * w_size + w] = in[i];
        }
        TensorF out = poisoned(Dim(size[0], h_size, c_size, w_size));
        out.transpose_channel_height(make(size, in));
        EXPECT_EQ(values_of(out), expected);
    }
}

// The column matrix by its definition, and its adjoint on integers, whose sums are exact.
TEST(ConvColumns, HostAndKernelsAreTheDefinition) {
    ThreadContextScope context;
    for (const Conv& conv : kConvs) {
        const int plane = conv.h * conv.w, rows = conv.columns()[0], positions = conv.columns()[1];
        const Values im = counting<float>(conv.c * plane, 1),
                     col = counting<float>(rows * positions, -5, 3);
        Values expected_col(col.size()), expected_im(im.size());
        conv.for_each_tap([&](int oh, int ow, int i, int j, int row, int column) {
            for (int c = 0; c < conv.c && row >= 0; ++c) {
                const int to =
                    ((c * conv.kh + i) * conv.kw + j) * positions + oh * conv.out_w() + ow;
                const int from = (c * conv.h + row) * conv.w + column;
                expected_col[to] = im[from];
                expected_im[from] += col[to];
            }
        });
        const auto on_host = [&](auto f, const Values& in, size_t count) {
            Values out(count, kPoison);
            f(in.data(), conv.c, conv.h, conv.w, conv.kh, conv.kw, conv.pad_h, conv.pad_w,
              conv.stride_h, conv.stride_w, conv.dilation_h, conv.dilation_w, out.data());
            return out;
        };
        EXPECT_EQ(on_host(cpu::im2col, im, col.size()), expected_col);
        EXPECT_EQ(on_host(cpu::col2im, col, im.size()), expected_im);
        if (!has_gpu()) {
            continue;
        }
        TensorF out_col = dense(Dim(rows, positions), Values(col.size(), kPoison), GPU),
                out_im = dense(Dim(conv.c, plane), Values(im.size(), kPoison), GPU);
        const TensorF in_im = dense(Dim(conv.c, plane), im, GPU),
                      in_col = dense(Dim(rows, positions), col, GPU);
        gpu::launch<gpu::KeIm2Col>(3, 32, conv.c * positions, in_im.get_ptr(), conv.h, conv.w,
                                   conv.kh, conv.kw, conv.pad_h, conv.pad_w, conv.stride_h,
                                   conv.stride_w, conv.dilation_h, conv.dilation_w, conv.out_h(),
                                   conv.out_w(), out_col.get_ptr());
        gpu::launch<gpu::KeCol2Im>(2, 64, conv.c * plane, in_col.get_ptr(), conv.h, conv.w, conv.c,
                                   conv.kh, conv.kw, conv.pad_h, conv.pad_w, conv.stride_h,
                                   conv.stride_w, conv.dilation_h, conv.dilation_w, conv.out_h(),
                                   conv.out_w(), out_im.get_ptr());
        EXPECT_EQ(values_of(out_col), expected_col);
        EXPECT_EQ(values_of(out_im), expected_im);
    }
}

class HostConvTest : public ContextTest {};

TEST_F(HostConvTest, WorkSpaceIsLookedAtOnlyWhereItIsNeeded) {
    const TensorF none(Dim(0, 2, 4, 4)), x = dense(Dim(1, 2, 4, 4), random_values(32, 1), CPU),
                                         w = dense(Dim(3, 2, 3, 3), random_values(54, 2), CPU);
    TensorF no_out(Dim(0, 3, 2, 2)), dw = dense(w.get_size(), Values(54, 9), CPU);
    no_out.conv_fwd(ConvDesc(), none, w, nullptr, 0);
    dw.conv_grad(ConvDesc(), none, no_out, nullptr, 0);
    EXPECT_EQ(values_of(dw), Values(54, 9));

    const TensorF plain = dense(Dim(3, 2, 1, 1), Values({1, 0, 0, 1, 1, -1}), CPU);
    TensorF out(Dim(1, 3, 4, 4));
    out.conv_fwd(ConvDesc(), x, plain, nullptr, 0);
    EXPECT_EQ(out[Dim(0, 2, 1, 3)], x[Dim(0, 0, 1, 3)] - x[Dim(0, 1, 1, 3)]);
}

TEST_F(HostConvTest, WorkSpaceThatIsTooSmall) {
    const TensorF x(Dim(2, 2, 9, 7)), w(Dim(3, 2, 3, 3));
    TensorF out(Dim(2, 3, 7, 5)), dw(w.get_size()), dx(x.get_size());
    Values work_space(630);  // 2 channels * 3 * 3 taps * 7 * 5 outputs
    const ConvDesc desc;
    out.conv_fwd(desc, x, w, work_space.data(), 2520);
    const std::string text = failed("(work_space_size_byte) >= (buffer_size * sizeof(DType))",
                                    "Expect: 2520 Malloced:2519");
    expect_failures({
        {text, [&] { out.conv_fwd(desc, x, w, work_space.data(), 2519); }},
        {text, [&] { dw.conv_grad(desc, x, out, work_space.data(), 2519); }},
        {text, [&] { dx.conv_diff(desc, w, out, work_space.data(), 2519); }},
        {failed("alpha == 1.0f"),
         [&] { dw.conv_grad(desc, x, out, work_space.data(), 2519, 0.5f, 0); }},
        {failed("beta == 1.0f"),
         [&] { dw.conv_grad(desc, x, out, work_space.data(), 2519, 1, kNan); }},
    });
}

TEST_F(HostConvTest, QueriesTellTheColumnMatrix) {
    TensorF x(Dim(4, 2, 9, 7)), w(Dim(3, 2, 3, 3)), y(Dim(4, 3, 7, 5));
    const ConvDesc desc;
    EXPECT_EQ(x.conv_get_fwd_algo(desc, x, w, y, ConvAlgoPref(3), 0), CONV_ALGO_AUTO);
    EXPECT_EQ(x.conv_get_grad_algo(desc, x, y, w, CONV_GRAD_NO_WORKSPACE, 0), CONV_GRAD_ALGO_AUTO);
    EXPECT_EQ(x.conv_get_diff_algo(desc, x, y, w, CONV_DIFF_NO_WORKSPACE, 0), CONV_DIFF_ALGO_AUTO);
    EXPECT_EQ(x.conv_get_fwd_work_space_size(desc, x, w, y, CONV_ALGO_AUTO), 2520u);
    EXPECT_EQ(x.conv_get_grad_work_space_size(desc, x, y, w, CONV_GRAD_ALGO_3), 2520u);
    EXPECT_EQ(x.conv_get_diff_work_space_size(desc, x, y, w, CONV_DIFF_ALGO_1), 2520u);
    const TensorF plain(Dim(3, 2, 1, 1));
    EXPECT_EQ(x.conv_get_fwd_work_space_size(desc, x, plain, y, CONV_ALGO_AUTO), 280u);

    const auto expect_one = [](const auto& perf, auto algo) {
        ASSERT_EQ(perf.size(), 1u);
        EXPECT_EQ(perf[0].algo, algo);
        EXPECT_EQ(perf[0].status, CONV_PERF_OK);
        EXPECT_EQ(perf[0].time, 1.0f);
        EXPECT_EQ(perf[0].memory, 2520u);
        EXPECT_TRUE(perf[0].is_determinism);
    };
    expect_one(x.conv_get_fwd_algo_perf(desc, x, w, y), CONV_ALGO_AUTO);
    expect_one(x.conv_get_grad_algo_perf(desc, x, y, w), CONV_GRAD_ALGO_AUTO);
    expect_one(x.conv_get_diff_algo_perf(desc, x, y, w), CONV_DIFF_ALGO_AUTO);
}

TEST(CudnnTranslations, GoBothWays) {
    using namespace gpu::helper;
    for (int i = 0; i < 8; ++i) {  // the library's values follow cuDNN's after AUTO
        EXPECT_EQ(convert_conv_algo(ConvAlgo(i + 1)), i);
        EXPECT_EQ(convert_cudnn_conv_algo(cudnnConvolutionFwdAlgo_t(i)), i + 1);
        if (i < 7) {
            EXPECT_EQ(convert_conv_grad_algo(ConvGradAlgo(i + 1)), i);
            EXPECT_EQ(convert_cudnn_conv_grad_algo(cudnnConvolutionBwdFilterAlgo_t(i)), i + 1);
        }
        if (i < 6) {
            EXPECT_EQ(convert_conv_diff_algo(ConvDiffAlgo(i + 1)), i);
            EXPECT_EQ(convert_cudnn_conv_diff_algo(cudnnConvolutionBwdDataAlgo_t(i)), i + 1);
        }
        if (i < 3) {
            EXPECT_EQ(convert_conv_algo_pref(ConvAlgoPref(i)), i);
            EXPECT_EQ(convert_conv_grad_algo_pref(ConvGradAlgoPref(i)), i);
            EXPECT_EQ(convert_conv_diff_algo_pref(ConvDiffAlgoPref(i)), i);
            EXPECT_EQ(convert_pooling_type(PoolingType(i)), i);
        }
    }
    EXPECT_EQ(convert_batch_norm_mode(NORM_1CHW), CUDNN_BATCHNORM_PER_ACTIVATION);
    EXPECT_EQ(convert_batch_norm_mode(NORM_1C11), CUDNN_BATCHNORM_SPATIAL);
    for (const auto& [status, expected] :
         {std::pair<cudnnStatus_t, ConvPerfStatus>{CUDNN_STATUS_SUCCESS, CONV_PERF_OK},
          {CUDNN_STATUS_ALLOC_FAILED, CONV_PERF_ALLOC_FAILED},
          {CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED, CONV_PERF_ALLOC_FAILED},
          {CUDNN_STATUS_NOT_SUPPORTED, CONV_PERF_INTERNAL_ERROR},
          {CUDNN_STATUS_INTERNAL_ERROR, CONV_PERF_INTERNAL_ERROR}}) {
        EXPECT_EQ(convert_cudnn_conv_perf_status(status), expected);
    }
    expect_failures({
        {"invalid ConvAlgo 9", [] { convert_conv_algo(ConvAlgo(9)); }},
        {"invalid ConvDiffAlgo 7", [] { convert_conv_diff_algo(ConvDiffAlgo(7)); }},
        {"invalid cudnnConvolutionFwdAlgo_t 8",
         [] { convert_cudnn_conv_algo(CUDNN_CONVOLUTION_FWD_ALGO_COUNT); }},
        {"invalid cudnnConvolutionBwdFilterAlgo_t 7",
         [] { convert_cudnn_conv_grad_algo(CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT); }},
        {"invalid ConvDiffAlgo 6",
         [] { convert_cudnn_conv_diff_algo(CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT); }},
        {"invalid BatNormType 2", [] { convert_batch_norm_mode(BAT_NORM_UNKNOWN); }},
    });
}

class GpuConvTest : public GpuTest {
protected:
    const ConvDesc desc{1, 1, 1, 1};
    const Device device = has_gpu() ? GPU : CPU;  // without one the test is skipped
    TensorF x{Dim(2, 3, 8, 9), device}, w{Dim(4, 3, 3, 3), device}, y{Dim(2, 4, 8, 9), device};
};

// A choice without work space needs none, a limited one no more than that; a trial tells what the
// size query tells.
TEST_F(GpuConvTest, QueriesAgree) {
    const auto fwd_size = [&](ConvAlgo a) {
        return x.conv_get_fwd_work_space_size(desc, x, w, y, a);
    };
    const auto grad_size = [&](ConvGradAlgo a) {
        return x.conv_get_grad_work_space_size(desc, x, y, w, a);
    };
    const auto diff_size = [&](ConvDiffAlgo a) {
        return x.conv_get_diff_work_space_size(desc, x, y, w, a);
    };
    EXPECT_EQ(fwd_size(x.conv_get_fwd_algo(desc, x, w, y, CONV_FWD_NO_WORKSPACE, 1 << 20)), 0u);
    EXPECT_EQ(grad_size(x.conv_get_grad_algo(desc, x, y, w, CONV_GRAD_NO_WORKSPACE, 1 << 20)), 0u);
    EXPECT_EQ(diff_size(x.conv_get_diff_algo(desc, x, y, w, CONV_DIFF_NO_WORKSPACE, 1 << 20)), 0u);
    for (index_t limit : {0, 1 << 12, 1 << 20}) {
        EXPECT_LE(
            fwd_size(x.conv_get_fwd_algo(desc, x, w, y, CONV_FWD_SPECIFY_WORKSAPCE_LIMIT, limit)),
            limit);
        EXPECT_LE(grad_size(x.conv_get_grad_algo(desc, x, y, w, CONV_GRAD_SPECIFY_WORKSAPCE_LIMIT,
                                                 limit)),
                  limit);
        EXPECT_LE(diff_size(x.conv_get_diff_algo(desc, x, y, w, CONV_DIFF_SPECIFY_WORKSAPCE_LIMIT,
                                                 limit)),
                  limit);
    }
    const auto expect_trials = [](const auto& perf, size_t most, auto size_of) {
        EXPECT_GE(perf.size(), 1u);
        EXPECT_LE(perf.size(), most);
        EXPECT_EQ(perf.front().status, CONV_PERF_OK);
        for (const auto& record : perf) {
            if (record.status == CONV_PERF_OK) {
                EXPECT_EQ(record.memory, size_of(record.algo));
                EXPECT_GE(record.time, 0);
            }
        }
    };
    expect_trials(x.conv_get_fwd_algo_perf(desc, x, w, y), 8, fwd_size);
    expect_trials(x.conv_get_grad_algo_perf(desc, x, y, w), 7, grad_size);
    expect_trials(x.conv_get_diff_algo_perf(desc, x, y, w), 6, diff_size);
}

TEST_F(GpuConvTest, RefusesWhatHasNoTranslation) {
    TensorF out(y.get_size(), GPU), dw(w.get_size(), GPU), dx(x.get_size(), GPU);
    expect_failures({
        {"invalid ConvAlgo 0", [&] { out.conv_fwd(desc, x, w, nullptr, 0); }},
        {"invalid ConvGradAlgo 0", [&] { dw.conv_grad(desc, x, y, nullptr, 0); }},
        {"invalid ConvDiffAlgo 0", [&] { dx.conv_diff(desc, w, y, nullptr, 0); }},
        {"invalid ConvAlgoPref 3", [&] { x.conv_get_fwd_algo(desc, x, w, y, ConvAlgoPref(3), 0); }},
        {"invalid ConvGradAlgoPref 3",
         [&] { x.conv_get_grad_algo(desc, x, y, w, ConvGradAlgoPref(3), 0); }},
        {"invalid ConvDiffAlgoPref 3",
         [&] { x.conv_get_diff_algo(desc, x, y, w, ConvDiffAlgoPref(3), 0); }},
        {"invalid ConvAlgo 0",
         [&] { x.conv_get_fwd_work_space_size(desc, x, w, y, CONV_ALGO_AUTO); }},
        {"invalid ConvGradAlgo 0",
         [&] { x.conv_get_grad_work_space_size(desc, x, y, w, CONV_GRAD_ALGO_AUTO); }},
        {"invalid ConvDiffAlgo 0",
         [&] { x.conv_get_diff_work_space_size(desc, x, y, w, CONV_DIFF_ALGO_AUTO); }},
    });
}

// cuDNN refuses empty tensors; an empty batch has a gradient of 0, which blends.
TEST_F(GpuConvTest, EmptyBatch) {
    const TensorF no_x(Dim(0, 3, 8, 9), GPU);
    TensorF no_y(Dim(0, 4, 8, 9), GPU), no_dx(no_x.get_size(), GPU),
        dw = dense(w.get_size(), Values(108, 4), GPU),
        dbias = dense(Dim(1, 4, 1, 1), Values(4, 4), GPU);
    no_y.conv_fwd(desc, no_x, w, nullptr, 0);
    no_dx.conv_diff(desc, w, no_y, nullptr, 0);
    no_y.add_tensor(dbias);
    dw.conv_grad(desc, no_x, no_y, nullptr, 0, 1, 0.5f);
    dbias.conv_bias(no_y, 1, 1);
    EXPECT_EQ(values_of(dw), Values(108, 2));
    EXPECT_EQ(values_of(dbias), Values(4, 4));
}

using ConvFailureTest = FailureTest;

TEST_F(ConvFailureTest, ChecksDevicesInOrder) {
    TensorF &h = in, &d = far;
    const ConvDesc c;
    expect_failures({
        {same_device("x"), [&] { d.conv_fwd(c, h, h, nullptr, 0); }},
        {same_device("w"), [&] { d.conv_fwd(c, d, h, nullptr, 0); }},
        {same_device("x"), [&] { h.conv_grad(c, d, d, nullptr, 0, 0, 0); }},
        {same_device("dy"), [&] { h.conv_grad(c, h, d, nullptr, 0, 0, 0); }},
        {same_device("w"), [&] { d.conv_diff(c, h, h, nullptr, 0); }},
        {same_device("dy"), [&] { d.conv_diff(c, d, h, nullptr, 0); }},
        {same_device("bias"), [&] { d.add_tensor(h); }},
        {same_device("dy"), [&] { d.conv_bias(h); }},
        {same_device("x", "y"), [&] { d.conv_get_fwd_algo(c, h, h, d, CONV_FWD_NO_WORKSPACE, 0); }},
        {same_device("w", "y"), [&] { d.conv_get_fwd_algo(c, d, h, d, CONV_FWD_NO_WORKSPACE, 0); }},
        {same_device("x", "y"),
         [&] { d.conv_get_fwd_work_space_size(c, h, h, d, CONV_ALGO_AUTO); }},
        {same_device("w", "y"),
         [&] { d.conv_get_fwd_work_space_size(c, d, h, d, CONV_ALGO_AUTO); }},
        {same_device("x", "y"), [&] { d.conv_get_fwd_algo_perf(c, h, h, d); }},
        {same_device("w", "y"), [&] { d.conv_get_fwd_algo_perf(c, d, h, d); }},
        {same_device("x", "dy"),
         [&] { d.conv_get_grad_algo(c, h, d, h, CONV_GRAD_NO_WORKSPACE, 0); }},
        {same_device("dw", "dy"),
         [&] { d.conv_get_grad_algo(c, d, d, h, CONV_GRAD_NO_WORKSPACE, 0); }},
        {same_device("x", "dy"),
         [&] { d.conv_get_grad_work_space_size(c, h, d, h, CONV_GRAD_ALGO_AUTO); }},
        {same_device("dw", "dy"),
         [&] { d.conv_get_grad_work_space_size(c, d, d, h, CONV_GRAD_ALGO_AUTO); }},
        {same_device("x", "dw"), [&] { d.conv_get_grad_algo_perf(c, h, h, d); }},
        {same_device("dy", "dw"), [&] { d.conv_get_grad_algo_perf(c, d, h, d); }},
        {same_device("x", "dy"),
         [&] { d.conv_get_diff_algo(c, h, d, h, CONV_DIFF_NO_WORKSPACE, 0); }},
        {same_device("dw", "dy"),
         [&] { d.conv_get_diff_algo(c, d, d, h, CONV_DIFF_NO_WORKSPACE, 0); }},
        {same_device("x", "dy"),
         [&] { d.conv_get_diff_work_space_size(c, h, d, h, CONV_DIFF_ALGO_AUTO); }},
        {same_device("dw", "dy"),
         [&] { d.conv_get_diff_work_space_size(c, d, d, h, CONV_DIFF_ALGO_AUTO); }},
        {same_device("x", "dy"), [&] { d.conv_get_diff_algo_perf(c, h, d, h); }},
        {same_device("dw", "dy"), [&] { d.conv_get_diff_algo_perf(c, d, d, h); }},
        {same_device("in"),
         [&] { TensorF(Dim(2, 4, 3, 5)).transpose_channel_height(far_of(Dim(2, 3, 4, 5))); }},
    });
}

TEST_F(ConvFailureTest, TransposeChannelHeightChecksInOrder) {
    const std::string only_4d = "transpose_channel_height just support 4D";
    TensorF from(Dim(2, 3, 4, 5)), three(Dim(3, 4, 10)), small(Dim(2, 4, 3, 4)),
        twisted(Dim(2, 3, 4, 5)), narrow(Dim(2, 10, 3, 2)), shallow(Dim(1, 4, 3, 10));
    expect_failures({
        {failed("in.get_dim() == 4u", only_4d), [&] { three.transpose_channel_height(three); }},
        {failed("out.get_dim() == 4u", only_4d), [&] { three.transpose_channel_height(from); }},
        {failed("in.get_element_count() == out.get_element_count()", "element count not match"),
         [&] { small.transpose_channel_height(from); }},
        {failed("in.get_c() == out.get_h()"), [&] { twisted.transpose_channel_height(from); }},
        {failed("in.get_h() == out.get_c()"), [&] { narrow.transpose_channel_height(from); }},
        {failed("in.get_n() == out.get_n()"), [&] { shallow.transpose_channel_height(from); }},
    });
}

// What cuDNN refuses aborts with the call or its status in the text: here a filter of other
// channels than the image has.
TEST_F(GpuConvTest, AbortsWithTheCallThatFailed) {
    const TensorF other(Dim(4, 5, 3, 3), GPU);
    TensorF out(y.get_size(), GPU);
    const auto expect_refused = [](const std::string& call, const std::function<void()>& f) {
        EXPECT_DEATH(f(), literal(": Check failed: 0 == (" + call + ") ") + "CUDNN_STATUS_.*\n");
    };
    expect_refused(
        "ret", [&] { out.conv_fwd(ConvDesc(1, 1, 1, 1, CONV_ALGO_GEMM), x, other, nullptr, 0); });
    expect_refused(
        "cudnnFindConvolutionForwardAlgorithm( t_ctx->cudnn_handle, cudnn_tensor_x, "
        "cudnn_filter_w, cudnn_conv_desc, cudnn_tensor_y, CUDNN_CONVOLUTION_FWD_ALGO_COUNT, "
        "&count_ret, cudnn_perf)",
        [&] { x.conv_get_fwd_algo_perf(desc, x, other, y); });
    expect_refused(
        "cudnnFindConvolutionBackwardFilterAlgorithm( t_ctx->cudnn_handle, cudnn_tensor_x, "
        "cudnn_tensor_y, cudnn_conv_desc, cudnn_filter_w, "
        "CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT, &count_ret, cudnn_perf)",
        [&] { x.conv_get_grad_algo_perf(desc, x, y, other); });
    expect_refused(
        "cudnnFindConvolutionBackwardDataAlgorithm( t_ctx->cudnn_handle, cudnn_filter_w, "
        "cudnn_tensor_y, cudnn_conv_desc, cudnn_tensor_x, CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT, "
        "&count_ret, cudnn_perf)",
        [&] { x.conv_get_diff_algo_perf(desc, x, y, other); });
}

}  // namespace
}  // namespace test
}  // namespace vorn
