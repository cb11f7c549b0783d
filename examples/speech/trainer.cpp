#include "trainer.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <utility>

#include "augment.h"
#include "common/error.h"
#include "recogniser.h"

namespace speech {

namespace {

constexpr double kGradientLimit = 5;
constexpr int kWholeEpoch = -1;

std::vector<const std::vector<int>*> labels_of(const std::vector<Sample>& samples) {
    std::vector<const std::vector<int>*> labels;
    for (const Sample& sample : samples) {
        labels.push_back(&sample.labels);
    }
    return labels;
}

/// Random numbers for an epoch, or for one of its utterances: the same on every rank, and in a run
/// that was interrupted.
common::Random random_for(std::uint64_t seed, int epoch, int utterance) {
    std::seed_seq mixed = {static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32),
                           static_cast<std::uint32_t>(epoch),
                           static_cast<std::uint32_t>(utterance)};
    return common::Random(mixed);
}

}  // namespace

Trainer::Trainer(Network* network, TrainingSet* samples, const TrainerOptions& options,
                 common::Ranks* ranks)
    : _network(network),
      _samples(samples),
      _options(options),
      _ranks(ranks),
      _parameters(network->parameters()),
      _gradients(_parameters, ranks),
      _optimizer(_parameters),
      _error(network->device()) {
    common::Random random(options.seed);
    network->initialise(&random);
    network->share_statistics(ranks);
    const std::int64_t count = samples->size();
    _updates_planned = (count + options.batch - 1) / options.batch * options.epochs;
}

double Trainer::train_batch(const std::vector<Sample>& share, int batch) {
    const auto ready = [this](const auto& parameters) { _gradients.ready(parameters); };
    const float weight = 1.0f / static_cast<float>(batch);
    // A rank without a share passes padding, because the others wait for it.
    const FrameBatch frames = share.empty()
                                  ? make_padding(_options.features.columns(), _network->device())
                                  : make_frame_batch(features_of(share), _network->device());
    const vorn::Tensor<float>& posteriors = _network->forward(frames, common::Pass::kTraining);
    _totals = {0, _wants_to_stop ? 1.0 : 0.0};
    if (share.empty()) {
        _error.resize(posteriors.get_size());
    } else {
        const LabelBatch labels = make_label_batch(labels_of(share), frames);
        _totals[0] = _loss.compute(posteriors, frames, labels, weight, &_error);
    }
    _ranks->start_sum(_totals.data(), _totals.size());
    _network->backward(frames, _error, ready);
    _gradients.finish();
    const double loss = _totals[0], norm = common::clip_gradients(_parameters, kGradientLimit);
    if (!std::isfinite(loss) || !std::isfinite(norm)) {
        throw common::Error(
            "training diverged: the loss is not finite; try a lower --learning-rate");
    }
    _optimizer.step(
        common::scheduled_rate(_options.learning_rate, _position.updates, _updates_planned));
    ++_position.updates;
    _own_frames += frames.valid_frames();
    return loss;
}

/// This rank's share of a batch, augmented.
std::vector<Sample> Trainer::prepare(const Indices& batch) {
    std::vector<Sample> share;
    for (const int i : share_of(batch, _samples->lengths(), _ranks->rank(), _ranks->size())) {
        share.push_back(_samples->read(i));
        if (_options.augment) {
            common::Random random = random_for(_options.seed, _position.epoch, i);
            augment(_options.features, &share.back().features, &random);
        }
    }
    return share;
}

double Trainer::run_epoch(const std::function<bool(std::int64_t, double)>& report) {
    common::Random random = random_for(_options.seed, _position.epoch, kWholeEpoch);
    const std::vector<Indices> batches = draw_batches(_samples->lengths(), _options.batch, &random);
    const auto prepare_next = [&] {
        // While the one before is trained on.
        return std::async(std::launch::async,
                          [&, next = _position.batches] { return prepare(batches[next]); });
    };
    const int count = static_cast<int>(batches.size());
    std::future<std::vector<Sample>> next;
    if (_position.batches < count) {
        next = prepare_next();
    }
    while (_position.batches < count) {
        const Indices& batch = batches[_position.batches];
        const std::vector<Sample> share = next.get();
        ++_position.batches;
        if (_position.batches < count) {
            next = prepare_next();
        }
        _position.loss += train_batch(share, static_cast<int>(batch.size()));
        _position.utterances += static_cast<double>(batch.size());
        for (const int i : batch) {
            _position.frames += _samples->lengths()[i];
        }
        const double mean_loss = _position.loss / _position.utterances;
        _wants_to_stop = !report(_position.frames, mean_loss);
        if (_totals[1] > 0) {
            return mean_loss;
        }
    }
    const double mean_loss = _position.loss / _position.utterances;
    TrainerPosition later;
    later.epoch = _position.epoch + 1;
    later.updates = _position.updates;
    _position = later;
    return mean_loss;
}

double Trainer::loss_of(const std::vector<Sample>& samples) {
    const std::vector<int> order = by_length(samples);
    double loss = 0;
    for (std::size_t begin = 0; begin < order.size(); begin += _options.batch) {
        std::vector<Sample> batch;
        for (std::size_t i = begin; i < std::min(begin + _options.batch, order.size()); ++i) {
            batch.push_back(samples[order[i]]);
        }
        const FrameBatch frames = make_frame_batch(features_of(batch), _network->device());
        const LabelBatch labels = make_label_batch(labels_of(batch), frames);
        loss += _loss.compute(_network->forward(frames, common::Pass::kInference), frames, labels);
    }
    return loss;
}

}  // namespace speech
