#include "cudnn_descriptors.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <tuple>
#include <unordered_map>

namespace gpusim::cudnn {

template <class T>
struct Descriptor {
    using Value = T;
    T value{};
    bool set = false;
};

}  // namespace gpusim::cudnn

struct cudnnTensorStruct : gpusim::cudnn::Descriptor<gpusim::cudnn::Tensor> {};
struct cudnnFilterStruct : gpusim::cudnn::Descriptor<gpusim::cudnn::Filter> {};
struct cudnnConvolutionStruct : gpusim::cudnn::Descriptor<gpusim::cudnn::Convolution> {};
struct cudnnPoolingStruct : gpusim::cudnn::Descriptor<gpusim::cudnn::Pooling> {};

namespace gpusim::cudnn {

namespace {

/// The descriptors of one kind that live.
template <class D>
struct Live {
    std::mutex mutex;
    std::unordered_map<D*, std::unique_ptr<D>> descriptors;

    /// Never destroyed, so that calls from static destructors find it whole.
    static Live& get() {
        static auto* const live = new Live;
        return *live;
    }
};

template <class D>
cudnnStatus_t create(D** desc) {
    if (desc == nullptr) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    auto created = std::make_unique<D>();
    *desc = created.get();
    Live<D>& live = Live<D>::get();
    std::lock_guard<std::mutex> lock(live.mutex);
    live.descriptors[*desc] = std::move(created);
    return CUDNN_STATUS_SUCCESS;
}

template <class D>
cudnnStatus_t destroy(D* desc) {
    Live<D>& live = Live<D>::get();
    std::lock_guard<std::mutex> lock(live.mutex);
    return desc == nullptr || live.descriptors.erase(desc) == 1 ? CUDNN_STATUS_SUCCESS
                                                                : CUDNN_STATUS_BAD_PARAM;
}

/// Calls change(descriptor).
template <class D, class F>
cudnnStatus_t update(D* desc, F change) {
    Live<D>& live = Live<D>::get();
    std::lock_guard<std::mutex> lock(live.mutex);
    if (live.descriptors.count(desc) == 0) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    change(*desc);
    return CUDNN_STATUS_SUCCESS;
}

template <class D>
cudnnStatus_t set(D* desc, const typename D::Value& value) {
    return update(desc, [&](D& d) {
        d.value = value;
        d.set = true;
    });
}

template <class D>
bool read_value(D* desc, typename D::Value* value) {
    bool set = false;
    update(desc, [&](D& d) {
        *value = d.value;
        set = d.set;
    });
    return set;
}

bool valid(cudnnDataType_t type) {
    return type >= CUDNN_DATA_FLOAT && type <= CUDNN_DATA_HALF;
}

bool all_at_least(int bound, std::initializer_list<int> values) {
    return std::all_of(values.begin(), values.end(), [=](int v) { return v >= bound; });
}

Extents packed_strides(cudnnTensorFormat_t format, const Extents& extent) {
    const auto [n, c, h, w] = extent;
    (void)n;
    return format == CUDNN_TENSOR_NHWC ? Extents{h * w * c, 1, w * c, c}
                                       : Extents{c * h * w, h * w, w, 1};
}

/// Elements of a packed tensor as cuDNN counts them, in 31 bits.
bool countable(const Extents& extent) {
    int64_t count = 1;
    for (const int e : extent) {
        count *= e;
        if (count > INT_MAX) {
            return false;
        }
    }
    return true;
}

/// The distance of the first element to the last.
int64_t span(const Tensor& tensor) {
    int64_t sum = 0;
    for (int axis = 0; axis < 4; ++axis) {
        sum += int64_t{tensor.extent[axis] - 1} * std::abs(int64_t{tensor.stride[axis]});
    }
    return sum;
}

cudnnStatus_t check_packed(cudnnTensorFormat_t format, cudnnDataType_t type,
                           const Extents& extent) {
    const auto [n, c, h, w] = extent;
    if (!valid(type) || (format != CUDNN_TENSOR_NCHW && format != CUDNN_TENSOR_NHWC) ||
        !all_at_least(1, {n, c, h, w})) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    return countable(extent) ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_NOT_SUPPORTED;
}

}  // namespace

size_t Tensor::bytes() const {
    const size_t element = type == CUDNN_DATA_DOUBLE ? 8 : type == CUDNN_DATA_FLOAT ? 4 : 2;
    return (static_cast<size_t>(span(*this)) + 1) * element;
}

bool Tensor::has_negative_stride() const {
    return std::any_of(stride.begin(), stride.end(), [](int s) { return s < 0; });
}

bool Tensor::overlaps_itself() const {
    // From the narrowest stride on, each must step over all that the ones before it span.
    std::array<int, 4> order = {kN, kC, kH, kW};
    std::sort(order.begin(), order.end(), [&](int a, int b) { return stride[a] < stride[b]; });
    int64_t inner = 0;
    for (const int axis : order) {
        if (extent[axis] > 1) {
            if (stride[axis] <= inner) {
                return true;
            }
            inner += int64_t{extent[axis] - 1} * stride[axis];
        }
    }
    return false;
}

bool read(cudnnTensorDescriptor_t desc, Tensor* value) {
    return read_value(desc, value);
}
bool read(cudnnFilterDescriptor_t desc, Filter* value) {
    return read_value(desc, value);
}
bool read(cudnnConvolutionDescriptor_t desc, Convolution* value) {
    return read_value(desc, value);
}
bool read(cudnnPoolingDescriptor_t desc, Pooling* value) {
    return read_value(desc, value);
}

bool output_extents(const Convolution& conv, const Tensor& x, const Filter& w, Extents* y) {
    if (x.extent[kC] != w.tensor.extent[kC]) {
        return false;
    }
    *y = {x.extent[kN], w.tensor.extent[kN], 0, 0};
    for (int i = 0; i < 2; ++i) {
        const int64_t covered = int64_t{w.tensor.extent[kH + i] - 1} * conv.dilation[i] + 1;
        const int64_t rest = x.extent[kH + i] + 2 * int64_t{conv.pad[i]} - covered;
        if (rest < 0 || rest / conv.stride[i] >= INT_MAX) {
            return false;
        }
        (*y)[kH + i] = static_cast<int>(rest / conv.stride[i] + 1);
    }
    return true;
}

bool output_extents(const Pooling& pooling, const Tensor& x, Extents* y) {
    *y = {x.extent[kN], x.extent[kC], 0, 0};
    for (int i = 0; i < 2; ++i) {
        const int64_t rest = x.extent[kH + i] + 2 * int64_t{pooling.pad[i]} - pooling.window[i];
        if (rest < 0 || rest / pooling.stride[i] >= INT_MAX) {
            return false;
        }
        (*y)[kH + i] = static_cast<int>(rest / pooling.stride[i] + 1);
    }
    return true;
}

}  // namespace gpusim::cudnn

