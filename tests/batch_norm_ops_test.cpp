#include <algorithm>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

// Both sides of a tile of 32 columns and of 32 rows, and of four rows at a time on the host.
const std::pair<int, int> kShapes[] = {{1, 1},   {31, 33}, {33, 31}, {200, 32},
                                       {33, 65}, {6, 1},   {200, 3}, {0, 5}};

/// A mask of training, and one with values that only the forms that multiply tell apart.
const std::vector<int> kBinary = {1, 1, 0, 1, 1}, kMixed = {1, 0, 1, -1, 2, 1, 1};

std::vector<int> repeated(const std::vector<int>& pattern, int rows) {
    std::vector<int> mask(rows);
    for (int r = 0; r < rows; ++r) {
        mask[r] = pattern[r % pattern.size()];
    }
    return mask;
}

/// Training in double, from the formulas.
struct ReferenceTraining {
    Doubles run_mean, run_var, statis_mean, statis_var, inv_std, y;

    ReferenceTraining(const Doubles& x, const Doubles& scale, const Doubles& bias,
                      const std::vector<int>& mask, const Doubles& old, int frames, double exp_avg,
                      double statis, double epsilon, bool one_pass)
        : y(x.size()) {
        const size_t rows = mask.size(), columns = scale.size();
        for (size_t c = 0; c < columns; ++c) {
            double m = 0, v = 0;
            for (size_t r = 0; r < rows; ++r) {
                m += mask[r] * x[r * columns + c] / frames;
            }
            for (size_t r = 0; r < rows; ++r) {
                v += std::pow((x[r * columns + c] - (one_pass ? 0 : m)) * mask[r], 2) / frames;
            }
            v -= one_pass ? m * m : 0;
            run_mean.push_back(old[c] + exp_avg * (m - old[c]));
            run_var.push_back(old[c] + exp_avg * (v - old[c]));
            statis_mean.push_back(statis * old[c] + m);
            statis_var.push_back(statis * old[c] + v);
            inv_std.push_back(std::pow(run_var[c] + epsilon, -0.5));
            for (size_t r = 0; r < rows; ++r) {
                const double normal = (x[r * columns + c] - run_mean[c]) * inv_std[c];
                y[r * columns + c] = mask[r] * (normal * scale[c] + bias[c]);
            }
        }
    }
};

class BatchNormTest : public DeviceTest {
protected:
    /// A vector with a tail that must stay as it is: what a block's idle columns would write.
    Tensor<float> vector(Values values) {
        const size_t count = values.size();
        values.insert(values.end(), kTail, kPoison);
        const Tensor<float> tensor = make(values);
        _vectors.push_back({tensor, count});
        return tensor;
    }
    Values values_of_vector(const Tensor<float>& tensor) {
        Values values = values_of(tensor);
        values.resize(values.size() - kTail);
        return values;
    }
    /// An output for `in`: the tensor itself, or a poisoned one.
    Tensor<float> output(const Tensor<float>& in, bool in_place) {
        return in_place ? in : poisoned(in.get_size());
    }

    struct Trained {
        Tensor<float> y, run_mean, run_var, statis_mean, statis_var, saved_mean, saved_inv_std;
    };
    /// A training step from running and accumulated statistics that are all `old`.
    Trained train(const Tensor<float>& x, const Values& scale, const Values& bias,
                  const std::vector<int>& mask, const Values& old, int frames, float exp_avg,
                  float statis, float epsilon, bool in_place) {
        const Values unwritten(old.size(), kNan);
        Trained t = {output(x, in_place), vector(old),       vector(old),      vector(old),
                     vector(old),         vector(unwritten), vector(unwritten)};
        t.y.audio_batch_norm_train(x, vector(scale), vector(bias), make(mask), t.run_mean,
                                   t.run_var, t.statis_mean, t.statis_var, t.saved_mean,
                                   t.saved_inv_std, frames, exp_avg, statis, epsilon);
        return t;
    }

    void TearDown() override {
        for (const auto& [tensor, count] : _vectors) {
            const Values all = values_of(tensor);
            EXPECT_EQ(Values(all.begin() + count, all.end()), Values(kTail, kPoison));
        }
        DeviceTest::TearDown();
    }

private:
    static constexpr int kTail = 40;
    std::vector<std::pair<Tensor<float>, size_t>> _vectors;
};

INSTANTIATE_TEST_SUITE_P(Places, BatchNormTest, kDensePlaces, name_of_place);

