#ifndef GPUSIM_DETAIL_LIBRARY_H_
#define GPUSIM_DETAIL_LIBRARY_H_

// What the libraries on top of the runtime share.

#include <cstdio>

#include "device.h"
#include "memory.h"

namespace gpusim {

/// Whether the device can use all of the operand. A GPU would meet an illegal address otherwise:
/// here a line says which operand it was, and the device takes the same sticky error.
inline bool check_operand(const char* function, const char* operand, const void* pointer,
                          size_t size) {
    if (size == 0 || Memory::get().device_accessible(pointer, size)) {
        return true;
    }
    std::fprintf(stderr, "gpusim: %s: %s is not %zu bytes of device memory\n", function, operand,
                 size);
    Device::get().set_fault(cudaErrorIllegalAddress);
    return false;
}

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_LIBRARY_H_
