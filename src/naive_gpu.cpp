#include "vorn/naive_gpu.h"

#include <cuda_runtime.h>

#include "vorn/logging.h"
#include "vorn/util/gpu_util.h"

// cudaMemcpy runs on the legacy null stream, which waits for the threads' own streams and makes
// them wait in turn, so that a copy sees what was launched before it.
namespace vorn {

void vorn_gpu_memcpy_h2d(void* dst, const void* src, index_t byte_size) {
    CHECK_CALL(cudaMemcpy(dst, src, byte_size, cudaMemcpyHostToDevice));
}

void vorn_gpu_memcpy_d2h(void* dst, const void* src, index_t byte_size) {
    CHECK_CALL(cudaMemcpy(dst, src, byte_size, cudaMemcpyDeviceToHost));
}

void vorn_gpu_memcpy_d2d(void* dst, const void* src, index_t byte_size) {
    CHECK_CALL(cudaMemcpy(dst, src, byte_size, cudaMemcpyDeviceToDevice));
}

}  // namespace vorn
