#include "vorn/ops/math_ops.h"

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

// 131 columns: whole vectors and every kind of rest; together more than a block of the sigmoid.
const Dim kSize(6, 131);

class MathOpsTest : public DeviceTest {
protected:
    TensorF random(unsigned seed, float lo, float hi) {
        return make(kSize, random_values(kSize.product(), seed, lo, hi));
    }

    // The same value everywhere, so that vector lanes and the rest behind them meet it.
    TensorF full(float value) { return make(kSize, Values(kSize.product(), value)); }

    static void expect_all(const TensorF& tensor, float expected) {
        const Values values = values_of(tensor);
        expect_close(values, Doubles(values.size(), expected), 0);
    }
};

// ---- Rules against their formulas

TEST_P(MathOpsTest, FunctionsOfOneOperandMatchTheirFormulas) {
    const struct {
        const char* name;
        float lo, hi;
        double tolerance;  // relative
        double (*expected)(double);
        void (*call)(TensorF& t, const TensorF* in);  // without `in` it is in place
    } cases[] = {
        {"reciprocal", 0.1f, 9, kHalfUlp, [](double x) { return 1 / x; },
         [](TensorF& t, const TensorF* in) { in ? t.reciprocal(*in) : t.reciprocal(); }},
        {"log", 1e-6f, 100, 4 * kUlp, [](double x) { return std::log(x); },
         [](TensorF& t, const TensorF* in) { in ? t.log(*in) : t.log(); }},
        {"pow", 0.01f, 50, 4 * kUlp, [](double x) { return std::pow(x, 1.75); },
         [](TensorF& t, const TensorF* in) { in ? t.pow(*in, 1.75f) : t.pow(1.75f); }},
        {"square", -9, 9, kHalfUlp, [](double x) { return x * x; },
         [](TensorF& t, const TensorF* in) { in ? t.square(*in) : t.square(); }},
        {"sqrt", 0, 9, kHalfUlp, [](double x) { return std::sqrt(x); },
         [](TensorF& t, const TensorF* in) { in ? t.sqrt(*in) : t.sqrt(); }},
        {"limit", -9, 9, 0, [](double x) { return std::min(std::max(x, -2.5), 4.0); },
         [](TensorF& t, const TensorF* in) { in ? t.limit(*in, -2.5f, 4) : t.limit(-2.5f, 4); }},
        {"smooth_l1", -0.5f, 0.5f, kHalfUlp,
         [](double x) { return std::abs(x) < 1 / 9.0 ? 4.5 * x * x : std::abs(x) - 1 / 18.0; },
         [](TensorF& t, const TensorF* in) { unary_op(func::smooth_l1(9), in ? *in : t, t); }},
        {"smooth_l1_bp", -0.5f, 0.5f, kHalfUlp,
         [](double x) { return std::min(std::max(9 * x, -1.0), 1.0); },
         [](TensorF& t, const TensorF* in) { unary_op(func::smooth_l1_bp(9), in ? *in : t, t); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TensorF in = random(1, c.lo, c.hi), out = poisoned(kSize);
        Doubles expected;
        for (float x : values_of(in)) {
            expected.push_back(c.expected(x));
        }
        c.call(out, &in);
        expect_close(values_of(out), expected, c.tolerance);
        c.call(in, nullptr);
        expect_close(values_of(in), expected, c.tolerance);
    }
}

TEST_P(MathOpsTest, ConstantsAreAddedAndMultiplied) {
    const TensorF sum = random(1, -9, 9), product = random(1, -9, 9), quotient = random(1, -9, 9);
    Doubles expected[3];
    for (double x : values_of(sum)) {
        expected[0].push_back(x + 0.375);
        expected[1].push_back(x * 0.3f);
        // The product with the rounded reciprocal, which is not always the rounded quotient.
        expected[2].push_back(x * (1 / 3.0f));
    }
    TensorF(sum).add(0.375f);
    TensorF(product).mul(0.3f);
    TensorF(quotient).div(3);
    expect_close(values_of(sum), expected[0], kHalfUlp);
    expect_close(values_of(product), expected[1], kHalfUlp);
    expect_close(values_of(quotient), expected[2], kHalfUlp);
}

TEST_P(MathOpsTest, BlendsMatchTheirFormulas) {
    using Unary = void (TensorF::*)(const TensorF&, DType, DType);
    using Binary = void (TensorF::*)(const TensorF&, const TensorF&, DType, DType);
    const struct {
        const char* name;
        double tolerance;  // relative to the sum of the terms' magnitudes
        double (*expected)(double a, double b);
        Unary unary;
        Binary binary;  // neither is a sum
    } cases[] = {
        {"tanh", 6 * kUlp, [](double a, double) { return std::tanh(a); }, &TensorF::tanh, nullptr},
        {"ld_tanh", 6 * kUlp, [](double a, double) { return std::tanh(a); }, &TensorF::ld_tanh,
         nullptr},
        {"relu", 2 * kUlp, [](double a, double) { return a > 0 ? a : 0; }, &TensorF::relu, nullptr},
        {"sigmoid", 6 * kUlp, [](double a, double) { return 1 / (1 + std::exp(-a)); },
         &TensorF::sigmoid, nullptr},
        {"elem_mul", 2 * kUlp, [](double a, double b) { return a * b; }, nullptr,
         &TensorF::elem_mul},
        {"elem_div", 2 * kUlp, [](double a, double b) { return a / b; }, nullptr,
         &TensorF::elem_div},
        {"elem_add", 4 * kUlp, [](double a, double b) { return a + b / 2; }, nullptr, nullptr},
    };
    const std::pair<float, float> scalars[] = {{1, 0}, {-1.5f, 0}, {0.7f, 0.3f}};
    for (const auto& c : cases) {
        for (const auto& [alpha, beta] : scalars) {
            SCOPED_TRACE(std::string(c.name) + " with beta " + std::to_string(beta));
            const TensorF a = random(2, -6, 6), b = random(3, 0.5f, 4);
            const Values a_values = values_of(a), b_values = values_of(b);
            // Into a tensor of its own, and in place into the first operand.
            for (TensorF out : {random(4, -2, 2), a}) {
                const Values old = values_of(out);
                if (c.unary) {
                    (out.*c.unary)(a, alpha, beta);
                } else if (c.binary) {
                    (out.*c.binary)(a, b, alpha, beta);
                } else {
                    out.elem_add(a, b, alpha, alpha / 2, beta);
                }
                const Values actual = values_of(out);
                for (size_t i = 0; i < actual.size(); ++i) {
                    const double term = alpha * c.expected(a_values[i], b_values[i]);
                    const double kept = static_cast<double>(beta) * old[i];
                    const double magnitude = std::abs(term) + std::abs(kept) +
                                             (c.unary || c.binary ? 0 : std::abs(a_values[i]));
                    ASSERT_NEAR(actual[i], term + kept, c.tolerance * magnitude) << "element " << i;
                }
            }
        }
    }
}

TEST_P(MathOpsTest, PlainQuotientAddsItsScalarsToTheOperands) {
    const TensorF a = random(5, -3, 3), b = random(6, 1, 4);
    TensorF out = full(kNan);  // not a blend: the old output is not read
    out.dot_div(a, b, 1, 0.5f);
    const Values a_values = values_of(a), b_values = values_of(b);
    Doubles expected;
    for (size_t i = 0; i < a_values.size(); ++i) {
        expected.push_back((a_values[i] + 1.0) / (b_values[i] + 0.5));
    }
    expect_close(values_of(out), expected, 2 * kUlp, 2 * kUlp);
}

// ---- Activations

TEST_P(MathOpsTest, BackwardRulesAreTheDerivatives) {
    struct {
        const char* name;
        double (*forward)(double);
        void (TensorF::*backward)(const TensorF&, const TensorF&, DType, DType);
    } const cases[] = {
        {"tanh", [](double x) { return std::tanh(x); }, &TensorF::tanh_bp},
        {"sigmoid", [](double x) { return 1 / (1 + std::exp(-x)); }, &TensorF::sigmoid_bp},
        {"relu", [](double x) { return std::max(x, 0.0); }, &TensorF::relu_bp},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Doubles x = widen(random_values(kSize.product(), 7, -3, 3));
        const TensorF error = random(8, -1, 1);
        const Values e = values_of(error);
        Values activation;
        for (double value : x) {
            activation.push_back(static_cast<float>(c.forward(value)));
        }
        TensorF gradient = poisoned(kSize);
        (gradient.*c.backward)(make(kSize, activation), error, 1, 0);
        Values slopes = values_of(gradient);
        // The element under change alone decides its loss, so that one call looks at all.
        for (size_t i = 0; i < x.size(); ++i) {
            Doubles input = {x[i]};
            expect_gradient([&] { return e[i] * c.forward(input[0]); }, input, {slopes[i]}, 2e-6);
        }
        // With a blend: 2 * gradient - old / 2 on an output that is the error itself.
        TensorF blended = make(kSize, e);
        (blended.*c.backward)(make(kSize, activation), blended, 2, -0.5f);
        Doubles expected;
        for (size_t i = 0; i < e.size(); ++i) {
            expected.push_back(2.0 * slopes[i] - 0.5 * e[i]);
        }
        expect_close(values_of(blended), expected, 2 * kUlp, 4 * kUlp);
    }
}

TEST_P(MathOpsTest, SigmoidIsLimitedAndRoundsOnce) {
    const double least = 1 / (1 + std::exp(64.0));
    const std::pair<float, double> cases[] = {
        {0, 0.5},     {64, 1},        {1000, 1},      {kInf, 1},
        {-64, least}, {-1000, least}, {-kInf, least}, {-63, 1 / (1 + std::exp(63.0))},
        {kNan, kNan},
    };
    for (const auto& [x, expected] : cases) {
        TensorF t = full(x), out = poisoned(kSize);
        out.sigmoid(t);
        expect_close(values_of(out), Doubles(kSize.product(), expected), 4 * kUlp);
        t.limit(-100, 100);  // in place the old value is blended in, and has to be finite
        t.sigmoid();
        expect_close(values_of(t), Doubles(kSize.product(), expected), 4 * kUlp);
    }
    // In float both rules would round two or three times.
    const TensorF a = random(9, 0, 1), b = random(10, -1, 1);
    const Values av = values_of(a), bv = values_of(b);
    TensorF out = poisoned(kSize);
    out.sigmoid_bp(a, b);
    Doubles expected;
    for (size_t i = 0; i < av.size(); ++i) {
        expected.push_back(av[i] * (1.0 - av[i]) * bv[i]);
    }
    expect_close(values_of(out), expected, kHalfUlp);
}

TEST_P(MathOpsTest, ActivationsAtTheirEdges) {
    for (float x : {-2.0f, -0.0f, 0.0f}) {
        TensorF t = full(x);
        t.relu();
        expect_all(t, 0);
        TensorF out = full(3);
        out.relu(full(x), 5, 0.5f);
        expect_all(out, 1.5f);
        out.relu_bp(full(x), full(7), 5, 2);
        expect_all(out, 3);
    }
    TensorF out = full(3);
    out.tanh_bp(full(1), full(7), 5, 0.5f);
    expect_all(out, 1.5f);
    TensorF t = full(100);
    t.tanh();
    expect_all(t, 1);
    // A blend reads the old output, also under a beta of 0.
    out = full(kNan);
    out.tanh(full(1));
    expect_all(out, kNan);
}

TEST_P(MathOpsTest, WhatIsNotFiniteComesThrough) {
    const struct {
        float in, reciprocal, log, sqrt, square;
    } cases[] = {{0, kInf, -kInf, 0, 0},         {-0.0f, -kInf, -kInf, -0.0f, 0},
                 {-1, -1, kNan, kNan, 1},        {kInf, 0, kInf, kInf, kInf},
                 {kNan, kNan, kNan, kNan, kNan}, {1e30f, 1e-30f, 69.0775528f, 1e15f, kInf}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        const TensorF in = full(c.in);
        TensorF out = poisoned(kSize);
        out.reciprocal(in);
        expect_all(out, c.reciprocal);
        out.log(in);
        expect_close(values_of(out), Doubles(kSize.product(), c.log), kUlp);
        out.sqrt(in);
        expect_all(out, c.sqrt);
        out.square(in);
        expect_all(out, c.square);
        out.zero();
        out.elem_div(full(0), in);
        expect_all(out, c.in == 0 || std::isnan(c.in) ? kNan : 0);
    }
    TensorF out = full(0);
    out.dot_div(full(2), full(-1), 0, 1);
    expect_all(out, kInf);
    out.pow(full(-8), 1 / 3.0f);
    expect_all(out, kNan);
    out.limit(full(kInf), -1, 1);
    expect_all(out, 1);
}

// ---- The ways of a sum and a product

TEST_P(MathOpsTest, ScalarsOfASumCompareUpToRounding) {
    TensorF out = full(1e9f);
    out.elem_add(full(1), full(2), 2, 3, 1e-9f);  // taken for 0
    expect_all(out, 8);
    out = full(1e9f);
    out.elem_add(full(1), full(2), 2, 3, 1e-6f);
    expect_all(out, 1008);
    out = full(kNan);
    out.add(full(1), full(2), 2, 3);  // the second scalar weighs the second operand
    expect_all(out, 8);
    out.elem_add(full(1), full(2), 1, 1, 0);
    expect_all(out, 3);
    // A product compares exactly.
    out = full(1e9f);
    out.elem_mul(full(2), full(3), 1, 1e-9f);
    expect_all(out, 7);
}

TEST_P(MathOpsTest, PlainSumAndProductOfDenseHostTensorsLeaveTheFrame) {
    const bool is_vector_call = GetParam() == Place::kHost;
    // A weight one ulp below 1 counts as 1 for the vector call, and is a weight elsewhere.
    const float almost = std::nextafter(1.0f, 0.0f);
    TensorF out = poisoned(kSize);
    out.elem_add(full(1), full(1), almost, almost, 0);
    expect_all(out, is_vector_call ? 2 : 2 * almost);
    // Only the frame reads the old output under a beta of 0.
    out = full(kNan);
    out.elem_mul(full(2), full(3));
    expect_all(out, is_vector_call ? 6 : kNan);
}

TEST_P(MathOpsTest, SumsIntoTheirFirstOperand) {
    for (const auto& [alpha0, alpha1] : {std::pair<float, float>{1, 1}, {2, 1}, {0.5f, -3}}) {
        TensorF out = random(11, -1, 1);
        const TensorF other = random(12, -1, 1);
        Doubles expected;
        const Values a = values_of(out), b = values_of(other);
        for (size_t i = 0; i < a.size(); ++i) {
            expected.push_back(static_cast<double>(alpha0) * a[i] + alpha1 * b[i]);
        }
        out.elem_add(out, other, alpha0, alpha1, 0);
        expect_close(values_of(out), expected, 0, 4 * kUlp);
    }
}

TEST_P(MathOpsTest, IntegersBlendInFloatAndTruncate) {
    const auto whole = [this](std::vector<int> values) {
        return make<int>(Dim(1, static_cast<int>(values.size())), values);
    };
    const struct {
        int a, b, old;
        float alpha0, alpha1, beta;
        int expected;
    } cases[] = {{3, 4, 9, 0.5f, 0.5f, 0, 3},         {-3, -4, 9, 0.5f, 0.5f, 0, -3},
                 {3, 4, 1, 0.5f, 0.5f, 0.5f, 4},      {3, 4, 900000000, 1, 1, 1e-9f, 7},
                 {16777217, 0, 5, 1, 1, 0, 16777216}, {7, 2, 5, 1, -4, 0.25f, 0}};
    for (const auto& c : cases) {
        Tensor<int> out = whole(std::vector<int>(20, c.old));
        out.elem_add(whole(std::vector<int>(20, c.a)), whole(std::vector<int>(20, c.b)), c.alpha0,
                     c.alpha1, c.beta);
        EXPECT_EQ(values_of(out), std::vector<int>(20, c.expected));
    }
    // A constant is added, and multiplied, in int.
    Tensor<int> t = whole({16777217, -5, 0});
    t.add(2);
    EXPECT_EQ(values_of(t), (std::vector<int>{16777219, -3, 2}));
    t.mul(-3);
    EXPECT_EQ(values_of(t), (std::vector<int>{-50331657, 9, -6}));
}

INSTANTIATE_TEST_SUITE_P(Places, MathOpsTest, kAllPlaces, name_of_place);

TEST(VectorSumTest, OnlyThePlainSumGoesWithoutTests) {
    TensorF a(Dim(2, 6)), b(Dim(3, 4)), out(Dim(12));
    a.set_element(2);
    b.set_element(5);
    out.elem_add(a, b);  // three shapes that every other way refuses
    EXPECT_EQ(values_of(out), Values(12, 7));
}

TEST(MathOpsFailureTest, TestsComeInOrder) {
    float memory[6] = {};
    TensorF out(Dim(2, 3)), in(Dim(2, 3)), small(Dim(2, 2));
    const TensorF far(memory, Dim(2, 3), GPU), far_small(memory, Dim(2, 2), GPU);
    const TensorF alias(out.get_ptr(), Dim(2, 3), GPU);  // the memory of `out`, said to be far
    const TensorF alias_small(out.get_ptr(), Dim(2, 2), CPU);
    const std::string in_size = same_size("in"), in1_size = same_size("in1"),
                      in2_size = same_size("in2"), in1_device = same_device("in1"),
                      in2_device = same_device("in2");
    const std::string zero = "Check failed: fabs(val - 0) > FLT_EPSILON ";
    const std::string no_rule = "Check failed: false ";
    expect_failures({
        {zero, [&] { out.div(0); }},
        {zero, [&] { out.div(1e-8f); }},
        {zero, [&] { out.div(-1e-7f); }},
        {no_rule, [&] { vorn_active(ACTIVATION_CLIPPED_RELU, small, out, 1, 0); }},
        {no_rule, [&] { vorn_active_bp(ACTIVATION_CLIPPED_RELU, small, small, out, 1, 0); }},
        {no_rule, [&] { vorn_active(static_cast<ActivationType>(17), in, out, 1, 0); }},
        // A sum into its first operand: devices, then sizes.
        {in1_device, [&] { out.elem_add(alias, far_small, 2, 1, 0); }},
        {in2_device, [&] { out.elem_add(out, far_small, 2, 1, 0); }},
        {same_size("in1", "in2"), [&] { out.elem_add(alias_small, in, 2, 1, 0); }},
        {in1_size, [&] { out.elem_add(alias_small, small, 2, 1, 0); }},
        // The frame's ways of a sum: sizes, then devices.
        {in1_size, [&] { out.elem_add(small, small, 2, 1, 0); }},
        {in2_size, [&] { out.elem_add(far, far_small, 2, 1, 0); }},
        {in1_device, [&] { out.elem_add(far, far, 2, 1, 0); }},
        {in2_size, [&] { out.elem_add(out, small, 2, 1, 1); }},
        // Both ways of a product.
        {in1_size, [&] { out.elem_mul(far_small, small); }},
        {in2_size, [&] { out.elem_mul(far, far_small); }},
        {in1_device, [&] { out.elem_mul(far, far); }},
        {in2_device, [&] { out.elem_mul(in, far); }},
        {in1_size, [&] { out.elem_mul(small, small, 2, 0); }},
        // One call each of the rest.
        {in1_size, [&] { out.elem_div(small, small); }},
        {in2_size, [&] { out.dot_div(in, small); }},
        {in_size, [&] { out.reciprocal(small); }},
        {in_size, [&] { out.log(small); }},
        {in_size, [&] { out.pow(small, 2); }},
        {in_size, [&] { out.square(small); }},
        {in_size, [&] { out.sqrt(small); }},
        {in_size, [&] { out.limit(small, 0, 1); }},
        {in1_size, [&] { out.tanh(small); }},
        {in2_size, [&] { out.sigmoid_bp(in, small); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
