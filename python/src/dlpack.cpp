#include "dlpack.h"

#include <cuda_runtime.h>

#include <optional>
#include <utility>

#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>

#include "arrays.h"
#include "vorn/context/context.h"
#include "vorn/util/gpu_util.h"

/// DLPack, both directions, with its handshake of streams.
namespace vorn {
namespace python {

namespace {

using Version = std::pair<int, int>;
using DeviceId = std::pair<int, int>;

template <typename T>
dlpack::DataType data_type() {
    const dlpack::TypeCode code = std::is_floating_point<T>::value ? dlpack::kFloat
                                  : std::is_signed<T>::value       ? dlpack::kInt
                                                                   : dlpack::kUInt;
    return {code, sizeof(T) * 8, 1};
}

void refuse_simulated_memory() {
    if (!kHasCudaMemory) {
        throw nb::type_error(
            "the GPU of this build is simulated, and its memory no CUDA memory: t.cpu() is a copy "
            "on the host");
    }
}

DeviceId device_id(Device device) {
    if (device == CPU) {
        return {dlpack::kCpu, 0};
    }
    if (device == CPU_PINNED) {
        return {dlpack::kCudaHost, 0};
    }
    refuse_simulated_memory();
    return {dlpack::kCuda, t_ctx->device};
}

// ---- Tensors out

/// What a capsule holds: the tensor, and the arrays that the description points to.
template <typename T, typename Managed>
struct Export {
    Managed managed;
    Tensor<T> tensor;
    std::int64_t shape[Dim::kMaxDim] = {};
    std::int64_t strides[Dim::kMaxDim] = {1};

