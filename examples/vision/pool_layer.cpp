#include "vision/pool_layer.h"

#include "vision/fit.h"

namespace vision {

const vorn::Tensor<float>& PoolLayer::forward(const vorn::Tensor<float>& in) {
    fit(vorn::Dim(in.get_n(), in.get_c(), in.get_h() / kStep, in.get_w() / kStep), &_out);
    _out.pool_fwd(_desc, in);
    return _out;
}

vorn::Tensor<float>& PoolLayer::backward(const vorn::Tensor<float>& in,
                                         const vorn::Tensor<float>& error) {
    fit(in.get_size(), &_in_error);
    _in_error.pool_bp(_desc, _out, error, in);
    return _in_error;
}

}  // namespace vision
