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
    NORM_1CHW = 0,  ///< statistics of each activation
    NORM_1C11 = 1,  ///< statistics of each channel
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

/// How a convolution moves over an image. Host forms don't read the algorithms.
struct ConvDesc {
    int padding_height;      ///< zero rows above and below the image
    int padding_width;       ///< zero columns left and right
    int stride_h;            ///< vertical step of the filter
    int stride_w;            ///< horizontal step
    int dilation_h;          ///< vertical distance of filter taps; 1 is a dense filter
    int dilation_w;          ///< horizontal distance
    ConvAlgo algo;           ///< of conv_fwd on a GPU
    ConvGradAlgo grad_algo;  ///< of conv_grad
    ConvDiffAlgo diff_algo;  ///< of conv_diff

    /// No padding, steps of 1, a dense filter.
    ConvDesc() : ConvDesc(0, 0, 1, 1) {}
    ConvDesc(int its_padding_height, int its_padding_width, int its_stride_h, int its_stride_w,
             ConvAlgo its_algo = CONV_ALGO_AUTO, ConvGradAlgo its_grad_algo = CONV_GRAD_ALGO_AUTO,
             ConvDiffAlgo its_diff_algo = CONV_DIFF_ALGO_AUTO)
        : padding_height(its_padding_height),
          padding_width(its_padding_width),
          stride_h(its_stride_h),
          stride_w(its_stride_w),
          dilation_h(1),
          dilation_w(1),
          algo(its_algo),
          grad_algo(its_grad_algo),
          diff_algo(its_diff_algo) {}
};

/// How an algorithm did in a trial.
template <typename Algo>
struct ConvPerf {
    Algo algo;
    ConvPerfStatus status;
    float time;           ///< milliseconds
    size_t memory;        ///< bytes of work space
    bool is_determinism;  ///< whether its results repeat bit for bit
};
using ConvAlgoPerf = ConvPerf<ConvAlgo>;
using ConvGradAlgoPerf = ConvPerf<ConvGradAlgo>;
using ConvDiffAlgoPerf = ConvPerf<ConvDiffAlgo>;

/// Regions of an image that are pooled to one value each.
struct PoolingDesc {
    int win_height;  ///< rows of a region
    int win_width;   ///< columns of a region
    int stride_h;    ///< vertical step
    int stride_w;    ///< horizontal step
    int pad_h;       ///< virtual rows above and below the image
    int pad_w;       ///< virtual columns left and right
    PoolingType pooling_type;

    /// The maximum of single elements, which changes nothing.
    PoolingDesc() : PoolingDesc(1, 1, 1, 1, MAX_POOLING_TYPE) {}
    PoolingDesc(int its_win_height, int its_win_width, int its_stride_h, int its_stride_w,
                PoolingType its_pooling_type)
        : win_height(its_win_height),
          win_width(its_win_width),
          stride_h(its_stride_h),
          stride_w(its_stride_w),
          pad_h(0),
          pad_w(0),
          pooling_type(its_pooling_type) {}
};

/// A grid of bins over a rectangle of a feature map; by default a single bin at the map's scale.
struct ROIPoolingDesc {
    int pooled_height;    ///< bins in a column of the grid
    int pooled_width;     ///< bins in a row of the grid
    DType spatial_scale;  ///< from coordinates of the image to those of the feature map

    ROIPoolingDesc() : ROIPoolingDesc(1, 1, 1) {}
    ROIPoolingDesc(int its_pooled_height, int its_pooled_width, DType its_spatial_scale)
        : pooled_height(its_pooled_height),
          pooled_width(its_pooled_width),
          spatial_scale(its_spatial_scale) {}
};

/// The same with channels of their own for each bin; the output's shape tells the grid.
struct PSROIPoolingDesc {
    int out_dim;          ///< output channels; not read, the output's shape tells them
    int group_size;       ///< side of the grid of channel groups
    DType spatial_scale;  ///< from coordinates of the image to those of the feature map

    PSROIPoolingDesc() : PSROIPoolingDesc(1, 1, 1) {}
    PSROIPoolingDesc(int its_out_dim, int its_group_size, DType its_spatial_scale)
        : out_dim(its_out_dim), group_size(its_group_size), spatial_scale(its_spatial_scale) {}
};

}  // namespace vorn

#endif  // VORN_BASE_H_
