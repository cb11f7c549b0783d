#ifndef COMMON_FORMAT_H_
#define COMMON_FORMAT_H_

#include <string>

namespace common {

/// Like "2.35 %".
std::string format_percent(double share);

/// Like "12 s", "3 min 05 s" or "1 h 02 min".
std::string format_duration(double seconds);

}  // namespace common

#endif  // COMMON_FORMAT_H_
