#ifndef GPUSIM_CUDNN_H_
#define GPUSIM_CUDNN_H_

/// The part of cuDNN that float networks on images commonly use: convolution, pooling, batch
/// normalization and the addition of a bias.
///
/// Tensors have four axes and explicit strides. Descriptors take what cuDNN's take; operations run
/// on CUDNN_DATA_FLOAT only, and refuse negative strides and an output whose elements overlap each
/// other or another operand. Sums are formed in double precision. Work is ordered by the handle's
/// stream. The scalars `alpha` and `beta` are floats behind host pointers, which are read at the
/// call: a result becomes alpha * result + beta * old, and with a beta of 0 the old value is not
/// read. All algorithms of a convolution give the same bits, in every math type.
///
/// Statuses are those of the general kind (BAD_PARAM, NOT_SUPPORTED), which is what the functions
/// of this interface give for arguments; callers should compare no more than the kind.

#include <stddef.h>

#include "cuda_runtime.h"

#define CUDNN_MAJOR 9
#define CUDNN_MINOR 19
#define CUDNN_PATCHLEVEL 0
#define CUDNN_VERSION (CUDNN_MAJOR * 10000 + CUDNN_MINOR * 100 + CUDNN_PATCHLEVEL)

#define CUDNN_BN_MIN_EPSILON 0.0

typedef struct cudnnContext* cudnnHandle_t;
typedef struct cudnnTensorStruct* cudnnTensorDescriptor_t;
typedef struct cudnnFilterStruct* cudnnFilterDescriptor_t;
typedef struct cudnnConvolutionStruct* cudnnConvolutionDescriptor_t;
typedef struct cudnnPoolingStruct* cudnnPoolingDescriptor_t;

typedef enum : int {
    CUDNN_STATUS_SUCCESS = 0,
    CUDNN_STATUS_NOT_INITIALIZED = 1001,
    CUDNN_STATUS_BAD_PARAM = 2000,
    CUDNN_STATUS_NOT_SUPPORTED = 3000,
    CUDNN_STATUS_INTERNAL_ERROR = 4000,
    CUDNN_STATUS_INTERNAL_ERROR_HOST_ALLOCATION_FAILED = 4003,
    CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED = 4004,
    CUDNN_STATUS_EXECUTION_FAILED = 5000,
    CUDNN_STATUS_ALLOC_FAILED = CUDNN_STATUS_INTERNAL_ERROR_HOST_ALLOCATION_FAILED
} cudnnStatus_t;

typedef enum : int {
    CUDNN_DATA_FLOAT = 0,
    CUDNN_DATA_DOUBLE = 1,
    CUDNN_DATA_HALF = 2
} cudnnDataType_t;

typedef enum : int {
    CUDNN_TENSOR_NCHW = 0,
    CUDNN_TENSOR_NHWC = 1,
    CUDNN_TENSOR_NCHW_VECT_C = 2
} cudnnTensorFormat_t;

typedef enum : int {
    CUDNN_DEFAULT_MATH = 0,
    CUDNN_TENSOR_OP_MATH = 1,
    CUDNN_TENSOR_OP_MATH_ALLOW_CONVERSION = 2,
    CUDNN_FMA_MATH = 3
} cudnnMathType_t;

typedef enum : int { CUDNN_NOT_PROPAGATE_NAN = 0, CUDNN_PROPAGATE_NAN = 1 } cudnnNanPropagation_t;
typedef enum : int { CUDNN_NON_DETERMINISTIC = 0, CUDNN_DETERMINISTIC = 1 } cudnnDeterminism_t;
typedef enum : int { CUDNN_CONVOLUTION = 0, CUDNN_CROSS_CORRELATION = 1 } cudnnConvolutionMode_t;

typedef enum : int {
    CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM = 0,
    CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM = 1,
    CUDNN_CONVOLUTION_FWD_ALGO_GEMM = 2,
    CUDNN_CONVOLUTION_FWD_ALGO_DIRECT = 3,
    CUDNN_CONVOLUTION_FWD_ALGO_FFT = 4,
    CUDNN_CONVOLUTION_FWD_ALGO_FFT_TILING = 5,
    CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD = 6,
    CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED = 7,
    CUDNN_CONVOLUTION_FWD_ALGO_COUNT = 8
} cudnnConvolutionFwdAlgo_t;

typedef enum : int {
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_0 = 0,
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_1 = 1,
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_FFT = 2,
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_3 = 3,
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_WINOGRAD = 4,
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_WINOGRAD_NONFUSED = 5,
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_FFT_TILING = 6,
    CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT = 7
} cudnnConvolutionBwdFilterAlgo_t;

