#ifndef SPEECH_PARAMETER_H_
#define SPEECH_PARAMETER_H_

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "vorn/vorn.h"

namespace speech {

using Random = std::mt19937_64;

/// Evenly distributed in [0, 1), the same on every platform.
inline double uniform(Random* random) {
    return static_cast<double>((*random)() >> 11) * 0x1p-53;
}

/// A tensor that a model file holds.
struct NamedTensor {
    std::string name;
    vorn::Tensor<float>* tensor;
};

/// A tensor that training changes, with the gradient of the loss.
struct Parameter {
    std::string name;
    vorn::Tensor<float> value;
    vorn::Tensor<float> gradient;

    Parameter(std::string its_name, const vorn::Dim& size, vorn::Device device)
        : name(std::move(its_name)), value(size, device), gradient(size, device) {}

    /// Values evenly distributed in [-limit, limit).
    void randomise(float limit, Random* random) {
        std::vector<float> values(value.count());
        for (float& v : values) {
            v = limit * static_cast<float>(2 * uniform(random) - 1);
        }
        value.copy_from(values.data(), 0, values.size());
    }
};

}  // namespace speech

#endif  // SPEECH_PARAMETER_H_
