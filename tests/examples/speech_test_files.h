#ifndef SPEECH_TEST_FILES_H_
#define SPEECH_TEST_FILES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "test_files.h"

/// A WAV file of 16-bit integers, or of floats for T = float, channels interleaved.
template <typename T>
std::string wav(int rate, int channels, const std::vector<T>& samples) {
    std::string text = "RIFF";
    const auto put = [&text](auto... values) {
        (text.append(reinterpret_cast<const char*>(&values), sizeof values), ...);
    };
    const std::uint16_t format = sizeof(T) == sizeof(float) ? 3 : 1, bits = 8 * sizeof(T);
    const auto frame = static_cast<std::uint16_t>(channels * sizeof(T));
    const auto bytes = static_cast<std::uint32_t>(samples.size() * sizeof(T));
    put(36 + bytes);
    text += "WAVEfmt ";
    put(std::uint32_t{16}, format, static_cast<std::uint16_t>(channels), rate, rate * frame, frame,
        bits);
    text += "data";
    put(bytes);
    text.append(reinterpret_cast<const char*>(samples.data()), bytes);
    return text;
}

#endif  // SPEECH_TEST_FILES_H_
