#include "vorn/ops/ctc_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::compute_ctc_alpha(const Tensor<float>& prob, int row_idx, const Tensor<int>& labels,
                                  const Tensor<int>& frame_num_utt,
                                  const Tensor<int>& label_lengths_utt) {
    vorn_compute_ctc_alpha(prob, row_idx, labels, frame_num_utt, label_lengths_utt, *this);
}

template <typename T>
void Tensor<T>::compute_ctc_beta(const Tensor<float>& prob, int row_idx, const Tensor<int>& labels,
                                 const Tensor<int>& frame_num_utt,
                                 const Tensor<int>& label_lengths_utt) {
    vorn_compute_ctc_beta(prob, row_idx, labels, frame_num_utt, label_lengths_utt, *this);
}

template <typename T>
void Tensor<T>::compute_ctc_err(const Tensor<float>& alpha, const Tensor<float>& beta,
                                const Tensor<int>& labels, const Tensor<int>& frame_num_utt,
                                const Tensor<float>& pzx) {
    vorn_compute_ctc_err(alpha, beta, labels, frame_num_utt, pzx, *this);
}

template <typename T>
void Tensor<T>::find_row_max_id(Tensor<int>& max_id_vec) const {
    vorn_find_row_max_id(*this, max_id_vec);
}

template <typename T>
void Tensor<T>::vec_mask(const Tensor<float>& in, const Tensor<int>& mask) {
    vorn_vec_mask(in, mask, *this);
}

// ---- Instantiations

using F = Tensor<float>;
using I = Tensor<int>;

template void F::compute_ctc_alpha(const F&, int, const I&, const I&, const I&);
template void F::compute_ctc_beta(const F&, int, const I&, const I&, const I&);
template void F::compute_ctc_err(const F&, const F&, const I&, const I&, const F&);
template void F::find_row_max_id(I&) const;
template void F::vec_mask(const F&, const I&);

}  // namespace vorn
