#ifndef DIGIT_IMAGES_IMAGE_SET_H_
#define DIGIT_IMAGES_IMAGE_SET_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace digit_images {

constexpr int kDigits = 10;

/// Grey images of one size, each with the digit that it shows.
struct ImageSet {
    int rows = 0;
    int columns = 0;
    std::vector<std::uint8_t> pixels;  ///< image by image, row by row
    std::vector<std::uint8_t> labels;

    ImageSet() = default;
    ImageSet(int its_rows, int its_columns) : rows(its_rows), columns(its_columns) {}

    int count() const { return static_cast<int>(labels.size()); }
    std::size_t area() const { return static_cast<std::size_t>(rows) * columns; }
    const std::uint8_t* image(int i) const { return pixels.data() + i * area(); }
    /// Appends an image that the caller fills in.
    std::uint8_t* add(std::uint8_t label) {
        labels.push_back(label);
        pixels.resize(labels.size() * area());
        return pixels.data() + pixels.size() - area();
    }
};

}  // namespace digit_images

#endif  // DIGIT_IMAGES_IMAGE_SET_H_
