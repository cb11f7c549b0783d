#include "strict.h"

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "block_runner.h"
#include "memory.h"
#include "sanitizer.h"

namespace gpusim {

namespace {

bool configured_strictness() {
    const char* text = std::getenv("GPUSIM_STRICT");
    if (text == nullptr || std::strcmp(text, "0") == 0) {
        return false;
    }
    if (std::strcmp(text, "1") == 0) {
        return true;
    }
    std::fprintf(stderr, "gpusim: GPUSIM_STRICT is 0 or 1, not '%s'\n", text);
    std::abort();
}

constexpr int kSignals[] = {SIGSEGV, SIGBUS};
struct sigaction actions_before[2];

// The process ends here, so that what a handler must not call can do no more harm.
void report(int number, siginfo_t* info, void*) {
    if (const BlockRunner* runner = BlockRunner::current()) {
        std::fprintf(stderr, "gpusim: %s: an access that is misaligned or outside of memory\n",
                     runner->running_thread().c_str());
    } else if (Memory::get().arena().contains(info->si_addr)) {
        std::fprintf(stderr, "gpusim: host code touches device memory at %p\n", info->si_addr);
    }
    // The access happens again, and what would have handled it does.
    for (size_t i = 0; i < 2; ++i) {
        if (kSignals[i] == number) {
            sigaction(number, &actions_before[i], nullptr);
        }
    }
}

}  // namespace

bool strict() {
    static const bool value = configured_strictness();
    return value;
}

void report_illegal_accesses() {
    // The sanitizers have reports of their own.
    if (!strict() || kSanitizer) {
        return;
    }
    struct sigaction action {};
    action.sa_sigaction = report;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < 2; ++i) {
        sigaction(kSignals[i], &action, &actions_before[i]);
    }
}

}  // namespace gpusim
