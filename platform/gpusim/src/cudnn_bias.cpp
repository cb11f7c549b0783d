// A bias that is added to a tensor, and the gradient of one.
#include "cudnn_handle.h"

using gpusim::cudnn::Blend;
using gpusim::cudnn::enqueue;
using gpusim::cudnn::Extents;
using gpusim::cudnn::kC;
using gpusim::cudnn::kH;
using gpusim::cudnn::kN;
using gpusim::cudnn::kW;
using gpusim::cudnn::read;
using gpusim::cudnn::Tensor;

namespace {

void add(const Tensor& from, const float* a, const Tensor& to, float* c, const Blend& blend) {
    for (int n = 0; n < to.extent[kN]; ++n) {
        for (int ch = 0; ch < to.extent[kC]; ++ch) {
            for (int h = 0; h < to.extent[kH]; ++h) {
                const float* const from_row = a + from.offset(n, ch, h);
                float* const to_row = c + to.offset(n, ch, h);
                for (int w = 0; w < to.extent[kW]; ++w) {
                    blend(from_row[ptrdiff_t{from.stride[kW]} * w],
                          to_row + ptrdiff_t{to.stride[kW]} * w);
                }
            }
        }
    }
}

double sum_channel(const Tensor& dy_tensor, const float* dy, int channel) {
    double sum = 0;
    for (int n = 0; n < dy_tensor.extent[kN]; ++n) {
        for (int h = 0; h < dy_tensor.extent[kH]; ++h) {
            const float* const row = dy + dy_tensor.offset(n, channel, h);
            for (int w = 0; w < dy_tensor.extent[kW]; ++w) {
                sum += row[ptrdiff_t{dy_tensor.stride[kW]} * w];
            }
        }
    }
    return sum;
}

}  // namespace

cudnnStatus_t cudnnAddTensor(cudnnHandle_t handle, const void* alpha,
                             cudnnTensorDescriptor_t a_desc, const void* a, const void* beta,
                             cudnnTensorDescriptor_t c_desc, void* c) {
    Tensor from, to;
    if (handle == nullptr || alpha == nullptr || beta == nullptr || !read(a_desc, &from) ||
        !read(c_desc, &to)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    Tensor spread = from;
    for (int axis = 0; axis < 4; ++axis) {
        if (from.extent[axis] != to.extent[axis]) {
            if (from.extent[axis] != 1) {
                return CUDNN_STATUS_BAD_PARAM;
            }
            spread.stride[axis] = 0;
        }
    }
    return enqueue(__func__, handle, {{"A", a, from}}, {{"C", c, to}},
                   [=, blend = Blend(alpha, beta)] {
                       add(spread, static_cast<const float*>(a), to, static_cast<float*>(c), blend);
                   });
}

cudnnStatus_t cudnnConvolutionBackwardBias(cudnnHandle_t handle, const void* alpha,
                                           cudnnTensorDescriptor_t dy_desc, const void* dy,
                                           const void* beta, cudnnTensorDescriptor_t db_desc,
                                           void* db) {
    Tensor from, to;
    if (handle == nullptr || alpha == nullptr || beta == nullptr || !read(dy_desc, &from) ||
        !read(db_desc, &to) || to.extent != Extents{1, from.extent[kC], 1, 1}) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    return enqueue(__func__, handle, {{"dy", dy, from}}, {{"db", db, to}},
                   [=, blend = Blend(alpha, beta)] {
                       for (int channel = 0; channel < to.extent[kC]; ++channel) {
                           blend(sum_channel(from, static_cast<const float*>(dy), channel),
                                 static_cast<float*>(db) + to.offset(0, channel, 0));
                       }
                   });
}
