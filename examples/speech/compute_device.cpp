#include "compute_device.h"

#include "error.h"

namespace speech {

ComputeDevice::ComputeDevice(const std::string& name, bool trains)
    : _device(name == "gpu" ? vorn::GPU : vorn::CPU) {
    if (_device == vorn::CPU && !trains) {
        return;
    }
    if (!vorn::has_gpu()) {
        throw Error(trains ? "training needs a GPU, on which CTC is computed; there is none here"
                           : "there is no GPU here; use --device cpu");
    }
    _context.emplace();
}

}  // namespace speech
