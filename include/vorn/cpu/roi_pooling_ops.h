#ifndef VORN_CPU_ROI_POOLING_OPS_H_
#define VORN_CPU_ROI_POOLING_OPS_H_

#include <algorithm>
#include <cfloat>
#include <vector>

#include "vorn/cpu/kit/transpose.h"
#include "vorn/rules/roi_rule.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the pooling of regions, on dense tensors. What the two axes of a region say is
/// computed once per region, for all its channels.
namespace vorn {
namespace cpu {

/// The floats from one record to the next.
inline index_t roi_fields(const Tensor<float>& rois) {
    const Dim& size = rois.get_size();
    return static_cast<index_t>(size[-3]) * size[-2] * size[-1];
}

/// The cells of each bin of an axis.
template <typename Axis>
std::vector<func::Span> bins_of_axis(const Axis& axis, int bins, int extent) {
    std::vector<func::Span> cells(bins);
    for (int bin = 0; bin < bins; ++bin) {
        cells[bin] = axis.cells_of(bin, extent);
    }
    return cells;
}

/// The cells of the bins of a region.
struct RoiBins {
    std::vector<func::Span> rows, cols;
};

/// Channels whose maxima are taken together, their values at a cell side by side. One channel at a
/// time, the few columns of a bin are a chain of dependent steps: seven times as slow, measured
/// with regions of all sizes on a map of 38 x 50.
constexpr int kRoiChannels = 32;

/// The maximum of a bin in each channel, and its place, the first in row-major order among equals.
/// cells: (height * width x kRoiChannels).
inline void max_of_bin(const float* cells, int width, func::Span rows, func::Span cols, float* max,
                       int* idx) {
    std::fill_n(max, kRoiChannels, rows.is_empty() || cols.is_empty() ? 0 : -FLT_MAX);
    std::fill_n(idx, kRoiChannels, -1);
    for (int h = rows.begin; h < rows.end; ++h) {
        for (int w = cols.begin; w < cols.end; ++w) {
            const int place = h * width + w;
            const float* values = cells + static_cast<index_t>(place) * kRoiChannels;
            // Places ascend. In one loop the compiler would make the stores conditional.
            for (int k = 0; k < kRoiChannels; ++k) {
                idx[k] = std::max(idx[k], max[k] < values[k] ? place : -1);
            }
            for (int k = 0; k < kRoiChannels; ++k) {
                max[k] = max[k] < values[k] ? values[k] : max[k];
            }
        }
    }
}

inline void vorn_roi_pool_fwd(const ROIPoolingDesc& desc, const Tensor<float>& data,
                              const Tensor<float>& rois, Tensor<int>& max_idx, Tensor<float>& out,
                              DType alpha, DType beta) {
    const Dim& size = data.get_size();
    const int batch_size = size[-4], channels = size[-3], height = size[-2], width = size[-1];
    const int num_rois = rois.get_size()[-4];
    const index_t fields = roi_fields(rois), plane_size = static_cast<index_t>(height) * width,
                  grid_size = static_cast<index_t>(desc.pooled_height) * desc.pooled_width;
    std::vector<std::vector<int>> rois_of_image(batch_size);
    std::vector<RoiBins> bins;
    for (int n = 0; n < num_rois; ++n) {
        const func::Roi<func::RoiAxis> roi(rois.get_ptr() + n * fields, desc.spatial_scale,
                                           desc.pooled_height, desc.pooled_width);
        bins.push_back({bins_of_axis(roi.h, desc.pooled_height, height),
                        bins_of_axis(roi.w, desc.pooled_width, width)});
        rois_of_image[roi.image].push_back(n);
    }
    std::vector<float> cells(plane_size * kRoiChannels), max(grid_size * kRoiChannels), pooled(max);
    std::vector<int> idx(max.size());
    for (int image = 0; image < batch_size; ++image) {
        if (rois_of_image[image].empty()) {
            continue;
        }
        for (int c = 0; c < channels; c += kRoiChannels) {
            const int group = std::min(kRoiChannels, channels - c);
            const index_t first = static_cast<index_t>(image) * channels + c;
            transpose_matrix(data.get_ptr() + first * plane_size, plane_size, cells.data(),
                             kRoiChannels, plane_size, group);
            for (int n : rois_of_image[image]) {
                float* max_p = max.data();
                int* idx_p = idx.data();
                for (const func::Span& rows : bins[n].rows) {
                    for (const func::Span& cols : bins[n].cols) {
                        max_of_bin(cells.data(), width, rows, cols, max_p, idx_p);
                        max_p += kRoiChannels;
                        idx_p += kRoiChannels;
                    }
                }
                const index_t out_first = (static_cast<index_t>(n) * channels + c) * grid_size;
                transpose_matrix(idx.data(), kRoiChannels, max_idx.get_ptr() + out_first, grid_size,
                                 group, grid_size);
                transpose_matrix(max.data(), kRoiChannels, pooled.data(), grid_size, group,
                                 grid_size);
                float* out_p = out.get_ptr() + out_first;
                for_each_element(group * grid_size, [=, pooled_p = pooled.data()](index_t i) {
                    out_p[i] = alpha * pooled_p[i] + beta * out_p[i];
                });
            }
        }
    }
}

/// Walks the bins of each region in order and adds to the cells of their maxima, which gives each
/// cell the sum in the order of a gather over regions and bins.
inline void vorn_roi_pool_diff(const ROIPoolingDesc& desc, const Tensor<float>& diff,
                               const Tensor<float>& rois, const Tensor<int>& max_idx,
                               Tensor<float>& out, DType alpha, DType beta) {
    const int num_rois = rois.get_size()[-4];
    const Dim& size = out.get_size();
    const int batch_size = size[-4], channels = size[-3], height = size[-2], width = size[-1];
    const int plane_size = height * width;
    const index_t image_size = static_cast<index_t>(channels) * plane_size,
                  grid_size = static_cast<index_t>(desc.pooled_height) * desc.pooled_width;
    std::vector<float> gradient(image_size);
    std::vector<func::Span> rows(height), cols(width);  // the bins of each row and column of cells
    float* out_p = out.get_ptr();
    for (int image = 0; image < batch_size; ++image, out_p += image_size) {
        std::fill(gradient.begin(), gradient.end(), 0.0f);
        for (int n = 0; n < num_rois; ++n) {
            const func::Roi<func::RoiAxis> roi(rois.get_ptr() + n * func::kRoiFields,
                                               desc.spatial_scale, desc.pooled_height,
                                               desc.pooled_width);
            if (roi.image != image) {
                continue;
            }
            for (int h = 0; h < height; ++h) {
                rows[h] = roi.h.bins_of(h, desc.pooled_height);
            }
            for (int w = 0; w < width; ++w) {
                cols[w] = roi.w.bins_of(w, desc.pooled_width);
            }
            const float* diff_p = diff.get_ptr() + n * channels * grid_size;
            const int* idx_p = max_idx.get_ptr() + n * channels * grid_size;
            float* plane = gradient.data();
            for (int c = 0; c < channels; ++c, plane += plane_size) {
                for (int ph = 0; ph < desc.pooled_height; ++ph) {
                    for (int pw = 0; pw < desc.pooled_width; ++pw, ++diff_p, ++idx_p) {
                        const int idx = *idx_p;
                        if (idx >= 0 && idx < plane_size && rows[idx / width].has(ph) &&
                            cols[idx % width].has(pw)) {
                            plane[idx] += *diff_p;
                        }
                    }
                }
            }
        }
        for_each_element(image_size, [=, gradient_p = gradient.data()](index_t i) {
            out_p[i] = alpha * gradient_p[i] + beta * out_p[i];
        });
    }
}

inline void vorn_psroi_pool_fwd(const PSROIPoolingDesc& desc, const Tensor<float>& data,
                                const Tensor<float>& rois, Tensor<int>& map_channel,
                                Tensor<float>& out) {
    const Dim &map = data.get_size(), &grid = out.get_size();
    const int channels = map[-3], height = map[-2], width = map[-1];
    const int num_rois = grid[-4], output_dim = grid[-3];
    float* out_p = out.get_ptr();
    int* channel_p = map_channel.get_ptr();
    for (int n = 0; n < num_rois; ++n) {
        const func::Roi<func::PSRoiAxis<false>> roi(rois.get_ptr() + n * func::kRoiFields,
                                                    desc.spatial_scale, grid[-2], grid[-1]);
        const std::vector<func::Span> rows = bins_of_axis(roi.h, grid[-2], height),
                                      cols = bins_of_axis(roi.w, grid[-1], width);
        const index_t first = static_cast<index_t>(roi.image) * channels;
        for (int ctop = 0; ctop < output_dim; ++ctop) {
            for (size_t ph = 0; ph < rows.size(); ++ph) {
                for (size_t pw = 0; pw < cols.size(); ++pw) {
                    const int c =
                        static_cast<int>((ctop * desc.group_size + ph) * desc.group_size + pw);
                    const float* plane = data.get_ptr() + (first + c) * height * width;
                    float sum = 0;
                    for (int h = rows[ph].begin; h < rows[ph].end; ++h) {
                        for (int w = cols[pw].begin; w < cols[pw].end; ++w) {
                            sum += plane[h * width + w];
                        }
                    }
                    const bool is_empty = rows[ph].is_empty() || cols[pw].is_empty();
                    *out_p++ = is_empty ? 0 : sum / (rows[ph].size() * cols[pw].size());
                    *channel_p++ = c;
                }
            }
        }
    }
}

inline void vorn_psroi_pool_diff(const PSROIPoolingDesc& desc, const Tensor<float>& diff,
                                 const Tensor<float>& rois, const Tensor<int>& map_channel,
                                 Tensor<float>& out) {
    const Dim &map = out.get_size(), &grid = diff.get_size();
    const int channels = map[-3], height = map[-2], width = map[-1];
    const int num_rois = get_reverse<-4>(grid), output_dim = grid[-3];
    const float* diff_p = diff.get_ptr();
    const int* channel_p = map_channel.get_ptr();
    for (int n = 0; n < num_rois; ++n) {
        const func::Roi<func::PSRoiAxis<false>> roi(rois.get_ptr() + n * func::kRoiFields,
                                                    desc.spatial_scale, grid[-2], grid[-1]);
        const std::vector<func::Span> rows = bins_of_axis(roi.h, grid[-2], height),
                                      cols = bins_of_axis(roi.w, grid[-1], width);
        const index_t first = static_cast<index_t>(roi.image) * channels;
        for (int ctop = 0; ctop < output_dim; ++ctop) {
            for (const func::Span& bin_rows : rows) {
                for (const func::Span& bin_cols : cols) {
                    const float whole = *diff_p++;
                    const int c = *channel_p++;
                    if (bin_rows.is_empty() || bin_cols.is_empty()) {
                        continue;
                    }
                    const float share = whole / (bin_rows.size() * bin_cols.size());
                    float* plane = out.get_ptr() + (first + c) * height * width;
                    for (int h = bin_rows.begin; h < bin_rows.end; ++h) {
                        for (int w = bin_cols.begin; w < bin_cols.end; ++w) {
                            plane[h * width + w] += share;
                        }
                    }
                }
            }
        }
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_ROI_POOLING_OPS_H_
