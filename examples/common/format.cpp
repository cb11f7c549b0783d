#include "common/format.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace common {

namespace {

template <typename... Args>
std::string format(const char* pattern, Args... args) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, args...);
    return text;
}

}  // namespace

std::string format_percent(double share) {
    return format("%.2f %%", 100 * share);
}

std::string format_duration(double seconds) {
    if (!std::isfinite(seconds) || seconds >= 1e8) {
        return "-";
    }
    const long whole = std::lround(std::max(seconds, 0.0));
    if (whole < 60) {
        return format("%ld s", whole);
    }
    if (whole < 3600) {
        return format("%ld min %02ld s", whole / 60, whole % 60);
    }
    return format("%ld h %02ld min", whole / 3600, whole / 60 % 60);
}

}  // namespace common
