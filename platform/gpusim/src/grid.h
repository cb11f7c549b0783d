#ifndef GPUSIM_DETAIL_GRID_H_
#define GPUSIM_DETAIL_GRID_H_

// The blocks of one launch, and the host threads that run them.

#include <atomic>
#include <chrono>
#include <cstdint>

#include "gpusim/error.h"
#include "gpusim/launch.h"
#include "order.h"

namespace gpusim {

/// Hands out the blocks of a launch in their order. The stream's thread runs them; where it is not
/// done soon, helpers take part (GPUSIM_THREADS, the machine's processors where it is not set).
class Grid {
public:
    /// A run of blocks that one thread took: the places [next, last).
    struct Share {
        uint64_t next = 0;
        uint64_t last = 0;
        uint64_t size = 1;
        std::chrono::steady_clock::time_point taken{};
    };

    Grid(detail::KernelCall& kernel, const dim3& grid, const dim3& block);

    /// Runs all blocks; cudaSuccess, or the fault of the first block that has one.
    cudaError_t run();

    detail::KernelCall& kernel() const { return kernel_; }
    const dim3& extent() const { return extent_; }
    const dim3& block_extent() const { return block_extent_; }
    /// Coordinates of the block at a place of the order.
    uint3 block(uint64_t place) const { return order_.block(place); }

    /// The next blocks for the calling thread; false when none is left.
    bool take(Share* share);
    /// Whether the block at this place is still to be run.
    bool wants(uint64_t place) const { return place < end_.load(std::memory_order_relaxed); }

    /// For a block with a fault, which calls it once: waits until the blocks before it have ended,
    /// and says whether none of them has a fault.
    bool is_first_fault(uint64_t place);
    /// The fault of the first block that has one.
    void set_fault(cudaError_t error) { fault_ = error; }

private:
    friend class Helpers;

    detail::KernelCall& kernel_;
    const dim3 extent_;
    const dim3 block_extent_;
    const BlockOrder order_;
    std::atomic<uint64_t> next_{0};  // the first place that nobody has taken
    std::atomic<uint64_t> end_;      // the last place and one, or that of a block with a fault
    cudaError_t fault_ = cudaSuccess;

    // Set by the stream's thread before there is a second one.
    bool shared_ = false;
    std::chrono::steady_clock::time_point begin_;

    // Change under the helpers' mutex.
    std::atomic<unsigned> running_{1};
    unsigned faulty_ = 0;
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_GRID_H_
