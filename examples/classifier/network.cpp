#include "classifier/network.h"

#include <cmath>

#include "common/error.h"

namespace classifier {

namespace {

constexpr int kMostUnits = 8192;
constexpr int kMostLayers = 16;

void check_extent(const char* name, int value, int most) {
    if (value < 1 || value > most) {
        throw common::Error("network: " + std::string(name) + " must be 1 to " +
                            std::to_string(most) + ", not " + std::to_string(value));
    }
}

/// Before a network is built of it.
const NetworkShape& validated(const NetworkShape& shape) {
    validate(shape);
    return shape;
}

}  // namespace

void validate(const NetworkShape& shape) {
    if (shape.activation != "relu" && shape.activation != "maxout") {
        throw common::Error("network: there is no activation '" + shape.activation + "'");
    }
    check_extent("inputs", shape.inputs, kMostUnits);
    check_extent("hidden", shape.hidden, kMostUnits);
    check_extent("layers", shape.layers, kMostLayers);
    check_extent("classes", shape.classes, kMostUnits);
}

std::int64_t parameter_count(const NetworkShape& shape) {
    const std::int64_t hidden = shape.hidden;
    const std::int64_t linear_outputs =
        make_activation(shape.activation, vorn::CPU)->linear_outputs(shape.hidden);
    return (shape.inputs + 1 + (shape.layers - 1) * (hidden + 1)) * linear_outputs +
           (hidden + 1) * shape.classes;
}

Network::Network(const NetworkShape& shape, float dropout, vorn::Device device)
    : _device(device),
      _last("last", validated(shape).hidden, shape.classes, device),
      _posteriors(device) {
    for (int i = 0; i < shape.layers; ++i) {
        auto activation = make_activation(shape.activation, device);
        const int outputs = activation->linear_outputs(shape.hidden);
        _hidden.push_back(
            {common::LinearLayer("hidden" + std::to_string(i + 1),
                                 i == 0 ? shape.inputs : shape.hidden, outputs, device),
             std::move(activation), common::Dropout(dropout, device)});
    }
}

void Network::initialise(common::Random* random) {
    for (Hidden& layer : _hidden) {
        layer.linear.initialise(random, std::sqrt(6.0f));
    }
    _last.initialise(random);
}

const vorn::Tensor<float>& Network::forward(const vorn::Tensor<float>& images, common::Pass pass) {
    _inputs.assign(1, images);
    for (Hidden& layer : _hidden) {
        const vorn::Tensor<float>& units =
            layer.activation->forward(layer.linear.forward(_inputs.back()));
        _inputs.push_back(layer.dropout.forward(units, pass));
    }
    const vorn::Tensor<float>& logits = _last.forward(_inputs.back());
    _posteriors.resize(logits.get_size());
    _posteriors.softmax(logits);
    return _posteriors;
}

void Network::backward(const vorn::Tensor<float>& images, const vorn::Tensor<float>& error) {
    _inputs.front() = images;
    const vorn::Tensor<float>* layer_error = &_last.backward(_inputs.back(), error);
    for (std::size_t i = _hidden.size(); i-- > 0;) {
        Hidden& layer = _hidden[i];
        layer_error = &layer.activation->backward(layer.dropout.backward(*layer_error));
        layer_error = &layer.linear.backward(_inputs[i], *layer_error);
    }
}

std::vector<common::Parameter*> Network::parameters() {
    std::vector<common::Parameter*> all;
    const auto append = [&all](const std::vector<common::Parameter*>& its) {
        all.insert(all.end(), its.begin(), its.end());
    };
    for (Hidden& layer : _hidden) {
        append(layer.linear.parameters());
    }
    append(_last.parameters());
    return all;
}

}  // namespace classifier
