#include "vorn/ops/softmax_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::softmax(const Tensor& in, index_t outer, index_t channel, index_t inner,
                        DType alpha, DType beta) {
    vorn_softmax(in, *this, outer, channel, inner, alpha, beta);
}

template <typename T>
void Tensor<T>::softmax(const Tensor& in, DType alpha, DType beta) {
    CHECK(in.get_dim() == 2);
    softmax(in, in.row(), in.get_w(), 1, alpha, beta);
}

template <typename T>
void Tensor<T>::softmax_bp_normal(const Tensor& output, const Tensor& src_grad, Tensor& softmax_sum,
                                  index_t outer, index_t channel, index_t inner, DType alpha,
                                  DType beta) {
    vorn_softmax_bp_normal(output, src_grad, softmax_sum, *this, outer, channel, inner, alpha,
                           beta);
}

template <typename T>
void Tensor<T>::softmax_bp_normal(const Tensor& output, const Tensor& src_grad, Tensor& softmax_sum,
                                  DType alpha, DType beta) {
    CHECK(output.get_dim() == 2);
    softmax_bp_normal(output, src_grad, softmax_sum, output.row(), output.get_w(), 1, alpha, beta);
}

// ---- Instantiations

template void Tensor<float>::softmax(const Tensor<float>&, index_t, index_t, index_t, DType, DType);
template void Tensor<float>::softmax(const Tensor<float>&, DType, DType);
template void Tensor<float>::softmax_bp_normal(const Tensor<float>&, const Tensor<float>&,
                                               Tensor<float>&, index_t, index_t, index_t, DType,
                                               DType);
template void Tensor<float>::softmax_bp_normal(const Tensor<float>&, const Tensor<float>&,
                                               Tensor<float>&, DType, DType);

}  // namespace vorn
