#ifndef VORN_CPU_IMAGE_BATCH_NORM_OPS_H_
#define VORN_CPU_IMAGE_BATCH_NORM_OPS_H_

#include "vorn/tensor/tensor.h"

/// Batch normalization of images has no host forms.
namespace vorn {
namespace cpu {

inline void vorn_image_bat_norm_forward_inf(BatNormType, DType, DType, const Tensor<float>&,
                                            Tensor<float>&, const Tensor<float>&,
                                            const Tensor<float>&, const Tensor<float>&,
                                            const Tensor<float>&, DType) {
    LOG_FATAL << "Not Implemented Yet";
}

inline void vorn_image_bat_norm_forward_train(BatNormType, DType, DType, const Tensor<float>&,
                                              Tensor<float>&, const Tensor<float>&,
                                              const Tensor<float>&, DType, Tensor<float>&,
                                              Tensor<float>&, DType, Tensor<float>&,
                                              Tensor<float>&) {
    LOG_FATAL << "Not Implemented Yet";
}

inline void vorn_image_bat_norm_back(BatNormType, DType, DType, DType, DType, const Tensor<float>&,
                                     Tensor<float>&, Tensor<float>&, const Tensor<float>&,
                                     Tensor<float>&, Tensor<float>&, DType, const Tensor<float>&,
                                     const Tensor<float>&) {
    LOG_FATAL << "Not Implemented Yet";
}

inline void vorn_image_bat_norm_back_inf(BatNormType, const Tensor<float>&, const Tensor<float>&,
                                         const Tensor<float>&, Tensor<float>&, DType) {
    LOG_FATAL << "Not Implemented Yet";
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_IMAGE_BATCH_NORM_OPS_H_
