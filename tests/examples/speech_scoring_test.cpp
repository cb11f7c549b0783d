#include <gtest/gtest.h>

#include <random>
#include <set>

#include "speech/digits.h"
#include "speech/scoring.h"

namespace {

using speech::EditCounts;
using Labels = std::vector<int>;

struct Way {
    int substitutions, insertions, deletions;
    int errors() const { return substitutions + insertions + deletions; }
};

// Every alignment there is: the one with fewest errors and, among these, most substitutions.
Way best_way(const Labels& reference, std::size_t i, const Labels& hypothesis, std::size_t j) {
    if (i == reference.size() && j == hypothesis.size()) {
        return {0, 0, 0};
    }
    Way best{1000, 0, 0};
    const auto consider = [&best](Way way) {
        if (way.errors() < best.errors() ||
            (way.errors() == best.errors() && way.substitutions > best.substitutions)) {
            best = way;
        }
    };
    if (i < reference.size()) {
        Way way = best_way(reference, i + 1, hypothesis, j);
        way.deletions += 1;
        consider(way);
    }
    if (j < hypothesis.size()) {
        Way way = best_way(reference, i, hypothesis, j + 1);
        way.insertions += 1;
        consider(way);
    }
    if (i < reference.size() && j < hypothesis.size()) {
        Way way = best_way(reference, i + 1, hypothesis, j + 1);
        way.substitutions += reference[i] != hypothesis[j];
        consider(way);
    }
    return best;
}

TEST(SpeechScoring, AlignsAsBruteForceDoes) {
    std::mt19937 generator(7);
    const auto random_labels = [&generator] {
        Labels labels(generator() % 7);
        for (int& label : labels) {
            label = 1 + static_cast<int>(generator() % 3);
        }
        return labels;
    };
    for (int round = 0; round < 300; ++round) {
        const Labels reference = random_labels(), hypothesis = random_labels();
        const EditCounts counts = speech::align(reference, hypothesis);
        const Way way = best_way(reference, 0, hypothesis, 0);
        SCOPED_TRACE(speech::to_transcript(reference) + " | " + speech::to_transcript(hypothesis));
        EXPECT_EQ(counts.substitutions, way.substitutions);
        EXPECT_EQ(counts.insertions, way.insertions);
        EXPECT_EQ(counts.deletions, way.deletions);
        EXPECT_EQ(counts.reference, static_cast<int>(reference.size()));
    }
}

TEST(SpeechScoring, AddsUpAndListsTheWorst) {
    speech::Scorer scorer;
    EXPECT_EQ(scorer.total().rate(), 0);
    scorer.add("right", {1, 2, 3}, {1, 2, 3});
    scorer.add("one", {1, 2, 3}, {1, 3});
    scorer.add("three", {4, 5}, {6, 7, 8});
    scorer.add("another", {9, 9}, {9, 9, 9});
    EXPECT_EQ(scorer.utterances(), 4);
    EXPECT_EQ(scorer.wrong_utterances(), 3);
    EXPECT_EQ(scorer.total().reference, 10);
    EXPECT_EQ(scorer.total().substitutions, 2);
    EXPECT_EQ(scorer.total().insertions, 2);
    EXPECT_EQ(scorer.total().deletions, 1);
    EXPECT_DOUBLE_EQ(scorer.total().rate(), 0.5);
    const auto names = [&scorer](int count) {
        std::string text;
        for (const auto& score : scorer.worst(count)) {
            text += score.name + ' ';
        }
        return text;
    };
    EXPECT_EQ(names(10), "three one another ");
    EXPECT_EQ(names(1), "three ");
    EXPECT_EQ(names(0), "");
    EXPECT_EQ(speech::align({}, {4}).rate(), 1);
}

TEST(SpeechScoring, DecodesGreedily) {
    struct {
        Labels classes, labels, peaks;
    } cases[] = {
        {{}, {}, {}},
        {{0, 0, 0}, {}, {}},
        {{5}, {5}, {0}},
        {{5, 5, 5}, {5}, {1}},
        {{5, 0, 5}, {5, 5}, {0, 2}},
        {{0, 3, 3, 0, 0, 3, 4, 4, 0}, {3, 3, 4}, {1, 5, 7}},
        {{1, 11, 1}, {1, 11, 1}, {0, 1, 2}},
    };
    for (const auto& c : cases) {
        const int frames = static_cast<int>(c.classes.size());
        EXPECT_EQ(speech::greedy_decode(c.classes.data(), frames), c.labels);

        // The middle one of three interleaved utterances.
        Labels interleaved(3 * c.classes.size(), 8);
        for (int t = 0; t < frames; ++t) {
            interleaved[3 * t + 1] = c.classes[t];
        }
        EXPECT_EQ(speech::greedy_decode(interleaved.data() + 1, frames, 3), c.labels);

        // Posteriors that are surest at odd frames.
        speech::FrameMatrix posteriors(frames, speech::kClassCount);
        for (int t = 0; t < frames; ++t) {
            posteriors.row(t)[c.classes[t]] = t % 2 == 1 ? 0.9f : 0.8f;
        }
        Labels labels, peaks;
        for (const speech::Spike& spike : speech::greedy_spikes(posteriors)) {
            labels.push_back(spike.label);
            peaks.push_back(spike.frame);
        }
        EXPECT_EQ(labels, c.labels);
        EXPECT_EQ(peaks, c.peaks);
    }
}

TEST(SpeechScoring, NeedsEnoughFrames) {
    // The shortest class sequence that decodes to the labels, found by trying all of them.
    for (const Labels& labels :
         {Labels{1}, Labels{1, 2}, Labels{1, 1}, Labels{2, 2, 2}, Labels{1, 2, 2, 1}}) {
        int shortest = 0;
        for (int length = 1; shortest == 0; ++length) {
            int combinations = 1;
            for (int i = 0; i < length; ++i) {
                combinations *= 3;
            }
            for (int code = 0; code < combinations && shortest == 0; ++code) {
                Labels classes;
                for (int i = 0, rest = code; i < length; ++i, rest /= 3) {
                    classes.push_back(rest % 3);
                }
                if (speech::greedy_decode(classes.data(), length) == labels) {
                    shortest = length;
                }
            }
        }
        EXPECT_EQ(speech::frames_needed(labels), shortest);
    }
}

}  // namespace
