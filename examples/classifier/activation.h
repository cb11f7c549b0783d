#ifndef CLASSIFIER_ACTIVATION_H_
#define CLASSIFIER_ACTIVATION_H_

#include <memory>
#include <string>

#include "vorn/vorn.h"

namespace classifier {

/// What follows a linear layer. Both results are good until the next call.
class Activation {
public:
    virtual ~Activation() = default;

    /// Outputs of the linear layer for so many units.
    virtual int linear_outputs(int units) const = 0;
    virtual const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in) = 0;
    /// The error at the input of the latest forward(), from the error at its output.
    virtual const vorn::Tensor<float>& backward(const vorn::Tensor<float>& error) = 0;
};

/// out = max(in, 0).
class Relu : public Activation {
public:
    explicit Relu(vorn::Device device) : _out(device), _in_error(device) {}

    int linear_outputs(int units) const override { return units; }
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in) override;
    const vorn::Tensor<float>& backward(const vorn::Tensor<float>& error) override;

private:
    vorn::Tensor<float> _out, _in_error;
};

/// A unit is the largest of its pieces, neighbouring columns (Goodfellow et al., "Maxout networks",
/// ICML 2013).
class Maxout : public Activation {
public:
    explicit Maxout(vorn::Device device) : _out(device), _winners(device), _in_error(device) {}

    int linear_outputs(int units) const override { return kPieces * units; }
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in) override;
    const vorn::Tensor<float>& backward(const vorn::Tensor<float>& error) override;

private:
    static constexpr int kPieces = 2;
    vorn::Tensor<float> _out;
    vorn::Tensor<int> _winners;
    vorn::Tensor<float> _in_error;
};

/// `name` is relu or maxout.
std::unique_ptr<Activation> make_activation(const std::string& name, vorn::Device device);

}  // namespace classifier

#endif  // CLASSIFIER_ACTIVATION_H_
