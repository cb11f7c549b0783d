#include <nanobind/stl/vector.h>

#include <vector>

#include "tensor_class.h"

/// Slices of an axis, concatenation of channels, convolution, pooling, regions of interest, and
/// batch normalization of images.
namespace vorn {
namespace python {

namespace {

using Self = Tensor<float>;
using In = const Self&;
using Bytes = Tensor<unsigned char>;

/// The tensors of a list, which holds no None.
const std::vector<Self*>& all_there(const std::vector<Self*>& tensors) {
    for (const Self* tensor : tensors) {
        if (tensor == nullptr) {
            throw nb::type_error("the list holds a None");
        }
    }
    return tensors;
}

/// The memory of `work_space`, of which `size` bytes are to be used on the device of `out`.
void* work_space_of(const Self& out, const Bytes* work_space, index_t size) {
    if (work_space == nullptr) {
        if (size > 0) {
            throw nb::value_error("there is no work space of work_space_size_byte bytes");
        }
        return nullptr;
    }
    if (work_space->count() < size) {
        throw nb::value_error("the work space has fewer than work_space_size_byte bytes");
    }
    if (!is_same_devices(work_space->get_device(), out.get_device())) {
        throw nb::value_error("the work space lies on another device than the result");
    }
    return work_space->get_ptr();
}

void bind_channels(TensorClass<float>& tensor) {
    tensor.member("shrink", &Self::shrink, "obj"_a, "dim"_a, "index"_a)
        .member("shrink_bp", &Self::shrink_bp, "obj"_a, "dim"_a, "index"_a)
        .member(
            "channel_append",
            [](Self& t, const std::vector<Self*>& src_vec, Tensor<unsigned long>& ptr, DType alpha,
               DType beta) { t.channel_append(all_there(src_vec), ptr, alpha, beta); },
            "src_vec"_a, "ptr"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member(
            "channel_append_bp",
            [](Self& t, const std::vector<Self*>& dst_vec, const std::vector<bool>& filters,
               Tensor<unsigned long>& ptr, DType alpha, DType beta) {
                if (filters.size() != dst_vec.size()) {
                    throw nb::value_error("filters and dst_vec differ in length");
                }
                t.channel_append_bp(all_there(dst_vec), filters, ptr, alpha, beta);
            },
            "dst_vec"_a, "filters"_a, "ptr"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f);
}

/// A convolution with its work space, a tensor of bytes or None.
template <typename Member>
auto with_work_space(Member member) {
    return [member](Self& t, const ConvDesc& conv_desc, In in1, In in2, const Bytes* work_space,
                    index_t size, DType alpha, DType beta) {
        void* memory = work_space_of(t, work_space, size);
        (t.*member)(conv_desc, in1, in2, memory, size, alpha, beta);
    };
}

void bind_convolution(TensorClass<float>& tensor) {
    tensor
        .member("conv_fwd", with_work_space(&Self::conv_fwd), "conv_desc"_a, "x"_a, "w"_a,
                "work_space"_a.none(), "work_space_size_byte"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("conv_grad", with_work_space(&Self::conv_grad), "conv_desc"_a, "x"_a, "dy"_a,
                "work_space"_a.none(), "work_space_size_byte"_a, "alpha"_a = 1.0f, "beta"_a = 1.0f)
        .member("conv_diff", with_work_space(&Self::conv_diff), "conv_desc"_a, "w"_a, "dy"_a,
                "work_space"_a.none(), "work_space_size_byte"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("add_tensor", &Self::add_tensor, "bias"_a, "alpha"_a = 1.0f, "beta"_a = 1.0f)
        .member("conv_bias", &Self::conv_bias, "dy"_a, "alpha"_a = 1.0f, "beta"_a = 1.0f)
        .member("transpose_channel_height", &Self::transpose_channel_height, "in_"_a)
        .member("conv_get_fwd_algo", &Self::conv_get_fwd_algo, "conv_desc"_a, "x"_a, "w"_a, "y"_a,
                "pref"_a, "memory_limit_bytes"_a)
        .member("conv_get_grad_algo", &Self::conv_get_grad_algo, "conv_desc"_a, "x"_a, "dy"_a,
                "dw"_a, "pref"_a, "memory_limit_bytes"_a)
        .member("conv_get_diff_algo", &Self::conv_get_diff_algo, "conv_desc"_a, "x"_a, "dy"_a,
                "dw"_a, "pref"_a, "memory_limit_bytes"_a)
        .member("conv_get_fwd_work_space_size", &Self::conv_get_fwd_work_space_size, "conv_desc"_a,
                "x"_a, "w"_a, "y"_a, "algo"_a)
        .member("conv_get_grad_work_space_size", &Self::conv_get_grad_work_space_size,
                "conv_desc"_a, "x"_a, "dy"_a, "dw"_a, "algo"_a)
        .member("conv_get_diff_work_space_size", &Self::conv_get_diff_work_space_size,
                "conv_desc"_a, "x"_a, "dy"_a, "dw"_a, "algo"_a)
        .member("conv_get_fwd_algo_perf", &Self::conv_get_fwd_algo_perf, "conv_desc"_a, "x"_a,
                "w"_a, "y"_a)
        .member("conv_get_grad_algo_perf", &Self::conv_get_grad_algo_perf, "conv_desc"_a, "x"_a,
                "dy"_a, "dw"_a)
        .member("conv_get_diff_algo_perf", &Self::conv_get_diff_algo_perf, "conv_desc"_a, "x"_a,
                "dy"_a, "dw"_a);
}

void bind_pooling(TensorClass<float>& tensor) {
    tensor
        .member("pool_fwd", &Self::pool_fwd, "pooling_desc"_a, "x"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("pool_bp", &Self::pool_bp, "pooling_desc"_a, "y"_a, "dy"_a, "x"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("roi_pool_fwd", &Self::roi_pool_fwd, "desc"_a, "data"_a, "rois"_a, "max_idx"_a,
                "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("roi_pool_bp", &Self::roi_pool_bp, "desc"_a, "diff"_a, "rois"_a, "max_idx"_a,
                "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("psroi_pool_fwd", &Self::psroi_pool_fwd, "desc"_a, "data"_a, "rois"_a,
                "map_channel"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("psroi_pool_bp", &Self::psroi_pool_bp, "desc"_a, "diff"_a, "rois"_a,
                "map_channel"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f);
}

void bind_image_batch_normalization(TensorClass<float>& tensor) {
    tensor
        .member("image_bat_norm_forward_inf", &Self::image_bat_norm_forward_inf, "norm_type"_a,
                "alpha"_a, "beta"_a, "x"_a, "gamma"_a, "bias"_a, "mean"_a, "var"_a, "epsilon"_a)
        .member("image_bat_norm_forward_train", &Self::image_bat_norm_forward_train, "norm_type"_a,
                "alpha"_a, "beta"_a, "x"_a, "gamma"_a, "bias"_a, "exp_avg_factor"_a, "run_mean"_a,
                "run_var"_a, "epsilon"_a, "mean"_a, "var"_a)
        .member("image_bat_norm_back", &Self::image_bat_norm_back, "norm_type"_a,
                "alpha_data_diff"_a, "beta_data_diff"_a, "alpha_param_diff"_a, "beta_param_diff"_a,
                "x"_a, "dy"_a, "gamma"_a, "d_gamma"_a, "d_bias"_a, "epsilon"_a, "mean"_a, "var"_a)
        .member("image_bat_norm_back_inf", &Self::image_bat_norm_back_inf, "norm_type"_a, "x"_a,
                "var"_a, "scale"_a, "epsilon"_a);
}

}  // namespace

void bind_image_members(TensorClass<float>& tensor) {
    bind_channels(tensor);
    bind_convolution(tensor);
    bind_pooling(tensor);
    bind_image_batch_normalization(tensor);
}

}  // namespace python
}  // namespace vorn