    explicit Export(const Tensor<T>& its_tensor) : managed(), tensor(its_tensor) {
        const int axes = tensor.get_size().get_axis();
        for (int i = 0; i < axes; ++i) {
            shape[i] = tensor.get_size()[i];
        }
        strides_of(tensor, strides);
        const DeviceId device = device_id(tensor.get_device());
        managed.tensor = {tensor.get_ptr(),
                          {device.first, device.second},
                          axes == 0 ? 1 : axes,  // without elements
                          data_type<T>(),
                          shape,
                          strides,
                          0};
        managed.context = this;
        managed.deleter = [](Managed* self) {
            auto* exported = static_cast<Export*>(self->context);
            if (is_gpu_device(exported->tensor.get_device())) {
                cudaDeviceSynchronize();  // the consumer's streams may still read it
            }
            delete exported;
        };
    }
};

template <typename T, typename Managed>
nb::object capsule(const Tensor<T>& tensor, std::uint64_t flags) {
    auto* exported = new Export<T, Managed>(tensor);
    if constexpr (std::is_same<Managed, dlpack::VersionedTensor>::value) {
        exported->managed.major = 1;
        exported->managed.minor = 0;
        exported->managed.flags = flags;
    }
    PyObject* made = PyCapsule_New(&exported->managed, Managed::kName, [](PyObject* unused) {
        if (PyCapsule_IsValid(unused, Managed::kName)) {  // nobody took it over
            auto* managed = static_cast<Managed*>(PyCapsule_GetPointer(unused, Managed::kName));
            managed->deleter(managed);
        }
    });
    if (made == nullptr) {
        delete exported;
        throw nb::python_error();
    }
    return nb::steal(made);
}

/// Makes the consumer's stream wait for what this thread has queued. The numbers are the
/// protocol's: 1 and None are the legacy default stream, 2 the per-thread one, -1 asks for no
/// order.
void hand_over_to(const std::optional<std::intptr_t>& number) {
    if (number == 0) {
        throw nb::value_error("stream 0 is ambiguous: 1 is the legacy default stream");
    }
    if (number == -1) {
        return;
    }
    // The protocol's numbers are those of CUDA's handles.
    const auto consumer = reinterpret_cast<cudaStream_t>(number.value_or(1));
    cudaEvent_t event = nullptr;
    CHECK_CALL(cudaEventCreateWithFlags(&event, cudaEventDisableTiming));
    CHECK_CALL(cudaEventRecord(event, default_stream));
    CHECK_CALL(cudaStreamWaitEvent(consumer, event, cudaEventWaitDefault));
    CHECK_CALL(cudaEventDestroy(event));
}

template <typename T>
nb::object to_dlpack(const Tensor<T>& tensor, std::optional<std::intptr_t> stream,
                     std::optional<Version> max_version, std::optional<DeviceId> dl_device,
                     std::optional<bool> copy) {
    const DeviceId device = device_id(tensor.get_device());
    if (dl_device && *dl_device != device) {
        throw nb::value_error("a tensor is handed over on its own device only");
    }
    if (is_gpu_device(tensor.get_device())) {
        hand_over_to(stream);
    } else if (stream && stream != -1) {
        throw nb::value_error("host memory has no stream");
    }
    const bool is_copied = copy.value_or(false);
    const Tensor<T> handed = is_copied ? Tensor<T>(tensor, tensor.get_device()) : tensor;
    if (max_version && max_version->first >= 1) {
        return capsule<T, dlpack::VersionedTensor>(handed, is_copied ? dlpack::kIsCopied : 0);
    }
    return capsule<T, dlpack::ManagedTensor>(handed, 0);
}

// ---- Arrays in

/// Takes the capsule's array over, to be given back when the last tensor on it goes.
template <typename Managed>
ForeignArray take_over(nb::handle capsule) {
    auto* managed = static_cast<Managed*>(PyCapsule_GetPointer(capsule.ptr(), Managed::kName));
    if (managed == nullptr) {
        throw nb::python_error();
    }
    const dlpack::Tensor& tensor = managed->tensor;
    Device device = CPU;
    if constexpr (std::is_same<Managed, dlpack::VersionedTensor>::value) {
        if (managed->major != 1) {
            throw nb::value_error("the array comes in an unknown version of DLPack");
        }
        if (managed->flags & dlpack::kReadOnly) {
            throw nb::value_error(
                "the memory is read-only, and tensors are writable: copy it before");
        }
    }
    if (tensor.device.type == dlpack::kCudaHost) {
        device = CPU_PINNED;
    } else if (tensor.device.type == dlpack::kCuda && kHasCudaMemory) {
        if (tensor.device.id != t_ctx->device) {
            throw nb::value_error("the array lies on another GPU than the calling thread uses");
        }
        device = GPU;
    } else if (tensor.device.type != dlpack::kCpu) {
        throw nb::type_error("the array lies on a device whose memory this build can't use");
    }
    ForeignArray array{static_cast<char*>(tensor.data) + tensor.byte_offset,
                       tensor.ndim,
                       tensor.shape,
                       tensor.strides,
                       device,
                       nullptr};
    layout_of(array);  // refuses what can't be shared before the capsule is ours
    PyCapsule_SetName(capsule.ptr(), Managed::kUsedName);
    array.memory = std::shared_ptr<void>(array.data, [managed, device](void*) {
        if (is_gpu_device(device)) {
            cudaStreamSynchronize(default_stream);  // the owner may use the memory at once
        }
        if (managed->deleter != nullptr && Py_IsInitialized()) {
            const nb::gil_scoped_acquire gil;
            managed->deleter(managed);
        }
    });
    return array;
}

/// make(zero of the element type) for the element type of an array.
template <typename F>
nb::object with_type(const dlpack::DataType& type, F make) {
    const auto is = [&](auto zero) {
        const dlpack::DataType expected = data_type<decltype(zero)>();
        return type.code == expected.code && type.bits == expected.bits &&
               type.lanes == expected.lanes;
    };
    if (is(0.0f)) {
        return make(0.0f);
    }
    if (is(0)) {
        return make(0);
    }
    if (is(0ul)) {
        return make(0ul);
    }
    if (is(static_cast<unsigned char>(0))) {
        return make(static_cast<unsigned char>(0));
    }
    if (is(static_cast<short>(0))) {
        return make(static_cast<short>(0));
    }
    throw nb::type_error("tensors are of float32, int32, uint64, uint8 or int16");
}

template <typename Managed>
nb::object tensor_from(nb::handle capsule) {
    auto* managed = static_cast<Managed*>(PyCapsule_GetPointer(capsule.ptr(), Managed::kName));
    return with_type(managed->tensor.dtype, [&](auto zero) {
        return nb::cast(tensor_on<decltype(zero)>(take_over<Managed>(capsule)));
    });
}

nb::object from_dlpack(nb::handle x) {
    const Looking looking;
    if (!nb::hasattr(x, "__dlpack__") || !nb::hasattr(x, "__dlpack_device__")) {
        throw nb::type_error("from_dlpack takes an array with __dlpack__ and __dlpack_device__");
    }
    const auto device = nb::cast<DeviceId>(x.attr("__dlpack_device__")());
    nb::dict arguments;
    if (device.first == dlpack::kCuda && kHasCudaMemory) {
        arguments["stream"] = reinterpret_cast<std::intptr_t>(default_stream);
    }
    nb::object capsule;
    try {
        nb::dict with_version;
        with_version.update(arguments);
        with_version["max_version"] = nb::make_tuple(1, 0);
        capsule = x.attr("__dlpack__")(**with_version);
    } catch (nb::python_error& error) {
        if (!error.matches(PyExc_TypeError)) {
            throw;
        }
        capsule = x.attr("__dlpack__")(**arguments);  // of a producer before version 1
    }
    if (PyCapsule_IsValid(capsule.ptr(), dlpack::VersionedTensor::kName)) {
        return tensor_from<dlpack::VersionedTensor>(capsule);
    }
    if (PyCapsule_IsValid(capsule.ptr(), dlpack::ManagedTensor::kName)) {
        return tensor_from<dlpack::ManagedTensor>(capsule);
    }
    throw nb::type_error("__dlpack__ gave no DLPack capsule");
}

}  // namespace

template <typename T>
void bind_dlpack(TensorClass<T>& tensor) {
    tensor
        .def("__dlpack__", to_dlpack<T>, nb::call_guard<Looking>(), nb::kw_only(),
             "stream"_a = nb::none(), "max_version"_a = nb::none(), "dl_device"_a = nb::none(),
             "copy"_a = nb::none(),
             nb::sig("def __dlpack__(self, *, stream: int | None = None, max_version: tuple[int, "
                     "int] | None = None, dl_device: tuple[int, int] | None = None, copy: bool | "
                     "None = None) -> typing.Any"),
             "The memory of this tensor for another library, which keeps it.")
        .def(
            "__dlpack_device__", [](const Tensor<T>& t) { return device_id(t.get_device()); },
            nb::call_guard<Looking>(), "DLPack's numbers of the device and its kind.");
}

template void bind_dlpack(TensorClass<float>&);
template void bind_dlpack(TensorClass<int>&);
template void bind_dlpack(TensorClass<unsigned long>&);
template void bind_dlpack(TensorClass<unsigned char>&);
template void bind_dlpack(TensorClass<short>&);

void bind_dlpack_functions(nb::module_& m) {
    m.def("from_dlpack", from_dlpack, "x"_a,
          nb::sig("def from_dlpack(x: typing.Any) -> Tensor | IntTensor | UnsignedLongTensor | "
                  "UnsignedCharTensor | ShortTensor"),
          "A tensor on the memory of another library's array, which both keep. What can't be\n"
          "shared is a TypeError or a ValueError, as with from_numpy. Nothing is ever copied.");
}

}  // namespace python
}  // namespace vorn
