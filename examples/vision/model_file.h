#ifndef VISION_MODEL_FILE_H_
#define VISION_MODEL_FILE_H_

#include <filesystem>

#include "vision/network.h"

namespace vision {

/// Writes a model file, as common/model_file.h says, with the network's shape in its head. Writes
/// as OutputFile does and throws Error as that does.
void save_model(const std::filesystem::path& file, const NetworkShape& shape, Network* network);

/// Reads a model file onto either device; the network is for inference. Throws Error, naming the
/// file, when it cannot be read, is no model file, is damaged or truncated, or does not tell digits
/// and what is none.
Network load_model(const std::filesystem::path& file, vorn::Device device);

}  // namespace vision

#endif  // VISION_MODEL_FILE_H_
