#ifndef SPEECH_OUTPUT_FILE_H_
#define SPEECH_OUTPUT_FILE_H_

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include "error.h"

namespace speech {

/// A file that appears under its name, in place of what was there, when it is whole. Until then it
/// lies beside that name, and it is removed when it is given up.
class OutputFile {
public:
    /// Throws Error when what is there is not a regular file, after following links, or when it
    /// cannot be written: an OutputFile that is given up at once is a check.
    explicit OutputFile(std::filesystem::path file) : _file(std::move(file)), _target(_file) {
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

    ~OutputFile() {
        _stream.close();
        std::error_code ignored;
        std::filesystem::remove(_unfinished, ignored);
    }

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    std::ofstream& stream() { return _stream; }

    /// Puts the file in its place. Throws Error when something could not be written.
    void finish() {
        _stream.close();
        require(_stream.good());
        std::error_code error;
        std::filesystem::rename(_unfinished, _target, error);
        require(!error);
    }

private:
    void require(bool good) const {
        if (!good) {
            throw Error(_file.string() + ": cannot be written");
        }
    }

    std::filesystem::path _file, _target, _unfinished;
    std::ofstream _stream;
};

}  // namespace speech

#endif  // SPEECH_OUTPUT_FILE_H_
