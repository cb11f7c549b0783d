#ifndef VORN_CPU_LINEAR_OPS_H_
#define VORN_CPU_LINEAR_OPS_H_

#include "vorn/cpu/kit/runs.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the linear layer helpers, on dense matrices.
namespace vorn {
namespace cpu {

// `kSize` is the pooling size, or 0 where only `size` knows it: a group of known size unrolls, and
// the loop over the groups vectorises.
template <int kSize>
void max_out_groups(const float* __restrict in, int size, int* __restrict idx,
                    float* __restrict out, index_t count) {
    const int n = kSize > 0 ? kSize : size;
    for (index_t index = 0; index < count; ++index) {
        const float* group = in + index * n;
        float max_val = group[0];
        int max_pos = 0;
        for (int k = 1; k < n; ++k) {
            const bool above = group[k] > max_val;
            max_val = above ? group[k] : max_val;
            max_pos = above ? k : max_pos;
        }
        idx[index] = max_pos;
        out[index] = max_val;
    }
}

inline void vorn_max_out_fwd(const Tensor<float>& in, int pooling_size, Tensor<int>& idx_vec,
                             Tensor<float>& out) {
    const auto groups = pooling_size == 2   ? max_out_groups<2>
                        : pooling_size == 3 ? max_out_groups<3>
                        : pooling_size == 4 ? max_out_groups<4>
                                            : max_out_groups<0>;
    groups(in.get_ptr(), pooling_size, idx_vec.get_ptr(), out.get_ptr(), out.row() * out.get_w());
}

inline void vorn_max_out_bwd(const Tensor<float>& in, int pooling_size, const Tensor<int>& idx_vec,
                             Tensor<float>& out, DType alpha, DType beta) {
    const index_t count = in.row() * in.get_w();
    const float* in_p = in.get_ptr();
    const int* idx_p = idx_vec.get_ptr();
    float* out_p = out.get_ptr();
    for (index_t index = 0; index < count; ++index) {
        float& winner = out_p[index * pooling_size + idx_p[index]];
        winner = alpha * in_p[index] + beta * winner;
    }
}

inline void vorn_col_append(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    const index_t dimN = out.get_w(), in_dimN = in.get_w();
    copy_rows(in.get_ptr(), in_dimN, out.get_ptr() + offset, dimN, out.row(), in_dimN);
}

inline void vorn_col_deappend(const Tensor<float>& in, Tensor<float>& out, index_t offset) {
    const index_t dimN = out.get_w(), in_dimN = in.get_w();
    copy_rows(in.get_ptr() + offset, in_dimN, out.get_ptr(), dimN, out.row(), dimN);
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_LINEAR_OPS_H_
