#ifndef SPEECH_COMMANDS_H_
#define SPEECH_COMMANDS_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace speech {

/// The subcommands. Each returns the program's exit status and throws Error on bad input.

struct CorpusOptions {
    std::filesystem::path corpus;
};

struct TrainOptions {
    std::filesystem::path corpus;
    std::filesystem::path model;      ///< --out
    std::filesystem::path picture;    ///< --picture; empty: none
    std::string device = "cpu";       ///< cpu or gpu
    std::string kind = "conv-blstm";  ///< --model
    std::optional<int> epochs;        ///< the kind's own number where not given
    int batch = 16;                   ///< utterances
    std::optional<int> hidden;        ///< the kind's own number where not given
    int layers = 2;
    double learning_rate = 4e-3;
    std::uint64_t seed = 1;
    std::optional<int> threads;        ///< as many as there are processors where not given
    std::filesystem::path checkpoint;  ///< folder; empty: none
    double checkpoint_minutes = 10;
    std::optional<double> feature_memory;  ///< GiB on a rank; half the machine's where not given
    std::filesystem::path logs;            ///< folder for the ranks but the first; empty: none
    double patience = 300;                 ///< seconds
};

struct TestOptions {
    std::filesystem::path corpus;
    std::filesystem::path model;
    std::string device = "cpu";
};

struct RecogniseOptions {
    std::filesystem::path model;
    std::vector<std::filesystem::path> files;
    std::string device = "cpu";
};

/// Validates both lists and all sound files, and prints a summary of each list. Warns of utterances
/// with more labels than their frames can carry, and of test files that are trained on.
int run_corpus(const CorpusOptions& options);

/// Trains on train.tsv, but for a slice that is held out to choose the best epoch by, and writes
/// that epoch's model. The test set is only reported on. Ctrl-C ends training; the best model so
/// far is kept. Runs on all ranks that mpirun has started; the first one reports and writes.
int run_train(const TrainOptions& options);

/// Prints the digit error rate on test.tsv and the worst utterances.
int run_test(const TestOptions& options);

/// Prints a line per file: its name, a tab and its digits.
int run_recognise(const RecogniseOptions& options);

}  // namespace speech

#endif  // SPEECH_COMMANDS_H_
