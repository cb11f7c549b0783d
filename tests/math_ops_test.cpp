#include "vorn/ops/math_ops.h"

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

// 131 columns: whole vectors and every kind of rest; together more than a block of the sigmoid.
const Dim kSize(6, 131);

// f of the elements of all operands, place by place.
template <typename F, typename... Operands>
Doubles mapped(F f, const Values& first, const Operands&... others) {
    Doubles results;
    for (size_t i = 0; i < first.size(); ++i) {
        results.push_back(f(first[i], others[i]...));
    }
    return results;
}

const struct {
    const char* name;
    float lo, hi;
    double tolerance;  // relative
    double (*expected)(double);
    void (*call)(TensorF& t, const TensorF* in);  // without `in` it is in place
} kFunctions[] = {
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
     [](TensorF& t, const TensorF* in) { t.smooth_l1(in ? *in : t, 9); }},
    {"smooth_l1_bp", -0.5f, 0.5f, kHalfUlp,
     [](double x) { return std::abs(x) < 1 / 9.0 ? 9 * x : (x > 0) - (x < 0); },
     [](TensorF& t, const TensorF* in) { t.smooth_l1_bp(in ? *in : t, 9); }},
};

class MathOpsTest : public DeviceTest {
protected:
    TensorF random(unsigned seed, float lo, float hi) {
        return make(kSize, random_values(kSize.product(), seed, lo, hi));
    }

    // The same value everywhere, so that vector lanes and the rest after them meet it.
    TensorF full(float value) { return make(kSize, Values(kSize.product(), value)); }

    static void expect_all(const TensorF& tensor, double expected, double tolerance = 0) {
        expect_close(values_of(tensor), Doubles(kSize.product(), expected), tolerance);
    }
};
INSTANTIATE_TEST_SUITE_P(Places, MathOpsTest, kAllPlaces, name_of_place);

// ---- Rules against their formulas

TEST_P(MathOpsTest, FunctionsOfOneOperandMatchTheirFormulas) {
    for (const auto& c : kFunctions) {
        SCOPED_TRACE(c.name);
        std::vector<TensorF> inputs = {random(1, c.lo, c.hi)};
        for (float x : {0.0f, -0.0f, -1.0f, 1e18f, kInf, -kInf, kNan}) {
            inputs.push_back(full(x));
        }
        for (TensorF& in : inputs) {
            TensorF out = poisoned(kSize);
            const Doubles expected = mapped(c.expected, values_of(in));
            c.call(out, &in);
            expect_close(values_of(out), expected, c.tolerance);
            c.call(in, nullptr);
            expect_close(values_of(in), expected, c.tolerance);
        }
    }
}

TEST_P(MathOpsTest, ConstantsAreAddedAndMultiplied) {
    const struct {
        void (*call)(TensorF&);
        double (*expected)(double);
    } cases[] = {
        {[](TensorF& t) { t.add(0.375f); }, [](double x) { return x + 0.375; }},
        {[](TensorF& t) { t.mul(0.3f); }, [](double x) { return x * 0.3f; }},
        // The product with the rounded reciprocal, which is not always the rounded quotient.
        {[](TensorF& t) { t.div(3); }, [](double x) { return x * (1 / 3.0f); }},
    };
    for (const auto& c : cases) {
        TensorF t = random(1, -9, 9);
        const Doubles expected = mapped(c.expected, values_of(t));
        c.call(t);
        expect_close(values_of(t), expected, kHalfUlp);
    }
    TensorF special = full(kNan);
    special.mul(0);  // which BLAS libraries don't agree on
    expect_all(special, kNan);
}

TEST_P(MathOpsTest, BlendsMatchTheirFormulas) {
    const struct {
        const char* name;
        double tolerance;
        double (*expected)(double a, double b);
        void (TensorF::*unary)(const TensorF&, DType, DType);
        void (TensorF::*binary)(const TensorF&, const TensorF&, DType, DType);
    } cases[] = {
        {"tanh", 6 * kUlp, [](double a, double) { return std::tanh(a); }, &TensorF::tanh, nullptr},
        {"ld_tanh", 6 * kUlp, [](double a, double) { return std::tanh(a); }, &TensorF::ld_tanh,
         nullptr},
        {"relu", 2 * kUlp, [](double a, double) { return a > 0 ? a : 0; }, &TensorF::relu, nullptr},
        {"sigmoid", 6 * kUlp, [](double a, double) { return sigmoid_of(a); }, &TensorF::sigmoid,
         nullptr},
        {"elem_mul", 2 * kUlp, [](double a, double b) { return a * b; }, nullptr,
         &TensorF::elem_mul},
        {"elem_div", 2 * kUlp, [](double a, double b) { return a / b; }, nullptr,
         &TensorF::elem_div},
    };
    const std::pair<float, float> scalars[] = {{1, 0}, {-1.5f, 0}, {0.7f, 0.3f}};
    for (const auto& c : cases) {
        for (const auto& [alpha, beta] : scalars) {
            SCOPED_TRACE(std::string(c.name) + " with beta " + std::to_string(beta));
            const TensorF a = random(2, -6, 6), b = random(3, 0.5f, 4);
            // Into a tensor of its own, and in place into the first operand.
            for (TensorF out : {random(4, -2, 2), a}) {
                const auto blend = [&, alpha = alpha, beta = beta](double x, double y, double old) {
                    return alpha * c.expected(x, y) + beta * old;
                };
                const Doubles expected = mapped(blend, values_of(a), values_of(b), values_of(out));
                c.unary ? (out.*c.unary)(a, alpha, beta) : (out.*c.binary)(a, b, alpha, beta);
                expect_close(values_of(out), expected, c.tolerance, beta == 0 ? 0 : 16 * kUlp);
            }
        }
    }
}

