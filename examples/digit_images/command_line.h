#ifndef DIGIT_IMAGES_COMMAND_LINE_H_
#define DIGIT_IMAGES_COMMAND_LINE_H_

#include <CLI/CLI.hpp>

#include "digit_images/data.h"

namespace digit_images {

/// The options that say where training and test images come from.
void add_training_data(CLI::App* command, DataOptions* data);

/// The options that say where test images come from.
void add_test_data(CLI::App* command, DataOptions* data);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_COMMAND_LINE_H_
