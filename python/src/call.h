#ifndef VORN_PYTHON_CALL_H_
#define VORN_PYTHON_CALL_H_

#include <nanobind/nanobind.h>

#include <exception>

#include "vorn/logging.h"

/// What stands around each call from Python into the library.
namespace vorn {
namespace python {

namespace nb = nanobind;

/// A failed check on its way to Python, where it becomes a vorn.CheckError.
class CheckFailed : public std::exception {
public:
    CheckFailed(const logging::CheckFailure& failure, bool may_have_written)
        : _failure(failure), _may_have_written(may_have_written) {}

    const char* what() const noexcept override { return _failure.message.c_str(); }
    const logging::CheckFailure& failure() const { return _failure; }
    bool may_have_written() const { return _may_have_written; }

private:
    logging::CheckFailure _failure;
    bool _may_have_written;
};

extern thread_local bool t_is_thread_prepared;
void prepare_new_thread();

/// Gives the calling thread, on its first call, the library's context, which goes back when the
/// thread ends, and the handler that throws CheckFailed.
inline void prepare_thread() {
    if (__builtin_expect(!t_is_thread_prepared, false)) {
        prepare_new_thread();
    }
}

/// Around calls that compute: other Python threads run meanwhile.
class Computing {
public:
    Computing() {
        prepare_thread();
        _state = PyEval_SaveThread();
    }
    ~Computing() { PyEval_RestoreThread(_state); }
    Computing(const Computing&) = delete;
    Computing& operator=(const Computing&) = delete;

private:
    PyThreadState* _state;
};

/// Around what tests some of its preconditions after its first write.
class WritingEarly {
public:
    WritingEarly();
    ~WritingEarly();
    WritingEarly(const WritingEarly&) = delete;
    WritingEarly& operator=(const WritingEarly&) = delete;
};

/// Around calls that only look, and those that work on Python objects.
class Looking {
public:
    Looking() { prepare_thread(); }
};

/// Makes CheckFailed a vorn.CheckError.
void translate_failed_checks();

}  // namespace python
}  // namespace vorn

#endif  // VORN_PYTHON_CALL_H_
