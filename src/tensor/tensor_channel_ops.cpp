#include "vorn/ops/channel_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::shrink(const Tensor& obj, size_t dim, size_t index) {
    vorn_shrink(obj, *this, dim, index);
}

template <typename T>
void Tensor<T>::shrink_bp(const Tensor& obj, size_t dim, size_t index) {
    vorn_shrink_bp(obj, *this, dim, index);
}

template <typename T>
void Tensor<T>::channel_append(const std::vector<Tensor<float>*>& src_vec,
                               Tensor<unsigned long>& ptr, DType alpha, DType beta) {
    vorn_channel_append(src_vec, ptr, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::channel_append_bp(const std::vector<Tensor<float>*>& dst_vec,
                                  const std::vector<bool>& filters, Tensor<unsigned long>& ptr,
                                  DType alpha, DType beta) {
    vorn_channel_append_derivative(dst_vec, filters, ptr, *this, alpha, beta);
}

// ---- Instantiations

template void Tensor<float>::shrink(const Tensor&, size_t, size_t);
template void Tensor<float>::shrink_bp(const Tensor&, size_t, size_t);
template void Tensor<float>::channel_append(const std::vector<Tensor<float>*>&,
                                            Tensor<unsigned long>&, DType, DType);
template void Tensor<float>::channel_append_bp(const std::vector<Tensor<float>*>&,
                                               const std::vector<bool>&, Tensor<unsigned long>&,
                                               DType, DType);

}  // namespace vorn
