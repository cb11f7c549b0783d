#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <system_error>

#include "commands.h"
#include "error.h"
#include "network.h"

namespace {

constexpr int kBadInput = 2;

/// Reports a failure in one line. The text may quote a file: line breaks and escape sequences in
/// it must not reach the terminal.
int fail(std::string text) {
    const auto control = [](unsigned char c) { return std::iscntrl(c) != 0; };
    std::replace_if(text.begin(), text.end(), control, '?');
    std::cerr << "vorn_speech: " << text << '\n';
    return kBadInput;
}

/// The status, or that of a failure where standard output, full say, did not take everything.
int flushed(int status) {
    return std::cout.flush() ? status : fail("standard output: cannot be written");
}

/// Unlike CLI::Range, lets no NaN pass, nor a number that wraps.
template <typename T>
CLI::Validator in_range(T least, T most) {
    std::ostringstream range;
    range << least << " to " << most;
    const auto check = [least, most, text = range.str()](const std::string& given) {
        T value{};
        const char* end = given.data() + given.size();
        const auto [stop, error] = std::from_chars(given.data(), end, value);
        const bool good = error == std::errc() && stop == end && value >= least && value <= most;
        return good ? "" : "Value " + given + " not in range " + text;
    };
    return CLI::Validator(check, range.str());
}

const CLI::Validator kNotEmpty(
    [](const std::string& given) { return std::string(given.empty() ? "must not be empty" : ""); },
    "");

void add_corpus_folder(CLI::App* command, std::filesystem::path* corpus) {
    command->add_option("--corpus", *corpus, "Folder with train.tsv and test.tsv")
        ->required()
        ->check(kNotEmpty);
}

void add_device(CLI::App* command, std::string* device) {
    command->add_option("--device", *device, "Where the network computes: cpu or gpu")
        ->check(CLI::IsMember({"cpu", "gpu"}))
        ->capture_default_str();
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
        ->check(kNotEmpty);
    command->add_option("--picture", options->picture, "Where to draw the course of training")
        ->check(kNotEmpty);
    add_device(command, &options->device);
    command->add_option("--model", options->kind, "Kind of network")
        ->check(CLI::IsMember(speech::network_kinds()))
        ->capture_default_str();
    const auto add_number = [command](const char* name, auto* value, const char* help,
                                      const CLI::Validator& range) {
        command->add_option(name, *value, help)->check(range)->capture_default_str();
    };
    command
        ->add_option("--epochs", options->epochs, "Passes over the training set (default: by kind)")
        ->check(in_range(1, 10000));
    add_number("--batch", &options->batch, "Utterances in a batch", in_range(1, 1024));
    command
        ->add_option("--hidden", options->hidden,
                     "Cells in a layer, in each direction (default: by kind)")
        ->check(in_range(1, 4096));
    add_number("--layers", &options->layers, "LSTM layers", in_range(1, 16));
    add_number("--learning-rate", &options->learning_rate, "Highest step size of Adam",
               in_range(1e-6, 1.0));
    add_number("--seed", &options->seed, "Start of the random numbers",
               in_range<std::uint64_t>(0, std::numeric_limits<std::uint64_t>::max()));
    return command;
}

CLI::App* add_test(CLI::App* app, speech::TestOptions* options) {
    CLI::App* command = app->add_subcommand("test", "Measure the digit error rate of a model");
    add_corpus_folder(command, &options->corpus);
    command->add_option("--model", options->model, "Model file")->required()->check(kNotEmpty);
    add_device(command, &options->device);
    return command;
}

CLI::App* add_recognise(CLI::App* app, speech::RecogniseOptions* options) {
    CLI::App* command = app->add_subcommand("recognise", "Read the digits in sound files");
    command->add_option("--model", options->model, "Model file")->required()->check(kNotEmpty);
    add_device(command, &options->device);
    command->add_option("files", options->files, "Sound files")->required()->check(kNotEmpty);
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Learns to read spoken digits: log mel features, convolution, LSTM layers, CTC.");
    app.name("vorn_speech");
    // At least one is required below: CLI11 would ask for it before it names a wrong one.
    app.require_subcommand(0, 1);

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

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help is raised as an error of status 0.
        return error.get_exit_code() == 0 ? flushed(app.exit(error)) : fail(error.what());
    }

    if (!run) {
        return fail("A subcommand is required");
    }
    try {
        return flushed(run());
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
