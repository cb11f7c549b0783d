#include "conv_blstm.h"

#include <string>

#include "common/shape_output.h"

namespace speech {

ConvBlstmNetwork::ConvBlstmNetwork(const NetworkShape& shape, vorn::Device device,
                                   common::Team* team)
    : Network(device),
      _conv("conv", shape.conv, shape.inputs, device, team),
      _norm("norm", shape.conv.outputs(), device),
      _linear("linear", 2 * shape.hidden, shape.classes, device),
      _lengths(device),
      _posteriors(device) {
    for (int i = 0; i < shape.layers; ++i) {
        _layers.push_back(std::make_unique<BlstmLayer>(
            "blstm" + std::to_string(i + 1), i == 0 ? shape.conv.outputs() : 2 * shape.hidden,
            shape.hidden, device, team));
    }
}

void ConvBlstmNetwork::initialise(common::Random* random) {
    _conv.initialise(random);
    _norm.initialise();
    for (const auto& layer : _layers) {
        layer->initialise(random);
    }
    _linear.initialise(random);
}

const vorn::Tensor<float>& ConvBlstmNetwork::forward(const FrameBatch& batch, common::Pass pass) {
    _lengths.resize(vorn::Dim(batch.size));
    _lengths.count_valid_label(batch.mask, batch.size, batch.frames);
    _conv_out = _conv.forward(batch.features);
    _inputs.assign(1, pass == common::Pass::kTraining ? _norm.train(_conv_out, batch)
                                                      : _norm.infer(_conv_out, batch));
    for (const auto& layer : _layers) {
        _inputs.push_back(layer->forward(_inputs.back(), batch, _lengths));
    }
    const vorn::Tensor<float>& logits = _linear.forward(_inputs.back());
    common::shape_output(&_posteriors, logits.get_size());
    _posteriors.softmax(logits);
    return _posteriors;
}

void ConvBlstmNetwork::backward(const FrameBatch& batch, const vorn::Tensor<float>& error,
                                const common::GradientsReady& ready) {
    vorn::Tensor<float>* layer_error = &_linear.backward(_inputs.back(), error);
    ready(_linear.parameters());
    for (std::size_t i = _layers.size(); i-- > 0;) {
        layer_error = &_layers[i]->backward(_inputs[i], batch, _lengths, *layer_error);
        ready(_layers[i]->parameters());
    }
    _norm.backward(_conv_out, batch, *layer_error);
    ready(_norm.parameters());
    _conv.backward(*layer_error);
    ready(_conv.parameters());
}

std::vector<common::Parameter*> ConvBlstmNetwork::parameters() {
    std::vector<common::Parameter*> all = _conv.parameters();
    const auto append = [&all](const std::vector<common::Parameter*>& its) {
        all.insert(all.end(), its.begin(), its.end());
    };
    append(_norm.parameters());
    for (const auto& layer : _layers) {
        append(layer->parameters());
    }
    append(_linear.parameters());
    return all;
}

}  // namespace speech
