#include <cmath>
#include <vector>

#include "harness.h"
#include "vorn/tensor/tensor.h"

static bool same(float a, float b) {
    return std::isnan(a) ? std::isnan(b) : a == b;
}

template <typename T>
static void read_text(const uint8_t* data, size_t size) {
    FILE* f = fmemopen(const_cast<uint8_t*>(data), size, "r");
    vorn::Tensor<T> tensor(vorn::CPU);
    const bool returned = vorn::fuzz::returns([&] { tensor.read(f); });
    fclose(f);
    if (!returned) {
        return;
    }
    const size_t count = tensor.get_element_count();
    for (int extent : tensor.get_size()) {
        if (extent <= 0) {
            return;  // rows of no elements, or none that could be written
        }
    }
    if (count > vorn::fuzz::kMaxWritten) {
        return;
    }
    // What is printed and read becomes its own image from the first time on.
    vorn::Tensor<T> once(vorn::CPU), twice(vorn::CPU);
    char* text = nullptr;
    size_t length = 0;
    for (auto* step : {&once, &twice}) {
        FILE* out = open_memstream(&text, &length);
        (step == &once ? tensor : once).write(out);
        fclose(out);
        FILE* in = fmemopen(text, length, "r");
        step->read(in);
        fclose(in);
        free(text);
    }
    vorn::fuzz::require(once.get_size().to_string() == tensor.get_size().to_string(),
                        "the shape comes back");
    for (size_t i = 0; i < count; ++i) {
        vorn::fuzz::require(same(once.get_ptr()[i], twice.get_ptr()[i]), "elements come back");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0) {
        read_text<float>(data, size);
        read_text<int>(data, size);
    }
    return 0;
}
