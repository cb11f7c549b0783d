#include "common/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "common/error.h"
#include "common/gnuplot.h"

namespace common {

namespace {

/// Bytes: with less to spare, a disk is full.
constexpr std::uintmax_t kFull = 1 << 16;

/// Waits until a file, or a folder's list of names, is on the disk.
bool synchronise(const std::filesystem::path& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    const bool done = fsync(file) == 0;
    const int reason = errno;
    close(file);
    errno = reason;
    return done;
}

}  // namespace

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
    if (!_stream) {
        // The stream doesn't tell why.
        std::error_code ignored;
        const auto space = std::filesystem::space(_unfinished, ignored);
        fail(space.available < kFull ? ENOSPC : 0);
    }
    const std::filesystem::path folder = _target.parent_path();
    if (!synchronise(_unfinished) || std::rename(_unfinished.c_str(), _target.c_str()) != 0 ||
        !synchronise(folder.empty() ? "." : folder)) {
        fail(errno);
    }
}

void OutputFile::fail(int reason) const {
    const std::string text = reason != 0 ? std::string(": ") + std::strerror(reason) : "";
    throw Error(_file.string() + ": cannot be written" + text);
}

void OutputFile::require(bool good) const {
    if (!good) {
        fail(0);
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
