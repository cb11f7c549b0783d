#ifndef COMMON_TEAM_H_
#define COMMON_TEAM_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "vorn/vorn.h"

namespace common {

/// Threads that share out tasks. Each thread but the calling one has a context of its own where
/// there is a GPU, so that a task may call any operator. The BLAS computes with one thread within
/// a task, and a task computes the same on any thread: what comes out doesn't depend on the number
/// of threads.
class Team {
public:
    using Task = std::function<void()>;

    /// So many threads, the calling one included. Sets the BLAS to one thread in the whole process.
    explicit Team(int threads);
    ~Team();
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;

    /// Threads for a network on `device`: as many as the process may use processors for one on the
    /// host, which computes on them, and one for a GPU.
    static int default_size(vorn::Device device);

    int size() const { return static_cast<int>(_threads.size()) + 1; }

    /// Runs all tasks and returns when they are done. None may write what another one touches, or
    /// call this function. Tasks see what was queued on the caller's stream before, and the caller
    /// what they queued on theirs. Task i begins on thread i while there are threads left; so a
    /// task finds in its core's cache what it left there in the last call. Rethrows the exception
    /// of the first task in order that threw one.
    void run(const std::vector<Task>& tasks);

    /// task(i) for all i below `count`.
    void for_each(int count, const std::function<void(int)>& task);

private:
    void work(int thread);
    void take_tasks(int thread);
    void run_task(int index);

    std::vector<std::thread> _threads;
    std::mutex _mutex;
    std::condition_variable _called, _finished;
    // Changed under _mutex only.
    std::atomic<std::uint64_t> _call{0};  ///< number of the latest call
    std::atomic<int> _busy{0};            ///< threads that have not finished it
    std::atomic<bool> _stop{false};
    // Of the latest call; set before its number is.
    std::atomic<int> _next{0};  ///< the first task that nobody has taken
    int _count = 0;
    const std::function<void(int)>* _task = nullptr;
    std::vector<std::exception_ptr> _failures;
};

}  // namespace common

#endif  // COMMON_TEAM_H_