TEST_P(BatchNormTest, InferenceZeroesOnlyRowsMarkedByMinusOne) {
    std::vector<std::pair<int, int>> shapes(std::begin(kShapes), std::end(kShapes));
    shapes.insert(shapes.end(), {{5, 256}, {5, 257}});
    for (const auto& [rows, columns] : shapes) {
        SCOPED_TRACE(::testing::Message() << rows << " x " << columns);
        const std::vector<int> mask = repeated(kMixed, rows);
        Values x = random_values(rows * columns, 1);
        const Values scale = random_values(columns, 2), bias = random_values(columns, 3),
                     mean = random_values(columns, 4), inv_std = random_values(columns, 5, 0.5, 2);
        Doubles expected;
        for (int k = 0; k < rows * columns; ++k) {
            const int r = k / columns, c = k % columns;
            const double normal = (static_cast<double>(x[k]) - mean[c]) * inv_std[c];
            expected.push_back(mask[r] == -1 ? 0 : normal * scale[c] + bias[c]);
            x[k] = mask[r] == -1 ? kNan : x[k];
        }
        for (bool in_place : {false, true}) {
            const Tensor<float> in = make(Dim(rows, columns), x);
            Tensor<float> out = output(in, in_place);
            out.audio_batch_norm_inf(in, vector(scale), vector(bias), vector(mean), vector(inv_std),
                                     make(mask), kNan);
            expect_close(values_of(out), expected, 1e-6, 1e-6);
        }
    }
}

TEST_P(BatchNormTest, TrainingFollowsTheFormula) {
    struct {
        float exp_avg, statis;
        std::vector<int> pattern;
        int extra;  ///< real_frame_size less the count of valid rows.
    } const cases[] = {{1, 0, kBinary, 0},     {0, 1, kBinary, 0},     {0.25f, 0.5f, kBinary, 0},
                       {0.25f, 1, kBinary, 7}, {0.5f, 1, kBinary, -9}, {0.25f, 0.5f, kMixed, 3}};
    for (const auto& [rows, columns] : kShapes) {
        for (const auto& each : cases) {
            SCOPED_TRACE(::testing::Message() << rows << " x " << columns << ", exp_avg_factor "
                                              << each.exp_avg << ", extra " << each.extra);
            const std::vector<int> mask = repeated(each.pattern, rows);
            const int frames =
                std::max(1, static_cast<int>(std::count(mask.begin(), mask.end(), 1)) + each.extra);
            // The old statistics are far from the batch's, and outweigh a negative variance, which
            // the host's form gives where it isn't one.
            const Values x = random_values(rows * columns, 1, -1, 1.5),
                         scale = random_values(columns, 2), bias = random_values(columns, 3),
                         old = random_values(columns, 4, 40, 50);
            const ReferenceTraining expected(widen(x), widen(scale), widen(bias), mask, widen(old),
                                             frames, each.exp_avg, each.statis, 0.5, !on_gpu());
            for (bool in_place : {false, true}) {
                const Trained t = train(make(Dim(rows, columns), x), scale, bias, mask, old, frames,
                                        each.exp_avg, each.statis, 0.5f, in_place);
                expect_close(values_of_vector(t.run_mean), expected.run_mean, 2e-6, 2e-6);
                expect_close(values_of_vector(t.run_var), expected.run_var, 5e-6, 5e-6);
                expect_same_bits(values_of_vector(t.saved_mean), values_of_vector(t.run_mean));
                expect_close(values_of_vector(t.saved_inv_std), expected.inv_std, 1e-5);
                expect_close(values_of_vector(t.statis_mean), expected.statis_mean, 2e-6, 2e-6);
                expect_close(values_of_vector(t.statis_var), expected.statis_var, 5e-6, 5e-6);
                expect_close(values_of(t.y), expected.y, 1e-5, 1e-5);
                if (each.exp_avg == 0) {
                    expect_same_bits(values_of_vector(t.run_mean), old);
                    expect_same_bits(values_of_vector(t.run_var), old);
                }
            }
        }
    }
}

TEST_P(BatchNormTest, BackwardFollowsTheFormula) {
    for (const auto& [rows, columns] : kShapes) {
        for (const std::vector<int>& mask : {repeated(kMixed, rows), std::vector<int>(rows, 0)}) {
            SCOPED_TRACE(::testing::Message() << rows << " x " << columns);
            const int frames = rows + 5;
            const Values x = random_values(rows * columns, 1),
                         dy = random_values(rows * columns, 2), scale = random_values(columns, 3),
                         mean = random_values(columns, 4),
                         inv_std = random_values(columns, 5, 0.5, 2);
            Doubles dx(rows * columns), dscale(columns), dbias(columns), h(rows * columns);
            for (int k = 0; k < rows * columns; ++k) {
                h[k] = (static_cast<double>(x[k]) - mean[k % columns]) * inv_std[k % columns];
                dbias[k % columns] += mask[k / columns] * static_cast<double>(dy[k]);
                dscale[k % columns] += mask[k / columns] * dy[k] * h[k];
            }
            for (int k = 0; k < rows * columns; ++k) {
                const int c = k % columns;
                dx[k] = (dy[k] - (h[k] * dscale[c] + dbias[c]) / frames) * mask[k / columns] *
                        inv_std[c] * scale[c];
            }
            for (bool in_place : {false, true}) {
                const Tensor<float> error = make(Dim(rows, columns), dy);
                Tensor<float> out = output(error, in_place),
                              dscale_out = vector(Values(columns, kNan)),
                              dbias_out = vector(Values(columns, kNan));
                out.audio_batch_norm_bp(make(Dim(rows, columns), x), error, vector(scale),
                                        vector(mean), vector(inv_std), make(mask), dscale_out,
                                        dbias_out, frames, kNan, kNan);
                expect_close(values_of_vector(dbias_out), dbias, 1e-6, 1e-5);
                expect_close(values_of_vector(dscale_out), dscale, 1e-6, 2e-5);
                expect_close(values_of(out), dx, 1e-5, 1e-6);
            }
        }
    }
}

