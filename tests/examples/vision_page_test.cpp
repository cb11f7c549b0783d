#include <gtest/gtest.h>
#include <png.h>

#include <cstdlib>

#include "digit_images/plot.h"
#include "seven_segments.h"
#include "test_files.h"
#include "vision/finder.h"
#include "vision/page_file.h"
#include "vision/plot.h"
#include "vision/windows.h"

namespace vision {

bool operator==(const Box& a, const Box& b) {
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}
std::ostream& operator<<(std::ostream& out, const Box& b) {
    return out << b.left << "," << b.top << " to " << b.right << "," << b.bottom;
}

}  // namespace vision

namespace {

using vision::Box;
using vision::Detection;
using vision::Page;

TEST(VisionBox, OverlapIsIntersectionOverUnion) {
    const Box box = {2, 3, 6, 8};  // 20 pixels
    struct {
        Box other;
        double overlap;
    } cases[] = {
        {box, 1},
        {{4, 3, 8, 8}, 10.0 / 30},     // half of each
        {{3, 4, 5, 6}, 4.0 / 20},      // inside
        {{6, 3, 9, 8}, 0},             // side by side
        {{0, 0, 2, 3}, 0},             // corner to corner
        {{7, 9, 3, 4}, 0},             // empty
        {{0, 0, 10, 10}, 20.0 / 100},  // around
    };
    for (const auto& c : cases) {
        EXPECT_DOUBLE_EQ(vision::overlap(box, c.other), c.overlap) << c.other;
        EXPECT_DOUBLE_EQ(vision::overlap(c.other, box), c.overlap) << c.other;
    }
    EXPECT_EQ(vision::overlap(Box(), Box()), 0);
}

TEST(VisionPage, HoldsDigitsWhereItSays) {
    const digit_images::ImageSet set = seven_segments(40);
    vision::PageSeries series(&set, 3), same(&set, 3), other(&set, 4);
    std::size_t digits = 0;
    for (int n = 0; n < 20; ++n) {
        const Page page = series.next();
        EXPECT_EQ(same.next().values, page.values);
        EXPECT_NE(other.next().values, page.values);
        digits += page.digits.size();
        for (std::size_t i = 0; i < page.digits.size(); ++i) {
            const Box& box = page.digits[i].box;
            EXPECT_EQ(vision::intersection(box, {0, 0, page.columns, page.rows}), box);
            // Frames hold digits of 20 pixels.
            EXPECT_GE(box.longer_side(), 20 * 0.8 - 1) << box;
            EXPECT_LE(box.longer_side(), 20 * 1.4 + 2) << box;
            for (std::size_t j = 0; j < i; ++j) {
                EXPECT_TRUE(vision::intersection(box.widened(1), page.digits[j].box).is_empty());
            }
            // There is ink on each of the four edges, and at most noise just outside.
            const auto ink = [&page](const Box& strip) {
                float most = 0;
                for (int r = std::max(strip.top, 0); r < std::min(strip.bottom, page.rows); ++r) {
                    for (int c = std::max(strip.left, 0); c < std::min(strip.right, page.columns);
                         ++c) {
                        most = std::max(most, page.row(r)[c]);
                    }
                }
                return most;
            };
            const std::pair<Box, Box> inside_and_outside[] = {
                {{box.left, box.top, box.left + 1, box.bottom},
                 {box.left - 1, box.top, box.left, box.bottom}},
                {{box.right - 1, box.top, box.right, box.bottom},
                 {box.right, box.top, box.right + 1, box.bottom}},
                {{box.left, box.top, box.right, box.top + 1},
                 {box.left, box.top - 1, box.right, box.top}},
                {{box.left, box.bottom - 1, box.right, box.bottom},
                 {box.left, box.bottom, box.right, box.bottom + 1}}};
            for (const auto& [inside, outside] : inside_and_outside) {
                EXPECT_GT(ink(inside), 0.7 * vision::kFaintestInk - 0.25);
                EXPECT_LT(ink(outside), vision::kFaintestInk + 0.25);
            }
        }
    }
    EXPECT_GE(digits, 20u * 6);
    // Where there is no room, nothing changes.
    common::Random random(1);
    vision::PageMaker small(8, 8, &random);
    const std::vector<float> image(digit_images::kFramePixels, 1);
    EXPECT_FALSE(small.add_digit(image.data(), 1));
    EXPECT_TRUE(small.finish().digits.empty());
}

TEST(VisionPage, OfAnImageHasItsInkAsItsBox) {
    const digit_images::ImageSet set = seven_segments(2);
    const Page zero = vision::page_of_image(set.image(0), 0);
    EXPECT_EQ(zero.digits.at(0).box, (Box{8, 4, 20, 24}));
    EXPECT_EQ(vision::page_of_image(set.image(1), 1).digits.at(0).box, (Box{18, 4, 20, 24}));
    const std::vector<std::uint8_t> blank(digit_images::kFramePixels);
    EXPECT_TRUE(vision::page_of_image(blank.data(), 7).digits.at(0).box.is_empty());
}

void fill(const Box& box, Page* page) {
    for (int r = box.top; r < box.bottom; ++r) {
        std::fill_n(page->row(r) + box.left, box.width(), 0.9f);
    }
}

TEST(VisionWindows, AreAroundInkAndPiecesNearEachOther) {
    Page page(60, 90);
    const Box one = {3, 5, 9, 25}, upper = {30, 10, 45, 20}, lower = {32, 23, 40, 30};
    for (const Box& box : {one, upper, lower, Box{60, 10, 64, 14}, Box{0, 50, 80, 52}}) {
        fill(box, &page);
    }
    page.row(0)[89] = 1;                                         // noise
    page.row(40)[70] = page.row(41)[71] = page.row(39)[69] = 1;  // they touch at corners
    // The third is too small alone, the fourth too large.
    EXPECT_EQ(vision::candidate_boxes(page),
              (std::vector<Box>{one, upper, vision::union_box(upper, lower), lower}));
    EXPECT_TRUE(vision::candidate_boxes(Page(9, 9)).empty());

    std::vector<float> window;
    vision::append_window(3, {10, 20, 16, 40}, &window);
    EXPECT_EQ(window, (std::vector<float>{3, 3, 20, 22, 39}));
    window.clear();
    vision::append_window(0, {0, 1, 5, 5}, &window);  // half pixels, and over the edge
    EXPECT_EQ(window, (std::vector<float>{0, 0, 0.5f, 4, 4.5f}));
}

TEST(VisionFinder, SuppressesWhatOverlapsASurerBox) {
    const Detection sure = {{0, 0, 10, 10}, 3, 0.9}, shifted = {{0, 2, 10, 12}, 8, 0.8},
                    chained = {{0, 9, 10, 19}, 5, 0.7}, far = {{50, 0, 60, 10}, 3, 0.6},
                    inside = {{1, 1, 5, 5}, 1, 0.95};
    const auto digits = [](const std::vector<Detection>& detections) {
        std::string read;
        for (const Detection& d : detections) {
            read += std::to_string(d.digit);
        }
        return read;
    };
    EXPECT_EQ(digits(vision::suppress({far, chained, shifted, sure}, 0.3)), "353");
    // What is suppressed suppresses nothing: without it, chained would go with shifted.
    EXPECT_EQ(digits(vision::suppress({chained, shifted}, 0.17)), "8");
    EXPECT_EQ(digits(vision::suppress({chained, shifted, sure}, 0.17)), "35");
    EXPECT_EQ(digits(vision::suppress({sure, inside}, 0.3)), "13");
    EXPECT_EQ(digits(vision::suppress({sure, sure}, 0.3)), "3");
    EXPECT_TRUE(vision::suppress({}, 0.3).empty());
}

TEST(VisionFinder, ADigitIsFoundOnceByABoxThatFitsAndNamesIt) {
    const std::vector<vision::PlacedDigit> digits = {{{0, 0, 10, 10}, 3}, {{20, 0, 30, 10}, 7}};
    const std::vector<Detection> detections = {
        {{0, 0, 10, 5}, 3, 0.9},    // an overlap of exactly a half
        {{0, 0, 10, 10}, 3, 0.8},   // once more
        {{20, 0, 30, 10}, 1, 0.7},  // misread
        {{20, 0, 30, 4}, 7, 0.6},   // fits badly
    };
    EXPECT_EQ(vision::match(detections, digits), (std::vector<int>{0, -1, -1, -1}));
    vision::Score score;
    vision::add_to_score(detections, digits, &score);
    vision::add_to_score({{{20, 1, 30, 11}, 7, 0.5}}, digits, &score);
    EXPECT_EQ(score.pages, 2);
    EXPECT_EQ(score.digits, 4);
    EXPECT_EQ(score.found, 2);
    EXPECT_EQ(score.false_boxes, 3);
    EXPECT_EQ(score.share(), 0.5);
}

void write_png(const std::filesystem::path& file, int rows, int columns,
               const std::vector<png_byte>& pixels) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = columns;
    image.height = rows;
    image.format = PNG_FORMAT_GRAY;
    ASSERT_NE(png_image_write_to_file(&image, file.c_str(), 0, pixels.data(), 0, nullptr), 0);
}

