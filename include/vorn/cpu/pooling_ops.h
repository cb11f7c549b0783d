#ifndef VORN_CPU_POOLING_OPS_H_
#define VORN_CPU_POOLING_OPS_H_

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "vorn/cpu/kit/sliding_window.h"
#include "vorn/tensor/tensor.h"
#include "vorn/tensor/tensor_view.h"

/// Host pooling of images. A row of regions is worked on together, one tap of the window at a time
/// and the taps in row-major order, so that each region is folded in that order.
namespace vorn {
namespace cpu {

/// The regions along one axis of an image. A last region that is only partly filled counts.
struct PoolingAxis {
    int extent, window, stride, pad, count;

    PoolingAxis(int its_extent, int its_window, int its_stride, int its_pad)
        : extent(its_extent), window(its_window), stride(its_stride), pad(its_pad) {
        const double steps = static_cast<double>(extent + 2 * pad - window) / stride;
        count = std::max(0, static_cast<int>(std::ceil(steps) + 1));
    }

    /// Region p is [start(p), end(p)), of which [begin(p), end(p)) lies in the image.
    int start(int p) const { return p * stride - pad; }
    int begin(int p) const { return std::max(start(p), 0); }
    int end(int p) const { return std::min(start(p) + window, extent); }
    /// Positions of a region, with the padding before the image and without that after it.
    int size(int p) const { return end(p) - start(p); }
};

/// The regions of an image, and what the rows of them have in common.
class PoolingRegions {
public:
    using View = Tensor4DView<float, false>;

    PoolingAxis rows, cols;
    InsideSpan filled;  ///< The regions of a row that have columns inside the image.

    PoolingRegions(const PoolingDesc& desc, const View& image)
        : rows(image.h, desc.win_height, desc.stride_h, desc.pad_h),
          cols(image.w, desc.win_width, desc.stride_w, desc.pad_w),
          filled(cols.window - 1 - cols.pad, cols.stride, cols.extent + cols.window - 1,
                 cols.count) {
        for (int tap = 0; tap < cols.window; ++tap) {
            _spans.emplace_back(tap - cols.pad, cols.stride, cols.extent, cols.count);
        }
    }

    /// Calls f(p, w) for the regions p of a row whose column `tap` lies inside the image, with that
    /// column w.
    template <typename F>
    VORN_FORCE_INLINE void for_each_region(int tap, F f) const {
        const int begin = _spans[tap].begin, w = begin * cols.stride + tap - cols.pad;
        for_each_position(_spans[tap].size(), cols.stride,
                          [=](int p, int at) { f(begin + p, w + at); });
    }

