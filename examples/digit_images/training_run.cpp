#include "digit_images/training_run.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "common/error.h"
#include "common/format.h"
#include "common/interrupt.h"
#include "common/progress.h"

namespace digit_images {

namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string summary(int epoch, const TrainingState& training, const Evaluation& test,
                    double images_per_second) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(4) << "epoch " << epoch << ": loss " << training.loss
         << ", accuracy " << common::format_percent(training.accuracy()) << "; test loss "
         << test.mean_loss << ", accuracy " << common::format_percent(test.accuracy()) << "; "
         << std::setprecision(0) << images_per_second << " images/s";
    return text.str();
}

}  // namespace

void TrainingState::add(const common::CrossEntropy& objective) {
    const auto added = static_cast<int>(objective.losses().size());
    loss = (loss * items + objective.mean_loss() * added) / (items + added);
    items += added;
    correct += objective.correct();
}

int fitting_epochs(int images, int batch, int least) {
    constexpr int least_updates = 4000;
    const int updates = (images + batch - 1) / batch;
    return std::max(least, (least_updates + updates - 1) / updates);
}

TrainingCourse train(const TrainingRun& run) {
    const common::InterruptScope interrupt;
    const auto start = std::chrono::steady_clock::now();
    common::Progress progress(run.epochs, run.images, "images");
    TrainingCourse course;
    for (int epoch = 1; epoch <= run.epochs; ++epoch) {
        const auto epoch_start = std::chrono::steady_clock::now();
        const TrainingState training = run.run_epoch([&](const TrainingState& state) {
            progress.update(epoch, state.images, state.loss);
            return !interrupt.requested();
        });
        if (interrupt.requested()) {
            break;
        }
        const double seconds = seconds_since(epoch_start);
        course.training_seconds += seconds;
        course.evaluation = run.evaluate();
        run.save();
        course.epochs.push_back({epoch, training.loss, 1 - course.evaluation.accuracy()});
        progress.end_line(summary(epoch, training, course.evaluation, run.images / seconds));
    }
    course.seconds = seconds_since(start);
    if (course.epochs.empty()) {
        throw common::Error("interrupted before the first epoch was done: there is no model");
    }
    if (interrupt.requested()) {
        progress.end_line("interrupted; the model of the last whole epoch is kept");
    }
    return course;
}

void print_course(const TrainingCourse& course, const ImageSet& test,
                  const std::filesystem::path& model, const std::filesystem::path& picture,
                  const std::function<bool()>& draw) {
    const Evaluation& evaluation = course.evaluation;
    std::cout << confusion_table(evaluation, test);
    if (!picture.empty() && draw()) {
        std::cout << "picture: " << picture.string() << '\n';
    }
    std::cout << "model: " << model.string() << " (epoch " << course.epochs.back().epoch << ")\n"
              << "training time: " << std::fixed << std::setprecision(1) << course.training_seconds
              << " s, with tests " << course.seconds << " s\n"
              << "test set: accuracy " << common::format_percent(evaluation.accuracy()) << ", "
              << evaluation.correct << " of " << test.count() << " images right\n";
}

}  // namespace digit_images
