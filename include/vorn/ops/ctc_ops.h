#ifndef VORN_OPS_CTC_OPS_H_
#define VORN_OPS_CTC_OPS_H_

#include "vorn/cpu/ctc_ops.h"
#include "vorn/gpu/ctc_ops.h"

/// Connectionist temporal classification, the arg-max of rows and the masking of rows; formulas
/// and shapes stand at the members of Tensor. Label values, `row_idx` and the length of
/// `max_id_vec` are the caller's to keep. An output of width 0 is not defined.
namespace vorn {

inline void vorn_compute_ctc_alpha(const Tensor<float>& prob, int row_idx,
                                   const Tensor<int>& labels, const Tensor<int>& frame_num_utt,
                                   const Tensor<int>& label_lengths_utt, Tensor<float>& out) {
    CHECK_SAME_DEVICE(labels, label_lengths_utt);
    CHECK_SAME_DEVICE(frame_num_utt, label_lengths_utt);
    CHECK_SAME_DEVICE(prob, label_lengths_utt);
    CHECK_SAME_DEVICE(out, prob);
    CHECK(labels.get_element_count() % out.get_w() == 0);
    CHECK(labels.get_element_count() == frame_num_utt.get_element_count() * out.get_w());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_compute_ctc_alpha(prob, row_idx, labels, frame_num_utt, label_lengths_utt, out);
    } else {
        gpu::vorn_compute_ctc_alpha(prob, row_idx, labels, frame_num_utt, label_lengths_utt, out);
    }
}

inline void vorn_compute_ctc_beta(const Tensor<float>& prob, int row_idx, const Tensor<int>& labels,
                                  const Tensor<int>& frame_num_utt,
                                  const Tensor<int>& label_lengths_utt, Tensor<float>& out) {
    CHECK_SAME_DEVICE(labels, label_lengths_utt);
    CHECK_SAME_DEVICE(frame_num_utt, label_lengths_utt);
    CHECK_SAME_DEVICE(prob, label_lengths_utt);
    CHECK_SAME_DEVICE(out, prob);
    CHECK(labels.get_element_count() % out.get_w() == 0);
    CHECK(frame_num_utt.get_element_count() * out.get_w() == labels.get_element_count());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_compute_ctc_beta(prob, row_idx, labels, frame_num_utt, label_lengths_utt, out);
    } else {
        gpu::vorn_compute_ctc_beta(prob, row_idx, labels, frame_num_utt, label_lengths_utt, out);
    }
}

inline void vorn_compute_ctc_err(const Tensor<float>& alpha, const Tensor<float>& beta,
                                 const Tensor<int>& labels, const Tensor<int>& frame_num_utt,
                                 const Tensor<float>& pzx, Tensor<float>& out) {
    CHECK_SAME_DEVICE(beta, frame_num_utt);
    CHECK_SAME_DEVICE(labels, frame_num_utt);
    CHECK_SAME_DEVICE(alpha, frame_num_utt);
    CHECK_SAME_DEVICE(out, labels);
    CHECK_SAME_DEVICE(pzx, labels);
    CHECK(labels.get_element_count() % alpha.get_w() == 0);
    CHECK(frame_num_utt.get_element_count() == pzx.get_element_count());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_compute_ctc_err(alpha, beta, labels, frame_num_utt, pzx, out);
    } else {
        gpu::vorn_compute_ctc_err(alpha, beta, labels, frame_num_utt, pzx, out);
    }
}

/// max_id_vec[i] == the column of the largest element of row i, -1 where none lies above the
/// lowest finite float (on a GPU: above CTC_LOG_ZERO).
inline void vorn_find_row_max_id(const Tensor<float>& in, Tensor<int>& max_id_vec) {
    CHECK_SAME_DEVICE(in, max_id_vec);
    CHECK(max_id_vec.get_dim() == 1 || (max_id_vec.get_dim() == 2 && max_id_vec.get_h() == 1));
    if (is_cpu_device(max_id_vec.get_device())) {
        cpu::vorn_find_row_max_id(in, max_id_vec);
    } else {
        gpu::vorn_find_row_max_id(in, max_id_vec);
    }
}

inline void vorn_vec_mask(const Tensor<float>& in, const Tensor<int>& mask, Tensor<float>& out) {
    CHECK_SAME_DEVICE(in, out);
    CHECK_SAME_DEVICE(mask, out);
    CHECK_EQ(in.get_size(), out.get_size());
    CHECK(mask.get_w() == out.get_h());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_vec_mask(in, mask, out);
    } else {
        gpu::vorn_vec_mask(in, mask, out);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_CTC_OPS_H_
