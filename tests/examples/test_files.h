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
#include <utility>
#include <vector>

#include "common/error.h"
#include "common/gnuplot.h"

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

/// Each command is refused with status 2 and one line, which begins with the program's name and the
/// command's message.
inline void expect_refused(const TemporaryFolder& folder, const std::string& name,
                           const std::vector<std::pair<std::string, std::string>>& commands) {
    for (const auto& [command, message] : commands) {
        const Outcome outcome = run(folder, command);
        EXPECT_EQ(outcome.status, 2) << command;
        EXPECT_EQ(outcome.err.find(name + ": " + message), 0u) << outcome.err;
        EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    }
}

/// A model file of each of these contents is refused by `command`, which reads `model`.
inline void expect_models_refused(const TemporaryFolder& folder, const std::string& name,
                                  const std::string& command,
                                  const std::vector<std::pair<std::string, std::string>>& models) {
    for (const auto& [contents, message] : models) {
        const std::string model = folder.write("model", contents).string();
        EXPECT_EQ(run(folder, command),
                  (Outcome{2, "", name + ": " + model + ": " + message + "\n"}));
    }
}

inline bool has_gnuplot() {
    return std::system("gnuplot --version >/dev/null 2>&1") == 0;
}

/// gnuplot makes a PNG file of the script without a warning.
inline void expect_drawn(const std::filesystem::path& png, const std::string& script) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(common::draw_picture(png, script));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(read_file(png).substr(0, 8), "\x89PNG\r\n\x1a\n");
}

#endif  // EXAMPLES_TEST_FILES_H_