using gpusim::cudnn::all_at_least;
using gpusim::cudnn::check_packed;
using gpusim::cudnn::Convolution;
using gpusim::cudnn::create;
using gpusim::cudnn::destroy;
using gpusim::cudnn::Extents;
using gpusim::cudnn::Filter;
using gpusim::cudnn::output_extents;
using gpusim::cudnn::packed_strides;
using gpusim::cudnn::Pooling;
using gpusim::cudnn::read;
using gpusim::cudnn::set;
using gpusim::cudnn::span;
using gpusim::cudnn::Tensor;
using gpusim::cudnn::update;
using gpusim::cudnn::valid;

cudnnStatus_t cudnnCreateTensorDescriptor(cudnnTensorDescriptor_t* desc) {
    return create(desc);
}

cudnnStatus_t cudnnSetTensor4dDescriptor(cudnnTensorDescriptor_t desc, cudnnTensorFormat_t format,
                                         cudnnDataType_t type, int n, int c, int h, int w) {
    const Extents extent = {n, c, h, w};
    const cudnnStatus_t status = check_packed(format, type, extent);
    return status == CUDNN_STATUS_SUCCESS
               ? set(desc, {type, extent, packed_strides(format, extent)})
               : status;
}

cudnnStatus_t cudnnSetTensor4dDescriptorEx(cudnnTensorDescriptor_t desc, cudnnDataType_t type,
                                           int n, int c, int h, int w, int n_stride, int c_stride,
                                           int h_stride, int w_stride) {
    const Tensor tensor = {type, {n, c, h, w}, {n_stride, c_stride, h_stride, w_stride}};
    if (!valid(type) || !all_at_least(1, {n, c, h, w})) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    for (int axis = 0; axis < 4; ++axis) {
        if (tensor.extent[axis] > 1 && tensor.stride[axis] == 0) {
            return CUDNN_STATUS_BAD_PARAM;
        }
    }
    return span(tensor) < INT_MAX ? set(desc, tensor) : CUDNN_STATUS_NOT_SUPPORTED;
}

cudnnStatus_t cudnnDestroyTensorDescriptor(cudnnTensorDescriptor_t desc) {
    return destroy(desc);
}

cudnnStatus_t cudnnCreateFilterDescriptor(cudnnFilterDescriptor_t* desc) {
    return create(desc);
}

