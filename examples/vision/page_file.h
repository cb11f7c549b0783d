#ifndef VISION_PAGE_FILE_H_
#define VISION_PAGE_FILE_H_

#include <filesystem>

#include "vision/page.h"

namespace vision {

/// Reads a PNG file as a page without known digits. Colours become grey; the ground, the middle of
/// all pixel values, becomes 0 and the strongest ink 1, whichever of the two is lighter. Throws
/// Error, naming the file, when it cannot be read, is no PNG, is damaged, or is larger than 2048
/// pixels a side.
Page read_page(const std::filesystem::path& file);

}  // namespace vision

#endif  // VISION_PAGE_FILE_H_
