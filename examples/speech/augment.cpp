#include "augment.h"

#include <algorithm>
#include <vector>

namespace speech {

namespace {

constexpr double kLargestWarp = 0.2;
constexpr int kBandMasks = 2;
constexpr int kWidestBandMask = 5;
constexpr int kTimeMasks = 2;
constexpr int kLongestTimeMask = 3;  // rows

/// A whole number in [0, most].
int draw(int most, common::Random* random) {
    return static_cast<int>(common::uniform(random) * (most + 1));
}

/// Runs of `bands` columns, one per stacked frame and delta channel, read at stretched positions.
void warp_bands(int bands, double factor, FrameMatrix* frames) {
    std::vector<int> left(bands);
    std::vector<float> weight(bands);
    for (int q = 0; q < bands; ++q) {
        const double position = std::min(q * factor, bands - 1.0);
        left[q] = std::min(static_cast<int>(position), std::max(bands - 2, 0));
        weight[q] = static_cast<float>(position - left[q]);
    }
    std::vector<float> old(bands);
    for (std::size_t run = 0; run < frames->values.size(); run += bands) {
        float* values = frames->values.data() + run;
        std::copy_n(values, bands, old.begin());
        for (int q = 0; q < bands; ++q) {
            const float right = old[std::min(left[q] + 1, bands - 1)];
            values[q] = old[left[q]] + weight[q] * (right - old[left[q]]);
        }
    }
}

void mask_bands(int bands, FrameMatrix* frames, common::Random* random) {
    const int width = std::min(draw(kWidestBandMask, random), bands);
    const int begin = draw(bands - width, random);
    for (std::size_t run = 0; run < frames->values.size(); run += bands) {
        std::fill_n(frames->values.begin() + run + begin, width, 0.0f);
    }
}

void mask_time(FrameMatrix* frames, common::Random* random) {
    const int length = std::min(draw(kLongestTimeMask, random), frames->rows);
    const int begin = draw(frames->rows - length, random);
    std::fill_n(frames->row(begin), length * frames->columns, 0.0f);
}

}  // namespace

void augment(const FeatureOptions& options, FrameMatrix* frames, common::Random* random) {
    warp_bands(options.bands, 1 + kLargestWarp * (2 * common::uniform(random) - 1), frames);
    for (int i = 0; i < kBandMasks; ++i) {
        mask_bands(options.bands, frames, random);
    }
    for (int i = 0; i < kTimeMasks; ++i) {
        mask_time(frames, random);
    }
}

}  // namespace speech
