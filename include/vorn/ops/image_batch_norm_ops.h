#ifndef VORN_OPS_IMAGE_BATCH_NORM_OPS_H_
#define VORN_OPS_IMAGE_BATCH_NORM_OPS_H_

#include "vorn/cpu/image_batch_norm_ops.h"
#include "vorn/gpu/image_batch_norm_ops.h"

/// Batch normalization of images, on a GPU only. Formulas and shapes stand at the members of
/// Tensor. The tests of shapes stand where cuDNN's descriptors are made, in cudnn_wrap.h.
namespace vorn {

/// Tensor::image_bat_norm_forward_inf on `y`.
inline void vorn_image_bat_norm_forward_inf(BatNormType norm_type, DType alpha, DType beta,
                                            const Tensor<float>& x, Tensor<float>& y,
                                            const Tensor<float>& gamma, const Tensor<float>& bias,
                                            const Tensor<float>& mean, const Tensor<float>& var,
                                            DType epsilon) {
    if (is_cpu_device(y.get_device())) {
        cpu::vorn_image_bat_norm_forward_inf(norm_type, alpha, beta, x, y, gamma, bias, mean, var,
                                             epsilon);
    } else {
        gpu::vorn_image_bat_norm_forward_inf(norm_type, alpha, beta, x, y, gamma, bias, mean, var,
                                             epsilon);
    }
}

/// Tensor::image_bat_norm_forward_train on `y`.
inline void vorn_image_bat_norm_forward_train(BatNormType norm_type, DType alpha, DType beta,
                                              const Tensor<float>& x, Tensor<float>& y,
                                              const Tensor<float>& gamma, const Tensor<float>& bias,
                                              DType exp_avg_factor, Tensor<float>& run_mean,
                                              Tensor<float>& run_var, DType epsilon,
                                              Tensor<float>& mean, Tensor<float>& var) {
    if (is_cpu_device(y.get_device())) {
        cpu::vorn_image_bat_norm_forward_train(norm_type, alpha, beta, x, y, gamma, bias,
                                               exp_avg_factor, run_mean, run_var, epsilon, mean,
                                               var);
    } else {
        gpu::vorn_image_bat_norm_forward_train(norm_type, alpha, beta, x, y, gamma, bias,
                                               exp_avg_factor, run_mean, run_var, epsilon, mean,
                                               var);
    }
}

/// Tensor::image_bat_norm_back on `dx`.
inline void vorn_image_bat_norm_back(BatNormType norm_type, DType alpha_data_diff,
                                     DType beta_data_diff, DType alpha_param_diff,
                                     DType beta_param_diff, const Tensor<float>& x,
                                     Tensor<float>& dy, Tensor<float>& dx,
                                     const Tensor<float>& gamma, Tensor<float>& d_gamma,
                                     Tensor<float>& d_bias, DType epsilon,
                                     const Tensor<float>& mean, const Tensor<float>& var) {
    if (is_cpu_device(dx.get_device())) {
        cpu::vorn_image_bat_norm_back(norm_type, alpha_data_diff, beta_data_diff, alpha_param_diff,
                                      beta_param_diff, x, dy, dx, gamma, d_gamma, d_bias, epsilon,
                                      mean, var);
    } else {
        gpu::vorn_image_bat_norm_back(norm_type, alpha_data_diff, beta_data_diff, alpha_param_diff,
                                      beta_param_diff, x, dy, dx, gamma, d_gamma, d_bias, epsilon,
                                      mean, var);
    }
}

/// Tensor::image_bat_norm_back_inf on `out`.
inline void vorn_image_bat_norm_back_inf(BatNormType norm_type, const Tensor<float>& x,
                                         const Tensor<float>& var, const Tensor<float>& scale,
                                         Tensor<float>& out, DType epsilon) {
    CHECK_EQ(norm_type, NORM_1C11) << "image_bat_norm_back_inf only support 1C11";
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_image_bat_norm_back_inf(norm_type, x, var, scale, out, epsilon);
    } else {
        gpu::vorn_image_bat_norm_back_inf(norm_type, x, var, scale, out, epsilon);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_IMAGE_BATCH_NORM_OPS_H_
