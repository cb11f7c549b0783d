#ifndef SPEECH_PLOT_H_
#define SPEECH_PLOT_H_

#include <filesystem>
#include <string>
#include <vector>

#include "features.h"

namespace speech {

/// How training stood after an epoch.
struct EpochPoint {
    int epoch;                ///< from 1
    double loss;              ///< mean training loss
    double digit_error_rate;  ///< on the test set, 1 = all wrong
};

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
std::string picture_script(const std::filesystem::path& png, const std::vector<EpochPoint>& epochs,
                           const UtterancePicture& utterance);

/// Where the script of a picture lies: beside it, with `.gnuplot` behind its name.
std::filesystem::path picture_script_file(std::filesystem::path png);

/// Writes the script, as OutputFile does, and runs gnuplot on it. True when the picture was made.
/// When gnuplot is missing or fails, a line on standard error says so and names the script. Throws
/// Error when the script cannot be written.
bool draw_picture(const std::filesystem::path& png, const std::vector<EpochPoint>& epochs,
                  const UtterancePicture& utterance);

}  // namespace speech

#endif  // SPEECH_PLOT_H_
