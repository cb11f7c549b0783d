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

/// Asks query(room, &count, results) for the algorithms, the best first, and takes the first that
/// works within the memory that `preference` allows: none, any, or at most `memory_limit_bytes`.
template <typename Perf, int algo_count, typename Query, typename Algo>
cudnnStatus_t cudnn_first_within(int preference, size_t memory_limit_bytes, Query query,
                                 Algo* algo) {
    constexpr int room = 2 * algo_count;  // one may be listed with and without tensor cores
    Perf results[room];
    int count = 0;
    const cudnnStatus_t status = query(room, &count, results);
    if (status != CUDNN_STATUS_SUCCESS) {
        return status;
    }
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
    using Perf = cudnnConvolutionFwdAlgoPerf_t;
    return cudnn_first_within<Perf, CUDNN_CONVOLUTION_FWD_ALGO_COUNT>(
        preference, memory_limit_bytes,
        [&](int room, int* count, Perf* results) {
            return cudnnGetConvolutionForwardAlgorithm_v7(handle, x_desc, w_desc, conv_desc, y_desc,
                                                          room, count, results);
        },
        algo);
}

inline cudnnStatus_t cudnnGetConvolutionBackwardFilterAlgorithm(
    cudnnHandle_t handle, const cudnnTensorDescriptor_t x_desc,
    const cudnnTensorDescriptor_t dy_desc, const cudnnConvolutionDescriptor_t conv_desc,
    const cudnnFilterDescriptor_t dw_desc, cudnnConvolutionBwdFilterPreference_t preference,
    size_t memory_limit_bytes, cudnnConvolutionBwdFilterAlgo_t* algo) {
    using Perf = cudnnConvolutionBwdFilterAlgoPerf_t;
    return cudnn_first_within<Perf, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT>(
        preference, memory_limit_bytes,
        [&](int room, int* count, Perf* results) {
            return cudnnGetConvolutionBackwardFilterAlgorithm_v7(handle, x_desc, dy_desc, conv_desc,
                                                                 dw_desc, room, count, results);
        },
        algo);
}

inline cudnnStatus_t cudnnGetConvolutionBackwardDataAlgorithm(
    cudnnHandle_t handle, const cudnnFilterDescriptor_t w_desc,
    const cudnnTensorDescriptor_t dy_desc, const cudnnConvolutionDescriptor_t conv_desc,
    const cudnnTensorDescriptor_t dx_desc, cudnnConvolutionBwdDataPreference_t preference,
    size_t memory_limit_bytes, cudnnConvolutionBwdDataAlgo_t* algo) {
    using Perf = cudnnConvolutionBwdDataAlgoPerf_t;
    return cudnn_first_within<Perf, CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT>(
        preference, memory_limit_bytes,
        [&](int room, int* count, Perf* results) {
            return cudnnGetConvolutionBackwardDataAlgorithm_v7(handle, w_desc, dy_desc, conv_desc,
                                                               dx_desc, room, count, results);
        },
        algo);
}

#endif  // CUDNN_PREFERENCE_H_
