#include "recogniser.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

#include "common/error.h"

namespace speech {

namespace {

constexpr std::size_t kBatch = 32;

}  // namespace

std::vector<int> by_length(const std::vector<Sample>& samples) {
    std::vector<int> order(samples.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
        return samples[a].features.rows < samples[b].features.rows;
    });
    return order;
}

std::vector<std::vector<int>> recognise(Network* network, const std::vector<Sample>& samples) {
    std::vector<std::vector<int>> labels(samples.size());
    std::vector<int> order = by_length(samples);
    order.erase(order.begin(), std::find_if(order.begin(), order.end(),
                                            [&](int i) { return samples[i].features.rows > 0; }));
    for (std::size_t begin = 0; begin < order.size(); begin += kBatch) {
        const std::size_t end = std::min(begin + kBatch, order.size());
        std::vector<const FrameMatrix*> features;
        for (std::size_t i = begin; i < end; ++i) {
            features.push_back(&samples[order[i]].features);
        }
        const FrameBatch batch = make_frame_batch(features, network->device());
        const vorn::Tensor<float>& posteriors = network->forward(batch, common::Pass::kInference);
        vorn::Tensor<int> best(vorn::Dim(batch.rows()), network->device());
        posteriors.find_row_max_id(best);
        std::vector<int> classes(batch.rows());
        best.copy_to(classes.data(), 0, classes.size());
        // A row of NaN has no maximum.
        if (*std::min_element(classes.begin(), classes.end()) < 0) {
            throw common::Error("the network's posteriors are not numbers; its model is damaged");
        }
        for (int n = 0; n < batch.size; ++n) {
            labels[order[begin + n]] =
                greedy_decode(classes.data() + n, batch.lengths[n], batch.size);
        }
    }
    return labels;
}

Scorer score(Network* network, const std::vector<Sample>& samples) {
    const std::vector<std::vector<int>> hypotheses = recognise(network, samples);
    Scorer scorer;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        scorer.add(samples[i].name, samples[i].labels, hypotheses[i]);
    }
    return scorer;
}

FrameMatrix posteriors_of(Network* network, const FrameMatrix& features) {
    const vorn::Tensor<float>& posteriors = network->forward(
        make_frame_batch({&features}, network->device()), common::Pass::kInference);
    FrameMatrix result(features.rows, static_cast<int>(posteriors.get_w()));
    posteriors.copy_to(result.values.data(), 0, result.values.size());
    return result;
}

}  // namespace speech
