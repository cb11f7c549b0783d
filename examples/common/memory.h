#ifndef COMMON_MEMORY_H_
#define COMMON_MEMORY_H_

#include <cstdint>

namespace common {

/// Throws Error when this machine cannot train a network of so many parameter values. The library
/// ends the program where memory is lacking. What a batch takes comes on top, but it is small
/// beside the parameters of a network that is too large.
void check_memory(std::int64_t parameters);

/// Bytes of memory that this machine has.
double physical_memory();

}  // namespace common

#endif  // COMMON_MEMORY_H_
