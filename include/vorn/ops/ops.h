#ifndef VORN_OPS_OPS_H_
#define VORN_OPS_OPS_H_

#include "vorn/cpu/iterator.h"
#include "vorn/cpu/memory.h"
#include "vorn/gpu/iterator.h"
#include "vorn/gpu/memory.h"
#include "vorn/ops/reduce.h"
#include "vorn/rules/functors.h"
#include "vorn/tensor/tensor.h"

/// The frame: checks, then one branch on the device of the output. Outputs are never resized here.
namespace vorn {

/// out = f(in), element by element.
template <typename Op, typename InT, typename OutT>
void unary_op(Op f, const Tensor<InT>& in, Tensor<OutT>& out) {
    CHECK_EQ(in.get_size(), out.get_size());
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::unary_op(f, in, out);
    } else {
        gpu::unary_op(f, in, out);
    }
}

/// What operations of two operands test.
template <typename InT1, typename InT2, typename OutT>
void check_operands(const Tensor<InT1>& in1, const Tensor<InT2>& in2, const Tensor<OutT>& out) {
    CHECK_EQ(in1.get_size(), out.get_size());
    CHECK_EQ(in2.get_size(), out.get_size());
    CHECK_SAME_DEVICE(in1, out);
    CHECK_SAME_DEVICE(in2, out);
}

/// out = f(in1, in2), element by element.
template <typename Op, typename InT1, typename InT2, typename OutT>
void binary_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    check_operands(in1, in2, out);
    if (is_cpu_device(out.get_device())) {
        cpu::binary_op(f, in1, in2, out);
    } else {
        gpu::binary_op(f, in1, in2, out);
    }
}

/// out = f(in1, in2, out), element by element.
template <typename Op, typename InT1, typename InT2, typename OutT>
void trinary_inplace_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    check_operands(in1, in2, out);
    if (is_cpu_device(out.get_device())) {
        cpu::trinary_inplace_op(f, in1, in2, out);
    } else {
        gpu::trinary_inplace_op(f, in1, in2, out);
    }
}

/// out = f(in, out): the old value of `out` is the second operand.
template <typename Op, typename InT, typename OutT>
void binary_inplace_op(Op f, const Tensor<InT>& in, Tensor<OutT>& out) {
    binary_op(f, in, out, out);
}

/// All elements of `a` become `val`.
template <typename T>
void vorn_fill(Tensor<T>& a, T val) {
    if (is_cpu_device(a.get_device())) {
        cpu::vorn_fill(a, val);
    } else {
        gpu::vorn_fill(a, val);
    }
}

/// Copies `elem_size` elements of dense memory from device `sd` to device `dd`.
template <typename T>
void vorn_memcpy(const Device& sd, const Device& dd, const T* src_ptr, T* dst_ptr,
                 size_t elem_size) {
    const size_t byte_size = elem_size * sizeof(T);
    if (is_cpu_device(sd) && is_cpu_device(dd)) {
        cpu::vorn_memcpy(dst_ptr, src_ptr, byte_size);
    } else if (is_cpu_device(sd) && is_gpu_device(dd)) {
        gpu::vorn_memcpy_h2d(dst_ptr, src_ptr, byte_size);
    } else if (is_gpu_device(sd) && is_cpu_device(dd)) {
        gpu::vorn_memcpy_d2h(dst_ptr, src_ptr, byte_size);
    } else if (is_gpu_device(sd) && is_gpu_device(dd)) {
        gpu::vorn_memcpy_d2d(dst_ptr, src_ptr, byte_size);
    }
}

/// Copies `height` rows of `width` elements; the pitches count elements.
template <typename T>
void vorn_memcpy_2d(const Device& sd, const Device& dd, const T* src_ptr, size_t spitch, T* dst_ptr,
                    size_t dpitch, size_t width, size_t height) {
    if (is_cpu_device(sd) && is_cpu_device(dd)) {
        cpu::vorn_memcpy_2d(dst_ptr, dpitch * sizeof(T), src_ptr, spitch * sizeof(T),
                            width * sizeof(T), height);
        return;
    }
    cudaMemcpyKind kind;
    if (is_cpu_device(sd) && is_gpu_device(dd)) {
        kind = cudaMemcpyHostToDevice;
    } else if (is_gpu_device(sd) && is_cpu_device(dd)) {
        kind = cudaMemcpyDeviceToHost;
    } else if (is_gpu_device(sd) && is_gpu_device(dd)) {
        kind = cudaMemcpyDeviceToDevice;
    } else {
        return;
    }
    gpu::vorn_memcpy_2d(dst_ptr, dpitch * sizeof(T), src_ptr, spitch * sizeof(T), width * sizeof(T),
                        height, kind);
}

/// dst = src, wherever the two lie: one dense copy where both are contiguous, else one 2-D copy.
template <typename T>
void vorn_copy(const Tensor<T>& src, Tensor<T>& dst) {
    CHECK_EQ(src.get_size(), dst.get_size());
    const Device &sd = src.get_device(), &dd = dst.get_device();
    if (src.is_contiguous() && dst.is_contiguous()) {
        vorn_memcpy<T>(sd, dd, src.get_ptr(), dst.get_ptr(), src.count());
    } else {
        vorn_memcpy_2d<T>(sd, dd, src.get_ptr(), src.ld(), dst.get_ptr(), dst.ld(), dst.get_w(),
                          dst.row());
    }
}

/// Copies `num` elements of host memory to element `start_pos` of a contiguous tensor.
template <typename T>
void vorn_copy_from(const T* src, Tensor<T>& dst, size_t start_pos, size_t num) {
    if (!dst.is_contiguous()) {
        LOG_FATAL << "Not Implemented Yet";
    }
    vorn_memcpy<T>(cpu_device(), dst.get_device(), src, dst.get_ptr() + start_pos, num);
}

/// Copies `num` elements from element `start_pos` of a contiguous tensor to host memory.
template <typename T>
void vorn_copy_to(const Tensor<T>& src, T* dst, size_t start_pos, size_t num) {
    if (!src.is_contiguous()) {
        LOG_FATAL << "Not Implemented Yet";
    }
    vorn_memcpy<T>(src.get_device(), cpu_device(), src.get_ptr() + start_pos, dst, num);
}

}  // namespace vorn

#endif  // VORN_OPS_OPS_H_
