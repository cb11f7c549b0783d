#include "common/model_file.h"

#include <iomanip>
#include <limits>
#include <system_error>

namespace common {

namespace {

constexpr const char* kEndOfHead = "tensors";
constexpr int kLongestLine = 200;

}  // namespace

HeadWriter::HeadWriter(std::ostream& out, const std::string& magic) : _out(out) {
    _out << std::setprecision(std::numeric_limits<float>::max_digits10) << magic << '\n';
}

void HeadWriter::end() {
    _out << kEndOfHead << '\n';
}

ModelReader::ModelReader(const std::filesystem::path& file) {
    std::error_code error;
    const bool regular = std::filesystem::is_regular_file(file, error);
    _size = regular ? std::filesystem::file_size(file, error) : 0;
    if (regular && !error) {
        _in.open(file, std::ios::binary);
    }
    if (!_in.is_open()) {
        throw Error(file.string() + ": cannot be read");
    }
}

std::string ModelReader::read_line() {
    char line[kLongestLine];
    if (!_in.getline(line, sizeof line)) {
        throw Error("is no model file of this program");
    }
    return line;
}

void ModelReader::begin_head(const std::string& magic) {
    if (read_line() != magic) {
        throw Error("is no model file of this program");
    }
}

void ModelReader::end_head() {
    if (read_line() != kEndOfHead) {
        throw Error("the head does not end where it should");
    }
}

void ModelReader::expect_values(std::int64_t count) const {
    if (_size / sizeof(float) < static_cast<std::uintmax_t>(count)) {
        throw Error("is truncated");
    }
}

/// The library stops the process at a head that makes no sense and does not see a short file:
/// both are found here, before it reads.
void ModelReader::check_tensor_ahead(const std::string& name, const vorn::Dim& expected) {
    const std::streampos start = _in.tellg();
    const std::uintmax_t bytes = sizeof(std::int32_t) * (1 + expected.get_axis()) +
                                 sizeof(float) * static_cast<std::uintmax_t>(expected.product());
    if (_size - static_cast<std::uintmax_t>(start) < bytes) {
        throw Error("is truncated at '" + name + "'");
    }
    std::vector<std::int32_t> head(1 + expected.get_axis());
    _in.read(reinterpret_cast<char*>(head.data()), sizeof(std::int32_t) * head.size());
    bool fits = static_cast<bool>(_in) && head[0] == expected.get_axis();
    for (int axis = 0; fits && axis < expected.get_axis(); ++axis) {
        fits = head[1 + axis] == expected[axis];
    }
    if (!fits) {
        throw Error("'" + name + "' has not the shape that the head tells");
    }
    _in.seekg(start);
}

void ModelReader::read(const NamedTensor& tensor) {
    check_tensor_ahead(tensor.name, tensor.tensor->get_size());
    tensor.tensor->read(_in, 0);
}

std::vector<float> ModelReader::read_vector(const std::string& name, int columns) {
    vorn::Tensor<float> tensor{vorn::Dim(columns)};
    read({name, &tensor});
    std::vector<float> values(columns);
    tensor.copy_to(values.data(), 0, values.size());
    return values;
}

void ModelReader::end() {
    if (static_cast<std::uintmax_t>(_in.tellg()) != _size) {
        throw Error("goes on past its last tensor");
    }
}

}  // namespace common
