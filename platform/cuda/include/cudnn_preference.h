#ifndef CUDNN_PREFERENCE_H_
#define CUDNN_PREFERENCE_H_

/// What cuDNN 8 took away: the choice of a convolution algorithm by preference and memory limit,
/// with the names and values of cuDNN 7, on top of the heuristic's list of today.

#include <cudnn.h>

enum cudnnConvolutionFwdPreference_t {
    CUDNN_CONVOLUTION_FWD_NO_WORKSPACE = 0,
    CUDNN_CONVOLUTION_FWD_PREFER_FASTEST = 1,
    CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT = 2
};
enum cudnnConvolutionBwdFilterPreference_t {
    CUDNN_CONVOLUTION_BWD_FILTER_NO_WORKSPACE = 0,
    CUDNN_CONVOLUTION_BWD_FILTER_PREFER_FASTEST = 1,
    CUDNN_CONVOLUTION_BWD_FILTER_SPECIFY_WORKSPACE_LIMIT = 2
};
enum cudnnConvolutionBwdDataPreference_t {
    CUDNN_CONVOLUTION_BWD_DATA_NO_WORKSPACE = 0,
    CUDNN_CONVOLUTION_BWD_DATA_PREFER_FASTEST = 1,
    CUDNN_CONVOLUTION_BWD_DATA_SPECIFY_WORKSPACE_LIMIT = 2
};

/// The first of `count` algorithms, the best first, that works within the memory that `preference`
/// allows: none, any, or at most `memory_limit_bytes`.
template <typename Preference, typename Perf, typename Algo>
cudnnStatus_t cudnn_first_within(Preference preference, size_t memory_limit_bytes,
                                 const Perf* results, int count, Algo* algo) {
    const size_t limit = preference == 0 ? 0 : preference == 1 ? ~size_t{0} : memory_limit_bytes;
    for (int i = 0; i < count; ++i) {
        if (results[i].status == CUDNN_STATUS_SUCCESS && results[i].memory <= limit) {
            *algo = results[i].algo;
            return CUDNN_STATUS_SUCCESS;
        }
    }
    return CUDNN_STATUS_NOT_SUPPORTED;
}

inline cudnnStatus_t cudnnGetConvolutionForwardAlgorithm(
    cudnnHandle_t handle, const cudnnTensorDescriptor_t x_desc,
    const cudnnFilterDescriptor_t w_desc, const cudnnConvolutionDescriptor_t conv_desc,
    const cudnnTensorDescriptor_t y_desc, cudnnConvolutionFwdPreference_t preference,
    size_t memory_limit_bytes, cudnnConvolutionFwdAlgo_t* algo) {
    cudnnConvolutionFwdAlgoPerf_t results[CUDNN_CONVOLUTION_FWD_ALGO_COUNT];
    int count = 0;
    const cudnnStatus_t status =
        cudnnGetConvolutionForwardAlgorithm_v7(handle, x_desc, w_desc, conv_desc, y_desc,
                                               CUDNN_CONVOLUTION_FWD_ALGO_COUNT, &count, results);
    return status != CUDNN_STATUS_SUCCESS
               ? status
               : cudnn_first_within(preference, memory_limit_bytes, results, count, algo);
}

inline cudnnStatus_t cudnnGetConvolutionBackwardFilterAlgorithm(
    cudnnHandle_t handle, const cudnnTensorDescriptor_t x_desc,
    const cudnnTensorDescriptor_t dy_desc, const cudnnConvolutionDescriptor_t conv_desc,
    const cudnnFilterDescriptor_t dw_desc, cudnnConvolutionBwdFilterPreference_t preference,
    size_t memory_limit_bytes, cudnnConvolutionBwdFilterAlgo_t* algo) {
    cudnnConvolutionBwdFilterAlgoPerf_t results[CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT];
    int count = 0;
    const cudnnStatus_t status = cudnnGetConvolutionBackwardFilterAlgorithm_v7(
        handle, x_desc, dy_desc, conv_desc, dw_desc, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT,
        &count, results);
    return status != CUDNN_STATUS_SUCCESS
               ? status
               : cudnn_first_within(preference, memory_limit_bytes, results, count, algo);
}

inline cudnnStatus_t cudnnGetConvolutionBackwardDataAlgorithm(
    cudnnHandle_t handle, const cudnnFilterDescriptor_t w_desc,
    const cudnnTensorDescriptor_t dy_desc, const cudnnConvolutionDescriptor_t conv_desc,
    const cudnnTensorDescriptor_t dx_desc, cudnnConvolutionBwdDataPreference_t preference,
    size_t memory_limit_bytes, cudnnConvolutionBwdDataAlgo_t* algo) {
    cudnnConvolutionBwdDataAlgoPerf_t results[CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT];
    int count = 0;
    const cudnnStatus_t status = cudnnGetConvolutionBackwardDataAlgorithm_v7(
        handle, w_desc, dy_desc, conv_desc, dx_desc, CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT, &count,
        results);
    return status != CUDNN_STATUS_SUCCESS
               ? status
               : cudnn_first_within(preference, memory_limit_bytes, results, count, algo);
}

#endif  // CUDNN_PREFERENCE_H_
