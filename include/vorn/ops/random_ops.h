#ifndef VORN_OPS_RANDOM_OPS_H_
#define VORN_OPS_RANDOM_OPS_H_

#include "vorn/cpu/random_ops.h"
#include "vorn/gpu/random_ops.h"
#include "vorn/ops/ops.h"

/// Fills of contiguous tensors with random numbers. Uniform and normal numbers are drawn on the
/// host, so that a seed gives the same tensor on every device.
namespace vorn {

/// fill(ptr, size) on the host; a GPU tensor gets a copy.
template <typename Fill>
void fill_on_host(Tensor<float>& out, Fill fill) {
    const int size = static_cast<int>(out.get_element_count());
    if (is_cpu_device(out.get_device())) {
        fill(out.get_ptr(), size);
    } else {
        Tensor<float> drawn(out.get_size(), CPU_PINNED);
        fill(drawn.get_ptr(), size);
        out.copy_from(drawn);
    }
}

/// Uniform in [lo, hi].
inline void vorn_random(Tensor<float>& out, DType lo, DType hi) {
    CHECK(out.is_contiguous());
    fill_on_host(out, [=](DType* ptr, int size) { cpu::vorn_uniform_random(ptr, size, lo, hi); });
}

/// Uniform in [0, 1].
inline void vorn_uniform_random(Tensor<float>& out) {
    CHECK(out.is_contiguous());
    fill_on_host(out, [](DType* ptr, int size) { cpu::vorn_uniform_random(ptr, size, 0, 1); });
}

/// Normal. Aborts unless stddev > 0: a constant is a fill.
inline void vorn_gauss_random(Tensor<float>& out, DType mean, DType stddev) {
    CHECK(out.is_contiguous());
    CHECK_GT(stddev, 0) << "mean : " << mean << " stddev : " << stddev;
    fill_on_host(out,
                 [=](DType* ptr, int size) { cpu::vorn_gauss_random(ptr, size, mean, stddev); });
}

/// 0 where a uniform draw lies below `mask_prob`, else 1. A GPU draws by itself, in place.
inline void vorn_mask_random(Tensor<float>& out, DType mask_prob) {
    CHECK(out.is_contiguous());
    const int size = static_cast<int>(out.get_element_count());
    if (is_cpu_device(out.get_device())) {
        cpu::vorn_mask_random(out.get_ptr(), size, mask_prob);
    } else {
        CHECK_NOTNULL(t_ctx);
        gpu::vorn_mask_random(out.get_ptr(), size, mask_prob);
    }
}

}  // namespace vorn

#endif  // VORN_OPS_RANDOM_OPS_H_
