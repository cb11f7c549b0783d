#ifndef GPUSIM_CUDNN_H_
#define GPUSIM_CUDNN_H_

/// Handles and statuses of cuDNN.

#include "cuda_runtime.h"

#define CUDNN_MAJOR 9
#define CUDNN_MINOR 19
#define CUDNN_PATCHLEVEL 0
#define CUDNN_VERSION (CUDNN_MAJOR * 10000 + CUDNN_MINOR * 100 + CUDNN_PATCHLEVEL)

typedef struct cudnnContext* cudnnHandle_t;

typedef enum : int {
    CUDNN_STATUS_SUCCESS = 0,
    CUDNN_STATUS_NOT_INITIALIZED = 1001,
    CUDNN_STATUS_BAD_PARAM = 2000,
    CUDNN_STATUS_BAD_PARAM_NULL_POINTER = 2002,
    CUDNN_STATUS_NOT_SUPPORTED = 3000,
    CUDNN_STATUS_INTERNAL_ERROR = 4000,
    CUDNN_STATUS_EXECUTION_FAILED = 5000
} cudnnStatus_t;

extern "C" {

const char* cudnnGetErrorString(cudnnStatus_t status);
cudnnStatus_t cudnnCreate(cudnnHandle_t* handle);
cudnnStatus_t cudnnDestroy(cudnnHandle_t handle);
cudnnStatus_t cudnnSetStream(cudnnHandle_t handle, cudaStream_t stream);

}  // extern "C"

#endif  // GPUSIM_CUDNN_H_
