#ifndef VORN_CPU_CONV_OPS_H_
#define VORN_CPU_CONV_OPS_H_

#include <cblas.h>

#include <algorithm>
#include <vector>

#include "vorn/cpu/blas_ops.h"
#include "vorn/cpu/kit/runs.h"
#include "vorn/cpu/kit/sliding_window.h"
#include "vorn/tensor/tensor.h"
#include "vorn/tensor/tensor_view.h"

/// Host convolution of images: one matrix product a sample, with the column matrix of the sample
/// for its image.
namespace vorn {
namespace cpu {

/// 0 <= a < b in one comparison: a negative a is a large unsigned number.
inline bool is_a_ge_zero_and_a_lt_b(int a, int b) {
    return static_cast<unsigned>(a) < static_cast<unsigned>(b);
}

/// The extent of an output axis: the positions of a dilated kernel on the padded image.
inline int conv_output_extent(int extent, int kernel, int pad, int stride, int dilation) {
    return std::max(0, (extent + 2 * pad - (dilation * (kernel - 1) + 1)) / stride + 1);
}

/// The column matrix of an image (channels x height x width, dense): row (c * kernel_h + kh) *
/// kernel_w + kw holds, output by output, the element of channel c on which tap (kh, kw) lies, and
/// 0 where it lies outside the image.
inline void im2col(const DType* data_im, int channels, int height, int width, int kernel_h,
                   int kernel_w, int pad_h, int pad_w, int stride_h, int stride_w, int dilation_h,
                   int dilation_w, DType* data_col) {
    const int output_h = conv_output_extent(height, kernel_h, pad_h, stride_h, dilation_h);
    const int output_w = conv_output_extent(width, kernel_w, pad_w, stride_w, dilation_w);
    for (int channel = 0; channel < channels; ++channel, data_im += height * width) {
        for (int kernel_row = 0; kernel_row < kernel_h; ++kernel_row) {
            for (int kernel_col = 0; kernel_col < kernel_w; ++kernel_col) {
                const int input_col = kernel_col * dilation_w - pad_w;
                const InsideSpan inside(input_col, stride_w, width, output_w);
                int input_row = kernel_row * dilation_h - pad_h;
                for (int output_row = 0; output_row < output_h;
                     ++output_row, input_row += stride_h, data_col += output_w) {
                    if (!is_a_ge_zero_and_a_lt_b(input_row, height)) {
                        std::fill_n(data_col, output_w, 0.0f);
                        continue;
                    }
                    const DType* in =
                        data_im + input_row * width + input_col + inside.begin * stride_w;
                    DType* out = data_col + inside.begin;
                    std::fill(data_col, out, 0.0f);
                    if (stride_w == 1) {
                        copy_run(out, in, inside.size());
                    } else {
                        for_each_position(inside.size(), stride_w,
                                          [=](int p, int at) { out[p] = in[at]; });
                    }
                    std::fill(data_col + inside.end, data_col + output_w, 0.0f);
                }
            }
        }
    }
}

/// The adjoint: the elements of the column matrix summed onto the image elements that they were
/// taken from, tap after tap. Overwrites the image.
inline void col2im(const DType* data_col, int channels, int height, int width, int kernel_h,
                   int kernel_w, int pad_h, int pad_w, int stride_h, int stride_w, int dilation_h,
                   int dilation_w, DType* data_im) {
    const int output_h = conv_output_extent(height, kernel_h, pad_h, stride_h, dilation_h);
    const int output_w = conv_output_extent(width, kernel_w, pad_w, stride_w, dilation_w);
    for (int channel = 0; channel < channels; ++channel, data_im += height * width) {
        std::fill_n(data_im, height * width, 0.0f);
        for (int kernel_row = 0; kernel_row < kernel_h; ++kernel_row) {
            for (int kernel_col = 0; kernel_col < kernel_w; ++kernel_col) {
                const int input_col = kernel_col * dilation_w - pad_w;
                const InsideSpan inside(input_col, stride_w, width, output_w);
                int input_row = kernel_row * dilation_h - pad_h;
                for (int output_row = 0; output_row < output_h;
                     ++output_row, input_row += stride_h, data_col += output_w) {
                    if (!is_a_ge_zero_and_a_lt_b(input_row, height)) {
                        continue;
                    }
                    const DType* in = data_col + inside.begin;
                    DType* out = data_im + input_row * width + input_col + inside.begin * stride_w;
                    for_each_position(inside.size(), stride_w,
                                      [=](int p, int at) { out[at] += in[p]; });
                }
            }
        }
    }
}

using ImageView = Tensor4DView<float, false>;

/// Elements of the column matrix of one sample.
inline int conv_buffer_size(const ImageView& w_d, const ImageView& out_d) {
    return w_d.n_s * out_d.h * out_d.w;
}

/// The matrices of a convolution: out (dim_m x dim_n) = w (dim_m x dim_k) * columns (dim_k x
/// dim_n) in each sample. `in` is the image, `out` the output, and both may be gradients.
class ConvMatrices {
public:
    ConvMatrices(const ConvDesc& conv_desc, const Tensor<float>& w, const Tensor<float>& in,
                 const Tensor<float>& out)
        : _desc(conv_desc),
          _w_d(w),
          _in_d(in),
          _out_d(out),
          _dim_m(_out_d.c),
          _dim_n(_out_d.h * _out_d.w),
          _dim_k(_in_d.c * _w_d.h * _w_d.w) {}

