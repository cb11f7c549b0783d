#ifndef DIGIT_IMAGES_EVALUATION_H_
#define DIGIT_IMAGES_EVALUATION_H_

#include <functional>
#include <string>
#include <vector>

#include "common/cross_entropy.h"
#include "digit_images/image_set.h"

namespace digit_images {

/// How a network reads a set of images.
struct Evaluation {
    int correct = 0;
    double mean_loss = 0;
    std::vector<int> read;      ///< the class, of each image: kDigits for "no digit"
    std::vector<float> losses;  ///< of each image

    double accuracy() const { return static_cast<double>(correct) / read.size(); }
};

/// Reads so many images, batch by batch: `read` computes the objective of images [begin, end).
/// Throws Error when the loss is NaN, as that of a damaged model may be.
Evaluation evaluate(
    int images, vorn::Device device,
    const std::function<void(int begin, int end, common::CrossEntropy* objective)>& read);

/// The images that are read wrong, those with the largest loss first, at most `count`.
std::vector<int> worst_mistakes(const Evaluation& evaluation, const ImageSet& set, int count);

/// A table with a row per digit and a column per digit that was read, and the share that was right.
/// A column for "no digit" is there where that was read.
std::string confusion_table(const Evaluation& evaluation, const ImageSet& set);

}  // namespace digit_images

#endif  // DIGIT_IMAGES_EVALUATION_H_
