#include "vorn/tensor/buffer.h"

#include <cuda_runtime.h>

#include <cstdlib>

#include "vorn/context/context.h"
#include "vorn/cpu/memory.h"
#include "vorn/logging.h"
#include "vorn/util/gpu_util.h"

namespace vorn {

const Device& get_device() {
    static const Device device = CPU;
    return device;
}

// A cache line, and a multiple of what the vector loops ask for.
static constexpr size_t kHostAlignment = 64;
static_assert(kHostAlignment % MALLOC_ALIGNED == 0, "host blocks honour MALLOC_ALIGNED");

static bool has_memory_pools() {
    static const bool supported = [] {
        int value = 0;
        return cudaDeviceGetAttribute(&value, cudaDevAttrMemoryPoolsSupported, 0) == cudaSuccess &&
               value != 0;
    }();
    return supported;
}

static void* allocate(size_t size, Device device) {
    void* ptr = nullptr;
    if (size == 0) {
        return ptr;
    }
    cudaError_t ret = cudaSuccess;
    if (is_gpu_device(device)) {
        ret = has_memory_pools() ? cudaMallocAsync(&ptr, size, default_stream)
                                 : cudaMalloc(&ptr, size);
    } else if (device == CPU_PINNED && has_gpu()) {
        ret = cudaMallocHost(&ptr, size);
    } else {
        ret = posix_memalign(&ptr, kHostAlignment, size) == 0 ? cudaSuccess
                                                              : cudaErrorMemoryAllocation;
    }
    CHECK_CALL(ret) << " allocating " << size << " bytes on device " << device;
    return ptr;
}

static void release(void* ptr, Device device) {
    if (ptr == nullptr) {
        return;
    }
    if (is_gpu_device(device)) {
        CHECK_CALL(has_memory_pools() ? cudaFreeAsync(ptr, default_stream) : cudaFree(ptr));
    } else if (device == CPU_PINNED && has_gpu()) {
        CHECK_CALL(cudaFreeHost(ptr));
    } else {
        free(ptr);
    }
}

Buffer::Buffer(size_t size, Device device)
    : _ptr(allocate(size, device)), _size(size), _device(device) {}

Buffer::~Buffer() {
    release(_ptr, _device);
}

}  // namespace vorn
