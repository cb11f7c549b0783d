#ifndef VORN_GPU_ROI_POOLING_OPS_H_
#define VORN_GPU_ROI_POOLING_OPS_H_

#include <cfloat>

#include "vorn/gpu/kernel_util.h"
#include "vorn/rules/roi_rule.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of the pooling of regions, one thread per element of the output, or of `diff` in the
/// position-sensitive backward form. Feature maps: (images x channels x height x width), grids:
/// (regions x channels x pooled_height x pooled_width), records: (regions x kRoiFields).
namespace vorn {
namespace gpu {

constexpr int kRoiThreads = 1024;

/// The place of an element in a dense tensor of four axes: of a cell, or of a bin.
struct Place {
    int n, c, h, w;

    __device__ Place(int index, int channels, int height, int width)
        : n(index / width / height / channels),
          c(index / width / height % channels),
          h(index / width % height),
          w(index % width) {}
};

static __global__ void KeROIPoolFwd(int count, const DType* bottom_data, DType spatial_scale,
                                    int channels, int height, int width, int pooled_height,
                                    int pooled_width, const DType* bottom_rois, DType* top_data,
                                    int* argmax_data, DType alpha, DType beta) {
    for (unsigned index = blockIdx.x * blockDim.x + threadIdx.x; index < count;
         index += blockDim.x * gridDim.x) {
        const Place at(index, channels, pooled_height, pooled_width);
        const func::Roi<func::RoiAxis> roi(bottom_rois + func::kRoiFields * at.n, spatial_scale,
                                           pooled_height, pooled_width);
        const func::Span rows = roi.h.cells_of(at.h, height), cols = roi.w.cells_of(at.w, width);
        const DType* plane = bottom_data + (roi.image * channels + at.c) * height * width;
        DType maxval = rows.is_empty() || cols.is_empty() ? 0 : -FLT_MAX;
        int maxidx = -1;
        for (int h = rows.begin; h < rows.end; ++h) {
            for (int w = cols.begin; w < cols.end; ++w) {
                const int idx = h * width + w;
                if (plane[idx] > maxval) {
                    maxval = plane[idx];
                    maxidx = idx;
                }
            }
        }
        top_data[index] = fmaf(maxval, alpha, beta * top_data[index]);
        argmax_data[index] = maxidx;
    }
}

/// Gathers, so that the order of the sum is fixed without atomics.
static __global__ void KeROIPoolDiff(int count, const DType* top_diff, const int* argmax_data,
                                     int num_rois, DType spatial_scale, int channels, int height,
                                     int width, int pooled_height, int pooled_width,
                                     DType* bottom_diff, const DType* bottom_rois, DType alpha,
                                     DType beta) {
    for (unsigned index = blockIdx.x * blockDim.x + threadIdx.x; index < count;
         index += blockDim.x * gridDim.x) {
        const Place at(index, channels, height, width);
        const int cell = at.h * width + at.w;
        DType gradient = 0;
        for (int roi_n = 0; roi_n < num_rois; ++roi_n) {
            const func::Roi<func::RoiAxis> roi(bottom_rois + func::kRoiFields * roi_n,
                                               spatial_scale, pooled_height, pooled_width);
            if (roi.image != at.n) {
                continue;
            }
            const func::Span rows = roi.h.bins_of(at.h, pooled_height),
                             cols = roi.w.bins_of(at.w, pooled_width);
            const int offset = (roi_n * channels + at.c) * pooled_height * pooled_width;
            for (int ph = rows.begin; ph < rows.end; ++ph) {
                for (int pw = cols.begin; pw < cols.end; ++pw) {
                    const int bin = offset + ph * pooled_width + pw;
                    if (argmax_data[bin] == cell) {
                        gradient += top_diff[bin];
                    }
                }
            }
        }
        bottom_diff[index] = fmaf(gradient, alpha, beta * bottom_diff[index]);
    }
}

/// The channel group of a bin along one axis of a grid of any size.
static __device__ inline int group_of_bin(int bin, int bins, int group_size) {
    const int group =
        static_cast<int>(floorf(static_cast<float>(group_size) * static_cast<float>(bin) / bins));
    const int last = group_size - 1;
    return group < 0 ? 0 : group > last ? last : group;
}

static __global__ void KePSROIPoolFwd(int count, const DType* bottom_data, DType spatial_scale,
                                      int channels, int height, int width, int pooled_height,
                                      int pooled_width, const DType* bottom_rois, int output_dim,
                                      int group_size, DType* top_data, int* mapping_channel) {
    for (unsigned index = blockIdx.x * blockDim.x + threadIdx.x; index < count;
         index += blockDim.x * gridDim.x) {
        const Place at(index, output_dim, pooled_height, pooled_width);
        const func::Roi<func::PSRoiAxis<true>> roi(bottom_rois + func::kRoiFields * at.n,
                                                   spatial_scale, pooled_height, pooled_width);
        const func::Span rows = roi.h.cells_of(at.h, height), cols = roi.w.cells_of(at.w, width);
        const int gh = group_of_bin(at.h, pooled_height, group_size),
                  gw = group_of_bin(at.w, pooled_width, group_size);
        const int c = (at.c * group_size + gh) * group_size + gw;
        const DType* plane = bottom_data + (roi.image * channels + c) * height * width;
        DType sum = 0;
        for (int h = rows.begin; h < rows.end; ++h) {
            for (int w = cols.begin; w < cols.end; ++w) {
                sum += plane[h * width + w];
            }
        }
        const bool is_empty = rows.is_empty() || cols.is_empty();
        top_data[index] = is_empty ? 0 : sum / (rows.size() * cols.size());
        mapping_channel[index] = c;
    }
}

/// Bins of different threads overlap, hence the atomics.
static __global__ void KePSROIPoolDiff(int count, const DType* top_diff, const int* mapping_channel,
                                       int /*num_rois*/, DType spatial_scale, int channels,
                                       int height, int width, int pooled_height, int pooled_width,
                                       int output_dim, DType* bottom_diff,
                                       const DType* bottom_rois) {
    for (unsigned index = blockIdx.x * blockDim.x + threadIdx.x; index < count;
         index += blockDim.x * gridDim.x) {
        const Place at(index, output_dim, pooled_height, pooled_width);
        const func::Roi<func::PSRoiAxis<true>> roi(bottom_rois + func::kRoiFields * at.n,
                                                   spatial_scale, pooled_height, pooled_width);
        const func::Span rows = roi.h.cells_of(at.h, height), cols = roi.w.cells_of(at.w, width);
        if (rows.is_empty() || cols.is_empty()) {
            continue;
        }
        const int c = mapping_channel[index];
        DType* plane = bottom_diff + (roi.image * channels + c) * height * width;
        const DType diff_val = top_diff[index] / (rows.size() * cols.size());
        for (int h = rows.begin; h < rows.end; ++h) {
            for (int w = cols.begin; w < cols.end; ++w) {
                atomicAdd(plane + h * width + w, diff_val);
            }
        }
    }
}

inline void vorn_roi_pool_fwd(const ROIPoolingDesc& desc, const Tensor<float>& data,
                              const Tensor<float>& rois, Tensor<int>& max_idx, Tensor<float>& out,
                              DType alpha, DType beta) {
    const Dim& map = data.get_size();
    const int count = static_cast<int>(out.get_element_count());
    launch<KeROIPoolFwd>(div_up(count, kRoiThreads), kRoiThreads, count, data.get_ptr(),
                         desc.spatial_scale, map[-3], map[-2], map[-1], desc.pooled_height,
                         desc.pooled_width, rois.get_ptr(), out.get_ptr(), max_idx.get_ptr(), alpha,
                         beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_roi_pool_diff(const ROIPoolingDesc& desc, const Tensor<float>& diff,
                               const Tensor<float>& rois, const Tensor<int>& max_idx,
                               Tensor<float>& out, DType alpha, DType beta) {
    const Dim& map = out.get_size();
    const int count = static_cast<int>(out.get_element_count());
    launch<KeROIPoolDiff>(div_up(count, kRoiThreads), kRoiThreads, count, diff.get_ptr(),
                          max_idx.get_ptr(), diff.get_size()[-4], desc.spatial_scale, map[-3],
                          map[-2], map[-1], desc.pooled_height, desc.pooled_width, out.get_ptr(),
                          rois.get_ptr(), alpha, beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_psroi_pool_fwd(const PSROIPoolingDesc& desc, const Tensor<float>& data,
                                const Tensor<float>& rois, Tensor<int>& map_channel,
                                Tensor<float>& out) {
    const Dim &map = data.get_size(), &grid = out.get_size();
    const int count = static_cast<int>(out.get_element_count());
    launch<KePSROIPoolFwd>(div_up(count, kRoiThreads), kRoiThreads, count, data.get_ptr(),
                           desc.spatial_scale, map[-3], map[-2], map[-1], grid[-2], grid[-1],
                           rois.get_ptr(), grid[-3], desc.group_size, out.get_ptr(),
                           map_channel.get_ptr());
    VORN_KERNEL_TAIL();
}

inline void vorn_psroi_pool_diff(const PSROIPoolingDesc& desc, const Tensor<float>& diff,
                                 const Tensor<float>& rois, const Tensor<int>& map_channel,
                                 Tensor<float>& out) {
    const Dim &map = out.get_size(), &grid = diff.get_size();
    const int count = static_cast<int>(diff.get_element_count());
    launch<KePSROIPoolDiff>(div_up(count, kRoiThreads), kRoiThreads, count, diff.get_ptr(),
                            map_channel.get_ptr(), get_reverse<-4>(grid), desc.spatial_scale,
                            map[-3], map[-2], map[-1], grid[-2], grid[-1], grid[-3], out.get_ptr(),
                            rois.get_ptr());
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_ROI_POOLING_OPS_H_
