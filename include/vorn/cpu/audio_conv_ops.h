#ifndef VORN_CPU_AUDIO_CONV_OPS_H_
#define VORN_CPU_AUDIO_CONV_OPS_H_

#include <algorithm>
#include <vector>

#include "vorn/cpu/memory.h"
#include "vorn/cpu/reduce.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the convolution along frequency, on dense matrices.
namespace vorn {
namespace cpu {

// Seen with frequency outside and the temporal index inside, a frame holds every patch in one
// piece: the patch at position c is the run of filter_size * temporal_dim elements from c *
// temporal_dim on. Frames are therefore transposed once, and patches copied or added as runs.
inline void transpose_frame(const float* in, int rows, int columns, float* out) {
    for (int j = 0; j < columns; ++j) {
        for (int i = 0; i < rows; ++i) {
            out[j * rows + i] = in[i * columns + j];
        }
    }
}

inline void vorn_expand_feat(const Tensor<float>& feat, int fbank, int, int, int filter_size,
                             const Tensor<int>& conv_start, const Tensor<int>& conv_end,
                             Tensor<float>& out) {
    const index_t in_dimM = feat.row(), in_dimN = feat.get_w(), dimN = out.get_w();
    const index_t group_num = conv_start.get_element_count();
    const int temporal_dim = static_cast<int>(in_dimN) / fbank;
    const index_t patch = static_cast<index_t>(filter_size) * temporal_dim;
    std::vector<float> frame(in_dimN);
    float* out_p = out.get_ptr();
    for (index_t g = 0; g < group_num; ++g) {
        const int start = conv_start.get_ptr()[g], end = conv_end.get_ptr()[g];
        for (index_t n = 0; n < in_dimM; ++n) {
            transpose_frame(feat.get_ptr() + n * in_dimN, temporal_dim, fbank, frame.data());
            for (int c = start; c <= end; ++c, out_p += dimN) {
                cpu::vorn_memcpy(out_p, frame.data() + c * temporal_dim, patch * sizeof(float));
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
    const float* patch = expand.get_ptr();
    for (index_t g = 0; g < group; ++g) {
        const int start = conv_start.get_ptr()[g], end = conv_end.get_ptr()[g];
        for (index_t n = 0; n < o_dimM; ++n) {
            float* out_row = out.get_ptr() + n * o_dimN;
            transpose_frame(out_row, temporal_dim, fbank, frame.data());
            for (int c = start; c <= end; ++c, patch += dimN) {
                float* sum = frame.data() + c * temporal_dim;
#pragma GCC ivdep
                for (index_t j = 0; j < dimN; ++j) {
                    sum[j] += patch[j];
                }
            }
            transpose_frame(frame.data(), fbank, temporal_dim, out_row);
        }
    }
}

inline void vorn_audio_conv_batch_bias(const Tensor<float>& bias, Tensor<float>& out, int batch) {
    const index_t sub_dim_m = out.get_h() / batch, dim_n = out.get_w();
    const float* bias_p = bias.get_ptr();
    float* out_p = out.get_ptr();
    for (int i = 0; i < batch; ++i, bias_p += dim_n) {
        for (index_t j = 0; j < sub_dim_m; ++j, out_p += dim_n) {
#pragma GCC ivdep
            for (index_t k = 0; k < dim_n; ++k) {
                out_p[k] += bias_p[k];
            }
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

/// Calls f(position, first row, rows from frame to frame) for each pooled position below
/// `pooling_len`, group by group; rows are those of frame 0.
template <typename F>
void for_each_pooled_position(const Tensor<int>& conv_size, int pooling_size, index_t nframe,
                              index_t pooling_len, F f) {
    index_t position = 0, base_idx = 0;
    for (index_t g = 0; g < conv_size.get_element_count(); ++g) {
        const int c_size = conv_size.get_ptr()[g];
        for (int p = 0; p < c_size / pooling_size && position < pooling_len; ++p, ++position) {
            f(position, base_idx + p * pooling_size, c_size);
        }
        base_idx += c_size * nframe;
    }
}

// The maxima of a frame are taken across filters, as the input lies, and then turned to stand
// filter by filter.
inline void vorn_max_pooling(const Tensor<float>& in, const Tensor<int>& conv_size, int,
                             int pooling_size, Tensor<int>& max_idx, Tensor<float>& out,
                             DType alpha, DType beta) {
    const index_t in_dimN = in.get_w(), out_dimM = out.row(), out_dimN = out.get_w();
    const index_t pooling_len = out_dimN / in_dimN;
    std::vector<float> max(out_dimN);
    std::vector<int> idx(out_dimN);
    for (index_t i = 0; i < out_dimM; ++i) {
        index_t pooled = 0;
        for_each_pooled_position(conv_size, pooling_size, out_dimM, pooling_len,
                                 [&](index_t position, index_t row, int c_size) {
                                     const float* in_p =
                                         in.get_ptr() + (row + i * c_size) * in_dimN;
                                     float* max_p = max.data() + position * in_dimN;
                                     int* idx_p = idx.data() + position * in_dimN;
                                     std::copy_n(in_p, in_dimN, max_p);
                                     std::fill_n(idx_p, in_dimN, 0);
                                     for (int t = 1; t < pooling_size; ++t) {
                                         in_p += in_dimN;
#pragma GCC ivdep
                                         for (index_t j = 0; j < in_dimN; ++j) {
                                             const bool above = in_p[j] > max_p[j];
                                             max_p[j] = above ? in_p[j] : max_p[j];
                                             idx_p[j] = above ? t : idx_p[j];
                                         }
                                     }
                                     pooled = position + 1;
                                 });
        float* out_p = out.get_ptr() + i * out_dimN;
        int* max_idx_p = max_idx.get_ptr() + i * out_dimN;
        for (index_t filter = 0; filter < in_dimN; ++filter) {
            for (index_t position = 0; position < pooled; ++position) {
                const index_t j = filter * pooling_len + position;
                out_p[j] = alpha * max[position * in_dimN + filter] + beta * out_p[j];
                max_idx_p[j] = idx[position * in_dimN + filter];
            }
        }
    }
}

inline void vorn_max_pooling_bp(const Tensor<float>& in, const Tensor<int>& conv_size, int,
                                int pooling_size, const Tensor<int>& max_idx, Tensor<float>& out,
                                DType alpha, DType beta) {
    const index_t in_dimN = in.get_w(), out_dimN = out.get_w(), nframe = in.row();
    const index_t pooling_len = in_dimN / out_dimN;
    for (index_t i = 0; i < nframe; ++i) {
        const float* in_p = in.get_ptr() + i * in_dimN;
        const int* idx_p = max_idx.get_ptr() + i * in_dimN;
        for_each_pooled_position(conv_size, pooling_size, nframe, pooling_len,
                                 [&](index_t position, index_t row, int c_size) {
                                     float* out_p = out.get_ptr() + (row + i * c_size) * out_dimN;
                                     for (index_t filter = 0; filter < out_dimN; ++filter) {
                                         const index_t j = filter * pooling_len + position;
                                         float& winner = out_p[idx_p[j] * out_dimN + filter];
                                         winner = alpha * in_p[j] + beta * winner;
                                     }
                                 });
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_AUDIO_CONV_OPS_H_
