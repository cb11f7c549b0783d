#include "vector_math_sweep.h"

#include <cstdio>
#include <cstdlib>

// Shows the errors of rules/vector_math.h over all floats, or over every argv[1]th.
int main(int argc, char** argv) {
    using namespace vorn::test;
    using Count = unsigned long long;
    const std::uint64_t stride = argc > 1 ? std::max(1l, std::atol(argv[1])) : 1;
    bool is_good = true;
    for (const SweptFunction& f : kSweptFunctions) {
        const Sweep s = f.sweep(stride);
        const bool is_within = s.worst <= f.bound && !(f.is_monotone && s.descents);
        is_good &= is_within;
        std::printf("%-8s %11llu arguments, %.3f %% rounded right, worst %.4f ulp at %a", f.name,
                    Count(s.tested), 100 - 100.0 * s.differing / s.tested, s.worst, s.worst_at);
        if (f.is_monotone) {
            std::printf(", %llu descents", Count(s.descents));
        }
        std::printf(is_within ? "\n" : ": FAILED\n");
        std::fflush(stdout);
    }
    const Sweep steps = sweep_logistic_steps(stride);
    const bool is_within = steps.differing <= 1e-6 * steps.tested && steps.worst <= 1;
    std::printf("logistic against its steps in double: %llu differ, by %.0f ulp at most%s\n",
                Count(steps.differing), steps.worst, is_within ? "" : ": FAILED");
    return is_good && is_within ? 0 : 1;
}
