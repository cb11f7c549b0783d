#include "harness.h"

#include <setjmp.h>
#include <signal.h>

#include <algorithm>
#include <iostream>

// A shape may ask for 8 GiB. That is legal and not what is looked for: allocations of more than
// 32 MiB fail, with the fatal check of a failed allocation.
extern "C" const char* __asan_default_options() {
    return "max_allocation_size_mb=32:allocator_may_return_null=1:detect_leaks=0:handle_abort=0";
}

// The stack trace of a fatal check would take most of the time, and is never freed.
extern "C" int backtrace(void**, int) {
    return 0;
}
extern "C" char** backtrace_symbols(void* const*, int) {
    return nullptr;
}

namespace vorn {
namespace fuzz {

static sigjmp_buf fatal_check;
static volatile sig_atomic_t in_call = 0;

static void on_abort(int) {
    if (in_call) {
        siglongjmp(fatal_check, 1);
    }
    signal(SIGABRT, SIG_DFL);
}

bool returns(const std::function<void()>& call) {
    static std::stringbuf log;
    log.str("");
    std::streambuf* const cerr_buffer = std::cerr.rdbuf(&log);
    signal(SIGABRT, on_abort);
    const bool returned = sigsetjmp(fatal_check, 1) == 0;
    if (returned) {
        in_call = 1;
        call();
    }
    in_call = 0;
    std::cerr.rdbuf(cerr_buffer);
    // An abort that is not the log's comes from elsewhere.
    require(returned || log.str().find("Stack trace returned") != std::string::npos,
            "a fatal check ended the call");
    return returned;
}

void require(bool holds, const char* what) {
    if (!holds) {
        std::cerr << "Not so: " << what << std::endl;
        __builtin_trap();
    }
}

void require_same_file(const std::string& written, const std::string& input, size_t head) {
    require(written.size() >= head, "the head is written");
    // Only whole elements are read.
    const size_t in_file = input.size() < head
                               ? input.size()
                               : std::min(written.size(), head + (input.size() - head) / 4 * 4);
    require(written.compare(0, in_file, input, 0, in_file) == 0, "what was read is written");
    require(written.find_first_not_of('\0', in_file) == std::string::npos, "the rest is zero");
}

}  // namespace fuzz
}  // namespace vorn
