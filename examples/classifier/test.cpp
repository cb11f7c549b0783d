#include <iostream>

#include "classifier/commands.h"
#include "classifier/evaluation.h"
#include "classifier/model_file.h"
#include "common/compute_device.h"
#include "common/format.h"

namespace classifier {

int run_test(const TestOptions& options) {
    const common::ComputeDevice compute(options.device, common::ThreadContext::kWithGpu);
    Network network = load_model(options.model, compute.device());
    const digit_images::ImageSet images = digit_images::load_test_data(options.data);
    const digit_images::Evaluation evaluation = evaluate(&network, images);
    std::cout << digit_images::confusion_table(evaluation, images) << "accuracy "
              << common::format_percent(evaluation.accuracy()) << ", " << evaluation.correct
              << " of " << images.count() << " images right\n";
    return 0;
}

}  // namespace classifier
