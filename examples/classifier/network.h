#ifndef CLASSIFIER_NETWORK_H_
#define CLASSIFIER_NETWORK_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "classifier/activation.h"
#include "common/dropout.h"
#include "common/linear_layer.h"
#include "common/parameter.h"
#include "common/pass.h"
#include "vorn/vorn.h"

namespace classifier {

/// What a network is built of; stored with the model.
struct NetworkShape {
    int inputs = 0;
    int hidden = 0;                   ///< units of a hidden layer
    int layers = 0;                   ///< hidden layers
    std::string activation = "relu";  ///< or maxout
    int classes = 0;
};

/// Throws Error when the shape cannot be built, as it may when it comes from a damaged file.
void validate(const NetworkShape& shape);

/// The number of values of all parameters of a valid shape.
std::int64_t parameter_count(const NetworkShape& shape);

/// A feed-forward network: hidden layers of a linear layer, an activation and dropout, and then a
/// linear layer and a softmax. It lives on one device.
class Network {
public:
    /// All parameters are zero. Throws Error as validate() does.
    Network(const NetworkShape& shape, float dropout, vorn::Device device);

    /// Random weights of the scale that keeps the size of signals from layer to layer (He et al.,
    /// "Delving deep into rectifiers", ICCV 2015).
    void initialise(common::Random* random);

    /// The posteriors, images x classes, of a batch with an image in each row; good until the next
    /// call.
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& images, common::Pass pass);

    /// After a training forward() of the same batch: sets the gradients of all parameters from the
    /// gradient of the loss with respect to the softmax inputs.
    void backward(const vorn::Tensor<float>& images, const vorn::Tensor<float>& error);

    /// All parameters, in the order in which a model file holds them.
    std::vector<common::Parameter*> parameters();

    vorn::Device device() const { return _device; }

private:
    struct Hidden {
        common::LinearLayer linear;
        std::unique_ptr<Activation> activation;
        common::Dropout dropout;
    };

    vorn::Device _device;
    std::vector<Hidden> _hidden;
    common::LinearLayer _last;

    // Of the latest batch: views of the inputs of each layer.
    std::vector<vorn::Tensor<float>> _inputs;
    vorn::Tensor<float> _posteriors;
};

}  // namespace classifier

#endif  // CLASSIFIER_NETWORK_H_
