#ifndef COMMON_SHAPE_OUTPUT_H_
#define COMMON_SHAPE_OUTPUT_H_

#include "vorn/vorn.h"

namespace common {

/// A new shape for a tensor of which every element is computed next. Zeroes only memory that is
/// new: operators that blend read the old output, which must then be finite, and what an earlier
/// batch left there is.
inline void shape_output(vorn::Tensor<float>* tensor, const vorn::Dim& size) {
    const float* before = tensor->get_ptr();
    tensor->resize(size, false);
    if (tensor->get_ptr() != before) {
        tensor->zero();
    }
}

}  // namespace common

#endif  // COMMON_SHAPE_OUTPUT_H_
