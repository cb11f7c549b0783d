#ifndef COMMON_COMPUTE_DEVICE_H_
#define COMMON_COMPUTE_DEVICE_H_

#include <optional>
#include <string>

#include "vorn/vorn.h"

namespace common {

/// When the calling thread gets a context: its streams, library handles and random generators.
enum class ThreadContext { kWithGpu, kAlways };

/// Where a command computes, with the thread's context for as long as this lives.
class ComputeDevice {
public:
    /// `name` is cpu or gpu. Throws Error when it is gpu and there is none. A network on the host
    /// computes without a context, unless it draws random numbers or borrows the GPU for a part.
    ComputeDevice(const std::string& name, ThreadContext context);

    vorn::Device device() const { return _device; }

private:
    vorn::Device _device;
    std::optional<vorn::ThreadContextScope> _context;
};

}  // namespace common

#endif  // COMMON_COMPUTE_DEVICE_H_
