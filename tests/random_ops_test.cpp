#include "vorn/ops/random_ops.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class RandomOpsTest : public DeviceTest {
protected:
    /// The elements of a tensor after a fill.
    template <typename Fill>
    Values filled(int count, Fill fill) {
        TensorF out = guarded(Dim(count));
        fill(out);
        return values_of(out);
    }
};
INSTANTIATE_TEST_SUITE_P(Places, RandomOpsTest, kDensePlaces, name_of_place);

/// One draw of an engine as a uniform number, rounded where float arithmetic rounds.
float to_uniform(uint32_t draw, float lo, float hi) {
    const float rounded = static_cast<float>(draw);
    const float width = static_cast<float>(double{hi} - lo);
    const float scaled = static_cast<float>(std::ldexp(double{rounded}, -32) * width);
    return static_cast<float>(double{scaled} + lo);
}

Values uniform_values(size_t count, unsigned seed, float lo, float hi) {
    std::mt19937 engine(seed);
    Values values(count);
    for (float& value : values) {
        value = to_uniform(static_cast<uint32_t>(engine()), lo, hi);
    }
    return values;
}

/// The greatest distance of the distribution of the values from the given one. It stays below
/// 1.95 / sqrt(n) but once in a thousand times.
template <typename Cdf>
double distance(Values values, Cdf cdf) {
    std::sort(values.begin(), values.end());
    const double n = static_cast<double>(values.size());
    double greatest = 0;
    for (size_t i = 0; i < values.size(); ++i) {
        const double p = cdf(values[i]);
        greatest = std::max({greatest, p - i / n, (i + 1) / n - p});
    }
    return greatest;
}

TEST_P(RandomOpsTest, ASeedGivesKnownUniformNumbers) {
    for (int count : {1, 623, 625, 10000}) {
        for (const auto& [lo, hi] : {std::pair(0.0f, 1.0f), {-2.5f, 7.3f}, {3.1f, 3.1f}}) {
            seed_thread_context(11);
            const auto fill = [lo = lo, hi = hi](TensorF& out) { out.random(lo, hi); };
            expect_same_bits(filled(count, fill), uniform_values(count, 11, lo, hi));
        }
    }
    // The C++ standard tells the 10000th draw of its own seed.
    seed_thread_context(5489);
    const Values values = filled(10000, [](TensorF& out) { out.uniform_random(); });
    EXPECT_EQ(values.back(), to_uniform(4123659995u, 0, 1));
    EXPECT_LT(distance(values, [](double x) { return x; }), 1.95 / 100);
}

// Nothing corrects a draw that rounds to 1, and no mask covers it.
TEST(UniformRuleTest, EdgesOfTheDraws) {
    EXPECT_EQ(cpu::uniform(0, 0, 1), 0);
    EXPECT_EQ(cpu::uniform(1, 0, 1), 0x1p-32f);
    EXPECT_EQ(cpu::uniform(0xffffff7f, 0, 1), 1 - 0x1p-24f);
    EXPECT_EQ(cpu::uniform(0xffffff80, 0, 1), 1);
    EXPECT_EQ(cpu::uniform(0xffffffff, 0, 1), 1);
    EXPECT_EQ(cpu::uniform(0xffffffff, -3, 5), 5);
    ThreadContextScope context;
    seed_thread_context(14784396);  // whose first draw is 0xffffffef
    TensorF mask(Dim(3), CPU);
    mask.zero_random(1);
    EXPECT_EQ(values_of(mask), (Values{1, 0, 0}));
}

