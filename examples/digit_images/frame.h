#ifndef DIGIT_IMAGES_FRAME_H_
#define DIGIT_IMAGES_FRAME_H_

#include "digit_images/image_set.h"

namespace digit_images {

/// A network reads images of one form, whatever files it is given: kFrameSide pixels a side, light
/// strokes on dark ground, the digit's longer side kDigitSide pixels and its centre of mass in the
/// middle. That is the form of the usual collections of handwritten digits.
constexpr int kFrameSide = 28;
constexpr int kFramePixels = kFrameSide * kFrameSide;
constexpr int kDigitSide = 20;

/// True where strokes are darker than the ground. Digits lie in the middle of their images, so the
/// pixels at the edges, averaged over the whole set, tell the ground.
bool is_dark_on_light(const ImageSet& set);

/// The images in that form. Contrast is stretched to the full scale; an image all of one value
/// becomes black.
ImageSet to_frame(const ImageSet& set);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_FRAME_H_
