#ifndef VORN_OPS_LOSS_OPS_H_
#define VORN_OPS_LOSS_OPS_H_

#include "vorn/cpu/loss_ops.h"
#include "vorn/gpu/loss_ops.h"
#include "vorn/ops/ops.h"
#include "vorn/tensor/tensor.h"

/// Training objectives and their gradients; formulas and shapes stand at the members of Tensor.
/// Nothing is resized. Sizes that no check compares, and contiguity, are the caller's.
namespace vorn {

inline void vorn_cross_entropy(const Tensor<float>& in, const Tensor<float>& label,
                               const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                               index_t channel, index_t inner, DType alpha, DType beta) {
    CHECK_EQ(label.get_size(), out.get_size());
    CHECK(channel != 1) << "cross_entropy failed. outer = " << outer << " channel = " << channel
                        << " inner = " << inner;
    CHECK(in.get_element_count() == outer * channel * inner) << "element size not match";
    CHECK(label.get_element_count() == outer * inner) << "element size not match";
    CHECK_SAME_DEVICE(in, out);
    CHECK_SAME_DEVICE(label, out);
    const float *in_ptr = in.get_ptr(), *out_ptr = out.get_ptr(), *label_ptr = label.get_ptr();
    const int* mask_ptr = mask.get_ptr();
    if (is_cpu_device(out.get_device())) {
        CHECK(nullptr != in_ptr);
        CHECK(nullptr != out_ptr);
        CHECK(nullptr != label_ptr);
        CHECK(nullptr != mask_ptr);
        cpu::vorn_cross_entropy(in, label, mask, out, outer, channel, inner, alpha, beta);
    } else {
        CHECK_NOTNULL(in_ptr);
        CHECK_NOTNULL(out_ptr);
        CHECK_NOTNULL(label_ptr);
        CHECK_NOTNULL(mask_ptr);
        gpu::vorn_cross_entropy(in, label, mask, out, outer, channel, inner, alpha, beta);
    }
}

inline void vorn_cross_entropy_bp(const Tensor<float>& in, const Tensor<float>& label,
                                  const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner, DType alpha, DType beta) {
    CHECK_EQ(in.get_size(), out.get_size());
    CHECK(channel != 1) << "cross_entropy failed. outer = " << outer << " channel = " << channel
                        << " inner = " << inner;
    CHECK(out.get_element_count() == outer * channel * inner) << "element size not match";
    CHECK(label.get_element_count() == outer * inner) << "element size not match";
    CHECK_SAME_DEVICE(in, out);
    CHECK_SAME_DEVICE(label, out);
    const float *in_ptr = in.get_ptr(), *out_ptr = out.get_ptr(), *label_ptr = label.get_ptr();
    const int* mask_ptr = mask.get_ptr();
    if (is_cpu_device(out.get_device())) {
        CHECK(nullptr != in_ptr);
        CHECK(nullptr != out_ptr);
        CHECK(nullptr != label_ptr);
        cpu::vorn_cross_entropy_bp(in, label, mask, out, outer, channel, inner, alpha, beta);
    } else {
        CHECK_NOTNULL(in_ptr);
        CHECK_NOTNULL(out_ptr);
        CHECK_NOTNULL(label_ptr);
        CHECK_NOTNULL(mask_ptr);
        gpu::vorn_cross_entropy_bp(in, label, mask, out, outer, channel, inner, alpha, beta);
    }
}

// What the squared error and its gradient test.
inline void check_mean_squre_error(const Tensor<float>& in, const Tensor<float>& label,
                                   const Tensor<int>& mask, const Tensor<float>& out) {
    CHECK(in.get_dim() <= 2);
    CHECK(out.get_dim() <= 2);
    CHECK_SAME_DEVICE(label, out);
    CHECK_SAME_DEVICE(mask, out);
    CHECK_SAME_DEVICE(in, out);
    const float *in_ptr = in.get_ptr(), *out_ptr = out.get_ptr(), *label_ptr = label.get_ptr();
    const int* mask_ptr = mask.get_ptr();
    if (is_cpu_device(out.get_device())) {
        CHECK(nullptr != in_ptr);
        CHECK(nullptr != out_ptr);
        CHECK(nullptr != label_ptr);
        CHECK(nullptr != mask_ptr);
    } else {
        CHECK_NOTNULL(in_ptr);
        CHECK_NOTNULL(out_ptr);
        CHECK_NOTNULL(label_ptr);
        CHECK_NOTNULL(mask_ptr);
    }
}

inline void vorn_mean_squre_error(const Tensor<float>& in, const Tensor<float>& label,
                                  const Tensor<int>& mask, Tensor<float>& out, DType alpha,
                                  DType beta) {
    check_mean_squre_error(in, label, mask, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mean_squre_error(in, label, mask, out, alpha, beta);
    } else {
        gpu::vorn_mean_squre_error(in, label, mask, out, alpha, beta);
    }
}

inline void vorn_mean_squre_error_bp(const Tensor<float>& in, const Tensor<float>& label,
                                     const Tensor<int>& mask, Tensor<float>& out, DType alpha,
                                     DType beta) {
    check_mean_squre_error(in, label, mask, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mean_squre_error_bp(in, label, mask, out, alpha, beta);
    } else {
        gpu::vorn_mean_squre_error_bp(in, label, mask, out, alpha, beta);
    }
}

/// All operands lie on the device of `cost`, which nothing tests.
inline void vorn_rnnoise(const Tensor<float>& y_pred, const Tensor<float>& y_true,
                         const Tensor<int>& mask, Tensor<float>& cost, DType alpha, DType beta) {
    CHECK(y_pred.get_dim() <= 2);
    CHECK(cost.get_dim() <= 2);
    if (is_cpu_device(cost.get_device())) {
        cpu::vorn_rnnoise(y_pred, y_true, mask, cost, alpha, beta);
    } else {
        const float *in_ptr = y_pred.get_ptr(), *cost_ptr = cost.get_ptr();
        const float* label_ptr = y_true.get_ptr();
        const int* mask_ptr = mask.get_ptr();
        CHECK_NOTNULL(in_ptr);
        CHECK_NOTNULL(cost_ptr);
        CHECK_NOTNULL(label_ptr);
        CHECK_NOTNULL(mask_ptr);
        gpu::vorn_rnnoise(y_pred, y_true, mask, cost, alpha, beta);
    }
}

/// All operands lie on the device of `delta`, which nothing tests.
inline void vorn_rnnoise_bp(const Tensor<float>& y_pred, const Tensor<float>& y_true,
                            const Tensor<int>& mask, Tensor<float>& delta, DType alpha,
                            DType beta) {
    CHECK(y_pred.get_dim() <= 2);
    CHECK(delta.get_dim() <= 2);
    if (is_cpu_device(delta.get_device())) {
        cpu::vorn_rnnoise_bp(y_pred, y_true, mask, delta, alpha, beta);
    } else {
        const float *in_ptr = y_pred.get_ptr(), *delta_ptr = delta.get_ptr();
        const float* label_ptr = y_true.get_ptr();
        const int* mask_ptr = mask.get_ptr();
        CHECK_NOTNULL(in_ptr);
        CHECK_NOTNULL(delta_ptr);
        CHECK_NOTNULL(label_ptr);
        CHECK_NOTNULL(mask_ptr);
        gpu::vorn_rnnoise_bp(y_pred, y_true, mask, delta, alpha, beta);
    }
}

inline void vorn_fixed_loss(const Tensor<float>& in, Tensor<float>& out) {
    CHECK(in.get_dim() <= 2);
    CHECK(out.get_dim() <= 2);
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_fixed_loss(in, out);
    } else {
        gpu::vorn_fixed_loss(in, out);
    }
}

inline void vorn_smooth_l1(const Tensor<float>& obj, Tensor<float>& out, DType sigma2) {
    unary_op(func::smooth_l1(sigma2), obj, out);
}

inline void vorn_smooth_l1_bp(const Tensor<float>& obj, Tensor<float>& out, DType sigma2) {
    unary_op(func::smooth_l1_bp(sigma2), obj, out);
}

}  // namespace vorn

#endif  // VORN_OPS_LOSS_OPS_H_
