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

template <typename T>
void Tensor<T>::mean_squre_error(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                                 DType alpha, DType beta) {
    vorn_mean_squre_error(output, label, mask, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::mean_squre_error_bp(const Tensor& output, const Tensor& label,
                                    const Tensor<int>& mask, DType alpha, DType beta) {
    vorn_mean_squre_error_bp(output, label, mask, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::rnnoise(const Tensor& y_pred, const Tensor& y_true, const Tensor<int>& mask,
                        DType alpha, DType beta) {
    vorn_rnnoise(y_pred, y_true, mask, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::rnnoise_bp(const Tensor& y_pred, const Tensor& y_true, const Tensor<int>& mask,
                           DType alpha, DType beta) {
    vorn_rnnoise_bp(y_pred, y_true, mask, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::fixed_loss(const Tensor& tensor) {
    vorn_fixed_loss(tensor, *this);
}

template <typename T>
void Tensor<T>::fixed_loss() {
    fixed_loss(*this);
}

template <typename T>
void Tensor<T>::smooth_l1(const Tensor& obj, DType sigma2) {
    vorn_smooth_l1(obj, *this, sigma2);
}

template <typename T>
void Tensor<T>::smooth_l1_bp(const Tensor& obj, DType sigma2) {
    vorn_smooth_l1_bp(obj, *this, sigma2);
}

// ---- Instantiations

#define FOR_OUTPUT_AND_LABEL(member, ...)                                           \
    template void Tensor<float>::member(const Tensor<float>&, const Tensor<float>&, \
                                        const Tensor<int>&, __VA_ARGS__);

FOR_OUTPUT_AND_LABEL(cross_entropy, index_t, index_t, index_t, DType, DType)
FOR_OUTPUT_AND_LABEL(cross_entropy, DType, DType)
FOR_OUTPUT_AND_LABEL(cross_entropy_bp, index_t, index_t, index_t, DType, DType)
FOR_OUTPUT_AND_LABEL(cross_entropy_bp, DType, DType)
FOR_OUTPUT_AND_LABEL(mean_squre_error, DType, DType)
FOR_OUTPUT_AND_LABEL(mean_squre_error_bp, DType, DType)
FOR_OUTPUT_AND_LABEL(rnnoise, DType, DType)
FOR_OUTPUT_AND_LABEL(rnnoise_bp, DType, DType)

#undef FOR_OUTPUT_AND_LABEL

template void Tensor<float>::fixed_loss(const Tensor<float>&);
template void Tensor<float>::fixed_loss();
template void Tensor<float>::smooth_l1(const Tensor<float>&, DType);
template void Tensor<float>::smooth_l1_bp(const Tensor<float>&, DType);

}  // namespace vorn
