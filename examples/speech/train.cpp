#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "commands.h"
#include "common/compute_device.h"
#include "common/error.h"
#include "common/format.h"
#include "common/gnuplot.h"
#include "common/interrupt.h"
#include "common/memory.h"
#include "common/output_file.h"
#include "common/progress.h"
#include "corpus.h"
#include "digits.h"
#include "model_file.h"
#include "plot.h"
#include "recogniser.h"
#include "report.h"
#include "trainer.h"

namespace speech {

namespace {

/// One sample in twenty is held out of the training set, to choose the best epoch by.
constexpr std::size_t kHeldOutShare = 20;

struct Data {
    std::vector<Sample> train, held_out, test;
};

/// How an epoch did on the samples that were held out.
struct HeldOut {
    int errors = 0;
    double loss = 0;
};

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Data prepare(const TrainOptions& options, Model* model) {
    const Corpus corpus = read_corpus(options.corpus);
    const std::vector<Utterance> usable = drop_short(corpus.train, model->features);
    if (usable.empty()) {
        throw common::Error((options.corpus / "train.tsv").string() +
                            ": no utterance can be trained on");
    }
    Data data;
    std::vector<Sample> samples = extract_all(usable, model->features);
    data.test = extract_all(corpus.test, model->features);

    std::vector<FrameMatrix> frames;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const bool held_out = i % kHeldOutShare == kHeldOutShare - 1;
        if (!held_out) {
            frames.push_back(samples[i].features);
        }
        (held_out ? data.held_out : data.train).push_back(std::move(samples[i]));
    }
    model->normaliser = Normaliser::fit(frames);
    for (std::vector<Sample>* part : {&data.train, &data.held_out, &data.test}) {
        for (Sample& sample : *part) {
            model->normaliser.apply(&sample.features);
        }
    }
    return data;
}

std::string summary(const common::EpochPoint& point, const std::optional<HeldOut>& held_out,
                    double frames_per_second, bool best) {
    std::ostringstream text;
    text << "epoch " << point.epoch << ": loss " << std::fixed << std::setprecision(3)
         << point.loss;
    if (held_out) {
        text << ", held-out loss " << held_out->loss << " and " << held_out->errors << " errors";
    }
    text << ", test digit error rate " << common::format_percent(point.error_rate) << ", "
         << std::setprecision(0) << frames_per_second << " frames/s" << (best ? " *" : "");
    return text.str();
}

/// The utterance with the most digits that are all right, or the first with frames.
const Sample* choose_for_picture(Network* network, const std::vector<Sample>& samples) {
    const std::vector<std::vector<int>> labels = recognise(network, samples);
    const Sample* choice = nullptr;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (samples[i].features.rows == 0) {
            continue;
        }
        const bool longer = choice != nullptr && samples[i].labels.size() > choice->labels.size();
        if (choice == nullptr || (longer && labels[i] == samples[i].labels)) {
            choice = &samples[i];
        }
    }
    return choice;
}

void draw(const TrainOptions& options, const Model& model, const Data& data,
          const std::vector<common::EpochPoint>& epochs) {
    const Sample* sample = choose_for_picture(model.network.get(), data.test);
    if (options.picture.empty() || sample == nullptr) {
        return;
    }
    const UtterancePicture utterance = {
        std::filesystem::path(sample->name).filename().string(), sample->labels,
        posteriors_of(model.network.get(), sample->features), model.features.row_seconds()};
    if (common::draw_picture(options.picture, picture_script(options.picture, epochs, utterance))) {
        std::cout << "picture: " << options.picture.string() << '\n';
    }
}

}  // namespace

int run_train(const TrainOptions& options) {
    if (!vorn::has_gpu()) {
        throw common::Error("training needs a GPU, on which CTC is computed; there is none here");
    }
    const common::ComputeDevice compute(options.device, common::ThreadContext::kAlways);
    common::Team team(options.threads.value_or(common::Team::default_size(compute.device())));
    common::check_outputs(options.model, options.picture);

    Model model;
    model.shape = {options.kind, model.features.columns(),
                   options.hidden.value_or(default_cells(options.kind)), options.layers,
                   kClassCount};
    model.shape.conv.bands = model.features.bands;
    model.shape.conv.channels = model.features.channels();
    common::check_memory(parameter_count(model.shape));
    const Data data = prepare(options, &model);
    model.network = make_network(model.shape, compute.device(), &team);
    const int epoch_count = options.epochs.value_or(default_epochs(options.kind));
    Trainer trainer(
        model.network.get(), &data.train,
        {epoch_count, options.batch, options.learning_rate, options.seed, model.features});
    std::cout << "training on " << data.train.size() << " utterances, "
              << trainer.frames_per_epoch() << " frames; choosing by " << data.held_out.size()
              << " held out; testing on " << data.test.size() << std::endl;

    const common::InterruptScope interrupt;
    const auto start = std::chrono::steady_clock::now();
    common::Progress progress(epoch_count, trainer.frames_per_epoch(), "frames");
    std::vector<common::EpochPoint> epochs;
    double best = 0;
    int best_epoch = 0;
    for (int epoch = 1; epoch <= epoch_count && !interrupt.requested(); ++epoch) {
        const auto epoch_start = std::chrono::steady_clock::now();
        const double loss = trainer.run_epoch([&](std::int64_t frames, double mean_loss) {
            progress.update(epoch, frames, mean_loss);
            return !interrupt.requested();
        });
        if (interrupt.requested()) {
            break;
        }
        const double speed = trainer.frames_per_epoch() / seconds_since(epoch_start);
        std::optional<HeldOut> held_out;
        if (!data.held_out.empty()) {
            held_out = {score(model.network.get(), data.held_out).total().errors(),
                        trainer.mean_loss(data.held_out)};
        }
        const EditCounts counts = score(model.network.get(), data.test).total();
        epochs.push_back({epoch, loss, counts.rate()});
        // Of epochs with equally few errors the latest, which has learnt at the lowest rate, holds
        // best for new voices. A training set too small to hold any out is its own judge.
        const double badness = held_out ? held_out->errors : loss;
        const bool is_best = best_epoch == 0 || badness <= best;
        if (is_best) {
            best = badness;
            best_epoch = epoch;
            save_model(options.model, model);
        }
        progress.end_line(summary(epochs.back(), held_out, speed, is_best));
    }
    const double seconds = seconds_since(start);
    if (best_epoch == 0) {
        throw common::Error("interrupted before the first epoch was done: there is no model");
    }
    if (interrupt.requested()) {
        progress.end_line("interrupted; the best model so far is kept");
    }

    const Model chosen = load_model(options.model, compute.device(), &team);
    draw(options, chosen, data, epochs);
    std::cout << "model: " << options.model.string() << " (epoch " << best_epoch << ")\n"
              << "training time: " << std::fixed << std::setprecision(1) << seconds << " s\n"
              << "test set: " << format_counts(score(chosen.network.get(), data.test).total())
              << '\n';
    return 0;
}

}  // namespace speech
