#ifndef SPEECH_CONV_BLSTM_H_
#define SPEECH_CONV_BLSTM_H_

#include <memory>
#include <vector>

#include "batch_norm_layer.h"
#include "blstm_layer.h"
#include "common/linear_layer.h"
#include "common/team.h"
#include "conv_layer.h"
#include "network.h"

namespace speech {

/// A convolution along frequency, batch normalization, LSTM layers in both directions of time, a
/// linear layer and a softmax.
class ConvBlstmNetwork : public Network {
public:
    ConvBlstmNetwork(const NetworkShape& shape, vorn::Device device, common::Team* team);

    void initialise(common::Random* random) override;
    const vorn::Tensor<float>& forward(const FrameBatch& batch, common::Pass pass) override;
    void backward(const FrameBatch& batch, const vorn::Tensor<float>& error,
                  const common::GradientsReady& ready) override;
    std::vector<common::Parameter*> parameters() override;
    std::vector<common::NamedTensor> statistics() override { return _norm.statistics(); }
    void share_statistics(common::Ranks* ranks) override { _norm.share_statistics(ranks); }

private:
    ConvLayer _conv;
    BatchNormLayer _norm;
    std::vector<std::unique_ptr<BlstmLayer>> _layers;
    common::LinearLayer _linear;

    // Of the latest batch; views of what went into the normalization and into each later layer.
    vorn::Tensor<int> _lengths;
    vorn::Tensor<float> _conv_out;
    std::vector<vorn::Tensor<float>> _inputs;
    vorn::Tensor<float> _posteriors;
};

}  // namespace speech

#endif  // SPEECH_CONV_BLSTM_H_
