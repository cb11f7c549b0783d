#ifndef VORN_CPU_LOSS_OPS_H_
#define VORN_CPU_LOSS_OPS_H_

#include <cassert>

#include "vorn/cpu/channels.h"
#include "vorn/cpu/iterator.h"
#include "vorn/ops/loss_rule.h"
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
#pragma GCC ivdep
            for (int j = 0; j < static_cast<int>(length); ++j) {
                const bool is_label = static_cast<int>(at) + j == labelled[j];
                d[j] = func::cross_entropy_bp(is_on[j], is_label, x[j], d[j], alpha, beta);
            }
        });
    });
}

/// inner of 1: a row per item.
inline void cross_entropy_bp_row(const float* in, int label_val, bool is_on, float* out,
                                 index_t channel, float alpha, float beta) {
#pragma GCC ivdep
    for (int c = 0; c < static_cast<int>(channel); ++c) {
        out[c] = func::cross_entropy_bp(is_on, c == label_val, in[c], out[c], alpha, beta);
    }
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

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_LOSS_OPS_H_
