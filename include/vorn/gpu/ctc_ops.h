#ifndef VORN_GPU_CTC_OPS_H_
#define VORN_GPU_CTC_OPS_H_

#include <algorithm>

#include "vorn/gpu/collective.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/rules/ctc_math.h"
#include "vorn/tensor/tensor.h"

/// GPU forms. All operands are dense; frame t of utterance n is row t * utt_num + n.
namespace vorn {
namespace gpu {

const dim3 kCtcBlock(16, 16, 1);

/// One frame row of the forward table. alpha: (frames * utt_num x label_num), prob:
/// (frames * utt_num x class_num), labels: (utt_num x label_num). x is the utterance, y the
/// position. The first rule that matches decides.
static __global__ void KeComputeCtcAlpha(float* alpha, const float* prob, const int* labels,
                                         const int* frame_num_utt, const int* label_lengths_utt,
                                         int row_idx, int utt_num, int label_num, int class_num) {
    const int n = blockIdx.x * blockDim.x + threadIdx.x;
    const int s = blockIdx.y * blockDim.y + threadIdx.y;
    if (n >= utt_num || s >= label_num) {
        return;
    }
    const int t = row_idx;
    const int* label_row = labels + n * label_num;
    const int label = label_row[s], frames = frame_num_utt[n];
    float* out = alpha + (t * utt_num + n) * label_num + s;
    if (label == -1 || frames <= t) {
        *out = CTC_LOG_ZERO;
        return;
    }
    const float p = prob[(t * utt_num + n) * class_num + label];
    if (t == 0) {
        *out = s < 2 ? p : CTC_LOG_ZERO;
        return;
    }
    // A path advances two positions a frame at most: from here it never gets to the end.
    if ((frames - t) * 2 < label_lengths_utt[n] - s) {
        return;
    }
    const float* before = alpha + ((t - 1) * utt_num + n) * label_num + s;
    float sum = before[0];
    if (s > 0) {
        sum = func::ctc_log_add(before[-1], sum);
        // A blank, and a label that repeats the one before it, can't be jumped to over a blank.
        if (s > 1 && s % 2 != 0 && label_row[s - 2] != label) {
            sum = func::ctc_log_add(before[-2], sum);
        }
    }
    *out = func::ctc_log_mul(p, sum);
}

/// log(prob of the label at position s) + beta there, both of the following frame.
__device__ inline float ctc_beta_term(const float* beta_row, const float* prob_row,
                                      const int* label_row, int s) {
    return func::ctc_log_mul(prob_row[label_row[s]], beta_row[s]);
}

/// One frame row of the backward table, as KeComputeCtcAlpha.
static __global__ void KeComputeCtcBeta(float* beta, const float* prob, const int* labels,
                                        const int* frame_num_utt, const int* label_lengths_utt,
                                        int row_idx, int utt_num, int label_num, int class_num) {
    const int n = blockIdx.x * blockDim.x + threadIdx.x;
    const int s = blockIdx.y * blockDim.y + threadIdx.y;
    if (n >= utt_num || s >= label_num) {
        return;
    }
    const int t = row_idx;
    const int* label_row = labels + n * label_num;
    const int label = label_row[s], frames = frame_num_utt[n], len = label_lengths_utt[n];
    float* out = beta + (t * utt_num + n) * label_num + s;
    if (label == -1 || frames <= t) {
        *out = CTC_LOG_ZERO;
        return;
    }
    if (t == frames - 1) {
        *out = s > len - 3 ? 0.0f : CTC_LOG_ZERO;
        return;
    }
    // No path is that far yet.
    if (s > 2 * t + 1) {
        return;
    }
    const int after = (t + 1) * utt_num + n;
    const float *beta_row = beta + after * label_num, *prob_row = prob + after * class_num;
    float sum = ctc_beta_term(beta_row, prob_row, label_row, s);
    if (s <= len - 2) {
        sum = func::ctc_log_add(ctc_beta_term(beta_row, prob_row, label_row, s + 1), sum);
        if (s < len - 2 && s % 2 != 0 && label_row[s + 2] != label) {
            sum = func::ctc_log_add(ctc_beta_term(beta_row, prob_row, label_row, s + 2), sum);
        }
    }
    *out = sum;
}

/// out: (row_num x class_num), alpha, beta: (row_num x label_num), labels: (utt_num x label_num).
/// x is the row, y the class.
static __global__ void KeComputeCtcErr(float* out, const float* alpha, const float* beta,
                                       const int* labels, const int* frame_num_utt,
                                       const float* pzx, int utt_num, int row_num, int class_num,
                                       int label_num) {
    const int r = blockIdx.x * blockDim.x + threadIdx.x;
    const int k = blockIdx.y * blockDim.y + threadIdx.y;
    if (r >= row_num || k >= class_num) {
        return;
    }
    const int n = r % utt_num, t = r / utt_num;
    if (t >= frame_num_utt[n]) {
        return;
    }
    const int* label_row = labels + n * label_num;
    const float *alpha_row = alpha + r * label_num, *beta_row = beta + r * label_num;
    // Most classes are not in the row, and counting is fast because no step waits for another.
    int left = 0;
    for (int s = 0; s < label_num; ++s) {
        left += label_row[s] == k;
    }
    float acc = CTC_LOG_ZERO;
    for (int s = 0; left != 0 && label_row[s] != -1; ++s) {
        if (label_row[s] == k) {
            acc = func::ctc_log_add(func::ctc_log_mul(alpha_row[s], beta_row[s]), acc);
            --left;
        }
    }
    out[r * class_num + k] = func::ctc_safe_exp(func::ctc_log_sub(acc, pzx[n]));
}

/// in: (dimM x dimN), id_vec: dimM. One block a row.
template <int kThreads>
__global__ void KeFindRowMaxId(const float* in, int* id_vec, size_t dimM, size_t dimN) {
    __shared__ float smax[kThreads];
    __shared__ int sidx[kThreads];
    const size_t row = blockIdx.x;
    if (row >= dimM) {
        return;
    }
    const int tid = threadIdx.x;
    const float* in_row = in + row * dimN;
    float max = CTC_LOG_ZERO;
    int idx = -1;
    for (size_t col = tid; col < dimN; col += kThreads) {
        if (in_row[col] > max) {
            max = in_row[col];
            idx = static_cast<int>(col);
        }
    }
    smax[tid] = max;
    sidx[tid] = idx;
    block_fold<kThreads>(ArgMaxSlots{smax, sidx});
    if (tid == 0) {
        id_vec[row] = sidx[0];
    }
}

/// in, out: (dimM x dimN), mask: dimM. One thread a column.
static __global__ void KeDoVecMask(const float* in, const int* mask, float* out, size_t dimM,
                                   size_t dimN) {
    const size_t col = blockIdx.x * static_cast<size_t>(blockDim.x) + threadIdx.x;
    if (col >= dimN) {
        return;
    }
    for (size_t row = blockIdx.y; row < dimM; row += gridDim.y) {
        const size_t pos = row * dimN + col;
        out[pos] = mask[row] != 0 ? in[pos] : 0.0f;
    }
}

inline void vorn_compute_ctc_alpha(const Tensor<float>& prob, int row_idx,
                                   const Tensor<int>& labels, const Tensor<int>& frame_num_utt,
                                   const Tensor<int>& label_lengths_utt, Tensor<float>& out) {
    const int utt_num = static_cast<int>(frame_num_utt.get_element_count());
    const int label_num = static_cast<int>(out.get_w());
    launch<KeComputeCtcAlpha>(covering_grid(utt_num, label_num, kCtcBlock), kCtcBlock,
                              out.get_ptr(), prob.get_ptr(), labels.get_ptr(),
                              frame_num_utt.get_ptr(), label_lengths_utt.get_ptr(), row_idx,
                              utt_num, label_num, static_cast<int>(prob.get_w()));
    VORN_KERNEL_TAIL();
}

inline void vorn_compute_ctc_beta(const Tensor<float>& prob, int row_idx, const Tensor<int>& labels,
                                  const Tensor<int>& frame_num_utt,
                                  const Tensor<int>& label_lengths_utt, Tensor<float>& out) {
    const int utt_num = static_cast<int>(frame_num_utt.get_element_count());
    const int label_num = static_cast<int>(out.get_w());
    launch<KeComputeCtcBeta>(covering_grid(utt_num, label_num, kCtcBlock), kCtcBlock, out.get_ptr(),
                             prob.get_ptr(), labels.get_ptr(), frame_num_utt.get_ptr(),
                             label_lengths_utt.get_ptr(), row_idx, utt_num, label_num,
                             static_cast<int>(prob.get_w()));
    VORN_KERNEL_TAIL();
}

inline void vorn_compute_ctc_err(const Tensor<float>& alpha, const Tensor<float>& beta,
                                 const Tensor<int>& labels, const Tensor<int>& frame_num_utt,
                                 const Tensor<float>& pzx, Tensor<float>& out) {
    const int row_num = static_cast<int>(out.row()), class_num = static_cast<int>(out.get_w());
    launch<KeComputeCtcErr>(covering_grid(row_num, class_num, kCtcBlock), kCtcBlock, out.get_ptr(),
                            alpha.get_ptr(), beta.get_ptr(), labels.get_ptr(),
                            frame_num_utt.get_ptr(), pzx.get_ptr(),
                            static_cast<int>(frame_num_utt.get_element_count()), row_num, class_num,
                            static_cast<int>(alpha.get_w()));
    VORN_KERNEL_TAIL();
}

inline void vorn_find_row_max_id(const Tensor<float>& in, Tensor<int>& max_id_vec) {
    const int NT = 128;
    launch<KeFindRowMaxId<NT>>(static_cast<int>(in.row()), NT, in.get_ptr(), max_id_vec.get_ptr(),
                               in.row(), in.get_w());
    VORN_KERNEL_TAIL();
}

inline void vorn_vec_mask(const Tensor<float>& in, const Tensor<int>& mask, Tensor<float>& out) {
    const int NT = 256;
    const index_t dimM = out.row(), dimN = out.get_w();
    launch<KeDoVecMask>(matrix_grid(dimM, dimN, NT), NT, in.get_ptr(), mask.get_ptr(),
                        out.get_ptr(), dimM, dimN);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_CTC_OPS_H_