// Where the running statistics are the batch's own, the backward step is the derivative.
TEST_P(BatchNormTest, BackwardIsTheDerivativeOfTraining) {
    const int rows = 35, columns = 3;
    const float epsilon = 1e-3f;
    const std::vector<int> mask = repeated(kBinary, rows);
    const int frames = static_cast<int>(std::count(mask.begin(), mask.end(), 1));
    const Values x = random_values(rows * columns, 1), scale = random_values(columns, 2),
                 bias = random_values(columns, 3), weight = random_values(rows * columns, 4);

    // All inputs: the matrix, then scale, then bias. The loss is a weighted sum of the outputs.
    Doubles inputs = widen(x);
    inputs.insert(inputs.end(), scale.begin(), scale.end());
    inputs.insert(inputs.end(), bias.begin(), bias.end());
    const auto loss = [&] {
        const auto end = inputs.end();
        const ReferenceTraining step(
            Doubles(inputs.begin(), end - 2 * columns), Doubles(end - 2 * columns, end - columns),
            Doubles(end - columns, end), mask, Doubles(columns), frames, 1, 0, epsilon, false);
        double sum = 0;
        for (int k = 0; k < rows * columns; ++k) {
            sum += weight[k] * step.y[k];
        }
        return sum;
    };

    const Tensor<float> in = make(Dim(rows, columns), x);
    const Trained t =
        train(in, scale, bias, mask, Values(columns, 3), frames, 1, 0, epsilon, false);
    Tensor<float> dx = make(in.get_size(), weight), dscale = vector(Values(columns)),
                  dbias = vector(Values(columns));
    dx.audio_batch_norm_bp(in, dx, vector(scale), t.saved_mean, t.saved_inv_std, make(mask), dscale,
                           dbias, frames, 1, epsilon);
    Values gradient = values_of(dx);
    for (const Tensor<float>& part : {dscale, dbias}) {
        const Values values = values_of_vector(part);
        gradient.insert(gradient.end(), values.begin(), values.end());
    }
    expect_gradient(loss, inputs, gradient, 1e-5);
}

// The host adds the rows of a column in their order, whatever the strips and the rows at a time.
using BatchNormHostTest = ContextTest;

TEST_F(BatchNormHostTest, WideMatricesHaveTheBitsOfAColumnLoop) {
    const int rows = 39, columns = 2 * 1024 + 21, frames = 33;
    const Values x = random_values(rows * columns, 1, -1, 2), dy = random_values(rows * columns, 2),
                 scale = random_values(columns, 3), bias = random_values(columns, 4);
    const std::vector<int> mask = repeated(kBinary, rows);
    Values mean(columns), inv_std(columns), y(x), dscale(columns), dbias(columns), dx(dy);
    for (int c = 0; c < columns; ++c) {
        float sum = 0, square = 0;
        for (int r = 0, k = c; r < rows; ++r, k += columns) {
            const float a = mask[r] * x[k];
            sum += a;
            square += a * a;
        }
        mean[c] = sum / frames;
        inv_std[c] = 1 / std::sqrt(square / frames - mean[c] * mean[c] + 1e-5f);
        for (int r = 0, k = c; r < rows; ++r, k += columns) {
            y[k] = (scale[c] * (x[k] - mean[c]) * inv_std[c] + bias[c]) * mask[r];
            dbias[c] += dy[k] * mask[r];
            dscale[c] += inv_std[c] * (dy[k] * mask[r]) * (x[k] - mean[c]);
        }
        for (int r = 0, k = c; r < rows; ++r, k += columns) {
            const float h = inv_std[c] * (x[k] - mean[c]);
            dx[k] = scale[c] * inv_std[c] * (dy[k] - (h * dscale[c] + dbias[c]) / frames) * mask[r];
        }
    }

    const Dim size(rows, columns);
    const auto vector = [&](const Values& v) { return dense(Dim(columns), v, CPU); };
    const Tensor<int> m = dense(Dim(rows), mask, CPU);
    Tensor<float> out = dense(size, x, CPU), error = dense(size, dy, CPU), v[8];
    for (Tensor<float>& each : v) {
        each = vector(Values(columns));
    }
    out.audio_batch_norm_train(out, vector(scale), vector(bias), m, v[0], v[1], v[2], v[3], v[4],
                               v[5], frames, 1, 0, 1e-5f);
    expect_same_bits(values_of(v[5]), inv_std);
    expect_same_bits(values_of(out), y);
    error.audio_batch_norm_bp(dense(size, x, CPU), error, vector(scale), v[4], v[5], m, v[6], v[7],
                              frames, 1, 0);
    expect_same_bits(values_of(v[6]), dscale);
    expect_same_bits(values_of(v[7]), dbias);
    expect_same_bits(values_of(error), dx);
}

}  // namespace
}  // namespace test
}  // namespace vorn
