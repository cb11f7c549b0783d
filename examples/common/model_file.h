#ifndef COMMON_MODEL_FILE_H_
#define COMMON_MODEL_FILE_H_

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/parameter.h"
#include "vorn/vorn.h"

namespace common {

/// A model file is a head of text lines, a magic line and a line per field, `name value`, and then
/// tensors in the library's plain binary form.

/// Writes the lines of a head.
class HeadWriter {
public:
    HeadWriter(std::ostream& out, const std::string& magic);

    template <typename T>
    void field(const std::string& name, const T& value) {
        _out << name << ' ' << value << '\n';
    }
    /// The line that ends the head.
    void end();

private:
    std::ostream& _out;
};

/// Reads a model file in its order. All members but the constructor throw Error without the name
/// of the file; read_model_file() adds it.
class ModelReader {
public:
    /// Throws Error, naming the file, when it cannot be read.
    explicit ModelReader(const std::filesystem::path& file);

    void begin_head(const std::string& magic);
    template <typename T>
    void field(const std::string& name, T& value) {
        std::istringstream line(read_line());
        std::string its_name;
        line >> its_name >> value;
        if (line.fail() || its_name != name || !(line >> std::ws).eof()) {
            throw Error("the line of '" + name + "' is damaged");
        }
    }
    void end_head();

    /// Throws Error when the file is too small for so many values: before memory is taken for a
    /// network of any size.
    void expect_values(std::int64_t count) const;

    /// Reads a tensor, which has the shape of what must be there.
    void read(const NamedTensor& tensor);

    /// A vector on the host.
    std::vector<float> read_vector(const std::string& name, int columns);

    /// Throws Error unless the file ends here.
    void end();

private:
    std::string read_line();
    void check_tensor_ahead(const std::string& name, const vorn::Dim& expected);

    std::ifstream _in;
    std::uintmax_t _size = 0;
};

/// What `read(reader)` returns. Throws Error, naming the file, when that does and when the file
/// does not end where `read` stopped.
template <typename Read>
auto read_model_file(const std::filesystem::path& file, Read read) {
    ModelReader reader(file);
    try {
        auto model = read(reader);
        reader.end();
        return model;
    } catch (const Error& damage) {
        throw Error(file.string() + ": " + damage.what());
    }
}

}  // namespace common

#endif  // COMMON_MODEL_FILE_H_
