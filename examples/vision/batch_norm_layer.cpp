#include "vision/batch_norm_layer.h"

#include "vision/fit.h"

namespace vision {

namespace {

constexpr float kEpsilon = 1e-4f;
/// A batch's share in the running means.
constexpr float kBatchShare = 0.02f;
constexpr vorn::BatNormType kEachMap = vorn::NORM_1C11;

bool is_on_gpu(const vorn::Tensor<float>& images) {
    return vorn::is_gpu_device(images.get_device());
}

/// The images where they lie on the GPU, and else `copy`, which takes them there.
vorn::Tensor<float> on_gpu(const vorn::Tensor<float>& images, vorn::Tensor<float>* copy) {
    if (is_on_gpu(images)) {
        return images;
    }
    fit(images.get_size(), copy);
    copy->copy_from(images);
    return *copy;
}

/// Sizes a result of the layer, and has it computed: in place on the GPU, or there in `on_gpu`, and
/// copied.
template <typename Compute>
void compute_on_gpu(const vorn::Dim& size, vorn::Tensor<float>* result, vorn::Tensor<float>* on_gpu,
                    Compute compute) {
    fit(size, result);
    if (is_on_gpu(*result)) {
        compute(*result);
        return;
    }
    fit(size, on_gpu);
    compute(*on_gpu);
    result->copy_from(*on_gpu);
}

}  // namespace

BatchNormLayer::BatchNormLayer(const std::string& name, int maps, vorn::Device device)
    : _name(name),
      _scale(name + ".scale", vorn::Dim(1, maps, 1, 1), vorn::GPU),
      _bias(name + ".bias", vorn::Dim(1, maps, 1, 1), vorn::GPU),
      _out(device),
      _in_error(device) {
    for (vorn::Tensor<float>* tensor : {&_gpu_in, &_gpu_out, &_gpu_error, &_gpu_in_error}) {
        tensor->set_device(vorn::GPU);
    }
    for (vorn::Tensor<float>* tensor : {&_mean, &_variance, &_batch_mean, &_batch_inv_std}) {
        tensor->set_device(vorn::GPU);
        tensor->resize(vorn::Dim(1, maps, 1, 1));
    }
}

void BatchNormLayer::initialise() {
    _scale.value.ones();
    _bias.value.zero();
    _mean.zero();
    _variance.ones();
}

vorn::Tensor<float>& BatchNormLayer::forward(const vorn::Tensor<float>& in, common::Pass pass) {
    const vorn::Tensor<float> x = on_gpu(in, &_gpu_in);
    compute_on_gpu(in.get_size(), &_out, &_gpu_out, [&](vorn::Tensor<float>& y) {
        if (pass == common::Pass::kTraining) {
            y.image_bat_norm_forward_train(kEachMap, 1, 0, x, _scale.value, _bias.value,
                                           kBatchShare, _mean, _variance, kEpsilon, _batch_mean,
                                           _batch_inv_std);
        } else {
            y.image_bat_norm_forward_inf(kEachMap, 1, 0, x, _scale.value, _bias.value, _mean,
                                         _variance, kEpsilon);
        }
    });
    return _out;
}

const vorn::Tensor<float>& BatchNormLayer::backward(const vorn::Tensor<float>& in,
                                                    const vorn::Tensor<float>& error) {
    // The host's images are still there from forward().
    const vorn::Tensor<float> x = is_on_gpu(in) ? in : _gpu_in;
    vorn::Tensor<float> dy = on_gpu(error, &_gpu_error);
    compute_on_gpu(in.get_size(), &_in_error, &_gpu_in_error, [&](vorn::Tensor<float>& dx) {
        dx.image_bat_norm_back(kEachMap, 1, 0, 1, 0, x, dy, _scale.value, _scale.gradient,
                               _bias.gradient, kEpsilon, _batch_mean, _batch_inv_std);
    });
    return _in_error;
}

}  // namespace vision
