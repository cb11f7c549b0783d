#ifndef VORN_CPU_RNN_STEP_OPS_H_
#define VORN_CPU_RNN_STEP_OPS_H_

#include <algorithm>

#include "vorn/cpu/kit/fold.h"
#include "vorn/cpu/kit/loops.h"
#include "vorn/cpu/kit/runs.h"
#include "vorn/rules/lstm_rule.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the pieces of an LSTM step. Without rows they write nothing.
namespace vorn {
namespace cpu {

/// f(i, j) for all rows i and columns j. An output may be one of the inputs.
template <typename F>
void for_each_cell(const Tensor<float>& out, F f) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    for (int i = 0; i < height; ++i) {
        for_each_element(width, [=](int j) { f(i, j); });
    }
}

/// The same where all operands are dense: one long row, whose position is its column.
template <typename F>
void for_each_dense_cell(const Tensor<float>& out, F f) {
    for_each_element(static_cast<int>(out.get_element_count()), f);
}

inline void vorn_ld_mul_diag_mat_sigmoid(const Tensor<float>& in, const Tensor<float>& w,
                                         const Tensor<float>& bak, Tensor<float>& out, DType alpha,
                                         DType beta) {
    const float *in_p = in.get_ptr(), *w_p = w.get_ptr(), *bak_p = bak.get_ptr();
    float* out_p = out.get_ptr();
    const int width = static_cast<int>(out.get_w()), ld_bak = static_cast<int>(bak.get_stride());
    for_each_cell(out, [=](int i, int j) {
        const int base = i * width + j;
        const float x = alpha * in_p[base] * w_p[j] + beta * bak_p[i * ld_bak + j];
        out_p[base] = func::guarded_sigmoid(x);
    });
}

inline void vorn_elem_mul_add(const Tensor<float>& a, const Tensor<float>& b,
                              const Tensor<float>& c, const Tensor<float>& d, Tensor<float>& out) {
    const float *a_p = a.get_ptr(), *b_p = b.get_ptr(), *c_p = c.get_ptr(), *d_p = d.get_ptr();
    float* out_p = out.get_ptr();
    for_each_dense_cell(out, [=](int k) { out_p[k] = a_p[k] * b_p[k] + c_p[k] * d_p[k]; });
}

inline void vorn_elem_mul_tanh(const Tensor<float>& a, const Tensor<float>& b,
                               const Tensor<float>& c, Tensor<float>& out) {
    const float *a_p = a.get_ptr(), *c_p = c.get_ptr();
    float *b_p = b.get_ptr(), *out_p = out.get_ptr();
    for_each_dense_cell(out, [=](int k) {
        const float a_k = a_p[k], h = math::tanh(c_p[k]);
        b_p[k] = h;
        out_p[k] = a_k * h;
    });
}

inline void vorn_ld_sigmoid_bprop(const Tensor<float>& b, const Tensor<float>& c,
                                  Tensor<float>& out, DType alpha, DType beta) {
    const float *b_p = b.get_ptr(), *c_p = c.get_ptr();
    float* out_p = out.get_ptr();
    const int b_ld = static_cast<int>(b.get_stride()), c_ld = static_cast<int>(c.get_stride()),
              o_ld = static_cast<int>(out.get_stride());
    for_each_cell(out, [=](int i, int j) {
        float& value = out_p[i * o_ld + j];
        value = func::sigmoid_error(alpha, b_p[i * b_ld + j], c_p[i * c_ld + j]) + beta * value;
    });
}

/// out = rule(a, b, c)
template <typename Rule>
void gate_backprop(Rule rule, const Tensor<float>& a, const Tensor<float>& b,
                   const Tensor<float>& c, Tensor<float>& out) {
    const float *a_p = a.get_ptr(), *b_p = b.get_ptr(), *c_p = c.get_ptr();
    float* out_p = out.get_ptr();
    const int width = static_cast<int>(out.get_w()), o_ld = static_cast<int>(out.get_stride());
    for_each_cell(out, [=](int i, int j) {
        const int base = i * width + j;
        out_p[i * o_ld + j] = rule(a_p[base], b_p[base], c_p[base]);
    });
}

inline void vorn_ld_sigmoid_backprop(const Tensor<float>& a, const Tensor<float>& b,
                                     const Tensor<float>& c, Tensor<float>& out) {
    gate_backprop([](float x, float y, float z) { return func::sigmoid_error(x, y, z); }, a, b, c,
                  out);
}

inline void vorn_ld_cell_cur_error(const Tensor<float>& m_err, const Tensor<float>& o,
                                   const Tensor<float>& hc, const Tensor<float>& o_err,
                                   const Tensor<float>& w_oc, const Tensor<float>& ebc,
                                   Tensor<float>& out) {
    const float *m_p = m_err.get_ptr(), *o_p = o.get_ptr(), *h_p = hc.get_ptr(),
                *o_err_p = o_err.get_ptr(), *w_p = w_oc.get_ptr(), *ebc_p = ebc.get_ptr();
    float* out_p = out.get_ptr();
    const int width = static_cast<int>(out.get_w()), o_ld = static_cast<int>(o.get_stride()),
              o_err_ld = static_cast<int>(o_err.get_stride());
    for_each_cell(out, [=](int i, int j) {
        const int base = i * width + j;
        out_p[base] = func::lstm_state_error(m_p[base], o_p[i * o_ld + j], h_p[base],
                                             o_err_p[i * o_err_ld + j], w_p[j], ebc_p[base]);
    });
}

inline void vorn_ld_cell_back_error(const Tensor<float>& c_err, const Tensor<float>& f,
                                    const Tensor<float>& f_err, const Tensor<float>& w_fc,
                                    const Tensor<float>& i_err, const Tensor<float>& w_ic,
                                    Tensor<float>& out) {
    const float *c_p = c_err.get_ptr(), *f_p = f.get_ptr(), *f_err_p = f_err.get_ptr(),
                *w_f = w_fc.get_ptr(), *i_err_p = i_err.get_ptr(), *w_i = w_ic.get_ptr();
    float* out_p = out.get_ptr();
    const int width = static_cast<int>(out.get_w()), f_ld = static_cast<int>(f_err.get_stride()),
              i_ld = static_cast<int>(i_err.get_stride());
    for_each_cell(out, [=](int i, int j) {
        const int base = i * width + j;
        out_p[base] = func::lstm_back_error(c_p[base], f_p[base], f_err_p[i * f_ld + j], w_f[j],
                                            i_err_p[i * i_ld + j], w_i[j]);
    });
}

inline void vorn_ld_tanh_backprop(const Tensor<float>& a, const Tensor<float>& b,
                                  const Tensor<float>& c, Tensor<float>& out) {
    gate_backprop([](float x, float y, float z) { return func::tanh_error(x, y, z); }, a, b, c,
                  out);
}

/// Per column a running sum from 0 in row order.
inline void vorn_diag_mat_diff(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                               DType alpha, DType beta) {
    const index_t height = a.row(), width = a.get_w(), a_ld = a.get_stride(), b_ld = b.get_stride();
    if (height == 0) {
        return;
    }
    const float *a_p = a.get_ptr(), *b_p = b.get_ptr();
    float* out_p = out.get_ptr();
    fold_columns(
        func::reduce_sum<float>(), height, width,
        [=](index_t i, index_t j) { return a_p[i * a_ld + j] * b_p[i * b_ld + j]; },
        [=](index_t j, float sum) { out_p[j] = alpha * sum + beta * out_p[j]; });
}

/// The farthest target of each sequence goes through get_row, so that a length that leads out of
/// the matrix stops the call.
inline void vorn_mask_reverse(const Tensor<float>& in, const Tensor<int>& batch_seq_len,
                              Tensor<float>& out, int batch_size, int seq_len) {
    if (seq_len < 1) {
        return;
    }
    const int* lengths = batch_seq_len.get_ptr();
    for (int b = 0; b < batch_size; ++b) {
        out.get_row((std::max(lengths[b], seq_len) - 1) * batch_size + b);
    }
    const index_t feature_size = in.get_size(1), in_ld = in.get_stride(), out_ld = out.get_stride();
    const float* in_row = in.get_ptr();
    float* out_p = out.get_ptr();
    for (int s = 0; s < seq_len; ++s) {
        for (int b = 0; b < batch_size; ++b, in_row += in_ld) {
            const index_t target = s < lengths[b] ? lengths[b] - 1 - s : s;
            copy_run(out_p + (target * batch_size + b) * out_ld, in_row, feature_size);
        }
    }
}

struct CountNonzero {
    int identity() const { return 0; }
    int combine(int count, int label) const { return count + (label != 0); }
};

inline void vorn_count_valid_label(const Tensor<int>& mask, Tensor<int>& batch_seq_len,
                                   int batch_size, int sub_frame_len) {
    int* out_p = batch_seq_len.get_ptr();
    const int* labels = mask.get_ptr();
    fold_columns(
        CountNonzero(), sub_frame_len, batch_size,
        [=](index_t s, index_t b) { return labels[s * batch_size + b]; },
        [=](index_t b, int count) { out_p[b] = count; });
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_RNN_STEP_OPS_H_
