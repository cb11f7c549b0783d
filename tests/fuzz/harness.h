#ifndef VORN_TESTS_FUZZ_HARNESS_H_
#define VORN_TESTS_FUZZ_HARNESS_H_

#include <cstdint>
#include <functional>
#include <string>

#include "../memory_file.h"

/// What the fuzz targets share. A target takes one input and holds what was read against it.
namespace vorn {
namespace fuzz {

/// Tensors of more elements are not written out again.
const size_t kMaxWritten = 1 << 16;

/// Runs `call`, and comes back from a fatal check in it, which is an expected end: true if there
/// was none. What the call had allocated is lost then.
bool returns(const std::function<void()>& call);

/// Ends the process if `holds` is false.
void require(bool holds, const char* what);

using test::MemoryFile;

/// What was read, written again, must be the file with zeros where it was cut. `head` is the length
/// of the shape's fields.
void require_same_file(const std::string& written, const std::string& input, size_t head);

}  // namespace fuzz
}  // namespace vorn

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

#endif  // VORN_TESTS_FUZZ_HARNESS_H_