cudnnStatus_t cudnnSetFilter4dDescriptor(cudnnFilterDescriptor_t desc, cudnnDataType_t type,
                                         cudnnTensorFormat_t format, int k, int c, int h, int w) {
    const Extents extent = {k, c, h, w};
    const cudnnStatus_t status = check_packed(format, type, extent);
    return status == CUDNN_STATUS_SUCCESS
               ? set(desc, {{type, extent, packed_strides(format, extent)}, format})
               : status;
}

cudnnStatus_t cudnnDestroyFilterDescriptor(cudnnFilterDescriptor_t desc) {
    return destroy(desc);
}

cudnnStatus_t cudnnCreateConvolutionDescriptor(cudnnConvolutionDescriptor_t* desc) {
    return create(desc);
}

cudnnStatus_t cudnnSetConvolution2dDescriptor(cudnnConvolutionDescriptor_t desc, int pad_h,
                                              int pad_w, int stride_h, int stride_w, int dilation_h,
                                              int dilation_w, cudnnConvolutionMode_t mode,
                                              cudnnDataType_t compute_type) {
    if (!all_at_least(0, {pad_h, pad_w}) ||
        !all_at_least(1, {stride_h, stride_w, dilation_h, dilation_w}) ||
        (mode != CUDNN_CONVOLUTION && mode != CUDNN_CROSS_CORRELATION) || !valid(compute_type)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    return update(desc, [&](cudnnConvolutionStruct& d) {
        d.value.pad = {pad_h, pad_w};
        d.value.stride = {stride_h, stride_w};
        d.value.dilation = {dilation_h, dilation_w};
        d.value.mode = mode;
        d.value.compute_type = compute_type;
        d.set = true;
    });
}

cudnnStatus_t cudnnSetConvolutionMathType(cudnnConvolutionDescriptor_t desc, cudnnMathType_t type) {
    if (type < CUDNN_DEFAULT_MATH || type > CUDNN_FMA_MATH) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    return update(desc, [&](cudnnConvolutionStruct& d) { d.value.math_type = type; });
}

cudnnStatus_t cudnnGetConvolution2dForwardOutputDim(cudnnConvolutionDescriptor_t desc,
                                                    cudnnTensorDescriptor_t x_desc,
                                                    cudnnFilterDescriptor_t w_desc, int* n, int* c,
                                                    int* h, int* w) {
    Convolution conv;
    Tensor x;
    Filter filter;
    Extents y;
    if (!read(desc, &conv) || !read(x_desc, &x) || !read(w_desc, &filter) || n == nullptr ||
        c == nullptr || h == nullptr || w == nullptr || !output_extents(conv, x, filter, &y)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    std::tie(*n, *c, *h, *w) = std::tuple_cat(y);
    return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnDestroyConvolutionDescriptor(cudnnConvolutionDescriptor_t desc) {
    return destroy(desc);
}

cudnnStatus_t cudnnCreatePoolingDescriptor(cudnnPoolingDescriptor_t* desc) {
    return create(desc);
}

cudnnStatus_t cudnnSetPooling2dDescriptor(cudnnPoolingDescriptor_t desc, cudnnPoolingMode_t mode,
                                          cudnnNanPropagation_t max_nan, int window_h, int window_w,
                                          int pad_h, int pad_w, int stride_h, int stride_w) {
    if (mode < CUDNN_POOLING_MAX || mode > CUDNN_POOLING_MAX_DETERMINISTIC ||
        (max_nan != CUDNN_NOT_PROPAGATE_NAN && max_nan != CUDNN_PROPAGATE_NAN) ||
        !all_at_least(1, {window_h, window_w, stride_h, stride_w})) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    return set(desc, {mode, max_nan, {window_h, window_w}, {pad_h, pad_w}, {stride_h, stride_w}});
}

cudnnStatus_t cudnnGetPooling2dForwardOutputDim(cudnnPoolingDescriptor_t desc,
                                                cudnnTensorDescriptor_t x_desc, int* n, int* c,
                                                int* h, int* w) {
    Pooling pooling;
    Tensor x;
    Extents y;
    if (!read(desc, &pooling) || !read(x_desc, &x) || n == nullptr || c == nullptr ||
        h == nullptr || w == nullptr || !output_extents(pooling, x, &y)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    std::tie(*n, *c, *h, *w) = std::tuple_cat(y);
    return CUDNN_STATUS_SUCCESS;
}

cudnnStatus_t cudnnDestroyPoolingDescriptor(cudnnPoolingDescriptor_t desc) {
    return destroy(desc);
}
