#include "blstm_layer.h"

namespace speech {

BlstmLayer::BlstmLayer(const std::string& name, int inputs, int cells, vorn::Device device)
    : _cells(cells),
      _forward(name + ".forward", inputs, cells, device),
      _backward(name + ".backward", inputs, cells, device) {
    for (vorn::Tensor<float>* tensor :
         {&_reversed_in, &_half, &_out, &_half_error, &_reversed_error, &_in_error}) {
        tensor->set_device(device);
    }
}

void BlstmLayer::initialise(common::Random* random) {
    _forward.initialise(random);
    _backward.initialise(random);
}

const vorn::Tensor<float>& BlstmLayer::forward(const vorn::Tensor<float>& in,
                                               const FrameBatch& batch,
                                               const vorn::Tensor<int>& lengths) {
    _out.resize(vorn::Dim(batch.rows(), 2 * _cells));
    _out.col_append(_forward.forward(in, batch.size), 0);
    _reversed_in.resize(in.get_size());
    _reversed_in.mask_reverse(in, lengths, batch.size, batch.frames);
    _half.resize(vorn::Dim(batch.rows(), _cells));
    _half.mask_reverse(_backward.forward(_reversed_in, batch.size), lengths, batch.size,
                       batch.frames);
    _out.col_append(_half, _cells);
    return _out;
}

vorn::Tensor<float>& BlstmLayer::backward(const vorn::Tensor<float>& in, const FrameBatch& batch,
                                          const vorn::Tensor<int>& lengths,
                                          const vorn::Tensor<float>& error) {
    _half_error.resize(vorn::Dim(batch.rows(), _cells));
    _reversed_error.resize(_half_error.get_size());
    _half_error.col_deappend(error, _cells);
    _reversed_error.mask_reverse(_half_error, lengths, batch.size, batch.frames);
    _backward.backward(_reversed_in, _reversed_error);
    _half_error.col_deappend(error, 0);
    _forward.backward(in, _half_error);

    _in_error.resize(in.get_size());
    _in_error.mask_reverse(_backward.input_error(), lengths, batch.size, batch.frames);
    _in_error.elem_add(_in_error, _forward.input_error());
    return _in_error;
}

std::vector<common::Parameter*> BlstmLayer::parameters() {
    std::vector<common::Parameter*> all = _forward.parameters();
    const std::vector<common::Parameter*> other = _backward.parameters();
    all.insert(all.end(), other.begin(), other.end());
    return all;
}

}  // namespace speech
