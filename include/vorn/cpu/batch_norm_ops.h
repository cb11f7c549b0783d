#ifndef VORN_CPU_BATCH_NORM_OPS_H_
#define VORN_CPU_BATCH_NORM_OPS_H_

#include <math.h>

#include <algorithm>
#include <type_traits>

#include "vorn/cpu/kit/loops.h"
#include "vorn/tensor/tensor.h"

/// Host forms of batch normalization over frames. Each column sums in the order of its rows; memory
/// is walked by rows, in strips of columns whose running sums and parameters stay in the L1 cache.
/// y may be x.
namespace vorn {
namespace cpu {

constexpr index_t kNormStrip = 1024;  ///< Columns of a strip.
constexpr index_t kNormRows = 4;      ///< Rows that share a load of their columns' parameters.

inline void vorn_audio_batch_norm_inf(const Tensor<float>& x, const Tensor<float>& scale,
                                      const Tensor<float>& bias, const Tensor<float>& mean,
                                      const Tensor<float>& var, const Tensor<int>& mask,
                                      Tensor<float>& out, DType) {
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const float *x_p = x.get_ptr(), *scale_p = scale.get_ptr(), *bias_p = bias.get_ptr(),
                *mean_p = mean.get_ptr(), *var_p = var.get_ptr();
    const int* mask_p = mask.get_ptr();
    float* out_p = out.get_ptr();
    const auto norm = [=](index_t first, auto rows) {
        const float* in = x_p + first * dim_n;
        float* y = out_p + first * dim_n;
        for_each_element(dim_n, [=](index_t j) {
            const float m = mean_p[j], v = var_p[j], s = scale_p[j], b = bias_p[j];
            for (index_t r = 0; r < rows; ++r) {
                const index_t pos = r * dim_n + j;
                y[pos] = (in[pos] - m) * v * s + b;
            }
        });
    };
    const auto is_padding = [](int value) { return value == -1; };
    for_each_rows<kNormRows>(dim_m, [=](index_t first, auto rows) {
        if (std::none_of(mask_p + first, mask_p + first + rows, is_padding)) {
            norm(first, rows);
            return;
        }
        for (index_t r = first; r < first + rows; ++r) {
            if (is_padding(mask_p[r])) {
                std::fill_n(out_p + r * dim_n, dim_n, 0.0f);
            } else {
                norm(r, std::integral_constant<index_t, 1>());
            }
        }
    });
}

inline void vorn_audio_batch_norm_train(const Tensor<float>& x, const Tensor<float>& scale,
                                        const Tensor<float>& bias, const Tensor<int>& mask,
                                        Tensor<float>& run_mean, Tensor<float>& run_var,
                                        Tensor<float>& statis_mean, Tensor<float>& statis_var,
                                        Tensor<float>& saved_mean, Tensor<float>& saved_inv_std,
                                        Tensor<float>& y, int real_frame_size, DType exp_avg_factor,
                                        DType statis_factor, DType epsilon) {
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const int* mask_p = mask.get_ptr();
    float sums[kNormStrip], squares[kNormStrip];
    for_each_strip<kNormStrip>(dim_n, [&](index_t start, index_t width) {
        float *const sum = sums, *const square = squares;
        std::fill_n(sum, width, 0.0f);
        std::fill_n(square, width, 0.0f);
        const float* in = x.get_ptr() + start;
        for_each_rows<kNormRows>(dim_m, [=](index_t first, auto rows) {
            const float* x_p = in + first * dim_n;
            const int* weight = mask_p + first;
            for_each_element(width, [=](index_t j) {
                float s = sum[j], q = square[j];
                for (index_t r = 0; r < rows; ++r) {
                    const float a = weight[r] * x_p[r * dim_n + j];
                    s += a;
                    q += a * a;
                }
                sum[j] = s;
                square[j] = q;
            });
        });

        float *mean = run_mean.get_ptr() + start, *var = run_var.get_ptr() + start,
              *all_mean = statis_mean.get_ptr() + start, *all_var = statis_var.get_ptr() + start,
              *mean_out = saved_mean.get_ptr() + start, *inv_std = saved_inv_std.get_ptr() + start;
        for_each_element(width, [=](index_t j) {
            const float m = sum[j] / real_frame_size, v = square[j] / real_frame_size - m * m;
            mean[j] = (1 - exp_avg_factor) * mean[j] + exp_avg_factor * m;
            var[j] = (1 - exp_avg_factor) * var[j] + exp_avg_factor * v;
            mean_out[j] = mean[j];
            inv_std[j] = 1 / sqrtf(var[j] + epsilon);
            all_mean[j] = all_mean[j] * statis_factor + m;
            all_var[j] = all_var[j] * statis_factor + v;
        });

        const float *scale_p = scale.get_ptr() + start, *bias_p = bias.get_ptr() + start;
        float* out = y.get_ptr() + start;
        for_each_rows<kNormRows>(dim_m, [=](index_t first, auto rows) {
            const float* x_p = in + first * dim_n;
            const int* weight = mask_p + first;
            float* y_p = out + first * dim_n;
            for_each_element(width, [=](index_t j) {
                const float m = mean[j], i = inv_std[j], s = scale_p[j], b = bias_p[j];
                for (index_t r = 0; r < rows; ++r) {
                    const index_t pos = r * dim_n + j;
                    y_p[pos] = (s * (x_p[pos] - m) * i + b) * weight[r];
                }
            });
        });
    });
}

inline void vorn_audio_batch_norm_bp(const Tensor<float>& x, const Tensor<float>& dy,
                                     const Tensor<float>& scale, const Tensor<float>& saved_mean,
                                     const Tensor<float>& saved_inv_std, const Tensor<int>& mask,
                                     Tensor<float>& dscale, Tensor<float>& dbias, Tensor<float>& dx,
                                     int real_frame_size, DType, DType) {
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const int* mask_p = mask.get_ptr();
    float factors[kNormStrip];
    for_each_strip<kNormStrip>(dim_n, [&](index_t start, index_t width) {
        const float *in = x.get_ptr() + start, *error = dy.get_ptr() + start,
                    *scale_p = scale.get_ptr() + start, *mean = saved_mean.get_ptr() + start,
                    *inv_std = saved_inv_std.get_ptr() + start;
        float *scale_sum = dscale.get_ptr() + start, *bias_sum = dbias.get_ptr() + start;
        std::fill_n(scale_sum, width, 0.0f);
        std::fill_n(bias_sum, width, 0.0f);
        for_each_rows<kNormRows>(dim_m, [=](index_t first, auto rows) {
            const float *x_p = in + first * dim_n, *dy_p = error + first * dim_n;
            const int* weight = mask_p + first;
            for_each_element(width, [=](index_t j) {
                float s = scale_sum[j], b = bias_sum[j];
                for (index_t r = 0; r < rows; ++r) {
                    const index_t pos = r * dim_n + j;
                    const float e = dy_p[pos] * weight[r];
                    b += e;
                    s += inv_std[j] * e * (x_p[pos] - mean[j]);
                }
                scale_sum[j] = s;
                bias_sum[j] = b;
            });
        });

        float* const factor = factors;
        for_each_element(width, [=](index_t j) { factor[j] = scale_p[j] * inv_std[j]; });
        const float frames = real_frame_size;
        float* out = dx.get_ptr() + start;
        for (index_t r = 0; r < dim_m; ++r) {
            const float weight = mask_p[r];
            for_each_element(width, [=, first = r * dim_n](index_t j) {
                const index_t pos = first + j;
                const float h = inv_std[j] * (in[pos] - mean[j]);
                out[pos] =
                    factor[j] * (error[pos] - (h * scale_sum[j] + bias_sum[j]) / frames) * weight;
            });
        }
    });
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_BATCH_NORM_OPS_H_
