#ifndef VORN_GPU_RANDOM_OPS_H_
#define VORN_GPU_RANDOM_OPS_H_

#include <curand.h>

#include "vorn/gpu/kernel_util.h"

/// Random fills of dense runs of device memory, drawn on the device by the thread's generator.
namespace vorn {
namespace gpu {

/// ptr: size. One thread an element.
static __global__ void KeGenMaskByThreshold(float* ptr, float mask_prob, int size) {
    const int i = blockIdx.x * blockDim.x + threadIdx.x;
    if (i < size) {
        ptr[i] = ptr[i] < mask_prob ? 0.0f : 1.0f;
    }
}

/// Uniform in (0, 1].
inline void vorn_uniform_random(DType* ptr, int size) {
    const curandStatus_t ret = curandGenerateUniform(t_ctx->g_gen, ptr, size);
    CHECK_CALL(ret);
    VORN_KERNEL_TAIL();
}

/// 0 where a uniform draw lies below `mask_prob`, else 1.
inline void vorn_mask_random(DType* ptr, int size, DType mask_prob) {
    const int NT = 128;
    if (size == 0) {
        return;  // whether cuRAND takes an empty run isn't told
    }
    vorn_uniform_random(ptr, size);
    launch<KeGenMaskByThreshold>(div_up(size, NT), NT, ptr, mask_prob, size);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_RANDOM_OPS_H_
