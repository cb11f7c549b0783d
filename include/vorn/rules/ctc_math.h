#ifndef VORN_RULES_CTC_MATH_H_
#define VORN_RULES_CTC_MATH_H_

#include <cfloat>

#include "vorn/host_device.h"
#include "vorn/rules/scalar_math.h"

/// Arithmetic on natural logarithms of probabilities, for host and device.
namespace vorn {

/// The log of zero in CTC tables. Only this exact value counts as zero, so nothing is ever added
/// to it.
constexpr float CTC_LOG_ZERO = -1e30f;
/// The log of a division by zero.
constexpr float CTC_LOG_INF = 1e30f;
/// From here on, just above the logarithm of the largest float, exponentials saturate.
constexpr float CTC_EXP_LIMIT = 88.722839f;
/// Below this an exponential is less than half of the distance from 1 to the next float.
constexpr float CTC_EXP_LOST = -17.0f;

namespace func {

/// log(exp(a) exp(b))
VORN_HD inline float ctc_log_mul(float a, float b) {
    return a == CTC_LOG_ZERO || b == CTC_LOG_ZERO ? CTC_LOG_ZERO : a + b;
}

/// log(exp(a) / exp(b)), where 0 / 0 is 0.
VORN_HD inline float ctc_log_sub(float a, float b) {
    if (a == CTC_LOG_ZERO) {
        return CTC_LOG_ZERO;
    }
    return b == CTC_LOG_ZERO ? CTC_LOG_INF : a - b;
}

/// exp(x), limited to the finite floats.
VORN_HD inline float ctc_safe_exp(float x) {
    if (x <= CTC_LOG_ZERO) {
        return 0.0f;
    }
    return x >= CTC_EXP_LIMIT ? FLT_MAX : math::exp(x);
}

/// log(exp(x) + exp(y)) = larger + log(1 + exp(smaller - larger)), with the bits of
///
///     ctc_log_mul(larger, log(1 + ctc_safe_exp(ctc_log_sub(smaller, larger))))
///
/// A smaller one that is log zero is as far below as any that is lost in the sum.
VORN_HD inline float ctc_log_add(float x, float y) {
    const float larger = x < y ? y : x, smaller = x < y ? x : y;
    if (larger == CTC_LOG_ZERO) {
        return CTC_LOG_ZERO;
    }
    const float distance = smaller - larger;
    if (distance < CTC_EXP_LOST) {
        return larger + 0.0f;
    }
    return larger + math::softplus_of_negative(distance);
}

}  // namespace func
}  // namespace vorn

#endif  // VORN_RULES_CTC_MATH_H_
