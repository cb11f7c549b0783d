#include "common/gradient_sum.h"

namespace common {

namespace {

constexpr std::size_t kBucket = 64 * 1024;  ///< values

}  // namespace

GradientSum::GradientSum(const std::vector<Parameter*>& parameters, Ranks* ranks)
    : _ranks(ranks), _flat(parameters.front()->value.get_device()), _parameters(parameters) {
    std::size_t count = 0;
    for (const Parameter* parameter : parameters) {
        _begin.push_back(count);
        count += parameter->value.count();
    }
    _begin.push_back(count);
    // A column, because a cut of it is contiguous.
    _flat.resize(vorn::Dim(count, 1));
    for (std::size_t i = 0; i < parameters.size(); ++i) {
        vorn::Tensor<float> view = _flat.slice(_begin[i], _begin[i + 1]);
        view.reshape(parameters[i]->value.get_size());
        parameters[i]->gradient = view;
    }
    if (!vorn::is_same_devices(_flat.get_device(), vorn::CPU)) {
        _host.resize(count);
    }
    _ready = parameters.size();
    _started = count;
}

void GradientSum::ready(const std::vector<Parameter*>& parameters) {
    _ready -= parameters.size();
    if (_started - _begin[_ready] >= kBucket) {
        start_bucket();
    }
}

void GradientSum::start_bucket() {
    const std::size_t begin = _begin[_ready], count = _started - begin;
    _started = begin;
    if (_ranks->size() == 1 || count == 0) {
        return;
    }
    float* values = _flat.get_ptr() + begin;
    if (!_host.empty()) {
        values = _host.data() + begin;
        _flat.copy_to(values, begin, count);
    }
    _ranks->start_sum(values, count);
}

void GradientSum::finish() {
    start_bucket();
    _ranks->finish_sums();
    if (_ranks->size() > 1 && !_host.empty()) {
        _flat.copy_from(_host.data(), 0, _host.size());
    }
    _ready = _parameters.size();
    _started = _begin.back();
}

}  // namespace common