TEST(VisionPageFile, ReadsEitherPolarityAndRefusesTheRest) {
    const TemporaryFolder folder;
    const auto file = folder / "p.png";
    write_png(file, 2, 3, {200, 200, 20, 200, 110, 250});  // dark on light
    Page page = vision::read_page(file);
    EXPECT_EQ(std::make_pair(page.rows, page.columns), std::make_pair(2, 3));
    EXPECT_EQ(page.values, (std::vector<float>{0, 0, 1, 0, 0.5f, 0}));
    write_png(file, 1, 5, {10, 10, 10, 0, 60});
    EXPECT_EQ(vision::read_page(file).values, (std::vector<float>{0, 0, 0, 0, 1}));
    write_png(file, 1, 3, {9, 9, 9});
    EXPECT_EQ(vision::read_page(file).values, (std::vector<float>{0, 0, 0}));

    const std::string name = file.string() + ": ";
    write_png(file, 1, 2049, std::vector<png_byte>(2049));
    EXPECT_EQ(message_of([&] { vision::read_page(file); }),
              name + "has more than 2048 pixels on a side");
    std::vector<png_byte> noise(40 * 40);
    for (png_byte& pixel : noise) {
        pixel = static_cast<png_byte>(std::rand());
    }
    write_png(file, 40, 40, noise);
    const std::string whole = read_file(file);
    folder.write("p.png", whole.substr(0, whole.size() / 2));
    EXPECT_EQ(message_of([&] { vision::read_page(file); }).find(name + "is damaged: "), 0u);
    folder.write("p.png", "no picture");
    EXPECT_EQ(message_of([&] { vision::read_page(file); }).find(name + "is no PNG file"), 0u);
    EXPECT_EQ(message_of([&] { vision::read_page(folder.path()); }),
              folder.path().string() + ": cannot be read");
}

TEST(VisionReport, DrawsItsPictures) {
    if (!has_gnuplot()) {
        GTEST_SKIP() << "gnuplot is not there";
    }
    const TemporaryFolder folder;
    const digit_images::ImageSet set = seven_segments(40);
    const Page made = vision::PageSeries(&set, 1).next();
    Page unknown = made;
    unknown.digits.clear();
    const auto& placed = made.digits[0];
    const std::vector<Detection> detections = {{placed.box, placed.digit, 0.9},
                                               {made.digits[1].box, 11, 0.8}};
    const digit_images::Filters filters = {3, std::vector<float>(27, 0.5f)};
    const std::filesystem::path png = folder / "a 'b'.png";
    for (const std::string& script :
         {vision::page_script(png, made, detections), vision::page_script(png, unknown, {}),
          digit_images::picture_script(png, {{1, 0.5, 0.1}}, {{set.image(0), 0, 10}}, filters)}) {
        expect_drawn(png, script);
        std::filesystem::remove(png);
    }
}

}  // namespace
