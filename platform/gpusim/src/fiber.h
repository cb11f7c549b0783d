#ifndef GPUSIM_DETAIL_FIBER_H_
#define GPUSIM_DETAIL_FIBER_H_

// Fibers that device threads run on, one pool for each stream.

#include <boost/context/detail/fcontext.hpp>
#include <memory>
#include <vector>

#include "gpusim/launch.h"
#include "sanitizer.h"

namespace gpusim {

struct Fiber : detail::FiberThread {
    boost::context::detail::fcontext_t context = nullptr;
    /// Coordinates of the thread that parked here.
    uint3 index{};
    /// Lower end and size of the stack, for the sanitizers.
    char* stack = nullptr;
    size_t stack_size = 0;
    void* fake_stack = nullptr;
    void* tsan_fiber = nullptr;
    /// Size of the mapping that holds stack and guard page; 0 for the thread's own stack.
    size_t mapped = 0;

    ~Fiber();
};

/// Describes the calling thread's own stack.
void adopt_thread_stack(Fiber& fiber);

/// Goes on in `to` until something switches back to `from`.
void switch_fiber(Fiber& from, Fiber& to);

/// To be called first on a new fiber, with what its entry received.
void enter_fiber(boost::context::detail::transfer_t transfer, Fiber& self);

class FiberPool {
public:
    using Entry = void (*)(boost::context::detail::transfer_t);

    explicit FiberPool(Entry entry) : entry_(entry) {}

    Fiber& take() {
        if (free_.empty()) {
            grow();
        }
        Fiber* fiber = free_.back();
        free_.pop_back();
        return *fiber;
    }
    void put(Fiber& fiber) { free_.push_back(&fiber); }

    /// Takes back every fiber, whatever it was doing. What lay on their stacks is lost.
    void abandon_all();

private:
    void grow();
    void reset(Fiber& fiber);

    Entry entry_;
    std::vector<std::unique_ptr<Fiber>> all_;
    std::vector<Fiber*> free_;
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_FIBER_H_
