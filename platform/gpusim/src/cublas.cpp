#include "cublas_v2.h"

#include <cblas.h>
#include <lapacke.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "library.h"

using gpusim::check_operand;

struct cublasContext {
    cudaStream_t stream = nullptr;
};

namespace {

constexpr gpusim::Library<cublasStatus_t, cublasContext> kLibrary = {
    CUBLAS_STATUS_SUCCESS,         CUBLAS_STATUS_NOT_INITIALIZED,  CUBLAS_STATUS_INVALID_VALUE,
    CUBLAS_STATUS_NOT_INITIALIZED, CUBLAS_STATUS_EXECUTION_FAILED, CUBLAS_STATUS_EXECUTION_FAILED,
};

size_t matrix_bytes(int rows, int cols, int ld) {
    return rows <= 0 || cols <= 0 ? 0
                                  : (static_cast<size_t>(cols - 1) * static_cast<size_t>(ld) +
                                     static_cast<size_t>(rows)) *
                                        sizeof(float);
}

/// The address at which threads of the BLAS library may use an operand.
template <class T>
T* for_blas(T* pointer) {
    return gpusim::Memory::get().arena().alias(pointer);
}

/// result = norm(n, x, incx), which is 0 without elements.
template <class Norm>
cublasStatus_t reduce(cublasHandle_t handle, const char* function, int n, const float* x, int incx,
                      float* result, Norm norm) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (result == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    // A row of a matrix whose columns are `incx` apart.
    const int count = incx > 0 ? std::max(n, 0) : 0;
    if (!check_operand(function, "x", x, matrix_bytes(1, count, incx))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    float value = 0;
    const cublasStatus_t status =
        kLibrary.enqueue(handle, true, [=, &value] { value = norm(count, for_blas(x), incx); });
    if (status == CUBLAS_STATUS_SUCCESS) {
        *result = value;
    }
    return status;
}

bool valid(cublasOperation_t op) {
    return op == CUBLAS_OP_N || op == CUBLAS_OP_T || op == CUBLAS_OP_C;
}

/// For pointers that are known only when the work runs: by then the host may have freed their block
/// after it in the stream's order, so that all of the device's memory is allowed.
bool check_tabled(const char* function, const char* operand, const float* pointer, size_t bytes) {
    const gpusim::Arena& arena = gpusim::Memory::get().arena();
    const char* begin = reinterpret_cast<const char*>(pointer);
    if (arena.contains(begin) && bytes != 0 && arena.contains(begin + bytes - 1)) {
        return true;
    }
    return check_operand(function, operand, pointer, bytes);
}

CBLAS_TRANSPOSE blas_op(cublasOperation_t op) {
    return op == CUBLAS_OP_N ? CblasNoTrans : CblasTrans;
}

/// A matrix that enters a sum or product as op(M) with `rows` rows and `cols` columns.
struct Operand {
    cublasOperation_t op;
    int rows;
    int cols;
    const float* data;
    int ld;

    int stored_rows() const { return op == CUBLAS_OP_N ? rows : cols; }
    int stored_cols() const { return op == CUBLAS_OP_N ? cols : rows; }
    bool valid_ld() const { return ld >= std::max(1, stored_rows()); }
    size_t bytes() const { return matrix_bytes(stored_rows(), stored_cols(), ld); }
};

/// out = alpha op(in) + beta out for beta of 0 or 1, in tiles, so that neither matrix is walked
/// across its columns for long.
void add_scaled(float alpha, const Operand& in, bool accumulate, float* out, int ldc) {
    constexpr int kTile = 32;
    const ptrdiff_t row_step = in.op == CUBLAS_OP_N ? 1 : in.ld;
    const ptrdiff_t col_step = in.op == CUBLAS_OP_N ? in.ld : 1;
    for (int col0 = 0; col0 < in.cols; col0 += kTile) {
        const int col1 = std::min(col0 + kTile, in.cols);
        for (int row0 = 0; row0 < in.rows; row0 += kTile) {
            const int row1 = std::min(row0 + kTile, in.rows);
            for (int col = col0; col < col1; ++col) {
                const float* from = in.data + col * col_step;
                float* to = out + static_cast<ptrdiff_t>(col) * ldc;
                for (int row = row0; row < row1; ++row) {
                    const float value = alpha * from[row * row_step];
                    to[row] = accumulate ? to[row] + value : value;
                }
            }
        }
    }
}

void fill_zero(int rows, int cols, float* out, int ldc) {
    for (int col = 0; col < cols; ++col) {
        std::fill_n(out + static_cast<ptrdiff_t>(col) * ldc, rows, 0.0f);
    }
}

/// C = alpha op(A) + beta op(B); the matrix that C shares, if any, is dealt with first.
void add_matrices(float alpha, Operand a, float beta, Operand b, float* c, int ldc) {
    if (b.data == c) {
        std::swap(a, b);
        std::swap(alpha, beta);
    }
    bool written = false;
    if (alpha != 0) {
        add_scaled(alpha, a, false, c, ldc);
        written = true;
    }
    if (beta != 0) {
        // Where both are C, the first step has already changed what the second would read.
        if (written && b.data == c) {
            add_scaled(beta / alpha, b, true, c, ldc);
        } else {
            add_scaled(beta, b, written, c, ldc);
        }
        written = true;
    }
    if (!written) {
        fill_zero(a.rows, a.cols, c, ldc);
    }
}

}  // namespace

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle) {
    return kLibrary.create(handle);
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle) {
    return kLibrary.destroy(handle);
}

