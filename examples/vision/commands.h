#ifndef VISION_COMMANDS_H_
#define VISION_COMMANDS_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "common/compute_device.h"
#include "digit_images/data.h"

namespace vision {

/// The subcommands. Each returns the program's exit status and throws Error on bad input.

struct TrainOptions {
    digit_images::DataOptions data;
    std::filesystem::path model;    ///< --out
    std::filesystem::path picture;  ///< --picture; empty: none
    std::string device = "cpu";     ///< cpu or gpu
    std::optional<int> epochs;      ///< a number that fits the set where not given
    int batch = 8;                  ///< pages, of about nine digits each
    int filters = 16;
    int grid = 7;
    int hidden = 128;
    double dropout = 0.3;
    double learning_rate = 2e-3;
};

struct TestOptions {
    digit_images::DataOptions data;
    std::filesystem::path model;
    std::string device = "cpu";
};

struct FindOptions {
    digit_images::DataOptions data;  ///< its seed is that of the pages
    std::filesystem::path model;
    std::filesystem::path page;  ///< a PNG file; empty: pages are made of test images
    std::filesystem::path picture;
    std::string device = "cpu";
    int pages = 100;
};

/// Trains for a fixed number of epochs and writes the model after each. The test set is only
/// reported on. Ctrl-C ends training; the model of the last whole epoch is kept.
int run_train(const TrainOptions& options);

/// Prints the confusion table and the accuracy of a model.
int run_test(const TestOptions& options);

/// Finds the digits of one page and prints them, or those of many and prints how many were found.
int run_find(const FindOptions& options);

/// Where the network computes. Batch normalization always needs a GPU: throws Error when there is
/// none.
common::ComputeDevice open_device(const std::string& name);

}  // namespace vision

#endif  // VISION_COMMANDS_H_
