#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <valarray>

#include "classifier/batch.h"
#include "classifier/evaluation.h"
#include "classifier/model_file.h"
#include "classifier/network.h"
#include "classifier/trainer.h"
#include "common/cross_entropy.h"
#include "common/dropout.h"
#include "digit_images/frame.h"
#include "digit_images/plot.h"
#include "gradient_check.h"
#include "test_files.h"

namespace {

using classifier::Network;
using classifier::NetworkShape;
using common::Pass;
using digit_images::ImageSet;
using digit_images::kFramePixels;

using Row = std::valarray<double>;
using Values = std::map<std::string, Row>;  // of the parameters, by name

class ClassifierNetwork : public testing::TestWithParam<vorn::Device> {
protected:
    void SetUp() override {
        if (device() == vorn::GPU && !vorn::has_gpu()) {
            GTEST_SKIP() << "no GPU";
        }
        _context = std::make_unique<vorn::ThreadContextScope>();
        vorn::seed_thread_context(3);
    }

    static vorn::Device device() { return GetParam(); }

    vorn::Tensor<float> tensor(const std::vector<float>& values, const vorn::Dim& size) {
        vorn::Tensor<float> result(size, device());
        result.copy_from(values.data(), 0, values.size());
        return result;
    }

    std::vector<float> noise(int count) {
        std::vector<float> values(count);
        for (float& v : values) {
            v = static_cast<float>(2 * common::uniform(&_random) - 1);
        }
        return values;
    }

