#include "ctc_loss.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/shape_output.h"

namespace speech {

namespace {

constexpr float kLogZero = -1e30f;
// A posterior that underflows to zero would have no logarithm.
constexpr float kLeastPosterior = 1e-30f;

double log_add(double a, double b) {
    const double high = std::max(a, b);
    return high + std::log1p(std::exp(std::min(a, b) - high));
}

}  // namespace

double CtcLoss::fill_alpha(const vorn::Tensor<float>& posteriors, const FrameBatch& frames,
                           const LabelBatch& labels) {
    if (_log_posteriors.get_device() != posteriors.get_device()) {
        _log_posteriors = vorn::Tensor<float>(posteriors.get_device());
    }
    common::shape_output(&_log_posteriors, posteriors.get_size());
    _log_posteriors.limit(posteriors, kLeastPosterior, 1);
    _log_posteriors.log();
    _prob.resize(posteriors.get_size(), false);
    _prob.copy_from(_log_posteriors);

    _alpha.resize(vorn::Dim(frames.rows(), labels.width), false);
    _alpha.set_element(kLogZero);
    for (int t = 0; t < frames.frames; ++t) {
        _alpha.compute_ctc_alpha(_prob, t, labels.labels, labels.frame_counts,
                                 labels.label_lengths);
    }

    // A path ends, in the utterance's last frame, on its last label or on the blank after it.
    _table.resize(_alpha.count());
    _alpha.copy_to(_table.data(), 0, _table.size());
    std::vector<float> pzx(frames.size);
    double loss = 0;
    for (int n = 0; n < frames.size; ++n) {
        const std::size_t row = static_cast<std::size_t>(frames.lengths[n] - 1) * frames.size + n;
        const float* end = _table.data() + row * labels.width + labels.positions[n];
        const double log_probability =
            labels.positions[n] > 1 ? log_add(end[-1], end[-2]) : end[-1];
        pzx[n] = static_cast<float>(log_probability);
        loss -= log_probability;
    }
    _pzx.resize(vorn::Dim(frames.size));
    _pzx.copy_from(pzx.data(), 0, pzx.size());
    return loss;
}

double CtcLoss::compute(const vorn::Tensor<float>& posteriors, const FrameBatch& frames,
                        const LabelBatch& labels) {
    return fill_alpha(posteriors, frames, labels);
}

double CtcLoss::compute(const vorn::Tensor<float>& posteriors, const FrameBatch& frames,
                        const LabelBatch& labels, float weight, vorn::Tensor<float>* error) {
    const double loss = fill_alpha(posteriors, frames, labels);

    _beta.resize(vorn::Dim(frames.rows(), labels.width), false);
    _beta.set_element(kLogZero);
    for (int t = frames.frames - 1; t >= 0; --t) {
        _beta.compute_ctc_beta(_prob, t, labels.labels, labels.frame_counts, labels.label_lengths);
    }
    _occupancy.resize(posteriors.get_size());
    _occupancy.compute_ctc_err(_alpha, _beta, labels.labels, labels.frame_counts, _pzx);

    // Before the softmax, the gradient of an utterance's loss is posterior minus occupancy.
    vorn::Tensor<float> occupancy = _occupancy;
    if (!vorn::is_same_devices(posteriors.get_device(), vorn::GPU)) {
        occupancy = vorn::Tensor<float>(_occupancy, posteriors.get_device());
    }
    common::shape_output(error, posteriors.get_size());
    error->elem_add(posteriors, occupancy, weight, -weight, 0);
    error->vec_mask(*error, frames.mask);
    return loss;
}

}  // namespace speech
