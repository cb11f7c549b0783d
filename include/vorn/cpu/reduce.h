#ifndef VORN_CPU_REDUCE_H_
#define VORN_CPU_REDUCE_H_

#include <algorithm>
#include <cstring>
#include <iterator>

#include "vorn/ops/reduce_functors.h"
#include "vorn/tensor/tensor.h"

/// Host folds. The order of rounding is fixed: each row, each column and the whole tensor fold in
/// ascending order. Row and column folds are therefore vectorised across results, with one lane per
/// row or column, and give the bits of the plain loop.
namespace vorn {
namespace cpu {

template <typename T>
struct Lanes {
    static constexpr int kFull = 8;
    typedef T Half __attribute__((vector_size(4 * sizeof(T))));
    typedef T Full __attribute__((vector_size(kFull * sizeof(T))));
};

template <typename V, typename T>
inline void load(V& lanes, const T* p) {
    memcpy(&lanes, p, sizeof(V));
}

template <typename V, typename T>
inline void splat(V& lanes, T x) {
    lanes = x - V{};  // x + 0 would lose the sign of -0
}

// For helpers of the row fold, whose running values are to stay in registers, and for the fold of
// all elements, where weights of 1 that the compiler sees drop out of a chain of dependent steps.
#define VORN_FORCE_INLINE inline __attribute__((always_inline))

// Folds columns j to j + 3 of eight rows into eight lanes. Rows r and r + 4 are loaded side by
// side, so that the transposition stays inside the halves of a register.
template <typename Reducer, typename T>
VORN_FORCE_INLINE void fold_four_columns(Reducer f, const T* const* rows, index_t j,
                                         typename Lanes<T>::Full& acc) {
    using Full = typename Lanes<T>::Full;
    Full pair[4];
    for (int r = 0; r < 4; ++r) {
        typename Lanes<T>::Half low, high;
        load(low, rows[r] + j);
        load(high, rows[r + 4] + j);
        pair[r] = __builtin_shufflevector(low, high, 0, 1, 2, 3, 4, 5, 6, 7);
    }
    const Full ab01 = __builtin_shufflevector(pair[0], pair[1], 0, 8, 1, 9, 4, 12, 5, 13);
    const Full ab23 = __builtin_shufflevector(pair[0], pair[1], 2, 10, 3, 11, 6, 14, 7, 15);
    const Full cd01 = __builtin_shufflevector(pair[2], pair[3], 0, 8, 1, 9, 4, 12, 5, 13);
    const Full cd23 = __builtin_shufflevector(pair[2], pair[3], 2, 10, 3, 11, 6, 14, 7, 15);
    f.fold(acc, __builtin_shufflevector(ab01, cd01, 0, 1, 8, 9, 4, 5, 12, 13));
    f.fold(acc, __builtin_shufflevector(ab01, cd01, 2, 3, 10, 11, 6, 7, 14, 15));
    f.fold(acc, __builtin_shufflevector(ab23, cd23, 0, 1, 8, 9, 4, 5, 12, 13));
    f.fold(acc, __builtin_shufflevector(ab23, cd23, 2, 3, 10, 11, 6, 7, 14, 15));
}

constexpr index_t kLine = 16;  // columns of a cache line

// Columns j to j + kLine - 1 of eight rows. A whole line of each row at a time, because rows a
// power of two apart share few places in the cache. Fetches the lines `ahead` elements on.
template <typename Reducer, typename T>
VORN_FORCE_INLINE void fold_line(Reducer f, const T* const* rows, index_t j, index_t ahead,
                                 typename Lanes<T>::Full& acc) {
    for (int l = 0; l < Lanes<T>::kFull; ++l) {
        __builtin_prefetch(rows[l] + j + ahead);
    }
    for (index_t k = 0; k < kLine; k += 4) {
        fold_four_columns(f, rows, j + k, acc);
    }
}

// Columns j to n - 1 of eight rows.
template <typename Reducer, typename T>
VORN_FORCE_INLINE void fold_rest(Reducer f, const T* const* rows, index_t j, index_t n,
                                 typename Lanes<T>::Full& acc) {
    for (; j + 4 <= n; j += 4) {
        fold_four_columns(f, rows, j, acc);
    }
    for (; j < n; ++j) {
        typename Lanes<T>::Full column;
        for (int l = 0; l < Lanes<T>::kFull; ++l) {
            column[l] = rows[l][j];
        }
        f.fold(acc, column);
    }
}

// result[r] = the fold of the n elements at rows[r], for eight rows.
template <typename Reducer, typename T>
void fold_eight_rows(Reducer f, const T* const* rows, index_t n, T* result) {
    typename Lanes<T>::Full acc;
    splat(acc, f.identity());
    index_t j = 0;
    for (; j + kLine <= n; j += kLine) {
        fold_line(f, rows, j, kLine, acc);
    }
    fold_rest(f, rows, j, n, acc);
    memcpy(result, &acc, sizeof(acc));
}

// The same for sixteen rows: two independent chains, which hide the latency of an addition. In
// long rows the second eight lag behind, so that their lines go to other places of the cache.
template <typename Reducer, typename T>
void fold_sixteen_rows(Reducer f, const T* const* rows, index_t n, index_t ahead, T* result) {
    constexpr int kFull = Lanes<T>::kFull;
    constexpr index_t kLag = 8 * kLine;
    const T* const* rows2 = rows + kFull;
    typename Lanes<T>::Full acc, acc2;
    splat(acc, f.identity());
    splat(acc2, f.identity());
    const index_t lines = n / kLine * kLine, lag = lines >= 4 * kLag ? kLag : 0;
    index_t j = 0;
    for (; j < lag; j += kLine) {
        fold_line(f, rows, j, ahead, acc);
    }
    for (; j < lines; j += kLine) {
        fold_line(f, rows, j, ahead, acc);
        fold_line(f, rows2, j - lag, ahead, acc2);
    }
    for (j = lines - lag; j < lines; j += kLine) {
        fold_line(f, rows2, j, ahead, acc2);
    }
    fold_rest(f, rows, lines, n, acc);
    fold_rest(f, rows2, lines, n, acc2);
    memcpy(result, &acc, sizeof(acc));
    memcpy(result + kFull, &acc2, sizeof(acc2));
}

/// out[i] = save(fold of row i of `in`)
template <typename Reducer, typename In, typename Out>
void reduce_2d_row(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    constexpr int kFull = Lanes<In>::kFull, kRows = 2 * kFull;
    const index_t dim_m = in.get_size().height(), dim_n = in.get_size()[-1], ld_in = in.ld();
    const In* in_p = in.get_data();
    Out* out_p = out.get_data();
    // Short rows fetch the next rows ahead, long ones their own next lines.
    const index_t ahead = dim_n <= 256 ? kRows * ld_in : 4 * kLine;
    for (index_t i = 0; i < dim_m; i += kRows) {
        // Lanes beyond the last row repeat it, and their results are dropped.
        const In* rows[kRows];
        for (int r = 0; r < kRows; ++r) {
            rows[r] = in_p + std::min(i + r, dim_m - 1) * ld_in;
        }
        In result[kRows];
        const index_t count = std::min<index_t>(kRows, dim_m - i);
        if (count > kFull) {
            fold_sixteen_rows(f, rows, dim_n, ahead, result);
        } else {
            fold_eight_rows(f, rows, dim_n, result);
        }
        for (index_t r = 0; r < count; ++r) {
            out_p[i + r] = f.save(result[r], out_p[i + r]);
        }
    }
}

/// out[j] = save(fold of column j of `in`)
template <typename Reducer, typename In, typename Out>
void reduce_2d_col(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    // Memory is walked by rows, eight at a time, in strips whose running values stay in the L1
    // cache.
    constexpr index_t kStrip = 2048;
    const index_t dim_m = in.get_size().height(), dim_n = in.get_size()[-1], ld_in = in.ld();
    Out* out_p = out.get_data();
    In acc[kStrip];
    for (index_t start = 0; start < dim_n; start += kStrip) {
        const index_t width = std::min(kStrip, dim_n - start);
        const In* p = in.get_data() + start;
        std::fill_n(acc, width, f.identity());
        index_t i = 0;
        for (; i + 8 <= dim_m; i += 8, p += 8 * ld_in) {
            const In *p1 = p + ld_in, *p2 = p1 + ld_in, *p3 = p2 + ld_in, *p4 = p3 + ld_in;
            const In *p5 = p4 + ld_in, *p6 = p5 + ld_in, *p7 = p6 + ld_in;
#pragma GCC ivdep
            for (index_t j = 0; j < width; ++j) {
                In value = f.combine(acc[j], p[j]);
                value = f.combine(value, p1[j]);
                value = f.combine(value, p2[j]);
                value = f.combine(value, p3[j]);
                value = f.combine(value, p4[j]);
                value = f.combine(value, p5[j]);
                value = f.combine(value, p6[j]);
                acc[j] = f.combine(value, p7[j]);
            }
        }
        for (; i < dim_m; ++i, p += ld_in) {
#pragma GCC ivdep
            for (index_t j = 0; j < width; ++j) {
                acc[j] = f.combine(acc[j], p[j]);
            }
        }
        for (index_t j = 0; j < width; ++j) {
            out_p[start + j] = f.save(acc[j], out_p[start + j]);
        }
    }
}

// The fold of one run of elements, from `res` on.
template <typename Op, typename In, typename Out>
VORN_FORCE_INLINE Out fold_run(Op f, const In* p, index_t n, Out res) {
    for (index_t j = 0; j < n; ++j) {
        res = static_cast<Out>(f(res, p[j]));
    }
    return res;
}

// Maxima and minima of floats don't depend on the order but for NaN and for zeros of both signs,
// so their runs fold in lanes and then look for the element that the plain loop would have kept.
constexpr int kChains = 4;

inline float fold_run(func::max f, const float* p, index_t n, float res) {
    using Full = Lanes<float>::Full;
    constexpr int kFull = Lanes<float>::kFull;
    Full acc[kChains];
    for (Full& lanes : acc) {
        splat(lanes, res);
    }
    index_t j = 0;
    for (; j + kChains * kFull <= n; j += kChains * kFull) {
        for (int k = 0; k < kChains; ++k) {
            Full x;
            load(x, p + j + k * kFull);
            acc[k] = x > acc[k] ? x : acc[k];
        }
    }
    float top = res;
    for (const Full& lanes : acc) {
        for (int l = 0; l < kFull; ++l) {
            top = f(top, lanes[l]);
        }
    }
    for (; j < n; ++j) {
        top = f(top, p[j]);
    }
    // Of equal zeros the first stays.
    return top == 0 && res != 0 ? *std::find(p, p + n, 0.0f) : top;
}

inline float fold_run(func::min f, const float* p, index_t n, float res) {
    using Full = Lanes<float>::Full;
    constexpr int kFull = Lanes<float>::kFull;
    constexpr index_t kBlock = 4096;
    for (index_t len; n > 0; p += len, n -= len) {
        len = std::min(n, kBlock);
        Full acc[kChains];
        Lanes<int>::Full nan[kChains] = {};
        for (Full& lanes : acc) {
            splat(lanes, res);
        }
        index_t j = 0;
        for (; j + kChains * kFull <= len; j += kChains * kFull) {
            for (int k = 0; k < kChains; ++k) {
                Full x;
                load(x, p + j + k * kFull);
                acc[k] = acc[k] < x ? acc[k] : x;
                nan[k] |= x != x;
            }
        }
        float low = res;
        int any_nan = res != res;
        for (int k = 0; k < kChains; ++k) {
            for (int l = 0; l < kFull; ++l) {
                low = f(low, acc[k][l]);
                any_nan |= nan[k][l];
            }
        }
        for (; j < len; ++j) {
            low = f(low, p[j]);
            any_nan |= p[j] != p[j];
        }
        if (any_nan) {
            res = fold_run<func::min, float, float>(f, p, len, res);
        } else if (low == 0) {
            // Of equal zeros the last stays.
            const std::reverse_iterator<const float*> end(p);
            const auto last = std::find(std::reverse_iterator<const float*>(p + len), end, 0.0f);
            res = last == end ? res : *last;
        } else {
            res = low;
        }
    }
    return res;
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
