#ifndef VORN_CPU_LINEAR_OPS_H_
#define VORN_CPU_LINEAR_OPS_H_

#include "vorn/cpu/memory.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the linear layer helpers, on dense matrices.
namespace vorn {
namespace cpu {

inline void vorn_max_out_fwd(const Tensor<float>& in, int pooling_size, Tensor<int>& idx_vec,
                             Tensor<float>& out) {
    const index_t count = out.row() * out.get_w();
    const float* in_p = in.get_ptr();
    float* out_p = out.get_ptr();
    int* idx_p = idx_vec.get_ptr();
    for (index_t index = 0; index < count; ++index, in_p += pooling_size) {
        float max_val = in_p[0];
        int max_pos = 0;
        for (int k = 1; k < pooling_size; ++k) {
            const bool above = in_p[k] > max_val;
            max_val = above ? in_p[k] : max_val;
            max_pos = above ? k : max_pos;
        }
        idx_p[index] = max_pos;
        out_p[index] = max_val;
    }
}

inline void vorn_max_out_bwd(const Tensor<float>& in, int pooling_size, const Tensor<int>& idx_vec,
                             Tensor<float>& out, DType alpha, DType beta) {
    const index_t count = in.row() * in.get_w();
    const float* in_p = in.get_ptr();
    const int* idx_p = idx_vec.get_ptr();
    float* out_p = out.get_ptr();
    for (index_t index = 0; index < count; ++index, out_p += pooling_size) {
        float& winner = out_p[idx_p[index]];
        winner = alpha * in_p[index] + beta * winner;
    }
}

inline void vorn_col_append(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    const index_t dimM = out.row(), dimN = out.get_w(), in_dimN = in.get_w();
    const float* in_p = in.get_ptr();
    float* out_p = out.get_ptr() + offset;
    for (index_t i = 0; i < dimM; ++i, in_p += in_dimN, out_p += dimN) {
        cpu::vorn_memcpy(out_p, in_p, in_dimN * sizeof(float));
    }
}

inline void vorn_col_deappend(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    const index_t dimM = out.row(), dimN = out.get_w(), in_dimN = in.get_w();
    const float* in_p = in.get_ptr() + offset;
    float* out_p = out.get_ptr();
    for (index_t i = 0; i < dimM; ++i, in_p += in_dimN, out_p += dimN) {
        cpu::vorn_memcpy(out_p, in_p, dimN * sizeof(float));
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_LINEAR_OPS_H_
