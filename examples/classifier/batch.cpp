#include "classifier/batch.h"

#include "digit_images/augment.h"
#include "digit_images/frame.h"

namespace classifier {

const Batch& BatchMaker::make(const digit_images::ImageSet& set, const int* begin, const int* end,
                              common::Random* augmenting) {
    const auto size = static_cast<int>(end - begin);
    _images.resize(static_cast<std::size_t>(size) * digit_images::kFramePixels);
    _labels.resize(size);
    for (int i = 0; i < size; ++i) {
        float* values = _images.data() + static_cast<std::size_t>(i) * digit_images::kFramePixels;
        if (augmenting != nullptr) {
            digit_images::augment(set.image(begin[i]), augmenting, values);
        } else {
            digit_images::to_values(set.image(begin[i]), values);
        }
        _labels[i] = set.labels[begin[i]];
    }
    _batch.images.resize(vorn::Dim(size, digit_images::kFramePixels), false);
    _batch.images.copy_from(_images.data(), 0, _images.size());
    _batch.labels.resize(vorn::Dim(size), false);
    _batch.labels.copy_from(_labels.data(), 0, _labels.size());
    return _batch;
}

}  // namespace classifier
