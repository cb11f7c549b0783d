#ifndef SPEECH_BATCHES_H_
#define SPEECH_BATCHES_H_

#include <vector>

#include "common/random.h"

namespace speech {

/// Indices of utterances.
using Indices = std::vector<int>;

/// One pass over utterances of the given lengths, in a random order that only `random` decides:
/// batches of like length, so that there is little padding.
std::vector<Indices> draw_batches(const std::vector<int>& lengths, int batch,
                                  common::Random* random);

/// One of several shares of the utterances, whose lengths add up to nearly the same: the utterances
/// are dealt out longest first, to the share that has least. A share keeps their order.
Indices share_of(const Indices& utterances, const std::vector<int>& lengths, int share, int shares);

}  // namespace speech

#endif  // SPEECH_BATCHES_H_
