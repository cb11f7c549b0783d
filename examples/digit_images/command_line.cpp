#include "digit_images/command_line.h"

#include <string>

#include "common/command_line.h"

namespace digit_images {

namespace {

/// A pair of IDX files, which come together.
void add_images(CLI::App* command, const std::string& prefix, const std::string& what,
                std::filesystem::path* images, std::filesystem::path* labels) {
    CLI::Option* one = command->add_option("--" + prefix + "images", *images,
                                           "IDX file of the images " + what + ", gzip or not");
    CLI::Option* other = command->add_option("--" + prefix + "labels", *labels,
                                             "IDX file of their labels, gzip or not");
    one->check(common::kNotEmpty)->needs(other);
    other->check(common::kNotEmpty)->needs(one);
}

void add_fonts(CLI::App* command, std::filesystem::path* fonts) {
    command
        ->add_option("--fonts", *fonts,
                     "Folder of the fonts to render digits from, where no files are given")
        ->check(common::kNotEmpty)
        ->capture_default_str();
}

}  // namespace

void add_training_data(CLI::App* command, DataOptions* data) {
    add_images(command, "", "to train on", &data->images, &data->labels);
    add_images(command, "test-", "to test on", &data->test_images, &data->test_labels);
    command->get_option("--test-images")->needs("--images");
    add_fonts(command, &data->fonts);
}

void add_test_data(CLI::App* command, DataOptions* data) {
    add_images(command, "", "to test on", &data->images, &data->labels);
    add_fonts(command, &data->fonts);
}

}  // namespace digit_images
