#ifndef VORN_OPS_CONV_OPS_H_
#define VORN_OPS_CONV_OPS_H_

#include <vector>

#include "vorn/cpu/conv_ops.h"
#include "vorn/gpu/conv_ops.h"

/// Convolution of images, its gradients, its bias, and the queries that tell a caller which
/// algorithm to take and how much work space it needs. Formulas stand at the members of Tensor.
/// Sizes are the caller's.
namespace vorn {

/// Aborts if the work space of a host convolution that needs one is too small for it. `in` is the
/// image, `out` the output.
inline void check_work_space(const ConvDesc& conv_desc, const Tensor<float>& w,
                             const Tensor<float>& in, const Tensor<float>& out,
                             index_t work_space_size_byte) {
    const cpu::ConvMatrices matrices(conv_desc, w, in, out);
    if (matrices.batch() > 0 && !matrices.is_image_of_columns()) {
        const int buffer_size = matrices.buffer_size();
        CHECK_GE(work_space_size_byte, buffer_size * sizeof(DType))
            << "Expect: " << buffer_size * sizeof(DType) << " Malloced:" << work_space_size_byte;
    }
}

inline void vorn_conv_fwd(const ConvDesc& conv_desc, const Tensor<float>& x, const Tensor<float>& w,
                          Tensor<float>& out, void* work_space, index_t work_space_size_byte,
                          DType alpha, DType beta) {
    CHECK_SAME_DEVICE(x, out);
    CHECK_SAME_DEVICE(w, out);
    if (is_cpu_device(out.get_device())) {
        check_work_space(conv_desc, w, x, out, work_space_size_byte);
        cpu::vorn_conv_fwd(conv_desc, x, w, out, work_space, work_space_size_byte, alpha, beta);
    } else {
        gpu::vorn_conv_fwd(conv_desc, x, w, out, work_space, work_space_size_byte, alpha, beta);
    }
}

inline void vorn_conv_grad(const ConvDesc& conv_desc, const Tensor<float>& x,
                           const Tensor<float>& dy, Tensor<float>& out, void* work_space,
                           index_t work_space_size_byte, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(x, out);
    CHECK_SAME_DEVICE(dy, out);
    if (is_cpu_device(out.get_device())) {
        CHECK(alpha == 1.0f);
        CHECK(beta == 1.0f);
        check_work_space(conv_desc, out, x, dy, work_space_size_byte);
        cpu::vorn_conv_grad(conv_desc, x, dy, out, work_space, work_space_size_byte, alpha, beta);
    } else {
        gpu::vorn_conv_grad(conv_desc, x, dy, out, work_space, work_space_size_byte, alpha, beta);
    }
}

inline void vorn_conv_diff(const ConvDesc& conv_desc, const Tensor<float>& w,
                           const Tensor<float>& dy, Tensor<float>& out, void* work_space,
                           index_t work_space_size_byte, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(w, out);
    CHECK_SAME_DEVICE(dy, out);
    if (is_cpu_device(out.get_device())) {
        check_work_space(conv_desc, w, out, dy, work_space_size_byte);
        cpu::vorn_conv_diff(conv_desc, w, dy, out, work_space, work_space_size_byte, alpha, beta);
    } else {
        gpu::vorn_conv_diff(conv_desc, w, dy, out, work_space, work_space_size_byte, alpha, beta);
    }
}

inline void vorn_add_tensor(const Tensor<float>& bias, Tensor<float>& out, DType alpha,
                            DType beta) {
    CHECK_SAME_DEVICE(bias, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_add_tensor(bias, out, alpha, beta);
    } else {
        gpu::vorn_add_tensor(bias, out, alpha, beta);
    }
}

inline void vorn_conv_bias(const Tensor<float>& dy, Tensor<float>& out, DType alpha, DType beta) {
    CHECK_SAME_DEVICE(dy, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_conv_bias(dy, out, alpha, beta);
    } else {
        gpu::vorn_conv_bias(dy, out, alpha, beta);
    }
}

inline void vorn_transpose_channel_height(const Tensor<float>& in, Tensor<float>& out) {
    CHECK(in.get_dim() == 4u) << "transpose_channel_height just support 4D";
    CHECK(out.get_dim() == 4u) << "transpose_channel_height just support 4D";
    CHECK(in.get_element_count() == out.get_element_count()) << "element count not match";
    CHECK(in.get_c() == out.get_h());
    CHECK(in.get_h() == out.get_c());
    CHECK(in.get_n() == out.get_n());
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_transpose_channel_height(in, out);
    } else {
        gpu::vorn_transpose_channel_height(in, out);
    }
}

// ---- Queries

inline ConvAlgo vorn_conv_get_fwd_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                       const Tensor<float>& w, const Tensor<float>& y,
                                       ConvAlgoPref pref, index_t memory_limit_bytes) {
    CHECK_SAME_DEVICE(x, y);
    CHECK_SAME_DEVICE(w, y);
    return is_cpu_device(x.get_device())
               ? cpu::vorn_conv_get_fwd_algo(conv_desc, x, w, y, pref, memory_limit_bytes)
               : gpu::vorn_conv_get_fwd_algo(conv_desc, x, w, y, pref, memory_limit_bytes);
}

