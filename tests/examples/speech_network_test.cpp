#include <gtest/gtest.h>

#include <set>

#include "gradient_check.h"
#include "speech/batch_norm_layer.h"
#include "speech/conv_layer.h"
#include "speech/ctc_loss.h"
#include "speech/digits.h"
#include "speech/model_file.h"
#include "speech/network.h"
#include "speech/recogniser.h"
#include "speech/trainer.h"
#include "speech_reference.h"
#include "speech_test_files.h"

namespace {

using speech::FrameMatrix;
using speech::Sample;

class SpeechNetwork : public testing::Test {
protected:
    void SetUp() override {
        if (!vorn::has_gpu()) {
            GTEST_SKIP() << "no GPU, on which CTC is computed";
        }
        _context = std::make_unique<vorn::ThreadContextScope>();
    }

    FrameMatrix noise(int rows, int columns) {
        FrameMatrix features(rows, columns);
        for (float& v : features.values) {
            v = static_cast<float>(2 * common::uniform(&_random) - 1);
        }
        return features;
    }

    /// Gives a network or a layer random parameters, and the reference the same.
    template <typename Layer>
    reference::Values randomise(Layer* layer, float limit = 0.9f) {
        reference::Values values;
        for (common::Parameter* parameter : layer->parameters()) {
            parameter->randomise(limit, &_random);
            const std::vector<float> host = to_host(parameter->value);
            values[parameter->name] = reference::to_row(host.data(), host.size());
        }
        return values;
    }

