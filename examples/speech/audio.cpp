#include "audio.h"

#include <samplerate.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <system_error>

#include "common/error.h"

namespace speech {

namespace {

using SoundFile = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

SoundFile open_sound(const std::filesystem::path& file, SF_INFO* info) {
    std::error_code ignored;
    if (!std::filesystem::exists(file, ignored)) {
        throw common::Error(file.string() + ": no such file");
    }
    // A pipe would block, and none of the formats could be searched in it.
    if (!std::filesystem::is_regular_file(file, ignored)) {
        throw common::Error(file.string() + ": is not a regular file");
    }
    *info = SF_INFO{};
    SoundFile sound(sf_open(file.c_str(), SFM_READ, info), sf_close);
    if (!sound) {
        std::string reason = sf_strerror(nullptr);
        while (!reason.empty() && (reason.back() == '.' || reason.back() == '\n')) {
            reason.pop_back();
        }
        std::replace(reason.begin(), reason.end(), '\n', ' ');
        throw common::Error(file.string() + ": not a readable sound file (" + reason + ")");
    }
    if (info->frames <= 0 || info->samplerate <= 0 || info->channels <= 0) {
        throw common::Error(file.string() + ": holds no samples");
    }
    return sound;
}

/// Nothing but libsndfile's log tells of a WAV file that was cut off. Where programs write to a
/// pipe they claim almost 2 GiB or more.
void warn_when_cut(SNDFILE* sound, const std::filesystem::path& file) {
    constexpr unsigned long stream = 0x7fff0000;
    char log[4096] = "";
    sf_command(sound, SFC_GET_LOG_INFO, log, sizeof log);
    const char* data = std::strstr(log, "\ndata : ");
    unsigned long told, there;
    if (data != nullptr && std::sscanf(data, " data : %lu (should be %lu)", &told, &there) == 2 &&
        there < told && told < stream) {
        std::cerr << "warning: " + file.string() + ": is cut off: " + std::to_string(there) +
                         " bytes of sound of the " + std::to_string(told) + " in its header\n";
    }
}

}  // namespace

AudioInfo probe_audio(const std::filesystem::path& file) {
    SF_INFO info;
    open_sound(file, &info);
    return {info.frames, info.samplerate, info.channels};
}

std::vector<float> read_audio(const std::filesystem::path& file, int rate) {
    SF_INFO info;
    const SoundFile sound = open_sound(file, &info);
    warn_when_cut(sound.get(), file);

    // The header's length is not to be trusted with an allocation: read block by block.
    constexpr sf_count_t block = 1 << 16;
    std::vector<float> interleaved(block * info.channels);
    std::vector<float> mono;
    const float scale = 1.0f / static_cast<float>(info.channels);
    sf_count_t got;
    while ((got = sf_readf_float(sound.get(), interleaved.data(), block)) > 0) {
        const float* in = interleaved.data();
        for (sf_count_t t = 0; t < got; ++t) {
            float sum = 0;
            for (int c = 0; c < info.channels; ++c) {
                sum += *in++;
            }
            mono.push_back(sum * scale);
        }
    }
    if (static_cast<sf_count_t>(mono.size()) != info.frames) {
        throw common::Error(file.string() + ": ends after " + std::to_string(mono.size()) + " of " +
                            std::to_string(info.frames) + " samples");
    }
    if (!std::all_of(mono.begin(), mono.end(), [](float x) { return std::isfinite(x); })) {
        throw common::Error(file.string() + ": holds a sample that is not finite");
    }
    try {
        return resample(mono, info.samplerate, rate);
    } catch (const common::Error& error) {
        throw common::Error(file.string() + ": " + error.what());
    }
}

std::vector<float> resample(const std::vector<float>& samples, int from, int to) {
    if (from == to || samples.empty()) {
        return samples;
    }
    const double ratio = static_cast<double>(to) / from;
    const double length = std::round(static_cast<double>(samples.size()) * ratio);
    if (src_is_valid_ratio(ratio) == 0 || length > std::numeric_limits<int>::max()) {
        throw common::Error("cannot resample from " + std::to_string(from) + " to " +
                            std::to_string(to) + " Hz");
    }
    std::vector<float> result(static_cast<std::size_t>(length));
    SRC_DATA data{};
    data.data_in = samples.data();
    data.data_out = result.data();
    data.input_frames = static_cast<long>(samples.size());
    data.output_frames = static_cast<long>(result.size());
    data.src_ratio = ratio;
    if (const int error = src_simple(&data, SRC_SINC_MEDIUM_QUALITY, 1); error != 0) {
        throw common::Error(std::string("cannot resample: ") + src_strerror(error));
    }
    // The converter may end a sample early; what it left is zero already.
    return result;
}

}  // namespace speech
