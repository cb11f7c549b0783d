#ifndef VORN_GPU_BATCH_NORM_OPS_H_
#define VORN_GPU_BATCH_NORM_OPS_H_

#include "vorn/gpu/collective.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of batch normalization over frames. A block of the training and the backward kernel
/// owns 32 columns and all rows, so that no launch waits for sums of another and none adds by
/// atomics. Matrices: (dim_m x dim_n), mask: dim_m, vectors: dim_n.
namespace vorn {
namespace gpu {

/// One block a row.
static __global__ void KeAudioBatchNormInf(const float* x, const float* scale, const float* bias,
                                           const float* mean, const float* var, const int* mask,
                                           float* out, size_t dim_m, size_t dim_n) {
    const size_t row = blockIdx.x;
    if (row >= dim_m) {
        return;
    }
    const bool padding = mask[row] == -1;
    for (size_t col = threadIdx.x; col < dim_n; col += blockDim.x) {
        const size_t pos = row * dim_n + col;
        out[pos] = padding ? 0.0f : (x[pos] - mean[col]) * var[col] * scale[col] + bias[col];
    }
}

/// Threads of a warp lie along a row of x. Each sums every VT-th row of its column; a tree sums the
/// VT values of one column.
template <int NT, int VT>
__global__ void KeAudioBatchNormTrain(const float* x, const float* scale, const float* bias,
                                      const int* mask, float* run_mean, float* run_var,
                                      float* statis_mean, float* statis_var, float* saved_mean,
                                      float* saved_inv_std, float* y, int real_frame_size,
                                      float exp_avg_factor, float statis_factor, float epsilon,
                                      size_t dim_m, size_t dim_n) {
    static_assert(NT == wrap_size && VT == wrap_size, "the block is a tile");
    __shared__ FoldTile<float> s;
    const auto add = [](float a, float b) { return a + b; };
    const int tx = threadIdx.x, ty = threadIdx.y;
    const size_t col = blockIdx.x * static_cast<size_t>(NT) + tx;
    // A thread past the last column has no rows, but takes part in the barriers.
    const size_t rows = col < dim_n ? dim_m : 0;

    float sum = 0;
    for (size_t r = ty; r < rows; r += VT) {
        sum += mask[r] * x[r * dim_n + col];
    }
    const float m = tile_fold(s, sum, add) / real_frame_size;
    __syncthreads();

    sum = 0;
    for (size_t r = ty; r < rows; r += VT) {
        const float difference = (x[r * dim_n + col] - m) * mask[r];
        sum += difference * difference;
    }
    const float v = tile_fold(s, sum, add) / real_frame_size;

    if (ty == 0 && col < dim_n) {
        const float new_mean = (1 - exp_avg_factor) * run_mean[col] + exp_avg_factor * m;
        const float new_var = (1 - exp_avg_factor) * run_var[col] + exp_avg_factor * v;
        run_mean[col] = new_mean;
        run_var[col] = new_var;
        saved_mean[col] = new_mean;
        saved_inv_std[col] = rsqrtf(new_var + epsilon);
        statis_mean[col] = statis_mean[col] * statis_factor + m;
        statis_var[col] = statis_var[col] * statis_factor + v;
    }
    __syncthreads();  // orders these writes before the reads of the column's other threads
    if (col >= dim_n) {
        return;
    }
    const float mean = run_mean[col], inv_std = rsqrtf(run_var[col] + epsilon);
    for (size_t r = ty; r < rows; r += VT) {
        const size_t pos = r * dim_n + col;
        y[pos] = (scale[col] * (x[pos] - mean) * inv_std + bias[col]) * mask[r];
    }
}

/// The scheme of KeAudioBatchNormTrain, for both sums at once. exp_avg_factor and epsilon are not
/// read.
template <int NT, int VT>
__global__ void KeAudioBatchNormBp(const float* x, const float* dy, const float* scale,
                                   const float* saved_mean, const float* saved_inv_std,
                                   const int* mask, float* dscale, float* dbias, float* dx,
                                   int real_frame_size, float /*exp_avg_factor*/, float /*epsilon*/,
                                   size_t dim_m, size_t dim_n) {
    static_assert(NT == wrap_size && VT == wrap_size, "the block is a tile");
    __shared__ FoldTile<float> b_s, s_s;
    const auto add = [](float a, float b) { return a + b; };
    const int tx = threadIdx.x, ty = threadIdx.y;
    const size_t col = blockIdx.x * static_cast<size_t>(NT) + tx;
    const bool inside = col < dim_n;
    const size_t rows = inside ? dim_m : 0;
    const float mean = inside ? saved_mean[col] : 0.0f,
                inv_std = inside ? saved_inv_std[col] : 0.0f;

    float bias_sum = 0, scale_sum = 0;
    for (size_t r = ty; r < rows; r += VT) {
        const size_t pos = r * dim_n + col;
        const float error = dy[pos] * mask[r];
        bias_sum += error;
        scale_sum += inv_std * error * (x[pos] - mean);
    }
    const float bias_error = tile_fold(b_s, bias_sum, add);
    const float scale_error = tile_fold(s_s, scale_sum, add);
    if (inside && ty == 0) {
        dbias[col] = bias_error;
        dscale[col] = scale_error;
    }
    __syncthreads();
    if (!inside) {
        return;
    }
    const float factor = scale[col] * inv_std;
    for (size_t r = ty; r < rows; r += VT) {
        const size_t pos = r * dim_n + col;
        const float h = inv_std * (x[pos] - mean);
        dx[pos] = factor * (dy[pos] - (h * scale_error + bias_error) / real_frame_size) * mask[r];
    }
}

inline void vorn_audio_batch_norm_inf(const Tensor<float>& x, const Tensor<float>& scale,
                                      const Tensor<float>& bias, const Tensor<float>& mean,
                                      const Tensor<float>& var, const Tensor<int>& mask,
                                      Tensor<float>& out, DType) {
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const int threads = 256, grids = static_cast<int>(dim_m);
    launch<KeAudioBatchNormInf>(grids, threads, x.get_ptr(), scale.get_ptr(), bias.get_ptr(),
                                mean.get_ptr(), var.get_ptr(), mask.get_ptr(), out.get_ptr(), dim_m,
                                dim_n);
    VORN_KERNEL_TAIL();
}

inline void vorn_audio_batch_norm_train(const Tensor<float>& x, const Tensor<float>& scale,
                                        const Tensor<float>& bias, const Tensor<int>& mask,
                                        Tensor<float>& run_mean, Tensor<float>& run_var,
                                        Tensor<float>& statis_mean, Tensor<float>& statis_var,
                                        Tensor<float>& saved_mean, Tensor<float>& saved_inv_std,
                                        Tensor<float>& y, int real_frame_size, DType exp_avg_factor,
                                        DType statis_factor, DType epsilon) {
    const int NT = 32;
    const int VT = 32;
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const int grids = div_up(static_cast<int>(dim_n), NT);
    launch<KeAudioBatchNormTrain<NT, VT>>(
        grids, dim3(NT, VT, 1), x.get_ptr(), scale.get_ptr(), bias.get_ptr(), mask.get_ptr(),
        run_mean.get_ptr(), run_var.get_ptr(), statis_mean.get_ptr(), statis_var.get_ptr(),
        saved_mean.get_ptr(), saved_inv_std.get_ptr(), y.get_ptr(), real_frame_size, exp_avg_factor,
        statis_factor, epsilon, dim_m, dim_n);
    VORN_KERNEL_TAIL();
}

inline void vorn_audio_batch_norm_bp(const Tensor<float>& x, const Tensor<float>& dy,
                                     const Tensor<float>& scale, const Tensor<float>& saved_mean,
                                     const Tensor<float>& saved_inv_std, const Tensor<int>& mask,
                                     Tensor<float>& dscale, Tensor<float>& dbias, Tensor<float>& dx,
                                     int real_frame_size, DType exp_avg_factor, DType epsilon) {
    const int NT = 32;
    const int VT = 32;
    const index_t dim_m = x.row(), dim_n = x.get_w();
    const int grids = div_up(static_cast<int>(dim_n), NT);
    launch<KeAudioBatchNormBp<NT, VT>>(
        grids, dim3(NT, VT, 1), x.get_ptr(), dy.get_ptr(), scale.get_ptr(), saved_mean.get_ptr(),
        saved_inv_std.get_ptr(), mask.get_ptr(), dscale.get_ptr(), dbias.get_ptr(), dx.get_ptr(),
        real_frame_size, exp_avg_factor, epsilon, dim_m, dim_n);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_BATCH_NORM_OPS_H_
