#ifndef VORN_CPU_CTC_OPS_H_
#define VORN_CPU_CTC_OPS_H_

#include <algorithm>

#include "vorn/cpu/kit/fold.h"
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

inline void vorn_find_row_max_id(const Tensor<float>& in, Tensor<int>& max_id_vec) {
    const index_t dimM = in.row(), dimN = in.get_w();
    int* id_p = max_id_vec.get_ptr();
    fold_rows(MaxIdFold(), in.get_ptr(), dimM, dimN, dimN,
              [=](index_t m, int id) { id_p[m] = id; });
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
