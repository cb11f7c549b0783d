#include "common/error.h"
#include "vision/commands.h"

namespace vision {

common::ComputeDevice open_device(const std::string& name) {
    if (!vorn::has_gpu()) {
        throw common::Error("there is no GPU here, which batch normalization needs");
    }
    return common::ComputeDevice(name, common::ThreadContext::kAlways);
}

}  // namespace vision
