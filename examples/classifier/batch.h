#ifndef CLASSIFIER_BATCH_H_
#define CLASSIFIER_BATCH_H_

#include <vector>

#include "common/random.h"
#include "digit_images/image_set.h"
#include "vorn/vorn.h"

namespace classifier {

/// Images, one in a row, and what they show, on the network's device.
struct Batch {
    vorn::Tensor<float> images;
    vorn::Tensor<float> labels;  ///< class indices

    explicit Batch(vorn::Device device) : images(device), labels(device) {}
};

/// Makes batches of framed images.
class BatchMaker {
public:
    explicit BatchMaker(vorn::Device device) : _batch(device) {}

    /// The images of `set` that `begin` to `end` index, each as another hand might have written it
    /// where `augmenting` is given. The result is good until the next call.
    const Batch& make(const digit_images::ImageSet& set, const int* begin, const int* end,
                      common::Random* augmenting);

private:
    Batch _batch;
    std::vector<float> _images, _labels;
};

}  // namespace classifier

#endif  // CLASSIFIER_BATCH_H_
