#include "checkpoint.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <system_error>
#include <utility>

#include "common/error.h"
#include "common/model_file.h"
#include "common/output_file.h"

namespace speech {

namespace {

constexpr const char* kMagic = "vorn_speech checkpoint 1";
constexpr const char* kPrefix = "checkpoint-";
constexpr std::size_t kKept = 2;
constexpr int kMostEpochs = 10000;

std::vector<vorn::Tensor<float>*> tensors_of(Network* network) {
    std::vector<vorn::Tensor<float>*> tensors;
    for (common::Parameter* parameter : network->parameters()) {
        tensors.push_back(&parameter->value);
    }
    for (const common::NamedTensor& statistic : network->statistics()) {
        tensors.push_back(statistic.tensor);
    }
    return tensors;
}

/// A double of a head, to the last bit.
struct Exact {
    double& value;

    friend std::ostream& operator<<(std::ostream& out, const Exact& exact) {
        std::uint64_t bits;
        std::memcpy(&bits, &exact.value, sizeof bits);
        return out << bits;
    }
    friend std::istream& operator>>(std::istream& in, Exact& exact) {
        std::uint64_t bits = 0;
        in >> bits;
        std::memcpy(&exact.value, &bits, sizeof bits);
        return in;
    }
};

/// Calls visit(name, field) for each field of the head, in its order there.
template <typename Visit>
void visit_fields(TrainingState& state, Visit visit) {
    visit("run", state.run);
    visit("epoch", state.position.epoch);
    visit("batches", state.position.batches);
    visit("updates", state.position.updates);
    visit("frames", state.position.frames);
    visit("utterances", Exact{state.position.utterances});
    visit("loss", Exact{state.position.loss});
    visit("best_epoch", state.course.best_epoch);
    visit("best", Exact{state.course.best});
    int epochs = static_cast<int>(state.course.epochs.size());
    visit("epochs", epochs);
    state.course.epochs.resize(std::clamp(epochs, 0, kMostEpochs));
    for (common::EpochPoint& point : state.course.epochs) {
        visit("point", point.epoch);
        visit("mean_loss", Exact{point.loss});
        visit("error_rate", Exact{point.error_rate});
    }
}

void write_vector(const std::vector<float>& values, std::ofstream& out) {
    vorn::Tensor<float> tensor{vorn::Dim(values.size())};
    tensor.copy_from(values.data(), 0, values.size());
    tensor.write(out);
}

TrainingState read(common::ModelReader& reader, Network* network, common::Adam* optimizer) {
    TrainingState state;
    reader.begin_head(kMagic);
    visit_fields(state, [&](const char* name, auto&& field) { reader.field(name, field); });
    reader.field("steps", optimizer->steps());
    int columns = 0;
    reader.field("columns", columns);
    reader.end_head();
    std::vector<float> mean = reader.read_vector("mean", columns);
    std::vector<float> deviation = reader.read_vector("inverse_deviation", columns);
    state.normaliser = Normaliser(std::move(mean), std::move(deviation));
    if (state.course.best_epoch > 0) {
        state.course.best_network = take_snapshot(network);
        for (vorn::Tensor<float>& tensor : state.course.best_network) {
            reader.read({"best network", &tensor});
        }
    }
    for (vorn::Tensor<float>* tensor : tensors_of(network)) {
        reader.read({"network", tensor});
    }
    for (const common::NamedTensor& moment : optimizer->moments()) {
        reader.read(moment);
    }
    return state;
}

}  // namespace

Snapshot take_snapshot(Network* network) {
    Snapshot snapshot;
    for (const vorn::Tensor<float>* tensor : tensors_of(network)) {
        snapshot.emplace_back(*tensor, vorn::CPU);
    }
    return snapshot;
}

void restore(const Snapshot& snapshot, Network* network) {
    const std::vector<vorn::Tensor<float>*> tensors = tensors_of(network);
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        tensors[i]->copy_from(snapshot[i]);
    }
}

Checkpoints::Checkpoints(std::filesystem::path folder) : _folder(std::move(folder)) {
    std::error_code error;
    std::filesystem::create_directories(_folder, error);
    if (!std::filesystem::is_directory(_folder, error)) {
        throw common::Error(_folder.string() + ": cannot be made a folder of checkpoints");
    }
}

/// From the oldest to the newest: their names end in the number of updates, in ten digits.
std::vector<std::filesystem::path> Checkpoints::files() const {
    std::vector<std::filesystem::path> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(_folder, error)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(kPrefix, 0) == 0 && entry.path().extension().empty()) {
            found.push_back(entry.path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

void Checkpoints::save(const TrainingState& state, Network* network,
                       common::Adam* optimizer) const {
    char name[32];
    std::snprintf(name, sizeof name, "%s%010lld", kPrefix,
                  static_cast<long long>(state.position.updates));
    common::OutputFile output(_folder / name);
    std::ofstream& out = output.stream();
    common::HeadWriter head(out, kMagic);
    TrainingState fields = state;
    visit_fields(fields, [&](const char* its_name, auto&& field) { head.field(its_name, field); });
    head.field("steps", optimizer->steps());
    head.field("columns", state.normaliser.columns());
    head.end();
    write_vector(state.normaliser.mean(), out);
    write_vector(state.normaliser.inverse_deviation(), out);
    for (const vorn::Tensor<float>& tensor : state.course.best_network) {
        tensor.write(out);
    }
    for (const vorn::Tensor<float>* tensor : tensors_of(network)) {
        tensor->write(out);
    }
    for (const common::NamedTensor& moment : optimizer->moments()) {
        moment.tensor->write(out);
    }
    output.finish();

    const std::vector<std::filesystem::path> kept = files();
    for (std::size_t i = 0; i + kKept < kept.size(); ++i) {
        std::error_code ignored;
        std::filesystem::remove(kept[i], ignored);
    }
}

TrainingState Checkpoints::load(const std::filesystem::path& file, Network* network,
                                common::Adam* optimizer) {
    return common::read_model_file(
        file, [&](common::ModelReader& reader) { return read(reader, network, optimizer); });
}

std::optional<std::filesystem::path> Checkpoints::newest(const std::string& run, Network* network,
                                                         common::Adam* optimizer) const {
    std::vector<std::filesystem::path> found = files();
    for (; !found.empty(); found.pop_back()) {
        std::string its_run;
        try {
            its_run = load(found.back(), network, optimizer).run;
        } catch (const common::Error& damage) {
            std::cerr << "warning: " << damage.what() << "; not resumed from\n";
            continue;
        }
        if (its_run != run) {
            throw common::Error(found.back().string() + ": is of another run, " + its_run +
                                ", and not of " + run);
        }
        return found.back();
    }
    return std::nullopt;
}

}  // namespace speech
