// Batch normalization of images.
#include <cmath>
#include <vector>

#include "cudnn_handle.h"

using gpusim::cudnn::Blend;
using gpusim::cudnn::enqueue;
using gpusim::cudnn::Extents;
using gpusim::cudnn::kC;
using gpusim::cudnn::kH;
using gpusim::cudnn::kN;
using gpusim::cudnn::kW;
using gpusim::cudnn::Operand;
using gpusim::cudnn::read;
using gpusim::cudnn::Tensor;

namespace {

/// The elements that share one value of the statistics: all images, and of each one channel or one
/// position.
struct Group {
    int n_end;
    int channel;
    int h_begin, h_end;
    int w_begin, w_end;

    double count() const { return double(n_end) * (h_end - h_begin) * (w_end - w_begin); }

    /// Calls work(n, c, h, w) for each element.
    template <class F>
    void for_each(F work) const {
        for (int n = 0; n < n_end; ++n) {
            for (int h = h_begin; h < h_end; ++h) {
                for (int w = w_begin; w < w_end; ++w) {
                    work(n, channel, h, w);
                }
            }
        }
    }
};

/// Calls work(group, offset of its statistics) for each value of the statistics.
template <class F>
void for_groups(const Tensor& x, const Tensor& statistics, F work) {
    for (int c = 0; c < statistics.extent[kC]; ++c) {
        for (int h = 0; h < statistics.extent[kH]; ++h) {
            for (int w = 0; w < statistics.extent[kW]; ++w) {
                const auto end = [&](int axis, int begin) {
                    return statistics.extent[axis] == 1 ? x.extent[axis] : begin + 1;
                };
                work(Group{x.extent[kN], c, h, end(kH, h), w, end(kW, w)},
                     statistics.offset(0, c, h, w));
            }
        }
    }
}

struct Moments {
    double mean;
    double variance;  // biased
};

Moments moments(const Group& group, const Tensor& tensor, const float* x) {
    double sum = 0, squares = 0;
    group.for_each([&](auto... at) { sum += x[tensor.offset(at...)]; });
    const double mean = sum / group.count();
    group.for_each([&](auto... at) {
        const double distance = x[tensor.offset(at...)] - mean;
        squares += distance * distance;
    });
    return {mean, squares / group.count()};
}

/// y = scale * (x - mean) * inverse_deviation + bias
struct Normalization {
    double mean;
    double inverse_deviation;
    double scale;
    double bias;
};

void normalize(const Group& group, const Normalization& norm, const Tensor& x_tensor,
               const float* x, const Tensor& y_tensor, float* y, const Blend& blend) {
    const double factor = norm.scale * norm.inverse_deviation;
    group.for_each([&](auto... at) {
        blend(factor * (x[x_tensor.offset(at...)] - norm.mean) + norm.bias,
              y + y_tensor.offset(at...));
    });
}

/// running += factor * (value - running), which does not read it for a factor of 1.
void update_running(double factor, double value, float* running) {
    *running = static_cast<float>(factor == 1 ? value : factor * value + (1 - factor) * *running);
}

/// The operands that all three operations have.
struct Layout {
    Tensor x;
    Tensor statistics;

    /// False if cuDNN would not take them.
    bool read(cudnnBatchNormMode_t mode, cudnnTensorDescriptor_t x_desc,
              cudnnTensorDescriptor_t statistics_desc, double epsilon) {
        if (!gpusim::cudnn::read(x_desc, &x) ||
            !gpusim::cudnn::read(statistics_desc, &statistics) ||
            !(epsilon >= CUDNN_BN_MIN_EPSILON)) {
            return false;
        }
        const auto [n, c, h, w] = x.extent;
        (void)n;
        switch (mode) {
            case CUDNN_BATCHNORM_PER_ACTIVATION:
                return statistics.extent == Extents{1, c, h, w};
            case CUDNN_BATCHNORM_SPATIAL:
            case CUDNN_BATCHNORM_SPATIAL_PERSISTENT:
                return statistics.extent == Extents{1, c, 1, 1};
        }
        return false;
    }

    /// Whether the descriptor is of a tensor of the shape of x, of which it gives the layout.
    bool read_like_x(cudnnTensorDescriptor_t desc, Tensor* tensor) const {
        return gpusim::cudnn::read(desc, tensor) && tensor->extent == x.extent;
    }
};

bool paired(const void* a, const void* b) {
    return (a == nullptr) == (b == nullptr);
}

Operand optional(const char* name, const void* data, const Tensor& tensor) {
    return data == nullptr ? Operand(name, data, size_t{0}) : Operand(name, data, tensor);
}

const float* in(const void* pointer) {
    return static_cast<const float*>(pointer);
}

float* out(void* pointer) {
    return static_cast<float*>(pointer);
}

}  // namespace

