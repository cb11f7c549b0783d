#include <functional>
#include <numeric>
#include <string>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class ImageBatchNormTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, ImageBatchNormTest, ::testing::Values(Place::kGpu), name_of_place);

/// A batch (N, C, H, W) and the formulas of its normalization in double precision.
struct Batch {
    BatNormType type;
    Dim size;
    Doubles x, gamma, bias;

    Batch(BatNormType its_type, const Dim& its_size, unsigned seed)
        : type(its_type),
          size(its_size),
          x(widen(random_values(size.product(), seed, -1, 3))),
          gamma(widen(random_values(groups(), seed + 1, 0.5, 2))),
          bias(widen(random_values(groups(), seed + 2))) {}

    int image() const { return size.product() / size[0]; }
    int groups() const { return type == NORM_1C11 ? size[1] : image(); }
    int members() const { return size.product() / groups(); }
    int group_of(int i) const {
        return type == NORM_1C11 ? i / (size[2] * size[3]) % size[1] : i % image();
    }
    Dim statistics() const {
        return type == NORM_1C11 ? Dim(1, size[1], 1, 1) : Dim(1, size[1], size[2], size[3]);
    }
    Doubles mean() const {
        Doubles sum(groups());
        for (int i = 0; i < size.product(); ++i) {
            sum[group_of(i)] += x[i] / members();
        }
        return sum;
    }
    Doubles variance() const {
        const Doubles m = mean();
        Doubles sum(groups());
        for (int i = 0; i < size.product(); ++i) {
            const double difference = x[i] - m[group_of(i)];
            sum[group_of(i)] += difference * difference / members();
        }
        return sum;
    }
    Doubles normalized(const Doubles& mean, const Doubles& variance, double epsilon) const {
        Doubles y(x.size());
        for (int i = 0; i < size.product(); ++i) {
            const int g = group_of(i);
            y[i] = gamma[g] * (x[i] - mean[g]) / std::sqrt(variance[g] + epsilon) + bias[g];
        }
        return y;
    }
};

const std::vector<Batch> kBatches = {{NORM_1C11, Dim(4, 3, 5, 7), 1},
                                     {NORM_1CHW, Dim(5, 2, 3, 4), 11},
                                     {NORM_1C11, Dim(2, 33, 1, 1), 21},
                                     {NORM_1CHW, Dim(9, 1, 1, 40), 31}};

Values narrow(const Doubles& values) {
    return Values(values.begin(), values.end());
}

/// alpha * result + beta * old
Doubles blended(double alpha, Doubles result, double beta, const Values& old) {
    for (size_t i = 0; i < result.size(); ++i) {
        result[i] = alpha * result[i] + beta * old[i];
    }
    return result;
}

// Images may be pitched. An epsilon below 1e-5, or none, counts as 1e-5.
TEST_P(ImageBatchNormTest, Inference) {
    for (const Batch& b : kBatches) {
        const Dim of = b.statistics();
        const Values mean = random_values(b.groups(), 5);
        Values var = random_values(b.groups(), 6, 0.1f, 2);
        var[0] = 0;
        for (float epsilon : {0.01f, 0.0f, -1.0f, kNan}) {
            Block<float> x(b.size, device(), 2, 3), y(b.size, device(), 1, 6);
            x.write(Values(x.count(), kNan));
            y.write(Values(y.count(), 4));
            x.tensor.copy_from(make(b.size, narrow(b.x)));
            y.tensor.image_bat_norm_forward_inf(b.type, 2, 0.5, x.tensor, make(of, narrow(b.gamma)),
                                                make(of, narrow(b.bias)), make(of, mean),
                                                make(of, var), epsilon);
            const Doubles expected =
                b.normalized(widen(mean), widen(var), epsilon > 0 ? epsilon : 1e-5);
            expect_close(values_of(y.tensor), blended(2, expected, 0.5, Values(b.x.size(), 4)),
                         1e-5, 1e-5);
            y.expect_beside(4);
        }
    }
}

