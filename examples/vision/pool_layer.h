#ifndef VISION_POOL_LAYER_H_
#define VISION_POOL_LAYER_H_

#include "vorn/vorn.h"

namespace vision {

/// The maximum of each square of two by two pixels, of images with even sides: of odd ones the host
/// pools the last row and column on its own, and a GPU leaves them out.
class PoolLayer {
public:
    static constexpr int kStep = 2;

    explicit PoolLayer(vorn::Device device)
        : _desc(kStep, kStep, kStep, kStep, vorn::MAX_POOLING_TYPE),
          _out(device),
          _in_error(device) {}

    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in);
    /// The error at the input of the latest forward(), from that at its output.
    vorn::Tensor<float>& backward(const vorn::Tensor<float>& in, const vorn::Tensor<float>& error);

private:
    vorn::PoolingDesc _desc;
    vorn::Tensor<float> _out, _in_error;
};

}  // namespace vision

#endif  // VISION_POOL_LAYER_H_
