#ifndef GPUSIM_DETAIL_CUDNN_DESCRIPTORS_H_
#define GPUSIM_DETAIL_CUDNN_DESCRIPTORS_H_

// The descriptors of cuDNN. An operation works on copies of their values, so that they may be
// changed or destroyed while it is still in its stream's queue.

#include <array>
#include <cstddef>

#include "cudnn.h"

namespace gpusim::cudnn {

/// Axes of extents and strides.
enum Axis4d { kN, kC, kH, kW };

using Extents = std::array<int, 4>;

struct Tensor {
    cudnnDataType_t type;
    Extents extent;
    Extents stride;  // in elements

    ptrdiff_t offset(int n, int c, int h, int w = 0) const {
        return ptrdiff_t{stride[kN]} * n + ptrdiff_t{stride[kC]} * c + ptrdiff_t{stride[kH]} * h +
               ptrdiff_t{stride[kW]} * w;
    }
    /// From the first byte to the last, for strides that aren't negative.
    size_t bytes() const;
    bool has_negative_stride() const;
    /// Whether two of its elements may have the same address.
    bool overlaps_itself() const;
};

/// Packed, in the order of its format.
struct Filter {
    Tensor tensor;
    cudnnTensorFormat_t format;
};

/// Rows first, columns second.
using Pair = std::array<int, 2>;

struct Convolution {
    Pair pad;
    Pair stride;
    Pair dilation;
    cudnnConvolutionMode_t mode;
    cudnnDataType_t compute_type;
    cudnnMathType_t math_type = CUDNN_DEFAULT_MATH;
};

struct Pooling {
    cudnnPoolingMode_t mode;
    cudnnNanPropagation_t max_nan;
    Pair window;
    Pair pad;
    Pair stride;
};

/// Copies what the descriptor was set to. False if it is missing, destroyed, or was never set.
bool read(cudnnTensorDescriptor_t desc, Tensor* value);
bool read(cudnnFilterDescriptor_t desc, Filter* value);
bool read(cudnnConvolutionDescriptor_t desc, Convolution* value);
bool read(cudnnPoolingDescriptor_t desc, Pooling* value);

/// The extents that the operation gives its output; false if one is below 1 or the shapes of the
/// operands don't belong together.
bool output_extents(const Convolution& conv, const Tensor& x, const Filter& w, Extents* y);
bool output_extents(const Pooling& pooling, const Tensor& x, Extents* y);

}  // namespace gpusim::cudnn

#endif  // GPUSIM_DETAIL_CUDNN_DESCRIPTORS_H_
