#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <numeric>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

#include "checkpoint.h"
#include "commands.h"
#include "common/compute_device.h"
#include "common/error.h"
#include "common/format.h"
#include "common/gnuplot.h"
#include "common/interrupt.h"
#include "common/memory.h"
#include "common/output_file.h"
#include "common/progress.h"
#include "common/ranks.h"
#include "corpus.h"
#include "digits.h"
#include "model_file.h"
#include "plot.h"
#include "recogniser.h"
#include "report.h"
#include "trainer.h"
#include "training_set.h"

namespace speech {

namespace {

using Clock = std::chrono::steady_clock;

/// One sample in twenty is held out of the training set, to choose the best epoch by.
constexpr std::size_t kHeldOutShare = 20;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// The utterances of a corpus by their use; those that are held out or tested on with the features
/// of this rank's share.
struct Data {
    std::unique_ptr<TrainingSet> train;
    std::vector<Sample> held_out, test;
    std::size_t held_out_count = 0, test_count = 0;
};

struct Lists {
    std::vector<Utterance> train, held_out, test;
};

Lists read_lists(const TrainOptions& options, const FeatureOptions& features, bool warn) {
    const Corpus corpus = read_corpus(options.corpus);
    const std::vector<Utterance> usable = drop_short(corpus.train, features, warn);
    if (usable.empty()) {
        throw common::Error((options.corpus / "train.tsv").string() +
                            ": no utterance can be trained on");
    }
    Lists lists;
    for (std::size_t i = 0; i < usable.size(); ++i) {
        const bool held_out = i % kHeldOutShare == kHeldOutShare - 1;
        (held_out ? lists.held_out : lists.train).push_back(usable[i]);
    }
    lists.test = corpus.test;
    return lists;
}

/// This rank's share of the utterances, by their lengths.
std::vector<Utterance> own_share(const std::vector<Utterance>& utterances,
                                 const FeatureOptions& features, const common::Ranks& ranks) {
    Indices all(utterances.size());
    std::iota(all.begin(), all.end(), 0);
    std::vector<int> lengths;
    for (const Utterance& utterance : utterances) {
        lengths.push_back(row_count(utterance, features));
    }
    std::vector<Utterance> share;
    for (const int i : share_of(all, lengths, ranks.rank(), ranks.size())) {
        share.push_back(utterances[i]);
    }
    return share;
}

Data prepare(const TrainOptions& options, Model* model, common::Ranks* ranks) {
    Lists lists;
    ranks->together([&] { lists = read_lists(options, model->features, ranks->is_first()); });
    const double memory = options.feature_memory
                              ? *options.feature_memory * (1 << 30)
                              : common::physical_memory() / 2 / ranks->local_size();
    Data data;
    data.train = std::make_unique<TrainingSet>(lists.train, model->features,
                                               static_cast<std::int64_t>(memory));
    model->normaliser = data.train->fit_normaliser(ranks);
    data.held_out_count = lists.held_out.size();
    data.test_count = lists.test.size();
    ranks->together([&] {
        data.held_out =
            extract_all(own_share(lists.held_out, model->features, *ranks), model->features);
        data.test = extract_all(own_share(lists.test, model->features, *ranks), model->features);
    });
    for (std::vector<Sample>* part : {&data.held_out, &data.test}) {
        for (Sample& sample : *part) {
            model->normaliser.apply(&sample.features);
        }
    }
    return data;
}

/// How the network reads the samples of all ranks.
EditCounts score_all(Network* network, const std::vector<Sample>& samples, common::Ranks* ranks) {
    const EditCounts own = score(network, samples).total();
    std::vector<double> sums = {
        static_cast<double>(own.substitutions), static_cast<double>(own.insertions),
        static_cast<double>(own.deletions), static_cast<double>(own.reference)};
    ranks->sum(&sums);
    return {static_cast<int>(sums[0]), static_cast<int>(sums[1]), static_cast<int>(sums[2]),
            static_cast<int>(sums[3])};
}

/// The speed of an epoch, and where there are more ranks that of each, with the share of the time
/// that they waited for each other's sums.
std::string speed(double frames, double seconds, double waited, common::Ranks* ranks) {
    const std::vector<double> speeds = ranks->gather(frames / seconds);
    const std::vector<double> waits = ranks->gather(waited / seconds);
    std::ostringstream text;
    text << std::fixed << std::setprecision(0) << std::accumulate(speeds.begin(), speeds.end(), 0.0)
         << " frames/s";
    for (int rank = 0; rank < ranks->size() && ranks->size() > 1; ++rank) {
        text << (rank == 0 ? " (" : " + ") << speeds[rank] << ", " << 100 * waits[rank]
             << " % waiting";
    }
    return text.str() + (ranks->size() > 1 ? ")" : "");
}

/// How an epoch did on the samples that were held out.
struct HeldOut {
    int errors = 0;
    double loss = 0;
};

std::string summary(const common::EpochPoint& point, const std::optional<HeldOut>& held_out,
                    const std::string& speed, bool best) {
    std::ostringstream text;
    text << "epoch " << point.epoch << ": loss " << std::fixed << std::setprecision(3)
         << point.loss;
    if (held_out) {
        text << ", held-out loss " << held_out->loss << " and " << held_out->errors << " errors";
    }
    text << ", test digit error rate " << common::format_percent(point.error_rate) << ", " << speed
         << (best ? " *" : "");
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

/// What must be the same for a run to go on from a checkpoint: all but the number of ranks, the
/// number of threads and the device.
std::string describe_run(const TrainOptions& options, const NetworkShape& shape, int epochs,
                         const TrainingSet& samples) {
    std::ostringstream text;
    text << shape.kind << ",hidden=" << shape.hidden << ",layers=" << shape.layers
         << ",batch=" << options.batch << ",epochs=" << epochs
         << ",learning-rate=" << options.learning_rate << ",seed=" << options.seed
         << ",utterances=" << samples.size() << ",frames=" << samples.frames();
    return text.str();
}

/// A training run on one rank of many, or on the only one.
class TrainingRun {
public:
    TrainingRun(const TrainOptions& options, common::Ranks* ranks)
        : _options(options),
          _ranks(ranks),
          _compute(options.device, common::ThreadContext::kAlways),
          _team(options.threads.value_or(common::Team::default_size(_compute.device()))),
          _epoch_count(options.epochs.value_or(default_epochs(options.kind))) {}

    void run() {
        prepare_all();
        resume();
        const double seconds = train_epochs();
        _ranks->together([this] {
            if (_state.course.best_epoch == 0) {
                throw common::Error(
                    "interrupted before the first epoch was done: there is no model");
            }
        });
        conclude(seconds);
    }

private:
    void prepare_all() {
        _ranks->together([this] {
            if (_ranks->is_first()) {
                common::check_outputs(_options.model, _options.picture);
            }
            if (!_options.checkpoint.empty()) {
                _checkpoints.emplace(_options.checkpoint);
            }
            open_log();
            NetworkShape& shape = _model.shape;
            shape = {_options.kind, _model.features.columns(),
                     _options.hidden.value_or(default_cells(_options.kind)), _options.layers,
                     kClassCount};
            shape.conv.bands = _model.features.bands;
            shape.conv.channels = _model.features.channels();
            common::check_memory(parameter_count(shape));
        });
        _data = prepare(_options, &_model, _ranks);
        _model.network = make_network(_model.shape, _compute.device(), &_team);
        make_trainer();
        _state.run = describe_run(_options, _model.shape, _epoch_count, *_data.train);
        _state.normaliser = _model.normaliser;
        std::ostringstream text;
        text << "training on " << _data.train->size() << " utterances, "
             << _trainer->frames_per_epoch() << " frames; choosing by " << _data.held_out_count
             << " held out; testing on " << _data.test_count;
        if (_ranks->size() > 1) {
            text << "; " << _ranks->size() << " ranks";
        }
        out() << text.str() << std::endl;
    }

    void make_trainer() {
        _trainer.emplace(_model.network.get(), _data.train.get(),
                         TrainerOptions{_epoch_count, _options.batch, _options.learning_rate,
                                        _options.seed, _model.features},
                         _ranks);
    }

    /// The first rank reports on the terminal, the others to files if to anything.
    void open_log() {
        if (_ranks->is_first() || _options.logs.empty()) {
            return;
        }
        std::error_code ignored;
        std::filesystem::create_directories(_options.logs, ignored);
        const auto file = _options.logs / ("rank-" + std::to_string(_ranks->rank()) + ".log");
        _log.open(file);
        if (!_log) {
            throw common::Error(file.string() + ": cannot be written");
        }
    }

    std::ostream& out() { return _ranks->is_first() ? std::cout : _log; }

    /// Goes on from the newest checkpoint, if there is one. Its normaliser is the one that its
    /// network has learnt with: another number of ranks sums in another order.
    void resume() {
        if (!_checkpoints) {
            return;
        }
        std::string file;
        _ranks->together([&] {
            if (_ranks->is_first()) {
                file =
                    _checkpoints->newest(_state.run, _model.network.get(), &_trainer->optimizer())
                        .value_or("")
                        .string();
            }
        });
        file = _ranks->broadcast(file);
        if (file.empty()) {
            make_trainer();  // a damaged file may have been read in part
            return;
        }
        _ranks->together([&] {
            _state = Checkpoints::load(file, _model.network.get(), &_trainer->optimizer());
        });
        _trainer->position() = _state.position;
        out() << "resuming from " << file << ": epoch " << _state.position.epoch << ", batch "
              << _state.position.batches + 1 << std::endl;
    }

    void save_checkpoint() {
        if (_checkpoints && _ranks->is_first()) {
            _state.position = _trainer->position();
            _checkpoints->save(_state, _model.network.get(), &_trainer->optimizer());
        }
        _last_checkpoint = Clock::now();
    }

    double train_epochs() {
        const common::InterruptScope interrupt;
        const auto start = Clock::now();
        const auto interrupted = [&] {
            const std::vector<double> asked = _ranks->gather(interrupt.requested() ? 1 : 0);
            return std::accumulate(asked.begin(), asked.end(), 0.0) > 0;
        };
        common::Progress progress = make_progress();
        const auto report = [&](std::int64_t frames, double loss) {
            progress.update(_trainer->position().epoch, frames, loss);
            if (seconds_since(_last_checkpoint) >= 60 * _options.checkpoint_minutes) {
                save_checkpoint();
            }
            return !interrupt.requested();
        };
        bool stopped = interrupted();
        while (!stopped && _trainer->position().epoch <= _epoch_count) {
            const auto epoch_start = Clock::now();
            const std::int64_t frames = _trainer->own_frames();
            const double waited = _ranks->seconds_waited();
            const int epoch = _trainer->position().epoch;
            const double loss = _trainer->run_epoch(report);
            stopped = interrupted();
            if (_trainer->position().epoch == epoch) {
                break;  // amid the epoch
            }
            const std::string its_speed =
                speed(static_cast<double>(_trainer->own_frames() - frames),
                      seconds_since(epoch_start), _ranks->seconds_waited() - waited, _ranks);
            judge(epoch, loss, its_speed, &progress);
            save_checkpoint();
        }
        if (stopped) {
            save_checkpoint();
            progress.end_line("interrupted; the best model so far is kept");
        }
        return seconds_since(start);
    }

    common::Progress make_progress() {
        const std::int64_t frames = _trainer->frames_per_epoch();
        return _ranks->is_first()
                   ? common::Progress(_epoch_count, frames, "frames")
                   : common::Progress(_epoch_count, frames, "frames", &_log, false, kLogWidth);
    }

    /// Measures the network after an epoch, and keeps it if none was better.
    void judge(int epoch, double loss, const std::string& speed, common::Progress* progress) {
        Network* network = _model.network.get();
        std::optional<HeldOut> held_out;
        if (_data.held_out_count > 0) {
            const int errors = score_all(network, _data.held_out, _ranks).errors();
            std::vector<double> losses = {_trainer->loss_of(_data.held_out)};
            _ranks->sum(&losses);
            held_out = {errors, losses[0] / static_cast<double>(_data.held_out_count)};
        }
        const EditCounts counts = score_all(network, _data.test, _ranks);
        TrainingCourse& course = _state.course;
        course.epochs.push_back({epoch, loss, counts.rate()});
        // Of epochs with equally few errors the latest, which has learnt at the lowest rate, holds
        // best for new voices. A training set too small to hold any out is its own judge.
        const double badness = held_out ? held_out->errors : loss;
        const bool is_best = course.best_epoch == 0 || badness <= course.best;
        if (is_best) {
            course.best = badness;
            course.best_epoch = epoch;
            course.best_network = take_snapshot(network);
            save_best();
        }
        progress->end_line(summary(course.epochs.back(), held_out, speed, is_best));
    }

    void save_best() {
        if (_ranks->is_first()) {
            save_model(_options.model, _model);
        }
    }

    /// Reports on the best model.
    void conclude(double seconds) {
        restore(_state.course.best_network, _model.network.get());
        save_best();
        const EditCounts counts = score_all(_model.network.get(), _data.test, _ranks);
        if (_ranks->is_first()) {
            draw(_options, _model, _data, _state.course.epochs);
        }
        out() << "model: " << _options.model.string() << " (epoch " << _state.course.best_epoch
              << ")\n"
              << "training time: " << std::fixed << std::setprecision(1) << seconds << " s\n"
              << "test set: " << format_counts(counts) << std::endl;
    }

    static constexpr int kLogWidth = 100;

    TrainOptions _options;
    common::Ranks* _ranks;
    common::ComputeDevice _compute;
    common::Team _team;
    int _epoch_count;
    std::ofstream _log;
    std::optional<Checkpoints> _checkpoints;
    Clock::time_point _last_checkpoint = Clock::now();
    Model _model;
    Data _data;
    std::optional<Trainer> _trainer;
    TrainingState _state;
};

}  // namespace

int run_train(const TrainOptions& options) {
    if (!vorn::has_gpu()) {
        throw common::Error("training needs a GPU, on which CTC is computed; there is none here");
    }
    common::Ranks ranks(options.patience);
    try {
        TrainingRun(options, &ranks).run();
    } catch (const std::exception& error) {
        ranks.abort("vorn_speech", error.what());
        throw;
    }
    return 0;
}

}  // namespace speech
