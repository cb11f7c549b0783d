#ifndef VORN_CPU_MEMORY_H_
#define VORN_CPU_MEMORY_H_

#include <emmintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vorn {

const size_t MALLOC_ALIGNED = 32;  ///< The least alignment of host blocks, in bytes.

namespace cpu {

inline void vorn_memcpy(void* dst_ptr, const void* src_ptr, size_t byte_size) {
    if (byte_size != 0) {  // an empty tensor has no pointer to hand over
        memcpy(dst_ptr, src_ptr, byte_size);
    }
}

inline void vorn_memset(void* ptr, int val, size_t byte_size) {
    if (byte_size != 0) {
        memset(ptr, val, byte_size);
    }
}

/// From this many elements on, a string store is faster than a loop.
const size_t kStringStore = 1024;

/// Sets n elements. Told the length beforehand, the processor need not read the lines that it
/// overwrites; memset does the same for bytes.
template <typename T>
void string_fill(T* out, T val, size_t n) {
    if constexpr (sizeof(T) == sizeof(uint32_t)) {
        uint32_t bits;
        memcpy(&bits, &val, sizeof(bits));
        asm volatile("rep stosl" : "+D"(out), "+c"(n) : "a"(bits) : "memory");
    } else {
        std::fill_n(out, n, val);
    }
}

/// Outputs of this many bytes would sweep the caches; they go past them.
const size_t kStreamBytes = 16 << 20;

/// Copies n floats past the cache. The caller ends a row of such copies with _mm_sfence().
inline void stream_copy(float* out, const float* in, size_t n) {
    float* const end = out + n;
    for (; out != end && reinterpret_cast<uintptr_t>(out) % sizeof(__m128) != 0; ++out, ++in) {
        *out = *in;
    }
    for (; end - out >= 4; out += 4, in += 4) {
        _mm_stream_ps(out, _mm_loadu_ps(in));
    }
    std::copy(in, in + (end - out), out);
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_MEMORY_H_
