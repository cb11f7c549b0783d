#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>

#include "speech/digits.h"
#include "speech/plot.h"
#include "speech/report.h"
#include "speech/scoring.h"
#include "speech_test_files.h"

namespace {

using speech::EditCounts;
using Labels = std::vector<int>;
using Way = std::pair<int, int>;  // errors, minus the substitutions among them

// Of every alignment there is the one with fewest errors and, among these, most substitutions.
Way best_way(const int* reference, int m, const int* hypothesis, int n) {
    if (m == 0 || n == 0) {
        return {m + n, 0};
    }
    const auto plus = [](Way way, int errors, int substitutions) {
        return Way{way.first + errors, way.second - substitutions};
    };
    const int wrong = *reference != *hypothesis;
    return std::min({plus(best_way(reference + 1, m - 1, hypothesis, n), 1, 0),
                     plus(best_way(reference, m, hypothesis + 1, n - 1), 1, 0),
                     plus(best_way(reference + 1, m - 1, hypothesis + 1, n - 1), wrong, wrong)});
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
        SCOPED_TRACE(speech::to_transcript(reference) + " | " + speech::to_transcript(hypothesis));
        const EditCounts counts = speech::align(reference, hypothesis);
        const int m = static_cast<int>(reference.size()), n = static_cast<int>(hypothesis.size());
        EXPECT_EQ(Way(counts.errors(), -counts.substitutions),
                  best_way(reference.data(), m, hypothesis.data(), n));
        EXPECT_EQ(counts.insertions - counts.deletions, n - m);
        EXPECT_EQ(counts.reference, m);
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
    EXPECT_EQ(speech::format_counts(scorer.total()),
              "digit error rate 50.00 % (2 substitutions, 2 insertions, 1 deletions in 10 digits)");
    std::string worst;
    for (const auto& score : scorer.worst(10)) {
        worst += score.name + ' ';
    }
    EXPECT_EQ(worst, "three one another ");
    EXPECT_EQ(scorer.worst(1).size(), 1u);
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
        // The middle one of three interleaved utterances, and posteriors surest at odd frames.
        Labels interleaved(3 * c.classes.size(), 8);
        speech::FrameMatrix posteriors(frames, speech::kClassCount);
        for (int t = 0; t < frames; ++t) {
            interleaved[3 * t + 1] = c.classes[t];
            posteriors.row(t)[c.classes[t]] = t % 2 == 1 ? 0.9f : 0.8f;
        }
        EXPECT_EQ(speech::greedy_decode(c.classes.data(), frames), c.labels);
        EXPECT_EQ(speech::greedy_decode(interleaved.data() + 1, frames, 3), c.labels);

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
    // The first of all class sequences, from the shortest on, that decodes to some labels.
    std::map<Labels, int> shortest;
    std::vector<Labels> sequences = {{}};
    for (std::size_t i = 0; i < sequences.size(); ++i) {
        const Labels classes = sequences[i];
        const int length = static_cast<int>(classes.size());
        shortest.emplace(speech::greedy_decode(classes.data(), length), length);
        for (int next = 0; length < 7 && next < 3; ++next) {
            sequences.push_back(classes);
            sequences.back().push_back(next);
        }
    }
    for (const auto& [labels, length] : shortest) {
        EXPECT_EQ(speech::frames_needed(labels), length) << speech::to_transcript(labels);
    }
}

TEST(SpeechPicture, IsDrawnByGnuplotOrOnlyWarnedOf) {
    std::vector<common::EpochPoint> epochs = {{1, 9.5, 1.0}, {2, 3.25, 0.5}, {3, 1, 0.0625}};
    speech::UtterancePicture utterance = {
        "it's {one}_two.wav", {2, 3}, speech::FrameMatrix(40, speech::kClassCount), 0.03};
    for (int t = 0; t < 40; ++t) {
        utterance.posteriors.row(t)[t == 10 ? 2 : t == 25 ? 3 : speech::kBlank] = 1;
    }
    const TemporaryFolder folder;
    const auto lost = folder / "missing" / "a", kept = folder / "a.png";
    EXPECT_EQ(message_of([&] { common::draw_picture(lost, ""); }),
              lost.string() + ".gnuplot: cannot be written");

    const std::string path = std::getenv("PATH");
    setenv("PATH", folder.path().c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(common::draw_picture(kept, speech::picture_script(kept, epochs, utterance)));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "warning: gnuplot is not there to draw " + kept.string() +
                  "; its script is kept in " + kept.string() + ".gnuplot\n");
    setenv("PATH", path.c_str(), 1);
    const std::string script = read_file(folder / "a.png.gnuplot");
    EXPECT_NE(script.find("\n2 3.25 50\n3 1 6.25\nEND\n"), std::string::npos);
    EXPECT_NE(script.find("{/:Bold one}' at 0.315, 1.065"), std::string::npos);
    EXPECT_NE(script.find("'read: one two  (right)'"), std::string::npos);

    if (!has_gnuplot()) {
        GTEST_SKIP() << "gnuplot is not there";
    }
    const auto png = folder / "it's a picture.png";
    expect_drawn(png, speech::picture_script(png, epochs, utterance));
    EXPECT_EQ(read_file(png).substr(16, 8),
              std::string("\0\0\x04\xb0\0\0\x03\x84", 8));  // 1200 x 900
    // Of a range without extent gnuplot would warn.
    epochs.resize(1);
    expect_drawn(png, speech::picture_script(png, epochs, utterance));
}

}  // namespace