    common::Random _random{7};

private:
    std::unique_ptr<vorn::ThreadContextScope> _context;
};

/// in * weight + bias, straight from the definition.
Row linear(const Row& in, const Values& p, const std::string& name) {
    Row out = p.at(name + ".bias");
    for (std::size_t i = 0; i < in.size(); ++i) {
        for (std::size_t j = 0; j < out.size(); ++j) {
            out[j] += in[i] * p.at(name + ".weight")[i * out.size() + j];
        }
    }
    return out;
}

/// -log softmax of the labelled class.
double reference_loss(Row x, int label, const NetworkShape& shape, const Values& p) {
    for (int l = 1; l <= shape.layers; ++l) {
        const Row sums = linear(x, p, "hidden" + std::to_string(l));
        x.resize(shape.hidden);
        for (int j = 0; j < shape.hidden; ++j) {
            x[j] = shape.activation == "relu" ? std::max(sums[j], 0.0)
                                              : std::max(sums[2 * j], sums[2 * j + 1]);
        }
    }
    const Row logits = linear(x, p, "last");
    return std::log(std::exp(logits).sum()) - logits[label];
}

TEST_P(ClassifierNetwork, GradientIsThatOfTheLoss) {
    constexpr int inputs = 5, images = 4;
    const std::vector<float> pixels = noise(images * inputs), labels = {2, 0, 1, 2};
    for (const std::string activation : {"relu", "maxout"}) {
        SCOPED_TRACE(activation);
        const NetworkShape shape = {inputs, 6, 2, activation, 3};
        Network network(shape, 0, device());
        Values values;
        for (common::Parameter* parameter : network.parameters()) {
            parameter->randomise(0.9f, &_random);
            const std::vector<float> host = to_host(parameter->value);
            values[parameter->name] = Row(host.size());
            std::copy(host.begin(), host.end(), std::begin(values[parameter->name]));
        }
        classifier::Batch batch(device());
        batch.labels = tensor(labels, vorn::Dim(images));
        common::CrossEntropy objective(device());
        // Nothing of an earlier batch may be left in what is computed for a later one.
        for (const auto& its_pixels : {noise(images * inputs), pixels}) {
            batch.images = tensor(its_pixels, vorn::Dim(images, inputs));
            const vorn::Tensor<float>& posteriors = network.forward(batch.images, Pass::kTraining);
            objective.compute(posteriors, batch.labels);
            network.backward(batch.images, objective.error(posteriors, batch.labels));
        }

        const auto loss_of = [&](int i) {
            Row x(inputs);
            std::copy_n(pixels.begin() + i * inputs, inputs, std::begin(x));
            return reference_loss(x, static_cast<int>(labels[i]), shape, values);
        };
        const auto mean_loss = [&] {
            double sum = 0;
            for (int i = 0; i < images; ++i) {
                sum += loss_of(i) / images;
            }
            return sum;
        };
        EXPECT_NEAR(objective.mean_loss(), mean_loss(), 1e-5);
        for (int i = 0; i < images; ++i) {
            EXPECT_NEAR(objective.losses()[i], loss_of(i), 1e-5);
        }
        std::int64_t count = 0;
        for (const common::Parameter* parameter : network.parameters()) {
            const std::vector<float> gradient = to_host(parameter->gradient);
            for (std::size_t i = 0; i < gradient.size(); ++i, ++count) {
                EXPECT_NEAR(gradient[i], derivative(&values[parameter->name][i], mean_loss), 1e-5)
                    << parameter->name << " " << i;
            }
        }
        EXPECT_EQ(classifier::parameter_count(shape), count);
    }
}

TEST_P(ClassifierNetwork, ObjectiveCountsWhatIsReadRight) {
    // The second is wrong, and impossible: its loss has a bound.
    const vorn::Tensor<float> posteriors =
        tensor({0.7f, 0.2f, 0.1f, 1, 0, 0, 0.1f, 0.3f, 0.6f}, vorn::Dim(3, 3));
    classifier::Batch batch(device());
    batch.labels = tensor({0, 1, 2}, vorn::Dim(3));
    common::CrossEntropy objective(device());
    objective.compute(posteriors, batch.labels);
    EXPECT_EQ(objective.correct(), 2);
    EXPECT_EQ(objective.read(), (std::vector<int>{0, 0, 2}));
    EXPECT_NEAR(objective.losses()[0], -std::log(0.7), 1e-6);
    EXPECT_NEAR(objective.losses()[1], -std::log(1e-30), 1e-4);
}

TEST_P(ClassifierNetwork, DropoutLeavesOutAShareAndScalesTheRest) {
    constexpr int rows = 200, columns = 50;
    constexpr float share = 0.3f;
    const std::vector<float> ones(rows * columns, 1);
    const vorn::Tensor<float> in = tensor(ones, vorn::Dim(rows, columns));
    common::Dropout dropout(share, device());
    EXPECT_EQ(dropout.forward(in, Pass::kInference).get_ptr(), in.get_ptr());

    const std::vector<float> first = to_host(dropout.forward(in, Pass::kTraining));
    const std::vector<float> out = to_host(dropout.forward(in, Pass::kTraining));
    EXPECT_NE(first, out);
    const auto kept = std::count(out.begin(), out.end(), 1 / (1 - share));
    EXPECT_EQ(kept + std::count(out.begin(), out.end(), 0.0f), rows * columns);
    // Five standard deviations of a binomial share.
    EXPECT_NEAR(kept / double{rows * columns}, 1 - share, 5 * std::sqrt(0.21 / (rows * columns)));
    // Errors pass where values did.
    EXPECT_EQ(to_host(dropout.backward(in)), out);
}

/// Images of bars at places that tell the digit, with a little noise.
ImageSet bars(int count, common::Random* random) {
    ImageSet set(digit_images::kFrameSide, digit_images::kFrameSide);
    for (int i = 0; i < count; ++i) {
        const int digit = i % digit_images::kDigits;
        std::uint8_t* image = set.add(static_cast<std::uint8_t>(digit));
        const int row = 5 + digit / 5 * 11, column = 3 + digit % 5 * 5;
        for (int r = 0; r < set.rows; ++r) {
            for (int c = 0; c < set.columns; ++c) {
                const bool stroke = r >= row && r < row + 8 && c >= column && c < column + 3;
                image[r * set.columns + c] =
                    static_cast<std::uint8_t>((stroke ? 200 : 0) + 50 * common::uniform(random));
            }
        }
    }
    return set;
}

class ClassifierTraining : public ClassifierNetwork {
protected:
    struct Run {
        std::vector<double> losses;
        double accuracy;
        std::string model;
    };

    Run train(std::uint64_t seed, float dropout) {
        Network network(_shape, dropout, device());
        classifier::Trainer trainer(&network, &_images, {kEpochs, 10, 1e-2, seed});
        Run run;
        for (int epoch = 0; epoch < kEpochs; ++epoch) {
            run.losses.push_back(
                trainer.run_epoch([](const digit_images::TrainingState&) { return true; }).loss);
        }
        run.accuracy = classifier::evaluate(&network, _test).accuracy();
        const TemporaryFolder folder;
        classifier::save_model(folder / "model", _shape, &network);
        run.model = read_file(folder / "model");

        Network loaded = classifier::load_model(folder / "model", device());
        EXPECT_EQ(classifier::evaluate(&loaded, _test).losses,
                  classifier::evaluate(&network, _test).losses);
        return run;
    }

