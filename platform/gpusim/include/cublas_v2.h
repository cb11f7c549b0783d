#ifndef GPUSIM_CUBLAS_V2_H_
#define GPUSIM_CUBLAS_V2_H_

/// The part of cuBLAS that float networks commonly use. Matrices are column-major. Work is ordered
/// by the handle's stream; scalars are behind host pointers and are read at the call, and a scalar
/// result is there on return.
///
/// Products are true single precision in every math mode.

#include "cuda_runtime.h"

typedef struct cublasContext* cublasHandle_t;

typedef enum : int {
    CUBLAS_STATUS_SUCCESS = 0,
    CUBLAS_STATUS_NOT_INITIALIZED = 1,
    CUBLAS_STATUS_ALLOC_FAILED = 3,
    CUBLAS_STATUS_INVALID_VALUE = 7,
    CUBLAS_STATUS_ARCH_MISMATCH = 8,
    CUBLAS_STATUS_MAPPING_ERROR = 11,
    CUBLAS_STATUS_EXECUTION_FAILED = 13,
    CUBLAS_STATUS_INTERNAL_ERROR = 14,
    CUBLAS_STATUS_NOT_SUPPORTED = 15,
    CUBLAS_STATUS_LICENSE_ERROR = 16
} cublasStatus_t;

typedef enum { CUBLAS_OP_N = 0, CUBLAS_OP_T = 1, CUBLAS_OP_C = 2 } cublasOperation_t;
typedef enum {
    CUBLAS_DEFAULT_MATH = 0,
    CUBLAS_TENSOR_OP_MATH = 1,
    CUBLAS_PEDANTIC_MATH = 2,
    CUBLAS_TF32_TENSOR_OP_MATH = 3
} cublasMath_t;

#define cublasCreate cublasCreate_v2
#define cublasDestroy cublasDestroy_v2
#define cublasSetStream cublasSetStream_v2
#define cublasSgemm cublasSgemm_v2
#define cublasSnrm2 cublasSnrm2_v2
#define cublasSasum cublasSasum_v2

extern "C" {

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle);
cublasStatus_t cublasDestroy_v2(cublasHandle_t handle);
cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t stream);
cublasStatus_t cublasSetMathMode(cublasHandle_t handle, cublasMath_t mode);

/// result = sqrt(sum x_i^2)
cublasStatus_t cublasSnrm2_v2(cublasHandle_t handle, int n, const float* x, int incx,
                              float* result);
/// result = sum |x_i|
cublasStatus_t cublasSasum_v2(cublasHandle_t handle, int n, const float* x, int incx,
                              float* result);

/// C = alpha op(A) op(B) + beta C
cublasStatus_t cublasSgemm_v2(cublasHandle_t handle, cublasOperation_t transa,
                              cublasOperation_t transb, int m, int n, int k, const float* alpha,
                              const float* A, int lda, const float* B, int ldb, const float* beta,
                              float* C, int ldc);
/// The same for `batchCount` triples of matrices, each a stride past the one before.
cublasStatus_t cublasSgemmStridedBatched(cublasHandle_t handle, cublasOperation_t transa,
                                         cublasOperation_t transb, int m, int n, int k,
                                         const float* alpha, const float* A, int lda,
                                         long long strideA, const float* B, int ldb,
                                         long long strideB, const float* beta, float* C, int ldc,
                                         long long strideC, int batchCount);
/// C = alpha op(A) + beta op(B). A matrix whose factor is 0 isn't read and may be null. C may be
/// A or B where that is not transposed and has the same leading dimension.
cublasStatus_t cublasSgeam(cublasHandle_t handle, cublasOperation_t transa,
                           cublasOperation_t transb, int m, int n, const float* alpha,
                           const float* A, int lda, const float* beta, const float* B, int ldb,
                           float* C, int ldc);
/// Least squares: for each i, minimises |C_i - A_i X| for m >= n; X replaces the first n rows of
/// C_i, and A_i is overwritten by its QR factors. `info` (host) is 0, or -j if argument j is bad;
/// `devInfoArray[i]` (device, may be null) is 0, or j if entry (j, j) of the triangle is 0.
cublasStatus_t cublasSgelsBatched(cublasHandle_t handle, cublasOperation_t trans, int m, int n,
                                  int nrhs, float* const Aarray[], int lda, float* const Carray[],
                                  int ldc, int* info, int* devInfoArray, int batchSize);

}  // extern "C"

#endif  // GPUSIM_CUBLAS_V2_H_
