#ifndef VORN_GPU_KERNEL_UTIL_H_
#define VORN_GPU_KERNEL_UTIL_H_

#include <cuda_runtime.h>

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "vorn/context/context.h"
#include "vorn/logging.h"
#include "vorn/util/gpu_util.h"

namespace vorn {

const int wrap_size = 32;        ///< Threads of a warp.
const int kMaxGridSize = 40960;  ///< Cap of grids over rows or items; kernels step over the rest.
const int kMaxGridY = 65535;     ///< What a GPU takes of blocks along y.

namespace gpu {

/// Blocks of `block` threads, one thread for each of `cols` by `rows` elements.
inline dim3 covering_grid(index_t cols, index_t rows, dim3 block) {
    return dim3(div_up(static_cast<int>(cols), static_cast<int>(block.x)),
                div_up(static_cast<int>(rows), static_cast<int>(block.y)), 1);
}

/// A grid over a matrix: x covers the columns by blocks of `threads`, y the rows, of which a kernel
/// steps over those beyond the cap.
inline dim3 matrix_grid(index_t rows, index_t cols, int threads) {
    return dim3(div_up(static_cast<int>(cols), threads),
                static_cast<unsigned>(std::min<index_t>(rows, kMaxGridSize)), 1);
}

/// Calls f(first, count) for the rows [first, first + count) that one launch takes, with
/// `block_rows` of them to a block along y, until all `rows` had their turn.
template <typename F>
void for_each_launch(int rows, int block_rows, F f) {
    const int most = kMaxGridY * block_rows;
    for (int64_t first = 0; first < rows; first += most) {
        f(static_cast<index_t>(first), static_cast<int>(std::min<int64_t>(rows - first, most)));
    }
}

/// The one door for kernels: queues `kernel` on the calling thread's `default_stream`, without
/// dynamic shared memory. A grid without blocks, which an empty output gives, is no launch. Every
/// operation ends with VORN_KERNEL_TAIL(), once after its launches, which looks at their result.
template <auto kernel, typename... A>
void launch(dim3 grid, dim3 block, A&&... args) {
    if (grid.x == 0 || grid.y == 0 || grid.z == 0) {
        return;
    }
    cudaLaunchConfig_t config = {};
    config.gridDim = grid;
    config.blockDim = block;
    config.stream = default_stream;
#ifdef GPUSIM
    // A constant: the simulator inlines the kernel into its loop over threads.
    constexpr std::integral_constant<decltype(kernel), kernel> callee;
#else
    const auto callee = kernel;
#endif
    (void)cudaLaunchKernelEx(&config, callee, std::forward<A>(args)...);
}

}  // namespace gpu
}  // namespace vorn

/// A macro, so that a failure names the file and line of the launch.
#define VORN_KERNEL_TAIL()                                 \
    do {                                                   \
        if (::vorn::g_sync_flag) {                         \
            cudaStreamSynchronize(::vorn::default_stream); \
            cudaError_t ret = cudaGetLastError();          \
            if (ret != 0) {                                \
                LOG_ERROR << static_cast<int>(ret);        \
                CHECK_CALL(ret);                           \
            }                                              \
        }                                                  \
    } while (0)

#endif  // VORN_GPU_KERNEL_UTIL_H_
