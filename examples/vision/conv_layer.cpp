#include "vision/conv_layer.h"

#include <algorithm>
#include <cmath>

#include "vision/fit.h"

namespace vision {

namespace {

constexpr vorn::index_t kWorkSpaceLimit = vorn::index_t{256} << 20;  // bytes

}  // namespace

ConvLayer::ConvLayer(const std::string& name, int in_maps, int out_maps, int side,
                     vorn::Device device)
    : _desc(side / 2, side / 2, 1, 1),
      _weight(name + ".weight", vorn::Dim(out_maps, in_maps, side, side), device),
      _work_space(device),
      _out(device),
      _in_error(device) {}

void ConvLayer::initialise(common::Random* random, float gain) {
    const auto under_filter = static_cast<float>(_weight.value.count(1));
    _weight.randomise(gain / std::sqrt(under_filter), random);
}

/// Images of one size use the same algorithms, whose choice may cost more than their use.
void ConvLayer::plan(const vorn::Tensor<float>& in) {
    if (in.get_size() == _planned) {
        return;
    }
    const vorn::Tensor<float>& w = _weight.value;
    const vorn::Tensor<float>& y = _out;
    _desc.algo = _out.conv_get_fwd_algo(_desc, in, w, y, vorn::CONV_FWD_SPECIFY_WORKSAPCE_LIMIT,
                                        kWorkSpaceLimit);
    _desc.grad_algo = _out.conv_get_grad_algo(
        _desc, in, y, w, vorn::CONV_GRAD_SPECIFY_WORKSAPCE_LIMIT, kWorkSpaceLimit);
    _desc.diff_algo = _out.conv_get_diff_algo(
        _desc, in, y, w, vorn::CONV_DIFF_SPECIFY_WORKSAPCE_LIMIT, kWorkSpaceLimit);
    const vorn::index_t bytes =
        std::max({_out.conv_get_fwd_work_space_size(_desc, in, w, y, _desc.algo),
                  _out.conv_get_grad_work_space_size(_desc, in, y, w, _desc.grad_algo),
                  _out.conv_get_diff_work_space_size(_desc, in, y, w, _desc.diff_algo)});
    _work_space.resize(vorn::Dim((bytes + sizeof(float) - 1) / sizeof(float)), false);
    _planned = in.get_size();
}

const vorn::Tensor<float>& ConvLayer::forward(const vorn::Tensor<float>& in) {
    fit(vorn::Dim(in.get_n(), _weight.value.get_n(), in.get_h(), in.get_w()), &_out);
    plan(in);
    _out.conv_fwd(_desc, in, _weight.value, work_space(), work_space_size());
    return _out;
}

void ConvLayer::backward(const vorn::Tensor<float>& in, const vorn::Tensor<float>& error) {
    // The host only adds.
    _weight.gradient.zero();
    _weight.gradient.conv_grad(_desc, in, error, work_space(), work_space_size());
}

vorn::Tensor<float>& ConvLayer::input_error(const vorn::Tensor<float>& in,
                                            const vorn::Tensor<float>& error) {
    fit(in.get_size(), &_in_error);
    _in_error.conv_diff(_desc, _weight.value, error, work_space(), work_space_size());
    return _in_error;
}

}  // namespace vision
