#ifndef VORN_TENSOR_BUFFER_H_
#define VORN_TENSOR_BUFFER_H_

#include <cstddef>
#include <memory>

#include "vorn/tensor/device.h"

struct CUstream_st;

namespace vorn {

/// One block of memory on one device, held by std::shared_ptr from all tensors that look into it.
///
/// Host blocks are aligned to 64 bytes. CPU_PINNED is page-locked where there is a GPU and ordinary
/// host memory elsewhere. The contents start undefined. A block of 0 bytes is legal; an allocation
/// that fails aborts.
///
/// GPU blocks are allocated in the order of the calling thread's `default_stream`. The last holder
/// may drop one on any thread, also when the allocating thread has ended: its memory is used again
/// only after what both threads have queued until then. Work that a third thread has queued on it
/// has to be ordered before that by the threads that share it, and so has any use by another thread
/// than the one that wrote it. A block that is still alive when exit() unloads the GPU's runtime is
/// left to the system.
class Buffer {
public:
    Buffer(size_t size, Device device);
    /// The memory of others, of `size` bytes on `device`, which `memory` keeps and, when the last
    /// tensor has gone, gives back.
    Buffer(std::shared_ptr<void> memory, size_t size, Device device);
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    void* ptr() const { return _ptr; }
    Device device() const { return _device; }
    size_t size() const { return _size; }  ///< In bytes.
    void* end() const { return static_cast<char*>(_ptr) + _size; }

private:
    void* _ptr;
    size_t _size;
    Device _device;
    std::shared_ptr<void> _memory;         ///< Where the memory is others'.
    std::shared_ptr<CUstream_st> _stream;  ///< Of a GPU block that is freed in stream order.
};

}  // namespace vorn

#endif  // VORN_TENSOR_BUFFER_H_