typedef enum : int {
    CUDNN_CONVOLUTION_BWD_DATA_ALGO_0 = 0,
    CUDNN_CONVOLUTION_BWD_DATA_ALGO_1 = 1,
    CUDNN_CONVOLUTION_BWD_DATA_ALGO_FFT = 2,
    CUDNN_CONVOLUTION_BWD_DATA_ALGO_FFT_TILING = 3,
    CUDNN_CONVOLUTION_BWD_DATA_ALGO_WINOGRAD = 4,
    CUDNN_CONVOLUTION_BWD_DATA_ALGO_WINOGRAD_NONFUSED = 5,
    CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT = 6
} cudnnConvolutionBwdDataAlgo_t;

typedef struct cudnnConvolutionFwdAlgoPerfStruct {
    cudnnConvolutionFwdAlgo_t algo;
    cudnnStatus_t status;
    float time;  // milliseconds; -1 if it was not run
    size_t memory;
    cudnnDeterminism_t determinism;
    cudnnMathType_t mathType;
    int reserved[3];
} cudnnConvolutionFwdAlgoPerf_t;

typedef struct cudnnConvolutionBwdFilterAlgoPerfStruct {
    cudnnConvolutionBwdFilterAlgo_t algo;
    cudnnStatus_t status;
    float time;
    size_t memory;
    cudnnDeterminism_t determinism;
    cudnnMathType_t mathType;
    int reserved[3];
} cudnnConvolutionBwdFilterAlgoPerf_t;

typedef struct cudnnConvolutionBwdDataAlgoPerfStruct {
    cudnnConvolutionBwdDataAlgo_t algo;
    cudnnStatus_t status;
    float time;
    size_t memory;
    cudnnDeterminism_t determinism;
    cudnnMathType_t mathType;
    int reserved[3];
} cudnnConvolutionBwdDataAlgoPerf_t;

typedef enum : int {
    CUDNN_POOLING_MAX = 0,
    CUDNN_POOLING_AVERAGE_COUNT_INCLUDE_PADDING = 1,
    CUDNN_POOLING_AVERAGE_COUNT_EXCLUDE_PADDING = 2,
    CUDNN_POOLING_MAX_DETERMINISTIC = 3
} cudnnPoolingMode_t;

typedef enum : int {
    CUDNN_BATCHNORM_PER_ACTIVATION = 0,
    CUDNN_BATCHNORM_SPATIAL = 1,
    CUDNN_BATCHNORM_SPATIAL_PERSISTENT = 2
} cudnnBatchNormMode_t;

