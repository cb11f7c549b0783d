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
    /// Mean and biased variance of `values` in the layout of x, by the place of the statistics.
    std::pair<std::vector<double>, std::vector<double>> moments(
        const std::vector<double>& values) const {
        std::vector<double> m(scale.values.size()), v(m), count(m);
        for_all(kImages, [&](auto... i) {
            m[at(i...)] += values[x.offset(i...)];
            count[at(i...)] += 1;
        });
        for_all(kImages, [&](auto... i) {
            const double d = values[x.offset(i...)] - m[at(i...)] / count[at(i...)];
            v[at(i...)] += d * d / count[at(i...)];
        });
        for (size_t i = 0; i < m.size(); ++i) {
            m[i] /= count[i];
        }
        return {m, v};
    }
    double elements_per_statistic() const {
        return mode == kPerActivation ? kImages[0] : kImages[0] * kImages[2] * kImages[3];
    }
    std::vector<double> x_values() const { return {x.values.begin(), x.values.end()}; }

    const cudnnBatchNormMode_t mode;
    TestTensor x, y, dy, dx, scale, bias, mean, variance, saved_mean, saved_deviation, d_scale,
        d_bias;
};

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

TEST_P(CudnnBatchNormTest, Training) {
    for (const double factor : {kFactor, 1.0}) {
        for (const Scalars& s : kScalars) {
            Layer l(GetParam(), kGaps);
            const auto moments = l.moments(l.x_values());
            const auto& mean = moments.first;
            const auto& variance = moments.second;
            const Scalars running{float(factor), float(1 - factor)};
            l.y.make_old(s);
            l.mean.make_old(running);
            l.variance.make_old(running);
            EXPECT_DNN(train(l, s, factor, l.mean.get(), l.variance.get(), l.saved_mean.get(),
                             l.saved_deviation.get()));
            l.y.expect(s, [&](auto... i) {
                const int k = l.at(i...);
                return l.scale.values[k] * (l.x(i...) - mean[k]) /
                           std::sqrt(variance[k] + kEpsilon) +
                       l.bias.values[k];
            });
            const double m = l.elements_per_statistic();
            const auto expect = [&](const TestTensor& t, const Scalars& scalars, auto value) {
                t.expect(scalars, [&](auto... i) { return value(l.at(i...)); });
            };
            expect(l.mean, running, [&](int k) { return mean[k]; });
            expect(l.variance, running, [&](int k) { return variance[k] * m / (m - 1); });
            expect(l.saved_mean, {1, 0}, [&](int k) { return mean[k]; });
            expect(l.saved_deviation, {1, 0},
                   [&](int k) { return 1 / std::sqrt(variance[k] + kEpsilon); });
            const auto y = l.y.read();
            l.y.write(l.y.values);
            EXPECT_DNN(train(l, s, factor, nullptr, nullptr, nullptr, nullptr));
            l.y.expect({1, 0}, [&](auto... i) { return y[l.y.offset(i...)]; });
        }
    }
}

// Central differences of sum(dy * y) in double precision.
TEST_P(CudnnBatchNormTest, Backward) {
    for (const bool saved : {false, true}) {
        for (const Layout layout : {kPacked, kGaps}) {
            Layer l(GetParam(), layout);
            const Scalars &data = kScalars[layout == kPacked], &param = kScalars[saved];
            const auto loss = [&](const std::vector<double>& x, int scale_at, double scale_step,
                                  int bias_at, double bias_step) {
                const auto [mean, variance] = l.moments(x);
                double sum = 0;
                for_all(kImages, [&, &mean = mean, &variance = variance](auto... i) {
                    const int k = l.at(i...);
                    const double scale = l.scale.values[k] + (k == scale_at ? scale_step : 0);
                    const double bias = l.bias.values[k] + (k == bias_at ? bias_step : 0);
                    sum += l.dy(i...) * (scale * (x[l.x.offset(i...)] - mean[k]) /
                                             std::sqrt(variance[k] + kEpsilon) +
                                         bias);
                });
                return sum;
            };
            if (saved) {
                EXPECT_DNN(train(l, {1, 0}, 1, nullptr, nullptr, l.saved_mean.get(),
                                 l.saved_deviation.get()));
            }
            for (TestTensor* t : {&l.d_scale, &l.d_bias}) {
                t->make_old(param);
            }
            l.dx.make_old(data);
            EXPECT_DNN(back(l, data, param, saved ? l.saved_mean.get() : nullptr,
                            saved ? l.saved_deviation.get() : nullptr));
            constexpr double h = 1e-5;
            const auto x = l.x_values();
            l.dx.expect(data, [&](auto... i) {
                auto up = x, down = x;
                up[l.x.offset(i...)] += h;
                down[l.x.offset(i...)] -= h;
                return (loss(up, -1, 0, -1, 0) - loss(down, -1, 0, -1, 0)) / (2 * h);
            });
            l.d_scale.expect(param, [&](auto... i) {
                return (loss(x, l.at(i...), h, -1, 0) - loss(x, l.at(i...), -h, -1, 0)) / (2 * h);
            });
            l.d_bias.expect(param, [&](auto... i) {
                return (loss(x, -1, 0, l.at(i...), h) - loss(x, -1, 0, l.at(i...), -h)) / (2 * h);
            });
        }
    }
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
