#ifndef VORN_GPU_ITERATOR_H_
#define VORN_GPU_ITERATOR_H_

#include <algorithm>

#include "vorn/gpu/kernel_util.h"
#include "vorn/gpu/memory.h"
#include "vorn/rules/functors.h"
#include "vorn/rules/op_wrappers.h"
#include "vorn/tensor/tensor_view.h"

/// Kernels that run one scalar rule over every element, and the GPU forms of the frame. A call
/// returns with its kernel queued on the thread's `default_stream`.
namespace vorn {
namespace gpu {

const int kIterateThreads = 128;

/// f(i) for i in [0, count), one grid-stride loop over packs of four where all operands are
/// aligned, and one over single elements for the rest. Ten blocks fit on a multiprocessor, whatever
/// the rule.
template <typename Op>
__global__ void __launch_bounds__(kIterateThreads, 10) KeConIterateOp(Op f, index_t count) {
    constexpr int kPack = 4;
    const index_t first = blockIdx.x * static_cast<index_t>(blockDim.x) + threadIdx.x;
    const index_t step = gridDim.x * static_cast<index_t>(blockDim.x);
    const index_t packs = f.template is_packed<kPack>() ? count / kPack : 0;
    for (index_t i = first; i < packs; i += step) {
        f.template run_pack<kPack>(i);
    }
    for (index_t i = packs * kPack + first; i < count; i += step) {
        f(i);
    }
}

/// f(row, col) for a matrix of dimM rows and dimN columns: block row y owns rows y,
/// y + gridDim.y, ...
template <typename Op>
__global__ void KeIterateOp(Op f, index_t dimM, index_t dimN) {
    for (index_t row = blockIdx.y; row < dimM; row += gridDim.y) {
        for (index_t col = blockIdx.x * static_cast<index_t>(blockDim.x) + threadIdx.x; col < dimN;
             col += gridDim.x * static_cast<index_t>(blockDim.x)) {
            f(row, col);
        }
    }
}

template <typename Op>
void iterate(Op f, index_t count) {
    const int grid_size = std::min(div_up(count, kIterateThreads), kMaxGridSize);
    launch<KeConIterateOp<Op>>(grid_size, kIterateThreads, f, count);
    VORN_KERNEL_TAIL();
}

template <typename Op>
void iterate(Op f, index_t dimM, index_t dimN) {
    const int grid_x = std::min(div_up(dimN, kIterateThreads), 32);
    const int grid_y = std::min(static_cast<int>(dimM), kMaxGridSize / std::max(grid_x, 1));
    launch<KeIterateOp<Op>>(dim3(grid_x, grid_y, 1), kIterateThreads, f, dimM, dimN);
    VORN_KERNEL_TAIL();
}

/// out = f()
template <typename Op, typename OutT>
void generate(Op f, Tensor<OutT>& out) {
    if (out.is_contiguous()) {
        using View = MatrixView<OutT, true>;
        iterate(GenerateOp<Op, View>(f, View(out)), out.count());
    } else {
        using View = MatrixView<OutT, false>;
        iterate(GenerateOp<Op, View>(f, View(out)), out.row(), out.col());
    }
}

/// All elements of `a` become `val`.
template <typename T>
void vorn_fill(Tensor<T>& a, T val) {
    if (val == 0 && a.is_contiguous()) {
        gpu::vorn_memset(a.get_ptr(), 0, a.get_element_count() * sizeof(T));
    } else {
        gpu::generate(func::constant<T>(val), a);
    }
}

/// out = f(in)
template <typename Op, typename InT, typename OutT>
void unary_op(Op f, const Tensor<InT>& in, Tensor<OutT>& out) {
    if (in.is_contiguous() && out.is_contiguous()) {
        using InView = MatrixView<InT, true>;
        using OutView = MatrixView<OutT, true>;
        iterate(UnaryOp<Op, InView, OutView>(f, InView(in), OutView(out)), out.count());
    } else {
        using InView = MatrixView<InT, false>;
        using OutView = MatrixView<OutT, false>;
        iterate(UnaryOp<Op, InView, OutView>(f, InView(in), OutView(out)), out.row(), out.col());
    }
}

/// out = f(in1, in2)
template <typename Op, typename InT1, typename InT2, typename OutT>
void binary_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    if (in1.is_contiguous() && in2.is_contiguous() && out.is_contiguous()) {
        using InView1 = MatrixView<InT1, true>;
        using InView2 = MatrixView<InT2, true>;
        using OutView = MatrixView<OutT, true>;
        iterate(
            BinaryOp<Op, InView1, InView2, OutView>(f, InView1(in1), InView2(in2), OutView(out)),
            out.count());
    } else {
        using InView1 = MatrixView<InT1, false>;
        using InView2 = MatrixView<InT2, false>;
        using OutView = MatrixView<OutT, false>;
        iterate(
            BinaryOp<Op, InView1, InView2, OutView>(f, InView1(in1), InView2(in2), OutView(out)),
            out.row(), out.col());
    }
}

/// out = f(in1, in2, out)
template <typename Op, typename InT1, typename InT2, typename OutT>
void trinary_inplace_op(Op f, const Tensor<InT1>& in1, const Tensor<InT2>& in2, Tensor<OutT>& out) {
    if (in1.is_contiguous() && in2.is_contiguous() && out.is_contiguous()) {
        using InView1 = MatrixView<InT1, true>;
        using InView2 = MatrixView<InT2, true>;
        using OutView = MatrixView<OutT, true>;
        iterate(TrinaryInplaceOp<Op, InView1, InView2, OutView>(f, InView1(in1), InView2(in2),
                                                                OutView(out)),
                out.count());
    } else {
        using InView1 = MatrixView<InT1, false>;
        using InView2 = MatrixView<InT2, false>;
        using OutView = MatrixView<OutT, false>;
        iterate(TrinaryInplaceOp<Op, InView1, InView2, OutView>(f, InView1(in1), InView2(in2),
                                                                OutView(out)),
                out.row(), out.col());
    }
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_ITERATOR_H_
