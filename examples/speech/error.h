#ifndef SPEECH_ERROR_H_
#define SPEECH_ERROR_H_

#include <stdexcept>

namespace speech {

/// Anything that the user can put right: a bad option, list, sound file or model.
/// what() is one line; the program prints it and exits with status 2.
struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace speech

#endif  // SPEECH_ERROR_H_
