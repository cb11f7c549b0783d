#include "cudnn_fixture.h"

namespace {

constexpr auto kSpatial = CUDNN_BATCHNORM_SPATIAL;
constexpr auto kPerActivation = CUDNN_BATCHNORM_PER_ACTIVATION;
constexpr double kEpsilon = 1e-3, kFactor = 0.25;
constexpr Extents kImages = {3, 2, 2, 3};

/// Where the statistics of an element of the images are.
Extents statistics_of(cudnnBatchNormMode_t mode) {
    return mode == kPerActivation ? Extents{1, kImages[1], kImages[2], kImages[3]}
                                  : Extents{1, kImages[1], 1, 1};
}

/// The tensors of a layer. Statistics are positive.
struct Layer {
    explicit Layer(cudnnBatchNormMode_t mode, Layout layout = kPacked)
        : mode(mode),
          x(kImages, 1, layout),
          y(kImages, 2, layout),
          dy(kImages, 3, layout),
          dx(kImages, 4, layout),
          scale(statistics_of(mode), 5),
          bias(statistics_of(mode), 6),
          mean(statistics_of(mode), 7),
          variance(statistics_of(mode), 8),
          saved_mean(statistics_of(mode), 9),
          saved_deviation(statistics_of(mode), 10),
          d_scale(statistics_of(mode), 11),
          d_bias(statistics_of(mode), 12) {
        auto positive = variance.values;
        for (float& v : positive) {
            v = std::abs(v);
        }
        variance.write(positive);
    }

