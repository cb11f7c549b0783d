#include "batch_norm_layer.h"

#include <algorithm>
#include <cstddef>
#include <vector>

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

/// A rank may have padding only.
int divisor(const FrameBatch& batch) {
    return std::max(1, batch.valid_frames());
}

std::vector<double> to_host(const vorn::Tensor<float>& row) {
    std::vector<float> values(row.count());
    row.copy_to(values.data(), 0, values.size());
    return {values.begin(), values.end()};
}

void set(vorn::Tensor<float>* row, const std::vector<double>& values) {
    const std::vector<float> floats(values.begin(), values.end());
    row->copy_from(floats.data(), 0, floats.size());
}

}  // namespace

BatchNormLayer::BatchNormLayer(const std::string& name, int columns, vorn::Device device)
    : _name(name),
      _scale(name + ".scale", vorn::Dim(columns), device),
      _bias(name + ".bias", vorn::Dim(columns), device),
      _batches(vorn::Dim(1), device),
      _out(device),
      _correction(device) {
    for (vorn::Tensor<float>* tensor :
         {&_mean_sum, &_variance_sum, &_mean, &_variance, &_saved_mean, &_saved_inv_std, &_inv_std,
          &_ones, &_unread_mean_sum, &_unread_variance_sum, &_factor, &_offset}) {
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
    if (is_shared()) {
        train_shared(in, batch);
    } else {
        _out.audio_batch_norm_train(in, _scale.value, _bias.value, batch.mask, _mean, _variance,
                                    _mean_sum, _variance_sum, _saved_mean, _saved_inv_std,
                                    batch.valid_frames(), kBatchShare, kRemembered, kEpsilon);
    }
    _batches.mul(kRemembered);
    _batches.add(1.0f);
    return _out;
}

/// Like train(), but for the sums over all ranks between its two halves: the operator is asked once
/// for this rank's mean and variance, and again with those of all to normalize with.
void BatchNormLayer::train_shared(const vorn::Tensor<float>& in, const FrameBatch& batch) {
    const auto normalize = [&](float share) {
        _out.audio_batch_norm_train(in, _scale.value, _bias.value, batch.mask, _mean, _variance,
                                    _unread_mean_sum, _unread_variance_sum, _saved_mean,
                                    _saved_inv_std, divisor(batch), share, 0, kEpsilon);
    };
    normalize(kBatchShare);

    std::vector<double> mean = to_host(_mean), variance = to_host(_variance);
    const std::size_t columns = mean.size();
    // Frames, then each column's sum and sum of squares.
    std::vector<double> sums = {static_cast<double>(batch.valid_frames())};
    for (std::size_t c = 0; c < columns; ++c) {
        sums.push_back(sums[0] * mean[c]);
    }
    for (std::size_t c = 0; c < columns; ++c) {
        sums.push_back(sums[0] * (variance[c] + mean[c] * mean[c]));
    }
    _ranks->sum(&sums);
    _all_frames = sums[0];
    for (std::size_t c = 0; c < columns; ++c) {
        mean[c] = sums[1 + c] / _all_frames;
        variance[c] = std::max(0.0, sums[1 + columns + c] / _all_frames - mean[c] * mean[c]);
    }
    set(&_mean, mean);
    set(&_variance, variance);
    normalize(0);
    _mean_sum.elem_add(_mean_sum, _mean, kRemembered, 1, 0);
    _variance_sum.elem_add(_variance_sum, _variance, kRemembered, 1, 0);
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
                              _scale.gradient, _bias.gradient, divisor(batch), kBatchShare,
                              kEpsilon);
    if (is_shared()) {
        add_other_ranks(in, batch, error);
    }
}

/// With h the normalized input, the error at the input is
///
///     scale * inv_std * (error - h * S / n - B / n),
///
/// where S and B, the gradients of scale and bias, are sums over the n frames of all ranks. The
/// operator has put in those of this rank's s, b and m frames; so what is lacking is
///
///     scale * inv_std * (h * (s / m - S / n) + (b / m - B / n)).
void BatchNormLayer::add_other_ranks(const vorn::Tensor<float>& in, const FrameBatch& batch,
                                     vorn::Tensor<float>& error) {
    const std::vector<double> own_scale = to_host(_scale.gradient),
                              own_bias = to_host(_bias.gradient), mean = to_host(_saved_mean),
                              inv_std = to_host(_saved_inv_std), scale = to_host(_scale.value);
    const std::size_t columns = mean.size();
    std::vector<double> sums = own_scale;
    sums.insert(sums.end(), own_bias.begin(), own_bias.end());
    _ranks->sum(&sums);
    std::vector<double> factor(columns), offset(columns);
    for (std::size_t c = 0; c < columns; ++c) {
        const double gain = scale[c] * inv_std[c];
        factor[c] = gain * inv_std[c] * (own_scale[c] / divisor(batch) - sums[c] / _all_frames);
        offset[c] = gain * (own_bias[c] / divisor(batch) - sums[columns + c] / _all_frames) -
                    factor[c] * mean[c];
    }
    set(&_factor, factor);
    set(&_offset, offset);
    common::shape_output(&_correction, in.get_size());
    _correction.row_mul_vec(in, _factor);
    _correction.row_add_vec(_correction, _offset);
    _correction.vec_mask(_correction, batch.mask);
    error.elem_add(error, _correction);
}

}  // namespace speech
