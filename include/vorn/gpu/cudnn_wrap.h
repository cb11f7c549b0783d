#ifndef VORN_GPU_CUDNN_WRAP_H_
#define VORN_GPU_CUDNN_WRAP_H_

#include <cudnn.h>
#include <cudnn_preference.h>

#include <algorithm>
#include <cstddef>

#include "vorn/base.h"
#include "vorn/logging.h"
#include "vorn/tensor/tensor.h"
#include "vorn/tensor/tensor_view.h"
#include "vorn/util/gpu_util.h"

/// What the library says to cuDNN: descriptors, each of which lives for one call, and enumerations.
/// A status other than success aborts with its text, and so does a value without a counterpart.
namespace vorn {
namespace gpu {
namespace helper {

// ---- Translations

/// A value of the library and its counterpart.
template <typename Ours, typename Theirs>
struct Pair {
    Ours ours;
    Theirs theirs;
};

template <typename Ours, typename Theirs, size_t n>
Theirs to_cudnn(const Pair<Ours, Theirs> (&pairs)[n], Ours value, const char* failure) {
    const auto* pair = std::find_if(pairs, pairs + n, [&](auto& p) { return p.ours == value; });
    if (pair == pairs + n) {
        LOG_FATAL << failure << static_cast<int>(value);
    }
    return pair->theirs;
}

template <typename Ours, typename Theirs, size_t n>
Ours from_cudnn(const Pair<Ours, Theirs> (&pairs)[n], Theirs value, const char* failure) {
    const auto* pair = std::find_if(pairs, pairs + n, [&](auto& p) { return p.theirs == value; });
    if (pair == pairs + n) {
        LOG_FATAL << failure << static_cast<int>(value);
    }
    return pair->ours;
}

inline constexpr Pair<ConvAlgo, cudnnConvolutionFwdAlgo_t> kConvAlgos[] = {
    {CONV_ALGO_IMPLICIT_GEMM, CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM},
    {CONV_ALGO_IMPLICIT_PRECOMP_GEMM, CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM},
    {CONV_ALGO_GEMM, CUDNN_CONVOLUTION_FWD_ALGO_GEMM},
    {CONV_ALGO_DIRECT, CUDNN_CONVOLUTION_FWD_ALGO_DIRECT},
    {CONV_ALGO_FFT, CUDNN_CONVOLUTION_FWD_ALGO_FFT},
    {CONV_ALGO_FFT_TILING, CUDNN_CONVOLUTION_FWD_ALGO_FFT_TILING},
    {CONV_ALGO_WINOGRAD, CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD},
    {CONV_ALGO_WINOGRAD_NONFUSED, CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED},
};
inline cudnnConvolutionFwdAlgo_t convert_conv_algo(ConvAlgo algo) {
    return to_cudnn(kConvAlgos, algo, "invalid ConvAlgo ");
}
inline ConvAlgo convert_cudnn_conv_algo(cudnnConvolutionFwdAlgo_t algo) {
    return from_cudnn(kConvAlgos, algo, "invalid cudnnConvolutionFwdAlgo_t ");
}

inline constexpr Pair<ConvGradAlgo, cudnnConvolutionBwdFilterAlgo_t> kConvGradAlgos[] = {
    {CONV_GRAD_ALGO_0, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_0},
    {CONV_GRAD_ALGO_1, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_1},
    {CONV_GRAD_ALGO_FFT, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_FFT},
    {CONV_GRAD_ALGO_3, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_3},
    {CONV_GRAD_ALGO_WINOGRAD, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_WINOGRAD},
    {CONV_GRAD_ALGO_WINOGRAD_NONFUSED, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_WINOGRAD_NONFUSED},
    {CONV_GRAD_ALGO_FFT_TILING, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_FFT_TILING},
};
inline cudnnConvolutionBwdFilterAlgo_t convert_conv_grad_algo(ConvGradAlgo algo) {
    return to_cudnn(kConvGradAlgos, algo, "invalid ConvGradAlgo ");
}
inline ConvGradAlgo convert_cudnn_conv_grad_algo(cudnnConvolutionBwdFilterAlgo_t algo) {
    return from_cudnn(kConvGradAlgos, algo, "invalid cudnnConvolutionBwdFilterAlgo_t ");
}

inline constexpr Pair<ConvDiffAlgo, cudnnConvolutionBwdDataAlgo_t> kConvDiffAlgos[] = {
    {CONV_DIFF_ALGO_0, CUDNN_CONVOLUTION_BWD_DATA_ALGO_0},
    {CONV_DIFF_ALGO_1, CUDNN_CONVOLUTION_BWD_DATA_ALGO_1},
    {CONV_DIFF_ALGO_FFT, CUDNN_CONVOLUTION_BWD_DATA_ALGO_FFT},
    {CONV_DIFF_ALGO_FFT_TILING, CUDNN_CONVOLUTION_BWD_DATA_ALGO_FFT_TILING},
    {CONV_DIFF_ALGO_WINOGRAD, CUDNN_CONVOLUTION_BWD_DATA_ALGO_WINOGRAD},
    {CONV_DIFF_ALGO_WINOGRAD_NONFUSED, CUDNN_CONVOLUTION_BWD_DATA_ALGO_WINOGRAD_NONFUSED},
};
inline cudnnConvolutionBwdDataAlgo_t convert_conv_diff_algo(ConvDiffAlgo algo) {
    return to_cudnn(kConvDiffAlgos, algo, "invalid ConvDiffAlgo ");
}
inline ConvDiffAlgo convert_cudnn_conv_diff_algo(cudnnConvolutionBwdDataAlgo_t algo) {
    return from_cudnn(kConvDiffAlgos, algo, "invalid ConvDiffAlgo ");
}

inline cudnnConvolutionFwdPreference_t convert_conv_algo_pref(ConvAlgoPref pref) {
    static constexpr Pair<ConvAlgoPref, cudnnConvolutionFwdPreference_t> kPrefs[] = {
        {CONV_FWD_NO_WORKSPACE, CUDNN_CONVOLUTION_FWD_NO_WORKSPACE},
        {CONV_FWD_PREFER_FASTEST, CUDNN_CONVOLUTION_FWD_PREFER_FASTEST},
        {CONV_FWD_SPECIFY_WORKSAPCE_LIMIT, CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT},
    };
    return to_cudnn(kPrefs, pref, "invalid ConvAlgoPref ");
}
inline cudnnConvolutionBwdFilterPreference_t convert_conv_grad_algo_pref(ConvGradAlgoPref pref) {
    static constexpr Pair<ConvGradAlgoPref, cudnnConvolutionBwdFilterPreference_t> kPrefs[] = {
        {CONV_GRAD_NO_WORKSPACE, CUDNN_CONVOLUTION_BWD_FILTER_NO_WORKSPACE},
        {CONV_GRAD_PREFER_FASTEST, CUDNN_CONVOLUTION_BWD_FILTER_PREFER_FASTEST},
        {CONV_GRAD_SPECIFY_WORKSAPCE_LIMIT, CUDNN_CONVOLUTION_BWD_FILTER_SPECIFY_WORKSPACE_LIMIT},
    };
    return to_cudnn(kPrefs, pref, "invalid ConvGradAlgoPref ");
}
inline cudnnConvolutionBwdDataPreference_t convert_conv_diff_algo_pref(ConvDiffAlgoPref pref) {
    static constexpr Pair<ConvDiffAlgoPref, cudnnConvolutionBwdDataPreference_t> kPrefs[] = {
        {CONV_DIFF_NO_WORKSPACE, CUDNN_CONVOLUTION_BWD_DATA_NO_WORKSPACE},
        {CONV_DIFF_PREFER_FASTEST, CUDNN_CONVOLUTION_BWD_DATA_PREFER_FASTEST},
        {CONV_DIFF_SPECIFY_WORKSAPCE_LIMIT, CUDNN_CONVOLUTION_BWD_DATA_SPECIFY_WORKSPACE_LIMIT},
    };
    return to_cudnn(kPrefs, pref, "invalid ConvDiffAlgoPref ");
}

inline cudnnBatchNormMode_t convert_batch_norm_mode(BatNormType norm_type) {
    static constexpr Pair<BatNormType, cudnnBatchNormMode_t> kModes[] = {
        {NORM_1CHW, CUDNN_BATCHNORM_PER_ACTIVATION},
        {NORM_1C11, CUDNN_BATCHNORM_SPATIAL},
    };
    return to_cudnn(kModes, norm_type, "invalid BatNormType ");
}

inline cudnnPoolingMode_t convert_pooling_type(PoolingType pooling_type) {
    static constexpr Pair<PoolingType, cudnnPoolingMode_t> kModes[] = {
        {MAX_POOLING_TYPE, CUDNN_POOLING_MAX},
        {AVG_POOLING_TYPE_INCLUDE_PADDING, CUDNN_POOLING_AVERAGE_COUNT_INCLUDE_PADDING},
        {AVG_POOLING_TYPE_EXCLUDE_PADDING, CUDNN_POOLING_AVERAGE_COUNT_EXCLUDE_PADDING},
    };
    return to_cudnn(kModes, pooling_type, "invalid pooling type ");
}

/// From version 9 on cuDNN has two kinds of memory to run out of.
inline ConvPerfStatus convert_cudnn_conv_perf_status(cudnnStatus_t status) {
    switch (status) {
        case CUDNN_STATUS_SUCCESS:
            return CONV_PERF_OK;
        case CUDNN_STATUS_ALLOC_FAILED:
#if CUDNN_MAJOR >= 9
        case CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED:
#endif
            return CONV_PERF_ALLOC_FAILED;
        default:
            return CONV_PERF_INTERNAL_ERROR;
    }
}

// ---- Descriptors

/// Four axes with the tensor's own pitch: a block needs no copy.
inline void create_tensor_desc(cudnnTensorDescriptor_t* cudnn_tensor_desc,
                               const Tensor<float>& tensor) {
    const Tensor4DView<float, false> t(tensor);
    cudnnStatus_t ret = cudnnCreateTensorDescriptor(cudnn_tensor_desc);
    CHECK_CALL(ret);
    ret = cudnnSetTensor4dDescriptorEx(*cudnn_tensor_desc, CUDNN_DATA_FLOAT, t.n, t.c, t.h, t.w,
                                       t.n_s, t.c_s, t.h_s, 1);
    CHECK_CALL(ret);
}

/// The input or output of a batch normalization in training, dense. A matrix is (N, 1, 1, W).
/// Aborts unless it has 2 axes, and then the mode is NORM_1CHW, or 4.
inline void create_tensor_desc(cudnnTensorDescriptor_t* cudnn_tensor_desc, const Tensor<float>& x,
                               BatNormType mode) {
    const index_t dim = x.get_dim();
    CHECK(dim == 2 || dim == 4) << "BN: only support 2D or 4D input";
    cudnnStatus_t ret = cudnnCreateTensorDescriptor(cudnn_tensor_desc);
    CHECK_CALL(ret);
    if (dim == 2) {
        CHECK(mode == NORM_1CHW) << "BN: 2D input must use 1CHW mode";
        ret = cudnnSetTensor4dDescriptor(*cudnn_tensor_desc, CUDNN_TENSOR_NCHW, CUDNN_DATA_FLOAT,
                                         x.get_size()[0], 1, 1, x.get_size()[1]);
    } else {
        const Tensor4DView<float, false> t(x);
        ret = cudnnSetTensor4dDescriptor(*cudnn_tensor_desc, CUDNN_TENSOR_NCHW, CUDNN_DATA_FLOAT,
                                         t.n, t.c, t.h, t.w);
    }
    CHECK_CALL(ret);
}

/// The statistics of a batch normalization of `x`, dense; `bias` is one of them. Aborts if its
/// element count doesn't fit the mode.
inline void create_tensor_desc(cudnnTensorDescriptor_t* cudnn_tensor_desc, const Tensor<float>& x,
                               const Tensor<float>& bias, BatNormType mode) {
    const Tensor4DView<float, false> t(x);
    cudnnStatus_t ret = cudnnCreateTensorDescriptor(cudnn_tensor_desc);
    CHECK_CALL(ret);
    switch (mode) {
        case NORM_1C11:
            CHECK(static_cast<int>(bias.get_element_count()) == t.c);
            ret = cudnnSetTensor4dDescriptor(*cudnn_tensor_desc, CUDNN_TENSOR_NCHW,
                                             CUDNN_DATA_FLOAT, 1, t.c, 1, 1);
            break;
        case NORM_1CHW:
            CHECK(static_cast<int>(bias.get_element_count()) == t.c * t.h * t.w);
            ret = cudnnSetTensor4dDescriptor(*cudnn_tensor_desc, CUDNN_TENSOR_NCHW,
                                             CUDNN_DATA_FLOAT, 1, t.c, t.h, t.w);
            break;
        default:
            LOG_FATAL << "Invalid bath norm type " << mode;
    }
    CHECK_CALL(ret);
}

inline void destroy_tensor_desc(cudnnTensorDescriptor_t cudnn_tensor_desc) {
    const cudnnStatus_t ret = cudnnDestroyTensorDescriptor(cudnn_tensor_desc);
    CHECK_CALL(ret);
}

/// Dense: the pitch isn't read.
inline void create_filter_desc(cudnnFilterDescriptor_t* filter, const Tensor<float>& tensor) {
    const Tensor4DView<float, false> t(tensor);
    cudnnStatus_t ret = cudnnCreateFilterDescriptor(filter);
    CHECK_CALL(ret);
    ret = cudnnSetFilter4dDescriptor(*filter, CUDNN_DATA_FLOAT, CUDNN_TENSOR_NCHW, t.n, t.c, t.h,
                                     t.w);
    CHECK_CALL(ret);
}

inline void destroy_filter_desc(cudnnFilterDescriptor_t filter) {
    const cudnnStatus_t ret = cudnnDestroyFilterDescriptor(filter);
    CHECK_CALL(ret);
}

inline void create_conv_desc(cudnnConvolutionDescriptor_t* conv, const ConvDesc& conv_dsc) {
    cudnnStatus_t ret = cudnnCreateConvolutionDescriptor(conv);
    CHECK_CALL(ret);
    ret = cudnnSetConvolution2dDescriptor(*conv, conv_dsc.padding_height, conv_dsc.padding_width,
                                          conv_dsc.stride_h, conv_dsc.stride_w, conv_dsc.dilation_h,
                                          conv_dsc.dilation_w, CUDNN_CROSS_CORRELATION,
                                          CUDNN_DATA_FLOAT);
    CHECK_CALL(ret);
#if CUDNN_MAJOR >= 8
    ret = cudnnSetConvolutionMathType(*conv, CUDNN_FMA_MATH);  // the default permits TF32
    CHECK_CALL(ret);
#endif
}

inline void destroy_conv_desc(cudnnConvolutionDescriptor_t conv) {
    const cudnnStatus_t ret = cudnnDestroyConvolutionDescriptor(conv);
    CHECK_CALL(ret);
}

inline void create_pooling_desc(cudnnPoolingDescriptor_t* cudnn_pool_desc,
                                const PoolingDesc& pool_desc) {
    const cudnnPoolingMode_t mode = convert_pooling_type(pool_desc.pooling_type);
    cudnnStatus_t ret = cudnnCreatePoolingDescriptor(cudnn_pool_desc);
    CHECK_CALL(ret);
    ret = cudnnSetPooling2dDescriptor(*cudnn_pool_desc, mode, CUDNN_NOT_PROPAGATE_NAN,
                                      pool_desc.win_height, pool_desc.win_width, pool_desc.pad_h,
                                      pool_desc.pad_w, pool_desc.stride_h, pool_desc.stride_w);
    CHECK_CALL(ret);
}

}  // namespace helper
}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_CUDNN_WRAP_H_