inline ConvGradAlgo vorn_conv_get_grad_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                            const Tensor<float>& dy, const Tensor<float>& dw,
                                            ConvGradAlgoPref pref, index_t memory_limit_bytes) {
    CHECK_SAME_DEVICE(x, dy);
    CHECK_SAME_DEVICE(dw, dy);
    return is_cpu_device(x.get_device())
               ? cpu::vorn_conv_get_grad_algo(conv_desc, x, dy, dw, pref, memory_limit_bytes)
               : gpu::vorn_conv_get_grad_algo(conv_desc, x, dy, dw, pref, memory_limit_bytes);
}

inline ConvDiffAlgo vorn_conv_get_diff_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                            const Tensor<float>& dy, const Tensor<float>& dw,
                                            ConvDiffAlgoPref pref, index_t memory_limit_bytes) {
    CHECK_SAME_DEVICE(x, dy);
    CHECK_SAME_DEVICE(dw, dy);
    return is_cpu_device(x.get_device())
               ? cpu::vorn_conv_get_diff_algo(conv_desc, x, dy, dw, pref, memory_limit_bytes)
               : gpu::vorn_conv_get_diff_algo(conv_desc, x, dy, dw, pref, memory_limit_bytes);
}

inline index_t vorn_conv_get_fwd_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                 const Tensor<float>& w, const Tensor<float>& y,
                                                 ConvAlgo algo) {
    CHECK_SAME_DEVICE(x, y);
    CHECK_SAME_DEVICE(w, y);
    return is_cpu_device(x.get_device())
               ? cpu::vorn_conv_get_fwd_work_space_size(conv_desc, x, w, y, algo)
               : gpu::vorn_conv_get_fwd_work_space_size(conv_desc, x, w, y, algo);
}

inline index_t vorn_conv_get_grad_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                  const Tensor<float>& dy, const Tensor<float>& dw,
                                                  ConvGradAlgo algo) {
    CHECK_SAME_DEVICE(x, dy);
    CHECK_SAME_DEVICE(dw, dy);
    return is_cpu_device(x.get_device())
               ? cpu::vorn_conv_get_grad_work_space_size(conv_desc, x, dy, dw, algo)
               : gpu::vorn_conv_get_grad_work_space_size(conv_desc, x, dy, dw, algo);
}

inline index_t vorn_conv_get_diff_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                  const Tensor<float>& dy, const Tensor<float>& dw,
                                                  ConvDiffAlgo algo) {
    CHECK_SAME_DEVICE(x, dy);
    CHECK_SAME_DEVICE(dw, dy);
    return is_cpu_device(x.get_device())
               ? cpu::vorn_conv_get_diff_work_space_size(conv_desc, x, dy, dw, algo)
               : gpu::vorn_conv_get_diff_work_space_size(conv_desc, x, dy, dw, algo);
}

inline std::vector<ConvAlgoPerf> vorn_conv_get_fwd_algo_perf(const ConvDesc& conv_desc,
                                                             const Tensor<float>& x,
                                                             const Tensor<float>& w,
                                                             const Tensor<float>& y) {
    CHECK_SAME_DEVICE(x, y);
    CHECK_SAME_DEVICE(w, y);
    return is_cpu_device(x.get_device()) ? cpu::vorn_conv_get_fwd_algo_perf(conv_desc, x, w, y)
                                         : gpu::vorn_conv_get_fwd_algo_perf(conv_desc, x, w, y);
}

inline std::vector<ConvGradAlgoPerf> vorn_conv_get_grad_algo_perf(const ConvDesc& conv_desc,
                                                                  const Tensor<float>& x,
                                                                  const Tensor<float>& dy,
                                                                  const Tensor<float>& dw) {
    CHECK_SAME_DEVICE(x, dw);
    CHECK_SAME_DEVICE(dy, dw);
    return is_cpu_device(x.get_device()) ? cpu::vorn_conv_get_grad_algo_perf(conv_desc, x, dy, dw)
                                         : gpu::vorn_conv_get_grad_algo_perf(conv_desc, x, dy, dw);
}

inline std::vector<ConvDiffAlgoPerf> vorn_conv_get_diff_algo_perf(const ConvDesc& conv_desc,
                                                                  const Tensor<float>& x,
                                                                  const Tensor<float>& dy,
                                                                  const Tensor<float>& dw) {
    CHECK_SAME_DEVICE(x, dy);
    CHECK_SAME_DEVICE(dw, dy);
    return is_cpu_device(x.get_device()) ? cpu::vorn_conv_get_diff_algo_perf(conv_desc, x, dy, dw)
                                         : gpu::vorn_conv_get_diff_algo_perf(conv_desc, x, dy, dw);
}

}  // namespace vorn

#endif  // VORN_OPS_CONV_OPS_H_
