#ifndef VORN_CPU_LANES_H_
#define VORN_CPU_LANES_H_

#include <algorithm>
#include <cstring>

#include "vorn/cpu/loops.h"

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

/// Copies n elements to another place. A call of memcpy costs as much as a short row.
template <typename T>
inline void copy_run(T* out, const T* in, size_t n) {
    constexpr size_t kFull = Lanes<T>::kFull;
    if (n < kFull) {
        std::copy_n(in, n, out);
        return;
    }
    typename Lanes<T>::Full a, b, c, d;
    size_t i = 0;
    for (; i + 4 * kFull <= n; i += 4 * kFull) {  // whole cache lines at a time
        load(a, in + i);
        load(b, in + i + kFull);
        load(c, in + i + 2 * kFull);
        load(d, in + i + 3 * kFull);
        store(out + i, a);
        store(out + i + kFull, b);
        store(out + i + 2 * kFull, c);
        store(out + i + 3 * kFull, d);
    }
    for (; i + kFull < n; i += kFull) {
        load(a, in + i);
        store(out + i, a);
    }
    load(a, in + n - kFull);  // the last full lanes, some of them again
    store(out + n - kFull, a);
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

#endif  // VORN_CPU_LANES_H_
