#include "vorn/ops/blas_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::mul(const Tensor& a, const Tensor& b, DType alpha, DType beta) {
    mul(a, false, b, false, alpha, beta);
}

template <typename T>
void Tensor<T>::mul(const Tensor& a, bool a_t, const Tensor& b, bool b_t, DType alpha, DType beta) {
    vorn_gemm(a, a_t, b, b_t, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::batch_mul(const Tensor& a, bool a_t, int64_t a_stride, const Tensor& b, bool b_t,
                          int64_t b_stride, int64_t c_stride, int batch, DType alpha, DType beta) {
    vorn_batch_gemm(a, a_t, a_stride, b, b_t, b_stride, *this, c_stride, batch, alpha, beta);
}

template <typename T>
void Tensor<T>::transpose(const Tensor& tensor) {
    vorn_transpose<T>(tensor, *this);
}

template <typename T>
T Tensor<T>::norm2() const {
    return vorn_norm2(*this);
}

template <typename T>
T Tensor<T>::norm1() const {
    return vorn_norm1(*this);
}

template <typename T>
void Tensor<T>::sgels(Tensor<float>& lhs, Tensor<unsigned long>& ws_d,
                      Tensor<unsigned long>& ws_h) {
    vorn_sgels(lhs, *this, ws_d, ws_h);
}

// ---- Instantiations

template void Tensor<float>::mul(const Tensor<float>&, const Tensor<float>&, DType, DType);
template void Tensor<float>::mul(const Tensor<float>&, bool, const Tensor<float>&, bool, DType,
                                 DType);
template void Tensor<float>::batch_mul(const Tensor<float>&, bool, int64_t, const Tensor<float>&,
                                       bool, int64_t, int64_t, int, DType, DType);
template void Tensor<float>::transpose(const Tensor<float>&);
template void Tensor<int>::transpose(const Tensor<int>&);
template float Tensor<float>::norm2() const;
template float Tensor<float>::norm1() const;
template void Tensor<float>::sgels(Tensor<float>&, Tensor<unsigned long>&, Tensor<unsigned long>&);

}  // namespace vorn
