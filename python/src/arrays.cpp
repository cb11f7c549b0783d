#include "arrays.h"

#include <nanobind/ndarray.h>

#include <cstring>
#include <utility>

#include "vorn/tensor/buffer.h"

/// NumPy: arrays into tensors by the buffer protocol, and tensors into arrays by __array__.
namespace vorn {
namespace python {

Layout layout_of(const ForeignArray& array) {
    if (array.ndim < 1 || array.ndim > Dim::kMaxDim) {
        throw nb::value_error("a tensor has one to five axes");
    }
    Layout layout;
    std::int64_t count = 1;
    for (int i = 0; i < array.ndim; ++i) {
        if (array.shape[i] >= std::int64_t(1) << 31 || (count *= array.shape[i]) >= std::int64_t(1)
                                                                                        << 31) {
            throw nb::value_error("a tensor has fewer than 2^31 elements");
        }
        layout.size.init_dim(array.shape[i]);
    }
    const int last = array.ndim - 1;
    const std::int64_t width = array.shape[last];
    layout.ld = width;
    if (array.strides == nullptr || count == 0) {
        return layout;
    }
    // An axis of extent 1 may have any stride.
    if (width > 1 && array.strides[last] != 1) {
        throw nb::value_error("the last axis of a tensor has stride 1");
    }
    std::int64_t expected = 0;  // the stride of the next axis, once the pitch is known
    std::int64_t rows = 1;
    for (int i = last - 1; i >= 0; --i) {
        if (array.shape[i] == 1) {
            continue;
        }
        if (expected == 0) {
            if (array.strides[i] % rows != 0 || array.strides[i] / rows < width) {
                throw nb::value_error("the rows of a tensor follow each other");
            }
            layout.ld = array.strides[i] / rows;
        } else if (array.strides[i] != expected) {
            throw nb::value_error("only the rows of a tensor have a pitch, its outer axes none");
        }
        expected = array.strides[i] * array.shape[i];
        rows *= array.shape[i];
    }
    if (layout.size.height() * static_cast<std::int64_t>(layout.ld) >= std::int64_t(1) << 31) {
        throw nb::value_error("the offsets in a tensor stay below 2^31");
    }
    return layout;
}

template <typename T>
Tensor<T> tensor_on(const ForeignArray& array) {
    const Layout layout = layout_of(array);
    if (reinterpret_cast<uintptr_t>(array.data) % alignof(T) != 0) {
        throw nb::value_error("the memory is not aligned to its elements");
    }
    index_t span = 0;
    if (product(layout.size) != 0) {
        span = (layout.size.height() - 1) * layout.ld + layout.size[-1];
    }
    const auto buffer = std::make_shared<Buffer>(array.memory, span * sizeof(T), array.device);
    return Tensor<T>(buffer, layout.size, layout.ld, static_cast<T*>(array.data));
}

template <typename T>
void strides_of(const Tensor<T>& tensor, std::int64_t* strides) {
    const Dim& size = tensor.get_size();
    std::int64_t stride = 1;
    for (int i = size.get_axis() - 1; i >= 0; --i) {
        strides[i] = stride;
        stride =
            i == size.get_axis() - 1 ? static_cast<std::int64_t>(tensor.ld()) : stride * size[i];
    }
}

namespace {

/// The Python object that keeps memory alive, to be dropped by any thread.
class BufferOwner {
public:
    explicit BufferOwner(Py_buffer view) : _view(view) {}
    ~BufferOwner() {
        if (!Py_IsInitialized()) {
            return;  // the system takes all of it back
        }
        const nb::gil_scoped_acquire gil;
        PyBuffer_Release(&_view);
    }
    BufferOwner(const BufferOwner&) = delete;
    BufferOwner& operator=(const BufferOwner&) = delete;

private:
    Py_buffer _view;
};

template <typename T>
bool has_format(const Py_buffer& view, const char* codes) {
    const char* format = view.format == nullptr ? "B" : view.format;
    if (*format == '@' || *format == '=' || *format == '<') {
        ++format;
    }
    return view.itemsize == sizeof(T) && *format != '\0' && format[1] == '\0' &&
           std::strchr(codes, *format) != nullptr;
}

nb::object from_numpy(nb::handle a) {
    Py_buffer view;
    if (PyObject_GetBuffer(a.ptr(), &view, PyBUF_STRIDES | PyBUF_FORMAT) != 0) {
        PyErr_Clear();
        throw nb::type_error("from_numpy takes a NumPy array, or another object with a buffer");
    }
    const std::shared_ptr<BufferOwner> owner = std::make_shared<BufferOwner>(view);
    if (view.readonly) {
        throw nb::value_error("the memory is read-only, and tensors are writable: copy it before");
    }
    std::int64_t shape[Dim::kMaxDim] = {}, strides[Dim::kMaxDim] = {};
    for (int i = 0; i < view.ndim && i < Dim::kMaxDim; ++i) {
        shape[i] = view.shape[i];
        if (view.strides != nullptr) {  // as ctypes has it
            if (view.strides[i] % view.itemsize != 0) {
                throw nb::value_error("the strides are not of whole elements");
            }
            strides[i] = view.strides[i] / view.itemsize;
        }
    }
    const ForeignArray array{view.buf, view.ndim,
                             shape,    view.strides == nullptr ? nullptr : strides,
                             CPU,      std::shared_ptr<void>(owner, view.buf)};
    const Looking looking;
    if (has_format<float>(view, "f")) {
        return nb::cast(tensor_on<float>(array));
    }
    if (has_format<int>(view, "il")) {
        return nb::cast(tensor_on<int>(array));
    }
    if (has_format<unsigned long>(view, "LQ")) {
        return nb::cast(tensor_on<unsigned long>(array));
    }
    if (has_format<unsigned char>(view, "B")) {
        return nb::cast(tensor_on<unsigned char>(array));
    }
    if (has_format<short>(view, "h")) {
        return nb::cast(tensor_on<short>(array));
    }
    throw nb::type_error("tensors are of float32, int32, uint64, uint8 or int16");
}

/// A NumPy array on the memory of a host tensor, which it keeps.
template <typename T>
nb::object host_array(const Tensor<T>& tensor) {
    if (!is_cpu_device(tensor.get_device())) {
        throw nb::type_error(
            "a GPU tensor has no host memory to share: t.cpu() is a copy that has");
    }
    size_t shape[Dim::kMaxDim] = {};  // one axis without elements, if the tensor has no axes
    std::int64_t strides[Dim::kMaxDim] = {1};
    const int axes = tensor.get_size().get_axis();
    for (int i = 0; i < axes; ++i) {
        shape[i] = tensor.get_size()[i];
    }
    strides_of(tensor, strides);
    const nb::capsule owner(new Tensor<T>(tensor),
                            [](void* held) noexcept { delete static_cast<Tensor<T>*>(held); });
    using Array = nb::ndarray<nb::numpy, T>;
    return nb::cast(Array(tensor.get_ptr(), axes == 0 ? 1 : axes, shape, owner, strides));
}

template <typename T>
nb::object to_array(const Tensor<T>& tensor, nb::object dtype, nb::object copy) {
    const nb::object array = host_array(tensor);
    const bool may_copy = copy.is_none() || nb::cast<bool>(copy);
    if (!dtype.is_none() &&
        !nb::module_::import_("numpy").attr("dtype")(dtype).equal(array.attr("dtype"))) {
        if (!may_copy) {
            throw nb::value_error("another dtype needs a copy");
        }
        return array.attr("astype")(dtype);
    }
    return !copy.is_none() && may_copy ? nb::object(array.attr("copy")()) : array;
}

}  // namespace

void bind_array_functions(nb::module_& m) {
    m.def("from_numpy", from_numpy, "a"_a,
          nb::sig("def from_numpy(a: typing.Any) -> Tensor | IntTensor | "
                  "UnsignedLongTensor | UnsignedCharTensor | ShortTensor"),
          "A tensor on the memory of a NumPy array, which both keep. It may be a view whose rows\n"
          "have a pitch. TypeError for a dtype that tensors don't have; ValueError for read-only\n"
          "memory, a last axis of a stride other than 1, gaps outside rows, and axes that are not\n"
          "one to five. Nothing is ever copied.");
}

template <typename T>
void bind_arrays(TensorClass<T>& tensor) {
    tensor.def("__array__", to_array<T>, nb::call_guard<Looking>(), "dtype"_a = nb::none(),
               "copy"_a = nb::none(),
               nb::sig("def __array__(self, dtype: typing.Any = None, copy: bool | None = None) -> "
                       "numpy.ndarray"),
               "For np.asarray(t): an array on the memory of this host tensor, which both keep.");
}

#define FOR_ANY_TYPE(T)                                        \
    template Tensor<T> tensor_on(const ForeignArray&);         \
    template void strides_of(const Tensor<T>&, std::int64_t*); \
    template void bind_arrays(TensorClass<T>&);

FOR_ANY_TYPE(float)
FOR_ANY_TYPE(int)
FOR_ANY_TYPE(unsigned long)
FOR_ANY_TYPE(unsigned char)
FOR_ANY_TYPE(short)

#undef FOR_ANY_TYPE

}  // namespace python
}  // namespace vorn
