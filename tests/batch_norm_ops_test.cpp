#include <algorithm>
#include <numeric>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

/// A mask of training, and one with values that only the forms that multiply tell apart.
const std::vector<int> kBinary = {1, 1, 0, 1, 1}, kMixed = {1, 0, 1, -1, 2, 1, 1};

const float kEpsilon = 0.5f;

/// What goes into the operators, at random; the mask repeats a pattern. Training finds all its
/// statistics at `old`, which is far from the batch's, and outweighs a negative variance, which the
/// host's form gives where it isn't one.
struct Inputs {
    Inputs(int rows, int columns, const std::vector<int>& pattern)
        : size(rows, columns),
          x(random_values(rows * columns, 1, -1, 1.5)),
          dy(random_values(rows * columns, 2)),
          scale(random_values(columns, 3)),
          bias(random_values(columns, 4)),
          mean(random_values(columns, 5)),
          old(random_values(columns, 7, 40, 50)),
          inv_std(random_values(columns, 6, 0.5, 2)) {
        for (int r = 0; r < rows; ++r) {
            mask.push_back(pattern[r % pattern.size()]);
        }
        frames = std::max<int>(1, std::count(mask.begin(), mask.end(), 1));
    }

    Dim size;
    Values x, dy, scale, bias, mean, old, inv_std;
    std::vector<int> mask;
    int frames;
    float exp_avg = 1, statis = 0;
};

/// What training writes.
enum { kRunMean, kRunVar, kStatisMean, kStatisVar, kSavedMean, kSavedInvStd, kY };

/// Training from the formulas. The host adds the rows of a column in their order, whatever the
/// strips and the rows at a time, and takes the variance in one pass: in single precision, these
/// are its bits.
template <typename V>
std::vector<V> reference_training(const V& x, const V& scale, const V& bias, const Inputs& in,
                                  bool one_pass) {
    using Real = typename V::value_type;
    const size_t columns = scale.size();
    std::vector<V> out(kY, V(columns));
    out.push_back(x);
    for (size_t c = 0; c < columns; ++c) {
        Real sum = 0, square = 0, centred = 0;
        for (size_t k = c; k < x.size(); k += columns) {
            const Real a = in.mask[k / columns] * x[k];
            sum += a;
            square += a * a;
        }
        const Real m = sum / in.frames;
        for (size_t k = c; k < x.size(); k += columns) {
            centred += std::pow((x[k] - m) * in.mask[k / columns], 2);
        }
        const Real v = one_pass ? square / in.frames - m * m : centred / in.frames;
        out[kRunMean][c] = out[kSavedMean][c] = (1 - in.exp_avg) * in.old[c] + in.exp_avg * m;
        out[kRunVar][c] = (1 - in.exp_avg) * in.old[c] + in.exp_avg * v;
        out[kSavedInvStd][c] = 1 / std::sqrt(out[kRunVar][c] + kEpsilon);
        out[kStatisMean][c] = in.statis * in.old[c] + m;
        out[kStatisVar][c] = in.statis * in.old[c] + v;
        for (size_t k = c; k < x.size(); k += columns) {
            const Real normal = scale[c] * (x[k] - out[kRunMean][c]) * out[kSavedInvStd][c];
            out[kY][k] = (normal + bias[c]) * in.mask[k / columns];
        }
    }
    return out;
}

/// What the backward step writes.
enum { kDscale, kDbias, kDx };

template <typename V>
std::vector<V> reference_backward(const Inputs& in) {
    using Real = typename V::value_type;
    const size_t columns = in.scale.size();
    V dscale(columns), dbias(columns), dx(in.x.size());
    for (size_t k = 0; k < dx.size(); ++k) {
        const size_t c = k % columns;
        const Real e = Real(in.dy[k]) * in.mask[k / columns];
        dbias[c] += e;
        dscale[c] += in.inv_std[c] * e * (Real(in.x[k]) - in.mean[c]);
    }
    for (size_t k = 0; k < dx.size(); ++k) {
        const size_t c = k % columns;
        const Real h = in.inv_std[c] * (Real(in.x[k]) - in.mean[c]),
                   error = in.dy[k] - (h * dscale[c] + dbias[c]) / in.frames;
        dx[k] = Real(in.scale[c]) * in.inv_std[c] * error * in.mask[k / columns];
    }
    return {dscale, dbias, dx};
}

/// Matrices are dense everywhere; in pitched places, vectors lie between guards as wide as what a
/// block's idle columns would write.
class BatchNormTest : public DeviceTest {
protected:
    /// Both sides of a tile of 32 columns and of 32 rows, of four rows at a time on the host, of a
    /// row's 256 threads on a GPU and of two strips of 1024 columns on the host.
    std::vector<std::pair<int, int>> shapes() const {
        return {{1, 1},    {31, 33}, {33, 31},
                {200, 32}, {33, 65}, {6, 1},
                {200, 3},  {0, 5},   {5, on_gpu() ? 257 : 2069}};
    }
    TensorF vector(const Values& values) {
        return make(Dim(1, static_cast<int>(values.size())), values, 40);
    }
    /// An output for `in`: the tensor itself, or a poisoned one.
    TensorF output(const TensorF& in, bool in_place) {
        const Dim size = in.get_size();
        return in_place ? in : dense(size, Values(size.product(), kPoison), device());
    }
    std::vector<Values> train(const Inputs& in, bool in_place) {
        std::vector<TensorF> out;
        for (int k = kRunMean; k < kY; ++k) {
            out.push_back(vector(k < kSavedMean ? in.old : Values(in.old.size(), kNan)));
        }
        const TensorF x = dense(in.size, in.x, device());
        out.push_back(output(x, in_place));
        out[kY].audio_batch_norm_train(x, vector(in.scale), vector(in.bias), make(in.mask),
                                       out[kRunMean], out[kRunVar], out[kStatisMean],
                                       out[kStatisVar], out[kSavedMean], out[kSavedInvStd],
                                       in.frames, in.exp_avg, in.statis, kEpsilon);
        return values_of_all(out);
    }
    std::vector<Values> backward(const Inputs& in, bool in_place) {
        const Values unwritten(in.scale.size(), kNan);
        const TensorF dy = dense(in.size, in.dy, device());
        std::vector<TensorF> out = {vector(unwritten), vector(unwritten), output(dy, in_place)};
        out[kDx].audio_batch_norm_bp(dense(in.size, in.x, device()), dy, vector(in.scale),
                                     vector(in.mean), vector(in.inv_std), make(in.mask),
                                     out[kDscale], out[kDbias], in.frames, kNan, kNan);
        return values_of_all(out);
    }

private:
    static std::vector<Values> values_of_all(const std::vector<TensorF>& tensors) {
        std::vector<Values> values;
        std::transform(tensors.begin(), tensors.end(), std::back_inserter(values),
                       values_of<float>);
        return values;
    }
};

