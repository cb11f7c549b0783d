#ifndef VORN_TESTS_VECTOR_MATH_SWEEP_H_
#define VORN_TESTS_VECTOR_MATH_SWEEP_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

#include "vorn/rules/vector_math.h"

/// Walks over all floats, or every so manieth, and compares functions with references in double.
namespace vorn {
namespace test {

constexpr std::uint64_t kAllFloats = std::uint64_t(1) << 32;

/// The float of this rank: NaN of either sign at the ends, between them ascending.
inline float float_of_rank(std::uint64_t rank) {
    const std::uint32_t r = static_cast<std::uint32_t>(rank);
    const std::uint32_t bits = r & 0x80000000u ? r ^ 0x80000000u : ~r;
    float x;
    std::memcpy(&x, &bits, sizeof x);
    return x;
}

/// |y - exact| in units in the last place of `exact`; infinite where only one of them is NaN or
/// where the signs of two zeros differ. An infinite y counts as the power of two above the floats.
inline double ulps_between(float y, double exact) {
    const double kInf = std::numeric_limits<double>::infinity();
    const float nearest = static_cast<float>(exact);
    if (std::isnan(y) || std::isnan(nearest)) {
        return std::isnan(y) == std::isnan(nearest) ? 0 : kInf;
    }
    if (y == nearest && (std::isinf(y) || y == 0)) {
        return std::signbit(y) == std::signbit(nearest) ? 0 : kInf;
    }
    int exponent;
    std::frexp(exact, &exponent);
    const double ulp = std::ldexp(1.0, std::max(exponent, -125) - 24);
    const double value = std::isinf(y) ? std::copysign(0x1p128, y) : y;
    return std::abs(value - exact) / ulp;
}

struct Sweep {
    double worst = 0.5;           ///< Greatest error in ulps where that is above a half,
    float worst_at = 0;           ///< and its argument.
    std::uint64_t tested = 0;     ///< Arguments.
    std::uint64_t differing = 0;  ///< Of them those that don't give the reference, rounded.
    std::uint64_t descents = 0;   ///< Pairs of neighbours whose values descend.
    float last_descent = 0;       ///< The argument behind one of them.

