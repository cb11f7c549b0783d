#include "vorn/ops/batch_norm_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::audio_batch_norm_inf(const Tensor& x, const Tensor& scale, const Tensor& bias,
                                     const Tensor& mean, const Tensor& var, const Tensor<int>& mask,
                                     DType epsilon) {
    vorn_audio_batch_norm_inf(x, scale, bias, mean, var, mask, *this, epsilon);
}

template <typename T>
void Tensor<T>::audio_batch_norm_train(const Tensor& x, const Tensor& scale, const Tensor& bias,
                                       const Tensor<int>& mask, Tensor& run_mean, Tensor& run_var,
                                       Tensor& statis_mean, Tensor& statis_var, Tensor& saved_mean,
                                       Tensor& saved_inv_std, int real_frame_size,
                                       DType exp_avg_factor, DType statis_factor, DType epsilon) {
    vorn_audio_batch_norm_train(x, scale, bias, mask, run_mean, run_var, statis_mean, statis_var,
                                saved_mean, saved_inv_std, *this, real_frame_size, exp_avg_factor,
                                statis_factor, epsilon);
}

template <typename T>
void Tensor<T>::audio_batch_norm_bp(const Tensor& x, const Tensor& dy, const Tensor& scale,
                                    const Tensor& saved_mean, const Tensor& saved_inv_std,
                                    const Tensor<int>& mask, Tensor& dscale, Tensor& dbias,
                                    int real_frame_size, DType exp_avg_factor, DType epsilon) {
    vorn_audio_batch_norm_bp(x, dy, scale, saved_mean, saved_inv_std, mask, dscale, dbias, *this,
                             real_frame_size, exp_avg_factor, epsilon);
}

// ---- Instantiations

using F = Tensor<float>;
using I = Tensor<int>;

template void F::audio_batch_norm_inf(const F&, const F&, const F&, const F&, const F&, const I&,
                                      DType);
template void F::audio_batch_norm_train(const F&, const F&, const F&, const I&, F&, F&, F&, F&, F&,
                                        F&, int, DType, DType, DType);
template void F::audio_batch_norm_bp(const F&, const F&, const F&, const F&, const F&, const I&, F&,
                                     F&, int, DType, DType);

}  // namespace vorn
