#include "common/linear_layer.h"

#include <cmath>

#include "common/shape_output.h"

namespace common {

LinearLayer::LinearLayer(const std::string& name, int inputs, int outputs, vorn::Device device)
    : _weight(name + ".weight", vorn::Dim(inputs, outputs), device),
      _bias(name + ".bias", vorn::Dim(outputs), device),
      _out(device),
      _in_error(device) {}

void LinearLayer::initialise(Random* random, float gain) {
    _weight.randomise(gain / std::sqrt(static_cast<float>(_weight.value.get_h())), random);
    _bias.value.zero();
}

const vorn::Tensor<float>& LinearLayer::forward(const vorn::Tensor<float>& in) {
    shape_output(&_out, vorn::Dim(in.get_h(), _weight.value.get_w()));
    _out.mul(in, _weight.value);
    _out.row_add_vec(_out, _bias.value);
    return _out;
}

vorn::Tensor<float>& LinearLayer::backward(const vorn::Tensor<float>& in,
                                           const vorn::Tensor<float>& error) {
    _weight.gradient.mul(in, true, error, false);
    _bias.gradient.col_sum(error);
    shape_output(&_in_error, in.get_size());
    _in_error.mul(error, false, _weight.value, true);
    return _in_error;
}

}  // namespace common
