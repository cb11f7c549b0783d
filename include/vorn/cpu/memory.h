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

/// Outputs of this many bytes would sweep the caches; they go past them.
const size_t kStreamBytes = 16 << 20;

/// Sets n elements past the cache, which spares reading the memory first.
template <typename T>
void stream_fill(T* out, T val, size_t n) {
    const size_t lanes = sizeof(__m128i) / sizeof(T);
    alignas(sizeof(__m128i)) T pattern[lanes];
    std::fill_n(pattern, lanes, val);
    const __m128i lanes_val = _mm_load_si128(reinterpret_cast<const __m128i*>(pattern));
    T* const end = out + n;
    for (; out != end && reinterpret_cast<uintptr_t>(out) % sizeof(__m128i) != 0; ++out) {
        *out = val;
    }
    for (; static_cast<size_t>(end - out) >= lanes; out += lanes) {
        _mm_stream_si128(reinterpret_cast<__m128i*>(out), lanes_val);
    }
    std::fill(out, end, val);
    _mm_sfence();  // streamed stores are not ordered with what follows
}

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
