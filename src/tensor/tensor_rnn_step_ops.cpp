#include "vorn/ops/rnn_step_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::ld_mul_diag_mat_sigmoid(const Tensor& in, const Tensor& w, const Tensor& bak,
                                        DType alpha, DType beta) {
    vorn_ld_mul_diag_mat_sigmoid(in, w, bak, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::elem_mul_add(const Tensor& a, const Tensor& b, const Tensor& c, const Tensor& d) {
    vorn_elem_mul_add(a, b, c, d, *this);
}

template <typename T>
void Tensor<T>::elem_mul_tanh(const Tensor& a, const Tensor& b, const Tensor& c) {
    vorn_elem_mul_tanh(a, b, c, *this);
}

template <typename T>
void Tensor<T>::ld_sigmoid_bprop(const Tensor& b, const Tensor& c, DType alpha, DType beta) {
    vorn_ld_sigmoid_bprop(b, c, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::ld_sigmoid_backprop(const Tensor& a, const Tensor& b, const Tensor& c) {
    vorn_ld_sigmoid_backprop(a, b, c, *this);
}

template <typename T>
void Tensor<T>::ld_cell_cur_error(const Tensor& m_err, const Tensor& o, const Tensor& hc,
                                  const Tensor& o_err, const Tensor& w_oc, const Tensor& ebc) {
    vorn_ld_cell_cur_error(m_err, o, hc, o_err, w_oc, ebc, *this);
}

template <typename T>
void Tensor<T>::ld_cell_back_error(const Tensor& c_err, const Tensor& f, const Tensor& f_err,
                                   const Tensor& w_fc, const Tensor& i_err, const Tensor& w_ic) {
    vorn_ld_cell_back_error(c_err, f, f_err, w_fc, i_err, w_ic, *this);
}

template <typename T>
void Tensor<T>::ld_tanh_backprop(const Tensor& a, const Tensor& b, const Tensor& c) {
    vorn_ld_tanh_backprop(a, b, c, *this);
}

template <typename T>
void Tensor<T>::diag_mat_diff(const Tensor& a, const Tensor& b, DType alpha, DType beta) {
    vorn_diag_mat_diff(a, b, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::mask_reverse(const Tensor& in, const Tensor<int>& batch_seq_len, int batch_size,
                             int seq_len) {
    vorn_mask_reverse(in, batch_seq_len, *this, batch_size, seq_len);
}

template <typename T>
void Tensor<T>::count_valid_label(const Tensor<int>& mask, int batch_size, int sub_frame_len) {
    vorn_count_valid_label(mask, *this, batch_size, sub_frame_len);
}

// ---- Instantiations

using F = Tensor<float>;
using I = Tensor<int>;

template void F::ld_mul_diag_mat_sigmoid(const F&, const F&, const F&, DType, DType);
template void F::elem_mul_add(const F&, const F&, const F&, const F&);
template void F::elem_mul_tanh(const F&, const F&, const F&);
template void F::ld_sigmoid_bprop(const F&, const F&, DType, DType);
template void F::ld_sigmoid_backprop(const F&, const F&, const F&);
template void F::ld_cell_cur_error(const F&, const F&, const F&, const F&, const F&, const F&);
template void F::ld_cell_back_error(const F&, const F&, const F&, const F&, const F&, const F&);
template void F::ld_tanh_backprop(const F&, const F&, const F&);
template void F::diag_mat_diff(const F&, const F&, DType, DType);
template void F::mask_reverse(const F&, const I&, int, int);
template void F::count_valid_label(const I&, int, int);
template void I::count_valid_label(const I&, int, int);

}  // namespace vorn
