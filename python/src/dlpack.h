#ifndef VORN_PYTHON_DLPACK_H_
#define VORN_PYTHON_DLPACK_H_

#include <cstdint>

/// The binary interface of DLPack 1.0, by which array libraries hand memory to each other
/// (https://dmlc.github.io/dlpack/latest/c_api.html).
namespace vorn {
namespace python {
namespace dlpack {

enum DeviceType : std::int32_t { kCpu = 1, kCuda = 2, kCudaHost = 3 };
enum TypeCode : std::uint8_t { kInt = 0, kUInt = 1, kFloat = 2 };

struct Device {
    std::int32_t type;
    std::int32_t id;
};

struct DataType {
    std::uint8_t code;
    std::uint8_t bits;
    std::uint16_t lanes;
};

struct Tensor {
    void* data;
    Device device;
    std::int32_t ndim;
    DataType dtype;
    std::int64_t* shape;
    std::int64_t* strides;  ///< In elements; null where dense.
    std::uint64_t byte_offset;
};

struct ManagedTensor {
    Tensor tensor;
    void* context;
    void (*deleter)(ManagedTensor*);

    static constexpr const char *kName = "dltensor", *kUsedName = "used_dltensor";
};

constexpr std::uint64_t kReadOnly = 1, kIsCopied = 2;

struct VersionedTensor {
    std::uint32_t major;
    std::uint32_t minor;
    void* context;
    void (*deleter)(VersionedTensor*);
    std::uint64_t flags;
    Tensor tensor;

    static constexpr const char *kName = "dltensor_versioned",
                                *kUsedName = "used_dltensor_versioned";
};

}  // namespace dlpack
}  // namespace python
}  // namespace vorn

#endif  // VORN_PYTHON_DLPACK_H_
