#ifndef VORN_GPU_IMAGE_BATCH_NORM_OPS_H_
#define VORN_GPU_IMAGE_BATCH_NORM_OPS_H_

#include <algorithm>

#include "vorn/gpu/cudnn_wrap.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// Batch normalization of images: three forms are cuDNN's, and the backward pass through frozen
/// statistics is a kernel.
namespace vorn {
namespace gpu {

/// At least the minimum of cuDNN's earlier versions; today's takes 0 too. A NaN is raised to it.
inline double cudnn_epsilon(DType epsilon) {
    constexpr double kMinEpsilon = 1e-5;
    return epsilon >= kMinEpsilon ? epsilon : kMinEpsilon;
}

inline void vorn_image_bat_norm_forward_inf(BatNormType norm_type, DType alpha, DType beta,
                                            const Tensor<float>& x, Tensor<float>& y,
                                            const Tensor<float>& gamma, const Tensor<float>& bias,
                                            const Tensor<float>& mean, const Tensor<float>& var,
                                            DType epsilon) {
    cudnnTensorDescriptor_t x_desc, y_desc, mean_var_desc;
    helper::create_tensor_desc(&x_desc, x);
    helper::create_tensor_desc(&y_desc, y);
    helper::create_tensor_desc(&mean_var_desc, x, gamma, norm_type);
    const cudnnStatus_t ret = cudnnBatchNormalizationForwardInference(
        t_ctx->cudnn_handle, helper::convert_batch_norm_mode(norm_type), &alpha, &beta, x_desc,
        x.get_ptr(), y_desc, y.get_ptr(), mean_var_desc, gamma.get_ptr(), bias.get_ptr(),
        mean.get_ptr(), var.get_ptr(), cudnn_epsilon(epsilon));
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    helper::destroy_tensor_desc(x_desc);
    helper::destroy_tensor_desc(y_desc);
    helper::destroy_tensor_desc(mean_var_desc);
}

inline void vorn_image_bat_norm_forward_train(BatNormType norm_type, DType alpha, DType beta,
                                              const Tensor<float>& x, Tensor<float>& y,
                                              const Tensor<float>& gamma, const Tensor<float>& bias,
                                              DType exp_avg_factor, Tensor<float>& run_mean,
                                              Tensor<float>& run_var, DType epsilon,
                                              Tensor<float>& mean, Tensor<float>& var) {
    cudnnTensorDescriptor_t x_desc, y_desc, mean_var_desc;
    helper::create_tensor_desc(&x_desc, x, norm_type);
    helper::create_tensor_desc(&y_desc, y, norm_type);
    // A matrix is N images of W activations here, and its statistics must be those of an image.
    const Dim& size = x.get_size();
    const Dim images = size.get_axis() == 2 ? Dim(size[0], 1, 1, size[1]) : size;
    helper::create_tensor_desc(&mean_var_desc, Tensor<float>(x.get_ptr(), images, x.get_device()),
                               gamma, norm_type);
    const cudnnStatus_t ret = cudnnBatchNormalizationForwardTraining(
        t_ctx->cudnn_handle, helper::convert_batch_norm_mode(norm_type), &alpha, &beta, x_desc,
        x.get_ptr(), y_desc, y.get_ptr(), mean_var_desc, gamma.get_ptr(), bias.get_ptr(),
        exp_avg_factor, run_mean.get_ptr(), run_var.get_ptr(), cudnn_epsilon(epsilon),
        mean.get_ptr(), var.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    helper::destroy_tensor_desc(x_desc);
    helper::destroy_tensor_desc(y_desc);
    helper::destroy_tensor_desc(mean_var_desc);
}

inline void vorn_image_bat_norm_back(BatNormType norm_type, DType alpha_data_diff,
                                     DType beta_data_diff, DType alpha_param_diff,
                                     DType beta_param_diff, const Tensor<float>& x,
                                     Tensor<float>& dy, Tensor<float>& dx,
                                     const Tensor<float>& gamma, Tensor<float>& d_gamma,
                                     Tensor<float>& d_bias, DType epsilon,
                                     const Tensor<float>& mean, const Tensor<float>& var) {
    cudnnTensorDescriptor_t x_desc, dx_desc, dy_desc, mean_var_desc;
    helper::create_tensor_desc(&x_desc, x);
    helper::create_tensor_desc(&dx_desc, dx);
    helper::create_tensor_desc(&dy_desc, dy);
    helper::create_tensor_desc(&mean_var_desc, x, gamma, norm_type);
    const cudnnStatus_t ret = cudnnBatchNormalizationBackward(
        t_ctx->cudnn_handle, helper::convert_batch_norm_mode(norm_type), &alpha_data_diff,
        &beta_data_diff, &alpha_param_diff, &beta_param_diff, x_desc, x.get_ptr(), dy_desc,
        dy.get_ptr(), dx_desc, dx.get_ptr(), mean_var_desc, gamma.get_ptr(), d_gamma.get_ptr(),
        d_bias.get_ptr(), cudnn_epsilon(epsilon), mean.get_ptr(), var.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    helper::destroy_tensor_desc(x_desc);
    helper::destroy_tensor_desc(dx_desc);
    helper::destroy_tensor_desc(dy_desc);
    helper::destroy_tensor_desc(mean_var_desc);
}

/// in, out: (outer x channel x inner), var, scale: channel. A block takes rows of `inner`.
template <int NT>
__global__ void KeBatNormBackInf(DType* out, const DType* in, const DType* var, const DType* scale,
                                 DType epsilon, index_t outer, index_t channel, index_t inner) {
    for (index_t b = blockIdx.x; b < outer * channel; b += gridDim.x) {
        const index_t c = b % channel;
        const DType inv_std = rsqrtf(var[c] + epsilon);
        for (index_t i = threadIdx.x; i < inner; i += NT) {
            out[b * inner + i] = in[b * inner + i] * inv_std * scale[c];
        }
    }
}

inline void vorn_image_bat_norm_back_inf(BatNormType, const Tensor<float>& x,
                                         const Tensor<float>& var, const Tensor<float>& scale,
                                         Tensor<float>& out, DType epsilon) {
    const int NT = 256;
    const Dim& size = x.get_size();
    const index_t outer = size[0], channel = size[1];
    index_t inner = 1;
    for (int axis = 2; axis < size.get_axis(); ++axis) {
        inner *= size[axis];
    }
    if (outer * channel * inner == 0) {
        return;
    }
    launch<KeBatNormBackInf<NT>>(
        static_cast<unsigned>(std::min<index_t>(outer * channel, kMaxGridSize)), NT, out.get_ptr(),
        x.get_ptr(), var.get_ptr(), scale.get_ptr(), epsilon, outer, channel, inner);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_IMAGE_BATCH_NORM_OPS_H_
