#include "cudnn_handle.h"

namespace {

struct StatusText {
    cudnnStatus_t status;
    const char* text;
};

#define TEXT(status) \
    { status, #status }
constexpr StatusText kTexts[] = {
    TEXT(CUDNN_STATUS_SUCCESS),          TEXT(CUDNN_STATUS_NOT_INITIALIZED),
    TEXT(CUDNN_STATUS_BAD_PARAM),        TEXT(CUDNN_STATUS_BAD_PARAM_NULL_POINTER),
    TEXT(CUDNN_STATUS_NOT_SUPPORTED),    TEXT(CUDNN_STATUS_INTERNAL_ERROR),
    TEXT(CUDNN_STATUS_EXECUTION_FAILED),
};
#undef TEXT

}  // namespace

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
