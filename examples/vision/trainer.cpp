#include "vision/trainer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "common/error.h"
#include "digit_images/augment.h"
#include "digit_images/frame.h"
#include "vision/windows.h"

namespace vision {

namespace {

constexpr double kGradientLimit = 5;
constexpr int kPageSide = 96;
constexpr int kClutter = 2;
/// What fits no better than this holds no digit.
constexpr double kEmptyOverlap = 0.4;

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
      _order(images->count()),
      _pages(kPageSide, kPageSide, &_random) {
    vorn::seed_thread_context(options.seed);
    network->initialise(&_random);
    std::iota(_order.begin(), _order.end(), 0);
}

/// Of the images from *next on, as many as find room.
Page Trainer::make_page(int* next) {
    std::array<float, digit_images::kFramePixels> image;
    for (int i = 0; i < kMostDigitsOnPage && *next < _images->count(); ++i, ++*next) {
        const int chosen = _order[*next];
        digit_images::augment(_images->image(chosen), &_random, image.data());
        _pages.add_digit(image.data(), _images->labels[chosen]);
    }
    for (int i = 0; i < kClutter; ++i) {
        _pages.add_clutter();
    }
    return _pages.finish();
}

void Trainer::add_windows(const Page& page) {
    const auto off_by_one = [this] { return static_cast<int>(common::uniform(&_random) * 3) - 1; };
    for (const PlacedDigit& placed : page.digits) {
        const Box& box = placed.box;
        _maker.add_window({box.left + off_by_one(), box.top + off_by_one(),
                           box.right + off_by_one(), box.bottom + off_by_one()},
                          placed.digit);
    }
    for (const Box& box : candidate_boxes(page)) {
        if (std::all_of(page.digits.begin(), page.digits.end(), [&](const PlacedDigit& placed) {
                return overlap(placed.box, box) < kEmptyOverlap;
            })) {
            _maker.add_window(box, kNoDigit);
        }
    }
}

void Trainer::train_batch(const Batch& batch) {
    const vorn::Tensor<float>& posteriors =
        _network->forward(batch.pages, batch.windows, common::Pass::kTraining);
    _objective.compute(posteriors, batch.labels);
    _network->backward(batch.pages, batch.windows, _objective.error(posteriors, batch.labels));
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
    const int per_batch = _options.batch * kMostDigitsOnPage;
    _updates_planned =
        std::int64_t{(_images->count() + per_batch - 1) / per_batch} * _options.epochs;
    while (state.images < _images->count()) {
        for (int i = 0; i < _options.batch && state.images < _images->count(); ++i) {
            const Page page = make_page(&state.images);
            _maker.add_page(page);
            add_windows(page);
        }
        if (_maker.windows() == 0) {
            throw common::Error("the training images are blank");
        }
        train_batch(_maker.finish());
        state.add(_objective);
        if (!report(state)) {
            break;
        }
    }
    return state;
}

}  // namespace vision
