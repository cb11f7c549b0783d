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
    TEXT(cudaErrorInvalidSymbol, "invalid device symbol"),
    TEXT(cudaErrorInvalidHostPointer, "invalid host pointer"),
    TEXT(cudaErrorInvalidDevicePointer, "invalid device pointer"),
    TEXT(cudaErrorInvalidMemcpyDirection, "invalid copy direction for memcpy"),
    TEXT(cudaErrorStubLibrary, "CUDA driver is a stub library"),
    TEXT(cudaErrorInsufficientDriver,
         "CUDA driver version is insufficient for CUDA runtime version"),
    TEXT(cudaErrorDevicesUnavailable, "CUDA-capable device(s) is/are busy or unavailable"),
    TEXT(cudaErrorMissingConfiguration, "__global__ function call is not configured"),
    TEXT(cudaErrorInvalidDeviceFunction, "invalid device function"),
    TEXT(cudaErrorNoDevice, "no CUDA-capable device is detected"),
    TEXT(cudaErrorInvalidDevice, "invalid device ordinal"),
    TEXT(cudaErrorInvalidKernelImage, "device kernel image is invalid"),
    TEXT(cudaErrorDeviceUninitialized, "invalid device context"),
    TEXT(cudaErrorNoKernelImageForDevice,
         "no kernel image is available for execution on the device"),
    TEXT(cudaErrorOperatingSystem, "OS call failed or operation not supported on this OS"),
    TEXT(cudaErrorInvalidResourceHandle, "invalid resource handle"),
    TEXT(cudaErrorIllegalState, "the operation cannot be performed in the present state"),
    TEXT(cudaErrorNotReady, "device not ready"),
    TEXT(cudaErrorIllegalAddress, "an illegal memory access was encountered"),
    TEXT(cudaErrorLaunchOutOfResources, "too many resources requested for launch"),
    TEXT(cudaErrorLaunchTimeout, "the launch timed out and was terminated"),
    TEXT(cudaErrorContextIsDestroyed, "context is destroyed"),
    TEXT(cudaErrorAssert, "device-side assert triggered"),
    TEXT(cudaErrorHostMemoryAlreadyRegistered,
         "part or all of the requested memory range is already mapped"),
    TEXT(cudaErrorHostMemoryNotRegistered,
         "pointer does not correspond to a registered memory region"),
    TEXT(cudaErrorHardwareStackError, "hardware stack error"),
    TEXT(cudaErrorIllegalInstruction, "an illegal instruction was encountered"),
    TEXT(cudaErrorMisalignedAddress, "misaligned address"),
    TEXT(cudaErrorInvalidAddressSpace, "operation not supported on global/shared address space"),
    TEXT(cudaErrorInvalidPc, "invalid program counter"),
    TEXT(cudaErrorLaunchFailure, "unspecified launch failure"),
    TEXT(cudaErrorCooperativeLaunchTooLarge, "too many blocks in cooperative launch"),
    TEXT(cudaErrorNotPermitted, "operation not permitted"),
    TEXT(cudaErrorNotSupported, "operation not supported"),
    TEXT(cudaErrorStreamCaptureUnsupported, "operation not permitted when stream is capturing"),
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
