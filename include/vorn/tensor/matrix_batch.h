#ifndef VORN_TENSOR_MATRIX_BATCH_H_
#define VORN_TENSOR_MATRIX_BATCH_H_

#include <algorithm>
#include <cstdint>

#include "vorn/tensor/tensor.h"

/// Tensors as the BLAS of either device takes them.
namespace vorn {

/// The pitch as BLAS takes it: at least 1, also where a matrix has no columns.
inline int leading_dimension(const Tensor<float>& matrix) {
    return std::max(1, static_cast<int>(matrix.ld()));
}

/// How a tensor divides into matrices of `stride` elements each: the last axis is their columns.
/// `step` is the distance between two of them in memory, which in a pitched tensor is more.
struct MatrixBatch {
    int columns, rows;
    int64_t step;

    MatrixBatch(const Tensor<float>& t, int64_t stride)
        : columns(static_cast<int>(t.get_w())),
          rows(columns == 0 ? 0 : static_cast<int>(stride / columns)),
          step(rows * static_cast<int64_t>(t.ld())) {}
};

}  // namespace vorn

#endif  // VORN_TENSOR_MATRIX_BATCH_H_
