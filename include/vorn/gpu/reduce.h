#ifndef VORN_GPU_REDUCE_H_
#define VORN_GPU_REDUCE_H_

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
    __syncthreads();
    for (int half = NT / 2; half > wrap_size; half /= 2) {
        if (t < half) {
            f.reduce(s[t], s[t + half]);
        }
        __syncthreads();
    }
    if (t < wrap_size) {
        // The whole warp takes part in every level; what the upper threads compute is not used.
        for (int half = wrap_size; half > 0; half /= 2) {
            const In other = s[t + half];
            __syncwarp();
            f.reduce(s[t], other);
            __syncwarp();
        }
    }
    __syncthreads();
    if (t == 0) {
        out[blockIdx.x] = f.save_fused(s[0], out[blockIdx.x]);
    }
}

/// out[c] = save(fold of column c of `in`), one block of NT by VT threads for NT columns; in:
/// (h x w), pitch ldi. Threads of a warp read neighbouring columns, and fold every VT-th row; then
/// each warp folds the VT values of one column. The pitch of NT + 1 keeps the columns of the tile
/// in different banks.
template <int NT, int VT, typename Reducer, typename In, typename Out>
__global__ void KeReduceCol(Reducer f, const In* in, index_t ldi, Out* out, index_t h, index_t w) {
    static_assert(NT == wrap_size && VT == wrap_size, "a warp folds a column of the tile");
    constexpr int kPitch = NT + 1;
    __shared__ In s[VT * kPitch];
    const int tx = threadIdx.x, ty = threadIdx.y;
    const index_t c = blockIdx.x * static_cast<index_t>(blockDim.x) + tx;
    In value = f.identity();
    if (c < w) {
        for (index_t r = ty; r < h; r += VT) {
            value = f.combine(value, in[r * ldi + c]);
        }
    }
    s[tx * kPitch + ty] = value;
    __syncthreads();
    In* column = s + ty * kPitch;
    for (int half = VT / 2; half > 0; half /= 2) {
        const bool active = tx < VT / 2;
        const In other = active ? column[tx + half] : f.identity();
        __syncwarp();
        if (active) {
            f.reduce(column[tx], other);
        }
        __syncwarp();
    }
    __syncthreads();
    if (ty == 0 && c < w) {
        out[c] = f.save_fused(s[tx * kPitch], out[c]);
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
