#ifndef VORN_CPU_AUDIO_CONV_OPS_H_
#define VORN_CPU_AUDIO_CONV_OPS_H_

#include <algorithm>
#include <vector>

#include "vorn/cpu/memory.h"
#include "vorn/cpu/reduce.h"
#include "vorn/cpu/transpose.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the convolution along frequency, on dense matrices.
namespace vorn {
namespace cpu {

// Seen with frequency outside and the temporal index inside, a frame holds every patch in one
// piece: the patch at position c is the run of filter_size * temporal_dim elements from c *
// temporal_dim on. Frames are therefore transposed once, and patches copied or added as runs.

inline void vorn_expand_feat(const Tensor<float>& feat, int fbank, int, int, int filter_size,
                             const Tensor<int>& conv_start, const Tensor<int>& conv_end,
                             Tensor<float>& out) {
    const index_t in_dimM = feat.row(), in_dimN = feat.get_w(), dimN = out.get_w();
    const index_t group_num = conv_start.get_element_count();
    const int temporal_dim = static_cast<int>(in_dimN) / fbank;
    const index_t patch = static_cast<index_t>(filter_size) * temporal_dim;
    const bool stream = out.count() * sizeof(float) >= kStreamBytes;
    std::vector<float> frame(in_dimN);
    float* out_p = out.get_ptr();
    for (index_t g = 0; g < group_num; ++g) {
        const int start = conv_start.get_ptr()[g], end = conv_end.get_ptr()[g];
        for (index_t n = 0; n < in_dimM; ++n) {
            transpose_matrix(feat.get_ptr() + n * in_dimN, fbank, frame.data(), temporal_dim, fbank,
                             temporal_dim);
            for (int c = start; c <= end; ++c, out_p += dimN) {
                const float* run = frame.data() + c * temporal_dim;
                if (stream) {
                    stream_copy(out_p, run, patch);
                } else {
                    cpu::vorn_memcpy(out_p, run, patch * sizeof(float));
                }
            }
        }
    }
    _mm_sfence();  // streamed stores are not ordered with what follows
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
            transpose_matrix(out_row, fbank, frame.data(), temporal_dim, fbank, temporal_dim);
            float* sum = frame.data() + start * temporal_dim;
            for (int c = start; c <= end; ++c, sum += temporal_dim, patch += dimN) {
#pragma GCC ivdep
                for (index_t j = 0; j < dimN; ++j) {
                    sum[j] += patch[j];
                }
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

// max[j] and idx[j]: the largest element j of `size` rows of n elements, and the first row that has
// it. `kSize` is `size` where it is small, so that both stay in registers, else 0.
template <int kSize>
void max_of_rows(const float* in, int size, index_t n, float* max, int* idx) {
    if (kSize > 0) {
#pragma GCC ivdep
        for (index_t j = 0; j < n; ++j) {
            float top = in[j];
            int first = 0;
            for (int t = 1; t < kSize; ++t) {
                const float value = in[t * n + j];
                first = value > top ? t : first;
                top = value > top ? value : top;
            }
            max[j] = top;
            idx[j] = first;
        }
        return;
    }
    std::copy_n(in, n, max);
    std::fill_n(idx, n, 0);
    for (int t = 1; t < size; ++t) {
        const float* row = in + t * n;
#pragma GCC ivdep
        for (index_t j = 0; j < n; ++j) {
            const bool above = row[j] > max[j];
            max[j] = above ? row[j] : max[j];
            idx[j] = above ? t : idx[j];
        }
    }
}

// Pooling runs across filters, as the convolution matrix lies; the pooled matrix stands filter by
// filter. Each frame is turned from one to the other.

inline void vorn_max_pooling(const Tensor<float>& in, const Tensor<int>& conv_size, int,
                             int pooling_size, Tensor<int>& max_idx, Tensor<float>& out,
                             DType alpha, DType beta) {
    const index_t in_dimN = in.get_w(), out_dimM = out.row(), out_dimN = out.get_w();
    const index_t pooling_len = out_dimN / in_dimN;
    const auto max_of = pooling_size == 2   ? max_of_rows<2>
                        : pooling_size == 3 ? max_of_rows<3>
                        : pooling_size == 4 ? max_of_rows<4>
                                            : max_of_rows<0>;
    std::vector<float> max(out_dimN), turned_max(out_dimN);
    std::vector<int> idx(out_dimN), turned_idx(out_dimN);
    for (index_t i = 0; i < out_dimM; ++i) {
        index_t pooled = 0;
        for_each_pooled_position(conv_size, pooling_size, out_dimM, pooling_len,
                                 [&](index_t position, index_t row, int c_size) {
                                     max_of(in.get_ptr() + (row + i * c_size) * in_dimN,
                                            pooling_size, in_dimN, max.data() + position * in_dimN,
                                            idx.data() + position * in_dimN);
                                     pooled = position + 1;
                                 });
        transpose_matrix(max.data(), in_dimN, turned_max.data(), pooled, in_dimN, pooled);
        transpose_matrix(idx.data(), in_dimN, turned_idx.data(), pooled, in_dimN, pooled);
        float* out_p = out.get_ptr() + i * out_dimN;
        int* max_idx_p = max_idx.get_ptr() + i * out_dimN;
        // One run where every column has a pooled position, as it should.
        const index_t runs = pooled == pooling_len ? 1 : in_dimN, run = pooled * (in_dimN / runs);
        for (index_t r = 0; r < runs; ++r) {
            const float* from = turned_max.data() + r * run;
            float* to = out_p + r * pooling_len;
#pragma GCC ivdep
            for (index_t j = 0; j < run; ++j) {
                to[j] = alpha * from[j] + beta * to[j];
            }
            std::copy_n(turned_idx.data() + r * run, run, max_idx_p + r * pooling_len);
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
        for_each_pooled_position(conv_size, pooling_size, nframe, pooling_len,
                                 [&](index_t position, index_t row, int c_size) {
                                     const float* error_p = error.data() + position * out_dimN;
                                     const int* idx_p = idx.data() + position * out_dimN;
                                     float* out_p = out.get_ptr() + (row + i * c_size) * out_dimN;
                                     for (int t = 0; t < pooling_size; ++t, out_p += out_dimN) {
#pragma GCC ivdep
                                         for (index_t j = 0; j < out_dimN; ++j) {
                                             const float blend =
                                                 alpha * error_p[j] + beta * out_p[j];
                                             out_p[j] = idx_p[j] == t ? blend : out_p[j];
                                         }
                                     }
                                 });
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_AUDIO_CONV_OPS_H_
