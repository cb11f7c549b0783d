#ifndef EXAMPLES_TEST_FILES_H_
#define EXAMPLES_TEST_FILES_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/error.h"

/// A folder that is gone when the test is over.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "exampleXXXXXX").string();
        _path = mkdtemp(pattern.data());
    }
    ~TemporaryFolder() { std::filesystem::remove_all(_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return _path / name; }
    const std::filesystem::path& path() const { return _path; }

    std::filesystem::path write(const std::string& name, const std::string& contents) const {
        std::ofstream(_path / name, std::ios::binary) << contents;
        return _path / name;
    }

private:
    std::filesystem::path _path;
};

inline std::string read_file(const std::filesystem::path& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

/// What a program left behind.
struct Outcome {
    int status;
    std::string out, err;

    friend bool operator==(const Outcome& a, const Outcome& b) {
        return a.status == b.status && a.out == b.out && a.err == b.err;
    }
    friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
        return out << "status " << outcome.status << ", out: " << outcome.out
                   << ", err: " << outcome.err;
    }
};

inline Outcome run(const TemporaryFolder& folder, const std::string& command) {
    const std::string redirected =
        command + " >" + (folder / "stdout").string() + " 2>" + (folder / "stderr").string();
    const int status = std::system(redirected.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(folder / "stdout"),
            read_file(folder / "stderr")};
}

/// The text of the error that `call` throws; a failure when it throws none.
template <typename Call>
std::string message_of(Call call) {
    try {
        call();
    } catch (const common::Error& error) {
        return error.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

#endif  // EXAMPLES_TEST_FILES_H_
