#ifndef VORN_CPU_KIT_LANES_H_
#define VORN_CPU_KIT_LANES_H_

#include <cstring>

#include "vorn/cpu/kit/loops.h"

/// Small vectors of the compiler's own, for the host loops that it does not vectorise by itself.
namespace vorn {
namespace cpu {

template <typename T>
struct Lanes {
    static constexpr int kFull = 8;
    typedef T Half __attribute__((vector_size(4 * sizeof(T))));
    typedef T Full __attribute__((vector_size(kFull * sizeof(T))));
};

template <typename V, typename T>
inline void load(V& lanes, const T* p) {
    memcpy(&lanes, p, sizeof(V));
}

template <typename V, typename T>
inline void store(T* p, const V& lanes) {
    memcpy(p, &lanes, sizeof(V));
}

template <typename V, typename T>
inline void splat(V& lanes, T x) {
    lanes = x - V{};  // x + 0 would lose the sign of -0
}

/// Transposes four by four elements: lane l of `v[k]` and lane k of `v[l]` change places.
template <typename V>
VORN_FORCE_INLINE void transpose_four(V (&v)[4]) {
    const V ab_low = __builtin_shufflevector(v[0], v[1], 0, 4, 1, 5);
    const V ab_high = __builtin_shufflevector(v[0], v[1], 2, 6, 3, 7);
    const V cd_low = __builtin_shufflevector(v[2], v[3], 0, 4, 1, 5);
    const V cd_high = __builtin_shufflevector(v[2], v[3], 2, 6, 3, 7);
    v[0] = __builtin_shufflevector(ab_low, cd_low, 0, 1, 4, 5);
    v[1] = __builtin_shufflevector(ab_low, cd_low, 2, 3, 6, 7);
    v[2] = __builtin_shufflevector(ab_high, cd_high, 0, 1, 4, 5);
    v[3] = __builtin_shufflevector(ab_high, cd_high, 2, 3, 6, 7);
}

/// Transposes four by four elements in each half of a register: lanes 0 to 3 of `v[k]` become lane
/// k of the four vectors, lanes 4 to 7 lane k + 4.
template <typename V>
VORN_FORCE_INLINE void transpose_halves(V (&v)[4]) {
    const V ab01 = __builtin_shufflevector(v[0], v[1], 0, 8, 1, 9, 4, 12, 5, 13);
    const V ab23 = __builtin_shufflevector(v[0], v[1], 2, 10, 3, 11, 6, 14, 7, 15);
    const V cd01 = __builtin_shufflevector(v[2], v[3], 0, 8, 1, 9, 4, 12, 5, 13);
    const V cd23 = __builtin_shufflevector(v[2], v[3], 2, 10, 3, 11, 6, 14, 7, 15);
    v[0] = __builtin_shufflevector(ab01, cd01, 0, 1, 8, 9, 4, 5, 12, 13);
    v[1] = __builtin_shufflevector(ab01, cd01, 2, 3, 10, 11, 6, 7, 14, 15);
    v[2] = __builtin_shufflevector(ab23, cd23, 0, 1, 8, 9, 4, 5, 12, 13);
    v[3] = __builtin_shufflevector(ab23, cd23, 2, 3, 10, 11, 6, 7, 14, 15);
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_KIT_LANES_H_
