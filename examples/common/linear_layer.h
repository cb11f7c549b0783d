#ifndef COMMON_LINEAR_LAYER_H_
#define COMMON_LINEAR_LAYER_H_

#include <string>
#include <vector>

#include "common/parameter.h"
#include "vorn/vorn.h"

namespace common {

/// out = in * weight + bias, row by row.
class LinearLayer {
public:
    LinearLayer(const std::string& name, int inputs, int outputs, vorn::Device device);

    /// Weights evenly distributed up to gain / sqrt(inputs), biases 0.
    void initialise(Random* random, float gain = 1);
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in);
    /// Sets the gradients from the error at the output, and returns the error at the input.
    vorn::Tensor<float>& backward(const vorn::Tensor<float>& in, const vorn::Tensor<float>& error);
    std::vector<Parameter*> parameters() { return {&_weight, &_bias}; }

private:
    Parameter _weight;  ///< inputs x outputs
    Parameter _bias;
    vorn::Tensor<float> _out;
    vorn::Tensor<float> _in_error;
};

}  // namespace common

#endif  // COMMON_LINEAR_LAYER_H_
