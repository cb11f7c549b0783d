#ifndef VORN_OPS_RNN_OPS_H_
#define VORN_OPS_RNN_OPS_H_

#include "vorn/cpu/rnn_ops.h"
#include "vorn/gpu/rnn_ops.h"

/// One time step of an LSTM layer; formulas and shapes stand at the members of Tensor.
namespace vorn {

/// Tensor::lstm_op on `m_cur`. Aborts on peepholes of unequal widths, on `wx_out` not exactly four
/// times as wide, and on a null pointer on a GPU; other shapes are the caller's.
inline void vorn_lstm_op(const Tensor<float>& wx_out, const Tensor<float>& wc_i,
                         const Tensor<float>& wc_f, const Tensor<float>& wc_o,
                         const Tensor<float>& c_pre, Tensor<float>& c_cur, Tensor<float>& i_out,
                         Tensor<float>& f_out, Tensor<float>& c_out, Tensor<float>& o_out,
                         Tensor<float>& hc, Tensor<float>& m_cur, float max, float min) {
    CHECK(wc_i.get_width() == wc_f.get_width());
    CHECK(wc_i.get_width() == wc_o.get_width());
    CHECK(wx_out.get_width() == 4 * wc_i.get_width());
    if (is_cpu_device(m_cur.get_device())) {
        cpu::vorn_lstm_op(wx_out, wc_i, wc_f, wc_o, c_pre, c_cur, i_out, f_out, c_out, o_out, hc,
                          m_cur, max, min);
    } else {
        gpu::vorn_lstm_op(wx_out, wc_i, wc_f, wc_o, c_pre, c_cur, i_out, f_out, c_out, o_out, hc,
                          m_cur, max, min);
    }
}

/// Tensor::lstm_bp_op on `wx_err`. All shapes are the caller's.
inline void vorn_lstm_bp_op(const Tensor<float>& i_out, const Tensor<float>& f_out,
                            const Tensor<float>& c_out, const Tensor<float>& o_out,
                            const Tensor<float>& wc_o, const Tensor<float>& m_err,
                            const Tensor<float>& hc, const Tensor<float>& c_pre,
                            const Tensor<float>& c_err, Tensor<float>& e_cur,
                            Tensor<float>& wx_err) {
    if (is_cpu_device(wx_err.get_device())) {
        cpu::vorn_lstm_bp_op(i_out, f_out, c_out, o_out, wc_o, m_err, hc, c_pre, c_err, e_cur,
                             wx_err);
    } else {
        gpu::vorn_lstm_bp_op(i_out, f_out, c_out, o_out, wc_o, m_err, hc, c_pre, c_err, e_cur,
                             wx_err);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_RNN_OPS_H_
