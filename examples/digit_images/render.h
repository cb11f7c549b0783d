#ifndef DIGIT_IMAGES_RENDER_H_
#define DIGIT_IMAGES_RENDER_H_

#include <cstdint>
#include <filesystem>
#include <vector>

#include "digit_images/fonts.h"
#include "digit_images/image_set.h"

namespace digit_images {

constexpr int kRenderedSide = 28;  ///< pixels

/// Renders `count` images of kRenderedSide pixels a side, light on dark: digits in turn, each in a
/// random one of the fonts and with a random size, shift, rotation, slant, width, thickness and
/// amount of noise. They vary more for training than for the test, and in training some digits are
/// written with a pen instead (pen.h). The same arguments give the same images where FreeType is
/// the same. Throws Error, naming the font, when FreeType cannot read it or it lacks a digit.
ImageSet render_digits(const std::vector<std::filesystem::path>& fonts, Part part, int count,
                       std::uint64_t seed);

/// The ten digits of a font as they are designed, upright and without noise.
ImageSet render_plain(const std::filesystem::path& font);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_RENDER_H_
