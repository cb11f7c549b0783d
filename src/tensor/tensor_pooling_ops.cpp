#include "vorn/ops/pooling_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

template <typename T>
void Tensor<T>::pool_fwd(const PoolingDesc& pooling_desc, const Tensor<float>& x, DType alpha,
                         DType beta) {
    vorn_pool_fwd(pooling_desc, x, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::pool_bp(const PoolingDesc& pooling_desc, const Tensor<float>& y,
                        const Tensor<float>& dy, const Tensor<float>& x, DType alpha, DType beta) {
    vorn_pool_diff(pooling_desc, y, dy, x, *this, alpha, beta);
}

// ---- Instantiations

template void Tensor<float>::pool_fwd(const PoolingDesc&, const Tensor<float>&, DType, DType);
template void Tensor<float>::pool_bp(const PoolingDesc&, const Tensor<float>&, const Tensor<float>&,
                                     const Tensor<float>&, DType, DType);

}  // namespace vorn
