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

#define FOR_FLOAT(T)                                                                             \
    template void Tensor<T>::row_add_vec(const Tensor<T>&, const Tensor<T>&, DType, DType, DType);  \
    template void Tensor<T>::col_add_vec(const Tensor<T>&, const Tensor<T>&, DType, DType, DType);  \
    template void Tensor<T>::row_mul_vec(const Tensor<T>&, const Tensor<T>&, DType, DType);         \
    template void Tensor<T>::col_mul_vec(const Tensor<T>&, const Tensor<T>&, DType, DType);         \
    template void Tensor<T>::diag_add_vec(const Tensor<T>&, const Tensor<T>&, DType, DType, DType); \
    template void Tensor<T>::diag_mul_vec(const Tensor<T>&, const Tensor<T>&, DType, DType);        \
    template void Tensor<T>::log_sub_prior(const Tensor<T>&, const Tensor<T>&);                     \
    template void Tensor<T>::log_sub_prior(const Tensor<T>&);

FOR_FLOAT(float)

#undef FOR_FLOAT

}  // namespace vorn
