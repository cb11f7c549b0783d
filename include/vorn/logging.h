#ifndef VORN_LOGGING_H_
#define VORN_LOGGING_H_

#include <ctime>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

/// Log lines, fatal messages and the check macros with which every precondition of the library is
/// written.
///
/// A violated precondition and a failed platform call are programming or environment errors: the
/// process logs them with a stack trace and calls abort(). Nothing is thrown, no operation returns
/// an error code, and no operation goes on after a failed check. Checks stay on in optimised
/// builds; one that holds costs its test only. A program that has to survive them, such as an
/// interpreter, sets a handler by `set_check_failure_handler`.
namespace vorn {
namespace logging {

/// Declared for programs around the library; the library itself never throws it.
struct Error : public std::runtime_error {
    explicit Error(const std::string& what) : std::runtime_error(what) {}
    ~Error() override = default;
};

/// Formats the time of a log line.
class DateLogger {
public:
    /// The present local time as HH:MM:SS. The text lives as long as this object.
    const char* human_date();

private:
    char _buffer[9];
};

/// One line on standard error: `[HH:MM:SS] file:line: ` and what is streamed after it.
class LogMessage {
public:
    LogMessage(const char* file, int line);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    std::ostream& stream() { return _log_stream; }

private:
    std::ostream& _log_stream;
    DateLogger _pretty_date;
};

/// What is known of a failed check.
struct CheckFailure {
    const char* file;     ///< of the check
    int line;             ///< of the check
    std::string message;  ///< "Check failed: ..." and what was streamed after it
    std::string trace;    ///< "Stack trace returned N entries:" and a line for each
};

/// Called on the thread of the check, in place of the log. If it throws, the exception leaves the
/// operation; if it returns, the failure is logged and the process aborts.
using CheckFailureHandler = void (*)(const CheckFailure&);

/// Sets the calling thread's handler and returns the one before; nullptr, which each thread starts
/// with, is none. Checks stand before the first write, so that tensors are as they were where the
/// handler throws; what an operation can only see half-way (a platform call that fails, the
/// contents of a file) may leave its outputs partly written. The process still aborts where an
/// exception can't pass: in a destructor (a Buffer's last holder, ThreadContextScope), where the
/// exception ends in std::terminate, and on threads without a handler.
CheckFailureHandler set_check_failure_handler(CheckFailureHandler handler);

/// Collects a message; the destructor hands it to the thread's CheckFailureHandler. If there is
/// none or it returns, it writes the message in one streaming statement, with a stack trace after
/// it, and calls abort().
class LogMessageFatal {
public:
    LogMessageFatal(const char* file, int line);
    [[noreturn]] ~LogMessageFatal() noexcept(false);
    LogMessageFatal(const LogMessageFatal&) = delete;
    LogMessageFatal& operator=(const LogMessageFatal&) = delete;

    std::ostream& stream() { return _log_stream; }

private:
    const char* _file;
    int _line;
    std::ostringstream _log_stream;
};

/// Gives a streaming expression the type void, so that a check is an expression: `&` binds weaker
/// than `<<` and stronger than `?:`.
struct Voidify {
    void operator&(std::ostream&) const {}
};

}  // namespace logging
}  // namespace vorn

#define LOG_ERROR ::vorn::logging::LogMessage(__FILE__, __LINE__).stream()

#define LOG_FATAL ::vorn::logging::LogMessageFatal(__FILE__, __LINE__).stream()

// The failure text is one literal, so that it can be found in the binary.
#define VORN_CHECK_IMPL(cond, text) \
    __builtin_expect(!!(cond), 1) ? (void)0 : ::vorn::logging::Voidify() & LOG_FATAL << text " "

#define CHECK(expr) VORN_CHECK_IMPL(expr, "Check failed: " #expr)
#define CHECK_EQ(a, b) VORN_CHECK_IMPL((a) == (b), "Check failed: (" #a ") == (" #b ")")
#define CHECK_LT(a, b) VORN_CHECK_IMPL((a) < (b), "Check failed: (" #a ") < (" #b ")")
#define CHECK_LE(a, b) VORN_CHECK_IMPL((a) <= (b), "Check failed: (" #a ") <= (" #b ")")
#define CHECK_GT(a, b) VORN_CHECK_IMPL((a) > (b), "Check failed: (" #a ") > (" #b ")")
#define CHECK_GE(a, b) VORN_CHECK_IMPL((a) >= (b), "Check failed: (" #a ") >= (" #b ")")
#define CHECK_NOTNULL(p) VORN_CHECK_IMPL(nullptr != (p), "Check notnull: " #p)
#define CHECK_MATRIX(t) \
    VORN_CHECK_IMPL((t).get_dim() == (2), "Check failed: (" #t ").get_dim() == (2)")
#define CHECK_SAME_DEVICE(a, b)                                          \
    VORN_CHECK_IMPL(is_same_devices((a).get_device(), (b).get_device()), \
                    "Check failed: is_same_devices((" #a ").get_device(), (" #b ").get_device())")

/// For platform calls, whose success is 0. A call that fails is made a second time, to get the
/// status from which the text after the message is made; needs util/gpu_util.h.
#define CHECK_CALL(call)                                           \
    VORN_CHECK_IMPL(0 == (call), "Check failed: 0 == (" #call ")") \
        << ::vorn::gpu_get_error_string(call)

#endif  // VORN_LOGGING_H_