    int at(int, int c, int h, int w) const {
        return mode == kPerActivation ? scale.offset(0, c, h, w) : scale.offset(0, c, 0, 0);
    }
    const cudnnBatchNormMode_t mode;
    TestTensor x, y, dy, dx, scale, bias, mean, variance, saved_mean, saved_deviation, d_scale,
        d_bias;
};

// Training and its gradients are tested with the operators, which take them from here.
class CudnnBatchNormTest : public CudnnTest,
                           public testing::WithParamInterface<cudnnBatchNormMode_t> {
protected:
    cudnnStatus_t infer(const Layer& l, const Scalars& s = {1, 0}, double epsilon = kEpsilon,
                        const void* x = nullptr, void* y = nullptr) {
        return cudnnBatchNormalizationForwardInference(
            handle_, l.mode, &s.alpha, &s.beta, l.x.desc, x ? x : l.x.get(), l.y.desc,
            y ? y : l.y.get(), l.scale.desc, l.scale.get(), l.bias.get(), l.mean.get(),
            l.variance.get(), epsilon);
    }
    cudnnStatus_t train(const Layer& l, const Scalars& s, double factor, float* mean,
                        float* variance, float* saved_mean, float* saved_deviation,
                        double epsilon = kEpsilon) {
        return cudnnBatchNormalizationForwardTraining(
            handle_, l.mode, &s.alpha, &s.beta, l.x.desc, l.x.get(), l.y.desc, l.y.get(),
            l.scale.desc, l.scale.get(), l.bias.get(), factor, mean, variance, epsilon, saved_mean,
            saved_deviation);
    }
    cudnnStatus_t back(const Layer& l, const Scalars& data, const Scalars& param,
                       const float* saved_mean, const float* saved_deviation,
                       double epsilon = kEpsilon) {
        return cudnnBatchNormalizationBackward(
            handle_, l.mode, &data.alpha, &data.beta, &param.alpha, &param.beta, l.x.desc,
            l.x.get(), l.dy.desc, l.dy.get(), l.dx.desc, l.dx.get(), l.scale.desc, l.scale.get(),
            l.d_scale.get(), l.d_bias.get(), epsilon, saved_mean, saved_deviation);
    }
};
INSTANTIATE_TEST_SUITE_P(Modes, CudnnBatchNormTest,
                         testing::Values(kSpatial, kPerActivation,
                                         CUDNN_BATCHNORM_SPATIAL_PERSISTENT));

TEST_P(CudnnBatchNormTest, Inference) {
    for (const Layout layout : {kPacked, kInterleaved, kGaps}) {
        for (const Scalars& s : kScalars) {
            Layer l(GetParam(), layout);
            l.y.make_old(s);
            EXPECT_DNN(infer(l, s));
            const auto expected = [&](auto... i) {
                const int k = l.at(i...);
                return l.scale.values[k] * (l.x(i...) - l.mean.values[k]) /
                           std::sqrt(l.variance.values[k] + kEpsilon) +
                       l.bias.values[k];
            };
            l.y.expect(s, expected);
            // In place.
            l.y.write(l.x.values);
            EXPECT_DNN(infer(l, {1, 0}, kEpsilon, l.y.get(), l.y.get()));
            l.y.expect({1, 0}, expected);
        }
    }
}

// What a caller leaves out changes nothing else.
TEST_P(CudnnBatchNormTest, RunningAndSavedStatisticsAreOptional) {
    const Scalars s{1, 0};
    Layer with(GetParam(), kGaps), without(GetParam(), kGaps);
    EXPECT_DNN(train(with, s, kFactor, with.mean.get(), with.variance.get(), with.saved_mean.get(),
                     with.saved_deviation.get()));
    EXPECT_DNN(train(without, s, kFactor, nullptr, nullptr, nullptr, nullptr));
    EXPECT_DNN(back(with, s, s, with.saved_mean.get(), with.saved_deviation.get()));
    EXPECT_DNN(back(without, s, s, nullptr, nullptr));
    EXPECT_EQ(with.y.read(), without.y.read());
    const auto expect_near = [](const TestTensor& a, const TestTensor& b) {
        const auto x = a.read(), y = b.read();
        for (size_t i = 0; i < x.size(); ++i) {
            EXPECT_NEAR(x[i], y[i], 1e-6);
        }
    };
    expect_near(with.dx, without.dx);
    expect_near(with.d_scale, without.d_scale);
    expect_near(with.d_bias, without.d_bias);
}

TEST_P(CudnnBatchNormTest, Refusals) {
    Layer l(GetParam());
    const Scalars s{1, 0};
    for (const double epsilon : {-1e-9, double{kNan}}) {
        EXPECT_BAD_PARAM(infer(l, s, epsilon));
        EXPECT_BAD_PARAM(train(l, s, 1, nullptr, nullptr, nullptr, nullptr, epsilon));
        EXPECT_BAD_PARAM(back(l, s, s, nullptr, nullptr, epsilon));
    }
    EXPECT_DNN(infer(l, s, CUDNN_BN_MIN_EPSILON));
    EXPECT_BAD_PARAM(train(l, s, 1, l.mean.get(), nullptr, nullptr, nullptr));
    EXPECT_BAD_PARAM(train(l, s, 1, nullptr, nullptr, nullptr, l.saved_deviation.get()));
    EXPECT_BAD_PARAM(back(l, s, s, l.saved_mean.get(), nullptr));
    // Only inference is element by element, and only where no element moves.
    testing::internal::CaptureStderr();
    EXPECT_BAD_PARAM(infer(l, s, kEpsilon, l.x.get() + 1, l.x.get()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "gpusim: cudnnBatchNormalizationForwardInference: y overlaps x\n");
    Layer wrong(GetParam() == kPerActivation ? kSpatial : kPerActivation);
    EXPECT_BAD_PARAM(cudnnBatchNormalizationForwardInference(
        handle_, l.mode, &s.alpha, &s.beta, l.x.desc, l.x.get(), l.y.desc, l.y.get(),
        wrong.scale.desc, wrong.scale.get(), wrong.bias.get(), wrong.mean.get(),
        wrong.variance.get(), kEpsilon));
    EXPECT_BAD_PARAM(cudnnBatchNormalizationForwardInference(
        handle_, cudnnBatchNormMode_t(3), &s.alpha, &s.beta, l.x.desc, l.x.get(), l.y.desc,
        l.y.get(), l.scale.desc, l.scale.get(), l.bias.get(), l.mean.get(), l.variance.get(),
        kEpsilon));
}

}  // namespace
