#ifndef VORN_OPS_ELEMENT_OPS_H_
#define VORN_OPS_ELEMENT_OPS_H_

#include <cfloat>
#include <cmath>

#include "vorn/cpu/blas_ops.h"
#include "vorn/cpu/math_ops.h"
#include "vorn/gpu/blas_ops.h"
#include "vorn/ops/ops.h"

/// The element rules: each picks its rule and its way through the frame, whose tests of sizes and
/// devices apply. `out` may be an input. What floating-point arithmetic makes infinite or NaN, such
/// as 1 / 0 or the logarithm of a negative value, is so in the result.
namespace vorn {

/// Equality of two scalars of a blend, up to rounding.
inline bool is_equal(DType x, DType y) {
    return std::fabs(x - y) < FLT_EPSILON;
}

/// t += val
template <typename T>
void vorn_add(Tensor<T>& t, T val) {
    unary_op(func::add_constant<T>(val), t, t);
}

/// The sum below as the frame does it, for all types and pitches.
template <typename T>
void add_by_rule(const Tensor<T>& in1, const Tensor<T>& in2, Tensor<T>& out, DType alpha0,
                 DType alpha1, DType beta) {
    if (is_equal(beta, 0)) {
        binary_op(func::add(alpha0, alpha1), in1, in2, out);
    } else {
        trinary_inplace_op(func::add_inplace(alpha0, alpha1, beta), in1, in2, out);
    }
}

/// out = alpha0 * in1 + alpha1 * in2 + beta * out, computed in float.
template <typename T>
void vorn_add(const Tensor<T>& in1, const Tensor<T>& in2, Tensor<T>& out, DType alpha0,
              DType alpha1, DType beta) {
    add_by_rule(in1, in2, out, alpha0, alpha1, beta);
}

/// The same for float. A plain sum of contiguous host tensors takes the vector library, which tests
/// nothing: sizes and devices are the caller's there. A sum into its own first operand is an axpy.
inline void vorn_add(const Tensor<float>& in1, const Tensor<float>& in2, Tensor<float>& out,
                     DType alpha0, DType alpha1, DType beta) {
    const bool is_in_contiguous = in1.is_contiguous() && in2.is_contiguous();
    if (is_cpu_device(out.get_device()) && is_in_contiguous && out.is_contiguous() &&
        is_equal(alpha0, 1) && is_equal(alpha1, 1) && is_equal(beta, 0)) {
        cpu::vorn_elem_add(in1, in2, out);
    } else if (is_in_contiguous && in1.get_ptr() == out.get_ptr() && is_equal(beta, 0)) {
        CHECK_SAME_DEVICE(in1, out);
        CHECK_SAME_DEVICE(in2, out);
        CHECK_EQ(in1.get_size(), in2.get_size());
        CHECK_EQ(in1.get_size(), out.get_size());
        if (is_cpu_device(out.get_device())) {
            cpu::vorn_axpy(in2, out, alpha0, alpha1);
        } else {
            gpu::vorn_axpy(in2, out, alpha0, alpha1);
        }
    } else {
        add_by_rule(in1, in2, out, alpha0, alpha1, beta);
    }
}

/// t *= val
template <typename T>
void vorn_mul(Tensor<T>& t, T val) {
    unary_op(func::mul_constant<T>(val), t, t);
}

/// The same for float, a scal where `t` is contiguous.
inline void vorn_mul(Tensor<float>& t, DType val) {
    if (!t.is_contiguous()) {
        unary_op(func::mul_constant<float>(val), t, t);
    } else if (is_cpu_device(t.get_device())) {
        cpu::vorn_scal(t, val);
    } else {
        gpu::vorn_scal(t, val);
    }
}

/// t *= 1 / val, the reciprocal rounded once. Aborts if |val| is not above FLT_EPSILON.
inline void vorn_div(Tensor<float>& t, DType val) {
    CHECK(fabs(val - 0) > FLT_EPSILON);
    vorn_mul(t, 1 / val);
}

/// out = alpha * in1 * in2 + beta * out. A plain product of contiguous host tensors takes the
/// vector library.
inline void vorn_elem_mul(const Tensor<float>& in1, const Tensor<float>& in2, Tensor<float>& out,
                          DType alpha, DType beta) {
    if (is_cpu_device(out.get_device()) && in1.is_contiguous() && in2.is_contiguous() &&
        out.is_contiguous() && alpha == 1.0f && beta == 0.0f) {
        check_operands(in1, in2, out);
        cpu::vorn_elem_mul(in1, in2, out);
    } else {
        trinary_inplace_op(func::elem_mul(alpha, beta), in1, in2, out);
    }
}

/// out = alpha * in1 / in2 + beta * out
inline void vorn_elem_div(const Tensor<float>& in1, const Tensor<float>& in2, Tensor<float>& out,
                          DType alpha, DType beta) {
    trinary_inplace_op(func::elem_div(alpha, beta), in1, in2, out);
}

/// out = (in1 + alpha) / (in2 + beta)
inline void vorn_dot_div(const Tensor<float>& in1, const Tensor<float>& in2, Tensor<float>& out,
                         DType alpha, DType beta) {
    binary_op(func::dot_div(alpha, beta), in1, in2, out);
}

/// out = 1 / in
inline void vorn_reciprocal(const Tensor<float>& in, Tensor<float>& out) {
    unary_op(func::reciprocal(), in, out);
}

/// out = log(in)
inline void vorn_log(const Tensor<float>& in, Tensor<float>& out) {
    unary_op(func::log(), in, out);
}

/// out = in^p
inline void vorn_pow(const Tensor<float>& in, Tensor<float>& out, DType p) {
    unary_op(func::pow(p), in, out);
}

/// out = in * in
inline void vorn_square(const Tensor<float>& in, Tensor<float>& out) {
    unary_op(func::square(), in, out);
}

/// out = sqrt(in)
inline void vorn_sqrt(const Tensor<float>& in, Tensor<float>& out) {
    unary_op(func::sqrt(), in, out);
}

/// out = in limited to [lo, hi]; lo <= hi is the caller's.
inline void vorn_limit(const Tensor<float>& in, DType lo, DType hi, Tensor<float>& out) {
    unary_op(func::limit(lo, hi), in, out);
}

/// out = alpha * activation(in) + beta * out. Aborts on ACTIVATION_CLIPPED_RELU, which has no rule.
inline void vorn_active(ActivationType type, const Tensor<float>& in, Tensor<float>& out,
                        DType alpha, DType beta) {
    switch (type) {
        case ACTIVATION_SIGMOID:
            if (alpha == 1 && beta == 0) {
                binary_inplace_op(func::plain_sigmoid(), in, out);
            } else {
                binary_inplace_op(func::sigmoid(alpha, beta), in, out);
            }
            break;
        case ACTIVATION_RELU:
            binary_inplace_op(func::relu(alpha, beta), in, out);
            break;
        case ACTIVATION_TANH:
            binary_inplace_op(func::tanh(alpha, beta), in, out);
            break;
        default:
            CHECK(false);
    }
}

/// out = alpha * activation'(...) * in2 + beta * out, the derivative taken from the activation's
/// output `in1`. Aborts on ACTIVATION_CLIPPED_RELU.
inline void vorn_active_bp(ActivationType type, const Tensor<float>& in1, const Tensor<float>& in2,
                           Tensor<float>& out, DType alpha, DType beta) {
    switch (type) {
        case ACTIVATION_SIGMOID:
            trinary_inplace_op(func::sigmoid_bp(alpha, beta), in1, in2, out);
            break;
        case ACTIVATION_RELU:
            trinary_inplace_op(func::relu_bp(alpha, beta), in1, in2, out);
            break;
        case ACTIVATION_TANH:
            trinary_inplace_op(func::tanh_bp(alpha, beta), in1, in2, out);
            break;
        default:
            CHECK(false);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_ELEMENT_OPS_H_
