#include <type_traits>

#include "tensor_class.h"

/// Element rules, folds, and the operators that are one member.
namespace vorn {
namespace python {

namespace {

/// The library leaves the sizes of dense host operands of a sum to the caller; Python doesn't.
template <typename T>
void check_sum(const Tensor<T>& out, const Tensor<T>& in1, const Tensor<T>& in2) {
    if (out != in1 || out != in2) {
        throw nb::value_error("the operands of a sum have the shape of the result");
    }
    if (!is_same_devices(out.get_device(), in1.get_device()) ||
        !is_same_devices(out.get_device(), in2.get_device())) {
        throw nb::value_error("the operands of a sum lie on the device of the result");
    }
}

template <typename T>
void add(Tensor<T>& out, const Tensor<T>& in1, const Tensor<T>& in2, DType alpha, DType beta) {
    check_sum(out, in1, in2);
    out.add(in1, in2, alpha, beta);
}

template <typename T>
void elem_add(Tensor<T>& out, const Tensor<T>& in1, const Tensor<T>& in2, DType alpha0,
              DType alpha1, DType beta) {
    check_sum(out, in1, in2);
    out.elem_add(in1, in2, alpha0, alpha1, beta);
}

/// `target OP= operand` by `apply(target, operand)`.
template <typename T, typename Operand, typename F>
void bind_in_place(TensorClass<T>& tensor, const char* name, const char* signature, F apply) {
    tensor.def(
        name,
        [apply](nb::handle self, Operand operand) {
            Tensor<T>& target = nb::cast<Tensor<T>&>(self);
            {
                const Computing computing;
                apply(target, operand);
            }
            return nb::borrow(self);
        },
        nb::is_operator(), nb::sig(signature));
}

void bind_in_place_operators(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    const auto scalar = [&](const char* name, auto apply) {
        const std::string signature = std::string("def ") + name + "(self, val: float) -> Tensor";
        bind_in_place<float, float>(tensor, name, signature.c_str(), apply);
    };
    const auto element = [&](const char* name, auto apply) {
        const std::string signature =
            std::string("def ") + name + "(self, other: Tensor) -> Tensor";
        bind_in_place<float, const Self&>(tensor, name, signature.c_str(), apply);
    };
    scalar("__iadd__", [](Self& t, float val) { t.add(val); });
    scalar("__isub__", [](Self& t, float val) { t.add(-val); });
    scalar("__imul__", [](Self& t, float val) { t.mul(val); });
    scalar("__itruediv__", [](Self& t, float val) { t.div(val); });
    scalar("__ipow__", [](Self& t, float p) { t.pow(p); });
    element("__iadd__", [](Self& t, const Self& other) { add<float>(t, t, other, 1, 1); });
    element("__isub__", [](Self& t, const Self& other) { add<float>(t, t, other, 1, -1); });
    element("__imul__", [](Self& t, const Self& other) { t.elem_mul(t, other); });
    element("__itruediv__", [](Self& t, const Self& other) { t.elem_div(t, other); });
}

/// A rule of one operand, in place and from `in`, without a blend.
template <typename InPlace, typename From>
void bind_rule(TensorClass<float>& tensor, const char* name, InPlace in_place, From from) {
    tensor.member(name, in_place).member(name, from, "in_"_a);
}

}  // namespace

template <typename T>
void bind_element_rules(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    tensor.member("add", overload<T>(&Self::add), "val"_a)
        .member("mul", overload<T>(&Self::mul), "val"_a)
        .member("elem_add", elem_add<T>, "in1"_a, "in2"_a, "alpha0"_a = 1.0f, "alpha1"_a = 1.0f,
                "beta"_a = 0.0f);
}

template <>
void bind_element_rules(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    using In = const Self&;
    tensor.member("add", overload<float>(&Self::add), "val"_a)
        .member("add", add<float>, "in1"_a, "in2"_a, "alpha"_a = 1.0f, "beta"_a = 1.0f)
        .member("elem_add", elem_add<float>, "in1"_a, "in2"_a, "alpha0"_a = 1.0f, "alpha1"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("mul", overload<float>(&Self::mul), "val"_a)
        .member("elem_mul", &Self::elem_mul, "in1"_a, "in2"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("div", &Self::div, "val"_a)
        .member("elem_div", &Self::elem_div, "in1"_a, "in2"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("dot_div", &Self::dot_div, "in1"_a, "in2"_a, "alpha"_a = 0.0f, "beta"_a = 0.0f);
    bind_rule(tensor, "reciprocal", overload<>(&Self::reciprocal), overload<In>(&Self::reciprocal));
    bind_rule(tensor, "log", overload<>(&Self::log), overload<In>(&Self::log));
    bind_rule(tensor, "square", overload<>(&Self::square), overload<In>(&Self::square));
    bind_rule(tensor, "sqrt", overload<>(&Self::sqrt), overload<In>(&Self::sqrt));
    tensor.member("pow", overload<float>(&Self::pow), "p"_a)
        .member("pow", overload<In, float>(&Self::pow), "in_"_a, "p"_a)
        .member("limit", overload<float, float>(&Self::limit), "lo"_a, "hi"_a)
        .member("limit", overload<In, float, float>(&Self::limit), "in_"_a, "lo"_a, "hi"_a)
        .member("tanh", overload<>(&Self::tanh))
        .member("tanh", overload<In, float, float>(&Self::tanh), "in_"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("ld_tanh", &Self::ld_tanh, "in_"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("relu", overload<>(&Self::relu))
        .member("relu", overload<In, float, float>(&Self::relu), "in_"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("sigmoid", overload<>(&Self::sigmoid))
        .member("sigmoid", overload<In, float, float>(&Self::sigmoid), "in_"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("tanh_bp", &Self::tanh_bp, "in1"_a, "in2"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("relu_bp", &Self::relu_bp, "in1"_a, "in2"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("sigmoid_bp", &Self::sigmoid_bp, "in1"_a, "in2"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f);
    bind_in_place_operators(tensor);
}

template <typename T>
void bind_folds(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    tensor.member("col_sum", &Self::col_sum, "a"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("row_sum", &Self::row_sum, "a"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("sum", &Self::sum)
        .member("transpose", &Self::transpose, "tensor"_a);
    if constexpr (std::is_same<T, float>::value) {
        tensor.member("col_max", &Self::col_max, "a"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
            .member("col_min", &Self::col_min, "a"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
            .member("row_max", &Self::row_max, "a"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
            .member("row_min", &Self::row_min, "a"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
            .member("collect_bias", &Self::collect_bias, "in_"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
            .member("max", &Self::max)
            .member("min", &Self::min)
            .member("avg", &Self::avg);
    } else {
        tensor.member("count_valid_label",
                      overload<const Tensor<int>&, int, int>(&Self::count_valid_label), "mask"_a,
                      "batch_size"_a, "sub_frame_len"_a);
    }
}

template void bind_element_rules(TensorClass<int>&);
template void bind_folds(TensorClass<float>&);
template void bind_folds(TensorClass<int>&);

}  // namespace python
}  // namespace vorn
