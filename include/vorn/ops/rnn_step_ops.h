#ifndef VORN_OPS_RNN_STEP_OPS_H_
#define VORN_OPS_RNN_STEP_OPS_H_

#include "vorn/cpu/rnn_step_ops.h"
#include "vorn/gpu/rnn_step_ops.h"

/// The pieces of an LSTM step, and the shaping of batches of sequences of unequal length; formulas
/// stand at the members of Tensor. The size of `out` (of `a` in vorn_diag_mat_diff) rules: operands
/// whose shape no check compares with it are the caller's. A GPU takes at most 65535 rows in the
/// element-wise operations and refuses the launch beyond that.
namespace vorn {

/// `in`, `w` and `out` dense; `bak` with a pitch of its own.
inline void vorn_ld_mul_diag_mat_sigmoid(const Tensor<float>& in, const Tensor<float>& w,
                                         const Tensor<float>& bak, Tensor<float>& out, DType alpha,
                                         DType beta) {
    CHECK_MATRIX(in);
    CHECK_MATRIX(bak);
    CHECK_LE(w.get_dim(), 2);
    CHECK(in.is_contiguous());
    CHECK(w.is_contiguous());
    CHECK(out.is_contiguous());
    CHECK_SAME_DEVICE(w, out);
    CHECK_SAME_DEVICE(bak, out);
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_ld_mul_diag_mat_sigmoid(in, w, bak, out, alpha, beta);
    } else {
        gpu::vorn_ld_mul_diag_mat_sigmoid(in, w, bak, out, alpha, beta);
    }
}

/// All dense; that `out` is stays untested.
inline void vorn_elem_mul_add(const Tensor<float>& a, const Tensor<float>& b,
                              const Tensor<float>& c, const Tensor<float>& d, Tensor<float>& out) {
    CHECK(a.is_contiguous());
    CHECK(b.is_contiguous());
    CHECK(c.is_contiguous());
    CHECK(d.is_contiguous());
    CHECK_SAME_DEVICE(c, out);
    CHECK_SAME_DEVICE(d, out);
    CHECK_SAME_DEVICE(b, out);
    CHECK_SAME_DEVICE(a, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_elem_mul_add(a, b, c, d, out);
    } else {
        gpu::vorn_elem_mul_add(a, b, c, d, out);
    }
}

/// All dense. Writes `b` too, which must be sized like `out`.
inline void vorn_elem_mul_tanh(const Tensor<float>& a, const Tensor<float>& b,
                               const Tensor<float>& c, Tensor<float>& out) {
    CHECK(a.is_contiguous());
    CHECK(b.is_contiguous());
    CHECK(c.is_contiguous());
    CHECK(out.is_contiguous());
    CHECK_MATRIX(a);
    CHECK_MATRIX(b);
    CHECK_MATRIX(c);
    CHECK_MATRIX(out);
    CHECK_SAME_DEVICE(b, out);
    CHECK_SAME_DEVICE(c, out);
    CHECK_SAME_DEVICE(a, out);
    CHECK_EQ(out.get_size(), a.get_size());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_elem_mul_tanh(a, b, c, out);
    } else {
        gpu::vorn_elem_mul_tanh(a, b, c, out);
    }
}

/// Each with a pitch of its own. The old `out` is read even if `beta` is 0.
inline void vorn_ld_sigmoid_bprop(const Tensor<float>& b, const Tensor<float>& c,
                                  Tensor<float>& out, DType alpha, DType beta) {
    CHECK_EQ(b.get_size(), out.get_size());
    CHECK_SAME_DEVICE(b, out);
    CHECK_SAME_DEVICE(c, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_ld_sigmoid_bprop(b, c, out, alpha, beta);
    } else {
        gpu::vorn_ld_sigmoid_bprop(b, c, out, alpha, beta);
    }
}

/// `a`, `b` and `c` are addressed as dense, untested; `out` has a pitch of its own.
inline void vorn_ld_sigmoid_backprop(const Tensor<float>& a, const Tensor<float>& b,
                                     const Tensor<float>& c, Tensor<float>& out) {
    CHECK_SAME_DEVICE(b, out);
    CHECK_SAME_DEVICE(c, out);
    CHECK_SAME_DEVICE(a, out);
    CHECK_MATRIX(a);
    CHECK_MATRIX(b);
    CHECK_MATRIX(c);
    CHECK_MATRIX(out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_ld_sigmoid_backprop(a, b, c, out);
    } else {
        gpu::vorn_ld_sigmoid_backprop(a, b, c, out);
    }
}

/// `o` and `o_err` with pitches of their own, the others dense; that `ebc` is stays untested.
inline void vorn_ld_cell_cur_error(const Tensor<float>& m_err, const Tensor<float>& o,
                                   const Tensor<float>& hc, const Tensor<float>& o_err,
                                   const Tensor<float>& w_oc, const Tensor<float>& ebc,
                                   Tensor<float>& out) {
    CHECK_MATRIX(m_err);
    CHECK_MATRIX(o);
    CHECK_MATRIX(hc);
    CHECK_MATRIX(o_err);
    CHECK_MATRIX(ebc);
    CHECK_MATRIX(out);
    CHECK_LE(w_oc.get_dim(), 2);
    CHECK_SAME_DEVICE(hc, w_oc);
    CHECK_SAME_DEVICE(o_err, w_oc);
    CHECK_SAME_DEVICE(o, w_oc);
    CHECK_SAME_DEVICE(m_err, w_oc);
    CHECK_SAME_DEVICE(w_oc, out);
    CHECK_SAME_DEVICE(ebc, out);
    CHECK(out.is_contiguous());
    CHECK(m_err.is_contiguous());
    CHECK(hc.is_contiguous());
    CHECK(w_oc.is_contiguous());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_ld_cell_cur_error(m_err, o, hc, o_err, w_oc, ebc, out);
    } else {
        gpu::vorn_ld_cell_cur_error(m_err, o, hc, o_err, w_oc, ebc, out);
    }
}

