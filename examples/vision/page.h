#ifndef VISION_PAGE_H_
#define VISION_PAGE_H_

#include <cstdint>
#include <vector>

#include "common/random.h"
#include "digit_images/image_set.h"
#include "vision/box.h"

namespace vision {

/// A digit at its place.
struct PlacedDigit {
    Box box;  ///< of its ink
    int digit = 0;
};

/// A grey image, 0 the ground to 1 the ink, and where digits stand on it.
struct Page {
    int rows = 0, columns = 0;
    std::vector<float> values;  ///< row by row
    std::vector<PlacedDigit> digits;

    Page() = default;
    Page(int its_rows, int its_columns)
        : rows(its_rows),
          columns(its_columns),
          values(static_cast<std::size_t>(its_rows) * its_columns) {}

    const float* row(int r) const { return values.data() + static_cast<std::size_t>(r) * columns; }
    float* row(int r) { return values.data() + static_cast<std::size_t>(r) * columns; }
};

/// Fainter pixels are noise, or the blurred edge of a stroke.
constexpr float kFaintestInk = 0.3f;

/// The smallest box around all ink of a page; empty where there is none.
Box ink_box(const Page& page);

/// A framed image as a page with one digit.
Page page_of_image(const std::uint8_t* image, int digit);

/// Fills pages with digits and clutter at random places, none touching another, and with noise.
class PageMaker {
public:
    PageMaker(int rows, int columns, common::Random* random);

    /// Puts a framed image, as values from 0 to 1, at a random place and in a random size, its
    /// longer side 16 to 28 pixels. False where no room is found.
    bool add_digit(const float* image, int digit);
    /// Puts a speck, a dash or a cross to a random place where there is room.
    void add_clutter();
    /// The page, with noise, before the next one is begun.
    Page finish();

private:
    bool place(const Page& piece, Box* where);

    int _rows, _columns;
    common::Random* _random;
    Page _page;
    std::vector<Box> _taken;
};

/// Pages of 256 x 192 pixels with clutter and 6 to 16 digits, or as many as find room. They are
/// made by a seed of framed images in a random order, each used again when all have been.
class PageSeries {
public:
    PageSeries(const digit_images::ImageSet* set, std::uint64_t seed);

    Page next();

private:
    const digit_images::ImageSet* _set;
    common::Random _random;
    std::vector<int> _order;
    std::size_t _used = 0;
    PageMaker _maker;
};

}  // namespace vision

#endif  // VISION_PAGE_H_
