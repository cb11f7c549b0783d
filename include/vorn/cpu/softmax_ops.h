#ifndef VORN_CPU_SOFTMAX_OPS_H_
#define VORN_CPU_SOFTMAX_OPS_H_

#include <algorithm>

#include "vorn/cpu/channels.h"
#include "vorn/cpu/iterator.h"
#include "vorn/cpu/lanes.h"
#include "vorn/cpu/loops.h"
#include "vorn/cpu/reduce.h"
#include "vorn/rules/vector_math.h"
#include "vorn/tensor/tensor.h"

/// Host forms of softmax over the channels of dense (outer, channel, inner) data. Each sum runs in
/// ascending order of the channel, one rounding after the other; the loops are parallel over sums
/// instead: eight rows at a time where inner is 1, the positions of a channel elsewhere.
namespace vorn {
namespace cpu {

inline constexpr int kRowGroup = 8;              ///< Rows whose sums run side by side.
inline constexpr index_t kColumnChunk = 256;     ///< Columns of such rows, for the L1 cache.
inline constexpr index_t kBackwardPart = 32768;  ///< Elements of the backward pass, for the L2.

// ---- Loops on runs of elements

/// The largest element. The order of the fold is free here: NaN anywhere in a row makes all of its
/// softmax NaN whatever the maximum is, and the sign of a zero is lost in the exponential.
inline float max_of(const float* x, index_t n) {
    const int kLanes = 32;
    float max[kLanes];
    std::fill(max, max + kLanes, x[0]);
    index_t j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        for (int l = 0; l < kLanes; ++l) {
            max[l] = max[l] > x[j + l] ? max[l] : x[j + l];
        }
    }
    for (int l = 0; j < n; ++j, ++l) {
        max[l] = max[l] > x[j] ? max[l] : x[j];
    }
    for (int l = 1; l < kLanes; ++l) {
        max[0] = max[0] > max[l] ? max[0] : max[l];
    }
    return max[0];
}

/// sums[r] += rows[r][begin], rows[r][begin + 1], ..., rows[r][end - 1], in this order.
inline void add_in_order(const float* const (&rows)[kRowGroup], index_t begin, index_t end,
                         float (&sums)[kRowGroup]) {
    static_assert(kRowGroup == Lanes<float>::kFull, "a lane for each row");
    Lanes<float>::Full acc;
    load(acc, sums);
    fold_rest(LaneFold<func::reduce_sum<float>, float>(), &rows[0], begin, end, acc);
    store(sums, acc);
}

/// Pointers to `count` rows; the last stands in for those that a full group has beyond.
inline void point_to_rows(const float* first, index_t ld, int count,
                          const float* (&rows)[kRowGroup]) {
    for (int r = 0; r < kRowGroup; ++r) {
        rows[r] = first + std::min(r, count - 1) * ld;
    }
}

/// Calls group(first row, rows in the group) for all rows.
template <typename F>
void for_each_row_group(index_t dim_m, F group) {
    for (index_t i = 0; i < dim_m; i += kRowGroup) {
        group(i, static_cast<int>(std::min<index_t>(kRowGroup, dim_m - i)));
    }
}

/// sums[k] += a[k], a[inner + k], ... for kWidth positions, with the sums in registers.
template <int kWidth>
void add_positions(const float* a, index_t channel, index_t inner, float* sums) {
    float s[kWidth];
    std::copy(sums, sums + kWidth, s);
    for (index_t c = 0; c < channel; ++c) {
        for (int k = 0; k < kWidth; ++k) {
            s[k] += a[c * inner + k];
        }
    }
    std::copy(s, s + kWidth, sums);
}

/// sums[k] += a[k], a[inner + k], ..., in this order, for `n` positions of `channel` channels.
inline void add_channels(const float* a, index_t channel, index_t inner, index_t n, float* sums) {
    if (n >= kNarrow) {
        for (index_t c = 0; c < channel; ++c) {
            binary_row([](float x, float s) { return s + x; }, a + c * inner, sums, sums, n);
        }
        return;
    }
    index_t k = 0;
    for (; k + 8 <= n; k += 8) {
        add_positions<8>(a + k, channel, inner, sums + k);
    }
    for (; k + 2 <= n; k += 2) {
        add_positions<2>(a + k, channel, inner, sums + k);
    }
    if (k < n) {
        add_positions<1>(a + k, channel, inner, sums + k);
    }
}

// ---- Forward

/// Rows of dim_n dense elements. `out_p` may be `in_p`.
inline void vorn_softmax_2d(const DType* in_p, DType* out_p, const index_t dim_m,
                            const index_t dim_n) {
    for_each_row_group(dim_m, [=](index_t i, int count) {
        const float* in = in_p + i * dim_n;
        float* out = out_p + i * dim_n;
        float max[kRowGroup], sums[kRowGroup] = {};
        const float* rows[kRowGroup];
        point_to_rows(out, dim_n, count, rows);
        for (int r = 0; r < count; ++r) {
            max[r] = max_of(in + r * dim_n, dim_n);
        }
        for (index_t j = 0; j < dim_n; j += kColumnChunk) {
            const index_t n = std::min(kColumnChunk, dim_n - j);
            for (int r = 0; r < count; ++r) {
                const float* in_run = in + r * dim_n + j;
                const float m = max[r];
                // The next group, which the exponentials leave time to load.
                for (index_t ahead = 0; ahead < n; ahead += 16) {
                    __builtin_prefetch(in_run + kRowGroup * dim_n + ahead);
                }
                unary_row([m](float x) { return exp_of_negative(x - m); }, in_run,
                          out + r * dim_n + j, n);
            }
            add_in_order(rows, j, j + n, sums);
        }
        for (int r = 0; r < count; ++r) {
            const float sum = sums[r];
            float* row = out + r * dim_n;
            unary_row([sum](float e) { return e / sum; }, row, row, dim_n);
        }
    });
}

/// The softmax of one part; see for_each_part.
inline void softmax_part(const float* in, float* out, index_t channel, index_t inner, index_t n,
                         index_t repeat) {
    float max[kPositionChunk], sums[kPositionChunk];
    std::copy(in, in + repeat * n, max);
    for_each_run(channel, inner, n, repeat, [&](index_t at, index_t length) {
        for_each_element(
            length, [x = in + at, m = &max[0]](index_t k) { m[k] = m[k] > x[k] ? m[k] : x[k]; });
    });
    for (index_t k = repeat * n; k-- > n;) {
        max[k - n] = max[k - n] > max[k] ? max[k - n] : max[k];
    }
    repeat_positions(max, n, repeat);

    for_each_run(channel, inner, n, repeat, [&](index_t at, index_t length) {
        binary_row([](float x, float m) { return exp_of_negative(x - m); }, in + at, max, out + at,
                   length);
    });
    std::fill(sums, sums + n, 0.0f);
    add_channels(out, channel, inner, n, sums);
    repeat_positions(sums, n, repeat);
    for_each_run(channel, inner, n, repeat, [&](index_t at, index_t length) {
        binary_row([](float e, float s) { return e / s; }, out + at, sums, out + at, length);
    });
}

/// Dense (outer, channel, inner) data. `out_p` may be `in_p`.
inline void vorn_softmax_3d(DType* in_p, DType* out_p, const index_t outer, const index_t channel,
                            const index_t inner) {
    for (index_t i = 0; i < outer; ++i) {
        const float* in = in_p + i * channel * inner;
        float* out = out_p + i * channel * inner;
        for_each_part(channel, inner, [=](index_t k, index_t n, index_t repeat) {
            softmax_part(in + k, out + k, channel, inner, n, repeat);
        });
    }
}

inline void vorn_softmax(const Tensor<float>& in, Tensor<float>& out, index_t outer,
                         index_t channel, index_t inner, DType, DType) {
    if (out.count() == 0) {
        return;  // No first channel to start the fold from.
    }
    if (inner == 1) {
        vorn_softmax_2d(in.get_ptr(), out.get_ptr(), outer, channel);
    } else {
        vorn_softmax_3d(in.get_ptr(), out.get_ptr(), outer, channel, inner);
    }
}

// ---- Backward

/// sums[o * inner + k] += a(o, c, k) for c ascending.
inline void stat_channel_sum(const float* a, float* sums, index_t outer, index_t channel,
                             index_t inner) {
    if (inner == 1) {
        for_each_row_group(outer, [=](index_t i, int count) {
            const float* rows[kRowGroup];
            point_to_rows(a + i * channel, channel, count, rows);
            float group[kRowGroup] = {};
            std::copy(sums + i, sums + i + count, group);
            add_in_order(rows, 0, channel, group);
            std::copy(group, group + count, sums + i);
        });
        return;
    }
    for (index_t i = 0; i < outer; ++i) {
        for_each_part(channel, inner, [=](index_t k, index_t n, index_t) {
            add_channels(a + i * channel * inner + k, channel, inner, n, sums + i * inner + k);
        });
    }
}

/// dst_grad = output * (src_grad - sum) for each element, with the sum of its position.
inline void softmax_gradient(const float* output, const float* src_grad, const float* sums,
                             float* dst_grad, index_t outer, index_t channel, index_t inner) {
    for (index_t i = 0; i < outer; ++i) {
        const index_t plane = i * channel * inner;
        if (inner == 1) {
            const float sum = sums[i];
            binary_row([sum](float y, float g) { return y * (g - sum); }, output + plane,
                       src_grad + plane, dst_grad + plane, channel);
            continue;
        }
        for_each_part(channel, inner, [=](index_t k, index_t n, index_t repeat) {
            float part_sums[kPositionChunk];
            std::copy(sums + i * inner + k, sums + i * inner + k + n, part_sums);
            repeat_positions(part_sums, n, repeat);
            for_each_run(channel, inner, n, repeat, [&](index_t at, index_t length) {
                const index_t first = plane + k + at;
                const float *y = output + first, *g = src_grad + first, *s = part_sums;
                float* d = dst_grad + first;
                for_each_element(length, [=](index_t j) { d[j] = y[j] * (g[j] - s[j]); });
            });
        });
    }
}

inline void vorn_stat_channel_sum(const Tensor<float>& a, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner) {
    stat_channel_sum(a.get_ptr(), out.get_ptr(), outer, channel, inner);
}

/// Product, channel sums and gradient together, some outer indices at a time while they are in the
/// cache: one pass over memory, with the values of the three steps one after the other.
inline void vorn_softmax_bp_normal(const Tensor<float>& output, const Tensor<float>& src_grad,
                                   Tensor<float>& softmax_sum, Tensor<float>& out, index_t outer,
                                   index_t channel, index_t inner, DType, DType) {
    const index_t plane = channel * inner;
    const index_t fitting = std::max<index_t>(1, kBackwardPart / std::max<index_t>(1, plane));
    const index_t planes = inner == 1 ? (fitting + kRowGroup - 1) / kRowGroup * kRowGroup : fitting;
    for (index_t i = 0; i < outer; i += planes) {
        const index_t n = std::min(planes, outer - i);
        const float* y = output.get_ptr() + i * plane;
        const float* g = src_grad.get_ptr() + i * plane;
        float* d = out.get_ptr() + i * plane;
        float* sums = softmax_sum.get_ptr() + i * inner;
        binary_row([](float p, float q) { return p * q; }, y, g, d, n * plane);
        stat_channel_sum(d, sums, n, channel, inner);
        softmax_gradient(y, g, sums, d, n, channel, inner);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_SOFTMAX_OPS_H_
