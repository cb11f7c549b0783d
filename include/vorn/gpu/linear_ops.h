#ifndef VORN_GPU_LINEAR_OPS_H_
#define VORN_GPU_LINEAR_OPS_H_

#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of the linear layer helpers, on dense matrices: one thread an element. Rows beyond
/// what a grid takes along y get further launches.
namespace vorn {
namespace gpu {

/// in: (dimM x dimN * pooling_size), out, idx_vec: (dimM x dimN). x is the column, y the row.
static __global__ void KeMaxOutForward(const float* in, float* out, int* idx_vec, int pooling_size,
                                       int dimM, int dimN) {
    const int j = blockIdx.x * blockDim.x + threadIdx.x;
    const int i = blockIdx.y * blockDim.y + threadIdx.y;
    if (i >= dimM || j >= dimN) {
        return;
    }
    const int index = i * dimN + j;
    const float* in_p = in + index * pooling_size;
    float max_val = in_p[0];
    int max_pos = 0;
    for (int k = 1; k < pooling_size; ++k) {
        if (in_p[k] > max_val) {
            max_val = in_p[k];
            max_pos = k;
        }
    }
    idx_vec[index] = max_pos;
    out[index] = max_val;
}

/// in, idx_vec: (dimM x dimN), out: (dimM x dimN * pooling_size). x is the column, y the row.
static __global__ void KeMaxOutBackward(const float* in, float* out, const int* idx_vec,
                                        int pooling_size, int dimM, int dimN, float alpha,
                                        float beta) {
    const int j = blockIdx.x * blockDim.x + threadIdx.x;
    const int i = blockIdx.y * blockDim.y + threadIdx.y;
    if (i >= dimM || j >= dimN) {
        return;
    }
    const int index = i * dimN + j;
    float* winner = out + index * pooling_size + idx_vec[index];
    *winner = alpha * in[index] + beta * *winner;
}

/// in: (dimM x in_dimN), out: (dimM x dimN).
static __global__ void KeColAppend(const float* in, float* out, int offset, int in_dimN, int dimM,
                                   int dimN) {
    const int j = blockIdx.x * blockDim.x + threadIdx.x;
    const int i = blockIdx.y;
    if (i < dimM && j < in_dimN) {
        out[i * dimN + offset + j] = in[i * in_dimN + j];
    }
}

/// in: (dimM x in_dimN), out: (dimM x dimN).
static __global__ void KeColDeAppend(const float* in, float* out, int offset, int in_dimN, int dimM,
                                     int dimN) {
    const int j = blockIdx.x * blockDim.x + threadIdx.x;
    const int i = blockIdx.y;
    if (i < dimM && j < dimN) {
        out[i * dimN + j] = in[i * in_dimN + offset + j];
    }
}

const dim3 kMaxOutBlock(32, 32, 1);

inline void vorn_max_out_fwd(const Tensor<float>& in, int pooling_size, Tensor<int>& idx_vec,
                             Tensor<float>& out) {
    const int dimM = static_cast<int>(out.row()), dimN = static_cast<int>(out.get_w());
    for_each_launch(dimM, kMaxOutBlock.y, [&](index_t first, int rows) {
        const index_t start = first * dimN;
        launch<KeMaxOutForward>(covering_grid(dimN, rows, kMaxOutBlock), kMaxOutBlock,
                                in.get_ptr() + start * pooling_size, out.get_ptr() + start,
                                idx_vec.get_ptr() + start, pooling_size, rows, dimN);
    });
    VORN_KERNEL_TAIL();
}

inline void vorn_max_out_bwd(const Tensor<float>& in, int pooling_size, const Tensor<int>& idx_vec,
                             Tensor<float>& out, DType alpha, DType beta) {
    const int dimM = static_cast<int>(in.row()), dimN = static_cast<int>(in.get_w());
    for_each_launch(dimM, kMaxOutBlock.y, [&](index_t first, int rows) {
        const index_t start = first * dimN;
        launch<KeMaxOutBackward>(covering_grid(dimN, rows, kMaxOutBlock), kMaxOutBlock,
                                 in.get_ptr() + start, out.get_ptr() + start * pooling_size,
                                 idx_vec.get_ptr() + start, pooling_size, rows, dimN, alpha, beta);
    });
    VORN_KERNEL_TAIL();
}

inline void vorn_col_append(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    const int NT = 512;
    const int dimM = static_cast<int>(out.row()), dimN = static_cast<int>(out.get_w());
    const int in_dimN = static_cast<int>(in.get_w());
    for_each_launch(dimM, 1, [&](index_t first, int rows) {
        launch<KeColAppend>(covering_grid(in_dimN, rows, NT), NT, in.get_ptr() + first * in_dimN,
                            out.get_ptr() + first * dimN, static_cast<int>(offset), in_dimN, rows,
                            dimN);
    });
    VORN_KERNEL_TAIL();
}

inline void vorn_col_deappend(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    const int NT = 512;
    const int dimM = static_cast<int>(out.row()), dimN = static_cast<int>(out.get_w());
    const int in_dimN = static_cast<int>(in.get_w());
    for_each_launch(dimM, 1, [&](index_t first, int rows) {
        launch<KeColDeAppend>(covering_grid(dimN, rows, NT), NT, in.get_ptr() + first * in_dimN,
                              out.get_ptr() + first * dimN, static_cast<int>(offset), in_dimN, rows,
                              dimN);
    });
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_LINEAR_OPS_H_
