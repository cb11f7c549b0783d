#include "trainer.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

#include "augment.h"
#include "common/error.h"
#include "recogniser.h"

namespace speech {

namespace {

constexpr double kGradientLimit = 5;
/// Batches that are cut from one sorted stretch of the shuffled samples: like lengths make little
/// padding.
constexpr std::size_t kBatchesPerStretch = 8;

std::vector<const std::vector<int>*> labels_of(const std::vector<const Sample*>& samples) {
    std::vector<const std::vector<int>*> labels;
    for (const Sample* sample : samples) {
        labels.push_back(&sample->labels);
    }
    return labels;
}

}  // namespace

Trainer::Trainer(Network* network, const std::vector<Sample>* samples,
                 const TrainerOptions& options)
    : _network(network),
      _samples(samples),
      _options(options),
      _parameters(network->parameters()),
      _optimizer(_parameters),
      _error(network->device()),
      _random(options.seed) {
    network->initialise(&_random);
    for (const Sample& sample : *samples) {
        _frames += sample.features.rows;
    }
    const auto count = static_cast<std::int64_t>(samples->size());
    _updates_planned = (count + options.batch - 1) / options.batch * options.epochs;
}

std::vector<std::vector<const Sample*>> Trainer::draw_batches() {
    std::vector<const Sample*> order;
    for (const Sample& sample : *_samples) {
        order.push_back(&sample);
    }
    common::shuffle(&order, &_random);
    const std::size_t size = _options.batch;
    std::vector<std::vector<const Sample*>> batches;
    for (std::size_t begin = 0; begin < order.size(); begin += kBatchesPerStretch * size) {
        const auto first = order.begin() + begin;
        const auto last = order.begin() + std::min(begin + kBatchesPerStretch * size, order.size());
        std::stable_sort(first, last, [](const Sample* a, const Sample* b) {
            return a->features.rows < b->features.rows;
        });
        for (auto at = first; at < last; at += std::min<std::ptrdiff_t>(size, last - at)) {
            batches.emplace_back(at, at + std::min<std::ptrdiff_t>(size, last - at));
        }
    }
    common::shuffle(&batches, &_random);
    return batches;
}

double Trainer::train_batch(const std::vector<const Sample*>& batch) {
    const FrameBatch frames = make_frame_batch(features_of(batch), _network->device());
    const LabelBatch labels = make_label_batch(labels_of(batch), frames);
    const double loss =
        _loss.compute(_network->forward(frames, common::Pass::kTraining), frames, labels, &_error);
    _network->backward(frames, _error);
    const double norm = common::clip_gradients(_parameters, kGradientLimit);
    if (!std::isfinite(loss) || !std::isfinite(norm)) {
        throw common::Error(
            "training diverged: the loss is not finite; try a lower --learning-rate");
    }
    _optimizer.step(common::scheduled_rate(_options.learning_rate, _updates, _updates_planned));
    ++_updates;
    return loss;
}

double Trainer::train_augmented(const std::vector<const Sample*>& batch) {
    std::vector<Sample> samples;
    samples.reserve(batch.size());
    std::vector<const Sample*> augmented;
    for (const Sample* sample : batch) {
        samples.push_back(*sample);
        augment(_options.features, &samples.back().features, &_random);
        augmented.push_back(&samples.back());
    }
    return train_batch(augmented);
}

double Trainer::run_epoch(const std::function<bool(std::int64_t, double)>& report) {
    std::int64_t frames = 0;
    double loss = 0;
    double utterances = 0;
    for (const std::vector<const Sample*>& batch : draw_batches()) {
        loss += _options.augment ? train_augmented(batch) : train_batch(batch);
        utterances += static_cast<double>(batch.size());
        for (const Sample* sample : batch) {
            frames += sample->features.rows;
        }
        if (!report(frames, loss / utterances)) {
            break;
        }
    }
    return loss / utterances;
}

double Trainer::mean_loss(const std::vector<Sample>& samples) {
    const std::vector<int> order = by_length(samples);
    double loss = 0;
    for (std::size_t begin = 0; begin < order.size(); begin += _options.batch) {
        std::vector<const Sample*> batch;
        for (std::size_t i = begin; i < std::min(begin + _options.batch, order.size()); ++i) {
            batch.push_back(&samples[order[i]]);
        }
        const FrameBatch frames = make_frame_batch(features_of(batch), _network->device());
        const LabelBatch labels = make_label_batch(labels_of(batch), frames);
        loss += _loss.compute(_network->forward(frames, common::Pass::kInference), frames, labels);
    }
    return loss / static_cast<double>(samples.size());
}

}  // namespace speech
