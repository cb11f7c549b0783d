#ifndef DIGIT_IMAGES_TRAINING_RUN_H_
#define DIGIT_IMAGES_TRAINING_RUN_H_

#include <filesystem>
#include <functional>
#include <vector>

#include "common/cross_entropy.h"
#include "common/curves.h"
#include "digit_images/evaluation.h"

namespace digit_images {

/// How training stands, over what an epoch has seen so far.
struct TrainingState {
    int images = 0;
    int items = 0;    ///< that were read: the images, or windows on them
    double loss = 0;  ///< mean of the items
    int correct = 0;  ///< items

    double accuracy() const { return static_cast<double>(correct) / items; }
    /// Counts the items of a batch.
    void add(const common::CrossEntropy& objective);
};

/// Called after each batch; false ends the epoch.
using Report = std::function<bool(const TrainingState&)>;

/// Passes over so many images after which a network hardly learns more: a small set takes more than
/// the least number.
int fitting_epochs(int images, int batch, int least);

/// The parts of a training run that a program brings.
struct TrainingRun {
    int epochs = 0;
    int images = 0;  ///< of an epoch
    std::function<TrainingState(const Report&)> run_epoch;
    std::function<Evaluation()> evaluate;  ///< on the test set
    std::function<void()> save;
};

/// What came of a training run.
struct TrainingCourse {
    std::vector<common::EpochPoint> epochs;
    Evaluation evaluation;        ///< after the last whole epoch
    double training_seconds = 0;  ///< in epochs
    double seconds = 0;           ///< in all, with the tests after each
};

/// Trains for all epochs, or until Ctrl-C, with progress and a line per epoch on standard error,
/// and saves the model after each. Throws Error when not one epoch was done.
TrainingCourse train(const TrainingRun& run);

/// Prints the confusion table, where the model and, unless its name is empty, the picture are, the
/// time and the accuracy. `draw` makes the picture and tells whether it could.
void print_course(const TrainingCourse& course, const ImageSet& test,
                  const std::filesystem::path& model, const std::filesystem::path& picture,
                  const std::function<bool()>& draw);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_TRAINING_RUN_H_
