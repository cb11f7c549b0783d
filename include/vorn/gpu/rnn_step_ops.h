#ifndef VORN_GPU_RNN_STEP_OPS_H_
#define VORN_GPU_RNN_STEP_OPS_H_

#include <algorithm>

#include "vorn/gpu/kernel_util.h"
#include "vorn/rules/lstm_rule.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of the pieces of an LSTM step. The element-wise kernels give each thread one element
/// of a (height x width) result, one row a block row.
namespace vorn {
namespace gpu {

const int kRnnStepThreads = 256;     ///< Threads along the columns.
const int kMulAddThreads = 128;      ///< The same where a thread has little to do.
const int kDiagThreads = 128;        ///< Columns of a block of KeDiagMatrixDiff.
const int kDiagTile = 32;            ///< Columns, and threads a column, of KeDiagMatrixDiff_S.
const index_t kDiagWideFrom = 8192;  ///< From this width on, single threads fill a GPU.

__device__ inline int cell_col() {
    return blockIdx.x * blockDim.x + threadIdx.x;
}

/// in, out: (height x width), dense; w: width; bak: (height x width), pitch ld_bak.
static __global__ void ke_ld_mul_diag_mat_sigmoid(const float* in, const float* w, const float* bak,
                                                  float* out, int ld_bak, int height, int width,
                                                  float alpha, float beta) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const int pos = row * width + col;
        out[pos] = func::guarded_sigmoid(alpha * in[pos] * w[col] + beta * bak[row * ld_bak + col]);
    }
}

/// All (height x width), dense.
static __global__ void KeElemMulAdd(const float* a, const float* b, const float* c, const float* d,
                                    float* out, int height, int width) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const int pos = row * width + col;
        out[pos] = a[pos] * b[pos] + c[pos] * d[pos];
    }
}

/// All (height x width), dense; b and out are written.
static __global__ void ke_elem_mul_tanh(const float* a, float* b, const float* c, float* out,
                                        int height, int width) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const int pos = row * width + col;
        const float a_pos = a[pos], h = math::tanh(c[pos]);
        b[pos] = h;
        out[pos] = a_pos * h;
    }
}

/// All (height x width), each with its pitch.
static __global__ void KeSigmoidBp(const float* b, size_t b_stride, const float* c, size_t c_stride,
                                   float* out, size_t out_stride, int height, int width,
                                   float alpha, float beta) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const size_t pos = row * out_stride + col;
        out[pos] = func::sigmoid_error(alpha, b[row * b_stride + col], c[row * c_stride + col]) +
                   beta * out[pos];
    }
}

/// a, b, c: (height x width), dense; out: the same, pitch o_ld.
static __global__ void ke_ld_sigmoid_backprop(const float* a, const float* b, const float* c,
                                              float* out, int o_ld, int height, int width) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const int pos = row * width + col;
        out[row * o_ld + col] = func::sigmoid_error(a[pos], b[pos], c[pos]);
    }
}

/// All (height x width): o with pitch o_ld, o_err with pitch o_err_ld, the others dense; w_oc:
/// width.
static __global__ void ke_ld_cell_cur_error(const float* m_err, const float* o, const float* hc,
                                            const float* o_err, const float* w_oc, const float* ebc,
                                            float* out, int o_ld, int o_err_ld, int height,
                                            int width) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const int pos = row * width + col;
        out[pos] = func::lstm_state_error(m_err[pos], o[row * o_ld + col], hc[pos],
                                          o_err[row * o_err_ld + col], w_oc[col], ebc[pos]);
    }
}

/// All (height x width): f_err with pitch f_ld, i_err with pitch i_ld, the others dense; w_fc,
/// w_ic: width.
static __global__ void ke_ld_cell_back_error(const float* c_err, const float* f, const float* f_err,
                                             const float* w_fc, const float* i_err,
                                             const float* w_ic, float* out, int f_ld, int i_ld,
                                             int height, int width) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const int pos = row * width + col;
        out[pos] = func::lstm_back_error(c_err[pos], f[pos], f_err[row * f_ld + col], w_fc[col],
                                         i_err[row * i_ld + col], w_ic[col]);
    }
}

/// a, b, c: (height x width), dense; out: the same, pitch o_ld.
static __global__ void ke_ld_tanh_backprop(const float* a, const float* b, const float* c,
                                           float* out, int o_ld, int height, int width) {
    const int col = cell_col(), row = blockIdx.y;
    if (col < width && row < height) {
        const int pos = row * width + col;
        out[row * o_ld + col] = func::tanh_error(a[pos], b[pos], c[pos]);
    }
}

