#ifndef VORN_CPU_MEMORY_H_
#define VORN_CPU_MEMORY_H_

#include <cstddef>
#include <cstring>

namespace vorn {

const size_t MALLOC_ALIGNED = 32;  ///< The least alignment of host blocks, in bytes.

namespace cpu {

inline void vorn_memcpy(void* dst_ptr, const void* src_ptr, size_t byte_size) {
    if (byte_size != 0) {  // an empty tensor has no pointer to hand over
        memcpy(dst_ptr, src_ptr, byte_size);
    }
}

/// `height` rows of `width_byte` bytes.
inline void vorn_memcpy_2d(void* dst, size_t dpitch_byte, const void* src, size_t spitch_byte,
                           size_t width_byte, size_t height) {
    char* to = static_cast<char*>(dst);
    const char* from = static_cast<const char*>(src);
    for (size_t i = 0; i < height; ++i, to += dpitch_byte, from += spitch_byte) {
        vorn_memcpy(to, from, width_byte);
    }
}

inline void vorn_memset(void* ptr, int val, size_t byte_size) {
    if (byte_size != 0) {
        memset(ptr, val, byte_size);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_MEMORY_H_
