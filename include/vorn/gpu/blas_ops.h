#ifndef VORN_GPU_BLAS_OPS_H_
#define VORN_GPU_BLAS_OPS_H_

#include "vorn/gpu/iterator.h"
#include "vorn/tensor/tensor.h"

/// GPU linear algebra on cuBLAS, through the handle of the thread's context. cuBLAS is
/// column-major: a row-major matrix is for it its own transpose, with the pitch as leading
/// dimension.
namespace vorn {
namespace gpu {

/// x -> value * x
struct Scal {
    DType value;
    VORN_HD float operator()(float x) const { return value * x; }
};

/// (x, y) -> alpha0 * x + alpha1 * y
struct Axpby {
    DType alpha0, alpha1;
    VORN_HD float operator()(float x, float y) const { return alpha0 * x + alpha1 * y; }
};

/// out = value * out. A NaN stays one under a value of 0, which BLAS libraries don't agree on.
inline void vorn_scal(Tensor<float>& out, DType value) {
    gpu::unary_op(Scal{value}, out, out);
}

/// out = alpha0 * out + alpha1 * in, in one pass over memory where BLAS would need two.
inline void vorn_axpy(const Tensor<float>& in, Tensor<float>& out, DType alpha0, DType alpha1) {
    gpu::binary_op(Axpby{alpha0, alpha1}, out, in, out);
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_BLAS_OPS_H_