/// a, b: (height x width), pitches a_ld and b_ld; out: width. One thread a column.
static __global__ void KeDiagMatrixDiff(const float* a, size_t a_ld, const float* b, size_t b_ld,
                                        float* out, size_t /*out_stride*/, int height, int width,
                                        float alpha, float beta) {
    const int col = cell_col();
    if (col < width) {
        float sum = 0;
        for (int row = 0; row < height; ++row) {
            sum = fmaf(a[row * a_ld + col], b[row * b_ld + col], sum);
        }
        out[col] = alpha * sum + beta * out[col];
    }
}

/// The same with kDiagTile threads a column: thread y of a column takes every kDiagTile-th row from
/// row y on, and thread 0 adds their sums.
static __global__ void KeDiagMatrixDiff_S(const float* a, size_t a_ld, const float* b, size_t b_ld,
                                          float* out, size_t /*out_stride*/, int height, int width,
                                          float alpha, float beta) {
    __shared__ float part[kDiagTile][kDiagTile];
    const int col = cell_col(), x = threadIdx.x, y = threadIdx.y;
    float sum = 0;
    if (col < width) {
        for (index_t row = y; row < height; row += kDiagTile) {
            sum += a[row * a_ld + col] * b[row * b_ld + col];
        }
    }
    part[y][x] = sum;
    __syncthreads();
    if (y == 0 && col < width) {
        sum = 0;
        for (int k = 0; k < kDiagTile; ++k) {
            sum += part[k][x];
        }
        out[col] = alpha * sum + beta * out[col];
    }
}

/// in, out: (seq_len * batch_size x feature_size), batch_seq_len: batch_size. One block a row.
static __global__ void KeMaskReverse(const float* in, const int* batch_seq_len, float* out,
                                     int batch_size, int seq_len, int feature_size) {
    for (index_t r = blockIdx.x; r < batch_size * seq_len; r += gridDim.x) {
        const int row = static_cast<int>(r);
        const int s = row / batch_size, b = row % batch_size, cur_seq_len = batch_seq_len[b];
        const int target = s < cur_seq_len ? (cur_seq_len - 1 - s) * batch_size + b : row;
        for (index_t col = threadIdx.x; col < feature_size; col += blockDim.x) {
            out[target * feature_size + col] = in[row * feature_size + col];
        }
    }
}

// Apart, because label_ops.h has a template of the same name, and nvcc doesn't choose from several
// functions where a kernel is a template argument.
namespace rnn_step {

/// mask: (sub_frame_len x batch_size), batch_seq_len: batch_size. One thread a sequence.
static __global__ void KeCountValidLabel(const int* mask, int* batch_seq_len, int batch_size,
                                         int sub_frame_len) {
    for (index_t b = cell_col(); b < batch_size; b += gridDim.x * blockDim.x) {
        int count = 0;
        for (int t = 0; t < sub_frame_len; ++t) {
            count += mask[t * batch_size + b] != 0;
        }
        batch_seq_len[b] = count;
    }
}

}  // namespace rnn_step

inline void vorn_ld_mul_diag_mat_sigmoid(const Tensor<float>& in, const Tensor<float>& w,
                                         const Tensor<float>& bak, Tensor<float>& out, DType alpha,
                                         DType beta) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<ke_ld_mul_diag_mat_sigmoid>(covering_grid(width, height, kRnnStepThreads),
                                       kRnnStepThreads, in.get_ptr(), w.get_ptr(), bak.get_ptr(),
                                       out.get_ptr(), static_cast<int>(bak.get_stride()), height,
                                       width, alpha, beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_elem_mul_add(const Tensor<float>& a, const Tensor<float>& b,
                              const Tensor<float>& c, const Tensor<float>& d, Tensor<float>& out) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<KeElemMulAdd>(covering_grid(width, height, kMulAddThreads), kMulAddThreads, a.get_ptr(),
                         b.get_ptr(), c.get_ptr(), d.get_ptr(), out.get_ptr(), height, width);
    VORN_KERNEL_TAIL();
}

inline void vorn_elem_mul_tanh(const Tensor<float>& a, const Tensor<float>& b,
                               const Tensor<float>& c, Tensor<float>& out) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<ke_elem_mul_tanh>(covering_grid(width, height, kRnnStepThreads), kRnnStepThreads,
                             a.get_ptr(), b.get_ptr(), c.get_ptr(), out.get_ptr(), height, width);
    VORN_KERNEL_TAIL();
}

