#ifndef GPUSIM_DETAIL_DEVICE_H_
#define GPUSIM_DETAIL_DEVICE_H_

// The one device: its streams, its fault state and the frame of every runtime call.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "gpusim/runtime_api.h"

namespace gpusim {

using StreamPtr = std::shared_ptr<CUstream_st>;

/// A point in a stream: reached once the stream has completed `sequence` tasks, and without a
/// stream at once.
struct StreamPoint {
    StreamPtr stream;
    uint64_t sequence = 0;

    bool reached() const;
};

/// One entry of a stream's queue.
class Task {
public:
    virtual ~Task() = default;
    virtual void run() = 0;

    /// What other streams must have reached before this task runs.
    std::vector<StreamPoint> waits;
};

template <class F>
std::unique_ptr<Task> make_task(F function) {
    struct FunctionTask final : Task {
        explicit FunctionTask(F f) : function(std::move(f)) {}
        void run() override { function(); }
        F function;
    };
    return std::make_unique<FunctionTask>(std::move(function));
}

}  // namespace gpusim

/// A queue of tasks and, from the first task on, a thread that runs them in order. All members but
/// `completed` are guarded by the device's mutex.
struct CUstream_st {
    explicit CUstream_st(bool is_non_blocking) : non_blocking(is_non_blocking) {}

    const bool non_blocking;
    std::deque<std::unique_ptr<gpusim::Task>> queue;
    uint64_t submitted = 0;
    std::atomic<uint64_t> completed{0};
    bool started = false;
    bool closing = false;
    std::condition_variable work;
    std::condition_variable done;
};

struct CUevent_st {
    /// Where it was recorded last; a wait that was enqueued keeps its own.
    gpusim::StreamPoint point;
};

namespace gpusim {

class Device {
public:
    /// Never destroyed, so that calls from static destructors are refused and do no harm.
    static Device& get();

    StreamPtr create_stream(bool non_blocking);
    /// The stream behind a handle; null handles and cudaStreamLegacy are the null stream. Empty if
    /// there is no such stream.
    StreamPtr find_stream(cudaStream_t handle);
    cudaError_t destroy_stream(cudaStream_t handle);

    /// Enqueues a task, after what the null stream's rules put before it.
    StreamPoint submit(const StreamPtr& stream, std::unique_ptr<Task> task);
    /// The point after all that `stream` and, by the null stream's rules, others were given.
    std::vector<StreamPoint> pending(const StreamPtr& stream);
    /// The point after all that `stream` itself was given.
    StreamPoint tail(const StreamPtr& stream);
    void wait(const StreamPoint& point);
    void synchronize(const StreamPtr& stream);
    void synchronize_all();
    void reset();

    cudaEvent_t create_event();
    cudaError_t destroy_event(cudaEvent_t event);
    /// False if there is no such event.
    bool find_event(cudaEvent_t event, StreamPoint* point);
    cudaError_t record_event(cudaEvent_t event, const StreamPtr& stream);

    const StreamPtr& null_stream() const { return null_stream_; }
    bool launch_blocking() const { return launch_blocking_; }

    cudaError_t fault() const { return fault_.load(std::memory_order_acquire); }
    /// Later faults don't replace the first.
    void set_fault(cudaError_t error);

private:
    Device();
    void work(const StreamPtr& stream);
    void add_null_stream_waits(const StreamPtr& stream, std::vector<StreamPoint>* waits) const;

    std::mutex mutex_;
    StreamPtr null_stream_;
    std::vector<StreamPtr> streams_;  // all but the null stream, also those that only drain
    std::unordered_map<cudaStream_t, StreamPtr> handles_;
    std::unordered_set<cudaEvent_t> events_;
    std::atomic<cudaError_t> fault_{cudaSuccess};
    bool launch_blocking_ = false;
};

/// Records `error` as the thread's last error unless it is cudaSuccess; returns it.
cudaError_t record_error(cudaError_t error);

/// What keeps a call from going ahead: a fault of the device, a call from a stream's own thread,
/// from a process that was forked off after the device came up, or from what exit() destroys after
/// the device.
cudaError_t call_barrier();

/// To be called first on a thread that runs kernels: it may use device memory, and not this
/// interface.
void enter_device_thread();

/// The frame of a runtime call.
template <class F>
cudaError_t api(F&& body) {
    const cudaError_t barrier = call_barrier();
    return record_error(barrier == cudaSuccess ? body(Device::get()) : barrier);
}

/// The frame of a call that names a stream.
template <class F>
cudaError_t stream_api(cudaStream_t handle, F&& body) {
    return api([&](Device& device) {
        const StreamPtr stream = device.find_stream(handle);
        return stream == nullptr ? cudaErrorInvalidResourceHandle : body(device, stream);
    });
}

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_DEVICE_H_
