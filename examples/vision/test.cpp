#include <iostream>

#include "common/format.h"
#include "vision/commands.h"
#include "vision/evaluation.h"
#include "vision/model_file.h"

namespace vision {

int run_test(const TestOptions& options) {
    const common::ComputeDevice compute = open_device(options.device);
    Network network = load_model(options.model, compute.device());
    const digit_images::ImageSet images = digit_images::load_test_data(options.data);
    const digit_images::Evaluation evaluation = evaluate(&network, images);
    std::cout << digit_images::confusion_table(evaluation, images) << "accuracy "
              << common::format_percent(evaluation.accuracy()) << ", " << evaluation.correct
              << " of " << images.count() << " images right\n";
    return 0;
}

}  // namespace vision
