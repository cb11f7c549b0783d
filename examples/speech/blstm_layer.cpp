#include "blstm_layer.h"

#include "common/shape_output.h"

namespace speech {

BlstmLayer::BlstmLayer(const std::string& name, int inputs, int cells, vorn::Device device,
                       common::Team* team)
    : _cells(cells),
      _team(team),
      _forward(name + ".forward", inputs, cells, device),
      _backward(name + ".backward", inputs, cells, device) {
    for (vorn::Tensor<float>* tensor : {&_reversed_in, &_reversed_out, &_out, &_forward_error,
                                        &_backward_error, &_reversed_error, &_in_error}) {
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
    common::shape_output(&_out, vorn::Dim(batch.rows(), 2 * _cells));
    const auto forward = [&] { _out.col_append(_forward.forward(in, batch.size), 0); };
    const auto backward = [&] {
        common::shape_output(&_reversed_in, in.get_size());
        _reversed_in.mask_reverse(in, lengths, batch.size, batch.frames);
        common::shape_output(&_reversed_out, vorn::Dim(batch.rows(), _cells));
        _reversed_out.mask_reverse(_backward.forward(_reversed_in, batch.size), lengths, batch.size,
                                   batch.frames);
        _out.col_append(_reversed_out, _cells);
    };
    _team->run({forward, backward});
    return _out;
}

vorn::Tensor<float>& BlstmLayer::backward(const vorn::Tensor<float>& in, const FrameBatch& batch,
                                          const vorn::Tensor<int>& lengths,
                                          const vorn::Tensor<float>& error) {
    const vorn::Dim half(batch.rows(), _cells);
    common::shape_output(&_in_error, in.get_size());
    const auto forward = [&] {
        common::shape_output(&_forward_error, half);
        _forward_error.col_deappend(error, 0);
        _forward.backward(in, _forward_error);
        _forward.compute_input_error();
    };
    const auto backward = [&] {
        common::shape_output(&_backward_error, half);
        _backward_error.col_deappend(error, _cells);
        common::shape_output(&_reversed_error, half);
        _reversed_error.mask_reverse(_backward_error, lengths, batch.size, batch.frames);
        _backward.backward(_reversed_in, _reversed_error);
        _in_error.mask_reverse(_backward.compute_input_error(), lengths, batch.size, batch.frames);
    };
    _team->run({forward, backward});
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
