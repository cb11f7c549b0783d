#include "batch_norm_layer.h"

#include "common/shape_output.h"

namespace speech {

namespace {

constexpr float kEpsilon = 1e-4f;
/// A batch's share in the running averages: all of it, so that training sees its own statistics.
constexpr float kBatchShare = 1;
/// What is left of a batch's weight in the sums after another one.
constexpr float kRemembered = 0.99f;
/// Weight of a mean of 0 and a variance of 1 before the first batch.
constexpr float kPriorWeight = 1e-3f;

}  // namespace

BatchNormLayer::BatchNormLayer(const std::string& name, int columns, vorn::Device device)
    : _name(name),
      _scale(name + ".scale", vorn::Dim(columns), device),
      _bias(name + ".bias", vorn::Dim(columns), device),
      _batches(vorn::Dim(1), device),
      _out(device) {
    for (vorn::Tensor<float>* tensor : {&_mean_sum, &_variance_sum, &_mean, &_variance,
                                        &_saved_mean, &_saved_inv_std, &_inv_std, &_ones}) {
        tensor->set_device(device);
        tensor->resize(vorn::Dim(columns));
    }
    _ones.ones();
}

void BatchNormLayer::initialise() {
    _scale.value.ones();
    _bias.value.zero();
    _mean_sum.zero();
    _variance_sum.set_element(kPriorWeight);
    _batches.set_element(kPriorWeight);
}

const vorn::Tensor<float>& BatchNormLayer::train(const vorn::Tensor<float>& in,
                                                 const FrameBatch& batch) {
    common::shape_output(&_out, in.get_size());
    _out.audio_batch_norm_train(in, _scale.value, _bias.value, batch.mask, _mean, _variance,
                                _mean_sum, _variance_sum, _saved_mean, _saved_inv_std,
                                batch.valid_frames(), kBatchShare, kRemembered, kEpsilon);
    _batches.mul(kRemembered);
    _batches.add(1.0f);
    return _out;
}

const vorn::Tensor<float>& BatchNormLayer::infer(const vorn::Tensor<float>& in,
                                                 const FrameBatch& batch) {
    float batches = 0;
    _batches.copy_to(&batches, 0, 1);
    _saved_mean.copy_from(_mean_sum);
    _saved_mean.mul(1 / batches);
    _inv_std.copy_from(_variance_sum);
    _inv_std.mul(1 / batches);
    _inv_std.add(kEpsilon);
    _inv_std.sqrt();
    _saved_inv_std.dot_div(_ones, _inv_std, 0, 0);

    // Inference knows padding by -1, not by 0.
    vorn::Tensor<int> mask(batch.mask, batch.mask.get_device());
    mask.mul(2);
    mask.add(-1);
    common::shape_output(&_out, in.get_size());
    _out.audio_batch_norm_inf(in, _scale.value, _bias.value, _saved_mean, _saved_inv_std, mask,
                              kEpsilon);
    return _out;
}

void BatchNormLayer::backward(const vorn::Tensor<float>& in, const FrameBatch& batch,
                              vorn::Tensor<float>& error) {
    error.audio_batch_norm_bp(in, error, _scale.value, _saved_mean, _saved_inv_std, batch.mask,
                              _scale.gradient, _bias.gradient, batch.valid_frames(), kBatchShare,
                              kEpsilon);
}

}  // namespace speech
