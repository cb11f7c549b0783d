#ifndef VISION_PLOT_H_
#define VISION_PLOT_H_

#include <filesystem>
#include <string>
#include <vector>

#include "vision/finder.h"
#include "vision/page.h"

namespace vision {

/// The gnuplot script, with its data inside, that draws `png`: the page, a box around each digit
/// found and, above it, what was read. Where the page's digits are known, false boxes are red, and
/// digits that were not found have a dashed box.
std::string page_script(const std::filesystem::path& png, const Page& page,
                        const std::vector<Detection>& detections);

}  // namespace vision

#endif  // VISION_PLOT_H_
