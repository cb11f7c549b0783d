#ifndef VORN_CPU_CHANNEL_OPS_H_
#define VORN_CPU_CHANNEL_OPS_H_

#include <vector>

#include "vorn/cpu/kit/loops.h"
#include "vorn/cpu/kit/runs.h"
#include "vorn/tensor/tensor.h"

/// Host forms of slices and of concatenation along channels.
namespace vorn {
namespace cpu {

/// in: (outer, channel, inner), out: (outer, inner).
inline void vorn_shrink(const float* in, float* out, index_t outer, index_t channel, index_t inner,
                        index_t index) {
    copy_rows(in + index * inner, channel * inner, out, inner, outer, inner);
}

/// in: (outer, inner), out: (outer, channel, inner).
inline void vorn_shrink_bp(const float* in, float* out, index_t outer, index_t channel,
                           index_t inner, index_t index) {
    copy_rows(in, inner, out + index * inner, channel * inner, outer, inner);
}

/// A run of channels of a tensor (N, C, H, W).
struct ChannelRun {
    const Tensor<float>& tensor;
    index_t first;
};

/// to = from * alpha + to * beta on `channels` channels of each of `num` samples of height by
/// width.
inline void blend_channels(ChannelRun from, ChannelRun to, index_t num, index_t channels,
                           index_t height, index_t width, DType alpha, DType beta) {
    const bool both_con = from.tensor.is_contiguous() && to.tensor.is_contiguous();
    const index_t rows = both_con ? 1 : channels * height;
    const index_t row_width = both_con ? channels * height * width : width;
    if (rows * row_width == 0) {
        return;
    }
    const auto blend = [=](float x, float old) { return x * alpha + old * beta; };
    for (index_t n = 0; n < num; ++n) {
        const float* from_p = from.tensor.index(Dim(n, from.first, 0, 0));
        float* to_p = to.tensor.index(Dim(n, to.first, 0, 0));
        for (index_t row = 0; row < rows; ++row) {
            transform_run(blend, row_width, to_p, from_p, to_p);
            from_p += from.tensor.ld();
            to_p += to.tensor.ld();
        }
    }
}

inline void vorn_channel_append(const std::vector<Tensor<float>*>& src_vec, Tensor<float>& dst,
                                DType alpha, DType beta) {
    const index_t num = dst.get_n(), height = dst.get_h(), width = dst.get_w();
    index_t t_channel = 0;
    for (const Tensor<float>* src : src_vec) {
        const index_t s_channel = src->get_c();
        blend_channels({*src, 0}, {dst, t_channel}, num, s_channel, height, width, alpha, beta);
        t_channel += s_channel;
    }
}

inline void vorn_channel_append_derivative(const std::vector<Tensor<float>*>& dst_vec,
                                           const std::vector<bool>& filters,
                                           const Tensor<float>& src, DType alpha, DType beta) {
    const index_t num = src.get_n(), height = src.get_h(), width = src.get_w();
    index_t t_channel = 0;
    for (size_t i = 0; i < dst_vec.size(); ++i) {
        const index_t d_channel = dst_vec[i]->get_c();
        if (filters[i]) {
            blend_channels({src, t_channel}, {*dst_vec[i], 0}, num, d_channel, height, width, alpha,
                           beta);
        }
        t_channel += d_channel;
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_CHANNEL_OPS_H_
