#include "vorn/logging.h"

#include <execinfo.h>

#include <cstdio>
#include <cstdlib>

namespace vorn {
namespace logging {

const char* DateLogger::human_date() {
    time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    // Unsigned and below 100, so that the compiler sees that two digits do.
    const auto field = [](int value) {
        return static_cast<int>(static_cast<unsigned>(value) % 100);
    };
    snprintf(_buffer, sizeof(_buffer), "%02d:%02d:%02d", field(local.tm_hour), field(local.tm_min),
             field(local.tm_sec));
    return _buffer;
}

LogMessage::LogMessage(const char* file, int line) : _log_stream(std::cerr) {
    _log_stream << "[" << _pretty_date.human_date() << "] " << file << ":" << line << ": ";
}

LogMessage::~LogMessage() {
    _log_stream << "\n";
}

LogMessageFatal::LogMessageFatal(const char* file, int line) {
    _log_stream << "[" << _pretty_date.human_date() << "] " << file << ":" << line << ": ";
}

LogMessageFatal::~LogMessageFatal() {
    constexpr int kMaxFrames = 256;
    void* frames[kMaxFrames];
    int nframes = backtrace(frames, kMaxFrames);
    _log_stream << "\n\nStack trace returned " << nframes << " entries:\n";
    if (char** symbols = backtrace_symbols(frames, nframes)) {
        for (int i = 0; i < nframes; ++i) {
            _log_stream << "[bt] (" << i << ") " << symbols[i] << "\n";
        }
    }
    LogMessage(__FILE__, __LINE__).stream() << _log_stream.str();
    abort();
}

}  // namespace logging
}  // namespace vorn
