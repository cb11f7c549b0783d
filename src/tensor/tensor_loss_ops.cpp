#include "vorn/ops/loss_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::cross_entropy(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                              index_t outer, index_t channel, index_t inner, DType alpha,
                              DType beta) {
    vorn_cross_entropy(output, label, mask, *this, outer, channel, inner, alpha, beta);
}

template <typename T>
void Tensor<T>::cross_entropy(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                              DType alpha, DType beta) {
    CHECK(output.get_dim() == 2);
    cross_entropy(output, label, mask, output.row(), output.get_w(), 1, alpha, beta);
}

template <typename T>
void Tensor<T>::cross_entropy_bp(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                                 index_t outer, index_t channel, index_t inner, DType alpha,
                                 DType beta) {
    vorn_cross_entropy_bp(output, label, mask, *this, outer, channel, inner, alpha, beta);
}

template <typename T>
void Tensor<T>::cross_entropy_bp(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                                 DType alpha, DType beta) {
    CHECK(output.get_dim() == 2);
    cross_entropy_bp(output, label, mask, output.row(), output.get_w(), 1, alpha, beta);
}

// ---- Instantiations

#define FOR_OUTPUT_AND_LABEL(member, ...)                                           \
    template void Tensor<float>::member(const Tensor<float>&, const Tensor<float>&, \
                                        const Tensor<int>&, __VA_ARGS__);

FOR_OUTPUT_AND_LABEL(cross_entropy, index_t, index_t, index_t, DType, DType)
FOR_OUTPUT_AND_LABEL(cross_entropy, DType, DType)
FOR_OUTPUT_AND_LABEL(cross_entropy_bp, index_t, index_t, index_t, DType, DType)
FOR_OUTPUT_AND_LABEL(cross_entropy_bp, DType, DType)

#undef FOR_OUTPUT_AND_LABEL

}  // namespace vorn
