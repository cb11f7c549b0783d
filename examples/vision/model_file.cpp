#include "vision/model_file.h"

#include "common/error.h"
#include "common/model_file.h"
#include "common/output_file.h"
#include "vision/windows.h"

namespace vision {

namespace {

constexpr const char* kMagic = "vorn_vision model 1";

/// Calls visit(name, field) for each field of the head, in its order there.
template <typename Shape, typename Visit>
void visit_fields(Shape& shape, Visit visit) {
    visit("filters", shape.filters);
    visit("filter_side", shape.filter_side);
    visit("grid", shape.grid);
    visit("hidden", shape.hidden);
    visit("classes", shape.classes);
}

Network read_model(common::ModelReader& reader, vorn::Device device) {
    NetworkShape shape;
    reader.begin_head(kMagic);
    visit_fields(shape, [&](const char* name, auto& value) { reader.field(name, value); });
    reader.end_head();
    validate(shape);
    if (shape.classes != kClasses) {
        throw common::Error("the network does not fit its classes");
    }
    reader.expect_values(value_count(shape));
    Network network(shape, 0, device);
    for (const common::NamedTensor& tensor : network.tensors()) {
        reader.read(tensor);
    }
    return network;
}

}  // namespace

void save_model(const std::filesystem::path& file, const NetworkShape& shape, Network* network) {
    common::OutputFile output(file);
    common::HeadWriter head(output.stream(), kMagic);
    visit_fields(shape, [&](const char* name, const auto& value) { head.field(name, value); });
    head.end();
    for (const common::NamedTensor& tensor : network->tensors()) {
        tensor.tensor->write(output.stream());
    }
    output.finish();
}

Network load_model(const std::filesystem::path& file, vorn::Device device) {
    return common::read_model_file(
        file, [&](common::ModelReader& reader) { return read_model(reader, device); });
}

}  // namespace vision
