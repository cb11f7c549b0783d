#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>

#include "digit_images/augment.h"
#include "digit_images/data.h"
#include "digit_images/fonts.h"
#include "digit_images/frame.h"
#include "digit_images/idx.h"
#include "digit_images/render.h"
#include "idx_files.h"
#include "test_files.h"

namespace {

using digit_images::ImageSet;
using digit_images::kDigits;
using digit_images::kFramePixels;
using digit_images::kFrameSide;
using digit_images::Part;

std::string bytes_of(const std::vector<std::uint8_t>& values) {
    return std::string(values.begin(), values.end());
}

TEST(DigitImagesIdx, ReadsPlainAndCompressedFiles) {
    const TemporaryFolder folder;
    const std::string pixels = "abcdefABCDEFuvwxyz\xff\x80";
    const std::string images = idx({2, 2, 5}, pixels);
    const std::string labels = idx({2}, {'\x09', '\0'});
    const auto image_file = folder.write("images", images), label_file = folder.write("l", labels);
    const auto packed = folder.write("images.gz", gzipped(images));
    for (const auto& file : {image_file, packed}) {
        const ImageSet set = digit_images::read_idx(file, label_file);
        EXPECT_EQ(std::make_pair(set.rows, set.columns), std::make_pair(2, 5));
        EXPECT_EQ(bytes_of(set.pixels), pixels);
        EXPECT_EQ(set.labels, (std::vector<std::uint8_t>{9, 0}));
    }
}

TEST(DigitImagesIdx, RefusesBadFilesInOneLine) {
    const TemporaryFolder folder;
    const std::string good_images = idx({3, 2, 2}, std::string(12, 'x'));
    const std::string good_labels = idx({3}, std::string("\0\1\2", 3));
    const std::string packed = gzipped(idx({3, 20, 20}, std::string(1200, 'x') + "a5T"));
    std::string flipped = packed;
    flipped[flipped.size() - 6] ^= 1;  // the check sum
    struct {
        std::string images, labels;
        const char* file;
        std::string message;
    } cases[] = {
        {"", good_labels, "i", "is empty"},
        {"\x7f"
         "ELF and so on",
         good_labels, "i", "is no IDX file"},
        {idx({3, 2, 2}, std::string(12, 'x'), 0x0d), good_labels, "i",
         "is no IDX file of unsigned bytes"},
        {good_labels, good_images, "l", "is an IDX file of 3 axes; labels have 1"},
        {good_images.substr(0, 11), good_labels, "i", "is truncated: its header breaks off"},
        {good_images.substr(0, 27), good_labels, "i", "is truncated: 11 of 12 bytes of images"},
        {good_images + "x", good_labels, "i", "goes on after its 3 images"},
        {good_images, good_labels.substr(0, 10), "l", "is truncated: 2 of 3 bytes of labels"},
        {idx({0, 2, 2}, ""), good_labels, "i", "holds no images"},
        {idx({3, 2, 4097}, ""), good_labels, "i",
         "claims images of 4097 pixels on a side; 4096 are the most"},
        {idx({4000000000u, 4096, 4096}, ""), good_labels, "i",
         "claims more images than can be read"},
        {idx({100000, 800, 800}, "x"), good_labels, "i",
         "is truncated: 1 of 64000000000 bytes of images"},
        {packed.substr(0, packed.size() / 2), good_labels, "i", "is truncated: "},
        {flipped, good_labels, "i", "is damaged: gzip cannot unpack it"},
        {good_images, idx({2}, std::string(2, '\1')), "l",
         "holds 2 labels, but " + (folder / "i").string() + " 3 images"},
        {good_images, idx({3}, std::string("\1\2\x0a")), "l", "label 10 of image 3 is not a digit"},
    };
    for (const auto& c : cases) {
        const auto images = folder.write("i", c.images), labels = folder.write("l", c.labels);
        const std::string expected = (folder / c.file).string() + ": " + c.message;
        const std::string message = message_of([&] { digit_images::read_idx(images, labels); });
        EXPECT_EQ(message.substr(0, expected.size()), expected) << message;
    }
    const auto labels = folder.write("l", good_labels);
    EXPECT_EQ(message_of([&] { digit_images::read_idx(folder / "gone", labels); }),
              (folder / "gone").string() + ": no such file");
    EXPECT_EQ(message_of([&] { digit_images::read_idx(folder.path(), labels); }),
              folder.path().string() + ": is not a regular file");
}

/// A slanted bar with a foot, as large as `scale` says, with its upper left corner at `row` and
/// `column` of a light-on-dark image.
ImageSet drawing(int side, int row, int column, int scale) {
    ImageSet set(side, side);
    std::uint8_t* image = set.add(1);
    for (int r = 0; r < 10 * scale; ++r) {
        for (int c = 0; c < 6 * scale; ++c) {
            const bool foot = r >= 8 * scale, bar = std::abs(c / scale - 2) <= 1;
            image[(row + r) * side + column + c] = foot || bar ? 200 : 10;
        }
    }
    std::replace(image, image + set.area(), std::uint8_t{0}, std::uint8_t{10});
    return set;
}

TEST(DigitImagesFrame, MakesOneFormOfSizePlaceContrastAndPolarity) {
    const ImageSet framed = digit_images::to_frame(drawing(28, 4, 9, 2));
    double mass = 0, rows = 0, columns = 0;
    int top = kFrameSide, bottom = 0;
    for (int i = 0; i < kFramePixels; ++i) {
        const int r = i / kFrameSide, v = framed.pixels[i];
        mass += v;
        rows += v * r;
        columns += v * (i % kFrameSide);
        top = v > 127 ? std::min(top, r) : top;
        bottom = v > 127 ? std::max(bottom, r) : bottom;
    }
    EXPECT_EQ(*std::max_element(framed.pixels.begin(), framed.pixels.end()), 255);
    EXPECT_EQ(framed.pixels[0], 0);
    EXPECT_NEAR(rows / mass, 13.5, 0.1);
    EXPECT_NEAR(columns / mass, 13.5, 0.1);
    EXPECT_EQ(bottom - top + 1, digit_images::kDigitSide);

    ImageSet negative = drawing(28, 4, 9, 2);
    for (std::uint8_t& pixel : negative.pixels) {
        pixel = 255 - pixel;
    }
    EXPECT_TRUE(digit_images::is_dark_on_light(negative));
    EXPECT_EQ(digit_images::to_frame(negative).pixels, framed.pixels);
    EXPECT_EQ(digit_images::to_frame(drawing(28, 8, 1, 2)).pixels, framed.pixels);
    for (const ImageSet& other : {drawing(13, 1, 3, 1), drawing(200, 20, 7, 14)}) {
        const ImageSet its_frame = digit_images::to_frame(other);
        double difference = 0;
        for (int i = 0; i < kFramePixels; ++i) {
            difference += std::abs(its_frame.pixels[i] - framed.pixels[i]);
        }
        EXPECT_LT(difference, 0.15 * mass) << other.rows;
    }

    ImageSet blank(3, 4);
    std::fill_n(blank.add(0), 12, 77);
    EXPECT_EQ(digit_images::to_frame(blank).pixels, std::vector<std::uint8_t>(kFramePixels, 0));
}

TEST(DigitImagesAugment, BendsAndMovesWithinBounds) {
    const ImageSet image = digit_images::to_frame(drawing(28, 4, 9, 2));
    common::Random random(3), same(3);
    std::vector<float> values(kFramePixels), repeated(kFramePixels), last;
    double mass = 0;
    constexpr int rounds = 200;
    for (int i = 0; i < rounds; ++i) {
        digit_images::augment(image.image(0), &random, values.data());
        digit_images::augment(image.image(0), &same, repeated.data());
        EXPECT_EQ(values, repeated);
        EXPECT_NE(values, last);
        last = values;
        const auto [least, most] = std::minmax_element(values.begin(), values.end());
        EXPECT_GE(*least, 0);
        EXPECT_LE(*most, 1);
        mass += std::accumulate(values.begin(), values.end(), 0.0) / rounds;
    }
    digit_images::to_values(image.image(0), values.data());
    const double expected = std::accumulate(values.begin(), values.end(), 0.0);
    EXPECT_NEAR(mass, expected, 0.05 * expected);
}

class DigitImagesFonts : public testing::Test {
protected:
    static std::vector<std::filesystem::path> fonts(Part part) {
        return digit_images::find_fonts(digit_images::kFontFolder, part);
    }
};

TEST_F(DigitImagesFonts, TestFontsAreNeverTrainedOn) {
    // Each package has a folder of its own, and a family lies in one package.
    std::set<std::filesystem::path> training, test;
    for (const auto& file : fonts(Part::kTraining)) {
        training.insert(file.parent_path());
    }
    for (const auto& file : fonts(Part::kTest)) {
        test.insert(file.parent_path());
    }
    EXPECT_GE(training.size(), 10u);
    EXPECT_GE(test.size(), 5u);
    for (const auto& folder : test) {
        EXPECT_EQ(training.count(folder), 0u) << folder;
    }
}

TEST_F(DigitImagesFonts, MissingPackagesAreNamed) {
    const TemporaryFolder folder;
    const std::string message =
        message_of([&] { digit_images::find_fonts(folder.path(), Part::kTraining); });
    EXPECT_EQ(message.find(folder.path().string() + ": fonts to render digits from are missing; "
                                                    "try apt-get install fonts-dejavu-core "),
              0u)
        << message;
    EXPECT_NE(message.find(" fonts-kristi"), std::string::npos);
    const auto broken = folder.write("Kristi.ttf", "no font");
    EXPECT_EQ(message_of([&] { digit_images::render_plain(broken); }),
              broken.string() + ": is no font that can be read");
}

TEST_F(DigitImagesFonts, TenDigitsOfEachAreThereAndDiffer) {
    for (const Part part : {Part::kTraining, Part::kTest}) {
        for (const auto& font : fonts(part)) {
            const ImageSet plain = digit_images::render_plain(font);
            ASSERT_EQ(plain.count(), kDigits);
            for (int a = 0; a < kDigits; ++a) {
                const std::uint8_t* image = plain.image(a);
                EXPECT_GT(*std::max_element(image, image + plain.area()), 100) << font << a;
                for (int b = 0; b < a; ++b) {
                    double difference = 0, mass = 0;
                    for (std::size_t i = 0; i < plain.area(); ++i) {
                        difference += std::abs(image[i] - plain.image(b)[i]);
                        mass += image[i] + plain.image(b)[i];
                    }
                    EXPECT_GT(difference, 0.1 * mass) << font << a << b;
                }
            }
        }
    }
}

TEST_F(DigitImagesFonts, ASeedGivesTheSameImages) {
    const auto files = fonts(Part::kTest);
    const auto pixels = [&](std::uint64_t seed) {
        return digit_images::render_digits(files, Part::kTest, 50, seed).pixels;
    };
    EXPECT_EQ(pixels(1), pixels(1));
    EXPECT_NE(pixels(1), pixels(2));
    const ImageSet set = digit_images::render_digits(files, Part::kTraining, 20, 1);
    EXPECT_FALSE(digit_images::is_dark_on_light(set));
    for (int i = 0; i < set.count(); ++i) {
        EXPECT_EQ(set.labels[i], i % kDigits);
    }
}

TEST(DigitImagesData, HoldsATenthOutOfTrainingWhereNoTestIsGiven) {
    const TemporaryFolder folder;
    digit_images::DataOptions options;
    // Image i has a pixel of its own.
    constexpr int count = 400, side = 20;
    std::string pixels(count * side * side, '\0'), labels(count, '\3');
    for (int i = 0; i < count; ++i) {
        pixels[i * side * side + i] = '\xff';
        labels[i] = static_cast<char>(i % 10);
    }
    options.images = folder.write("i", idx({count, side, side}, pixels));
    options.labels = folder.write("l", idx({count}, labels));
    testing::internal::CaptureStdout();
    const digit_images::Data data = digit_images::load_data(options);
    const std::string said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(data.train.count() + data.test.count(), count);
    EXPECT_NEAR(data.test.count(), count / 10, 20);
    EXPECT_EQ(std::set<std::uint8_t>(data.test.labels.begin(), data.test.labels.end()).size(), 10u);
    EXPECT_NE(said.find("a tenth is held out of training for the test, " +
                        std::to_string(data.test.count()) + " images\n"),
              std::string::npos)
        << said;

    options.test_images = folder.write("ti", idx({1, side, side + 1}, std::string(420, 'x')));
    options.test_labels = folder.write("tl", idx({1}, "\1"));
    EXPECT_EQ(message_of([&] { digit_images::load_data(options); }),
              options.test_images.string() + ": holds images of 20 x 21 pixels, but " +
                  options.images.string() + " of 20 x 20");
}

}  // namespace
