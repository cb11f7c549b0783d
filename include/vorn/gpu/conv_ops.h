#ifndef VORN_GPU_CONV_OPS_H_
#define VORN_GPU_CONV_OPS_H_

#include <algorithm>
#include <vector>

#include "vorn/gpu/blas_ops.h"
#include "vorn/gpu/conv_gemm_ops.h"
#include "vorn/gpu/cudnn_wrap.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// GPU convolution of images: one call of cuDNN for the whole batch. Images carry their pitch,
/// filters are dense. cuDNN refuses empty tensors, which don't come to it: an empty output is left
/// alone, and the gradients of an empty batch are 0.
namespace vorn {
namespace gpu {

namespace helper {

/// The descriptors of a convolution of `x` with the filter `w` to `y`, any of which may be a
/// gradient, for the length of one call.
struct ConvDescriptors {
    cudnnTensorDescriptor_t x, y;
    cudnnFilterDescriptor_t w;
    cudnnConvolutionDescriptor_t conv;

    ConvDescriptors(const ConvDesc& conv_desc, const Tensor<float>& its_x,
                    const Tensor<float>& its_w, const Tensor<float>& its_y) {
        create_tensor_desc(&x, its_x);
        create_tensor_desc(&y, its_y);
        create_filter_desc(&w, its_w);
        create_conv_desc(&conv, conv_desc);
    }
    ~ConvDescriptors() {
        destroy_tensor_desc(x);
        destroy_tensor_desc(y);
        destroy_filter_desc(w);
        destroy_conv_desc(conv);
    }
    ConvDescriptors(const ConvDescriptors&) = delete;
    ConvDescriptors& operator=(const ConvDescriptors&) = delete;
};

}  // namespace helper

inline void vorn_conv_fwd(const ConvDesc& conv_desc, const Tensor<float>& x, const Tensor<float>& w,
                          Tensor<float>& out, void* work_space, index_t work_space_size_byte,
                          DType alpha, DType beta) {
    if (out.get_element_count() == 0) {
        return;
    }
    const helper::ConvDescriptors desc(conv_desc, x, w, out);
    const cudnnConvolutionFwdAlgo_t algo = helper::convert_conv_algo(conv_desc.algo);
    const cudnnStatus_t ret = cudnnConvolutionForward(
        t_ctx->cudnn_handle, &alpha, desc.x, x.get_ptr(), desc.w, w.get_ptr(), desc.conv, algo,
        work_space, work_space_size_byte, &beta, desc.y, out.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
}

inline void vorn_conv_grad(const ConvDesc& conv_desc, const Tensor<float>& x,
                           const Tensor<float>& dy, Tensor<float>& out, void* work_space,
                           index_t work_space_size_byte, DType alpha, DType beta) {
    if (dy.get_element_count() == 0) {
        return gpu::vorn_scal(out, beta);
    }
    const helper::ConvDescriptors desc(conv_desc, x, out, dy);
    const cudnnConvolutionBwdFilterAlgo_t algo =
        helper::convert_conv_grad_algo(conv_desc.grad_algo);
    const cudnnStatus_t ret = cudnnConvolutionBackwardFilter(
        t_ctx->cudnn_handle, &alpha, desc.x, x.get_ptr(), desc.y, dy.get_ptr(), desc.conv, algo,
        work_space, work_space_size_byte, &beta, desc.w, out.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
}

inline void vorn_conv_diff(const ConvDesc& conv_desc, const Tensor<float>& w,
                           const Tensor<float>& dy, Tensor<float>& out, void* work_space,
                           index_t work_space_size_byte, DType alpha, DType beta) {
    if (out.get_element_count() == 0) {
        return;
    }
    const helper::ConvDescriptors desc(conv_desc, out, w, dy);
    const cudnnConvolutionBwdDataAlgo_t algo = helper::convert_conv_diff_algo(conv_desc.diff_algo);
    const cudnnStatus_t ret = cudnnConvolutionBackwardData(
        t_ctx->cudnn_handle, &alpha, desc.w, w.get_ptr(), desc.y, dy.get_ptr(), desc.conv, algo,
        work_space, work_space_size_byte, &beta, desc.x, out.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
}

inline void vorn_add_tensor(const Tensor<float>& bias, Tensor<float>& out, DType alpha,
                            DType beta) {
    if (out.get_element_count() == 0) {
        return;
    }
    cudnnTensorDescriptor_t bias_desc, out_desc;
    helper::create_tensor_desc(&bias_desc, bias);
    helper::create_tensor_desc(&out_desc, out);
    const cudnnStatus_t ret = cudnnAddTensor(t_ctx->cudnn_handle, &alpha, bias_desc, bias.get_ptr(),
                                             &beta, out_desc, out.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    helper::destroy_tensor_desc(bias_desc);
    helper::destroy_tensor_desc(out_desc);
}

/// Blends once for the whole batch.
inline void vorn_conv_bias(const Tensor<float>& dy, Tensor<float>& out, DType alpha, DType beta) {
    if (dy.get_element_count() == 0) {
        return gpu::vorn_scal(out, beta);
    }
    cudnnTensorDescriptor_t dy_desc, out_desc;
    helper::create_tensor_desc(&dy_desc, dy);
    helper::create_tensor_desc(&out_desc, out);
    const cudnnStatus_t ret = cudnnConvolutionBackwardBias(
        t_ctx->cudnn_handle, &alpha, dy_desc, dy.get_ptr(), &beta, out_desc, out.get_ptr());
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    helper::destroy_tensor_desc(dy_desc);
    helper::destroy_tensor_desc(out_desc);
}

/// in: (num x channel x height x width), out: (num x height x channel x width), dense. A block
/// takes a sample's channel.
static __global__ void KeTransposeChannelHeight(const DType* in, DType* out, int num, int channel,
                                                int height, int width) {
    for (int n = blockIdx.y; n < num; n += gridDim.y) {
        for (int c = blockIdx.x; c < channel; c += gridDim.x) {
            for (int h = threadIdx.y; h < height; h += blockDim.y) {
                for (int w = threadIdx.x; w < width; w += blockDim.x) {
                    out[((n * height + h) * channel + c) * width + w] =
                        in[((n * channel + c) * height + h) * width + w];
                }
            }
        }
    }
}

inline void vorn_transpose_channel_height(const Tensor<float>& in, Tensor<float>& out) {
    if (out.get_element_count() == 0) {
        return;
    }
    const int num = static_cast<int>(in.get_n()), channel = static_cast<int>(in.get_c());
    launch<KeTransposeChannelHeight>(dim3(channel, std::min(num, kMaxGridSize)), dim3(128, 4),
                                     in.get_ptr(), out.get_ptr(), num, channel,
                                     static_cast<int>(in.get_h()), static_cast<int>(in.get_w()));
    VORN_KERNEL_TAIL();
}

// ---- Queries. Each translates its result after the descriptors are released.

inline ConvAlgo vorn_conv_get_fwd_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                       const Tensor<float>& w, const Tensor<float>& y,
                                       ConvAlgoPref pref, index_t memory_limit_bytes) {
    cudnnConvolutionFwdAlgo_t algo;
    {
        const helper::ConvDescriptors desc(conv_desc, x, w, y);
        const cudnnStatus_t ret = cudnnGetConvolutionForwardAlgorithm(
            t_ctx->cudnn_handle, desc.x, desc.w, desc.conv, desc.y,
            helper::convert_conv_algo_pref(pref), memory_limit_bytes, &algo);
        CHECK_CALL(ret);
        VORN_KERNEL_TAIL();
    }
    return helper::convert_cudnn_conv_algo(algo);
}

inline ConvGradAlgo vorn_conv_get_grad_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                            const Tensor<float>& dy, const Tensor<float>& dw,
                                            ConvGradAlgoPref pref, index_t memory_limit_bytes) {
    cudnnConvolutionBwdFilterAlgo_t algo;
    {
        const helper::ConvDescriptors desc(conv_desc, x, dw, dy);
        const cudnnStatus_t ret = cudnnGetConvolutionBackwardFilterAlgorithm(
            t_ctx->cudnn_handle, desc.x, desc.y, desc.conv, desc.w,
            helper::convert_conv_grad_algo_pref(pref), memory_limit_bytes, &algo);
        CHECK_CALL(ret);
        VORN_KERNEL_TAIL();
    }
    return helper::convert_cudnn_conv_grad_algo(algo);
}

inline ConvDiffAlgo vorn_conv_get_diff_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                            const Tensor<float>& dy, const Tensor<float>& dw,
                                            ConvDiffAlgoPref pref, index_t memory_limit_bytes) {
    cudnnConvolutionBwdDataAlgo_t algo;
    {
        const helper::ConvDescriptors desc(conv_desc, x, dw, dy);
        const cudnnStatus_t ret = cudnnGetConvolutionBackwardDataAlgorithm(
            t_ctx->cudnn_handle, desc.w, desc.y, desc.conv, desc.x,
            helper::convert_conv_diff_algo_pref(pref), memory_limit_bytes, &algo);
        CHECK_CALL(ret);
        VORN_KERNEL_TAIL();
    }
    return helper::convert_cudnn_conv_diff_algo(algo);
}

inline index_t vorn_conv_get_fwd_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                 const Tensor<float>& w, const Tensor<float>& y,
                                                 ConvAlgo algo) {
    const helper::ConvDescriptors desc(conv_desc, x, w, y);
    size_t size = 0;
    const cudnnStatus_t ret =
        cudnnGetConvolutionForwardWorkspaceSize(t_ctx->cudnn_handle, desc.x, desc.w, desc.conv,
                                                desc.y, helper::convert_conv_algo(algo), &size);
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    return size;
}

inline index_t vorn_conv_get_grad_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                  const Tensor<float>& dy, const Tensor<float>& dw,
                                                  ConvGradAlgo algo) {
    const helper::ConvDescriptors desc(conv_desc, x, dw, dy);
    size_t size = 0;
    const cudnnStatus_t ret = cudnnGetConvolutionBackwardFilterWorkspaceSize(
        t_ctx->cudnn_handle, desc.x, desc.y, desc.conv, desc.w,
        helper::convert_conv_grad_algo(algo), &size);
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    return size;
}

inline index_t vorn_conv_get_diff_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                  const Tensor<float>& dy, const Tensor<float>& dw,
                                                  ConvDiffAlgo algo) {
    const helper::ConvDescriptors desc(conv_desc, x, dw, dy);
    size_t size = 0;
    const cudnnStatus_t ret = cudnnGetConvolutionBackwardDataWorkspaceSize(
        t_ctx->cudnn_handle, desc.w, desc.y, desc.conv, desc.x,
        helper::convert_conv_diff_algo(algo), &size);
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
    return size;
}

