#ifndef VORN_TESTS_MEMORY_FILE_H_
#define VORN_TESTS_MEMORY_FILE_H_

#include <fstream>
#include <sstream>
#include <string>

namespace vorn {
namespace test {

/// A file stream on memory: the readers and writers take no other stream.
template <typename FileStream>
class MemoryFile : public FileStream {
public:
    explicit MemoryFile(const std::string& content = "") : _content(content) {
        static_cast<std::ios*>(this)->rdbuf(&_content);
    }
    std::string content() const { return _content.str(); }

private:
    std::stringbuf _content;
};

}  // namespace test
}  // namespace vorn

#endif  // VORN_TESTS_MEMORY_FILE_H_
