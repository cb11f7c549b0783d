#ifndef SPEECH_TRAINING_SET_H_
#define SPEECH_TRAINING_SET_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "batches.h"
#include "common/ranks.h"
#include "dataset.h"

namespace speech {

/// The utterances that training draws from, of which each rank reads those that it computes with.
/// Features stay in memory as long as there is room for them, and are read again else.
class TrainingSet {
public:
    /// Samples that are there, with normalised features.
    explicit TrainingSet(const std::vector<Sample>& samples);
    /// Sound files, of which at most `most_bytes` of features are kept.
    TrainingSet(const std::vector<Utterance>& utterances, const FeatureOptions& options,
                std::int64_t most_bytes);

    /// Reads this rank's share of the files, on all cores, and makes the normaliser of the frames
    /// of all ranks. Throws Error on all ranks at a broken file.
    Normaliser fit_normaliser(common::Ranks* ranks);
    /// Applies a normaliser that is there instead.
    void set_normaliser(const Normaliser& normaliser) { _normaliser = normaliser; }

    int size() const { return static_cast<int>(_utterances.size()); }
    /// Frames of each utterance.
    const std::vector<int>& lengths() const { return _lengths; }
    std::int64_t frames() const;

    /// An utterance with its features, normalised. Any thread may call this, one at a time. Throws
    /// Error where its file is gone, broken or not what it was.
    Sample read(int utterance);

private:
    void keep(int utterance, const FrameMatrix& features);

    std::vector<Utterance> _utterances;
    std::vector<int> _lengths;
    std::vector<FrameMatrix> _features;  ///< no rows where they are not kept
    FeatureOptions _options;
    std::unique_ptr<FeatureExtractor> _extractor;
    Normaliser _normaliser;
    std::int64_t _bytes_left = 0;
};

}  // namespace speech

#endif  // SPEECH_TRAINING_SET_H_
