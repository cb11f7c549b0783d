#include "harness.h"
#include "vorn/tensor/tensor.h"

using vorn::fuzz::MemoryInput;
using vorn::fuzz::MemoryOutput;

template <typename T>
static void read_plain(const std::string& file) {
    MemoryInput in(file);
    vorn::Tensor<T> tensor(vorn::CPU);
    if (vorn::fuzz::returns([&] { tensor.read(in); }) &&
        tensor.get_element_count() <= vorn::fuzz::kMaxWritten) {
        MemoryOutput out;
        tensor.write(out);
        vorn::fuzz::require_same_file(out.content(), file, 4 + 4 * tensor.get_dim());
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file(reinterpret_cast<const char*>(data), size);
    read_plain<float>(file);
    read_plain<int>(file);
    return 0;
}
