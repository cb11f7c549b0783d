#include "tensor_class.h"
#include "vorn/context/context.h"

/// Training objectives and label statistics.
namespace vorn {
namespace python {

namespace {

/// The library's loops assert that labels are not negative, which would end the interpreter.
void check_labels(const Tensor<float>& label) {
    if (!is_cpu_device(label.get_device())) {
        return;
    }
    const float* labels = label.get_ptr();
    for (index_t i = 0, count = label.count(); i < count; ++i) {
        if (static_cast<int>(labels[i]) < 0) {
            throw nb::value_error("a label is below 0");
        }
    }
}

using Self = Tensor<float>;
using In = const Self&;
using Mask = const Tensor<int>&;

void bind_cross_entropy(TensorClass<float>& tensor) {
    tensor
        .member(
            "cross_entropy",
            [](Self& t, In output, In label, Mask mask, DType alpha, DType beta) {
                check_labels(label);
                t.cross_entropy(output, label, mask, alpha, beta);
            },
            "output"_a, "label"_a, "mask"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member(
            "cross_entropy",
            [](Self& t, In output, In label, Mask mask, index_t outer, index_t channel,
               index_t inner, DType alpha, DType beta) {
                check_labels(label);
                t.cross_entropy(output, label, mask, outer, channel, inner, alpha, beta);
            },
            "output"_a, "label"_a, "mask"_a, "outer"_a, "channel"_a, "inner"_a, "alpha"_a = 1.0f,
            "beta"_a = 0.0f)
        .member(
            "cross_entropy_bp",
            [](Self& t, In output, In label, Mask mask, DType alpha, DType beta) {
                check_labels(label);
                t.cross_entropy_bp(output, label, mask, alpha, beta);
            },
            "output"_a, "label"_a, "mask"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member(
            "cross_entropy_bp",
            [](Self& t, In output, In label, Mask mask, index_t outer, index_t channel,
               index_t inner, DType alpha, DType beta) {
                check_labels(label);
                t.cross_entropy_bp(output, label, mask, outer, channel, inner, alpha, beta);
            },
            "output"_a, "label"_a, "mask"_a, "outer"_a, "channel"_a, "inner"_a, "alpha"_a = 1.0f,
            "beta"_a = 0.0f);
}

/// The count that `deliver(&count)` sets, once a GPU has delivered it.
template <typename F>
size_t delivered(const Self& tensor, F deliver) {
    size_t count = 0;
    deliver(&count);
    if (is_gpu_device(tensor.get_device())) {
        synchronize();
    }
    return count;
}

void bind_label_statistics(TensorClass<float>& tensor) {
    tensor
        .member(
            "count_valid_label",
            [](Self& t, Mask mask, DType ignore_label_val) {
                return delivered(
                    t, [&](size_t* count) { t.count_valid_label(mask, ignore_label_val, count); });
            },
            "mask"_a, "ignore_label_val"_a)
        .member(
            "cal_classify_acu_target",
            [](Self& t, In in, In label, Mask mask, Tensor<int>& max_idx, DType ignore_label_val) {
                return delivered(t, [&](size_t* count) {
                    t.cal_classify_acu_target(in, label, mask, max_idx, ignore_label_val, count);
                });
            },
            "in_"_a, "label"_a, "mask"_a, "max_idx"_a, "ignore_label_val"_a);
}

}  // namespace

void bind_objectives(TensorClass<float>& tensor) {
    bind_cross_entropy(tensor);
    tensor
        .member("mean_squre_error", &Self::mean_squre_error, "output"_a, "label"_a, "mask"_a,
                "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("mean_squre_error_bp", &Self::mean_squre_error_bp, "output"_a, "label"_a, "mask"_a,
                "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("rnnoise", &Self::rnnoise, "y_pred"_a, "y_true"_a, "mask"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("rnnoise_bp", &Self::rnnoise_bp, "y_pred"_a, "y_true"_a, "mask"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("fixed_loss", overload<In>(&Self::fixed_loss), "tensor"_a)
        .member("fixed_loss", overload<>(&Self::fixed_loss))
        .member("smooth_l1", &Self::smooth_l1, "obj"_a, "sigma2"_a)
        .member("smooth_l1_bp", &Self::smooth_l1_bp, "obj"_a, "sigma2"_a);
    bind_label_statistics(tensor);
}

}  // namespace python
}  // namespace vorn
