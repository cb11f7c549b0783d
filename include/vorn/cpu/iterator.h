#ifndef VORN_CPU_ITERATOR_H_
#define VORN_CPU_ITERATOR_H_

#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "vorn/cpu/kit/loops.h"
#include "vorn/cpu/kit/runs.h"
#include "vorn/cpu/memory.h"
#include "vorn/rules/functors.h"
#include "vorn/tensor/tensor.h"

/// Host loops that run one scalar rule over every element. All tensors contiguous: one flat loop
/// over `out.count()` elements; otherwise a loop over `out.row()` rows, each pointer stepping by
/// its own pitch. Each element is read before it is written, so an input may be the output itself;
/// partly overlapping tensors are not defined.
namespace vorn {
namespace cpu {

/// f(i) for i in [0, count).
template <typename F>
void iterate(F f, index_t count) {
    for (index_t i = 0; i < count; ++i) {
        f(i);
    }
}

/// func::log of a run of elements, in blocks that stay in the L1 cache. Few operands hold anything
/// but positive normal numbers, and a block of these takes four fifths of the time.
inline void log_run(index_t n, float* out, const float* in) {
    constexpr index_t kBlock = 512;
    for (index_t start = 0; start < n; start += kBlock) {
        const index_t end = std::min(n, start + kBlock);
        std::int32_t least = std::numeric_limits<std::int32_t>::max();
        for (index_t i = start; i < end; ++i) {
            // As integers floats have the same order, but for negative ones, which are all less.
            least = std::min(least, static_cast<std::int32_t>(bits_of(in[i])));
        }
        if (least >= static_cast<std::int32_t>(bits_of(FLT_MIN))) {
            transform_run([](float x) { return log_of_normal(x); }, end - start, out + start,
                          in + start);
        } else {
            transform_run([](float x) { return log(x); }, end - start, out + start, in + start);
        }
    }
}

/// out[i] = f(in[i]...) for n elements.
template <typename Op, typename Out, typename... In>
void apply_to_run(Op f, index_t n, Out* out, const In*... in) {
    if constexpr (std::is_same_v<Op, func::log>) {
        log_run(n, out, in...);
    } else {
        transform_run(f, n, out, in...);
    }
}

/// out = f(in...), element by element.
template <typename Op, typename Out, typename... In>
void apply(Op f, Tensor<Out>& out, const Tensor<In>&... in) {
    if ((out.is_contiguous() && ... && in.is_contiguous())) {
        apply_to_run(f, out.count(), out.get_ptr(), in.get_ptr()...);
        return;
    }
    const index_t dimM = out.row(), dimN = out.col();
    for (index_t m = 0; m < dimM; ++m) {
        apply_to_run(f, dimN, out.get_ptr() + m * out.ld(), (in.get_ptr() + m * in.ld())...);
    }
}

/// out = f(in)
template <typename Op, typename InT, typename OutT>
void unary_op(Op f, const Tensor<InT>& in, Tensor<OutT>& out) {
    apply(f, out, in);
}

/// out = f(in1, in2)
template <typename Op, typename InT1, typename InT2, typename OutT>
void binary_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    apply(f, out, in1, in2);
}

/// out = f(in1, in2, out)
template <typename Op, typename InT1, typename InT2, typename OutT>
void trinary_inplace_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    apply(f, out, in1, in2, out);
}

/// out = f(): without operands, a rule has one value.
template <typename Op, typename OutT>
void generate(Op f, Tensor<OutT>& out) {
    const OutT val = f();
    const bool is_flat = out.is_contiguous();
    const index_t dimM = is_flat ? 1 : out.row(), dimN = is_flat ? out.count() : out.col();
    const index_t out_ld = out.ld();
    OutT* out_p = out.get_ptr();
    const RunWriter writer(dimM * dimN * sizeof(OutT));
    for (index_t m = 0; m < dimM; ++m, out_p += out_ld) {
        writer.fill(out_p, val, dimN);
    }
}

/// All elements of `a` become `val`.
template <typename T>
void vorn_fill(Tensor<T>& a, T val) {
    if (val == 0 && a.is_contiguous()) {
        cpu::vorn_memset(a.get_ptr(), 0, a.get_element_count() * sizeof(T));
    } else {
        cpu::generate(func::constant<T>(val), a);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_ITERATOR_H_
