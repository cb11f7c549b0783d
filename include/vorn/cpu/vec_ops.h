#ifndef VORN_CPU_VEC_OPS_H_
#define VORN_CPU_VEC_OPS_H_

#include <cfloat>
#include <vector>

#include "vorn/cpu/iterator.h"
#include "vorn/rules/scalar_math.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the matrix and vector operations: one pass in memory order, every product and sum
/// rounded, from left to right.
namespace vorn {
namespace cpu {

/// row(mat_p, out_p, i) for each row i of `out`, with the pointers to its elements.
template <typename F>
void for_each_row(const Tensor<float>& mat, Tensor<float>& out, F row) {
    const index_t dim_m = out.row(), ld_in = mat.ld(), ld_out = out.ld();
    const float* mat_p = mat.get_ptr();
    float* out_p = out.get_ptr();
    for (index_t i = 0; i < dim_m; ++i, mat_p += ld_in, out_p += ld_out) {
        row(mat_p, out_p, i);
    }
}

inline void vorn_mat_row_add_vec(const Tensor<float>& mat, const Tensor<float>& vec,
                                 Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    const index_t dim_n = out.col();
    const float* vec_p = vec.get_ptr();
    const auto rule = [=](float x, float v, float old) {
        return (alpha0 * x + alpha1 * v) + beta * old;
    };
    for_each_row(mat, out, [=](const float* mat_p, float* out_p, index_t) {
        transform_run(rule, dim_n, out_p, mat_p, vec_p, out_p);
    });
}

inline void vorn_mat_col_add_vec(const Tensor<float>& mat, const Tensor<float>& vec,
                                 Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    const index_t dim_n = out.col();
    const float* vec_p = vec.get_ptr();
    for_each_row(mat, out, [=](const float* mat_p, float* out_p, index_t i) {
        const float term = alpha1 * vec_p[i];
        const auto rule = [=](float x, float old) { return (alpha0 * x + term) + beta * old; };
        transform_run(rule, dim_n, out_p, mat_p, out_p);
    });
}

inline void vorn_mat_row_mul_vec(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                                 DType alpha, DType beta) {
    const index_t dim_n = out.col();
    const float* b_p = b.get_ptr();
    const auto rule = [=](float x, float v, float old) { return (alpha * x) * v + beta * old; };
    for_each_row(a, out, [=](const float* a_p, float* out_p, index_t) {
        transform_run(rule, dim_n, out_p, a_p, b_p, out_p);
    });
}

inline void vorn_mat_col_mul_vec(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                                 DType alpha, DType beta) {
    const index_t dim_n = out.col();
    const float* b_p = b.get_ptr();
    for_each_row(a, out, [=](const float* a_p, float* out_p, index_t i) {
        const float factor = b_p[i];
        const auto rule = [=](float x, float old) { return (alpha * x) * factor + beta * old; };
        transform_run(rule, dim_n, out_p, a_p, out_p);
    });
}

inline void vorn_mat_diag_add_vec(const Tensor<float>& mat, const Tensor<float>& diag_mat,
                                  Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    const index_t dim_m = out.row();
    const float* diag_p = diag_mat.get_ptr();
    const auto rule = [=](float x, float old) { return alpha0 * x + beta * old; };
    for_each_row(mat, out, [=](const float* mat_p, float* out_p, index_t i) {
        // Before the row, which may overwrite both operands.
        const float diagonal = (alpha0 * mat_p[i] + alpha1 * diag_p[i]) + beta * out_p[i];
        transform_run(rule, dim_m, out_p, mat_p, out_p);
        out_p[i] = diagonal;
    });
}

inline void vorn_mat_diag_mul_vec(const Tensor<float>& mat, const Tensor<float>& diag_mat,
                                  Tensor<float>& out, DType alpha, DType beta) {
    const index_t dim_m = out.row();
    const float* diag_p = diag_mat.get_ptr();
    const auto rule = [=](float x, float old) { return alpha * x + beta * old; };
    for_each_row(mat, out, [=](const float* mat_p, float* out_p, index_t i) {
        const float diagonal = (alpha * mat_p[i]) * diag_p[i] + beta * out_p[i];
        transform_run(rule, dim_m, out_p, mat_p, out_p);
        out_p[i] = diagonal;
    });
}

inline void vorn_log_sub_prior(const Tensor<float>& in, const Tensor<float>& prior,
                               Tensor<float>& out) {
    const index_t dim_n = out.col();
    std::vector<float> log_prior(dim_n);
    log_run(dim_n, log_prior.data(), prior.get_ptr());
    const auto rule = [](float x, float log_p) {
        const float t = log_of_normal(x < FLT_MIN ? 1.0f : x);
        return (x < FLT_MIN ? -125.0f : t) - log_p;
    };
    const float* log_prior_p = log_prior.data();
    for_each_row(in, out, [=](const float* in_p, float* out_p, index_t) {
        transform_run(rule, dim_n, out_p, in_p, log_prior_p);
    });
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_VEC_OPS_H_
