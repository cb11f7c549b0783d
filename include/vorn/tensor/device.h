#ifndef VORN_TENSOR_DEVICE_H_
#define VORN_TENSOR_DEVICE_H_

namespace vorn {

/// Where memory lies.
enum Device {
    CPU = 101,         ///< Ordinary host memory.
    GPU = 102,         ///< Memory of the current GPU.
    CPU_PINNED = 103,  ///< Page-locked host memory; host code reads it like CPU.
};

/// The device of host-side temporaries.
inline Device cpu_device() {
    return CPU;
}

/// The device of GPU tensors.
inline Device gpu_device() {
    return GPU;
}

/// The device of a tensor that is made without one.
const Device& get_device();

// 103 differs from 101 in bit 1 only.
inline bool is_cpu_device(const Device& device) {
    return (device & ~2) == CPU;
}
inline bool is_gpu_device(const Device& device) {
    return device == GPU;
}

/// True where one operation may touch both: equal devices, and CPU with CPU_PINNED.
inline bool is_same_devices(const Device& a, const Device& b) {
    return a == b || (is_cpu_device(a) && is_cpu_device(b));
}

}  // namespace vorn

#endif  // VORN_TENSOR_DEVICE_H_