    static constexpr int kEpochs = 5;
    NetworkShape _shape = {kFramePixels, 24, 1, "relu", digit_images::kDigits};
    ImageSet _images = bars(200, &_random), _test = bars(100, &_random);
};

TEST_P(ClassifierTraining, LearnsAndRepeats) {
    for (const std::string activation : {"relu", "maxout"}) {
        SCOPED_TRACE(activation);
        _shape.activation = activation;
        const Run once = train(1, 0.1f);
        EXPECT_LT(once.losses.back(), 0.5 * once.losses.front());
        EXPECT_GT(once.accuracy, 0.9);
        if (device() == vorn::CPU) {
            EXPECT_NE(train(2, 0.1f).losses, once.losses);
            EXPECT_EQ(train(1, 0.1f).model, once.model);
        }
    }
}

TEST_P(ClassifierTraining, StopsWhenToldToAndWhereItDiverges) {
    Network network(_shape, 0, device());
    classifier::Trainer trainer(&network, &_images, {1, 32, 1e-2, 1});
    const auto state =
        trainer.run_epoch([](const digit_images::TrainingState& s) { return s.images < 64; });
    EXPECT_EQ(state.images, 64);
    network.parameters().back()->value.set_element(NAN);
    EXPECT_EQ(message_of([&] {
                  trainer.run_epoch([](const digit_images::TrainingState&) { return true; });
              }),
              "training diverged: the loss is not finite; try a lower --learning-rate");
    EXPECT_EQ(message_of([&] { classifier::evaluate(&network, _test); }),
              "the network's posteriors are not numbers; its model is damaged");
}

const auto device_name = [](const auto& info) { return info.param == vorn::CPU ? "Host" : "Gpu"; };
INSTANTIATE_TEST_SUITE_P(Devices, ClassifierNetwork, testing::ValuesIn(kDevices), device_name);
INSTANTIATE_TEST_SUITE_P(Devices, ClassifierTraining, testing::ValuesIn(kDevices), device_name);

/// Ten images, of which three are read wrong.
struct Read {
    ImageSet set{digit_images::kFrameSide, digit_images::kFrameSide};
    digit_images::Evaluation evaluation;

    Read() {
        for (const int label : {0, 1, 2, 3, 4, 5, 6, 7, 7, 7}) {
            set.add(static_cast<std::uint8_t>(label));
        }
        evaluation.read = {0, 1, 2, 3, 9, 5, 6, 7, 1, 2};
        evaluation.losses = {0.1f, 0.1f, 3, 0.1f, 1, 0.1f, 0.1f, 0.1f, 2, 0.5f};
        evaluation.correct = 7;
    }
};

TEST(ClassifierReport, CountsConfusionsAndFindsTheWorst) {
    const Read read;
    EXPECT_EQ(digit_images::worst_mistakes(read.evaluation, read.set, 5),
              (std::vector<int>{8, 4, 9}));
    EXPECT_EQ(digit_images::worst_mistakes(read.evaluation, read.set, 1), std::vector<int>{8});
    EXPECT_NEAR(read.evaluation.accuracy(), 0.7, 1e-12);
    const std::string table = digit_images::confusion_table(read.evaluation, read.set);
    EXPECT_NE(table.find("          4      .      .      .      .      .      .      .      .      "
                         ".      1    0.00 %\n"),
              std::string::npos)
        << table;
    EXPECT_NE(table.find("          7      .      1      1      .      .      .      .      1      "
                         ".      .   33.33 %\n          8 "),
              std::string::npos)
        << table;
    EXPECT_NE(table.find(".         -\n"), std::string::npos) << table;
}

TEST(ClassifierReport, DrawsItsPicture) {
    if (!has_gnuplot()) {
        GTEST_SKIP() << "gnuplot is not there";
    }
    const Read read;
    const TemporaryFolder folder;
    std::vector<digit_images::Mistake> mistakes;
    for (const std::size_t count : {0, 1, digit_images::kMistakesShown}) {
        mistakes.resize(count, {read.set.image(0), 7, 1});
        const auto png = folder / (std::to_string(count) + ".png");
        expect_drawn(png,
                     digit_images::picture_script(png, {{1, 0.5, 0.1}, {2, 0.25, 0.0}}, mistakes));
    }
}

}  // namespace
