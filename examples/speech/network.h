#ifndef SPEECH_NETWORK_H_
#define SPEECH_NETWORK_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ctc_batch.h"
#include "parameter.h"
#include "vorn/vorn.h"

namespace speech {

/// What a network is built of; stored with the model.
struct NetworkShape {
    std::string kind = "lstm";  ///< one of network_kinds()
    int inputs = 0;             ///< feature columns
    int hidden = 160;           ///< cells of an LSTM layer
    int layers = 2;             ///< LSTM layers
    int classes = 0;
};

/// Throws Error when the shape cannot be built, as it may when it comes from a damaged file.
void validate(const NetworkShape& shape);

/// The number of values of all parameters of a valid shape.
std::int64_t parameter_count(const NetworkShape& shape);

/// The kinds of model that this program knows.
std::vector<std::string> network_kinds();

/// From the features of a batch to class posteriors per frame. A network lives on one device.
class Network {
public:
    virtual ~Network() = default;
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    virtual void initialise(Random* random) = 0;
    /// The posteriors, batch.rows() x classes; good until the next call.
    virtual const vorn::Tensor<float>& forward(const FrameBatch& batch) = 0;
    /// After a forward() of the same batch: sets the gradients of all parameters from the
    /// gradient of the loss with respect to the softmax inputs.
    virtual void backward(const FrameBatch& batch, const vorn::Tensor<float>& error) = 0;
    /// All parameters, in the order in which a model file holds them.
    virtual std::vector<Parameter*> parameters() = 0;

    vorn::Device device() const { return _device; }

protected:
    explicit Network(vorn::Device device) : _device(device) {}

private:
    vorn::Device _device;
};

/// A network with all parameters zero. Throws Error as validate() does.
std::unique_ptr<Network> make_network(const NetworkShape& shape, vorn::Device device);

}  // namespace speech

#endif  // SPEECH_NETWORK_H_
