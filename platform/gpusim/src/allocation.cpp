// Allocation calls of the runtime's interface.
#include <cstdio>

#include "memory.h"

using gpusim::api;
using gpusim::Device;
using gpusim::make_task;
using gpusim::Memory;
using gpusim::stream_api;
using gpusim::StreamPtr;

namespace {

char pool_tag;

void end_block(void* pointer, size_t size) {
    if (!Memory::get().end(pointer, size)) {
        std::fprintf(stderr, "gpusim: something was stored past the end of a block of %zu bytes\n",
                     size);
        Device::get().set_fault(cudaErrorIllegalAddress);
    }
}

cudaMemPool_t pool_handle() {
    return reinterpret_cast<cudaMemPool_t>(&pool_tag);
}

}  // namespace

void* gpusim::allocate_in_stream(size_t size, const StreamPtr& stream) {
    void* const block = Memory::get().allocate(size, stream);
    if (block != nullptr) {
        Device::get().submit(stream, make_task([=] { Memory::get().begin(block, size); }));
    }
    return block;
}

bool gpusim::free_in_stream(void* pointer, const StreamPtr& stream) {
    const size_t size = Memory::get().block_size(pointer);
    // A task of the null stream waits for the other streams, which have to be done with the block.
    if (size != 0) {
        Device::get().submit(stream, make_task([=] { end_block(pointer, size); }));
    }
    return size != 0 && Memory::get().free(pointer, stream);
}

cudaError_t cudaMalloc(void** pointer, size_t size) {
    return api([&](Device& device) {
        if (pointer == nullptr) {
            return cudaErrorInvalidValue;
        }
        *pointer = nullptr;
        if (size == 0) {
            return cudaSuccess;
        }
        void* block = Memory::get().allocate(size, device.null_stream());
        if (block == nullptr) {
            return cudaErrorMemoryAllocation;
        }
        // All streams may use the block at once, so nothing may still run on its last life.
        device.synchronize(device.null_stream());
        gpusim::DeviceAccess access;
        Memory::get().begin(block, size);
        *pointer = block;
        return cudaSuccess;
    });
}

cudaError_t cudaFree(void* pointer) {
    return api([&](Device& device) {
        if (pointer == nullptr) {
            return cudaSuccess;
        }
        device.synchronize_all();
        if (device.fault() != cudaSuccess) {
            return device.fault();
        }
        if (const size_t size = Memory::get().block_size(pointer)) {
            gpusim::DeviceAccess access;
            end_block(pointer, size);
        }
        return Memory::get().free_idle(pointer) ? device.fault() : cudaErrorInvalidValue;
    });
}

cudaError_t cudaMallocAsync(void** pointer, size_t size, cudaStream_t stream) {
    return stream_api(stream, [&](Device&, const StreamPtr& s) {
        if (pointer == nullptr) {
            return cudaErrorInvalidValue;
        }
        *pointer = nullptr;
        if (size == 0) {
            return cudaSuccess;
        }
        *pointer = gpusim::allocate_in_stream(size, s);
        return *pointer == nullptr ? cudaErrorMemoryAllocation : cudaSuccess;
    });
}

cudaError_t cudaFreeAsync(void* pointer, cudaStream_t stream) {
    return stream_api(stream, [&](Device&, const StreamPtr& s) {
        return gpusim::free_in_stream(pointer, s) ? cudaSuccess : cudaErrorInvalidValue;
    });
}

cudaError_t cudaDeviceGetDefaultMemPool(cudaMemPool_t* pool, int device) {
    return api([&](Device&) {
        if (device != 0) {
            return cudaErrorInvalidDevice;
        }
        if (pool == nullptr) {
            return cudaErrorInvalidValue;
        }
        *pool = pool_handle();
        return cudaSuccess;
    });
}

cudaError_t cudaMemPoolSetAttribute(cudaMemPool_t pool, cudaMemPoolAttr attribute, void* value) {
    return api([&](Device&) {
        return pool == pool_handle() && attribute == cudaMemPoolAttrReleaseThreshold &&
                       value != nullptr
                   ? cudaSuccess
                   : cudaErrorInvalidValue;
    });
}

cudaError_t cudaMallocHost(void** pointer, size_t size) {
    return api([&](Device&) {
        if (pointer == nullptr) {
            return cudaErrorInvalidValue;
        }
        *pointer = nullptr;
        if (size == 0) {
            return cudaSuccess;
        }
        *pointer = Memory::get().allocate_host(size);
        return *pointer == nullptr ? cudaErrorMemoryAllocation : cudaSuccess;
    });
}

cudaError_t cudaFreeHost(void* pointer) {
    return api([&](Device& device) {
        if (pointer == nullptr) {
            return cudaSuccess;
        }
        device.synchronize_all();
        return Memory::get().free_host(pointer) ? cudaSuccess : cudaErrorInvalidValue;
    });
}

cudaError_t cudaHostRegister(void* pointer, size_t size, unsigned flags) {
    return api([&](Device&) {
        return flags != cudaHostRegisterDefault ? cudaErrorInvalidValue
                                                : Memory::get().register_host(pointer, size);
    });
}

cudaError_t cudaHostUnregister(void* pointer) {
    return api([&](Device& device) {
        device.synchronize_all();
        return Memory::get().unregister_host(pointer);
    });
}

cudaError_t cudaPointerGetAttributes(cudaPointerAttributes* attributes, const void* pointer) {
    return api([&](Device&) {
        if (attributes == nullptr) {
            return cudaErrorInvalidValue;
        }
        void* address = const_cast<void*>(pointer);
        switch (Memory::get().type(pointer)) {
            case cudaMemoryTypeDevice:
                *attributes = {cudaMemoryTypeDevice, 0, address, nullptr};
                break;
            case cudaMemoryTypeHost:
                *attributes = {cudaMemoryTypeHost, 0, address, address};
                break;
            default:
                *attributes = {cudaMemoryTypeUnregistered, -2, nullptr, address};
        }
        return cudaSuccess;
    });
}

cudaError_t cudaMemGetInfo(size_t* free_bytes, size_t* total_bytes) {
    return api([&](Device&) {
        if (free_bytes == nullptr || total_bytes == nullptr) {
            return cudaErrorInvalidValue;
        }
        *total_bytes = Memory::get().arena().size();
        *free_bytes = *total_bytes - Memory::get().used();
        return cudaSuccess;
    });
}
