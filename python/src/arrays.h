#ifndef VORN_PYTHON_ARRAYS_H_
#define VORN_PYTHON_ARRAYS_H_

#include <cstdint>
#include <memory>
#include <string>

#include "tensor_class.h"

/// Memory that tensors share with the arrays of others.
namespace vorn {
namespace python {

/// Whether GPU tensors lie in memory that CUDA knows, which simulated ones don't.
constexpr bool kHasCudaMemory = VORN_PYTHON_HAS_CUDA_MEMORY;

/// A strided array of others.
struct ForeignArray {
    void* data;
    int ndim;
    const std::int64_t* shape;
    const std::int64_t* strides;  ///< In elements; null where dense.
    Device device;
    std::shared_ptr<void> memory;  ///< Keeps `data`, which it points to.
};

/// The shape of an array and, from its strides, the pitch.
struct Layout {
    Dim size;
    index_t ld;
};

/// Throws ValueError unless a tensor can lie as `array` does: one to five axes, the last of them of
/// stride 1, and no gaps but between rows.
Layout layout_of(const ForeignArray& array);

/// A tensor on the memory of `array`.
template <typename T>
Tensor<T> tensor_on(const ForeignArray& array);

/// The strides of a tensor in elements.
template <typename T>
void strides_of(const Tensor<T>& tensor, std::int64_t* strides);

}  // namespace python
}  // namespace vorn

#endif  // VORN_PYTHON_ARRAYS_H_
