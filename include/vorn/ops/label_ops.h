#ifndef VORN_OPS_LABEL_OPS_H_
#define VORN_OPS_LABEL_OPS_H_

#include "vorn/cpu/label_ops.h"
#include "vorn/gpu/label_ops.h"

/// Counts over labels, float-coded class indices of which one value means "ignore". `*count` is set
/// on return by a host, and delivered in stream order by a GPU. All operands are dense.
namespace vorn {

/// *count = the number of labels that are not `ignore_label_val`, of those with the mask on (1)
/// unless `mask` has no axes. A NaN label is valid.
inline void vorn_count_valid_label(const Tensor<float>& label, const Tensor<int>& mask,
                                   DType ignore_label_val, size_t* count) {
    const index_t num = label.get_element_count();
    if (mask.get_dim() != 0) {
        CHECK(mask.get_element_count() == num) << "mask, label size not match";
    }
    if (is_cpu_device(label.get_device())) {
        cpu::vorn_count_valid_label(label, mask, ignore_label_val, count);
    } else {
        gpu::vorn_count_valid_label(label, mask, ignore_label_val, count);
    }
}

/// max_idx, out = the top class of each row of `in` and its score; *count = the number of rows with
/// the mask on whose top class is their label and whose label is not `ignore_label_val`. `in` has
/// at least one column, and `max_idx` an element per row, which is the caller's.
inline void vorn_cal_classify_acu_target(const Tensor<float>& in, const Tensor<float>& label,
                                         const Tensor<int>& mask, Tensor<int>& max_idx,
                                         Tensor<float>& out, DType ignore_label_val,
                                         size_t* count) {
    CHECK(in.get_dim() == 2);
    CHECK(in.get_size(0) == out.get_element_count());
    CHECK(in.get_size(0) == label.get_element_count());
    CHECK(mask.get_element_count() == label.get_element_count());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_cal_classify_acu_target(in, label, mask, max_idx, out, ignore_label_val, count);
    } else {
        gpu::vorn_cal_classify_acu_target(in, label, mask, max_idx, out, ignore_label_val, count);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_LABEL_OPS_H_
