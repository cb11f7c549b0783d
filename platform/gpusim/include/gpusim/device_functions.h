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
/// A block runs on one thread of the host, so its shared memory is that thread's own. By the tag,
/// which becomes part of the symbol, a shuffled run finds the variables and poisons them.
#define __shared__ static thread_local __attribute__((abi_tag("gpusim_shared")))

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

// Atomics are relaxed, as on the device. Each returns the old value.
inline int atomicAdd(int* address, int value) {
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);
}
inline unsigned atomicAdd(unsigned* address, unsigned value) {
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);
}
inline float atomicAdd(float* address, float value) {
    float old, sum;
    __atomic_load(address, &old, __ATOMIC_RELAXED);
    do {
        sum = old + value;
    } while (
        !__atomic_compare_exchange(address, &old, &sum, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
    return old;
}

/// Beyond what <math.h> has.
inline float rsqrtf(float x) {
    return 1.0f / sqrtf(x);
}

#endif  // GPUSIM_GPUSIM_DEVICE_FUNCTIONS_H_
