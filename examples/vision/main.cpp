#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "common/command_line.h"
#include "digit_images/command_line.h"
#include "vision/commands.h"

namespace {

void add_model(CLI::App* command, std::filesystem::path* model) {
    command->add_option("--model", *model, "Model file")->required()->check(common::kNotEmpty);
}

CLI::App* add_train(CLI::App* app, vision::TrainOptions* options) {
    using common::in_range;
    CLI::App* command = app->add_subcommand("train", "Train a model");
    digit_images::add_training_data(command, &options->data);
    command->add_option("--out", options->model, "Where to write the model")
        ->required()
        ->check(common::kNotEmpty);
    command
        ->add_option("--picture", options->picture,
                     "Where to draw the course of training, the first filters and the worst "
                     "mistakes")
        ->check(common::kNotEmpty);
    common::add_device(command, &options->device);
    command
        ->add_option("--epochs", options->epochs,
                     "Passes over the training set (default: 7, more where it is small)")
        ->check(in_range(1, 10000));
    common::add_number(command, "--batch", &options->batch, "Pages in a batch", in_range(1, 256));
    common::add_number(command, "--filters", &options->filters,
                       "Filters of the first convolution; the others have twice as many",
                       in_range(1, 512));
    common::add_number(command, "--hidden", &options->hidden, "Units of the hidden layer",
                       in_range(1, 8192));
    common::add_number(command, "--grid", &options->grid,
                       "Side of the grid into which a window is pooled", in_range(1, 32));
    common::add_number(command, "--dropout", &options->dropout,
                       "Share of hidden units left out in training", in_range(0.0, 0.95));
    common::add_number(command, "--learning-rate", &options->learning_rate,
                       "Highest step size of Adam", in_range(1e-6, 1.0));
    common::add_seed(command, &options->data.seed);
    return command;
}

CLI::App* add_test(CLI::App* app, vision::TestOptions* options) {
    CLI::App* command = app->add_subcommand("test", "Measure the accuracy of a model");
    add_model(command, &options->model);
    digit_images::add_test_data(command, &options->data);
    common::add_device(command, &options->device);
    return command;
}

CLI::App* add_find(CLI::App* app, vision::FindOptions* options) {
    CLI::App* command = app->add_subcommand("find", "Find and read the digits on pages");
    add_model(command, &options->model);
    command
        ->add_option("--page", options->page,
                     "PNG file of a page; without one, pages are made of test images")
        ->check(common::kNotEmpty);
    digit_images::add_test_data(command, &options->data);
    common::add_number(command, "--pages", &options->pages, "Pages to make",
                       common::in_range(1, 100000));
    command
        ->add_option("--picture", options->picture,
                     "Where to draw the page, or the first one, with a box around each digit")
        ->check(common::kNotEmpty);
    common::add_device(command, &options->device);
    common::add_seed(command, &options->data.seed);
    for (const char* of_made_pages : {"--images", "--fonts", "--pages", "--seed"}) {
        command->get_option(of_made_pages)->excludes("--page");
    }
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Learns to see written digits: convolutions, batch normalization, ROI pooling.");
    app.name("vorn_vision");

    vision::TrainOptions train;
    vision::TestOptions test;
    vision::FindOptions find;
    std::function<int()> run;
    add_train(&app, &train)->callback([&] { run = [&] { return run_train(train); }; });
    add_test(&app, &test)->callback([&] { run = [&] { return run_test(test); }; });
    add_find(&app, &find)->callback([&] { run = [&] { return run_find(find); }; });
    return common::run_program(&app, argc, argv, [&] { return run(); });
}
