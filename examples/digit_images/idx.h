#ifndef DIGIT_IMAGES_IDX_H_
#define DIGIT_IMAGES_IDX_H_

#include <filesystem>

#include "digit_images/image_set.h"

namespace digit_images {

/// Reads images and their labels from a pair of IDX files, each plain or compressed by gzip. Such
/// a file starts with two zero bytes, the type of its elements (8: unsigned bytes) and the number
/// of its axes (images: 3, labels: 1), goes on with the length of each axis as a big-endian number
/// of four bytes, and ends with the elements, row-major.
///
/// Throws Error, naming the file, when one cannot be read, is not of this form, is truncated or
/// goes on after its last element, when the two hold different counts, when they are empty, or when
/// a label is not a digit.
ImageSet read_idx(const std::filesystem::path& images, const std::filesystem::path& labels);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_IDX_H_
