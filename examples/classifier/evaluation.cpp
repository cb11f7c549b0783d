#include "classifier/evaluation.h"

#include <numeric>

#include "classifier/batch.h"

namespace classifier {

digit_images::Evaluation evaluate(Network* network, const digit_images::ImageSet& set) {
    std::vector<int> order(set.count());
    std::iota(order.begin(), order.end(), 0);
    BatchMaker maker(network->device());
    return digit_images::evaluate(
        set.count(), network->device(), [&](int begin, int end, common::CrossEntropy* objective) {
            const int* images = order.data();
            const Batch& batch = maker.make(set, images + begin, images + end, nullptr);
            objective->compute(network->forward(batch.images, common::Pass::kInference),
                               batch.labels);
        });
}

}  // namespace classifier