    int batch() const { return _in_d.n; }
    /// Elements of the column matrix.
    int buffer_size() const { return conv_buffer_size(_w_d, _out_d); }

    /// The image of a sample is its own column matrix where nothing is padded, skipped or
    /// overlapped.
    bool is_image_of_columns() const {
        return _w_d.h == 1 && _w_d.w == 1 && _desc.stride_h == 1 && _desc.stride_w == 1 &&
               _desc.padding_height == 0 && _desc.padding_width == 0;
    }

    Tensor<float> w() const { return matrix(_w_d._ptr, _dim_m, _dim_k); }
    Tensor<float> out(int n) const { return matrix(_out_d._ptr + n * _out_d.n_s, _dim_m, _dim_n); }
    Tensor<float> columns(int n, void* work_space) const {
        return matrix(is_image_of_columns() ? image(n) : static_cast<float*>(work_space), _dim_k,
                      _dim_n);
    }

    /// The image of sample n into the column matrix, unless it is the column matrix.
    void image_to_columns(int n, const Tensor<float>& columns) const {
        if (!is_image_of_columns()) {
            im2col(image(n), _in_d.c, _in_d.h, _in_d.w, _w_d.h, _w_d.w, _desc.padding_height,
                   _desc.padding_width, _desc.stride_h, _desc.stride_w, _desc.dilation_h,
                   _desc.dilation_w, columns.get_ptr());
        }
    }
    /// The column matrix summed onto the image of sample n.
    void columns_to_image(const Tensor<float>& columns, int n) const {
        if (!is_image_of_columns()) {
            col2im(columns.get_ptr(), _in_d.c, _in_d.h, _in_d.w, _w_d.h, _w_d.w,
                   _desc.padding_height, _desc.padding_width, _desc.stride_h, _desc.stride_w,
                   _desc.dilation_h, _desc.dilation_w, image(n));
        }
    }

private:
    float* image(int n) const { return _in_d._ptr + n * _in_d.n_s; }
    static Tensor<float> matrix(float* ptr, int rows, int cols) {
        return Tensor<float>(ptr, Dim(rows, cols), CPU);
    }

