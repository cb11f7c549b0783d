// Vector operations of cuBLAS.
#include <cblas.h>

#include <algorithm>
#include <cmath>

#include "cublas_handle.h"

using gpusim::check_operand;
using gpusim::enqueue;
using gpusim::for_blas;
using gpusim::Scalar;
using gpusim::vector_bytes;

namespace {

/// Computes a single value in stream order, and puts it behind a pointer of the handle's mode.
template <class T, class F>
cublasStatus_t reduce(cublasHandle_t handle, const char* function, T* result, F compute) {
    if (handle->pointer_mode == CUBLAS_POINTER_MODE_DEVICE) {
        if (!check_operand(function, "result", result, sizeof(T))) {
            return CUBLAS_STATUS_EXECUTION_FAILED;
        }
        return enqueue(handle, false, [=] { *result = compute(); });
    }
    T value{};
    const cublasStatus_t status = enqueue(handle, true, [&value, compute] { value = compute(); });
    if (status == CUBLAS_STATUS_SUCCESS) {
        *result = value;
    }
    return status;
}

}  // namespace

cublasStatus_t cublasSscal_v2(cublasHandle_t handle, int n, const float* alpha, float* x,
                              int incx) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (alpha == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    if (n <= 0 || incx <= 0) {
        return CUBLAS_STATUS_SUCCESS;
    }
    if (!check_operand(__func__, "x", x, vector_bytes(n, incx))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return enqueue(handle, false, [=, factor = Scalar(handle, alpha)] {
        cblas_sscal(n, factor.get(), for_blas(x), incx);
    });
}

cublasStatus_t cublasSaxpy_v2(cublasHandle_t handle, int n, const float* alpha, const float* x,
                              int incx, float* y, int incy) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (alpha == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    if (n <= 0) {
        return CUBLAS_STATUS_SUCCESS;
    }
    if (!check_operand(__func__, "x", x, vector_bytes(n, incx)) ||
        !check_operand(__func__, "y", y, vector_bytes(n, incy))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return enqueue(handle, false, [=, factor = Scalar(handle, alpha)] {
        cblas_saxpy(n, factor.get(), for_blas(x), incx, for_blas(y), incy);
    });
}

cublasStatus_t cublasScopy_v2(cublasHandle_t handle, int n, const float* x, int incx, float* y,
                              int incy) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (n <= 0) {
        return CUBLAS_STATUS_SUCCESS;
    }
    if (!check_operand(__func__, "x", x, vector_bytes(n, incx)) ||
        !check_operand(__func__, "y", y, vector_bytes(n, incy))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return enqueue(handle, false, [=] { cblas_scopy(n, for_blas(x), incx, for_blas(y), incy); });
}

cublasStatus_t cublasSnrm2_v2(cublasHandle_t handle, int n, const float* x, int incx,
                              float* result) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (result == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    const int count = incx > 0 ? std::max(n, 0) : 0;
    if (!check_operand(__func__, "x", x, vector_bytes(count, incx))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return reduce(handle, __func__, result,
                  [=] { return count == 0 ? 0.0f : cblas_snrm2(count, for_blas(x), incx); });
}

cublasStatus_t cublasSasum_v2(cublasHandle_t handle, int n, const float* x, int incx,
                              float* result) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (result == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    const int count = incx > 0 ? std::max(n, 0) : 0;
    if (!check_operand(__func__, "x", x, vector_bytes(count, incx))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return reduce(handle, __func__, result,
                  [=] { return count == 0 ? 0.0f : cblas_sasum(count, for_blas(x), incx); });
}

cublasStatus_t cublasSdot_v2(cublasHandle_t handle, int n, const float* x, int incx, const float* y,
                             int incy, float* result) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (result == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    const int count = std::max(n, 0);
    if (!check_operand(__func__, "x", x, vector_bytes(count, incx)) ||
        !check_operand(__func__, "y", y, vector_bytes(count, incy))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return reduce(handle, __func__, result, [=] {
        return count == 0 ? 0.0f : cblas_sdot(count, for_blas(x), incx, for_blas(y), incy);
    });
}

cublasStatus_t cublasIsamax_v2(cublasHandle_t handle, int n, const float* x, int incx,
                               int* result) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (result == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    const int count = incx > 0 ? std::max(n, 0) : 0;
    if (!check_operand(__func__, "x", x, vector_bytes(count, incx))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return reduce(handle, __func__, result, [=] {
        return count == 0 ? 0 : static_cast<int>(cblas_isamax(count, for_blas(x), incx)) + 1;
    });
}
