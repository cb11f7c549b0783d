#include "vision/page.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "digit_images/augment.h"
#include "digit_images/frame.h"

namespace vision {

namespace {

using digit_images::kFrameSide;

constexpr double kLeastScale = 0.8, kMostScale = 1.4;
constexpr int kGap = 2;  // pixels between neighbours
constexpr int kTries = 50;
constexpr double kFaintestStroke = 0.7;
constexpr double kMostNoise = 0.08;

// Of the pages to find digits in.
constexpr int kPageRows = 192, kPageColumns = 256;
constexpr int kLeastDigits = 6, kMostDigits = 16;
constexpr int kClutter = 8;

double between(double low, double high, common::Random* random) {
    return low + (high - low) * common::uniform(random);
}

/// A whole number from low to high.
int drawn(int low, int high, common::Random* random) {
    return low + static_cast<int>(common::uniform(random) * (high - low + 1));
}

/// About a normal number, of deviation 1: the sum of four even ones, the quarters of one draw. To
/// draw for each of them took a tenth of training.
float noise(common::Random* random) {
    const std::uint64_t bits = (*random)();
    std::uint64_t sum = 0;
    for (int i = 0; i < 4; ++i) {
        sum += bits >> (16 * i) & 0xffff;
    }
    return (static_cast<float>(sum) / 65536 - 2) * 1.7320508f;  // the variance of each is 1/12
}

/// A framed image enlarged or reduced, between the centres of its pixels.
Page scaled(const float* image, double scale) {
    const int side = static_cast<int>(std::ceil(kFrameSide * scale));
    Page page(side, side);
    const auto at = [image](int r, int c) {
        const bool inside = r >= 0 && r < kFrameSide && c >= 0 && c < kFrameSide;
        return inside ? image[r * kFrameSide + c] : 0;
    };
    for (int r = 0; r < side; ++r) {
        const double y = (r + 0.5) / scale - 0.5;
        const int top = static_cast<int>(std::floor(y));
        const auto v = static_cast<float>(y - top);
        for (int c = 0; c < side; ++c) {
            const double x = (c + 0.5) / scale - 0.5;
            const int left = static_cast<int>(std::floor(x));
            const auto u = static_cast<float>(x - left);
            page.row(r)[c] = (1 - v) * ((1 - u) * at(top, left) + u * at(top, left + 1)) +
                             v * ((1 - u) * at(top + 1, left) + u * at(top + 1, left + 1));
        }
    }
    return page;
}

/// A stroke two pixels high through the middle of a piece.
void draw_stroke(Page* piece, double angle, double length) {
    const double middle = (piece->rows - 1) / 2.0;
    for (double along = -length / 2; along <= length / 2; along += 0.25) {
        const auto r = static_cast<int>(std::lround(middle + along * std::sin(angle)));
        const auto c = static_cast<int>(std::lround(middle + along * std::cos(angle)));
        piece->row(r)[c] = 1;
        piece->row(r + 1)[c] = 1;
    }
}

Page draw_clutter(common::Random* random) {
    enum { kSpeck, kDash, kCross };
    const int kind = drawn(kSpeck, kCross, random);
    const double length = kind == kSpeck ? between(0, 4, random) : between(8, 30, random);
    const int side = static_cast<int>(length) + 6;
    Page piece(side, side);
    // Nothing upright, which would be a one.
    const double angle = between(-0.5, 0.5, random);
    draw_stroke(&piece, angle, length);
    if (kind == kCross) {
        draw_stroke(&piece, angle + M_PI / 2, length);
    }
    return piece;
}

}  // namespace

Box ink_box(const Page& page) {
    Box box = {page.columns, page.rows, 0, 0};
    for (int r = 0; r < page.rows; ++r) {
        for (int c = 0; c < page.columns; ++c) {
            if (page.row(r)[c] > kFaintestInk) {
                box = union_box(box, {c, r, c + 1, r + 1});
            }
        }
    }
    return box.is_empty() ? Box() : box;
}

Page page_of_image(const std::uint8_t* image, int digit) {
    Page page(kFrameSide, kFrameSide);
    digit_images::to_values(image, page.values.data());
    page.digits.push_back({ink_box(page), digit});
    return page;
}

PageMaker::PageMaker(int rows, int columns, common::Random* random)
    : _rows(rows), _columns(columns), _random(random), _page(rows, columns) {}

/// Blends a piece into the page where its ink has room, and tells where the ink is.
bool PageMaker::place(const Page& piece, Box* where) {
    const Box ink = ink_box(piece);
    if (ink.is_empty() || ink.width() > _columns || ink.height() > _rows) {
        return false;
    }
    for (int i = 0; i < kTries; ++i) {
        const int left = drawn(0, _columns - ink.width(), _random);
        const int top = drawn(0, _rows - ink.height(), _random);
        *where = {left, top, left + ink.width(), top + ink.height()};
        const Box wide = where->widened(kGap);
        if (std::any_of(_taken.begin(), _taken.end(),
                        [&](const Box& other) { return !intersection(wide, other).is_empty(); })) {
            continue;
        }
        _taken.push_back(*where);
        const auto strength = static_cast<float>(between(kFaintestStroke, 1, _random));
        for (int r = 0; r < piece.rows; ++r) {
            for (int c = 0; c < piece.columns; ++c) {
                const int row = top - ink.top + r, column = left - ink.left + c;
                if (row >= 0 && row < _rows && column >= 0 && column < _columns) {
                    float& value = _page.row(row)[column];
                    value = std::max(value, strength * piece.row(r)[c]);
                }
            }
        }
        return true;
    }
    return false;
}

bool PageMaker::add_digit(const float* image, int digit) {
    const Page piece = scaled(image, between(kLeastScale, kMostScale, _random));
    Box box;
    if (!place(piece, &box)) {
        return false;
    }
    _page.digits.push_back({box, digit});
    return true;
}

void PageMaker::add_clutter() {
    Box ignored;
    place(draw_clutter(_random), &ignored);
}

Page PageMaker::finish() {
    const auto strength = static_cast<float>(between(0, kMostNoise, _random));
    for (float& value : _page.values) {
        value = std::clamp(value + strength * noise(_random), 0.0f, 1.0f);
    }
    Page done = std::move(_page);
    _page = Page(_rows, _columns);
    _taken.clear();
    return done;
}

PageSeries::PageSeries(const digit_images::ImageSet* set, std::uint64_t seed)
    : _set(set), _random(seed), _order(set->count()), _maker(kPageRows, kPageColumns, &_random) {
    std::iota(_order.begin(), _order.end(), 0);
    common::shuffle(&_order, &_random);
}

Page PageSeries::next() {
    std::array<float, digit_images::kFramePixels> image;
    const int digits = drawn(kLeastDigits, kMostDigits, &_random);
    for (int i = 0; i < digits; ++i) {
        const int chosen = _order[_used++ % _order.size()];
        digit_images::to_values(_set->image(chosen), image.data());
        _maker.add_digit(image.data(), _set->labels[chosen]);
    }
    for (int i = 0; i < kClutter; ++i) {
        _maker.add_clutter();
    }
    return _maker.finish();
}

}  // namespace vision
