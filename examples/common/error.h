#ifndef COMMON_ERROR_H_
#define COMMON_ERROR_H_

#include <stdexcept>

namespace common {

/// Anything that the user can put right: a bad option, data file or model.
/// what() is one line; the program prints it and exits with status 2.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace common

#endif  // COMMON_ERROR_H_
