#ifndef GPUSIM_DETAIL_SANITIZER_H_
#define GPUSIM_DETAIL_SANITIZER_H_

// Fiber and poison annotations of AddressSanitizer and ThreadSanitizer; nothing without them.

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GPUSIM_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define GPUSIM_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define GPUSIM_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define GPUSIM_TSAN 1
#endif

#ifdef GPUSIM_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif
#ifdef GPUSIM_TSAN
#include <sanitizer/tsan_interface.h>
#endif

#include <cstddef>

namespace gpusim {

#ifdef GPUSIM_ASAN
constexpr bool kAddressSanitizer = true;
inline void poison(const void* begin, size_t size) {
    __asan_poison_memory_region(begin, size);
}
inline void unpoison(const void* begin, size_t size) {
    __asan_unpoison_memory_region(begin, size);
}
#else
constexpr bool kAddressSanitizer = false;
inline void poison(const void*, size_t) {}
inline void unpoison(const void*, size_t) {}
#endif

#ifdef GPUSIM_TSAN
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif

constexpr bool kSanitizer = kAddressSanitizer || kThreadSanitizer;

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_SANITIZER_H_
