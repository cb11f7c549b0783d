#ifndef CLASSIFIER_EVALUATION_H_
#define CLASSIFIER_EVALUATION_H_

#include <string>
#include <vector>

#include "classifier/network.h"
#include "digit_images/image_set.h"

namespace classifier {

/// How a network reads a set of images.
struct Evaluation {
    int correct = 0;
    double mean_loss = 0;
    std::vector<int> read;      ///< the digit, of each image
    std::vector<float> losses;  ///< of each image

    double accuracy() const { return static_cast<double>(correct) / read.size(); }
};

/// Reads a set of framed images, without dropout. Throws Error when the posteriors are NaN, as
/// those of a damaged model may be.
Evaluation evaluate(Network* network, const digit_images::ImageSet& set);

/// The images that are read wrong, those with the largest loss first, at most `count`.
std::vector<int> worst_mistakes(const Evaluation& evaluation, const digit_images::ImageSet& set,
                                int count);

/// A table with a row per digit and a column per digit that was read, and the share that was right.
std::string confusion_table(const Evaluation& evaluation, const digit_images::ImageSet& set);

}  // namespace classifier

#endif  // CLASSIFIER_EVALUATION_H_
