#include "vision/page_file.h"

#include <png.h>

#include <algorithm>
#include <string>
#include <system_error>

#include "common/error.h"

namespace vision {

namespace {

constexpr png_uint_32 kMostSide = 2048;

/// From ground to ink, whichever is lighter.
Page normalised(const std::vector<png_byte>& pixels, int rows, int columns) {
    std::vector<png_byte> sorted = pixels;
    std::sort(sorted.begin(), sorted.end());
    const int ground = sorted[sorted.size() / 2];
    const int above = sorted.back() - ground, below = ground - sorted.front();
    const int ink = above > below ? above : -below;
    Page page(rows, columns);
    if (ink != 0) {
        std::transform(pixels.begin(), pixels.end(), page.values.begin(), [&](png_byte pixel) {
            return std::max(static_cast<float>(pixel - ground) / static_cast<float>(ink), 0.0f);
        });
    }
    return page;
}

}  // namespace

Page read_page(const std::filesystem::path& file) {
    const auto require = [&file](bool good, const std::string& otherwise) {
        if (!good) {
            throw common::Error(file.string() + ": " + otherwise);
        }
    };
    std::error_code ignored;
    require(std::filesystem::is_regular_file(file, ignored), "cannot be read");
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    require(png_image_begin_read_from_file(&image, file.c_str()) != 0,
            std::string("is no PNG file that can be read: ") + image.message);
    if (image.width > kMostSide || image.height > kMostSide) {
        png_image_free(&image);
        require(false, "has more than " + std::to_string(kMostSide) + " pixels on a side");
    }
    image.format = PNG_FORMAT_GRAY;
    std::vector<png_byte> pixels(PNG_IMAGE_SIZE(image));
    const png_color white = {255, 255, 255};  // what is transparent shows paper
    require(png_image_finish_read(&image, &white, pixels.data(), 0, nullptr) != 0,
            std::string("is damaged: ") + image.message);
    return normalised(pixels, static_cast<int>(image.height), static_cast<int>(image.width));
}

}  // namespace vision
