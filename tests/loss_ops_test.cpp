#include "vorn/ops/math_ops.h"

#include <unistd.h>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

using Ints = std::vector<int>;

// Masks of 0, 1 and 2, mixed.
Ints masks(index_t count) {
    Ints mask(count);
    for (index_t i = 0; i < count; ++i) {
        mask[i] = static_cast<int>(i * 7 / 3 % 3);
    }
    return mask;
}

class LossTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, LossTest, kDensePlaces, name_of_place);
class FixedLossTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, FixedLossTest, kAllPlaces, name_of_place);

// ---- Cross entropy

// Both sides of the blocks and caps of the kernels, and of what the host does at a time. Labels
// have a fraction, which is cut off.
TEST_P(LossTest, CrossEntropyMatchesTheFormula) {
    const float alpha = -1.5f, beta = 0.25f;
    for (const Extents& e : {Extents{1, 2, 1},
                             {7, 513, 1},
                             {513, 3, 1},
                             {40961, 2, 1},
                             {2, 5, 3},
                             {3, 70, 2},
                             {2, 9, 63},
                             {2, 4, 64},
                             {1, 3, 513},
                             {1, 2, 1025},
                             {20481, 2, 2},
                             {2, 600, 2}}) {
        SCOPED_TRACE(e.dim().to_string());
        const Values x = random_values(e.count(), 1), old = random_values(e.count(), 2);
        const Ints mask = masks(e.items());
        Values label = random_values(e.items(), 3, -0.9f, e.channel - 0.01f);
        Doubles loss, gradient(e.count());
        for (int i = 0; i < e.items(); ++i) {
            const int labelled = std::max(0, static_cast<int>(std::floor(label[i])));
            loss.push_back((mask[i] == 1) * alpha * x[e.at(i, labelled)] + beta * old[i]);
            for (int c = 0; c < e.channel; ++c) {
                const int at = e.at(i, c);
                gradient[at] =
                    (mask[i] != 0) * alpha * ((c == labelled) - double(x[at])) + beta * old[at];
            }
        }
        const TensorF in = make(e.dim(), x), labels = make(label);
        const Tensor<int> on = make(mask);
        TensorF out = make(Values(old.begin(), old.begin() + e.items()));
        TensorF error = make(e.dim(), old);
        if (e.inner == 1) {
            out.cross_entropy(in, labels, on, alpha, beta);
            error.cross_entropy_bp(in, labels, on, alpha, beta);
        } else {
            out.cross_entropy(in, labels, on, e.outer, e.channel, e.inner, alpha, beta);
            error.cross_entropy_bp(in, labels, on, e.outer, e.channel, e.inner, alpha, beta);
        }
        expect_close(values_of(out), loss, 1e-6, 1e-6);
        expect_close(values_of(error), gradient, 1e-6, 1e-6);
    }
}

// ---- Objectives that are sums of rows

// The cost of a noise mask for one element.
double rnnoise_of(double p, double t) {
    const double limited = std::max(std::min(double(0.999999f), t), double(0.000001f));
    const double logit = std::log(limited / (1 - limited));
    const double roots = std::pow(std::sqrt(t) - std::sqrt(p), 2);
    // log(1 + exp(x)) == max(x, 0) + log(1 + exp(-|x|))
    const double ce = std::log1p(std::exp(logit)) - p * logit;
    return std::min(p + 1, 1.0) * (10 * roots * roots + roots - 0.01 * ce);
}

double rnnoise_slope_of(double p, double t) {
    const double limited = std::max(std::min(double(0.999999f), t), double(0.000001f));
    const double difference = std::sqrt(t) - std::sqrt(p), slope = difference / std::sqrt(t);
    return std::min(p + 1, 1.0) * (slope + 20 * difference * difference * slope -
                                   0.01 * (limited - p) / limited / (1 - limited));
}

