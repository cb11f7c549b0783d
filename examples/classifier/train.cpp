#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <vector>

#include "classifier/commands.h"
#include "classifier/evaluation.h"
#include "classifier/model_file.h"
#include "classifier/plot.h"
#include "classifier/trainer.h"
#include "common/compute_device.h"
#include "common/error.h"
#include "common/format.h"
#include "common/gnuplot.h"
#include "common/interrupt.h"
#include "common/memory.h"
#include "common/output_file.h"
#include "common/progress.h"
#include "digit_images/frame.h"

namespace classifier {

namespace {

/// Passes over a training set after which a network hardly learns more: a small set takes more.
int default_epochs(int images, int batch) {
    constexpr int least = 12, least_updates = 4000;
    const int updates = (images + batch - 1) / batch;
    return std::max(least, (least_updates + updates - 1) / updates);
}

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

void draw(const std::filesystem::path& png, const std::vector<common::EpochPoint>& epochs,
          const Evaluation& evaluation, const digit_images::ImageSet& images) {
    std::vector<Mistake> mistakes;
    for (const int i : worst_mistakes(evaluation, images, kMistakesShown)) {
        mistakes.push_back({images.image(i), images.labels[i], evaluation.read[i]});
    }
    if (common::draw_picture(png, picture_script(png, epochs, mistakes))) {
        std::cout << "picture: " << png.string() << '\n';
    }
}

}  // namespace

int run_train(const TrainOptions& options) {
    const common::ComputeDevice compute(options.device, common::ThreadContext::kAlways);
    common::check_outputs(options.model, options.picture);
    const NetworkShape shape = {digit_images::kFramePixels, options.hidden, options.layers,
                                options.activation, digit_images::kDigits};
    common::check_memory(parameter_count(shape));
    const digit_images::Data data = digit_images::load_data(options.data);

    Network network(shape, static_cast<float>(options.dropout), compute.device());
    const int epoch_count =
        options.epochs.value_or(default_epochs(data.train.count(), options.batch));
    Trainer trainer(&network, &data.train,
                    {epoch_count, options.batch, options.learning_rate, options.data.seed});
    std::cout << "training on " << data.train.count() << " images, testing on " << data.test.count()
              << std::endl;

    const common::InterruptScope interrupt;
    const auto start = std::chrono::steady_clock::now();
    common::Progress progress(epoch_count, data.train.count(), "images");
    std::vector<common::EpochPoint> epochs;
    Evaluation evaluation;
    for (int epoch = 1; epoch <= epoch_count; ++epoch) {
        const auto epoch_start = std::chrono::steady_clock::now();
        const TrainingState training = trainer.run_epoch([&](const TrainingState& state) {
            progress.update(epoch, state.images, state.loss);
            return !interrupt.requested();
        });
        if (interrupt.requested()) {
            break;
        }
        const double speed = data.train.count() / seconds_since(epoch_start);
        evaluation = evaluate(&network, data.test);
        save_model(options.model, shape, &network);
        epochs.push_back({epoch, training.loss, 1 - evaluation.accuracy()});
        progress.end_line(summary(epoch, training, evaluation, speed));
    }
    const double seconds = seconds_since(start);
    if (epochs.empty()) {
        throw common::Error("interrupted before the first epoch was done: there is no model");
    }
    if (interrupt.requested()) {
        progress.end_line("interrupted; the model of the last whole epoch is kept");
    }

    std::cout << confusion_table(evaluation, data.test);
    if (!options.picture.empty()) {
        draw(options.picture, epochs, evaluation, data.test);
    }
    std::cout << "model: " << options.model.string() << " (epoch " << epochs.back().epoch << ")\n"
              << "training time: " << std::fixed << std::setprecision(1) << seconds << " s\n"
              << "test set: accuracy " << common::format_percent(evaluation.accuracy()) << ", "
              << evaluation.correct << " of " << data.test.count() << " images right\n";
    return 0;
}

}  // namespace classifier
