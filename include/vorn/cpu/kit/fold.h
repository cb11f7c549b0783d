#ifndef VORN_CPU_KIT_FOLD_H_
#define VORN_CPU_KIT_FOLD_H_

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <type_traits>

#include "vorn/cpu/kit/lanes.h"
#include "vorn/cpu/kit/loops.h"
#include "vorn/rules/reduce_functors.h"

/// Folds in ascending order: each row, each column and each run folds one element after the other,
/// as a plain loop does. Rows and columns are therefore vectorised across results, with one lane
/// per row or column, and give the bits of that loop.
namespace vorn {
namespace cpu {

// ---- Rows

// Rows one pitch apart.
template <typename T>
struct EvenRows {
    const T* first;
    index_t ld;

    const T* operator[](index_t r) const { return first + r * ld; }
};

// The same where there are only `count`: lanes beyond the last row repeat it.
template <typename T>
struct LastRows {
    const T* first;
    index_t ld, count;

    const T* operator[](index_t r) const { return first + std::min(r, count - 1) * ld; }
};

// A fold of eight rows at once, a lane for each. What folds rows has these members: `Element` and
// `Result` types, the running values `Acc`, and what starts, extends and stores them.
template <typename Reducer, typename T>
struct LaneFold {
    using Element = T;
    using Result = T;
    using Acc = typename Lanes<T>::Full;

    Reducer f;

    Acc start() const {
        Acc acc;
        splat(acc, f.identity());
        return acc;
    }
    void fold(Acc& acc, const Acc& column) const { f.fold(acc, column); }
    void finish(const Acc& acc, T* result) const { store(result, acc); }
};

// Folds columns j to j + 3 of eight rows into eight lanes. Rows r and r + 4 are loaded side by
// side, so that the transposition stays inside the halves of a register.
template <typename F, typename Rows>
VORN_FORCE_INLINE void fold_four_columns(F f, Rows rows, index_t j, typename F::Acc& acc) {
    using LanesOf = Lanes<typename F::Element>;
    typename LanesOf::Full pair[4];
    for (int r = 0; r < 4; ++r) {
        typename LanesOf::Half low, high;
        load(low, rows[r] + j);
        load(high, rows[r + 4] + j);
        pair[r] = __builtin_shufflevector(low, high, 0, 1, 2, 3, 4, 5, 6, 7);
    }
    transpose_halves(pair);
    for (const typename LanesOf::Full& column : pair) {
        f.fold(acc, column);
    }
}

constexpr index_t kLine = 16;  // columns of a cache line

// Columns j to j + kLine - 1 of eight rows. A whole line of each row at a time, because rows a
// power of two apart share few places in the cache.
template <typename F, typename Rows>
VORN_FORCE_INLINE void fold_line(F f, Rows rows, index_t j, typename F::Acc& acc) {
    for (index_t k = 0; k < kLine; k += 4) {
        fold_four_columns(f, rows, j + k, acc);
    }
}

// Columns j to n - 1 of eight rows.
template <typename F, typename Rows>
VORN_FORCE_INLINE void fold_rest(F f, Rows rows, index_t j, index_t n, typename F::Acc& acc) {
    using LanesOf = Lanes<typename F::Element>;
    for (; j + 4 <= n; j += 4) {
        fold_four_columns(f, rows, j, acc);
    }
    for (; j < n; ++j) {
        typename LanesOf::Full column;
        for (int l = 0; l < LanesOf::kFull; ++l) {
            column[l] = rows[l][j];
        }
        f.fold(acc, column);
    }
}

// result[r] = the fold of the n elements at rows[r], for eight rows.
template <typename F, typename Rows>
void fold_eight_rows(F f, Rows rows, index_t n, typename F::Result* result) {
    typename F::Acc acc = f.start();
    const index_t lines = n / kLine * kLine;
    for (index_t j = 0; j < lines; j += kLine) {
        fold_line(f, rows, j, acc);
    }
    fold_rest(f, rows, lines, n, acc);
    f.finish(acc, result);
}

// The same for sixteen rows: two independent chains, which hide the latency of an addition. The
// second eight lag by `lag` columns. `fetch` is called once a line.
template <typename F, typename T, typename Fetch>
void fold_sixteen_rows(F f, EvenRows<T> rows, index_t n, index_t lag, Fetch fetch,
                       typename F::Result* result) {
    constexpr int kFull = Lanes<T>::kFull;
    const EvenRows<T> rows2{rows[kFull], rows.ld};
    typename F::Acc acc = f.start(), acc2 = f.start();
    const index_t lines = n / kLine * kLine;
    index_t j = 0;
    for (; j < lag; j += kLine) {
        fold_line(f, rows, j, acc);
    }
    for (; j < lines; j += kLine) {
        fetch();
        fold_line(f, rows, j, acc);
        fold_line(f, rows2, j - lag, acc2);
    }
    for (j = lines - lag; j < lines; j += kLine) {
        fold_line(f, rows2, j, acc2);
    }
    fold_rest(f, rows, lines, n, acc);
    fold_rest(f, rows2, lines, n, acc2);
    f.finish(acc, result);
    f.finish(acc2, result + kFull);
}

// Fetches sixteen lines a call, from `row` on in the order in which they lie in memory.
template <typename T>
struct FetchRows {
    const T* row;
    index_t ld, n, column;