TEST_P(ImageBatchNormTest, TrainingAndItsGradients) {
    constexpr double kEpsilon = 0.05f, kFactor = 0.3f;
    for (Batch b : kBatches) {
        const Dim of = b.statistics();
        const Values old = random_values(b.x.size(), 5), dy = random_values(b.x.size(), 6),
                     run = random_values(b.groups(), 7, 0.5, 2);
        const TensorF x = make(b.size, narrow(b.x)), gamma = make(of, narrow(b.gamma)),
                      bias = make(of, narrow(b.bias));
        TensorF y = make(b.size, old), run_mean = make(of, run), run_var = make(of, run),
                mean = poisoned(of), var = poisoned(of);
        y.image_bat_norm_forward_train(b.type, 2, 0.5, x, gamma, bias, kFactor, run_mean, run_var,
                                       kEpsilon, mean, var);
        const Doubles m = b.mean(), v = b.variance();
        Doubles inv_std, unbiased;
        for (double variance : v) {
            inv_std.push_back(1 / std::sqrt(variance + kEpsilon));
            unbiased.push_back(variance * b.members() / (b.members() - 1));
        }
        expect_close(values_of(y), blended(2, b.normalized(m, v, kEpsilon), 0.5, old), 1e-5, 1e-5);
        expect_close(values_of(mean), m, 1e-5, 1e-6);
        expect_close(values_of(var), inv_std, 1e-5);
        expect_close(values_of(run_mean), blended(kFactor, m, 1 - kFactor, run), 1e-5, 1e-6);
        expect_close(values_of(run_var), blended(kFactor, unbiased, 1 - kFactor, run), 1e-5);

        TensorF errors = make(b.size, dy), dx = poisoned(b.size), d_gamma = poisoned(of),
                d_bias = poisoned(of);
        dx.image_bat_norm_back(b.type, 1, 0, 1, 0, x, errors, gamma, d_gamma, d_bias, kEpsilon,
                               mean, var);
        const auto loss = [&] {
            const Doubles out = b.normalized(b.mean(), b.variance(), kEpsilon);
            return std::inner_product(out.begin(), out.end(), dy.begin(), 0.0);
        };
        const Values gradient = values_of(dx), gamma_gradient = values_of(d_gamma),
                     bias_gradient = values_of(d_bias);
        expect_gradient(loss, b.x, gradient, 1e-5);
        expect_gradient(loss, b.gamma, gamma_gradient, 1e-5);
        expect_gradient(loss, b.bias, bias_gradient, 1e-5);

        // Data and parameters have scalars of their own, and images may be pitched.
        Block<float> pitched_x(b.size, device(), 1, 2), pitched_dy(b.size, device(), 2, 0),
            pitched_dx(b.size, device(), 0, 5);
        pitched_dx.write(Values(pitched_dx.count(), 4));
        pitched_x.tensor.copy_from(x);
        pitched_dy.tensor.copy_from(errors);
        d_gamma = make(of, run);
        d_bias = make(of, run);
        pitched_dx.tensor.image_bat_norm_back(b.type, 2, 0.5, -3, 0.25, pitched_x.tensor,
                                              pitched_dy.tensor, gamma, d_gamma, d_bias, kEpsilon,
                                              mean, var);
        expect_close(values_of(pitched_dx.tensor),
                     blended(2, widen(gradient), 0.5, Values(b.x.size(), 4)), 1e-5, 1e-5);
        expect_close(values_of(d_gamma), blended(-3, widen(gamma_gradient), 0.25, run), 1e-5, 1e-5);
        expect_close(values_of(d_bias), blended(-3, widen(bias_gradient), 0.25, run), 1e-5, 1e-5);
        pitched_dx.expect_beside(4);
    }
}

// A matrix is a batch of rows, whose activations have statistics each.
TEST_P(ImageBatchNormTest, TrainingOnAMatrix) {
    const Batch b(NORM_1CHW, Dim(6, 1, 1, 7), 41);
    const Dim rows(6, 7), of(7);
    TensorF y = poisoned(rows), run_mean = make(of, Values(7)), run_var = make(of, Values(7)),
            mean = poisoned(of), var = poisoned(of);
    y.image_bat_norm_forward_train(NORM_1CHW, 1, 0, make(rows, narrow(b.x)),
                                   make(of, narrow(b.gamma)), make(of, narrow(b.bias)), 1, run_mean,
                                   run_var, 0.0f, mean, var);
    expect_close(values_of(y), b.normalized(b.mean(), b.variance(), 1e-5), 1e-5, 1e-5);
    expect_close(values_of(run_mean), b.mean(), 1e-5, 1e-6);
}

