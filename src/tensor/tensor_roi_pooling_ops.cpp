#include "vorn/ops/roi_pooling_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::roi_pool_fwd(const ROIPoolingDesc& desc, const Tensor<float>& data,
                             const Tensor<float>& rois, Tensor<int>& max_idx, DType alpha,
                             DType beta) {
    vorn_roi_pool_fwd(desc, data, rois, max_idx, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::roi_pool_bp(const ROIPoolingDesc& desc, const Tensor<float>& diff,
                            const Tensor<float>& rois, const Tensor<int>& max_idx, DType alpha,
                            DType beta) {
    vorn_roi_pool_diff(desc, diff, rois, max_idx, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::psroi_pool_fwd(const PSROIPoolingDesc& desc, const Tensor<float>& data,
                               const Tensor<float>& rois, Tensor<int>& map_channel, DType alpha,
                               DType beta) {
    vorn_psroi_pool_fwd(desc, data, rois, map_channel, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::psroi_pool_bp(const PSROIPoolingDesc& desc, const Tensor<float>& diff,
                              const Tensor<float>& rois, Tensor<int>& map_channel, DType alpha,
                              DType beta) {
    vorn_psroi_pool_diff(desc, diff, rois, map_channel, *this, alpha, beta);
}

// ---- Instantiations

using F = Tensor<float>;
using I = Tensor<int>;

template void F::roi_pool_fwd(const ROIPoolingDesc&, const F&, const F&, I&, DType, DType);
template void F::roi_pool_bp(const ROIPoolingDesc&, const F&, const F&, const I&, DType, DType);
template void F::psroi_pool_fwd(const PSROIPoolingDesc&, const F&, const F&, I&, DType, DType);
template void F::psroi_pool_bp(const PSROIPoolingDesc&, const F&, const F&, I&, DType, DType);

}  // namespace vorn
