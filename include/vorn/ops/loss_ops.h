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

}  // namespace vorn

#endif  // VORN_OPS_LOSS_OPS_H_
