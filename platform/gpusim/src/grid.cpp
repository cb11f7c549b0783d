#include "grid.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "block_runner.h"
#include "device.h"
#include "sanitizer.h"

namespace gpusim {

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

// A helper needs some 50 us to wake up, and one that is awake still a few to join in.
// ThreadSanitizer is to see blocks on several threads.
constexpr microseconds kAlone(kThreadSanitizer ? 0 : 20);
constexpr microseconds kAloneOfAwake(kThreadSanitizer ? 0 : 2);
// Small launches follow each other so closely that it is faster to stay awake in between.
constexpr microseconds kAwake(50);
// Blocks are taken in shares that last about this long, so that the clock and the counter cost
// little.
constexpr microseconds kShareTime(kThreadSanitizer ? 0 : 5);

unsigned configured_threads() {
    const char* text = std::getenv("GPUSIM_THREADS");
    if (text == nullptr) {
        return std::max(1u, std::thread::hardware_concurrency());
    }
    char* end = nullptr;
    const unsigned long count = std::strtoul(text, &end, 10);
    constexpr unsigned long kMost = 1024;
    if (end == text || *end != '\0' || count < 1 || count > kMost) {
        std::fprintf(stderr, "gpusim: GPUSIM_THREADS is a number from 1 to %lu, not '%s'\n", kMost,
                     text);
        std::abort();
    }
    return static_cast<unsigned>(count);
}

unsigned thread_count() {
    static const unsigned count = configured_threads();
    return count;
}

/// Whether `done` comes true soon.
template <class F>
bool stay_awake_until(F done) {
    const auto end = steady_clock::now() + kAwake;
    while (!done()) {
        if (steady_clock::now() > end) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

void run_blocks(Grid& grid) {
    // Its fibers stay with the thread from launch to launch. On the heap, because a library that is
    // loaded while the program runs finds little room for thread-local data.
    thread_local const auto runner = std::make_unique<BlockRunner>();
    runner->run(grid);
}

}  // namespace

/// Threads that run blocks of whatever grids are long.
class Helpers {
public:
    /// Never destroyed: its threads wait for work until the process ends.
    static Helpers& get() {
        static Helpers* const helpers = new Helpers;
        return *helpers;
    }

    bool any_awake() const { return awake_.load(std::memory_order_relaxed) != 0; }

    void offer(Grid& grid) {
        std::lock_guard<std::mutex> lock(mutex_);
        grids_.push_back(&grid);
        offered_.store(true, std::memory_order_relaxed);
        work_.notify_all();
    }

    /// For the stream's thread when it has run its share: waits for the helpers.
    void withdraw(Grid& grid) {
        std::unique_lock<std::mutex> lock(mutex_);
        leave(grid);
        lock.unlock();
        const auto is_done = [&] { return grid.running_.load(std::memory_order_acquire) == 0; };
        if (!stay_awake_until(is_done)) {
            lock.lock();
            changed_.wait(lock, is_done);
        }
    }

    /// Waits until nobody runs blocks of the grid but those that wait here.
    void wait_for_others(Grid& grid) {
        std::unique_lock<std::mutex> lock(mutex_);
        close(grid);
        ++grid.faulty_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return grid.running_ <= grid.faulty_; });
    }

private:
    Helpers() {
        for (unsigned i = 1; i < thread_count(); ++i) {
            std::thread([this] { run(); }).detach();
        }
    }

    void close(Grid& grid) {
        grids_.erase(std::remove(grids_.begin(), grids_.end(), &grid), grids_.end());
        offered_.store(!grids_.empty(), std::memory_order_relaxed);
    }

    void leave(Grid& grid) {
        close(grid);  // all its blocks are taken
        changed_.notify_all();
        grid.running_.fetch_sub(1, std::memory_order_release);  // the grid may be gone from here on
    }

    [[noreturn]] void run() {
        enter_device_thread();
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            work_.wait(lock, [&] { return !grids_.empty(); });
            Grid& grid = *grids_.front();
            ++grid.running_;
            lock.unlock();
            run_blocks(grid);
            lock.lock();
            leave(grid);
            lock.unlock();
            awake_.fetch_add(1, std::memory_order_relaxed);
            stay_awake_until([&] { return offered_.load(std::memory_order_relaxed); });
            awake_.fetch_sub(1, std::memory_order_relaxed);
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable changed_;
    std::vector<Grid*> grids_;          // those that helpers may join
    std::atomic<bool> offered_{false};  // whether there are any
    std::atomic<unsigned> awake_{0};    // helpers that wait for one
};

Grid::Grid(detail::KernelCall& kernel, const dim3& grid, const dim3& block)
    : kernel_(kernel),
      extent_(grid),
      block_extent_(block),
      order_(grid, Order::get()),
      end_(order_.count()),
      begin_(steady_clock::now()) {}

cudaError_t Grid::run() {
    run_blocks(*this);
    if (shared_) {
        Helpers::get().withdraw(*this);
    }
    return fault_;
}

bool Grid::take(Share* share) {
    const uint64_t count = order_.count();
    const uint64_t first = next_.load(std::memory_order_relaxed);
    if (first >= count || !wants(first)) {
        return false;
    }
    const unsigned threads = thread_count();
    const auto now = share->last == 0 ? begin_ : steady_clock::now();
    if (now - share->taken < kShareTime) {
        share->size *= 2;
    }
    share->taken = now;
    const uint64_t size =
        std::max<uint64_t>(1, std::min(share->size, (count - first) / (2 * threads)));
    share->next = next_.fetch_add(size, std::memory_order_relaxed);
    share->last = std::min(share->next + size, count);
    if (!shared_ && threads > 1 && share->last < count && now - begin_ > kAloneOfAwake &&
        (now - begin_ > kAlone || Helpers::get().any_awake())) {
        shared_ = true;
        Helpers::get().offer(*this);
    }
    return share->next < count && wants(share->next);
}

bool Grid::is_first_fault(uint64_t place) {
    uint64_t end = end_.load(std::memory_order_relaxed);
    while (place < end && !end_.compare_exchange_weak(end, place, std::memory_order_relaxed)) {
    }
    if (shared_) {
        Helpers::get().wait_for_others(*this);
    }
    return end_.load(std::memory_order_relaxed) == place;
}

}  // namespace gpusim