TEST_P(MathOpsTest, PlainQuotientAddsItsScalarsToTheOperands) {
    const TensorF a = random(5, -3, 3), b = random(6, 1, 4);
    TensorF out = full(kNan);  // which is not read
    out.dot_div(a, b, 1, 0.5f);
    const auto quotient = [](double x, double y) { return (x + 1) / (y + 0.5); };
    expect_close(values_of(out), mapped(quotient, values_of(a), values_of(b)), 2 * kUlp, 2 * kUlp);
    out.dot_div(full(2), full(-1), 0, 1);
    expect_all(out, kInf);
}

// ---- Activations

TEST_P(MathOpsTest, BackwardRulesAreTheDerivatives) {
    struct {
        const char* name;
        double (*forward)(double);
        void (TensorF::*backward)(const TensorF&, const TensorF&, DType, DType);
    } const cases[] = {
        {"tanh", [](double x) { return std::tanh(x); }, &TensorF::tanh_bp},
        {"sigmoid", sigmoid_of, &TensorF::sigmoid_bp},
        {"relu", [](double x) { return std::max(x, 0.0); }, &TensorF::relu_bp},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Values x = random_values(kSize.product(), 7, -3, 3), e = random_values(x.size(), 8);
        const Doubles forward = mapped(c.forward, x);
        const TensorF activation = make(kSize, Values(forward.begin(), forward.end()));
        TensorF gradient = poisoned(kSize), blended = make(kSize, e);
        (gradient.*c.backward)(activation, make(kSize, e), 1, 0);
        const Values slopes = values_of(gradient);
        // The element under change alone decides its loss, so that one call looks at all.
        for (size_t i = 0; i < x.size(); ++i) {
            Doubles input = {x[i]};
            expect_gradient([&] { return e[i] * c.forward(input[0]); }, input, {slopes[i]}, 2e-6);
        }
        // On an output that is the error itself.
        (blended.*c.backward)(activation, blended, 2, -0.5f);
        const auto blend = [](double slope, double old) { return 2 * slope - 0.5 * old; };
        expect_close(values_of(blended), mapped(blend, slopes, e), 2 * kUlp, 4 * kUlp);
    }
}

TEST_P(MathOpsTest, SigmoidIsLimitedAndRoundsOnce) {
    for (float x : {0.0f, 64.0f, 1000.0f, kInf, -63.0f, -64.0f, -1000.0f, -kInf, kNan}) {
        TensorF t = full(x), out = poisoned(kSize);
        out.sigmoid(t);
        expect_all(out, sigmoid_of(x), 4 * kUlp);
        t.limit(-100, 100);  // in place the old value is blended in, and has to be finite
        t.sigmoid();
        expect_all(t, sigmoid_of(x), 4 * kUlp);
    }
    // In float both rules would round two or three times. Given the exponential, only the last
    // rounding is left.
    for (float x : random_values(100, 8, -4, 4)) {
        const float y = func::sigmoid(1, 0)(x, 0);
        expect_close({y}, {1 / (1 + static_cast<double>(math::exp(-x)))}, kHalfUlp);
    }
    const TensorF a = random(9, 0, 1), b = random(10, -1, 1);
    TensorF out = poisoned(kSize);
    out.sigmoid_bp(a, b);
    const auto gradient = [](double y, double e) { return y * (1 - y) * e; };
    expect_close(values_of(out), mapped(gradient, values_of(a), values_of(b)), kHalfUlp);
}

TEST_P(MathOpsTest, ActivationsAtTheirEdges) {
    TensorF out = full(3);
    out.relu_bp(full(0), full(7), 5, 2);
    expect_all(out, 6);
    out.tanh(full(100));
    expect_all(out, 1);
    // A blend reads the old output, also under a beta of 0.
    out = full(kNan);
    out.tanh(full(1));
    expect_all(out, kNan);
}

