#ifndef VORN_CPU_BLAS_OPS_H_
#define VORN_CPU_BLAS_OPS_H_

#include <cblas.h>
#include <lapacke.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "vorn/cpu/iterator.h"
#include "vorn/cpu/kit/transpose.h"
#include "vorn/rules/functors.h"
#include "vorn/tensor/matrix_batch.h"
#include "vorn/tensor/tensor.h"

/// Host linear algebra: products, norms and the solver on CBLAS and LAPACKE; what only streams
/// through memory, in loops of our own.
namespace vorn {

namespace cpu {

/// out = value * out. A NaN stays one under a value of 0, which BLAS libraries don't agree on.
inline void vorn_scal(Tensor<float>& out, DType value) {
    cpu::unary_op(func::mul_constant<float>(value), out, out);
}

/// out = alpha0 * out + alpha1 * in, in one pass over memory where BLAS would need two.
inline void vorn_axpy(const Tensor<float>& in, Tensor<float>& out, DType alpha0, DType alpha1) {
    cpu::binary_op(func::add(alpha0, alpha1), out, in, out);
}

inline CBLAS_TRANSPOSE blas_op(bool transposed) {
    return transposed ? CblasTrans : CblasNoTrans;
}

/// c = alpha * op(a) * op(b) + beta * c for a c of dim_m x dim_n. A product with a single row or
/// column streams through one matrix only, which BLAS does about four times as fast when told so.
inline void gemm(bool a_t, bool b_t, int dim_m, int dim_n, int dim_k, DType alpha, const float* a,
                 int lda, const float* b, int ldb, DType beta, float* c, int ldc) {
    if (dim_m == 1 && dim_k > 0) {
        cblas_sgemv(CblasRowMajor, blas_op(!b_t), b_t ? dim_n : dim_k, b_t ? dim_k : dim_n, alpha,
                    b, ldb, a, a_t ? lda : 1, beta, c, 1);
    } else if (dim_n == 1 && dim_k > 0) {
        cblas_sgemv(CblasRowMajor, blas_op(a_t), a_t ? dim_k : dim_m, a_t ? dim_m : dim_k, alpha, a,
                    lda, b, b_t ? 1 : ldb, beta, c, ldc);
    } else {
        cblas_sgemm(CblasRowMajor, blas_op(a_t), blas_op(b_t), dim_m, dim_n, dim_k, alpha, a, lda,
                    b, ldb, beta, c, ldc);
    }
}

inline void vorn_gemm(const Tensor<float>& a, bool a_t, const Tensor<float>& b, bool b_t,
                      Tensor<float>& c, DType alpha, DType beta) {
    const int dim_m = static_cast<int>(c.get_h()), dim_n = static_cast<int>(c.get_w());
    const int dim_k = static_cast<int>(a_t ? a.get_h() : a.get_w());
    gemm(a_t, b_t, dim_m, dim_n, dim_k, alpha, a.get_ptr(), leading_dimension(a), b.get_ptr(),
         leading_dimension(b), beta, c.get_ptr(), leading_dimension(c));
}

inline void vorn_batch_gemm(const Tensor<float>& a, bool a_t, int64_t a_stride,
                            const Tensor<float>& b, bool b_t, int64_t b_stride, Tensor<float>& c,
                            int64_t c_stride, int batch, DType alpha, DType beta) {
    if (c.get_element_count() == 0) {
        return;
    }
    const MatrixBatch a_i(a, a_stride), b_i(b, b_stride), c_i(c, c_stride);
    const int dim_k = a_t ? a_i.rows : a_i.columns;
    for (int i = 0; i < batch; ++i) {
        gemm(a_t, b_t, c_i.rows, c_i.columns, dim_k, alpha, a.get_ptr() + i * a_i.step,
             leading_dimension(a), b.get_ptr() + i * b_i.step, leading_dimension(b), beta,
             c.get_ptr() + i * c_i.step, leading_dimension(c));
    }
}

/// out[i][j] = in[j][i]
template <typename T>
void vorn_transpose(const Tensor<T>& in, Tensor<T>& out) {
    transpose_matrix(in.get_ptr(), in.ld(), out.get_ptr(), out.ld(), out.row(), out.col());
}

/// The sum of squares: in float over short runs, which vectorise, and in double over the runs. It
/// is off where squares leave the range of float.
inline double sum_of_squares(const float* in, index_t n) {
    const index_t lanes = 64, run = 64 * lanes;
    double total = 0;
    index_t i = 0;
    while (i + lanes <= n) {
        float sums[lanes] = {};
        for (const index_t end = std::min(i + run, n - n % lanes); i < end; i += lanes) {
            for (index_t lane = 0; lane < lanes; ++lane) {
                sums[lane] += in[i + lane] * in[i + lane];
            }
        }
        for (float sum : sums) {
            total += sum;
        }
    }
    for (; i < n; ++i) {
        total += static_cast<double>(in[i]) * in[i];
    }
    return total;
}

/// BLAS scales as it sums, for the sake of values whose squares are no floats; it is called where
/// there may be some. A square that vanished was below 1.2e-38.
inline void vorn_norm2(const Tensor<float>& in, DType* res) {
    const index_t n = in.get_element_count();
    const double squares = sum_of_squares(in.get_ptr(), n);
    if (squares > n * 1e-30 && squares <= std::numeric_limits<float>::max()) {
        *res = static_cast<DType>(std::sqrt(squares));
    } else {
        *res = cblas_snrm2(static_cast<int>(n), in.get_ptr(), 1);
    }
}

inline void vorn_norm1(const Tensor<float>& in, DType* res) {
    *res = cblas_sasum(static_cast<int>(in.get_element_count()), in.get_ptr(), 1);
}

/// A row-major matrix is LAPACK's transposed one, which its solver takes as it stands. The pointer
/// tables are a GPU's.
inline void vorn_sgels(Tensor<float>& in, Tensor<float>& inout, Tensor<unsigned long>&,
                       Tensor<unsigned long>&) {
    if (in.get_element_count() == 0) {
        return;
    }
    const int batch = in.get_size()[0], m = in.get_size()[1], n = in.get_size()[2];
    const int lda = static_cast<int>(in.ld()), ldb = std::max(m, n);
    float work_size = 0;
    int info = LAPACKE_sgels_work(LAPACK_COL_MAJOR, 'T', n, m, 1, in.get_ptr(), lda,
                                  inout.get_ptr(), ldb, &work_size, -1);
    CHECK(info == 0);
    std::vector<float> work(static_cast<size_t>(work_size));
    for (int b = 0; b < batch; ++b) {
        info = LAPACKE_sgels_work(
            LAPACK_COL_MAJOR, 'T', n, m, 1, in.get_ptr() + static_cast<index_t>(b) * m * in.ld(),
            lda, inout.get_ptr() + b * inout.ld(), ldb, work.data(), static_cast<int>(work.size()));
        CHECK(info == 0) << "matrix " << b << " is not of full rank";
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_BLAS_OPS_H_
