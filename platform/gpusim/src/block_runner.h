#ifndef GPUSIM_DETAIL_BLOCK_RUNNER_H_
#define GPUSIM_DETAIL_BLOCK_RUNNER_H_

// Runs blocks of a launch, and decides which thread of a block goes on at each barrier.

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "fiber.h"
#include "grid.h"
#include "order.h"
#include "races.h"
#include "shared_memory.h"

namespace gpusim {

/// The place in the source where a thread waits.
struct Site {
    const char* file;
    unsigned line;
    const char* function;

    bool operator==(const Site& other) const {
        return line == other.line && (file == other.file || std::strcmp(file, other.file) == 0);
    }
    bool operator!=(const Site& other) const { return !(*this == other); }
};

/// Threads of a block start one after the other on one fiber. A thread that meets a barrier parks
/// with the fiber, and the next one starts on a fresh fiber. When all have parked or ended, the
/// parked ones are resumed in their order. A warp whose threads wait for each other is brought to
/// its next block barrier or its end before the next warp runs. In a shuffled order a thread starts
/// in the place that `threads_` gives it; the places of a warp follow each other.
///
/// Under ThreadSanitizer blocks begin and end on the host thread's own stack. In the first blocks
/// of a launch every thread starts on a fiber of its own, even if it meets no barrier. That is
/// slow, so in the other blocks all threads are one to the sanitizer.
class BlockRunner {
public:
    BlockRunner();

    /// Runs what it can take of the blocks.
    void run(Grid& grid);

    void wait_block(const Site& site);
    void wait_warp(unsigned mask, const Site& site);
    /// To be called before the message of a fault: of several blocks with one, the first is told.
    /// Does not return where a block before the running one has a fault.
    void wait_for_earlier_blocks();
    /// Prints the device's message for a failed assertion and ends the kernel.
    [[noreturn]] void fail_assertion(const char* expression, const Site& site);

    /// The kernel, its block and its thread that the calling thread is in.
    std::string running_thread() const;

    /// The runner of the kernel that the calling thread is in, or null outside kernels.
    static BlockRunner* current();

private:
    static constexpr unsigned kWarp = ThreadOrder::kWarp;
    static constexpr unsigned kMaxThreads = 1024;

    enum class State : uint8_t { kNotWaiting, kAtBlock, kAtWarp, kReleased };

    static void fiber_entry(boost::context::detail::transfer_t transfer);
    [[noreturn]] void fiber_loop(Fiber& self);
    void start_block();
    /// Whether the threads of this block are separate for ThreadSanitizer.
    bool separate() const { return kThreadSanitizer && separate_; }
    /// Starts the threads in the places [first, last) until one parks.
    void run_places(const Fiber& self, unsigned first, unsigned last);
    /// Steps `blockIdx` to the next block; false past the last.
    bool advance_block();
    /// Binds the running thread to its fiber; returns its linear index.
    unsigned bind();
    void park(Rounds& rounds);
    /// The fiber that runs from now on; the active one has parked, or its thread has `ended`.
    Fiber& next_fiber(bool ended);
    /// The fiber to be resumed: a parked one, `main_` when the last block has ended (any, under
    /// ThreadSanitizer), or null when the threads [run_first_, run_last_) are to be started.
    Fiber* choose();
    void release_warp();
    void switch_to(Fiber& to);
    /// Prints `message_` and ends the kernel.
    [[noreturn]] void fail();
    [[noreturn]] void end_kernel(cudaError_t error);
    /// Leaves the kernel for good. Frames below lose what they hold: callers hold nothing.
    [[noreturn]] void leave_kernel();
    std::string kernel_name(const Site& site) const;
    std::string thread_name(unsigned thread) const;

    FiberPool pool_;
    Fiber main_;
    Fiber* active_ = nullptr;
    Grid* grid_ = nullptr;
    Grid::Share share_;
    bool left_ = false;  // by a fault
    std::string message_;

    const Order& order_ = Order::get();
    ThreadOrder threads_;
    SharedMemory shared_;  // poisoned before each block of a shuffled run

    unsigned count_ = 0;       // threads of a block
    unsigned places_ = 0;      // their places: whole warps of them in a shuffled order
    unsigned next_start_ = 0;  // first place whose thread has not started
    unsigned position_ = 0;    // next place to look at in this pass
    unsigned run_first_ = 0;
    unsigned run_last_ = 0;
    unsigned block_waiting_ = 0;
    unsigned first_waiter_ = 0;
    Site block_site_{};
    bool in_warp_ = false;     // between the first warp barrier of a warp and its release
    unsigned warp_first_ = 0;  // its first thread
    unsigned warp_waiting_ = 0;
    State resumable_ = State::kAtBlock;

    SyncPoint begin_;  // of the threads of a block
    SyncPoint end_;
    Rounds block_rounds_;
    std::array<Rounds, kWarp> warp_rounds_;  // by the lowest lane of the mask
    bool met_barrier_ = false;
    unsigned begun_ = 0;  // threads of this launch that were separate
    bool separate_ = false;

    std::array<State, kMaxThreads> state_{};
    std::array<Fiber*, kMaxThreads> fiber_{};
    std::array<unsigned, kWarp> mask_{};
    std::array<Site, kWarp> warp_site_{};
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_BLOCK_RUNNER_H_
