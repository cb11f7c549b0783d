#include "vorn/rules/vector_math.h"

#include "device_test.h"
#include "vector_math_sweep.h"

namespace vorn {
namespace test {
namespace {

constexpr float kMin = std::numeric_limits<float>::min(), kMax = std::numeric_limits<float>::max();
constexpr float kTiny = std::numeric_limits<float>::denorm_min();
constexpr float kOff = 0.883212984f;  // whose logarithm lanes and rest once disagreed on

// ---- Errors

class VectorMathSweepTest : public ::testing::TestWithParam<SweptFunction> {};
INSTANTIATE_TEST_SUITE_P(Functions, VectorMathSweepTest, ::testing::ValuesIn(kSweptFunctions),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(VectorMathSweepTest, StaysWithinItsBoundOnATenthOfTheFloats) {
    const Sweep sweep = GetParam().sweep(10);
    EXPECT_LE(sweep.worst, GetParam().bound) << "at " << sweep.worst_at;
    if (GetParam().is_monotone) {
        EXPECT_EQ(sweep.descents, 0u) << "at " << sweep.last_descent;
    }
}

TEST(VectorMathTest, LogisticIsThatOfItsStepsInDouble) {
    const Sweep sweep = sweep_logistic_steps(30);
    EXPECT_LE(sweep.differing, 1e-6 * sweep.tested);
    EXPECT_LE(sweep.worst, 1);
}

TEST(VectorMathTest, ShortFormsAreTheSame) {
    EXPECT_EQ(sweep_short_forms(101).differing, 0u);
}

// Whether y is as good a result as the C library's: the same where that is exact, else near it.
void expect_like_platform(float y, float platform) {
    EXPECT_LE(ulps_between(y, platform), 2) << y << " against " << platform;
    if (platform == 1) {
        EXPECT_EQ(y, 1);
    }
}

void expect_equal(float a, float b) {
    EXPECT_TRUE(a == b || (std::isnan(a) && std::isnan(b))) << a << " against " << b;
}

TEST(VectorMathTest, SpecialValuesAreThoseOfThePlatform) {
    const Values edges = {0,      kTiny, 3 * kTiny, kMin - kTiny, kMin, 1e-10f, 0.5f, 1,    88.72f,
                          88.73f, 87.4f, 103.9f,    104,          1000, 1e30f,  kMax, kInf, kNan};
    for (float edge : edges) {
        for (float x : {edge, -edge}) {
            SCOPED_TRACE(x);
            expect_like_platform(cpu::exp(x), std::exp(x));
            expect_like_platform(cpu::log(x), std::log(x));
            expect_like_platform(cpu::tanh(x), std::tanh(x));
            const float limited = x > 64 ? 64 : x < -64 ? -64 : x;
            expect_equal(cpu::limited_exp(x, -64, 64), cpu::exp(limited));
            expect_equal(cpu::logistic(x), cpu::logistic(limited));
        }
    }
    EXPECT_EQ(cpu::logistic(0), 0.5f);
    EXPECT_EQ(cpu::logistic(kInf), 1);
}

TEST(VectorMathTest, SpecialPowersAreThoseOfThePlatform) {
    const Values bases = {0, kTiny, kMin, 0.3f, 1, 1.0000001f, 2, 7.5f, 1e20f, kMax, kInf, kNan};
    const Values exponents = {
        0,   kTiny, 1e-30f, 0.5f,    1,          2,        2.5f,           3,    127,  128, 149,
        150, 1023,  1e9f,   8388607, 4194304.5f, 16777215, 0x1.000002p24f, kMax, kInf, kNan};
    for (float base : bases) {
        for (float exponent : exponents) {
            for (float x : {base, -base}) {
                for (float y : {exponent, -exponent}) {
                    SCOPED_TRACE(std::to_string(x) + " to " + std::to_string(y));
                    expect_like_platform(cpu::pow(x, y), std::pow(x, y));
                }
            }
        }
    }
}

// ---- Equal arguments

using Call = void (*)(TensorF& out, const TensorF& in);
const struct {
    const char* name;
    Call call;
    float (*value)(float);
} kMembers[] = {
    {"tanh", [](TensorF& out, const TensorF& in) { out.tanh(in); }, cpu::tanh},
    {"log", [](TensorF& out, const TensorF& in) { out.log(in); }, cpu::log},
    {"sigmoid", [](TensorF& out, const TensorF& in) { out.sigmoid(in); }, cpu::logistic},
    {"pow", [](TensorF& out, const TensorF& in) { out.pow(in, 1.7f); },
     [](float x) { return cpu::pow(x, 1.7f); }},
};

// Calls check(tensor maker) for rows of every length up to some vectors, at every place in a
// vector, dense and pitched. The maker gives a tensor full of a value.
template <typename Check>
void for_each_place(Check check) {
    for (int width = 1; width <= 41; ++width) {
        for (int left = 0; left < 8; ++left) {
            for (int right : {0, 3}) {
                SCOPED_TRACE("width " + std::to_string(width) + " after " + std::to_string(left) +
                             " with a gap of " + std::to_string(right));
                check([&](float value) {
                    Block<float> block(Dim(right ? 3 : 1, width), CPU, left, right);
                    block.write(Values(block.count(), value));
                    return block.tensor;
                });
            }
        }
    }
}

void expect_all(const TensorF& tensor, float value) {
    const Values values = values_of(tensor);
    expect_same_bits(values, Values(values.size(), value));
}

TEST(VectorMathTest, EqualElementsGiveEqualBitsInEveryPlace) {
    for (const auto& member : kMembers) {
        SCOPED_TRACE(member.name);
        for (float x : {kOff, 0.1f, 0.7310586f, 3.3f, 50.0f}) {
            const float expected = member.value(x);
            for_each_place([&](auto full) {
                TensorF out = full(0);
                member.call(out, full(x));
                expect_all(out, expected);
            });
        }
    }
    // A neighbour that isn't normal, which sends a block the long way, doesn't change them.
    TensorF in(Dim(1000)), out(Dim(1000));
    in.set_element(kOff);
    in.set_element(Dim(300), kTiny);
    out.log(in);
    Values expected(1000, cpu::log(kOff));
    expected[300] = cpu::log(kTiny);
    expect_same_bits(values_of(out), expected);
    // A limit is the same limit from afar.
    for_each_place([](auto full) {
        TensorF out = full(0);
        for (float x : {-64.0f, -1000.0f, -kInf}) {
            out.sigmoid(full(x));
            expect_all(out, cpu::logistic(-64));
        }
    });
}

TEST(VectorMathTest, EqualLstmCellsAreEqualInEveryPlace) {
    const float c_pre = 0.3f, x[] = {0.4f, -0.7f, kOff, 1.1f};
    for_each_place([&](auto full) {
        const TensorF shape = full(0);
        const int rows = shape.get_size(0), width = shape.get_size(1);
        TensorF wx(Dim(rows, 4 * width), CPU);
        for (int gate = 0; gate < 4; ++gate) {
            TensorF block = wx.range_col(gate * width, (gate + 1) * width);
            block.copy_from(full(x[gate]));
        }
        TensorF peepholes(Dim(1, width), CPU);
        peepholes.set_element(0.2f);
        TensorF outs[] = {full(0), full(0), full(0), full(0), full(0), full(0), full(0)};
        TensorF &c = outs[0], &i = outs[1], &f = outs[2], &g = outs[3], &o = outs[4], &h = outs[5],
                &m = outs[6];
        m.lstm_op(wx, peepholes, peepholes, peepholes, full(c_pre), c, i, f, g, o, h, 0, 0);
        const float gate = 1 / (1 + cpu::exp(-(0.2f * c_pre + x[0])));
        expect_all(i, gate);
        expect_all(g, cpu::tanh(x[3]));
        for (const TensorF& out : outs) {
            expect_all(out, values_of(out)[0]);
        }
    });
}

TEST(VectorMathTest, EqualScoresHaveEqualSoftmax) {
    for (int channel : {2, 7, 8, 9, 31, 300}) {
        for (int inner : {1, 2, 5, 8, 33}) {
            TensorF in(Dim(3, channel, inner)), out(Dim(3, channel, inner));
            in.set_element(-kOff);
            for (int o = 0; o < 3; ++o) {  // one score is the largest
                for (int k = 0; k < inner; ++k) {
                    in.get_ptr()[(o * channel + channel - 1) * inner + k] = 0.5f;
                }
            }
            out.softmax(in, 3, channel, inner);
            const Values y = values_of(out);
            for (size_t i = 0; i < y.size(); ++i) {
                const bool is_largest = static_cast<int>(i) / inner % channel == channel - 1;
                const float expected = y[is_largest ? (channel - 1) * inner : 0];
                ASSERT_EQ(cpu::bits_of(y[i]), cpu::bits_of(expected)) << i;
            }
        }
    }
}

}  // namespace
}  // namespace test
}  // namespace vorn
