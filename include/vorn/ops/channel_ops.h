#ifndef VORN_OPS_CHANNEL_OPS_H_
#define VORN_OPS_CHANNEL_OPS_H_

#include <algorithm>
#include <vector>

#include "vorn/cpu/channel_ops.h"
#include "vorn/gpu/channel_ops.h"

/// Slices of one axis, and tensors (N, C, H, W) concatenated along their channels. A GPU takes at
/// most 65535 tensors of a concatenation and refuses the launch beyond that.
namespace vorn {

/// out = index `index` of axis `dim` of `in`. Dense operands.
inline void vorn_shrink(const Tensor<float>& in, Tensor<float>& out, size_t dim, size_t index) {
    CHECK(in.get_dim() == out.get_dim());
    CHECK(in.get_size(dim) > index);
    CHECK(out.get_size(dim) == 1u);
    CHECK(out.get_element_count() * in.get_size(dim) == in.get_element_count());
    const int axis = static_cast<int>(dim);
    const index_t outer = in.count(0, axis), channel = in.count(axis, axis + 1);
    const index_t inner = in.count(axis + 1);
    const float* in_ptr = in.get_ptr();
    float* out_ptr = out.get_ptr();
    if (is_cpu_device(out.get_device())) {
        CHECK(nullptr != in_ptr);
        CHECK(nullptr != out_ptr);
        cpu::vorn_shrink(in_ptr, out_ptr, outer, channel, inner, index);
    } else {
        CHECK_NOTNULL(in_ptr);
        CHECK_NOTNULL(out_ptr);
        gpu::vorn_shrink(in_ptr, out_ptr, outer, channel, inner, index);
    }
}

/// Index `index` of axis `dim` of `out` = in; the other indices keep their values. Dense operands.
inline void vorn_shrink_bp(const Tensor<float>& in, Tensor<float>& out, size_t dim, size_t index) {
    CHECK(in.get_dim() == out.get_dim());
    CHECK(out.get_size(dim) > index);
    CHECK(in.get_size(dim) == 1u);
    CHECK(in.get_element_count() * out.get_size(dim) == out.get_element_count());
    const int axis = static_cast<int>(dim);
    const index_t outer = out.count(0, axis), channel = out.count(axis, axis + 1);
    const index_t inner = out.count(axis + 1);
    const float* in_ptr = in.get_ptr();
    float* out_ptr = out.get_ptr();
    if (is_cpu_device(out.get_device())) {
        CHECK(nullptr != in_ptr);
        CHECK(nullptr != out_ptr);
        cpu::vorn_shrink_bp(in_ptr, out_ptr, outer, channel, inner, index);
    } else {
        CHECK_NOTNULL(in_ptr);
        CHECK_NOTNULL(out_ptr);
        gpu::vorn_shrink_bp(in_ptr, out_ptr, outer, channel, inner, index);
    }
}

/// Whether `whole` and all its parts are dense.
inline bool are_contiguous(const Tensor<float>& whole, const std::vector<Tensor<float>*>& parts) {
    return whole.is_contiguous() &&
           std::all_of(parts.begin(), parts.end(),
                       [](const Tensor<float>* part) { return part->is_contiguous(); });
}

/// dst = alpha * the sources, one after the other along the channels + beta * dst. An empty list
/// leaves `dst` as it was. A GPU takes dense tensors only, and finds them through `ptr`.
inline void vorn_channel_append(const std::vector<Tensor<float>*>& src_vec,
                                Tensor<unsigned long>& ptr, Tensor<float>& dst, DType alpha,
                                DType beta) {
    CHECK_SAME_DEVICE(ptr, dst);
    if (is_cpu_device(dst.get_device())) {
        cpu::vorn_channel_append(src_vec, dst, alpha, beta);
    } else {
        const bool both_continue = are_contiguous(dst, src_vec);
        CHECK(both_continue) << "channel_append(gpu) just support contiguous tensor";
        gpu::vorn_channel_append(src_vec, ptr, dst, alpha, beta);
    }
}

/// dst = alpha * its channels of `src` + beta * dst for each destination whose filter is set. The
/// others keep their place among the channels of `src`. A GPU takes dense tensors only, which
/// matters, also for those without a filter, only where a filter is set.
inline void vorn_channel_append_derivative(const std::vector<Tensor<float>*>& dst_vec,
                                           const std::vector<bool>& filters,
                                           Tensor<unsigned long>& ptr, const Tensor<float>& src,
                                           DType alpha, DType beta) {
    CHECK_SAME_DEVICE(ptr, src);
    CHECK_EQ(dst_vec.size(), filters.size()) << dst_vec.size() << " vs " << filters.size();
    if (is_cpu_device(src.get_device())) {
        cpu::vorn_channel_append_derivative(dst_vec, filters, src, alpha, beta);
        return;
    }
    const bool not_skip = std::find(filters.begin(), filters.end(), true) != filters.end();
    if (not_skip) {
        const bool both_continue = are_contiguous(src, dst_vec);
        CHECK(both_continue) << "channel_append(gpu) just support contiguous tensor";
        gpu::vorn_channel_append_derivative(dst_vec, filters, ptr, src, alpha, beta);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_CHANNEL_OPS_H_
