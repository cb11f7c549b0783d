#include "vorn/ops/random_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::random(DType lo, DType hi) {
    vorn_random(*this, lo, hi);
}

template <typename T>
void Tensor<T>::uniform_random() {
    vorn_uniform_random(*this);
}

template <typename T>
void Tensor<T>::gauss_random(DType mean, DType std_deviation) {
    vorn_gauss_random(*this, mean, std_deviation);
}

template <typename T>
void Tensor<T>::zero_random(float mask_prob) {
    vorn_mask_random(*this, mask_prob);
}

template <typename T>
void Tensor<T>::one_random(float one_prob) {
    zero_random(1.0f - one_prob);
}

// ---- Instantiations

template void Tensor<float>::random(DType, DType);
template void Tensor<float>::uniform_random();
template void Tensor<float>::gauss_random(DType, DType);
template void Tensor<float>::zero_random(float);
template void Tensor<float>::one_random(float);

}  // namespace vorn
