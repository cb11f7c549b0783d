#ifndef GPUSIM_DETAIL_FIBER_H_
#define GPUSIM_DETAIL_FIBER_H_

// Fibers that device threads run on, one pool for each stream.

#include <boost/context/detail/fcontext.hpp>
#include <deque>
#include <memory>
#include <string>
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

/// Goes on in `to` until something switches back to `from`. ThreadSanitizer takes no note of it.
void switch_fiber(Fiber& from, Fiber& to);

/// To be called first on a new fiber, with what its entry received.
void enter_fiber(boost::context::detail::transfer_t transfer, Fiber& self);

/// What ThreadSanitizer sees in this scope is the work of another fiber than the running one.
class InTheNameOf {
public:
#ifdef GPUSIM_TSAN
    explicit InTheNameOf(const Fiber& other) : running_(__tsan_get_current_fiber()) {
        __tsan_switch_to_fiber(other.tsan_fiber, __tsan_switch_to_fiber_no_sync);
    }
    ~InTheNameOf() {
        __tsan_switch_to_fiber(running_, __tsan_switch_to_fiber_no_sync);
    }
    InTheNameOf(const InTheNameOf&) = delete;
    InTheNameOf& operator=(const InTheNameOf&) = delete;

private:
    void* running_;
#else
    explicit InTheNameOf(const Fiber&) {}
#endif
};

/// What ThreadSanitizer sees from now on is the work of `fiber`, in no order to what it saw last.
void become(const Fiber& fiber);

/// The name that ThreadSanitizer's reports give a fiber.
void name_fiber(const Fiber& fiber, const std::string& name);

class FiberPool {
public:
    using Entry = void (*)(boost::context::detail::transfer_t);

    explicit FiberPool(Entry entry) : entry_(entry) {}

    /// The fiber that came back last, which lies in the processor's caches. For ThreadSanitizer the
    /// one that came back first, because threads on one fiber are one thread to it.
    Fiber& take() {
        if (free_.empty()) {
            grow();
        }
        Fiber* fiber = kThreadSanitizer ? free_.front() : free_.back();
        kThreadSanitizer ? free_.pop_front() : free_.pop_back();
        return *fiber;
    }
    /// Makes fibers, so that there are `count` at least.
    void reserve(size_t count) {
        while (all_.size() < count) {
            grow();
        }
    }
    void put(Fiber& fiber) { free_.push_back(&fiber); }

    /// Takes back every fiber, whatever it was doing. What lay on their stacks is lost.
    void abandon_all();

private:
    void grow();
    void reset(Fiber& fiber);

    Entry entry_;
    std::vector<std::unique_ptr<Fiber>> all_;
    std::deque<Fiber*> free_;
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_FIBER_H_
