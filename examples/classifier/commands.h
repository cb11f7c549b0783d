#ifndef CLASSIFIER_COMMANDS_H_
#define CLASSIFIER_COMMANDS_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "digit_images/data.h"

namespace classifier {

/// The subcommands. Each returns the program's exit status and throws Error on bad input.

struct TrainOptions {
    digit_images::DataOptions data;
    std::filesystem::path model;    ///< --out
    std::filesystem::path picture;  ///< --picture; empty: none
    std::string device = "cpu";     ///< cpu or gpu
    std::optional<int> epochs;      ///< a number that fits the set where not given
    int batch = 128;                ///< images
    int hidden = 512;
    int layers = 2;
    std::string activation = "relu";  ///< or maxout
    double dropout = 0.1;
    double learning_rate = 2e-3;
};

struct TestOptions {
    digit_images::DataOptions data;
    std::filesystem::path model;
    std::string device = "cpu";
};

/// Trains for a fixed number of epochs and writes the model after each. The test set is only
/// reported on. Ctrl-C ends training; the model of the last whole epoch is kept.
int run_train(const TrainOptions& options);

/// Prints the confusion table and the accuracy of a model.
int run_test(const TestOptions& options);

}  // namespace classifier

#endif  // CLASSIFIER_COMMANDS_H_