    common::Random _random{7};
    common::Team _team{2};
    common::Ranks _ranks;

private:
    std::unique_ptr<vorn::ThreadContextScope> _context;
};

TEST_F(SpeechNetwork, GradientIsThatOfTheLossOnBothDevices) {
    // Three stacked frames of seven bands; the last position of each group is not pooled.
    const int inputs = 21;
    const speech::ConvShape conv = {7, 1, 2, 2, 2, 2};
    const speech::NetworkShape shapes[] = {{"lstm", inputs, 4, 2, 3, {}},
                                           {"conv-blstm", inputs, 3, 2, 3, conv}};
    // Unequal lengths, a repeated label, a transcript that leaves one path only, and none at all.
    const std::vector<int> labels[] = {{1, 1, 2}, {2, 1}, {2}, {}};
    const int lengths[] = {6, 2, 4, 3};
    std::vector<FrameMatrix> earlier, later;
    for (const int length : lengths) {
        earlier.push_back(noise(6, inputs));
        later.push_back(noise(length, inputs));
    }

    for (int run = 0; run < 4; ++run) {
        const vorn::Device device = kDevices[run / 2];
        const bool is_conv_blstm = run % 2 == 1;
        const speech::NetworkShape& shape = shapes[run % 2];
        SCOPED_TRACE(shape.kind + (device == vorn::CPU ? " on the host" : " on the GPU"));
        const auto network = speech::make_network(shape, device, &_team);
        reference::Values values = randomise(network.get());
        speech::CtcLoss ctc;
        vorn::Tensor<float> error(device);
        double computed = 0;
        // Nothing of an earlier batch may be left in what is computed for a later one.
        for (const auto* samples : {&earlier, &later}) {
            std::vector<const FrameMatrix*> features;
            std::vector<const std::vector<int>*> transcripts;
            for (std::size_t n = 0; n < samples->size(); ++n) {
                features.push_back(&(*samples)[n]);
                transcripts.push_back(&labels[n]);
            }
            const speech::FrameBatch batch = speech::make_frame_batch(features, device);
            computed = ctc.compute(network->forward(batch, common::Pass::kTraining), batch,
                                   speech::make_label_batch(transcripts, batch), 0.25f, &error);
            network->backward(batch, error, [](const auto&) {});
        }

        const auto loss = [&] {
            std::vector<reference::Frames> utterances;
            for (const FrameMatrix& features : later) {
                utterances.push_back(reference::frames_of(features));
            }
            if (is_conv_blstm) {
                reference::convolve(conv, values, &utterances);
            }
            double sum = 0;
            for (std::size_t n = 0; n < utterances.size(); ++n) {
                sum -= std::log(reference::path_sum(
                    reference::posteriors(utterances[n], values, 2, is_conv_blstm), labels[n]));
            }
            return sum;
        };
        EXPECT_NEAR(computed, loss(), 1e-4);
        std::int64_t count = 0;
        for (const common::Parameter* parameter : network->parameters()) {
            const std::vector<float> gradient = to_host(parameter->gradient);
            for (std::size_t i = 0; i < gradient.size(); ++i, ++count) {
                const double expected = derivative(&values[parameter->name][i], loss) / 4;
                EXPECT_NEAR(gradient[i], expected, 2e-5) << parameter->name << " " << i;
            }
        }
        EXPECT_EQ(speech::parameter_count(shape), count);
    }
}

TEST_F(SpeechNetwork, ConvolutionErrorAtTheFeaturesIsTheDerivative) {
    // Two stacked frames of two channels, and rows that overlap in what they read.
    const speech::ConvShape shape = {8, 2, 3, 2, 3, 2};
    for (const vorn::Device device : kDevices) {
        SCOPED_TRACE(device == vorn::CPU ? "host" : "GPU");
        speech::ConvLayer layer("conv", shape, 32, device, &_team);
        const reference::Values values = randomise(&layer);
        FrameMatrix features, output_error;
        for (int batch = 0; batch < 2; ++batch) {
            features = noise(5, 32);
            output_error = noise(5, shape.outputs());
            layer.forward(speech::make_frame_batch({&features}, device).features);
            vorn::Tensor<float> error = speech::make_frame_batch({&output_error}, device).features;
            layer.backward(error);
        }
        const std::vector<float> computed = to_host(layer.input_error());
        ASSERT_EQ(computed.size(), features.values.size());
        reference::Frames rows = reference::frames_of(features);
        const reference::Frames weights = reference::frames_of(output_error);
        for (std::size_t i = 0; i < computed.size(); ++i) {
            reference::Row& row = rows[i / 32];
            const auto weighted = [&] {
                return (reference::convolved(row, shape, values) * weights[i / 32]).sum();
            };
            EXPECT_NEAR(computed[i], derivative(&row[i % 32], weighted), 1e-5) << i;
        }
    }
}

TEST_F(SpeechNetwork, NormalizationInfersWithWhatItSawInTraining) {
    const int columns = 5;
    std::vector<FrameMatrix> utterances;
    std::vector<reference::Frames> frames;
    for (const int rows : {4, 40, 9, 3, 2, 6}) {
        utterances.push_back(noise(rows, columns));
        frames.push_back(reference::frames_of(utterances.back()));
    }
    // Three batches of two. The last is only inferred; of the others the older counts for 0.99, as
    // does what stood there before the first, a mean of 0 and a variance of 1, for a thousandth.
    const double prior = 1e-3 * 0.99 * 0.99, total = prior + 0.99 + 1;
    const reference::Moments older({frames[0], frames[1]});
    reference::Moments expected({frames[2], frames[3]});
    expected.mean = (expected.mean + 0.99 * older.mean) / total;
    expected.variance = (prior + expected.variance + 0.99 * older.variance) / total;

    for (const vorn::Device device : kDevices) {
        SCOPED_TRACE(device == vorn::CPU ? "host" : "GPU");
        speech::BatchNormLayer layer("norm", columns, device);
        layer.initialise();
        const reference::Values values = randomise(&layer);
        const auto batch_of = [&](int first) {
            return speech::make_frame_batch({&utterances[first], &utterances[first + 1]}, device);
        };
        for (const int first : {0, 2}) {
            const speech::FrameBatch batch = batch_of(first);
            layer.train(batch.features, batch);
        }
        const speech::FrameBatch batch = batch_of(4);
        const std::vector<float> computed = to_host(layer.infer(batch.features, batch));
        for (int row = 0; row < batch.rows(); ++row) {
            const int t = row / 2, n = row % 2;
            const bool padding = t >= batch.lengths[n];
            const reference::Row out = padding ? reference::Row(0.0, columns)
                                               : expected.normalized(frames[4 + n][t], values);
            for (int c = 0; c < columns; ++c) {
                EXPECT_NEAR(computed[row * columns + c], out[c], 1e-5);
            }
        }
    }
}

class SpeechTraining : public SpeechNetwork, public testing::WithParamInterface<std::string> {
protected:
    SpeechTraining() {
        _model.features.bands = 5;
        const int inputs = _model.features.columns();
        _model.shape = {GetParam(), inputs, 8, 2, speech::kClassCount, {5, 2, 2, 2, 3, 2}};
        const std::vector<float> quarters(inputs, 0.25f);
        _model.normaliser = speech::Normaliser(quarters, quarters);
        for (int i = 0; i < 12; ++i) {
            _samples.push_back({"", {1 + i % 9, 3}, noise(20 - i, inputs)});
        }
    }

