#ifndef VORN_OPS_REDUCE_H_
#define VORN_OPS_REDUCE_H_

#include <cfloat>

#include "vorn/cpu/reduce.h"
#include "vorn/gpu/reduce.h"
#include "vorn/gpu/reduce_all.h"
#include "vorn/rules/functors.h"
#include "vorn/rules/reduce_functors.h"
#include "vorn/tensor/tensor.h"

/// Folds of rows, of columns and of all elements.
namespace vorn {

/// out[i] = save(fold of row i), wherever the rule `f` says how. `out` is contiguous, with an
/// element for each row, in any shape of at most two axes.
template <typename Reducer, typename In, typename Out>
void reduce_2d_row(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    CHECK_EQ(in.get_dim(), 2);
    CHECK_LE(out.get_dim(), 2);
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::reduce_2d_row(f, in, out);
    } else {
        gpu::reduce_2d_row(f, in, out);
    }
}

/// out[j] = save(fold of column j). `out` is contiguous, with an element for each column.
template <typename Reducer, typename In, typename Out>
void reduce_2d_col(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    CHECK_EQ(in.get_dim(), 2);
    CHECK_LE(out.get_dim(), 2);
    CHECK_SAME_DEVICE(in, out);
    if (is_cpu_device(out.get_device())) {
        cpu::reduce_2d_col(f, in, out);
    } else {
        gpu::reduce_2d_col(f, in, out);
    }
}

/// val = f(val, x) for all elements in row-major order, on the host: a GPU tensor is copied there.
template <typename Reducer, typename In, typename Out>
VORN_FORCE_INLINE Out reduce_all(Reducer f, const Tensor<In>& in, Out val) {
    if (is_cpu_device(in.get_device())) {
        return cpu::reduce_all(f, in, val);
    }
    Tensor<In> host(in.get_size(), cpu_device());
    host.copy_from(in);
    return cpu::reduce_all(f, host, val);
}

template <typename T>
void vorn_col_sum(const Tensor<T>& a, Tensor<T>& out, DType alpha, DType beta) {
    reduce_2d_col(func::reduce_sum<T>(0, alpha, beta), a, out);
}

template <typename T>
void vorn_col_max(const Tensor<T>& a, Tensor<T>& out, DType alpha, DType beta) {
    reduce_2d_col(func::reduce_max<T>(-FLT_MAX, alpha, beta), a, out);
}

template <typename T>
void vorn_col_min(const Tensor<T>& a, Tensor<T>& out, DType alpha, DType beta) {
    reduce_2d_col(func::reduce_min<T>(FLT_MAX, alpha, beta), a, out);
}

template <typename T>
void vorn_row_sum(const Tensor<T>& a, Tensor<T>& out, DType alpha, DType beta) {
    reduce_2d_row(func::reduce_sum<T>(0, alpha, beta), a, out);
}

template <typename T>
void vorn_row_max(const Tensor<T>& a, Tensor<T>& out, DType alpha, DType beta) {
    reduce_2d_row(func::reduce_max<T>(-FLT_MAX, alpha, beta), a, out);
}

template <typename T>
void vorn_row_min(const Tensor<T>& a, Tensor<T>& out, DType alpha, DType beta) {
    reduce_2d_row(func::reduce_min<T>(FLT_MAX, alpha, beta), a, out);
}

/// The sum of all elements. On the host, and for int tensors, every step is done in float and
/// stored in T.
template <typename T>
T vorn_sum(const Tensor<T>& in) {
    return reduce_all(func::add(), in, T(0));
}

template <>
inline float vorn_sum(const Tensor<float>& in) {
    if (is_gpu_device(in.get_device()) && in.is_contiguous()) {
        DType res;
        gpu::vorn_sum(in, &res);
        return res;
    }
    return reduce_all(func::add(), in, 0.0f);
}

inline float vorn_max(const Tensor<float>& in) {
    if (is_gpu_device(in.get_device()) && in.is_contiguous()) {
        DType res;
        gpu::vorn_max(in, &res);
        return res;
    }
    return reduce_all(func::max(), in, -FLT_MAX);
}

inline float vorn_min(const Tensor<float>& in) {
    if (is_gpu_device(in.get_device()) && in.is_contiguous()) {
        DType res;
        gpu::vorn_min(in, &res);
        return res;
    }
    return reduce_all(func::min(), in, FLT_MAX);
}

}  // namespace vorn

#endif  // VORN_OPS_REDUCE_H_
