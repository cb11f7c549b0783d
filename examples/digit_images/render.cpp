#include "digit_images/render.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H
#include FT_OUTLINE_H

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <type_traits>

#include "common/error.h"
#include "common/random.h"
#include "digit_images/pen.h"

namespace digit_images {

namespace {

constexpr double kFixed = 65536;  // of FreeType's 16.16 numbers
constexpr double kPixel = 64;     // of its 26.6 coordinates
/// Of the digits that a pen writes otherwise than print, where training sees them.
constexpr double kPenShare = 0.4;

/// How a digit is drawn. Plain by default.
struct Pose {
    double height = 20;    ///< pixels of an unrotated digit
    double rotation = 0;   ///< radians
    double slant = 0;      ///< shift to the right for each pixel upwards
    double width = 1;      ///< times that of the design
    double thickness = 0;  ///< pixels that a stroke gains, or loses
    double right = 0;      ///< pixels off the centre
    double down = 0;
    double noise = 0;  ///< standard deviation of a pixel, 1 = full scale
};

/// Training sees more than what is tested, so that it holds where digits are written worse.
Pose draw_pose(Part part, common::Random* random) {
    const auto between = [random](double low, double high) {
        return low + (high - low) * common::uniform(random);
    };
    const bool training = part == Part::kTraining;
    Pose pose;
    pose.height = training ? between(10, 21) : between(15, 21);
    pose.rotation = training ? between(-0.25, 0.25) : between(-0.2, 0.2);
    pose.slant = training ? between(-0.3, 0.45) : between(-0.1, 0.25);
    pose.width = training ? std::exp(between(-0.5, 0.5)) : between(0.85, 1.2);
    // A thin stroke must not vanish.
    pose.thickness = pose.height * between(-0.015, training ? 0.11 : 0.07);
    pose.right = between(-2.5, 2.5);
    pose.down = between(-2.5, 2.5);
    pose.noise = between(0, 0.1);
    return pose;
}

/// A normal number by the polar method (Marsaglia and Bray, 1964), the same on every platform.
double normal(common::Random* random) {
    double x, y, square;
    do {
        x = 2 * common::uniform(random) - 1;
        y = 2 * common::uniform(random) - 1;
        square = x * x + y * y;
    } while (square >= 1 || square == 0);
    return x * std::sqrt(-2 * std::log(square) / square);
}

class Library {
public:
    Library() {
        if (FT_Init_FreeType(&_library) != 0) {
            throw common::Error("FreeType cannot be started");
        }
    }
    ~Library() { FT_Done_FreeType(_library); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    FT_Library get() const { return _library; }

private:
    FT_Library _library = nullptr;
};

FT_BBox box_of(FT_Outline* outline) {
    FT_BBox box;
    FT_Outline_Get_CBox(outline, &box);
    return box;
}

void place(const Pose& pose, FT_Outline* outline) {
    const FT_BBox design = box_of(outline);
    const double scale = pose.height * kPixel / static_cast<double>(design.yMax - design.yMin);
    const double c = std::cos(pose.rotation) * scale, s = std::sin(pose.rotation) * scale;
    const auto fixed = [](double value) {
        return static_cast<FT_Fixed>(std::lround(value * kFixed));
    };
    // Rotation times slant and width.
    const FT_Matrix matrix = {fixed(c * pose.width), fixed(c * pose.slant - s),
                              fixed(s * pose.width), fixed(s * pose.slant + c)};
    FT_Outline_Transform(outline, &matrix);
    if (pose.thickness != 0) {
        FT_Outline_Embolden(outline, std::lround(pose.thickness * kPixel));
    }
    const FT_BBox box = box_of(outline);
    const double middle = kRenderedSide * kPixel / 2;
    FT_Outline_Translate(
        outline,
        std::lround(middle + pose.right * kPixel - static_cast<double>(box.xMin + box.xMax) / 2),
        std::lround(middle - pose.down * kPixel - static_cast<double>(box.yMin + box.yMax) / 2));
}

/// Draws an outline into an empty image. False where FreeType cannot.
bool draw(FT_Library library, const Pose& pose, FT_Outline* outline, std::uint8_t* image,
          common::Random* random) {
    place(pose, outline);
    FT_Bitmap bitmap{};
    bitmap.rows = bitmap.width = kRenderedSide;
    bitmap.pitch = kRenderedSide;
    bitmap.buffer = image;
    bitmap.num_grays = 256;
    bitmap.pixel_mode = FT_PIXEL_MODE_GRAY;
    if (FT_Outline_Get_Bitmap(library, outline, &bitmap) != 0) {
        return false;
    }
    if (pose.noise > 0) {
        for (int i = 0; i < kRenderedSide * kRenderedSide; ++i) {
            const double value = image[i] + 255 * pose.noise * normal(random);
            image[i] = static_cast<std::uint8_t>(std::clamp(value, 0.0, 255.0));
        }
    }
    return true;
}

class Font {
public:
    Font(FT_Library library, const std::filesystem::path& file) : _file(file) {
        FT_Face face = nullptr;
        require(FT_New_Face(library, file.c_str(), 0, &face) == 0, "is no font that can be read");
        _face.reset(face);
        // Outlines are scaled by hand: a large size keeps the design's proportions.
        require(FT_IS_SCALABLE(face) && FT_Set_Pixel_Sizes(face, 0, 256) == 0,
                "has no outlines to scale");
    }

