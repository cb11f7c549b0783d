#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "classifier/commands.h"
#include "common/command_line.h"
#include "digit_images/command_line.h"

namespace {

CLI::App* add_train(CLI::App* app, classifier::TrainOptions* options) {
    using common::in_range;
    CLI::App* command = app->add_subcommand("train", "Train a model");
    digit_images::add_training_data(command, &options->data);
    command->add_option("--out", options->model, "Where to write the model")
        ->required()
        ->check(common::kNotEmpty);
    command
        ->add_option("--picture", options->picture,
                     "Where to draw the course of training and the worst mistakes")
        ->check(common::kNotEmpty);
    common::add_device(command, &options->device);
    command
        ->add_option("--epochs", options->epochs,
                     "Passes over the training set (default: 12, more where it is small)")
        ->check(in_range(1, 10000));
    common::add_number(command, "--batch", &options->batch, "Images in a batch",
                       in_range(1, 65536));
    common::add_number(command, "--hidden", &options->hidden, "Units of a hidden layer",
                       in_range(1, 8192));
    common::add_number(command, "--layers", &options->layers, "Hidden layers", in_range(1, 16));
    command->add_option("--activation", options->activation, "Of the hidden units: relu or maxout")
        ->check(CLI::IsMember({"relu", "maxout"}))
        ->capture_default_str();
    common::add_number(command, "--dropout", &options->dropout,
                       "Share of hidden units left out in training", in_range(0.0, 0.95));
    common::add_number(command, "--learning-rate", &options->learning_rate,
                       "Highest step size of Adam", in_range(1e-6, 1.0));
    common::add_seed(command, &options->data.seed);
    return command;
}

CLI::App* add_test(CLI::App* app, classifier::TestOptions* options) {
    CLI::App* command = app->add_subcommand("test", "Measure the accuracy of a model");
    command->add_option("--model", options->model, "Model file")
        ->required()
        ->check(common::kNotEmpty);
    digit_images::add_test_data(command, &options->data);
    common::add_device(command, &options->device);
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Learns to read written digits: a feed-forward network, softmax, cross entropy.");
    app.name("vorn_classifier");

    classifier::TrainOptions train;
    classifier::TestOptions test;
    std::function<int()> run;
    add_train(&app, &train)->callback([&] { run = [&] { return run_train(train); }; });
    add_test(&app, &test)->callback([&] { run = [&] { return run_test(test); }; });
    return common::run_program(&app, argc, argv, [&] { return run(); });
}
