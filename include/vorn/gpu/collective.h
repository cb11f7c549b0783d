#ifndef VORN_GPU_COLLECTIVE_H_
#define VORN_GPU_COLLECTIVE_H_

#include "vorn/gpu/kernel_util.h"

/// What the threads of a block do together: folds by halving. For d = half of the slots, ..., 2, 1
/// each thread t < d calls join(t, t + d), which folds slot t + d into slot t.
namespace vorn {
namespace gpu {

/// The number of the calling thread within a block of one or two axes.
__device__ inline int thread_in_block() {
    return static_cast<int>(blockDim.x * threadIdx.y + threadIdx.x);
}

/// Folds a warp's 32 slots of shared memory into slot 0. All threads of the warp come here, each
/// after it has filled the slot of its number within the warp.
///
/// Thread 0 of the warp may read slot 0 right after the call. A barrier has to come before any
/// other thread does, and before any thread writes to a slot again.
template <typename Join>
__device__ void warp_fold(Join join) {
    const int lane = thread_in_block() % wrap_size;
    for (int d = wrap_size / 2; d > 0; d /= 2) {
        __syncwarp();
        if (lane < d) {
            join(lane, lane + d);
        }
    }
}

/// Folds kThreads slots of shared memory into slot 0. kThreads is a power of two, at least a warp,
/// and the size of the block, all of which comes here, each thread after it has filled its own
/// slot.
///
/// Thread 0 may read slot 0 right after the call. A barrier of the block has to come before any
/// other thread does, and before any thread writes to a slot again.
template <int kThreads, typename Join>
__device__ void block_fold(Join join) {
    static_assert(kThreads >= wrap_size && (kThreads & (kThreads - 1)) == 0, "a tree of halves");
    const int t = thread_in_block();
    for (int d = kThreads / 2; d >= wrap_size; d /= 2) {
        __syncthreads();
        if (t < d) {
            join(t, t + d);
        }
    }
    if (t < wrap_size) {
        warp_fold(join);
    }
}

/// Shared memory of tile_fold. The pitch keeps the columns in different banks.
template <typename T>
using FoldTile = T[wrap_size][wrap_size + 1];

/// The folds of the columns of a block of 32 by 32 threads, each of which brings a `value`: thread
/// (x, y) gets that of column x, in which combine(a, b) takes the one of the lower y as `a`. All
/// threads come here. A barrier of the block has to come before `s` is written again.
template <typename T, typename Combine>
__device__ T tile_fold(FoldTile<T>& s, T value, Combine combine) {
    const int x = threadIdx.x, y = threadIdx.y;
    s[x][y] = value;
    __syncthreads();
    T* column = s[y];
    warp_fold([=](int to, int from) { column[to] = combine(column[to], column[from]); });
    __syncthreads();
    return s[x][0];
}

/// For the folds above: slots of values and their indices, of which the greater value stays; of
/// equal ones, that of the lower slot.
struct ArgMaxSlots {
    float* value;
    int* index;

    __device__ void operator()(int to, int from) const {
        if (value[from] > value[to]) {
            value[to] = value[from];
            index[to] = index[from];
        }
    }
};

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_COLLECTIVE_H_
