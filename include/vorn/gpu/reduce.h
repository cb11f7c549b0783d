#ifndef VORN_GPU_REDUCE_H_
#define VORN_GPU_REDUCE_H_

#include "vorn/gpu/collective.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// Row and column folds on a GPU, in a tree that depends on the shape only: the same call repeats
/// bit for bit.
namespace vorn {
namespace gpu {

/// out[b] = save(fold of row b of `in`), one block of NT threads for each row; in: (h x w), pitch
/// ldi. A thread folds every NT-th element, from its own number on, and a tree the NT values;
/// threads beyond the width carry the identity.
template <int NT, typename Reducer, typename In, typename Out>
__global__ void KeReduceRow(Reducer f, const In* in, index_t ldi, Out* out, index_t /*h*/,
                            index_t w) {
    __shared__ In s[NT];
    const int t = threadIdx.x;
    const In* row = in + blockIdx.x * ldi;
    In value = f.identity();
    for (index_t c = t; c < w; c += NT) {
        value = f.combine(value, row[c]);
    }
    s[t] = value;
    block_fold<NT>([&](int to, int from) { f.reduce(s[to], s[from]); });
    if (t == 0) {
        out[blockIdx.x] = f.save_fused(s[0], out[blockIdx.x]);
    }
}

/// out[c] = save(fold of column c of `in`), one block of NT by VT threads for NT columns; in:
/// (h x w), pitch ldi. Threads of a warp read neighbouring columns, and fold every VT-th row.
template <int NT, int VT, typename Reducer, typename In, typename Out>
__global__ void KeReduceCol(Reducer f, const In* in, index_t ldi, Out* out, index_t h, index_t w) {
    static_assert(NT == wrap_size && VT == wrap_size, "the block is a tile");
    __shared__ FoldTile<In> s;
    const index_t c = blockIdx.x * static_cast<index_t>(blockDim.x) + threadIdx.x;
    In value = f.identity();
    if (c < w) {
        for (index_t r = threadIdx.y; r < h; r += VT) {
            value = f.combine(value, in[r * ldi + c]);
        }
    }
    const In folded = tile_fold(s, value, [=](In a, In b) { return f.combine(a, b); });
    if (threadIdx.y == 0 && c < w) {
        out[c] = f.save_fused(folded, out[c]);
    }
}

/// out[i] = save(fold of row i of `in`)
template <typename Reducer, typename In, typename Out>
void reduce_2d_row(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    const int NT = 128;
    const index_t h = in.get_h(), w = in.get_w();
    const int grid_size = static_cast<int>(h);
    launch<KeReduceRow<NT, Reducer, In, Out>>(grid_size, NT, f, in.get_data(), in.ld(),
                                              out.get_data(), h, w);
    VORN_KERNEL_TAIL();
}

/// out[j] = save(fold of column j of `in`)
template <typename Reducer, typename In, typename Out>
void reduce_2d_col(Reducer f, const Tensor<In>& in, Tensor<Out>& out) {
    const int NT = 32;
    const int VT = 32;
    const index_t h = in.get_h(), w = in.get_w();  // not of `out`, which may have any shape
    const int grid_size = div_up(static_cast<int>(w), NT);
    launch<KeReduceCol<NT, VT, Reducer, In, Out>>(grid_size, dim3(NT, VT, 1), f, in.get_data(),
                                                  in.ld(), out.get_data(), h, w);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_REDUCE_H_
