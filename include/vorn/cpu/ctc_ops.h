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

/// The lowest column of the largest element above the lowest finite float, else -1. The value
/// first, then its place, because both scans vectorise and a single one does not.
inline int row_max_id(const float* row, index_t width) {
    constexpr index_t kLanes = 32;
    constexpr float kLowest = std::numeric_limits<float>::lowest();
    float lanes[kLanes];
    std::fill_n(lanes, kLanes, kLowest);
    index_t j = 0;
    for (; j + kLanes <= width; j += kLanes) {
        for (index_t lane = 0; lane < kLanes; ++lane) {
            lanes[lane] = row[j + lane] > lanes[lane] ? row[j + lane] : lanes[lane];
        }
    }
    float max = kLowest;
    for (float value : lanes) {
        max = value > max ? value : max;
    }
    for (; j < width; ++j) {
        max = row[j] > max ? row[j] : max;
    }
    if (max == kLowest) {
        return -1;
    }
    for (j = 0; j + kLanes <= width; j += kLanes) {
        int hits = 0;
        for (index_t lane = 0; lane < kLanes; ++lane) {
            hits += row[j + lane] == max;
        }
        if (hits > 0) {
            break;
        }
    }
    while (row[j] != max) {
        ++j;
    }
    return static_cast<int>(j);
}

inline void vorn_find_row_max_id(const Tensor<float>& in, Tensor<int>& max_id_vec) {
    const index_t dimM = in.row(), dimN = in.get_w();
    const float* in_p = in.get_ptr();
    int* id_p = max_id_vec.get_ptr();
    for (index_t m = 0; m < dimM; ++m) {
        id_p[m] = row_max_id(in_p + m * dimN, dimN);
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
