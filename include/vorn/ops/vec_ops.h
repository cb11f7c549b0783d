#ifndef VORN_OPS_VEC_OPS_H_
#define VORN_OPS_VEC_OPS_H_

#include "vorn/cpu/vec_ops.h"
#include "vorn/gpu/vec_ops.h"
#include "vorn/tensor/tensor.h"

/// A matrix combined with a vector along its rows, its columns or its diagonal. Matrix and output
/// are read and written with their own pitches, as row() by col() of the output; the vector is a
/// dense run, whatever its shape. The old output is always read. `out` may be the matrix itself.
/// A GPU takes at most 65535 * 1024 columns and refuses the launch beyond that.
namespace vorn {

/// out(i, j) = alpha0 * mat(i, j) + alpha1 * vec[j] + beta * out(i, j). Tests nothing: sizes and
/// devices are the caller's.
inline void vorn_mat_row_add_vec(const Tensor<float>& mat, const Tensor<float>& vec,
                                 Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mat_row_add_vec(mat, vec, out, alpha0, alpha1, beta);
    } else {
        gpu::vorn_mat_row_add_vec(mat, vec, out, alpha0, alpha1, beta);
    }
}

/// out(i, j) = alpha0 * mat(i, j) + alpha1 * vec[i] + beta * out(i, j). Tests nothing.
inline void vorn_mat_col_add_vec(const Tensor<float>& mat, const Tensor<float>& vec,
                                 Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mat_col_add_vec(mat, vec, out, alpha0, alpha1, beta);
    } else {
        gpu::vorn_mat_col_add_vec(mat, vec, out, alpha0, alpha1, beta);
    }
}

/// out(i, j) = alpha * a(i, j) * b[j] + beta * out(i, j). Aborts unless `a` has 2 axes and `b` at
/// most 2, the last as wide as `a`; the size of `out` is the caller's.
inline void vorn_mat_row_mul_vec(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                                 DType alpha, DType beta) {
    CHECK(a.get_dim() == 2);
    CHECK(b.get_dim() <= 2 && b.get_w() == a.get_w());
    CHECK_SAME_DEVICE(a, out);
    CHECK_SAME_DEVICE(b, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mat_row_mul_vec(a, b, out, alpha, beta);
    } else {
        gpu::vorn_mat_row_mul_vec(a, b, out, alpha, beta);
    }
}

/// out(i, j) = alpha * a(i, j) * b[i] + beta * out(i, j). `b` is a vector or a row of as many
/// elements as `a` has rows; a column is refused.
inline void vorn_mat_col_mul_vec(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                                 DType alpha, DType beta) {
    CHECK(a.get_dim() == 2);
    CHECK(b.get_dim() <= 2 && b.get_w() == a.get_h());
    CHECK_SAME_DEVICE(a, out);
    CHECK_SAME_DEVICE(b, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mat_col_mul_vec(a, b, out, alpha, beta);
    } else {
        gpu::vorn_mat_col_mul_vec(a, b, out, alpha, beta);
    }
}

/// out = alpha0 * mat + beta * out, and alpha1 * diag_mat[i] added to the first term of (i, i).
/// `diag_mat` may have any shape with one element per row.
inline void vorn_mat_diag_add_vec(const Tensor<float>& mat, const Tensor<float>& diag_mat,
                                  Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    CHECK_EQ(mat.get_size(), out.get_size());
    CHECK_MATRIX(mat);
    CHECK_MATRIX(out);
    CHECK(mat.get_h() == mat.get_w());
    CHECK(mat.get_h() == diag_mat.get_element_count());
    CHECK_SAME_DEVICE(mat, out);
    CHECK_SAME_DEVICE(diag_mat, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mat_diag_add_vec(mat, diag_mat, out, alpha0, alpha1, beta);
    } else {
        gpu::vorn_mat_diag_add_vec(mat, diag_mat, out, alpha0, alpha1, beta);
    }
}

/// out = alpha * mat + beta * out, the first term of (i, i) times diag_mat[i]. Elements off the
/// diagonal keep their first term.
inline void vorn_mat_diag_mul_vec(const Tensor<float>& mat, const Tensor<float>& diag_mat,
                                  Tensor<float>& out, DType alpha, DType beta) {
    CHECK_EQ(mat.get_size(), out.get_size());
    CHECK_MATRIX(mat);
    CHECK_MATRIX(out);
    CHECK(mat.get_h() == mat.get_w());
    CHECK(mat.get_h() == diag_mat.get_element_count());
    CHECK_SAME_DEVICE(mat, out);
    CHECK_SAME_DEVICE(diag_mat, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mat_diag_mul_vec(mat, diag_mat, out, alpha, beta);
    } else {
        gpu::vorn_mat_diag_mul_vec(mat, diag_mat, out, alpha, beta);
    }
}

/// out(i, j) = t - log(prior[j]) with t = -125 where in(i, j) is below the smallest normal float,
/// else log(in(i, j)). NaN stays NaN; a zero prior gives infinity and a negative one NaN. On a GPU
/// `in` and `out` are contiguous, which nothing tests.
inline void vorn_log_sub_prior(const Tensor<float>& in, const Tensor<float>& prior,
                               Tensor<float>& out) {
    CHECK_EQ(in.get_size(), out.get_size());
    CHECK_MATRIX(in);
    CHECK_MATRIX(out);
    CHECK(prior.get_dim() == 1 || (prior.get_dim() == 2 && prior.get_h() == 1));
    CHECK_SAME_DEVICE(in, out);
    CHECK_SAME_DEVICE(prior, out);
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_log_sub_prior(in, prior, out);
    } else {
        gpu::vorn_log_sub_prior(in, prior, out);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_VEC_OPS_H_
