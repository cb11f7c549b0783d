#ifndef VORN_CPU_REDUCE_H_
#define VORN_CPU_REDUCE_H_

#include "vorn/cpu/kit/fold.h"
#include "vorn/rules/reduce_functors.h"
#include "vorn/tensor/tensor.h"

/// Host folds. The order of rounding is fixed: each row, each column and the whole tensor fold in
/// ascending order. Row and column folds are therefore vectorised across results, with one lane per
/// row or column, and give the bits of the plain loop.
namespace vorn {
namespace cpu {

/// out[i] = save(fold of row i of `in`)
template <typename Reducer, typename In, typename Out>
void reduce_2d_row(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    Out* out_p = out.get_data();
    fold_rows(LaneFold<Reducer, In>{f}, in.get_data(), in.get_size().height(), in.get_size()[-1],
              in.ld(), [=](index_t i, In result) { out_p[i] = f.save(result, out_p[i]); });
}

/// out[j] = save(fold of column j of `in`)
template <typename Reducer, typename In, typename Out>
void reduce_2d_col(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    Out* out_p = out.get_data();
    const In* in_p = in.get_data();
    const index_t ld_in = in.ld();
    fold_columns(
        f, in.get_size().height(), in.get_size()[-1],
        [=](index_t i, index_t j) { return in_p[i * ld_in + j]; },
        [=](index_t j, In result) { out_p[j] = f.save(result, out_p[j]); });
}

/// The fold of all elements, row by row: res = f(res, x) from `val` on.
template <typename Reducer, typename In, typename Out>
VORN_FORCE_INLINE Out reduce_all(Reducer f, const Tensor<In>& in, Out val) {
    if (in.is_contiguous()) {
        return fold_run(f, in.get_data(), in.count(), val);
    }
    const index_t dim_m = in.get_size().height(), dim_n = in.get_size()[-1], ld_in = in.ld();
    const In* in_p = in.get_data();
    for (index_t i = 0; i < dim_m; ++i, in_p += ld_in) {
        val = fold_run(f, in_p, dim_n, val);
    }
    return val;
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_REDUCE_H_
