#include "model_file.h"

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "common/error.h"
#include "common/model_file.h"
#include "common/output_file.h"
#include "digits.h"

namespace speech {

namespace {

constexpr const char* kMagic = "vorn_speech model 1";

/// Calls visit(name, field) for each field of the head, in its order there.
template <typename Features, typename Shape, typename Visit>
void visit_fields(Features& features, Shape& shape, Visit visit) {
    visit("kind", shape.kind);
    visit("inputs", shape.inputs);
    visit("hidden", shape.hidden);
    visit("layers", shape.layers);
    visit("classes", shape.classes);
    if (shape.kind == kConvBlstm) {
        visit("filter_size", shape.conv.filter_size);
        visit("groups", shape.conv.groups);
        visit("filters", shape.conv.filters);
        visit("pooling", shape.conv.pooling);
    }
    visit("sample_rate", features.sample_rate);
    visit("window", features.window);
    visit("step", features.step);
    visit("preemphasis", features.preemphasis);
    visit("bands", features.bands);
    visit("low_frequency", features.low_frequency);
    visit("high_frequency", features.high_frequency);
    visit("delta_order", features.delta_order);
    visit("delta_window", features.delta_window);
    visit("stack", features.stack);
    visit("stride", features.stride);
    visit("subtract_mean", features.subtract_mean);
}

/// The parameters, then the statistics.
std::vector<common::NamedTensor> stored_tensors(Network* network) {
    std::vector<common::NamedTensor> stored;
    for (common::Parameter* parameter : network->parameters()) {
        stored.push_back({parameter->name, &parameter->value});
    }
    const std::vector<common::NamedTensor> statistics = network->statistics();
    stored.insert(stored.end(), statistics.begin(), statistics.end());
    return stored;
}

vorn::Tensor<float> to_tensor(const std::vector<float>& values) {
    vorn::Tensor<float> tensor{vorn::Dim(values.size())};
    tensor.copy_from(values.data(), 0, values.size());
    return tensor;
}

Model read_model(common::ModelReader& reader, vorn::Device device, common::Team* team) {
    Model model;
    reader.begin_head(kMagic);
    visit_fields(model.features, model.shape,
                 [&](const char* name, auto& value) { reader.field(name, value); });
    reader.end_head();
    validate(model.features);
    if (model.shape.inputs != model.features.columns() || model.shape.classes != kClassCount) {
        throw common::Error("the network does not fit its features and classes");
    }
    model.shape.conv.bands = model.features.bands;
    model.shape.conv.channels = model.features.channels();
    validate(model.shape);
    reader.expect_values(parameter_count(model.shape));

    std::vector<float> mean = reader.read_vector("mean", model.shape.inputs);
    std::vector<float> deviation = reader.read_vector("inverse_deviation", model.shape.inputs);
    model.normaliser = Normaliser(std::move(mean), std::move(deviation));
    model.network = make_network(model.shape, device, team);
    for (const common::NamedTensor& stored : stored_tensors(model.network.get())) {
        reader.read(stored);
    }
    return model;
}

}  // namespace

void save_model(const std::filesystem::path& file, const Model& model) {
    common::OutputFile output(file);
    std::ofstream& out = output.stream();
    common::HeadWriter head(out, kMagic);
    visit_fields(model.features, model.shape,
                 [&](const char* name, const auto& value) { head.field(name, value); });
    head.end();
    to_tensor(model.normaliser.mean()).write(out);
    to_tensor(model.normaliser.inverse_deviation()).write(out);
    for (const common::NamedTensor& stored : stored_tensors(model.network.get())) {
        stored.tensor->write(out);
    }
    output.finish();
}

Model load_model(const std::filesystem::path& file, vorn::Device device, common::Team* team) {
    return common::read_model_file(
        file, [&](common::ModelReader& reader) { return read_model(reader, device, team); });
}

}  // namespace speech
