#include <cstring>

#include "harness.h"
#include "vorn/tensor/tensor.h"

using namespace vorn::fuzz;

// The first byte is the width that the caller says.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const size_t byte_size = data[0];
    std::string file(reinterpret_cast<const char*>(data) + 1, size - 1);
    MemoryFile<std::ifstream> in(file);
    vorn::Tensor<float> tensor(vorn::CPU);
    if (!returns([&] { tensor.read_hfnn(in, byte_size); })) {
        return 0;
    }
    require(byte_size == 0 || byte_size == 4 || byte_size == 8, "the width is known");
    const size_t head = byte_size == 4 ? 8 : 16;
    file.resize(std::max(file.size(), head));
    // Sizes are cut to 32 bits on reading: the head's own fields are compared by value.
    int shape[2];
    memcpy(&shape[0], file.data(), 4);
    memcpy(&shape[1], file.data() + head / 2, 4);
    const vorn::Dim& dim = tensor.get_size();
    require(dim.get_axis() == 2 && dim[0] == shape[0] && dim[1] == shape[1],
            "the shape is the head's");
    if (tensor.get_element_count() <= kMaxWritten) {
        MemoryFile<std::ofstream> out;
        tensor.write_hfnn(out);
        require_same_file(out.content().substr(16), file.substr(head), 0);
    }
    return 0;
}
