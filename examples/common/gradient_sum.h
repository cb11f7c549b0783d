#ifndef COMMON_GRADIENT_SUM_H_
#define COMMON_GRADIENT_SUM_H_

#include <cstdint>
#include <functional>
#include <vector>

#include "common/parameter.h"
#include "common/ranks.h"
#include "vorn/vorn.h"

namespace common {

/// Told, during a backward pass, of parameters whose gradients are set.
using GradientsReady = std::function<void(const std::vector<Parameter*>&)>;

/// Sums the gradients of all ranks while the backward pass still runs. The gradients become views
/// of one flat buffer, in the order of the parameters. What is ready is summed as soon as it makes
/// a bucket of some size: one message is better than many small ones, and the first can travel
/// while the rest is computed.
class GradientSum {
public:
    GradientSum(const std::vector<Parameter*>& parameters, Ranks* ranks);

    /// These parameters' gradients are set. Called for neighbouring parameters, the last first.
    void ready(const std::vector<Parameter*>& parameters);
    /// After ready() for all: waits until the gradients are sums over all ranks.
    void finish();

    std::int64_t bytes() const { return static_cast<std::int64_t>(sizeof(float) * _flat.count()); }

private:
    void start_bucket();

    Ranks* _ranks;
    vorn::Tensor<float> _flat;
    std::vector<Parameter*> _parameters;
    std::vector<std::size_t> _begin;  ///< of each parameter in the buffer, and the buffer's end
    std::vector<float> _host;         ///< what is summed where the network is on a GPU
    std::size_t _ready = 0;           ///< first parameter that is ready
    std::size_t _started = 0;         ///< values from here on are being summed
};

}  // namespace common

#endif  // COMMON_GRADIENT_SUM_H_
