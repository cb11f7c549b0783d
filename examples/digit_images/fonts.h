#ifndef DIGIT_IMAGES_FONTS_H_
#define DIGIT_IMAGES_FONTS_H_

#include <filesystem>
#include <vector>

namespace digit_images {

/// What a font is for. No package of fonts, and so no family, serves both.
enum class Part { kTraining, kTest };

/// Where Debian installs fonts.
constexpr const char* kFontFolder = "/usr/share/fonts";

/// The font files of a part, found below `folder` by their names, in a fixed order. Throws Error
/// when some are missing; it names the Debian packages that bring them.
std::vector<std::filesystem::path> find_fonts(const std::filesystem::path& folder, Part part);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_FONTS_H_
