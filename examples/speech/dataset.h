#ifndef SPEECH_DATASET_H_
#define SPEECH_DATASET_H_

#include <string>
#include <vector>

#include "corpus.h"
#include "features.h"

namespace speech {

/// An utterance with its features.
struct Sample {
    std::string name;
    std::vector<int> labels;
    FrameMatrix features;  ///< no rows where the sound is shorter than one analysis window
};

/// Rows that the features of an utterance have.
int row_count(const Utterance& utterance, const FeatureOptions& options);

/// Empty when the frames of an utterance can carry its labels; else a sentence about it that names
/// the file.
std::string shortage(const Utterance& utterance, const FeatureOptions& options);

/// The utterances whose frames can carry their labels. Where `warn` is set, a warning on standard
/// error names each of the others.
std::vector<Utterance> drop_short(const std::vector<Utterance>& utterances,
                                  const FeatureOptions& options, bool warn = true);

/// Extracts the features of all utterances, on all cores. Throws Error at a broken file.
std::vector<Sample> extract_all(const std::vector<Utterance>& utterances,
                                const FeatureOptions& options);

/// Views of the features, for a batch.
std::vector<const FrameMatrix*> features_of(const std::vector<Sample>& samples);

}  // namespace speech

#endif  // SPEECH_DATASET_H_
