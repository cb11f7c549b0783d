#ifndef SPEECH_COMPUTE_DEVICE_H_
#define SPEECH_COMPUTE_DEVICE_H_

#include <optional>
#include <string>

#include "vorn/vorn.h"

namespace speech {

/// Where a command computes, with the thread's GPU context for as long as this lives.
class ComputeDevice {
public:
    /// `name` is cpu or gpu. Throws Error when there is no GPU and the network is to live on one
    /// or `trains`: the CTC tables exist on the GPU only.
    ComputeDevice(const std::string& name, bool trains);

    vorn::Device device() const { return _device; }

private:
    vorn::Device _device;
    std::optional<vorn::ThreadContextScope> _context;
};

}  // namespace speech

#endif  // SPEECH_COMPUTE_DEVICE_H_
