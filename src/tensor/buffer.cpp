#include "vorn/tensor/buffer.h"

#include <cuda_runtime.h>

#include <cstdlib>
#include <utility>

#include "vorn/context/context.h"
#include "vorn/context/lifetime.h"
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

/// Of the calling thread's GPU.
static bool has_memory_pools() {
    int device = 0, value = 0;
    return cudaGetDevice(&device) == cudaSuccess &&
           cudaDeviceGetAttribute(&value, cudaDevAttrMemoryPoolsSupported, device) == cudaSuccess &&
           value != 0;
}

static bool is_page_locked(Device device) {
    return device == CPU_PINNED && has_gpu();
}

Buffer::Buffer(size_t size, Device device) : _ptr(nullptr), _size(size), _device(device) {
    if (size == 0) {
        return;
    }
    cudaError_t ret = cudaSuccess;
    if (is_gpu_device(device)) {
        if (has_memory_pools()) {
            _stream = share_default_stream();
            ret = cudaMallocAsync(&_ptr, size, _stream.get());
        } else {
            ret = cudaMalloc(&_ptr, size);
        }
        watch_for_exit();
    } else if (is_page_locked(device)) {
        ret = cudaMallocHost(&_ptr, size);
        watch_for_exit();
    } else {
        ret = posix_memalign(&_ptr, kHostAlignment, size) == 0 ? cudaSuccess
                                                               : cudaErrorMemoryAllocation;
    }
    CHECK_CALL(ret) << " allocating " << size << " bytes on device " << device;
}

Buffer::Buffer(std::shared_ptr<void> memory, size_t size, Device device)
    : _ptr(memory.get()), _size(size), _device(device), _memory(std::move(memory)) {}

/// Makes `stream` wait for what the calling thread has queued on its own.
static void wait_for_this_thread(cudaStream_t stream) {
    cudaEvent_t event = nullptr;
    CHECK_CALL(cudaEventCreateWithFlags(&event, cudaEventDisableTiming));
    CHECK_CALL(cudaEventRecord(event, default_stream));
    CHECK_CALL(cudaStreamWaitEvent(stream, event, cudaEventWaitDefault));
    CHECK_CALL(cudaEventDestroy(event));
}

Buffer::~Buffer() {
    if (_ptr == nullptr || _memory != nullptr) {
        return;
    }
    const bool is_on_gpu = is_gpu_device(_device);
    if (!is_on_gpu && !is_page_locked(_device)) {
        free(_ptr);
    } else if (is_exiting()) {
        return;  // the system takes all of it back
    } else if (!is_on_gpu) {
        CHECK_CALL(cudaFreeHost(_ptr));
    } else if (_stream == nullptr) {
        CHECK_CALL(cudaFree(_ptr));
    } else {
        // The block goes to a later one of its own stream at once, and to others when that stream
        // has come here: neither may happen while this thread's work on it is pending.
        if (_stream != share_default_stream()) {
            wait_for_this_thread(_stream.get());
        }
        CHECK_CALL(cudaFreeAsync(_ptr, _stream.get()));
    }
}

}  // namespace vorn