    /// The mean losses of two epochs, and the one that is left.
    std::vector<double> train(vorn::Device device, std::uint64_t seed, common::Team* team) {
        _model.network = speech::make_network(_model.shape, device, team);
        speech::TrainingSet samples(_samples);
        speech::Trainer trainer(_model.network.get(), &samples, {2, 5, 1e-2, seed, _model.features},
                                &_ranks);
        const auto go_on = [](std::int64_t, double) { return true; };
        const double first = trainer.run_epoch(go_on);
        return {first, trainer.run_epoch(go_on), trainer.loss_of(_samples) / 12};
    }

    /// The bytes of its model file.
    static std::string saved(const speech::Model& model) {
        const TemporaryFolder folder;
        speech::save_model(folder / "model", model);
        return read_file(folder / "model");
    }

    speech::Model _model;
    std::vector<Sample> _samples;
};

TEST_P(SpeechTraining, RepeatsOnTheHostAndAgreesWithTheGpu) {
    const std::vector<double> once = train(vorn::CPU, 1, &_team);
    const std::string model = saved(_model);
    EXPECT_LT(once[2], once[0]);
    EXPECT_EQ(train(vorn::CPU, 1, &_team), once);
    EXPECT_EQ(saved(_model), model);
    EXPECT_NE(train(vorn::CPU, 2, &_team), once);

    const std::vector<double> on_gpu = train(vorn::GPU, 1, &_team);
    for (std::size_t i = 0; i < once.size(); ++i) {
        EXPECT_NEAR(on_gpu[i], once[i], 1e-4 * once[i]);
    }

    // A model file reads the same on either device.
    const TemporaryFolder folder;
    speech::save_model(folder / "gpu", _model);
    const FrameMatrix& features = _samples[0].features;
    const FrameMatrix expected = speech::posteriors_of(_model.network.get(), features);
    for (const vorn::Device device : kDevices) {
        const speech::Model loaded = speech::load_model(folder / "gpu", device, &_team);
        EXPECT_EQ(loaded.network->device(), device);
        EXPECT_EQ(saved(loaded), read_file(folder / "gpu"));
        const FrameMatrix actual = speech::posteriors_of(loaded.network.get(), features);
        for (std::size_t i = 0; i < expected.values.size(); ++i) {
            EXPECT_NEAR(actual.values[i], expected.values[i], 1e-5);
        }
    }
}

TEST_P(SpeechTraining, GivesTheSameBitsWithAnyNumberOfThreads) {
    for (const vorn::Device device : kDevices) {
        std::vector<double> losses;
        std::string model;
        for (const int threads : {1, 2, 3}) {
            common::Team team(threads);
            const std::vector<double> its_losses = train(device, 1, &team);
            if (threads == 1) {
                losses = its_losses;
                model = saved(_model);
            }
            EXPECT_EQ(its_losses, losses) << threads;
            EXPECT_EQ(saved(_model), model) << threads;
            _model.network.reset();
        }
    }
}

TEST_P(SpeechTraining, RecognisesEachUtteranceAsIfAloneAndStopsWhereItDiverges) {
    _samples.push_back({"", {1}, noise(0, _model.shape.inputs)});
    const auto made = speech::make_network(_model.shape, vorn::CPU, &_team);
    speech::Network* network = made.get();
    network->initialise(&_random);
    randomise(network, 3);  // so that what it reads is not always the same
    const auto together = speech::recognise(network, _samples);
    for (std::size_t i = 0; i < _samples.size(); ++i) {
        EXPECT_EQ(speech::recognise(network, {_samples[i]}).front(), together[i]);
    }
    EXPECT_GT((std::set<std::vector<int>>(together.begin(), together.end()).size()), 2u);
    EXPECT_TRUE(together.back().empty());
    EXPECT_EQ(speech::score(network, _samples).total().reference, 25);

    speech::TrainingSet samples(_samples);
    speech::Trainer trainer(network, &samples, {}, &_ranks);
    _samples[3].features.values[0] = NAN;
    EXPECT_EQ(message_of([&] {
                  trainer.train_batch({_samples[2], _samples[3]}, 2);
              }),
              "training diverged: the loss is not finite; try a lower --learning-rate");
}

INSTANTIATE_TEST_SUITE_P(Kinds, SpeechTraining, testing::ValuesIn(speech::network_kinds()),
                         [](const auto& info) {
                             return info.param == "lstm" ? "Lstm" : "ConvBlstm";
                         });

}  // namespace
