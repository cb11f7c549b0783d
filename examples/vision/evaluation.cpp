#include "vision/evaluation.h"

#include "vision/batch.h"

namespace vision {

digit_images::Evaluation evaluate(Network* network, const digit_images::ImageSet& set) {
    Batch batch(network->device());
    return digit_images::evaluate(
        set.count(), network->device(), [&](int begin, int end, common::CrossEntropy* objective) {
            HostBatch images;
            for (int i = begin; i < end; ++i) {
                const Page page = page_of_image(set.image(i), set.labels[i]);
                images.add_page(page);
                images.add_window(page.digits.front().box, set.labels[i]);
            }
            batch.set(images);
            objective->compute(
                network->forward(batch.pages, batch.windows, common::Pass::kInference),
                batch.labels);
        });
}

}  // namespace vision
