#ifndef VORN_CPU_MATH_OPS_H_
#define VORN_CPU_MATH_OPS_H_

#include "vml.h"
#include "vorn/cpu/channel_ops.h"
#include "vorn/cpu/label_ops.h"
#include "vorn/cpu/loss_ops.h"
#include "vorn/cpu/softmax_ops.h"
#include "vorn/cpu/vec_ops.h"
#include "vorn/tensor/tensor.h"

/// The host forms of the families that ops/math_ops.h offers. Those below leave the frame for a
/// vector library: all operands are contiguous and of the size of `out`; `out` may be an input.
namespace vorn {
namespace cpu {

/// out = in1 + in2
inline void vorn_elem_add(const Tensor<float>& in1, const Tensor<float>& in2, Tensor<float>& out) {
    vsAdd(static_cast<int>(out.get_element_count()), in1.get_ptr(), in2.get_ptr(), out.get_ptr());
}

/// out = in1 * in2
inline void vorn_elem_mul(const Tensor<float>& in1, const Tensor<float>& in2, Tensor<float>& out) {
    vsMul(static_cast<int>(out.get_element_count()), in1.get_ptr(), in2.get_ptr(), out.get_ptr());
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_MATH_OPS_H_
