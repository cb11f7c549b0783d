#ifndef DIGIT_IMAGES_PLOT_H_
#define DIGIT_IMAGES_PLOT_H_

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "common/curves.h"
#include "digit_images/evaluation.h"

namespace digit_images {

/// An image that was read wrong.
struct Mistake {
    const std::uint8_t* image;  ///< framed
    int said;
    int read;  ///< kDigits for "no digit"
};

/// Mistakes that a picture has room for.
constexpr int kMistakesShown = 36;

/// The worst mistakes, for a picture. The images are those of `set`.
std::vector<Mistake> mistakes_to_show(const Evaluation& evaluation, const ImageSet& set);

/// Square filters of a network, one after the other, row by row.
struct Filters {
    int side = 0;
    std::vector<float> weights;

    int count() const { return side == 0 ? 0 : static_cast<int>(weights.size()) / (side * side); }
};

/// The gnuplot script, with its data inside, that draws `png`: on top the loss and the error rate
/// by epoch; below the first of the given filters, where there are any, and of the given mistakes,
/// as many as find room.
std::string picture_script(const std::filesystem::path& png,
                           const std::vector<common::EpochPoint>& epochs,
                           const std::vector<Mistake>& mistakes, const Filters& filters = {});

}  // namespace digit_images

#endif  // DIGIT_IMAGES_PLOT_H_
