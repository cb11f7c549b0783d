#include "common/dropout.h"

namespace common {

const vorn::Tensor<float>& Dropout::forward(const vorn::Tensor<float>& in, Pass pass) {
    if (pass == Pass::kInference || _share == 0) {
        return in;
    }
    _mask.resize(in.get_size(), false);
    _mask.zero_random(_share);
    _out.resize(in.get_size());
    _out.elem_mul(in, _mask, 1 / (1 - _share));
    return _out;
}

const vorn::Tensor<float>& Dropout::backward(const vorn::Tensor<float>& error) {
    if (_share == 0) {
        return error;
    }
    _in_error.resize(error.get_size());
    _in_error.elem_mul(error, _mask, 1 / (1 - _share));
    return _in_error;
}

}  // namespace common
