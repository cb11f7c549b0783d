#include <gtest/gtest.h>

#include <cstdlib>

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
        for (const char* name : {"a.wav", "b.wav", "c.wav"}) {
            std::vector<std::int16_t> noise(12000);
            for (std::int16_t& sample : noise) {
                sample = static_cast<std::int16_t>(std::rand() % 2000 - 1000);
            }
            _folder.write(name, wav(16000, 1, noise));
        }
        _folder.write("train.tsv", "a.wav\tone two\nb.wav\tone two\nc.wav\tone two\n");
        _folder.write("test.tsv", "a.wav\tone oh\n");
    }

    std::string train(const std::string& more) const {
        return kProgram + " train" + _corpus + " --hidden 4 --out " + _model.string() + " " + more;
    }

    TemporaryFolder _folder;
    std::string _corpus = " --corpus " + _folder.path().string();
    std::filesystem::path _model = _folder / "model";
    std::string _with_model = " --model " + _model.string();
    std::string _recognise = kProgram + " recognise " + (_folder / "a.wav").string() + _with_model;
};

TEST_F(SpeechProgramTrained, TrainsTestsAndRecognises) {
    // 0.05 s make three analysis frames, one row.
    _folder.write("short.wav", wav(16000, 1, std::vector<std::int16_t>(800, 9)));
    std::filesystem::create_symlink(_folder.write("there", "old"), _model);
    _folder.write("train.tsv", read_file(_folder / "train.tsv") + "short.wav\tone two\n");
    for (const std::string kind : {"lstm", "conv-blstm"}) {
        const Outcome trained = run(_folder, train("--epochs 2 --model " + kind));
        EXPECT_EQ(trained.status, 0);
        EXPECT_EQ(trained.err.find("warning: " + (_folder / "short.wav").string() +
                                   ": 1 frames cannot carry 2 digits, which need 2; skipped\n"),
                  0u);
        EXPECT_NE(trained.err.find("\nepoch 2: loss "), std::string::npos);
        EXPECT_NE(trained.out.find("training on 3 utterances"), std::string::npos);
        for (const std::string& command :
             {kProgram + " test" + _corpus + _with_model, _recognise}) {
            const Outcome on_host = run(_folder, command);
            EXPECT_EQ(on_host.status, 0) << on_host.err;
            EXPECT_FALSE(on_host.out.empty());
            EXPECT_EQ(run(_folder, command + " --device gpu"), on_host);
        }
    }
    EXPECT_TRUE(std::filesystem::is_symlink(_model));
}

TEST_F(SpeechProgramTrained, RefusesBadInputInOneLine) {
    ASSERT_EQ(run(_folder, train("--epochs 1 --model conv-blstm")).status, 0);
    const std::string conv = read_file(_model);
    ASSERT_EQ(run(_folder, train("--epochs 1 --model lstm")).status, 0);
    const std::string good = read_file(_model);
    const std::size_t head = good.find("tensors\n") + 8;
    const auto cut = [](const std::string& text, std::size_t bytes) {
        return text.substr(0, text.size() - bytes);
    };
    std::vector<std::pair<std::string, std::string>> models = {
        {"", "is no model file of this program"},
        {read_file(_folder / "a.wav"), "is no model file of this program"},
        {good.substr(0, head - 30), "the line of 'stride' is damaged"},
        {good.substr(0, head), "is truncated"},
        {cut(good, 1), "is truncated at 'linear.bias'"},
        {cut(conv, 1), "is truncated at 'norm.batches'"},
        {good + "x", "goes on past its last tensor"},
        {good.substr(0, head) + std::string(good.size() - head, '\xff'),
         "'mean' has not the shape that the head tells"},
    };
    struct {
        std::string model, from, to, message;
    } edits[] = {
        {good, "hidden 4", "hidden 3",
         "'lstm1.input_weight' has not the shape that the head tells"},
        {good, "hidden 4", "hidden 4096", "is truncated"},
        {good, "layers 2", "layers -1", "network: layers must be 1 to 16, not -1"},
        {good, "kind lstm", "kind tree", "network: there is no model of kind 'tree'"},
        {good, "bands 32", "bands 33", "the network does not fit its features and classes"},
        {conv, "groups 4", "groups 5",
         "network: the groups must share out the filter positions evenly"},
        {conv, "filter_size 9", "filter_size 33",
         "network: the filter size must be 1 to the number of bands"},
        {conv, "pooling 3", "pooling 7",
         "network: the pooling must be 1 to the positions of a group"},
        {conv, "filters 32", "filters 4096",
         "network: convolution outputs must be 1 to 4096, not 32768"},
        {conv, "filters 32", "filters 31", "'conv.weight' has not the shape that the head tells"},
    };
    for (auto& e : edits) {
        models.emplace_back(e.model.replace(e.model.find(e.from), e.from.size(), e.to), e.message);
    }
    for (const auto& [contents, message] : models) {
        _folder.write("model", contents);
        EXPECT_EQ(run(_folder, _recognise),
                  (Outcome{2, "", "vorn_speech: " + _model.string() + ": " + message + "\n"}));
    }
    const Outcome not_numbers = {
        2, "", "vorn_speech: the network's posteriors are not numbers; its model is damaged\n"};
    for (const std::string& model : {good, conv}) {
        _folder.write("model", cut(model, 4) + "\xff\xff\xff\xff");
        EXPECT_EQ(run(_folder, _recognise), not_numbers);
    }

    // The model that is there is left alone, and no escape sequence reaches the terminal.
    _folder.write("model", good);
    const std::string list = (_folder / "train.tsv").string();
    const std::string bad = "printf '\\ngone\\033[2J\\tone\\n' >" + list + "; ";
    const std::string same = (_folder / "./model").string();
    const std::pair<std::string, std::string> refused[] = {
        {train("--model tree"), "--model: "},
        {train("--learning-rate nan"), "--learning-rate: Value nan not in range"},
        {train("--seed -1"), "--seed: Value -1 not in range"},
        {train("--picture /dev/null"), "/dev/null: is not a regular file"},
        {train("--picture " + same), same + ": cannot be two of model, picture and"},
        {train("--picture /nowhere/p.png"), "/nowhere/p.png: cannot be written"},
        {kProgram + " train --out /nowhere/model" + _corpus, "/nowhere/model: cannot be written"},
        {bad + train(""), list + ":2: " + (_folder / "gone?[2J: no such file").string()},
    };
    for (const auto& [command, message] : refused) {
        const Outcome outcome = run(_folder, command);
        EXPECT_EQ(outcome.status, 2) << command;
        EXPECT_EQ(outcome.err.find("vorn_speech: " + message), 0u) << outcome.err;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    }
    EXPECT_EQ(read_file(_model), good);
}

TEST_F(SpeechProgramTrained, KeepsTheBestModelWhenInterrupted) {
    const std::string wait =
        "{ while kill -0 $! && ! [ -e " + _model.string() + " ]; do sleep 0.01; done; }";
    const Outcome outcome =
        run(_folder, "(" + train("--epochs 1000") + " & " + wait + "; kill -INT $!; wait $!)");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.err.find("interrupted; the best model so far is kept\n"), std::string::npos);
    EXPECT_EQ(run(_folder, _recognise).status, 0);
}

}  // namespace
