#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "speech/audio.h"
#include "speech/error.h"
#include "speech_test_files.h"

namespace {

std::vector<float> tone(double frequency, int rate, int count) {
    std::vector<float> samples(count);
    for (int t = 0; t < count; ++t) {
        samples[t] = static_cast<float>(0.5 * std::sin(2 * M_PI * frequency * t / rate));
    }
    return samples;
}

TEST(SpeechAudio, ResamplesTones) {
    struct {
        int from, to;
        double frequency;
        bool passes;  // below half of both rates
    } cases[] = {{44100, 16000, 1000, true},   {8000, 16000, 1000, true},
                 {22050, 16000, 6000, true},   {48000, 16000, 300, true},
                 {44100, 16000, 10000, false}, {16000, 16000, 1000, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " Hz, tone of " + std::to_string(c.frequency));
        const auto result = speech::resample(tone(c.frequency, c.from, c.from / 2), c.from, c.to);
        ASSERT_EQ(result.size(), static_cast<std::size_t>(c.to / 2));
        const auto expected = tone(c.passes ? c.frequency : 0, c.to, c.to / 2);
        // Near the ends the filter sees the silence outside.
        for (std::size_t t = 500; t + 500 < result.size(); ++t) {
            ASSERT_NEAR(result[t], expected[t], 1e-3) << t;
        }
    }
    EXPECT_EQ(message_of<speech::Error>([] {
                  speech::resample({1, 2, 3}, 10, 16000);
              }),
              "cannot resample from 10 to 16000 Hz");
}

TEST(SpeechAudio, ReadsAndMixes) {
    const TemporaryFolder folder;
    const auto stereo = folder.write(
        "stereo.wav", wav<std::int16_t>(16000, 2, {16384, -8192, 0, 32767, -32768, -32768}));
    const auto info = speech::probe_audio(stereo);
    EXPECT_EQ(info.samples, 3);
    EXPECT_EQ(info.rate, 16000);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(speech::read_audio(stereo, 16000),
              (std::vector<float>{0.125f, 32767 / 65536.0f, -1.0f}));

    // A streamed file: the header's length is a guess.
    std::string endless = wav<std::int16_t>(16000, 1, {16384, -16384});
    endless.replace(40, 4, "\xff\xff\xff\x7f");
    EXPECT_EQ(speech::read_audio(folder.write("endless.wav", endless), 16000),
              (std::vector<float>{0.5f, -0.5f}));

    // Longer than one block of the reader, at another rate.
    const auto slow = folder.write("slow.wav", wav(8000, 1, tone(440, 8000, 100000)));
    const auto samples = speech::read_audio(slow, 16000);
    ASSERT_EQ(samples.size(), 200000u);
    const auto expected = tone(440, 16000, 200000);
    for (std::size_t t = 1000; t < 199000; ++t) {
        ASSERT_NEAR(samples[t], expected[t], 1e-3) << t;
    }
}

TEST(SpeechAudio, RefusesWhatIsNoSound) {
    const TemporaryFolder folder;
    const std::string whole = wav<std::int16_t>(16000, 1, std::vector<std::int16_t>(100, 5));
    struct {
        std::string file, message;  // the message goes on with libsndfile's reason
    } cases[] = {
        {"missing.wav", ": no such file"},
        {"", ": is not a regular file"},
        {folder.write("empty.wav", "").filename(), ": not a readable sound file ("},
        {folder.write("text.wav", "three four").filename(), ": not a readable sound file ("},
        {folder.write("cut.wav", whole.substr(0, 30)).filename(), ": not a readable sound file ("},
        {folder.write("none.wav", wav<std::int16_t>(16000, 1, {})).filename(),
         ": holds no samples"},
        {folder.write("nan.wav", wav<float>(16000, 1, {0, std::nanf(""), 0})).filename(),
         ": holds a sample that is not finite"},
        {folder
             .write("infinite.wav", wav<float>(16000, 1, {std::numeric_limits<float>::infinity()}))
             .filename(),
         ": holds a sample that is not finite"},
        {folder.write("strange.wav", wav<std::int16_t>(20, 1, {1, 2})).filename(),
         ": cannot resample from 20 to 16000 Hz"},
    };
    for (const auto& c : cases) {
        const auto file = folder / c.file;
        const std::string message =
            message_of<speech::Error>([&] { speech::read_audio(file, 16000); });
        const std::string expected = file.string() + c.message;
        EXPECT_EQ(message.substr(0, expected.size()), expected);
        EXPECT_EQ(message.find('\n'), std::string::npos);
    }
}

}  // namespace
