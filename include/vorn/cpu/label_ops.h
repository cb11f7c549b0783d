#ifndef VORN_CPU_LABEL_OPS_H_
#define VORN_CPU_LABEL_OPS_H_

#include <cmath>

#include "vorn/cpu/kit/fold.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the counts over labels.
namespace vorn {
namespace cpu {

inline void vorn_count_valid_label(const Tensor<float>& label, const Tensor<int>& mask,
                                   DType ignore_label_val, size_t* count) {
    const index_t num = label.get_element_count();
    const float* label_p = label.get_ptr();
    int valid = 0;
    if (mask.get_dim() == 0) {
        for (index_t i = 0; i < num; ++i) {
            valid += label_p[i] != ignore_label_val;
        }
    } else {
        const int* mask_p = mask.get_ptr();
        for (index_t i = 0; i < num; ++i) {
            valid += (mask_p[i] == 1) & (label_p[i] != ignore_label_val);
        }
    }
    *count = valid;
}

/// The column of the largest of the n scores of a row, the lowest of several. No score replaces a
/// NaN in column 0, and no NaN another score.
inline int top_class(const float* row, index_t n) {
    index_t top = 0;
    for (index_t j = 1; j < n; ++j) {
        if (row[j] > row[top]) {
            top = j;
        }
    }
    return static_cast<int>(top);
}

inline void vorn_cal_classify_acu_target(const Tensor<float>& in, const Tensor<float>& label,
                                         const Tensor<int>& mask, Tensor<int>& max_idx,
                                         Tensor<float>& out, DType ignore_label_val,
                                         size_t* count) {
    const index_t dim_m = in.get_size(0), dim_n = in.get_size(1);
    const float *in_p = in.get_ptr(), *label_p = label.get_ptr();
    const int* mask_p = mask.get_ptr();
    int* max_idx_p = max_idx.get_ptr();
    float* out_p = out.get_ptr();
    size_t right_count = 0;
    fold_rows(MaxIdFold(), in_p, dim_m, dim_n, dim_n, [&](index_t i, int id) {
        const float* row = in_p + i * dim_n;
        // The fold knows no score below the finite ones, and passes over a NaN in column 0.
        const int idx = id < 0 || std::isnan(row[0]) ? top_class(row, dim_n) : id;
        max_idx_p[i] = idx;
        out_p[i] = row[idx];
        right_count += mask_p[i] == 1 && static_cast<float>(idx) == label_p[i] &&
                       label_p[i] != ignore_label_val;
    });
    *count = right_count;
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_LABEL_OPS_H_
