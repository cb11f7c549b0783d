#ifndef VORN_CPU_LOSS_OPS_H_
#define VORN_CPU_LOSS_OPS_H_

#include <algorithm>
#include <cassert>
#include <cmath>

#include "vorn/cpu/kit/channels.h"
#include "vorn/cpu/kit/fold.h"
#include "vorn/cpu/kit/loops.h"
#include "vorn/rules/loss_rule.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the training objectives, on dense operands where nothing else is said.
namespace vorn {
namespace cpu {

// ---- Cross entropy on (outer, channel, inner) data, with a label and a mask per item (o, k)

inline void vorn_cross_entropy(const Tensor<float>& in, const Tensor<float>& label,
                               const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                               index_t channel, index_t inner, DType alpha, DType beta) {
    const float *in_p = in.get_ptr(), *label_p = label.get_ptr();
    const int* mask_p = mask.get_ptr();
    float* out_p = out.get_ptr();
    for (index_t o = 0, item = 0; o < outer; ++o) {
        for (index_t k = 0; k < inner; ++k, ++item) {
            const int label_val = static_cast<int>(label_p[item]);
            assert(label_val >= 0);
            out_p[item] = mask_p[item] == 1 ? alpha * in_p[(o * channel + label_val) * inner + k] +
                                                  beta * out_p[item]
                                            : beta * out_p[item];
        }
    }
}

/// The items of an outer index each own a position: loops over the positions of a channel.
inline void cross_entropy_bp_positions(const float* in, const float* label, const int* mask,
                                       float* out, index_t channel, index_t inner, float alpha,
                                       float beta) {
    for_each_part(channel, inner, [=](index_t k, index_t n, index_t repeat) {
        int labelled[kPositionChunk];  // the place of the labelled element, from `k` on
        int is_on[kPositionChunk];
        for (index_t j = 0; j < n; ++j) {
            const int label_val = static_cast<int>(label[k + j]);
            assert(label_val >= 0);
            labelled[j] = static_cast<int>(label_val * inner + j);
            is_on[j] = mask[k + j] != 0;
        }
        repeat_positions(labelled, n, repeat);
        repeat_positions(is_on, n, repeat);
        for_each_run(channel, inner, n, repeat, [&](index_t at, index_t length) {
            const float* x = in + k + at;
            float* d = out + k + at;
            const int *labelled_p = labelled, *is_on_p = is_on, first = static_cast<int>(at);
            for_each_element(static_cast<int>(length), [=](int j) {
                const bool is_label = first + j == labelled_p[j];
                d[j] = func::cross_entropy_bp(is_on_p[j], is_label, x[j], d[j], alpha, beta);
            });
        });
    });
}

/// inner of 1: a row per item.
inline void cross_entropy_bp_row(const float* in, int label_val, bool is_on, float* out,
                                 index_t channel, float alpha, float beta) {
    for_each_element(static_cast<int>(channel), [=](int c) {
        out[c] = func::cross_entropy_bp(is_on, c == label_val, in[c], out[c], alpha, beta);
    });
}

inline void vorn_cross_entropy_bp(const Tensor<float>& in, const Tensor<float>& label,
                                  const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner, DType alpha, DType beta) {
    for (index_t o = 0; o < outer; ++o) {
        const float *x = in.get_ptr() + o * channel * inner, *labels = label.get_ptr() + o * inner;
        const int* is_on = mask.get_ptr() + o * inner;
        float* d = out.get_ptr() + o * channel * inner;
        if (inner != 1) {
            cross_entropy_bp_positions(x, labels, is_on, d, channel, inner, alpha, beta);
            continue;
        }
        const int label_val = static_cast<int>(*labels);
        assert(label_val >= 0);
        cross_entropy_bp_row(x, label_val, *is_on != 0, d, channel, alpha, beta);
    }
}

// ---- Objectives that are sums of rows

/// out[i] = blend(sum, beta * out[i]) in rows with the mask 1, else beta * out[i], with the sum of
/// `dim_n` terms in ascending order. terms(i, j, n, result) gives those of row i from column j on.
template <typename Terms, typename Blend>
void blend_row_sums(const int* mask, float* out, index_t dim_m, index_t dim_n, float beta,
                    Terms terms, Blend blend) {
    index_t group[kRowGroup];
    int count = 0;
    for (index_t i = 0; i < dim_m; ++i) {
        if (mask[i] == 1) {
            group[count++] = i;
        } else {
            out[i] = beta * out[i];
        }
        if (count == 0 || (count < kRowGroup && i + 1 < dim_m)) {
            continue;
        }
        float sums[kRowGroup] = {};
        const auto terms_of_group = [&](int r, index_t j, index_t n, float* stage) {
            terms(group[r], j, n, stage);
        };
        add_terms_in_order(count, dim_n, terms_of_group, sums);
        for (int r = 0; r < count; ++r) {
            out[group[r]] = blend(sums[r], beta * out[group[r]]);
        }
        count = 0;
    }
}

inline void vorn_mean_squre_error(const Tensor<float>& in, const Tensor<float>& label,
                                  const Tensor<int>& mask, Tensor<float>& out, DType alpha,
                                  DType beta) {
    const index_t dim_m = in.get_h(), dim_n = in.get_w();
    const float *in_p = in.get_ptr(), *label_p = label.get_ptr();
    blend_row_sums(
        mask.get_ptr(), out.get_ptr(), dim_m, dim_n, beta,
        [=](index_t i, index_t j, index_t n, float* terms) {
            const auto square = [](float x, float y) { return (x - y) * (x - y); };
            transform_run(square, n, terms, in_p + i * dim_n + j, label_p + i * dim_n + j);
        },
        [=](float sum, float kept) { return sum * alpha * 0.5f + kept; });
}

inline void vorn_mean_squre_error_bp(const Tensor<float>& in, const Tensor<float>& label,
                                     const Tensor<int>& mask, Tensor<float>& out, DType alpha,
                                     DType beta) {
    const index_t dim_m = out.row(), dim_n = out.get_w();
    for (index_t i = 0, first = 0; i < dim_m; ++i, first += dim_n) {
        const bool is_on = mask.get_ptr()[i] == 1;
        const auto rule = [=](float y, float x, float old) {
            return func::mean_squre_error_bp(is_on, y, x, old, alpha, beta);
        };
        transform_run(rule, dim_n, out.get_ptr() + first, label.get_ptr() + first,
                      in.get_ptr() + first, out.get_ptr() + first);
    }
}

inline void vorn_rnnoise(const Tensor<float>& y_pred, const Tensor<float>& y_true,
                         const Tensor<int>& mask, Tensor<float>& cost, DType alpha, DType beta) {
    const index_t dim_m = y_pred.get_h(), dim_n = y_pred.get_w();
    const float *pred_p = y_pred.get_ptr(), *true_p = y_true.get_ptr();
    blend_row_sums(
        mask.get_ptr(), cost.get_ptr(), dim_m, dim_n, beta,
        [=](index_t i, index_t j, index_t n, float* terms) {
            transform_run([](float p, float t) { return func::rnnoise_cost(p, t); }, n, terms,
                          pred_p + i * dim_n + j, true_p + i * dim_n + j);
        },
        [=](float sum, float kept) { return alpha * sum + kept; });
}

inline void vorn_rnnoise_bp(const Tensor<float>& y_pred, const Tensor<float>& y_true,
                            const Tensor<int>& mask, Tensor<float>& delta, DType alpha,
                            DType beta) {
    const index_t dim_m = delta.row(), dim_n = delta.get_w();
    const float *pred_p = y_pred.get_ptr(), *true_p = y_true.get_ptr();
    float* delta_p = delta.get_ptr();
    for (index_t i = 0; i < dim_m; ++i, pred_p += dim_n, true_p += dim_n, delta_p += dim_n) {
        if (mask.get_ptr()[i] != 1) {
            transform_run([=](float old) { return beta * old; }, dim_n, delta_p, delta_p);
            continue;
        }
        const auto rule = [=](float p, float t, float old) {
            return func::rnnoise_bp(p, t, old, alpha, beta);
        };
        transform_run(rule, dim_n, delta_p, pred_p, true_p, delta_p);
    }
}

// ---- Levels of eight bits

// Folds the largest magnitude.
struct MaxMagnitude {
    float identity() const { return 0; }
    float combine(float max, float x) const { return std::fabs(x) > max ? std::fabs(x) : max; }
};

/// Pitches are honoured. The half is added in double.
inline void vorn_fixed_loss(const Tensor<float>& in, Tensor<float>& out) {
    constexpr index_t kStrip = 1024;
    const index_t dim_m = out.row(), dim_n = out.get_w(), ld_in = in.ld(), ld_out = out.ld();
    float bounds[kStrip];
    for_each_strip<kStrip>(dim_n, [&](index_t start, index_t width) {
        const float* in_p = in.get_ptr() + start;
        float *out_p = out.get_ptr() + start, *const max = bounds;
        fold_columns(
            MaxMagnitude(), dim_m, width, [=](index_t i, index_t j) { return in_p[i * ld_in + j]; },
            [=](index_t j, float magnitude) { max[j] = magnitude; });
        const auto rule = [](float x, float bound) {
            const float scale = 127 / bound;
            const double biased = scale * x + (x > 0 ? 0.5 : -0.5);
            return func::fixed_level(x, bound, biased) / scale;
        };
        for (index_t i = 0; i < dim_m; ++i) {
            transform_run(rule, width, out_p + i * ld_out, in_p + i * ld_in, max);
        }
    });
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_LOSS_OPS_H_
