#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <set>

#include "speech/batches.h"
#include "speech_test_files.h"
#include "vorn/vorn.h"

namespace {

const std::string kProgram = VORN_SPEECH_PROGRAM;
const std::string kLosses = VORN_SPEECH_RANKS_LOSSES;

TEST(SpeechBatches, SharesAreBalancedAndTogetherTheBatch) {
    common::Random random(5);
    std::vector<int> lengths;
    for (int i = 0; i < 101; ++i) {
        lengths.push_back(20 + static_cast<int>(200 * common::uniform(&random)));
    }
    std::multiset<int> drawn;
    for (const speech::Indices& batch : speech::draw_batches(lengths, 16, &random)) {
        drawn.insert(batch.begin(), batch.end());
        for (const int shares : {1, 2, 3, 20}) {
            std::multiset<int> together;
            std::vector<int> totals;
            for (int share = 0; share < shares; ++share) {
                totals.push_back(0);
                for (const int i : speech::share_of(batch, lengths, share, shares)) {
                    together.insert(i);
                    totals.back() += lengths[i];
                }
            }
            EXPECT_EQ(together, std::multiset<int>(batch.begin(), batch.end()));
            const auto [least, most] = std::minmax_element(totals.begin(), totals.end());
            EXPECT_LE(*most - *least, 220);  // an utterance
        }
    }
    EXPECT_EQ(drawn.size(), lengths.size());
    EXPECT_EQ(std::set<int>(drawn.begin(), drawn.end()).size(), lengths.size());
}

class SpeechRanks : public testing::Test {
protected:
    void SetUp() override {
        if (!vorn::has_gpu()) {
            GTEST_SKIP() << "no GPU, on which CTC is computed";
        }
        setenv("OMPI_ALLOW_RUN_AS_ROOT", "1", 1);
        setenv("OMPI_ALLOW_RUN_AS_ROOT_CONFIRM", "1", 1);
        if (std::system("mpirun --oversubscribe -n 2 true >/dev/null 2>&1") != 0) {
            GTEST_SKIP() << "no mpirun";
        }
        if (run(_folder, on(2, kLosses + " lstm cpu")).err.find("without MPI") !=
            std::string::npos) {
            GTEST_SKIP() << "built without MPI";
        }
        std::srand(5);
        std::string list;
        for (int i = 0; i < 9; ++i) {
            std::vector<std::int16_t> noise(8000 + 1500 * i);
            for (std::int16_t& sample : noise) {
                sample = static_cast<std::int16_t>(std::rand() % 2000 - 1000);
            }
            const std::string name = std::to_string(i) + ".wav";
            _folder.write(name, wav(16000, 1, noise));
            list += name + "\tone two\n";
        }
        _folder.write("train.tsv", list);
        _folder.write("test.tsv", "3.wav\tone oh\n4.wav\tone\n");
    }

    /// Without MPI's own words where a rank fails, as far as it can be kept from them.
    static std::string on(int ranks, const std::string& command) {
        return "timeout -k 5 60 mpirun -q --oversubscribe -n " + std::to_string(ranks) + " " +
               command;
    }

    std::string train(const std::string& model, const std::string& more) const {
        return kProgram + " train --hidden 4 --batch 3 --corpus " + _folder.path().string() +
               " --out " + (_folder / model).string() + " " + more;
    }

    /// Runs a job on ranks, and `act` when its first checkpoint is there.
    Outcome interrupt(int ranks, const std::string& command, const std::string& act) const {
        const std::string first = (_folder / "checkpoints").string() + "/checkpoint-*";
        const std::string wait =
            "{ while kill -0 $! && ! ls " + first + "; do sleep 0.02; done; } >/dev/null 2>&1";
        return run(_folder, "(" + on(ranks, command) + " & " + wait + "; " + act + "; wait $!)");
    }