    void merge(const Sweep& other) {
        if (!(other.worst <= worst)) {
            worst = other.worst;
            worst_at = other.worst_at;
        }
        if (other.descents) {
            last_descent = other.last_descent;
        }
        tested += other.tested;
        differing += other.differing;
        descents += other.descents;
    }
};

/// `function` and `exact` at the ranks first, first + stride, ... below `last`.
template <typename F, typename Exact>
Sweep sweep_range(F function, Exact exact, std::uint64_t first, std::uint64_t last,
                  std::uint64_t stride) {
    constexpr int kBlock = 1024;
    Sweep sweep;
    float x[kBlock], y[kBlock], before = std::numeric_limits<float>::quiet_NaN();
    while (first < last) {
        int n = 0;
        for (; n < kBlock && first < last; ++n, first += stride) {
            x[n] = float_of_rank(first);
        }
        for (int i = 0; i < n; ++i) {  // vector code, as in the host loops
            y[i] = function(x[i]);
        }
        for (int i = 0; i < n; ++i) {
            const double reference = exact(x[i]);
            const bool is_same = y[i] == static_cast<float>(reference) || std::isnan(reference);
            sweep.differing += !is_same;
            // Most values are the reference rounded, which needs no closer look but at special
            // ones.
            if (!is_same || y[i] == 0 || !std::isfinite(y[i])) {
                const double error = ulps_between(y[i], reference);
                if (error > sweep.worst) {
                    sweep.worst = error;
                    sweep.worst_at = x[i];
                }
            }
            if (y[i] < before) {
                ++sweep.descents;
                sweep.last_descent = x[i];
            }
            before = y[i];
        }
        sweep.tested += n;
    }
    return sweep;
}

/// The same over all floats, on all processors. The parts meet in one float, for the descents.
template <typename F, typename Exact>
Sweep sweep_floats(F function, Exact exact, std::uint64_t stride) {
    constexpr std::uint64_t kParts = 64;
    const std::uint64_t part = kAllFloats / kParts / stride * stride;
    std::mutex mutex;
    std::uint64_t next = 0;
    Sweep whole;
    const auto work = [&] {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex);
            const std::uint64_t k = next++;
            lock.unlock();
            if (k > kParts) {
                return;
            }
            const std::uint64_t end = k == kParts ? kAllFloats : (k + 1) * part + 1;
            const Sweep sweep = sweep_range(function, exact, k * part, end, stride);
            lock.lock();
            whole.merge(sweep);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); ++i) {
        threads.emplace_back(work);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return whole;
}

struct SweptFunction {
    const char* name;
    double bound;  ///< of the error in ulps
    bool is_monotone;
    Sweep (*sweep)(std::uint64_t stride);
};

inline void PrintTo(const SweptFunction& function, std::ostream* os) {
    *os << function.name;
}

inline const SweptFunction kSweptFunctions[] = {
    {"exp", 1, true,
     [](std::uint64_t stride) {
         return sweep_floats([](float x) { return cpu::exp(x); },
                             [](double x) { return std::exp(x); }, stride);
     }},
    {"log", 1, true,
     [](std::uint64_t stride) {
         return sweep_floats([](float x) { return cpu::log(x); },
                             [](double x) { return std::log(x); }, stride);
     }},
    {"tanh", 2, true,
     [](std::uint64_t stride) {
         return sweep_floats([](float x) { return cpu::tanh(x); },
                             [](double x) { return std::tanh(x); }, stride);
     }},
    {"logistic", 2, true,
     [](std::uint64_t stride) {
         return sweep_floats([](float x) { return cpu::logistic(x); },
                             [](double x) {
                                 return 1 / (1 + std::exp(x > 64 ? -64 : x < -64 ? 64 : -x));
                             },
                             stride);
     }},
    {"pow", 2, false,  // on a grid
     [](std::uint64_t stride) {
         Sweep all;
         for (float p :
              {-12.25f, -2.0f, -0.5f, 1e-3f, 0.3f, 0.5f, 1.0f, 1.75f, 2.0f, 3.0f, 25.0f}) {
             all.merge(sweep_floats([=](float x) { return cpu::pow(x, p); },
                                    [=](double x) { return std::pow(x, static_cast<double>(p)); },
                                    stride * 97));
         }
         return all;
     }},
};

/// Of the functions for some of the floats against those for all.
inline Sweep sweep_short_forms(std::uint64_t stride) {
    const auto normal = [](float x) { return x < std::numeric_limits<float>::min() ? 1 : x; };
    const auto negative = [](float x) { return x > 0 ? -x : x; };
    Sweep sweep = sweep_floats(
        [=](float x) { return cpu::log_of_normal(normal(x)); },
        [=](double x) -> double { return cpu::log(normal(static_cast<float>(x))); }, stride);
    sweep.merge(sweep_floats(
        [=](float x) { return cpu::exp_of_negative(negative(x)); },
        [=](double x) -> double { return cpu::exp(negative(static_cast<float>(x))); }, stride));
    return sweep;
}

/// Of `cpu::logistic` against its steps in double, from its own exponential on.
inline Sweep sweep_logistic_steps(std::uint64_t stride) {
    const auto in_double = [](double x) -> double {
        const float e = cpu::limited_exp(-static_cast<float>(x), -64, 64);
        return static_cast<float>(1 / (1.0 + e));
    };
    return sweep_floats([](float x) { return cpu::logistic(x); }, in_double, stride);
}

}  // namespace test
}  // namespace vorn

#endif  // VORN_TESTS_VECTOR_MATH_SWEEP_H_
