#ifndef SPEECH_MODEL_FILE_H_
#define SPEECH_MODEL_FILE_H_

#include <filesystem>
#include <memory>

#include "features.h"
#include "network.h"

namespace speech {

/// All that recognition needs.
struct Model {
    FeatureOptions features;
    Normaliser normaliser;
    NetworkShape shape;
    std::unique_ptr<Network> network;
};

/// Writes a model file: a head of text lines, then the tensors in the library's plain binary form,
/// first the mean and the inverse deviation of the features, then the network's parameters and
/// statistics. Writes as OutputFile does and throws Error as that does.
void save_model(const std::filesystem::path& file, const Model& model);

/// Reads a model file onto either device. Throws Error, naming the file, when it cannot be read,
/// is no model file, is damaged or truncated, or holds tensors that do not fit its head.
Model load_model(const std::filesystem::path& file, vorn::Device device, common::Team* team);

}  // namespace speech

#endif  // SPEECH_MODEL_FILE_H_
