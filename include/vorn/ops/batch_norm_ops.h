#ifndef VORN_OPS_BATCH_NORM_OPS_H_
#define VORN_OPS_BATCH_NORM_OPS_H_

#include "vorn/cpu/batch_norm_ops.h"
#include "vorn/gpu/batch_norm_ops.h"

/// Batch normalization over the frames of a batch, after Ioffe and Szegedy, "Batch Normalization",
/// ICML 2015, with running averages in training; formulas stand at the members of Tensor.
/// All matrices are dense and of the shape of `x`, vectors hold a float per column and `mask` an
/// int per row; this and a positive `real_frame_size` are the caller's to keep.
namespace vorn {

/// Tensor::audio_batch_norm_inf on `out`.
inline void vorn_audio_batch_norm_inf(const Tensor<float>& x, const Tensor<float>& scale,
                                      const Tensor<float>& bias, const Tensor<float>& mean,
                                      const Tensor<float>& var, const Tensor<int>& mask,
                                      Tensor<float>& out, DType epsilon) {
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_audio_batch_norm_inf(x, scale, bias, mean, var, mask, out, epsilon);
    } else {
        gpu::vorn_audio_batch_norm_inf(x, scale, bias, mean, var, mask, out, epsilon);
    }
}

/// Tensor::audio_batch_norm_train on `y`. The host computes the variance in one pass as
/// sum(x^2) / real_frame_size - m^2, which is the formula's value only where `mask` holds 0 and 1
/// and `real_frame_size` is the count of the ones.
inline void vorn_audio_batch_norm_train(const Tensor<float>& x, const Tensor<float>& scale,
                                        const Tensor<float>& bias, const Tensor<int>& mask,
                                        Tensor<float>& run_mean, Tensor<float>& run_var,
                                        Tensor<float>& statis_mean, Tensor<float>& statis_var,
                                        Tensor<float>& saved_mean, Tensor<float>& saved_inv_std,
                                        Tensor<float>& y, int real_frame_size, DType exp_avg_factor,
                                        DType statis_factor, DType epsilon) {
    if (is_cpu_device(y.get_device())) {
        cpu::vorn_audio_batch_norm_train(x, scale, bias, mask, run_mean, run_var, statis_mean,
                                         statis_var, saved_mean, saved_inv_std, y, real_frame_size,
                                         exp_avg_factor, statis_factor, epsilon);
    } else {
        gpu::vorn_audio_batch_norm_train(x, scale, bias, mask, run_mean, run_var, statis_mean,
                                         statis_var, saved_mean, saved_inv_std, y, real_frame_size,
                                         exp_avg_factor, statis_factor, epsilon);
    }
}

/// Tensor::audio_batch_norm_bp on `dx`.
inline void vorn_audio_batch_norm_bp(const Tensor<float>& x, const Tensor<float>& dy,
                                     const Tensor<float>& scale, const Tensor<float>& saved_mean,
                                     const Tensor<float>& saved_inv_std, const Tensor<int>& mask,
                                     Tensor<float>& dscale, Tensor<float>& dbias, Tensor<float>& dx,
                                     int real_frame_size, DType exp_avg_factor, DType epsilon) {
    if (is_cpu_device(dx.get_device())) {
        cpu::vorn_audio_batch_norm_bp(x, dy, scale, saved_mean, saved_inv_std, mask, dscale, dbias,
                                      dx, real_frame_size, exp_avg_factor, epsilon);
    } else {
        gpu::vorn_audio_batch_norm_bp(x, dy, scale, saved_mean, saved_inv_std, mask, dscale, dbias,
                                      dx, real_frame_size, exp_avg_factor, epsilon);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_BATCH_NORM_OPS_H_
