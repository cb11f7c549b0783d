#ifndef VORN_GPU_LOSS_OPS_H_
#define VORN_GPU_LOSS_OPS_H_

#include <cassert>
#include <cfloat>
#include <cstdio>

#include "vorn/gpu/collective.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/rules/loss_rule.h"
#include "vorn/tensor/tensor.h"

/// Kernels of the training objectives, on dense operands where nothing else is said. Where a
/// product and a sum are rounded once, they say fmaf.
namespace vorn {
namespace gpu {

// ---- Cross entropy on (outer, channel, inner) data, with a label and a mask per item (o, k)

/// One thread an item.
static __global__ void KeMatrixCrossEntropy(const float* in, float* out, const float* label,
                                            const int* mask, index_t outer, index_t channel,
                                            index_t inner, float alpha, float beta) {
    const index_t id = static_cast<index_t>(blockDim.x) * blockIdx.x + threadIdx.x;
    if (id >= outer * inner) {
        return;
    }
    const int label_val = static_cast<int>(label[id]);
    if (label_val < 0) {
        printf("[CE] lable_val %d index %d float_val %f\n", label_val, static_cast<int>(id),
               static_cast<double>(label[id]));
    }
    assert(label_val >= 0);
    const index_t o = id / inner, k = id % inner;
    const float old = out[id] * beta;
    out[id] = mask[id] == 1 ? fmaf(in[(o * channel + label_val) * inner + k], alpha, old) : old;
}

inline void vorn_cross_entropy(const Tensor<float>& in, const Tensor<float>& label,
                               const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                               index_t channel, index_t inner, DType alpha, DType beta) {
    const int NT = 512;
    launch<KeMatrixCrossEntropy>(div_up(static_cast<int>(outer * inner), NT), NT, in.get_ptr(),
                                 out.get_ptr(), label.get_ptr(), mask.get_ptr(), outer, channel,
                                 inner, alpha, beta);
    VORN_KERNEL_TAIL();
}

/// x is the class, y the item.
static __global__ void KeMatrixCrossEntropyBp(float* out, const float* in, const float* label,
                                              const int* mask, int outer, int channel, int inner,
                                              float alpha, float beta) {
    const int c = blockDim.x * blockIdx.x + threadIdx.x;
    if (c >= channel) {
        return;
    }
    for (index_t item = blockDim.y * blockIdx.y + threadIdx.y; item < outer * inner;
         item += gridDim.y * blockDim.y) {
        const int y = static_cast<int>(item);
        const int label_val = static_cast<int>(label[y]);
        if (label_val < 0) {
            printf("[CE bp] lable_val %d index %d float_val %f\n", label_val, y,
                   static_cast<double>(label[y]));
        }
        assert(label_val >= 0);
        const int i = (y / inner * channel + c) * inner + y % inner;
        out[i] = func::cross_entropy_bp(mask[y] != 0, c == label_val, in[i], out[i], alpha, beta);
    }
}

inline void vorn_cross_entropy_bp(const Tensor<float>& in, const Tensor<float>& label,
                                  const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner, DType alpha, DType beta) {
    const int NT = 512;
    launch<KeMatrixCrossEntropyBp>(matrix_grid(outer * inner, channel, NT), NT, out.get_ptr(),
                                   in.get_ptr(), label.get_ptr(), mask.get_ptr(),
                                   static_cast<int>(outer), static_cast<int>(channel),
                                   static_cast<int>(inner), alpha, beta);
    VORN_KERNEL_TAIL();
}

// ---- Objectives that are sums of rows: one block a row

/// For thread 0 the sum over the columns of a row, of which thread t adds columns t, t + kThreads
/// and so on: sum = add(sum, col). All threads of the block come here, and `sum_s` is free again
/// on return.
template <int kThreads, typename Add>
__device__ float block_row_sum(float* sum_s, int cols, Add add) {
    const int t = thread_in_block();
    float sum = 0;
    for (index_t col = t; col < cols; col += kThreads) {
        sum = add(sum, col);
    }
    sum_s[t] = sum;
    block_fold<kThreads>([&](int to, int from) { sum_s[to] += sum_s[from]; });
    if (t == 0) {
        sum = sum_s[0];
    }
    __syncthreads();
    return sum;
}

template <int kThreads>
__global__ void KeMatrixSumSquareError(const float* in, const float* label, float* out,
                                       const int* mask, int dim_m, int dim_n, float alpha,
                                       float beta) {
    __shared__ float sum_s[kThreads];
    for (index_t row = blockDim.y * blockIdx.y + threadIdx.y; row < dim_m;
         row += gridDim.y * blockDim.y) {
        const float *x = in + row * dim_n, *y = label + row * dim_n;
        const int cols = mask[row] == 1 ? dim_n : 0;
        const float sum = block_row_sum<kThreads>(sum_s, cols, [=](float acc, index_t col) {
            const float d = x[col] - y[col];
            return fmaf(d, d, acc);
        });
        if (threadIdx.x == 0) {
            out[row] = fmaf(sum * alpha, 0.5f, out[row] * beta);
        }
    }
}

inline void vorn_mean_squre_error(const Tensor<float>& in, const Tensor<float>& label,
                                  const Tensor<int>& mask, Tensor<float>& out, DType alpha,
                                  DType beta) {
    const int NT = 128;
    const index_t dim_m = in.get_h(), dim_n = in.get_w();
    launch<KeMatrixSumSquareError<NT>>(matrix_grid(dim_m, 1, NT), NT, in.get_ptr(), label.get_ptr(),
                                       out.get_ptr(), mask.get_ptr(), static_cast<int>(dim_m),
                                       static_cast<int>(dim_n), alpha, beta);
    VORN_KERNEL_TAIL();
}

/// x is the column.
static __global__ void KeMatrixMeanSquareErrorBp(const float* label, const float* in, float* out,
                                                 const int* mask, int dim_m, int dim_n, float alpha,
                                                 float beta) {
    const int col = blockDim.x * blockIdx.x + threadIdx.x;
    if (col >= dim_n) {
        return;
    }
    for (index_t row = blockDim.y * blockIdx.y + threadIdx.y; row < dim_m;
         row += gridDim.y * blockDim.y) {
        const index_t i = row * dim_n + col;
        out[i] = func::mean_squre_error_bp(mask[row] == 1, label[i], in[i], out[i], alpha, beta);
    }
}

inline void vorn_mean_squre_error_bp(const Tensor<float>& in, const Tensor<float>& label,
                                     const Tensor<int>& mask, Tensor<float>& out, DType alpha,
                                     DType beta) {
    const int NT = 128;
    const index_t dim_m = out.row(), dim_n = out.get_w();
    launch<KeMatrixMeanSquareErrorBp>(
        matrix_grid(dim_m, dim_n, NT), NT, label.get_ptr(), in.get_ptr(), out.get_ptr(),
        mask.get_ptr(), static_cast<int>(dim_m), static_cast<int>(dim_n), alpha, beta);
    VORN_KERNEL_TAIL();
}

template <int kThreads>
__global__ void KeRnnoise(const float* y_pred, const float* y_true, float* cost, const int* mask,
                          int dim_m, int dim_n, float alpha, float beta) {
    __shared__ float sum_s[kThreads];
    for (index_t row = blockDim.y * blockIdx.y + threadIdx.y; row < dim_m;
         row += gridDim.y * blockDim.y) {
        const float *p = y_pred + row * dim_n, *t = y_true + row * dim_n;
        const int cols = mask[row] == 1 ? dim_n : 0;
        const float sum = block_row_sum<kThreads>(sum_s, cols, [=](float acc, index_t col) {
            return acc + func::rnnoise_cost(p[col], t[col]);
        });
        if (threadIdx.x == 0) {
            cost[row] = fmaf(sum, alpha, cost[row] * beta);
        }
    }
}

inline void vorn_rnnoise(const Tensor<float>& y_pred, const Tensor<float>& y_true,
                         const Tensor<int>& mask, Tensor<float>& cost, DType alpha, DType beta) {
    const int NT = 128;
    const index_t dim_m = y_pred.get_h(), dim_n = y_pred.get_w();
    launch<KeRnnoise<NT>>(matrix_grid(dim_m, 1, NT), NT, y_pred.get_ptr(), y_true.get_ptr(),
                          cost.get_ptr(), mask.get_ptr(), static_cast<int>(dim_m),
                          static_cast<int>(dim_n), alpha, beta);
    VORN_KERNEL_TAIL();
}

/// x is the column.
static __global__ void KeRnnoiseBp(const float* y_true, const float* y_pred, float* delta,
                                   const int* mask, int dim_m, int dim_n, float alpha, float beta) {
    const int col = blockDim.x * blockIdx.x + threadIdx.x;
    if (col >= dim_n) {
        return;
    }
    for (index_t row = blockDim.y * blockIdx.y + threadIdx.y; row < dim_m;
         row += gridDim.y * blockDim.y) {
        const index_t i = row * dim_n + col;
        delta[i] = mask[row] == 1 ? func::rnnoise_bp(y_pred[i], y_true[i], delta[i], alpha, beta)
                                  : beta * delta[i];
    }
}

inline void vorn_rnnoise_bp(const Tensor<float>& y_pred, const Tensor<float>& y_true,
                            const Tensor<int>& mask, Tensor<float>& delta, DType alpha,
                            DType beta) {
    const int NT = 128;
    const index_t dim_m = delta.row(), dim_n = delta.get_w();
    launch<KeRnnoiseBp>(matrix_grid(dim_m, dim_n, NT), NT, y_true.get_ptr(), y_pred.get_ptr(),
                        delta.get_ptr(), mask.get_ptr(), static_cast<int>(dim_m),
                        static_cast<int>(dim_n), alpha, beta);
    VORN_KERNEL_TAIL();
}

// ---- Levels of eight bits

/// One thread a column. `out` may be `in`.
static __global__ void KeFixedLoss(const float* in, index_t ld_in, float* out, index_t ld_out,
                                   index_t dim_m, index_t dim_n) {
    const index_t col = static_cast<index_t>(blockDim.x) * blockIdx.x + threadIdx.x;
    if (col >= dim_n) {
        return;
    }
    float max = -FLT_MAX;
    for (index_t row = 0; row < dim_m; ++row) {
        const float x = in[row * ld_in + col];
        max = max < x ? x : max;
    }
    const float scale = 127 / max;
    for (index_t row = 0; row < dim_m; ++row) {
        const float x = in[row * ld_in + col];
        const float biased = fmaf(scale, x, x > 0 ? 0.5f : -0.5f);
        out[row * ld_out + col] = func::fixed_level(x, max, biased) / scale;
    }
}

/// Pitches are honoured.
inline void vorn_fixed_loss(const Tensor<float>& in, Tensor<float>& out) {
    const int NT = 1024;
    const index_t dim_m = out.row(), dim_n = out.get_w();
    launch<KeFixedLoss>(div_up(static_cast<int>(dim_n), NT), NT, in.get_ptr(), in.ld(),
                        out.get_ptr(), out.ld(), dim_m, dim_n);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_LOSS_OPS_H_
