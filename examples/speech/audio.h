#ifndef SPEECH_AUDIO_H_
#define SPEECH_AUDIO_H_

#include <cstdint>
#include <filesystem>
#include <vector>

namespace speech {

/// What the header of a sound file tells.
struct AudioInfo {
    std::int64_t samples;  ///< per channel
    int rate;              ///< samples a second
    int channels;

    double seconds() const { return static_cast<double>(samples) / rate; }
};

/// Reads the header only. Throws Error when the file is missing, is not a sound file that
/// libsndfile reads, or holds no samples. A WAV file that is shorter than its header says, as
/// streamed ones are, counts with the length that it has.
AudioInfo probe_audio(const std::filesystem::path& file);

/// Reads a whole sound file, averages its channels and brings it to `rate` samples a second.
/// Full scale is 1. Throws Error as probe_audio() does, and when the file breaks off
/// in the middle of compressed sound or holds a value that is not finite. Warns on standard error
/// of a WAV file that is shorter than its header says and is not a streamed one.
std::vector<float> read_audio(const std::filesystem::path& file, int rate);

/// Band-limited change of the sampling rate; round(samples * to / from) samples, a copy when the
/// rates are equal. Throws Error when the ratio lies outside 1/256 to 256.
std::vector<float> resample(const std::vector<float>& samples, int from, int to);

}  // namespace speech

#endif  // SPEECH_AUDIO_H_