    /// Draws a digit into an empty image.
    void draw_digit(FT_Library library, int digit, const Pose& pose, std::uint8_t* image,
                    common::Random* random) const {
        const FT_UInt glyph = FT_Get_Char_Index(_face.get(), '0' + digit);
        require(
            glyph != 0 &&
                FT_Load_Glyph(_face.get(), glyph, FT_LOAD_NO_HINTING | FT_LOAD_NO_BITMAP) == 0 &&
                _face->glyph->format == FT_GLYPH_FORMAT_OUTLINE &&
                _face->glyph->outline.n_points > 0,
            "lacks the digit " + std::to_string(digit));
        require(draw(library, pose, &_face->glyph->outline, image, random), "cannot be drawn");
    }

private:
    void require(bool good, const std::string& otherwise) const {
        if (!good) {
            throw common::Error(_file.string() + ": " + otherwise);
        }
    }

    std::filesystem::path _file;
    std::unique_ptr<std::remove_pointer_t<FT_Face>, FT_Error (*)(FT_Face)> _face{nullptr,
                                                                                 FT_Done_Face};
};

}  // namespace

ImageSet render_digits(const std::vector<std::filesystem::path>& fonts, Part part, int count,
                       std::uint64_t seed) {
    const Library library;
    std::vector<Font> open;
    for (const std::filesystem::path& file : fonts) {
        open.emplace_back(library.get(), file);
    }
    common::Random random(seed);
    ImageSet set(kRenderedSide, kRenderedSide);
    for (int i = 0; i < count; ++i) {
        const int digit = i % kDigits;
        std::uint8_t* image = set.add(static_cast<std::uint8_t>(digit));
        const Pose pose = draw_pose(part, &random);
        if (part == Part::kTraining && common::uniform(&random) < kPenShare) {
            const PenOutline written = write_with_pen(library.get(), digit, &random);
            if (written && draw(library.get(), pose, written.get(), image, &random)) {
                continue;
            }
        }
        const auto font = static_cast<std::size_t>(common::uniform(&random) * open.size());
        open[font].draw_digit(library.get(), digit, pose, image, &random);
    }
    return set;
}

ImageSet render_plain(const std::filesystem::path& font) {
    const Library library;
    const Font open(library.get(), font);
    common::Random no_noise;
    ImageSet set(kRenderedSide, kRenderedSide);
    for (int digit = 0; digit < kDigits; ++digit) {
        open.draw_digit(library.get(), digit, Pose(), set.add(static_cast<std::uint8_t>(digit)),
                        &no_noise);
    }
    return set;
}

}  // namespace digit_images
