#include "call.h"

#include <nanobind/stl/string.h>

#include "vorn/context/context.h"

namespace vorn {
namespace python {

namespace {

/// A thread's context for its lifetime, unless a program around the interpreter has set one up.
class ThreadContextOwner {
public:
    ThreadContextOwner() : _is_ours(t_ctx == nullptr) {
        if (_is_ours) {
            init_thread_context();
        }
    }
    ~ThreadContextOwner() {
        if (_is_ours) {
            release_thread_context();
        }
    }

private:
    bool _is_ours;
};

void raise_check_error(const std::exception_ptr& error, void*) {
    try {
        std::rethrow_exception(error);
    } catch (const CheckFailed& failed) {
        const logging::CheckFailure& failure = failed.failure();
        try {
            const nb::object type = nb::module_::import_("vorn.errors").attr("CheckError");
            const nb::object raised = type(failure.message, failure.file, failure.line,
                                           failure.trace, failed.may_have_written());
            PyErr_SetObject(type.ptr(), raised.ptr());
        } catch (nb::python_error& other) {
            other.restore();
        }
    }
}

}  // namespace

thread_local bool t_is_thread_prepared = false;
static thread_local bool t_writes_early = false;

WritingEarly::WritingEarly() {
    t_writes_early = true;
}

WritingEarly::~WritingEarly() {
    t_writes_early = false;
}

static void throw_failure(const logging::CheckFailure& failure) {
    // CHECK_CALL, of a call of the platform; such calls stand between writes too.
    const bool is_of_platform = failure.message.rfind("Check failed: 0 == (", 0) == 0;
    throw CheckFailed(failure, is_of_platform || t_writes_early);
}

void prepare_new_thread() {
    logging::set_check_failure_handler(throw_failure);
    static thread_local const ThreadContextOwner context;
    t_is_thread_prepared = true;
}

void translate_failed_checks() {
    nb::register_exception_translator(raise_check_error);
}

}  // namespace python
}  // namespace vorn
