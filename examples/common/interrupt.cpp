#include "common/interrupt.h"

namespace common {

namespace {

volatile std::sig_atomic_t g_interrupted = 0;

void on_interrupt(int) {
    g_interrupted = 1;
}

}  // namespace

InterruptScope::InterruptScope() {
    g_interrupted = 0;
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    sigaction(SIGINT, &action, &_previous);
}

InterruptScope::~InterruptScope() {
    sigaction(SIGINT, &_previous, nullptr);
}

bool InterruptScope::requested() const {
    return g_interrupted != 0;
}

}  // namespace common
