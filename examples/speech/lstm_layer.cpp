#include "lstm_layer.h"

#include <cmath>

#include "common/shape_output.h"

namespace speech {

namespace {

constexpr float kCellLimit = 50;
constexpr int kInputGate = 0;
constexpr int kForgetGate = 1;
constexpr int kOutputGate = 2;

}  // namespace

LstmLayer::LstmLayer(const std::string& name, int inputs, int cells, vorn::Device device)
    : _cells(cells),
      _input_weight(name + ".input_weight", vorn::Dim(inputs, 4 * cells), device),
      _recurrent_weight(name + ".recurrent_weight", vorn::Dim(cells, 4 * cells), device),
      _bias(name + ".bias", vorn::Dim(4 * cells), device),
      _peep_i(name + ".peep_i", vorn::Dim(cells), device),
      _peep_f(name + ".peep_f", vorn::Dim(cells), device),
      _peep_o(name + ".peep_o", vorn::Dim(cells), device) {
    for (vorn::Tensor<float>* tensor :
         {&_gates, &_i, &_f, &_g, &_o, &_tanh_cell, &_cell, &_output, &_recurrent_transposed,
          &_gate_error, &_cell_error, &_next_error, &_product, &_in_error}) {
        tensor->set_device(device);
    }
}

void LstmLayer::initialise(common::Random* random) {
    const auto limit = [](const common::Parameter& weight) {
        return 1 / std::sqrt(static_cast<float>(weight.value.get_h()));
    };
    _input_weight.randomise(limit(_input_weight), random);
    _recurrent_weight.randomise(limit(_recurrent_weight), random);
    for (common::Parameter* peephole : {&_peep_i, &_peep_f, &_peep_o}) {
        peephole->randomise(0.1f, random);
    }
    // Cells that forget little at first learn long spans sooner.
    _bias.value.zero();
    _bias.value.slice(kForgetGate * _cells, (kForgetGate + 1) * _cells).set_element(1.0f);
}

void LstmLayer::resize(int rows, int batch) {
    _batch = batch;
    _frames = rows / batch;
    common::shape_output(&_gates, vorn::Dim(rows, 4 * _cells));
    for (vorn::Tensor<float>* tensor : {&_i, &_f, &_g, &_o, &_tanh_cell}) {
        common::shape_output(tensor, vorn::Dim(rows, _cells));
    }
    for (vorn::Tensor<float>* tensor : {&_cell, &_output}) {
        common::shape_output(tensor, vorn::Dim(rows + batch, _cells));
        frame(*tensor, 0).zero();
    }
}

/// The rows of frame t.
vorn::Tensor<float> LstmLayer::frame(const vorn::Tensor<float>& rows, int t) const {
    return rows.range_row(t, t + 1, _batch);
}

const vorn::Tensor<float>& LstmLayer::forward(const vorn::Tensor<float>& in, int batch) {
    resize(static_cast<int>(in.get_h()), batch);
    _gates.mul(in, _input_weight.value);
    _gates.row_add_vec(_gates, _bias.value);
    for (int t = 0; t < _frames; ++t) {
        vorn::Tensor<float> gates = frame(_gates, t);
        vorn::Tensor<float> cell = frame(_cell, t + 1);
        vorn::Tensor<float> i = frame(_i, t);
        vorn::Tensor<float> f = frame(_f, t);
        vorn::Tensor<float> g = frame(_g, t);
        vorn::Tensor<float> o = frame(_o, t);
        vorn::Tensor<float> tanh_cell = frame(_tanh_cell, t);
        if (t > 0) {
            gates.mul(frame(_output, t), _recurrent_weight.value, 1, 1);
        }
        frame(_output, t + 1)
            .lstm_op(gates, _peep_i.value, _peep_f.value, _peep_o.value, frame(_cell, t), cell, i,
                     f, g, o, tanh_cell, kCellLimit, -kCellLimit);
    }
    _result = _output.range_row(1, _frames + 1, _batch);
    return _result;
}

void LstmLayer::backward(const vorn::Tensor<float>& in, vorn::Tensor<float>& error) {
    common::shape_output(&_gate_error, _gates.get_size());
    common::shape_output(&_cell_error, vorn::Dim(_batch, _cells));
    // Nothing comes back to the last frame.
    _next_error.resize(vorn::Dim(_batch, _cells));
    // Once, and not in the product of every frame.
    common::shape_output(&_recurrent_transposed, vorn::Dim(4 * _cells, _cells));
    _recurrent_transposed.transpose(_recurrent_weight.value);
    for (int t = _frames - 1; t >= 0; --t) {
        vorn::Tensor<float> frame_error = frame(error, t);
        if (t + 1 < _frames) {
            const vorn::Tensor<float> later = frame(_gate_error, t + 1);
            frame_error.mul(later, _recurrent_transposed, 1, 1);
            // The cell of this frame reaches the next through the forget gate's product and
            // through the peepholes of the input and forget gates.
            _next_error.elem_mul(_cell_error, frame(_f, t + 1));
            _next_error.row_mul_vec(later.range_col(kInputGate, kInputGate + 1, _cells),
                                    _peep_i.value, 1, 1);
            _next_error.row_mul_vec(later.range_col(kForgetGate, kForgetGate + 1, _cells),
                                    _peep_f.value, 1, 1);
        }
        frame(_gate_error, t)
            .lstm_bp_op(frame(_i, t), frame(_f, t), frame(_g, t), frame(_o, t), _peep_o.value,
                        frame_error, frame(_tanh_cell, t), frame(_cell, t), _next_error,
                        _cell_error);
    }

    _input_weight.gradient.mul(in, true, _gate_error, false);
    _recurrent_weight.gradient.mul(_output.range_row(0, _frames, _batch), true, _gate_error, false);
    _bias.gradient.col_sum(_gate_error);
    const vorn::Tensor<float> cell_before = _cell.range_row(0, _frames, _batch);
    const vorn::Tensor<float> cell_after = _cell.range_row(1, _frames + 1, _batch);
    set_peephole_gradient(&_peep_i, kInputGate, cell_before);
    set_peephole_gradient(&_peep_f, kForgetGate, cell_before);
    set_peephole_gradient(&_peep_o, kOutputGate, cell_after);
}

void LstmLayer::set_peephole_gradient(common::Parameter* peephole, int gate,
                                      const vorn::Tensor<float>& cells) {
    common::shape_output(&_product, cells.get_size());
    _product.elem_mul(_gate_error.range_col(gate, gate + 1, _cells), cells);
    peephole->gradient.col_sum(_product);
}

vorn::Tensor<float>& LstmLayer::compute_input_error() {
    common::shape_output(&_in_error, vorn::Dim(_gate_error.get_h(), _input_weight.value.get_h()));
    _in_error.mul(_gate_error, false, _input_weight.value, true);
    return _in_error;
}

}  // namespace speech
