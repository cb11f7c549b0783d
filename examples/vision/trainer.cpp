#include "vision/trainer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <future>
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

/// Around each digit, a pixel off at most, and where the search would look and there is none.
void add_windows(const Page& page, common::Random* random, HostBatch* batch) {
    const auto off_by_one = [random] { return static_cast<int>(common::uniform(random) * 3) - 1; };
    for (const PlacedDigit& placed : page.digits) {
        const Box& box = placed.box;
        batch->add_window({box.left + off_by_one(), box.top + off_by_one(),
                           box.right + off_by_one(), box.bottom + off_by_one()},
                          placed.digit);
    }
    for (const Box& box : candidate_boxes(page)) {
        if (std::all_of(page.digits.begin(), page.digits.end(), [&](const PlacedDigit& placed) {
                return overlap(placed.box, box) < kEmptyOverlap;
            })) {
            batch->add_window(box, kNoDigit);
        }
    }
}

}  // namespace

Trainer::Trainer(Network* network, const digit_images::ImageSet* images,
                 const TrainerOptions& options)
    : _network(network),
      _images(images),
      _options(options),
      _parameters(network->parameters()),
      _optimizer(_parameters),
      _objective(network->device()),
      _batch(network->device()),
      _random(options.seed),
      _order(images->count()),
      _pages(kPageSide, kPageSide, &_random) {
    vorn::seed_thread_context(options.seed);
    network->initialise(&_random);
    std::iota(_order.begin(), _order.end(), 0);
}

/// Of the next images, as many as find room.
Page Trainer::make_page() {
    std::array<float, digit_images::kFramePixels> image;
    for (int i = 0; i < kMostDigitsOnPage && _next < _images->count(); ++i, ++_next) {
        const int chosen = _order[_next];
        digit_images::augment(_images->image(chosen), &_random, image.data());
        _pages.add_digit(image.data(), _images->labels[chosen]);
    }
    for (int i = 0; i < kClutter; ++i) {
        _pages.add_clutter();
    }
    return _pages.finish();
}

HostBatch Trainer::make_batch() {
    HostBatch batch;
    for (int i = 0; i < _options.batch && _next < _images->count(); ++i) {
        const Page page = make_page();
        batch.add_page(page);
        add_windows(page, &_random, &batch);
    }
    if (batch.size() == 0) {
        throw common::Error("the training images are blank");
    }
    return batch;
}

void Trainer::train_batch() {
    const vorn::Tensor<float>& posteriors =
        _network->forward(_batch.pages, _batch.windows, common::Pass::kTraining);
    _objective.compute(posteriors, _batch.labels);
    _network->backward(_batch.pages, _batch.windows, _objective.error(posteriors, _batch.labels));
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
    _next = 0;
    const int per_batch = _options.batch * kMostDigitsOnPage;
    _updates_planned =
        std::int64_t{(_images->count() + per_batch - 1) / per_batch} * _options.epochs;
    const auto start_batch = [this] {
        return std::async(std::launch::async, [this] { return make_batch(); });
    };
    digit_images::TrainingState state;
    std::future<HostBatch> coming = start_batch();
    while (coming.valid()) {
        _batch.set(coming.get());
        state.images = _next;
        if (_next < _images->count()) {
            coming = start_batch();
        }
        train_batch();
        state.add(_objective);
        if (!report(state)) {
            break;
        }
    }
    return state;
}

}  // namespace vision
