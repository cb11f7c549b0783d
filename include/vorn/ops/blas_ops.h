#ifndef VORN_OPS_BLAS_OPS_H_
#define VORN_OPS_BLAS_OPS_H_

#include <algorithm>

#include "vorn/cpu/blas_ops.h"
#include "vorn/gpu/blas_ops.h"
#include "vorn/ops/reduce.h"
#include "vorn/tensor/tensor.h"

/// Linear algebra on row-major matrices with pitches: the checks, then one branch on the device.
/// Sums and extrema of all elements stand in ops/reduce.h, which this header includes.
namespace vorn {

/// Aborts unless a, b and c are matrices of one device whose shapes fit c = op(a) * op(b), where
/// op transposes if its flag is set.
template <typename T>
void check_gemm_params(const Tensor<T>& a, bool a_t, const Tensor<T>& b, bool b_t,
                       const Tensor<T>& c) {
    CHECK_MATRIX(a);
    CHECK_MATRIX(b);
    CHECK_MATRIX(c);
    const index_t a_row = a_t ? a.get_w() : a.get_h(), a_col = a_t ? a.get_h() : a.get_w();
    const index_t b_row = b_t ? b.get_w() : b.get_h(), b_col = b_t ? b.get_h() : b.get_w();
    const index_t c_row = c.get_h(), c_col = c.get_w();
    CHECK_EQ(a_col, b_row);
    CHECK_EQ(a_row, c_row);
    CHECK_EQ(b_col, c_col);
    CHECK_SAME_DEVICE(a, c);
    CHECK_SAME_DEVICE(b, c);
}

/// c = alpha * op(a) * op(b) + beta * c; c is not read if beta is 0.
inline void vorn_gemm(const Tensor<float>& a, bool a_t, const Tensor<float>& b, bool b_t,
                      Tensor<float>& c, double alpha, double beta) {
    check_gemm_params(a, a_t, b, b_t, c);
    if (is_cpu_device(c.get_device())) {
        cpu::vorn_gemm(a, a_t, b, b_t, c, static_cast<DType>(alpha), static_cast<DType>(beta));
    } else {
        gpu::vorn_gemm(a, a_t, b, b_t, c, static_cast<DType>(alpha), static_cast<DType>(beta));
    }
}

/// C(i) = alpha * op(A(i)) * op(B(i)) + beta * C(i) for i in [0, batch), where A(i) starts at
/// element i * a_stride of `a` and has its last axis as columns, a_stride / columns rows; B(i) and
/// C(i) likewise. Neither shapes nor devices are checked beyond the element counts.
inline void vorn_batch_gemm(const Tensor<float>& a, bool a_t, int64_t a_stride,
                            const Tensor<float>& b, bool b_t, int64_t b_stride, Tensor<float>& c,
                            int64_t c_stride, int batch, DType alpha, DType beta) {
    CHECK(static_cast<size_t>(batch * a_stride) == a.get_element_count());
    CHECK(static_cast<size_t>(batch * b_stride) == b.get_element_count());
    CHECK(static_cast<size_t>(batch * c_stride) == c.get_element_count());
    if (is_cpu_device(c.get_device())) {
        cpu::vorn_batch_gemm(a, a_t, a_stride, b, b_t, b_stride, c, c_stride, batch, alpha, beta);
    } else {
        gpu::vorn_batch_gemm(a, a_t, a_stride, b, b_t, b_stride, c, c_stride, batch, alpha, beta);
    }
}

/// out(i, j) = in(j, i). Only the element count is checked, but `out` must have the axes of `in`
/// exchanged and share no memory with it.
template <typename T>
void vorn_transpose(const Tensor<T>& in, Tensor<T>& out) {
    CHECK_MATRIX(in);
    CHECK_MATRIX(out);
    CHECK_EQ(in.get_element_count(), out.get_element_count());
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(in.get_device())) {
        cpu::vorn_transpose(in, out);
    } else {
        gpu::vorn_transpose(in, out);
    }
}

/// The Euclidean norm of all elements of a contiguous tensor.
inline DType vorn_norm2(const Tensor<float>& in) {
    CHECK(in.is_contiguous());
    DType res = 0;
    if (is_cpu_device(in.get_device())) {
        cpu::vorn_norm2(in, &res);
    } else {
        gpu::vorn_norm2(in, &res);
    }
    return res;
}

/// The sum of the absolute values of all elements of a contiguous tensor.
inline DType vorn_norm1(const Tensor<float>& in) {
    CHECK(in.is_contiguous());
    DType res = 0;
    if (is_cpu_device(in.get_device())) {
        cpu::vorn_norm1(in, &res);
    } else {
        gpu::vorn_norm1(in, &res);
    }
    return res;
}

/// Least squares for each matrix of `in` (batch, m, n), of full rank and overwritten, with one
/// right-hand side each: row b of `inout` (batch, at least max(m, n)) holds it in its first m
/// places, and then the x that minimises |in[b] x - y|, for m < n the shortest of them, in its
/// first n. What stands past x is left undefined up to place max(m, n). A matrix of lower rank is
/// not solved: where its triangular factor has a zero on the diagonal, the host aborts and a GPU
/// gives values that are not finite. `ws_d`, on the GPU, and `ws_h`, on the host, grow to the
/// tables of device pointers that a GPU needs for m >= n.
inline void vorn_sgels(Tensor<float>& in, Tensor<float>& inout, Tensor<unsigned long>& ws_d,
                       Tensor<unsigned long>& ws_h) {
    CHECK(in.get_size().get_axis() == 3);
    CHECK(inout.get_size().get_axis() == 2);
    CHECK_EQ(in.get_c(), inout.get_h());
    CHECK_GE(inout.get_w(), std::max(in.get_h(), in.get_w()));
    CHECK_SAME_DEVICE(in, inout);
    if (is_cpu_device(inout.get_device())) {
        cpu::vorn_sgels(in, inout, ws_d, ws_h);
    } else {
        gpu::vorn_sgels(in, inout, ws_d, ws_h);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_BLAS_OPS_H_
