#ifndef VISION_CONV_LAYER_H_
#define VISION_CONV_LAYER_H_

#include <string>
#include <vector>

#include "common/parameter.h"
#include "vorn/vorn.h"

namespace vision {

/// out = in convolved with square filters, on images (N, maps, H, W) with zeros around them, so
/// that H and W stay. There is no bias: a batch normalization that has one follows.
class ConvLayer {
public:
    /// `side` is that of the filters, and odd.
    ConvLayer(const std::string& name, int in_maps, int out_maps, int side, vorn::Device device);

    /// Weights evenly distributed up to gain / sqrt(values under a filter).
    void initialise(common::Random* random, float gain);
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in);
    /// Sets the gradient from the error at the output.
    void backward(const vorn::Tensor<float>& in, const vorn::Tensor<float>& error);
    /// The error at the input, from that at the output; good until the next call.
    vorn::Tensor<float>& input_error(const vorn::Tensor<float>& in,
                                     const vorn::Tensor<float>& error);
    std::vector<common::Parameter*> parameters() { return {&_weight}; }

private:
    void plan(const vorn::Tensor<float>& in);
    void* work_space() { return _work_space.get_ptr(); }
    vorn::index_t work_space_size() const { return _work_space.count() * sizeof(float); }

    vorn::ConvDesc _desc;
    common::Parameter _weight;  ///< out maps x in maps x side x side
    vorn::Dim _planned;         ///< the size of images that _desc and _work_space are made for
    vorn::Tensor<float> _work_space;
    vorn::Tensor<float> _out, _in_error;
};

}  // namespace vision

#endif  // VISION_CONV_LAYER_H_
