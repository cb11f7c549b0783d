#ifndef VORN_CPU_KIT_TRANSPOSE_H_
#define VORN_CPU_KIT_TRANSPOSE_H_

#include <algorithm>

#include "vorn/base.h"
#include "vorn/cpu/kit/lanes.h"

/// Transposition in the host's memory, of any shape and pitch.
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

/// Four rows of four elements.
template <typename T>
inline void transpose_4x4(const T* in, index_t ld_in, T* out, index_t ld_out) {
    typename Lanes<T>::Half v[4];
    for (int r = 0; r < 4; ++r) {
        load(v[r], in + r * ld_in);
    }
    transpose_four(v);
    for (int r = 0; r < 4; ++r) {
        store(out + r * ld_out, v[r]);
    }
}

template <typename T>
inline void prefetch_tile(const T* in, index_t ld_in) {
    for (index_t j = 0; j < kTransposeTile; ++j) {
        __builtin_prefetch(in + j * ld_in, 0, 2);
    }
}

/// out[i][j] = in[j][i] for a tile of `rows` by `cols` output elements.
template <typename T>
VORN_FORCE_INLINE void transpose_tile(const T* in, index_t ld_in, T* out, index_t ld_out,
                                      index_t rows, index_t cols) {
    const index_t whole_rows = rows / 4 * 4, whole_cols = cols / 4 * 4;
    for (index_t i = 0; i < whole_rows; i += 4) {
        for (index_t j = 0; j < whole_cols; j += 4) {
            transpose_4x4(in + j * ld_in + i, ld_in, out + i * ld_out + j, ld_out);
        }
    }
    for (index_t i = 0; i < rows; ++i) {
        for (index_t j = i < whole_rows ? whole_cols : 0; j < cols; ++j) {
            out[i * ld_out + j] = in[j * ld_in + i];
        }
    }
}

/// out[i][j] = in[j][i] for i in [0, rows) and j in [0, cols); the pitches count elements.
template <typename T>
void transpose_matrix(const T* in, index_t ld_in, T* out, index_t ld_out, index_t rows,
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
                    transpose_tile(from, ld_in, to, ld_out, kTransposeTile, kTransposeTile);
                } else {
                    transpose_tile(from, ld_in, to, ld_out, std::min(kTransposeTile, rows - i),
                                   std::min(kTransposeTile, cols - j));
                }
            }
        }
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_KIT_TRANSPOSE_H_
