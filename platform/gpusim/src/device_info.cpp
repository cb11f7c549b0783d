// What the device says of itself.
#include <cstdio>

#include "gpusim/device_functions.h"
#include "memory.h"
#include "shared_memory.h"

using gpusim::api;
using gpusim::Device;
using gpusim::Memory;

namespace {

// A plain device of compute capability 7.5, the oldest that current toolkits build for.
constexpr int kMajor = 7;
constexpr int kMinor = 5;

cudaError_t attribute_value(cudaDeviceAttr attribute, int* value) {
    switch (attribute) {
        case cudaDevAttrMaxThreadsPerBlock:
        case cudaDevAttrMaxBlockDimX:
        case cudaDevAttrMaxBlockDimY:
            *value = 1024;
            return cudaSuccess;
        case cudaDevAttrMaxBlockDimZ:
            *value = 64;
            return cudaSuccess;
        case cudaDevAttrMaxGridDimX:
            *value = 0x7fffffff;
            return cudaSuccess;
        case cudaDevAttrMaxGridDimY:
        case cudaDevAttrMaxGridDimZ:
            *value = 65535;
            return cudaSuccess;
        case cudaDevAttrMaxSharedMemoryPerBlock:
            *value = static_cast<int>(gpusim::kSharedMemory);
            return cudaSuccess;
        case cudaDevAttrWarpSize:
            *value = warpSize;
            return cudaSuccess;
        case cudaDevAttrComputeCapabilityMajor:
            *value = kMajor;
            return cudaSuccess;
        case cudaDevAttrComputeCapabilityMinor:
            *value = kMinor;
            return cudaSuccess;
        case cudaDevAttrMultiProcessorCount:
        case cudaDevAttrMemoryPoolsSupported:
            *value = 1;
            return cudaSuccess;
    }
    return cudaErrorInvalidValue;
}

int attribute(cudaDeviceAttr name) {
    int value = 0;
    attribute_value(name, &value);
    return value;
}

}  // namespace

cudaError_t cudaGetDeviceCount(int* count) {
    return gpusim::record_error(count == nullptr ? cudaErrorInvalidValue
                                                 : (*count = 1, cudaSuccess));
}

cudaError_t cudaSetDevice(int device) {
    return api([&](Device&) { return device == 0 ? cudaSuccess : cudaErrorInvalidDevice; });
}

cudaError_t cudaGetDevice(int* device) {
    return api([&](Device&) {
        if (device == nullptr) {
            return cudaErrorInvalidValue;
        }
        *device = 0;
        return cudaSuccess;
    });
}

cudaError_t cudaDeviceSynchronize() {
    return api([](Device& device) {
        device.synchronize_all();
        return device.fault();
    });
}

cudaError_t cudaDeviceReset() {
    const cudaError_t barrier = gpusim::call_barrier();
    if (barrier == cudaErrorInitializationError || barrier == cudaErrorNotPermitted) {
        return gpusim::record_error(barrier);
    }
    Device::get().reset();
    Memory::get().reset();
    cudaGetLastError();
    return cudaSuccess;
}

cudaError_t cudaDeviceGetAttribute(int* value, cudaDeviceAttr attribute, int device) {
    return api([&](Device&) {
        if (device != 0) {
            return cudaErrorInvalidDevice;
        }
        return value == nullptr ? cudaErrorInvalidValue : attribute_value(attribute, value);
    });
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device) {
    return api([&](Device&) {
        if (device != 0) {
            return cudaErrorInvalidDevice;
        }
        if (properties == nullptr) {
            return cudaErrorInvalidValue;
        }
        cudaDeviceProp p{};
        std::snprintf(p.name, sizeof p.name, "%s", "gpusim");
        p.totalGlobalMem = Memory::get().arena().size();
        p.sharedMemPerBlock = gpusim::kSharedMemory;
        p.warpSize = warpSize;
        p.maxThreadsPerBlock = attribute(cudaDevAttrMaxThreadsPerBlock);
        p.maxThreadsDim[0] = attribute(cudaDevAttrMaxBlockDimX);
        p.maxThreadsDim[1] = attribute(cudaDevAttrMaxBlockDimY);
        p.maxThreadsDim[2] = attribute(cudaDevAttrMaxBlockDimZ);
        p.maxGridSize[0] = attribute(cudaDevAttrMaxGridDimX);
        p.maxGridSize[1] = attribute(cudaDevAttrMaxGridDimY);
        p.maxGridSize[2] = attribute(cudaDevAttrMaxGridDimZ);
        p.major = kMajor;
        p.minor = kMinor;
        p.multiProcessorCount = attribute(cudaDevAttrMultiProcessorCount);
        p.memoryPoolsSupported = attribute(cudaDevAttrMemoryPoolsSupported);
        *properties = p;
        return cudaSuccess;
    });
}
