#ifndef SPEECH_AUGMENT_H_
#define SPEECH_AUGMENT_H_

#include "common/parameter.h"
#include "features.h"

namespace speech {

/// Makes a new voice and new disturbances of an utterance, so that training never sees the same
/// frames twice:
///
/// - the frequency axis is stretched or shrunk by one random factor, as by a shorter or longer
///   vocal tract (Jaitly and Hinton, "Vocal tract length perturbation", 2013);
/// - a few bands of all frames, and a few stretches of frames, are set to 0, the mean of
///   normalised features (Park et al., "SpecAugment", Interspeech 2019).
///
/// `frames` are normalised features made with `options`.
void augment(const FeatureOptions& options, FrameMatrix* frames, common::Random* random);

}  // namespace speech

#endif  // SPEECH_AUGMENT_H_
