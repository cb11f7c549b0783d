#ifndef SPEECH_SCORING_H_
#define SPEECH_SCORING_H_

#include <string>
#include <vector>

#include "features.h"

namespace speech {

/// What turns the reference into the hypothesis, counted over one or more utterances.
struct EditCounts {
    int substitutions = 0;
    int insertions = 0;
    int deletions = 0;
    int reference = 0;  ///< digits of the reference

    int errors() const { return substitutions + insertions + deletions; }
    /// (S + I + D) / reference; it may exceed 1. Without a reference digit: 0 or, when anything
    /// was inserted, 1.
    double rate() const;
    EditCounts& operator+=(const EditCounts& other);
};

/// Counts along an alignment with the fewest edits. Where several have the fewest, the one with
/// the most substitutions counts.
EditCounts align(const std::vector<int>& reference, const std::vector<int>& hypothesis);

/// Best-path CTC decoding of arg-max classes: runs of one class become one label, then blanks
/// are dropped. Reads `count` classes, each `step` after the last, so that one utterance of a
/// batch with interleaved frames can be read in place.
std::vector<int> greedy_decode(const int* classes, int count, int step = 1);

/// A label of the best path and the frame where it is surest.
struct Spike {
    int label;
    int frame;
};

/// Best-path decoding of class posteriors, frames x classes. The labels are those of
/// greedy_decode() on the arg-max of each row (the first of equals).
std::vector<Spike> greedy_spikes(const FrameMatrix& posteriors);

/// One scored utterance.
struct UtteranceScore {
    std::string name;
    std::vector<int> reference;
    std::vector<int> hypothesis;
    EditCounts counts;
};

/// Adds up the scores of a test set.
class Scorer {
public:
    void add(std::string name, std::vector<int> reference, std::vector<int> hypothesis);

    const EditCounts& total() const { return _total; }
    int utterances() const { return static_cast<int>(_scores.size()); }
    /// Utterances with at least one error.
    int wrong_utterances() const;
    /// Up to `count` wrong utterances, those with most errors first, then in the order added.
    std::vector<UtteranceScore> worst(int count) const;

private:
    std::vector<UtteranceScore> _scores;
    EditCounts _total;
};

}  // namespace speech

#endif  // SPEECH_SCORING_H_
