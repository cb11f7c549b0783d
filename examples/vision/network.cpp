#include "vision/network.h"

#include <cmath>
#include <string>

#include "common/error.h"

namespace vision {

namespace {

constexpr int kLaterSide = 3;
constexpr float kReluGain = 2.4494897f;  // sqrt(6)

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
    check_extent("filters", shape.filters, 512);
    check_extent("filter_side", shape.filter_side, 15);
    check_extent("grid", shape.grid, 32);
    check_extent("hidden", shape.hidden, 8192);
    check_extent("classes", shape.classes, 8192);
    if (shape.filter_side % 2 == 0) {
        throw common::Error("network: filter_side must be odd");
    }
}

std::int64_t value_count(const NetworkShape& shape) {
    const std::int64_t first = shape.filters, second = 2 * first, hidden = shape.hidden;
    return first * shape.filter_side * shape.filter_side +
           second * (first + second) * kLaterSide * kLaterSide + 4 * (first + 2 * second) +
           (second * shape.grid * shape.grid + 1) * hidden + (hidden + 1) * shape.classes;
}

Network::Network(const NetworkShape& shape, float dropout, vorn::Device device)
    : _device(device),
      _conv1("conv1", 1, validated(shape).filters, shape.filter_side, device),
      _conv2("conv2", shape.filters, 2 * shape.filters, kLaterSide, device),
      _conv3("conv3", 2 * shape.filters, 2 * shape.filters, kLaterSide, device),
      _norm1("norm1", shape.filters, device),
      _norm2("norm2", 2 * shape.filters, device),
      _norm3("norm3", 2 * shape.filters, device),
      _pool1(device),
      _roi_pool(shape.grid, PoolLayer::kStep, device),
      _hidden("hidden", 2 * shape.filters * shape.grid * shape.grid, shape.hidden, device),
      _dropout(dropout, device),
      _last("last", shape.hidden, shape.classes, device),
      _posteriors(device) {}

void Network::initialise(common::Random* random) {
    _conv1.initialise(random, kReluGain);
    _norm1.initialise();
    _conv2.initialise(random, kReluGain);
    _norm2.initialise();
    _conv3.initialise(random, kReluGain);
    _norm3.initialise();
    _hidden.initialise(random, kReluGain);
    _last.initialise(random);
}

const vorn::Tensor<float>& Network::forward(const vorn::Tensor<float>& pages,
                                            const vorn::Tensor<float>& windows, common::Pass pass) {
    _sums1 = _conv1.forward(pages);
    _pooled1 = _pool1.forward(_sums1);
    _maps1 = _norm1.forward(_pooled1, pass);
    _maps1.relu();

    _sums2 = _conv2.forward(_maps1);
    _maps2 = _norm2.forward(_sums2, pass);
    _maps2.relu();

    _sums3 = _conv3.forward(_maps2);
    _maps3 = _norm3.forward(_sums3, pass);
    _maps3.relu();

    _grids = _roi_pool.forward(_maps3, windows);
    _units = _hidden.forward(_grids);
    _units.relu();
    _kept = _dropout.forward(_units, pass);
    const vorn::Tensor<float>& logits = _last.forward(_kept);
    _posteriors.resize(logits.get_size());
    _posteriors.softmax(logits);
    return _posteriors;
}

void Network::backward(const vorn::Tensor<float>& pages, const vorn::Tensor<float>& windows,
                       const vorn::Tensor<float>& error) {
    vorn::Tensor<float> unit_error = _dropout.backward(_last.backward(_kept, error));
    unit_error.relu_bp(_units, unit_error);
    const vorn::Tensor<float>& grid_error = _hidden.backward(_grids, unit_error);

    vorn::Tensor<float>& maps3_error = _roi_pool.backward(_maps3, windows, grid_error);
    maps3_error.relu_bp(_maps3, maps3_error);
    const vorn::Tensor<float>& sums3_error = _norm3.backward(_sums3, maps3_error);
    _conv3.backward(_maps2, sums3_error);

    vorn::Tensor<float>& maps2_error = _conv3.input_error(_maps2, sums3_error);
    maps2_error.relu_bp(_maps2, maps2_error);
    const vorn::Tensor<float>& sums2_error = _norm2.backward(_sums2, maps2_error);
    _conv2.backward(_maps1, sums2_error);

    vorn::Tensor<float>& maps1_error = _conv2.input_error(_maps1, sums2_error);
    maps1_error.relu_bp(_maps1, maps1_error);
    const vorn::Tensor<float>& pooled1_error = _norm1.backward(_pooled1, maps1_error);
    _conv1.backward(pages, _pool1.backward(_sums1, pooled1_error));
}

std::vector<common::Parameter*> Network::parameters() {
    std::vector<common::Parameter*> all;
    for (const auto& its :
         {_conv1.parameters(), _norm1.parameters(), _conv2.parameters(), _norm2.parameters(),
          _conv3.parameters(), _norm3.parameters(), _hidden.parameters(), _last.parameters()}) {
        all.insert(all.end(), its.begin(), its.end());
    }
    return all;
}

std::vector<common::NamedTensor> Network::tensors() {
    std::vector<common::NamedTensor> all;
    for (common::Parameter* parameter : parameters()) {
        all.push_back({parameter->name, &parameter->value});
    }
    for (BatchNormLayer* norm : {&_norm1, &_norm2, &_norm3}) {
        for (const common::NamedTensor& tensor : norm->statistics()) {
            all.push_back(tensor);
        }
    }
    return all;
}

}  // namespace vision
