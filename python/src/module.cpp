#include <cuda_runtime.h>
#include <nanobind/nanobind.h>
#include <nanobind/stl/shared_ptr.h>

#include <cstdlib>

#include "tensor_class.h"
#include "vorn/context/context.h"
#include "vorn/tensor/buffer.h"

#ifdef Py_GIL_DISABLED
#error \
    "vorn needs an interpreter with a global lock: build it for another than the free-threaded one"
#endif

namespace vorn {
namespace python {

static int gpu_count() {
    int count = 0;
    return has_gpu() && cudaGetDeviceCount(&count) == cudaSuccess ? count : 0;
}

static void seed(unsigned long long n) {
    seed_thread_context(n);
    std::srand(static_cast<unsigned>(n));
}

static void bind_functions(nb::module_& m) {
    const nb::call_guard<Computing> guard;
    m.def("synchronize", synchronize, guard,
          "Waits until the GPU has done what the calling thread has queued.");
    m.def("seed", seed, guard, "n"_a,
          "Restarts the calling thread's generators at n, and rand(), which the whole process "
          "shares and gauss_random draws from.");
    m.def("gpu_count", gpu_count, guard, "How many GPUs there are; a simulated one counts.");
}

static void bind_buffer(nb::module_& m) {
    nb::class_<Buffer>(m, "Buffer", "A block of memory on a device, which tensors share.")
        .def(nb::init<size_t, Device>(), nb::call_guard<Computing>(), "size"_a, "device"_a)
        .def(
            "ptr", [](const Buffer& b) { return reinterpret_cast<uintptr_t>(b.ptr()); },
            "The address of its first byte.")
        .def("device", &Buffer::device)
        .def("size", &Buffer::size, "In bytes.");
}

template <typename T>
static TensorClass<T> make_class(nb::module_& m) {
    const std::string doc =
        std::string("Tensors of ") + ElementType<T>::kDType +
        ".\n\nWhat is called an abort here raises vorn.CheckError in Python. What is left to the "
        "caller is left to the caller.\n\n" +
        doc_of_tensor();
    return TensorClass<T>(m, ElementType<T>::kClass, doc.c_str());
}

}  // namespace python
}  // namespace vorn

NB_MODULE(_core, m) {
    using namespace vorn::python;
    m.doc() = "The tensors and operators of vorn.";
    translate_failed_checks();
    bind_descriptions(m);
    bind_buffer(m);
    // Signatures name all classes, so that these come before their members.
    auto floats = make_class<float>(m);
    auto ints = make_class<int>(m);
    auto unsigned_longs = make_class<unsigned long>(m);
    auto unsigned_chars = make_class<unsigned char>(m);
    auto shorts = make_class<short>(m);
    const auto bind_any = [](auto& tensor) {
        bind_core(tensor);
        bind_arrays(tensor);
        bind_dlpack(tensor);
    };
    const auto bind_number = [](auto& tensor) {
        bind_element_rules(tensor);
        bind_folds(tensor);
        bind_files(tensor);
        bind_indexing(tensor);
    };
    bind_any(floats);
    bind_any(ints);
    bind_any(unsigned_longs);
    bind_any(unsigned_chars);
    bind_any(shorts);
    bind_number(floats);
    bind_number(ints);
    bind_matrix_members(floats);
    bind_objectives(floats);
    bind_image_members(floats);
    bind_sequence_members(floats);
    bind_array_functions(m);
    bind_dlpack_functions(m);
    bind_functions(m);
}
