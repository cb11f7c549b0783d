#include "vorn/ops/linear_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::max_out_fwd(const Tensor& in, int pooling_size, Tensor<int>& idx_vec) {
    vorn_max_out_fwd(in, pooling_size, idx_vec, *this);
}

template <typename T>
void Tensor<T>::max_out_bwd(const Tensor& in, int pooling_size, const Tensor<int>& idx_vec,
                            DType alpha, DType beta) {
    vorn_max_out_bwd(in, pooling_size, idx_vec, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::col_append(const Tensor& in, index_t count) {
    vorn_col_append(in, *this, count);
}

template <typename T>
void Tensor<T>::col_deappend(const Tensor& in, index_t count) {
    vorn_col_deappend(in, *this, count);
}

// ---- Instantiations

template void Tensor<float>::max_out_fwd(const Tensor&, int, Tensor<int>&);
template void Tensor<float>::max_out_bwd(const Tensor&, int, const Tensor<int>&, DType, DType);
template void Tensor<float>::col_append(const Tensor&, index_t);
template void Tensor<float>::col_deappend(const Tensor&, index_t);

}  // namespace vorn
