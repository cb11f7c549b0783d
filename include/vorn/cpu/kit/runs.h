#ifndef VORN_CPU_KIT_RUNS_H_
#define VORN_CPU_KIT_RUNS_H_

#include <emmintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "vorn/base.h"
#include "vorn/cpu/kit/lanes.h"

/// Copies and fills of runs of elements, through the caches or past them.
namespace vorn {
namespace cpu {

const size_t kLineBytes = 64;  ///< A cache line.

/// Sets n elements. Half lines stored in pairs fill a cache line at once; a loop of single stores
/// takes a third longer.
template <typename T>
void fill_run(T* out, T val, size_t n) {
    typedef char Half __attribute__((vector_size(kLineBytes / 2)));
    constexpr ptrdiff_t kStep = 2 * kLineBytes;
    if (n * sizeof(T) < kStep) {
        std::fill_n(out, n, val);
        return;
    }
    T pattern[sizeof(Half) / sizeof(T)];
    std::fill(std::begin(pattern), std::end(pattern), val);
    Half half;
    memcpy(&half, pattern, sizeof(half));
    const auto fill_step = [half](char* p) {
        for (int i = 0; i < 4; ++i) {
            memcpy(p + i * sizeof(half), &half, sizeof(half));
        }
    };
    char* p = reinterpret_cast<char*>(out);
    char* const end = p + n * sizeof(T);
    fill_step(p);  // with the part of a line before the first whole one
    for (p += kLineBytes - reinterpret_cast<uintptr_t>(p) % kLineBytes; end - p >= kStep;
         p += kStep) {
        fill_step(p);
    }
    fill_step(end - kStep);
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

/// Asks for the lines of n elements ahead of their use.
template <typename T>
void prefetch_run(const T* p, size_t n) {
    for (size_t i = 0; i < n; i += kLineBytes / sizeof(T)) {
        __builtin_prefetch(p + i);
    }
}

/// Outputs of this many bytes would sweep the caches; they go past them.
const size_t kStreamBytes = 16 << 20;

/// Writes n elements past the cache: `line(p)` streams the whole line at p, and `rest(p, count)`
/// stores what stands before the first and after the last one, because a line written both ways,
/// or in parts, costs several. The last has to be read first, which no later store may overtake,
/// so it is asked for at once.
template <typename T, typename Line, typename Rest>
void stream_lines(T* out, size_t n, Line line, Rest rest) {
    constexpr ptrdiff_t kElements = kLineBytes / sizeof(T);
    T* const end = out + n;
    __builtin_prefetch(end, 1);
    const size_t into_line = reinterpret_cast<uintptr_t>(out) % kLineBytes;
    const size_t head = into_line == 0 ? 0 : std::min(n, (kLineBytes - into_line) / sizeof(T));
    rest(out, head);
    for (out += head; end - out >= kElements; out += kElements) {
        line(out);
    }
    rest(out, end - out);
}

/// Sets n elements past the cache.
template <typename T>
void stream_fill(T* out, T val, size_t n) {
    T pattern[sizeof(__m128i) / sizeof(T)];
    std::fill(std::begin(pattern), std::end(pattern), val);
    const __m128i lanes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pattern));
    const auto line = [&](T* p) {
        for (int k = 0; k < 4; ++k) {
            _mm_stream_si128(reinterpret_cast<__m128i*>(p) + k, lanes);
        }
    };
    stream_lines(out, n, line, [&](T* p, size_t count) { std::fill_n(p, count, val); });
}

/// Copies n floats past the cache.
inline void stream_copy(float* out, const float* in, size_t n) {
    const auto line = [&](float* p) {
        for (int k = 0; k < 16; k += 4) {
            _mm_stream_ps(p + k, _mm_loadu_ps(in + k));
        }
        in += 16;
    };
    stream_lines(out, n, line, [&](float* p, size_t count) {
        std::copy_n(in, count, p);
        in += count;
    });
}

/// Writes an output of `bytes` bytes run by run, past the caches where it would sweep them.
class RunWriter {
public:
    explicit RunWriter(size_t bytes) : _is_past_cache(bytes >= kStreamBytes) {}
    RunWriter(const RunWriter&) = delete;
    RunWriter& operator=(const RunWriter&) = delete;
    /// Streamed stores are not ordered with what follows.
    ~RunWriter() {
        if (_is_past_cache) {
            _mm_sfence();
        }
    }

    template <typename T>
    void fill(T* out, T val, size_t n) const {
        _is_past_cache ? stream_fill(out, val, n) : fill_run(out, val, n);
    }
    void copy(float* out, const float* in, size_t n) const {
        _is_past_cache ? stream_copy(out, in, n) : copy_run(out, in, n);
    }

private:
    const bool _is_past_cache;
};

/// Copies `rows` rows of n floats. The first lines of the next row are fetched ahead: the processor
/// foresees a row, but not where the next one starts.
inline void copy_rows(const float* in, index_t ld_in, float* out, index_t ld_out, index_t rows,
                      index_t n) {
    if (n == 1) {
        for (index_t i = 0; i < rows; ++i) {
            out[i * ld_out] = in[i * ld_in];
        }
        return;
    }
    constexpr index_t kAhead = 512;  // elements
    const RunWriter writer(rows * n * sizeof(float));
    for (index_t i = 0; i < rows; ++i, in += ld_in, out += ld_out) {
        prefetch_run(in + ld_in, std::min(n, kAhead));
        writer.copy(out, in, n);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_KIT_RUNS_H_
