#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <sstream>

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
    common::Progress::Clock::time_point now;
    const auto clock = [&now] { return now; };
    {
        common::Progress on_terminal(2, 100, "images", &terminal, true, 79, clock);
        common::Progress in_file(2, 100, "images", &plain, false, 79, clock);
        for (int epoch : {1, 2}) {
            now += std::chrono::milliseconds(5100);
            for (common::Progress* progress : {&on_terminal, &in_file}) {
                progress->update(epoch, 50, 2);
                progress->update(epoch, 60, 2);  // too soon after the last one
                if (epoch == 1) {
                    progress->end_line("epoch 1: loss 2");
                }
            }
        }
    }
    const std::string
        first = "epoch 1/2 [=============>            ]  50%  loss 2.000  10 images/s  15 s left",
        second = "epoch 2/2 [=============>             ]  50%  loss 2.000  15 images/s  3 s left";
    EXPECT_EQ(terminal.str(),
              "\r" + first + "\x1b[K\r\x1b[Kepoch 1: loss 2\n\r" + second + "\x1b[K\n");
    EXPECT_EQ(plain.str(), "epoch 1: loss 2\n" + second + "\n");
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
