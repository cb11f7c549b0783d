#include <iostream>

#include "common/gnuplot.h"
#include "common/memory.h"
#include "common/output_file.h"
#include "digit_images/plot.h"
#include "digit_images/training_run.h"
#include "vision/commands.h"
#include "vision/evaluation.h"
#include "vision/model_file.h"
#include "vision/trainer.h"
#include "vision/windows.h"

namespace vision {

namespace {

constexpr int kLeastEpochs = 7;

digit_images::Filters first_filters(Network* network) {
    const vorn::Tensor<float>& weights = network->first_filters();
    digit_images::Filters filters;
    filters.side = static_cast<int>(weights.get_w());
    filters.weights.resize(weights.count());
    weights.copy_to(filters.weights.data(), 0, filters.weights.size());
    return filters;
}

}  // namespace

int run_train(const TrainOptions& options) {
    const common::ComputeDevice compute = open_device(options.device);
    common::check_outputs(options.model, options.picture);
    NetworkShape shape;
    shape.filters = options.filters;
    shape.hidden = options.hidden;
    shape.grid = options.grid;
    shape.classes = kClasses;
    validate(shape);
    common::check_memory(value_count(shape));
    const digit_images::Data data = digit_images::load_data(options.data);

    Network network(shape, static_cast<float>(options.dropout), compute.device());
    const int epochs = options.epochs.value_or(digit_images::fitting_epochs(
        data.train.count(), options.batch * kMostDigitsOnPage, kLeastEpochs));
    Trainer trainer(&network, &data.train,
                    {epochs, options.batch, options.learning_rate, options.data.seed});
    std::cout << "training on " << data.train.count() << " images, testing on " << data.test.count()
              << std::endl;

    digit_images::TrainingRun run;
    run.epochs = epochs;
    run.images = data.train.count();
    run.run_epoch = [&](const digit_images::Report& report) { return trainer.run_epoch(report); };
    run.evaluate = [&] { return evaluate(&network, data.test); };
    run.save = [&] { save_model(options.model, shape, &network); };
    const digit_images::TrainingCourse course = digit_images::train(run);
    digit_images::print_course(course, data.test, options.model, options.picture, [&] {
        return common::draw_picture(
            options.picture, digit_images::picture_script(
                                 options.picture, course.epochs,
                                 digit_images::mistakes_to_show(course.evaluation, data.test),
                                 first_filters(&network)));
    });
    return 0;
}

}  // namespace vision
