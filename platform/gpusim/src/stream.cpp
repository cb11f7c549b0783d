// Streams and events of the runtime's interface.
#include "device.h"
#include "memory.h"

using gpusim::api;
using gpusim::Device;
using gpusim::make_task;
using gpusim::stream_api;
using gpusim::StreamPoint;
using gpusim::StreamPtr;

cudaError_t cudaStreamCreate(cudaStream_t* stream) {
    return cudaStreamCreateWithFlags(stream, cudaStreamDefault);
}

cudaError_t cudaStreamCreateWithFlags(cudaStream_t* stream, unsigned flags) {
    return api([&](Device& device) {
        if (stream == nullptr || (flags & ~cudaStreamNonBlocking) != 0) {
            return cudaErrorInvalidValue;
        }
        *stream = device.create_stream(flags == cudaStreamNonBlocking).get();
        return cudaSuccess;
    });
}

cudaError_t cudaStreamDestroy(cudaStream_t stream) {
    return api([&](Device& device) { return device.destroy_stream(stream); });
}

cudaError_t cudaStreamSynchronize(cudaStream_t stream) {
    return stream_api(stream, [](Device& device, const StreamPtr& s) {
        device.synchronize(s);
        return device.fault();
    });
}

cudaError_t cudaStreamQuery(cudaStream_t stream) {
    return stream_api(stream, [](Device& device, const StreamPtr& s) {
        return device.pending(s).empty() ? device.fault() : cudaErrorNotReady;
    });
}

cudaError_t cudaStreamWaitEvent(cudaStream_t stream, cudaEvent_t event, unsigned flags) {
    return stream_api(stream, [&](Device& device, const StreamPtr& s) {
        StreamPoint point;
        if (!device.find_event(event, &point)) {
            return cudaErrorInvalidResourceHandle;
        }
        if (flags != cudaEventWaitDefault) {
            return cudaErrorInvalidValue;
        }
        if (!point.reached()) {
            auto task = make_task([] {});
            task->waits.push_back(point);
            device.submit(s, std::move(task));
        }
        return cudaSuccess;
    });
}

cudaError_t cudaLaunchHostFunc(cudaStream_t stream, cudaHostFn_t function, void* user_data) {
    return stream_api(stream, [&](Device& device, const StreamPtr& s) {
        if (function == nullptr) {
            return cudaErrorInvalidValue;
        }
        device.submit(s, make_task([function, user_data] {
                          gpusim::HostAccess host;
                          function(user_data);
                      }));
        return cudaSuccess;
    });
}

cudaError_t cudaEventCreate(cudaEvent_t* event) {
    return cudaEventCreateWithFlags(event, cudaEventDefault);
}

cudaError_t cudaEventCreateWithFlags(cudaEvent_t* event, unsigned flags) {
    return api([&](Device& device) {
        if (event == nullptr || (flags & ~cudaEventDisableTiming) != 0) {
            return cudaErrorInvalidValue;
        }
        *event = device.create_event();
        return cudaSuccess;
    });
}

cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream) {
    return stream_api(
        stream, [&](Device& device, const StreamPtr& s) { return device.record_event(event, s); });
}

cudaError_t cudaEventQuery(cudaEvent_t event) {
    return api([&](Device& device) {
        StreamPoint point;
        if (!device.find_event(event, &point)) {
            return cudaErrorInvalidResourceHandle;
        }
        return point.reached() ? device.fault() : cudaErrorNotReady;
    });
}

cudaError_t cudaEventSynchronize(cudaEvent_t event) {
    return api([&](Device& device) {
        StreamPoint point;
        if (!device.find_event(event, &point)) {
            return cudaErrorInvalidResourceHandle;
        }
        device.wait(point);
        return device.fault();
    });
}

cudaError_t cudaEventDestroy(cudaEvent_t event) {
    return api([&](Device& device) { return device.destroy_event(event); });
}
