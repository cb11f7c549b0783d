#ifndef VISION_TRAINER_H_
#define VISION_TRAINER_H_

#include <cstdint>
#include <vector>

#include "common/cross_entropy.h"
#include "common/optimizer.h"
#include "digit_images/image_set.h"
#include "digit_images/training_run.h"
#include "vision/batch.h"
#include "vision/network.h"
#include "vision/page.h"

namespace vision {

struct TrainerOptions {
    int epochs = 0;
    int batch = 0;  ///< pages
    double learning_rate = 0;
    std::uint64_t seed = 1;
};

/// The most digits on a page of training.
constexpr int kMostDigitsOnPage = 10;

/// Trains a network with cross entropy and Adam on pages of augmented images. It looks at each
/// digit, and at the windows that the search on a page would offer and that hold none. The calling
/// thread has its context set up. The same seed gives the same network, bit for bit on the host
/// where the BLAS computes with the same number of threads.
class Trainer {
public:
    Trainer(Network* network, const digit_images::ImageSet* images, const TrainerOptions& options);

    /// One pass over all images, in a new order; a few find no room on their page and are left out.
    /// Calls `report` after each batch and stops early when it returns false. Throws Error when the
    /// loss is not finite any more.
    digit_images::TrainingState run_epoch(const digit_images::Report& report);

private:
    Page make_page();
    HostBatch make_batch();
    void train_batch();

    Network* _network;
    const digit_images::ImageSet* _images;
    TrainerOptions _options;
    std::vector<common::Parameter*> _parameters;
    common::Adam _optimizer;
    common::CrossEntropy _objective;
    Batch _batch;
    std::int64_t _updates = 0;
    std::int64_t _updates_planned = 0;

    // What makes a batch, on a thread of its own while the network learns from the one before.
    common::Random _random;
    std::vector<int> _order;
    int _next = 0;  ///< in that order
    PageMaker _pages;
};

}  // namespace vision

#endif  // VISION_TRAINER_H_
