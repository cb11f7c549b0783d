#include "model_file.h"

#include <cstdint>
#include <fstream>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "digits.h"
#include "error.h"
#include "output_file.h"

namespace speech {

namespace {

constexpr const char* kMagic = "vorn_speech model 1";
constexpr const char* kEndOfHead = "tensors";
constexpr int kLongestLine = 200;

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

std::string read_line(std::istream& in) {
    char line[kLongestLine];
    if (!in.getline(line, sizeof line)) {
        throw Error("is no model file of this program");
    }
    return line;
}

template <typename T>
void read_field(std::istream& in, const std::string& name, T* value) {
    std::istringstream line(read_line(in));
    std::string its_name;
    line >> its_name >> *value;
    if (line.fail() || its_name != name || !(line >> std::ws).eof()) {
        throw Error("the line of '" + name + "' is damaged");
    }
}

/// The library stops the process at a head that makes no sense and does not see a short file:
/// both are found here, before it reads.
void check_tensor_ahead(std::ifstream& in, std::uintmax_t file_size, const std::string& name,
                        const vorn::Dim& expected) {
    const std::streampos start = in.tellg();
    const std::uintmax_t bytes = sizeof(std::int32_t) * (1 + expected.get_axis()) +
                                 sizeof(float) * static_cast<std::uintmax_t>(expected.product());
    if (file_size - static_cast<std::uintmax_t>(start) < bytes) {
        throw Error("is truncated at '" + name + "'");
    }
    std::vector<std::int32_t> head(1 + expected.get_axis());
    in.read(reinterpret_cast<char*>(head.data()), sizeof(std::int32_t) * head.size());
    bool fits = static_cast<bool>(in) && head[0] == expected.get_axis();
    for (int axis = 0; fits && axis < expected.get_axis(); ++axis) {
        fits = head[1 + axis] == expected[axis];
    }
    if (!fits) {
        throw Error("'" + name + "' has not the shape that the head tells");
    }
    in.seekg(start);
}

/// The parameters, then the statistics.
std::vector<NamedTensor> stored_tensors(Network* network) {
    std::vector<NamedTensor> stored;
    for (Parameter* parameter : network->parameters()) {
        stored.push_back({parameter->name, &parameter->value});
    }
    const std::vector<NamedTensor> statistics = network->statistics();
    stored.insert(stored.end(), statistics.begin(), statistics.end());
    return stored;
}

vorn::Tensor<float> to_tensor(const std::vector<float>& values) {
    vorn::Tensor<float> tensor{vorn::Dim(values.size())};
    tensor.copy_from(values.data(), 0, values.size());
    return tensor;
}

std::vector<float> read_vector(std::ifstream& in, std::uintmax_t file_size, const char* name,
                               int columns) {
    check_tensor_ahead(in, file_size, name, vorn::Dim(columns));
    vorn::Tensor<float> tensor;
    tensor.read(in, 0);
    std::vector<float> values(columns);
    tensor.copy_to(values.data(), 0, values.size());
    return values;
}

Model read_model(std::ifstream& in, std::uintmax_t file_size, vorn::Device device) {
    Model model;
    if (read_line(in) != kMagic) {
        throw Error("is no model file of this program");
    }
    visit_fields(model.features, model.shape,
                 [&](const char* name, auto& value) { read_field(in, name, &value); });
    if (read_line(in) != kEndOfHead) {
        throw Error("the head does not end where it should");
    }
    validate(model.features);
    if (model.shape.inputs != model.features.columns() || model.shape.classes != kClassCount) {
        throw Error("the network does not fit its features and classes");
    }
    model.shape.conv.bands = model.features.bands;
    model.shape.conv.channels = model.features.channels();
    validate(model.shape);

    // Before memory is taken for a network of any size.
    if (file_size / sizeof(float) < static_cast<std::uintmax_t>(parameter_count(model.shape))) {
        throw Error("is truncated");
    }

    std::vector<float> mean = read_vector(in, file_size, "mean", model.shape.inputs);
    std::vector<float> deviation =
        read_vector(in, file_size, "inverse_deviation", model.shape.inputs);
    model.normaliser = Normaliser(std::move(mean), std::move(deviation));
    model.network = make_network(model.shape, device);
    for (const NamedTensor& stored : stored_tensors(model.network.get())) {
        check_tensor_ahead(in, file_size, stored.name, stored.tensor->get_size());
        stored.tensor->read(in, 0);
    }
    if (static_cast<std::uintmax_t>(in.tellg()) != file_size) {
        throw Error("goes on behind its last tensor");
    }
    return model;
}

}  // namespace

void save_model(const std::filesystem::path& file, const Model& model) {
    OutputFile output(file);
    std::ofstream& out = output.stream();
    out << std::setprecision(std::numeric_limits<float>::max_digits10) << kMagic << '\n';
    visit_fields(model.features, model.shape,
                 [&](const char* name, const auto& value) { out << name << ' ' << value << '\n'; });
    out << kEndOfHead << '\n';
    to_tensor(model.normaliser.mean()).write(out);
    to_tensor(model.normaliser.inverse_deviation()).write(out);
    for (const NamedTensor& stored : stored_tensors(model.network.get())) {
        stored.tensor->write(out);
    }
    output.finish();
}

Model load_model(const std::filesystem::path& file, vorn::Device device) {
    std::error_code error;
    const bool regular = std::filesystem::is_regular_file(file, error);
    std::ifstream in(file, std::ios::binary);
    const std::uintmax_t file_size = regular ? std::filesystem::file_size(file, error) : 0;
    if (!regular || error || !in) {
        throw Error(file.string() + ": cannot be read");
    }
    try {
        return read_model(in, file_size, device);
    } catch (const Error& damage) {
        throw Error(file.string() + ": " + damage.what());
    }
}

}  // namespace speech
