#include "classifier/model_file.h"

#include "common/error.h"
#include "common/model_file.h"
#include "common/output_file.h"
#include "digit_images/frame.h"

namespace classifier {

namespace {

constexpr const char* kMagic = "vorn_classifier model 1";

/// Calls visit(name, field) for each field of the head, in its order there.
template <typename Shape, typename Visit>
void visit_fields(Shape& shape, Visit visit) {
    visit("inputs", shape.inputs);
    visit("hidden", shape.hidden);
    visit("layers", shape.layers);
    visit("activation", shape.activation);
    visit("classes", shape.classes);
}

Network read_model(common::ModelReader& reader, vorn::Device device) {
    NetworkShape shape;
    reader.begin_head(kMagic);
    visit_fields(shape, [&](const char* name, auto& value) { reader.field(name, value); });
    reader.end_head();
    validate(shape);
    if (shape.inputs != digit_images::kFramePixels || shape.classes != digit_images::kDigits) {
        throw common::Error("the network does not fit its images and classes");
    }
    reader.expect_values(parameter_count(shape));
    Network network(shape, 0, device);
    for (common::Parameter* parameter : network.parameters()) {
        reader.read({parameter->name, &parameter->value});
    }
    return network;
}

}  // namespace

void save_model(const std::filesystem::path& file, const NetworkShape& shape, Network* network) {
    common::OutputFile output(file);
    common::HeadWriter head(output.stream(), kMagic);
    visit_fields(shape, [&](const char* name, const auto& value) { head.field(name, value); });
    head.end();
    for (const common::Parameter* parameter : network->parameters()) {
        parameter->value.write(output.stream());
    }
    output.finish();
}

Network load_model(const std::filesystem::path& file, vorn::Device device) {
    return common::read_model_file(
        file, [&](common::ModelReader& reader) { return read_model(reader, device); });
}

}  // namespace classifier
