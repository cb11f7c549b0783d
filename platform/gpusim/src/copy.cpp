// Copies and fills of the runtime's interface.
#include <cstring>

#include "memory.h"

using gpusim::api;
using gpusim::Device;
using gpusim::make_task;
using gpusim::Memory;
using gpusim::stream_api;
using gpusim::StreamPtr;

namespace {

/// `height` rows of `width` bytes each.
struct Copy {
    void* dst;
    size_t dpitch;
    const void* src;
    size_t spitch;
    size_t width;
    size_t height;
    cudaMemcpyKind kind;

    bool empty() const { return width == 0 || height == 0; }
    void run() const {
        if (dpitch == width && spitch == width) {
            std::memmove(dst, src, width * height);
            return;
        }
        auto* to = static_cast<char*>(dst);
        auto* from = static_cast<const char*>(src);
        for (size_t row = 0; row < height; ++row, to += dpitch, from += spitch) {
            std::memmove(to, from, width);
        }
    }
};

struct Fill {
    void* pointer;
    size_t pitch;
    int value;
    size_t width;
    size_t height;

    bool empty() const { return width == 0 || height == 0; }
    void run() const {
        if (pitch == width) {
            std::memset(pointer, value, width * height);
            return;
        }
        auto* to = static_cast<char*>(pointer);
        for (size_t row = 0; row < height; ++row, to += pitch) {
            std::memset(to, value, width);
        }
    }
};

/// Bytes from the first to past the last of a pitched block.
size_t span(size_t pitch, size_t width, size_t height) {
    return pitch * (height - 1) + width;
}

bool is_device_block(const void* pointer) {
    return Memory::get().arena().contains(pointer);
}

cudaError_t check(const Copy& copy) {
    if (copy.kind < cudaMemcpyHostToHost || copy.kind > cudaMemcpyDefault) {
        return cudaErrorInvalidMemcpyDirection;
    }
    if (copy.empty()) {
        return cudaSuccess;
    }
    if (copy.dpitch < copy.width || copy.spitch < copy.width) {
        return cudaErrorInvalidPitchValue;
    }
    Memory& memory = Memory::get();
    const auto accessible = [&](const void* pointer, size_t size, bool on_device) {
        return on_device ? memory.device_accessible(pointer, size)
                         : memory.host_accessible(pointer, size);
    };
    const bool guess = copy.kind == cudaMemcpyDefault;
    const bool from_device =
        guess ? is_device_block(copy.src)
              : copy.kind == cudaMemcpyDeviceToHost || copy.kind == cudaMemcpyDeviceToDevice;
    const bool to_device =
        guess ? is_device_block(copy.dst)
              : copy.kind == cudaMemcpyHostToDevice || copy.kind == cudaMemcpyDeviceToDevice;
    return accessible(copy.dst, span(copy.dpitch, copy.width, copy.height), to_device) &&
                   accessible(copy.src, span(copy.spitch, copy.width, copy.height), from_device)
               ? cudaSuccess
               : cudaErrorInvalidValue;
}

cudaError_t check(const Fill& fill) {
    if (fill.empty()) {
        return cudaSuccess;
    }
    if (fill.pitch < fill.width) {
        return cudaErrorInvalidPitchValue;
    }
    return Memory::get().device_accessible(fill.pointer, span(fill.pitch, fill.width, fill.height))
               ? cudaSuccess
               : cudaErrorInvalidValue;
}

/// A call that is ordered by a stream and doesn't wait.
template <class Work>
cudaError_t enqueue(const Work& work, cudaStream_t stream) {
    return stream_api(stream, [&](Device& device, const StreamPtr& s) {
        const cudaError_t error = check(work);
        if (error == cudaSuccess && !work.empty()) {
            device.submit(s, make_task([work] { work.run(); }));
        }
        return error;
    });
}

cudaError_t copy_now(const Copy& copy) {
    // Between device blocks, cudaMemcpy doesn't wait either.
    if (is_device_block(copy.dst) && is_device_block(copy.src)) {
        return enqueue(copy, nullptr);
    }
    return api([&](Device& device) {
        const cudaError_t error = check(copy);
        if (error != cudaSuccess) {
            return error;
        }
        device.synchronize(device.null_stream());
        if (device.fault() == cudaSuccess && !copy.empty()) {
            gpusim::DeviceAccess access;
            copy.run();
        }
        return device.fault();
    });
}

}  // namespace

cudaError_t cudaMemcpy(void* dst, const void* src, size_t count, cudaMemcpyKind kind) {
    return copy_now({dst, count, src, count, count, 1, kind});
}

cudaError_t cudaMemcpyAsync(void* dst, const void* src, size_t count, cudaMemcpyKind kind,
                            cudaStream_t stream) {
    return enqueue(Copy{dst, count, src, count, count, 1, kind}, stream);
}

cudaError_t cudaMemcpy2D(void* dst, size_t dpitch, const void* src, size_t spitch, size_t width,
                         size_t height, cudaMemcpyKind kind) {
    return copy_now({dst, dpitch, src, spitch, width, height, kind});
}

cudaError_t cudaMemset(void* pointer, int value, size_t count) {
    return cudaMemsetAsync(pointer, value, count, nullptr);
}

cudaError_t cudaMemsetAsync(void* pointer, int value, size_t count, cudaStream_t stream) {
    return enqueue(Fill{pointer, count, value, count, 1}, stream);
}

cudaError_t cudaMemset2D(void* pointer, size_t pitch, int value, size_t width, size_t height) {
    return enqueue(Fill{pointer, pitch, value, width, height}, nullptr);
}
