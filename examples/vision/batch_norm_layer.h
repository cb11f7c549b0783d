#ifndef VISION_BATCH_NORM_LAYER_H_
#define VISION_BATCH_NORM_LAYER_H_

#include <string>
#include <vector>

#include "common/parameter.h"
#include "common/pass.h"
#include "vorn/vorn.h"

namespace vision {

/// Batch normalization (Ioffe and Szegedy, 2015) of each map over all images and places:
///
///     out = scale * (in - mean) / sqrt(variance + epsilon) + bias.
///
/// Training takes the statistics of the batch and remembers running means of them, which inference
/// takes. The library normalizes images on a GPU only. The parameters and statistics lie there, and
/// images of the host are copied to it and back.
class BatchNormLayer {
public:
    /// `device` is that of the images.
    BatchNormLayer(const std::string& name, int maps, vorn::Device device);

    void initialise();
    /// The result is the layer's own to change, and good until the next call.
    vorn::Tensor<float>& forward(const vorn::Tensor<float>& in, common::Pass pass);
    /// After a training forward() of `in`: sets the gradients from the error at the output, and
    /// returns the error at the input.
    const vorn::Tensor<float>& backward(const vorn::Tensor<float>& in,
                                        const vorn::Tensor<float>& error);
    std::vector<common::Parameter*> parameters() { return {&_scale, &_bias}; }
    std::vector<common::NamedTensor> statistics() {
        return {{_name + ".mean", &_mean}, {_name + ".variance", &_variance}};
    }

private:
    std::string _name;
    common::Parameter _scale, _bias;
    vorn::Tensor<float> _mean, _variance;  ///< running means
    vorn::Tensor<float> _batch_mean, _batch_inv_std;
    vorn::Tensor<float> _out, _in_error;
    // What the host's images become on the GPU.
    vorn::Tensor<float> _gpu_in, _gpu_out, _gpu_error, _gpu_in_error;
};

}  // namespace vision

#endif  // VISION_BATCH_NORM_LAYER_H_
