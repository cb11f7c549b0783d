#include <gtest/gtest.h>

#include "speech/ctc_loss.h"
#include "speech/digits.h"
#include "speech/error.h"
#include "speech/model_file.h"
#include "speech/network.h"
#include "speech/recogniser.h"
#include "speech/trainer.h"
#include "speech_reference.h"
#include "speech_test_files.h"

namespace {

using speech::FrameMatrix;
using speech::Sample;

Sample make_sample(int rows, int columns, std::vector<int> labels, speech::Random* random) {
    Sample sample;
    sample.labels = std::move(labels);
    sample.features = FrameMatrix(rows, columns);
    for (float& v : sample.features.values) {
        v = static_cast<float>(2 * speech::uniform(random) - 1);
    }
    return sample;
}

std::vector<float> to_host(const vorn::Tensor<float>& tensor) {
    std::vector<float> values(tensor.count());
    tensor.copy_to(values.data(), 0, values.size());
    return values;
}

class SpeechNetwork : public testing::Test {
protected:
    void SetUp() override {
        if (!vorn::has_gpu()) {
            GTEST_SKIP() << "no GPU, on which CTC is computed";
        }
        _context = std::make_unique<vorn::ThreadContextScope>();
    }

    speech::Random _random{7};

private:
    std::unique_ptr<vorn::ThreadContextScope> _context;
};

TEST_F(SpeechNetwork, GradientIsThatOfTheLossOnBothDevices) {
    // Unequal lengths, a repeated label, a transcript that leaves one path only, and none at all.
    const int inputs = 3;
    const std::vector<Sample> samples = {
        make_sample(6, inputs, {1, 1, 2}, &_random), make_sample(2, inputs, {2, 1}, &_random),
        make_sample(4, inputs, {2}, &_random), make_sample(3, inputs, {}, &_random)};
    const auto loss = [&](const reference::Values& values) {
        double sum = 0;
        for (const Sample& sample : samples) {
            std::vector<reference::Row> frames;
            for (int t = 0; t < sample.features.rows; ++t) {
                frames.emplace_back(sample.features.row(t), sample.features.row(t) + inputs);
            }
            sum += reference::ctc_loss(reference::posteriors(frames, values, 2), sample.labels);
        }
        return sum;
    };

    for (const vorn::Device device : {vorn::CPU, vorn::GPU}) {
        SCOPED_TRACE(device == vorn::CPU ? "host" : "GPU");
        const auto network = speech::make_network({"lstm", inputs, 4, 2, 3}, device);
        speech::Random random(3);
        reference::Values values;
        for (speech::Parameter* parameter : network->parameters()) {
            parameter->randomise(0.9f, &random);
            const std::vector<float> host = to_host(parameter->value);
            values[parameter->name].assign(host.begin(), host.end());
        }
        std::vector<const FrameMatrix*> features;
        std::vector<const std::vector<int>*> labels;
        for (const Sample& sample : samples) {
            features.push_back(&sample.features);
            labels.push_back(&sample.labels);
        }
        const speech::FrameBatch batch = speech::make_frame_batch(features, device);
        speech::CtcLoss ctc;
        vorn::Tensor<float> error(device);
        const double computed = ctc.compute(network->forward(batch, speech::Pass::kTraining), batch,
                                            speech::make_label_batch(labels, batch), &error);
        network->backward(batch, error);
        EXPECT_NEAR(computed, loss(values), 1e-4);

        const double step = 1e-5;
        for (const speech::Parameter* parameter : network->parameters()) {
            const std::vector<float> gradient = to_host(parameter->gradient);
            for (std::size_t i = 0; i < gradient.size(); ++i) {
                double& value = values[parameter->name][i];
                const double at = value;
                value = at + step;
                const double above = loss(values);
                value = at - step;
                const double below = loss(values);
                value = at;
                const double expected = (above - below) / (2 * step * samples.size());
                EXPECT_NEAR(gradient[i], expected, 2e-5) << parameter->name << " " << i;
            }
        }
    }
}

class SpeechTraining : public SpeechNetwork {
protected:
    SpeechTraining() {
        _model.features.bands = 4;
        _model.shape = {"lstm", _model.features.columns(), 8, 2, speech::kClassCount};
        const std::vector<float> zeros(_model.shape.inputs, 0.25f);
        _model.normaliser = speech::Normaliser(zeros, zeros);
        for (int i = 0; i < 12; ++i) {
            _samples.push_back(make_sample(9 + i, _model.shape.inputs, {1 + i % 9, 3}, &_random));
        }
    }

