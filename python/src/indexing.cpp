#include <array>
#include <optional>
#include <type_traits>

#include "tensor_class.h"

/// t[...]: elements, and the views that the library has.
namespace vorn {
namespace python {

namespace {

/// What an index says of one axis: all of it, a range, or one place.
struct AxisIndex {
    int start, stop;
    bool is_place;

    bool is_all_of(int extent) const { return !is_place && start == 0 && stop == extent; }
};

using Index = std::array<AxisIndex, Dim::kMaxDim>;

AxisIndex axis_index(nb::handle item, int extent) {
    if (PySlice_Check(item.ptr())) {
        Py_ssize_t start, stop, step;
        if (PySlice_Unpack(item.ptr(), &start, &stop, &step) < 0) {
            throw nb::python_error();
        }
        if (step != 1) {
            throw nb::type_error("the library has no views with steps");
        }
        PySlice_AdjustIndices(extent, &start, &stop, step);
        if (stop <= start && extent > 0) {
            throw nb::type_error("the library has no empty views");
        }
        return {static_cast<int>(start), static_cast<int>(stop), false};
    }
    if (!PyIndex_Check(item.ptr())) {
        throw nb::type_error("an index is of integers and slices");
    }
    const Py_ssize_t place = PyNumber_AsSsize_t(item.ptr(), PyExc_IndexError);
    if (place == -1 && PyErr_Occurred()) {
        throw nb::python_error();
    }
    if (place < -extent || place >= extent) {
        throw nb::index_error("the index is out of range");
    }
    const int start = static_cast<int>(place < 0 ? place + extent : place);
    return {start, start + 1, true};
}

/// One entry per axis of `size`, whole axes where the key says nothing.
Index index_of(nb::handle key, const Dim& size) {
    const nb::tuple items =
        nb::isinstance<nb::tuple>(key) ? nb::borrow<nb::tuple>(key) : nb::make_tuple(key);
    const int axes = size.get_axis(), given = static_cast<int>(items.size());
    Index index;
    for (int axis = 0; axis < axes; ++axis) {
        index[axis] = {0, size[axis], false};
    }
    const auto is_ellipsis = [&](int i) { return items[i].is(nb::ellipsis()); };
    int ellipses = 0;
    for (int i = 0; i < given; ++i) {
        ellipses += is_ellipsis(i);
    }
    if (ellipses > 1 || given - ellipses > axes) {
        throw nb::index_error("there are more indices than axes");
    }
    for (int i = 0, axis = 0; i < given; ++i) {
        if (is_ellipsis(i)) {
            axis = axes - (given - 1 - i);
        } else {
            index[axis] = axis_index(items[i], size[axis]);
            ++axis;
        }
    }
    return index;
}

/// The coordinate of an element, if all axes have a place.
std::optional<Dim> coordinate(const Index& index, const Dim& size) {
    Dim coor = size;
    for (int axis = 0; axis < size.get_axis(); ++axis) {
        if (!index[axis].is_place) {
            return std::nullopt;
        }
        coor[axis] = index[axis].start;
    }
    return size.get_axis() == 0 ? std::nullopt : std::make_optional(coor);
}

/// The view that an index which is not of an element selects: some of the first axis, or one place
/// of it; and some of the last axis of a matrix, or of a tensor of more axes that owns its memory.
Tensor<float> view_of(const Tensor<float>& tensor, const Index& index) {
    const Dim& size = tensor.get_size();
    const int last = size.get_axis() - 1;
    if (last < 0) {
        throw nb::index_error("there are more indices than axes");
    }
    Tensor<float> view = tensor;
    for (int axis = 1; axis < last; ++axis) {
        if (!index[axis].is_all_of(size[axis])) {
            throw nb::type_error("the library has no views of a part of a middle axis");
        }
    }
    if (last > 0 && !index[last].is_all_of(size[last])) {
        if (index[last].is_place) {
            throw nb::type_error("the library has no views without the last axis");
        }
        Dim start = make_zero_dim(size.get_axis()), stop = size;
        start[last] = index[last].start;
        stop[last] = index[last].stop;
        try {
            view = view.get_block(start, stop);
        } catch (const CheckFailed&) {
            throw nb::type_error(
                "only a matrix, or a tensor that is no view itself, has views of a part of its "
                "last axis");
        }
    }
    if (!index[0].is_all_of(size[0])) {
        view = view.slice(index[0].start, index[0].stop);
    }
    if (index[0].is_place && last > 0) {
        Dim rest;
        for (int axis = 1; axis <= last; ++axis) {
            rest.init_dim(view.get_size()[axis]);
        }
        if (!view.is_contiguous()) {
            throw nb::type_error("a row of a pitched view is a view only as t[i:i + 1]");
        }
        view.reshape(rest);
    }
    return view;
}

template <typename T>
T element(const Tensor<T>& tensor, const Dim& coor) {
    return static_cast<const Tensor<T>&>(tensor)[coor];
}

template <typename T>
nb::object get_item(const Tensor<T>& tensor, nb::handle key) {
    const Index index = index_of(key, tensor.get_size());
    if (const std::optional<Dim> coor = coordinate(index, tensor.get_size())) {
        return nb::cast(element(tensor, *coor));
    }
    if constexpr (std::is_same<T, float>::value) {
        return nb::cast(view_of(tensor, index));
    } else {
        throw nb::type_error("only float32 tensors have views; slice np.asarray(t)");
    }
}

template <typename T>
void set_element(Tensor<T>& tensor, nb::handle key, T val) {
    const Index index = index_of(key, tensor.get_size());
    if (const std::optional<Dim> coor = coordinate(index, tensor.get_size())) {
        tensor[*coor] = val;
        return;
    }
    if constexpr (std::is_same<T, float>::value) {
        view_of(tensor, index).set_element(val);
    } else {
        throw nb::type_error("only float32 tensors have views; slice np.asarray(t)");
    }
}

/// t[key] = other, which `t[key] += 1` calls too, with the view itself.
void set_view(Tensor<float>& tensor, nb::handle key, const Tensor<float>& other) {
    Tensor<float> view = view_of(tensor, index_of(key, tensor.get_size()));
    if (view.get_ptr() != other.get_ptr() || view != other || view.ld() != other.ld()) {
        const Computing computing;
        view.copy_from(other);
    }
}

}  // namespace

template <typename T>
void bind_indexing(TensorClass<T>& tensor) {
    const nb::call_guard<Looking> guard;
    tensor
        .def("__getitem__", get_item<T>, guard, "key"_a,
             nb::sig(std::is_same<T, float>::value
                         ? "def __getitem__(self, key: typing.Any, /) -> typing.Any"
                         : "def __getitem__(self, key: typing.Any, /) -> int"),
             "An element, or a view of the same memory: some of the first axis, or one place of "
             "it, and some of the last. TypeError where the library has no such view.")
        .def("__setitem__", set_element<T>, guard, "key"_a, "val"_a,
             "An element or all of a view.");
    if constexpr (std::is_same<T, float>::value) {
        tensor.def("__setitem__", set_view, guard, "key"_a, "other"_a,
                   "Copies `other` into a view.");
    }
}

template void bind_indexing(TensorClass<float>&);
template void bind_indexing(TensorClass<int>&);

}  // namespace python
}  // namespace vorn
