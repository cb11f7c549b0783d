#include "gpusim/launch.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "device.h"
#include "grid.h"
#include "memory.h"
#include "order.h"
#include "shared_memory.h"
#include "strict.h"
#include "symbols.h"

namespace gpusim::detail {

namespace {

constexpr unsigned kMaxBlockThreads = 1024;
constexpr unsigned kMaxBlockZ = 64;
constexpr unsigned kMaxGridX = 0x7fffffffu;
constexpr unsigned kMaxGridYZ = 65535;

bool fits(const dim3& v, const dim3& limit) {
    return v.x >= 1 && v.y >= 1 && v.z >= 1 && v.x <= limit.x && v.y <= limit.y && v.z <= limit.z;
}

/// Looks past the ends of the blocks that the kernel's arguments point into.
cudaError_t check_red_zones(const KernelCall& call) {
    const char* const bytes = static_cast<const char*>(call.arguments());
    const void* pointer = nullptr;
    for (size_t i = 0; i + sizeof pointer <= call.argument_bytes(); i += sizeof pointer) {
        std::memcpy(&pointer, bytes + i, sizeof pointer);
        if (const size_t size = Memory::get().overrun(pointer)) {
            std::fprintf(stderr,
                         "gpusim: kernel %s stored past the end of a block of %zu bytes%s\n",
                         function_name(call.address()).c_str(), size, Order::get().note().c_str());
            return cudaErrorIllegalAddress;
        }
    }
    return cudaSuccess;
}

bool may_be_argument(const void* pointer) {
    return Memory::get().may_be_argument(pointer);
}

/// A kernel can use host memory only if it is page-locked. It may be given a pointer to other
/// memory that it doesn't use, so this is looked at in strict runs.
bool has_usable_arguments(const KernelCall& call) {
    if (!strict() || call.have_usable_pointers(&may_be_argument)) {
        return true;
    }
    std::fprintf(stderr,
                 "gpusim: an argument of kernel %s points to host memory that is not page-locked\n",
                 function_name(call.address()).c_str());
    Device::get().set_fault(cudaErrorIllegalAddress);
    return false;
}

void run(KernelCall& call, dim3 grid, dim3 block) {
    cudaError_t error = Grid(call, grid, block).run();
    if (error == cudaSuccess) {
        error = check_red_zones(call);
    }
    if (error != cudaSuccess) {
        Device::get().set_fault(error);
    }
}

}  // namespace

cudaError_t check_launch(const cudaLaunchConfig_t* config, const void* kernel) {
    return api([&](Device&) {
        if (config == nullptr) {
            return cudaErrorInvalidValue;
        }
        if (kernel == nullptr) {
            return cudaErrorInvalidDeviceFunction;
        }
        const dim3& block = config->blockDim;
        if (!fits(config->gridDim, {kMaxGridX, kMaxGridYZ, kMaxGridYZ}) ||
            !fits(block, {kMaxBlockThreads, kMaxBlockThreads, kMaxBlockZ}) ||
            block.x * block.y * block.z > kMaxBlockThreads) {
            return cudaErrorInvalidConfiguration;
        }
        if (exceeds_shared_memory(kernel)) {
            std::fprintf(stderr, "gpusim: kernel %s: more than %zu bytes of shared memory\n",
                         function_name(kernel).c_str(), kSharedMemory);
            return cudaErrorInvalidConfiguration;
        }
        if (config->dynamicSmemBytes != 0 || config->numAttrs != 0) {
            return cudaErrorNotSupported;
        }
        return cudaSuccess;
    });
}

cudaError_t submit(const cudaLaunchConfig_t& config, std::unique_ptr<KernelCall> call) {
    return stream_api(config.stream, [&](Device& device, const StreamPtr& stream) {
        if (!has_usable_arguments(*call)) {
            return cudaErrorIllegalAddress;
        }
        const StreamPoint point = device.submit(
            stream, make_task([call = std::move(call), grid = config.gridDim,
                               block = config.blockDim] { run(*call, grid, block); }));
        if (device.launch_blocking()) {
            device.wait(point);
            return device.fault();
        }
        return cudaSuccess;
    });
}

}  // namespace gpusim::detail
