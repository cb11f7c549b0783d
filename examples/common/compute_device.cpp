#include "common/compute_device.h"

#include "common/error.h"

namespace common {

ComputeDevice::ComputeDevice(const std::string& name, ThreadContext context)
    : _device(name == "gpu" ? vorn::GPU : vorn::CPU) {
    if (_device == vorn::GPU && !vorn::has_gpu()) {
        throw Error("there is no GPU here; use --device cpu");
    }
    if (_device == vorn::GPU || context == ThreadContext::kAlways) {
        _context.emplace();
    }
}

}  // namespace common