    void operator()() {
        for (int l = 0; l < 2 * Lanes<T>::kFull; ++l) {
            __builtin_prefetch(row + column);
            column += kLine;
            if (column >= n) {
                column = 0;
                row += ld;
            }
        }
    }
};

/// Calls save(i, fold of row i) for the `dim_m` rows of `dim_n` elements that are `ld` apart.
template <typename F, typename T, typename Save>
void fold_rows(F f, const T* in, index_t dim_m, index_t dim_n, index_t ld, Save save) {
    constexpr index_t kFull = Lanes<T>::kFull, kRows = 2 * kFull;
    // The next short rows are fetched ahead. Long rows are streams that the processor foresees; of
    // these, the lag sends the lines of the second eight to other places of the cache.
    constexpr index_t kLag = 8 * kLine;
    for (index_t i = 0, count; i < dim_m; i += count) {
        const T* first = in + i * ld;
        typename F::Result result[kRows];
        count = kRows;
        if (dim_m - i < kRows) {
            count = std::min(kFull, dim_m - i);
            fold_eight_rows(f, LastRows<T>{first, ld, count}, dim_n, result);
        } else if (dim_n < 2 * kLag) {
            fold_sixteen_rows(f, EvenRows<T>{first, ld}, dim_n, 0,
                              FetchRows<T>{first + kRows * ld, ld, dim_n, 0}, result);
        } else {
            fold_sixteen_rows(
                f, EvenRows<T>{first, ld}, dim_n, kLag, [] {}, result);
        }
        for (index_t r = 0; r < count; ++r) {
            save(i + r, result[r]);
        }
    }
}

/// The lowest column of the largest element above the lowest finite float, else -1, in each lane.
struct MaxIdFold {
    using Element = float;
    using Result = int;
    struct Acc {
        Lanes<float>::Full max;
        Lanes<int>::Full id, column;
    };

