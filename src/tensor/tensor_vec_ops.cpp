#include "vorn/ops/vec_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::row_add_vec(const Tensor& mat, const Tensor& vec, DType alpha0, DType alpha1,
                            DType beta) {
    vorn_mat_row_add_vec(mat, vec, *this, alpha0, alpha1, beta);
}

template <typename T>
void Tensor<T>::col_add_vec(const Tensor& mat, const Tensor& vec, DType alpha0, DType alpha1,
                            DType beta) {
    vorn_mat_col_add_vec(mat, vec, *this, alpha0, alpha1, beta);
}

template <typename T>
void Tensor<T>::row_mul_vec(const Tensor& mat, const Tensor& vec, DType alpha, DType beta) {
    vorn_mat_row_mul_vec(mat, vec, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::col_mul_vec(const Tensor& mat, const Tensor& vec, DType alpha, DType beta) {
    vorn_mat_col_mul_vec(mat, vec, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::diag_add_vec(const Tensor& mat, const Tensor& diag_mat, DType alpha0, DType alpha1,
                             DType beta) {
    vorn_mat_diag_add_vec(mat, diag_mat, *this, alpha0, alpha1, beta);
}

template <typename T>
void Tensor<T>::diag_mul_vec(const Tensor& mat, const Tensor& diag_mat, DType alpha, DType beta) {
    vorn_mat_diag_mul_vec(mat, diag_mat, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::log_sub_prior(const Tensor& in, const Tensor& prior) {
    vorn_log_sub_prior(in, prior, *this);
}

template <typename T>
void Tensor<T>::log_sub_prior(const Tensor& prior) {
    log_sub_prior(*this, prior);
}

// ---- Instantiations

template void Tensor<float>::row_add_vec(const Tensor<float>&, const Tensor<float>&, DType, DType,
                                         DType);
template void Tensor<float>::col_add_vec(const Tensor<float>&, const Tensor<float>&, DType, DType,
                                         DType);
template void Tensor<float>::row_mul_vec(const Tensor<float>&, const Tensor<float>&, DType, DType);
template void Tensor<float>::col_mul_vec(const Tensor<float>&, const Tensor<float>&, DType, DType);
template void Tensor<float>::diag_add_vec(const Tensor<float>&, const Tensor<float>&, DType, DType,
                                          DType);
template void Tensor<float>::diag_mul_vec(const Tensor<float>&, const Tensor<float>&, DType, DType);
template void Tensor<float>::log_sub_prior(const Tensor<float>&, const Tensor<float>&);
template void Tensor<float>::log_sub_prior(const Tensor<float>&);

}  // namespace vorn
