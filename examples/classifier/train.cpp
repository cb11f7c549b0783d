#include <iostream>

#include "classifier/commands.h"
#include "classifier/evaluation.h"
#include "classifier/model_file.h"
#include "classifier/trainer.h"
#include "common/compute_device.h"
#include "common/gnuplot.h"
#include "common/memory.h"
#include "common/output_file.h"
#include "digit_images/frame.h"
#include "digit_images/plot.h"
#include "digit_images/training_run.h"

namespace classifier {

namespace {

constexpr int kLeastEpochs = 12;

}  // namespace

int run_train(const TrainOptions& options) {
    const common::ComputeDevice compute(options.device, common::ThreadContext::kAlways);
    common::check_outputs(options.model, options.picture);
    const NetworkShape shape = {digit_images::kFramePixels, options.hidden, options.layers,
                                options.activation, digit_images::kDigits};
    common::check_memory(parameter_count(shape));
    const digit_images::Data data = digit_images::load_data(options.data);

    Network network(shape, static_cast<float>(options.dropout), compute.device());
    const int epochs = options.epochs.value_or(
        digit_images::fitting_epochs(data.train.count(), options.batch, kLeastEpochs));
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
                                 digit_images::mistakes_to_show(course.evaluation, data.test)));
    });
    return 0;
}

}  // namespace classifier