    Acc start() const {
        Acc acc;
        splat(acc.max, std::numeric_limits<float>::lowest());
        splat(acc.id, -1);
        splat(acc.column, 0);
        return acc;
    }
    void fold(Acc& acc, const Lanes<float>::Full& column) const {
        const Lanes<int>::Full above = column > acc.max;
        acc.max = above ? column : acc.max;
        acc.id = above ? acc.column : acc.id;
        acc.column += 1;
    }
    void finish(const Acc& acc, int* result) const { store(result, acc.id); }
};

inline constexpr int kRowGroup = Lanes<float>::kFull;  ///< Rows whose sums run side by side.

/// Calls group(first row, rows in the group) for all rows.
template <typename F>
void for_each_row_group(index_t dim_m, F group) {
    for (index_t i = 0; i < dim_m; i += kRowGroup) {
        group(i, static_cast<int>(std::min<index_t>(kRowGroup, dim_m - i)));
    }
}

/// Pointers to `count` rows; the last stands in for those that a full group has beyond.
inline void point_to_rows(const float* first, index_t ld, int count,
                          const float* (&rows)[kRowGroup]) {
    for (int r = 0; r < kRowGroup; ++r) {
        rows[r] = first + std::min(r, count - 1) * ld;
    }
}

/// sums[r] += rows[r][begin], rows[r][begin + 1], ..., rows[r][end - 1], in this order.
inline void add_in_order(const float* const (&rows)[kRowGroup], index_t begin, index_t end,
                         float (&sums)[kRowGroup]) {
    Lanes<float>::Full acc;
    load(acc, sums);
    fold_rest(LaneFold<func::reduce_sum<float>, float>(), &rows[0], begin, end, acc);
    store(sums, acc);
}

/// sums[r] += the `dim_n` terms of row r, in ascending order, for `count` rows of a group.
/// terms(r, j, n, stage) gives n of them from column j on: a vector loop, whose results wait in the
/// L1 cache for the addition.
template <typename Terms>
void add_terms_in_order(int count, index_t dim_n, Terms terms, float (&sums)[kRowGroup]) {
    constexpr index_t kChunk = 256;
    alignas(64) float stage[kRowGroup][kChunk];
    const float* rows[kRowGroup];
    point_to_rows(stage[0], kChunk, count, rows);
    for (index_t j = 0; j < dim_n; j += kChunk) {
        const index_t n = std::min(kChunk, dim_n - j);
        for (int r = 0; r < count; ++r) {
            terms(r, j, n, stage[r]);
        }
        add_in_order(rows, 0, n, sums);
    }
}

// ---- Columns

/// Calls save(j, fold of column j) for dim_n columns: value = f.combine(value, at(i, j)) for the
/// rows i in ascending order, from f.identity() on.
template <typename F, typename At, typename Save>
void fold_columns(F f, index_t dim_m, index_t dim_n, At at, Save save) {
    using Value = decltype(f.identity());
    constexpr index_t kStrip = 2048, kRows = 8;
    Value values[kStrip];
    for_each_strip<kStrip>(dim_n, [&](index_t start, index_t width) {
        Value* const acc = values;
        std::fill_n(acc, width, f.identity());
        for_each_rows<kRows>(dim_m, [=](index_t i, auto rows) {
            for_each_element(width, [=](index_t j) {
                Value value = acc[j];
                for (index_t r = 0; r < rows; ++r) {
                    value = f.combine(value, at(i + r, start + j));
                }
                acc[j] = value;
            });
        });
        for_each_element(width, [=](index_t j) { save(start + j, acc[j]); });
    });
}

// ---- Runs

/// res = f(res, p[j]) for j from 0 on.
template <typename Op, typename In, typename Out>
VORN_FORCE_INLINE Out fold_in_order(Op f, const In* p, index_t n, Out res) {
    for (index_t j = 0; j < n; ++j) {
        res = static_cast<Out>(f(res, p[j]));
    }
    return res;
}

// Maxima and minima of floats don't depend on the order but for NaN and for zeros of both signs,
// so their runs fold in lanes and then look for the element that the plain loop would have kept.
constexpr int kChains = 4;

/// fold_in_order of func::max.
inline float max_of_run(const float* p, index_t n, float res) {
    const func::max f;
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

/// fold_in_order of func::min.
inline float min_of_run(const float* p, index_t n, float res) {
    const func::min f;
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
            res = fold_in_order(f, p, len, res);
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

/// The fold of n elements, from `res` on.
template <typename Op, typename In, typename Out>
VORN_FORCE_INLINE Out fold_run(Op f, const In* p, index_t n, Out res) {
    constexpr bool is_float = std::is_same_v<In, float> && std::is_same_v<Out, float>;
    if constexpr (is_float && std::is_same_v<Op, func::max>) {
        return max_of_run(p, n, res);
    } else if constexpr (is_float && std::is_same_v<Op, func::min>) {
        return min_of_run(p, n, res);
    } else {
        return fold_in_order(f, p, n, res);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_KIT_FOLD_H_