cudnnStatus_t cudnnBatchNormalizationForwardInference(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha, const void* beta,
    cudnnTensorDescriptor_t x_desc, const void* x, cudnnTensorDescriptor_t y_desc, void* y,
    cudnnTensorDescriptor_t statistics_desc, const void* scale, const void* bias, const void* mean,
    const void* variance, double epsilon) {
    Layout layout;
    Tensor y_tensor;
    if (handle == nullptr || alpha == nullptr || beta == nullptr ||
        !layout.read(mode, x_desc, statistics_desc, epsilon) ||
        !layout.read_like_x(y_desc, &y_tensor)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    const Tensor& statistics = layout.statistics;
    const bool in_place = true;
    return enqueue(
        __func__, handle,
        {{"x", x, layout.x},
         {"scale", scale, statistics},
         {"bias", bias, statistics},
         {"mean", mean, statistics},
         {"variance", variance, statistics}},
        {{"y", y, y_tensor}},
        [=, blend = Blend(alpha, beta)] {
            for_groups(layout.x, layout.statistics, [&](const Group& group, ptrdiff_t at) {
                const double inverse_deviation = 1 / std::sqrt(in(variance)[at] + epsilon);
                normalize(group, {in(mean)[at], inverse_deviation, in(scale)[at], in(bias)[at]},
                          layout.x, in(x), y_tensor, out(y), blend);
            });
        },
        in_place);
}

cudnnStatus_t cudnnBatchNormalizationForwardTraining(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha, const void* beta,
    cudnnTensorDescriptor_t x_desc, const void* x, cudnnTensorDescriptor_t y_desc, void* y,
    cudnnTensorDescriptor_t statistics_desc, const void* scale, const void* bias, double factor,
    void* running_mean, void* running_variance, double epsilon, void* saved_mean,
    void* saved_inverse_deviation) {
    Layout layout;
    Tensor y_tensor;
    if (handle == nullptr || alpha == nullptr || beta == nullptr ||
        !layout.read(mode, x_desc, statistics_desc, epsilon) ||
        !layout.read_like_x(y_desc, &y_tensor) || !paired(running_mean, running_variance) ||
        !paired(saved_mean, saved_inverse_deviation)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    const Tensor& statistics = layout.statistics;
    return enqueue(
        __func__, handle,
        {{"x", x, layout.x}, {"scale", scale, statistics}, {"bias", bias, statistics}},
        {{"y", y, y_tensor},
         optional("the running mean", running_mean, statistics),
         optional("the running variance", running_variance, statistics),
         optional("the saved mean", saved_mean, statistics),
         optional("the saved inverse deviation", saved_inverse_deviation, statistics)},
        [=, blend = Blend(alpha, beta)] {
            for_groups(layout.x, layout.statistics, [&](const Group& group, ptrdiff_t at) {
                const auto [mean, variance] = moments(group, layout.x, in(x));
                const double inverse_deviation = 1 / std::sqrt(variance + epsilon);
                normalize(group, {mean, inverse_deviation, in(scale)[at], in(bias)[at]}, layout.x,
                          in(x), y_tensor, out(y), blend);
                if (running_mean != nullptr) {
                    const double count = group.count();
                    const double unbiased = count > 1 ? variance * count / (count - 1) : variance;
                    update_running(factor, mean, out(running_mean) + at);
                    update_running(factor, unbiased, out(running_variance) + at);
                }
                if (saved_mean != nullptr) {
                    out(saved_mean)[at] = static_cast<float>(mean);
                    out(saved_inverse_deviation)[at] = static_cast<float>(inverse_deviation);
                }
            });
        });
}

cudnnStatus_t cudnnBatchNormalizationBackward(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha_data, const void* beta_data,
    const void* alpha_param, const void* beta_param, cudnnTensorDescriptor_t x_desc, const void* x,
    cudnnTensorDescriptor_t dy_desc, const void* dy, cudnnTensorDescriptor_t dx_desc, void* dx,
    cudnnTensorDescriptor_t statistics_desc, const void* scale, void* d_scale, void* d_bias,
    double epsilon, const void* saved_mean, const void* saved_inverse_deviation) {
    Layout layout;
    Tensor dy_tensor, dx_tensor;
    if (handle == nullptr || alpha_data == nullptr || beta_data == nullptr ||
        alpha_param == nullptr || beta_param == nullptr ||
        !layout.read(mode, x_desc, statistics_desc, epsilon) ||
        !layout.read_like_x(dy_desc, &dy_tensor) || !layout.read_like_x(dx_desc, &dx_tensor) ||
        !paired(saved_mean, saved_inverse_deviation)) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    const Tensor& statistics = layout.statistics;
    return enqueue(
        __func__, handle,
        {{"x", x, layout.x},
         {"dy", dy, dy_tensor},
         {"scale", scale, statistics},
         optional("the saved mean", saved_mean, statistics),
         optional("the saved inverse deviation", saved_inverse_deviation, statistics)},
        {{"dx", dx, dx_tensor},
         {"the gradient of scale", d_scale, statistics},
         {"the gradient of bias", d_bias, statistics}},
        [=, data_blend = Blend(alpha_data, beta_data),
         param_blend = Blend(alpha_param, beta_param)] {
            for_groups(layout.x, layout.statistics, [&](const Group& group, ptrdiff_t at) {
                double mean, inverse_deviation;
                if (saved_mean != nullptr) {
                    mean = in(saved_mean)[at];
                    inverse_deviation = in(saved_inverse_deviation)[at];
                } else {
                    const Moments m = moments(group, layout.x, in(x));
                    mean = m.mean;
                    inverse_deviation = 1 / std::sqrt(m.variance + epsilon);
                }
                const auto normalized = [&](auto... index) {
                    return (in(x)[layout.x.offset(index...)] - mean) * inverse_deviation;
                };
                double sum = 0, sum_normalized = 0;
                group.for_each([&](auto... index) {
                    const double gradient = in(dy)[dy_tensor.offset(index...)];
                    sum += gradient;
                    sum_normalized += gradient * normalized(index...);
                });
                // The mean and the deviation depend on x as well.
                const double factor = in(scale)[at] * inverse_deviation;
                group.for_each([&](auto... index) {
                    const double gradient = in(dy)[dy_tensor.offset(index...)];
                    data_blend(factor * (gradient - (sum + normalized(index...) * sum_normalized) /
                                                        group.count()),
                               out(dx) + dx_tensor.offset(index...));
                });
                param_blend(sum_normalized, out(d_scale) + at);
                param_blend(sum, out(d_bias) + at);
            });
        });
}
