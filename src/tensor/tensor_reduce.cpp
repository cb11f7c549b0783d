#include "vorn/ops/reduce.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

// ---- Folds of rows and columns

template <typename T>
void Tensor<T>::col_sum(const Tensor& a, DType alpha, DType beta) {
    vorn_col_sum<T>(a, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::col_max(const Tensor& a, DType alpha, DType beta) {
    vorn_col_max<T>(a, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::col_min(const Tensor& a, DType alpha, DType beta) {
    vorn_col_min<T>(a, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::row_sum(const Tensor& a, DType alpha, DType beta) {
    vorn_row_sum<T>(a, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::row_max(const Tensor& a, DType alpha, DType beta) {
    vorn_row_max<T>(a, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::row_min(const Tensor& a, DType alpha, DType beta) {
    vorn_row_min<T>(a, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::collect_bias(const Tensor& in, DType alpha, DType beta) {
    col_sum(in, alpha, beta);
}

// ---- Folds of all elements

template <typename T>
T Tensor<T>::sum() const {
    return vorn_sum<T>(*this);
}

template <typename T>
T Tensor<T>::max() const {
    return vorn_max(*this);
}

template <typename T>
T Tensor<T>::min() const {
    return vorn_min(*this);
}

template <typename T>
T Tensor<T>::avg() const {
    return sum() / static_cast<T>(get_element_count());
}

// ---- Instantiations

#define FOR_FLOAT_AND_INT(T)                                          \
    template void Tensor<T>::col_sum(const Tensor<T>&, DType, DType); \
    template void Tensor<T>::row_sum(const Tensor<T>&, DType, DType); \
    template T Tensor<T>::sum() const;

FOR_FLOAT_AND_INT(float)
FOR_FLOAT_AND_INT(int)

template void Tensor<float>::col_max(const Tensor<float>&, DType, DType);
template void Tensor<float>::col_min(const Tensor<float>&, DType, DType);
template void Tensor<float>::row_max(const Tensor<float>&, DType, DType);
template void Tensor<float>::row_min(const Tensor<float>&, DType, DType);
template void Tensor<float>::collect_bias(const Tensor<float>&, DType, DType);
template float Tensor<float>::max() const;
template float Tensor<float>::min() const;
template float Tensor<float>::avg() const;

#undef FOR_FLOAT_AND_INT

}  // namespace vorn
