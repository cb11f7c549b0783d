#ifndef VORN_GPU_SOFTMAX_OPS_H_
#define VORN_GPU_SOFTMAX_OPS_H_

#include <algorithm>
#include <cfloat>

#include "vorn/gpu/collective.h"
#include "vorn/gpu/iterator.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/rules/scalar_math.h"
#include "vorn/tensor/tensor.h"

/// Kernels of softmax over the channels of dense (outer, channel, inner) data. Where inner is 1 a
/// block works on one row together; elsewhere a thread owns a position and walks its channels.
namespace vorn {
namespace gpu {

// ---- Forward

/// Rows of `channel` elements, block b on row b. Thread t has columns t, t + kThreads, ..., of
/// which the first kKept stay in registers.
template <int kThreads>
__global__ void KeSoftMax(const float* in, float* out, int channel, float, float) {
    constexpr int kKept = 4;
    __shared__ float dfMax_s[kThreads];
    __shared__ float max;
    const int t = threadIdx.x;
    const int row = blockIdx.x * channel;
    const index_t rest = t + kKept * kThreads;
    float kept[kKept];

    float largest = -FLT_MAX;
    for (int k = 0; k < kKept; ++k) {
        const int col = t + k * kThreads;
        kept[k] = col < channel ? in[row + col] : -FLT_MAX;
        largest = largest < kept[k] ? kept[k] : largest;
    }
    for (index_t col = rest; col < channel; col += kThreads) {
        largest = largest < in[row + col] ? in[row + col] : largest;
    }
    dfMax_s[t] = largest;
    block_fold<kThreads>([&](int to, int from) {
        dfMax_s[to] = dfMax_s[to] < dfMax_s[from] ? dfMax_s[from] : dfMax_s[to];
    });
    if (t == 0) {
        max = dfMax_s[0];
    }
    __syncthreads();

    float sum = 0;
    for (int k = 0; k < kKept; ++k) {
        if (t + k * kThreads < channel) {
            kept[k] = math::exp(kept[k] - max);
            sum += kept[k];
        }
    }
    for (index_t col = rest; col < channel; col += kThreads) {
        out[row + col] = math::exp(in[row + col] - max);
        sum += out[row + col];
    }
    dfMax_s[t] = sum;
    block_fold<kThreads>([&](int to, int from) { dfMax_s[to] += dfMax_s[from]; });
    __syncthreads();

    for (int k = 0; k < kKept; ++k) {
        const int col = t + k * kThreads;
        if (col < channel) {
            out[row + col] = kept[k] / dfMax_s[0];
        }
    }
    for (index_t col = rest; col < channel; col += kThreads) {
        out[row + col] = out[row + col] / dfMax_s[0];
    }
}

/// Block b on outer index b, thread t on positions t, t + kThreads, ...
template <int kThreads>
__global__ void KeSoftMax3D(const float* in, float* out, index_t, index_t channel, index_t inner) {
    const int base = static_cast<int>(blockIdx.x * (channel * inner));
    for (index_t k = threadIdx.x; k < inner; k += kThreads) {
        float m = in[base + k];
        for (index_t c = 1; c < channel; ++c) {
            m = fmaxf(m, in[base + c * inner + k]);
        }
        float sum = 0;
        for (index_t c = 0; c < channel; ++c) {
            const float e = math::exp(in[base + c * inner + k] - m);
            sum += e;
            out[base + c * inner + k] = e;
        }
        for (index_t c = 0; c < channel; ++c) {
            out[base + c * inner + k] = out[base + c * inner + k] / sum;
        }
    }
}

inline void vorn_softmax(const Tensor<float>& in, Tensor<float>& out, index_t outer,
                         index_t channel, index_t inner, DType alpha, DType beta) {
    const float* in_ptr = in.get_ptr();
    float* out_ptr = out.get_ptr();
    CHECK_NOTNULL(in_ptr);
    CHECK_NOTNULL(out_ptr);
    if (out.count() == 0) {
        return;  // without channels there is no first one
    }
    const unsigned grid = static_cast<unsigned>(outer);
    if (inner == 1) {
        const int NT = 512;
        launch<KeSoftMax<NT>>(grid, NT, in_ptr, out_ptr, static_cast<int>(channel), alpha, beta);
    } else {
        const int NT = 128;
        launch<KeSoftMax3D<NT>>(grid, NT, in_ptr, out_ptr, outer, channel, inner);
    }
    VORN_KERNEL_TAIL();
}

// ---- Channel sum

/// out[o * inner + k] = the sum over c of in(o, c, k), in ascending order. Where inner is 1, one
/// thread has to add up a whole row: the others fetch it into shared memory.
template <int kThreads>
__global__ void KeStatChannelSum(const float* in, float* out, index_t, index_t channel,
                                 index_t inner) {
    const index_t o = blockIdx.x;
    if (inner == 1) {
        __shared__ float part[kThreads];
        const index_t t = threadIdx.x;
        float sum = 0;
        for (index_t first = 0; first < channel; first += kThreads) {
            const index_t count = channel - first < kThreads ? channel - first : kThreads;
            if (t < count) {
                part[t] = in[o * channel + first + t];
            }
            __syncthreads();
            for (index_t c = 0; t == 0 && c < count; ++c) {
                sum += part[c];
            }
            __syncthreads();
        }
        if (t == 0) {
            out[o] = sum;
        }
        return;
    }
    for (index_t k = threadIdx.x; k < inner; k += kThreads) {
        float sum = 0;
        for (index_t c = 0; c < channel; ++c) {
            sum += in[(o * channel + c) * inner + k];
        }
        out[o * inner + k] = sum;
    }
}

inline void vorn_stat_channel_sum(const Tensor<float>& a, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner) {
    const int NT = 128;
    launch<KeStatChannelSum<NT>>(static_cast<unsigned>(outer), NT, a.get_ptr(), out.get_ptr(),
                                 outer, channel, inner);
    VORN_KERNEL_TAIL();
}

// ---- Backward: output * (src_grad - sum), `sum` holding the channel sums of output * src_grad

/// inner of 1. `old` is read, and must be finite where `beta` is 0.
static __global__ void KeSoftmaxBackwardNormal(float* dst_grad, const float* output,
                                               const float* src_grad, const float* sum,
                                               index_t outer, int channel, float alpha,
                                               float beta) {
    const int col = blockDim.x * blockIdx.x + threadIdx.x;
    if (col >= channel) {
        return;
    }
    for (index_t row = blockDim.y * blockIdx.y + threadIdx.y; row < outer;
         row += gridDim.y * blockDim.y) {
        const index_t i = row * channel + col;
        const float gradient = output[i] * (src_grad[i] - sum[row]) * alpha;
        dst_grad[i] = fmaf(dst_grad[i], beta, gradient);
    }
}

template <int kThreads>
__global__ void KeSoftmaxBackwardNormal3D(float* dst_grad, const float* output,
                                          const float* src_grad, const float* sum, index_t outer,
                                          index_t channel, index_t inner, float, float) {
    for (index_t n = blockIdx.x; n < outer * channel; n += gridDim.x) {
        const index_t o = n / channel;
        for (index_t k = threadIdx.x; k < inner; k += kThreads) {
            const index_t i = n * inner + k;
            dst_grad[i] = output[i] * (src_grad[i] - sum[o * inner + k]);
        }
    }
}

inline void vorn_softmax_bp_normal(const Tensor<float>& output, const Tensor<float>& src_grad,
                                   Tensor<float>& softmax_sum, Tensor<float>& out, index_t outer,
                                   index_t channel, index_t inner, DType alpha, DType beta) {
    const float* sum_buf_p = softmax_sum.get_ptr();
    const float* src_grad_p = src_grad.get_ptr();
    float* dst_grad_p = out.get_ptr();
    const float* out_p = output.get_ptr();
    CHECK_NOTNULL(sum_buf_p);
    CHECK_NOTNULL(src_grad_p);
    CHECK_NOTNULL(dst_grad_p);
    CHECK_NOTNULL(out_p);
    gpu::trinary_inplace_op(func::elem_mul(1, 0), output, src_grad, out);
    gpu::vorn_stat_channel_sum(out, softmax_sum, outer, channel, inner);
    const index_t max_blocks = kMaxGridSize;
    if (inner == 1) {
        const int NT = 512;
        launch<KeSoftmaxBackwardNormal>(matrix_grid(outer, channel, NT), NT, dst_grad_p, out_p,
                                        src_grad_p, sum_buf_p, outer, static_cast<int>(channel),
                                        alpha, beta);
    } else {
        const int NT = 128;
        const unsigned grid = static_cast<unsigned>(std::min(outer * channel, max_blocks));
        launch<KeSoftmaxBackwardNormal3D<NT>>(grid, NT, dst_grad_p, out_p, src_grad_p, sum_buf_p,
                                              outer, channel, inner, alpha, beta);
    }
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_SOFTMAX_OPS_H_
