#ifndef COMMON_OUTPUT_FILE_H_
#define COMMON_OUTPUT_FILE_H_

#include <filesystem>
#include <fstream>

namespace common {

/// A file that appears under its name, in place of what was there, when it is whole. Until then it
/// lies beside that name, and it is removed when it is given up.
class OutputFile {
public:
    /// Throws Error when what is there is not a regular file, after following links, or when it
    /// cannot be written: an OutputFile that is given up at once is a check.
    explicit OutputFile(std::filesystem::path file);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    std::ofstream& stream() { return _stream; }

    /// Puts the file in its place, on the disk itself: a machine that stops later finds all of it.
    /// Throws Error when something could not be written.
    void finish();

private:
    void require(bool good) const;
    [[noreturn]] void fail(int reason) const;

    std::filesystem::path _file, _target, _unfinished;
    std::ofstream _stream;
};

/// Throws Error when a training run could not write its model or, unless it is empty, its picture
/// and the picture's script: before the run and not after it.
void check_outputs(const std::filesystem::path& model, const std::filesystem::path& picture);

}  // namespace common

#endif  // COMMON_OUTPUT_FILE_H_
