#ifndef COMMON_PARAMETER_H_
#define COMMON_PARAMETER_H_

#include <string>
#include <utility>
#include <vector>

#include "common/random.h"
#include "vorn/vorn.h"

namespace common {

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

}  // namespace common

#endif  // COMMON_PARAMETER_H_
