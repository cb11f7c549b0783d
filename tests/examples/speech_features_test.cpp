#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>

#include "speech/error.h"
#include "speech/features.h"
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

FeatureOptions plain_options() {
    FeatureOptions options;
    options.sample_rate = 8000;
    options.window = 50;
    options.step = 16;
    options.bands = 5;
    options.low_frequency = 100;
    options.high_frequency = 3900;
    options.delta_order = 0;
    options.stack = 1;
    options.stride = 1;
    options.subtract_mean = false;
    return options;
}

// One frame in double, by the definitions: direct transform, triangles from their three corners.
std::vector<double> reference_frame(const std::vector<float>& samples, int start,
                                    const FeatureOptions& o) {
    const int size = 64;
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
    std::vector<double> frame;
    for (int band = 0; band < o.bands; ++band) {
        const double low = to_mel(o.low_frequency);
        const double width = (to_mel(o.high_frequency) - low) / (o.bands + 1);
        const double left = low + band * width, centre = left + width, right = centre + width;
        double energy = 0;
        for (int k = 0; k <= size / 2; ++k) {
            const double m = to_mel(k * 8000.0 / size);
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
    const FeatureOptions options = plain_options();
    std::vector<float> samples = noise(50 + 3 * 16 + 15, 1);
    std::fill(samples.begin() + 48, samples.end(), 0.0f);  // the last frame is silent
    speech::FeatureExtractor extractor(options);
    const FrameMatrix frames = extractor.extract(samples);
    ASSERT_EQ(frames.rows, 4);
    ASSERT_EQ(frames.columns, 5);
    for (int t = 0; t < frames.rows; ++t) {
        const std::vector<double> expected = reference_frame(samples, 16 * t, options);
        for (int c = 0; c < frames.columns; ++c) {
            EXPECT_NEAR(frames.row(t)[c], expected[c], 1e-4) << t << " " << c;
        }
    }
    // A used work space must not be heard in the next utterance.
    EXPECT_EQ(extractor.extract(samples).values, frames.values);
}

TEST(SpeechFeatures, MelFiltersAddUpToOne) {
    FeatureOptions wide;
    wide.bands = 40;
    wide.low_frequency = 0;
    wide.high_frequency = 8000;
    for (const FeatureOptions& options : {FeatureOptions{}, wide}) {
        const FrameMatrix filters = speech::mel_filters(options);
        ASSERT_EQ(filters.columns, 257);
        const double low = to_mel(options.low_frequency);
        const double high = to_mel(options.high_frequency);
        const double width = (high - low) / (options.bands + 1);
        for (int k = 0; k < filters.columns; ++k) {
            const double m = to_mel(k * 16000.0 / 512);
            double sum = 0;
            int touched = 0;
            for (int band = 0; band < filters.rows; ++band) {
                sum += filters.row(band)[k];
                touched += filters.row(band)[k] > 0;
            }
            // Inside the outer centres a partition; beyond them one flank; outside nothing.
            const double flank = std::min(m - low, high - m) / width;
            EXPECT_NEAR(sum, std::clamp(flank, 0.0, 1.0), 1e-5) << k;
            EXPECT_LE(touched, 2) << k;
        }
        for (int band = 0; band < filters.rows; ++band) {
            const float* row = filters.row(band);
            EXPECT_GT(*std::max_element(row, row + filters.columns), 0.2f) << band;
        }
    }
}

TEST(SpeechFeatures, DeltasOfPolynomials) {
    for (int window : {1, 2, 3}) {
        FrameMatrix frames(12, 3);
        for (int t = 0; t < frames.rows; ++t) {
            frames.row(t)[0] = 7;
            frames.row(t)[1] = 3.0f * t - 5;
            frames.row(t)[2] = static_cast<float>(t * t);
        }
        const FrameMatrix result = speech::deltas(frames, window);
        for (int t = window; t + window < frames.rows; ++t) {
            EXPECT_NEAR(result.row(t)[0], 0, 1e-5);
            EXPECT_NEAR(result.row(t)[1], 3, 1e-5);
            EXPECT_NEAR(result.row(t)[2], 2 * t, 1e-4);
        }
    }
    // Repeated ends, by hand: (1 * (1 - 0) + 2 * (4 - 0)) / 10, (1 * (4 - 0) + 2 * (4 - 0)) / 10.
    FrameMatrix squares(3, 1);
    squares.values = {0, 1, 4};
    const FrameMatrix result = speech::deltas(squares, 2);
    EXPECT_NEAR(result.values[0], 0.9, 1e-6);
    EXPECT_NEAR(result.values[1], 1.2, 1e-6);
    EXPECT_NEAR(result.values[2], (1 * 3 + 2 * 4) / 10.0, 1e-6);
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

    FeatureOptions options;
    options.delta_order = 2;
    const std::vector<float> samples = noise(16000, 2);
    FeatureOptions bare = options;
    bare.delta_order = 0;
    bare.stack = bare.stride = 1;
    const FrameMatrix statics = speech::FeatureExtractor(bare).extract(samples);
    const FrameMatrix channels[] = {statics, speech::deltas(statics, 2),
                                    speech::deltas(speech::deltas(statics, 2), 2)};
    const FrameMatrix rows = speech::FeatureExtractor(options).extract(samples);
    ASSERT_EQ(statics.rows, 98);
    ASSERT_EQ(rows.rows, 33);
    ASSERT_EQ(rows.columns, 3 * 3 * 32);
    for (int r = 0; r < rows.rows; ++r) {
        for (int s = 0; s < 3; ++s) {
            const int t = std::min(3 * r + s, 97);
            for (int d = 0; d < 3; ++d) {
                for (int q = 0; q < 32; ++q) {
                    ASSERT_EQ(rows.row(r)[(s * 3 + d) * 32 + q], channels[d].row(t)[q]);
                }
            }
        }
    }
    for (int q = 0; q < 32; ++q) {
        double sum = 0;
        for (int t = 0; t < statics.rows; ++t) {
            sum += statics.row(t)[q];
        }
        EXPECT_NEAR(sum / statics.rows, 0, 1e-5);
    }
}

TEST(SpeechFeatures, CountsRowsAndRefusesShortFiles) {
    const FeatureOptions options;
    speech::FeatureExtractor extractor(options);
    for (int samples : {0, 1, 399, 400, 559, 560, 879, 880, 16000}) {
        EXPECT_EQ(extractor.extract(noise(samples, 3)).rows, speech::row_count(samples, options))
            << samples;
    }
    EXPECT_EQ(speech::row_count(399, options), 0);
    EXPECT_EQ(speech::row_count(400, options), 1);
    EXPECT_EQ(speech::row_count(879, options), 1);
    EXPECT_EQ(speech::row_count(880, options), 2);

    const TemporaryFolder folder;
    const auto file = folder.write("short.wav", wav(16000, 1, noise(399, 4)));
    EXPECT_EQ(message_of<speech::Error>([&] { extractor.extract_file(file); }),
              file.string() + ": is shorter than one analysis window");

    FeatureOptions bad;
    bad.high_frequency = 9000;
    EXPECT_EQ(message_of<speech::Error>([&] { speech::FeatureExtractor refused(bad); }),
              "feature options: the bands must lie between 0 and half the sample rate");
    bad = FeatureOptions{};
    bad.preemphasis = std::nanf("");
    EXPECT_EQ(message_of<speech::Error>([&] { speech::validate(bad); }),
              "feature options: the pre-emphasis must be 0 to 1");
}

TEST(SpeechFeatures, NormalisesOverTheCorpus) {
    std::vector<FrameMatrix> utterances;
    for (int rows : {5, 0, 40}) {
        FrameMatrix frames(rows, 3);
        const std::vector<float> values = noise(rows * 3, 10 + rows);
        for (int t = 0; t < rows; ++t) {
            frames.row(t)[0] = 1000 + values[3 * t];
            frames.row(t)[1] = -3 + 50 * values[3 * t + 1];
            frames.row(t)[2] = 4;
        }
        utterances.push_back(frames);
    }
    const auto normaliser = speech::Normaliser::fit(utterances);
    double sum[3] = {}, squares[3] = {};
    for (FrameMatrix& frames : utterances) {
        normaliser.apply(&frames);
        for (int t = 0; t < frames.rows; ++t) {
            for (int c = 0; c < 3; ++c) {
                sum[c] += frames.row(t)[c];
                squares[c] += frames.row(t)[c] * frames.row(t)[c];
            }
        }
    }
    for (int c = 0; c < 2; ++c) {
        EXPECT_NEAR(sum[c] / 45, 0, 1e-3);
        EXPECT_NEAR(squares[c] / 45, 1, 1e-3);
    }
    EXPECT_EQ(squares[2], 0);

    FrameMatrix narrow(1, 2);
    EXPECT_EQ(message_of<speech::Error>([&] { normaliser.apply(&narrow); }),
              "normaliser: made for 3 columns, not 2");
    EXPECT_EQ(message_of<speech::Error>([] { speech::Normaliser::fit({FrameMatrix(0, 3)}); }),
              "normaliser: there are no frames to learn from");
}

}  // namespace
