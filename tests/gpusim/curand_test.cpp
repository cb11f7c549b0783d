#include <curand.h>

#include <algorithm>
#include <cmath>

#include "device_fixture.h"
#include "gpusim/philox.h"

#define EXPECT_RAND(call) EXPECT_EQ(call, CURAND_STATUS_SUCCESS)

namespace {

class CurandTest : public DeviceTest {
protected:
    CurandTest() { EXPECT_RAND(curandCreateGenerator(&generator_, CURAND_RNG_PSEUDO_DEFAULT)); }
    ~CurandTest() override { EXPECT_RAND(curandDestroyGenerator(generator_)); }
    std::vector<float> uniform(size_t count) {
        DeviceArray<float> out(count);
        EXPECT_RAND(curandGenerateUniform(generator_, out.get(), count));
        return out.read();
    }

    curandGenerator_t generator_ = nullptr;
};

// The answers that the authors of the generator publish with it.
TEST_F(CurandTest, PhiloxKnownAnswers) {
    using Words = std::array<uint32_t, 4>;
    EXPECT_EQ(gpusim::philox4x32_10({0x243f6a88, 0x85a308d3, 0x13198a2e, 0x03707344},
                                    {0xa4093822, 0x299f31d0}),
              (Words{0xd16cfe09, 0x94fdcceb, 0x5001e420, 0x24126ea1}));
    EXPECT_RAND(curandSetPseudoRandomGeneratorSeed(generator_, 0));
    std::vector<float> expected;
    for (const double word : Words{0x6627e8d5, 0xe169c58d, 0xbc57ac4c, 0x9b00dbd8}) {
        expected.push_back(static_cast<float>((word + 0.5) * 0x1p-32));
    }
    EXPECT_EQ(uniform(4), expected);
}

/// The mean of ((v - center) / scale)^power.
double moment(const std::vector<float>& values, int power, double center = 0, double scale = 1) {
    double sum = 0;
    for (float v : values) {
        sum += std::pow((v - center) / scale, power);
    }
    return sum / static_cast<double>(values.size());
}

// Moments within five standard deviations of their estimates.
TEST_F(CurandTest, Moments) {
    constexpr size_t n = 200000;
    EXPECT_RAND(curandSetPseudoRandomGeneratorSeed(generator_, 1234));
    const auto values = uniform(n);
    EXPECT_GT(*std::min_element(values.begin(), values.end()), 0.0f);
    EXPECT_LE(*std::max_element(values.begin(), values.end()), 1.0f);
    EXPECT_NEAR(moment(values, 1), 0.5, 5 * std::sqrt(1 / 12.0 / n));
    EXPECT_NEAR(moment(values, 2), 1 / 3.0, 5 * std::sqrt(4 / 45.0 / n));
    DeviceArray<float> out(n);
    EXPECT_RAND(curandGenerateNormal(generator_, out.get(), n, 3, 2));
    const auto normal = out.read();
    EXPECT_NEAR(moment(normal, 1, 3, 2), 0, 5 / std::sqrt(n));
    EXPECT_NEAR(moment(normal, 2, 3, 2), 1, 5 * std::sqrt(2.0 / n));
    EXPECT_NEAR(moment(normal, 4, 3, 2), 3, 5 * std::sqrt(96.0 / n));
    EXPECT_EQ(curandGenerateNormal(generator_, out.get(), 3, 0, 1),
              CURAND_STATUS_LENGTH_NOT_MULTIPLE);
}

TEST_F(CurandTest, SequenceGoesOnAndRepeats) {
    EXPECT_RAND(curandSetPseudoRandomGeneratorSeed(generator_, 7));
    const auto whole = uniform(103);
    EXPECT_RAND(curandSetPseudoRandomGeneratorSeed(generator_, 7));
    auto parts = uniform(50);
    const auto rest = uniform(53);
    parts.insert(parts.end(), rest.begin(), rest.end());
    EXPECT_EQ(parts, whole);
    EXPECT_RAND(curandSetGeneratorOffset(generator_, 99));
    EXPECT_EQ(uniform(4), std::vector<float>(whole.end() - 4, whole.end()));
    for (const unsigned long long other : {8ull, 7 + (1ull << 32)}) {
        EXPECT_RAND(curandSetPseudoRandomGeneratorSeed(generator_, other));
        EXPECT_NE(uniform(103), whole);
    }
}

TEST_F(CurandTest, RefusalsAndOrder) {
    curandGenerator_t other = nullptr;
    EXPECT_EQ(curandCreateGenerator(&other, CURAND_RNG_PSEUDO_XORWOW), CURAND_STATUS_TYPE_ERROR);
    EXPECT_EQ(curandGenerateUniform(nullptr, nullptr, 1), CURAND_STATUS_NOT_INITIALIZED);
    DeviceArray<float> out(std::vector<float>(8, -1.0f));
    const cudaStream_t stream = create_stream(cudaStreamNonBlocking);
    EXPECT_RAND(curandSetStream(generator_, stream));
    Gate gate(stream);
    EXPECT_RAND(curandGenerateUniform(generator_, out.get(), 8));
    EXPECT_EQ(cudaStreamQuery(stream), cudaErrorNotReady);
    EXPECT_EQ(out.read()[0], -1.0f);
    gate.open();
    ASSERT_CUDA(cudaStreamSynchronize(stream));
    EXPECT_GT(out.read()[7], 0.0f);
    std::vector<float> host(8);
    EXPECT_EQ(curandGenerateUniform(generator_, host.data(), 8), CURAND_STATUS_LAUNCH_FAILURE);
}

}  // namespace
