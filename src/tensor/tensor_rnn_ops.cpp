#include "vorn/ops/rnn_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::lstm_op(const Tensor& wx_out, const Tensor& wc_i, const Tensor& wc_f,
                        const Tensor& wc_o, const Tensor& c_pre, Tensor& c_cur, Tensor& i_out,
                        Tensor& f_out, Tensor& c_out, Tensor& o_out, Tensor& hc, float max,
                        float min) {
    vorn_lstm_op(wx_out, wc_i, wc_f, wc_o, c_pre, c_cur, i_out, f_out, c_out, o_out, hc, *this, max,
                 min);
}

template <typename T>
void Tensor<T>::lstm_bp_op(const Tensor& i_out, const Tensor& f_out, const Tensor& c_out,
                           const Tensor& o_out, const Tensor& wc_o, const Tensor& m_err,
                           const Tensor& hc, const Tensor& c_pre, const Tensor& c_err,
                           Tensor& e_cur) {
    vorn_lstm_bp_op(i_out, f_out, c_out, o_out, wc_o, m_err, hc, c_pre, c_err, e_cur, *this);
}

// ---- Instantiations

using F = Tensor<float>;

template void F::lstm_op(const F&, const F&, const F&, const F&, const F&, F&, F&, F&, F&, F&, F&,
                         float, float);
template void F::lstm_bp_op(const F&, const F&, const F&, const F&, const F&, const F&, const F&,
                            const F&, const F&, F&);

}  // namespace vorn
