#ifndef VORN_CPU_BLAS_OPS_H_
#define VORN_CPU_BLAS_OPS_H_

#include "vorn/cpu/iterator.h"
#include "vorn/tensor/tensor.h"

/// Host linear algebra: products, norms and the solver on CBLAS and LAPACKE; what only streams
/// through memory, in loops of our own.
namespace vorn {
namespace cpu {

/// out = value * out. A NaN stays one under a value of 0.
inline void vorn_scal(Tensor<float>& out, DType value) {
    cpu::unary_op([value](float x) { return value * x; }, out, out);
}

/// out = alpha0 * out + alpha1 * in, in one pass.
inline void vorn_axpy(const Tensor<float>& in, Tensor<float>& out, DType alpha0, DType alpha1) {
    cpu::binary_op([alpha0, alpha1](float x, float y) { return alpha0 * x + alpha1 * y; }, out, in,
                   out);
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_BLAS_OPS_H_
