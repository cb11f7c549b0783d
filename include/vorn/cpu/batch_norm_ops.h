#ifndef VORN_CPU_BATCH_NORM_OPS_H_
#define VORN_CPU_BATCH_NORM_OPS_H_

#include <math.h>

#include <algorithm>
#include <cstring>

#include "vorn/tensor/tensor.h"

/// Host forms of batch normalization over frames. Each column sums in the order of its rows; memory
/// is walked by rows, in strips of columns whose running sums and parameters stay in the L1 cache.
/// `ivdep` in the loops, because an element depends on its own position only: y may be x.
namespace vorn {
namespace cpu {

constexpr index_t kNormStrip = 1024;  ///< Columns of a strip.
constexpr index_t kNormRows = 4;      ///< Rows that share a load of their columns' parameters.

/// sum += a and square += a^2 for a = mask * x, over `rows` rows of `width` columns.
template <index_t rows>
void add_norm_moments(const float* x, index_t ld, const int* mask, index_t width, float* sum,
                      float* square) {
#pragma GCC ivdep
    for (index_t j = 0; j < width; ++j) {
        float s = sum[j], q = square[j];
        for (index_t r = 0; r < rows; ++r) {
            const float a = mask[r] * x[r * ld + j];
            s += a;
            q += a * a;
        }
        sum[j] = s;
        square[j] = q;
    }
}

/// dbias += e and dscale += inv_std * e * (x - mean) for e = dy * mask, likewise.
template <index_t rows>
void add_norm_errors(const float* x, const float* dy, index_t ld, const int* mask,
                     const float* mean, const float* inv_std, index_t width, float* dscale,
                     float* dbias) {
#pragma GCC ivdep
    for (index_t j = 0; j < width; ++j) {
        float s = dscale[j], b = dbias[j];
        for (index_t r = 0; r < rows; ++r) {
            const float e = dy[r * ld + j] * mask[r];
            b += e;
            s += inv_std[j] * e * (x[r * ld + j] - mean[j]);
        }
        dscale[j] = s;
        dbias[j] = b;
    }
}

/// out = (x - mean) * var * scale + bias, likewise.
template <index_t rows>
void norm_by_statistics(const float* x, index_t ld, const float* mean, const float* var,
                        const float* scale, const float* bias, index_t width, float* out) {
#pragma GCC ivdep
    for (index_t j = 0; j < width; ++j) {
        const float m = mean[j], v = var[j], s = scale[j], b = bias[j];
        for (index_t r = 0; r < rows; ++r) {
            out[r * ld + j] = (x[r * ld + j] - m) * v * s + b;
        }
    }
}

/// out = (scale * (x - mean) * inv_std + bias) * mask, likewise.
template <index_t rows>
void norm_by_batch(const float* x, index_t ld, const int* mask, const float* mean,
                   const float* inv_std, const float* scale, const float* bias, index_t width,
                   float* out) {
#pragma GCC ivdep
    for (index_t j = 0; j < width; ++j) {
        const float m = mean[j], i = inv_std[j], s = scale[j], b = bias[j];
        for (index_t r = 0; r < rows; ++r) {
            out[r * ld + j] = (s * (x[r * ld + j] - m) * i + b) * mask[r];
        }
    }
}

inline void vorn_audio_batch_norm_inf(const Tensor<float>& x, const Tensor<float>& scale,
                                      const Tensor<float>& bias, const Tensor<float>& mean,
                                      const Tensor<float>& var, const Tensor<int>& mask,
                                      Tensor<float>& out, DType) {
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const float *x_p = x.get_ptr(), *scale_p = scale.get_ptr(), *bias_p = bias.get_ptr(),
                *mean_p = mean.get_ptr(), *var_p = var.get_ptr();
    const int* mask_p = mask.get_ptr();
    float* out_p = out.get_ptr();
    const auto is_padding = [](int value) { return value == -1; };
    for (index_t r = 0, rows; r < dim_m; r += rows) {
        rows = std::min(kNormRows, dim_m - r);
        const index_t pos = r * dim_n;
        if (rows == kNormRows && std::none_of(mask_p + r, mask_p + r + rows, is_padding)) {
            norm_by_statistics<kNormRows>(x_p + pos, dim_n, mean_p, var_p, scale_p, bias_p, dim_n,
                                          out_p + pos);
            continue;
        }
        rows = 1;
        if (is_padding(mask_p[r])) {
            memset(out_p + pos, 0, dim_n * sizeof(float));
        } else {
            norm_by_statistics<1>(x_p + pos, dim_n, mean_p, var_p, scale_p, bias_p, dim_n,
                                  out_p + pos);
        }
    }
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
    float sum[kNormStrip], square[kNormStrip];
    for (index_t start = 0; start < dim_n; start += kNormStrip) {
        const index_t width = std::min(kNormStrip, dim_n - start);
        const float* x_p = x.get_ptr() + start;
        std::fill_n(sum, width, 0.0f);
        std::fill_n(square, width, 0.0f);
        index_t r = 0;
        for (; r + kNormRows <= dim_m; r += kNormRows) {
            add_norm_moments<kNormRows>(x_p + r * dim_n, dim_n, mask_p + r, width, sum, square);
        }
        for (; r < dim_m; ++r) {
            add_norm_moments<1>(x_p + r * dim_n, dim_n, mask_p + r, width, sum, square);
        }

        const float *scale_p = scale.get_ptr() + start, *bias_p = bias.get_ptr() + start;
        float *mean = run_mean.get_ptr() + start, *var = run_var.get_ptr() + start,
              *all_mean = statis_mean.get_ptr() + start, *all_var = statis_var.get_ptr() + start,
              *mean_out = saved_mean.get_ptr() + start, *inv_std = saved_inv_std.get_ptr() + start;
#pragma GCC ivdep
        for (index_t j = 0; j < width; ++j) {
            const float m = sum[j] / real_frame_size, v = square[j] / real_frame_size - m * m;
            mean[j] = (1 - exp_avg_factor) * mean[j] + exp_avg_factor * m;
            var[j] = (1 - exp_avg_factor) * var[j] + exp_avg_factor * v;
            mean_out[j] = mean[j];
            inv_std[j] = 1 / sqrtf(var[j] + epsilon);
            all_mean[j] = all_mean[j] * statis_factor + m;
            all_var[j] = all_var[j] * statis_factor + v;
        }

        float* out = y.get_ptr() + start;
        for (r = 0; r + kNormRows <= dim_m; r += kNormRows) {
            norm_by_batch<kNormRows>(x_p + r * dim_n, dim_n, mask_p + r, mean, inv_std, scale_p,
                                     bias_p, width, out + r * dim_n);
        }
        for (; r < dim_m; ++r) {
            norm_by_batch<1>(x_p + r * dim_n, dim_n, mask_p + r, mean, inv_std, scale_p, bias_p,
                             width, out + r * dim_n);
        }
    }
}

inline void vorn_audio_batch_norm_bp(const Tensor<float>& x, const Tensor<float>& dy,
                                     const Tensor<float>& scale, const Tensor<float>& saved_mean,
                                     const Tensor<float>& saved_inv_std, const Tensor<int>& mask,
                                     Tensor<float>& dscale, Tensor<float>& dbias, Tensor<float>& dx,
                                     int real_frame_size, DType, DType) {
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const int* mask_p = mask.get_ptr();
    float factor[kNormStrip];
    for (index_t start = 0; start < dim_n; start += kNormStrip) {
        const index_t width = std::min(kNormStrip, dim_n - start);
        const float *x_p = x.get_ptr() + start, *dy_p = dy.get_ptr() + start,
                    *scale_p = scale.get_ptr() + start, *mean = saved_mean.get_ptr() + start,
                    *inv_std = saved_inv_std.get_ptr() + start;
        float *scale_sum = dscale.get_ptr() + start, *bias_sum = dbias.get_ptr() + start;
        std::fill_n(scale_sum, width, 0.0f);
        std::fill_n(bias_sum, width, 0.0f);
        index_t r = 0;
        for (; r + kNormRows <= dim_m; r += kNormRows) {
            const index_t pos = r * dim_n;
            add_norm_errors<kNormRows>(x_p + pos, dy_p + pos, dim_n, mask_p + r, mean, inv_std,
                                       width, scale_sum, bias_sum);
        }
        for (; r < dim_m; ++r) {
            const index_t pos = r * dim_n;
            add_norm_errors<1>(x_p + pos, dy_p + pos, dim_n, mask_p + r, mean, inv_std, width,
                               scale_sum, bias_sum);
        }

        for (index_t j = 0; j < width; ++j) {
            factor[j] = scale_p[j] * inv_std[j];
        }
        const float frames = real_frame_size;
        for (r = 0; r < dim_m; ++r) {
            const float *in = x_p + r * dim_n, *error = dy_p + r * dim_n, weight = mask_p[r];
            float* out = dx.get_ptr() + start + r * dim_n;
#pragma GCC ivdep
            for (index_t j = 0; j < width; ++j) {
                const float h = inv_std[j] * (in[j] - mean[j]);
                out[j] =
                    factor[j] * (error[j] - (h * scale_sum[j] + bias_sum[j]) / frames) * weight;
            }
        }
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_BATCH_NORM_OPS_H_
