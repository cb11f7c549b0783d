#include "vorn/ops/label_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::count_valid_label(const Tensor<int>& mask, DType ignore_label_val, size_t* count) {
    vorn_count_valid_label(*this, mask, ignore_label_val, count);
}

template <typename T>
void Tensor<T>::cal_classify_acu_target(const Tensor<float>& in, const Tensor<float>& label,
                                        const Tensor<int>& mask, Tensor<int>& max_idx,
                                        DType ignore_label_val, size_t* count) {
    vorn_cal_classify_acu_target(in, label, mask, max_idx, *this, ignore_label_val, count);
}

// ---- Instantiations

template void Tensor<float>::count_valid_label(const Tensor<int>&, DType, size_t*);
template void Tensor<float>::cal_classify_acu_target(const Tensor<float>&, const Tensor<float>&,
                                                     const Tensor<int>&, Tensor<int>&, DType,
                                                     size_t*);

}  // namespace vorn
