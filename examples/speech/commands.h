#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace speech {

/// The subcommands. Each returns the program's exit status and throws Error on bad input.

struct CorpusOptions {
    std::filesystem::path corpus;
};

struct TrainOptions {
    std::filesystem::path corpus;
    std::filesystem::path model;    ///< --out
    std::filesystem::path picture;  ///< --picture; empty: none
    std::string device = "cpu";     ///< cpu or gpu
    int epochs = 20;
    int batch = 16;  ///< utterances
    int hidden = 128;
    int layers = 1;
    float learning_rate = 1e-3f;
    std::uint64_t seed = 1;
};

struct TestOptions {
    std::filesystem::path corpus;
    std::filesystem::path model;
    std::string device = "cpu";
};

struct RecogniseOptions {
    std::filesystem::path model;
    std::vector<std::filesystem::path> files;
    std::string device = "cpu";
};

/// Validates both lists and prints a summary of each. Warns of utterances with more labels than
/// their frames can carry, and of test files that are trained on.
int run_corpus(const CorpusOptions& options);

int run_train(const TrainOptions& options);
int run_test(const TestOptions& options);
int run_recognise(const RecogniseOptions& options);

}  // namespace speech
