#ifndef VORN_GPU_VEC_OPS_H_
#define VORN_GPU_VEC_OPS_H_

#include <cfloat>

#include "vorn/gpu/kernel_util.h"
#include "vorn/rules/scalar_math.h"
#include "vorn/tensor/tensor.h"

/// Kernels of the matrix and vector operations. One thread does one element of `out` (dim_m by
/// dim_n): block x is the row, the blocks y share its columns. Pitches count elements; that of the
/// vector comes with the others, but the vector is read as a dense run.
namespace vorn {
namespace gpu {

/// Queues `kernel` with a thread for each element of `out`.
template <auto kernel, typename... A>
void launch_on_elements(const Tensor<float>& out, A... args) {
    const int NT = 1024;
    const dim3 grid(static_cast<unsigned>(out.row()), div_up(static_cast<int>(out.col()), NT), 1);
    launch<kernel>(grid, NT, args...);
}

// ---- alpha0 * in(i, j) + alpha1 * vec + beta * out(i, j)

static __global__ void KeMatRowAddVec(const float* in, index_t ld_in, const float* vec, index_t,
                                      float* out, index_t ld_out, index_t dim_m, index_t dim_n,
                                      float alpha0, float alpha1, float beta) {
    const index_t i = blockIdx.x;
    const index_t j = blockDim.x * static_cast<index_t>(blockIdx.y) + threadIdx.x;
    if (i < dim_m && j < dim_n) {
        float& o = out[i * ld_out + j];
        o = fmaf(o, beta, fmaf(in[i * ld_in + j], alpha0, vec[j] * alpha1));
    }
}

static __global__ void KeMatColAddVec(const float* in, index_t ld_in, const float* vec, index_t,
                                      float* out, index_t ld_out, index_t dim_m, index_t dim_n,
                                      float alpha0, float alpha1, float beta) {
    const index_t i = blockIdx.x;
    const index_t j = blockDim.x * static_cast<index_t>(blockIdx.y) + threadIdx.x;
    if (i < dim_m && j < dim_n) {
        float& o = out[i * ld_out + j];
        o = fmaf(o, beta, fmaf(in[i * ld_in + j], alpha0, vec[i] * alpha1));
    }
}

inline void vorn_mat_row_add_vec(const Tensor<float>& mat, const Tensor<float>& vec,
                                 Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    launch_on_elements<KeMatRowAddVec>(out, mat.get_ptr(), mat.ld(), vec.get_ptr(), vec.ld(),
                                       out.get_ptr(), out.ld(), out.row(), out.col(), alpha0,
                                       alpha1, beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_mat_col_add_vec(const Tensor<float>& mat, const Tensor<float>& vec,
                                 Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    launch_on_elements<KeMatColAddVec>(out, mat.get_ptr(), mat.ld(), vec.get_ptr(), vec.ld(),
                                       out.get_ptr(), out.ld(), out.row(), out.col(), alpha0,
                                       alpha1, beta);
    VORN_KERNEL_TAIL();
}

// ---- alpha * in(i, j) * vec + beta * out(i, j)

static __global__ void KeMatRowMulVec(const float* in, index_t ld_in, const float* vec, index_t,
                                      float* out, index_t ld_out, index_t dim_m, index_t dim_n,
                                      float alpha, float beta) {
    const index_t i = blockIdx.x;
    const index_t j = blockDim.x * static_cast<index_t>(blockIdx.y) + threadIdx.x;
    if (i < dim_m && j < dim_n) {
        float& o = out[i * ld_out + j];
        o = fmaf(in[i * ld_in + j] * alpha, vec[j], o * beta);
    }
}

static __global__ void KeMatColMulVec(const float* in, index_t ld_in, const float* vec, index_t,
                                      float* out, index_t ld_out, index_t dim_m, index_t dim_n,
                                      float alpha, float beta) {
    const index_t i = blockIdx.x;
    const index_t j = blockDim.x * static_cast<index_t>(blockIdx.y) + threadIdx.x;
    if (i < dim_m && j < dim_n) {
        float& o = out[i * ld_out + j];
        o = fmaf(in[i * ld_in + j] * alpha, vec[i], o * beta);
    }
}

inline void vorn_mat_row_mul_vec(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                                 DType alpha, DType beta) {
    launch_on_elements<KeMatRowMulVec>(out, a.get_ptr(), a.ld(), b.get_ptr(), b.ld(), out.get_ptr(),
                                       out.ld(), out.row(), out.col(), alpha, beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_mat_col_mul_vec(const Tensor<float>& a, const Tensor<float>& b, Tensor<float>& out,
                                 DType alpha, DType beta) {
    launch_on_elements<KeMatColMulVec>(out, a.get_ptr(), a.ld(), b.get_ptr(), b.ld(), out.get_ptr(),
                                       out.ld(), out.row(), out.col(), alpha, beta);
    VORN_KERNEL_TAIL();
}

// ---- alpha * in + beta * out, with the vector on the diagonal

static __global__ void KeMatDiagAddVec(const float* in, index_t ld_in, const float* vec, index_t,
                                       float* out, index_t ld_out, index_t dim_m, index_t dim_n,
                                       float alpha0, float alpha1, float beta) {
    const index_t i = blockIdx.x;
    const index_t j = blockDim.x * static_cast<index_t>(blockIdx.y) + threadIdx.x;
    if (i < dim_m && j < dim_n) {
        float& o = out[i * ld_out + j];
        const float f = in[i * ld_in + j] * alpha0;
        o = fmaf(o, beta, i == j ? fmaf(vec[i], alpha1, f) : f);
    }
}

static __global__ void KeMatDiagMulVec(const float* in, index_t ld_in, const float* vec, index_t,
                                       float* out, index_t ld_out, index_t dim_m, index_t dim_n,
                                       float alpha, float beta) {
    const index_t i = blockIdx.x;
    const index_t j = blockDim.x * static_cast<index_t>(blockIdx.y) + threadIdx.x;
    if (i < dim_m && j < dim_n) {
        float& o = out[i * ld_out + j];
        const float f = in[i * ld_in + j] * alpha;
        o = i == j ? fmaf(f, vec[i], o * beta) : fmaf(o, beta, f);
    }
}

inline void vorn_mat_diag_add_vec(const Tensor<float>& mat, const Tensor<float>& diag_mat,
                                  Tensor<float>& out, DType alpha0, DType alpha1, DType beta) {
    launch_on_elements<KeMatDiagAddVec>(out, mat.get_ptr(), mat.ld(), diag_mat.get_ptr(),
                                        diag_mat.ld(), out.get_ptr(), out.ld(), out.row(),
                                        out.col(), alpha0, alpha1, beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_mat_diag_mul_vec(const Tensor<float>& mat, const Tensor<float>& diag_mat,
                                  Tensor<float>& out, DType alpha, DType beta) {
    launch_on_elements<KeMatDiagMulVec>(out, mat.get_ptr(), mat.ld(), diag_mat.get_ptr(),
                                        diag_mat.ld(), out.get_ptr(), out.ld(), out.row(),
                                        out.col(), alpha, beta);
    VORN_KERNEL_TAIL();
}

// ---- log(in(i, j)), at least -125, less log(prior[j])

/// `in` and `out` are dense.
static __global__ void KeLogSubPrior(const float* in, const float* prior, float* out, index_t dim_m,
                                     index_t dim_n) {
    const index_t i = blockIdx.x;
    const index_t j = blockDim.x * static_cast<index_t>(blockIdx.y) + threadIdx.x;
    if (i < dim_m && j < dim_n) {
        const float x = in[i * dim_n + j];
        const float t = x < FLT_MIN ? -125.0f : math::log(x);
        out[i * dim_n + j] = t - math::log(prior[j]);
    }
}

inline void vorn_log_sub_prior(const Tensor<float>& in, const Tensor<float>& prior,
                               Tensor<float>& out) {
    launch_on_elements<KeLogSubPrior>(out, in.get_ptr(), prior.get_ptr(), out.get_ptr(), out.row(),
                                      out.col());
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_VEC_OPS_H_
