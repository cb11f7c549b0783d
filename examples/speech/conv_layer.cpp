#include "conv_layer.h"

#include <cmath>
#include <cstdint>

#include "common/error.h"
#include "common/shape_output.h"

namespace speech {

namespace {

constexpr int kMostFilters = 4096;

vorn::Tensor<int> make_vector(const std::vector<int>& values, vorn::Device device) {
    vorn::Tensor<int> tensor(vorn::Dim(values.size()), device);
    tensor.copy_from(values.data(), 0, values.size());
    return tensor;
}

}  // namespace

void validate(const ConvShape& shape, int inputs) {
    const auto require = [](bool good, const char* what) {
        if (!good) {
            throw common::Error(std::string("network: ") + what);
        }
    };
    require(shape.bands >= 1 && shape.channels >= 1 && inputs % (shape.bands * shape.channels) == 0,
            "the inputs are not a whole number of frames");
    require(shape.filter_size >= 1 && shape.filter_size <= shape.bands,
            "the filter size must be 1 to the number of bands");
    const int positions = shape.bands - shape.filter_size + 1;
    require(shape.groups >= 1 && shape.groups <= positions && positions % shape.groups == 0,
            "the groups must share out the filter positions evenly");
    require(shape.pooling >= 1 && shape.pooling <= shape.group_positions(),
            "the pooling must be 1 to the positions of a group");
    require(shape.filters >= 1 && shape.filters <= kMostFilters, "there must be 1 to 4096 filters");
}

ConvLayer::ConvLayer(const std::string& name, const ConvShape& shape, int inputs,
                     vorn::Device device, common::Team* team)
    : _shape(shape),
      _team(team),
      _patch(shape.filter_size * (inputs / shape.bands)),
      _weight(name + ".weight", vorn::Dim(shape.groups * _patch, shape.filters), device),
      _bias(name + ".bias", vorn::Dim(shape.groups, shape.filters), device),
      _max_idx(device) {
    std::vector<int> first, last, sizes;
    for (int group = 0; group < shape.groups; ++group) {
        first.push_back(group * shape.group_positions());
        last.push_back(first.back() + shape.group_positions() - 1);
        sizes.push_back(shape.group_positions());
        _group_first.push_back(make_vector({first.back()}, device));
        _group_last.push_back(make_vector({last.back()}, device));
    }
    _first = make_vector(first, device);
    _last = make_vector(last, device);
    _sizes = make_vector(sizes, device);
    for (vorn::Tensor<float>* tensor :
         {&_patches, &_conv, &_out, &_conv_error, &_patch_error, &_in_error}) {
        tensor->set_device(device);
    }
}

void ConvLayer::initialise(common::Random* random) {
    _weight.randomise(1 / std::sqrt(static_cast<float>(_patch)), random);
    _bias.value.zero();
}

const vorn::Tensor<float>& ConvLayer::forward(const vorn::Tensor<float>& in) {
    _rows = static_cast<int>(in.get_h());
    const int group_rows = _rows * _shape.group_positions();
    _patches.resize(vorn::Dim(_shape.groups * group_rows, _patch), false);
    common::shape_output(&_conv, vorn::Dim(_shape.groups * group_rows, _shape.filters));
    _team->for_each(_shape.groups, [&](int g) {
        vorn::Tensor<float> patches = _patches.range_row(g, g + 1, group_rows);
        vorn::Tensor<float> conv = _conv.range_row(g, g + 1, group_rows);
        patches.expand_feat(in, _shape.bands, _shape.channels, _shape.group_positions(),
                            _shape.filter_size, _group_first[g], _group_last[g]);
        conv.mul(patches, _weight.value.range_row(g, g + 1, _patch));
        conv.audio_conv_batch_bias(_bias.value.range_row(g, g + 1), 1);
    });
    common::shape_output(&_out, vorn::Dim(_rows, _shape.outputs()));
    _max_idx.resize(_out.get_size(), false);
    _out.max_pooling(_conv, _sizes, _shape.groups * _shape.filters, _shape.pooling, _max_idx);
    _out.relu();
    return _out;
}

void ConvLayer::backward(vorn::Tensor<float>& error) {
    const int group_rows = _rows * _shape.group_positions();
    error.relu_bp(_out, error);
    _conv_error.resize(_conv.get_size(), false);
    // Only the winners are written to.
    _conv_error.zero();
    _conv_error.max_pooling_bp(error, _sizes, _shape.groups * _shape.filters, _shape.pooling,
                               _max_idx);
    _team->for_each(_shape.groups, [&](int g) {
        const vorn::Tensor<float> conv_error = _conv_error.range_row(g, g + 1, group_rows);
        _weight.gradient.range_row(g, g + 1, _patch)
            .mul(_patches.range_row(g, g + 1, group_rows), true, conv_error, false);
        _bias.gradient.range_row(g, g + 1).audio_conv_batch_bias_bp(conv_error, 1);
    });
}

vorn::Tensor<float>& ConvLayer::input_error() {
    const int group_rows = _rows * _shape.group_positions();
    common::shape_output(&_patch_error, _patches.get_size());
    _patch_error.batch_mul(_conv_error, false, std::int64_t{group_rows} * _shape.filters,
                           _weight.value, true, std::int64_t{_patch} * _shape.filters,
                           std::int64_t{group_rows} * _patch, _shape.groups);
    _in_error.resize(vorn::Dim(_rows, _patch / _shape.filter_size * _shape.bands), false);
    // The host adds to what is there.
    _in_error.zero();
    _in_error.shrink_errors(_patch_error, _shape.bands, _shape.channels, _shape.group_positions(),
                            _shape.filter_size, _first, _last);
    return _in_error;
}

}  // namespace speech
