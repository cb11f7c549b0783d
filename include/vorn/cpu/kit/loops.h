#ifndef VORN_CPU_KIT_LOOPS_H_
#define VORN_CPU_KIT_LOOPS_H_

#include <algorithm>
#include <type_traits>

#include "vorn/base.h"

/// The loops that host forms hand their formulas to. A formula is a lambda that captures by value:
/// through a reference every store might change what it reads, and nothing would vectorise.
namespace vorn {
namespace cpu {

// For helpers whose running values are to stay in registers, and for loops in which a constant
// argument that the compiler sees drops out of a chain of dependent steps.
#define VORN_FORCE_INLINE inline __attribute__((always_inline))

#ifdef __clang__
#define VORN_INDEPENDENT _Pragma("clang loop vectorize(assume_safety)")
#else
#define VORN_INDEPENDENT _Pragma("GCC ivdep")
#endif

/// f(i) for i in [0, n), of which no call reads what another one writes: an output may be an input
/// of its own element.
template <typename Index, typename F>
VORN_FORCE_INLINE void for_each_element(Index n, F f) {
    VORN_INDEPENDENT
    for (Index i = 0; i < n; ++i) {
        f(i);
    }
}

/// out[i] = f(in[i]...) for n elements.
template <typename F, typename Out, typename... In>
void transform_run(F f, index_t n, Out* out, const In*... in) {
    for_each_element(n, [=](index_t i) { out[i] = f(in[i]...); });
}

/// f(r, rows) for all rows in ascending order, kRows of them at a time from `r` on, then one by
/// one. `rows` is a constant, so that a loop from 0 to it unrolls.
template <index_t kRows, typename F>
VORN_FORCE_INLINE void for_each_rows(index_t dim_m, F f) {
    index_t r = 0;
    for (; r + kRows <= dim_m; r += kRows) {
        f(r, std::integral_constant<index_t, kRows>());
    }
    for (; r < dim_m; ++r) {
        f(r, std::integral_constant<index_t, 1>());
    }
}

/// f(start, width) for strips of at most kWidth columns, whose running values stay in the L1 cache
/// while memory is walked by rows.
template <index_t kWidth, typename F>
void for_each_strip(index_t dim_n, F f) {
    for (index_t start = 0; start < dim_n; start += kWidth) {
        f(start, std::min(kWidth, dim_n - start));
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_KIT_LOOPS_H_
