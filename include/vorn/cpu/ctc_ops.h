#ifndef VORN_CPU_CTC_OPS_H_
#define VORN_CPU_CTC_OPS_H_

#include <algorithm>
#include <limits>

#include "vorn/tensor/tensor.h"

/// Host forms. The CTC tables are made on a GPU only.
namespace vorn {
namespace cpu {

inline void vorn_compute_ctc_alpha(const Tensor<float>&, int, const Tensor<int>&,
                                   const Tensor<int>&, const Tensor<int>&, Tensor<float>&) {
    LOG_FATAL << "Not Implemented Yet";
}

inline void vorn_compute_ctc_beta(const Tensor<float>&, int, const Tensor<int>&, const Tensor<int>&,
                                  const Tensor<int>&, Tensor<float>&) {
    LOG_FATAL << "Not Implemented Yet";
}

inline void vorn_compute_ctc_err(const Tensor<float>&, const Tensor<float>&, const Tensor<int>&,
                                 const Tensor<int>&, const Tensor<float>&, Tensor<float>&) {
    LOG_FATAL << "Not Implemented Yet";
}

/// The lowest column of the largest element above the lowest finite float, else -1. Each lane runs
/// over its own columns, so that the scan vectorises.
inline int row_max_id(const float* row, int width) {
    constexpr int kLanes = 16;
    float max[kLanes];
    int id[kLanes];
    std::fill_n(max, kLanes, std::numeric_limits<float>::lowest());
    std::fill_n(id, kLanes, -1);
    int j = 0;
    for (; j + kLanes <= width; j += kLanes) {
        for (int lane = 0; lane < kLanes; ++lane) {
            const float value = row[j + lane];
            const bool above = value > max[lane];
            max[lane] = above ? value : max[lane];
            id[lane] = above ? j + lane : id[lane];
        }
    }
    for (int lane = 0; j < width; ++j, ++lane) {
        if (row[j] > max[lane]) {
            max[lane] = row[j];
            id[lane] = j;
        }
    }
    for (int lane = 1; lane < kLanes; ++lane) {
        if (max[lane] > max[0] || (max[lane] == max[0] && id[lane] < id[0])) {
            max[0] = max[lane];
            id[0] = id[lane];
        }
    }
    return id[0];
}

inline void vorn_find_row_max_id(const Tensor<float>& in, Tensor<int>& max_id_vec) {
    const index_t dimM = in.row(), dimN = in.get_w();
    const float* in_p = in.get_ptr();
    int* id_p = max_id_vec.get_ptr();
    for (index_t m = 0; m < dimM; ++m) {
        id_p[m] = row_max_id(in_p + m * dimN, static_cast<int>(dimN));
    }
}

inline void vorn_vec_mask(const Tensor<float>& in, const Tensor<int>& mask, Tensor<float>& out) {
    const index_t dimM = out.row(), dimN = out.get_w();
    const float* in_p = in.get_ptr();
    const int* mask_p = mask.get_ptr();
    float* out_p = out.get_ptr();
    for (index_t m = 0; m < dimM; ++m) {
        const index_t base = m * dimN;
        if (mask_p[m] == 0) {
            std::fill_n(out_p + base, dimN, 0.0f);
        } else if (in_p != out_p) {
            std::copy_n(in_p + base, dimN, out_p + base);
        }
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_CTC_OPS_H_
