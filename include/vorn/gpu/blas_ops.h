#ifndef VORN_GPU_BLAS_OPS_H_
#define VORN_GPU_BLAS_OPS_H_

#include <cublas_v2.h>

#include <algorithm>

#include "vorn/gpu/collective.h"
#include "vorn/gpu/iterator.h"
#include "vorn/gpu/memory.h"
#include "vorn/gpu/reduce_all.h"
#include "vorn/rules/functors.h"
#include "vorn/tensor/matrix_batch.h"
#include "vorn/tensor/tensor.h"

/// GPU linear algebra on cuBLAS, through the handle of the thread's context. cuBLAS is
/// column-major: a row-major matrix is for it its own transpose, with the pitch as leading
/// dimension. Folds of all elements stand in gpu/reduce_all.h, which this header includes.
namespace vorn {
namespace gpu {

/// out = value * out. A NaN stays one under a value of 0, which BLAS libraries don't agree on.
inline void vorn_scal(Tensor<float>& out, DType value) {
    gpu::unary_op(func::mul_constant<float>(value), out, out);
}

/// out = alpha0 * out + alpha1 * in, in one pass over memory where BLAS would need two.
inline void vorn_axpy(const Tensor<float>& in, Tensor<float>& out, DType alpha0, DType alpha1) {
    gpu::binary_op(func::add(alpha0, alpha1), out, in, out);
}

inline cublasOperation_t blas_op(bool transposed) {
    return transposed ? CUBLAS_OP_T : CUBLAS_OP_N;
}

/// c = alpha * op(a) * op(b) + beta * c, which cuBLAS sees as c' = alpha * op(b)' * op(a)' +
/// beta * c'.
inline void vorn_gemm(const Tensor<float>& a, bool a_t, const Tensor<float>& b, bool b_t,
                      Tensor<float>& c, DType alpha, DType beta) {
    const int dim_m = static_cast<int>(c.get_h()), dim_n = static_cast<int>(c.get_w());
    const int dim_k = static_cast<int>(a_t ? a.get_h() : a.get_w());
    CHECK_CALL(cublasSgemm_v2(t_ctx->handle, blas_op(b_t), blas_op(a_t), dim_n, dim_m, dim_k,
                              &alpha, b.get_ptr(), leading_dimension(b), a.get_ptr(),
                              leading_dimension(a), &beta, c.get_ptr(), leading_dimension(c)));
    VORN_KERNEL_TAIL();
}

inline void vorn_batch_gemm(const Tensor<float>& a, bool a_t, int64_t a_stride,
                            const Tensor<float>& b, bool b_t, int64_t b_stride, Tensor<float>& c,
                            int64_t c_stride, int batch, DType alpha, DType beta) {
    if (c.get_element_count() == 0) {
        return;
    }
    const MatrixBatch a_i(a, a_stride), b_i(b, b_stride), c_i(c, c_stride);
    const int dim_k = a_t ? a_i.rows : a_i.columns;
    CHECK_CALL(cublasSgemmStridedBatched(
        t_ctx->handle, blas_op(b_t), blas_op(a_t), c_i.columns, c_i.rows, dim_k, &alpha,
        b.get_ptr(), leading_dimension(b), b_i.step, a.get_ptr(), leading_dimension(a), a_i.step,
        &beta, c.get_ptr(), leading_dimension(c), c_i.step, batch));
    VORN_KERNEL_TAIL();
}

/// out (dim_n x dim_m, pitch ld_out) = transpose of in (dim_m x dim_n, pitch ld_in).
inline void transpose_matrix(int dim_m, int dim_n, const float* in_ptr, int ld_in, float* out_ptr,
                             int ld_out) {
    const float alpha = 1.0, beta = 0.0;
    CHECK_CALL(cublasSgeam(t_ctx->handle, CUBLAS_OP_T, CUBLAS_OP_N, dim_m, dim_n, &alpha, in_ptr,
                           ld_in, &beta, nullptr, dim_m, out_ptr, ld_out));
}

inline void vorn_transpose(const Tensor<float>& in, Tensor<float>& out) {
    if (in.get_element_count() == 0) {
        return;
    }
    transpose_matrix(static_cast<int>(in.get_h()), static_cast<int>(in.get_w()), in.get_ptr(),
                     static_cast<int>(in.ld()), out.get_ptr(), static_cast<int>(out.ld()));
    VORN_KERNEL_TAIL();
}

/// cuBLAS moves no integers: through the host, done on return.
inline void vorn_transpose(const Tensor<int>& in, Tensor<int>& out) {
    Tensor<int> tmp(out.get_size(), cpu_device()), tmp_in(in.get_size(), cpu_device());
    tmp.copy_from(out);
    tmp_in.copy_from(in);
    tmp.transpose(tmp_in);
    out.copy_from(tmp);
}

/// *res, on the host, is complete on return.
inline void vorn_norm2(const Tensor<float>& in, DType* res) {
    CHECK_CALL(cublasSnrm2_v2(t_ctx->handle, in.get_element_count(), in._ptr, 1, res));
    VORN_KERNEL_TAIL();
}

inline void vorn_norm1(const Tensor<float>& in, DType* res) {
    CHECK_CALL(cublasSasum_v2(t_ctx->handle, in.get_element_count(), in._ptr, 1, res));
    VORN_KERNEL_TAIL();
}

// ---- Least squares

/// The fold of [begin, n) from 0 on, value = add(value, i), then value = join(value, other) of the
/// lanes, by one warp; every lane returns it. `part` is shared memory of a warp's size, the warp's
/// own.
template <typename Add, typename Join>
__device__ float warp_run_fold(int begin, int n, float* part, Add add, Join join) {
    const int lane = threadIdx.x % wrap_size;
    float value = 0;
    for (int i = begin + lane; i < n; i += wrap_size) {
        value = add(value, i);
    }
    part[lane] = value;
    warp_fold([&](int to, int from) { part[to] = join(part[to], part[from]); });
    __syncwarp();
    value = part[0];
    __syncwarp();
    return value;
}

/// The dot product of a and b over [begin, n).
inline __device__ float warp_dot(const float* a, const float* b, int begin, int n, float* part) {
    return warp_run_fold(
        begin, n, part, [=](float sum, int i) { return fmaf(a[i], b[i], sum); },
        [](float x, float y) { return x + y; });
}

/// The largest magnitude over [begin, n) of a, in which a NaN counts as nothing.
inline __device__ float warp_max(const float* a, int begin, int n, float* part) {
    return warp_run_fold(
        begin, n, part, [=](float max, int i) { return fmaxf(max, fabsf(a[i])); },
        [](float x, float y) { return fmaxf(x, y); });
}

/// The sum of squares over [begin, n) of a, of which every element is divided by 2^exponent.
inline __device__ float warp_squares(const float* a, int begin, int n, int exponent, float* part) {
    return warp_run_fold(
        begin, n, part,
        [=](float sum, int i) {
            const float x = scalbnf(a[i], -exponent);
            return fmaf(x, x, sum);
        },
        [](float x, float y) { return x + y; });
}

/// Shortest solutions of wide systems, one block each, NT threads of whole warps.
///   a: (m x n, pitch ld_a) per block, m < n; x: (n) per block, pitch ld_x, y in its first m
///   places on entry; tau: (m) per block, work space.
/// Householder reflections from the right turn `a` into a lower triangle L: a H_0 ... H_{m-1} =
/// [L 0] with H_k = I - tau_k v_k v_k', where v_k is 0 before place k, 1 in it, and stands past
/// the diagonal in row k. Then x = H_0 ... H_{m-1} [z 0]' where L z = y. (Golub and Van Loan,
/// "Matrix Computations", on underdetermined systems.)
template <int NT>
__global__ void KeMinNormSolve(float* a, int m, int n, int ld_a, float* x, int ld_x, float* tau) {
    const int warps = NT / wrap_size;
    __shared__ float parts[NT];
    const int tid = threadIdx.x, warp = tid / wrap_size, lane = tid % wrap_size;
    float* part = parts + warp * wrap_size;
    a += static_cast<size_t>(blockIdx.x) * m * ld_a;
    x += static_cast<size_t>(blockIdx.x) * ld_x;
    tau += static_cast<size_t>(blockIdx.x) * m;

    for (int k = 0; k < m; ++k) {
        float* v = a + static_cast<size_t>(k) * ld_a;
        const float max_tail = warp_max(v, k + 1, n, part);
        // Scaled by a power of 2, which rounds nothing, so that the squares stay floats.
        const float max_row = fmaxf(fabsf(v[k]), max_tail);
        const int exponent = max_row > 0 ? ilogbf(max_row) : 0;
        const float head = scalbnf(v[k], -exponent);
        const float tail = warp_squares(v, k + 1, n, exponent, part);
        __syncthreads();
        float diagonal = head, tau_k = 0;
        if (max_tail != 0 || tail != 0) {  // a NaN shows in the sum only
            diagonal = -copysignf(sqrtf(fmaf(head, head, tail)), head);
            tau_k = (diagonal - head) / diagonal;
            for (int j = k + 1 + tid; j < n; j += NT) {
                v[j] = scalbnf(v[j], -exponent) / (head - diagonal);
            }
        }
        if (tid == 0) {
            v[k] = scalbnf(diagonal, exponent);
            tau[k] = tau_k;
        }
        __syncthreads();
        for (int i = k + 1 + warp; i < m; i += warps) {
            float* row = a + static_cast<size_t>(i) * ld_a;
            const float first = row[k];
            const float weight = tau_k * (first + warp_dot(row, v, k + 1, n, part));
            if (lane == 0) {
                row[k] = first - weight;
            }
            for (int j = k + 1 + lane; j < n; j += wrap_size) {
                row[j] = fmaf(-weight, v[j], row[j]);
            }
        }
        __syncthreads();
    }

    for (int k = 0; k < m; ++k) {
        if (tid == 0) {
            x[k] /= a[static_cast<size_t>(k) * ld_a + k];
        }
        __syncthreads();
        const float z = x[k];
        for (int i = k + 1 + tid; i < m; i += NT) {
            x[i] = fmaf(-a[static_cast<size_t>(i) * ld_a + k], z, x[i]);
        }
        __syncthreads();
    }

    for (int j = m + tid; j < n; j += NT) {
        x[j] = 0;
    }
    __syncthreads();
    for (int k = m - 1; k >= 0; --k) {
        const float* v = a + static_cast<size_t>(k) * ld_a;
        const float weight = tau[k] * (x[k] + warp_dot(v, x, k + 1, n, part));
        __syncthreads();
        if (tid == 0) {
            x[k] -= weight;
        }
        for (int j = k + 1 + tid; j < n; j += NT) {
            x[j] = fmaf(-weight, v[j], x[j]);
        }
        __syncthreads();
    }
}

inline void solve_wide(int batch, int m, int n, Tensor<float>& in, Tensor<float>& inout) {
    const int NT = 128;
    Tensor<float> tau(Dim(batch, m), inout.get_device());
    launch<KeMinNormSolve<NT>>(batch, NT, in.get_ptr(), m, n, static_cast<int>(in.ld()),
                               inout.get_ptr(), static_cast<int>(inout.ld()), tau.get_ptr());
}

/// cuBLAS wants the matrices column-major. One transposition serves the whole batch: as one matrix
/// of batch * m rows it gives matrix b at offset b * m, with leading dimension batch * m.
inline void solve_tall(int batch, int m, int n, Tensor<float>& in, Tensor<float>& inout,
                       Tensor<unsigned long>& ws_d, Tensor<unsigned long>& ws_h) {
    const int rows = batch * m;
    Tensor<float> in_t(Dim(n, rows), inout.get_device());
    transpose_matrix(rows, n, in.get_ptr(), static_cast<int>(in.ld()), in_t.get_ptr(), rows);

    const index_t tables = 2 * static_cast<index_t>(batch);
    for (Tensor<unsigned long>* ws : {&ws_d, &ws_h}) {
        if (!ws->is_contiguous() || ws->get_element_count() < tables) {
            ws->resize(Dim(tables), false);
        }
    }
    ptr_t* table = ws_h.get_ptr();
    for (int b = 0; b < batch; ++b) {
        table[b] = reinterpret_cast<ptr_t>(in_t.get_ptr() + static_cast<size_t>(b) * m);
        table[batch + b] = reinterpret_cast<ptr_t>(inout.get_ptr() + b * inout.ld());
    }
    gpu::vorn_memcpy_h2d(ws_d.get_ptr(), table, tables * sizeof(ptr_t));

    float** matrices = reinterpret_cast<float**>(ws_d.get_ptr());
    int info = 0;
    CHECK_CALL(cublasSgelsBatched(t_ctx->handle, CUBLAS_OP_N, m, n, 1, matrices, rows,
                                  matrices + batch, static_cast<int>(inout.ld()), &info, nullptr,
                                  batch));
}

inline void vorn_sgels(Tensor<float>& in, Tensor<float>& inout, Tensor<unsigned long>& ws_d,
                       Tensor<unsigned long>& ws_h) {
    if (in.get_element_count() == 0) {
        return;
    }
    const int batch = in.get_size()[0], m = in.get_size()[1], n = in.get_size()[2];
    if (m < n) {
        solve_wide(batch, m, n, in, inout);
    } else {
        CHECK(is_gpu_device(ws_d.get_device()) && is_cpu_device(ws_h.get_device()));
        solve_tall(batch, m, n, in, inout, ws_d, ws_h);
    }
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_BLAS_OPS_H_