/// The records of cuDNN in its order, those of trials that failed too.
template <typename Record, typename Algo>
auto convert_algo_perf(const Record* records, int count,
                       Algo (*convert_algo)(decltype(Record::algo))) {
    std::vector<ConvPerf<Algo>> perf;
    for (int i = 0; i < count; ++i) {
        perf.push_back({convert_algo(records[i].algo),
                        helper::convert_cudnn_conv_perf_status(records[i].status), records[i].time,
                        records[i].memory, records[i].determinism == CUDNN_DETERMINISTIC});
    }
    return perf;
}

inline std::vector<ConvAlgoPerf> vorn_conv_get_fwd_algo_perf(const ConvDesc& conv_desc,
                                                             const Tensor<float>& x,
                                                             const Tensor<float>& w,
                                                             const Tensor<float>& y) {
    cudnnConvolutionFwdAlgoPerf_t cudnn_perf[CUDNN_CONVOLUTION_FWD_ALGO_COUNT];
    int count_ret = 0;
    {
        const helper::ConvDescriptors desc(conv_desc, x, w, y);
        const auto& [cudnn_tensor_x, cudnn_tensor_y, cudnn_filter_w, cudnn_conv_desc] = desc;
        CHECK_CALL(cudnnFindConvolutionForwardAlgorithm(
            t_ctx->cudnn_handle, cudnn_tensor_x, cudnn_filter_w, cudnn_conv_desc, cudnn_tensor_y,
            CUDNN_CONVOLUTION_FWD_ALGO_COUNT, &count_ret, cudnn_perf));
    }
    return convert_algo_perf(cudnn_perf, count_ret, helper::convert_cudnn_conv_algo);
}