// Any number of axes from two on, rows beyond the cap of the grid and longer than a block.
TEST_P(ImageBatchNormTest, GradientThroughFrozenStatistics) {
    for (const Dim& size : {Dim(5, 4), Dim(13655, 3, 2), Dim(2, 3, 10, 60), Dim(2, 2, 2, 2, 129),
                            Dim(0, 3, 2, 2), Dim(2, 3, 0)}) {
        const int channels = size[1],
                  inner = std::accumulate(size.begin() + 2, size.end(), 1, std::multiplies<int>());
        const Values dy = random_values(size.product(), 1), scale = random_values(channels, 2),
                     var = random_values(channels, 3, 0.1f, 2);
        Doubles expected(dy.size());
        for (size_t i = 0; i < dy.size(); ++i) {
            const int c = i / inner % channels;
            expected[i] = dy[i] / std::sqrt(var[c] + 0.01) * scale[c];
        }
        TensorF out = poisoned(size);
        out.image_bat_norm_back_inf(NORM_1C11, make(size, dy), make(var), make(scale), 0.01f);
        expect_close(values_of(out), expected, 1e-6);
    }
    // This form leaves epsilon as it is.
    TensorF out = poisoned(Dim(1, 2));
    out.image_bat_norm_back_inf(NORM_1C11, make(Dim(1, 2), Values{2, -3}), make(Values{0, 4}),
                                make(Values{1, 1}), 0);
    expect_close(values_of(out), {kInf, -1.5}, 1e-6);
}

using ImageBatchNormFailureTest = GpuTest;

TEST_F(ImageBatchNormFailureTest, Texts) {
    const Dim images(2, 3, 2, 2);
    TensorF h(images, CPU), d(images, GPU), three(Dim(3, 2, 2), GPU), two(Dim(4, 3), GPU),
        one(Dim(3), GPU), channel(Dim(1, 3, 1, 1), GPU), four(Dim(4), GPU);
    const auto infer = [](BatNormType type, TensorF& y, TensorF& x, TensorF& s) {
        y.image_bat_norm_forward_inf(type, 1, 0, x, s, s, s, s, 1);
    };
    const auto train = [](BatNormType type, TensorF& y, TensorF& x, TensorF& s) {
        y.image_bat_norm_forward_train(type, 1, 0, x, s, s, 1, s, s, 1, s, s);
    };
    const auto back = [](BatNormType type, TensorF& dx, TensorF& x, TensorF& s) {
        dx.image_bat_norm_back(type, 1, 0, 1, 0, x, x, s, s, s, 1, s, s);
    };
    const std::string none = kNotImplemented, unknown = "Invalid bath norm type 2",
                      per_channel = failed("static_cast<int>(bias.get_element_count()) == t.c"),
                      per_activation =
                          failed("static_cast<int>(bias.get_element_count()) == t.c * t.h * t.w"),
                      axes = failed("dim == 2 || dim == 4", "BN: only support 2D or 4D input"),
                      mode = failed("mode == NORM_1CHW", "BN: 2D input must use 1CHW mode"),
                      frozen = failed("(norm_type) == (NORM_1C11)",
                                      "image_bat_norm_back_inf only support 1C11");
    expect_failures({
        {none, [&] { infer(BAT_NORM_UNKNOWN, h, d, d); }},
        {none, [&] { train(BAT_NORM_UNKNOWN, h, three, d); }},
        {none, [&] { back(BAT_NORM_UNKNOWN, h, d, d); }},
        {none, [&] { h.image_bat_norm_back_inf(NORM_1C11, one, d, d, 1); }},
        {frozen, [&] { h.image_bat_norm_back_inf(NORM_1CHW, one, d, d, 1); }},
        {frozen, [&] { d.image_bat_norm_back_inf(BAT_NORM_UNKNOWN, one, d, d, 1); }},
        {kBadAxis, [&] { d.image_bat_norm_back_inf(NORM_1C11, one, d, d, 1); }},
        {unknown, [&] { infer(BAT_NORM_UNKNOWN, d, d, channel); }},
        {unknown, [&] { train(BAT_NORM_UNKNOWN, d, d, channel); }},
        {unknown, [&] { back(BAT_NORM_UNKNOWN, d, d, channel); }},
        {per_channel, [&] { infer(NORM_1C11, d, d, four); }},
        {per_channel, [&] { train(NORM_1C11, d, d, four); }},
        {per_channel, [&] { back(NORM_1C11, d, d, four); }},
        {per_activation, [&] { infer(NORM_1CHW, d, d, channel); }},
        {per_activation, [&] { train(NORM_1CHW, d, d, channel); }},
        {per_activation, [&] { back(NORM_1CHW, d, d, channel); }},
        {axes, [&] { train(BAT_NORM_UNKNOWN, d, three, four); }},
        {axes, [&] { train(NORM_1C11, three, d, four); }},
        {mode, [&] { train(NORM_1C11, d, two, four); }},
        {per_activation, [&] { train(NORM_1CHW, two, two, four); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