// Both sides of the blocks and caps of the kernels, and of what the host does at a time.
TEST_P(LossTest, RowSumsMatchTheFormula) {
    const float alpha = -1.5f, beta = 0.25f;
    for (const Dim& size : {Dim(1, 1), Dim(7, 127), Dim(8, 128), Dim(30, 129), Dim(13, 600),
                            Dim(9, 257), Dim(41060, 3), Dim(3, 0)}) {
        SCOPED_TRACE(size.to_string());
        const int rows = size[0], cols = size[1];
        const Values x = random_values(rows * cols, 1, 0, 1),
                     y = random_values(rows * cols, 2, 0, 1);
        const Values old = random_values(rows * std::max(1, cols), 3);
        const Ints mask = masks(rows);
        Doubles squares, cost, error(x.size()), delta(x.size());
        for (int i = 0; i < rows; ++i) {
            const double weight = alpha * (mask[i] == 1);
            squares.push_back(beta * old[i]);
            cost.push_back(beta * old[i]);
            for (int k = i * cols; k < (i + 1) * cols; ++k) {
                const double difference = double(x[k]) - y[k];
                squares[i] += weight / 2 * difference * difference;
                cost[i] += weight * rnnoise_of(x[k], y[k]);
                error[k] = -weight * difference + beta * old[k];
                delta[k] = weight * rnnoise_slope_of(x[k], y[k]) + beta * old[k];
            }
        }
        const TensorF element = make(Values{0});  // where an empty tensor points
        const auto matrix = [&](const Values& v) {
            return cols > 0 ? make(size, v) : TensorF(element.get_ptr(), size, device());
        };
        const TensorF in = matrix(x), label = matrix(y);
        const Tensor<int> on = make(mask);
        TensorF out[] = {make(Values(old.begin(), old.begin() + rows)),
                         make(Values(old.begin(), old.begin() + rows)), matrix(old), matrix(old)};
        out[0].mean_squre_error(in, label, on, alpha, beta);
        out[1].rnnoise(in, label, on, alpha, beta);
        out[2].mean_squre_error_bp(in, label, on, alpha, beta);
        out[3].rnnoise_bp(in, label, on, alpha, beta);
        expect_close(values_of(out[0]), squares, 2e-6, 1e-6);
        expect_close(values_of(out[1]), cost, 5e-6, 1e-6);
        expect_close(values_of(out[2]), error, 1e-6, 1e-6);
        expect_close(values_of(out[3]), delta, 2e-5, 1e-5);
    }
}

// Each term is less than half an ulp of the first, and lost when added to it; together they are
// not. The tree of the GPU keeps them.
TEST_P(LossTest, HostSumsInAscendingOrder) {
    const int rows = 9, cols = 4000;
    Values x(rows * cols, std::ldexp(1.0f, -13));
    for (int i = 0; i < rows; ++i) {
        x[i * cols] = 1;
    }
    TensorF out = poisoned(Dim(rows));
    out.mean_squre_error(make(Dim(rows, cols), x), make(Dim(rows, cols), Values(rows * cols)),
                         make(Ints(rows, 1)), 2, 0);
    expect_close(values_of(out), Doubles(rows, on_gpu() ? 1 + std::ldexp(cols - 1.0, -26) : 1),
                 on_gpu() ? 1e-6 : 0);
}

