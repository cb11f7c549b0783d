#ifndef VORN_UTIL_GPU_UTIL_H_
#define VORN_UTIL_GPU_UTIL_H_

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>
#include <curand.h>

/// The text of a status of each of the four libraries, in one name, for CHECK_CALL.
namespace vorn {

/// The enumerator's own name, or "<unknown> cublasStatus_t".
const char* cublas_get_error_string(cublasStatus_t error);

/// The enumerator's own name, or "<unknown> curandStatus_t", which success gives too.
const char* curand_get_error_string(curandStatus_t error);

inline const char* gpu_get_error_string(cudaError_t error) {
    return cudaGetErrorString(error);
}
inline const char* gpu_get_error_string(cudnnStatus_t error) {
    return cudnnGetErrorString(error);
}
inline const char* gpu_get_error_string(cublasStatus_t error) {
    return cublas_get_error_string(error);
}
inline const char* gpu_get_error_string(curandStatus_t error) {
    return curand_get_error_string(error);
}

}  // namespace vorn

#endif  // VORN_UTIL_GPU_UTIL_H_
