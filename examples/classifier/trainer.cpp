#include "classifier/trainer.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "common/error.h"

namespace classifier {

namespace {

constexpr double kGradientLimit = 5;

}  // namespace

Trainer::Trainer(Network* network, const digit_images::ImageSet* images,
                 const TrainerOptions& options)
    : _network(network),
      _images(images),
      _options(options),
      _parameters(network->parameters()),
      _optimizer(_parameters),
      _objective(network->device()),
      _maker(network->device()),
      _random(options.seed),
      _order(images->count()) {
    vorn::seed_thread_context(options.seed);
    network->initialise(&_random);
    std::iota(_order.begin(), _order.end(), 0);
    const std::int64_t per_epoch = (images->count() + options.batch - 1) / options.batch;
    _updates_planned = per_epoch * options.epochs;
}

void Trainer::train_batch(const Batch& batch) {
    const vorn::Tensor<float>& posteriors =
        _network->forward(batch.images, common::Pass::kTraining);
    _objective.compute(posteriors, batch.labels);
    _network->backward(batch.images, _objective.error(posteriors, batch.labels));
    const double norm = common::clip_gradients(_parameters, kGradientLimit);
    if (!std::isfinite(_objective.mean_loss()) || !std::isfinite(norm)) {
        throw common::Error(
            "training diverged: the loss is not finite; try a lower --learning-rate");
    }
    _optimizer.step(common::scheduled_rate(_options.learning_rate, _updates, _updates_planned));
    ++_updates;
}

digit_images::TrainingState Trainer::run_epoch(const digit_images::Report& report) {
    common::shuffle(&_order, &_random);
    digit_images::TrainingState state;
    const int count = _images->count();
    for (int begin = 0; begin < count; begin += _options.batch) {
        const int size = std::min(_options.batch, count - begin);
        const int* first = _order.data() + begin;
        train_batch(_maker.make(*_images, first, first + size, &_random));
        state.images += size;
        state.add(_objective);
        if (!report(state)) {
            break;
        }
    }
    return state;
}

}  // namespace classifier
