#ifndef CLASSIFIER_EVALUATION_H_
#define CLASSIFIER_EVALUATION_H_

#include "classifier/network.h"
#include "digit_images/evaluation.h"
#include "digit_images/image_set.h"

namespace classifier {

/// Reads a set of framed images, without dropout. Throws Error as digit_images::evaluate() does.
digit_images::Evaluation evaluate(Network* network, const digit_images::ImageSet& set);

}  // namespace classifier

#endif  // CLASSIFIER_EVALUATION_H_
