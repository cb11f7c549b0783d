#include "harness.h"
#include "vorn/tensor/tensor.h"

using namespace vorn::fuzz;

template <typename T>
static void read_plain(const std::string& file) {
    MemoryFile<std::ifstream> in(file);
    vorn::Tensor<T> tensor(vorn::CPU);
    if (returns([&] { tensor.read(in); }) && tensor.get_element_count() <= kMaxWritten) {
        MemoryFile<std::ofstream> out;
        tensor.write(out);
        require_same_file(out.content(), file, 4 + 4 * tensor.get_dim());
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file(reinterpret_cast<const char*>(data), size);
    read_plain<float>(file);
    read_plain<int>(file);
    return 0;
}
