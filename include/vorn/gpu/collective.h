#ifndef VORN_GPU_COLLECTIVE_H_
#define VORN_GPU_COLLECTIVE_H_

#include "vorn/gpu/kernel_util.h"

/// What the threads of a block do together.
namespace vorn {
namespace gpu {

/// The number of the calling thread within a block of one or two axes.
__device__ inline int thread_in_block() {
    return static_cast<int>(blockDim.x * threadIdx.y + threadIdx.x);
}

/// Folds kThreads slots of shared memory into slot 0, by halving: for d = kThreads / 2, ..., 2, 1
/// each thread t < d calls join(t, t + d), which folds slot t + d into slot t. kThreads is a power
/// of two and the size of the block, all of which comes here.
///
/// A barrier stands before each level, so a thread may fill its own slot right before the call.
/// Thread 0 may read slot 0 right after it. Another barrier has to come before any other thread
/// reads slot 0, and before any thread writes to a slot again.
template <int kThreads, typename Join>
__device__ void block_fold(Join join) {
    static_assert(kThreads > 0 && (kThreads & (kThreads - 1)) == 0, "a tree of halves");
    const int t = thread_in_block();
    for (int d = kThreads / 2; d > 0; d /= 2) {
        __syncthreads();
        if (t < d) {
            join(t, t + d);
        }
    }
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_COLLECTIVE_H_