TEST_P(RandomOpsTest, ASeedOfRandGivesKnownNormalNumbers) {
    constexpr int kCount = 20000;
    const float mean = 0.75f, deviation = 1.7f;
    srand(5);
    Values expected(kCount);
    for (float& value : expected) {
        float x1, x2, w;
        do {
            x1 = static_cast<float>(std::ldexp(static_cast<float>(rand()), -30) - 1.0);
            x2 = static_cast<float>(std::ldexp(static_cast<float>(rand()), -30) - 1.0);
            w = x1 * x1 + x2 * x2;
        } while (w >= 1);
        w = static_cast<float>(std::sqrt(-2.0 * logf(w) / w));
        value = mean + x1 * w * deviation;
    }
    srand(5);
    const Values values = filled(kCount, [=](TensorF& out) { out.gauss_random(mean, deviation); });
    expect_same_bits(values, expected);
    const auto normal = [=](double x) {
        return 0.5 * std::erfc((mean - x) / (deviation * std::sqrt(2)));
    };
    EXPECT_LT(distance(values, normal), 1.95 / std::sqrt(kCount));
}

TEST_P(RandomOpsTest, MasksAreThresholdsOfUniformDraws) {
    for (int count : {1, 127, 128, 129, 40000}) {
        seed_thread_context(21);
        const Values draws =
            !on_gpu() ? uniform_values(count, 21, 0, 1) : filled(count, [&](TensorF& out) {
                // The GPU draws from a generator of its own.
                EXPECT_EQ(curandGenerateUniform(t_ctx->g_gen, out.get_ptr(), count), 0);
            });
        for (float p : {0.0f, 0.3f, 0.75f, 1.0f}) {
            seed_thread_context(21);
            const Values zero = filled(count, [=](TensorF& out) { out.zero_random(p); });
            seed_thread_context(21);
            const Values one = filled(count, [=](TensorF& out) { out.one_random(p); });
            for (int i = 0; i < count; ++i) {
                ASSERT_EQ(zero[i], draws[i] < p ? 0 : 1);
                ASSERT_EQ(one[i], draws[i] < 1.0f - p ? 0 : 1);
            }
        }
    }
    TensorF none(Dim(0), device()), shapeless(device());
    g_sync_flag = true;  // an empty grid would be refused
    for (TensorF* empty : {&none, &shapeless}) {
        empty->zero_random(0.5f);
        empty->random();
        empty->gauss_random();
    }
    g_sync_flag = false;
}

TEST(RandomThreadsTest, EachThreadHasItsOwnSequence) {
    Values results[2];
    std::thread threads[2];
    for (int id = 0; id < 2; ++id) {
        threads[id] = std::thread([&values = results[id]] {
            ThreadContextScope context;
            seed_thread_context(4);
            TensorF out(Dim(100000), CPU);
            out.random(-1, 1);
            values = values_of(out);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(results[0], uniform_values(100000, 4, -1, 1));
    EXPECT_EQ(results[1], results[0]);
}

using RandomOpsFailureTest = GpuTest;

TEST_F(RandomOpsFailureTest, Texts) {
    const std::string contiguous = failed("out.is_contiguous()");
    for (Device device : {CPU, GPU}) {
        TensorF dense(Dim(4, 6), device), pitched = dense.range_col(1, 3);
        expect_failures({
            {contiguous, [&] { pitched.random(0, 1); }},
            {contiguous, [&] { pitched.uniform_random(); }},
            {contiguous, [&] { pitched.gauss_random(0, -1); }},  // tested first
            {contiguous, [&] { pitched.zero_random(0.5f); }},
            {contiguous, [&] { pitched.one_random(0.5f); }},
            {failed("(stddev) > (0)", "mean : 0 stddev : 0"), [&] { dense.gauss_random(0, 0); }},
            {failed("(stddev) > (0)", "mean : 2.5 stddev : -1"),
             [&] { dense.gauss_random(2.5f, -1); }},
        });
    }
    TensorF mask(Dim(4), GPU);
    expect_failures({
        {not_null("t_ctx"),
         [&] {
             release_thread_context();
             mask.zero_random(0.5f);
         }},
        {failed("0 == (ret)", "CURAND_STATUS_NOT_INITIALIZED"),
         [&] {
             t_ctx->g_gen = nullptr;
             mask.zero_random(0.5f);
         }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