// (1 + d)^2 - (1 + 2 d) is d * d, which is lost where the square is rounded on its own: on a host,
// and in the gradients.
TEST_P(LossTest, WhatIsFusedOnAGpu) {
    const float d = std::ldexp(1.0f, -12), square = on_gpu() ? d * d : 0;
    const float x = 1 + d, minus = -1 - 2 * d;
    const Tensor<int> on = make(Ints{1});
    TensorF gathered = make(Values{minus}), error = make<float>(Dim(1, 2), {minus, minus});
    gathered.cross_entropy(make<float>(Dim(1, 2), {x, 0}), make(Values{0}), on, x, 1);
    expect_same_bits(values_of(gathered), {square});
    error.cross_entropy_bp(make<float>(Dim(1, 2), {-d, -x}), make(Values{0}), on, x, 1);
    expect_same_bits(values_of(error), {0, 0});
    error = make<float>(Dim(1, 2), {minus, minus});
    error.mean_squre_error_bp(make<float>(Dim(1, 2), {0, 0}), make<float>(Dim(1, 2), {x, x}), on, x,
                              1);
    expect_same_bits(values_of(error), {0, 0});

    // The sum of the first thread, which has columns 0 and 128: only all of the square, with the
    // first term, is more than half an ulp.
    Values in(129);
    in[0] = d / 2;
    in[128] = x;
    TensorF sum = make(Values{0});
    sum.mean_squre_error(make(Dim(1, 129), in), make(Dim(1, 129), Values(129)), on, 2, 0);
    expect_same_bits(values_of(sum), {-minus + 2 * square});

    const TensorF pred = make<float>(Dim(1, 1), {0.3f}), truth = make<float>(Dim(1, 1), {0.6f});
    TensorF cost = make(Values{0});
    cost.rnnoise(pred, truth, on, 1, 0);
    const float of_row = values_of(cost)[0], lost = std::fma(of_row, x, -(of_row * x));
    EXPECT_NE(lost, 0);
    cost.rnnoise(pred, truth, on, x, 0);
    cost.rnnoise(pred, truth, on, x, -1);
    expect_same_bits(values_of(cost), {on_gpu() ? lost : 0});
}

// The gradient is rounded once, after the old value is added: what its rounding takes away is
// there where the old value cancels the rest.
TEST_P(LossTest, RnnoiseGradientAddsInDouble) {
    const Dim size(3, 50);
    const TensorF pred = make(size, random_values(150, 1, 0, 1));
    const TensorF truth = make(size, random_values(150, 2, 0.1f, 0.9f));
    const Tensor<int> on = make(Ints(3, 1));
    TensorF delta = poisoned(size);
    delta.rnnoise_bp(pred, truth, on, 1, 0);
    const Values rounded = values_of(delta);
    delta.rnnoise_bp(pred, truth, on, 1, -1);
    const Values rest = values_of(delta);
    int lost = 0;
    for (int i = 0; i < 150; ++i) {
        EXPECT_LE(std::abs(rest[i]), kHalfUlp * std::abs(rounded[i])) << i;
        lost += rest[i] != 0;
    }
    EXPECT_GT(lost, 140);
}

// A mask below 0 has no root; targets of 0 and 1 have a logit all the same. Each row on its own.
TEST_P(LossTest, RnnoiseAtTheEndsOfItsRange) {
    const Dim size(6, 3);
    const Values p = {.5f, -1, .5f, -.5f, .1f, 1, .5f, 0, 1, 1, .2f, 0, .3f, .3f, .3f, 2, 1, 1};
    const Values t = {.5f, .5f, .5f, .5f, .5f, 1, 0, 0, 1, 1, 1, .5f, -.1f, .5f, .5f, 1, 0, 1};
    Doubles cost(6);
    for (int k = 0; k < 18; ++k) {
        cost[k / 3] += rnnoise_of(p[k], t[k]);
    }
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(std::isnan(cost[i]), i == 0 || i == 1 || i == 4);
    }
    TensorF out = poisoned(Dim(6));
    out.rnnoise(make(size, p), make(size, t), make(Ints(6, 1)), 1, 0);
    expect_close(values_of(out), cost, 1e-5);
}

// ---- All objectives

