#ifndef SPEECH_PLOT_H_
#define SPEECH_PLOT_H_

#include <filesystem>
#include <string>
#include <vector>

#include "common/curves.h"
#include "features.h"

namespace speech {

/// What the network says about one utterance.
struct UtterancePicture {
    std::string name;
    std::vector<int> reference;  ///< labels that were spoken
    FrameMatrix posteriors;      ///< frames x kClassCount, each row adds up to 1
    double row_seconds;          ///< seconds from one row to the next
};

/// The gnuplot script, with its data inside, that draws `png`: on top the loss and the digit error
/// rate by epoch, below the posteriors of the classes over time with the recognised digits at
/// their peaks.
std::string picture_script(const std::filesystem::path& png,
                           const std::vector<common::EpochPoint>& epochs,
                           const UtterancePicture& utterance);

}  // namespace speech

#endif  // SPEECH_PLOT_H_