/// `f_err` and `i_err` with pitches of their own, the others dense.
inline void vorn_ld_cell_back_error(const Tensor<float>& c_err, const Tensor<float>& f,
                                    const Tensor<float>& f_err, const Tensor<float>& w_fc,
                                    const Tensor<float>& i_err, const Tensor<float>& w_ic,
                                    Tensor<float>& out) {
    CHECK_SAME_DEVICE(f_err, i_err);
    CHECK_SAME_DEVICE(w_fc, i_err);
    CHECK_SAME_DEVICE(f, i_err);
    CHECK_SAME_DEVICE(c_err, i_err);
    CHECK_SAME_DEVICE(c_err, out);
    CHECK_SAME_DEVICE(w_ic, out);
    CHECK_MATRIX(c_err);
    CHECK_MATRIX(f);
    CHECK_MATRIX(f_err);
    CHECK_MATRIX(i_err);
    CHECK(out.is_contiguous());
    CHECK(c_err.is_contiguous());
    CHECK(f.is_contiguous());
    CHECK(w_fc.is_contiguous());
    CHECK(w_ic.is_contiguous());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_ld_cell_back_error(c_err, f, f_err, w_fc, i_err, w_ic, out);
    } else {
        gpu::vorn_ld_cell_back_error(c_err, f, f_err, w_fc, i_err, w_ic, out);
    }
}

/// `a`, `b` and `c` dense; `out` with a pitch of its own.
inline void vorn_ld_tanh_backprop(const Tensor<float>& a, const Tensor<float>& b,
                                  const Tensor<float>& c, Tensor<float>& out) {
    CHECK_SAME_DEVICE(b, out);
    CHECK_SAME_DEVICE(c, out);
    CHECK_SAME_DEVICE(a, out);
    CHECK(a.is_contiguous());
    CHECK(b.is_contiguous());
    CHECK(c.is_contiguous());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_ld_tanh_backprop(a, b, c, out);
    } else {
        gpu::vorn_ld_tanh_backprop(a, b, c, out);
    }
}

/// `a` and `b` with pitches of their own. Each column is summed in row order on the host; the
/// orders of the two GPU kernels differ from that, and so may the last bits. Without rows the host
/// leaves `out` as it was, and a GPU scales it by `beta`.
inline void vorn_diag_mat_diff(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                               DType alpha, DType beta) {
    CHECK_SAME_DEVICE(a, out);
    CHECK_SAME_DEVICE(b, out);
    CHECK_EQ(a.get_size(), b.get_size());
    CHECK_MATRIX(a);
    CHECK_MATRIX(b);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_diag_mat_diff(a, b, out, alpha, beta);
    } else {
        gpu::vorn_diag_mat_diff(a, b, out, alpha, beta);
    }
}

/// Rows are `in.get_size(1)` floats; a GPU takes dense matrices only. Lengths above `seq_len` or
/// below 0 and a smaller `out` are the caller's to avoid.
inline void vorn_mask_reverse(const Tensor<float>& in, const Tensor<int>& batch_seq_len,
                              Tensor<float>& out, int batch_size, int seq_len) {
    CHECK_MATRIX(in);
    CHECK_MATRIX(out);
    CHECK_SAME_DEVICE(in, out);
    CHECK_SAME_DEVICE(batch_seq_len, out);
    CHECK(batch_seq_len.get_element_count() == static_cast<index_t>(batch_size));
    CHECK(in.get_size(0) == static_cast<index_t>(batch_size * seq_len));
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mask_reverse(in, batch_seq_len, out, batch_size, seq_len);
    } else {
        gpu::vorn_mask_reverse(in, batch_seq_len, out, batch_size, seq_len);
    }
}

/// All frames that are not 0 count, after a hole too.
inline void vorn_count_valid_label(const Tensor<int>& mask, Tensor<int>& batch_seq_len,
                                   int batch_size, int sub_frame_len) {
    CHECK_SAME_DEVICE(mask, batch_seq_len);
    CHECK(mask.get_element_count() == static_cast<index_t>(batch_size * sub_frame_len));
    CHECK(batch_seq_len.get_element_count() == static_cast<index_t>(batch_size));
    if (is_cpu_device(batch_seq_len.get_device())) {
        cpu::vorn_count_valid_label(mask, batch_seq_len, batch_size, sub_frame_len);
    } else {
        gpu::vorn_count_valid_label(mask, batch_seq_len, batch_size, sub_frame_len);
    }
}

/// Counts are integers: aborts.
inline void vorn_count_valid_label(const Tensor<int>&, Tensor<float>&, int, int) {
    LOG_FATAL << "Not Implemented Yet";
}

}  // namespace vorn

#endif  // VORN_OPS_RNN_STEP_OPS_H_
