#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "speech/digits.h"
#include "speech/error.h"
#include "speech/plot.h"
#include "speech/progress.h"
#include "speech_test_files.h"

namespace {

TEST(SpeechProgress, FormatsItsLine) {
    speech::ProgressState state;
    state.epoch = 3;
    state.epochs = 20;
    state.done = 500;
    state.total = 1000;
    state.loss = 1.2345;
    state.frames_per_second = 45678;
    state.seconds_left = 125;
    EXPECT_EQ(speech::progress_line(state, 100),
              "epoch 3/20 [===============>              ]  50%  loss 1.234  46k frames/s  "
              "2 min 05 s left");
    for (int width = 0; width < 120; ++width) {
        EXPECT_LE(static_cast<int>(speech::progress_line(state, width).size()), width);
    }
    for (std::int64_t done : {0, 999, 1000, 5000}) {
        state.done = done;
        const std::string line = speech::progress_line(state, 100);
        EXPECT_EQ(line.find("100%") != std::string::npos, done >= 1000) << line;
        EXPECT_EQ(line.find('>') == std::string::npos, done >= 1000) << line;
    }
    struct {
        double seconds;
        std::string text;
    } durations[] = {{-1, "0 s"},
                     {59.4, "59 s"},
                     {59.6, "1 min 00 s"},
                     {3599, "59 min 59 s"},
                     {3600, "1 h 00 min"},
                     {INFINITY, "-"},
                     {NAN, "-"}};
    for (const auto& d : durations) {
        EXPECT_EQ(speech::format_duration(d.seconds), d.text);
    }
}

TEST(SpeechProgress, RedrawsOnTerminalsOnly) {
    std::ostringstream terminal, plain;
    {
        speech::Progress on_terminal(2, 100, &terminal, true, 79);
        speech::Progress in_file(2, 100, &plain, false, 79);
        std::this_thread::sleep_for(std::chrono::milliseconds(120));
        for (speech::Progress* progress : {&on_terminal, &in_file}) {
            progress->update(1, 50, 2);
            progress->update(1, 60, 2);  // too soon after the last one
            progress->finish_epoch("epoch 1: loss 2");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(120));
        on_terminal.update(2, 50, 1);
    }
    EXPECT_EQ(plain.str(), "epoch 1: loss 2\n");
    const std::string drawn = terminal.str();
    EXPECT_EQ(drawn.find("\repoch 1/2 ["), 0u);
    EXPECT_EQ(drawn.find("60%"), std::string::npos);
    EXPECT_NE(drawn.find("\r\x1b[Kepoch 1: loss 2\n\repoch 2/2 ["), std::string::npos);
    EXPECT_EQ(drawn.substr(drawn.size() - 4), "\x1b[K\n");
}

class SpeechPicture : public testing::Test {
protected:
    SpeechPicture() {
        _utterance.name = "it's {one}_two.wav";
        _utterance.reference = {2, 3};
        _utterance.row_seconds = 0.03;
        _utterance.posteriors = speech::FrameMatrix(40, speech::kClassCount);
        for (int t = 0; t < 40; ++t) {
            const int label = t == 10 ? 2 : t == 25 ? 3 : speech::kBlank;
            _utterance.posteriors.row(t)[label] = 1;
        }
    }

    std::vector<speech::EpochPoint> _epochs = {{1, 9.5, 1.0}, {2, 3.25, 0.5}, {3, 1.0, 0.0625}};
    speech::UtterancePicture _utterance;
};

TEST_F(SpeechPicture, IsDrawnByGnuplot) {
    if (std::system("gnuplot --version >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "gnuplot is not there";
    }
    const TemporaryFolder folder;
    const auto png = folder / "it's a picture.png";
    testing::internal::CaptureStderr();
    const bool drawn = speech::draw_picture(png, _epochs, _utterance);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(drawn);
    const std::string bytes = read_file(png);
    ASSERT_GT(bytes.size(), 10000u);
    EXPECT_EQ(bytes.substr(0, 8), "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(bytes.substr(16, 8), std::string("\0\0\x04\xb0\0\0\x03\x84", 8));  // 1200 x 900

    const std::string script = read_file(folder / "it's a picture.gnuplot");
    EXPECT_NE(script.find("\n2 3.25 50\n3 1 6.25\nEND\n"), std::string::npos);
    EXPECT_NE(script.find("{/:Bold one}' at 0.315, 1.065"), std::string::npos);
    EXPECT_NE(script.find("'read: one two  (right)'"), std::string::npos);
}

TEST_F(SpeechPicture, IsOnlyWarnedOfWithoutGnuplot) {
    const TemporaryFolder folder;
    const std::string path = std::getenv("PATH");
    setenv("PATH", folder.path().c_str(), 1);
    testing::internal::CaptureStderr();
    const bool drawn = speech::draw_picture(folder / "a.png", _epochs, _utterance);
    const std::string warning = testing::internal::GetCapturedStderr();
    setenv("PATH", path.c_str(), 1);
    EXPECT_FALSE(drawn);
    EXPECT_EQ(warning, "warning: gnuplot is not there to draw " + (folder / "a.png").string() +
                           "; its script is kept in " + (folder / "a.gnuplot").string() + "\n");
    EXPECT_TRUE(std::filesystem::exists(folder / "a.gnuplot"));

    const auto lost = folder / "missing" / "a.png";
    EXPECT_EQ(message_of<speech::Error>([&] { speech::draw_picture(lost, _epochs, _utterance); }),
              (folder / "missing" / "a.gnuplot").string() + ": cannot be written");
}

}  // namespace
