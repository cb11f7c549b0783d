#include <nanobind/ndarray.h>
#include <nanobind/stl/shared_ptr.h>
#include <nanobind/stl/string.h>

#include <cstdint>
#include <new>
#include <sstream>

#include "tensor_class.h"
#include "vorn/naive_gpu.h"

/// Construction, views, shape, queries, fills and copies.
namespace vorn {
namespace python {

namespace {

/// A shape from outside, whose axes nothing in the library tests one by one.
const Dim& valid_shape(const Dim& size) {
    for (const int axis : size) {
        if (axis < 0) {
            throw nb::value_error("a shape has no negative axes");
        }
    }
    return size;
}

/// The address that some members return.
uintptr_t address(const void* ptr) {
    return reinterpret_cast<uintptr_t>(ptr);
}

template <typename T>
using HostInput = nb::ndarray<const T, nb::c_contig, nb::device::cpu>;
template <typename T>
using HostOutput = nb::ndarray<T, nb::c_contig, nb::device::cpu>;

/// Throws unless elements [start, start + num) lie in the tensor, and `num` fit the host array.
void check_range(index_t start, index_t num, index_t of_tensor, index_t of_array) {
    if (start > of_tensor || num > of_tensor - start) {
        throw nb::value_error("the range goes beyond the tensor's end");
    }
    if (num > of_array) {
        throw nb::value_error("the array has fewer elements than are to be copied");
    }
}

template <typename T>
index_t position_of(const Tensor<T>& tensor, const Dim& start) {
    const Dim& size = tensor.get_size();
    bool is_inside = start.get_axis() == size.get_axis();
    for (int i = 0; is_inside && i < size.get_axis(); ++i) {
        is_inside = start[i] >= 0 && start[i] < size[i];
    }
    if (!is_inside) {
        throw nb::value_error("the coordinate lies outside the tensor");
    }
    return offset(start, size, tensor.get_stride());
}

/// A few elements from the first on; all of a small tensor.
template <typename T>
std::string representation(const Tensor<T>& tensor) {
    constexpr int kShown = 8;
    std::ostringstream text;
    const Dim& size = tensor.get_size();
    text << "vorn." << ElementType<T>::kClass << "(shape=(";
    for (int i = 0; i < size.get_axis(); ++i) {
        text << (i > 0 ? ", " : "") << size[i];
    }
    text << (size.get_axis() == 1 ? ",)" : ")") << ", device='"
         << nb::detail::type_caster<Device>::name_of(tensor.get_device()) << "', values=[";
    const int count = tensor.get_ptr() == nullptr ? 0 : static_cast<int>(tensor.count());
    for (int i = 0; i < std::min(count, kShown); ++i) {
        const int width = size[-1];
        T* element = tensor.get_ptr() + i / width * tensor.ld() + i % width;
        text << (i > 0 ? ", " : "") << +Reference<T>(tensor.get_device(), element).get();
    }
    text << (count > kShown ? ", ...])" : "])");
    return text.str();
}

template <typename T>
nb::tuple byte_strides(const Tensor<T>& tensor) {
    const Dim& size = tensor.get_size();
    nb::list strides;
    index_t stride = sizeof(T);
    for (int i = size.get_axis() - 1; i >= 0; --i) {
        strides.insert(0, stride);
        stride = i == size.get_axis() - 1 ? tensor.ld() * sizeof(T) : stride * size[i];
    }
    return nb::tuple(strides);
}

/// Throws unless the tensor's elements lie in the buffer, of which the library tests the first.
template <typename T>
void check_block_of(const Buffer& buffer, const Dim& size, index_t stride, const T* first) {
    if (product(valid_shape(size)) == 0) {
        return;
    }
    const T* end = first + (size.height() - 1) * stride + size[-1];
    if (stride < static_cast<index_t>(size[-1]) || first < buffer.ptr() || end > buffer.end()) {
        throw nb::value_error("the elements don't lie in the buffer");
    }
}

template <typename T>
void bind_construction_in_buffer(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    using BufferPtr = std::shared_ptr<Buffer>;
    const nb::call_guard<Computing> guard;
    const auto construct = [](Self* self, const BufferPtr& buffer, const Dim& size, index_t stride,
                              T* first) {
        check_block_of(*buffer, size, stride, first);
        new (self) Self(buffer, size, stride, first);
    };
    const auto first_of = [](const BufferPtr& buffer) { return static_cast<T*>(buffer->ptr()); };
    tensor
        .def(
            "__init__",
            [=](Self* self, const BufferPtr& buffer, const Dim& size) {
                const index_t width = size.get_axis() == 0 ? 0 : size[-1];
                construct(self, buffer, size, width, first_of(buffer));
            },
            guard, doc_of_member("Tensor", {"buffer", "size"}), "buffer"_a, "size"_a)
        .def(
            "__init__",
            [=](Self* self, const BufferPtr& buffer, const Dim& size, index_t stride) {
                construct(self, buffer, size, stride, first_of(buffer));
            },
            guard, doc_of_member("Tensor", {"buffer", "size", "stride"}), "buffer"_a, "size"_a,
            "stride"_a)
        .def(
            "__init__",
            [=](Self* self, const BufferPtr& buffer, const Dim& size, index_t stride,
                uintptr_t ptr) {
                construct(self, buffer, size, stride, reinterpret_cast<T*>(ptr));
            },
            guard, doc_of_member("Tensor", {"buffer", "size", "stride", "ptr"}), "buffer"_a,
            "size"_a, "stride"_a, "ptr"_a);
}

template <typename T>
void bind_construction(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    const nb::call_guard<Computing> guard;
    const auto doc = [](std::initializer_list<const char*> parameters) {
        return doc_of_member("Tensor", parameters);
    };
    tensor.def(nb::init<>(), guard, doc({}))
        .def(nb::init<const Device&>(), guard, doc({"device"}), "device"_a)
        .def(
            "__init__",
            [](Self* self, const Self& other, Device device) { new (self) Self(other, device); },
            guard, doc({"other", "device"}), "other"_a, "device"_a)
        .def(
            "__init__", [](Self* self, const Dim& size) { new (self) Self(valid_shape(size)); },
            guard, doc({"size"}), "size"_a)
        .def(
            "__init__",
            [](Self* self, const Dim& size, Device device) {
                new (self) Self(valid_shape(size), device);
            },
            guard, doc({"size", "device"}), "size"_a, "device"_a)
        .def(
            "cpu", [](const Self& t) { return Self(t, CPU); }, guard, "A dense copy on the host.")
        .def(
            "gpu", [](const Self& t) { return Self(t, GPU); }, guard, "A dense copy on the GPU.")
        .def(
            "__copy__", [](const Self& t) { return Self(t); }, nb::call_guard<Looking>(),
            "Another tensor that looks at the same memory, as the library copies.")
        .def(
            "__deepcopy__", [](const Self& t, nb::handle) { return Self(t, t.get_device()); },
            guard, "memo"_a, "A dense copy on the same device.");
}

template <typename T>
void bind_queries(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    tensor.query("is_init", &Self::is_init)
        .query("get_ptr", [](const Self& t) { return address(t.get_ptr()); })
        .query("get_data", [](const Self& t) { return address(t.get_data()); })
        .query("get_data_python", [](const Self& t) { return address(t.get_data_python()); })
        .query("get_size", [](const Self& t) { return t.get_size(); })
        .query(
            "get_size", [](const Self& t, index_t i) { return t.get_size(i); }, "i"_a)
        .query("get_stride", &Self::get_stride)
        .query("ld", &Self::ld)
        .query("get_width", &Self::get_width)
        .query("get_height", &Self::get_height)
        .query("get_w", &Self::get_w)
        .query("get_h", &Self::get_h)
        .query("get_c", &Self::get_c)
        .query("get_n", &Self::get_n)
        .query("row", &Self::row)
        .query("col", &Self::col)
        .query("get_dim", &Self::get_dim)
        .query("count", overload<>(&Self::count, nb::const_))
        .query("get_element_count", &Self::get_element_count)
        .query("get_device", [](const Self& t) { return t.get_device(); })
        .query("is_contiguous", &Self::is_contiguous);
    tensor
        .def_prop_ro(
            "shape", [](const Self& t) { return t.get_size(); }, "The extents of the axes.")
        .def_prop_ro(
            "device", [](const Self& t) { return t.get_device(); },
            "Where the memory lies: 'cpu', 'gpu' or 'cpu_pinned'.")
        .def_prop_ro("strides", byte_strides<T>, "Bytes from element to element of each axis.")
        .def_prop_ro(
            "dtype",
            [](const Self&) {
                return nb::module_::import_("numpy").attr("dtype")(ElementType<T>::kDType);
            },
            nb::sig("def dtype(self) -> numpy.dtype"), "The element type, as NumPy's.")
        .def("__len__",
             [](const Self& t) {
                 if (t.get_dim() == 0) {
                     throw nb::type_error("a tensor without axes has no length");
                 }
                 return t.get_size(0);
             })
        .def("__repr__", representation<T>, nb::call_guard<Looking>());
}

template <typename T>
void bind_fills_and_copies(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    tensor.member("set_element", overload<T>(&Self::set_element), "val"_a)
        .member("zero", &Self::zero)
        .member("ones", &Self::ones)
        .member("copy_from", overload<const Self&>(&Self::copy_from), "src"_a)
        .member("copy_to", overload<Self&>(&Self::copy_to, nb::const_), "dst"_a);
    // With host arrays, which are taken and given back under the lock.
    tensor
        .query(
            "copy_from",
            [](Self& t, HostInput<T> data, index_t start_pos, index_t num) {
                check_range(start_pos, num, t.count(), data.size());
                const Computing computing;
                t.copy_from(data.data(), start_pos, num);
            },
            "data"_a.noconvert(), "start_pos"_a, "num"_a)
        .query(
            "copy_from",
            [](Self& t, HostInput<T> data, const Dim& start, index_t num) {
                check_range(position_of(t, start), num, t.count(), data.size());
                const Computing computing;
                t.copy_from(data.data(), start, num);
            },
            "data"_a.noconvert(), "start"_a, "num"_a)
        .query(
            "copy_to",
            [](const Self& t, HostOutput<T> dst, index_t start_pos, index_t num) {
                check_range(start_pos, num, t.count(), dst.size());
                const Computing computing;
                t.copy_to(dst.data(), start_pos, num);
            },
            "dst"_a.noconvert(), "start_pos"_a, "num"_a)
        .query(
            "copy_to",
            [](const Self& t, HostOutput<T> dst, const Dim& start, index_t num) {
                check_range(position_of(t, start), num, t.count(), dst.size());
                const Computing computing;
                t.copy_to(dst.data(), start, num);
            },
            "dst"_a.noconvert(), "start"_a, "num"_a);
}

template <typename T>
void bind_resize(TensorClass<T>& tensor) {
    tensor.member(
        "resize",
        [](Tensor<T>& t, const Dim& size, bool is_zero) { t.resize(valid_shape(size), is_zero); },
        "size"_a, "is_zero"_a = true);
}

/// What float and int have.
template <typename T>
void bind_elements(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    tensor.query("is_valid_index", &Self::is_valid_index, "idx"_a)
        .query(
            "index", [](const Self& t, const Dim& coor) { return address(t.index(coor)); },
            "coor"_a);
}

/// A cut of which get_block tests the extents but not where they end.
void check_block(const Tensor<float>& tensor, const Dim& start, const Dim& stop) {
    const Dim& size = tensor.get_size();
    if (start.get_axis() != size.get_axis() || stop.get_axis() != size.get_axis()) {
        return;  // which the library tests
    }
    for (int i = 0; i < size.get_axis(); ++i) {
        if (stop[i] > size[i]) {
            throw nb::value_error("the block goes beyond the tensor's end");
        }
    }
}

void bind_views(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    using Range = const Self&;
    tensor
        .member(
            "get_with_shape",
            [](Range t, const Dim& dim) { return t.get_with_shape(valid_shape(dim)); }, "dim"_a)
        .member(
            "get_block",
            [](Range t, const Dim& start, const Dim& stop) {
                check_block(t, start, stop);
                return t.get_block(start, stop);
            },
            "start"_a, "stop"_a)
        .member("slice", &Self::slice, "start"_a, "end"_a)
        .member("range_row", overload<index_t, index_t>(&Self::range_row, nb::const_), "start"_a,
                "stop"_a)
        .member("range_row", overload<index_t, index_t, index_t>(&Self::range_row, nb::const_),
                "start"_a, "stop"_a, "step"_a)
        .member(
            "range_col",
            [](Range t, index_t start, index_t stop) {
                check_block(t, Dim(0, start), Dim(0, stop));
                return t.range_col(start, stop);
            },
            "start"_a, "stop"_a)
        .member(
            "range_col",
            [](Range t, index_t start, index_t stop, index_t step) {
                check_block(t, Dim(0, start * step), Dim(0, stop * step));
                return t.range_col(start, stop, step);
            },
            "start"_a, "stop"_a, "step"_a);
}

void bind_float_core(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    tensor
        .member(
            "reshape", [](Self& t, const Dim& size) { t.reshape(valid_shape(size)); }, "size"_a)
        .member("reshape_like", &Self::reshape_like, "other"_a)
        .member("resize_like", &Self::resize_like, "other"_a)
        .member("set_device", &Self::set_device, "device"_a)
        .member("clear", &Self::clear)
        .member("clear_size", &Self::clear_size)
        .query("count", overload<int>(&Self::count, nb::const_), "start_axis"_a)
        .query("count", overload<int, int>(&Self::count, nb::const_), "start_axis"_a, "end_axis"_a)
        .query(
            "get_data", [](const Self& t, const Dim& dim) { return address(t.get_data(dim)); },
            "dim"_a)
        .query(
            "get_row", [](const Self& t, index_t idx) { return address(t.get_row(idx)); }, "idx"_a)
        .member("get_element", &Self::get_element, "dim"_a)
        .member("set_element", overload<const Dim&, float>(&Self::set_element), "dim"_a, "val"_a)
        .member("copy_row", &Self::copy_row, "src"_a, "src_row"_a, "dst_row"_a)
        .member("random", &Self::random, "lo"_a = 0.0f, "hi"_a = 1.0f)
        .member("uniform_random", &Self::uniform_random)
        .member("gauss_random", &Self::gauss_random, "mean"_a = 0.0f, "std_deviation"_a = 1.0f)
        .member("zero_random", &Self::zero_random, "mask_prob"_a)
        .member("one_random", &Self::one_random, "one_prob"_a);
}

}  // namespace

template <typename T>
void bind_core(TensorClass<T>& tensor) {
    bind_construction(tensor);
    bind_construction_in_buffer(tensor);
    bind_queries(tensor);
    bind_fills_and_copies(tensor);
    constexpr bool is_float = std::is_same<T, float>::value, is_int = std::is_same<T, int>::value;
    if constexpr (is_float || is_int || std::is_same<T, unsigned long>::value) {
        bind_resize(tensor);
    }
    if constexpr (is_float || is_int) {
        bind_elements(tensor);
    }
    if constexpr (is_float) {
        bind_views(tensor);
        bind_float_core(tensor);
    }
}

template void bind_core(TensorClass<float>&);
template void bind_core(TensorClass<int>&);
template void bind_core(TensorClass<unsigned long>&);
template void bind_core(TensorClass<unsigned char>&);
template void bind_core(TensorClass<short>&);

}  // namespace python
}  // namespace vorn
