#ifndef VORN_GPU_MEMORY_H_
#define VORN_GPU_MEMORY_H_

#include <cuda_runtime.h>

#include "vorn/base.h"
#include "vorn/logging.h"
#include "vorn/naive_gpu.h"
#include "vorn/util/gpu_util.h"

/// Copies and byte fills that touch device memory. Sizes and pitches are in bytes.
namespace vorn {
namespace gpu {

inline void vorn_memcpy_h2d(void* dst, const void* src, size_t byte_size) {
    vorn_gpu_memcpy_h2d(dst, src, byte_size);
}

inline void vorn_memcpy_d2h(void* dst, const void* src, size_t byte_size) {
    vorn_gpu_memcpy_d2h(dst, src, byte_size);
}

inline void vorn_memcpy_d2d(void* dst, const void* src, size_t byte_size) {
    vorn_gpu_memcpy_d2d(dst, src, byte_size);
}

inline void vorn_memset(void* ptr, int val, size_t byte_size) {
    CHECK_CALL(cudaMemset(ptr, val, byte_size));
}

/// dimM rows of dimN bytes, with ld bytes from row to row.
inline void vorn_memset_2d(void* ptr, int val, index_t dimM, index_t dimN, index_t ld) {
    CHECK_CALL(cudaMemset2D(ptr, ld, val, dimN, dimM));
}

inline void vorn_memcpy_2d(void* dst, size_t dpitch_byte, const void* src, size_t spitch_byte,
                           size_t width_byte, size_t height, cudaMemcpyKind kind) {
    CHECK_CALL(cudaMemcpy2D(dst, dpitch_byte, src, spitch_byte, width_byte, height, kind));
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_MEMORY_H_
