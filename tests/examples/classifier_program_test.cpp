#include <gtest/gtest.h>

#include <cstdlib>

#include "idx_files.h"
#include "test_files.h"
#include "vorn/vorn.h"

namespace {

const std::string kProgram = VORN_CLASSIFIER_PROGRAM;

/// IDX files of ten kinds of images: a bright row each.
class ClassifierProgram : public testing::Test {
protected:
    void SetUp() override {
        std::string pixels(kCount * kSide * kSide, '\0'), labels(kCount, '\0');
        for (int i = 0; i < kCount; ++i) {
            const int digit = i * 7 % 10;
            labels[i] = static_cast<char>(digit);
            char* image = pixels.data() + i * kSide * kSide;
            std::fill_n(image + (digit / 2 + 2) * kSide + 3, digit % 2 == 0 ? 3 : 6, '\xff');
            image[2 * kSide + 3] = image[6 * kSide + 8] = '\x80';
        }
        _folder.write("images", idx({kCount, kSide, kSide}, pixels));
        _folder.write("labels.gz", gzipped(idx({kCount}, labels)));
        _folder.write("short", idx({kCount, kSide, kSide}, pixels.substr(1)));
    }

    std::string train(const std::string& more) const {
        return kProgram + " train --hidden 8 --layers 1 --out " + _model.string() + " " + more;
    }

    static constexpr int kCount = 300, kSide = 12;
    TemporaryFolder _folder;
    std::filesystem::path _model = _folder / "model";
    std::string _labels = " --labels " + (_folder / "labels.gz").string();
    std::string _data = "--images " + (_folder / "images").string() + _labels;
    std::string _test = kProgram + " test --model " + _model.string() + " " + _data;
};

TEST_F(ClassifierProgram, TrainsAndTests) {
    for (const std::string kind : {"relu", "maxout"}) {
        const Outcome trained = run(_folder, train(_data + " --epochs 2 --activation " + kind));
        EXPECT_EQ(trained.status, 0) << trained.err;
        EXPECT_EQ(trained.out.find("300 images of 12 x 12 pixels from " +
                                   (_folder / "images").string() + "\n"),
                  0u);
        EXPECT_NE(trained.out.find("held out of training for the test"), std::string::npos);
        EXPECT_NE(trained.out.find("\ntest set: accuracy "), std::string::npos);
        EXPECT_NE(trained.err.find("\nepoch 2: loss "), std::string::npos) << trained.err;
        const Outcome on_host = run(_folder, _test);
        EXPECT_EQ(on_host.status, 0) << on_host.err;
        EXPECT_NE(on_host.out.find("of 300 images right\n"), std::string::npos);
        if (vorn::has_gpu()) {
            EXPECT_EQ(run(_folder, _test + " --device gpu"), on_host);
        }
    }
    const Outcome with_test =
        run(_folder, train(_data + " --epochs 1 --test-images " + (_folder / "images").string() +
                           " --test-labels " + (_folder / "labels.gz").string()));
    EXPECT_NE(with_test.out.find("training on 300 images, testing on 300\n"), std::string::npos)
        << with_test.err;
}

TEST_F(ClassifierProgram, RefusesBadInputInOneLineAndLosesNothing) {
    ASSERT_EQ(run(_folder, train(_data + " --epochs 1")).status, 0);
    const std::string good = read_file(_model);
    const std::string images = (_folder / "images").string(), model = _model.string();
    const auto replaced = [&good](const std::string& from, const std::string& to) {
        std::string text = good;
        return text.replace(text.find(from), from.size(), to);
    };
    expect_models_refused(
        _folder, "vorn_classifier", _test,
        {
            {"", "is no model file of this program"},
            {good.substr(0, good.size() - 1), "is truncated at 'last.bias'"},
            {good + "x", "goes on past its last tensor"},
            {replaced("hidden 8", "hidden 8192"), "is truncated"},
            {replaced("hidden 8", "hidden 7"),
             "'hidden1.weight' has not the shape that the head tells"},
            {replaced("layers 1", "layers 0"), "network: layers must be 1 to 16, not 0"},
            {replaced("inputs 784", "inputs 783"),
             "the network does not fit its images and classes"},
            {replaced("relu", "tanh"), "network: there is no activation 'tanh'"},
        });

    _folder.write("model", good);
    expect_refused(
        _folder, "vorn_classifier",
        {
            {train("--images " + images), "--images requires --labels"},
            {train(_labels), "--labels requires --images"},
            {train("--test-images x --test-labels y"), "--test-images requires --images"},
            {train("--images " + (_folder / "short").string() + _labels),
             (_folder / "short").string() + ": is truncated: 43199 of 43200 bytes of images"},
            {train("--images /nowhere/i" + _labels), "/nowhere/i: no such file"},
            {train("--fonts " + _folder.path().string()),
             _folder.path().string() + ": fonts to render digits from are missing; try apt-get"},
            {train(_data + " --activation tanh"), "--activation: "},
            {train(_data + " --dropout 1"), "--dropout: Value 1 not in range 0 to 0.95"},
            {train(_data + " --epochs 0"), "--epochs: Value 0 not in range"},
            {train(_data + " --picture " + model), model + ": cannot be two of model, picture and"},
            {kProgram + " train " + _data + " --out /nowhere/m", "/nowhere/m: cannot be written"},
            {kProgram + " test --model " + images + " " + _data,
             images + ": is no model file of this program"},
            {kProgram, "A subcommand is required"},
        });
    EXPECT_EQ(read_file(_model), good);
    for (const auto& entry : std::filesystem::directory_iterator(_folder.path())) {
        EXPECT_NE(entry.path().extension(), ".part");
    }
}

TEST_F(ClassifierProgram, KeepsTheLastModelWhenInterrupted) {
    const std::string wait =
        "{ while kill -0 $! && ! [ -e " + _model.string() + " ]; do sleep 0.01; done; }";
    const Outcome outcome = run(_folder, "(" + train(_data + " --epochs 10000") + " & " + wait +
                                             "; kill -INT $!; wait $!)");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.err.find("interrupted; the model of the last whole epoch is kept\n"),
              std::string::npos);
    EXPECT_EQ(run(_folder, _test).status, 0);
}

}  // namespace