INSTANTIATE_TEST_SUITE_P(Places, BatchNormTest,
                         ::testing::Values(Place::kHostPitched, Place::kGpuPitched), name_of_place);

TEST_P(BatchNormTest, InferenceZeroesOnlyRowsMarkedByMinusOne) {
    for (const auto& [rows, columns] : shapes()) {
        SCOPED_TRACE(::testing::Message() << rows << " x " << columns);
        Inputs in(rows, columns, kMixed);
        Doubles expected;
        for (size_t k = 0; k < in.x.size(); ++k) {
            const int r = k / columns, c = k % columns;
            const double normal = (static_cast<double>(in.x[k]) - in.mean[c]) * in.inv_std[c];
            expected.push_back(in.mask[r] == -1 ? 0 : normal * in.scale[c] + in.bias[c]);
            in.x[k] = in.mask[r] == -1 ? kNan : in.x[k];
        }
        for (bool in_place : {false, true}) {
            const TensorF x = dense(in.size, in.x, device());
            TensorF out = output(x, in_place);
            out.audio_batch_norm_inf(x, vector(in.scale), vector(in.bias), vector(in.mean),
                                     vector(in.inv_std), make(in.mask), kNan);
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
    for (const auto& [rows, columns] : shapes()) {
        for (const auto& each : cases) {
            SCOPED_TRACE(::testing::Message() << rows << " x " << columns << ", exp_avg_factor "
                                              << each.exp_avg << ", extra " << each.extra);
            Inputs in(rows, columns, each.pattern);
            in.frames = std::max(1, in.frames + each.extra);
            in.exp_avg = each.exp_avg;
            in.statis = each.statis;
            const auto expected =
                reference_training(widen(in.x), widen(in.scale), widen(in.bias), in, !on_gpu());
            const auto bits = reference_training(in.x, in.scale, in.bias, in, true);
            for (bool in_place : {false, true}) {
                const std::vector<Values> actual = train(in, in_place);
                for (int k = kRunMean; k <= kY; ++k) {
                    const double tolerance = k < kSavedInvStd ? 5e-6 : 1e-5;
                    expect_close(actual[k], expected[k], tolerance, tolerance);
                    if (!on_gpu()) {
                        expect_same_bits(actual[k], bits[k]);
                    }
                }
                expect_same_bits(actual[kSavedMean], actual[kRunMean]);
                if (each.exp_avg == 0) {
                    expect_same_bits(actual[kRunMean], in.old);
                    expect_same_bits(actual[kRunVar], in.old);
                }
            }
        }
    }
}

TEST_P(BatchNormTest, BackwardFollowsTheFormula) {
    for (const auto& [rows, columns] : shapes()) {
        for (const std::vector<int>& pattern : {kMixed, {0}}) {
            SCOPED_TRACE(::testing::Message() << rows << " x " << columns);
            Inputs in(rows, columns, pattern);
            in.frames = rows + 5;
            const auto expected = reference_backward<Doubles>(in);
            const auto bits = reference_backward<Values>(in);
            for (bool in_place : {false, true}) {
                const std::vector<Values> actual = backward(in, in_place);
                for (int k = kDscale; k <= kDx; ++k) {
                    expect_close(actual[k], expected[k], 1e-5, 2e-5);
                    if (!on_gpu()) {
                        expect_same_bits(actual[k], bits[k]);
                    }
                }
            }
        }
    }
}

// Where the running statistics are the batch's own, the backward step is the derivative.
TEST_P(BatchNormTest, BackwardIsTheDerivativeOfTraining) {
    Inputs in(35, 3, kBinary);
    const std::vector<Values> trained = train(in, false);
    in.mean = trained[kSavedMean];
    in.inv_std = trained[kSavedInvStd];
    Doubles x = widen(in.x), scale = widen(in.scale), bias = widen(in.bias);
    const auto loss = [&] {
        const Doubles y = reference_training(x, scale, bias, in, false)[kY];
        return std::inner_product(y.begin(), y.end(), in.dy.begin(), 0.0);
    };
    const std::vector<Values> gradients = backward(in, true);
    expect_gradient(loss, x, gradients[kDx], 1e-5);
    expect_gradient(loss, scale, gradients[kDscale], 1e-5);
    expect_gradient(loss, bias, gradients[kDbias], 1e-5);
}

}  // namespace
}  // namespace test
}  // namespace vorn
