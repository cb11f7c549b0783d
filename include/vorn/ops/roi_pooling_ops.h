#ifndef VORN_OPS_ROI_POOLING_OPS_H_
#define VORN_OPS_ROI_POOLING_OPS_H_

#include "vorn/cpu/roi_pooling_ops.h"
#include "vorn/gpu/roi_pooling_ops.h"

/// Pooling of regions of interest into grids of bins, by their maxima or position-sensitive
/// averages. Formulas and shapes stand at the members of Tensor, the geometry of regions and bins
/// in roi_rule.h. Sizes are the caller's.
namespace vorn {

/// Tensor::roi_pool_fwd on `out`. The host tests the image of every region before it writes.
inline void vorn_roi_pool_fwd(const ROIPoolingDesc& desc, const Tensor<float>& data,
                              const Tensor<float>& rois, Tensor<int>& max_idx, Tensor<float>& out,
                              DType alpha, DType beta) {
    CHECK_SAME_DEVICE(rois, out);
    CHECK_SAME_DEVICE(max_idx, out);
    CHECK_SAME_DEVICE(data, out);
    if (is_cpu_device(out.get_device())) {
        const int num_rois = rois.get_size()[-4], batch_size = data.get_size()[-4];
        const index_t fields = cpu::roi_fields(rois);
        for (int n = 0; n < num_rois; ++n) {
            const int roi_batch_ind = static_cast<int>(rois.get_ptr()[n * fields]);
            CHECK_GE(roi_batch_ind, 0);
            CHECK_LT(roi_batch_ind, batch_size);
        }
        cpu::vorn_roi_pool_fwd(desc, data, rois, max_idx, out, alpha, beta);
    } else {
        gpu::vorn_roi_pool_fwd(desc, data, rois, max_idx, out, alpha, beta);
    }
}

/// Tensor::roi_pool_bp on `out`.
inline void vorn_roi_pool_diff(const ROIPoolingDesc& desc, const Tensor<float>& diff,
                               const Tensor<float>& rois, const Tensor<int>& max_idx,
                               Tensor<float>& out, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(rois, out);
    CHECK_SAME_DEVICE(max_idx, out);
    CHECK_SAME_DEVICE(diff, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_roi_pool_diff(desc, diff, rois, max_idx, out, alpha, beta);
    } else {
        gpu::vorn_roi_pool_diff(desc, diff, rois, max_idx, out, alpha, beta);
    }
}

/// Tensor::psroi_pool_fwd on `out`.
inline void vorn_psroi_pool_fwd(const PSROIPoolingDesc& desc, const Tensor<float>& data,
                                const Tensor<float>& rois, Tensor<int>& map_channel,
                                Tensor<float>& out, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(rois, out);
    CHECK_SAME_DEVICE(map_channel, out);
    CHECK_SAME_DEVICE(data, out);
    CHECK(alpha == 1.0f && beta == 0.0f);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_psroi_pool_fwd(desc, data, rois, map_channel, out);
    } else {
        gpu::vorn_psroi_pool_fwd(desc, data, rois, map_channel, out);
    }
}

/// Tensor::psroi_pool_bp on `out`.
inline void vorn_psroi_pool_diff(const PSROIPoolingDesc& desc, const Tensor<float>& diff,
                                 const Tensor<float>& rois, const Tensor<int>& map_channel,
                                 Tensor<float>& out, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(rois, out);
    CHECK_SAME_DEVICE(map_channel, out);
    CHECK_SAME_DEVICE(diff, out);
    CHECK(alpha == 1.0f && beta == 0.0f);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_psroi_pool_diff(desc, diff, rois, map_channel, out);
    } else {
        gpu::vorn_psroi_pool_diff(desc, diff, rois, map_channel, out);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_ROI_POOLING_OPS_H_
