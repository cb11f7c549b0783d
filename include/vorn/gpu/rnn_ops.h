#ifndef VORN_GPU_RNN_OPS_H_
#define VORN_GPU_RNN_OPS_H_

#include <algorithm>
#include <type_traits>

#include "vorn/gpu/kernel_util.h"
#include "vorn/rules/lstm_rule.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of the fused LSTM steps: one launch a step, one thread a cell.
namespace vorn {
namespace gpu {

const int kLstmThreads = 256;  ///< Threads along the cells, so that a row is read coalesced.

/// in: (height x 4 width), pitch ld_in; c_pre, c_cur: (height x width), pitches of their own; the
/// other outputs: (height x width), pitch ld_out; wc_*: width.
template <bool is_limit>
__global__ void KeLstmOp(const float* in, const float* wc_i, const float* wc_f, const float* wc_o,
                         const float* c_pre, float* c_cur, float* i_out, float* f_out, float* c_out,
                         float* o_out, float* hc, float* out, size_t ld_in, size_t ld_c_pre,
                         size_t ld_c_cur, size_t ld_out, size_t width, size_t height, float max_v,
                         float min_v) {
    for (size_t row = blockIdx.y; row < height; row += gridDim.y) {
        const float* in_row = in + row * ld_in;
        for (size_t col = blockIdx.x * static_cast<size_t>(blockDim.x) + threadIdx.x; col < width;
             col += gridDim.x * static_cast<size_t>(blockDim.x)) {
            const func::LstmCell cell = func::lstm_cell<is_limit>(
                in_row[col], in_row[width + col], in_row[2 * width + col], in_row[3 * width + col],
                wc_i[col], wc_f[col], wc_o[col], c_pre[row * ld_c_pre + col], max_v, min_v);
            const size_t pos = row * ld_out + col;
            i_out[pos] = cell.i;
            f_out[pos] = cell.f;
            c_out[pos] = cell.g;
            c_cur[row * ld_c_cur + col] = cell.c;
            o_out[pos] = cell.o;
            hc[pos] = cell.h;
            out[pos] = cell.m;
        }
    }
}

/// wx_err: (height x 4 width), pitch stride; the other matrices: (height x width), dense.
static __global__ void KeLstmBpOp(const float* i_out, const float* f_out, const float* c_out,
                                  const float* o_out, const float* wc_o, const float* m_err,
                                  const float* hc, const float* c_pre, const float* c_err,
                                  float* e_cur, float* wx_err, size_t stride, size_t width,
                                  size_t height) {
    for (size_t row = blockIdx.y; row < height; row += gridDim.y) {
        float* err_row = wx_err + row * stride;
        for (size_t col = blockIdx.x * static_cast<size_t>(blockDim.x) + threadIdx.x; col < width;
             col += gridDim.x * static_cast<size_t>(blockDim.x)) {
            const size_t pos = row * width + col;
            const func::LstmCellError error =
                func::lstm_cell_bp(i_out[pos], f_out[pos], c_out[pos], o_out[pos], wc_o[col],
                                   m_err[pos], hc[pos], c_pre[pos], c_err[pos]);
            err_row[2 * width + col] = error.d_o;
            e_cur[pos] = error.e;
            err_row[3 * width + col] = error.d_c;
            err_row[width + col] = error.d_f;
            err_row[col] = error.d_i;
        }
    }
}

inline void vorn_lstm_op(const Tensor<float>& wx_out, const Tensor<float>& wc_i,
                         const Tensor<float>& wc_f, const Tensor<float>& wc_o,
                         const Tensor<float>& c_pre, Tensor<float>& c_cur, Tensor<float>& i_out,
                         Tensor<float>& f_out, Tensor<float>& c_out, Tensor<float>& o_out,
                         Tensor<float>& hc, Tensor<float>& m_cur, float max, float min) {
    if (!wx_out.get_ptr() || !c_pre.get_ptr() || !c_cur.get_ptr() || !m_cur.get_ptr()) {
        CHECK(false);
    }
    const index_t sub_width = wc_i.get_width(), sub_height = wx_out.get_height();
    const auto queue = [&](auto limit) {
        launch<KeLstmOp<decltype(limit)::value>>(
            matrix_grid(sub_height, sub_width, kLstmThreads), kLstmThreads, wx_out.get_ptr(),
            wc_i.get_ptr(), wc_f.get_ptr(), wc_o.get_ptr(), c_pre.get_ptr(), c_cur.get_ptr(),
            i_out.get_ptr(), f_out.get_ptr(), c_out.get_ptr(), o_out.get_ptr(), hc.get_ptr(),
            m_cur.get_ptr(), wx_out.get_stride(), c_pre.get_stride(), c_cur.get_stride(),
            m_cur.get_stride(), sub_width, sub_height, max, min);
    };
    if (func::is_lstm_limit(max, min)) {
        queue(std::true_type());
    } else {
        queue(std::false_type());
    }
    VORN_KERNEL_TAIL();
}

inline void vorn_lstm_bp_op(const Tensor<float>& i_out, const Tensor<float>& f_out,
                            const Tensor<float>& c_out, const Tensor<float>& o_out,
                            const Tensor<float>& wc_o, const Tensor<float>& m_err,
                            const Tensor<float>& hc, const Tensor<float>& c_pre,
                            const Tensor<float>& c_err, Tensor<float>& e_cur,
                            Tensor<float>& wx_err) {
    const index_t sub_width = i_out.get_width(), sub_height = i_out.get_height();
    launch<KeLstmBpOp>(matrix_grid(sub_height, sub_width, kLstmThreads), kLstmThreads,
                       i_out.get_ptr(), f_out.get_ptr(), c_out.get_ptr(), o_out.get_ptr(),
                       wc_o.get_ptr(), m_err.get_ptr(), hc.get_ptr(), c_pre.get_ptr(),
                       c_err.get_ptr(), e_cur.get_ptr(), wx_err.get_ptr(), wx_err.get_stride(),
                       sub_width, sub_height);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_RNN_OPS_H_
