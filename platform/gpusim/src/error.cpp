#include "gpusim/error.h"

#include "device.h"

namespace {

struct ErrorText {
    cudaError_t error;
    const char* name;
    const char* text;
};

#define TEXT(error, text) \
    { error, #error, text }
constexpr ErrorText kTexts[] = {
    TEXT(cudaSuccess, "no error"),
    TEXT(cudaErrorInvalidValue, "invalid argument"),
    TEXT(cudaErrorMemoryAllocation, "out of memory"),
    TEXT(cudaErrorInitializationError, "initialization error"),
    TEXT(cudaErrorCudartUnloading, "driver shutting down"),
    TEXT(cudaErrorInvalidConfiguration, "invalid configuration argument"),
    TEXT(cudaErrorInvalidPitchValue, "invalid pitch argument"),
    TEXT(cudaErrorInvalidMemcpyDirection, "invalid copy direction for memcpy"),
    TEXT(cudaErrorInsufficientDriver,
         "CUDA driver version is insufficient for CUDA runtime version"),
    TEXT(cudaErrorInvalidDeviceFunction, "invalid device function"),
    TEXT(cudaErrorNoDevice, "no CUDA-capable device is detected"),
    TEXT(cudaErrorInvalidDevice, "invalid device ordinal"),
    TEXT(cudaErrorInvalidResourceHandle, "invalid resource handle"),
    TEXT(cudaErrorNotReady, "device not ready"),
    TEXT(cudaErrorIllegalAddress, "an illegal memory access was encountered"),
    TEXT(cudaErrorAssert, "device-side assert triggered"),
    TEXT(cudaErrorHostMemoryAlreadyRegistered,
         "part or all of the requested memory range is already mapped"),
    TEXT(cudaErrorHostMemoryNotRegistered,
         "pointer does not correspond to a registered memory region"),
    TEXT(cudaErrorLaunchFailure, "unspecified launch failure"),
    TEXT(cudaErrorNotPermitted, "operation not permitted"),
    TEXT(cudaErrorNotSupported, "operation not supported"),
    TEXT(cudaErrorUnknown, "unknown error"),
};
#undef TEXT
constexpr ErrorText kUnrecognized = {cudaErrorUnknown, "unrecognized error code",
                                     "unrecognized error code"};

const ErrorText& find(cudaError_t error) {
    for (const ErrorText& text : kTexts) {
        if (text.error == error) {
            return text;
        }
    }
    return kUnrecognized;
}

thread_local cudaError_t last_error = cudaSuccess;

}  // namespace

cudaError_t gpusim::record_error(cudaError_t error) {
    if (error != cudaSuccess) {
        last_error = error;
    }
    return error;
}

const char* cudaGetErrorName(cudaError_t error) {
    return find(error).name;
}

const char* cudaGetErrorString(cudaError_t error) {
    return find(error).text;
}

cudaError_t cudaPeekAtLastError() {
    const cudaError_t fault = gpusim::Device::get().fault();
    return fault != cudaSuccess ? fault : last_error;
}

cudaError_t cudaGetLastError() {
    const cudaError_t error = cudaPeekAtLastError();
    last_error = cudaSuccess;
    return error;
}