TEST_P(LossTest, BackwardIsTheGradient) {
    const Dim size(2, 5);
    const Values start = random_values(10, 1, 0.2f, 0.8f),
                 target = random_values(10, 2, 0.2f, 0.8f);
    const TensorF in = make(size, start), other = make(size, target);
    const Tensor<int> on = make(Ints{1, 1});
    Doubles x = widen(start);
    const auto sum = [&](auto term) {
        double total = 0;
        for (int i = 0; i < 10; ++i) {
            total += term(x[i], double(target[i]));
        }
        return total;
    };

    // With respect to the target; the mask of noise is held.
    TensorF gradient = poisoned(size);
    gradient.rnnoise_bp(other, in, on, 1, 0);
    expect_gradient([&] { return sum([](double t, double p) { return rnnoise_of(p, t); }); }, x,
                    values_of(gradient), 1e-5);
    // Towards the label: the negative of the derivative.
    gradient.mean_squre_error_bp(in, other, on, -1, 0);
    expect_gradient([&] { return sum([](double a, double b) { return (a - b) * (a - b) / 2; }); },
                    x, values_of(gradient), 1e-5);
    // Of -log softmax, through the softmax.
    const Values label = {3.5f, 1};
    TensorF softmax = poisoned(size);
    softmax.softmax(in);
    gradient.cross_entropy_bp(softmax, make(label), on, -1, 0);
    const auto log_loss = [&] {
        double total = 0;
        for (int i = 0; i < 2; ++i) {
            double exps = 0;
            for (int c = 0; c < 5; ++c) {
                exps += std::exp(x[i * 5 + c]);
            }
            total += std::log(exps) - x[i * 5 + static_cast<int>(label[i])];
        }
        return total;
    };
    expect_gradient(log_loss, x, values_of(gradient), 1e-5);
}

TEST_P(LossTest, OldNanStaysWithBetaOfZero) {
    const Dim size(3, 4);
    const TensorF in = make(size, Values(12, 0.5f)), label = make(Values{0, 1, 2});
    const Tensor<int> mask = make(Ints{0, 1, 2});
    for (int op = 0; op < 6; ++op) {
        TensorF row = make(Values(3, kNan)), full = make(size, Values(12, kNan));
        op == 0   ? row.cross_entropy(in, label, mask, 1, 0)
        : op == 1 ? row.mean_squre_error(in, in, mask, 1, 0)
        : op == 2 ? row.rnnoise(in, in, mask, 1, 0)
        : op == 3 ? full.cross_entropy_bp(in, label, mask, 1, 0)
        : op == 4 ? full.mean_squre_error_bp(in, in, mask, 1, 0)
                  : full.rnnoise_bp(in, in, mask, 1, 0);
        for (float value : values_of(op < 3 ? row : full)) {
            EXPECT_TRUE(std::isnan(value)) << op;
        }
    }
}

// ---- Levels of eight bits

// One column a case: its elements and what becomes of them on each device.
TEST_P(FixedLossTest, RoundsToLevels) {
    const float below_half = std::nextafter(0.5f, 0.0f), third = 127 / 3.0f;
    struct Column {
        Values in, host, gpu;
    };
    const std::vector<Column> columns = {
        // Halves go away from zero. The sum with a half is rounded, up, on a GPU only.
        {{127, 0.5f, -0.5f, below_half}, {127, 1, -1, 0}, {127, 1, -1, 1}},
        {{127, 126.5f, -126.5f, -127}, {127, 127, -127, -127}, {127, 127, -127, -127}},
        {{127, 2.4f, -2.6f, 126.4f}, {127, 2, -3, 126}, {127, 2, -3, 126}},
        {{0, 0, -0.0f, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}},
        // The largest magnitude is that of a negative value. It lies below FLT_EPSILON - 2.
        {{1, -2, 0.5f, 0},
         {64 / 63.5f, -128 / 63.5f, 32 / 63.5f, 0},
         {1, -128 / 127.0f, 64 / 127.0f, 0}},
        {{-1, -3, -1, -1}, {-42 / third, -3, -42 / third, -42 / third}, {-1, 128 / 127.0f, -1, -1}},
    };
    const int cols = 2053, rows = 4;  // not a multiple of the table
    Values in(rows * cols);
    Doubles expected(in.size());
    for (int k = 0; k < rows * cols; ++k) {
        const Column& column = columns[k % cols % columns.size()];
        in[k] = column.in[k / cols];
        expected[k] = (on_gpu() ? column.gpu : column.host)[k / cols];
    }
    TensorF out = poisoned(Dim(rows, cols)), in_place = make(Dim(rows, cols), in);
    out.fixed_loss(in_place);
    in_place.fixed_loss();
    expect_close(values_of(out), expected, kUlp);
    expect_same_bits(values_of(in_place), values_of(out));
}

