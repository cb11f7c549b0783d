#ifndef VISION_NETWORK_H_
#define VISION_NETWORK_H_

#include <cstdint>
#include <vector>

#include "common/dropout.h"
#include "common/linear_layer.h"
#include "common/parameter.h"
#include "common/pass.h"
#include "vision/batch_norm_layer.h"
#include "vision/conv_layer.h"
#include "vision/pool_layer.h"
#include "vision/roi_pool_layer.h"
#include "vorn/vorn.h"

namespace vision {

/// What a network is built of; stored with the model.
struct NetworkShape {
    int filters = 16;     ///< of the first convolution; the others have twice as many
    int filter_side = 5;  ///< of the first convolution; that of the others is 3
    int grid = 7;         ///< side of the grid of bins over a window
    int hidden = 128;     ///< units of the hidden layer
    int classes = 0;
};

/// Throws Error when the shape cannot be built, as it may when it comes from a damaged file.
void validate(const NetworkShape& shape);

/// The number of values of all parameters and statistics of a valid shape.
std::int64_t value_count(const NetworkShape& shape);

/// Reads windows of pages. A page goes through three convolutions, each with batch normalization
/// and max(x, 0), and through pooling after the first sums; pooling before the other two, which
/// rise with their input as long as the scale is positive, saves three quarters of them. The maps
/// of a page are computed once for all windows. A grid of maxima over each window goes through a
/// hidden layer, of which training drops units, to a softmax.
class Network {
public:
    /// All parameters are zero. Throws Error as validate() does.
    Network(const NetworkShape& shape, float dropout, vorn::Device device);

    /// Random weights of the scale that keeps the size of signals from layer to layer (He et al.,
    /// "Delving deep into rectifiers", ICCV 2015).
    void initialise(common::Random* random);

    /// The posteriors, windows x classes, of the windows of a batch of pages (N, 1, H, W) with even
    /// sides; good until the next call. RoiPoolLayer says how windows are given.
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& pages,
                                       const vorn::Tensor<float>& windows, common::Pass pass);

    /// After a training forward() of the same batch: sets the gradients of all parameters from the
    /// gradient of the loss with respect to the softmax inputs.
    void backward(const vorn::Tensor<float>& pages, const vorn::Tensor<float>& windows,
                  const vorn::Tensor<float>& error);

    /// All parameters.
    std::vector<common::Parameter*> parameters();
    /// All that a model file holds, in its order there.
    std::vector<common::NamedTensor> tensors();
    /// The weights of the first convolution, (filters, 1, side, side).
    const vorn::Tensor<float>& first_filters() { return _conv1.parameters().front()->value; }

    vorn::Device device() const { return _device; }

private:
    vorn::Device _device;
    ConvLayer _conv1, _conv2, _conv3;
    BatchNormLayer _norm1, _norm2, _norm3;
    PoolLayer _pool1;
    RoiPoolLayer _roi_pool;
    common::LinearLayer _hidden;
    common::Dropout _dropout;
    common::LinearLayer _last;

    // Of the latest batch: views of what the layers put out.
    vorn::Tensor<float> _sums1, _pooled1, _maps1, _sums2, _maps2, _sums3, _maps3, _grids, _units,
        _kept;
    vorn::Tensor<float> _posteriors;
};

}  // namespace vision

#endif  // VISION_NETWORK_H_
