#ifndef SPEECH_TRAINER_H_
#define SPEECH_TRAINER_H_

#include <cstdint>
#include <functional>
#include <future>
#include <vector>

#include "batches.h"
#include "common/gradient_sum.h"
#include "common/optimizer.h"
#include "common/ranks.h"
#include "ctc_loss.h"
#include "network.h"
#include "training_set.h"

namespace speech {

struct TrainerOptions {
    int epochs = 30;
    int batch = 16;  ///< utterances, of all ranks together
    double learning_rate = 4e-3;
    std::uint64_t seed = 1;
    FeatureOptions features;  ///< that the samples were made with
    bool augment = true;      ///< see augment.h
};

/// Where training stands. With the network, its statistics and the optimiser, all that the rest of
/// the run depends on: random numbers are drawn anew from the seed, the epoch and the utterance.
struct TrainerPosition {
    int epoch = 1;    ///< from 1
    int batches = 0;  ///< done in this epoch
    std::int64_t updates = 0;
    // Of this epoch so far, all ranks together.
    std::int64_t frames = 0;
    double utterances = 0;
    double loss = 0;
};

/// Trains a network with CTC and Adam on one rank or more. All ranks draw the same batches; each
/// computes the gradients of its share of the utterances, and all make the same update with their
/// sum. The same seed gives the same network, bit for bit on the host with any number of threads
/// and, up to rounding, with any number of ranks. The calling thread has its GPU context set up.
class Trainer {
public:
    /// `samples` are normalised, and their frames can carry their labels.
    Trainer(Network* network, TrainingSet* samples, const TrainerOptions& options,
            common::Ranks* ranks);

    /// The rest of the epoch at which the position stands, and then the position moves to the next.
    /// Calls `report(frames done, mean loss so far)` after each batch. Where that returns false on
    /// any rank, all ranks stop after the next batch, amid the epoch: the position tells. Returns
    /// the mean loss of an utterance. Throws Error when the loss is not finite any more.
    double run_epoch(const std::function<bool(std::int64_t, double)>& report);

    /// One update from this rank's share of a batch of so many utterances on all ranks, as they
    /// are; returns the sum of the whole batch's losses before it.
    double train_batch(const std::vector<Sample>& share, int batch);

    /// The losses of the samples, summed, without an update.
    double loss_of(const std::vector<Sample>& samples);

    std::int64_t frames_per_epoch() const { return _samples->frames(); }
    /// Frames of its own that this rank has trained on since the program began.
    std::int64_t own_frames() const { return _own_frames; }
    TrainerPosition& position() { return _position; }
    common::Adam& optimizer() { return _optimizer; }

private:
    std::vector<Sample> prepare(const Indices& batch);

    Network* _network;
    TrainingSet* _samples;
    TrainerOptions _options;
    common::Ranks* _ranks;
    std::vector<common::Parameter*> _parameters;
    common::GradientSum _gradients;
    common::Adam _optimizer;
    CtcLoss _loss;
    vorn::Tensor<float> _error;
    TrainerPosition _position;
    std::int64_t _updates_planned = 0;
    std::int64_t _own_frames = 0;
    bool _wants_to_stop = false;
    std::vector<double> _totals;  ///< of a batch: loss, and ranks that want to stop
};

}  // namespace speech

#endif  // SPEECH_TRAINER_H_
