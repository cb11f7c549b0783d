#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>

#include "speech/features.h"
#include "speech_reference.h"
#include "speech_test_files.h"

namespace {

using speech::FeatureOptions;
using speech::FrameMatrix;

std::vector<float> noise(int count, unsigned seed) {
    std::mt19937 generator(seed);
    std::normal_distribution<float> normal(0, 0.1f);
    std::vector<float> samples(count);
    std::generate(samples.begin(), samples.end(), [&] { return normal(generator); });
    return samples;
}

double to_mel(double hertz) {
    return 1127.0 * std::log(1.0 + hertz / 700.0);
}

// One frame in double, by the definitions: direct transform, triangles from their three corners.
std::vector<double> reference_frame(const std::vector<float>& samples, int start, int size,
                                    const FeatureOptions& o) {
    std::vector<double> power(size / 2 + 1);
    for (int k = 0; k <= size / 2; ++k) {
        std::complex<double> sum = 0;
        for (int i = 0; i < o.window; ++i) {
            const int t = start + i;
            const double before = samples[std::max(t - 1, 0)];
            const double hamming = 0.54 - 0.46 * std::cos(2 * M_PI * i / (o.window - 1));
            sum += (samples[t] - o.preemphasis * before) * hamming *
                   std::polar(1.0, -2 * M_PI * k * i / size);
        }
        power[k] = std::norm(sum);
    }
    const double low = to_mel(o.low_frequency);
    const double width = (to_mel(o.high_frequency) - low) / (o.bands + 1);
    std::vector<double> frame;
    for (int band = 0; band < o.bands; ++band) {
        const double left = low + band * width, centre = left + width, right = centre + width;
        double energy = 0;
        for (int k = 0; k <= size / 2; ++k) {
            const double m = to_mel(static_cast<double>(k) * o.sample_rate / size);
            if (m > left && m < right) {
                energy += power[k] * (m <= centre ? (m - left) / (centre - left)
                                                  : (right - m) / (right - centre));
            }
        }
        frame.push_back(std::log(energy + 1e-8));
    }
    return frame;
}

TEST(SpeechFeatures, LogMelMatchesDirectTransform) {
    struct {
        FeatureOptions options;
        int size;  // of the transform
    } cases[] = {{{8000, 50, 16, 0.97f, 5, 100, 3900, 0, 2, 1, 1, false}, 64},
                 {{16000, 400, 160, 0.9f, 40, 0, 8000, 0, 2, 1, 1, false}, 512}};
    for (const auto& [options, size] : cases) {
        SCOPED_TRACE(options.bands);
        const int last = 3 * options.step;  // this frame is silent
        std::vector<float> samples = noise(options.window + last + options.step - 1, 1);
        std::fill(samples.begin() + last, samples.end(), 0.0f);
        speech::FeatureExtractor extractor(options);
        const FrameMatrix frames = extractor.extract(samples);
        ASSERT_EQ(frames.rows, 4);
        ASSERT_EQ(frames.columns, options.bands);
        for (int t = 0; t < frames.rows; ++t) {
            const auto expected = reference_frame(samples, options.step * t, size, options);
            for (int c = 0; c < frames.columns; ++c) {
                EXPECT_NEAR(frames.row(t)[c], expected[c], 1e-4) << t << " " << c;
            }
        }
        // A used work space must not be heard in the next utterance.
        EXPECT_EQ(extractor.extract(samples).values, frames.values);
    }
}

TEST(SpeechFeatures, DeltasOfPolynomials) {
    for (int window : {1, 2, 3}) {
        FrameMatrix frames(12, 2);
        for (int t = 0; t < frames.rows; ++t) {
            frames.row(t)[0] = 3.0f * t - 5;
            frames.row(t)[1] = static_cast<float>(t * t);
        }
        const FrameMatrix result = speech::deltas(frames, window);
        for (int t = window; t + window < frames.rows; ++t) {
            EXPECT_NEAR(result.row(t)[0], 3, 1e-5);
            EXPECT_NEAR(result.row(t)[1], 2 * t, 1e-4);
        }
    }
    // Repeated ends, by hand.
    FrameMatrix squares(3, 1);
    squares.values = {0, 1, 4};
    const double expected[] = {(1 * (1 - 0) + 2 * (4 - 0)) / 10.0,
                               (1 * (4 - 0) + 2 * (4 - 0)) / 10.0,
                               (1 * (4 - 1) + 2 * (4 - 0)) / 10.0};
    const FrameMatrix result = speech::deltas(squares, 2);
    for (int t = 0; t < 3; ++t) {
        EXPECT_NEAR(result.values[t], expected[t], 1e-6);
    }
}

TEST(SpeechFeatures, StacksAndLaysOut) {
    FrameMatrix count(7, 1);
    count.values = {0, 1, 2, 3, 4, 5, 6};
    struct {
        int stack, stride;
        std::vector<float> expected;
    } cases[] = {
        {1, 1, {0, 1, 2, 3, 4, 5, 6}},
        {3, 3, {0, 1, 2, 3, 4, 5, 6, 6, 6}},
        {3, 1, {0, 0, 1, 0, 1, 2, 1, 2, 3, 2, 3, 4, 3, 4, 5, 4, 5, 6, 5, 6, 6}},
        {5, 3, {0, 0, 1, 2, 3, 2, 3, 4, 5, 6, 5, 6, 6, 6, 6}},
        {1, 3, {1, 4, 6}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(speech::stack_frames(count, c.stack, c.stride).values, c.expected)
            << c.stack << " by " << c.stride;
    }

    FeatureOptions options, plain;
    options.delta_order = 2;
    plain.delta_order = 0;
    plain.stack = plain.stride = 1;
    plain.subtract_mean = false;
    const std::vector<float> samples = noise(16000, 2);
    FrameMatrix statics = speech::FeatureExtractor(plain).extract(samples);
    const reference::Moments moments({reference::frames_of(statics)});
    for (std::size_t i = 0; i < statics.values.size(); ++i) {
        statics.values[i] -= static_cast<float>(moments.mean[i % 32]);
    }
    const FrameMatrix first = speech::deltas(statics, 2), second = speech::deltas(first, 2);
    const FrameMatrix rows = speech::FeatureExtractor(options).extract(samples);
    ASSERT_EQ(rows.rows, 33);
    ASSERT_EQ(rows.columns, 3 * 3 * 32);
    for (int r = 0; r < rows.rows; ++r) {
        for (int c = 0; c < rows.columns; ++c) {
            const FrameMatrix* channels[] = {&statics, &first, &second};
            const int frame = std::min(3 * r + c / (3 * 32), 97);
            ASSERT_NEAR(rows.row(r)[c], channels[c / 32 % 3]->row(frame)[c % 32], 1e-6);
        }
    }
}

TEST(SpeechFeatures, CountsRowsAndRefusesShortAndLoudFiles) {
    FeatureOptions options;
    speech::FeatureExtractor extractor(options);
    const std::pair<int, int> counts[] = {{0, 0},   {1, 0},   {399, 0}, {400, 1},
                                          {559, 1}, {560, 1}, {879, 1}, {880, 2}};
    for (const auto& [samples, rows] : counts) {
        EXPECT_EQ(speech::row_count(samples, options), rows) << samples;
        EXPECT_EQ(extractor.extract(noise(samples, 3)).rows, rows) << samples;
    }
    const TemporaryFolder folder;
    std::vector<float> samples = noise(399, 4);
    const auto expect_refused = [&](const std::string& why) {
        const auto file = folder.write("a.wav", wav(16000, 1, samples));
        EXPECT_EQ(message_of([&] { extractor.extract_file(file); }), file.string() + why);
    };
    expect_refused(": is shorter than one analysis window");
    samples.resize(400, 1e30f);
    expect_refused(": is too loud: its features are not finite");

    options.high_frequency = 9000;
    EXPECT_EQ(message_of([&] { speech::FeatureExtractor refused(options); }),
              "feature options: the bands must lie between 0 and half the sample rate");
    options.preemphasis = NAN;
    EXPECT_EQ(message_of([&] { speech::validate(options); }),
              "feature options: the pre-emphasis must be 0 to 1");
}

TEST(SpeechFeatures, NormalisesOverTheCorpus) {
    std::vector<FrameMatrix> utterances;
    for (int rows : {5, 0, 40}) {
        utterances.emplace_back(rows, 3);
        utterances.back().values = noise(rows * 3, 10 + rows);
        for (int t = 0; t < rows; ++t) {
            float* row = utterances.back().row(t);
            row[0] += 1000;
            row[1] *= 50;
            row[2] = 4;
        }
    }
    speech::FrameSums sums(3);
    for (const FrameMatrix& utterance : utterances) {
        sums.add(utterance);
    }
    const auto normaliser = speech::Normaliser::fit(sums);
    std::vector<reference::Frames> frames;
    for (FrameMatrix& utterance : utterances) {
        normaliser.apply(&utterance);
        frames.push_back(reference::frames_of(utterance));
    }
    const reference::Moments moments(frames);
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(moments.mean[c], 0, 1e-3);
        EXPECT_NEAR(moments.variance[c], c < 2 ? 1 : 0, 1e-3);
    }

    FrameMatrix narrow(1, 2);
    EXPECT_EQ(message_of([&] { normaliser.apply(&narrow); }),
              "normaliser: made for 3 columns, not 2");
    EXPECT_EQ(message_of([] { speech::Normaliser::fit(speech::FrameSums(3)); }),
              "normaliser: there are no frames to learn from");
}

}  // namespace
