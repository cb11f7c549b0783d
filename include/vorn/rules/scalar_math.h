#ifndef VORN_RULES_SCALAR_MATH_H_
#define VORN_RULES_SCALAR_MATH_H_

#include <cmath>

#include "vorn/host_device.h"
#include "vorn/rules/vector_math.h"

/// The elementary functions of the rules that host and device share: on the host those of
/// rules/vector_math.h, compiled for a device CUDA's own. Kernels on the simulator are host code.
namespace vorn {
namespace math {

#ifdef __CUDA_ARCH__
#define VORN_HOST_OR_DEVICE(on_host, on_device) return on_device
#else
#define VORN_HOST_OR_DEVICE(on_host, on_device) return on_host
#endif

VORN_HD inline float exp(float x) {
    VORN_HOST_OR_DEVICE(cpu::exp(x), expf(x));
}

/// exp(x) with x limited to [lo, hi], for -87 <= lo < 0 < hi <= 88. NaN stays NaN.
VORN_HD inline float limited_exp(float x, float lo, float hi) {
    VORN_HOST_OR_DEVICE(cpu::limited_exp(x, lo, hi), expf(x > hi ? hi : x < lo ? lo : x));
}

VORN_HD inline float log(float x) {
    VORN_HOST_OR_DEVICE(cpu::log(x), logf(x));
}

/// log(1 + exp(x)) for -87 <= x <= 0 and NaN.
VORN_HD inline float softplus_of_negative(float x) {
    VORN_HOST_OR_DEVICE(cpu::softplus_of_negative(x), logf(1.0f + expf(x)));
}

VORN_HD inline float tanh(float x) {
    VORN_HOST_OR_DEVICE(cpu::tanh(x), tanhf(x));
}

VORN_HD inline float pow(float x, float y) {
    VORN_HOST_OR_DEVICE(cpu::pow(x, y), powf(x, y));
}

/// 1 / (1 + exp(-x)) with x limited to [-64, 64], all but the exponential as in double and rounded
/// once.
VORN_HD inline float logistic(float x) {
    VORN_HOST_OR_DEVICE(cpu::logistic(x),
                        static_cast<float>(1 / (1.0 + limited_exp(-x, -64.0f, 64.0f))));
}

#undef VORN_HOST_OR_DEVICE

}  // namespace math
}  // namespace vorn

#endif  // VORN_RULES_SCALAR_MATH_H_
