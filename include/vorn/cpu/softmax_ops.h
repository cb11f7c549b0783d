#ifndef VORN_CPU_SOFTMAX_OPS_H_
#define VORN_CPU_SOFTMAX_OPS_H_

#include <algorithm>

#include "vorn/cpu/kit/channels.h"
#include "vorn/cpu/kit/fold.h"
#include "vorn/cpu/kit/loops.h"
#include "vorn/rules/vector_math.h"
#include "vorn/tensor/tensor.h"

/// Host forms of softmax over the channels of dense (outer, channel, inner) data. Each sum runs in
/// ascending order of the channel, one rounding after the other; the loops are parallel over sums
/// instead: eight rows at a time where inner is 1, the positions of a channel elsewhere.
namespace vorn {
namespace cpu {

inline constexpr index_t kColumnChunk = 256;  ///< Columns of such rows, for the L1 cache.

// ---- Loops on runs of elements

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
            transform_run([](float x, float s) { return s + x; }, n, sums, a + c * inner, sums);
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
            // NaN anywhere makes a whole row NaN, and the sign of a zero is lost in the
            // exponential: any order of the fold will do.
            max[r] = max_of_run(in + r * dim_n, dim_n, in[r * dim_n]);
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
                transform_run([m](float x) { return exp_of_negative(x - m); }, n,
                              out + r * dim_n + j, in_run);
            }
            add_in_order(rows, j, j + n, sums);
        }
        for (int r = 0; r < count; ++r) {
            const float sum = sums[r];
            float* row = out + r * dim_n;
            transform_run([sum](float e) { return e / sum; }, dim_n, row, row);
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
        transform_run([](float x, float m) { return exp_of_negative(x - m); }, length, out + at,
                      in + at, max);
    });
    std::fill(sums, sums + n, 0.0f);
    add_channels(out, channel, inner, n, sums);
    repeat_positions(sums, n, repeat);
    for_each_run(channel, inner, n, repeat, [&](index_t at, index_t length) {
        transform_run([](float e, float s) { return e / s; }, length, out + at, out + at, sums);
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

inline void vorn_stat_channel_sum(const Tensor<float>& a, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner) {
    stat_channel_sum(a.get_ptr(), out.get_ptr(), outer, channel, inner);
}

/// d = y * g, sum += d over the channels, then d = y * (g - sum), for rows of dim_n dense elements.
inline void softmax_bp_2d(const float* y_p, const float* g_p, float* sums, float* d_p,
                          index_t dim_m, index_t dim_n) {
    for_each_row_group(dim_m, [=](index_t i, int count) {
        const index_t first = i * dim_n, n = count * dim_n;
        transform_run([](float p, float q) { return p * q; }, n, d_p + first, y_p + first,
                      g_p + first);
        stat_channel_sum(d_p + first, sums + i, count, dim_n, 1);
        for (index_t r = i; r < i + count; ++r) {
            const auto rule = [sum = sums[r]](float p, float q) { return p * (q - sum); };
            const index_t row = r * dim_n;
            transform_run(rule, dim_n, d_p + row, y_p + row, g_p + row);
        }
    });
}

/// The same for (channel, inner) data.
inline void softmax_bp_plane(const float* y_p, const float* g_p, float* sums, float* d_p,
                             index_t channel, index_t inner) {
    transform_run([](float p, float q) { return p * q; }, channel * inner, d_p, y_p, g_p);
    stat_channel_sum(d_p, sums, 1, channel, inner);
    for_each_part(channel, inner, [=](index_t k, index_t n, index_t repeat) {
        float part_sums[kPositionChunk];
        std::copy_n(sums + k, n, part_sums);
        repeat_positions(part_sums, n, repeat);
        for_each_run(channel, inner, n, repeat, [&](index_t at, index_t length) {
            const auto rule = [](float p, float q, float sum) { return p * (q - sum); };
            transform_run(rule, length, d_p + k + at, y_p + k + at, g_p + k + at, &part_sums[0]);
        });
    });
}

inline void vorn_softmax_bp_normal(const Tensor<float>& output, const Tensor<float>& src_grad,
                                   Tensor<float>& softmax_sum, Tensor<float>& out, index_t outer,
                                   index_t channel, index_t inner, DType, DType) {
    const float *y = output.get_ptr(), *g = src_grad.get_ptr();
    float *sums = softmax_sum.get_ptr(), *d = out.get_ptr();
    if (inner == 1) {
        softmax_bp_2d(y, g, sums, d, outer, channel);
        return;
    }
    const index_t plane = channel * inner;
    for (index_t i = 0; i < outer; ++i, y += plane, g += plane, d += plane, sums += inner) {
        softmax_bp_plane(y, g, sums, d, channel, inner);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_SOFTMAX_OPS_H_
