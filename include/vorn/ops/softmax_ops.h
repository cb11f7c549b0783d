#ifndef VORN_OPS_SOFTMAX_OPS_H_
#define VORN_OPS_SOFTMAX_OPS_H_

#include "vorn/cpu/softmax_ops.h"
#include "vorn/gpu/softmax_ops.h"
#include "vorn/ops/element_ops.h"
#include "vorn/tensor/tensor.h"

/// Softmax over the channels of a tensor read as three nested extents: element (o, c, k) lies at
/// (o * channel + c) * inner + k. All operands are contiguous, which nothing tests; their shapes
/// matter by their element counts only. `alpha` and `beta` must be 1 and 0. Nothing is resized.
namespace vorn {

/// out(o, c, k) = e(c) / sum of e over the channels, e(c) = exp(in(o, c, k) - max over the channels
/// of in). A position whose inputs are all minus infinity becomes NaN. `out` may be `in`.
inline void vorn_softmax(const Tensor<float>& in, Tensor<float>& out, index_t outer,
                         index_t channel, index_t inner, DType alpha, DType beta) {
    CHECK(alpha == 1.0f && beta == 0.0f)
        << "softmax need alpha == 1.0f && beta == 0.0f vs alpha = " << alpha << " beta = " << beta;
    CHECK(channel != 1) << "softmax failed. outer = " << outer << " channel = " << channel
                        << " inner = " << inner;
    CHECK(out.get_element_count() == outer * channel * inner) << "element size not match";
    CHECK_EQ(in.get_size(), out.get_size());
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_softmax(in, out, outer, channel, inner, alpha, beta);
    } else {
        gpu::vorn_softmax(in, out, outer, channel, inner, alpha, beta);
    }
}

/// The sum over c of a(o, c, k), in ascending order, as element o * inner + k of `out`. The host
/// form adds to what `out` holds, the GPU form overwrites it.
inline void vorn_stat_channel_sum(const Tensor<float>& a, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner) {
    CHECK(a.get_element_count() == outer * channel * inner);
    CHECK(out.get_element_count() == outer * inner);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_stat_channel_sum(a, out, outer, channel, inner);
    } else {
        gpu::vorn_stat_channel_sum(a, out, outer, channel, inner);
    }
}

/// out = output * (src_grad - sum over the channels of output * src_grad), the gradient by the
/// input of a softmax with the result `output` and the gradient `src_grad` from above. The sums
/// stand in `softmax_sum` (outer * inner elements) afterwards. On the host they are added to what
/// it held, and that enters the result: zero it before. `out` is none of the inputs.
inline void vorn_softmax_bp_normal(const Tensor<float>& output, const Tensor<float>& src_grad,
                                   Tensor<float>& softmax_sum, Tensor<float>& out, index_t outer,
                                   index_t channel, index_t inner, DType alpha, DType beta) {
    CHECK(alpha == 1.0f && beta == 0.0f)
        << "softmax_bp_normal need alpha == 1.0f && beta == 0.0f vs alpha = " << alpha
        << " beta = " << beta;
    CHECK(channel != 1) << "softmax_bp_normal failed. outer = " << outer << " channel = " << channel
                        << " inner = " << inner;
    CHECK(out.get_element_count() == outer * channel * inner) << "element size not match";
    CHECK(softmax_sum.get_element_count() == outer * inner) << "element size not match";
    check_operands(output, src_grad, out);
    CHECK_SAME_DEVICE(softmax_sum, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_softmax_bp_normal(output, src_grad, softmax_sum, out, outer, channel, inner,
                                    alpha, beta);
    } else {
        gpu::vorn_softmax_bp_normal(output, src_grad, softmax_sum, out, outer, channel, inner,
                                    alpha, beta);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_SOFTMAX_OPS_H_
