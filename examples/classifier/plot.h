#ifndef CLASSIFIER_PLOT_H_
#define CLASSIFIER_PLOT_H_

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "common/curves.h"

namespace classifier {

/// An image that was read wrong.
struct Mistake {
    const std::uint8_t* image;  ///< framed
    int said;
    int read;
};

/// Mistakes that a picture has room for.
constexpr int kMistakesShown = 36;

/// The gnuplot script, with its data inside, that draws `png`: on top the loss and the error rate
/// by epoch, below the given mistakes, at most kMistakesShown.
std::string picture_script(const std::filesystem::path& png,
                           const std::vector<common::EpochPoint>& epochs,
                           const std::vector<Mistake>& mistakes);

}  // namespace classifier

#endif  // CLASSIFIER_PLOT_H_
