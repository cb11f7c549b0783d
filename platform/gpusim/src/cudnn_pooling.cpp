// Pooling of images by maximum and by average.
#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "cudnn_handle.h"

using gpusim::cudnn::Blend;
using gpusim::cudnn::enqueue;
using gpusim::cudnn::Extents;
using gpusim::cudnn::kC;
using gpusim::cudnn::kH;
using gpusim::cudnn::kN;
using gpusim::cudnn::kW;
using gpusim::cudnn::Pooling;
using gpusim::cudnn::read;
using gpusim::cudnn::Tensor;

namespace {

/// The part of a window that lies inside the image; never empty, since less than a window's size is
/// padded.
struct Window {
    Window(const Pooling& pooling, const Tensor& x, int out_row, int out_col) {
        const int out[] = {out_row, out_col};
        for (int i = 0; i < 2; ++i) {
            const int start = out[i] * pooling.stride[i] - pooling.pad[i];
            begin[i] = std::max(start, 0);
            end[i] = std::min(start + pooling.window[i], x.extent[kH + i]);
        }
    }
    int size() const { return (end[0] - begin[0]) * (end[1] - begin[1]); }

    int begin[2], end[2];
};

bool is_max(const Pooling& pooling) {
    return pooling.mode == CUDNN_POOLING_MAX || pooling.mode == CUDNN_POOLING_MAX_DETERMINISTIC;
}

/// The largest element, from the lowest finite number up; a NaN only if NaNs are propagated.
double maximum(const Pooling& pooling, const Window& window, const Tensor& x,
               const float* x_plane) {
    float max = std::numeric_limits<float>::lowest();
    for (int h = window.begin[0]; h < window.end[0]; ++h) {
        for (int w = window.begin[1]; w < window.end[1]; ++w) {
            const float value = x_plane[x.offset(0, 0, h, w)];
            if (std::isnan(value) && pooling.max_nan == CUDNN_PROPAGATE_NAN) {
                return value;
            }
            max = value > max ? value : max;
        }
    }
    return max;
}

int divisor(const Pooling& pooling, const Window& window) {
    return pooling.mode == CUDNN_POOLING_AVERAGE_COUNT_INCLUDE_PADDING
               ? pooling.window[0] * pooling.window[1]
               : window.size();
}

double average(const Pooling& pooling, const Window& window, const Tensor& x,
               const float* x_plane) {
    double sum = 0;
    for (int h = window.begin[0]; h < window.end[0]; ++h) {
        for (int w = window.begin[1]; w < window.end[1]; ++w) {
            sum += x_plane[x.offset(0, 0, h, w)];
        }
    }
    return sum / divisor(pooling, window);
}

void forward(const Pooling& pooling, const Tensor& x, const float* x_plane, const Tensor& y,
             const Blend& blend, float* y_plane) {
    for (int row = 0; row < y.extent[kH]; ++row) {
        for (int col = 0; col < y.extent[kW]; ++col) {
            const Window window(pooling, x, row, col);
            blend(is_max(pooling) ? maximum(pooling, window, x, x_plane)
                                  : average(pooling, window, x, x_plane),
                  y_plane + y.offset(0, 0, row, col));
        }
    }
}

/// The gradient of one plane, packed. An element of a window takes the part of dy that it had in y:
/// all of it if it is the maximum (the first in row-major order to equal y), or its share in the
/// average.
void add_gradients(const Pooling& pooling, const Tensor& x, const float* x_plane, const Tensor& y,
                   const float* y_plane, const float* dy_plane, std::vector<double>* dx) {
    const auto add_to_maximum = [&](const Window& window, float max, double gradient) {
        for (int h = window.begin[0]; h < window.end[0]; ++h) {
            for (int w = window.begin[1]; w < window.end[1]; ++w) {
                const float value = x_plane[x.offset(0, 0, h, w)];
                if (value == max || (std::isnan(value) && std::isnan(max))) {
                    (*dx)[h * x.extent[kW] + w] += gradient;
                    return;
                }
            }
        }
    };
    const auto add_to_all = [&](const Window& window, double gradient) {
        for (int h = window.begin[0]; h < window.end[0]; ++h) {
            for (int w = window.begin[1]; w < window.end[1]; ++w) {
                (*dx)[h * x.extent[kW] + w] += gradient;
            }
        }
    };
    for (int row = 0; row < y.extent[kH]; ++row) {
        for (int col = 0; col < y.extent[kW]; ++col) {
            const Window window(pooling, x, row, col);
            const ptrdiff_t at = y.offset(0, 0, row, col);
            if (is_max(pooling)) {
                add_to_maximum(window, y_plane[at], dy_plane[at]);
            } else {
                add_to_all(window, double{dy_plane[at]} / divisor(pooling, window));
            }
        }
    }
}

void store_plane(const std::vector<double>& gradients, const Tensor& dx, const Blend& blend,
                 float* dx_plane) {
    const double* next = gradients.data();
    for (int h = 0; h < dx.extent[kH]; ++h) {
        for (int w = 0; w < dx.extent[kW]; ++w) {
            blend(*next++, dx_plane + dx.offset(0, 0, h, w));
        }
    }
}

/// Calls work(n, c) for all planes.
template <class F>
void for_planes(const Tensor& tensor, F work) {
    for (int n = 0; n < tensor.extent[kN]; ++n) {
        for (int c = 0; c < tensor.extent[kC]; ++c) {
            work(n, c);
        }
    }
}

/// Reads the descriptors, and checks that `y` has the size that pooling gives.
cudnnStatus_t read_pooling(cudnnPoolingDescriptor_t pooling_desc, cudnnTensorDescriptor_t x_desc,
                           cudnnTensorDescriptor_t y_desc, Pooling* pooling, Tensor* x, Tensor* y) {
    Extents extents;
    if (!read(pooling_desc, pooling) || !read(x_desc, x) || !read(y_desc, y)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    for (int i = 0; i < 2; ++i) {
        if (pooling->pad[i] < 0 || pooling->pad[i] >= pooling->window[i]) {
            return CUDNN_STATUS_NOT_SUPPORTED;
        }
    }
    return output_extents(*pooling, *x, &extents) && extents == y->extent ? CUDNN_STATUS_SUCCESS
                                                                          : CUDNN_STATUS_BAD_PARAM;
}

}  // namespace

cudnnStatus_t cudnnPoolingForward(cudnnHandle_t handle, cudnnPoolingDescriptor_t pooling_desc,
                                  const void* alpha, cudnnTensorDescriptor_t x_desc, const void* x,
                                  const void* beta, cudnnTensorDescriptor_t y_desc, void* y) {
    Pooling pooling;
    Tensor x_tensor, y_tensor;
    if (handle == nullptr || alpha == nullptr || beta == nullptr) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    const cudnnStatus_t status =
        read_pooling(pooling_desc, x_desc, y_desc, &pooling, &x_tensor, &y_tensor);
    if (status != CUDNN_STATUS_SUCCESS) {
        return status;
    }
    return enqueue(
        __func__, handle, {{"x", x, x_tensor}}, {{"y", y, y_tensor}},
        [=, blend = Blend(alpha, beta)] {
            for_planes(x_tensor, [&](int n, int c) {
                forward(pooling, x_tensor, static_cast<const float*>(x) + x_tensor.offset(n, c, 0),
                        y_tensor, blend, static_cast<float*>(y) + y_tensor.offset(n, c, 0));
            });
        });
}

cudnnStatus_t cudnnPoolingBackward(cudnnHandle_t handle, cudnnPoolingDescriptor_t pooling_desc,
                                   const void* alpha, cudnnTensorDescriptor_t y_desc, const void* y,
                                   cudnnTensorDescriptor_t dy_desc, const void* dy,
                                   cudnnTensorDescriptor_t x_desc, const void* x, const void* beta,
                                   cudnnTensorDescriptor_t dx_desc, void* dx) {
    Pooling pooling;
    Tensor x_tensor, y_tensor, dx_tensor, dy_tensor;
    if (handle == nullptr || alpha == nullptr || beta == nullptr || !read(dx_desc, &dx_tensor) ||
        !read(dy_desc, &dy_tensor)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    const cudnnStatus_t status =
        read_pooling(pooling_desc, x_desc, y_desc, &pooling, &x_tensor, &y_tensor);
    if (status != CUDNN_STATUS_SUCCESS) {
        return status;
    }
    // One gradient is laid out like its tensor, and the other like its own.
    if (dy_tensor.extent != y_tensor.extent || dy_tensor.stride != y_tensor.stride ||
        dx_tensor.extent != x_tensor.extent || dx_tensor.stride != x_tensor.stride) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    return enqueue(
        __func__, handle, {{"x", x, x_tensor}, {"y", y, y_tensor}, {"dy", dy, dy_tensor}},
        {{"dx", dx, dx_tensor}}, [=, blend = Blend(alpha, beta)] {
            std::vector<double> gradients(static_cast<size_t>(x_tensor.extent[kH]) *
                                          x_tensor.extent[kW]);
            for_planes(x_tensor, [&](int n, int c) {
                const ptrdiff_t in = x_tensor.offset(n, c, 0), out = y_tensor.offset(n, c, 0);
                std::fill(gradients.begin(), gradients.end(), 0.0);
                add_gradients(pooling, x_tensor, static_cast<const float*>(x) + in, y_tensor,
                              static_cast<const float*>(y) + out,
                              static_cast<const float*>(dy) + out, &gradients);
                store_plane(gradients, dx_tensor, blend, static_cast<float*>(dx) + in);
            });
        });
}
