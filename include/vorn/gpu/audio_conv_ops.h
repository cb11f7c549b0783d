#ifndef VORN_GPU_AUDIO_CONV_OPS_H_
#define VORN_GPU_AUDIO_CONV_OPS_H_

#include "vorn/gpu/collective.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of the convolution along frequency, on dense matrices. Each kernel is a gather with
/// one writer per target element, so none needs atomics.
namespace vorn {
namespace gpu {

/// feat: (in_dimM x context * delta * fbank), out: (out_row x filter_size * delta * context), its
/// rows group by group. x is the row of `out`, y its column.
static __global__ void KeReorderFeats(const float* feat, const int* conv_start, const int* conv_end,
                                      int group_num, int filter_size, float* out, int fbank,
                                      int delta, int context, int in_dimM, int out_row) {
    const int row = blockIdx.x * blockDim.x + threadIdx.x;
    const int col = blockIdx.y * blockDim.y + threadIdx.y;
    const int temporal_dim = delta * context, width = filter_size * temporal_dim;
    if (row >= out_row || col >= width) {
        return;
    }
    const int f = col / temporal_dim, t = col % temporal_dim;
    int i = row;
    for (int g = 0; g < group_num; ++g) {
        const int c_size = conv_end[g] - conv_start[g] + 1;
        if (i < c_size * in_dimM) {
            const int n = i / c_size, c = conv_start[g] + i % c_size;
            out[row * width + col] = feat[(n * temporal_dim + t) * fbank + c + f];
            return;
        }
        i -= c_size * in_dimM;
    }
}

/// out: (nframe x context * delta * fbank, pitch width), expand: the patch matrix. x is the frame,
/// y the feature column. Sums in ascending group, then ascending position.
static __global__ void KeReorderErrors(float* out, int width, const int* conv_start,
                                       const int* conv_end, int group_num, int filter_size,
                                       const float* expand, int fbank, int delta, int context,
                                       int nframe) {
    const int n = blockIdx.x * blockDim.x + threadIdx.x;
    const int col = blockIdx.y * blockDim.y + threadIdx.y;
    if (n >= nframe || col >= fbank * delta * context) {
        return;
    }
    const int s = col / (fbank * delta), rest = col % (fbank * delta);
    const int q = rest % fbank, d = rest / fbank;
    const int patch = filter_size * delta * context;
    float* element = out + n * width + col;
    *element = 0.0f;
    float sum = 0.0f;
    for (int g = 0; g < group_num; ++g) {
        const int start = conv_start[g], end = conv_end[g], c_size = end - start + 1;
        if (start > q) {
            return;  // later groups start higher still
        }
        // The positions whose filters reach q.
        const int first = q - filter_size + 1;
        for (int c = first > start ? first : start; c <= end && c <= q; ++c) {
            const int f = q - c;
            sum += expand[(c_size * n + c - start) * patch + (f * context + s) * delta + d];
            *element = sum;
        }
        expand += c_size * nframe * patch;
    }
}

/// bias: (in_row / sub_row x in_col), out: (in_row x in_col). A block takes a row.
static __global__ void KeAudioConvBatchBias(const float* bias, float* out, int sub_row, int in_row,
                                            int in_col) {
    for (index_t row = blockIdx.x; row < in_row; row += gridDim.x) {
        const float* bias_row = bias + row / sub_row * in_col;
        for (index_t col = threadIdx.x; col < in_col; col += blockDim.x) {
            out[row * in_col + col] += bias_row[col];
        }
    }
}

/// dy: (in_row x in_col), dbias: (in_row / sub_row x in_col). A block sums NT columns of one block
/// of rows: a thread every VT-th row, then a tree the VT sums of one column.
template <int NT, int VT>
__global__ void KeAudioConvBatchBiasBp(const float* dy, float* dbias, int sub_row, int in_row,
                                       int in_col) {
    static_assert(NT == wrap_size && VT == wrap_size, "the block is a tile");
    __shared__ FoldTile<float> s;
    const int x = threadIdx.x, y = threadIdx.y;
    const int c = blockIdx.x * NT + x;
    const int first = blockIdx.y * sub_row;
    float sum = 0.0f;
    if (c < in_col) {
        for (index_t r = y; r < sub_row && first + r < in_row; r += VT) {
            sum += dy[(first + r) * in_col + c];
        }
    }
    sum = tile_fold(s, sum, [](float a, float b) { return a + b; });
    if (y == 0 && c < in_col) {
        dbias[blockIdx.y * in_col + c] = sum;
    }
}

/// Where pooled position `position` of frame i begins: the row of its first input in group order,
/// counted in rows of the convolution matrix, or -1 past the last group.
static __device__ inline int pooled_row(const int* conv_size, int group_num, int pooling_size,
                                        int nframe, int i, int position) {
    int base = 0;
    for (int g = 0; g < group_num; ++g) {
        const int c_size = conv_size[g], pooling_dim = c_size / pooling_size;
        if (position < pooling_dim) {
            return base + i * c_size + position * pooling_size;
        }
        position -= pooling_dim;
        base += c_size * nframe;
    }
    return -1;
}

/// in: (rows x filters), out, max_idx: (nframe x width). x is the pooled column, y the frame.
static __global__ void KeMaxPoolingFWD(const float* in, int nframe, const int* conv_size,
                                       int group_num, int filters, int pooling_size, float* out,
                                       int* max_idx, int width, float alpha, float beta) {
    const int j = blockIdx.x * blockDim.x + threadIdx.x;
    const int i = blockIdx.y * blockDim.y + threadIdx.y;
    if (j >= width || i >= nframe) {
        return;
    }
    const int pooling_len = width / filters;
    const int row = pooled_row(conv_size, group_num, pooling_size, nframe, i, j % pooling_len);
    if (row < 0) {
        return;
    }
    const float* in_p = in + row * filters + j / pooling_len;
    float max = in_p[0];
    int idx = 0;
    for (int t = 1; t < pooling_size; ++t) {
        if (in_p[t * filters] > max) {
            max = in_p[t * filters];
            idx = t;
        }
    }
    const int pos = i * width + j;
    max_idx[pos] = idx;
    out[pos] = alpha * max + beta * out[pos];
}

/// in, max_idx: (nframe x width), out: (rows x filters). x is the pooled column, y the frame.
static __global__ void KeMaxPoolingBWD(const float* in, int nframe, const int* conv_size,
                                       int group_num, int filters, int pooling_size, float* out,
                                       const int* max_idx, int width, float alpha, float beta) {
    const int j = blockIdx.x * blockDim.x + threadIdx.x;
    const int i = blockIdx.y * blockDim.y + threadIdx.y;
    if (j >= width || i >= nframe) {
        return;
    }
    const int pooling_len = width / filters, pos = i * width + j;
    const int row = pooled_row(conv_size, group_num, pooling_size, nframe, i, j % pooling_len);
    if (row < 0) {
        return;
    }
    float* winner = out + (row + max_idx[pos]) * filters + j / pooling_len;
    *winner = alpha * in[pos] + beta * *winner;
}

const dim3 kAudioBlock(32, 32, 1);

inline void vorn_expand_feat(const Tensor<float>& feat, int fbank, int delta, int, int filter_size,
                             const Tensor<int>& conv_start, const Tensor<int>& conv_end,
                             Tensor<float>& out) {
    const int out_row = static_cast<int>(out.row()), out_col = static_cast<int>(out.get_w());
    const int context = static_cast<int>(feat.get_w()) / (fbank * delta);
    launch<KeReorderFeats>(
        covering_grid(out_row, out_col, kAudioBlock), kAudioBlock, feat.get_ptr(),
        conv_start.get_ptr(), conv_end.get_ptr(), static_cast<int>(conv_start.get_element_count()),
        filter_size, out.get_ptr(), fbank, delta, context, static_cast<int>(feat.row()), out_row);
    VORN_KERNEL_TAIL();
}

inline void vorn_shrink_errors(const Tensor<float>& expand, int fbank, int delta, int,
                               int filter_size, const Tensor<int>& conv_start,
                               const Tensor<int>& conv_end, Tensor<float>& out) {
    const int out_row = static_cast<int>(out.row()), out_col = static_cast<int>(out.get_w());
    const int context = out_col / (fbank * delta);
    launch<KeReorderErrors>(covering_grid(out_row, out_col, kAudioBlock), kAudioBlock,
                            out.get_ptr(), out_col, conv_start.get_ptr(), conv_end.get_ptr(),
                            static_cast<int>(conv_start.get_element_count()), filter_size,
                            expand.get_ptr(), fbank, delta, context, out_row);
    VORN_KERNEL_TAIL();
}

inline void vorn_audio_conv_batch_bias(const Tensor<float>& bias, Tensor<float>& out, int batch) {
    const int NT = 1024;
    const int in_row = static_cast<int>(out.row());
    launch<KeAudioConvBatchBias>(in_row, NT, bias.get_ptr(), out.get_ptr(), in_row / batch, in_row,
                                 static_cast<int>(out.get_w()));
    VORN_KERNEL_TAIL();
}

inline void vorn_audio_conv_batch_bias_bp(const Tensor<float>& dy, Tensor<float>& dbias,
                                          int batch) {
    const int NT = 32;
    const int VT = 32;
    const int in_row = static_cast<int>(dy.row()), in_col = static_cast<int>(dy.get_w());
    launch<KeAudioConvBatchBiasBp<NT, VT>>(dim3(div_up(in_col, NT), batch, 1), dim3(NT, VT, 1),
                                           dy.get_ptr(), dbias.get_ptr(), in_row / batch, in_row,
                                           in_col);
    VORN_KERNEL_TAIL();
}

inline void vorn_max_pooling(const Tensor<float>& in, const Tensor<int>& conv_size, int filter_num,
                             int pooling_size, Tensor<int>& max_idx, Tensor<float>& out,
                             DType alpha, DType beta) {
    const int group_num = static_cast<int>(conv_size.get_element_count());
    const int width = static_cast<int>(out.get_w()), nframe = static_cast<int>(out.row());
    launch<KeMaxPoolingFWD>(covering_grid(width, nframe, kAudioBlock), kAudioBlock, in.get_ptr(),
                            nframe, conv_size.get_ptr(), group_num, filter_num / group_num,
                            pooling_size, out.get_ptr(), max_idx.get_ptr(), width, alpha, beta);
    VORN_KERNEL_TAIL();
}

inline void vorn_max_pooling_bp(const Tensor<float>& in, const Tensor<int>& conv_size,
                                int filter_num, int pooling_size, const Tensor<int>& max_idx,
                                Tensor<float>& out, DType alpha, DType beta) {
    const int group_num = static_cast<int>(conv_size.get_element_count());
    const int width = static_cast<int>(in.get_w()), nframe = static_cast<int>(in.row());
    launch<KeMaxPoolingBWD>(covering_grid(width, nframe, kAudioBlock), kAudioBlock, in.get_ptr(),
                            nframe, conv_size.get_ptr(), group_num, filter_num / group_num,
                            pooling_size, out.get_ptr(), max_idx.get_ptr(), width, alpha, beta);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_AUDIO_CONV_OPS_H_
