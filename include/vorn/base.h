#ifndef VORN_BASE_H_
#define VORN_BASE_H_

#include <cstddef>

/// The vocabulary that a caller needs to name things: element types, sizes and enumerations.
namespace vorn {

using DType = float;          ///< Element type of real-valued tensors, and of alpha and beta.
using index_t = size_t;       ///< Counts, extents and pitches.
using ptr_t = unsigned long;  ///< A pointer held as an integer, for tables of device pointers.

/// Ceiling division, for launch sizes.
inline int div_up(int x, int y) {
    return (x + y - 1) / y;
}

enum ActivationType {
    ACTIVATION_SIGMOID = 0,
    ACTIVATION_RELU = 1,
    ACTIVATION_TANH = 2,
    ACTIVATION_CLIPPED_RELU = 3,
};

enum BatNormType {
    NORM_1CHW = 0,
    NORM_1C11 = 1,
    BAT_NORM_UNKNOWN = 2,
};

enum PoolingType {
    MAX_POOLING_TYPE = 0,
    AVG_POOLING_TYPE_INCLUDE_PADDING = 1,
    AVG_POOLING_TYPE_EXCLUDE_PADDING = 2,
    POOL_TYPE_UNKNOWN = 3,
};

enum ConvAlgo {
    CONV_ALGO_AUTO = 0,
    CONV_ALGO_IMPLICIT_GEMM = 1,
    CONV_ALGO_IMPLICIT_PRECOMP_GEMM = 2,
    CONV_ALGO_GEMM = 3,
    CONV_ALGO_DIRECT = 4,
    CONV_ALGO_FFT = 5,
    CONV_ALGO_FFT_TILING = 6,
    CONV_ALGO_WINOGRAD = 7,
    CONV_ALGO_WINOGRAD_NONFUSED = 8,
};

enum ConvAlgoPref {
    CONV_FWD_NO_WORKSPACE = 0,
    CONV_FWD_PREFER_FASTEST = 1,
    CONV_FWD_SPECIFY_WORKSAPCE_LIMIT = 2,
};

enum ConvGradAlgo {
    CONV_GRAD_ALGO_AUTO = 0,
    CONV_GRAD_ALGO_0 = 1,
    CONV_GRAD_ALGO_1 = 2,
    CONV_GRAD_ALGO_FFT = 3,
    CONV_GRAD_ALGO_3 = 4,
    CONV_GRAD_ALGO_WINOGRAD = 5,
    CONV_GRAD_ALGO_WINOGRAD_NONFUSED = 6,
    CONV_GRAD_ALGO_FFT_TILING = 7,
};

enum ConvGradAlgoPref {
    CONV_GRAD_NO_WORKSPACE = 0,
    CONV_GRAD_PREFER_FASTEST = 1,
    CONV_GRAD_SPECIFY_WORKSAPCE_LIMIT = 2,
};

enum ConvDiffAlgo {
    CONV_DIFF_ALGO_AUTO = 0,
    CONV_DIFF_ALGO_0 = 1,
    CONV_DIFF_ALGO_1 = 2,
    CONV_DIFF_ALGO_FFT = 3,
    CONV_DIFF_ALGO_FFT_TILING = 4,
    CONV_DIFF_ALGO_WINOGRAD = 5,
    CONV_DIFF_ALGO_WINOGRAD_NONFUSED = 6,
};

enum ConvDiffAlgoPref {
    CONV_DIFF_NO_WORKSPACE = 0,
    CONV_DIFF_PREFER_FASTEST = 1,
    CONV_DIFF_SPECIFY_WORKSAPCE_LIMIT = 2,
};

enum ConvPerfStatus {
    CONV_PERF_OK = 0,
    CONV_PERF_ALLOC_FAILED = 1,
    CONV_PERF_INTERNAL_ERROR = 2,
};

}  // namespace vorn

#endif  // VORN_BASE_H_
