#include "vorn/logging.h"

#include <execinfo.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

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

static thread_local CheckFailureHandler t_check_failure_handler = nullptr;

CheckFailureHandler set_check_failure_handler(CheckFailureHandler handler) {
    return std::exchange(t_check_failure_handler, handler);
}

static std::string stack_trace() {
    constexpr int kMaxFrames = 256;
    void* frames[kMaxFrames];
    const int nframes = backtrace(frames, kMaxFrames);
    std::ostringstream trace;
    trace << "Stack trace returned " << nframes << " entries:\n";
    const std::unique_ptr<char*, decltype(&free)> symbols(backtrace_symbols(frames, nframes), free);
    if (symbols != nullptr) {
        for (int i = 0; i < nframes; ++i) {
            trace << "[bt] (" << i << ") " << symbols.get()[i] << "\n";
        }
    }
    return trace.str();
}

LogMessageFatal::LogMessageFatal(const char* file, int line) : _file(file), _line(line) {}

LogMessageFatal::~LogMessageFatal() noexcept(false) {
    const CheckFailure failure{_file, _line, _log_stream.str(), stack_trace()};
    if (t_check_failure_handler != nullptr) {
        t_check_failure_handler(failure);
    }
    LogMessage(__FILE__, __LINE__).stream()
        << "[" << DateLogger().human_date() << "] " << failure.file << ":" << failure.line << ": "
        << failure.message << "\n\n"
        << failure.trace;
    abort();
}

}  // namespace logging
}  // namespace vorn