// ---- Failures

// Though the mask of that item is 0. On a GPU the process ends at the tail.
TEST_P(LossTest, NegativeLabelStops) {
    const TensorF in = make(Dim(2, 3), Values(6)), label = make(Values{0, -1});
    const Tensor<int> mask = make(Ints{1, 0});
    TensorF out = make(Values(2)), error = make(Dim(2, 3), Values(6));
    const auto pattern = [&](const std::string& name) {
        const std::string host = "Assertion `label_val >= 0. failed";
        return on_gpu()
                   ? literal("[" + name + "] lable_val -1 index 1 float_val -1.000000\n") + ".*" +
                         host + ".*Check failed: 0 == \\(ret\\) device-side assert triggered"
                   : host;
    };
    const auto stop = [&](auto call) {
        setvbuf(stdout, nullptr, _IONBF, 0);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        g_sync_flag = true;
        call();
    };
    EXPECT_DEATH(stop([&] { out.cross_entropy(in, label, mask); }), pattern("CE"));
    EXPECT_DEATH(stop([&] { error.cross_entropy_bp(in, label, mask); }), pattern("CE bp"));
    EXPECT_DEATH(stop([&] { error.cross_entropy_bp(in, label, mask, 1, 3, 2); }), pattern("CE bp"));
}

using Call = std::function<void(TensorF&, const TensorF&, const TensorF&, const Tensor<int>&)>;

// The tests for null pointers in their order: in, out, label and mask. `out` and `label` have these
// sizes; a host makes the first `on_host` tests.
void add_null_pointers(std::vector<FailureCase>& failures, const std::string& out_name,
                       Dim out_size, Dim label_size, int on_host, Call call) {
    static float memory[12];  // said to be on a GPU; nothing reads it
    const std::string names[] = {"in", out_name, "label", "mask"};
    for (const Device& device : {CPU, GPU}) {
        const bool is_host = is_cpu_device(device);
        for (int k = 0; k < (is_host ? on_host : 4); ++k) {
            const auto make = [&](int n, const Dim& size) {
                return TensorF(n < k ? memory : nullptr, size, device);
            };
            const TensorF in = make(0, Dim(3, 4)), out = make(1, out_size);
            const TensorF label = make(2, label_size);
            const Tensor<int> mask(nullptr, Dim(3), device);
            failures.push_back(
                {(is_host ? "Check failed: nullptr != " : "Check notnull: ") + names[k] + "_ptr ",
                 [=] {
                     TensorF result = out;
                     call(result, in, label, mask);
                 }});
        }
    }
}

using LossFailureTest = FailureTest;

