#include "library.h"

#include <cstdio>

namespace gpusim {

bool check_operand(const char* function, const char* operand, const void* pointer, size_t size) {
    if (size == 0 || Memory::get().device_accessible(pointer, size)) {
        return true;
    }
    std::fprintf(stderr, "gpusim: %s: %s is not %zu bytes of device memory\n", function, operand,
                 size);
    Device::get().set_fault(cudaErrorIllegalAddress);
    return false;
}

}  // namespace gpusim
