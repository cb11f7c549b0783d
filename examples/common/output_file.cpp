#include "common/output_file.h"

#include <unistd.h>

#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "common/error.h"
#include "common/gnuplot.h"

namespace common {

OutputFile::OutputFile(std::filesystem::path file) : _file(std::move(file)), _target(_file) {
    std::error_code ignored;
    if (std::filesystem::exists(std::filesystem::symlink_status(_file, ignored))) {
        if (!std::filesystem::is_regular_file(_file, ignored)) {
            throw Error(_file.string() + ": is not a regular file");
        }
        // Renaming would not ask.
        require(access(_file.c_str(), W_OK) == 0);
        _target = std::filesystem::canonical(_file, ignored);
    }
    _unfinished = _target;
    _unfinished += "." + std::to_string(getpid()) + ".part";
    _stream.open(_unfinished, std::ios::binary);
    require(_stream.is_open());
}

OutputFile::~OutputFile() {
    _stream.close();
    std::error_code ignored;
    std::filesystem::remove(_unfinished, ignored);
}

void OutputFile::finish() {
    _stream.close();
    require(_stream.good());
    std::error_code error;
    std::filesystem::rename(_unfinished, _target, error);
    require(!error);
}

void OutputFile::require(bool good) const {
    if (!good) {
        throw Error(_file.string() + ": cannot be written");
    }
}

void check_outputs(const std::filesystem::path& model, const std::filesystem::path& picture) {
    std::vector<std::filesystem::path> outputs = {model};
    if (!picture.empty()) {
        outputs.insert(outputs.end(), {picture, picture_script_file(picture)});
    }
    std::set<std::filesystem::path> distinct;
    for (const std::filesystem::path& file : outputs) {
        const OutputFile probe(file);
        if (!distinct.insert(std::filesystem::weakly_canonical(file)).second) {
            throw Error(file.string() +
                        ": cannot be two of model, picture and the picture's script");
        }
    }
}

}  // namespace common
