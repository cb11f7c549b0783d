#ifndef VORN_CPU_KIT_CHANNELS_H_
#define VORN_CPU_KIT_CHANNELS_H_

#include <algorithm>

#include "vorn/base.h"

/// How host loops walk dense (outer, channel, inner) data in the order of memory, where each
/// position of `inner` has values of its own.
namespace vorn {
namespace cpu {

inline constexpr index_t kPositionChunk = 512;  ///< Positions of all channels, for the L2 cache.
inline constexpr index_t kNarrow = 64;          ///< Shorter channels are joined into longer runs.

/// Calls part(first element, positions in it, channels per run) for the parts of one outer index,
/// which hold all channels of some of its positions.
template <typename F>
void for_each_part(index_t channel, index_t inner, F part) {
    if (inner < kNarrow) {
        part(0, inner, std::min(channel, kNarrow / std::max<index_t>(1, inner)));
        return;
    }
    for (index_t k = 0; k < inner; k += kPositionChunk) {
        part(k, std::min(kPositionChunk, inner - k), 1);
    }
}

/// Calls run(first element, length) for the elements of a part: `n` positions of each of `channel`
/// channels that lie `inner` apart. `repeat` channels at a time form one run, so that a short
/// channel still fills vectors; above 1 the part has all positions, which makes such runs dense.
template <typename F>
void for_each_run(index_t channel, index_t inner, index_t n, index_t repeat, F run) {
    for (index_t c = 0; c < channel; c += repeat) {
        run(c * inner, std::min(repeat, channel - c) * n);
    }
}

/// Lays the values of `n` positions out for a run of `repeat` channels.
template <typename T>
void repeat_positions(T* values, index_t n, index_t repeat) {
    for (index_t k = n; k < repeat * n; ++k) {
        values[k] = values[k - n];
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_KIT_CHANNELS_H_
