#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "common/cross_entropy.h"
#include "gradient_check.h"
#include "seven_segments.h"
#include "test_files.h"
#include "vision/evaluation.h"
#include "vision/model_file.h"
#include "vision/network.h"
#include "vision/trainer.h"
#include "vision/windows.h"

namespace {

using common::Pass;
using digit_images::ImageSet;
using vision::Network;
using vision::NetworkShape;

/// Batch normalization takes a GPU wherever the network is.
class VisionNetwork : public testing::TestWithParam<vorn::Device> {
protected:
    void SetUp() override {
        if (!vorn::has_gpu()) {
            GTEST_SKIP() << "no GPU";
        }
        _context = std::make_unique<vorn::ThreadContextScope>();
    }

    static vorn::Device device() { return GetParam(); }

private:
    std::unique_ptr<vorn::ThreadContextScope> _context;
};

/// A small network on two pages of noise, some windows of which reach over their edges.
class Sample {
public:
    explicit Sample(vorn::Device device)
        : network(_shape, 0, device),
          _pages(vorn::Dim(2, 1, 12, 10), device),
          _windows(vorn::Dim(4, 5, 1, 1), device),
          _labels(vorn::Dim(4), device),
          _objective(device) {
        network.initialise(&_random);
        for (common::Parameter* parameter : network.parameters()) {
            parameter->randomise(0.7f, &_random);
        }
        put(noise(240), &_pages);
        put({0, 1, 2, 6, 7, 1, -2, 0, 5, 7, 1, 4, 4, 4, 4, 0, 5, 6, 12, 13}, &_windows);
        put({0, 3, 1, 2}, &_labels);
    }

    double loss(Pass pass) {
        _objective.compute(network.forward(_pages, _windows, pass), _labels);
        return _objective.mean_loss();
    }

    /// Sets the gradients.
    void backward() {
        const vorn::Tensor<float>& posteriors = network.forward(_pages, _windows, Pass::kTraining);
        _objective.compute(posteriors, _labels);
        network.backward(_pages, _windows, _objective.error(posteriors, _labels));
    }

    std::vector<float> noise(std::size_t count) {
        std::vector<float> values(count);
        for (float& v : values) {
            v = static_cast<float>(2 * common::uniform(&_random) - 1);
        }
        return values;
    }

private:
    static void put(const std::vector<float>& values, vorn::Tensor<float>* tensor) {
        tensor->copy_from(values.data(), 0, values.size());
    }

    common::Random _random{7};
    NetworkShape _shape = {3, 3, 3, 6, 4};

public:
    Network network;

private:
    vorn::Tensor<float> _pages, _windows, _labels;
    common::CrossEntropy _objective;
};

TEST_P(VisionNetwork, GradientIsThatOfTheLoss) {
    Sample sample(device());
    // Nothing of an earlier batch may be left in what is computed for a later one.
    sample.backward();
    sample.backward();
    std::int64_t count = 0;
    for (common::Parameter* parameter : sample.network.parameters()) {
        SCOPED_TRACE(parameter->name);
        const std::vector<float> at = to_host(parameter->value);
        const std::vector<float> gradient = to_host(parameter->gradient);
        const std::vector<float> random = sample.noise(at.size());
        // Along the gradient, and a bit aside: a wrong sign or scale shows, and a wrong element.
        double square = 1e-30;
        for (const float g : gradient) {
            square += g * g;
        }
        const double norm = std::sqrt(square);
        std::vector<double> direction;
        double expected = 0;
        for (std::size_t i = 0; i < at.size(); ++i) {
            direction.push_back(gradient[i] / norm + random[i] / std::sqrt(at.size()));
            expected += direction.back() * gradient[i];
        }
        const auto loss_at = [&](double step) {
            std::vector<float> moved;
            for (std::size_t i = 0; i < at.size(); ++i) {
                moved.push_back(static_cast<float>(at[i] + step * direction[i]));
            }
            parameter->value.copy_from(moved.data(), 0, moved.size());
            return sample.loss(Pass::kTraining);
        };
        constexpr double step = 1e-3;
        const double slope = (loss_at(step) - loss_at(-step)) / (2 * step);
        loss_at(0);
        EXPECT_NEAR(slope, expected, 0.01 * std::abs(expected) + 3e-4);
        EXPECT_GT(norm, 1e-3);
        count += static_cast<std::int64_t>(at.size());
    }
    for (const common::NamedTensor& tensor : sample.network.tensors()) {
        count -= static_cast<std::int64_t>(tensor.tensor->count());
    }
    EXPECT_EQ(count, -2 * (3 + 6 + 6));  // the statistics
}

class VisionTraining : public VisionNetwork {
protected:
    struct Run {
        std::vector<double> losses;
        double accuracy;
        std::string model;
    };

    Run train(std::uint64_t seed) {
        Network network(_shape, 0.1f, device());
        vision::Trainer trainer(&network, &_images, {kEpochs, 1, 1e-2, seed});
        Run run;
        for (int epoch = 0; epoch < kEpochs; ++epoch) {
            run.losses.push_back(
                trainer.run_epoch([](const digit_images::TrainingState&) { return true; }).loss);
        }
        run.accuracy = vision::evaluate(&network, _images).accuracy();
        const TemporaryFolder folder;
        vision::save_model(folder / "model", _shape, &network);
        run.model = read_file(folder / "model");

        Network loaded = vision::load_model(folder / "model", device());
        EXPECT_EQ(vision::evaluate(&loaded, _images).losses,
                  vision::evaluate(&network, _images).losses);
        return run;
    }

    static constexpr int kEpochs = 20;
    NetworkShape _shape = {4, 3, 5, 24, vision::kClasses};
    ImageSet _images = seven_segments(100);
};

TEST_P(VisionTraining, LearnsAndRepeats) {
    const Run once = train(1);
    EXPECT_LT(once.losses.back(), 0.5 * once.losses.front());
    EXPECT_GT(once.accuracy, 0.5);  // by chance: 0.1
    if (device() == vorn::CPU) {
        EXPECT_NE(train(2).losses, once.losses);
        EXPECT_EQ(train(1).model, once.model);
    }
}

TEST_P(VisionTraining, StopsWhenToldToAndWhereItDiverges) {
    Network network(_shape, 0.1f, device());
    vision::Trainer trainer(&network, &_images, {1, 1, 1e-2, 1});
    const auto state = trainer.run_epoch([](const digit_images::TrainingState& s) {
        return s.images < 2 * vision::kMostDigitsOnPage;
    });
    EXPECT_EQ(state.images, 2 * vision::kMostDigitsOnPage);
    EXPECT_GE(state.items, 8);
    network.parameters().back()->value.set_element(NAN);
    EXPECT_EQ(message_of([&] {
                  trainer.run_epoch([](const digit_images::TrainingState&) { return true; });
              }),
              "training diverged: the loss is not finite; try a lower --learning-rate");
    EXPECT_EQ(message_of([&] { vision::evaluate(&network, _images); }),
              "the network's posteriors are not numbers; its model is damaged");
}

const auto device_name = [](const auto& info) { return info.param == vorn::CPU ? "Host" : "Gpu"; };
INSTANTIATE_TEST_SUITE_P(Devices, VisionNetwork, testing::ValuesIn(kDevices), device_name);
INSTANTIATE_TEST_SUITE_P(Devices, VisionTraining, testing::ValuesIn(kDevices), device_name);

}  // namespace