    /// The mean losses of two epochs.
    std::vector<double> train(vorn::Device device, std::uint64_t seed) {
        _model.network = speech::make_network(_model.shape, device);
        speech::Trainer trainer(_model.network.get(), &_samples,
                                {2, 5, 1e-2, seed, _model.features});
        const auto go_on = [](std::int64_t, double) { return true; };
        const double first = trainer.run_epoch(go_on);
        return {first, trainer.run_epoch(go_on), trainer.mean_loss(_samples)};
    }

    speech::Model _model;
    std::vector<Sample> _samples;
};

TEST_F(SpeechTraining, RepeatsOnTheHostAndAgreesWithTheGpu) {
    const TemporaryFolder folder;
    const std::vector<double> once = train(vorn::CPU, 1);
    speech::save_model(folder / "once", _model);
    EXPECT_LT(once[2], once[0]);
    EXPECT_EQ(train(vorn::CPU, 1), once);
    speech::save_model(folder / "again", _model);
    EXPECT_EQ(read_file(folder / "once"), read_file(folder / "again"));
    EXPECT_NE(train(vorn::CPU, 2), once);

    const std::vector<double> on_gpu = train(vorn::GPU, 1);
    for (std::size_t i = 0; i < once.size(); ++i) {
        EXPECT_NEAR(on_gpu[i], once[i], 1e-4 * once[i]);
    }

    // A model file is the same from either device, and reads the same on either.
    speech::save_model(folder / "gpu", _model);
    for (const vorn::Device device : {vorn::CPU, vorn::GPU}) {
        const speech::Model loaded = speech::load_model(folder / "gpu", device);
        EXPECT_EQ(loaded.network->device(), device);
        speech::save_model(folder / "copy", loaded);
        EXPECT_EQ(read_file(folder / "copy"), read_file(folder / "gpu"));
        const FrameMatrix expected =
            speech::posteriors_of(_model.network.get(), _samples[0].features);
        const FrameMatrix actual =
            speech::posteriors_of(loaded.network.get(), _samples[0].features);
        for (std::size_t i = 0; i < expected.values.size(); ++i) {
            EXPECT_NEAR(actual.values[i], expected.values[i], 1e-5);
        }
    }
}

TEST_F(SpeechTraining, StopsWhereItDiverges) {
    train(vorn::CPU, 1);
    speech::Trainer trainer(_model.network.get(), &_samples, {});
    _samples[3].features.values[0] = NAN;
    EXPECT_EQ(message_of<speech::Error>([&] {
                  trainer.train_batch({&_samples[2], &_samples[3]});
              }),
              "training diverged: the loss is not finite; try a lower --learning-rate");
}

TEST_F(SpeechTraining, RecognisesEachUtteranceAsIfAlone) {
    train(vorn::CPU, 1);
    _samples.push_back(make_sample(0, _model.shape.inputs, {1}, &_random));
    const auto together = speech::recognise(_model.network.get(), _samples);
    for (std::size_t i = 0; i < _samples.size(); ++i) {
        const std::vector<Sample> alone = {_samples[i]};
        EXPECT_EQ(speech::recognise(_model.network.get(), alone).front(), together[i]);
    }
    EXPECT_TRUE(together.back().empty());
    EXPECT_EQ(speech::score(_model.network.get(), _samples).total().reference, 25);
}

}  // namespace
