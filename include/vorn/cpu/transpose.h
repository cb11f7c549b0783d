#ifndef VORN_CPU_TRANSPOSE_H_
#define VORN_CPU_TRANSPOSE_H_

#include <xmmintrin.h>

#include <algorithm>
#include <cstdint>

#include "vorn/base.h"
#include "vorn/cpu/memory.h"

/// Transposition of four-byte elements in the host's memory, of any shape and pitch.
///
/// A tile of 16 by 16 elements uses whole cache lines on both sides. Tiles go along a row of the
/// output, so that its pages change slowly, and at most 256 elements far, so that the input rows
/// they come from, often a power of two apart and thus in few cache sets, are still there for the
/// next 16 output rows. Those rows are too many streams for the processor to foresee, so each tile
/// asks for its right neighbour in the input, which comes a band later.
namespace vorn {
namespace cpu {

const index_t kTransposeTile = 16;
const index_t kTransposeBand = 256;

template <bool stream>
inline void store_row(float* to, __m128 row) {
    if (stream) {
        _mm_stream_ps(to, row);
    } else {
        _mm_storeu_ps(to, row);
    }
}

/// Four rows of four elements, moved as they are, whatever their type.
template <bool stream, typename T>
inline void transpose_4x4(const T* in, index_t ld_in, T* out, index_t ld_out) {
    const float* from = reinterpret_cast<const float*>(in);
    float* to = reinterpret_cast<float*>(out);
    __m128 row0 = _mm_loadu_ps(from), row1 = _mm_loadu_ps(from + ld_in);
    __m128 row2 = _mm_loadu_ps(from + 2 * ld_in), row3 = _mm_loadu_ps(from + 3 * ld_in);
    _MM_TRANSPOSE4_PS(row0, row1, row2, row3);
    store_row<stream>(to, row0);
    store_row<stream>(to + ld_out, row1);
    store_row<stream>(to + 2 * ld_out, row2);
    store_row<stream>(to + 3 * ld_out, row3);
}

template <typename T>
inline void prefetch_tile(const T* in, index_t ld_in) {
    for (index_t j = 0; j < kTransposeTile; ++j) {
        _mm_prefetch(reinterpret_cast<const char*>(in + j * ld_in), _MM_HINT_T1);
    }
}

/// out[i][j] = in[j][i] for a whole tile.
template <bool stream, typename T>
inline void transpose_tile(const T* in, index_t ld_in, T* out, index_t ld_out) {
    for (index_t i = 0; i < kTransposeTile; i += 4) {
        for (index_t j = 0; j < kTransposeTile; j += 4) {
            transpose_4x4<stream>(in + j * ld_in + i, ld_in, out + i * ld_out + j, ld_out);
        }
    }
}

/// The same for a tile at an edge, of `rows` by `cols` output elements.
template <typename T>
inline void transpose_edge(const T* in, index_t ld_in, T* out, index_t ld_out, index_t rows,
                           index_t cols) {
    const index_t whole_rows = rows / 4 * 4, whole_cols = cols / 4 * 4;
    for (index_t i = 0; i < whole_rows; i += 4) {
        for (index_t j = 0; j < whole_cols; j += 4) {
            transpose_4x4<false>(in + j * ld_in + i, ld_in, out + i * ld_out + j, ld_out);
        }
    }
    for (index_t i = 0; i < rows; ++i) {
        for (index_t j = i < whole_rows ? whole_cols : 0; j < cols; ++j) {
            out[i * ld_out + j] = in[j * ld_in + i];
        }
    }
}

template <bool stream, typename T>
void transpose_bands(const T* in, index_t ld_in, T* out, index_t ld_out, index_t rows,
                     index_t cols) {
    for (index_t band = 0; band < cols; band += kTransposeBand) {
        const index_t band_end = std::min(band + kTransposeBand, cols);
        for (index_t i = 0; i < rows; i += kTransposeTile) {
            for (index_t j = band; j < band_end; j += kTransposeTile) {
                const T* from = in + j * ld_in + i;
                T* to = out + i * ld_out + j;
                if (i + kTransposeTile <= rows && j + kTransposeTile <= cols) {
                    if (i + 2 * kTransposeTile <= rows) {
                        prefetch_tile(from + kTransposeTile, ld_in);
                    }
                    transpose_tile<stream>(from, ld_in, to, ld_out);
                } else {
                    transpose_edge(from, ld_in, to, ld_out, std::min(kTransposeTile, rows - i),
                                   std::min(kTransposeTile, cols - j));
                }
            }
        }
    }
}

/// out[i][j] = in[j][i] for i in [0, rows) and j in [0, cols); the pitches count elements.
template <typename T>
void transpose_matrix(const T* in, index_t ld_in, T* out, index_t ld_out, index_t rows,
                      index_t cols) {
    static_assert(sizeof(T) == 4, "elements of four bytes");
    const bool aligned = reinterpret_cast<uintptr_t>(out) % 16 == 0 && ld_out % 4 == 0;
    if (aligned && rows * cols * sizeof(T) >= kStreamBytes) {
        transpose_bands<true>(in, ld_in, out, ld_out, rows, cols);
        _mm_sfence();
    } else {
        transpose_bands<false>(in, ld_in, out, ld_out, rows, cols);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_TRANSPOSE_H_