cublasStatus_t cublasSetStream_v2(cublasHandle_t handle, cudaStream_t stream) {
    return kLibrary.set_stream(handle, stream);
}

cublasStatus_t cublasSetMathMode(cublasHandle_t handle, cublasMath_t) {
    return handle == nullptr ? CUBLAS_STATUS_NOT_INITIALIZED : CUBLAS_STATUS_SUCCESS;
}

cublasStatus_t cublasSnrm2_v2(cublasHandle_t handle, int n, const float* x, int incx,
                              float* result) {
    return reduce(handle, __func__, n, x, incx, result, &cblas_snrm2);
}

cublasStatus_t cublasSasum_v2(cublasHandle_t handle, int n, const float* x, int incx,
                              float* result) {
    return reduce(handle, __func__, n, x, incx, result, &cblas_sasum);
}

cublasStatus_t cublasSgemm_v2(cublasHandle_t handle, cublasOperation_t transa,
                              cublasOperation_t transb, int m, int n, int k, const float* alpha,
                              const float* A, int lda, const float* B, int ldb, const float* beta,
                              float* C, int ldc) {
    return cublasSgemmStridedBatched(handle, transa, transb, m, n, k, alpha, A, lda, 0, B, ldb, 0,
                                     beta, C, ldc, 0, 1);
}

cublasStatus_t cublasSgemmStridedBatched(cublasHandle_t handle, cublasOperation_t transa,
                                         cublasOperation_t transb, int m, int n, int k,
                                         const float* alpha, const float* A, int lda,
                                         long long strideA, const float* B, int ldb,
                                         long long strideB, const float* beta, float* C, int ldc,
                                         long long strideC, int batchCount) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    const Operand a{transa, m, k, A, lda}, b{transb, k, n, B, ldb};
    if (!valid(transa) || !valid(transb) || m < 0 || n < 0 || k < 0 || batchCount < 0 ||
        alpha == nullptr || beta == nullptr || !a.valid_ld() || !b.valid_ld() ||
        ldc < std::max(1, m)) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    if (m == 0 || n == 0 || batchCount == 0) {
        return CUBLAS_STATUS_SUCCESS;
    }
    const float al = *alpha, be = *beta;
    const bool product = k != 0 && al != 0;
    for (int i = 0; i < batchCount; ++i) {
        if ((product && (!check_operand(__func__, "A", A + i * strideA, a.bytes()) ||
                         !check_operand(__func__, "B", B + i * strideB, b.bytes()))) ||
            !check_operand(__func__, "C", C + i * strideC, matrix_bytes(m, n, ldc))) {
            return CUBLAS_STATUS_EXECUTION_FAILED;
        }
    }
    return kLibrary.enqueue(handle, false, [=] {
        for (int i = 0; i < batchCount; ++i) {
            cblas_sgemm(CblasColMajor, blas_op(transa), blas_op(transb), m, n, k, al,
                        for_blas(A) + i * strideA, lda, for_blas(B) + i * strideB, ldb, be,
                        for_blas(C) + i * strideC, ldc);
        }
    });
}

