#ifndef VORN_GPU_LABEL_OPS_H_
#define VORN_GPU_LABEL_OPS_H_

#include <cassert>

#include "vorn/gpu/collective.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of the counts over labels. They don't wait for their own result: a kernel writes the
/// count into the thread's page-locked `cpu_mem`, a copy on the same stream moves it on to the
/// caller's variable, and an event after that copy tells when `cpu_mem` is free again.
namespace vorn {
namespace gpu {

// ---- Kernels

/// One block. *count = the number of i in [0, n) for which is_counted(i).
template <int kThreads, typename IsCounted>
__device__ void count_items(size_t* count, index_t n, IsCounted is_counted) {
    __shared__ size_t s[kThreads];
    const int t = thread_in_block();
    size_t mine = 0;
    for (index_t i = t; i < n; i += kThreads) {
        mine += is_counted(i);
    }
    s[t] = mine;
    block_fold<kThreads>([&](int to, int from) { s[to] += s[from]; });
    if (t == 0) {
        *count = s[0];
    }
}

/// label: label_size; mask: the same, or null without one. One block.
template <int kThreads, bool has_mask>
__global__ void KeCountValidLabel(const float* label, const int* mask, size_t* count,
                                  float ignore_label_val, index_t label_size) {
    if constexpr (has_mask) {
        assert(mask != nullptr);
        count_items<kThreads>(count, label_size, [=](index_t i) {
            return mask[i] == 1 && label[i] != ignore_label_val;
        });
    } else {
        assert(mask == nullptr);
        count_items<kThreads>(count, label_size,
                              [=](index_t i) { return label[i] != ignore_label_val; });
    }
}

/// max_idx, label, mask: label_size. One block.
template <int kThreads>
__global__ void KeCalClassifyAcuTargetCount(const int* max_idx, const float* label, const int* mask,
                                            size_t* count, float ignore_label_val,
                                            index_t label_size) {
    count_items<kThreads>(count, label_size, [=](index_t i) {
        return mask[i] == 1 && max_idx[i] == static_cast<int>(label[i]) &&
               label[i] != ignore_label_val;
    });
}

/// in: (dim_m x dim_n); max_idx, out: dim_m. Block b on row b. On equal scores a thread keeps its
/// lowest column, and the tree the lower thread of each pair.
template <int kThreads>
__global__ void KeCalClassifyAcuTargetFindMax(const float* in, int* max_idx, float* out,
                                              int /*dim_m*/, int dim_n) {
    __shared__ float smax[kThreads];
    __shared__ int sidx[kThreads];
    const int t = thread_in_block();
    const float* row = in + blockIdx.x * dim_n;
    float max = row[0];
    int idx = 0;
    for (index_t col = t; col < dim_n; col += kThreads) {
        if (row[col] > max) {
            max = row[col];
            idx = static_cast<int>(col);
        }
    }
    smax[t] = max;
    sidx[t] = idx;
    block_fold<kThreads>(ArgMaxSlots{smax, sidx});
    if (t == 0) {
        max_idx[blockIdx.x] = sidx[0];
        out[blockIdx.x] = smax[0];
    }
}

// ---- Delivery of a count

/// Where the kernels of this thread leave their count.
inline size_t* count_slot() {
    return reinterpret_cast<size_t*>(t_ctx->cpu_mem);
}

/// Waits until the thread's last count has left the slot.
inline void wait_for_count_slot() {
    while (cudaEventQuery(t_ctx->event) == cudaErrorNotReady) {
    }
    // "Not ready" stays as the last error, where the tail would take it for a failure.
    if (cudaPeekAtLastError() == cudaErrorNotReady) {
        cudaGetLastError();
    }
}

/// Queues the way of a count from the slot to the caller's variable.
inline void deliver_count(size_t* count) {
    // clang-format off
    CHECK_CALL(cudaMemcpyAsync((void *)count, t_ctx->cpu_mem, sizeof(size_t), cudaMemcpyHostToHost,
                               default_stream));
    // clang-format on
    CHECK_CALL(cudaEventRecord(t_ctx->event, default_stream));
}

// ---- Forms

inline void vorn_count_valid_label(const Tensor<float>& label, const Tensor<int>& mask,
                                   DType ignore_label_val, size_t* count) {
    const int NT = 1024;
    const index_t num = label.get_element_count();
    wait_for_count_slot();
    if (mask.get_dim() == 0 || num == 0) {  // an empty mask has no pointer either
        const int* no_mask = nullptr;
        launch<KeCountValidLabel<NT, false>>(1, NT, label.get_ptr(), no_mask, count_slot(),
                                             ignore_label_val, num);
    } else {
        launch<KeCountValidLabel<NT, true>>(1, NT, label.get_ptr(), mask.get_ptr(), count_slot(),
                                            ignore_label_val, num);
    }
    deliver_count(count);
    VORN_KERNEL_TAIL();
}

inline void vorn_cal_classify_acu_target(const Tensor<float>& in, const Tensor<float>& label,
                                         const Tensor<int>& mask, Tensor<int>& max_idx,
                                         Tensor<float>& out, DType ignore_label_val,
                                         size_t* count) {
    const int NT_max = 128, NT_count = 1024;
    const int dim_m = static_cast<int>(in.get_size(0)), dim_n = static_cast<int>(in.get_size(1));
    launch<KeCalClassifyAcuTargetFindMax<NT_max>>(dim_m, NT_max, in.get_ptr(), max_idx.get_ptr(),
                                                  out.get_ptr(), dim_m, dim_n);
    wait_for_count_slot();
    launch<KeCalClassifyAcuTargetCount<NT_count>>(1, NT_count, max_idx.get_ptr(), label.get_ptr(),
                                                  mask.get_ptr(), count_slot(), ignore_label_val,
                                                  static_cast<index_t>(dim_m));
    deliver_count(count);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_LABEL_OPS_H_
