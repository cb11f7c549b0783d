#ifndef VORN_GPU_CHANNEL_OPS_H_
#define VORN_GPU_CHANNEL_OPS_H_

#include <vector>

#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

/// GPU forms of slices and of concatenation along channels. One kernel reaches a list of tensors
/// of any length: the host writes their addresses and their channel offsets into a table on the
/// device, and each block looks its own tensor up there.
namespace vorn {
namespace gpu {

// ---- Slices

const int kShrinkThreads = 256;

/// out: (outer, inner), in: (outer, channel, inner). x is the inner position, y the outer index.
static __global__ void KeShrink(float* out, const float* in, int outer, int channel, int inner,
                                int index) {
    const int k = blockDim.x * blockIdx.x + threadIdx.x;
    if (k >= inner) {
        return;
    }
    for (index_t o = blockDim.y * blockIdx.y + threadIdx.y; o < outer;
         o += gridDim.y * blockDim.y) {
        out[o * inner + k] = in[(o * channel + index) * inner + k];
    }
}

/// out: (outer, channel, inner), in: (outer, inner). x is the inner position, y the outer index.
static __global__ void KeShrinkBp(float* out, const float* in, int outer, int channel, int inner,
                                  int index) {
    const int k = blockDim.x * blockIdx.x + threadIdx.x;
    if (k >= inner) {
        return;
    }
    for (index_t o = blockDim.y * blockIdx.y + threadIdx.y; o < outer;
         o += gridDim.y * blockDim.y) {
        out[(o * channel + index) * inner + k] = in[o * inner + k];
    }
}

inline void vorn_shrink(const float* in, float* out, index_t outer, index_t channel, index_t inner,
                        index_t index) {
    launch<KeShrink>(matrix_grid(outer, inner, kShrinkThreads), kShrinkThreads, out, in,
                     static_cast<int>(outer), static_cast<int>(channel), static_cast<int>(inner),
                     static_cast<int>(index));
    VORN_KERNEL_TAIL();
}

inline void vorn_shrink_bp(const float* in, float* out, index_t outer, index_t channel,
                           index_t inner, index_t index) {
    launch<KeShrinkBp>(matrix_grid(outer, inner, kShrinkThreads), kShrinkThreads, out, in,
                       static_cast<int>(outer), static_cast<int>(channel), static_cast<int>(inner),
                       static_cast<int>(index));
    VORN_KERNEL_TAIL();
}

// ---- Concatenation along channels

/// An entry of a table that is a number: offsets and indices fit an int.
__device__ inline int number_at(const float* const* table, int i) {
    return static_cast<int>(reinterpret_cast<ptr_t>(table[i]));
}

/// The threads of a block: to = from * alpha + to * beta on `count` elements.
__device__ inline void blend_in_block(const float* from, float* to, int count, float alpha,
                                      float beta) {
    const int t = blockDim.x * threadIdx.y + threadIdx.x;
    for (index_t i = t; i < count; i += blockDim.x * blockDim.y) {
        to[i] = fmaf(from[i], alpha, to[i] * beta);
    }
}

/// dst: (num, channel, height, width). Block (n, s) copies sample n of source s. table: `batch`
/// addresses of sources, then batch + 1 channel offsets.
static __global__ void KeChannelAppend(float* dst, const float** data_addr_ptr, int batch,
                                       int /*num*/, int channel, int height, int width, float alpha,
                                       float beta) {
    const int n = blockIdx.x, s = blockIdx.y, hw = height * width;
    const int start = number_at(data_addr_ptr, batch + s);
    const int s_channel = number_at(data_addr_ptr, batch + s + 1) - start;
    blend_in_block(data_addr_ptr[s] + hw * n * s_channel, dst + hw * (n * channel + start),
                   hw * s_channel, alpha, beta);
}

/// src: (num, channel, height, width). Block (n, s) updates sample n of the destination with the
/// s-th filter that is set. table: `batch` addresses of destinations, as many places for the
/// indices of those with a filter, then batch + 1 channel offsets.
static __global__ void KeChannelAppendDerivative(float** data_addr_ptr, const float* src, int batch,
                                                 int /*num*/, int channel, int height, int width,
                                                 float alpha, float beta) {
    const int n = blockIdx.x, s = blockIdx.y, hw = height * width;
    const int m = number_at(data_addr_ptr, batch + s);
    const int start = number_at(data_addr_ptr, 2 * batch + m);
    const int d_channel = number_at(data_addr_ptr, 2 * batch + m + 1) - start;
    blend_in_block(src + hw * (n * channel + start), data_addr_ptr[m] + hw * n * d_channel,
                   hw * d_channel, alpha, beta);
}

/// Host memory for a table of `len` entries, all 0.
inline Tensor<ptr_t> host_table(index_t len) {
    return Tensor<ptr_t>(Dim(len), CPU);
}

/// Writes the addresses of the tensors to `addresses`, and to `offsets` their running channel
/// offsets, from 0 to the total.
inline void write_table(const std::vector<Tensor<float>*>& tensors, ptr_t* addresses,
                        ptr_t* offsets) {
    offsets[0] = 0;
    for (size_t i = 0; i < tensors.size(); ++i) {
        addresses[i] = reinterpret_cast<ptr_t>(tensors[i]->get_ptr());
        offsets[i + 1] = offsets[i] + tensors[i]->get_c();
    }
}

/// Moves a table to the device.
inline void upload_table(const Tensor<ptr_t>& table, Tensor<ptr_t>& ptr) {
    const index_t len = table.get_element_count();
    ptr.resize(Dim(len), true);
    ptr.copy_from(table.get_ptr(), 0, len);
}

const dim3 kChannelBlock(128, 4, 1);

inline void vorn_channel_append(const std::vector<Tensor<float>*>& src_vec, Tensor<ptr_t>& ptr,
                                Tensor<float>& dst, DType alpha, DType beta) {
    const int batch = static_cast<int>(src_vec.size());
    Tensor<ptr_t> cpu_ptr = host_table(2 * batch + 1);
    ptr_t* data_addr = cpu_ptr.get_ptr();
    write_table(src_vec, data_addr, data_addr + batch);
    upload_table(cpu_ptr, ptr);

    const int num = static_cast<int>(dst.get_n()), channel = static_cast<int>(dst.get_c());
    const int height = static_cast<int>(dst.get_h()), width = static_cast<int>(dst.get_w());
    launch<KeChannelAppend>(dim3(num, batch, 1), kChannelBlock, dst.get_ptr(),
                            reinterpret_cast<const float**>(ptr.get_ptr()), batch, num, channel,
                            height, width, alpha, beta);
    VORN_KERNEL_TAIL();
}

/// At least one filter is set.
inline void vorn_channel_append_derivative(const std::vector<Tensor<float>*>& dst_vec,
                                           const std::vector<bool>& filters, Tensor<ptr_t>& ptr,
                                           const Tensor<float>& src, DType alpha, DType beta) {
    const int batch = static_cast<int>(dst_vec.size());
    Tensor<ptr_t> cpu_ptr = host_table(3 * batch + 1);
    ptr_t* data_addr = cpu_ptr.get_ptr();
    write_table(dst_vec, data_addr, data_addr + 2 * batch);
    int count = 0;
    for (int i = 0; i < batch; ++i) {
        if (filters[i]) {
            data_addr[batch + count++] = i;
        }
    }
    upload_table(cpu_ptr, ptr);

    const int num = static_cast<int>(src.get_n()), channel = static_cast<int>(src.get_c());
    const int height = static_cast<int>(src.get_h()), width = static_cast<int>(src.get_w());
    launch<KeChannelAppendDerivative>(dim3(num, count, 1), kChannelBlock,
                                      reinterpret_cast<float**>(ptr.get_ptr()), src.get_ptr(),
                                      batch, num, channel, height, width, alpha, beta);
    VORN_KERNEL_TAIL();
}

}  // namespace gpu
}  // namespace vorn

#endif  // VORN_GPU_CHANNEL_OPS_H_
