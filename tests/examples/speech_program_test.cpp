#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "speech_test_files.h"
#include "vorn/vorn.h"

namespace {

const std::string kProgram = VORN_SPEECH_PROGRAM;

/// A corpus of noise and a model trained on it.
class SpeechProgramTrained : public testing::Test {
protected:
    void SetUp() override {
        if (!vorn::has_gpu()) {
            GTEST_SKIP() << "no GPU, on which CTC is computed";
        }
        std::srand(5);
        std::string train, test;
        for (const char* name : {"a", "b", "c"}) {
            std::vector<std::int16_t> noise(12000);
            for (std::int16_t& sample : noise) {
                sample = static_cast<std::int16_t>(std::rand() % 2000 - 1000);
            }
            _folder.write(name + std::string(".wav"), wav(16000, 1, noise));
            train += name + std::string(".wav\tone two\n");
        }
        _folder.write("train.tsv", train);
        _folder.write("test.tsv", "a.wav\tone oh\n");
    }

    std::string train(const std::string& more) const {
        return kProgram + " train --corpus " + _folder.path().string() + " --hidden 4 --out " +
               _model.string() + " " + more;
    }

    TemporaryFolder _folder;
    std::filesystem::path _model = _folder / "model";
};

TEST_F(SpeechProgramTrained, TrainsTestsAndRecognises) {
    // 0.05 s make three analysis frames, one row.
    _folder.write("short.wav", wav(16000, 1, std::vector<std::int16_t>(800, 9)));
    _folder.write("train.tsv", read_file(_folder / "train.tsv") + "short.wav\tone two\n");
    for (const std::string kind : {"lstm", "conv-blstm"}) {
        const Outcome trained = run(_folder, train("--epochs 2 --model " + kind));
        EXPECT_EQ(trained.status, 0);
        EXPECT_EQ(trained.err.find("warning: " + (_folder / "short.wav").string() +
                                   ": 1 frames cannot carry 2 digits, which need 2; skipped\n"),
                  0u);
        EXPECT_NE(trained.err.find("\nepoch 2: loss "), std::string::npos);
        EXPECT_NE(trained.out.find("training on 3 utterances"), std::string::npos);

        for (const std::string& command : {" test --corpus " + _folder.path().string(),
                                           " recognise " + (_folder / "b.wav").string()}) {
            const std::string with_model = kProgram + command + " --model " + _model.string();
            const Outcome on_host = run(_folder, with_model);
            EXPECT_EQ(on_host.status, 0) << on_host.err;
            EXPECT_FALSE(on_host.out.empty());
            EXPECT_EQ(run(_folder, with_model + " --device gpu").out, on_host.out);
        }
    }
}

TEST_F(SpeechProgramTrained, RefusesBadInputInOneLine) {
    ASSERT_EQ(run(_folder, train("--epochs 1 --model lstm")).status, 0);
    const std::string good = read_file(_model);
    const std::string recognise =
        kProgram + " recognise " + (_folder / "a.wav").string() + " --model " + _model.string();
    const auto replaced = [](std::string text, const std::string& from, const std::string& to) {
        return text.replace(text.find(from), from.size(), to);
    };
    ASSERT_EQ(run(_folder, train("--epochs 1 --model conv-blstm")).status, 0);
    const std::string conv = read_file(_model);
    const std::size_t head = good.find("tensors\n") + 8;
    struct {
        std::string contents, message;
    } models[] = {
        {"", "is no model file of this program"},
        {wav(16000, 1, std::vector<std::int16_t>(99, 9)), "is no model file of this program"},
        {good.substr(0, head - 30), "the line of 'stride' is damaged"},
        {good.substr(0, head), "is truncated"},
        {good.substr(0, good.size() - 1), "is truncated at 'linear.bias'"},
        {good + "x", "goes on behind its last tensor"},
        {replaced(good, "hidden 4", "hidden 3"),
         "'lstm1.input_weight' has not the shape that the head "
         "tells"},
        {replaced(good, "hidden 4", "hidden 4096"), "is truncated"},
        {replaced(good, "layers 2", "layers -1"), "network: layers must be 1 to 16, not -1"},
        {replaced(good, "kind lstm", "kind tree"), "network: there is no model of kind 'tree'"},
        {replaced(good, "bands 32", "bands 33"),
         "the network does not fit its features and classes"},
        {good.substr(0, head) + std::string(good.size() - head, '\xff'),
         "'mean' has not the shape that the head tells"},
        {replaced(conv, "bands 32", "bands 16"),
         "the network does not fit its features and classes"},
        {replaced(conv, "groups 4", "groups 5"),
         "network: the groups must share out the filter positions evenly"},
        {replaced(conv, "filter_size 9", "filter_size 33"),
         "network: the filter size must be 1 to the number of bands"},
        {replaced(conv, "pooling 3", "pooling 7"),
         "network: the pooling must be 1 to the positions of a group"},
        {replaced(conv, "filters 32", "filters 4096"),
         "network: convolution outputs must be 1 to 4096, not 32768"},
        {replaced(conv, "filters 32", "filters 31"),
         "'conv.weight' has not the shape that the head tells"},
        {conv.substr(0, conv.size() - 1), "is truncated at 'norm.batches'"},
        {conv + "x", "goes on behind its last tensor"},
    };
    for (const auto& m : models) {
        _folder.write("model", m.contents);
        const Outcome outcome = run(_folder, recognise);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.err, "vorn_speech: " + _model.string() + ": " + m.message + "\n");
    }

    for (const std::string& model : {good, conv}) {
        _folder.write("model", model.substr(0, model.size() - 4) + "\xff\xff\xff\xff");
        const Outcome outcome = run(_folder, recognise);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err,
                  "vorn_speech: the network's posteriors are not numbers; its model is damaged\n");
    }

    _folder.write("model", good);
    _folder.write("broken.wav", "RIFF");
    const std::string lists = _folder.path().string() + "/";
    struct {
        std::string line, message;
    } lines[] = {
        {"a.wav one\n", lists + "train.tsv:1: no tab between the file and its transcript"},
        {"a.wav\televen\n", lists + "train.tsv:1: 'eleven' is not a digit (zero to nine, oh)"},
        {"gone.wav\tone\n", lists + "train.tsv:1: " + lists + "gone.wav: "},
        {"broken.wav\tone\n", lists + "train.tsv:1: " + lists + "broken.wav: "},
    };
    for (const auto& l : lines) {
        _folder.write("train.tsv", l.line);
        const Outcome outcome = run(_folder, train(""));
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.err.find("vorn_speech: " + l.message), 0u) << outcome.err;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    }
    EXPECT_EQ(read_file(_model), good);
    for (const char* option : {"--epochs 0", "--model tree", "--device tpu", "--learning-rate x",
                               "--out /nowhere/model", "--picture /nowhere/p.png"}) {
        const Outcome outcome = run(_folder, train(option));
        EXPECT_EQ(outcome.status, 2) << option;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    }
}

TEST_F(SpeechProgramTrained, KeepsTheBestModelWhenInterrupted) {
    const std::string command =
        "exec " + train("--epochs 10000 >/dev/null 2>" + (_folder / "log").string());
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 1000 && !std::filesystem::exists(_model); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(child, SIGINT);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(read_file(_folder / "log").find("interrupted; the best model so far is kept\n"),
              std::string::npos);
    EXPECT_EQ(run(_folder, kProgram + " test --corpus " + _folder.path().string() + " --model " +
                               _model.string())
                  .status,
              0);
}

}  // namespace
