#ifndef VORN_RULES_LSTM_RULE_H_
#define VORN_RULES_LSTM_RULE_H_

#include <cmath>

#include "vorn/host_device.h"
#include "vorn/rules/scalar_math.h"

/// One cell of an LSTM with peepholes, all in single precision, written once for host and device.
namespace vorn {
namespace func {

/// 1 / (1 + exp(-x)), with x kept above -64: the exponential stays far from overflow, and a closed
/// gate lets about 1.6e-28 pass. Above 64 the exponential is lost beside 1 anyway.
VORN_HD inline float guarded_sigmoid(float x) {
    return 1.0f / (1.0f + math::limited_exp(-x, -64.0f, 64.0f));
}

/// True where an LSTM step clips its cell state. Bounds that are (nearly) equal switch it off.
inline bool is_lstm_limit(float max, float min) {
    return std::fabs(max - min) > 1e-6;
}

/// A gate from its pre-activation `x`, its peephole weight and the cell state that it sees.
VORN_HD inline float lstm_gate(float x, float wc, float c) {
    return guarded_sigmoid(wc * c + x);
}

/// The new cell state. The upper bound is applied last.
template <bool is_limit>
VORN_HD inline float lstm_state(float i, float f, float g, float c_pre, float max, float min) {
    float c = f * c_pre + i * g;
    if (is_limit) {
        c = c < min ? min : c;
        c = c > max ? max : c;
    }
    return c;
}

/// What the forward step makes of one cell; the names are those of Tensor::lstm_op.
struct LstmCell {
    float i, f, g, c, o, h, m;
};

/// The forward step from the pre-activations `x_*`, the peepholes `wc_*` and the old cell state.
/// The output gate's peephole sees the new, clipped state.
template <bool is_limit>
VORN_HD inline LstmCell lstm_cell(float x_i, float x_f, float x_o, float x_c, float wc_i,
                                  float wc_f, float wc_o, float c_pre, float max, float min) {
    LstmCell cell;
    cell.i = lstm_gate(x_i, wc_i, c_pre);
    cell.f = lstm_gate(x_f, wc_f, c_pre);
    cell.g = math::tanh(x_c);
    cell.c = lstm_state<is_limit>(cell.i, cell.f, cell.g, c_pre, max, min);
    cell.o = lstm_gate(x_o, wc_o, cell.c);
    cell.h = math::tanh(cell.c);
    cell.m = cell.o * cell.h;
    return cell;
}

/// What an error `a` * `b` after a gate is before it, from the gate's value `c`.
VORN_HD inline float sigmoid_error(float a, float b, float c) {
    return a * b * c * (1 - c);
}

/// The same through a tanh of value `c`.
VORN_HD inline float tanh_error(float a, float b, float c) {
    return a * b * (1 - c * c);
}

/// The error of a cell state: through the output, through the peephole of the output gate, and
/// from the following step.
VORN_HD inline float lstm_state_error(float m_err, float o, float h, float d_o, float wc_o,
                                      float c_err) {
    return m_err * o * (1 - h * h) + d_o * wc_o + c_err;
}

/// What `lstm_state_error` takes from the following step, whose state error is `c_err`: along the
/// state, and through the peepholes of its forget and input gates.
VORN_HD inline float lstm_back_error(float c_err, float f, float d_f, float wc_f, float d_i,
                                     float wc_i) {
    return c_err * f + d_f * wc_f + d_i * wc_i;
}

/// Errors of one cell: of its state and of its four pre-activations.
struct LstmCellError {
    float e, d_i, d_f, d_o, d_c;
};

/// The backward step from the saved activations and the errors from above and from the next step.
VORN_HD inline LstmCellError lstm_cell_bp(float i, float f, float g, float o, float wc_o,
                                          float m_err, float h, float c_pre, float c_err) {
    LstmCellError error;
    error.d_o = sigmoid_error(m_err, h, o);
    error.e = lstm_state_error(m_err, o, h, error.d_o, wc_o, c_err);
    error.d_c = tanh_error(error.e, i, g);
    error.d_f = sigmoid_error(error.e, c_pre, f);
    error.d_i = sigmoid_error(error.e, g, i);
    return error;
}

}  // namespace func
}  // namespace vorn

#endif  // VORN_RULES_LSTM_RULE_H_
