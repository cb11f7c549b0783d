#include <gtest/gtest.h>

#include "speech/batch_norm_layer.h"
#include "speech/conv_layer.h"
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

std::vector<reference::Frames> frames_of(const std::vector<Sample>& samples) {
    std::vector<reference::Frames> utterances;
    for (const Sample& sample : samples) {
        const FrameMatrix& features = sample.features;
        utterances.emplace_back();
        for (int t = 0; t < features.rows; ++t) {
            utterances.back().emplace_back(features.row(t), features.row(t) + features.columns);
        }
    }
    return utterances;
}

speech::FrameBatch batch_of(const std::vector<Sample>& samples, vorn::Device device) {
    std::vector<const FrameMatrix*> features;
    for (const Sample& sample : samples) {
        features.push_back(&sample.features);
    }
    return speech::make_frame_batch(features, device);
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
    // Three stacked frames of seven bands; the last position of each group is not pooled.
    const int inputs = 21;
    const speech::ConvShape conv = {7, 1, 2, 2, 2, 2};
    const speech::NetworkShape shapes[] = {{"lstm", inputs, 4, 2, 3, {}},
                                           {"conv-blstm", inputs, 3, 2, 3, conv}};
    // Unequal lengths, a repeated label, a transcript that leaves one path only, and none at all.
    const std::vector<Sample> samples = {
        make_sample(6, inputs, {1, 1, 2}, &_random), make_sample(2, inputs, {2, 1}, &_random),
        make_sample(4, inputs, {2}, &_random), make_sample(3, inputs, {}, &_random)};
    std::vector<Sample> earlier = samples;
    for (Sample& sample : earlier) {
        sample.features = make_sample(6, inputs, {}, &_random).features;
    }
    const auto loss = [&](const reference::Values& values, bool is_conv_blstm) {
        std::vector<reference::Frames> utterances = frames_of(samples);
        if (is_conv_blstm) {
            reference::convolve(conv, values, &utterances);
        }
        double sum = 0;
        for (std::size_t n = 0; n < samples.size(); ++n) {
            sum += reference::ctc_loss(
                reference::posteriors(utterances[n], values, 2, is_conv_blstm), samples[n].labels);
        }
        return sum;
    };

    for (int run = 0; run < 4; ++run) {
        const vorn::Device device = run < 2 ? vorn::CPU : vorn::GPU;
        const bool is_conv_blstm = run % 2 == 1;
        const speech::NetworkShape& shape = shapes[run % 2];
        SCOPED_TRACE(shape.kind + (device == vorn::CPU ? " on the host" : " on the GPU"));
        const auto network = speech::make_network(shape, device);
        speech::Random random(3);
        reference::Values values;
        std::int64_t count = 0;
        for (speech::Parameter* parameter : network->parameters()) {
            parameter->randomise(0.9f, &random);
            const std::vector<float> host = to_host(parameter->value);
            values[parameter->name].assign(host.begin(), host.end());
            count += static_cast<std::int64_t>(host.size());
        }
        EXPECT_EQ(speech::parameter_count(shape), count);
        std::vector<const std::vector<int>*> labels;
        for (const Sample& sample : samples) {
            labels.push_back(&sample.labels);
        }
        speech::CtcLoss ctc;
        vorn::Tensor<float> error(device);
        double computed = 0;
        // Nothing of an earlier batch may be left in what is computed for a later one.
        for (const std::vector<Sample>& in_batch : {earlier, samples}) {
            const speech::FrameBatch batch = batch_of(in_batch, device);
            computed = ctc.compute(network->forward(batch, speech::Pass::kTraining), batch,
                                   speech::make_label_batch(labels, batch), &error);
            network->backward(batch, error);
        }
        EXPECT_NEAR(computed, loss(values, is_conv_blstm), 1e-4);

        const double step = 1e-5;
        for (const speech::Parameter* parameter : network->parameters()) {
            const std::vector<float> gradient = to_host(parameter->gradient);
            for (std::size_t i = 0; i < gradient.size(); ++i) {
                double& value = values[parameter->name][i];
                const double at = value;
                value = at + step;
                const double above = loss(values, is_conv_blstm);
                value = at - step;
                const double below = loss(values, is_conv_blstm);
                value = at;
                const double expected = (above - below) / (2 * step * samples.size());
                EXPECT_NEAR(gradient[i], expected, 2e-5) << parameter->name << " " << i;
            }
        }
    }
}

