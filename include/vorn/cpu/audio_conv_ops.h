#ifndef VORN_CPU_AUDIO_CONV_OPS_H_
#define VORN_CPU_AUDIO_CONV_OPS_H_

#include <algorithm>
#include <vector>

#include "vorn/cpu/kit/loops.h"
#include "vorn/cpu/kit/runs.h"
#include "vorn/cpu/kit/transpose.h"
#include "vorn/cpu/reduce.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the convolution along frequency, on dense matrices.
namespace vorn {
namespace cpu {

// Seen with frequency outside and the temporal index inside, a frame holds every patch in one
// piece: the patch at position c is the run of filter_size * temporal_dim elements from c *
// temporal_dim on. Frames are therefore transposed once, and patches copied or added as runs, with
// a share of the next frame fetched beside each.

inline index_t share_of(int start, int end, index_t frame) {
    return frame / std::max(1, end - start + 1) + 1;
}

inline void vorn_expand_feat(const Tensor<float>& feat, int fbank, int, int, int filter_size,
                             const Tensor<int>& conv_start, const Tensor<int>& conv_end,
                             Tensor<float>& out) {
    const index_t in_dimM = feat.row(), in_dimN = feat.get_w(), dimN = out.get_w();
    const index_t group_num = conv_start.get_element_count();
    const int temporal_dim = static_cast<int>(in_dimN) / fbank;
    const index_t patch = static_cast<index_t>(filter_size) * temporal_dim;
    const RunWriter writer(out.count() * sizeof(float));
    std::vector<float> frame(in_dimN);
    float* out_p = out.get_ptr();
    for (index_t g = 0; g < group_num; ++g) {
        const int start = conv_start.get_ptr()[g], end = conv_end.get_ptr()[g];
        const index_t share = share_of(start, end, in_dimN);
        for (index_t n = 0; n < in_dimM; ++n) {
            transpose_matrix(feat.get_ptr() + n * in_dimN, fbank, frame.data(), temporal_dim, fbank,
                             temporal_dim);
            const float* ahead = feat.get_ptr() + (n + 1) * in_dimN;
            for (int c = start; c <= end; ++c, out_p += dimN, ahead += share) {
                prefetch_run(ahead, share);
                writer.copy(out_p, frame.data() + c * temporal_dim, patch);
            }
        }
    }
}

inline void vorn_shrink_errors(const Tensor<float>& expand, int fbank, int, int, int filter_size,
                               const Tensor<int>& conv_start, const Tensor<int>& conv_end,
                               Tensor<float>& out) {
    const index_t dimN = expand.get_w(), o_dimM = out.row(), o_dimN = out.get_w();
    const index_t group = conv_start.get_element_count();
    const int temporal_dim = static_cast<int>(dimN) / filter_size;
    std::vector<float> frame(static_cast<size_t>(fbank) * temporal_dim);
    constexpr index_t kAhead = 4;  // patches
    const float* patch = expand.get_ptr();
    for (index_t g = 0; g < group; ++g) {
        const int start = conv_start.get_ptr()[g], end = conv_end.get_ptr()[g];
        const index_t share = share_of(start, end, o_dimN);
        for (index_t n = 0; n < o_dimM; ++n) {
            float* out_row = out.get_ptr() + n * o_dimN;
            const float* ahead = out_row + o_dimN;
            transpose_matrix(out_row, fbank, frame.data(), temporal_dim, fbank, temporal_dim);
            float* sum = frame.data() + start * temporal_dim;
            for (int c = start; c <= end; ++c, sum += temporal_dim, patch += dimN, ahead += share) {
                prefetch_run(ahead, share);
                prefetch_run(patch + kAhead * dimN, dimN);
                // A patch beyond the last frequency, which is the caller's fault, is cut off there.
                const int frequencies = c < 0 ? 0 : std::clamp(fbank - c, 0, filter_size);
                const index_t size = static_cast<index_t>(frequencies) * temporal_dim;
                for_each_element(size, [=](index_t j) { sum[j] += patch[j]; });
            }
            transpose_matrix(frame.data(), temporal_dim, out_row, fbank, temporal_dim, fbank);
        }
    }
}

inline void vorn_audio_conv_batch_bias(const Tensor<float>& bias, Tensor<float>& out, int batch) {
    const index_t sub_dim_m = out.get_h() / batch, dim_n = out.get_w();
    const float* bias_p = bias.get_ptr();
    float* out_p = out.get_ptr();
    for (int i = 0; i < batch; ++i, bias_p += dim_n) {
        for (index_t j = 0; j < sub_dim_m; ++j, out_p += dim_n) {
            for_each_element(dim_n, [=](index_t k) { out_p[k] += bias_p[k]; });
        }
    }
}

inline void vorn_audio_conv_batch_bias_bp(const Tensor<float>& dy, Tensor<float>& dbias,
                                          int batch) {
    const index_t sub_dim_m = dy.get_h() / batch, dim_n = dy.get_w();
    for (int i = 0; i < batch; ++i) {
        const Tensor<float> block(dy.get_ptr() + i * sub_dim_m * dim_n, Dim(sub_dim_m, dim_n), CPU);
        Tensor<float> sum(dbias.get_ptr() + i * dim_n, Dim(dim_n), CPU);
        cpu::reduce_2d_col(func::reduce_sum<float>(), block, sum);
    }
}

/// Calls f(position, row, c_size, count) for each group that has pooled positions below
/// `pooling_len`: `count` of them from `position` on. In frame 0 the first of them begins at `row`.
template <typename F>
void for_each_pooled_group(const Tensor<int>& conv_size, int pooling_size, index_t nframe,
                           index_t pooling_len, F f) {
    index_t position = 0, base_idx = 0;
    for (index_t g = 0; g < conv_size.get_element_count(); ++g) {
        const index_t c_size = conv_size.get_ptr()[g];
        const index_t count = std::min(c_size / pooling_size, pooling_len - position);
        if (count != 0) {
            f(position, base_idx, c_size, count);
        }
        position += count;
        base_idx += c_size * nframe;
    }
}

// Pooling runs across filters, as the convolution matrix lies; the pooled matrix stands filter by
// filter. A frame is pooled as it lies, and then transposed.

/// max[j] and idx[j]: the first largest of in[j], in[n + j], ..., `pooling_size` of them, and which
/// it is.
inline void find_first_max(const float* in, int pooling_size, index_t n, float* max, int* idx) {
    const float* second = in + (pooling_size > 1 ? n : 0);
    for_each_element(n, [=](index_t j) {
        const bool is_above = second[j] > in[j];
        idx[j] = is_above;
        max[j] = is_above ? second[j] : in[j];
    });
    for (int t = 2; t < pooling_size; ++t) {
        const float* row = in + t * n;
        for_each_element(n, [=](index_t j) {
            const bool is_above = row[j] > max[j];
            idx[j] = is_above ? t : idx[j];
            max[j] = is_above ? row[j] : max[j];
        });
    }
}

inline void vorn_max_pooling(const Tensor<float>& in, const Tensor<int>& conv_size, int,
                             int pooling_size, Tensor<int>& max_idx, Tensor<float>& out,
                             DType alpha, DType beta) {
    const index_t filters = in.get_w(), nframe = out.row(), out_dimN = out.get_w();
    const index_t pooling_len = out_dimN / filters;
    std::vector<float> max(out_dimN), pooled(out_dimN);
    std::vector<int> idx(out_dimN);
    for (index_t i = 0; i < nframe; ++i) {
        index_t positions = 0;
        const auto pool_group = [&](index_t position, index_t row, index_t c_size, index_t count) {
            const float* in_p = in.get_ptr() + (row + i * c_size) * filters;
            for (index_t end = position + count; position < end; ++position) {
                find_first_max(in_p, pooling_size, filters, max.data() + position * filters,
                               idx.data() + position * filters);
                in_p += pooling_size * filters;
            }
            positions = position;
        };
        for_each_pooled_group(conv_size, pooling_size, nframe, pooling_len, pool_group);

        transpose_matrix(idx.data(), filters, max_idx.get_ptr() + i * out_dimN, pooling_len,
                         filters, positions);
        transpose_matrix(max.data(), filters, pooled.data(), pooling_len, filters, positions);
        // Positions past the last group, if any, keep what they hold.
        const index_t runs = positions == pooling_len ? 1 : filters;
        const index_t run = positions == pooling_len ? out_dimN : positions;
        for (index_t r = 0; r < runs; ++r) {
            const float* max_p = pooled.data() + r * pooling_len;
            float* out_p = out.get_ptr() + i * out_dimN + r * pooling_len;
            for_each_element(run,
                             [=](index_t k) { out_p[k] = alpha * max_p[k] + beta * out_p[k]; });
        }
    }
}

inline void vorn_max_pooling_bp(const Tensor<float>& in, const Tensor<int>& conv_size, int,
                                int pooling_size, const Tensor<int>& max_idx, Tensor<float>& out,
                                DType alpha, DType beta) {
    const index_t in_dimN = in.get_w(), out_dimN = out.get_w(), nframe = in.row();
    const index_t pooling_len = in_dimN / out_dimN;
    std::vector<float> error(in_dimN);
    std::vector<int> idx(in_dimN);
    for (index_t i = 0; i < nframe; ++i) {
        transpose_matrix(in.get_ptr() + i * in_dimN, pooling_len, error.data(), out_dimN,
                         pooling_len, out_dimN);
        transpose_matrix(max_idx.get_ptr() + i * in_dimN, pooling_len, idx.data(), out_dimN,
                         pooling_len, out_dimN);
        const auto spread = [&](index_t position, index_t row, index_t c_size, index_t count) {
            const float* error_p = error.data() + position * out_dimN;
            const int* idx_p = idx.data() + position * out_dimN;
            float* out_p = out.get_ptr() + (row + i * c_size) * out_dimN;
            for (; count != 0; --count, error_p += out_dimN, idx_p += out_dimN) {
                for (int t = 0; t < pooling_size; ++t, out_p += out_dimN) {
                    for_each_element(out_dimN, [=](index_t j) {
                        const float blend = alpha * error_p[j] + beta * out_p[j];
                        out_p[j] = idx_p[j] == t ? blend : out_p[j];
                    });
                }
            }
        };
        for_each_pooled_group(conv_size, pooling_size, nframe, pooling_len, spread);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_AUDIO_CONV_OPS_H_
