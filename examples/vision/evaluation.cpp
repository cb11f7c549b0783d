#include "vision/evaluation.h"

#include "vision/batch.h"

namespace vision {

digit_images::Evaluation evaluate(Network* network, const digit_images::ImageSet& set) {
    BatchMaker maker(network->device());
    return digit_images::evaluate(
        set.count(), network->device(), [&](int begin, int end, common::CrossEntropy* objective) {
            for (int i = begin; i < end; ++i) {
                const Page page = page_of_image(set.image(i), set.labels[i]);
                maker.add_page(page);
                maker.add_window(page.digits.front().box, set.labels[i]);
            }
            const Batch& batch = maker.finish();
            objective->compute(
                network->forward(batch.pages, batch.windows, common::Pass::kInference),
                batch.labels);
        });
}

}  // namespace vision
