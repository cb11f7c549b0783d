#ifndef VISION_WINDOWS_H_
#define VISION_WINDOWS_H_

#include <vector>

#include "vision/page.h"

namespace vision {

/// What the network tells apart: the digits, and windows without one.
constexpr int kNoDigit = digit_images::kDigits;
constexpr int kClasses = kNoDigit + 1;

/// The boxes of a page that may hold a digit: those of connected ink, and those around two
/// neighbouring pieces of it, as a digit may be broken. What is far too small or too large is left
/// out.
std::vector<Box> candidate_boxes(const Page& page);

/// The window through which the network looks at a box: the square around it, so that a digit keeps
/// its proportions, as the five numbers of a region.
void append_window(int page, const Box& box, std::vector<float>* windows);

}  // namespace vision

#endif  // VISION_WINDOWS_H_
