#include "digit_images/data.h"

#include <algorithm>
#include <iostream>
#include <string>

#include "common/error.h"
#include "common/random.h"
#include "digit_images/frame.h"
#include "digit_images/idx.h"
#include "digit_images/render.h"

namespace digit_images {

namespace {

constexpr int kRenderedForTraining = 60000;
constexpr int kRenderedForTest = 10000;
/// The same test images whatever the seed of training.
constexpr std::uint64_t kTestSeed = 20000;
constexpr double kHeldOutShare = 0.1;
constexpr std::uint64_t kHoldOutSeed = 1;

std::string size_of(const ImageSet& set) {
    return std::to_string(set.rows) + " x " + std::to_string(set.columns);
}

ImageSet framed(const ImageSet& set, const std::string& source) {
    std::cout << set.count() << " images of " << size_of(set) << " pixels " << source
              << (is_dark_on_light(set) ? ", dark on light: inverted" : "") << std::endl;
    return to_frame(set);
}

ImageSet rendered(const std::filesystem::path& folder, Part part, int count, std::uint64_t seed) {
    const std::vector<std::filesystem::path> fonts = find_fonts(folder, part);
    return framed(render_digits(fonts, part, count, seed),
                  "rendered from " + std::to_string(fonts.size()) +
                      (part == Part::kTest ? " fonts unseen in training" : " fonts"));
}

ImageSet rendered_test(const DataOptions& options) {
    return rendered(options.fonts, Part::kTest, kRenderedForTest, kTestSeed);
}

/// Takes a random part of the images out of `set`: what stands at equal distances may be of a kind.
ImageSet hold_out(ImageSet* set) {
    ImageSet kept(set->rows, set->columns), out(set->rows, set->columns);
    common::Random random(kHoldOutSeed);
    for (int i = 0; i < set->count(); ++i) {
        ImageSet& part = common::uniform(&random) < kHeldOutShare ? out : kept;
        std::copy_n(set->image(i), set->area(), part.add(set->labels[i]));
    }
    *set = std::move(kept);
    return out;
}

}  // namespace

Data load_data(const DataOptions& options) {
    Data data;
    if (options.images.empty()) {
        data.train = rendered(options.fonts, Part::kTraining, kRenderedForTraining, options.seed);
        data.test = rendered_test(options);
        return data;
    }
    const ImageSet train = read_idx(options.images, options.labels);
    if (options.test_images.empty()) {
        data.train = framed(train, "from " + options.images.string());
        data.test = hold_out(&data.train);
        if (data.test.count() == 0) {
            throw common::Error(options.images.string() + ": " + std::to_string(train.count()) +
                                " images are too few to hold some out for the test");
        }
        std::cout << "no test images given: a tenth is held out of training for the test, "
                  << data.test.count() << " images" << std::endl;
        return data;
    }
    const ImageSet test = read_idx(options.test_images, options.test_labels);
    if (test.rows != train.rows || test.columns != train.columns) {
        throw common::Error(options.test_images.string() + ": holds images of " + size_of(test) +
                            " pixels, but " + options.images.string() + " of " + size_of(train));
    }
    data.train = framed(train, "from " + options.images.string());
    data.test = framed(test, "from " + options.test_images.string());
    return data;
}

ImageSet load_test_data(const DataOptions& options) {
    if (options.images.empty()) {
        return rendered_test(options);
    }
    return framed(read_idx(options.images, options.labels), "from " + options.images.string());
}

}  // namespace digit_images
