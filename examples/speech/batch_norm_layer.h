#ifndef SPEECH_BATCH_NORM_LAYER_H_
#define SPEECH_BATCH_NORM_LAYER_H_

#include <string>
#include <vector>

#include "common/parameter.h"
#include "common/ranks.h"
#include "ctc_batch.h"
#include "vorn/vorn.h"

namespace speech {

/// Batch normalization (Ioffe and Szegedy, 2015) of each column over the frames of all utterances;
/// padding counts for nothing and becomes zero. Training normalizes with the mean and variance of
/// the batch itself, which makes its gradient exact, and gathers both in sums that slowly forget;
/// inference normalizes with those.
class BatchNormLayer {
public:
    BatchNormLayer(const std::string& name, int columns, vorn::Device device);

    void initialise();
    /// From now on training normalizes with the mean and variance of the batches of all ranks,
    /// which call train() and backward() at the same time. So they make the same model as one rank
    /// with all their utterances.
    void share_statistics(common::Ranks* ranks) { _ranks = ranks; }
    /// Normalizes with the statistics of `in`, and remembers them.
    const vorn::Tensor<float>& train(const vorn::Tensor<float>& in, const FrameBatch& batch);
    /// Normalizes with the statistics that were gathered in training.
    const vorn::Tensor<float>& infer(const vorn::Tensor<float>& in, const FrameBatch& batch);
    /// After train() of `in`: sets the gradients from the error at the output, and makes of it the
    /// error at the input.
    void backward(const vorn::Tensor<float>& in, const FrameBatch& batch,
                  vorn::Tensor<float>& error);
    std::vector<common::Parameter*> parameters() { return {&_scale, &_bias}; }
    std::vector<common::NamedTensor> statistics() {
        return {{_name + ".mean_sum", &_mean_sum},
                {_name + ".variance_sum", &_variance_sum},
                {_name + ".batches", &_batches}};
    }

private:
    bool is_shared() const { return _ranks != nullptr && _ranks->size() > 1; }
    void train_shared(const vorn::Tensor<float>& in, const FrameBatch& batch);
    void add_other_ranks(const vorn::Tensor<float>& in, const FrameBatch& batch,
                         vorn::Tensor<float>& error);

    std::string _name;
    common::Ranks* _ranks = nullptr;
    common::Parameter _scale;
    common::Parameter _bias;
    // Sums over all batches so far, older ones counting for less, and the sum of what they count.
    vorn::Tensor<float> _mean_sum, _variance_sum, _batches;
    // Of the latest batch.
    vorn::Tensor<float> _mean, _variance, _saved_mean, _saved_inv_std, _out;
    double _all_frames = 0;  ///< of all ranks
    vorn::Tensor<float> _unread_mean_sum, _unread_variance_sum;
    vorn::Tensor<float> _correction, _factor, _offset;
    vorn::Tensor<float> _inv_std, _ones;  ///< for inference
};

}  // namespace speech

#endif  // SPEECH_BATCH_NORM_LAYER_H_
