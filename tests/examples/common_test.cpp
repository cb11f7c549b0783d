#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <sstream>
#include <thread>

#include "common/format.h"
#include "common/progress.h"
#include "common/team.h"
#include "test_files.h"

namespace {

TEST(CommonProgress, FormatsItsLine) {
    common::ProgressState state = {3, 20, 500, 1000, "frames", 1.2345, 45678, 125};
    EXPECT_EQ(common::progress_line(state, 100),
              "epoch 3/20 [===============>              ]  50%  loss 1.234  46k frames/s  "
              "2 min 05 s left");
    for (int width = 0; width < 120; ++width) {
        EXPECT_LE(static_cast<int>(common::progress_line(state, width).size()), width);
    }
    for (std::int64_t done : {0, 999, 1000, 5000}) {
        state.done = done;
        const std::string line = common::progress_line(state, 100);
        EXPECT_EQ(line.find("100%") != std::string::npos, done >= 1000) << line;
        EXPECT_EQ(line.find('>') == std::string::npos, done >= 1000) << line;
    }
    const std::pair<double, std::string> durations[] = {{-1, "0 s"},
                                                        {59.4, "59 s"},
                                                        {59.6, "1 min 00 s"},
                                                        {3599, "59 min 59 s"},
                                                        {3600, "1 h 00 min"},
                                                        {INFINITY, "-"},
                                                        {NAN, "-"}};
    for (const auto& [seconds, text] : durations) {
        EXPECT_EQ(common::format_duration(seconds), text);
    }
}

TEST(CommonProgress, RedrawsOnTerminalsOnly) {
    std::ostringstream terminal, plain;
    {
        common::Progress on_terminal(2, 100, "images", &terminal, true, 79);
        common::Progress in_file(2, 100, "images", &plain, false, 79);
        for (int epoch : {1, 2}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(120));
            for (common::Progress* progress : {&on_terminal, &in_file}) {
                progress->update(epoch, 50, 2);
                progress->update(epoch, 60, 2);  // too soon after the last one
                if (epoch == 1) {
                    progress->end_line("epoch 1: loss 2");
                }
            }
        }
    }
    EXPECT_EQ(plain.str(), "epoch 1: loss 2\n");
    const std::string drawn = terminal.str();
    EXPECT_EQ(drawn.find("\repoch 1/2 ["), 0u);
    EXPECT_EQ(drawn.find("60%"), std::string::npos);
    EXPECT_NE(drawn.find("\r\x1b[Kepoch 1: loss 2\n\repoch 2/2 ["), std::string::npos);
    EXPECT_EQ(drawn.substr(drawn.size() - 4), "\x1b[K\n");
}

TEST(Team, RunsEachTaskOnceAndPassesOnTheFirstFailure) {
    for (const int threads : {1, 2, 4}) {
        common::Team team(threads);
        for (const int count : {0, 1, 3, 100}) {
            std::vector<int> runs(count);
            team.for_each(count, [&](int i) { ++runs[i]; });
            EXPECT_EQ(runs, std::vector<int>(count, 1));
        }
        const auto fail = [](const char* why) { throw common::Error(why); };
        EXPECT_EQ(message_of([&] {
                      team.run({[] {}, [&] { fail("second"); }, [&] { fail("third"); }});
                  }),
                  "second");
        // Longer than a thread asks for work before it sleeps.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        int sum = 0;
        team.run({[&] { sum = 5; }});
        EXPECT_EQ(sum, 5);
    }
}

}  // namespace
