
#include "harness.h"
#include "vorn/tensor/tensor.h"

using namespace vorn::fuzz;

template <typename T>
static bool parse(const std::string& text, vorn::Tensor<T>& tensor) {
    FILE* f = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    const bool returned = returns([&] { tensor.read(f); });
    fclose(f);
    return returned;
}

template <typename T>
static std::string print(vorn::Tensor<T>& tensor) {
    char* text = nullptr;
    size_t length = 0;
    FILE* f = open_memstream(&text, &length);
    tensor.write(f);
    fclose(f);
    const std::string printed(text, length);
    free(text);
    return printed;
}

template <typename T>
static void read_text(const std::string& text) {
    vorn::Tensor<T> tensor(vorn::CPU), again(vorn::CPU);
    if (!parse(text, tensor) || tensor.get_element_count() > kMaxWritten) {
        return;
    }
    for (int extent : tensor.get_size()) {
        if (extent <= 0) {
            return;  // rows of no elements, or none that could be written
        }
    }
    // What was printed and read is printed as it was.
    const std::string printed = print(tensor);
    require(parse(printed, again), "what is printed can be read");
    require(again.get_size().to_string() == tensor.get_size().to_string(), "the shape comes back");
    require(print(again) == printed, "elements come back");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0) {
        const std::string text(reinterpret_cast<const char*>(data), size);
        read_text<float>(text);
        read_text<int>(text);
    }
    return 0;
}