extern "C" {

// Handle.
/// The enumerator's own name.
const char* cudnnGetErrorString(cudnnStatus_t status);
cudnnStatus_t cudnnCreate(cudnnHandle_t* handle);
cudnnStatus_t cudnnDestroy(cudnnHandle_t handle);
cudnnStatus_t cudnnSetStream(cudnnHandle_t handle, cudaStream_t stream);

// Descriptors. An operation refuses one that was not set, or was destroyed.
cudnnStatus_t cudnnCreateTensorDescriptor(cudnnTensorDescriptor_t* desc);
cudnnStatus_t cudnnSetTensor4dDescriptor(cudnnTensorDescriptor_t desc, cudnnTensorFormat_t format,
                                         cudnnDataType_t type, int n, int c, int h, int w);
cudnnStatus_t cudnnSetTensor4dDescriptorEx(cudnnTensorDescriptor_t desc, cudnnDataType_t type,
                                           int n, int c, int h, int w, int n_stride, int c_stride,
                                           int h_stride, int w_stride);
cudnnStatus_t cudnnDestroyTensorDescriptor(cudnnTensorDescriptor_t desc);

/// A filter is packed: `k` outputs, `c` inputs, `h` rows and `w` columns. Convolutions take
/// CUDNN_TENSOR_NCHW only.
cudnnStatus_t cudnnCreateFilterDescriptor(cudnnFilterDescriptor_t* desc);
cudnnStatus_t cudnnSetFilter4dDescriptor(cudnnFilterDescriptor_t desc, cudnnDataType_t type,
                                         cudnnTensorFormat_t format, int k, int c, int h, int w);
cudnnStatus_t cudnnDestroyFilterDescriptor(cudnnFilterDescriptor_t desc);

cudnnStatus_t cudnnCreateConvolutionDescriptor(cudnnConvolutionDescriptor_t* desc);
cudnnStatus_t cudnnSetConvolution2dDescriptor(cudnnConvolutionDescriptor_t desc, int pad_h,
                                              int pad_w, int stride_h, int stride_w, int dilation_h,
                                              int dilation_w, cudnnConvolutionMode_t mode,
                                              cudnnDataType_t compute_type);
/// Accepts every math type; products are true single precision or better in all of them.
cudnnStatus_t cudnnSetConvolutionMathType(cudnnConvolutionDescriptor_t desc, cudnnMathType_t type);
cudnnStatus_t cudnnGetConvolution2dForwardOutputDim(cudnnConvolutionDescriptor_t desc,
                                                    cudnnTensorDescriptor_t x_desc,
                                                    cudnnFilterDescriptor_t w_desc, int* n, int* c,
                                                    int* h, int* w);
cudnnStatus_t cudnnDestroyConvolutionDescriptor(cudnnConvolutionDescriptor_t desc);

cudnnStatus_t cudnnCreatePoolingDescriptor(cudnnPoolingDescriptor_t* desc);
cudnnStatus_t cudnnSetPooling2dDescriptor(cudnnPoolingDescriptor_t desc, cudnnPoolingMode_t mode,
                                          cudnnNanPropagation_t max_nan, int window_h, int window_w,
                                          int pad_h, int pad_w, int stride_h, int stride_w);
cudnnStatus_t cudnnGetPooling2dForwardOutputDim(cudnnPoolingDescriptor_t desc,
                                                cudnnTensorDescriptor_t x_desc, int* n, int* c,
                                                int* h, int* w);
cudnnStatus_t cudnnDestroyPoolingDescriptor(cudnnPoolingDescriptor_t desc);

// Convolution.
cudnnStatus_t cudnnConvolutionForward(cudnnHandle_t handle, const void* alpha,
                                      cudnnTensorDescriptor_t x_desc, const void* x,
                                      cudnnFilterDescriptor_t w_desc, const void* w,
                                      cudnnConvolutionDescriptor_t conv_desc,
                                      cudnnConvolutionFwdAlgo_t algo, void* work_space,
                                      size_t work_space_size, const void* beta,
                                      cudnnTensorDescriptor_t y_desc, void* y);
cudnnStatus_t cudnnConvolutionBackwardFilter(cudnnHandle_t handle, const void* alpha,
                                             cudnnTensorDescriptor_t x_desc, const void* x,
                                             cudnnTensorDescriptor_t dy_desc, const void* dy,
                                             cudnnConvolutionDescriptor_t conv_desc,
                                             cudnnConvolutionBwdFilterAlgo_t algo, void* work_space,
                                             size_t work_space_size, const void* beta,
                                             cudnnFilterDescriptor_t dw_desc, void* dw);
cudnnStatus_t cudnnConvolutionBackwardData(cudnnHandle_t handle, const void* alpha,
                                           cudnnFilterDescriptor_t w_desc, const void* w,
                                           cudnnTensorDescriptor_t dy_desc, const void* dy,
                                           cudnnConvolutionDescriptor_t conv_desc,
                                           cudnnConvolutionBwdDataAlgo_t algo, void* work_space,
                                           size_t work_space_size, const void* beta,
                                           cudnnTensorDescriptor_t dx_desc, void* dx);
/// db[c] = alpha * sum of dy[., c, ., .] + beta * db[c]
cudnnStatus_t cudnnConvolutionBackwardBias(cudnnHandle_t handle, const void* alpha,
                                           cudnnTensorDescriptor_t dy_desc, const void* dy,
                                           const void* beta, cudnnTensorDescriptor_t db_desc,
                                           void* db);
/// c = alpha * a + beta * c, where an axis of `a` has the extent of that of `c`, or 1.
cudnnStatus_t cudnnAddTensor(cudnnHandle_t handle, const void* alpha,
                             cudnnTensorDescriptor_t a_desc, const void* a, const void* beta,
                             cudnnTensorDescriptor_t c_desc, void* c);

/// Bytes of work space that the algorithm needs; NOT_SUPPORTED if it cannot convolve these shapes.
cudnnStatus_t cudnnGetConvolutionForwardWorkspaceSize(cudnnHandle_t handle,
                                                      cudnnTensorDescriptor_t x_desc,
                                                      cudnnFilterDescriptor_t w_desc,
                                                      cudnnConvolutionDescriptor_t conv_desc,
                                                      cudnnTensorDescriptor_t y_desc,
                                                      cudnnConvolutionFwdAlgo_t algo, size_t* size);
cudnnStatus_t cudnnGetConvolutionBackwardFilterWorkspaceSize(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnFilterDescriptor_t dw_desc,
    cudnnConvolutionBwdFilterAlgo_t algo, size_t* size);
cudnnStatus_t cudnnGetConvolutionBackwardDataWorkspaceSize(
    cudnnHandle_t handle, cudnnFilterDescriptor_t w_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t dx_desc,
    cudnnConvolutionBwdDataAlgo_t algo, size_t* size);

/// A heuristic's list of the algorithms, the best first and those that are not supported last.
cudnnStatus_t cudnnGetConvolutionForwardAlgorithm_v7(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnFilterDescriptor_t w_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t y_desc, int requested_count,
    int* returned_count, cudnnConvolutionFwdAlgoPerf_t* results);
cudnnStatus_t cudnnGetConvolutionBackwardFilterAlgorithm_v7(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnFilterDescriptor_t dw_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdFilterAlgoPerf_t* results);
cudnnStatus_t cudnnGetConvolutionBackwardDataAlgorithm_v7(
    cudnnHandle_t handle, cudnnFilterDescriptor_t w_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t dx_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdDataAlgoPerf_t* results);

/// The same list, by trials on memory of its own. Waits for them.
cudnnStatus_t cudnnFindConvolutionForwardAlgorithm(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnFilterDescriptor_t w_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t y_desc, int requested_count,
    int* returned_count, cudnnConvolutionFwdAlgoPerf_t* results);
cudnnStatus_t cudnnFindConvolutionBackwardFilterAlgorithm(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnFilterDescriptor_t dw_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdFilterAlgoPerf_t* results);
cudnnStatus_t cudnnFindConvolutionBackwardDataAlgorithm(
    cudnnHandle_t handle, cudnnFilterDescriptor_t w_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t dx_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdDataAlgoPerf_t* results);

// Pooling. The output has the size that cudnnGetPooling2dForwardOutputDim gives, and less than the
// window is padded. A maximum starts from the lowest finite number.
cudnnStatus_t cudnnPoolingForward(cudnnHandle_t handle, cudnnPoolingDescriptor_t pooling_desc,
                                  const void* alpha, cudnnTensorDescriptor_t x_desc, const void* x,
                                  const void* beta, cudnnTensorDescriptor_t y_desc, void* y);
/// The gradients are laid out like their tensors. That of a maximum goes to the first element of
/// its window, in row-major order, that equals y.
cudnnStatus_t cudnnPoolingBackward(cudnnHandle_t handle, cudnnPoolingDescriptor_t pooling_desc,
                                   const void* alpha, cudnnTensorDescriptor_t y_desc, const void* y,
                                   cudnnTensorDescriptor_t dy_desc, const void* dy,
                                   cudnnTensorDescriptor_t x_desc, const void* x, const void* beta,
                                   cudnnTensorDescriptor_t dx_desc, void* dx);

// Batch normalization. Statistics are 1 x C x 1 x 1 in the spatial modes, 1 x C x H x W otherwise.
/// y = scale * (x - mean) / sqrt(variance + epsilon) + bias; y may be x.
cudnnStatus_t cudnnBatchNormalizationForwardInference(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha, const void* beta,
    cudnnTensorDescriptor_t x_desc, const void* x, cudnnTensorDescriptor_t y_desc, void* y,
    cudnnTensorDescriptor_t statistics_desc, const void* scale, const void* bias, const void* mean,
    const void* variance, double epsilon);
/// The same with the mean and the biased variance of x. The running mean and the running unbiased
/// variance move towards those of x by `factor`; the saved ones are the mean and
/// 1 / sqrt(variance + epsilon). Either pair may be null.
cudnnStatus_t cudnnBatchNormalizationForwardTraining(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha, const void* beta,
    cudnnTensorDescriptor_t x_desc, const void* x, cudnnTensorDescriptor_t y_desc, void* y,
    cudnnTensorDescriptor_t statistics_desc, const void* scale, const void* bias, double factor,
    void* running_mean, void* running_variance, double epsilon, void* saved_mean,
    void* saved_inverse_deviation);
/// Without the saved pair, the statistics are computed from x once more.
cudnnStatus_t cudnnBatchNormalizationBackward(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha_data, const void* beta_data,
    const void* alpha_param, const void* beta_param, cudnnTensorDescriptor_t x_desc, const void* x,
    cudnnTensorDescriptor_t dy_desc, const void* dy, cudnnTensorDescriptor_t dx_desc, void* dx,
    cudnnTensorDescriptor_t statistics_desc, const void* scale, void* d_scale, void* d_bias,
    double epsilon, const void* saved_mean, const void* saved_inverse_deviation);

}  // extern "C"

#endif  // GPUSIM_CUDNN_H_
