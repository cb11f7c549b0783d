#include "network.h"

#include <algorithm>

#include "common/error.h"
#include "common/linear_layer.h"
#include "common/shape_output.h"
#include "conv_blstm.h"
#include "lstm_layer.h"

namespace speech {

namespace {

constexpr int kMostUnits = 4096;
constexpr int kMostLayers = 16;

/// LSTM layers that run forward in time, a linear layer and a softmax.
class LstmNetwork : public Network {
public:
    LstmNetwork(const NetworkShape& shape, vorn::Device device)
        : Network(device),
          _linear("linear", shape.hidden, shape.classes, device),
          _posteriors(device) {
        for (int i = 0; i < shape.layers; ++i) {
            _layers.push_back(std::make_unique<LstmLayer>("lstm" + std::to_string(i + 1),
                                                          i == 0 ? shape.inputs : shape.hidden,
                                                          shape.hidden, device));
        }
    }

    void initialise(common::Random* random) override {
        for (const auto& layer : _layers) {
            layer->initialise(random);
        }
        _linear.initialise(random);
    }

    const vorn::Tensor<float>& forward(const FrameBatch& batch, common::Pass) override {
        // Views of each layer's input, for the way back.
        _inputs.assign(1, batch.features);
        for (const auto& layer : _layers) {
            _inputs.push_back(layer->forward(_inputs.back(), batch.size));
        }
        const vorn::Tensor<float>& logits = _linear.forward(_inputs.back());
        common::shape_output(&_posteriors, logits.get_size());
        _posteriors.softmax(logits);
        return _posteriors;
    }

    void backward(const FrameBatch&, const vorn::Tensor<float>& error,
                  const common::GradientsReady& ready) override {
        vorn::Tensor<float>* layer_error = &_linear.backward(_inputs.back(), error);
        ready(_linear.parameters());
        for (std::size_t i = _layers.size(); i-- > 0;) {
            _layers[i]->backward(_inputs[i], *layer_error);
            ready(_layers[i]->parameters());
            if (i > 0) {
                layer_error = &_layers[i]->compute_input_error();
            }
        }
    }

    std::vector<common::Parameter*> parameters() override {
        std::vector<common::Parameter*> all;
        for (const auto& layer : _layers) {
            const std::vector<common::Parameter*> its = layer->parameters();
            all.insert(all.end(), its.begin(), its.end());
        }
        const std::vector<common::Parameter*> last = _linear.parameters();
        all.insert(all.end(), last.begin(), last.end());
        return all;
    }

private:
    std::vector<std::unique_ptr<LstmLayer>> _layers;
    common::LinearLayer _linear;
    std::vector<vorn::Tensor<float>> _inputs;
    vorn::Tensor<float> _posteriors;
};

/// Of one LSTM layer: the products' weights, four biases and three peepholes a cell.
std::int64_t lstm_parameter_count(std::int64_t inputs, std::int64_t cells) {
    return (inputs + cells) * 4 * cells + 7 * cells;
}

void check_extent(const char* name, int value, int most) {
    if (value < 1 || value > most) {
        throw common::Error("network: " + std::string(name) + " must be 1 to " +
                            std::to_string(most) + ", not " + std::to_string(value));
    }
}

}  // namespace

std::vector<std::string> network_kinds() {
    return {kLstm, kConvBlstm};
}

int default_cells(const std::string& kind) {
    return kind == kConvBlstm ? 112 : 160;
}

int default_epochs(const std::string& kind) {
    return kind == kConvBlstm ? 22 : 30;
}

void validate(const NetworkShape& shape) {
    const std::vector<std::string> kinds = network_kinds();
    if (std::find(kinds.begin(), kinds.end(), shape.kind) == kinds.end()) {
        throw common::Error("network: there is no model of kind '" + shape.kind + "'");
    }
    check_extent("inputs", shape.inputs, kMostUnits);
    check_extent("hidden", shape.hidden, kMostUnits);
    check_extent("layers", shape.layers, kMostLayers);
    check_extent("classes", shape.classes, kMostUnits);
    if (shape.kind == kConvBlstm) {
        validate(shape.conv, shape.inputs);
        check_extent("convolution outputs", shape.conv.outputs(), kMostUnits);
    }
}

std::int64_t parameter_count(const NetworkShape& shape) {
    const bool is_conv_blstm = shape.kind == kConvBlstm;
    const int directions = is_conv_blstm ? 2 : 1;
    const std::int64_t width = directions * shape.hidden;
    std::int64_t count = (width + 1) * shape.classes;
    for (int i = 0; i < shape.layers; ++i) {
        const int first = is_conv_blstm ? shape.conv.outputs() : shape.inputs;
        count += directions * lstm_parameter_count(i == 0 ? first : width, shape.hidden);
    }
    if (is_conv_blstm) {
        const ConvShape& conv = shape.conv;
        const std::int64_t patch = conv.filter_size * (shape.inputs / conv.bands);
        count += conv.groups * (patch + 1) * conv.filters + 2 * conv.outputs();
    }
    return count;
}

std::unique_ptr<Network> make_network(const NetworkShape& shape, vorn::Device device,
                                      common::Team* team) {
    validate(shape);
    if (shape.kind == kConvBlstm) {
        return std::make_unique<ConvBlstmNetwork>(shape, device, team);
    }
    return std::make_unique<LstmNetwork>(shape, device);
}

}  // namespace speech
