#ifndef SPEECH_RECOGNISER_H_
#define SPEECH_RECOGNISER_H_

#include <vector>

#include "dataset.h"
#include "features.h"
#include "network.h"
#include "scoring.h"

namespace speech {

/// The labels on the network's best path through each sample; none for a sample without frames.
/// The features are normalised ones. Works on batches of utterances of like length. Throws Error
/// when the posteriors are NaN, as those of a damaged model may be.
std::vector<std::vector<int>> recognise(Network* network, const std::vector<Sample>& samples);

/// Recognises and scores.
Scorer score(Network* network, const std::vector<Sample>& samples);

/// The class posteriors of one utterance with at least one frame.
FrameMatrix posteriors_of(Network* network, const FrameMatrix& features);

/// Indices of `samples`, from the shortest to the longest.
std::vector<int> by_length(const std::vector<Sample>& samples);

}  // namespace speech

#endif  // SPEECH_RECOGNISER_H_
