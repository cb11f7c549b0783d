#include "harness.h"
#include "vorn/tensor/tensor.h"

using vorn::fuzz::MemoryInput;
using vorn::fuzz::MemoryOutput;

// The first byte is the width that the caller says.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const size_t byte_size = data[0];
    const std::string file(reinterpret_cast<const char*>(data) + 1, size - 1);
    MemoryInput in(file);
    vorn::Tensor<float> tensor(vorn::CPU);
    if (!vorn::fuzz::returns([&] { tensor.read_hfnn(in, byte_size); })) {
        return 0;
    }
    vorn::fuzz::require(byte_size == 0 || byte_size == 4 || byte_size == 8, "the width is known");
    const size_t head = byte_size == 4 ? 8 : 16;
    // Sizes are cut to 32 bits on reading: the head's own fields are compared by value.
    const auto field = [&](size_t axis) {
        int value = 0;
        const size_t at = axis * head / 2;
        for (size_t i = 0; i < 4 && at + i < file.size(); ++i) {
            value |= static_cast<int>(static_cast<uint32_t>(static_cast<uint8_t>(file[at + i]))
                                      << (8 * i));
        }
        return value;
    };
    vorn::fuzz::require(tensor.get_size().get_axis() == 2 && tensor.get_size()[0] == field(0) &&
                            tensor.get_size()[1] == field(1),
                        "the shape is the head's");
    if (tensor.get_element_count() > vorn::fuzz::kMaxWritten) {
        return 0;
    }
    MemoryOutput out;
    tensor.write_hfnn(out);
    vorn::fuzz::require_same_file(out.content().substr(16),
                                  file.size() < head ? "" : file.substr(head), 0);
    return 0;
}
