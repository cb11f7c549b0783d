#include "digit_images/evaluation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <numeric>
#include <sstream>

#include "common/error.h"
#include "common/format.h"

namespace digit_images {

namespace {

constexpr int kBatch = 512;

}  // namespace

Evaluation evaluate(
    int images, vorn::Device device,
    const std::function<void(int begin, int end, common::CrossEntropy* objective)>& read) {
    common::CrossEntropy objective(device);
    Evaluation result;
    double loss = 0;
    for (int begin = 0; begin < images; begin += kBatch) {
        const int end = std::min(begin + kBatch, images);
        read(begin, end, &objective);
        if (std::isnan(objective.mean_loss())) {
            throw common::Error("the network's posteriors are not numbers; its model is damaged");
        }
        loss += objective.mean_loss() * (end - begin);
        result.correct += objective.correct();
        result.read.insert(result.read.end(), objective.read().begin(), objective.read().end());
        result.losses.insert(result.losses.end(), objective.losses().begin(),
                             objective.losses().end());
    }
    result.mean_loss = loss / images;
    return result;
}

std::vector<int> worst_mistakes(const Evaluation& evaluation, const ImageSet& set, int count) {
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

std::string confusion_table(const Evaluation& evaluation, const ImageSet& set) {
    std::array<std::array<int, kDigits + 1>, kDigits> counts{};
    bool none = false;
    for (int i = 0; i < set.count(); ++i) {
        ++counts[set.labels[i]][evaluation.read[i]];
        none |= evaluation.read[i] == kDigits;
    }
    std::ostringstream out;
    out << "said \\ read";
    for (int read = 0; read < kDigits; ++read) {
        out << std::setw(7) << read;
    }
    out << (none ? "   none" : "") << "     right\n";
    for (int said = 0; said < kDigits; ++said) {
        out << std::setw(11) << said;
        for (int read = 0; read < kDigits + (none ? 1 : 0); ++read) {
            const int count = counts[said][read];
            out << std::setw(7);
            count == 0 ? out << '.' : out << count;
        }
        const int all = std::accumulate(counts[said].begin(), counts[said].end(), 0);
        const double share = static_cast<double>(counts[said][said]) / all;
        out << std::setw(10) << (all == 0 ? "-" : common::format_percent(share)) << '\n';
    }
    return out.str();
}

}  // namespace digit_images
