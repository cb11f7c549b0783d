#include "vision/page.h"

#include <algorithm>
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

/// About a normal number, of deviation 1: the sum of four even ones, the quarters of one draw.
float noise(common::Random* random) {
    const std::uint64_t bits = (*random)();
    std::uint64_t sum = 0;
    for (int i = 0; i < 4; ++i) {
        sum += bits >> (16 * i) & 0xffff;
    }
    return (static_cast<float>(sum) / 65536 - 2) * 1.7320508f;  // each varies by 1/12
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

/// A stroke of one or two pixels from the middle of a piece.
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
    const int kind = drawn(0, 2, random);
    const double length = kind == 0 ? between(0, 4, random) : between(8, 30, random);
    const int side = static_cast<int>(length) + 6;
    Page piece(side, side);
    // Nothing upright, which would be a one.
    const double angle = between(-0.5, 0.5, random);
    draw_stroke(&piece, angle, length);
    if (kind == 2) {
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

std::vector<Page> make_pages(const digit_images::ImageSet& set, int pages, std::uint64_t seed) {
    common::Random random(seed);
    std::vector<int> order(set.count());
    std::iota(order.begin(), order.end(), 0);
    common::shuffle(&order, &random);
    PageMaker maker(kPageRows, kPageColumns, &random);
    std::vector<float> image(digit_images::kFramePixels);
    std::vector<Page> made;
    std::size_t next = 0;
    while (static_cast<int>(made.size()) < pages) {
        const int digits = drawn(kLeastDigits, kMostDigits, &random);
        for (int i = 0; i < digits; ++i) {
            const int chosen = order[next++ % order.size()];
            digit_images::to_values(set.image(chosen), image.data());
            maker.add_digit(image.data(), set.labels[chosen]);
        }
        for (int i = 0; i < kClutter; ++i) {
            maker.add_clutter();
        }
        made.push_back(maker.finish());
    }
    return made;
}

}  // namespace vision
