#include "device.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "memory.h"
#include "strict.h"

namespace gpusim {

namespace {

thread_local bool on_stream_thread = false;
std::atomic<bool> forked{false};
std::atomic<bool> unloading{false};

}  // namespace

bool StreamPoint::reached() const {
    return stream == nullptr || stream->completed.load(std::memory_order_acquire) >= sequence;
}

void enter_device_thread() {
    on_stream_thread = true;
    open_device_memory();
}

cudaError_t call_barrier() {
    if (forked.load(std::memory_order_relaxed)) {
        return cudaErrorInitializationError;
    }
    if (on_stream_thread) {
        return cudaErrorNotPermitted;
    }
    if (unloading.load(std::memory_order_relaxed)) {
        return cudaErrorCudartUnloading;
    }
    return Device::get().fault();
}

Device& Device::get() {
    static Device* const device = new Device;
    return *device;
}

Device::Device() : null_stream_(std::make_shared<CUstream_st>(false)) {
    const char* blocking = std::getenv("CUDA_LAUNCH_BLOCKING");
    launch_blocking_ = blocking != nullptr && std::strcmp(blocking, "1") == 0;
    report_illegal_accesses();
    // A child has none of the streams' threads.
    pthread_atfork(nullptr, nullptr, [] { forked = true; });
    // Kernels must not outlive what exit() destroys, and what it destroys after this must not call:
    // the runtime of a real GPU may be gone by then.
    std::atexit([] {
        if (!forked) {
            Device::get().synchronize_all();
        }
        unloading = true;
    });
}

StreamPtr Device::create_stream(bool non_blocking) {
    auto stream = std::make_shared<CUstream_st>(non_blocking);
    std::lock_guard<std::mutex> lock(mutex_);
    streams_.push_back(stream);
    handles_[stream.get()] = stream;
    return stream;
}

StreamPtr Device::find_stream(cudaStream_t handle) {
    if (handle == nullptr || handle == cudaStreamLegacy) {
        return null_stream_;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = handles_.find(handle);
    return found == handles_.end() ? nullptr : found->second;
}

cudaError_t Device::destroy_stream(cudaStream_t handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = handles_.find(handle);
    if (found == handles_.end()) {
        return cudaErrorInvalidResourceHandle;
    }
    const StreamPtr stream = found->second;
    handles_.erase(found);
    stream->closing = true;
    if (stream->started) {
        stream->work.notify_one();
    } else {
        streams_.erase(std::find(streams_.begin(), streams_.end(), stream));
    }
    return cudaSuccess;
}

void Device::add_null_stream_waits(const StreamPtr& stream, std::vector<StreamPoint>* waits) const {
    const auto add = [waits](const StreamPtr& other) {
        const StreamPoint point{other, other->submitted};
        if (!point.reached()) {
            waits->push_back(point);
        }
    };
    if (stream == null_stream_) {
        for (const StreamPtr& other : streams_) {
            if (!other->non_blocking) {
                add(other);
            }
        }
    } else if (!stream->non_blocking) {
        add(null_stream_);
    }
}

StreamPoint Device::submit(const StreamPtr& stream, std::unique_ptr<Task> task) {
    std::lock_guard<std::mutex> lock(mutex_);
    add_null_stream_waits(stream, &task->waits);
    stream->queue.push_back(std::move(task));
    const uint64_t sequence = ++stream->submitted;
    if (!stream->started) {
        stream->started = true;
        std::thread([this, stream] { work(stream); }).detach();
    } else {
        stream->work.notify_one();
    }
    return {stream, sequence};
}

void Device::work(const StreamPtr& stream) {
    enter_device_thread();
    Arena& arena = Memory::get().arena();
    bool is_open = false;  // from the first task of a full queue to the last one
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        stream->work.wait(lock, [&] { return !stream->queue.empty() || stream->closing; });
        if (stream->queue.empty()) {
            break;
        }
        std::unique_ptr<Task> task = std::move(stream->queue.front());
        stream->queue.pop_front();
        for (const StreamPoint& point : task->waits) {
            point.stream->done.wait(lock, [&] { return point.reached(); });
        }
        lock.unlock();
        if (!is_open) {
            arena.open();
            is_open = true;
        }
        if (fault() == cudaSuccess) {
            task->run();
        }
        task.reset();
        lock.lock();
        if (stream->queue.empty()) {
            arena.close();
            is_open = false;
        }
        stream->completed.fetch_add(1, std::memory_order_release);
        stream->done.notify_all();
    }
    const auto self = std::find(streams_.begin(), streams_.end(), stream);
    if (self != streams_.end()) {
        streams_.erase(self);
    }
}

std::vector<StreamPoint> Device::pending(const StreamPtr& stream) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<StreamPoint> points;
    const StreamPoint own{stream, stream->submitted};
    if (!own.reached()) {
        points.push_back(own);
    }
    add_null_stream_waits(stream, &points);
    return points;
}

StreamPoint Device::tail(const StreamPtr& stream) {
    std::lock_guard<std::mutex> lock(mutex_);
    return {stream, stream->submitted};
}

void Device::wait(const StreamPoint& point) {
    if (!point.reached()) {
        std::unique_lock<std::mutex> lock(mutex_);
        point.stream->done.wait(lock, [&] { return point.reached(); });
    }
}

void Device::synchronize(const StreamPtr& stream) {
    for (const StreamPoint& point : pending(stream)) {
        wait(point);
    }
}

void Device::synchronize_all() {
    std::vector<StreamPoint> points;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        points.push_back({null_stream_, null_stream_->submitted});
        for (const StreamPtr& stream : streams_) {
            points.push_back({stream, stream->submitted});
        }
    }
    for (const StreamPoint& point : points) {
        wait(point);
    }
}

void Device::reset() {
    synchronize_all();
    std::vector<cudaStream_t> open;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& entry : handles_) {
            open.push_back(entry.first);
        }
        for (cudaEvent_t event : events_) {
            delete event;
        }
        events_.clear();
    }
    for (cudaStream_t stream : open) {
        destroy_stream(stream);
    }
    fault_ = cudaSuccess;
}

void Device::set_fault(cudaError_t error) {
    cudaError_t none = cudaSuccess;
    fault_.compare_exchange_strong(none, error);
}

cudaEvent_t Device::create_event() {
    auto* event = new CUevent_st;
    std::lock_guard<std::mutex> lock(mutex_);
    events_.insert(event);
    return event;
}

cudaError_t Device::destroy_event(cudaEvent_t event) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (events_.erase(event) == 0) {
        return cudaErrorInvalidResourceHandle;
    }
    delete event;
    return cudaSuccess;
}

bool Device::find_event(cudaEvent_t event, StreamPoint* point) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (events_.count(event) == 0) {
        return false;
    }
    *point = event->point;
    return true;
}

cudaError_t Device::record_event(cudaEvent_t event, const StreamPtr& stream) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (events_.count(event) == 0) {
            return cudaErrorInvalidResourceHandle;
        }
    }
    const StreamPoint point = submit(stream, make_task([] {}));
    std::lock_guard<std::mutex> lock(mutex_);
    if (events_.count(event) != 0) {
        event->point = point;
    }
    return cudaSuccess;
}

}  // namespace gpusim
