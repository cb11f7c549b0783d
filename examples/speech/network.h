#ifndef SPEECH_NETWORK_H_
#define SPEECH_NETWORK_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/gradient_sum.h"
#include "common/parameter.h"
#include "common/pass.h"
#include "common/ranks.h"
#include "common/team.h"
#include "conv_layer.h"
#include "ctc_batch.h"
#include "vorn/vorn.h"

namespace speech {

/// The kinds of model. "lstm" has LSTM layers that run forward in time; "conv-blstm" a convolution
/// along frequency, batch normalization and LSTM layers in both directions.
constexpr const char* kLstm = "lstm";
constexpr const char* kConvBlstm = "conv-blstm";

/// What a network is built of; stored with the model.
struct NetworkShape {
    std::string kind;  ///< one of network_kinds()
    int inputs = 0;    ///< feature columns
    int hidden = 0;    ///< cells of an LSTM layer, in each direction
    int layers = 2;    ///< LSTM layers
    int classes = 0;
    ConvShape conv = {};  ///< of the kinds that have a convolution
};

/// Throws Error when the shape cannot be built, as it may when it comes from a damaged file.
void validate(const NetworkShape& shape);

/// The number of values of all parameters of a valid shape.
std::int64_t parameter_count(const NetworkShape& shape);

/// The kinds of model that this program knows.
std::vector<std::string> network_kinds();

/// Cells that a layer of this kind has, in each direction, where the user does not say.
int default_cells(const std::string& kind);

/// Passes over the training set after which a network of this kind hardly learns more.
int default_epochs(const std::string& kind);

/// From the features of a batch to class posteriors per frame. A network lives on one device.
class Network {
public:
    virtual ~Network() = default;
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    virtual void initialise(common::Random* random) = 0;
    /// The posteriors, batch.rows() x classes; good until the next call.
    virtual const vorn::Tensor<float>& forward(const FrameBatch& batch, common::Pass pass) = 0;
    /// After a training forward() of the same batch: sets the gradients of all parameters from the
    /// gradient of the loss with respect to the softmax inputs, and tells `ready` of them layer by
    /// layer, from the last in parameters() to the first.
    virtual void backward(const FrameBatch& batch, const vorn::Tensor<float>& error,
                          const common::GradientsReady& ready) = 0;
    /// All parameters, in the order in which a model file holds them.
    virtual std::vector<common::Parameter*> parameters() = 0;
    /// What the network has learnt besides its parameters; stands after them in a model file.
    virtual std::vector<common::NamedTensor> statistics() { return {}; }
    /// From now on what training takes from a batch as a whole, it takes from the batches of all
    /// ranks, which make their passes at the same time.
    virtual void share_statistics(common::Ranks*) {}

    vorn::Device device() const { return _device; }

protected:
    explicit Network(vorn::Device device) : _device(device) {}

private:
    vorn::Device _device;
};

/// A network with all parameters zero, which shares out its work over `team`. Throws Error as
/// validate() does.
std::unique_ptr<Network> make_network(const NetworkShape& shape, vorn::Device device,
                                      common::Team* team);

}  // namespace speech

#endif  // SPEECH_NETWORK_H_
