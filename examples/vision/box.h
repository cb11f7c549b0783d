#ifndef VISION_BOX_H_
#define VISION_BOX_H_

#include <algorithm>

namespace vision {

/// Pixels [left, right) of rows [top, bottom).
struct Box {
    int left = 0, top = 0, right = 0, bottom = 0;

    int width() const { return right - left; }
    int height() const { return bottom - top; }
    bool is_empty() const { return width() <= 0 || height() <= 0; }
    int area() const { return is_empty() ? 0 : width() * height(); }
    int longer_side() const { return std::max(width(), height()); }
    /// With so many pixels more on each side.
    Box widened(int by) const { return {left - by, top - by, right + by, bottom + by}; }
};

/// What both cover.
inline Box intersection(const Box& a, const Box& b) {
    return {std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right),
            std::min(a.bottom, b.bottom)};
}

/// The smallest box around both.
inline Box union_box(const Box& a, const Box& b) {
    return {std::min(a.left, b.left), std::min(a.top, b.top), std::max(a.right, b.right),
            std::max(a.bottom, b.bottom)};
}

/// The area of the intersection over that of the union of their pixels, the field's measure of how
/// well a found box fits.
inline double overlap(const Box& a, const Box& b) {
    const int both = intersection(a, b).area(), all = a.area() + b.area() - both;
    return all == 0 ? 0 : static_cast<double>(both) / all;
}

}  // namespace vision

#endif  // VISION_BOX_H_
