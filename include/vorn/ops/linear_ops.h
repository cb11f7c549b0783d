#ifndef VORN_OPS_LINEAR_OPS_H_
#define VORN_OPS_LINEAR_OPS_H_

#include "vorn/cpu/linear_ops.h"
#include "vorn/gpu/linear_ops.h"

/// Maxout and the assembly of a wide matrix from column blocks; formulas stand at the members of
/// Tensor. Shapes are the caller's.
namespace vorn {

inline void vorn_max_out_fwd(const Tensor<float>& in, int pooling_size, Tensor<int>& idx_vec,
                             Tensor<float>& out) {
    CHECK_SAME_DEVICE(in, out);
    CHECK_SAME_DEVICE(idx_vec, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_max_out_fwd(in, pooling_size, idx_vec, out);
    } else {
        gpu::vorn_max_out_fwd(in, pooling_size, idx_vec, out);
    }
}

inline void vorn_max_out_bwd(const Tensor<float>& in, int pooling_size, const Tensor<int>& idx_vec,
                             Tensor<float>& out, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(in, out);
    CHECK_SAME_DEVICE(idx_vec, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_max_out_bwd(in, pooling_size, idx_vec, out, alpha, beta);
    } else {
        gpu::vorn_max_out_bwd(in, pooling_size, idx_vec, out, alpha, beta);
    }
}

/// Columns [offset, offset + width of in) of `out` become `in`.
inline void vorn_col_append(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_col_append(in, out, offset);
    } else {
        gpu::vorn_col_append(in, out, offset);
    }
}

/// `out` becomes columns [offset, offset + width of out) of `in`.
inline void vorn_col_deappend(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_col_deappend(in, out, offset);
    } else {
        gpu::vorn_col_deappend(in, out, offset);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_LINEAR_OPS_H_
