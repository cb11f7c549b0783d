#include "vision/roi_pool_layer.h"

#include "vision/fit.h"

namespace vision {

const vorn::Tensor<float>& RoiPoolLayer::forward(const vorn::Tensor<float>& in,
                                                 const vorn::Tensor<float>& windows) {
    const vorn::Dim grids(windows.get_n(), in.get_c(), _desc.pooled_height, _desc.pooled_width);
    _out.resize(grids);
    _winners.resize(grids, false);
    _out.roi_pool_fwd(_desc, in, windows, _winners);
    _out.reshape(vorn::Dim(grids[0], grids[1] * grids[2] * grids[3]));
    return _out;
}

vorn::Tensor<float>& RoiPoolLayer::backward(const vorn::Tensor<float>& in,
                                            const vorn::Tensor<float>& windows,
                                            const vorn::Tensor<float>& error) {
    fit(in.get_size(), &_in_error);
    _in_error.roi_pool_bp(_desc, error.get_with_shape(_winners.get_size()), windows, _winners);
    return _in_error;
}

}  // namespace vision
