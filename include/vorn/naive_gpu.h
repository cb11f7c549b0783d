#ifndef VORN_NAIVE_GPU_H_
#define VORN_NAIVE_GPU_H_

#include "vorn/base.h"

/// Copies to, from and on the GPU, callable without a CUDA header. On return a copy is finished as
/// far as the host can tell: the source may be reused and the destination read. A failed copy
/// aborts.
namespace vorn {

void vorn_gpu_memcpy_h2d(void* dst, const void* src, index_t byte_size);
void vorn_gpu_memcpy_d2h(void* dst, const void* src, index_t byte_size);
void vorn_gpu_memcpy_d2d(void* dst, const void* src, index_t byte_size);

}  // namespace vorn

#endif  // VORN_NAIVE_GPU_H_
