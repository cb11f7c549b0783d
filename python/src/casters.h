#ifndef VORN_PYTHON_CASTERS_H_
#define VORN_PYTHON_CASTERS_H_

#include <nanobind/nanobind.h>

#include <cstring>
#include <iterator>
#include <limits>

#include "vorn/tensor/device.h"
#include "vorn/tensor/dim.h"

/// Devices are their names in Python, and shapes and coordinates tuples.
namespace nanobind {
namespace detail {

template <>
struct type_caster<vorn::Device> {
    NB_TYPE_CASTER(vorn::Device, const_name("typing.Literal['cpu', 'gpu', 'cpu_pinned']"))

    static const char* name_of(vorn::Device device) {
        return device == vorn::CPU ? "cpu" : device == vorn::GPU ? "gpu" : "cpu_pinned";
    }

    bool from_python(handle src, uint32_t, cleanup_list*) noexcept {
        if (!PyUnicode_Check(src.ptr())) {
            return false;
        }
        for (const vorn::Device device : {vorn::CPU, vorn::GPU, vorn::CPU_PINNED}) {
            if (PyUnicode_CompareWithASCIIString(src.ptr(), name_of(device)) == 0) {
                value = device;
                return true;
            }
        }
        return false;
    }

    static handle from_cpp(vorn::Device device, rv_policy, cleanup_list*) noexcept {
        return PyUnicode_FromString(name_of(device));
    }
};

/// An integer, or a list or tuple of at most five.
template <>
struct type_caster<vorn::Dim> {
    NB_TYPE_CASTER(vorn::Dim, io_name("int | collections.abc.Sequence[int]", "tuple[int, ...]"))

    bool from_python(handle src, uint32_t, cleanup_list*) noexcept {
        value = vorn::Dim();
        if (!PyTuple_Check(src.ptr()) && !PyList_Check(src.ptr())) {
            return append(src.ptr());
        }
        for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(src.ptr()); ++i) {
            if (!append(PySequence_Fast_GET_ITEM(src.ptr(), i))) {
                return false;
            }
        }
        return true;
    }

    static handle from_cpp(const vorn::Dim& dim, rv_policy, cleanup_list*) noexcept {
        PyObject* axes = PyTuple_New(dim.get_axis());
        for (int i = 0; axes != nullptr && i < dim.get_axis(); ++i) {
            PyTuple_SET_ITEM(axes, i, PyLong_FromLong(dim.dims[i]));
        }
        return axes;
    }

private:
    bool append(PyObject* item) noexcept {
        if (value.dimension == vorn::Dim::kMaxDim || !PyIndex_Check(item)) {
            return false;
        }
        const Py_ssize_t axis = PyNumber_AsSsize_t(item, nullptr);  // clips what is too large
        if (axis < std::numeric_limits<int>::min() || axis > std::numeric_limits<int>::max()) {
            return false;
        }
        value.dims[value.dimension++] = static_cast<int>(axis);
        return true;
    }
};

}  // namespace detail
}  // namespace nanobind

#endif  // VORN_PYTHON_CASTERS_H_
