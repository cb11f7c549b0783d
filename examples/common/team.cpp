#include "common/team.h"

#include <cblas.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <optional>

namespace common {

namespace {

/// A processor that has gone to sleep takes long to wake, in a virtual machine more than a small
/// task takes. So a thread asks again and again, while it leaves the processor to others, before it
/// sleeps: longer than what lies between the calls of one training step.
constexpr std::chrono::milliseconds kAskBeforeSleep{5};

template <typename Condition>
void wait(std::unique_lock<std::mutex>* lock, std::condition_variable* changed,
          Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kAskBeforeSleep;
    while (!condition() && std::chrono::steady_clock::now() < end) {
        sched_yield();
    }
    lock->lock();
    changed->wait(*lock, condition);
}

}  // namespace

Team::Team(int threads) {
    openblas_set_num_threads(1);
    for (int i = 1; i < threads; ++i) {
        _threads.emplace_back([this, i] { work(i); });
    }
}

Team::~Team() {
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _stop = true;
    }
    _called.notify_all();
    for (std::thread& thread : _threads) {
        thread.join();
    }
}

int Team::default_size(vorn::Device device) {
    cpu_set_t set;
    const bool known = sched_getaffinity(0, sizeof set, &set) == 0;
    return known && !vorn::is_same_devices(device, vorn::GPU) ? CPU_COUNT(&set) : 1;
}

void Team::run(const std::vector<Task>& tasks) {
    for_each(static_cast<int>(tasks.size()), [&](int i) { tasks[i](); });
}

void Team::for_each(int count, const std::function<void(int)>& task) {
    if (_threads.empty()) {
        for (int i = 0; i < count; ++i) {
            task(i);
        }
        return;
    }
    vorn::synchronize();
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _count = count;
        _task = &task;
        _failures.assign(count, nullptr);
        // The first task of each thread is its own.
        _next = std::min(count, size());
        _busy = size() - 1;
        ++_call;
    }
    _called.notify_all();
    take_tasks(0);
    std::unique_lock<std::mutex> lock(_mutex, std::defer_lock);
    wait(&lock, &_finished, [this] { return _busy == 0; });
    for (const std::exception_ptr& failure : _failures) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
}

void Team::work(int thread) {
    std::optional<vorn::ThreadContextScope> context;
    if (vorn::has_gpu()) {
        context.emplace();
    }
    std::uint64_t seen = 0;
    while (true) {
        {
            std::unique_lock<std::mutex> lock(_mutex, std::defer_lock);
            wait(&lock, &_called, [&] { return _stop || _call != seen; });
            if (_stop) {
                return;
            }
            seen = _call;
        }
        take_tasks(thread);
        vorn::synchronize();
        const std::lock_guard<std::mutex> lock(_mutex);
        if (--_busy == 0) {
            _finished.notify_one();
        }
    }
}

void Team::take_tasks(int thread) {
    for (int index = thread; index < _count; index = _next++) {
        run_task(index);
    }
}

void Team::run_task(int index) {
    try {
        (*_task)(index);
    } catch (...) {
        _failures[index] = std::current_exception();
    }
}

}  // namespace common
