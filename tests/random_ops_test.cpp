#include "vorn/ops/random_ops.h"

#include <algorithm>
#include <cmath>
#include <thread>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

constexpr unsigned kSeedOfOne = 14784396;  ///< Its first draw is 0xffffffef.

class RandomOpsTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, RandomOpsTest, kDensePlaces, name_of_place);

/// One draw of an engine as a uniform number, rounded where float arithmetic rounds.
float to_uniform(uint32_t draw, float lo, float hi) {
    const float rounded = static_cast<float>(draw);
    const float scaled = static_cast<float>(std::ldexp(rounded, -32) * (double{hi} - lo));
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

Values mask_values(Values draws, float mask_prob) {
    for (float& value : draws) {
        value = value < mask_prob ? 0.0f : 1.0f;
    }
    return draws;
}

/// A fill of `count` elements between guards.
template <typename Fill>
Values filled(TensorF out, Fill fill) {
    fill(out);
    return values_of(out);
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

void expect_moments(const Values& values, double mean, double deviation) {
    const double n = static_cast<double>(values.size());
    double sum = 0, squares = 0;
    for (float value : values) {
        sum += value - mean;
        squares += (value - mean) * (value - mean);
    }
    EXPECT_LT(std::abs(sum / n), 4 * deviation / std::sqrt(n));
    EXPECT_NEAR(squares / n / (deviation * deviation), 1, 4 * std::sqrt(2 / n));
}

TEST_P(RandomOpsTest, ASeedGivesKnownUniformNumbers) {
    for (int count : {1, 623, 625, 10000}) {
        for (const auto& [lo, hi] : {std::pair(0.0f, 1.0f), {-2.5f, 7.3f}, {3.1f, 3.1f}}) {
            seed_thread_context(11);
            const Values values = filled(guarded(Dim(count)),
                                         [lo = lo, hi = hi](TensorF& out) { out.random(lo, hi); });
            expect_same_bits(values, uniform_values(count, 11, lo, hi));
        }
        seed_thread_context(11);
        expect_same_bits(filled(guarded(Dim(count)), [](TensorF& out) { out.uniform_random(); }),
                         uniform_values(count, 11, 0, 1));
    }
    // The 10000th draw of the standard's own seed is told by the standard.
    seed_thread_context(5489);
    const Values standard = filled(guarded(Dim(100, 100)), [](TensorF& out) { out.random(); });
    EXPECT_EQ(standard.back(), to_uniform(4123659995u, 0, 1));
    EXPECT_LT(distance(standard, [](double x) { return x; }), 1.95 / 100);
}

// Nothing corrects a draw that rounds to 1.
TEST(UniformRuleTest, EdgesOfTheDraws) {
    EXPECT_EQ(cpu::uniform(0, 0, 1), 0);
    EXPECT_EQ(cpu::uniform(1, 0, 1), 0x1p-32f);
    EXPECT_EQ(cpu::uniform(0xffffff7f, 0, 1), 1 - 0x1p-24f);
    EXPECT_EQ(cpu::uniform(0xffffff80, 0, 1), 1);
    EXPECT_EQ(cpu::uniform(0xffffffff, 0, 1), 1);
    EXPECT_EQ(cpu::uniform(0xffffffff, -3, 5), 5);
}

TEST_P(RandomOpsTest, ASeedOfRandGivesKnownNormalNumbers) {
    constexpr int kCount = 20000;
    const float mean = 0.75f, deviation = 1.7f;
    srand(5);
    Values expected(kCount);
    for (float& value : expected) {
        double x1, w;
        do {
            x1 = static_cast<float>(2 * std::ldexp(static_cast<float>(rand()), -31) - 1);
            const double x2 =
                static_cast<float>(2 * std::ldexp(static_cast<float>(rand()), -31) - 1);
            w = static_cast<float>(x1 * x1) + static_cast<float>(x2 * x2);
            w = static_cast<float>(w);
        } while (w >= 1);
        w = static_cast<float>(std::sqrt(-2.0 * logf(static_cast<float>(w)) / w));
        const double y1 = static_cast<float>(x1 * w);
        value = static_cast<float>(double{mean} + static_cast<float>(y1 * deviation));
    }
    srand(5);
    const Values values =
        filled(guarded(Dim(kCount)), [=](TensorF& out) { out.gauss_random(mean, deviation); });
    expect_same_bits(values, expected);
    expect_moments(values, mean, deviation);
    const auto normal = [=](double x) {
        return 0.5 * std::erfc((mean - x) / (deviation * std::sqrt(2)));
    };
    EXPECT_LT(distance(values, normal), 1.95 / std::sqrt(kCount));
}

TEST_P(RandomOpsTest, MasksAreThresholdsOfUniformDraws) {
    for (int count : {1, 127, 128, 129, 40000}) {
        seed_thread_context(21);
        Values draws = uniform_values(count, 21, 0, 1);
        if (on_gpu()) {  // which draws from its own generator
            TensorF drawn = guarded(Dim(count));
            ASSERT_EQ(curandGenerateUniform(t_ctx->g_gen, drawn.get_ptr(), count),
                      CURAND_STATUS_SUCCESS);
            draws = values_of(drawn);
        }
        for (float p : {0.0f, 0.3f, 0.75f, 1.0f}) {
            seed_thread_context(21);
            const Values zeros =
                filled(guarded(Dim(count)), [=](TensorF& out) { out.zero_random(p); });
            EXPECT_EQ(zeros, mask_values(draws, p));
            seed_thread_context(21);
            const Values ones =
                filled(guarded(Dim(count)), [=](TensorF& out) { out.one_random(p); });
            EXPECT_EQ(ones, mask_values(draws, 1.0f - p));
            const double share = std::count(ones.begin(), ones.end(), 1.0f) / double(count);
            EXPECT_NEAR(share, p, 4 * std::sqrt(p * (1 - p) / count) + 1e-7);
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

TEST(RandomMaskTest, ADrawOfOneIsNeverMasked) {
    ThreadContextScope context;
    seed_thread_context(kSeedOfOne);
    TensorF mask(Dim(3), CPU);
    mask.zero_random(1);
    EXPECT_EQ(values_of(mask), (Values{1, 0, 0}));
}

TEST(RandomThreadsTest, EachThreadHasItsOwnSequence) {
    Values results[2];
    std::thread threads[2];
    for (int id = 0; id < 2; ++id) {
        threads[id] = std::thread([&values = results[id]] {
            ThreadContextScope context;
            seed_thread_context(4);
            TensorF out(Dim(3000), CPU);
            for (int round = 0; round < 20; ++round) {
                out.random(-1, 1);
            }
            values = values_of(out);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const Values all = uniform_values(20 * 3000, 4, -1, 1);
    EXPECT_EQ(results[0], Values(all.end() - 3000, all.end()));
    EXPECT_EQ(results[1], results[0]);
}

using RandomOpsFailureTest = GpuTest;

TEST_F(RandomOpsFailureTest, Texts) {
    const std::string contiguous = "Check failed: out.is_contiguous() ";
    for (Device device : {CPU, GPU}) {
        TensorF dense(Dim(4, 6), device), pitched = dense.range_col(1, 3);
        expect_failures({
            {contiguous, [&] { pitched.random(0, 1); }},
            {contiguous, [&] { pitched.uniform_random(); }},
            {contiguous, [&] { pitched.gauss_random(0, -1); }},  // tested first
            {contiguous, [&] { pitched.zero_random(0.5f); }},
            {contiguous, [&] { pitched.one_random(0.5f); }},
            {"Check failed: (stddev) > (0) mean : 0 stddev : 0", [&] { dense.gauss_random(0, 0); }},
            {"Check failed: (stddev) > (0) mean : 2.5 stddev : -1",
             [&] { dense.gauss_random(2.5f, -1); }},
        });
    }
    TensorF mask(Dim(4), GPU);
    expect_failures({
        {"Check notnull: t_ctx ",
         [&] {
             release_thread_context();
             mask.zero_random(0.5f);
         }},
        {"Check failed: 0 == (ret) CURAND_STATUS_NOT_INITIALIZED",
         [&] {
             t_ctx->g_gen = nullptr;
             mask.zero_random(0.5f);
         }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
