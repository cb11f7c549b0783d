#include "cublas_handle.h"

namespace {

struct StatusText {
    cublasStatus_t status;
    const char* name;
    const char* text;
};

#define TEXT(status, text) \
    { status, #status, text }
constexpr StatusText kTexts[] = {
    TEXT(CUBLAS_STATUS_SUCCESS, "success"),
    TEXT(CUBLAS_STATUS_NOT_INITIALIZED, "the library was not initialized"),
    TEXT(CUBLAS_STATUS_ALLOC_FAILED, "the resource allocation failed"),
    TEXT(CUBLAS_STATUS_INVALID_VALUE,
         "an unsupported value or parameter was passed to the function"),
    TEXT(CUBLAS_STATUS_ARCH_MISMATCH,
         "the function requires an architectural feature absent from the device"),
    TEXT(CUBLAS_STATUS_MAPPING_ERROR, "an access to GPU memory space failed"),
    TEXT(CUBLAS_STATUS_EXECUTION_FAILED, "the function failed to launch on the GPU"),
    TEXT(CUBLAS_STATUS_INTERNAL_ERROR, "an internal operation failed"),
    TEXT(CUBLAS_STATUS_NOT_SUPPORTED, "the requested functionality is not supported"),
    TEXT(CUBLAS_STATUS_LICENSE_ERROR, "the license check failed"),
};
#undef TEXT
constexpr StatusText kUnrecognized = {CUBLAS_STATUS_INTERNAL_ERROR, "unrecognized status",
                                      "unrecognized status"};

const StatusText& find(cublasStatus_t status) {
    for (const StatusText& text : kTexts) {
        if (text.status == status) {
            return text;
        }
    }
    return kUnrecognized;
}

/// The frame of a call that only sets or reads a field of the handle.
template <class F>
cublasStatus_t with_handle(cublasHandle_t handle, F body) {
    return handle == nullptr ? CUBLAS_STATUS_NOT_INITIALIZED : body();
}

template <class T>
cublasStatus_t read_field(cublasHandle_t handle, T cublasContext::*field, T* value) {
    return with_handle(handle, [&] {
        if (value == nullptr) {
            return CUBLAS_STATUS_INVALID_VALUE;
        }
        *value = handle->*field;
        return CUBLAS_STATUS_SUCCESS;
    });
}

}  // namespace

const char* cublasGetStatusName(cublasStatus_t status) {
    return find(status).name;
}

const char* cublasGetStatusString(cublasStatus_t status) {
    return find(status).text;
}

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    if (gpusim::call_barrier() != cudaSuccess) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    *handle = new cublasContext;
    return CUBLAS_STATUS_SUCCESS;
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle) {
    return with_handle(handle, [&] {
        delete handle;
        return CUBLAS_STATUS_SUCCESS;
    });
}

cublasStatus_t cublasGetVersion_v2(cublasHandle_t handle, int* version) {
    return with_handle(handle, [&] {
        if (version == nullptr) {
            return CUBLAS_STATUS_INVALID_VALUE;
        }
        *version = CUBLAS_VERSION;
        return CUBLAS_STATUS_SUCCESS;
    });
}

cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t stream) {
    return with_handle(handle, [&] {
        handle->stream = stream;
        return CUBLAS_STATUS_SUCCESS;
    });
}

cublasStatus_t cublasGetStream_v2(cublasHandle_t handle, cudaStream_t* stream) {
    return read_field(handle, &cublasContext::stream, stream);
}

cublasStatus_t cublasSetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t mode) {
    return with_handle(handle, [&] {
        if (mode != CUBLAS_POINTER_MODE_HOST && mode != CUBLAS_POINTER_MODE_DEVICE) {
            return CUBLAS_STATUS_INVALID_VALUE;
        }
        handle->pointer_mode = mode;
        return CUBLAS_STATUS_SUCCESS;
    });
}

cublasStatus_t cublasGetPointerMode_v2(cublasHandle_t handle, cublasPointerMode_t* mode) {
    return read_field(handle, &cublasContext::pointer_mode, mode);
}

cublasStatus_t cublasSetMathMode(cublasHandle_t handle, cublasMath_t mode) {
    return with_handle(handle, [&] {
        handle->math_mode = mode;
        return CUBLAS_STATUS_SUCCESS;
    });
}

cublasStatus_t cublasGetMathMode(cublasHandle_t handle, cublasMath_t* mode) {
    return read_field(handle, &cublasContext::math_mode, mode);
}
