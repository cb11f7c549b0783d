#ifndef VORN_GPU_CONV_GEMM_OPS_H_
#define VORN_GPU_CONV_GEMM_OPS_H_

#include "vorn/gpu/kernel_util.h"

/// Kernels of a convolution by matrix products, on dense data: the column matrix of an image and
/// its adjoint, as cpu::im2col and cpu::col2im have them. The library's convolutions go through
/// cuDNN and launch neither. Any launch size is right.
namespace vorn {
namespace gpu {

/// data_im: (channels x height x width), data_col: (channels * kernel_h * kernel_w x height_col *
/// width_col), n = channels * height_col * width_col. A thread takes one output position of one
/// channel.
[[maybe_unused]] static __global__ void KeIm2Col(int n, const DType* data_im, int height, int width,
                                                 int kernel_h, int kernel_w, int pad_h, int pad_w,
                                                 int stride_h, int stride_w, int dilation_h,
                                                 int dilation_w, int height_col, int width_col,
                                                 DType* data_col) {
    for (index_t item = blockIdx.x * static_cast<index_t>(blockDim.x) + threadIdx.x; item < n;
         item += gridDim.x * static_cast<index_t>(blockDim.x)) {
        const int index = static_cast<int>(item);
        const int w_col = index % width_col;
        const int h_index = index / width_col;
        const int h_col = h_index % height_col;
        const int c_im = h_index / height_col;
        const int h_offset = h_col * stride_h - pad_h;
        const int w_offset = w_col * stride_w - pad_w;
        for (int i = 0; i < kernel_h; ++i) {
            for (int j = 0; j < kernel_w; ++j) {
                const int h_im = h_offset + i * dilation_h;
                const int w_im = w_offset + j * dilation_w;
                const bool is_inside = h_im >= 0 && h_im < height && w_im >= 0 && w_im < width;
                const int row = c_im * kernel_h * kernel_w + i * kernel_w + j;
                data_col[(row * height_col + h_col) * width_col + w_col] =
                    is_inside ? data_im[(c_im * height + h_im) * width + w_im] : 0;
            }
        }
    }
}

/// The same shapes with n = channels * height * width. A thread takes one image element and sums
/// the column elements that were taken from it, so that none has to wait for another.
[[maybe_unused]] static __global__ void KeCol2Im(int n, const DType* data_col, int height,
                                                 int width, int, int kernel_h, int kernel_w,
                                                 int pad_h, int pad_w, int stride_h, int stride_w,
                                                 int dilation_h, int dilation_w, int height_col,
                                                 int width_col, DType* data_im) {
    const int kernel_extent_w = (kernel_w - 1) * dilation_w + 1;
    const int kernel_extent_h = (kernel_h - 1) * dilation_h + 1;
    for (index_t item = blockIdx.x * static_cast<index_t>(blockDim.x) + threadIdx.x; item < n;
         item += gridDim.x * static_cast<index_t>(blockDim.x)) {
        const int index = static_cast<int>(item);
        const int w_im = index % width + pad_w;
        const int h_im = (index / width) % height + pad_h;
        const int c_im = index / (width * height);
        const int w_col_start =
            w_im < kernel_extent_w ? 0 : (w_im - kernel_extent_w) / stride_w + 1;
        const int w_col_last = w_im / stride_w;
        const int w_col_end = w_col_last < width_col ? w_col_last + 1 : width_col;
        const int h_col_start =
            h_im < kernel_extent_h ? 0 : (h_im - kernel_extent_h) / stride_h + 1;
        const int h_col_last = h_im / stride_h;
        const int h_col_end = h_col_last < height_col ? h_col_last + 1 : height_col;
        DType sum = 0;
        for (int h_col = h_col_start; h_col < h_col_end; ++h_col) {
            for (int w_col = w_col_start; w_col < w_col_end; ++w_col) {
                const int h_k = h_im - h_col * stride_h;
                const int w_k = w_im - w_col * stride_w;
                if (h_k % dilation_h == 0 && w_k % dilation_w == 0) {
                    const int row = (c_im * kernel_h + h_k / dilation_h) * kernel_w;
                    sum += data_col[((row + w_k / dilation_w) * height_col + h_col) * width_col +
                                    w_col];
                }
            }
        }
        data_im[index] = sum;
    }
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_CONV_GEMM_OPS_H_
