#ifndef DIGIT_IMAGES_DATA_H_
#define DIGIT_IMAGES_DATA_H_

#include <cstdint>
#include <filesystem>

#include "digit_images/fonts.h"
#include "digit_images/image_set.h"

namespace digit_images {

/// Where images come from. Without files they are rendered.
struct DataOptions {
    std::filesystem::path images, labels;
    std::filesystem::path test_images, test_labels;
    std::filesystem::path fonts = kFontFolder;
    std::uint64_t seed = 1;  ///< of the rendered training images
};

/// Framed images.
struct Data {
    ImageSet train, test;
};

/// Training and test images of the given files. With files to train on but none to test on, a
/// tenth, drawn at random but always the same, is held out of training for the test. Without files,
/// both are rendered, from different fonts. Says on standard output what it took. Throws Error at
/// bad files or missing fonts.
Data load_data(const DataOptions& options);

/// The images of the given files, or rendered from the test fonts as load_data() does.
ImageSet load_test_data(const DataOptions& options);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_DATA_H_
