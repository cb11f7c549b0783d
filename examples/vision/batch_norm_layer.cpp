#include "vision/batch_norm_layer.h"

#include "vision/fit.h"

namespace vision {

namespace {

constexpr float kEpsilon = 1e-4f;
/// A batch's share in the running means.
constexpr float kBatchShare = 0.02f;
constexpr vorn::BatNormType kEachMap = vorn::NORM_1C11;

/// `images` itself where they lie on the GPU, and else `copy`, which takes them there.
vorn::Tensor<float>& on_gpu(vorn::Tensor<float>& images, vorn::Tensor<float>& copy) {
    if (vorn::is_gpu_device(images.get_device())) {
        return images;
    }
    fit(images.get_size(), &copy);
    copy.copy_from(images);
    return copy;
}

}  // namespace

BatchNormLayer::BatchNormLayer(const std::string& name, int maps, vorn::Device device)
    : _name(name),
      _scale(name + ".scale", vorn::Dim(1, maps, 1, 1), vorn::GPU),
      _bias(name + ".bias", vorn::Dim(1, maps, 1, 1), vorn::GPU),
      _out(device),
      _gpu_in(vorn::GPU),
      _gpu_out(vorn::GPU),
      _gpu_error(vorn::GPU) {
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
    vorn::Tensor<float> images = in;
    const vorn::Tensor<float>& x = on_gpu(images, _gpu_in);
    fit(in.get_size(), &_out);
    vorn::Tensor<float>& y = vorn::is_gpu_device(_out.get_device()) ? _out : _gpu_out;
    fit(in.get_size(), &y);
    if (pass == common::Pass::kTraining) {
        y.image_bat_norm_forward_train(kEachMap, 1, 0, x, _scale.value, _bias.value, kBatchShare,
                                       _mean, _variance, kEpsilon, _batch_mean, _batch_inv_std);
    } else {
        y.image_bat_norm_forward_inf(kEachMap, 1, 0, x, _scale.value, _bias.value, _mean, _variance,
                                     kEpsilon);
    }
    if (&y != &_out) {
        _out.copy_from(y);
    }
    return _out;
}

void BatchNormLayer::backward(const vorn::Tensor<float>& in, vorn::Tensor<float>& error) {
    vorn::Tensor<float> images = in;
    // The host's images are still there from forward().
    const vorn::Tensor<float>& x = vorn::is_gpu_device(in.get_device()) ? images : _gpu_in;
    vorn::Tensor<float>& dy = on_gpu(error, _gpu_error);
    // Its output is not needed any more.
    vorn::Tensor<float>& dx = vorn::is_gpu_device(_out.get_device()) ? _out : _gpu_out;
    dx.image_bat_norm_back(kEachMap, 1, 0, 1, 0, x, dy, _scale.value, _scale.gradient,
                           _bias.gradient, kEpsilon, _batch_mean, _batch_inv_std);
    error.copy_from(dx);
}

}  // namespace vision
