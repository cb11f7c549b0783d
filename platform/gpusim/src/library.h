#ifndef GPUSIM_DETAIL_LIBRARY_H_
#define GPUSIM_DETAIL_LIBRARY_H_

// What the libraries on top of the runtime share: handles, their streams and the check of operands.

#include <utility>

#include "device.h"
#include "memory.h"

namespace gpusim {

/// Whether the device can use all of the operand. A GPU would meet an illegal address otherwise:
/// here a line says which operand it was, and the device takes the same sticky error.
bool check_operand(const char* function, const char* operand, const void* pointer, size_t size);

/// The calls that every library has, with the statuses that each gives for the same failures.
/// `Context` is what a handle points to; it has a member `stream`.
template <class Status, class Context>
struct Library {
    Status success;
    Status no_handle;      // a call for a null handle
    Status no_place;       // a creation without a place for the handle
    Status not_created;    // a creation while the device has a fault
    Status device_failed;  // work while the device has a fault
    Status failed;         // work that can't be enqueued, or meets a fault while it is waited for

    Status create(Context** handle) const {
        if (handle == nullptr) {
            return no_place;
        }
        if (call_barrier() != cudaSuccess) {
            return not_created;
        }
        *handle = new Context;
        return success;
    }

    Status destroy(Context* handle) const {
        if (handle == nullptr) {
            return no_handle;
        }
        delete handle;
        return success;
    }

    Status set_stream(Context* handle, cudaStream_t stream) const {
        if (handle == nullptr) {
            return no_handle;
        }
        handle->stream = stream;
        return success;
    }

    /// Enqueues `work` on the handle's stream; waits for it where `wait` is set.
    template <class F>
    Status enqueue(Context* handle, bool wait, F work) const {
        if (call_barrier() != cudaSuccess) {
            return device_failed;
        }
        Device& device = Device::get();
        const StreamPtr stream = device.find_stream(handle->stream);
        if (stream == nullptr) {
            return failed;
        }
        const StreamPoint point = device.submit(stream, make_task(std::move(work)));
        if (wait || device.launch_blocking()) {
            device.wait(point);
            if (device.fault() != cudaSuccess) {
                return failed;
            }
        }
        return success;
    }
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_LIBRARY_H_
