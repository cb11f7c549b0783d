#include "cudnn_handle.h"

namespace {

struct StatusText {
    cudnnStatus_t status;
    const char* text;
};

#define TEXT(status) \
    { status, #status }
constexpr StatusText kTexts[] = {
    TEXT(CUDNN_STATUS_SUCCESS),
    TEXT(CUDNN_STATUS_NOT_INITIALIZED),
    TEXT(CUDNN_STATUS_SUBLIBRARY_VERSION_MISMATCH),
    TEXT(CUDNN_STATUS_SERIALIZATION_VERSION_MISMATCH),
    TEXT(CUDNN_STATUS_DEPRECATED),
    TEXT(CUDNN_STATUS_LICENSE_ERROR),
    TEXT(CUDNN_STATUS_RUNTIME_IN_PROGRESS),
    TEXT(CUDNN_STATUS_RUNTIME_FP_OVERFLOW),
    TEXT(CUDNN_STATUS_SUBLIBRARY_LOADING_FAILED),
    TEXT(CUDNN_STATUS_BAD_PARAM),
    TEXT(CUDNN_STATUS_INVALID_VALUE),
    TEXT(CUDNN_STATUS_BAD_PARAM_NULL_POINTER),
    TEXT(CUDNN_STATUS_BAD_PARAM_MISALIGNED_POINTER),
    TEXT(CUDNN_STATUS_BAD_PARAM_SIZE_INSUFFICIENT),
    TEXT(CUDNN_STATUS_BAD_PARAM_SHAPE_MISMATCH),
    TEXT(CUDNN_STATUS_NOT_SUPPORTED),
    TEXT(CUDNN_STATUS_NOT_SUPPORTED_SHAPE),
    TEXT(CUDNN_STATUS_NOT_SUPPORTED_DATA_TYPE),
    TEXT(CUDNN_STATUS_NOT_SUPPORTED_LAYOUT),
    TEXT(CUDNN_STATUS_NOT_SUPPORTED_ARCH_MISMATCH),
    TEXT(CUDNN_STATUS_INTERNAL_ERROR),
    TEXT(CUDNN_STATUS_INTERNAL_ERROR_HOST_ALLOCATION_FAILED),
    TEXT(CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED),
    TEXT(CUDNN_STATUS_INTERNAL_ERROR_TEXTURE_CREATION_FAILED),
    TEXT(CUDNN_STATUS_EXECUTION_FAILED),
    TEXT(CUDNN_STATUS_EXECUTION_FAILED_CUDA_DRIVER),
    TEXT(CUDNN_STATUS_EXECUTION_FAILED_CUBLAS),
    TEXT(CUDNN_STATUS_EXECUTION_FAILED_CUDART),
    TEXT(CUDNN_STATUS_EXECUTION_FAILED_CURAND),
};
#undef TEXT

}  // namespace

size_t cudnnGetVersion() {
    return CUDNN_VERSION;
}

const char* cudnnGetErrorString(cudnnStatus_t status) {
    for (const StatusText& text : kTexts) {
        if (text.status == status) {
            return text.text;
        }
    }
    return "CUDNN_UNKNOWN_STATUS";
}

cudnnStatus_t cudnnCreate(cudnnHandle_t* handle) {
    if (handle == nullptr) {
        return CUDNN_STATUS_BAD_PARAM_NULL_POINTER;
    }
    if (gpusim::call_barrier() != cudaSuccess) {
        return CUDNN_STATUS_NOT_INITIALIZED;
    }
    *handle = new cudnnContext;
    return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnDestroy(cudnnHandle_t handle) {
    if (handle == nullptr) {
        return CUDNN_STATUS_NOT_INITIALIZED;
    }
    delete handle;
    return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnSetStream(cudnnHandle_t handle, cudaStream_t stream) {
    if (handle == nullptr) {
        return CUDNN_STATUS_NOT_INITIALIZED;
    }
    handle->stream = stream;
    return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnGetStream(cudnnHandle_t handle, cudaStream_t* stream) {
    if (handle == nullptr) {
        return CUDNN_STATUS_NOT_INITIALIZED;
    }
    if (stream == nullptr) {
        return CUDNN_STATUS_BAD_PARAM_NULL_POINTER;
    }
    *stream = handle->stream;
    return CUDNN_STATUS_SUCCESS;
}
