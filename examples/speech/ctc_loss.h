#ifndef SPEECH_CTC_LOSS_H_
#define SPEECH_CTC_LOSS_H_

#include "ctc_batch.h"
#include "vorn/vorn.h"

namespace speech {

/// Connectionist temporal classification: the loss of an utterance is the negative logarithm of
/// the probability that the network's posteriors give to its transcript, summed over all ways to
/// spread the labels over the frames. The tables are always made on the GPU; for a network on the
/// host the posteriors go over and the occupancies come back.
class CtcLoss {
public:
    /// The loss of each utterance, summed. `posteriors` are the softmax outputs of the network,
    /// frames.rows() x classes. `error` becomes the gradient of `weight` times that sum with
    /// respect to the softmax inputs, on the device of the posteriors, and zero at padding.
    /// Every transcript must fit its frames.
    double compute(const vorn::Tensor<float>& posteriors, const FrameBatch& frames,
                   const LabelBatch& labels, float weight, vorn::Tensor<float>* error);

    /// The loss alone.
    double compute(const vorn::Tensor<float>& posteriors, const FrameBatch& frames,
                   const LabelBatch& labels);

private:
    double fill_alpha(const vorn::Tensor<float>& posteriors, const FrameBatch& frames,
                      const LabelBatch& labels);

    vorn::Tensor<float> _log_posteriors;  ///< on the network's device
    // On the GPU:
    vorn::Tensor<float> _prob{vorn::GPU};
    vorn::Tensor<float> _alpha{vorn::GPU};
    vorn::Tensor<float> _beta{vorn::GPU};
    vorn::Tensor<float> _pzx{vorn::GPU};
    vorn::Tensor<float> _occupancy{vorn::GPU};
    std::vector<float> _table;  ///< the alpha table on the host
};

}  // namespace speech

#endif  // SPEECH_CTC_LOSS_H_
