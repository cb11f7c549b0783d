#ifndef GPUSIM_DETAIL_SHARED_MEMORY_H_
#define GPUSIM_DETAIL_SHARED_MEMORY_H_

// The variables that kernels declare `__shared__`.

#include <cstddef>
#include <vector>

namespace gpusim {

/// The calling thread's shared variables in the program or library that a kernel is part of. They
/// are found by their tag in its symbol table: a stripped one seems to have none.
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

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_SHARED_MEMORY_H_
