#ifndef VORN_GPU_POOLING_OPS_H_
#define VORN_GPU_POOLING_OPS_H_

#include "vorn/gpu/cudnn_wrap.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// GPU pooling of images, which is cuDNN's. Images carry their pitch. An empty
/// output is left alone, because cuDNN refuses empty tensors.
namespace vorn {
namespace gpu {

inline void vorn_pool_fwd(const PoolingDesc& pooling_desc, const Tensor<float>& in,
                          Tensor<float>& out, DType alpha, DType beta) {
    if (out.get_element_count() == 0) {
        return;
    }
    cudnnPoolingDescriptor_t pool_desc;
    cudnnTensorDescriptor_t in_desc, out_desc;
    helper::create_pooling_desc(&pool_desc, pooling_desc);
    helper::create_tensor_desc(&in_desc, in);
    helper::create_tensor_desc(&out_desc, out);
    cudnnStatus_t ret = cudnnPoolingForward(t_ctx->cudnn_handle, pool_desc, &alpha, in_desc,
                                            in.get_ptr(), &beta, out_desc, out.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    helper::destroy_tensor_desc(in_desc);
    helper::destroy_tensor_desc(out_desc);
    ret = cudnnDestroyPoolingDescriptor(pool_desc);
    CHECK_CALL(ret);
}

inline void vorn_pool_diff(const PoolingDesc& pooling_desc, const Tensor<float>& y,
                           const Tensor<float>& dy, const Tensor<float>& x, Tensor<float>& out,
                           DType alpha, DType beta) {
    if (out.get_element_count() == 0) {
        return;
    }
    cudnnPoolingDescriptor_t pool_desc;
    cudnnTensorDescriptor_t y_desc, dy_desc, x_desc, out_desc;
    helper::create_pooling_desc(&pool_desc, pooling_desc);
    helper::create_tensor_desc(&y_desc, y);
    helper::create_tensor_desc(&dy_desc, dy);
    helper::create_tensor_desc(&x_desc, x);
    helper::create_tensor_desc(&out_desc, out);
    cudnnStatus_t ret =
        cudnnPoolingBackward(t_ctx->cudnn_handle, pool_desc, &alpha, y_desc, y.get_ptr(), dy_desc,
                             dy.get_ptr(), x_desc, x.get_ptr(), &beta, out_desc, out.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    helper::destroy_tensor_desc(y_desc);
    helper::destroy_tensor_desc(dy_desc);
    helper::destroy_tensor_desc(x_desc);
    helper::destroy_tensor_desc(out_desc);
    ret = cudnnDestroyPoolingDescriptor(pool_desc);
    CHECK_CALL(ret);
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_POOLING_OPS_H_
