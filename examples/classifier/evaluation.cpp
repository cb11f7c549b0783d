#include "classifier/evaluation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <numeric>
#include <sstream>

#include "classifier/batch.h"
#include "common/cross_entropy.h"
#include "common/error.h"
#include "common/format.h"

namespace classifier {

namespace {

constexpr int kBatch = 512;

}  // namespace

Evaluation evaluate(Network* network, const digit_images::ImageSet& set) {
    std::vector<int> order(set.count());
    std::iota(order.begin(), order.end(), 0);
    BatchMaker maker(network->device());
    common::CrossEntropy objective(network->device());
    Evaluation result;
    double loss = 0;
    for (int begin = 0; begin < set.count(); begin += kBatch) {
        const int size = std::min(kBatch, set.count() - begin);
        const int* first = order.data() + begin;
        const Batch& batch = maker.make(set, first, first + size, nullptr);
        objective.compute(network->forward(batch.images, common::Pass::kInference), batch.labels);
        if (std::isnan(objective.mean_loss())) {
            throw common::Error("the network's posteriors are not numbers; its model is damaged");
        }
        loss += objective.mean_loss() * size;
        result.correct += objective.correct();
        result.read.insert(result.read.end(), objective.read().begin(), objective.read().end());
        result.losses.insert(result.losses.end(), objective.losses().begin(),
                             objective.losses().end());
    }
    result.mean_loss = loss / set.count();
    return result;
}

std::vector<int> worst_mistakes(const Evaluation& evaluation, const digit_images::ImageSet& set,
                                int count) {
    std::vector<int> wrong;
    for (int i = 0; i < set.count(); ++i) {
        if (evaluation.read[i] != set.labels[i]) {
            wrong.push_back(i);
        }
    }
    std::stable_sort(wrong.begin(), wrong.end(),
                     [&](int a, int b) { return evaluation.losses[a] > evaluation.losses[b]; });
    wrong.resize(std::min<std::size_t>(wrong.size(), count));
    return wrong;
}

std::string confusion_table(const Evaluation& evaluation, const digit_images::ImageSet& set) {
    using digit_images::kDigits;
    std::array<std::array<int, kDigits>, kDigits> counts{};
    for (int i = 0; i < set.count(); ++i) {
        ++counts[set.labels[i]][evaluation.read[i]];
    }
    std::ostringstream out;
    out << "said \\ read";
    for (int read = 0; read < kDigits; ++read) {
        out << std::setw(7) << read;
    }
    out << "     right\n";
    for (int said = 0; said < kDigits; ++said) {
        out << std::setw(11) << said;
        for (const int count : counts[said]) {
            out << std::setw(7);
            count == 0 ? out << '.' : out << count;
        }
        const int all = std::accumulate(counts[said].begin(), counts[said].end(), 0);
        const double share = static_cast<double>(counts[said][said]) / all;
        out << std::setw(10) << (all == 0 ? "-" : common::format_percent(share)) << '\n';
    }
    return out.str();
}

}  // namespace classifier