inline std::vector<ConvGradAlgoPerf> vorn_conv_get_grad_algo_perf(const ConvDesc& conv_desc,
                                                                  const Tensor<float>& x,
                                                                  const Tensor<float>& dy,
                                                                  const Tensor<float>& dw) {
    cudnnConvolutionBwdFilterAlgoPerf_t cudnn_perf[CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT];
    int count_ret = 0;
    {
        const helper::ConvDescriptors desc(conv_desc, x, dw, dy);
        const auto& [cudnn_tensor_x, cudnn_tensor_y, cudnn_filter_w, cudnn_conv_desc] = desc;
        CHECK_CALL(cudnnFindConvolutionBackwardFilterAlgorithm(
            t_ctx->cudnn_handle, cudnn_tensor_x, cudnn_tensor_y, cudnn_conv_desc, cudnn_filter_w,
            CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT, &count_ret, cudnn_perf));
    }
    return convert_algo_perf(cudnn_perf, count_ret, helper::convert_cudnn_conv_grad_algo);
}

inline std::vector<ConvDiffAlgoPerf> vorn_conv_get_diff_algo_perf(const ConvDesc& conv_desc,
                                                                  const Tensor<float>& x,
                                                                  const Tensor<float>& dy,
                                                                  const Tensor<float>& dw) {
    cudnnConvolutionBwdDataAlgoPerf_t cudnn_perf[CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT];
    int count_ret = 0;
    {
        const helper::ConvDescriptors desc(conv_desc, x, dw, dy);
        const auto& [cudnn_tensor_x, cudnn_tensor_y, cudnn_filter_w, cudnn_conv_desc] = desc;
        CHECK_CALL(cudnnFindConvolutionBackwardDataAlgorithm(
            t_ctx->cudnn_handle, cudnn_filter_w, cudnn_tensor_y, cudnn_conv_desc, cudnn_tensor_x,
            CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT, &count_ret, cudnn_perf));
    }
    return convert_algo_perf(cudnn_perf, count_ret, helper::convert_cudnn_conv_diff_algo);
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_CONV_OPS_H_
