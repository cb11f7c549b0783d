#include "block_runner.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "symbols.h"

__thread uint3 threadIdx = {0, 0, 0};
__thread uint3 blockIdx = {0, 0, 0};
__thread dim3 blockDim = dim3(1, 1, 1);
__thread dim3 gridDim = dim3(1, 1, 1);

namespace gpusim {

namespace {

__thread BlockRunner* current_runner __attribute__((tls_model("initial-exec"))) = nullptr;

std::string triple(const uint3& v) {
    return "[" + std::to_string(v.x) + "," + std::to_string(v.y) + "," + std::to_string(v.z) + "]";
}

std::string place(const Site& site) {
    return std::string(site.file) + ":" + std::to_string(site.line);
}

// Of a launch on a host thread, or those of one block. What orders a thread costs ThreadSanitizer
// time in proportion to the number of all threads.
constexpr unsigned kSeparateThreads = 512;

unsigned lowest_lane(unsigned mask) {
    return static_cast<unsigned>(__builtin_ctz(mask));
}

}  // namespace

BlockRunner::BlockRunner() : pool_(&BlockRunner::fiber_entry) {
    adopt_thread_stack(main_);
}

BlockRunner* BlockRunner::current() {
    return current_runner;
}

void BlockRunner::run(Grid& grid) {
    share_ = {};
    if (!grid.take(&share_)) {
        return;
    }
    grid_ = &grid;
    left_ = false;
    gridDim = grid.extent();
    blockDim = grid.block_extent();
    count_ = blockDim.x * blockDim.y * blockDim.z;
    places_ = order_.shuffled ? (count_ + kWarp - 1) / kWarp * kWarp : count_;
    if (order_.shuffled) {
        shared_ = SharedMemory(grid.kernel().address());
    }
    if (kThreadSanitizer) {
        // One more than threads, so that equal threads of neighbouring blocks have different ones.
        pool_.reserve(count_ + 1);
    }
    current_runner = this;
    blockIdx = grid.block(share_.next);
    active_ = &main_;
    begun_ = 0;
    do {
        start_block();
        switch_to(pool_.take());
    } while (kThreadSanitizer && !left_ && advance_block());
    end_.leave();
    current_runner = nullptr;
    grid_ = nullptr;
    if (left_) {
        pool_.abandon_all();
        state_.fill(State::kNotWaiting);
        fiber_.fill(nullptr);
    }
}

void BlockRunner::start_block() {
    next_start_ = 0;
    block_waiting_ = 0;
    warp_waiting_ = 0;
    in_warp_ = false;
    resumable_ = State::kAtBlock;
    run_first_ = 0;
    const bool was_separate = separate();
    separate_ = begun_ == 0 || begun_ + count_ <= kSeparateThreads;
    begun_ += separate_ ? count_ : 0;
    run_last_ = separate() ? 1 : places_;
    // Blocks are not ordered, but those of one host thread use the same shared memory.
    if (was_separate && (met_barrier_ || !separate())) {
        end_.leave();
    }
    met_barrier_ = false;
    if (order_.shuffled) {
        shared_.poison();
        threads_.shuffle(order_.seed + share_.next, places_ / kWarp);
    }
    if (separate()) {
        begin_.arrive();
    }
}

bool BlockRunner::advance_block() {
    const bool at_end = ++share_.next == share_.last || !grid_->wants(share_.next);
    if (at_end && !grid_->take(&share_)) {
        return false;
    }
    if (at_end || order_.shuffled) {
        blockIdx = grid_->block(share_.next);
    } else if (++blockIdx.x == gridDim.x) {
        blockIdx.x = 0;
        if (++blockIdx.y == gridDim.y) {
            blockIdx.y = 0;
            ++blockIdx.z;
        }
    }
    return true;
}

void BlockRunner::fiber_entry(boost::context::detail::transfer_t transfer) {
    BlockRunner* runner = current_runner;
    Fiber& self = *runner->active_;
    enter_fiber(transfer, self);
    runner->fiber_loop(self);
}

void BlockRunner::fiber_loop(Fiber& self) {
    for (;;) {
        const unsigned last = run_last_;
        if (separate()) {
            begin_.leave();
        }
        run_places(self, run_first_, last);
        if (separate()) {
            end_.arrive();
        }
        if (self.thread == detail::kNoThread) {
            next_start_ = last;
            position_ = last;
        } else {
            state_[self.thread] = State::kNotWaiting;
            fiber_[self.thread] = nullptr;
            self.thread = detail::kNoThread;
        }
        switch_to(next_fiber(true));
    }
}

void BlockRunner::run_places(const Fiber& self, unsigned first, unsigned last) {
    if (!order_.shuffled && !separate()) {
        grid_->kernel().run(self, first, last);
        return;
    }
    for (unsigned place = first; place != last && self.thread == detail::kNoThread; ++place) {
        const unsigned thread = threads_.thread(place);
        if (thread < count_) {
            if (separate()) {
                name_fiber(*active_, "block " + triple(blockIdx) + ", " + thread_name(thread));
            }
            grid_->kernel().run(self, thread, thread + 1);
        }
    }
}

void BlockRunner::switch_to(Fiber& to) {
    Fiber& from = *active_;
    if (&from != &to) {
        active_ = &to;
        if (separate()) {
            become(to);
        }
        switch_fiber(from, to);
    }
}

unsigned BlockRunner::bind() {
    Fiber& self = *active_;
    if (self.thread == detail::kNoThread) {
        const unsigned thread = threadIdx.x + blockDim.x * (threadIdx.y + blockDim.y * threadIdx.z);
        self.thread = thread;
        self.index = threadIdx;
        fiber_[thread] = &self;
        next_start_ = threads_.place(thread) + 1;
        position_ = next_start_;
    }
    return self.thread;
}

void BlockRunner::park(Rounds& rounds) {
    Fiber& self = *active_;
    SyncPoint& point = rounds.point();
    if (separate()) {
        point.arrive();
    }
    switch_to(next_fiber(false));
    if (separate()) {
        point.leave();
    }
    threadIdx = self.index;
}

Fiber& BlockRunner::next_fiber(bool ended) {
    Fiber& self = *active_;
    [[maybe_unused]] const InTheNameOf host(main_);
    Fiber* next = choose();
    if (ended && next == nullptr && !separate()) {
        return self;
    }
    if (ended) {
        pool_.put(self);
    }
    return next != nullptr ? *next : pool_.take();
}

void BlockRunner::wait_block(const Site& site) {
    const unsigned thread = bind();
    if (block_waiting_ == 0) {
        block_site_ = site;
        first_waiter_ = thread;
    } else if (site != block_site_) {
        message_ = kernel_name(site) + ": threads of one block wait at different barriers: " +
                   thread_name(first_waiter_) + " at " + place(block_site_) + ", " +
                   thread_name(thread) + " at " + place(site);
        fail();
    }
    ++block_waiting_;
    met_barrier_ = true;
    state_[thread] = State::kAtBlock;
    park(block_rounds_);
}

void BlockRunner::wait_warp(unsigned mask, const Site& site) {
    const unsigned thread = bind();
    const unsigned lane = thread % kWarp;
    if ((mask >> lane & 1u) == 0) {
        message_ = kernel_name(site) + ": " + thread_name(thread) + " waits at the warp barrier " +
                   place(site) + ", whose mask leaves it out";
        fail();
    }
    mask_[lane] = mask;
    warp_site_[lane] = site;
    in_warp_ = true;
    warp_first_ = thread - lane;
    ++warp_waiting_;
    met_barrier_ = true;
    state_[thread] = State::kAtWarp;
    park(warp_rounds_[lowest_lane(mask)]);
}

Fiber* BlockRunner::choose() {
    for (;;) {
        const unsigned warp_place = threads_.place(warp_first_) / kWarp * kWarp;
        const unsigned stop = in_warp_ ? std::min(warp_place + kWarp, places_) : places_;
        while (position_ < stop) {
            if (position_ == next_start_) {
                run_first_ = position_;
                run_last_ = separate() ? position_ + 1 : stop;
                return nullptr;
            }
            const unsigned thread = threads_.thread(position_++);
            if (state_[thread] == resumable_) {
                return fiber_[thread];
            }
        }
        if (in_warp_ && warp_waiting_ != 0) {
            release_warp();
            position_ = warp_place;
            resumable_ = State::kReleased;
        } else if (in_warp_) {
            in_warp_ = false;
            resumable_ = State::kAtBlock;
        } else if (block_waiting_ != 0) {
            block_waiting_ = 0;
            block_rounds_.next();
            position_ = 0;
        } else if (!kThreadSanitizer && advance_block()) {
            start_block();
            return nullptr;
        } else {
            return &main_;
        }
    }
}

void BlockRunner::release_warp() {
    const unsigned lanes = std::min(kWarp, count_ - warp_first_);
    unsigned released = 0;
    unsigned groups = 0;  // those released, by their lowest lanes
    unsigned stuck = 0;
    unsigned missing = 0;
    for (unsigned lane = 0; lane < lanes; ++lane) {
        if (state_[warp_first_ + lane] != State::kAtWarp) {
            continue;
        }
        bool complete = true;
        for (unsigned other = 0; other < lanes && complete; ++other) {
            const unsigned thread = warp_first_ + other;
            // Threads that have ended count as arrived.
            if ((mask_[lane] >> other & 1u) != 0 && fiber_[thread] != nullptr) {
                const bool waits =
                    state_[thread] == State::kAtWarp || (released >> other & 1u) != 0;
                complete =
                    waits && mask_[other] == mask_[lane] && warp_site_[other] == warp_site_[lane];
                if (!complete) {
                    stuck = warp_first_ + lane;
                    missing = thread;
                }
            }
        }
        if (complete) {
            released |= 1u << lane;
            groups |= 1u << lowest_lane(mask_[lane]);
            state_[warp_first_ + lane] = State::kReleased;
            --warp_waiting_;
        }
    }
    for (; groups != 0; groups &= groups - 1) {
        warp_rounds_[lowest_lane(groups)].next();
    }
    if (released == 0) {
        const Site& site = warp_site_[stuck % kWarp];
        const bool at_warp = state_[missing] == State::kAtWarp;
        message_ = kernel_name(site) + ": " + thread_name(stuck) + " waits at the warp barrier " +
                   place(site) + " for " + thread_name(missing) + ", which waits at " +
                   place(at_warp ? warp_site_[missing % kWarp] : block_site_) +
                   (at_warp ? " or with another mask" : "");
        fail();
    }
}

void BlockRunner::fail_assertion(const char* expression, const Site& site) {
    // What the kernel printed: abort(), in which a failed assertion mostly ends, would lose it.
    std::fflush(stdout);
    std::fprintf(stderr, "%s:%u: %s: block: %s, thread: %s Assertion `%s` failed.\n", site.file,
                 site.line, site.function, triple(blockIdx).c_str(), triple(threadIdx).c_str(),
                 expression);
    end_kernel(cudaErrorAssert);
}

void BlockRunner::wait_for_earlier_blocks() {
    end_.arrive();
    [[maybe_unused]] const InTheNameOf host(main_);
    end_.leave();
    if (!grid_->is_first_fault(share_.next)) {
        leave_kernel();
    }
}

void BlockRunner::fail() {
    wait_for_earlier_blocks();
    std::fprintf(stderr, "gpusim: %s%s\n", message_.c_str(), order_.note().c_str());
    end_kernel(cudaErrorLaunchFailure);
}

void BlockRunner::end_kernel(cudaError_t error) {
    grid_->set_fault(error);
    leave_kernel();
}

void BlockRunner::leave_kernel() {
    left_ = true;
    switch_to(main_);
    std::abort();  // not reached: what a fault leaves behind is never resumed
}

std::string BlockRunner::kernel_name(const Site& site) const {
    const std::string name = function_name(grid_->kernel().address());
    return "kernel " + (name.empty() ? site.function : name) + ", block " + triple(blockIdx);
}

std::string BlockRunner::running_thread() const {
    return kernel_name({"", 0, "?"}) + ", thread " + triple(threadIdx);
}

std::string BlockRunner::thread_name(unsigned thread) const {
    return "thread " + triple({thread % blockDim.x, thread / blockDim.x % blockDim.y,
                               thread / blockDim.x / blockDim.y});
}

namespace {

BlockRunner& runner_or_abort(const Site& site) {
    if (current_runner == nullptr) {
        std::fprintf(stderr, "gpusim: %s:%u: a barrier outside a kernel\n", site.file, site.line);
        std::abort();
    }
    return *current_runner;
}

}  // namespace

void detail::block_barrier(const char* file, unsigned line, const char* function) {
    const Site site{file, line, function};
    runner_or_abort(site).wait_block(site);
}

void detail::warp_barrier(unsigned mask, const char* file, unsigned line, const char* function) {
    const Site site{file, line, function};
    runner_or_abort(site).wait_warp(mask, site);
}

}  // namespace gpusim

// assert() ends here in host code as well as in kernels: outside a kernel the C library's own
// function takes over.
extern "C" void __assert_fail(const char* expression, const char* file, unsigned line,
                              const char* function) noexcept {
    if (auto* runner = gpusim::BlockRunner::current()) {
        runner->wait_for_earlier_blocks();
        runner->fail_assertion(expression, {file, line, function});
    }
    using AssertFail = void (*)(const char*, const char*, unsigned, const char*);
    if (auto next = reinterpret_cast<AssertFail>(dlsym(RTLD_NEXT, "__assert_fail"))) {
        next(expression, file, line, function);
    }
    std::abort();
}
