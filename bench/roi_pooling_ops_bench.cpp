#include <cfloat>
#include <cmath>
#include <random>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

/// Regions of all sizes on a feature map of a sixteenth of the image.
struct Regions {
    static constexpr int kRois = 128, kHeight = 38, kWidth = 50, kBins = 7;
    static constexpr float kScale = 1.0f / 16;

    int channels, grid_channels;
    Tensor<float> data, rois, out, gradient;
    Tensor<int> idx;

    Regions(int its_channels, int its_grid_channels)
        : channels(its_channels),
          grid_channels(its_grid_channels),
          data(random_tensor(Dim(1, channels, kHeight, kWidth), -1, 1)),
          rois(Dim(kRois, 5, 1, 1)),
          out(random_tensor(Dim(kRois, grid_channels, kBins, kBins), -1, 1, 2)),
          gradient(random_tensor(data.get_size(), -1, 1, 3)),
          idx(out.get_size()) {
        std::mt19937 engine(4);
        const auto sorted_pair = [&](float extent, float* low, float* high) {
            std::uniform_real_distribution<float> draw(0, extent);
            const float a = draw(engine), b = draw(engine);
            *low = std::min(a, b);
            *high = std::max(a, b);
        };
        for (int n = 0; n < kRois; ++n) {
            float* roi = rois.get_ptr() + 5 * n;
            roi[0] = 0;
            sorted_pair(16 * kWidth - 1, roi + 1, roi + 3);
            sorted_pair(16 * kHeight - 1, roi + 2, roi + 4);
        }
        idx.zero();
    }
    /// The feature map once, the grid with its old values, its places.
    double bytes() const {
        return sizeof(float) * (1.0 * data.count() + 2.0 * out.count() + 1.0 * idx.count());
    }
};

void maxima(benchmark::State& state) {
    Regions r(256, 256);
    const ROIPoolingDesc desc(r.kBins, r.kBins, r.kScale);
    against_copy(state, r.bytes(), [&] { r.out.roi_pool_fwd(desc, r.data, r.rois, r.idx); });
}

/// Each bin by itself, cell by cell.
void maxima_plain_loop(benchmark::State& state) {
    Regions r(256, 256);
    const auto clip = [](float x, int extent) {
        return std::min(std::max(static_cast<int>(x), 0), extent);
    };
    against_copy(state, r.bytes(), [&] {
        float* out = r.out.get_ptr();
        int* idx = r.idx.get_ptr();
        for (int n = 0; n < r.kRois; ++n) {
            const float* roi = r.rois.get_ptr() + 5 * n;
            const float x = std::round(roi[1] * r.kScale), y = std::round(roi[2] * r.kScale);
            const float step_x = (std::round(roi[3] * r.kScale) - x + 1) / r.kBins,
                        step_y = (std::round(roi[4] * r.kScale) - y + 1) / r.kBins;
            for (int c = 0; c < r.channels; ++c) {
                const float* plane = r.data.get_ptr() + c * r.kHeight * r.kWidth;
                for (int ph = 0; ph < r.kBins; ++ph) {
                    const int top = clip(y + std::floor(ph * step_y), r.kHeight),
                              bottom = clip(y + std::ceil((ph + 1) * step_y), r.kHeight);
                    for (int pw = 0; pw < r.kBins; ++pw, ++out, ++idx) {
                        const int left = clip(x + std::floor(pw * step_x), r.kWidth),
                                  right = clip(x + std::ceil((pw + 1) * step_x), r.kWidth);
                        float max = -FLT_MAX;
                        int place = -1;
                        for (int h = top; h < bottom; ++h) {
                            for (int w = left; w < right; ++w) {
                                if (plane[h * r.kWidth + w] > max) {
                                    place = h * r.kWidth + w;
                                    max = plane[place];
                                }
                            }
                        }
                        *out = max;
                        *idx = place;
                    }
                }
            }
        }
    });
}

/// Reads the map's gradient too.
void maxima_backward(benchmark::State& state) {
    Regions r(256, 256);
    const ROIPoolingDesc desc(r.kBins, r.kBins, r.kScale);
    r.out.roi_pool_fwd(desc, r.data, r.rois, r.idx);
    const double bytes =
        sizeof(float) * (2.0 * r.gradient.count() + 1.0 * r.out.count() + 1.0 * r.idx.count());
    against_copy(state, bytes, [&] { r.gradient.roi_pool_bp(desc, r.out, r.rois, r.idx); });
}

constexpr int kClasses = 21;

void averages(benchmark::State& state) {
    Regions r(kClasses * Regions::kBins * Regions::kBins, kClasses);
    const PSROIPoolingDesc desc(kClasses, r.kBins, r.kScale);
    against_copy(state, r.bytes(), [&] { r.out.psroi_pool_fwd(desc, r.data, r.rois, r.idx); });
}

void averages_backward(benchmark::State& state) {
    Regions r(kClasses * Regions::kBins * Regions::kBins, kClasses);
    const PSROIPoolingDesc desc(kClasses, r.kBins, r.kScale);
    r.out.psroi_pool_fwd(desc, r.data, r.rois, r.idx);
    const double bytes =
        sizeof(float) * (2.0 * r.gradient.count() + 1.0 * r.out.count() + 1.0 * r.idx.count());
    against_copy(state, bytes, [&] { r.gradient.psroi_pool_bp(desc, r.out, r.rois, r.idx); });
}

BENCHMARK(maxima)->Name("maxima of regions")->Unit(benchmark::kMicrosecond);
BENCHMARK(maxima_plain_loop)->Name("maxima of regions, plain loop")->Unit(benchmark::kMicrosecond);
BENCHMARK(maxima_backward)->Name("maxima of regions, backward")->Unit(benchmark::kMicrosecond);
BENCHMARK(averages)->Name("averages of regions")->Unit(benchmark::kMicrosecond);
BENCHMARK(averages_backward)->Name("averages of regions, backward")->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench
}  // namespace vorn
