#ifndef GPUSIM_GPUSIM_ERROR_H_
#define GPUSIM_GPUSIM_ERROR_H_

/// Error codes that the simulated device gives, and those that programs ask for on a machine
/// without a GPU, with the numbers of CUDA 13.

// The underlying type is fixed, so that unknown numbers have a defined value.
enum cudaError : int {
    cudaSuccess = 0,
    cudaErrorInvalidValue = 1,
    cudaErrorMemoryAllocation = 2,
    cudaErrorInitializationError = 3,
    cudaErrorCudartUnloading = 4,
    cudaErrorInvalidConfiguration = 9,
    cudaErrorInvalidPitchValue = 12,
    cudaErrorInvalidMemcpyDirection = 21,
    cudaErrorInsufficientDriver = 35,
    cudaErrorInvalidDeviceFunction = 98,
    cudaErrorNoDevice = 100,
    cudaErrorInvalidDevice = 101,
    cudaErrorInvalidResourceHandle = 400,
    cudaErrorNotReady = 600,
    cudaErrorIllegalAddress = 700,
    cudaErrorAssert = 710,
    cudaErrorHostMemoryAlreadyRegistered = 712,
    cudaErrorHostMemoryNotRegistered = 713,
    cudaErrorLaunchFailure = 719,
    cudaErrorNotPermitted = 800,
    cudaErrorNotSupported = 801,
    cudaErrorUnknown = 999
};
typedef cudaError cudaError_t;

#endif  // GPUSIM_GPUSIM_ERROR_H_
