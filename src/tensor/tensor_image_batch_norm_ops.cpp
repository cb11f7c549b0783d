#include "vorn/ops/image_batch_norm_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::image_bat_norm_forward_inf(BatNormType norm_type, DType alpha, DType beta,
                                           const Tensor<float>& x, const Tensor<float>& gamma,
                                           const Tensor<float>& bias, const Tensor<float>& mean,
                                           const Tensor<float>& var, DType epsilon) {
    vorn_image_bat_norm_forward_inf(norm_type, alpha, beta, x, *this, gamma, bias, mean, var,
                                    epsilon);
}

template <typename T>
void Tensor<T>::image_bat_norm_forward_train(BatNormType norm_type, DType alpha, DType beta,
                                             const Tensor<float>& x, const Tensor<float>& gamma,
                                             const Tensor<float>& bias, DType exp_avg_factor,
                                             Tensor<float>& run_mean, Tensor<float>& run_var,
                                             DType epsilon, Tensor<float>& mean,
                                             Tensor<float>& var) {
    vorn_image_bat_norm_forward_train(norm_type, alpha, beta, x, *this, gamma, bias, exp_avg_factor,
                                      run_mean, run_var, epsilon, mean, var);
}

template <typename T>
void Tensor<T>::image_bat_norm_back(BatNormType norm_type, DType alpha_data_diff,
                                    DType beta_data_diff, DType alpha_param_diff,
                                    DType beta_param_diff, const Tensor<float>& x,
                                    Tensor<float>& dy, const Tensor<float>& gamma,
                                    Tensor<float>& d_gamma, Tensor<float>& d_bias, DType epsilon,
                                    const Tensor<float>& mean, const Tensor<float>& var) {
    vorn_image_bat_norm_back(norm_type, alpha_data_diff, beta_data_diff, alpha_param_diff,
                             beta_param_diff, x, dy, *this, gamma, d_gamma, d_bias, epsilon, mean,
                             var);
}

template <typename T>
void Tensor<T>::image_bat_norm_back_inf(BatNormType norm_type, const Tensor<float>& x,
                                        const Tensor<float>& var, const Tensor<float>& scale,
                                        DType epsilon) {
    vorn_image_bat_norm_back_inf(norm_type, x, var, scale, *this, epsilon);
}

// ---- Instantiations

using F = Tensor<float>;

template void F::image_bat_norm_forward_inf(BatNormType, DType, DType, const F&, const F&, const F&,
                                            const F&, const F&, DType);
template void F::image_bat_norm_forward_train(BatNormType, DType, DType, const F&, const F&,
                                              const F&, DType, F&, F&, DType, F&, F&);
template void F::image_bat_norm_back(BatNormType, DType, DType, DType, DType, const F&, F&,
                                     const F&, F&, F&, DType, const F&, const F&);
template void F::image_bat_norm_back_inf(BatNormType, const F&, const F&, const F&, DType);

}  // namespace vorn
