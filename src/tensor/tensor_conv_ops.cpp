#include "vorn/ops/conv_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::conv_fwd(const ConvDesc& conv_desc, const Tensor<float>& x, const Tensor<float>& w,
                         void* work_space, index_t work_space_size_byte, DType alpha, DType beta) {
    vorn_conv_fwd(conv_desc, x, w, *this, work_space, work_space_size_byte, alpha, beta);
}

template <typename T>
void Tensor<T>::conv_grad(const ConvDesc& conv_desc, const Tensor<float>& x,
                          const Tensor<float>& dy, void* work_space, index_t work_space_size_byte,
                          DType alpha, DType beta) {
    vorn_conv_grad(conv_desc, x, dy, *this, work_space, work_space_size_byte, alpha, beta);
}

template <typename T>
void Tensor<T>::conv_diff(const ConvDesc& conv_desc, const Tensor<float>& w,
                          const Tensor<float>& dy, void* work_space, index_t work_space_size_byte,
                          DType alpha, DType beta) {
    vorn_conv_diff(conv_desc, w, dy, *this, work_space, work_space_size_byte, alpha, beta);
}

template <typename T>
void Tensor<T>::add_tensor(const Tensor<float>& bias, DType alpha, DType beta) {
    vorn_add_tensor(bias, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::conv_bias(const Tensor<float>& dy, DType alpha, DType beta) {
    vorn_conv_bias(dy, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::transpose_channel_height(const Tensor<float>& in) {
    vorn_transpose_channel_height(in, *this);
}

// ---- Queries

template <typename T>
ConvAlgo Tensor<T>::conv_get_fwd_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                      const Tensor<float>& w, const Tensor<float>& y,
                                      ConvAlgoPref pref, index_t memory_limit_bytes) {
    return vorn_conv_get_fwd_algo(conv_desc, x, w, y, pref, memory_limit_bytes);
}

template <typename T>
ConvGradAlgo Tensor<T>::conv_get_grad_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                           const Tensor<float>& dy, const Tensor<float>& dw,
                                           ConvGradAlgoPref pref, index_t memory_limit_bytes) {
    return vorn_conv_get_grad_algo(conv_desc, x, dy, dw, pref, memory_limit_bytes);
}

template <typename T>
ConvDiffAlgo Tensor<T>::conv_get_diff_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                           const Tensor<float>& dy, const Tensor<float>& dw,
                                           ConvDiffAlgoPref pref, index_t memory_limit_bytes) {
    return vorn_conv_get_diff_algo(conv_desc, x, dy, dw, pref, memory_limit_bytes);
}

template <typename T>
index_t Tensor<T>::conv_get_fwd_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                const Tensor<float>& w, const Tensor<float>& y,
                                                ConvAlgo algo) {
    return vorn_conv_get_fwd_work_space_size(conv_desc, x, w, y, algo);
}

template <typename T>
index_t Tensor<T>::conv_get_grad_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                 const Tensor<float>& dy, const Tensor<float>& dw,
                                                 ConvGradAlgo algo) {
    return vorn_conv_get_grad_work_space_size(conv_desc, x, dy, dw, algo);
}

template <typename T>
index_t Tensor<T>::conv_get_diff_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                                 const Tensor<float>& dy, const Tensor<float>& dw,
                                                 ConvDiffAlgo algo) {
    return vorn_conv_get_diff_work_space_size(conv_desc, x, dy, dw, algo);
}

template <typename T>
std::vector<ConvAlgoPerf> Tensor<T>::conv_get_fwd_algo_perf(const ConvDesc& conv_desc,
                                                            const Tensor<float>& x,
                                                            const Tensor<float>& w,
                                                            const Tensor<float>& y) {
    return vorn_conv_get_fwd_algo_perf(conv_desc, x, w, y);
}

template <typename T>
std::vector<ConvGradAlgoPerf> Tensor<T>::conv_get_grad_algo_perf(const ConvDesc& conv_desc,
                                                                 const Tensor<float>& x,
                                                                 const Tensor<float>& dy,
                                                                 const Tensor<float>& dw) {
    return vorn_conv_get_grad_algo_perf(conv_desc, x, dy, dw);
}

template <typename T>
std::vector<ConvDiffAlgoPerf> Tensor<T>::conv_get_diff_algo_perf(const ConvDesc& conv_desc,
                                                                 const Tensor<float>& x,
                                                                 const Tensor<float>& dy,
                                                                 const Tensor<float>& dw) {
    return vorn_conv_get_diff_algo_perf(conv_desc, x, dy, dw);
}

// ---- Instantiations

#define VORN_OPERANDS const ConvDesc&, const Tensor<float>&, const Tensor<float>&
template void Tensor<float>::conv_fwd(VORN_OPERANDS, void*, index_t, DType, DType);
template void Tensor<float>::conv_grad(VORN_OPERANDS, void*, index_t, DType, DType);
template void Tensor<float>::conv_diff(VORN_OPERANDS, void*, index_t, DType, DType);
template void Tensor<float>::add_tensor(const Tensor<float>&, DType, DType);
template void Tensor<float>::conv_bias(const Tensor<float>&, DType, DType);
template void Tensor<float>::transpose_channel_height(const Tensor<float>&);

#define VORN_SHAPES VORN_OPERANDS, const Tensor<float>&
template ConvAlgo Tensor<float>::conv_get_fwd_algo(VORN_SHAPES, ConvAlgoPref, index_t);
template ConvGradAlgo Tensor<float>::conv_get_grad_algo(VORN_SHAPES, ConvGradAlgoPref, index_t);
template ConvDiffAlgo Tensor<float>::conv_get_diff_algo(VORN_SHAPES, ConvDiffAlgoPref, index_t);
template index_t Tensor<float>::conv_get_fwd_work_space_size(VORN_SHAPES, ConvAlgo);
template index_t Tensor<float>::conv_get_grad_work_space_size(VORN_SHAPES, ConvGradAlgo);
template index_t Tensor<float>::conv_get_diff_work_space_size(VORN_SHAPES, ConvDiffAlgo);
template std::vector<ConvAlgoPerf> Tensor<float>::conv_get_fwd_algo_perf(VORN_SHAPES);
template std::vector<ConvGradAlgoPerf> Tensor<float>::conv_get_grad_algo_perf(VORN_SHAPES);
template std::vector<ConvDiffAlgoPerf> Tensor<float>::conv_get_diff_algo_perf(VORN_SHAPES);
#undef VORN_SHAPES
#undef VORN_OPERANDS

}  // namespace vorn