inline void vorn_ld_sigmoid_bprop(const Tensor<float>& b, const Tensor<float>& c,
                                  Tensor<float>& out, DType alpha, DType beta) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<KeSigmoidBp>(covering_grid(width, height, kRnnStepThreads), kRnnStepThreads, b.get_ptr(),
                        b.get_stride(), c.get_ptr(), c.get_stride(), out.get_ptr(),
                        out.get_stride(), height, width, alpha, beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_ld_sigmoid_backprop(const Tensor<float>& a, const Tensor<float>& b,
                                     const Tensor<float>& c, Tensor<float>& out) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<ke_ld_sigmoid_backprop>(covering_grid(width, height, kRnnStepThreads), kRnnStepThreads,
                                   a.get_ptr(), b.get_ptr(), c.get_ptr(), out.get_ptr(),
                                   static_cast<int>(out.get_stride()), height, width);
    VORN_KERNEL_TAIL();
}

inline void vorn_ld_cell_cur_error(const Tensor<float>& m_err, const Tensor<float>& o,
                                   const Tensor<float>& hc, const Tensor<float>& o_err,
                                   const Tensor<float>& w_oc, const Tensor<float>& ebc,
                                   Tensor<float>& out) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<ke_ld_cell_cur_error>(
        covering_grid(width, height, kRnnStepThreads), kRnnStepThreads, m_err.get_ptr(),
        o.get_ptr(), hc.get_ptr(), o_err.get_ptr(), w_oc.get_ptr(), ebc.get_ptr(), out.get_ptr(),
        static_cast<int>(o.get_stride()), static_cast<int>(o_err.get_stride()), height, width);
    VORN_KERNEL_TAIL();
}

inline void vorn_ld_cell_back_error(const Tensor<float>& c_err, const Tensor<float>& f,
                                    const Tensor<float>& f_err, const Tensor<float>& w_fc,
                                    const Tensor<float>& i_err, const Tensor<float>& w_ic,
                                    Tensor<float>& out) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<ke_ld_cell_back_error>(covering_grid(width, height, kRnnStepThreads), kRnnStepThreads,
                                  c_err.get_ptr(), f.get_ptr(), f_err.get_ptr(), w_fc.get_ptr(),
                                  i_err.get_ptr(), w_ic.get_ptr(), out.get_ptr(),
                                  static_cast<int>(f_err.get_stride()),
                                  static_cast<int>(i_err.get_stride()), height, width);
    VORN_KERNEL_TAIL();
}

inline void vorn_ld_tanh_backprop(const Tensor<float>& a, const Tensor<float>& b,
                                  const Tensor<float>& c, Tensor<float>& out) {
    const int height = static_cast<int>(out.row()), width = static_cast<int>(out.get_w());
    launch<ke_ld_tanh_backprop>(covering_grid(width, height, kRnnStepThreads), kRnnStepThreads,
                                a.get_ptr(), b.get_ptr(), c.get_ptr(), out.get_ptr(),
                                static_cast<int>(out.get_stride()), height, width);
    VORN_KERNEL_TAIL();
}

inline void vorn_diag_mat_diff(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                               DType alpha, DType beta) {
    const int height = static_cast<int>(a.row()), width = static_cast<int>(a.get_w());
    if (a.get_w() >= kDiagWideFrom) {
        launch<KeDiagMatrixDiff>(div_up(width, kDiagThreads), kDiagThreads, a.get_ptr(),
                                 a.get_stride(), b.get_ptr(), b.get_stride(), out.get_ptr(),
                                 out.get_stride(), height, width, alpha, beta);
    } else {
        launch<KeDiagMatrixDiff_S>(div_up(width, kDiagTile), dim3(kDiagTile, kDiagTile, 1),
                                   a.get_ptr(), a.get_stride(), b.get_ptr(), b.get_stride(),
                                   out.get_ptr(), out.get_stride(), height, width, alpha, beta);
    }
    VORN_KERNEL_TAIL();
}

inline void vorn_mask_reverse(const Tensor<float>& in, const Tensor<int>& batch_seq_len,
                              Tensor<float>& out, int batch_size, int seq_len) {
    launch<KeMaskReverse>(std::min(batch_size * seq_len, kMaxGridSize), kRnnStepThreads,
                          in.get_ptr(), batch_seq_len.get_ptr(), out.get_ptr(), batch_size, seq_len,
                          static_cast<int>(in.get_size(1)));
    VORN_KERNEL_TAIL();
}

inline void vorn_count_valid_label(const Tensor<int>& mask, Tensor<int>& batch_seq_len,
                                   int batch_size, int sub_frame_len) {
    launch<rnn_step::KeCountValidLabel>(std::min(div_up(batch_size, kRnnStepThreads), kMaxGridSize),
                                        kRnnStepThreads, mask.get_ptr(), batch_seq_len.get_ptr(),
                                        batch_size, sub_frame_len);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_RNN_STEP_OPS_H_
