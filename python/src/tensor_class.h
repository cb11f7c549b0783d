#ifndef VORN_PYTHON_TENSOR_CLASS_H_
#define VORN_PYTHON_TENSOR_CLASS_H_

#include <nanobind/nanobind.h>

#include <initializer_list>
#include <string>

#include "call.h"
#include "casters.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace python {

namespace nb = nanobind;
using namespace nb::literals;

/// The header's words on the member with these parameters. Throws where the header has none, so
/// that a binding which differs from the header in its name or its parameters fails the import.
const char* doc_of_member(const char* name, std::initializer_list<const char*> parameters);

/// The header's words on Tensor itself.
const char* doc_of_tensor();

/// What an element type is called on both sides.
template <typename T>
struct ElementType;
template <>
struct ElementType<float> {
    static constexpr const char *kClass = "Tensor", *kDType = "float32";
};
template <>
struct ElementType<int> {
    static constexpr const char *kClass = "IntTensor", *kDType = "int32";
};
template <>
struct ElementType<unsigned long> {
    static constexpr const char *kClass = "UnsignedLongTensor", *kDType = "uint64";
};
template <>
struct ElementType<unsigned char> {
    static constexpr const char *kClass = "UnsignedCharTensor", *kDType = "uint8";
};
template <>
struct ElementType<short> {
    static constexpr const char *kClass = "ShortTensor", *kDType = "int16";
};

/// Chooses among the overloads of a member by its parameters:
/// overload<const Tensor<T>&, DType>(&Tensor<T>::pow).
template <typename... Args>
constexpr nb::detail::overload_cast_impl<Args...> overload = {};

/// The Python class of Tensor<T>, whose members are those of the library under their own names.
/// Parameters that Python has as keywords get an underscore: `in_`.
template <typename T>
class TensorClass : public nb::class_<Tensor<T>> {
public:
    using nb::class_<Tensor<T>>::class_;

    /// A member that computes: other Python threads run meanwhile.
    template <typename F, typename... Args>
    TensorClass& member(const char* name, F f, const Args&... args) {
        return add<Computing>(name, f, args...);
    }

    /// A member that only looks at the tensor, or works on Python objects.
    template <typename F, typename... Args>
    TensorClass& query(const char* name, F f, const Args&... args) {
        return add<Looking>(name, f, args...);
    }

private:
    template <typename Guard, typename F, typename... Args>
    TensorClass& add(const char* name, F f, const Args&... args) {
        this->def(name, f, nb::call_guard<Guard>(), doc_of_member(name, {args.name_...}), args...);
        return *this;
    }
};

// ---- The families of members, a file each

template <typename T>
void bind_core(TensorClass<T>& tensor);
template <typename T>
void bind_arrays(TensorClass<T>& tensor);
template <typename T>
void bind_dlpack(TensorClass<T>& tensor);
/// Of float and int tensors, in which only float has all.
template <typename T>
void bind_element_rules(TensorClass<T>& tensor);
template <>
void bind_element_rules(TensorClass<float>& tensor);
template <typename T>
void bind_folds(TensorClass<T>& tensor);
template <typename T>
void bind_files(TensorClass<T>& tensor);
template <typename T>
void bind_indexing(TensorClass<T>& tensor);
/// Of float tensors.
void bind_matrix_members(TensorClass<float>& tensor);
void bind_objectives(TensorClass<float>& tensor);
void bind_image_members(TensorClass<float>& tensor);
void bind_sequence_members(TensorClass<float>& tensor);

// ---- Beside the tensors

void bind_descriptions(nb::module_& m);
void bind_array_functions(nb::module_& m);
void bind_dlpack_functions(nb::module_& m);

}  // namespace python
}  // namespace vorn

#endif  // VORN_PYTHON_TENSOR_CLASS_H_
