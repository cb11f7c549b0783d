#include "common/cross_entropy.h"

#include <numeric>

namespace common {

namespace {

// A posterior that underflows to zero would have no logarithm.
constexpr float kLeastPosterior = 1e-30f;
constexpr float kNoLabel = -1;

}  // namespace

CrossEntropy::CrossEntropy(vorn::Device device)
    : _log_posteriors(device),
      _loss(device),
      _highest(device),
      _error(device),
      _mask(device),
      _highest_class(device) {}

void CrossEntropy::compute(const vorn::Tensor<float>& posteriors,
                           const vorn::Tensor<float>& labels) {
    const auto size = static_cast<int>(labels.count());
    _mask.resize(vorn::Dim(size), false);
    _mask.set_element(1);
    _log_posteriors.resize(posteriors.get_size());
    _log_posteriors.limit(posteriors, kLeastPosterior, 1);
    _log_posteriors.log();
    _loss.resize(vorn::Dim(size));
    _loss.cross_entropy(_log_posteriors, labels, _mask, -1);

    _highest.resize(vorn::Dim(size));
    _highest_class.resize(vorn::Dim(size));
    _highest.cal_classify_acu_target(posteriors, labels, _mask, _highest_class, kNoLabel,
                                     &_correct);

    // On a GPU these wait for the count, too.
    _read.resize(size);
    _highest_class.copy_to(_read.data(), 0, size);
    _losses.resize(size);
    _loss.copy_to(_losses.data(), 0, size);
    _mean_loss = std::accumulate(_losses.begin(), _losses.end(), 0.0) / size;
}

const vorn::Tensor<float>& CrossEntropy::error(const vorn::Tensor<float>& posteriors,
                                               const vorn::Tensor<float>& labels) {
    _error.resize(posteriors.get_size());
    _error.cross_entropy_bp(posteriors, labels, _mask, -1 / static_cast<float>(labels.count()));
    return _error;
}

}  // namespace common
