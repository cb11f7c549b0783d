#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>
#include <string>

#include "commands.h"
#include "common/command_line.h"
#include "network.h"

namespace {

void add_corpus_folder(CLI::App* command, std::filesystem::path* corpus) {
    command->add_option("--corpus", *corpus, "Folder with train.tsv and test.tsv")
        ->required()
        ->check(common::kNotEmpty);
}

CLI::App* add_corpus(CLI::App* app, speech::CorpusOptions* options) {
    CLI::App* command = app->add_subcommand("corpus", "Validate a corpus and summarise it");
    add_corpus_folder(command, &options->corpus);
    return command;
}

CLI::App* add_train(CLI::App* app, speech::TrainOptions* options) {
    CLI::App* command = app->add_subcommand("train", "Train a model");
    add_corpus_folder(command, &options->corpus);
    command->add_option("--out", options->model, "Where to write the model")
        ->required()
        ->check(common::kNotEmpty);
    command->add_option("--picture", options->picture, "Where to draw the course of training")
        ->check(common::kNotEmpty);
    common::add_device(command, &options->device);
    command->add_option("--model", options->kind, "Kind of network")
        ->check(CLI::IsMember(speech::network_kinds()))
        ->capture_default_str();
    command
        ->add_option("--epochs", options->epochs, "Passes over the training set (default: by kind)")
        ->check(common::in_range(1, 10000));
    common::add_number(command, "--batch", &options->batch, "Utterances in a batch",
                       common::in_range(1, 1024));
    command
        ->add_option("--hidden", options->hidden,
                     "Cells in a layer, in each direction (default: by kind)")
        ->check(common::in_range(1, 4096));
    common::add_number(command, "--layers", &options->layers, "LSTM layers",
                       common::in_range(1, 16));
    common::add_number(command, "--learning-rate", &options->learning_rate,
                       "Highest step size of Adam", common::in_range(1e-6, 1.0));
    common::add_seed(command, &options->seed);
    command
        ->add_option("--threads", options->threads,
                     "Threads that compute (default: the processors; 1 on a GPU)")
        ->check(common::in_range(1, 256));
    command
        ->add_option("--checkpoint", options->checkpoint,
                     "Folder for the state of training, which goes on from what is there")
        ->check(common::kNotEmpty);
    common::add_number(command, "--checkpoint-minutes", &options->checkpoint_minutes,
                       "Minutes from one checkpoint to the next", common::in_range(0.0, 1e4));
    command
        ->add_option("--feature-memory", options->feature_memory,
                     "GiB of features that a rank keeps; it reads the others' files each time "
                     "(default: its part of half of the memory)")
        ->check(common::in_range(0.0, 1e6));
    command
        ->add_option("--logs", options->logs, "Folder for the reports of the ranks but the first")
        ->check(common::kNotEmpty);
    common::add_number(command, "--patience", &options->patience,
                       "Seconds after which a rank that waits for the others gives up",
                       common::in_range(1.0, 1e6));
    return command;
}

CLI::App* add_test(CLI::App* app, speech::TestOptions* options) {
    CLI::App* command = app->add_subcommand("test", "Measure the digit error rate of a model");
    add_corpus_folder(command, &options->corpus);
    command->add_option("--model", options->model, "Model file")
        ->required()
        ->check(common::kNotEmpty);
    common::add_device(command, &options->device);
    return command;
}

CLI::App* add_recognise(CLI::App* app, speech::RecogniseOptions* options) {
    CLI::App* command = app->add_subcommand("recognise", "Read the digits in sound files");
    command->add_option("--model", options->model, "Model file")
        ->required()
        ->check(common::kNotEmpty);
    common::add_device(command, &options->device);
    command->add_option("files", options->files, "Sound files")
        ->required()
        ->check(common::kNotEmpty);
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Learns to read spoken digits: log mel features, convolution, LSTM layers, CTC.");
    app.name("vorn_speech");

    speech::CorpusOptions corpus;
    speech::TrainOptions train;
    speech::TestOptions test;
    speech::RecogniseOptions recognise;
    std::function<int()> run;
    add_corpus(&app, &corpus)->callback([&] { run = [&] { return run_corpus(corpus); }; });
    add_train(&app, &train)->callback([&] { run = [&] { return run_train(train); }; });
    add_test(&app, &test)->callback([&] { run = [&] { return run_test(test); }; });
    add_recognise(&app, &recognise)->callback([&] {
        run = [&] { return run_recognise(recognise); };
    });

    return common::run_program(&app, argc, argv, [&] { return run(); });
}