cublasStatus_t cublasSgeam(cublasHandle_t handle, cublasOperation_t transa,
                           cublasOperation_t transb, int m, int n, const float* alpha,
                           const float* A, int lda, const float* beta, const float* B, int ldb,
                           float* C, int ldc) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    const Operand a{transa, m, n, A, lda}, b{transb, m, n, B, ldb};
    if (!valid(transa) || !valid(transb) || m < 0 || n < 0 || alpha == nullptr || beta == nullptr ||
        ldc < std::max(1, m)) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    const float al = *alpha, be = *beta;
    const auto usable = [&](float factor, const Operand& in) {
        const bool in_place_ok = in.data != C || (in.op == CUBLAS_OP_N && in.ld == ldc);
        return factor == 0 || (in.data != nullptr && in.valid_ld() && in_place_ok);
    };
    if (!usable(al, a) || !usable(be, b)) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    if (m == 0 || n == 0) {
        return CUBLAS_STATUS_SUCCESS;
    }
    if ((al != 0 && !check_operand(__func__, "A", A, a.bytes())) ||
        (be != 0 && !check_operand(__func__, "B", B, b.bytes())) ||
        !check_operand(__func__, "C", C, matrix_bytes(m, n, ldc))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return kLibrary.enqueue(handle, false, [=] { add_matrices(al, a, be, b, C, ldc); });
}

cublasStatus_t cublasSgelsBatched(cublasHandle_t handle, cublasOperation_t trans, int m, int n,
                                  int nrhs, float* const Aarray[], int lda, float* const Carray[],
                                  int ldc, int* info, int* devInfoArray, int batchSize) {
    if (handle == nullptr) {
        return CUBLAS_STATUS_NOT_INITIALIZED;
    }
    if (info == nullptr) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    // The places of the arguments in the list.
    *info = m < 0                  ? -3
            : n < 0                ? -4
            : nrhs < 0             ? -5
            : lda < std::max(1, m) ? -7
            : ldc < std::max(1, m) ? -9
            : batchSize < 0        ? -12
                                   : 0;
    if (*info != 0) {
        return CUBLAS_STATUS_INVALID_VALUE;
    }
    if (trans != CUBLAS_OP_N || m < n) {
        return CUBLAS_STATUS_NOT_SUPPORTED;
    }
    if (m == 0 || n == 0 || nrhs == 0 || batchSize == 0) {
        return CUBLAS_STATUS_SUCCESS;
    }
    const size_t table = static_cast<size_t>(batchSize) * sizeof(float*);
    if (!check_operand(__func__, "Aarray", Aarray, table) ||
        !check_operand(__func__, "Carray", Carray, table) ||
        (devInfoArray != nullptr && !check_operand(__func__, "devInfoArray", devInfoArray,
                                                   static_cast<size_t>(batchSize) * sizeof(int)))) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    return kLibrary.enqueue(handle, false, [=, function = __func__] {
        float size = 0;
        LAPACKE_sgels_work(LAPACK_COL_MAJOR, 'N', m, n, nrhs, nullptr, lda, nullptr, ldc, &size,
                           -1);
        std::vector<float> work(static_cast<size_t>(size));
        for (int i = 0; i < batchSize; ++i) {
            if (!check_tabled(function, "a matrix of Aarray", Aarray[i], matrix_bytes(m, n, lda)) ||
                !check_tabled(function, "a matrix of Carray", Carray[i],
                              matrix_bytes(m, nrhs, ldc))) {
                return;
            }
            const int result = LAPACKE_sgels_work(LAPACK_COL_MAJOR, 'N', m, n, nrhs,
                                                  for_blas(Aarray[i]), lda, for_blas(Carray[i]),
                                                  ldc, work.data(), static_cast<int>(work.size()));
            if (devInfoArray != nullptr) {
                devInfoArray[i] = result;
            }
        }
    });
}
