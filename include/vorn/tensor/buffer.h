#ifndef VORN_TENSOR_BUFFER_H_
#define VORN_TENSOR_BUFFER_H_

#include <cstddef>

#include "vorn/tensor/device.h"

namespace vorn {

/// One block of memory on one device, held by std::shared_ptr from all tensors that look into it.
///
/// Host blocks are aligned to 64 bytes. CPU_PINNED is page-locked where there is a GPU and ordinary
/// host memory elsewhere. GPU blocks are allocated and freed in the order of the calling thread's
/// `default_stream`. The contents start undefined. A block of 0 bytes is legal; an allocation that
/// fails aborts.
class Buffer {
public:
    Buffer(size_t size, Device device);
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
};

}  // namespace vorn

#endif  // VORN_TENSOR_BUFFER_H_
