#ifndef GPUSIM_DETAIL_SHARED_MEMORY_H_
#define GPUSIM_DETAIL_SHARED_MEMORY_H_

// The variables that kernels declare `__shared__`. They are found by their tag in the symbol table:
// a stripped program seems to have none.

#include <cstddef>
#include <vector>

namespace gpusim {

/// Bytes that a block may have.
constexpr size_t kSharedMemory = 48 * 1024;

/// The calling thread's shared variables in the program or library that a kernel is part of.
class SharedMemory {
public:
    SharedMemory() = default;
    explicit SharedMemory(const void* kernel);

    /// Every byte becomes 0xff, as in fresh device memory.
    void poison() const;

private:
    struct Variable {
        char* begin;
        size_t size;
    };
    std::vector<Variable> variables_;
};

/// Whether the shared variables that a kernel declares are larger than a block's shared memory.
/// Those of functions that it calls are not known to be its own.
bool exceeds_shared_memory(const void* kernel);

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_SHARED_MEMORY_H_
