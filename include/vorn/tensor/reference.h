#ifndef VORN_TENSOR_REFERENCE_H_
#define VORN_TENSOR_REFERENCE_H_

#include "vorn/naive_gpu.h"
#include "vorn/tensor/device.h"

namespace vorn {

/// One element of a tensor, readable and writable wherever it lies: a plain access on a CPU
/// device, a copy of sizeof(T) bytes otherwise.
template <typename T>
class Reference {
public:
    Reference(const Device& device, T* ptr) : _device(device), _ptr(ptr) {}
    Reference(const Reference&) = default;

    T get() const {
        if (is_cpu_device(_device)) {
            return *_ptr;
        }
        T value;
        vorn_gpu_memcpy_d2h(&value, _ptr, sizeof(T));
        return value;
    }
    operator T() const { return get(); }

    void set(const T& value) {
        if (is_cpu_device(_device)) {
            *_ptr = value;
        } else {
            vorn_gpu_memcpy_h2d(_ptr, &value, sizeof(T));
        }
    }
    Reference& operator=(const T& value) {
        set(value);
        return *this;
    }
    /// Copies the element, not the proxy.
    Reference& operator=(const Reference& other) { return *this = other.get(); }

    T* operator&() const { return _ptr; }
    bool operator==(const T& value) const { return get() == value; }
    bool operator==(const Reference& other) const { return get() == other.get(); }

private:
    Device _device;
    T* _ptr;
};

}  // namespace vorn

#endif  // VORN_TENSOR_REFERENCE_H_