    TemporaryFolder _folder;
    std::string _checkpoint =
        "--checkpoint " + (_folder / "checkpoints").string() + " --checkpoint-minutes 0 ";
};

std::vector<double> numbers(const std::string& text) {
    std::istringstream in(text);
    std::vector<double> values;
    for (double value; in >> value;) {
        values.push_back(value);
    }
    return values;
}

TEST_F(SpeechRanks, LearnAsOneDoes) {
    for (const std::string network : {" lstm cpu", " conv-blstm cpu", " conv-blstm gpu"}) {
        SCOPED_TRACE(network);
        const std::vector<double> alone = numbers(run(_folder, kLosses + network).out);
        ASSERT_EQ(alone.size(), 51u);
        // An epoch is five updates.
        EXPECT_LT(std::accumulate(alone.begin() + 45, alone.begin() + 50, 0.0),
                  std::accumulate(alone.begin(), alone.begin() + 5, 0.0));
        for (const int ranks : {2, 3}) {
            const Outcome outcome = run(_folder, on(ranks, kLosses + network));
            EXPECT_EQ(outcome.status, 0) << outcome.err;
            EXPECT_EQ(run(_folder, on(ranks, kLosses + network)).out, outcome.out);
            const std::vector<double> losses = numbers(outcome.out);
            ASSERT_EQ(losses.size(), alone.size());
            for (int i = 0; i < 50; ++i) {
                EXPECT_NEAR(losses[i], alone[i], 1e-4 * alone[i]) << ranks << " ranks, " << i;
            }
        }
    }
}

TEST_F(SpeechRanks, GoOnAfterOneIsKilledAsIfItHadNotBeen) {
    for (const int ranks : {1, 2}) {
        SCOPED_TRACE(ranks);
        const std::string options = "--epochs 3 --feature-memory 0 ";
        ASSERT_EQ(run(_folder, on(ranks, train("whole", options))).status, 0);
        const auto start = std::chrono::steady_clock::now();
        // A rank is a child of mpirun, which is one of timeout.
        const Outcome killed = interrupt(ranks, train("resumed", _checkpoint + options),
                                         "kill -KILL $(pgrep -n -P $(pgrep -P $!))");
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        EXPECT_NE(killed.status, 0);
        EXPECT_LT(took.count(), 20);
        std::filesystem::copy(_folder / "checkpoints", _folder / "copy");

        const Outcome resumed = run(_folder, on(ranks, train("resumed", _checkpoint + options)));
        EXPECT_EQ(resumed.status, 0) << resumed.err;
        EXPECT_NE(resumed.out.find("resuming from "), std::string::npos) << resumed.out;
        EXPECT_EQ(read_file(_folder / "resumed"), read_file(_folder / "whole"));

        // On another number of ranks, and past a file that is cut short.
        std::filesystem::remove_all(_folder / "checkpoints");
        std::filesystem::rename(_folder / "copy", _folder / "checkpoints");
        _folder.write("checkpoints/checkpoint-9999999999", "vorn_speech checkpoint 1\nrun x\n");
        const Outcome moved = run(_folder, on(3 - ranks, train("moved", _checkpoint + options)));
        EXPECT_EQ(moved.status, 0) << moved.err;
        EXPECT_NE(
            moved.err.find("9999999999: is no model file of this program; not resumed from\n"),
            std::string::npos)
            << moved.err;
        EXPECT_NE(moved.out.find("resuming from "), std::string::npos) << moved.out;
        std::filesystem::remove_all(_folder / "checkpoints");
    }
}

TEST_F(SpeechRanks, EndTogetherWithOneLineAboutTheCause) {
    const std::string more = _checkpoint + "--epochs 10000 --feature-memory 0 ";
    const auto one_line = [](const Outcome& outcome, const std::string& message) {
        const std::size_t at = outcome.err.find("vorn_speech: rank ");
        ASSERT_NE(at, std::string::npos) << outcome.err;
        const std::string line = outcome.err.substr(at, outcome.err.find('\n', at) - at);
        EXPECT_EQ(line.substr(std::string("vorn_speech: rank N").size()), " of 2: " + message);
        EXPECT_EQ(outcome.err.find("vorn_speech: rank ", at + 1), std::string::npos) << outcome.err;
        EXPECT_NE(outcome.status, 0);
    };
    const std::string file = (_folder / "0.wav").string();
    one_line(interrupt(2, train("gone", more), "rm " + file), file + ": no such file");

    // Damaged before the start.
    _folder.write("0.wav", "three four");
    _folder.write("list", "");
    const Outcome refused = run(_folder, on(2, train("refused", more)));
    EXPECT_NE(refused.err.find("vorn_speech: rank 0 of 2: " + (_folder / "train.tsv").string()),
              std::string::npos)
        << refused.err;
    EXPECT_EQ(refused.err.find("rank 1 of 2"), std::string::npos) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(_folder / "refused"));
}

TEST_F(SpeechRanks, EndTogetherOnAFullDisk) {
    const std::string disk = (_folder / "disk").string();
    std::filesystem::create_directory(_folder / "disk");
    const std::string mount = "mount -t tmpfs -o size=500k full " + disk;
    if (std::system(("unshare -m sh -c '" + mount + "' 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "cannot mount a small file system";
    }
    // There is room for two checkpoints, and not for a third beside them.
    const std::string command =
        on(2, train("model", "--checkpoint " + disk + " --checkpoint-minutes 0 --epochs 10000"));
    const Outcome outcome = run(_folder, "unshare -m sh -c '" + mount + " && { " + command +
                                             "; status=$?; ls " + disk + "; exit $status; }'");
    EXPECT_NE(outcome.status, 0);
    EXPECT_NE(outcome.err.find("vorn_speech: rank 0 of 2: " + disk + "/checkpoint-"),
              std::string::npos)
        << outcome.err;
    EXPECT_NE(outcome.err.find(": cannot be written: No space left on device\n"), std::string::npos)
        << outcome.err;
    EXPECT_NE(outcome.out.find("checkpoint-0000000001\n"), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.out.find(".part"), std::string::npos) << outcome.out;
}

}  // namespace