TEST_F(SpeechNetwork, ConvolutionErrorAtTheFeaturesIsTheDerivative) {
    // Two stacked frames of two channels, and rows that overlap in what they read.
    const speech::ConvShape shape = {8, 2, 3, 2, 3, 2};
    for (const vorn::Device device : {vorn::CPU, vorn::GPU}) {
        SCOPED_TRACE(device == vorn::CPU ? "host" : "GPU");
        speech::ConvLayer layer("conv", shape, 32, device);
        reference::Values values;
        for (speech::Parameter* parameter : layer.parameters()) {
            parameter->randomise(0.9f, &_random);
            const std::vector<float> host = to_host(parameter->value);
            values[parameter->name].assign(host.begin(), host.end());
        }
        std::vector<Sample> samples;
        FrameMatrix weights;
        std::vector<float> computed;
        for (int batch = 0; batch < 2; ++batch) {
            samples = {make_sample(5, 32, {}, &_random)};
            layer.forward(batch_of(samples, device).features);
            weights = make_sample(5, shape.outputs(), {}, &_random).features;
            vorn::Tensor<float> error(vorn::Dim(weights.rows, weights.columns), device);
            error.copy_from(weights.values.data(), 0, weights.values.size());
            layer.backward(error);
            computed = to_host(layer.input_error());
        }

        ASSERT_EQ(computed.size(), 5u * 32);
        const double step = 1e-6;
        for (std::size_t i = 0; i < computed.size(); ++i) {
            const int t = static_cast<int>(i / 32);
            double difference = 0;
            for (const double sign : {1.0, -1.0}) {
                reference::Row row = frames_of(samples)[0][t];
                row[i % 32] += sign * step;
                const reference::Row out = reference::convolved(row, shape, values);
                for (std::size_t c = 0; c < out.size(); ++c) {
                    difference += sign * weights.row(t)[c] * out[c];
                }
            }
            EXPECT_NEAR(computed[i], difference / (2 * step), 1e-5) << i;
        }
    }
}

TEST_F(SpeechNetwork, NormalizationInfersWithWhatItSawInTraining) {
    const int columns = 5;
    const std::vector<std::vector<Sample>> batches = {
        {make_sample(4, columns, {}, &_random), make_sample(40, columns, {}, &_random)},
        {make_sample(9, columns, {}, &_random), make_sample(3, columns, {}, &_random)},
        {make_sample(2, columns, {}, &_random), make_sample(6, columns, {}, &_random)}};
    // The last batch is only inferred; of the others the older counts for 0.99, as does what stood
    // there before the first, a mean of 0 and a variance of 1, for a thousandth.
    const double prior = 1e-3 * 0.99 * 0.99, total = prior + 0.99 + 1;
    reference::Moments expected(frames_of(batches[1]));
    const reference::Moments older(frames_of(batches[0]));
    for (int c = 0; c < columns; ++c) {
        expected.mean[c] = (expected.mean[c] + 0.99 * older.mean[c]) / total;
        expected.variance[c] = (prior + expected.variance[c] + 0.99 * older.variance[c]) / total;
    }
    const std::vector<reference::Frames> frames = frames_of(batches[2]);

    for (const vorn::Device device : {vorn::CPU, vorn::GPU}) {
        SCOPED_TRACE(device == vorn::CPU ? "host" : "GPU");
        speech::BatchNormLayer layer("norm", columns, device);
        layer.initialise();
        reference::Values values;
        for (speech::Parameter* parameter : layer.parameters()) {
            parameter->randomise(2, &_random);
            const std::vector<float> host = to_host(parameter->value);
            values[parameter->name].assign(host.begin(), host.end());
        }
        for (int i = 0; i < 2; ++i) {
            const speech::FrameBatch batch = batch_of(batches[i], device);
            layer.train(batch.features, batch);
        }
        const speech::FrameBatch batch = batch_of(batches[2], device);
        const std::vector<float> computed = to_host(layer.infer(batch.features, batch));
        for (int t = 0; t < batch.frames; ++t) {
            for (int n = 0; n < batch.size; ++n) {
                const bool padding = t >= batch.lengths[n];
                const reference::Row row =
                    padding ? reference::Row(columns, 0.0)
                            : reference::normalized(frames[n][t], expected, values["norm.scale"],
                                                    values["norm.bias"]);
                for (int c = 0; c < columns; ++c) {
                    EXPECT_NEAR(computed[(t * batch.size + n) * columns + c], row[c], 1e-5);
                }
            }
        }
    }
}

class SpeechTraining : public SpeechNetwork, public testing::WithParamInterface<std::string> {
protected:
    SpeechTraining() {
        _model.features.bands = 5;
        _model.shape = {GetParam(), _model.features.columns(), 8,
                        2,          speech::kClassCount,       {5, 2, 2, 2, 3, 2}};
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

TEST_P(SpeechTraining, RepeatsOnTheHostAndAgreesWithTheGpu) {
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

TEST_P(SpeechTraining, StopsWhereItDiverges) {
    train(vorn::CPU, 1);
    speech::Trainer trainer(_model.network.get(), &_samples, {});
    _samples[3].features.values[0] = NAN;
    EXPECT_EQ(message_of<speech::Error>([&] {
                  trainer.train_batch({&_samples[2], &_samples[3]});
              }),
              "training diverged: the loss is not finite; try a lower --learning-rate");
}

TEST_P(SpeechTraining, RecognisesEachUtteranceAsIfAlone) {
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

INSTANTIATE_TEST_SUITE_P(Kinds, SpeechTraining, testing::ValuesIn(speech::network_kinds()),
                         [](const auto& info) {
                             return info.param == "lstm" ? "Lstm" : "ConvBlstm";
                         });

}  // namespace
