#ifndef GPUSIM_GPUSIM_DEVICE_FUNCTIONS_H_
#define GPUSIM_GPUSIM_DEVICE_FUNCTIONS_H_

/// What a kernel may name: qualifiers, its coordinates, barriers, atomics and mathematics.

#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gpusim/vector_types.h"

#define __global__
#define __device__
#define __host__
#define __constant__
#define __forceinline__ inline __attribute__((always_inline))
#define __launch_bounds__(...)
/// A block runs on one thread of the host, so its shared memory is that thread's own. As on a
/// device it isn't cleared between blocks.
#define __shared__ static thread_local

/// Coordinates of the running thread. `__thread` with constant initialisation: an access is one
/// load, with no guard around it.
extern __thread uint3 threadIdx __attribute__((tls_model("initial-exec")));
extern __thread uint3 blockIdx __attribute__((tls_model("initial-exec")));
extern __thread dim3 blockDim __attribute__((tls_model("initial-exec")));
extern __thread dim3 gridDim __attribute__((tls_model("initial-exec")));
constexpr int warpSize = 32;

namespace gpusim::detail {

void block_barrier(const char* file, unsigned line, const char* function);
void warp_barrier(unsigned mask, const char* file, unsigned line, const char* function);

/// Reads, changes and writes `*address` in one step; returns the old value.
template <class T, class Change>
inline T atomic_update(T* address, Change change) {
    T old, desired;
    __atomic_load(address, &old, __ATOMIC_RELAXED);
    do {
        desired = change(old);
    } while (!__atomic_compare_exchange(address, &old, &desired, true, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED));
    return old;
}

/// Keeps a rounded product or sum apart from what follows, so that nothing is contracted over it.
inline float rounded(float x) {
    __asm__("" : "+x"(x));
    return x;
}

}  // namespace gpusim::detail

/// All threads of the block that have not ended meet here. The place of the call is part of the
/// barrier: threads of one block that wait in different lines are a fault.
inline void __syncthreads(const char* file = __builtin_FILE(), unsigned line = __builtin_LINE(),
                          const char* function = __builtin_FUNCTION()) {
    ::gpusim::detail::block_barrier(file, line, function);
}

/// The threads of the warp that `mask` names meet here, those that have ended excepted.
inline void __syncwarp(unsigned mask = 0xffffffffu, const char* file = __builtin_FILE(),
                       unsigned line = __builtin_LINE(),
                       const char* function = __builtin_FUNCTION()) {
    ::gpusim::detail::warp_barrier(mask, file, line, function);
}

inline void __threadfence() {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
inline void __threadfence_block() {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}

// Atomics are relaxed, as on the device. Each returns the old value.
inline int atomicAdd(int* address, int value) {
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);
}
inline unsigned atomicAdd(unsigned* address, unsigned value) {
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);
}
inline unsigned long long atomicAdd(unsigned long long* address, unsigned long long value) {
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);
}
inline float atomicAdd(float* address, float value) {
    return ::gpusim::detail::atomic_update(address, [value](float old) { return old + value; });
}
inline double atomicAdd(double* address, double value) {
    return ::gpusim::detail::atomic_update(address, [value](double old) { return old + value; });
}
inline int atomicSub(int* address, int value) {
    return __atomic_fetch_sub(address, value, __ATOMIC_RELAXED);
}
inline unsigned atomicSub(unsigned* address, unsigned value) {
    return __atomic_fetch_sub(address, value, __ATOMIC_RELAXED);
}

#define GPUSIM_ATOMICS(T)                                                              \
    inline T atomicMax(T* address, T value) {                                          \
        return ::gpusim::detail::atomic_update(                                        \
            address, [value](T old) { return old < value ? value : old; });            \
    }                                                                                  \
    inline T atomicMin(T* address, T value) {                                          \
        return ::gpusim::detail::atomic_update(                                        \
            address, [value](T old) { return value < old ? value : old; });            \
    }                                                                                  \
    inline T atomicExch(T* address, T value) {                                         \
        return __atomic_exchange_n(address, value, __ATOMIC_RELAXED);                  \
    }                                                                                  \
    inline T atomicCAS(T* address, T compare, T value) {                               \
        __atomic_compare_exchange_n(address, &compare, value, false, __ATOMIC_RELAXED, \
                                    __ATOMIC_RELAXED);                                 \
        return compare;                                                                \
    }
GPUSIM_ATOMICS(int)
GPUSIM_ATOMICS(unsigned)
GPUSIM_ATOMICS(unsigned long long)
#undef GPUSIM_ATOMICS
inline float atomicExch(float* address, float value) {
    return ::gpusim::detail::atomic_update(address, [value](float) { return value; });
}

// Mathematics beyond what <math.h> has.
inline float rsqrtf(float x) {
    return 1.0f / sqrtf(x);
}
inline double rsqrt(double x) {
    return 1.0 / sqrt(x);
}
inline float __fadd_rn(float x, float y) {
    return ::gpusim::detail::rounded(x + y);
}
inline float __fsub_rn(float x, float y) {
    return ::gpusim::detail::rounded(x - y);
}
inline float __fmul_rn(float x, float y) {
    return ::gpusim::detail::rounded(x * y);
}
inline float __fmaf_rn(float x, float y, float z) {
    return fmaf(x, y, z);
}
inline float __fdiv_rn(float x, float y) {
    return x / y;
}
inline float __fsqrt_rn(float x) {
    return sqrtf(x);
}

template <class T>
inline T __ldg(const T* address) {
    return *address;
}

#define GPUSIM_MIN_MAX(T)     \
    inline T min(T a, T b) {  \
        return b < a ? b : a; \
    }                         \
    inline T max(T a, T b) {  \
        return a < b ? b : a; \
    }
GPUSIM_MIN_MAX(int)
GPUSIM_MIN_MAX(unsigned)
GPUSIM_MIN_MAX(long)
GPUSIM_MIN_MAX(unsigned long)
GPUSIM_MIN_MAX(long long)
GPUSIM_MIN_MAX(unsigned long long)
#undef GPUSIM_MIN_MAX
inline unsigned min(int a, unsigned b) {
    return min(static_cast<unsigned>(a), b);
}
inline unsigned min(unsigned a, int b) {
    return min(a, static_cast<unsigned>(b));
}
inline unsigned max(int a, unsigned b) {
    return max(static_cast<unsigned>(a), b);
}
inline unsigned max(unsigned a, int b) {
    return max(a, static_cast<unsigned>(b));
}
inline float min(float a, float b) {
    return fminf(a, b);
}
inline float max(float a, float b) {
    return fmaxf(a, b);
}
inline double min(double a, double b) {
    return fmin(a, b);
}
inline double max(double a, double b) {
    return fmax(a, b);
}

#endif  // GPUSIM_GPUSIM_DEVICE_FUNCTIONS_H_
