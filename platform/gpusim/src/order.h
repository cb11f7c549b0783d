#ifndef GPUSIM_DETAIL_ORDER_H_
#define GPUSIM_DETAIL_ORDER_H_

// The order in which the blocks of a launch and the threads of a block run.

#include <array>
#include <cstdint>
#include <string>

#include "gpusim/vector_types.h"

namespace gpusim {

/// What GPUSIM_ORDER asks for: `forward`, or `shuffle:SEED`. A device promises no order, so what a
/// kernel computes in a shuffled order has to be right as well.
struct Order {
    bool shuffled = false;
    uint64_t seed = 0;

    /// As the environment said at the first launch.
    static const Order& get();
    /// " in GPUSIM_ORDER=shuffle:7", or nothing where the order is forward.
    std::string note() const;
};

/// Steps of a generator of 64-bit numbers (splitmix64).
class Mixer {
public:
    explicit Mixer(uint64_t state) : state_(state) {}
    uint64_t next();
    /// A number in [0, bound).
    uint64_t below(uint64_t bound);

private:
    uint64_t state_;
};

/// A permutation of the blocks of a grid: the block at `place` is a * place + b modulo their count,
/// where a has no factor in common with the count.
class BlockOrder {
public:
    BlockOrder(const dim3& grid, const Order& order);

    uint64_t count() const { return count_; }
    uint3 block(uint64_t place) const;

private:
    dim3 grid_;
    uint64_t count_;
    uint64_t factor_ = 1;
    uint64_t offset_ = 0;
};

/// A permutation of the threads of a block: of its warps, and of the lanes of a warp. A last warp
/// that is not full has a place like the others, so some places are those of no thread.
class ThreadOrder {
public:
    static constexpr unsigned kWarp = 32;
    static constexpr unsigned kMaxWarps = 32;

    /// Ascending.
    ThreadOrder();
    void shuffle(uint64_t seed, unsigned warps);

    unsigned thread(unsigned place) const {
        return warps_[place / kWarp] * kWarp + lanes_[place % kWarp];
    }
    unsigned place(unsigned thread) const {
        return warp_places_[thread / kWarp] * kWarp + lane_places_[thread % kWarp];
    }

private:
    std::array<uint8_t, kMaxWarps> warps_, warp_places_;
    std::array<uint8_t, kWarp> lanes_, lane_places_;
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_ORDER_H_
