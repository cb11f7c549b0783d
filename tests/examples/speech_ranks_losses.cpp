// Trains a small network on noise for 50 updates, on the ranks that mpirun has started. The first
// rank prints the loss of each update and a hash of the parameters; all check that theirs is the
// same.
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <iostream>

#include "speech/digits.h"
#include "speech/trainer.h"
#include "test_files.h"

namespace {

constexpr int kUpdates = 50;

std::uint32_t hash_of(speech::Network* network) {
    std::uint32_t hash = 2166136261u;
    for (const common::Parameter* parameter : network->parameters()) {
        const vorn::Tensor<float> host(parameter->value, vorn::CPU);
        const auto* bytes = reinterpret_cast<const unsigned char*>(host.get_ptr());
        for (std::size_t i = 0; i < sizeof(float) * host.count(); ++i) {
            hash = (hash ^ bytes[i]) * 16777619u;
        }
    }
    return hash;
}

int run(const std::string& kind, vorn::Device device) {
    const vorn::ThreadContextScope context;
    common::Ranks ranks(60);
    common::Team team(1);
    speech::FeatureOptions features;
    features.bands = 5;
    common::Random random(3);
    std::vector<speech::Sample> samples;
    for (int i = 0; i < 22; ++i) {
        speech::FrameMatrix frames(8 + 3 * i % 17, features.columns());
        for (float& value : frames.values) {
            value = static_cast<float>(2 * common::uniform(&random) - 1);
        }
        samples.push_back({"", {1 + i % 9, 3}, frames});
    }
    speech::TrainingSet set(samples);
    const auto network = speech::make_network(
        {kind, features.columns(), 8, 2, speech::kClassCount, {5, 2, 2, 2, 3, 2}}, device, &team);
    // Of the five batches of an epoch one has two utterances: with three ranks one has none.
    speech::Trainer trainer(network.get(), &set, {20, 5, 4e-3, 1, features}, &ranks);
    double before = 0;
    int updates = 0;
    const auto report = [&](std::int64_t, double) {
        const double loss = trainer.position().loss;
        if (ranks.is_first() && updates < kUpdates) {
            std::cout << std::setprecision(17) << loss - before << '\n';
        }
        before = loss;
        return ++updates < kUpdates;
    };
    while (updates < kUpdates) {
        trainer.run_epoch(report);
        before = 0;
    }
    const std::uint32_t hash = hash_of(network.get());
    if (ranks.is_first()) {
        std::cout << hash << '\n';
    }
    for (const double other : ranks.gather(hash)) {
        if (other != hash) {
            std::cerr << "the ranks' parameters differ\n";
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return argc == 3 ? run(argv[1], std::strcmp(argv[2], "gpu") == 0 ? vorn::GPU : vorn::CPU) : 2;
}
