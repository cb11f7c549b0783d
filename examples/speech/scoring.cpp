#include "scoring.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <tuple>
#include <utility>

#include "digits.h"

namespace speech {

double EditCounts::rate() const {
    if (reference == 0) {
        return errors() > 0 ? 1.0 : 0.0;
    }
    return static_cast<double>(errors()) / reference;
}

EditCounts& EditCounts::operator+=(const EditCounts& other) {
    substitutions += other.substitutions;
    insertions += other.insertions;
    deletions += other.deletions;
    reference += other.reference;
    return *this;
}

EditCounts align(const std::vector<int>& reference, const std::vector<int>& hypothesis) {
    const auto better = [](const EditCounts& a, const EditCounts& b) {
        return std::make_tuple(a.errors(), -a.substitutions) <
               std::make_tuple(b.errors(), -b.substitutions);
    };
    // row[j]: the best way from the reference read so far to the first j of the hypothesis.
    std::vector<EditCounts> row(hypothesis.size() + 1);
    for (std::size_t j = 1; j < row.size(); ++j) {
        row[j].insertions = static_cast<int>(j);
    }
    for (const int label : reference) {
        EditCounts diagonal = row[0];
        row[0].deletions += 1;
        row[0].reference += 1;
        for (std::size_t j = 1; j < row.size(); ++j) {
            EditCounts match = diagonal;
            match.substitutions += label != hypothesis[j - 1];
            match.reference += 1;
            EditCounts deletion = row[j];
            deletion.deletions += 1;
            deletion.reference += 1;
            EditCounts insertion = row[j - 1];
            insertion.insertions += 1;
            diagonal = row[j];
            row[j] = std::min({match, deletion, insertion}, better);
        }
    }
    return row.back();
}

std::vector<int> greedy_decode(const int* classes, int count, int step) {
    std::vector<int> labels;
    int previous = kBlank;
    for (int t = 0; t < count; ++t) {
        const int current = classes[static_cast<std::ptrdiff_t>(t) * step];
        if (current != previous && current != kBlank) {
            labels.push_back(current);
        }
        previous = current;
    }
    return labels;
}

std::vector<Spike> greedy_spikes(const FrameMatrix& posteriors) {
    std::vector<Spike> spikes;
    int previous = kBlank;
    for (int t = 0; t < posteriors.rows; ++t) {
        const float* row = posteriors.row(t);
        const int current = static_cast<int>(std::max_element(row, row + posteriors.columns) - row);
        if (current != kBlank) {
            if (current != previous) {
                spikes.push_back({current, t});
            } else if (row[current] > posteriors.row(spikes.back().frame)[current]) {
                spikes.back().frame = t;
            }
        }
        previous = current;
    }
    return spikes;
}

void Scorer::add(std::string name, std::vector<int> reference, std::vector<int> hypothesis) {
    const EditCounts counts = align(reference, hypothesis);
    _total += counts;
    _scores.push_back({std::move(name), std::move(reference), std::move(hypothesis), counts});
}

int Scorer::wrong_utterances() const {
    return static_cast<int>(
        std::count_if(_scores.begin(), _scores.end(),
                      [](const UtteranceScore& score) { return score.counts.errors() > 0; }));
}

std::vector<UtteranceScore> Scorer::worst(int count) const {
    std::vector<UtteranceScore> wrong;
    std::copy_if(_scores.begin(), _scores.end(), std::back_inserter(wrong),
                 [](const UtteranceScore& score) { return score.counts.errors() > 0; });
    std::stable_sort(wrong.begin(), wrong.end(), [](const auto& a, const auto& b) {
        return a.counts.errors() > b.counts.errors();
    });
    wrong.resize(std::min<std::size_t>(wrong.size(), std::max(count, 0)));
    return wrong;
}

}  // namespace speech
