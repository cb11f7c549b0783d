#ifndef SPEECH_CONV_LAYER_H_
#define SPEECH_CONV_LAYER_H_

#include <string>
#include <vector>

#include "common/parameter.h"
#include "common/team.h"
#include "vorn/vorn.h"

namespace speech {

/// A convolution of filter banks along frequency, in groups of neighbouring filter positions of
/// equal size that have filters of their own, since low and high bands look different.
struct ConvShape {
    int bands = 32;       ///< length of the frequency axis
    int channels = 2;     ///< static features and deltas
    int filter_size = 9;  ///< bands under a filter
    int groups = 4;       ///< these share out the bands - filter_size + 1 positions evenly
    int filters = 32;     ///< of each group
    int pooling = 3;      ///< neighbouring positions of a group that become one

    int group_positions() const { return (bands - filter_size + 1) / groups; }
    /// Columns that the layer puts out.
    int outputs() const { return filters * groups * (group_positions() / pooling); }
};

/// Throws Error when the layer cannot be built on rows of `inputs` columns.
void validate(const ConvShape& shape, int inputs);

/// out = max(0, maximum of in * filters + bias over neighbouring positions), row by row. A feature
/// row holds stacked frame s, channel d and band q at (s * channels + d) * bands + q; an output
/// row holds filter k at pooled position p of all groups at k * (pooled positions) + p.
class ConvLayer {
public:
    /// The groups are tasks of `team`.
    ConvLayer(const std::string& name, const ConvShape& shape, int inputs, vorn::Device device,
              common::Team* team);

    void initialise(common::Random* random);
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in);
    /// Sets the gradients after a forward() from the error at the output, which it overwrites.
    void backward(vorn::Tensor<float>& error);
    /// After backward(): the gradient with respect to the features.
    vorn::Tensor<float>& input_error();
    std::vector<common::Parameter*> parameters() { return {&_weight, &_bias}; }

private:
    ConvShape _shape;
    common::Team* _team;
    int _patch;                               ///< columns of a patch
    common::Parameter _weight;                ///< (groups * patch) x filters
    common::Parameter _bias;                  ///< groups x filters
    vorn::Tensor<int> _first, _last, _sizes;  ///< filter positions of each group
    /// The elements of _first and _last, each a tensor.
    std::vector<vorn::Tensor<int>> _group_first, _group_last;

    // Of the latest batch; rows stand group by group, then frame by frame, but in _out.
    int _rows = 0;
    vorn::Tensor<float> _patches, _conv, _out, _conv_error, _patch_error, _in_error;
    vorn::Tensor<int> _max_idx;
};

}  // namespace speech

#endif  // SPEECH_CONV_LAYER_H_
