#ifndef COMMON_INTERRUPT_H_
#define COMMON_INTERRUPT_H_

#include <csignal>

namespace common {

/// Turns the first Ctrl-C (SIGINT) within a scope into a request; a second one ends the program.
class InterruptScope {
public:
    InterruptScope();
    ~InterruptScope();
    InterruptScope(const InterruptScope&) = delete;
    InterruptScope& operator=(const InterruptScope&) = delete;

    bool requested() const;

private:
    struct sigaction _previous;
};

}  // namespace common

#endif  // COMMON_INTERRUPT_H_