    /// The divisor of an average. A region outside the image, whose sum is 0, has any.
    float pool_size(int ph, int pw) const {
        return static_cast<float>(std::max(rows.size(ph) * cols.size(pw), 1));
    }

private:
    std::vector<InsideSpan> _spans;
};

/// Folds each region of each channel from `start` on, and blends alpha and beta by finish(fold, ph,
/// pw).
template <typename Fold, typename Finish>
void pool_forward(const PoolingRegions& regions, const Tensor<float>& in, Tensor<float>& out,
                  float start, Fold fold, DType beta, Finish finish) {
    const PoolingRegions::View in_d(in), out_d(out);
    const PoolingAxis &rows = regions.rows, &cols = regions.cols;
    std::vector<float> row_of_folds(cols.count);
    float* const folds = row_of_folds.data();
    for (int n = 0; n < in_d.n; ++n) {
        for (int c = 0; c < in_d.c; ++c) {
            for (int ph = 0; ph < rows.count; ++ph) {
                std::fill(row_of_folds.begin(), row_of_folds.end(), start);
                for (int h = rows.begin(ph); h < rows.end(ph); ++h) {
                    const float* in_p = &in_d(n, c, h, 0);
                    if (cols.window > cols.count) {  // few, wide regions: one after the other
                        for (int pw = 0; pw < cols.count; ++pw) {
                            for (int w = cols.begin(pw); w < cols.end(pw); ++w) {
                                folds[pw] = fold(folds[pw], in_p[w]);
                            }
                        }
                        continue;
                    }
                    for (int tap = 0; tap < cols.window; ++tap) {
                        regions.for_each_region(
                            tap, [=](int pw, int w) { folds[pw] = fold(folds[pw], in_p[w]); });
                    }
                }
                float* out_p = &out_d(n, c, ph, 0);
                for_each_element(cols.count, [=](int pw) {
                    out_p[pw] = finish(folds[pw], ph, pw) + beta * out_p[pw];
                });
            }
        }
    }
}

inline void vorn_max_pool_fwd(const PoolingDesc& pooling_desc, const Tensor<float>& in,
                              Tensor<float>& out, DType alpha, DType beta) {
    pool_forward(
        PoolingRegions(pooling_desc, PoolingRegions::View(in)), in, out, -FLT_MAX,
        [](float max_val, float value) { return value > max_val ? value : max_val; }, beta,
        [=](float max_val, int, int) { return max_val * alpha; });
}

inline void vorn_avg_pool_with_padding_fwd(const PoolingDesc& pooling_desc, const Tensor<float>& in,
                                           Tensor<float>& out, DType alpha, DType beta) {
    const PoolingRegions regions(pooling_desc, PoolingRegions::View(in));
    pool_forward(
        regions, in, out, 0.0f, [](float sum, float value) { return sum + value; }, beta,
        [&](float sum, int ph, int pw) { return (sum * alpha) / regions.pool_size(ph, pw); });
}

/// Multiplies each plane of `out` by beta, or clears it, and calls add(n, c, ph) for the rows of
/// its regions.
template <typename Add>
void pool_backward(const PoolingRegions& regions, Tensor<float>& out, DType beta, Add add) {
    const PoolingRegions::View out_d(out);
    for (int n = 0; n < out_d.n; ++n) {
        for (int c = 0; c < out_d.c; ++c) {
            for (int h = 0; h < out_d.h; ++h) {
                float* out_p = &out_d(n, c, h, 0);
                for (int w = 0; w < out_d.w; ++w) {
                    out_p[w] = beta == 0 ? 0 : out_p[w] * beta;
                }
            }
            for (int ph = 0; ph < regions.rows.count; ++ph) {
                add(n, c, ph);
            }
        }
    }
}

/// The first of equal maxima in row-major order receives the gradient of its region, and the first
/// element of a region in which nothing is above the lowest float.
inline void vorn_max_pool_diff(const PoolingDesc& pooling_desc, const Tensor<float>&,
                               const Tensor<float>& dy, const Tensor<float>& x, Tensor<float>& out,
                               DType alpha, DType beta) {
    const PoolingRegions::View in_d(dy), out_d(out), out_ori_d(x);
    const PoolingRegions regions(pooling_desc, out_d);
    const PoolingAxis &rows = regions.rows, &cols = regions.cols;
    std::vector<float> row_of_maxima(cols.count);
    std::vector<int> row_of_places(cols.count);  // of the maxima, in the plane of `out`
    float* const max_val = row_of_maxima.data();
    int* const place = row_of_places.data();
    pool_backward(regions, out, beta, [&](int n, int c, int ph) {
        if (rows.begin(ph) >= rows.end(ph)) {
            return;
        }
        std::fill(row_of_maxima.begin(), row_of_maxima.end(), -FLT_MAX);
        for (int pw = 0; pw < cols.count; ++pw) {
            place[pw] = rows.begin(ph) * out_d.h_s + cols.begin(pw);
        }
        for (int h = rows.begin(ph); h < rows.end(ph); ++h) {
            const float* x_p = &out_ori_d(n, c, h, 0);
            const int row = h * out_d.h_s;
            for (int tap = 0; tap < cols.window; ++tap) {
                regions.for_each_region(tap, [=](int pw, int w) {
                    const bool is_above = x_p[w] > max_val[pw];
                    place[pw] = is_above ? row + w : place[pw];
                    max_val[pw] = is_above ? x_p[w] : max_val[pw];
                });
            }
        }
        float* plane = &out_d(n, c, 0, 0);
        const float* dy_p = &in_d(n, c, ph, 0);
        for (int pw = regions.filled.begin; pw < regions.filled.end; ++pw) {
            plane[place[pw]] += alpha * dy_p[pw];
        }
    });
}

/// Each element of a region receives an equal share.
inline void vorn_avg_pool_with_padding_diff(const PoolingDesc& pooling_desc, const Tensor<float>&,
                                            const Tensor<float>& dy, const Tensor<float>&,
                                            Tensor<float>& out, DType alpha, DType beta) {
    const PoolingRegions::View in_d(dy), out_d(out);
    const PoolingRegions regions(pooling_desc, out_d);
    const PoolingAxis &rows = regions.rows, &cols = regions.cols;
    std::vector<float> row_of_shares(cols.count);
    float* const share = row_of_shares.data();
    pool_backward(regions, out, beta, [&](int n, int c, int ph) {
        const float* dy_p = &in_d(n, c, ph, 0);
        for (int pw = 0; pw < cols.count; ++pw) {
            share[pw] = (dy_p[pw] * alpha) / regions.pool_size(ph, pw);
        }
        for (int h = rows.begin(ph); h < rows.end(ph); ++h) {
            float* out_p = &out_d(n, c, h, 0);
            // From the last tap to the first: an element then sums its regions from left to right.
            for (int tap = cols.window - 1; tap >= 0; --tap) {
                regions.for_each_region(tap, [=](int pw, int w) { out_p[w] += share[pw]; });
            }
        }
    });
}

inline void vorn_pool_fwd(const PoolingDesc& pooling_desc, const Tensor<float>& in,
                          Tensor<float>& out, DType alpha, DType beta) {
    switch (pooling_desc.pooling_type) {
        case MAX_POOLING_TYPE:
            return cpu::vorn_max_pool_fwd(pooling_desc, in, out, alpha, beta);
        case AVG_POOLING_TYPE_INCLUDE_PADDING:
        case AVG_POOLING_TYPE_EXCLUDE_PADDING:
            return cpu::vorn_avg_pool_with_padding_fwd(pooling_desc, in, out, alpha, beta);
        default:
            LOG_FATAL << "unsupport pooling type " << pooling_desc.pooling_type;
    }
}

inline void vorn_pool_diff(const PoolingDesc& pooling_desc, const Tensor<float>& y,
                           const Tensor<float>& dy, const Tensor<float>& x, Tensor<float>& out,
                           DType alpha, DType beta) {
    switch (pooling_desc.pooling_type) {
        case MAX_POOLING_TYPE:
            return cpu::vorn_max_pool_diff(pooling_desc, y, dy, x, out, alpha, beta);
        case AVG_POOLING_TYPE_INCLUDE_PADDING:
        case AVG_POOLING_TYPE_EXCLUDE_PADDING:
            return cpu::vorn_avg_pool_with_padding_diff(pooling_desc, y, dy, x, out, alpha, beta);
        default:
            LOG_FATAL << "unsupport pooling type " << pooling_desc.pooling_type;
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_POOLING_OPS_H_