    const ConvDesc& _desc;
    ImageView _w_d, _in_d, _out_d;
    int _dim_m, _dim_n, _dim_k;
};

/// Alpha and beta blend in each sample's own output.
inline void vorn_conv_fwd(const ConvDesc& conv_desc, const Tensor<float>& x, const Tensor<float>& w,
                          Tensor<float>& out, void* work_space, index_t, DType alpha, DType beta) {
    const ConvMatrices matrices(conv_desc, w, x, out);
    const Tensor<float> w_tensor = matrices.w();
    for (int n = 0; n < matrices.batch(); ++n) {
        const Tensor<float> col_tensor = matrices.columns(n, work_space);
        Tensor<float> out_tensor = matrices.out(n);
        matrices.image_to_columns(n, col_tensor);
        cpu::vorn_gemm(w_tensor, false, col_tensor, false, out_tensor, alpha, beta);
    }
}

/// Adds to `out`, sample by sample: alpha and beta are 1.
inline void vorn_conv_grad(const ConvDesc& conv_desc, const Tensor<float>& x,
                           const Tensor<float>& dy, Tensor<float>& out, void* work_space, index_t,
                           DType alpha, DType beta) {
    const ConvMatrices matrices(conv_desc, out, x, dy);
    Tensor<float> w_tensor = matrices.w();
    for (int n = 0; n < matrices.batch(); ++n) {
        const Tensor<float> col_tensor = matrices.columns(n, work_space);
        const Tensor<float> out_tensor = matrices.out(n);
        matrices.image_to_columns(n, col_tensor);
        cpu::vorn_gemm(out_tensor, false, col_tensor, true, w_tensor, alpha, beta);
    }
}

/// Overwrites `out`, whatever alpha and beta are.
inline void vorn_conv_diff(const ConvDesc& conv_desc, const Tensor<float>& w,
                           const Tensor<float>& dy, Tensor<float>& out, void* work_space, index_t,
                           DType, DType) {
    const ConvMatrices matrices(conv_desc, w, out, dy);
    const Tensor<float> w_tensor = matrices.w();
    for (int n = 0; n < matrices.batch(); ++n) {
        Tensor<float> col_tensor = matrices.columns(n, work_space);
        const Tensor<float> out_tensor = matrices.out(n);
        cpu::vorn_gemm(w_tensor, true, out_tensor, false, col_tensor, 1.0f, 0.0f);
        matrices.columns_to_image(col_tensor, n);
    }
}

/// Ones, with which a product repeats a bias along a plane, or sums a plane.
inline Tensor<float> make_bias_multiplier(int dim_n) {
    Tensor<float> bias_multiplier(Dim(1, 1, 1, dim_n), CPU);
    bias_multiplier.set_element(1.0f);
    return bias_multiplier;
}

inline void vorn_add_tensor(const Tensor<float>& bias, Tensor<float>& out, DType alpha,
                            DType beta) {
    const ImageView out_d(out);
    const int dim_n = out_d.h * out_d.w, ld = std::max(1, dim_n);
    const Tensor<float> bias_multiplier = make_bias_multiplier(dim_n);
    for (int n = 0; n < out_d.n; ++n) {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, out_d.c, dim_n, 1, alpha,
                    bias.get_ptr(), 1, bias_multiplier.get_ptr(), ld, beta,
                    out_d._ptr + n * out_d.n_s, ld);
    }
}

/// Blends once a sample.
inline void vorn_conv_bias(const Tensor<float>& dy, Tensor<float>& out, DType alpha, DType beta) {
    const ImageView dy_d(dy);
    const int dim_n = dy_d.h * dy_d.w;
    const Tensor<float> bias_multiplier = make_bias_multiplier(dim_n);
    for (int n = 0; n < dy_d.n; ++n) {
        cblas_sgemv(CblasRowMajor, CblasNoTrans, dy_d.c, dim_n, alpha, dy_d._ptr + n * dy_d.n_s,
                    std::max(1, dim_n), bias_multiplier.get_ptr(), 1, beta, out.get_ptr(), 1);
    }
}

inline void vorn_transpose_channel_height(const Tensor<float>& in, Tensor<float>& out) {
    const index_t in_num = in.get_n(), in_channel = in.get_c(), in_height = in.get_h(),
                  in_width = in.get_w();
    const float* in_p = in.get_ptr();
    for (index_t n = 0; n < in_num; ++n) {
        for (index_t c = 0; c < in_channel; ++c) {
            float* out_p = out.get_ptr() + (n * in_height * in_channel + c) * in_width;
            for (index_t h = 0; h < in_height; ++h, in_p += in_width) {
                copy_run(out_p + h * in_channel * in_width, in_p, in_width);
            }
        }
    }
}

// ---- Queries. The host convolves in one way, of which they tell the work space.

inline ConvAlgo vorn_conv_get_fwd_algo(const ConvDesc&, const Tensor<float>&, const Tensor<float>&,
                                       const Tensor<float>&, ConvAlgoPref, index_t) {
    return CONV_ALGO_AUTO;
}
inline ConvGradAlgo vorn_conv_get_grad_algo(const ConvDesc&, const Tensor<float>&,
                                            const Tensor<float>&, const Tensor<float>&,
                                            ConvGradAlgoPref, index_t) {
    return CONV_GRAD_ALGO_AUTO;
}
inline ConvDiffAlgo vorn_conv_get_diff_algo(const ConvDesc&, const Tensor<float>&,
                                            const Tensor<float>&, const Tensor<float>&,
                                            ConvDiffAlgoPref, index_t) {
    return CONV_DIFF_ALGO_AUTO;
}

/// Bytes of the column matrix of one sample.
inline index_t conv_work_space_size(const Tensor<float>& w, const Tensor<float>& out) {
    return conv_buffer_size(ImageView(w), ImageView(out)) * sizeof(DType);
}
inline index_t vorn_conv_get_fwd_work_space_size(const ConvDesc&, const Tensor<float>&,
                                                 const Tensor<float>& w, const Tensor<float>& y,
                                                 ConvAlgo) {
    return conv_work_space_size(w, y);
}
inline index_t vorn_conv_get_grad_work_space_size(const ConvDesc&, const Tensor<float>&,
                                                  const Tensor<float>& dy, const Tensor<float>& dw,
                                                  ConvGradAlgo) {
    return conv_work_space_size(dw, dy);
}
inline index_t vorn_conv_get_diff_work_space_size(const ConvDesc&, const Tensor<float>&,
                                                  const Tensor<float>& dy, const Tensor<float>& dw,
                                                  ConvDiffAlgo) {
    return conv_work_space_size(dw, dy);
}

template <typename Algo>
std::vector<ConvPerf<Algo>> conv_algo_perf(Algo algo, index_t memory) {
    return {{algo, CONV_PERF_OK, 1.0f, memory, true}};
}
inline std::vector<ConvAlgoPerf> vorn_conv_get_fwd_algo_perf(const ConvDesc&, const Tensor<float>&,
                                                             const Tensor<float>& w,
                                                             const Tensor<float>& y) {
    return conv_algo_perf(CONV_ALGO_AUTO, conv_work_space_size(w, y));
}
inline std::vector<ConvGradAlgoPerf> vorn_conv_get_grad_algo_perf(const ConvDesc&,
                                                                  const Tensor<float>&,
                                                                  const Tensor<float>& dy,
                                                                  const Tensor<float>& dw) {
    return conv_algo_perf(CONV_GRAD_ALGO_AUTO, conv_work_space_size(dw, dy));
}
inline std::vector<ConvDiffAlgoPerf> vorn_conv_get_diff_algo_perf(const ConvDesc&,
                                                                  const Tensor<float>&,
                                                                  const Tensor<float>& dy,
                                                                  const Tensor<float>& dw) {
    return conv_algo_perf(CONV_DIFF_ALGO_AUTO, conv_work_space_size(dw, dy));
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_CONV_OPS_H_
