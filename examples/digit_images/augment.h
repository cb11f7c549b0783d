#ifndef DIGIT_IMAGES_AUGMENT_H_
#define DIGIT_IMAGES_AUGMENT_H_

#include <cstdint>

#include "common/random.h"

namespace digit_images {

/// A framed image as numbers from 0 to 1, for a network to read.
void to_values(const std::uint8_t* image, float* values);

/// The same of an image as another hand might have written it, so that training never sees the same
/// one twice: shifted, turned, slanted and scaled a little, and bent by a smooth random field of
/// displacements. The last is after Simard, Steinkraus and Platt, "Best practices for convolutional
/// neural networks applied to visual document analysis", ICDAR 2003; the field is a cubic B-spline
/// surface over a coarse grid here, which costs less than a filtered one.
void augment(const std::uint8_t* image, common::Random* random, float* values);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_AUGMENT_H_