TEST_F(LossFailureTest, TestsInTheirOrder) {
    TensorF null(nullptr, Dim(3, 4), CPU);
    Tensor<int> null_ints(nullptr, Dim(3), CPU);
    const std::string size = "element size not match";
    const std::string channel =
        failed("channel != 1", "cross_entropy failed. outer = 5 channel = 1 inner = 7");
    std::vector<FailureCase> failures = {
        {failed("output.get_dim() == 2"), [&] { far.cross_entropy(flat, vec, ints); }},
        {same_size("label"), [&] { in.cross_entropy(far, vec, ints, 3, 1, 1); }},
        {channel, [&] { vec.cross_entropy(far, vec, ints, 5, 1, 7); }},
        {failed("in.get_element_count() == outer * channel * inner", size),
         [&] { vec.cross_entropy(far, vec, ints, 5, 4, 1); }},
        {failed("label.get_element_count() == outer * inner", size),
         [&] { vec.cross_entropy(far, vec, ints, 2, 6, 1); }},
        {same_device("in"), [&] { vec.cross_entropy(far, far_vec, ints); }},
        {same_device("label"), [&] { vec.cross_entropy(null, far_vec, ints); }},

        {failed("output.get_dim() == 2"), [&] { far.cross_entropy_bp(flat, vec, ints); }},
        {same_size("in"), [&] { flat.cross_entropy_bp(far, vec, ints, 3, 1, 1); }},
        {channel, [&] { in.cross_entropy_bp(far, vec, ints, 5, 1, 7); }},
        {failed("out.get_element_count() == outer * channel * inner", size),
         [&] { in.cross_entropy_bp(far, vec, ints, 5, 4, 1); }},
        {failed("label.get_element_count() == outer * inner", size),
         [&] { in.cross_entropy_bp(far, vec, ints, 2, 6, 1); }},
        {same_device("in"), [&] { in.cross_entropy_bp(far, far_vec, ints); }},
        {same_device("label"), [&] { in.cross_entropy_bp(null, far_vec, ints); }},

        {failed("y_pred.get_dim() <= 2"), [&] { cube.rnnoise(cube, null, ints); }},
        {failed("cost.get_dim() <= 2"), [&] { cube.rnnoise(null, null, ints); }},
        {kBadAxis, [&] { vec.rnnoise(flat, flat, ints); }},
        {failed("y_pred.get_dim() <= 2"), [&] { cube.rnnoise_bp(cube, null, ints); }},
        {failed("delta.get_dim() <= 2"), [&] { cube.rnnoise_bp(null, null, ints); }},

        {failed("in.get_dim() <= 2"), [&] { cube.fixed_loss(cube); }},
        {failed("out.get_dim() <= 2"), [&] { cube.fixed_loss(far); }},
        {same_device("in"), [&] { in.fixed_loss(far); }},
        {kBadAxis, [&] { vec.mean_squre_error(flat, flat, ints); }},
    };
    for (auto error : {&TensorF::mean_squre_error, &TensorF::mean_squre_error_bp}) {
        const auto add = [&](const std::string& text, TensorF& y, const TensorF& x,
                             const TensorF& target, const Tensor<int>& on) {
            failures.push_back({text, [&, error] { (y.*error)(x, target, on, 1, 0); }});
        };
        add(failed("in.get_dim() <= 2"), cube, cube, far, ints);
        add(failed("out.get_dim() <= 2"), cube, far, far, ints);
        add(same_device("label"), in, far, far, far_ints);
        add(same_device("mask"), in, far, null, far_ints);
        add(same_device("in"), in, far, null, null_ints);
        add_null_pointers(
            failures, "out", Dim(3, 4), Dim(3, 4), 4,
            [=](auto& y, auto& x, auto& target, auto& on) { (y.*error)(x, target, on, 1, 0); });
    }
    add_null_pointers(failures, "out", Dim(3), Dim(3), 4,
                      [](auto& y, auto& x, auto& t, auto& on) { y.cross_entropy(x, t, on); });
    add_null_pointers(failures, "out", Dim(3, 4), Dim(3), 3,
                      [](auto& y, auto& x, auto& t, auto& on) { y.cross_entropy_bp(x, t, on); });
    add_null_pointers(failures, "cost", Dim(3), Dim(3, 4), 0,
                      [](auto& y, auto& x, auto& t, auto& on) { y.rnnoise(x, t, on); });
    add_null_pointers(failures, "delta", Dim(3, 4), Dim(3, 4), 0,
                      [](auto& y, auto& x, auto& t, auto& on) { y.rnnoise_bp(x, t, on); });
    expect_failures(failures);
}

}  // namespace
}  // namespace test
}  // namespace vorn
