#include "vision/reader.h"

#include "vision/windows.h"

namespace vision {

namespace {

struct Look {
    int move, grow;  // pixels, both ways
};
constexpr Look kLooks[] = {{0, 0}, {0, 1}, {0, -1}, {1, 0}, {-1, 0}};
constexpr int kLookCount = sizeof kLooks / sizeof kLooks[0];

}  // namespace

Reader::Reader(Network* network)
    : _network(network),
      _batch(network->device()),
      _look(network->device()),
      _mean(network->device()) {}

void Reader::add_window(const Box& box) {
    for (const Look& look : kLooks) {
        _host.add_window({box.left + look.move - look.grow, box.top + look.move - look.grow,
                          box.right + look.move + look.grow, box.bottom + look.move + look.grow},
                         kNoDigit);
    }
}

vorn::Tensor<float> Reader::read() {
    _batch.set(_host);
    _host = HostBatch();
    const vorn::Tensor<float>& posteriors =
        _network->forward(_batch.pages, _batch.windows, common::Pass::kInference);
    const int windows = static_cast<int>(posteriors.get_h()) / kLookCount;
    const int classes = static_cast<int>(posteriors.get_w());
    const vorn::Tensor<float> looks =
        posteriors.get_with_shape(vorn::Dim(windows, kLookCount, classes));
    _look.resize(vorn::Dim(windows, 1, classes), false);
    _mean.resize(_look.get_size(), true);
    for (int k = 0; k < kLookCount; ++k) {
        _look.shrink(looks, 1, k);
        _mean.elem_add(_look, _mean, 1.0f / kLookCount, 1);
    }
    return _mean.get_with_shape(vorn::Dim(windows, classes));
}

}  // namespace vision
