#ifndef VORN_OPS_AUDIO_CONV_OPS_H_
#define VORN_OPS_AUDIO_CONV_OPS_H_

#include "vorn/cpu/audio_conv_ops.h"
#include "vorn/gpu/audio_conv_ops.h"

/// Convolution of filter banks along frequency: patches and their adjoint, bias and pooling.
/// Formulas and layouts stand at the members of Tensor. Sizes are the caller's. A GPU takes at most
/// 65535 blocks of rows in vorn_audio_conv_batch_bias_bp and refuses the launch beyond that.
namespace vorn {

inline void vorn_expand_feat(const Tensor<float>& feat, int fbank, int delta, int conv_out_dim,
                             int filter_size, const Tensor<int>& conv_start,
                             const Tensor<int>& conv_end, Tensor<float>& out) {
    CHECK_SAME_DEVICE(conv_start, out);
    CHECK_SAME_DEVICE(conv_end, out);
    CHECK_SAME_DEVICE(feat, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_expand_feat(feat, fbank, delta, conv_out_dim, filter_size, conv_start, conv_end,
                              out);
    } else {
        gpu::vorn_expand_feat(feat, fbank, delta, conv_out_dim, filter_size, conv_start, conv_end,
                              out);
    }
}

inline void vorn_shrink_errors(const Tensor<float>& expand, int fbank, int delta, int conv_out_dim,
                               int filter_size, const Tensor<int>& conv_start,
                               const Tensor<int>& conv_end, Tensor<float>& out) {
    CHECK_SAME_DEVICE(conv_start, out);
    CHECK_SAME_DEVICE(conv_end, out);
    CHECK_SAME_DEVICE(expand, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_shrink_errors(expand, fbank, delta, conv_out_dim, filter_size, conv_start,
                                conv_end, out);
    } else {
        gpu::vorn_shrink_errors(expand, fbank, delta, conv_out_dim, filter_size, conv_start,
                                conv_end, out);
    }
}

inline void vorn_audio_conv_batch_bias(const Tensor<float>& bias, Tensor<float>& out, int batch) {
    CHECK(bias.get_h() == static_cast<index_t>(batch));
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_audio_conv_batch_bias(bias, out, batch);
    } else {
        gpu::vorn_audio_conv_batch_bias(bias, out, batch);
    }
}

inline void vorn_audio_conv_batch_bias_bp(const Tensor<float>& dy, Tensor<float>& dbias,
                                          int batch) {
    CHECK(dbias.get_h() == static_cast<index_t>(batch));
    if (is_cpu_device(dbias.get_device())) {
        cpu::vorn_audio_conv_batch_bias_bp(dy, dbias, batch);
    } else {
        gpu::vorn_audio_conv_batch_bias_bp(dy, dbias, batch);
    }
}

inline void vorn_max_pooling(const Tensor<float>& in, const Tensor<int>& conv_size, int filter_num,
                             int pooling_size, Tensor<int>& max_idx, Tensor<float>& out,
                             DType alpha, DType beta) {
    CHECK_SAME_DEVICE(conv_size, out);
    CHECK_SAME_DEVICE(max_idx, out);
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_max_pooling(in, conv_size, filter_num, pooling_size, max_idx, out, alpha, beta);
    } else {
        gpu::vorn_max_pooling(in, conv_size, filter_num, pooling_size, max_idx, out, alpha, beta);
    }
}

inline void vorn_max_pooling_bp(const Tensor<float>& in, const Tensor<int>& conv_size,
                                int filter_num, int pooling_size, const Tensor<int>& max_idx,
                                Tensor<float>& out, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(conv_size, out);
    CHECK_SAME_DEVICE(max_idx, out);
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_max_pooling_bp(in, conv_size, filter_num, pooling_size, max_idx, out, alpha,
                                 beta);
    } else {
        gpu::vorn_max_pooling_bp(in, conv_size, filter_num, pooling_size, max_idx, out, alpha,
                                 beta);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_AUDIO_CONV_OPS_H_
