#include "vision/evaluation.h"

#include <algorithm>

#include "vision/reader.h"

namespace vision {

digit_images::Evaluation evaluate(Network* network, const digit_images::ImageSet& set) {
    Reader reader(network);
    return digit_images::evaluate(
        set.count(), network->device(), [&](int begin, int end, common::CrossEntropy* objective) {
            for (int i = begin; i < end; ++i) {
                const Page page = page_of_image(set.image(i), set.labels[i]);
                reader.add_page(page);
                reader.add_window(page.digits.front().box);
            }
            const std::vector<float> labels(set.labels.begin() + begin, set.labels.begin() + end);
            vorn::Tensor<float> on_device(vorn::Dim(end - begin), network->device());
            on_device.copy_from(labels.data(), 0, labels.size());
            objective->compute(reader.read(), on_device);
        });
}

}  // namespace vision
