#ifndef VORN_GPU_REDUCE_ALL_H_
#define VORN_GPU_REDUCE_ALL_H_

#include <algorithm>
#include <cfloat>

#include "vorn/gpu/collective.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/gpu/memory.h"
#include "vorn/rules/reduce_functors.h"
#include "vorn/tensor/tensor.h"

/// Folds of all elements of a contiguous tensor on a GPU, in a tree that depends on the element
/// count only. `*res`, in host memory, is valid on return. Maxima and minima pass over NaN.
namespace vorn {
namespace gpu {

/// out[b] = the fold of block b's share of in[0 .. count). `out` may be `in` where one block runs.
template <int NT, typename Reducer>
__global__ void KeReduceAll(Reducer f, const DType* in, index_t count, DType* out) {
    // Independent loads in flight, without which one block per processor can't fill the bus.
    constexpr int kChains = 8;
    __shared__ DType s[NT];
    const int t = threadIdx.x;
    const index_t step = gridDim.x * static_cast<index_t>(NT);
    DType value[kChains];
    for (int k = 0; k < kChains; ++k) {
        value[k] = f.identity();
    }
    // The element is the first operand, so that one that compares with nothing changes nothing.
    index_t i = blockIdx.x * static_cast<index_t>(NT) + t;
    for (; i + (kChains - 1) * step < count; i += kChains * step) {
        for (int k = 0; k < kChains; ++k) {
            value[k] = f.combine(in[i + k * step], value[k]);
        }
    }
    for (; i < count; i += step) {
        value[0] = f.combine(in[i], value[0]);
    }
    for (int half = kChains / 2; half > 0; half /= 2) {
        for (int k = 0; k < half; ++k) {
            value[k] = f.combine(value[k], value[k + half]);
        }
    }
    s[t] = value[0];
    block_fold<NT>([&](int to, int from) { s[to] = f.combine(s[to], s[from]); });
    if (t == 0) {
        out[blockIdx.x] = s[0];
    }
}

/// *res = the fold of all elements: one value per block in the thread's scratch, then one block.
template <typename Reducer>
void fold_all(Reducer f, const Tensor<float>& in, DType* res) {
    const int NT = 256;
    const int max_blocks = GPU_MEM_SIZE / sizeof(DType);
    const int elements_per_block = 8 * NT;
    const index_t count = in.get_element_count();
    const int grid_size =
        std::max(1, std::min(div_up(static_cast<int>(count), elements_per_block), max_blocks));
    DType* partial = t_ctx->gpu_mem;
    launch<KeReduceAll<NT, Reducer>>(grid_size, NT, f, in.get_data(), count, partial);
    if (grid_size > 1) {
        launch<KeReduceAll<NT, Reducer>>(1, NT, f, partial, static_cast<index_t>(grid_size),
                                         partial);
    }
    VORN_KERNEL_TAIL();
    gpu::vorn_memcpy_d2h(res, partial, sizeof(DType));
}

inline void vorn_sum(const Tensor<float>& in, DType* res) {
    fold_all(func::reduce_sum<DType>(0, 1, 0), in, res);
}

/// The lowest finite float where no element is greater.
inline void vorn_max(const Tensor<float>& in, DType* res) {
    fold_all(func::reduce_max<DType>(-FLT_MAX, 1, 0), in, res);
}

/// The highest finite float where no element is less.
inline void vorn_min(const Tensor<float>& in, DType* res) {
    fold_all(func::reduce_min<DType>(FLT_MAX, 1, 0), in, res);
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_REDUCE_ALL_H_
