#ifndef VISION_ROI_POOL_LAYER_H_
#define VISION_ROI_POOL_LAYER_H_

#include "vorn/vorn.h"

namespace vision {

/// Windows of any size on maps become rows of one length: the maxima of the bins of a grid over
/// each window, in each map (Girshick, "Fast R-CNN", ICCV 2015).
class RoiPoolLayer {
public:
    /// `grid` is the side of the grid, and `step` the pixels of the page to a cell of the maps.
    RoiPoolLayer(int grid, int step, vorn::Device device)
        : _desc(grid, grid, 1 / static_cast<float>(step)),
          _out(device),
          _in_error(device),
          _winners(device) {}

    /// windows x (maps * grid * grid). `windows` is (R, 5, 1, 1): the page, then the first column
    /// and row and the last ones, in pixels of the page.
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in,
                                       const vorn::Tensor<float>& windows);
    /// The error at the input of the latest forward(), from that at its output.
    vorn::Tensor<float>& backward(const vorn::Tensor<float>& in, const vorn::Tensor<float>& windows,
                                  const vorn::Tensor<float>& error);

private:
    vorn::ROIPoolingDesc _desc;
    vorn::Tensor<float> _out, _in_error;
    vorn::Tensor<int> _winners;
};

}  // namespace vision

#endif  // VISION_ROI_POOL_LAYER_H_
