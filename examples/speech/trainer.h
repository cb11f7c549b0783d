#ifndef SPEECH_TRAINER_H_
#define SPEECH_TRAINER_H_

#include <cstdint>
#include <functional>
#include <vector>

#include "common/optimizer.h"
#include "ctc_loss.h"
#include "dataset.h"
#include "network.h"

namespace speech {

struct TrainerOptions {
    int epochs = 30;
    int batch = 16;  ///< utterances
    double learning_rate = 4e-3;
    std::uint64_t seed = 1;
    FeatureOptions features;  ///< that the samples were made with
    bool augment = true;      ///< see augment.h
};

/// Trains a network with CTC and Adam. The same seed gives the same network, bit for bit on the
/// host with any number of threads. The calling thread has its GPU
/// context set up.
class Trainer {
public:
    /// `samples` are normalised, and their frames can carry their labels.
    Trainer(Network* network, const std::vector<Sample>* samples, const TrainerOptions& options);

    /// One pass over all samples, in a new order. Calls `report(frames done, mean loss so far)`
    /// after each batch and stops early when it returns false. Returns the mean loss of an
    /// utterance. Throws Error when the loss is not finite any more.
    double run_epoch(const std::function<bool(std::int64_t, double)>& report);

    /// One update from the given samples as they are; returns the sum of their losses before it.
    double train_batch(const std::vector<const Sample*>& batch);

    /// The mean loss of an utterance, without an update.
    double mean_loss(const std::vector<Sample>& samples);

    std::int64_t frames_per_epoch() const { return _frames; }

private:
    std::vector<std::vector<const Sample*>> draw_batches();
    double train_augmented(const std::vector<const Sample*>& batch);

    Network* _network;
    const std::vector<Sample>* _samples;
    TrainerOptions _options;
    std::vector<common::Parameter*> _parameters;
    common::Adam _optimizer;
    CtcLoss _loss;
    vorn::Tensor<float> _error;
    common::Random _random;
    std::int64_t _frames = 0;
    std::int64_t _updates = 0;
    std::int64_t _updates_planned = 0;
};

}  // namespace speech

#endif  // SPEECH_TRAINER_H_
