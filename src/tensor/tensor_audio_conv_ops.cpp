#include "vorn/ops/audio_conv_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::expand_feat(const Tensor& feat, int fbank, int delta, int conv_out_dim,
                            int filter_size, const Tensor<int>& conv_start,
                            const Tensor<int>& conv_end) {
    vorn_expand_feat(feat, fbank, delta, conv_out_dim, filter_size, conv_start, conv_end, *this);
}

template <typename T>
void Tensor<T>::shrink_errors(const Tensor& expand, int fbank, int delta, int conv_out_dim,
                              int filter_size, const Tensor<int>& conv_start,
                              const Tensor<int>& conv_end) {
    vorn_shrink_errors(expand, fbank, delta, conv_out_dim, filter_size, conv_start, conv_end,
                       *this);
}

template <typename T>
void Tensor<T>::audio_conv_batch_bias(const Tensor& bias, int batch) {
    vorn_audio_conv_batch_bias(bias, *this, batch);
}

template <typename T>
void Tensor<T>::audio_conv_batch_bias_bp(const Tensor& dy, int batch) {
    vorn_audio_conv_batch_bias_bp(dy, *this, batch);
}

template <typename T>
void Tensor<T>::max_pooling(const Tensor& in, const Tensor<int>& conv_size, int filter_num,
                            int pooling_size, Tensor<int>& max_idx, DType alpha, DType beta) {
    vorn_max_pooling(in, conv_size, filter_num, pooling_size, max_idx, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::max_pooling_bp(const Tensor& in, const Tensor<int>& conv_size, int filter_num,
                               int pooling_size, const Tensor<int>& max_idx, DType alpha,
                               DType beta) {
    vorn_max_pooling_bp(in, conv_size, filter_num, pooling_size, max_idx, *this, alpha, beta);
}

// ---- Instantiations

template void Tensor<float>::expand_feat(const Tensor&, int, int, int, int, const Tensor<int>&,
                                         const Tensor<int>&);
template void Tensor<float>::shrink_errors(const Tensor&, int, int, int, int, const Tensor<int>&,
                                           const Tensor<int>&);
template void Tensor<float>::audio_conv_batch_bias(const Tensor&, int);
template void Tensor<float>::audio_conv_batch_bias_bp(const Tensor&, int);
template void Tensor<float>::max_pooling(const Tensor&, const Tensor<int>&, int, int, Tensor<int>&,
                                         DType, DType);
template void Tensor<float>::max_pooling_bp(const Tensor&, const Tensor<int>&, int, int,
                                            const Tensor<int>&, DType, DType);

}  // namespace vorn
