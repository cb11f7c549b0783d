#ifndef VORN_GPU_LOSS_OPS_H_
#define VORN_GPU_LOSS_OPS_H_

#include <cassert>
#include <cstdio>

#include "vorn/gpu/kernel_util.h"
#include "vorn/ops/loss_rule.h"
#include "vorn/tensor/tensor.h"

/// Kernels of the training objectives, on dense operands where nothing else is said. Where a
/// product and a sum are rounded once, they say fmaf.
namespace vorn {
namespace gpu {

// ---- Cross entropy on (outer, channel, inner) data, with a label and a mask per item (o, k)

/// One thread an item.
static __global__ void KeMatrixCrossEntropy(const float* in, float* out, const float* label,
                                            const int* mask, index_t outer, index_t channel,
                                            index_t inner, float alpha, float beta) {
    const index_t id = static_cast<index_t>(blockDim.x) * blockIdx.x + threadIdx.x;
    if (id >= outer * inner) {
        return;
    }
    const int label_val = static_cast<int>(label[id]);
    if (label_val < 0) {
        printf("[CE] lable_val %d index %d float_val %f\n", label_val, static_cast<int>(id),
               static_cast<double>(label[id]));
    }
    assert(label_val >= 0);
    const index_t o = id / inner, k = id % inner;
    const float old = out[id] * beta;
    out[id] = mask[id] == 1 ? fmaf(in[(o * channel + label_val) * inner + k], alpha, old) : old;
}

inline void vorn_cross_entropy(const Tensor<float>& in, const Tensor<float>& label,
                               const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                               index_t channel, index_t inner, DType alpha, DType beta) {
    if (out.count() == 0) {
        return;
    }
    const int NT = 512;
    launch<KeMatrixCrossEntropy>(div_up(static_cast<int>(outer * inner), NT), NT, in.get_ptr(),
                                 out.get_ptr(), label.get_ptr(), mask.get_ptr(), outer, channel,
                                 inner, alpha, beta);
    VORN_KERNEL_TAIL();
}

/// x is the class, y the item.
static __global__ void KeMatrixCrossEntropyBp(float* out, const float* in, const float* label,
                                              const int* mask, int outer, int channel, int inner,
                                              float alpha, float beta) {
    const int c = blockDim.x * blockIdx.x + threadIdx.x;
    if (c >= channel) {
        return;
    }
    for (int y = blockDim.y * blockIdx.y + threadIdx.y; y < outer * inner;
         y += gridDim.y * blockDim.y) {
        const int label_val = static_cast<int>(label[y]);
        if (label_val < 0) {
            printf("[CE bp] lable_val %d index %d float_val %f\n", label_val, y,
                   static_cast<double>(label[y]));
        }
        assert(label_val >= 0);
        const int i = (y / inner * channel + c) * inner + y % inner;
        out[i] = func::cross_entropy_bp(mask[y] != 0, c == label_val, in[i], out[i], alpha, beta);
    }
}

inline void vorn_cross_entropy_bp(const Tensor<float>& in, const Tensor<float>& label,
                                  const Tensor<int>& mask, Tensor<float>& out, index_t outer,
                                  index_t channel, index_t inner, DType alpha, DType beta) {
    if (out.count() == 0) {
        return;
    }
    const int NT = 512;
    launch<KeMatrixCrossEntropyBp>(matrix_grid(outer * inner, channel, NT), NT, out.get_ptr(),
                                   in.get_ptr(), label.get_ptr(), mask.get_ptr(),
                                   static_cast<int>(outer), static_cast<int>(channel),
                                   static_cast<int>(inner), alpha, beta);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_LOSS_OPS_H_
