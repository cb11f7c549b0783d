#ifndef VORN_OPS_POOLING_OPS_H_
#define VORN_OPS_POOLING_OPS_H_

#include "vorn/cpu/pooling_ops.h"
#include "vorn/gpu/pooling_ops.h"

/// Pooling of images. Formulas stand at the members of Tensor. Sizes are the caller's.
namespace vorn {

inline void vorn_pool_fwd(const PoolingDesc& pooling_desc, const Tensor<float>& in,
                          Tensor<float>& out, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_pool_fwd(pooling_desc, in, out, alpha, beta);
    } else {
        gpu::vorn_pool_fwd(pooling_desc, in, out, alpha, beta);
    }
}

inline void vorn_pool_diff(const PoolingDesc& pooling_desc, const Tensor<float>& y,
                           const Tensor<float>& dy, const Tensor<float>& x, Tensor<float>& out,
                           DType alpha, DType beta) {
    CHECK_SAME_DEVICE(y, out);
    CHECK_SAME_DEVICE(dy, out);
    CHECK_SAME_DEVICE(x, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_pool_diff(pooling_desc, y, dy, x, out, alpha, beta);
    } else {
        gpu::vorn_pool_diff(pooling_desc, y, dy, x, out, alpha, beta);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_POOLING_OPS_H_
