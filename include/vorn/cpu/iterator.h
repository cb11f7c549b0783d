#ifndef VORN_CPU_ITERATOR_H_
#define VORN_CPU_ITERATOR_H_

#include <algorithm>
#include <cfloat>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "vorn/cpu/loops.h"
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
inline void log_row(const float* in, float* out, index_t n) {
    constexpr index_t kBlock = 512;
    for (index_t start = 0; start < n; start += kBlock) {
        const index_t end = std::min(n, start + kBlock);
        std::int32_t least = std::numeric_limits<std::int32_t>::max();
        for (index_t i = start; i < end; ++i) {
            // As integers floats have the same order, but for negative ones, which are all less.
            least = std::min(least, static_cast<std::int32_t>(bits_of(in[i])));
        }
        if (least >= static_cast<std::int32_t>(bits_of(FLT_MIN))) {
            for_each_element(end - start, [x = in + start, y = out + start](index_t i) {
                y[i] = log_of_normal(x[i]);
            });
        } else {
            for_each_element(end - start,
                             [x = in + start, y = out + start](index_t i) { y[i] = log(x[i]); });
        }
    }
}

// One run of elements, of a rule that comes by value. An output may be its own input.
template <typename Op, typename In, typename Out>
void unary_row(Op f, const In* in, Out* out, index_t n) {
    if constexpr (std::is_same_v<Op, func::log>) {
        log_row(in, out, n);
    } else {
        for_each_element(n, [=](index_t i) { out[i] = f(in[i]); });
    }
}

template <typename Op, typename In1, typename In2, typename Out>
void binary_row(Op f, const In1* in1, const In2* in2, Out* out, index_t n) {
    for_each_element(n, [=](index_t i) { out[i] = f(in1[i], in2[i]); });
}

template <typename Op, typename In1, typename In2, typename Out>
void trinary_inplace_row(Op f, const In1* in1, const In2* in2, Out* out, index_t n) {
    for_each_element(n, [=](index_t i) { out[i] = f(in1[i], in2[i], out[i]); });
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

/// out = f(in)
template <typename Op, typename InT, typename OutT>
void unary_op(Op f, const Tensor<InT>& in, Tensor<OutT>& out) {
    if (in.is_contiguous() && out.is_contiguous()) {
        unary_row(f, in.get_ptr(), out.get_ptr(), out.count());
        return;
    }
    const index_t dimM = out.row(), dimN = out.col(), in_ld = in.ld(), out_ld = out.ld();
    const InT* in_p = in.get_ptr();
    OutT* out_p = out.get_ptr();
    for (index_t m = 0; m < dimM; ++m, in_p += in_ld, out_p += out_ld) {
        unary_row(f, in_p, out_p, dimN);
    }
}

/// out = f(in1, in2)
template <typename Op, typename InT1, typename InT2, typename OutT>
void binary_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    if (in1.is_contiguous() && in2.is_contiguous() && out.is_contiguous()) {
        binary_row(f, in1.get_ptr(), in2.get_ptr(), out.get_ptr(), out.count());
        return;
    }
    const index_t dimM = out.row(), dimN = out.col();
    const index_t in1_ld = in1.ld(), in2_ld = in2.ld(), out_ld = out.ld();
    const InT1* in1_p = in1.get_ptr();
    const InT2* in2_p = in2.get_ptr();
    OutT* out_p = out.get_ptr();
    for (index_t m = 0; m < dimM; ++m, in1_p += in1_ld, in2_p += in2_ld, out_p += out_ld) {
        binary_row(f, in1_p, in2_p, out_p, dimN);
    }
}

/// out = f(in1, in2, out)
template <typename Op, typename InT1, typename InT2, typename OutT>
void trinary_inplace_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    if (in1.is_contiguous() && in2.is_contiguous() && out.is_contiguous()) {
        trinary_inplace_row(f, in1.get_ptr(), in2.get_ptr(), out.get_ptr(), out.count());
        return;
    }
    const index_t dimM = out.row(), dimN = out.col();
    const index_t in1_ld = in1.ld(), in2_ld = in2.ld(), out_ld = out.ld();
    const InT1* in1_p = in1.get_ptr();
    const InT2* in2_p = in2.get_ptr();
    OutT* out_p = out.get_ptr();
    for (index_t m = 0; m < dimM; ++m, in1_p += in1_ld, in2_p += in2_ld, out_p += out_ld) {
        trinary_inplace_row(f, in1_p, in2_p, out_p, dimN);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_ITERATOR_H_
