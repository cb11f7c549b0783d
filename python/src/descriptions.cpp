#include "tensor_class.h"

/// What describes operations: enumerations, and the structures of convolution and pooling.
namespace vorn {
namespace python {

static void bind_enumerations(nb::module_& m) {
    nb::enum_<BatNormType>(m, "BatNormType", nb::is_arithmetic())
        .value("NORM_1CHW", NORM_1CHW, "statistics of each activation")
        .value("NORM_1C11", NORM_1C11, "statistics of each channel")
        .value("BAT_NORM_UNKNOWN", BAT_NORM_UNKNOWN)
        .export_values();
    nb::enum_<PoolingType>(m, "PoolingType", nb::is_arithmetic())
        .value("MAX_POOLING_TYPE", MAX_POOLING_TYPE)
        .value("AVG_POOLING_TYPE_INCLUDE_PADDING", AVG_POOLING_TYPE_INCLUDE_PADDING)
        .value("AVG_POOLING_TYPE_EXCLUDE_PADDING", AVG_POOLING_TYPE_EXCLUDE_PADDING)
        .value("POOL_TYPE_UNKNOWN", POOL_TYPE_UNKNOWN)
        .export_values();
    nb::enum_<ConvAlgo>(m, "ConvAlgo", nb::is_arithmetic())
        .value("CONV_ALGO_AUTO", CONV_ALGO_AUTO)
        .value("CONV_ALGO_IMPLICIT_GEMM", CONV_ALGO_IMPLICIT_GEMM)
        .value("CONV_ALGO_IMPLICIT_PRECOMP_GEMM", CONV_ALGO_IMPLICIT_PRECOMP_GEMM)
        .value("CONV_ALGO_GEMM", CONV_ALGO_GEMM)
        .value("CONV_ALGO_DIRECT", CONV_ALGO_DIRECT)
        .value("CONV_ALGO_FFT", CONV_ALGO_FFT)
        .value("CONV_ALGO_FFT_TILING", CONV_ALGO_FFT_TILING)
        .value("CONV_ALGO_WINOGRAD", CONV_ALGO_WINOGRAD)
        .value("CONV_ALGO_WINOGRAD_NONFUSED", CONV_ALGO_WINOGRAD_NONFUSED)
        .export_values();
    nb::enum_<ConvAlgoPref>(m, "ConvAlgoPref", nb::is_arithmetic())
        .value("CONV_FWD_NO_WORKSPACE", CONV_FWD_NO_WORKSPACE)
        .value("CONV_FWD_PREFER_FASTEST", CONV_FWD_PREFER_FASTEST)
        .value("CONV_FWD_SPECIFY_WORKSAPCE_LIMIT", CONV_FWD_SPECIFY_WORKSAPCE_LIMIT)
        .export_values();
    nb::enum_<ConvGradAlgo>(m, "ConvGradAlgo", nb::is_arithmetic())
        .value("CONV_GRAD_ALGO_AUTO", CONV_GRAD_ALGO_AUTO)
        .value("CONV_GRAD_ALGO_0", CONV_GRAD_ALGO_0)
        .value("CONV_GRAD_ALGO_1", CONV_GRAD_ALGO_1)
        .value("CONV_GRAD_ALGO_FFT", CONV_GRAD_ALGO_FFT)
        .value("CONV_GRAD_ALGO_3", CONV_GRAD_ALGO_3)
        .value("CONV_GRAD_ALGO_WINOGRAD", CONV_GRAD_ALGO_WINOGRAD)
        .value("CONV_GRAD_ALGO_WINOGRAD_NONFUSED", CONV_GRAD_ALGO_WINOGRAD_NONFUSED)
        .value("CONV_GRAD_ALGO_FFT_TILING", CONV_GRAD_ALGO_FFT_TILING)
        .export_values();
    nb::enum_<ConvGradAlgoPref>(m, "ConvGradAlgoPref", nb::is_arithmetic())
        .value("CONV_GRAD_NO_WORKSPACE", CONV_GRAD_NO_WORKSPACE)
        .value("CONV_GRAD_PREFER_FASTEST", CONV_GRAD_PREFER_FASTEST)
        .value("CONV_GRAD_SPECIFY_WORKSAPCE_LIMIT", CONV_GRAD_SPECIFY_WORKSAPCE_LIMIT)
        .export_values();
    nb::enum_<ConvDiffAlgo>(m, "ConvDiffAlgo", nb::is_arithmetic())
        .value("CONV_DIFF_ALGO_AUTO", CONV_DIFF_ALGO_AUTO)
        .value("CONV_DIFF_ALGO_0", CONV_DIFF_ALGO_0)
        .value("CONV_DIFF_ALGO_1", CONV_DIFF_ALGO_1)
        .value("CONV_DIFF_ALGO_FFT", CONV_DIFF_ALGO_FFT)
        .value("CONV_DIFF_ALGO_FFT_TILING", CONV_DIFF_ALGO_FFT_TILING)
        .value("CONV_DIFF_ALGO_WINOGRAD", CONV_DIFF_ALGO_WINOGRAD)
        .value("CONV_DIFF_ALGO_WINOGRAD_NONFUSED", CONV_DIFF_ALGO_WINOGRAD_NONFUSED)
        .export_values();
    nb::enum_<ConvDiffAlgoPref>(m, "ConvDiffAlgoPref", nb::is_arithmetic())
        .value("CONV_DIFF_NO_WORKSPACE", CONV_DIFF_NO_WORKSPACE)
        .value("CONV_DIFF_PREFER_FASTEST", CONV_DIFF_PREFER_FASTEST)
        .value("CONV_DIFF_SPECIFY_WORKSAPCE_LIMIT", CONV_DIFF_SPECIFY_WORKSAPCE_LIMIT)
        .export_values();
    nb::enum_<ConvPerfStatus>(m, "ConvPerfStatus", nb::is_arithmetic())
        .value("CONV_PERF_OK", CONV_PERF_OK)
        .value("CONV_PERF_ALLOC_FAILED", CONV_PERF_ALLOC_FAILED)
        .value("CONV_PERF_INTERNAL_ERROR", CONV_PERF_INTERNAL_ERROR)
        .export_values();
}

template <typename Perf>
static void bind_perf(nb::module_& m, const char* name) {
    nb::class_<Perf>(m, name, "How an algorithm did in a trial.")
        .def_ro("algo", &Perf::algo)
        .def_ro("status", &Perf::status)
        .def_ro("time", &Perf::time, "Milliseconds.")
        .def_ro("memory", &Perf::memory, "Bytes of work space.")
        .def_ro("is_determinism", &Perf::is_determinism, "Whether its results repeat bit for bit.");
}

static void bind_structures(nb::module_& m) {
    nb::class_<ConvDesc>(m, "ConvDesc", "How a convolution moves over an image.")
        .def(nb::init<int, int, int, int, ConvAlgo, ConvGradAlgo, ConvDiffAlgo>(),
             "padding_height"_a = 0, "padding_width"_a = 0, "stride_h"_a = 1, "stride_w"_a = 1,
             "algo"_a = CONV_ALGO_AUTO, "grad_algo"_a = CONV_GRAD_ALGO_AUTO,
             "diff_algo"_a = CONV_DIFF_ALGO_AUTO)
        .def_rw("padding_height", &ConvDesc::padding_height, "Zero rows above and below.")
        .def_rw("padding_width", &ConvDesc::padding_width, "Zero columns left and right.")
        .def_rw("stride_h", &ConvDesc::stride_h, "Vertical step of the filter.")
        .def_rw("stride_w", &ConvDesc::stride_w, "Horizontal step.")
        .def_rw("dilation_h", &ConvDesc::dilation_h, "Vertical distance of filter taps.")
        .def_rw("dilation_w", &ConvDesc::dilation_w, "Horizontal distance.")
        .def_rw("algo", &ConvDesc::algo, "Of conv_fwd on a GPU.")
        .def_rw("grad_algo", &ConvDesc::grad_algo, "Of conv_grad.")
        .def_rw("diff_algo", &ConvDesc::diff_algo, "Of conv_diff.");
    nb::class_<PoolingDesc>(m, "PoolingDesc", "Regions of an image, pooled to a value each.")
        .def(nb::init<int, int, int, int, PoolingType>(), "win_height"_a = 1, "win_width"_a = 1,
             "stride_h"_a = 1, "stride_w"_a = 1, "pooling_type"_a = MAX_POOLING_TYPE)
        .def_rw("win_height", &PoolingDesc::win_height, "Rows of a region.")
        .def_rw("win_width", &PoolingDesc::win_width, "Columns of a region.")
        .def_rw("stride_h", &PoolingDesc::stride_h, "Vertical step.")
        .def_rw("stride_w", &PoolingDesc::stride_w, "Horizontal step.")
        .def_rw("pad_h", &PoolingDesc::pad_h, "Virtual rows above and below the image.")
        .def_rw("pad_w", &PoolingDesc::pad_w, "Virtual columns left and right.")
        .def_rw("pooling_type", &PoolingDesc::pooling_type);
    nb::class_<ROIPoolingDesc>(m, "ROIPoolingDesc", "A grid of bins over a rectangle of a map.")
        .def(nb::init<int, int, DType>(), "pooled_height"_a = 1, "pooled_width"_a = 1,
             "spatial_scale"_a = 1.0f)
        .def_rw("pooled_height", &ROIPoolingDesc::pooled_height, "Bins in a column of the grid.")
        .def_rw("pooled_width", &ROIPoolingDesc::pooled_width, "Bins in a row of the grid.")
        .def_rw("spatial_scale", &ROIPoolingDesc::spatial_scale, "From the image to the map.");
    nb::class_<PSROIPoolingDesc>(m, "PSROIPoolingDesc", "A grid whose bins have channels each.")
        .def(nb::init<int, int, DType>(), "out_dim"_a = 1, "group_size"_a = 1,
             "spatial_scale"_a = 1.0f)
        .def_rw("out_dim", &PSROIPoolingDesc::out_dim, "Output channels; not read.")
        .def_rw("group_size", &PSROIPoolingDesc::group_size, "Side of the grid of groups.")
        .def_rw("spatial_scale", &PSROIPoolingDesc::spatial_scale, "From the image to the map.");
}

void bind_descriptions(nb::module_& m) {
    bind_enumerations(m);
    bind_structures(m);
    bind_perf<ConvAlgoPerf>(m, "ConvAlgoPerf");
    bind_perf<ConvGradAlgoPerf>(m, "ConvGradAlgoPerf");
    bind_perf<ConvDiffAlgoPerf>(m, "ConvDiffAlgoPerf");
}

}  // namespace python
}  // namespace vorn
