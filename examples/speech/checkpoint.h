#ifndef SPEECH_CHECKPOINT_H_
#define SPEECH_CHECKPOINT_H_

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "common/curves.h"
#include "common/optimizer.h"
#include "features.h"
#include "network.h"
#include "trainer.h"

namespace speech {

/// The values of a network's parameters and statistics, on the host.
using Snapshot = std::vector<vorn::Tensor<float>>;

Snapshot take_snapshot(Network* network);
void restore(const Snapshot& snapshot, Network* network);

/// The epochs of a run so far, and the best of them.
struct TrainingCourse {
    std::vector<common::EpochPoint> epochs;
    int best_epoch = 0;  ///< 0: none yet
    double best = 0;     ///< what the best one was chosen by
    Snapshot best_network;
};

/// All that a run goes on from.
struct TrainingState {
    std::string run;  ///< a word that tells the options and the corpus, which go with the rest
    TrainerPosition position;
    TrainingCourse course;
    Normaliser normaliser;
};

/// A folder with the latest two states of a run, a file for each. A file appears under its name
/// when it is whole and on the disk.
class Checkpoints {
public:
    /// Creates the folder where it is missing. Throws Error when that fails.
    explicit Checkpoints(std::filesystem::path folder);

    /// Writes the state with the network and the optimiser as they are, and removes all but the
    /// latest two. Throws Error when it cannot be written; what was there then still is.
    void save(const TrainingState& state, Network* network, common::Adam* optimizer) const;

    /// The newest file that is whole; none in a new folder. Warns on standard error of each newer
    /// one that is damaged. Throws Error at the state of another run than `run`.
    std::optional<std::filesystem::path> newest(const std::string& run, Network* network,
                                                common::Adam* optimizer) const;

    /// Reads a file that newest() has found into the network and the optimiser.
    static TrainingState load(const std::filesystem::path& file, Network* network,
                              common::Adam* optimizer);

private:
    std::vector<std::filesystem::path> files() const;

    std::filesystem::path _folder;
};

}  // namespace speech

#endif  // SPEECH_CHECKPOINT_H_
