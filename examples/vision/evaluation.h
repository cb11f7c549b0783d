#ifndef VISION_EVALUATION_H_
#define VISION_EVALUATION_H_

#include "digit_images/evaluation.h"
#include "digit_images/image_set.h"
#include "vision/network.h"

namespace vision {

/// Reads a set of framed images, each a page of its own whose window is the digit. Throws Error as
/// digit_images::evaluate() does.
digit_images::Evaluation evaluate(Network* network, const digit_images::ImageSet& set);

}  // namespace vision

#endif  // VISION_EVALUATION_H_