// ---- The ways of a sum and a product

TEST_P(MathOpsTest, SumsMatchTheirFormulaOnEveryWay) {
    const float scalars[][3] = {
        {1, 1, 0}, {1, -2, 0}, {2, 1, 0}, {0.5f, -3, 0}, {0.7f, 0.35f, 0.3f}};
    for (const auto& [alpha0, alpha1, beta] : scalars) {
        const TensorF a = random(11, -1, 1), b = random(12, -1, 1);
        for (TensorF out : {random(13, -1, 1), a}) {
            const double weights[] = {alpha0, alpha1, beta};
            const auto sum = [&](double x, double y, double old) {
                return weights[0] * x + weights[1] * y + weights[2] * old;
            };
            const Doubles expected = mapped(sum, values_of(a), values_of(b), values_of(out));
            out.elem_add(a, b, alpha0, alpha1, beta);
            expect_close(values_of(out), expected, 0, 4 * kUlp);
        }
    }
}

TEST_P(MathOpsTest, ScalarsOfASumCompareUpToRounding) {
    for (const auto& [beta, expected] : {std::pair<float, float>{1e-9f, 8}, {1e-6f, 1008}}) {
        TensorF out = full(1e9f);
        out.elem_add(full(1), full(2), 2, 3, beta);
        expect_all(out, expected);
    }
    TensorF product = full(1e9f);
    product.elem_mul(full(2), full(3), 1, 1e-9f);  // compares exactly
    expect_all(product, 7);
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

TEST_P(MathOpsTest, IntegersBlendInFloatAndTruncate) {
    using Ints = std::vector<int>;
    const struct {
        int a, b, old;
        float alpha0, alpha1, beta;
        int expected;
    } cases[] = {{3, 4, 9, 0.5f, 0.5f, 0, 3},         {-3, -4, 9, 0.5f, 0.5f, 0, -3},
                 {3, 4, 1, 0.5f, 0.5f, 0.5f, 4},      {3, 4, 900000000, 1, 1, 1e-9f, 7},
                 {16777217, 0, 5, 1, 1, 0, 16777216}, {7, 2, 5, 1, -4, 0.25f, 0}};
    for (const auto& c : cases) {
        Tensor<int> out = make(Ints(20, c.old));
        out.elem_add(make(Ints(20, c.a)), make(Ints(20, c.b)), c.alpha0, c.alpha1, c.beta);
        EXPECT_EQ(values_of(out), Ints(20, c.expected));
    }
    // A constant is added, and multiplied, in int.
    Tensor<int> t = make(Ints{16777217, -5, 0});
    t.add(2);
    EXPECT_EQ(values_of(t), (Ints{16777219, -3, 2}));
    t.mul(-3);
    EXPECT_EQ(values_of(t), (Ints{-50331657, 9, -6}));
}

TEST(VectorSumTest, OnlyThePlainSumGoesWithoutTests) {
    TensorF a(Dim(2, 6)), b(Dim(3, 4)), out(Dim(12));
    a.set_element(2);
    b.set_element(5);
    out.elem_add(a, b);  // three shapes that every other way refuses
    EXPECT_EQ(values_of(out), Values(12, 7));
}

using MathOpsFailureTest = FailureTest;

TEST_F(MathOpsFailureTest, TestsComeInOrder) {
    const TensorF alias(out.get_ptr(), Dim(3, 4), GPU);  // the memory of `out`, said to be far
    const TensorF alias_small(out.get_ptr(), Dim(3, 3), CPU);
    const std::string in1_size = same_size("in1"), in2_size = same_size("in2"),
                      in1_device = same_device("in1"), in2_device = same_device("in2");
    const std::string zero = failed("fabs(val - 0) > FLT_EPSILON");
    const std::string no_rule = failed("false");
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
        // Both ways of a product.
        {in1_size, [&] { out.elem_mul(far_small, small); }},
        {in2_size, [&] { out.elem_mul(far, far_small); }},
        {in1_device, [&] { out.elem_mul(far, far); }},
        {in2_device, [&] { out.elem_mul(in, far); }},
        // One call each of the rest.
        {in1_size, [&] { out.elem_div(small, small); }},
        {in2_size, [&] { out.dot_div(in, small); }},
        {in1_size, [&] { out.tanh(small); }},
        {in2_size, [&] { out.sigmoid_bp(in, small); }},
    });
    for (const auto& function : kFunctions) {
        expect_failures({{same_size("in"), [&] { function.call(out, &small); }}});
    }
}

}  // namespace
}  // namespace test
}  // namespace vorn
